// The parts are made in the order in which they refer to each other, and stop in another: links first, so that
// neighbours hear of it while routes are still there; then the module; the forwarder last, so that it is told what the
// module gives up on its way. Everything runs on the main thread with the scheduling locks.
#include "host/daemon/router.h"

#include <utility>

#include "platform/reference/module.h"

namespace host {

Router::Router(Loop &loop, const LoadedModule &module, Options options)
    : module_(module),
      links_(loop, options.capture, options.recovering, *options.events, options.log),
      forwarding_(
          loop, *options.events, options.log, [this](const std::string &name) { platform_.follow_interface(name); },
          options.recovering),
      platform_({running_, absent_, module_, forwarding_},
                {options.clock_scale, std::move(options.follow_metrics), options.log}),
      vrfs_({running_, absent_, module_, platform_}, options.log),
      transactions_({running_, module_, platform_, vrfs_, links_, forwarding_, options.offline}) {}

void Router::stop() {
  links_.close();
  module_.stop();
  // The customers' routes that go with the forwarder are no concern of a module that has stopped: it would give their
  // groups back to an MRIB that it has left, and report each refusal.
  ref::set_module({});
  forwarding_.close();
}

void Router::settle() {
  forwarding_.settle();
  vrfs_.settle();
  platform_.settle();
}

}  // namespace host

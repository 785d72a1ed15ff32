// A started module with one VRF, made once for all inputs of a process. An input's effects stay, as they would in a
// router, so what an input meets depends on those before it.
#include "fuzzers/fuzz_world.h"

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "platform/reference/bgp.h"
#include "platform/reference/cli.h"
#include "platform/reference/croute.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/module.h"
#include "platform/reference/pim.h"
#include "platform/reference/runtime.h"
#include "routing/pim/mvpn/mvpn.h"
#include "tests/support/linked_module.h"

namespace fuzz {
namespace {

class NoSink : public ref::CliSink {
 public:
  void text(std::string_view) override {}
};

void command(const char *handler, std::vector<ref::CliArgument> arguments) {
  ref::CliInvocation invocation;
  invocation.handler = handler;
  invocation.vrf_name = "red";
  invocation.arguments = std::move(arguments);
  NoSink sink;
  if (ref::cli_invoke(invocation, sink) != CLI_RESULT_OK) {
    std::fprintf(stderr, "%s is refused\n", handler);
    std::abort();
  }
}

ref::CustomerRoute customer_route(ip_addr_t source, ip_addr_t group) {
  ref::CustomerRoute route;
  route.addrs = {
      source, group, static_cast<uint8_t>(source != 0 ? MROUTE_HOST_LEN : MROUTE_ANY_SOURCE_LEN), MROUTE_HOST_LEN, {}};
  route.rpf_neighbor = 0x0A000002;
  route.oifs = {"customer0"};
  return route;
}

// At the end of the process: what is left afterwards has leaked.
void stop() {
  ref::set_feature_configured(false);
  mvpn_deinit(1);
  if (!ref::wait_for_threads()) std::abort();
  ref::reset();
}

void start() {
  ref::reset();
  ref::set_module(linked_module());
  ref::set_log_sink(ref::LogSink::none);
  ref::clock_use_real(1);
  ref::create_interface("loopback0", VRF_CONTEXT_ID_DEFAULT, 0x0A000001, true);
  ref::bgp_set_update_source("loopback0", false);
  if (mvpn_init() != 1) std::abort();
  mvpn_init_cli();
  ref::enable_interface_events(true);
  ref::create_vrf("red", 2, 2);
  const uint8_t rd[ROUTE_DISTINGUISHER_SIZE] = {0, 0, 0, 1, 0, 0, 0, 1};
  ref::bgp_set_rd("red", rd, false);
  ref::create_interface("customer0", 2, 0x0A030001, true);
  command("mdt_default_cmd", {{"<mdt-default>", "239.1.1.1"}});
  command("mdt_data_cmd", {{"<prefix>", "239.2.0.0/24"}});
  for (int i = 0; i < 1000 && mvpn_get_context("red")->mti_status != MVPN_MTI_UP; i++) deliver();
  if (mvpn_get_context("red")->mti_status != MVPN_MTI_UP) std::abort();
  ref::set_customer_route("red", customer_route(0x0A030101, 0xE1010101));
  ref::set_customer_route("red", customer_route(0, 0xE1010102));
  deliver();
  std::atexit(stop);
}

}  // namespace

mvpn_cibtype *red() {
  static const bool started = (start(), true);
  (void)started;
  return mvpn_get_context("red");
}

void deliver() {
  ref::run_pending();
  ref::main_release();
  std::this_thread::yield();
  ref::main_acquire();
  ref::run_pending();
}

}  // namespace fuzz

// A view of the module, with what the host knows beside it: why a VRF is not up, and why there is nothing to show.
#ifndef HOST_DAEMON_MODULE_VIEW_H
#define HOST_DAEMON_MODULE_VIEW_H

#include <string>
#include <vector>

#include "host/daemon/router.h"
#include "host/language/grammar.h"
#include "host/output/listing.h"
#include "platform/reference/cli.h"

namespace host {

// Passes on what the module's handler prints and records. The module's text stays as it is; the host's comes behind it.
class ModuleView : public ref::CliSink {
 public:
  // All outlive it.
  ModuleView(const Router &router, const Statement &statement, output::Writer &next);

  void text(std::string_view text) override;
  void value(const ref::CliValue &value) override;
  bool more() override { return next_.more(); }

  // The handler has returned.
  void finish();

 private:
  void note(const std::string &text);

  const Router &router_;
  const Statement &statement_;
  output::Writer &next_;
  const bool of_status_;            // the view is `show mvpn mdt`
  std::string vrf_;                 // whose record is being recorded
  std::vector<std::string> notes_;  // that are to come behind the module's text
};

}  // namespace host

#endif  // HOST_DAEMON_MODULE_VIEW_H

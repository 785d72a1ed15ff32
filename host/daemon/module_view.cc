// Stands between a handler of the module and the writer of a form. The module's text passes untouched; what the host
// knows besides is recorded at its place in the record, and told in text when the handler has returned.
#include "host/daemon/module_view.h"

#include "host/daemon/readiness.h"

namespace host {
namespace {

std::string sentence(const std::string &vrf, const std::string &reason) {
  return "VRF " + vrf + " is not Up: " + reason;
}

}  // namespace

ModuleView::ModuleView(const Router &router, const Statement &statement, ref::CliSink &next)
    : router_(router), statement_(statement), next_(next), of_status_(statement.handler == "mvpn_show_mdt_cmd") {}

void ModuleView::text(std::string_view text) { next_.text(text); }

void ModuleView::value(const ref::CliValue &value) {
  next_.value(value);
  if (value.element == CLI_ELEMENT_VRF_NAME) vrf_ = value.text;
  if (value.element != CLI_ELEMENT_VRF_MTI_STATUS || !of_status_) return;
  const std::string reason = why_not_up(router_, vrf_);
  if (reason.empty()) return;
  ref::CliValue added;
  added.element = CLI_ELEMENT_VRF_NOT_UP_REASON;
  added.text = reason;
  next_.value(added);
  notes_.push_back(sentence(vrf_, reason));
}

void ModuleView::finish() {
  if (!router_.running().feature_mvpn()) return note("MVPN is switched off: the configuration says 'no feature mvpn'");
  if (!of_status_) return;
  const std::string *asked = find_argument(statement_, "vrf");
  if (vrf_.empty() && asked != nullptr) return note(sentence(*asked, why_not_up(router_, *asked)));
  for (const std::string &text : notes_) next_.text(text + "\n");
}

void ModuleView::note(const std::string &text) {
  output::Listing listing(next_);
  listing.note(text);
}

}  // namespace host

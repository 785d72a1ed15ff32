// Stands between a handler of the module and the writer of a form. The module's text passes untouched; what the host
// knows besides is recorded at its place in the record, and told in text when the handler has returned.
#include "host/daemon/module_view.h"

#include "host/daemon/readiness.h"

namespace host {
namespace {

std::string sentence(const std::string &vrf, const std::string &reason) {
  return "VRF " + vrf + " is not Up: " + reason;
}

// What a view of the module consists of: a record of the document, or those of a VRF, whose record comes with them.
struct Consists {
  const char *handler;
  const char *keyword;  // of the command; null: any
  cli_record record;
};
constexpr Consists kConsists[] = {
    {"mvpn_show_mdt_cmd", nullptr, CLI_RECORD_DATA_RANGE},
    {"mvpn_show_mdt_route_cmd", nullptr, CLI_RECORD_ROUTE},
    {"mvpn_show_mdt_encap_cmd", nullptr, CLI_RECORD_ENCAP},
    {"mvpn_show_mdt_send_cmd", nullptr, CLI_RECORD_SENT},
    {"mvpn_show_mdt_receive_cmd", nullptr, CLI_RECORD_RECEIVED},
    {"mvpn_show_internal_ha_cmd", nullptr, CLI_RECORD_PERSISTED},
    {"mvpn_show_mdt_bgp_cmd", nullptr, CLI_RECORD_SAFI},
    {"mvpn_show_bgp_auto_discovery_cmd", nullptr, CLI_RECORD_SAFI},
    {"mvpn_show_internal_mrib_txlist_cmd", "mrib-buffers", CLI_RECORD_USED_BUFFER},
    {"mvpn_show_internal_mrib_txlist_cmd", "mrib-buffers", CLI_RECORD_FREE_BUFFER},
    {"mvpn_show_internal_mrib_txlist_cmd", "mrib-txlist", CLI_RECORD_TRANSMIT_OBJECT},
};

void promise_records(const Statement &statement, output::Writer &writer) {
  for (const Consists &part : kConsists) {
    if (statement.handler != part.handler) continue;
    if (part.keyword != nullptr && find_argument(statement, part.keyword) == nullptr) continue;
    const output::SchemaRecord &record = output::record_of(part.record);
    if (record.parent != CLI_RECORD_DOCUMENT) writer.promise(output::record_of(record.parent));
    writer.promise(record);
  }
}

}  // namespace

ModuleView::ModuleView(const Router &router, const Statement &statement, output::Writer &next)
    : router_(router), statement_(statement), next_(next), of_status_(statement.handler == "mvpn_show_mdt_cmd") {
  promise_records(statement, next);
}

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

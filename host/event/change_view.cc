// Every kind of change fits one row: columns that a kind has no use for stay empty. `monitor` sends the same row as a
// JSON document without line breaks, so that a reader may take it line by line.
#include "host/event/change_view.h"

#include "host/language/values.h"
#include "host/output/output.h"
#include "host/output/wall_time.h"

namespace host {
namespace {

using output::Cell;
using output::Row;

Cell text_cell(const std::string &text) { return text.empty() ? Cell() : Cell(text); }
Cell address_cell(uint32_t address) { return address == 0 ? Cell() : Cell(address_text(address)); }

// What the kinds of changes have in common, under one name each.
struct Parts {
  Cell vrf = {}, name = {}, before = {}, after = {};
  Cell source = {}, group = {}, customer_source = {}, customer_group = {}, rd = {};
  Cell pe = {}, default_group = {}, neighbor = {};
};

struct ToParts {
  Parts operator()(const VrfChange &change) const {
    return {.vrf = change.vrf,
            .before = text_cell(change.before),
            .after = text_cell(change.after),
            .default_group = address_cell(change.group)};
  }
  Parts operator()(const TunnelChange &change) const {
    return {.vrf = change.vrf,
            .name = change.name,
            .before = change.before,
            .after = change.after,
            .source = address_cell(change.source),
            .group = address_cell(change.group)};
  }
  Parts operator()(const PeChange &change) const {
    return {.vrf = text_cell(change.vrf()),
            .after = change.joined ? "joined" : "left",
            .rd = change.rd(),
            .pe = address_cell(change.address),
            .default_group = address_cell(change.group)};
  }
  Parts operator()(const SessionChange &change) const {
    return {.before = change.before, .after = change.after, .neighbor = address_text(change.neighbor)};
  }
  Parts operator()(const DataMdtChange &change) const {
    const bool flow = change.sent;
    return {.vrf = change.vrf,
            .name = flow ? "sent" : "received",
            .after = change.in_use ? "joined" : "left",
            .source = address_cell(change.source),
            .group = address_cell(change.group),
            .customer_source = !flow                         ? Cell()
                               : change.customer_source == 0 ? Cell("*")
                                                             : Cell(address_text(change.customer_source)),
            .customer_group = address_cell(change.customer_group)};
  }
  Parts operator()(const ServiceChange &change) const {
    return {.name = change.name, .before = text_cell(change.before), .after = text_cell(change.after)};
  }
  Parts operator()(const CommandChange &change) const { return {.name = change.line}; }
};

std::string line_of(const std::string &hostname, const output::View &view, const Row &row) {
  std::string text;
  const auto writer = output::json_line_writer(
      [&text](std::string_view part) {
        text += part;
        return true;
      },
      output::header_now(hostname));
  output::Listing listing(*writer);
  listing.begin(view);
  listing.row(row);
  writer->finish();
  return text;
}

}  // namespace

Row row_of(const Change &change) {
  const Parts parts = std::visit(ToParts{}, change.what);
  return {kind_of(change),
          output::wall_time(change.when),
          std::string(name_of(change.level)),
          parts.vrf,
          parts.name,
          parts.before,
          parts.after,
          parts.source,
          parts.group,
          parts.customer_source,
          parts.customer_group,
          parts.rd,
          text_cell(change.reason),
          text_cell(change.by),
          text_of(change),
          parts.pe,
          parts.default_group,
          parts.neighbor};
}

std::string document_of(const std::string &hostname, const Change &change) {
  return line_of(hostname, output::kChanges, row_of(change));
}

std::string missed_document(const std::string &hostname, uint64_t missed) {
  return line_of(hostname, output::kMissedChanges, {missed});
}

}  // namespace host

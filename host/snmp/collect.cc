// An SNMP agent answers in the order of object identifiers; the handlers' get-next has an order of its own, and an
// operator's question in the middle of a walk must not depend on where the rows stood before. So a table is collected
// as a whole and sorted.
//
// Get-next alone does not meet every row of every table, which decides how each is collected:
//
//   default, data, generic, tunnel   get-next from nothing, then from each row to the next.
//   join receive   get-next from nothing sees the first VRF only, which may have no row: the walk starts in each VRF.
//   core routes    a VRF's first row is the one behind the last possible index of the VRF before it; an index of zeros
//                  would pass over the routes of any source. A row of a remote route may show the direction of a local
//                  one, and get-next from an index that no route matches skips the other routes of that source: both
//                  directions are asked, and the nearer answer is the row that follows.
//   join send      get-next compares group and source each by itself and returns to rows that were there already.
//   BGP update     get-next is empty at an entry whose group no VRF uses, and more may stand behind it.
//
// The last two take their indexes from the listing of the same records and each row by get.
//
// Invariants: a walk goes on only with an index that was not seen before, so it ends after as many questions as there
// are rows; the number of rows and the time are bounded besides. The time is looked at between questions.
#include "host/snmp/collect.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <deque>
#include <set>
#include <tuple>

#include "platform/cli_schema.h"
#include "platform/reference/cli.h"

namespace host::snmp {
namespace {

using Arguments = std::vector<ref::CliArgument>;

constexpr size_t kLongestText = 64;                      // characters of a text in an index; names are shorter
constexpr const char *kLastAddress = "255.255.255.255";  // no index comes behind it
constexpr const char *kIpv4 = "1";
constexpr const char *kDirections[] = {"1", "2"};

class RowSink : public ref::CliSink {
 public:
  void text(std::string_view) override {}
  void value(const ref::CliValue &value) override { values.emplace_back(value.element, value.text); }
  Values values;
};

using AddressPair = std::pair<std::string, std::string>;  // source, group

// Pairs of addresses of a listing, up to a number.
class PairSink : public ref::CliSink {
 public:
  PairSink(const Listing &listing, size_t most) : listing_(listing), most_(most) {}
  void text(std::string_view) override {}
  void value(const ref::CliValue &value) override {
    if (value.element == listing_.source) source_ = value.text;
    if (value.element == listing_.group && pairs.size() < most_) pairs.emplace_back(source_, value.text);
  }
  bool more() override { return pairs.size() < most_; }
  std::vector<AddressPair> pairs;

 private:
  const Listing &listing_;
  size_t most_;
  std::string source_;
};

Values run(const char *handler, Arguments arguments, bool getnext) {
  ref::CliInvocation invocation;
  invocation.handler = handler;
  invocation.arguments = std::move(arguments);
  invocation.interactive = false;
  invocation.getnext = getnext;
  RowSink sink;
  ref::cli_invoke(invocation, sink);
  return std::move(sink.values);
}

bool append_text(const std::string &text, std::vector<uint32_t> *index) {
  if (text.size() > kLongestText) return false;
  index->push_back(static_cast<uint32_t>(text.size()));
  for (const char letter : text) index->push_back(static_cast<unsigned char>(letter));
  return true;
}

bool append_address(const std::string &text, std::vector<uint32_t> *index) {
  const auto address = to_address(text);
  if (!address) return false;
  for (int shift = 24; shift >= 0; shift -= 8) index->push_back(*address >> shift & 0xFF);
  return true;
}

bool append_number(const std::string &text, std::vector<uint32_t> *index) {
  const auto number = to_number(text);
  if (number) index->push_back(*number);
  return number.has_value();
}

bool append_part(cli_mib_syntax syntax, const std::string &text, std::vector<uint32_t> *index) {
  switch (syntax) {
    case CLI_MIB_TEXT:
      return append_text(text, index);
    case CLI_MIB_ADDRESS:
      return append_address(text, index);
    default:
      return append_number(text, index);
  }
}

// Index arguments that name a row.
Arguments index_arguments(const Table &table, const Values &values) {
  Arguments arguments;
  for (const Column &part : table.index)
    if (const std::string *text = find_value(values, part.element)) arguments.push_back({part.argument(), *text});
  return arguments;
}

}  // namespace

// What is left to ask stands in lists: walks by their first question, listings by their VRF, rows that a listing named.
// The names of the VRFs, which most tables begin with, are a walk of their own.
class Collector::Impl {
 public:
  Impl(const Table &table, const Limits &limits);

  bool step();
  Collection take();

 private:
  std::optional<Row> ask(const Table &table, Arguments arguments, bool getnext) const;
  std::optional<Row> row_after(const Row &row) const;
  std::optional<Row> route_after(const Row &row) const;
  bool nothing_left() const;
  bool may_go_on();
  bool add(Row row);
  void take_name();
  void plan(const std::string &vrf);
  void list(const std::string &vrf);
  Arguments pair_arguments(const std::string &vrf, const AddressPair &pair) const;

  const Table &table_;
  Limits limits_;
  std::chrono::steady_clock::time_point deadline_;
  std::set<std::vector<uint32_t>> seen_;
  Collection collection_;
  // What is asked next, in this order.
  std::optional<Row> row_;                                 // of a walk, not added yet
  std::deque<std::pair<std::string, AddressPair>> pairs_;  // VRF; rows to get
  std::deque<Arguments> walks_;                            // first questions
  std::deque<std::string> listings_;                       // VRFs; empty: not of one
  std::optional<Arguments> next_name_;                     // question for the next VRF
  std::set<std::string> names_;
};

Collector::Impl::Impl(const Table &table, const Limits &limits)
    : table_(table), limits_(limits), deadline_(std::chrono::steady_clock::now() + limits.time) {
  if (table.walk == Walk::whole || table.walk == Walk::routes) walks_.push_back({});
  if (table.walk == Walk::listed && !table.listing->per_vrf)
    listings_.push_back("");
  else if (table.walk != Walk::whole)
    next_name_ = Arguments();
}

bool Collector::Impl::nothing_left() const {
  return !row_ && pairs_.empty() && walks_.empty() && listings_.empty() && !next_name_;
}

// One question, about; false when there is none left.
bool Collector::Impl::step() {
  if (nothing_left() || !may_go_on()) return false;
  if (row_) {
    const Row row = *std::exchange(row_, std::nullopt);
    if (add(row)) row_ = row_after(row);
  } else if (!pairs_.empty()) {
    const auto [vrf, pair] = std::move(pairs_.front());
    pairs_.pop_front();
    if (auto row = ask(table_, pair_arguments(vrf, pair), false)) add(std::move(*row));
  } else if (!walks_.empty()) {
    row_ = ask(table_, std::move(walks_.front()), true);
    walks_.pop_front();
  } else if (!listings_.empty()) {
    list(listings_.front());
    listings_.pop_front();
  } else {
    take_name();
  }
  return true;
}

std::optional<Row> Collector::Impl::ask(const Table &table, Arguments arguments, bool getnext) const {
  Row row;
  row.values = run(table.handler, std::move(arguments), getnext);
  auto index = to_index(table, row.values);
  if (!index) return std::nullopt;
  row.index = std::move(*index);
  return row;
}

bool Collector::Impl::may_go_on() {
  if (collection_.rows.size() >= limits_.rows || std::chrono::steady_clock::now() >= deadline_)
    collection_.complete = false;
  return collection_.complete;
}

// False for an index that is there already.
bool Collector::Impl::add(Row row) {
  const bool added = seen_.insert(row.index).second;
  if (added) collection_.rows.push_back(std::move(row));
  return added;
}

std::optional<Row> Collector::Impl::row_after(const Row &row) const {
  return table_.walk == Walk::routes ? route_after(row) : ask(table_, index_arguments(table_, row.values), true);
}

// Of two routes, the one that the VRF's tree has first; a route of the VRF itself before one of a later VRF.
static bool nearer(const Values &a, const Values &b, const std::string &vrf) {
  const auto place = [&vrf](const Values &values) {
    const std::string *name = find_value(values, CLI_ELEMENT_MIB_MROUTE_VRF);
    const std::string *source = find_value(values, CLI_ELEMENT_MIB_MROUTE_SOURCE);
    const std::string *group = find_value(values, CLI_ELEMENT_MIB_MROUTE_GROUP);
    return std::tuple(*name != vrf, to_address(*source), to_address(*group));
  };
  return place(a) < place(b);
}

std::optional<Row> Collector::Impl::route_after(const Row &row) const {
  std::optional<Row> nearest;
  for (const char *direction : kDirections) {
    Values index = row.values;
    for (auto &[element, text] : index)
      if (element == CLI_ELEMENT_MIB_MROUTE_DIRECTION) text = direction;
    std::optional<Row> next = ask(table_, index_arguments(table_, index), true);
    const std::string &vrf = *find_value(row.values, CLI_ELEMENT_MIB_MROUTE_VRF);
    if (next && (!nearest || nearer(next->values, nearest->values, vrf))) nearest = std::move(next);
  }
  return nearest;
}

void Collector::Impl::take_name() {
  const Table &vrfs = default_mdt_table();
  const std::optional<Row> row = ask(vrfs, *std::exchange(next_name_, std::nullopt), true);
  if (!row) return;
  const std::string &name = *find_value(row->values, CLI_ELEMENT_MIB_DEFAULT_VRF);
  if (!names_.insert(name).second) return;
  if (names_.size() > limits_.rows) collection_.complete = false;
  plan(name);
  next_name_ = index_arguments(vrfs, row->values);
}

// What is asked of a VRF.
void Collector::Impl::plan(const std::string &vrf) {
  if (table_.walk == Walk::per_vrf) walks_.push_back({{table_.index.front().argument(), vrf}});
  if (table_.walk == Walk::listed) listings_.push_back(vrf);
  if (table_.walk == Walk::routes) walks_.push_back(pair_arguments(vrf, {kLastAddress, kLastAddress}));
}

// Index arguments of a VRF and a pair of addresses; handlers take a direction that is absent for 1.
Arguments Collector::Impl::pair_arguments(const std::string &vrf, const AddressPair &pair) const {
  Arguments arguments;
  for (const Column &part : table_.index) {
    if (part.place == CLI_MIB_INDEX_DIRECTION) continue;
    std::string value = kIpv4;
    if (part.place == CLI_MIB_INDEX_VRF) value = vrf;
    if (part.place == CLI_MIB_INDEX_GROUP) value = pair.second;
    if (part.place == CLI_MIB_INDEX_SOURCE) value = pair.first;
    arguments.push_back({part.argument(), std::move(value)});
  }
  return arguments;
}

void Collector::Impl::list(const std::string &vrf) {
  ref::CliInvocation invocation;
  invocation.handler = table_.listing->handler;
  invocation.vrf_name = vrf;
  invocation.interactive = false;
  PairSink sink(*table_.listing, limits_.rows - collection_.rows.size());
  ref::cli_invoke(invocation, sink);
  for (AddressPair &pair : sink.pairs) pairs_.emplace_back(vrf, std::move(pair));
}

Collection Collector::Impl::take() {
  std::sort(collection_.rows.begin(), collection_.rows.end(),
            [](const Row &a, const Row &b) { return a.index < b.index; });
  return std::move(collection_);
}

Collector::Collector(const Table &table, const Limits &limits) : impl_(std::make_unique<Impl>(table, limits)) {}
Collector::~Collector() = default;
Collection Collector::take() { return impl_->take(); }

bool Collector::run_for(std::chrono::steady_clock::duration slice) {
  const auto end = std::chrono::steady_clock::now() + slice;
  while (impl_->step())
    if (std::chrono::steady_clock::now() >= end) return true;
  return false;
}

const std::string *find_value(const Values &values, int element) {
  for (const auto &[its_element, text] : values)
    if (its_element == element) return &text;
  return nullptr;
}

std::optional<uint32_t> to_number(std::string_view text) {
  int64_t number = 0;
  const char *end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc{} || stop != end) return std::nullopt;
  return static_cast<uint32_t>(number);
}

std::optional<uint32_t> to_address(const std::string &text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return ntohl(address.s_addr);
}

std::optional<std::vector<uint32_t>> to_index(const Table &table, const Values &values) {
  std::vector<uint32_t> index;
  for (const Column &part : table.index) {
    const std::string *text = find_value(values, part.element);
    if (text == nullptr || !append_part(part.syntax, *text, &index)) return std::nullopt;
  }
  return index;
}

Collection collect(const Table &table, const Limits &limits) {
  Collector collector(table, limits);
  while (collector.run_for(limits.time)) {
  }
  return collector.take();
}

std::optional<std::string> read_scalar(const Scalar &scalar) {
  const Values values = run(scalar.handler, {}, false);
  const std::string *text = find_value(values, scalar.element);
  return text != nullptr ? std::optional(*text) : std::nullopt;
}

}  // namespace host::snmp

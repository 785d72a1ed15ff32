// The tables are made by the compiler out of the lists of cli_schema.h and the views, and it checks them: numbers are
// unique, parents come before children, exactly one element of a record begins it.
//
// A thing has one record in documents, whichever view shows it: views whose records have the same name and parent share
// the record, and columns with the same number share its fields.
#include "host/output/schema.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace output {
namespace {

#define TYPE_ROW(id, name, text) {name, text},
constexpr SchemaType types[] = {CLI_TYPE_LIST(TYPE_ROW){"time", "time of day as in RFC 3339, in UTC"},
                                {"factor", "how many times as much, with a fraction"}};
#undef TYPE_ROW
static_assert(std::size(types) == kFactor + 1);

#define RECORD_ROW(id, name, parent, text) {id, name, parent, text},
constexpr SchemaRecord module_records[] = {CLI_RECORD_LIST(RECORD_ROW)};
#undef RECORD_ROW

#define ELEMENT_ROW(id, number, name, type, record, place, text) \
  {number, name, type, record, place == CLI_BEGINS, place == CLI_BEGINS, text},
constexpr SchemaElement module_elements[] = {CLI_ELEMENT_LIST(ELEMENT_ROW)};
#undef ELEMENT_ROW

// What documents call otherwise than cli_schema.h does: modules record numbers, so that the names are the host's.
struct DocumentName {
  int number;
  const char *name;
};
constexpr DocumentName document_names[] = {
    {CLI_ELEMENT_VRF_JP_INTERVAL, "pim-jp-interval-seconds"},
    {CLI_ELEMENT_VRF_DATA_JOIN_INTERVAL, "data-mdt-join-interval-seconds"},
    {CLI_ELEMENT_VRF_DATA_SWITCHOVER, "data-mdt-switchover-interval-seconds"},
    {CLI_ELEMENT_VRF_DATA_HOLDDOWN, "data-mdt-holddown-interval-seconds"},
    {CLI_ELEMENT_VRF_DATA_TIMEOUT, "data-mdt-timeout-interval-seconds"},
    {CLI_ELEMENT_ROUTE_SOURCE, "mdt-source"},
    {CLI_ELEMENT_ROUTE_GROUP, "mdt-group"},
    {CLI_ELEMENT_ROUTE_UPTIME, "uptime-seconds"},
    {CLI_ELEMENT_ENCAP_INDEX, "encapsulation-index"},
    {CLI_ELEMENT_SENT_UPTIME, "uptime-seconds"},
    {CLI_ELEMENT_RECEIVED_UPTIME, "uptime-seconds"},
    {CLI_ELEMENT_RECEIVED_EXPIRES, "expires-seconds"},
    {CLI_ELEMENT_PERSISTED_INDEX, "encapsulation-index"},
    {CLI_ELEMENT_OBJECT_SOURCE, "mdt-source"},
    {CLI_ELEMENT_OBJECT_GROUP, "mdt-group"},
    {CLI_ELEMENT_OBJECT_VRF_NAME, "vrf"},
};

// Elements and a record that say the same as others: modules number an MDT SAFI entry of the PIM view apart.
struct SameElement {
  int number, as;
};
constexpr SameElement same_elements[] = {{CLI_ELEMENT_PIM_SAFI_RD, CLI_ELEMENT_SAFI_RD},
                                         {CLI_ELEMENT_PIM_SAFI_SOURCE, CLI_ELEMENT_SAFI_SOURCE},
                                         {CLI_ELEMENT_PIM_SAFI_GROUP, CLI_ELEMENT_SAFI_GROUP},
                                         {CLI_ELEMENT_PIM_SAFI_LOCAL, CLI_ELEMENT_SAFI_LOCAL}};
constexpr RecordId kSameRecord = CLI_RECORD_PIM_SAFI;

constexpr SchemaElement in_documents(SchemaElement element) {
  for (const DocumentName &other : document_names)
    if (other.number == element.number) element.name = other.name;
  return element;
}

constexpr int number_in_documents(int number) {
  for (const SameElement &same : same_elements)
    if (same.number == number) return same.as;
  return number;
}

// Calls for each view and its lists' items.
//   record(view, parent) -> its id   column(column, record, begins)
template <typename OnRecord, typename OnColumn>
constexpr void visit_view(const View &view, RecordId parent, OnRecord record, OnColumn column) {
  const RecordId own = record(view, parent);
  for (size_t i = 0; i < view.columns.size(); i++)
    if (!is_list(view.columns[i])) column(view.columns[i], own, i == view.key);
  for (const Column &list : view.columns)
    if (is_list(list)) visit_view(*list.items, own, record, column);
}

template <typename OnRecord, typename OnColumn>
constexpr void visit_views(OnRecord record, OnColumn column) {
  for (const View *view : kViews) visit_view(*view, CLI_RECORD_DOCUMENT, record, column);
}

// At most: what views share is counted for each.
struct Size {
  size_t records = std::size(module_records);
  size_t elements = std::size(module_elements) + std::size(kHeaderColumns) + 1;
};
constexpr Size most_of_all() {
  Size size;
  visit_views([&size](const View &, RecordId) { return static_cast<RecordId>(++size.records); },
              [&size](const Column &, RecordId, bool) { size.elements++; });
  return size;
}

struct Tables {
  std::array<SchemaRecord, most_of_all().records> records{};
  std::array<SchemaElement, most_of_all().elements> elements{};
  size_t record_count = 0, element_count = 0;
  bool shared_fields_agree = true;

  constexpr void add(const SchemaRecord &record) { records[record_count++] = record; }
  constexpr void add(const SchemaElement &element) { elements[element_count++] = element; }

  constexpr RecordId record_for(const View &view, RecordId parent) {
    for (size_t i = 0; i < record_count; i++)
      if (records[i].parent == parent && std::string_view(records[i].name) == view.record) {
        records[i].description = view.description;  // which names all that show it
        return records[i].id;
      }
    const auto id = static_cast<RecordId>(record_count) + 1;
    add(SchemaRecord{id, view.record, parent, view.description});
    return id;
  }
  constexpr void add_column(const Column &column, RecordId record, bool begins) {
    for (size_t i = 0; i < element_count; i++) {
      const SchemaElement &other = elements[i];
      if (other.number != column.number) continue;
      shared_fields_agree = shared_fields_agree && std::string_view(other.name) == column.name &&
                            other.type == column.type && other.record == record && other.begins == begins;
      return;
    }
    add(SchemaElement{column.number, column.name, column.type, record, begins, begins, column.description});
  }
};

constexpr Tables all_tables() {
  Tables tables;
  for (const SchemaRecord &record : module_records) tables.add(record);
  for (const SchemaElement &element : module_elements)
    if (element.record != kSameRecord) tables.add(in_documents(element));
  for (const Column &column : kHeaderColumns)
    tables.add(
        SchemaElement{column.number, column.name, column.type, CLI_RECORD_DOCUMENT, false, true, column.description});
  tables.add_column(kInterruptedColumn, CLI_RECORD_DOCUMENT, false);
  visit_views([&](const View &view, RecordId parent) { return tables.record_for(view, parent); },
              [&](const Column &column, RecordId record, bool begins) { tables.add_column(column, record, begins); });
  const auto by_number = [](const SchemaElement &a, const SchemaElement &b) { return a.number < b.number; };
  std::sort(tables.elements.begin(), tables.elements.begin() + static_cast<std::ptrdiff_t>(tables.element_count),
            by_number);
  return tables;
}
constexpr Tables tables = all_tables();
constexpr std::span<const SchemaRecord> records(tables.records.data(), tables.record_count);
constexpr std::span<const SchemaElement> elements(tables.elements.data(), tables.element_count);

// Ids count from 1 without a gap in `records`; documents have one fewer.
constexpr auto without_same_record() {
  std::array<SchemaRecord, tables.record_count - 1> shown{};
  std::copy_if(records.begin(), records.end(), shown.begin(), [](const auto &r) { return r.id != kSameRecord; });
  return shown;
}
constexpr auto shown_records = without_same_record();

static_assert(tables.shared_fields_agree, "columns of one number differ in name, type, record or place");
static_assert(std::adjacent_find(elements.begin(), elements.end(),
                                 [](const auto &a, const auto &b) { return a.number == b.number; }) == elements.end());
static_assert(std::all_of(records.begin(), records.end(), [](const auto &r) { return r.parent < r.id; }));
// No view has a number of those that mean another.
static_assert(std::none_of(elements.begin(), elements.end(),
                           [](const auto &e) { return number_in_documents(e.number) != e.number; }));
// The root has one instance, so nothing begins it; every other record has one element that does.
static_assert(std::all_of(records.begin(), records.end(), [](const SchemaRecord &record) {
  const auto begin = [&record](const SchemaElement &element) { return element.record == record.id && element.begins; };
  return std::count_if(elements.begin(), elements.end(), begin) ==
         (record.id == CLI_RECORD_DOCUMENT || record.id == kSameRecord ? 0 : 1);
}));

}  // namespace

const SchemaType &type_of(TypeId type) { return types[type]; }
std::span<const SchemaType> all_types() { return types; }
const SchemaRecord &record_of(RecordId record) { return records[static_cast<size_t>(record) - 1]; }
std::span<const SchemaRecord> all_records() { return shown_records; }
std::span<const SchemaElement> all_elements() { return elements; }

const SchemaElement *find_element(int recorded) {
  const int number = number_in_documents(recorded);
  const auto found = std::lower_bound(elements.begin(), elements.end(), number,
                                      [](const SchemaElement &element, int wanted) { return element.number < wanted; });
  return found != elements.end() && found->number == number ? &*found : nullptr;
}

const SchemaRecord *find_record(std::string_view name, RecordId parent) {
  const auto found = std::ranges::find_if(
      records, [&](const SchemaRecord &record) { return record.parent == parent && record.name == name; });
  return found == records.end() ? nullptr : &*found;
}

bool has_children(RecordId record) {
  return std::ranges::any_of(records, [record](const SchemaRecord &other) { return other.parent == record; });
}

}  // namespace output

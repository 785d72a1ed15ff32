// The tables are made by the compiler out of the lists of cli_schema.h and the views, and it checks them: numbers are
// unique and ascending, parents come before children, exactly the first element of a record begins it.
#include "host/output/schema.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace output {
namespace {

#define TYPE_ROW(id, name, text) {name, text},
constexpr SchemaType types[] = {CLI_TYPE_LIST(TYPE_ROW)};
#undef TYPE_ROW

#define RECORD_ROW(id, name, parent, text) {id, name, parent, text},
constexpr SchemaRecord module_records[] = {CLI_RECORD_LIST(RECORD_ROW)};
#undef RECORD_ROW

#define ELEMENT_ROW(id, number, name, type, record, place, text) \
  {number, name, type, record, place == CLI_BEGINS, text},
constexpr SchemaElement module_elements[] = {CLI_ELEMENT_LIST(ELEMENT_ROW)};
#undef ELEMENT_ROW

// Calls for the columns of each view that are fields, then for those of its lists' items.
//   record(view, parent) -> its id   column(column, record, is_first)
template <typename OnRecord, typename OnColumn>
constexpr void visit_view(const View &view, RecordId parent, OnRecord record, OnColumn column) {
  const RecordId own = record(view, parent);
  bool first = true;
  for (const Column &field : view.columns) {
    if (is_list(field)) continue;
    column(field, own, first);
    first = false;
  }
  for (const Column &list : view.columns)
    if (is_list(list)) visit_view(*list.items, own, record, column);
}

template <typename OnRecord, typename OnColumn>
constexpr void visit_views(OnRecord record, OnColumn column) {
  for (const View *view : kViews) visit_view(*view, CLI_RECORD_DOCUMENT, record, column);
}

struct Size {
  size_t records = std::size(module_records), elements = std::size(module_elements);
};
constexpr Size size_of_all() {
  Size size;
  visit_views([&size](const View &, RecordId) { return static_cast<RecordId>(++size.records); },
              [&size](const Column &, RecordId, bool) { size.elements++; });
  return size;
}

struct Tables {
  std::array<SchemaRecord, size_of_all().records> records{};
  std::array<SchemaElement, size_of_all().elements> elements{};
};
constexpr Tables all_tables() {
  Tables tables;
  auto next_record = std::copy(std::begin(module_records), std::end(module_records), tables.records.begin());
  auto next_element = std::copy(std::begin(module_elements), std::end(module_elements), tables.elements.begin());
  visit_views(
      [&](const View &view, RecordId parent) {
        const auto id = static_cast<RecordId>(next_record - tables.records.begin()) + 1;
        *next_record++ = {id, view.record, parent, view.description};
        return id;
      },
      [&](const Column &column, RecordId record, bool first) {
        *next_element++ = {column.number, column.name, column.type, record, first, column.description};
      });
  return tables;
}
constexpr Tables tables = all_tables();
constexpr const auto &records = tables.records;
constexpr const auto &elements = tables.elements;

// The list keeps its elements by number, which makes numbers unique and a look-up a binary search.
static_assert(std::is_sorted(std::begin(elements), std::end(elements),
                             [](const auto &a, const auto &b) { return a.number <= b.number; }));
static_assert(std::all_of(std::begin(records), std::end(records), [](const auto &r) { return r.parent < r.id; }));
// The root has one instance, so nothing begins it; every other record has one element that does, its first.
constexpr bool begins_as_expected() {
  RecordId previous = CLI_RECORD_NONE;
  for (const SchemaElement &element : elements) {
    const bool first = element.record != previous && element.record != CLI_RECORD_DOCUMENT;
    if (element.begins != first) return false;
    previous = element.record;
  }
  return true;
}
static_assert(begins_as_expected());

}  // namespace

const SchemaType &type_of(cli_type type) { return types[type]; }
std::span<const SchemaType> all_types() { return types; }
const SchemaRecord &record_of(RecordId record) { return records[static_cast<size_t>(record) - 1]; }
std::span<const SchemaRecord> all_records() { return records; }
std::span<const SchemaElement> all_elements() { return elements; }

const SchemaElement *find_element(int number) {
  const auto found = std::lower_bound(std::begin(elements), std::end(elements), number,
                                      [](const SchemaElement &element, int wanted) { return element.number < wanted; });
  return found != std::end(elements) && found->number == number ? found : nullptr;
}

bool has_children(RecordId record) {
  return std::any_of(std::begin(records), std::end(records),
                     [record](const SchemaRecord &candidate) { return candidate.parent == record; });
}

}  // namespace output

#include "schema.h"

#include <algorithm>

namespace output {
namespace {

#define TYPE_ROW(id, name, text) {name, text},
constexpr SchemaType types[] = {CLI_TYPE_LIST(TYPE_ROW)};
#undef TYPE_ROW

#define RECORD_ROW(id, name, parent, text) {id, name, parent, text},
constexpr SchemaRecord records[] = {CLI_RECORD_LIST(RECORD_ROW)};
#undef RECORD_ROW

#define ELEMENT_ROW(id, number, name, type, record, place, text) \
  {number, name, type, record, place == CLI_BEGINS, text},
constexpr SchemaElement elements[] = {CLI_ELEMENT_LIST(ELEMENT_ROW)};
#undef ELEMENT_ROW

// The list keeps its elements by number, which makes numbers unique and a look-up a binary search.
static_assert(std::is_sorted(std::begin(elements), std::end(elements),
                             [](const auto &a, const auto &b) { return a.number <= b.number; }));
static_assert(std::all_of(std::begin(records), std::end(records), [](const auto &r) { return r.parent < r.id; }));
// The root has one instance, so nothing begins it; every other record has one element that does, its first.
constexpr bool begins_as_expected() {
  cli_record previous = CLI_RECORD_NONE;
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
const SchemaRecord &record_of(cli_record record) { return records[record - 1]; }
std::span<const SchemaRecord> all_records() { return records; }
std::span<const SchemaElement> all_elements() { return elements; }

const SchemaElement *find_element(int number) {
  const auto found = std::lower_bound(std::begin(elements), std::end(elements), number,
                                      [](const SchemaElement &element, int wanted) { return element.number < wanted; });
  return found != std::end(elements) && found->number == number ? found : nullptr;
}

bool has_children(cli_record record) {
  return std::any_of(std::begin(records), std::end(records),
                     [record](const SchemaRecord &candidate) { return candidate.parent == record; });
}

}  // namespace output

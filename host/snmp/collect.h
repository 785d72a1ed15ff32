// Collects the rows of a table from the registered handlers.
#ifndef HOST_SNMP_COLLECT_H
#define HOST_SNMP_COLLECT_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/snmp/tables.h"

namespace host::snmp {

// Values of a row as the handler recorded them, with their elements.
using Values = std::vector<std::pair<int, std::string>>;

struct Row {
  std::vector<uint32_t> index;  // its part of an object identifier
  Values values;                // in the order in which they were recorded
};

struct Limits {
  size_t rows = 200000;                  // of one table: a bound on its memory
  std::chrono::milliseconds time{2000};  // of the main thread, for one table
};

struct Collection {
  std::vector<Row> rows;  // ascending by index, each index once
  bool complete = true;   // no limit was met
};

// Collects a table question by question, so that a long one can be taken in parts. On the main thread, with the
// scheduling locks; between the parts anything may change. Ends whatever the handlers answer.
class Collector {
 public:
  explicit Collector(const Table &table, const Limits &limits = {});
  ~Collector();
  Collector(const Collector &) = delete;
  Collector &operator=(const Collector &) = delete;

  // Asks on for about so long; false when there is nothing left to ask.
  bool run_for(std::chrono::steady_clock::duration slice);
  // What was collected; once, at the end.
  Collection take();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// The same at once.
Collection collect(const Table &table, const Limits &limits = {});

// The value of a scalar; nothing when its handler prints none.
std::optional<std::string> read_scalar(const Scalar &scalar);

// The value under an element; null for none.
const std::string *find_value(const Values &values, int element);

// Conversions of what a handler printed. Numbers are taken modulo 2^32, since columns of 32 bits are printed with a
// sign; addresses are dotted.
std::optional<uint32_t> to_number(std::string_view text);
std::optional<uint32_t> to_address(const std::string &text);
// Sub-identifiers of a row's index: a text is its length and its characters, an address its four bytes. Nothing when a
// part is missing or not what it should be.
std::optional<std::vector<uint32_t>> to_index(const Table &table, const Values &values);

}  // namespace host::snmp

#endif  // HOST_SNMP_COLLECT_H

// The tables and scalars that the SNMP agent serves: which handler prints a row, which of its values are the index, and
// under which object identifiers they appear: the lists of platform/cli_mib.h as tables, and how the rows of each are
// found. LIBMVPN-MIB.txt says the same to a network manager.
#ifndef HOST_SNMP_TABLES_H
#define HOST_SNMP_TABLES_H

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/cli_mib.h"

namespace host::snmp {

// libmvpnObjects: scalars and tables stand under it.
inline constexpr uint32_t kObjects[] = {1, 3, 6, 1, 4, 1, 8072, 9999, 9999, 6513, 1};

// A value of a row.
struct Column {
  int element;            // CLI_ELEMENT_MIB_..., under which the handler records it
  uint32_t arc;           // under the table's entry
  const char *name;       // of its element in the output schema
  cli_mib_syntax syntax;  // what the recorded text stands for
  cli_mib_place place;    // in the index

  // Name of the argument under which a handler reads it.
  std::string argument() const { return "<" + std::string(name) + "-in>"; }
};

// How the rows of a table are found.
enum class Walk {
  whole,    // get-next from nothing meets every row
  per_vrf,  // get-next meets the rows of the VRF that it starts in
  routes,   // the same, where a row does not say in full which index it has
  listed,   // get-next misses rows: indexes come from a listing, rows by get
};

// A listing of pairs of addresses.
struct Listing {
  const char *handler;  // that prints the pairs
  bool per_vrf;         // it is asked for each VRF; false: once
  int source;           // elements; a pair is complete with its group
  int group;            // recorded behind the source
};

struct Table {
  const char *name;                // as in the MIB, with "Table"
  uint32_t arc;                    // under kObjects
  const char *handler;             // that prints a row
  Walk walk;                       // as collect.cc explains
  std::vector<Column> index;       // in the order of the object identifier
  std::vector<Column> values;      // by arc
  std::optional<Listing> listing;  // with Walk::listed only
};

struct Scalar {
  const char *name;       // as in the MIB
  uint32_t arc;           // under kObjects
  const char *handler;    // that prints it
  int element;            // under which the handler records it
  cli_mib_syntax syntax;  // what the recorded text stands for
};

// Made at the first call, never changed; ascending by arc.
const std::vector<Table> &tables();
const std::vector<Scalar> &scalars();
const Table &default_mdt_table();  // has a row for every VRF

// Names of the module's handlers that tables and scalars are read from.
std::set<std::string> handlers_of_objects();

}  // namespace host::snmp

#endif  // HOST_SNMP_TABLES_H

// The tables in the order of their arcs. A column's arc is its place in a printed row, so that an index object that
// several tables share has its arc in each, although the MIB defines it in the first alone.
#include "host/snmp/tables.h"

#include "platform/cli_schema.h"

namespace host::snmp {
namespace {

struct TableColumn {
  cli_record table;
  Column column;
};

#define TABLE_COLUMN(X, id, table, arc, name, syntax, place, text) \
  {CLI_RECORD_MIB_##table, {id, arc, name, CLI_MIB_##syntax, CLI_MIB_##place}},
constexpr TableColumn kColumns[] = {CLI_MIB_COLUMN_LIST(TABLE_COLUMN, )};
#undef TABLE_COLUMN

// How the rows of the tables are found that get-next from nothing does not go through; collect.cc says why.
void set_walk(cli_record record, Table *table) {
  switch (record) {
    case CLI_RECORD_MIB_MROUTE:
      table->walk = Walk::routes;
      break;
    case CLI_RECORD_MIB_JN_RCV:
      table->walk = Walk::per_vrf;
      break;
    case CLI_RECORD_MIB_JN_SEND:
      table->walk = Walk::listed;
      table->listing = {"mvpn_show_mdt_send_cmd", true, CLI_ELEMENT_SENT_C_SOURCE, CLI_ELEMENT_SENT_C_GROUP};
      break;
    case CLI_RECORD_MIB_BGP:
      table->walk = Walk::listed;
      table->listing = {"mvpn_show_mdt_bgp_cmd", false, CLI_ELEMENT_SAFI_SOURCE, CLI_ELEMENT_SAFI_GROUP};
      break;
    default:
      break;
  }
}

Table make_table(cli_record record, const char *name, uint32_t arc, const char *handler) {
  Table table = {name, arc, handler, Walk::whole, {}, {}, {}};
  set_walk(record, &table);
  for (const auto &[its_table, column] : kColumns)
    if (its_table == record) (column.place == CLI_MIB_VALUE ? table.values : table.index).push_back(column);
  return table;
}

}  // namespace

const std::vector<Table> &tables() {
#define TABLE(X, table, first, arc, name, handler, text) \
  make_table(CLI_RECORD_MIB_##table, name "Table", arc, #handler),
  static const std::vector<Table> all = {CLI_MIB_TABLE_LIST(TABLE, )};
#undef TABLE
  return all;
}

const std::vector<Scalar> &scalars() {
#define SCALAR(X, id, number, arc, name, syntax, handler, text) {name, arc, #handler, id, CLI_MIB_##syntax},
  static const std::vector<Scalar> all = {CLI_MIB_SCALAR_LIST(SCALAR, )};
#undef SCALAR
  return all;
}

const Table &default_mdt_table() { return tables().front(); }

std::set<std::string> handlers_of_objects() {
  std::set<std::string> names;
  for (const Table &table : tables()) {
    names.insert(table.handler);
    if (table.listing) names.insert(table.listing->handler);
  }
  for (const Scalar &scalar : scalars()) names.insert(scalar.handler);
  return names;
}

}  // namespace host::snmp

// What network managers are told of the objects, the MIB module and docs/snmp.md, against the lists of cli_mib.h. Both
// sides become lines, one for each object; what differs is a line that the other side does not have.
#include <gtest/gtest.h>
// The library's headers want this one first.
#include <net-snmp/net-snmp-config.h>
// In this order.
#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "host/snmp/tables.h"
#include "platform/cli_schema.h"

namespace {

using Lines = std::set<std::string>;
using host::snmp::Column;
using host::snmp::Table;

void expect_same(const Lines &wanted, const Lines &found, const char *place) {
  Lines missing, unknown;
  std::set_difference(wanted.begin(), wanted.end(), found.begin(), found.end(), std::inserter(missing, missing.end()));
  std::set_difference(found.begin(), found.end(), wanted.begin(), wanted.end(), std::inserter(unknown, unknown.end()));
  for (const std::string &line : missing) ADD_FAILURE() << place << " lacks: " << line;
  for (const std::string &line : unknown) ADD_FAILURE() << place << " has, and the list has not: " << line;
}

// ------------------------------------------------------------------------------------------------------- MIB module
//
// "NAME ARCS" of a table, with "INDEX NAME..." of an entry, with "SYNTAX ACCESS VALUES" of a scalar or column.

const char *smi_type(cli_mib_syntax syntax) {
#define SMI_TYPE(id, smi) smi,
  static constexpr const char *types[] = {CLI_MIB_SYNTAX_LIST(SMI_TYPE)};
#undef SMI_TYPE
  return types[syntax];
}

// The values that a description names: those of an enumeration.
std::string named_values(cli_mib_syntax syntax, const std::string &description) {
  if (syntax != CLI_MIB_INTEGER) return "";
  static const std::regex number(R"(\b\d+\b)");
  std::string values;
  for (std::sregex_iterator at(description.begin(), description.end(), number), end; at != end; ++at)
    values += " " + at->str();
  return values;
}

std::string described(int element) {
  static const std::map<int, std::string> texts = {
#define ELEMENT_TEXT(id, number, name, type, record, place, text) {number, text},
      CLI_ELEMENT_LIST(ELEMENT_TEXT)
#undef ELEMENT_TEXT
  };
  return texts.at(element);
}

std::string leaf(const std::string &name, const std::string &arcs, cli_mib_syntax syntax, bool readable, int element) {
  return name + " " + arcs + " " + smi_type(syntax) + (readable ? " read-only" : " not-accessible") +
         named_values(syntax, described(element));
}

// An object's name in the module, empty for none of its own: a name is unique there. An index object of several tables
// stands in the first; the VRF of a tunnel, which is no index, has another name.
std::string mib_name(const Column &column) {
  if (std::string_view(column.name) != "mplsVpnVrfName" || column.element == CLI_ELEMENT_MIB_DEFAULT_VRF)
    return column.name;
  return column.place == CLI_MIB_VALUE ? "korvaMvpnTunnelVrfName" : "";
}

Lines listed_objects() {
  Lines lines;
  for (const host::snmp::Scalar &scalar : host::snmp::scalars())
    lines.insert(leaf(scalar.name, std::to_string(scalar.arc), scalar.syntax, true, scalar.element));
  for (const Table &table : host::snmp::tables()) {
    const std::string arc = std::to_string(table.arc), name = table.name;
    lines.insert(name + " " + arc);
    std::string entry = name.substr(0, name.rfind("Table")) + "Entry " + arc + ".1 INDEX";
    for (const Column &part : table.index) entry += std::string(" ") + part.name;
    lines.insert(entry);
    for (const auto *columns : {&table.index, &table.values})
      for (const Column &column : *columns)
        if (const std::string own = mib_name(column); !own.empty())
          lines.insert(leaf(own, arc + ".1." + std::to_string(column.arc), column.syntax, column.place == CLI_MIB_VALUE,
                            column.element));
  }
  return lines;
}

std::string parsed_type(int type) {
  static const std::map<int, std::string> names = {{TYPE_OCTETSTR, "OCTET STRING"}, {TYPE_IPADDR, "IpAddress"},
                                                   {TYPE_INTEGER, "INTEGER"},       {TYPE_UNSIGNED32, "Unsigned32"},
                                                   {TYPE_GAUGE, "Gauge32"},         {TYPE_TIMETICKS, "TimeTicks"}};
  const auto found = names.find(type);
  return found != names.end() ? found->second : "type " + std::to_string(type);
}

std::string parsed_leaf(const tree &node) {
  std::string text = " " + parsed_type(node.type);
  text += node.access == MIB_ACCESS_READONLY   ? " read-only"
          : node.access == MIB_ACCESS_NOACCESS ? " not-accessible"
                                               : " access " + std::to_string(node.access);
  std::set<int> values;
  for (const enum_list *value = node.enums; value != nullptr; value = value->next) values.insert(value->value);
  for (const int value : values) text += " " + std::to_string(value);
  return text;
}

// Lines of what stands under a node.
void add_parsed(const tree &parent, const std::string &arcs, Lines *lines) {
  for (const tree *node = parent.child_list; node != nullptr; node = node->next_peer) {
    const std::string its_arcs = arcs + std::to_string(node->subid);
    std::string line = std::string(node->label) + " " + its_arcs;
    if (node->indexes != nullptr) line += " INDEX";
    for (const index_list *part = node->indexes; part != nullptr; part = part->next)
      line += std::string(" ") + part->ilabel;
    if (node->child_list == nullptr) line += parsed_leaf(*node);
    EXPECT_TRUE(node->description != nullptr && *node->description != '\0') << node->label << " has no DESCRIPTION";
    lines->insert(line);
    add_parsed(*node, its_arcs + ".", lines);
  }
}

TEST(Mib, ModuleAndListsAgree) {
  setenv("MIBS", "", 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_SAVE_MIB_DESCRS, 1);
  netsnmp_set_mib_directory(MIB_FOLDERS);
  netsnmp_init_mib();
  ASSERT_NE(netsnmp_read_module("LIBMVPN-MIB"), nullptr);
  const oid objects[] = {1, 3, 6, 1, 4, 1, 8072, 9999, 9999, 6513, 1};
  ASSERT_TRUE(std::equal(std::begin(objects), std::end(objects), std::begin(host::snmp::kObjects)));
  const tree *root = get_tree(objects, std::size(objects), get_tree_head());
  ASSERT_NE(root, nullptr);
  ASSERT_STREQ(root->label, "libmvpnObjects");
  Lines parsed;
  add_parsed(*root, "", &parsed);
  expect_same(listed_objects(), parsed, "LIBMVPN-MIB.txt");
}

// ------------------------------------------------------------------------------------------------------------- page
//
// "NAME ARC PART..." of a scalar or a table; the page says of an index what is not the type of an address.

const std::map<cli_mib_place, std::string> part_names = {{CLI_MIB_INDEX_VRF, " VRF"},
                                                         {CLI_MIB_INDEX_IF_INDEX, " if-index"},
                                                         {CLI_MIB_INDEX_GROUP, " group"},
                                                         {CLI_MIB_INDEX_SOURCE, " source"},
                                                         {CLI_MIB_INDEX_DIRECTION, " direction"}};

Lines listed_tables() {
  Lines lines;
  for (const host::snmp::Scalar &scalar : host::snmp::scalars())
    lines.insert(std::string(scalar.name) + " " + std::to_string(scalar.arc));
  for (const Table &table : host::snmp::tables()) {
    std::string line = std::string(table.name) + " " + std::to_string(table.arc);
    for (const Column &part : table.index)
      if (const auto name = part_names.find(part.place); name != part_names.end()) line += name->second;
    lines.insert(line);
  }
  return lines;
}

// "VRF name, customer group, announcing PE": " VRF group source", by the last words.
std::string parts_of(const std::string &cell) {
  static const std::map<std::string, cli_mib_place> by_word = {
      {"name", CLI_MIB_INDEX_VRF},      {"if-index", CLI_MIB_INDEX_IF_INDEX}, {"group", CLI_MIB_INDEX_GROUP},
      {"source", CLI_MIB_INDEX_SOURCE}, {"PE", CLI_MIB_INDEX_SOURCE},         {"direction", CLI_MIB_INDEX_DIRECTION}};
  std::string parts, part;
  for (std::istringstream in(cell); std::getline(in, part, ',');) {
    std::istringstream words(part);
    std::string word, last;
    while (words >> word) last = word;
    if (const auto place = by_word.find(last); place != by_word.end())
      parts += part_names.at(place->second);
    else if (!last.empty())
      parts += " (" + part + ")";
  }
  return parts;
}

TEST(Mib, PageAndListsAgree) {
  std::ifstream page(SNMP_PAGE);
  ASSERT_TRUE(page);
  static const std::regex row(R"(\| `(korva\w+)` \| (\d+) \|([^|]*)\|[^|]*\S[^|]*\|)");
  Lines lines;
  std::smatch cells;
  for (std::string line; std::getline(page, line);)
    if (std::regex_match(line, cells, row))
      lines.insert(cells[1].str() + " " + cells[2].str() + parts_of(cells[3].str()));
  expect_same(listed_tables(), lines, "docs/snmp.md");
}

}  // namespace

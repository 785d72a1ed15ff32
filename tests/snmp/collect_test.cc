// Collection of tables from handlers that behave as no real one does, and conversions of what they print.
#include "host/snmp/collect.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "platform/cli.h"
#include "platform/cli_schema.h"
#include "platform/reference/runtime.h"

namespace {

using namespace host::snmp;

const Table &table_named(std::string_view name) {
  for (const Table &table : tables())
    if (name == table.name) return table;
  throw std::runtime_error("no such table");
}

// The next answer of the fake handler: the VRF name of a row, or nothing.
std::function<std::optional<std::string>(const char *asked)> next_name;
int questions;

int fake_default_table(cli_command *command) {
  const char *asked = nullptr;
  cli_get_string(command, "<mplsVpnVrfName-in>", &asked);
  questions++;
  const auto name = next_name(asked);
  if (!name) return 0;
  cli_new_printf(command, "%s\n", name->c_str(), CLI_ELEMENT_MIB_DEFAULT_VRF);
  cli_new_printf(command, "%s\n", "239.1.1.1", CLI_ELEMENT_MIB_DEFAULT_ADDR);
  return 0;
}

class CollectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ref::reset();
    questions = 0;
    cli_register_cmd(default_mdt_table().handler, fake_default_table, 0);
  }
  void TearDown() override { ref::reset(); }

  static std::vector<std::string> names(const Collection &collection) {
    std::vector<std::string> out;
    for (const Row &row : collection.rows) out.push_back(*find_value(row.values, CLI_ELEMENT_MIB_DEFAULT_VRF));
    return out;
  }
  // Answers in the order of a list; after the last one, the one at `back`.
  static void answer(std::vector<std::string> list, std::optional<size_t> back = {}) {
    next_name = [list, back](const char *asked) -> std::optional<std::string> {
      if (asked == nullptr) return list.front();
      const auto at = std::find(list.begin(), list.end(), asked);
      if (at != list.end() && at + 1 != list.end()) return at[1];
      return back ? std::optional(list[*back]) : std::nullopt;
    };
  }
};

TEST_F(CollectTest, RowsAreSortedByObjectIdentifier) {
  // A shorter name comes first, whatever its letters are.
  answer({"blue", "amber", "red", "x"});
  const Collection collection = collect(default_mdt_table());
  EXPECT_TRUE(collection.complete);
  EXPECT_EQ(names(collection), (std::vector<std::string>{"x", "red", "blue", "amber"}));
}

TEST_F(CollectTest, HandlersThatReturnToARowEndTheWalk) {
  for (const size_t back : {0u, 1u, 2u}) {
    SCOPED_TRACE(back);
    questions = 0;
    answer({"a", "b", "c"}, back);
    const Collection collection = collect(default_mdt_table());
    EXPECT_TRUE(collection.complete);
    EXPECT_EQ(names(collection), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(questions, 4);
  }
}

TEST_F(CollectTest, EndlessTablesAreCut) {
  next_name = [](const char *) { return std::to_string(questions); };
  const Collection by_rows = collect(default_mdt_table(), {50, std::chrono::minutes(5)});
  EXPECT_FALSE(by_rows.complete);
  EXPECT_EQ(by_rows.rows.size(), 50u);
  const Collection by_time = collect(default_mdt_table(), {SIZE_MAX, std::chrono::milliseconds(20)});
  EXPECT_FALSE(by_time.complete);
  EXPECT_GT(by_time.rows.size(), 0u);
}

TEST_F(CollectTest, TablesByVrfEndThoughVrfNamesDoNot) {
  next_name = [](const char *) { return std::to_string(questions); };
  for (const char *name : {"korvaMvpnMrouteMdtTable", "korvaMvpnMdtJnSendTable", "korvaMvpnMdtJnRcvTable"}) {
    questions = 0;
    EXPECT_FALSE(collect(table_named(name), {50, std::chrono::minutes(5)}).complete) << name;
    EXPECT_EQ(questions, 51) << name;
  }
}

TEST_F(CollectTest, RowsWithoutAnIndexEndTheWalk) {
  next_name = [](const char *asked) { return asked == nullptr ? "a" : std::string(200, 'x'); };
  EXPECT_EQ(names(collect(default_mdt_table())), std::vector<std::string>{"a"});
  ref::reset();  // no handler at all
  EXPECT_TRUE(collect(default_mdt_table()).rows.empty());
}

// A flow table whose get-next is never to be used: its rows are those of the listing.
int list_flows(cli_command *command) {
  for (const char *group : {"225.0.0.9", "225.0.0.1"}) {
    cli_new_printf(command, "%s", "10.1.1.1", CLI_ELEMENT_SENT_C_SOURCE);
    cli_new_printf(command, "%s", group, CLI_ELEMENT_SENT_C_GROUP);
  }
  return 0;
}

int get_flow(cli_command *command) {
  const char *name = "";
  ip_addr_t group = 0, source = 0;
  int32_t group_type = 0, source_type = 0;
  cli_get_string(command, "<mplsVpnVrfName-in>", &name);
  cli_get_ipaddr(command, "<korvaMvpnMdtJnSendGroup-in>", &group);
  cli_get_ipaddr(command, "<korvaMvpnMdtJnSendSource-in>", &source);
  cli_get_integer(command, "<korvaMvpnMdtJnSendGrpAddrType-in>", &group_type);
  cli_get_integer(command, "<korvaMvpnMdtJnSendSrcAddrType-in>", &source_type);
  if (cli_is_getnext(command) || group_type != 1 || source_type != 1 || source != 0x0A010101) return 0;
  cli_new_printf(command, "%s\n", name, CLI_ELEMENT_MIB_JN_SEND_VRF);
  cli_new_printf(command, "%d\n", 1, CLI_ELEMENT_MIB_JN_SEND_GROUP_TYPE);
  cli_new_printf(command, "%s\n", group == 0xE1000009 ? "225.0.0.9" : "225.0.0.1", CLI_ELEMENT_MIB_JN_SEND_GROUP);
  cli_new_printf(command, "%d\n", 1, CLI_ELEMENT_MIB_JN_SEND_SOURCE_TYPE);
  cli_new_printf(command, "%s\n", "10.1.1.1", CLI_ELEMENT_MIB_JN_SEND_SOURCE);
  return 0;
}

TEST_F(CollectTest, ListedTablesAreReadByGet) {
  answer({"v"});
  const Table &table = table_named("korvaMvpnMdtJnSendTable");
  cli_register_cmd(table.listing->handler, list_flows, 0);
  cli_register_cmd(table.handler, get_flow, 0);
  const Collection collection = collect(table);
  ASSERT_EQ(collection.rows.size(), 2u);
  EXPECT_EQ(collection.rows[0].index, (std::vector<uint32_t>{1, 'v', 1, 225, 0, 0, 1, 1, 10, 1, 1, 1}));
  EXPECT_EQ(collection.rows[1].index, (std::vector<uint32_t>{1, 'v', 1, 225, 0, 0, 9, 1, 10, 1, 1, 1}));
}

TEST(Conversion, Numbers) {
  EXPECT_EQ(to_number("4294967295"), 4294967295u);
  EXPECT_EQ(to_number("-1"), 4294967295u);  // a column of 32 bits that was printed with a sign
  for (const char *bad : {"", " 1", "1 ", "x", "99999999999999999999"}) EXPECT_FALSE(to_number(bad)) << bad;
}

TEST(Conversion, Addresses) {
  EXPECT_EQ(to_address("239.1.2.3"), 0xEF010203u);
  for (const char *bad : {"", "*", "1.2.3", "1.2.3.4 ", "256.1.1.1"}) EXPECT_FALSE(to_address(bad)) << bad;
}

}  // namespace

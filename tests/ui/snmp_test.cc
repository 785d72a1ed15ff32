// SNMP scalars and tables: rows against their golden text, walks, gets, and get-next from any index.
#include <algorithm>
#include <map>

#include "platform/reference/croute.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/testing/runtime.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mdt_safi_internal.h"
#include "tests/ui/ui_test.h"

using namespace std::chrono_literals;

namespace {

// A table: its handler, and the parts of its index by their place there.
struct IndexPart {
  cli_record table;
  int element;  // that a row shows it under
  cli_mib_place place;
  const char *argument;
};
struct Table {
  const char *handler;
  std::map<cli_mib_place, IndexPart> index;
};

Table table_of(cli_record record, const char *handler) {
#define COLUMN(X, id, table, arc, name, syntax, place, text) \
  {CLI_RECORD_MIB_##table, id, CLI_MIB_##place, "<" name "-in>"},
  static constexpr IndexPart columns[] = {CLI_MIB_COLUMN_LIST(COLUMN, )};
#undef COLUMN
  Table table = {handler, {}};
  for (const IndexPart &column : columns)
    if (column.table == record && column.place != CLI_MIB_VALUE) table.index[column.place] = column;
  return table;
}

#define TABLE(X, table, first, arc, name, handler, text) \
  const Table table##_TABLE = table_of(CLI_RECORD_MIB_##table, #handler);
CLI_MIB_TABLE_LIST(TABLE, )
#undef TABLE

class Snmp : public UiTest {
 protected:
  static Output get(const Table &table, const Arguments &index) { return run(table.handler, "", index); }
  static Output next(const Table &table, const Arguments &index) { return run(table.handler, "", index, true); }
  // The index of a row, as the agent gives it back.
  static Arguments index_of(const Table &table, const Output &row) {
    Arguments arguments;
    for (const auto &[place, part] : table.index) arguments.push_back({part.argument, row.value_of(part.element)});
    return arguments;
  }
  // Rows from the first one on. A walk that comes back to a row ends there and fails the test.
  static std::vector<Output> walk(const Table &table) {
    std::vector<Output> rows;
    for (Output row = next(table, {}); !row.printed.empty(); row = next(table, index_of(table, rows.back()))) {
      for (const Output &earlier : rows)
        if (earlier.printed == row.printed) {
          ADD_FAILURE() << "a row again in " << table.handler << ":\n" << row.printed;
          return rows;
        }
      rows.push_back(std::move(row));
    }
    return rows;
  }
  static std::string row_texts(const std::vector<Output> &rows) {
    std::string text;
    for (const Output &row : rows) text += "-- row\n" + row.printed + "|\n";
    return text;
  }

  // Index of a table that has at least these parts; of the core routes; of the BGP table.
  static Arguments flow_index(const Table &table, const std::string &vrf, const std::string &group,
                              const std::string &source, const std::string &types = "1",
                              const std::string &direction = "1") {
    const std::map<cli_mib_place, std::string> values = {
        {CLI_MIB_INDEX_VRF, vrf},          {CLI_MIB_INDEX_GROUP, group},       {CLI_MIB_INDEX_SOURCE, source},
        {CLI_MIB_INDEX_GROUP_TYPE, types}, {CLI_MIB_INDEX_SOURCE_TYPE, types}, {CLI_MIB_INDEX_DIRECTION, direction}};
    Arguments arguments;
    for (const auto &[place, part] : table.index) arguments.push_back({part.argument, values.at(place)});
    return arguments;
  }
  static Arguments route_index(const std::string &vrf, const std::string &group, const std::string &source,
                               const std::string &direction, const std::string &types = "1") {
    return flow_index(MROUTE_TABLE, vrf, group, source, types, direction);
  }
  static Arguments bgp_index(const std::string &group, const std::string &source, const std::string &types = "1") {
    return flow_index(BGP_TABLE, "", group, source, types);
  }

  // "vrf group source" of a row of such a table.
  static std::string flow_of_row(const Table &table, const Output &row) {
    if (row.printed.empty()) return "";
    const auto part = [&](cli_mib_place place) { return row.value_of(table.index.at(place).element); };
    return part(CLI_MIB_INDEX_VRF) + " " + part(CLI_MIB_INDEX_GROUP) + " " + part(CLI_MIB_INDEX_SOURCE);
  }

  void TearDown() override {
    if (const ref::Interface *site = ref::find_interface("site-alpha"); site != nullptr && pim_is_enabled(site->iod))
      pim_disable(0, pim_get_iftype(site->iod)->pcib, pim_get_iftype(site->iod), site->iod, 1, 0, 0);
    UiTest::TearDown();
  }

  // VRFs alpha, bravo and charlie with flows, announcements and remote PEs; bravo has no ranges. PIM contexts without
  // MVPN stand before, between and behind them.
  void three_vrfs() {
    start();
    for (const auto &[name, id] : std::map<std::string, vrf_context_id_t>{{"a", 10}, {"bravo2", 11}, {"zulu", 12}})
      add_vrf(name, id);
    vrf_with_site("charlie", 4, "239.1.1.3");
    vrf_with_site("alpha", 2, "239.1.1.1");
    vrf_with_site("bravo", 3, "239.1.1.2");
    pim_enable(0, context("alpha")->pcib, ref::find_interface("site-alpha")->iod, 0);
    range_of("alpha", "239.2.0.0/24", "1");
    range_of("alpha", "239.5.0.0/16", "4000000000");
    range_of("charlie", "239.3.0.0/31", "7");
    remote_pe_of("10.0.0.9", "65000:9", "239.1.1.1");
    remote_pe_of("10.0.0.9", "65000:10", "239.1.1.3");
    sent_flow("alpha", "172.16.9.1", "225.0.0.1");
    sent_flow("alpha", "172.16.9.2", "225.0.0.2");
    announced_flow("alpha", "172.16.9.3", "225.0.0.3");
    sent_flow("charlie", "172.16.9.1", "225.0.0.1");
    sent_flow("charlie", "172.16.9.1", "225.0.0.2");
    sent_flow("charlie", "172.16.9.1", "225.0.0.3");
    hear_in("alpha", "172.16.5.1", "225.0.0.5", "10.0.0.9", "239.2.9.1");
    ref::advance(61s);
    receiver_of("charlie", "172.16.5.2", "225.0.0.6", "10.0.0.9");
    hear_in("charlie", "172.16.5.2", "225.0.0.6", "10.0.0.9", "239.3.9.2");
    hear_in("charlie", "*", "225.0.0.7", "10.0.0.9", "239.3.9.1");
    ref::advance(1500ms);
  }
};

TEST_F(Snmp, Scalars) {
  start();
  const char *const number = "mvpn_show_snmp_korva_mvpn_mvrf_number_command";
  EXPECT_EQ(run(number).printed, "0");
  bring_up("red", 2, "239.1.1.1");
  bring_up("blue", 3, "239.1.1.2");
  add_vrf("plain", 4);
  EXPECT_EQ(run(number).printed, "2");
  EXPECT_EQ(run("mvpn_show_snmp_korva_mvpn_notification_enable_command").printed, "2");
}

TEST_F(Snmp, RowsOfEveryTable) {
  three_vrfs();
  std::string texts;
  const struct {
    const Table &table;
    size_t rows;
  } cases[] = {{DEFAULT_TABLE, 3}, {DATA_TABLE, 2},    {GENERIC_TABLE, 3}, {TUNNEL_TABLE, 3},
               {MROUTE_TABLE, 10}, {JN_SEND_TABLE, 5}, {JN_RCV_TABLE, 3},  {BGP_TABLE, 4}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.table.handler);
    // The order of the BGP table is not that of its indexes: with this entry a walk would come back to bravo's.
    if (&c.table == &BGP_TABLE) remote_pe_of("10.0.0.9", "65000:9", "239.1.1.1", false);
    const std::vector<Output> rows = walk(c.table);
    EXPECT_EQ(rows.size(), c.rows);
    texts += std::string("== ") + c.table.handler + "\n" + row_texts(rows);
    if (&c.table == &MROUTE_TABLE) continue;  // their gets ask by the kind of the route, see below
    for (const Output &row : rows) {
      const Output same = get(c.table, index_of(c.table, row));
      EXPECT_EQ(same.printed, row.printed);
      EXPECT_EQ(same.result, 0);
    }
  }
  expect_golden("snmp.txt", texts);
}

TEST_F(Snmp, EmptyTables) {
  start();
  const Table *const tables[] = {&DEFAULT_TABLE, &DATA_TABLE,    &GENERIC_TABLE, &TUNNEL_TABLE,
                                 &MROUTE_TABLE,  &JN_SEND_TABLE, &JN_RCV_TABLE,  &BGP_TABLE};
  add_vrf("plain", 9);
  for (const Table *table : tables) {
    EXPECT_EQ(next(*table, {}).printed, "") << table->handler;
    EXPECT_EQ(get(*table, {}).printed, "") << table->handler;
    if (table == &TUNNEL_TABLE || table == &BGP_TABLE) continue;
    for (const char *vrf : {"plain", "nowhere", ""}) {
      const Arguments named = {{"<mplsVpnVrfName-in>", vrf}};
      EXPECT_EQ(next(*table, named).printed, "") << table->handler << " " << vrf;
      EXPECT_EQ(get(*table, named).printed, "") << table->handler << " " << vrf;
    }
  }
}

// A host sees in which order the parts of an index are asked for.
TEST_F(Snmp, OrderOfTheIndexArguments) {
  start();
  const struct {
    const Table &table;
    const char *prefix;
    std::vector<const char *> parts;  // "s" texts, "a" addresses, "i" numbers
  } cases[] = {
      {DEFAULT_TABLE, "", {"s mplsVpnVrfName"}},
      {DATA_TABLE, "", {"s mplsVpnVrfName"}},
      {GENERIC_TABLE, "", {"s mplsVpnVrfName"}},
      {TUNNEL_TABLE, "", {"i ifIndex"}},
      {MROUTE_TABLE,
       "korvaMvpnMroute",
       {"s mplsVpnVrfName", "a MvrfGroup", "a MvrfSource", "i UpDownStreamInfo", "i MvrfGrpAddrType",
        "i MvrfSrcAddrType"}},
      {JN_SEND_TABLE,
       "korvaMvpnMdtJnSend",
       {"s mplsVpnVrfName", "a Group", "a Source", "i GrpAddrType", "i SrcAddrType"}},
      {JN_RCV_TABLE,
       "korvaMvpnMdtJnRcv",
       {"s mplsVpnVrfName", "a Group", "a Source", "i GrpAddrType", "i SrcAddrType"}},
      {BGP_TABLE, "korvaMvpnBgpMdtUpd", {"a ateSource", "a ateGroup", "i GrpAddrType", "i SrcAddrType"}},
  };
  for (const auto &c : cases) {
    std::vector<std::string> expected;
    for (const std::string part : c.parts) {
      const std::string reader = part[0] == 's' ? "string" : part[0] == 'a' ? "ipaddr" : "integer";
      const bool shared = part[0] == 's' || part == "i ifIndex";
      expected.push_back("cli_get_" + reader + "(<" + (shared ? "" : c.prefix) + part.substr(2) + "-in>)");
    }
    trace::start();
    next(c.table, {});
    EXPECT_EQ(trace::calls_of({"cli_get_string", "cli_get_ipaddr", "cli_get_integer"}), expected) << c.table.handler;
  }
}

// VRF tables: which row follows a name, whether or not something has it.
TEST_F(Snmp, NextVrf) {
  three_vrfs();
  const std::string longest(VRF_NAME_MAX, 'b');
  const struct {
    const char *name;
    const char *default_row, *data_row, *generic_row;
  } cases[] = {
      {"", "alpha", "alpha", "alpha"},  // no argument
      {"0", "alpha", "alpha", "alpha"},
      {"alpha", "bravo", "charlie", "bravo"},
      {"alphabet", "bravo", "charlie", "alpha"},
      {"bravo", "charlie", "charlie", "charlie"},
      {longest.c_str(), "bravo", "charlie", "alpha"},
      {"charlie", "", "", ""},
      {"zzz", "", "", "alpha"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const Arguments name = *c.name == '\0' ? Arguments{} : Arguments{{"<mplsVpnVrfName-in>", c.name}};
    const auto row = [&](const Table &table) {
      const Output output = next(table, name);
      return output.printed.empty() ? std::string() : output.value_of(table.index.at(CLI_MIB_INDEX_VRF).element);
    };
    EXPECT_EQ(row(DEFAULT_TABLE), c.default_row);
    EXPECT_EQ(row(DATA_TABLE), c.data_row);
    EXPECT_EQ(row(GENERIC_TABLE), c.generic_row);
  }
  EXPECT_EQ(next(GENERIC_TABLE, {{"<mplsVpnVrfName-in>", "bravo2"}}).printed, "") << "a PIM context without MVPN";
  EXPECT_EQ(get(DATA_TABLE, {{"<mplsVpnVrfName-in>", "bravo"}}).printed, "") << "no ranges";
}

TEST_F(Snmp, Tunnels) {
  three_vrfs();
  const auto at = [](if_index_t if_index) { return Arguments{{"<ifIndex-in>", std::to_string(if_index)}}; };
  std::vector<if_index_t> tunnels;
  for (const char *vrf : {"alpha", "bravo", "charlie"}) tunnels.push_back(context(vrf)->mti_ifindex);
  std::sort(tunnels.begin(), tunnels.end());
  EXPECT_EQ(next(TUNNEL_TABLE, {}).value_of(CLI_ELEMENT_MIB_TUNNEL_IF_INDEX), std::to_string(tunnels[0]));
  EXPECT_EQ(next(TUNNEL_TABLE, at(tunnels[0] + 1)).printed, tunnels[1] == tunnels[0] + 1
                                                                ? next(TUNNEL_TABLE, at(tunnels[1])).printed
                                                                : get(TUNNEL_TABLE, at(tunnels[1])).printed);
  EXPECT_EQ(next(TUNNEL_TABLE, at(tunnels[2])).printed, "");
  EXPECT_EQ(get(TUNNEL_TABLE, at(0)).printed, "");
  const if_index_t site = ref::find_interface("site-alpha")->if_index;
  EXPECT_EQ(get(TUNNEL_TABLE, at(site)).printed, "") << "an ordinary interface of a VRF";
  // A tunnel that has no interface yet.
  mvpn_cibtype *alpha = context("alpha");
  const im_iod_t iod = alpha->mti_iod;
  mvpn_set_mti_iod(alpha, 0);
  EXPECT_EQ(get(TUNNEL_TABLE, at(alpha->mti_ifindex)).printed,
            std::to_string(static_cast<int>(alpha->mti_ifindex)) + "\n \nalpha\n ");
  mvpn_set_mti_iod(alpha, iod);
  for (const auto status : {MVPN_FUNCTIONALITY_DOWN_PENDING, MVPN_FUNCTIONALITY_UP_PENDING}) {
    mvpn_functionality_status = status;
    EXPECT_EQ(get(TUNNEL_TABLE, at(alpha->mti_ifindex)).printed, "");
    EXPECT_EQ(next(TUNNEL_TABLE, {}).printed, "");
    EXPECT_EQ(next(BGP_TABLE, {}).printed, "");
    EXPECT_NE(next(DEFAULT_TABLE, {}).printed, "") << "the other tables do not ask";
  }
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP;
}

// A core route answers to the direction of its kind only, and is followed by the next one of its tree or of the VRFs
// behind.
TEST_F(Snmp, CoreRoutesByTheirKind) {
  three_vrfs();
  for (const char *vrf : {"alpha", "bravo", "charlie"}) {
    for (const mvpn_mdt_route *route = mvpn_mdt_mroute_first(context(vrf)); route != nullptr;
         route = mvpn_mdt_mroute_after(context(vrf), route->source, route->group)) {
      const bool local =
          route->route_type == MVPN_MDT_ROUTE_LOCAL_DEFAULT || route->route_type == MVPN_MDT_ROUTE_LOCAL_DATA;
      const std::string source = dotted(route->source), group = dotted(route->group);
      SCOPED_TRACE(std::string(vrf) + " " + source + " " + group);
      const std::string kind = local ? "1" : "2", other = local ? "2" : "1";
      const std::string wanted = std::string(vrf) + " " + group + " " + source;
      EXPECT_EQ(flow_of_row(MROUTE_TABLE, get(MROUTE_TABLE, route_index(vrf, group, source, kind))), wanted);
      EXPECT_EQ(get(MROUTE_TABLE, route_index(vrf, group, source, other)).printed, "");
      EXPECT_EQ(get(MROUTE_TABLE, route_index(vrf, group, source, kind, "2")).printed, "") << "IPv6";
      const mvpn_mdt_route *after = mvpn_mdt_mroute_after(context(vrf), route->source, route->group);
      const std::string next_vrf = std::string(vrf) == "alpha" ? "bravo" : std::string(vrf) == "bravo" ? "charlie" : "";
      std::string expected;
      if (after != nullptr)
        expected = std::string(vrf) + " " + dotted(after->group) + " " + dotted(after->source);
      else if (!next_vrf.empty())
        expected = next_vrf + " " + dotted(mvpn_mdt_mroute_first(context(next_vrf))->group) + " " +
                   dotted(mvpn_mdt_mroute_first(context(next_vrf))->source);
      EXPECT_EQ(flow_of_row(MROUTE_TABLE, next(MROUTE_TABLE, route_index(vrf, group, source, kind))), expected);
    }
  }
  // Without a direction the index means a local route; without types it means nothing.
  EXPECT_NE(get(MROUTE_TABLE, {{"<mplsVpnVrfName-in>", "alpha"},
                               {"<korvaMvpnMrouteMvrfGroup-in>", "239.1.1.1"},
                               {"<korvaMvpnMrouteMvrfSource-in>", "10.0.0.1"},
                               {"<korvaMvpnMrouteMvrfGrpAddrType-in>", "1"},
                               {"<korvaMvpnMrouteMvrfSrcAddrType-in>", "1"}})
                .printed,
            "");
  EXPECT_EQ(get(MROUTE_TABLE, {{"<mplsVpnVrfName-in>", "alpha"},
                               {"<korvaMvpnMrouteMvrfGroup-in>", "239.1.1.1"},
                               {"<korvaMvpnMrouteMvrfSource-in>", "10.0.0.1"}})
                .printed,
            "");
  EXPECT_EQ(get(MROUTE_TABLE, route_index("bravo2", "239.1.1.1", "10.0.0.1", "1")).result, -500);
  EXPECT_EQ(get(MROUTE_TABLE, route_index("nowhere", "239.1.1.1", "10.0.0.1", "1")).result, 0);
  EXPECT_EQ(get(MROUTE_TABLE, route_index("bravo2", "239.1.1.1", "10.0.0.1", "1", "0")).result, 0);
}

// Behind an index that no route has stand the routes of greater sources, whatever their group.
TEST_F(Snmp, NextCoreRouteFromAnyIndex) {
  three_vrfs();
  const struct {
    const char *vrf, *group, *source, *direction, *expected;
  } cases[] = {
      {"alpha", "0.0.0.0", "0.0.0.0", "1", "alpha 239.1.1.1 10.0.0.1"},
      {"alpha", "239.1.1.1", "10.0.0.1", "2", "alpha 239.1.1.1 10.0.0.9"},
      {"alpha", "239.1.255.1", "10.0.0.1", "1", "alpha 239.1.1.1 10.0.0.9"},
      {"alpha", "255.255.255.255", "10.0.0.5", "1", "alpha 239.1.1.1 10.0.0.9"},
      {"alpha", "239.1.1.1", "10.0.0.10", "1", "bravo 239.1.1.2 10.0.0.1"},
      {"alpha", "255.255.255.255", "255.255.255.255", "2", "bravo 239.1.1.2 10.0.0.1"},
      {"charlie", "239.3.9.2", "10.0.0.9", "2", ""},
      {"nowhere", "0.0.0.0", "0.0.0.0", "1", ""},
  };
  for (const auto &c : cases)
    EXPECT_EQ(flow_of_row(MROUTE_TABLE, next(MROUTE_TABLE, route_index(c.vrf, c.group, c.source, c.direction))),
              c.expected)
        << c.vrf << " " << c.group << " " << c.source << " " << c.direction;
}

// The direction that a row shows is that of the VRF's own flow with the route's addresses.
TEST_F(Snmp, UpDownValue) {
  start();
  mvpn_cibtype *red = vrf_with_site("red", 2, "239.1.1.1");
  const auto shown = [] {
    return get(MROUTE_TABLE, route_index("red", "239.1.1.1", "10.0.0.1", "1"))
        .value_of(CLI_ELEMENT_MIB_MROUTE_DIRECTION);
  };
  EXPECT_EQ(shown(), "1") << "no such flow";
  ref::CustomerRoute route = flow_of("10.0.0.1", "239.1.1.1");
  route.iif = "site-red";
  route.to_mvpn = false;
  pim_route *croute = ref::set_customer_route("red", route);
  ref::settle();
  mvpn_data_mdt_send_join_info *own = croute->send_join_info;
  croute->send_join_info = nullptr;
  EXPECT_EQ(shown(), "2") << "a flow without a record";
  mvpn_data_mdt_send_join_info record{};
  croute->send_join_info = &record;
  EXPECT_EQ(shown(), "2") << "not sent";
  for (const uint16_t index : {1, 2, 1023}) {
    record.encap_index = index;
    EXPECT_EQ(shown(), "1") << index;
  }
  croute->send_join_info = own;
  EXPECT_EQ(red->mti_status, MVPN_MTI_UP);
}

TEST_F(Snmp, NextSentFlowFromAnyIndex) {
  three_vrfs();
  const struct {
    const char *vrf, *group, *source, *expected;
  } cases[] = {
      {"alpha", "0.0.0.0", "0.0.0.0", "alpha 225.0.0.1 172.16.9.1"},
      {"alpha", "225.0.0.1", "172.16.9.1", "alpha 225.0.0.2 172.16.9.2"},
      {"alpha", "225.0.0.1", "172.16.9.2", "alpha 225.0.0.2 172.16.9.2"},
      {"alpha", "225.0.0.2", "172.16.9.1", "alpha 225.0.0.2 172.16.9.2"},  // a greater source of the same group
      {"alpha", "225.0.0.9", "172.16.9.0", "alpha 225.0.0.1 172.16.9.1"},  // of a smaller group
      {"alpha", "225.0.0.2", "172.16.9.2", "charlie 225.0.0.1 172.16.9.1"},
      {"alphabet", "255.255.255.255", "255.255.255.255", "charlie 225.0.0.1 172.16.9.1"},
      {"bravo", "0.0.0.0", "0.0.0.0", "charlie 225.0.0.1 172.16.9.1"},
      {"bravo2", "0.0.0.0", "0.0.0.0", ""},  // no MVPN
      {"charlie", "225.0.0.3", "172.16.9.1", ""},
      {"zzz", "0.0.0.0", "0.0.0.0", ""},
  };
  for (const auto &c : cases)
    EXPECT_EQ(flow_of_row(JN_SEND_TABLE, next(JN_SEND_TABLE, flow_index(JN_SEND_TABLE, c.vrf, c.group, c.source))),
              c.expected)
        << c.vrf << " " << c.group << " " << c.source;
  EXPECT_EQ(get(JN_SEND_TABLE, flow_index(JN_SEND_TABLE, "alpha", "225.0.0.3", "172.16.9.3")).printed, "")
      << "not moved yet";
  EXPECT_EQ(get(JN_SEND_TABLE, flow_index(JN_SEND_TABLE, "alpha", "225.0.0.1", "172.16.9.2")).printed, "");
  EXPECT_EQ(get(JN_SEND_TABLE, flow_index(JN_SEND_TABLE, "alpha", "225.0.0.1", "172.16.9.1", "2")).printed, "");
  EXPECT_EQ(get(JN_SEND_TABLE, flow_index(JN_SEND_TABLE, "bravo", "225.0.0.1", "172.16.9.1")).printed, "");
  // The first row of a VRF is that of a flow with a source, as a bidirectional one has none.
  pim_route *croute = announced_flow("alpha", "172.16.9.3", "225.0.0.3");
  finish_switchovers("alpha");
  EXPECT_EQ(croute->send_join_info->state, MVPN_DATA_MDT_STATE_ACTIVE);
  EXPECT_EQ(walk(JN_SEND_TABLE).size(), 6u);
}

// Groups that came from the store can lie where the range counts nothing.
TEST_F(Snmp, CountsOfDistantGroups) {
  start();
  vrf_with_site("red", 2, "239.1.1.1");
  range_of("red", "239.4.0.0/16");
  pim_route *croute = sent_flow("red", "172.16.9.1", "225.0.0.1");
  mvpn_data_mdt_send_join_info *record = croute->send_join_info;
  const ip_addr_t group = record->group;
  const struct {
    const char *group, *count;
  } cases[] = {{"239.4.0.0", "1"},   {"239.4.0.1", "0"},     {"239.4.3.255", "9"},     {"239.4.4.0", "0"},
               {"239.4.7.208", "0"}, {"239.3.255.255", "0"}, {"255.255.255.255", "0"}, {"0.0.0.0", "0"}};
  record->config->group_refcount[1023] = 9;
  for (const auto &c : cases) {
    record->group = addr(c.group);
    const Output row = next(JN_SEND_TABLE, {});
    EXPECT_EQ(row.printed, "red\n1\n225.0.0.1\n1\n172.16.9.1\n" + std::string(c.group) + "\n" + c.count);
  }
  record->group = group;
  record->config->group_refcount[1023] = 0;
}

// Every index comes once, although the tree stands in another order and flows share indexes.
TEST_F(Snmp, ReceivedAnnouncements) {
  start();
  vrf_with_site("charlie", 4, "239.1.1.3");
  vrf_with_site("alpha", 2, "239.1.1.1");
  vrf_with_site("bravo", 3, "239.1.1.2");
  for (unsigned i = 0; i < 130; i++) {
    const std::string flow = "172.20.0." + std::to_string(i + 1);
    const std::string pe = "10.0.1." + std::to_string(i * 37 % 65 + 1);  // two flows to each PE and group
    hear_in("alpha", flow, "225.0.0.5", pe, "239.2." + std::to_string(i * 11 % 5) + ".1");
  }
  hear_in("charlie", "172.20.0.1", "225.0.0.5", "10.0.0.9", "239.2.0.1");
  std::vector<std::string> indexes;
  for (const Output &row : walk(JN_RCV_TABLE)) {
    indexes.push_back(flow_of_row(JN_RCV_TABLE, row));
    EXPECT_EQ(get(JN_RCV_TABLE, index_of(JN_RCV_TABLE, row)).value_of(CLI_ELEMENT_MIB_JN_RCV_GROUP),
              row.value_of(CLI_ELEMENT_MIB_JN_RCV_GROUP));
  }
  ASSERT_EQ(indexes.size(), 66u);
  EXPECT_EQ(indexes.back(), "charlie 239.2.0.1 10.0.0.9");
  std::vector<std::string> sorted = indexes;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(std::unique(sorted.begin(), sorted.end()), sorted.end());

  // An index whose records went away is followed by what followed it.
  const std::vector<Output> rows = walk(JN_RCV_TABLE);
  const Arguments gone = index_of(JN_RCV_TABLE, rows[20]);
  mvpn_destroy_data_mdt_recv_cache(context("alpha"), addr(rows[20].value_of(CLI_ELEMENT_MIB_JN_RCV_SOURCE)));
  EXPECT_EQ(get(JN_RCV_TABLE, gone).printed, "");
  EXPECT_EQ(flow_of_row(JN_RCV_TABLE, next(JN_RCV_TABLE, gone)), indexes[21]);
  EXPECT_EQ(get(JN_RCV_TABLE, flow_index(JN_RCV_TABLE, "charlie", "239.2.0.1", "10.0.0.9", "2")).printed, "");

  const std::string last = "charlie 239.2.0.1 10.0.0.9";
  const struct {
    const char *vrf;
    std::string expected;
  } cases[] = {{"alphabet", last}, {"bravo", last}, {"", indexes[0]}, {"charlie", last}, {"zzz", ""}};
  for (const auto &c : cases)
    EXPECT_EQ(flow_of_row(JN_RCV_TABLE, next(JN_RCV_TABLE, flow_index(JN_RCV_TABLE, c.vrf, "0.0.0.0", "0.0.0.0"))),
              c.expected)
        << c.vrf;
}

TEST_F(Snmp, BgpUpdates) {
  start();
  bring_up("red", 2, "239.1.1.1");
  const auto entry = [](const Output &row) {
    return row.printed.empty()
               ? std::string()
               : row.value_of(CLI_ELEMENT_MIB_BGP_GROUP) + " " + row.value_of(CLI_ELEMENT_MIB_BGP_SOURCE) + " " +
                     row.value_of(CLI_ELEMENT_MIB_BGP_RD);
  };
  // Two entries with one index: a walk goes over both.
  remote_pe_of("10.0.0.5", "65000:7", "239.1.1.1");
  mvpn_bgp_mdt_safi_key twin = {addr("10.0.0.5"), {}, addr("239.1.1.1")};
  std::copy_n(rd("65000:8").begin(), ROUTE_DISTINGUISHER_SIZE, twin.bgp_rd);
  ASSERT_NE(mvpn_bgp_create_mdt_safi_entry(&twin), nullptr);
  remote_pe_of("10.0.0.9", "65000:7", "239.1.1.1");
  Texts entries;
  for (const Output &row : walk(BGP_TABLE)) entries.push_back(entry(row));
  EXPECT_EQ(entries, (Texts{"239.1.1.1 10.0.0.1 65000:2", "239.1.1.1 10.0.0.5 65000:7", "239.1.1.1 10.0.0.9 65000:7"}));
  EXPECT_EQ(get(BGP_TABLE, bgp_index("239.1.1.1", "10.0.0.5", "2")).printed, "");
  EXPECT_EQ(get(BGP_TABLE,
                {{"<korvaMvpnBgpMdtUpdateSource-in>", "10.0.0.5"}, {"<korvaMvpnBgpMdtUpdateGroup-in>", "239.1.1.1"}})
                .printed,
            "");
  const struct {
    const char *group, *source, *expected;
  } cases[] = {
      {"239.1.1.1", "10.0.0.4", "239.1.1.1 10.0.0.5 65000:7"},
      {"239.1.1.0", "255.255.255.255", "239.1.1.1 10.0.0.1 65000:2"},
      {"239.1.1.1", "10.0.0.9", ""},
      {"239.1.1.2", "0.0.0.0", ""},
  };
  for (const auto &c : cases)
    EXPECT_EQ(entry(next(BGP_TABLE, bgp_index(c.group, c.source))), c.expected) << c.group << " " << c.source;
  // A greater group is found wherever it stands in the tree.
  bring_up("blue", 3, "239.1.1.2");
  EXPECT_EQ(entry(next(BGP_TABLE, bgp_index("239.1.1.1", "10.0.0.9"))), "239.1.1.2 10.0.0.1 65000:3");
  EXPECT_EQ(entry(next(BGP_TABLE, bgp_index("239.1.1.1", "10.0.0.1"))), "239.1.1.2 10.0.0.1 65000:3");
  vanish_vrf("blue");
  EXPECT_TRUE(mvpn_bgp_delete_mdt_safi_entry(mvpn_bgp_get_mdt_safi_entry(&twin)));
  // An entry of a group that no VRF uses is no row, and ends a walk that comes to it.
  remote_pe_of("10.0.0.7", "65000:7", "239.9.9.9");
  EXPECT_EQ(get(BGP_TABLE, bgp_index("239.9.9.9", "10.0.0.7")).printed, "");
  EXPECT_EQ(next(BGP_TABLE, bgp_index("239.1.1.1", "10.0.0.5")).printed, "");
}

// A VRF that goes away while a table is walked has no row; the platform's records are not touched afterwards.
TEST_F(Snmp, VrfsVanishDuringAWalk) {
  start();
  for (const Table *table : {&JN_SEND_TABLE, &JN_RCV_TABLE})
    for (const bool getnext : {false, true}) {
      SCOPED_TRACE(std::string(table->handler) + (getnext ? " next" : " get"));
      vrf_with_site("red", 2, "239.1.1.1");
      vrf_with_site("zinc", 3, "239.1.1.2");
      range_of("red", "239.2.0.0/24");
      for (int i = 1; i <= 60; i++) {
        const std::string flow = "172.17.0." + std::to_string(i);
        if (table == &JN_SEND_TABLE)
          announced_flow("red", flow, "225.0.0.1");
        else
          hear_in("red", flow, "225.0.0.1", "10.0.1." + std::to_string(i), "239.9.0.1");
      }
      finish_switchovers("red");
      const Arguments last = table == &JN_SEND_TABLE ? flow_index(*table, "red", "225.0.0.1", "172.17.0.60")
                                                     : flow_index(*table, "red", "239.9.0.1", "10.0.1.60");
      const Arguments first = flow_index(*table, "red", "239.9.0.1", "10.0.1.1");
      if (!getnext || table == &JN_RCV_TABLE) {
        EXPECT_NE(run(table->handler, "", getnext ? first : last, getnext).printed, "");
        EXPECT_EQ(run(table->handler, "", getnext ? first : last, getnext, 1).printed, "") << "nobody wants the answer";
      }
      at_yield(1, [this] { vanish_vrf("red"); });
      EXPECT_EQ(run(table->handler, "", last, getnext).printed, "");
      EXPECT_EQ(context("red"), nullptr);
      trace::on_yield(nullptr);
      check_invariants();
      vanish_vrf("zinc");
      EXPECT_TRUE(ref::delete_vrf("red"));
      EXPECT_TRUE(ref::delete_vrf("zinc"));
      ref::settle();
    }
}

}  // namespace

// The module's tables as a network manager reads them: module, agent, Debian's master agent, Debian's tools.
//
// What the agent asks of the module runs on the test's thread while a tool does.
#include <arpa/inet.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "host/language/grammar.h"
#include "host/snmp/agentx.h"
#include "host/snmp/tables.h"
#include "platform/reference/cli.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_ui_show.h"
#include "tests/snmp/tools.h"
#include "tests/support/data_mdt_test.h"

namespace {

using namespace std::chrono_literals;
using host::snmp::AgentX;
using host::snmp::Table;
using Arcs = std::vector<uint32_t>;

constexpr size_t kChangeTime = 1;  // its place among the columns of the generic table

Arcs numbers_of(const std::string &dotted) {
  Arcs numbers;
  std::istringstream in(dotted);
  for (std::string part; std::getline(in, part, '.');)
    if (!part.empty()) numbers.push_back(static_cast<uint32_t>(std::stoul(part)));
  return numbers;
}

std::string dotted_oid(const Arcs &arcs) {
  std::string text;
  for (const uint32_t arc : arcs) text += "." + std::to_string(arc);
  return text;
}

Arcs object(uint32_t arc) {
  Arcs arcs(std::begin(host::snmp::kObjects), std::end(host::snmp::kObjects));
  arcs.push_back(arc);
  return arcs;
}

const Table &table_named(std::string_view name) {
  for (const Table &table : host::snmp::tables())
    if (name == table.name) return table;
  throw std::runtime_error("no such table");
}

// Parts of a row's index.
std::string name_part(const std::string &name) {
  std::string text = "." + std::to_string(name.size());
  for (const char letter : name) text += "." + std::to_string(static_cast<unsigned char>(letter));
  return text;
}
std::string address_parts(ip_addr_t address) {
  return ".1." + std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 255) + "." +
         std::to_string(address >> 8 & 255) + "." + std::to_string(address & 255);
}

class AgentTest : public DataMdtTest {
 protected:
  using Cells = std::map<std::string, std::string>;  // "COLUMN.INDEX": value

  void TearDown() override {
    agent_.reset();
    master_.stop();
    DataMdtTest::TearDown();
  }

  void start_agent() {
    AgentX::Options options;
    options.retry_seconds = 1;
    agent_.emplace(
        io_, master_.agentx_address(), [](const std::function<void()> &work) { work(); },
        [this](const std::string &text) { log_ += text + "\n"; }, options);
  }

  void serve() {
    io_.restart();
    io_.run_for(5ms);
  }
  snmp_tools::Result tool(std::vector<std::string> arguments) {
    return snmp_tools::run(folder_, std::move(arguments), [this] { serve(); });
  }
  // Options of the tools that ask.
  std::vector<std::string> asking(const std::string &program, std::vector<std::string> more) {
    std::vector<std::string> all = {program, "-v2c", "-c", "public",    "-t", "40",
                                    "-r",    "1",    "-M", MIB_FOLDERS, "-m", "LIBMVPN-MIB"};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }

  snmp_tools::Result get(uint32_t arc) {
    return tool(asking(SNMPGET, {"-OQvet", master_.manager_address(), dotted_oid(object(arc)) + ".0"}));
  }
  void serve_for(std::chrono::milliseconds time) {
    const auto until = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < until) serve();
  }
  void wait_for_objects() {
    for (const auto until = std::chrono::steady_clock::now() + 90s; std::chrono::steady_clock::now() < until;) {
      const auto answer = tool({SNMPGET, "-v2c", "-c", "public", "-t", "1", "-r", "0", "-M", MIB_FOLDERS, "-m",
                                "LIBMVPN-MIB", "-OQv", master_.manager_address(), dotted_oid(object(1)) + ".0"});
      if (answer.status == 0 && !answer.out.empty() && std::isdigit(static_cast<unsigned char>(answer.out[0]))) return;
      serve_for(100ms);
    }
    FAIL() << "not served; agent: " << log_ << "master: " << master_.messages();
  }
  void start_both() {
    master_.start();
    start_agent();
    wait_for_objects();
  }

  // A table from its first object to its end; object identifiers must increase.
  Cells walk(const Table &table) {
    const std::string entry = dotted_oid(object(table.arc)) + ".1.";
    const auto walked = tool(asking(SNMPWALK, {"-OQnet", master_.manager_address(), dotted_oid(object(table.arc))}));
    EXPECT_EQ(walked.status, 0) << table.name << walked.err;
    EXPECT_EQ(walked.err, "") << table.name;
    Cells cells;
    Arcs before;
    for (const std::string &line : walked.lines()) {
      const size_t equals = line.find(" = ");
      if (line.rfind(entry, 0) != 0 || equals == std::string::npos) {
        EXPECT_NE(line.find("No Such"), std::string::npos) << line;
        continue;
      }
      const Arcs arcs = numbers_of(line.substr(0, equals));
      EXPECT_LT(before, arcs) << line;
      before = arcs;
      cells[line.substr(entry.size(), equals - entry.size())] = line.substr(equals + 3);
    }
    return cells;
  }
  Cells walk(std::string_view table) { return walk(table_named(table)); }

  // Rows as "INDEX": values of the columns, in the order of the columns.
  static std::map<std::string, Texts> rows(const Cells &cells) {
    std::map<std::string, Texts> by_index;
    for (const auto &[cell, value] : cells) by_index[cell.substr(cell.find('.'))].push_back(value);
    return by_index;
  }

  // Four VRFs: "a" has no tunnel and so no routes, "blue" no ranges, "green" no flows, "red" all there is.
  void build() {
    start_red();
    range("232.1.1.0/28");
    bring_up("blue", 3, "239.1.1.2");
    bring_up("green", 4, "239.1.1.3");
    EXPECT_EQ(command("mdt_data_cmd", "green", {{"<prefix>", "232.2.0.0/24"}, {"threshold", ""}, {"<value>", "77"}}),
              0);
    ref::set_oim_answers(false);
    add_vrf("a", 5);
    EXPECT_EQ(command("mdt_default_cmd", "a", {{"<mdt-default>", "239.1.1.4"}}), 0) << printed;
    ref::settle();
    // Groups fall while sources rise, and several flows have the same source.
    active_flow("172.16.1.1", "225.0.0.9");
    active_flow("172.16.1.2", "225.0.0.1");
    active_flow("172.16.1.2", "225.0.0.3");
    active_flow("172.16.1.3", "225.0.0.2");
    // Several routes of one remote source, and several flows on one announced group.
    for (const char *group : {"226.0.0.1", "226.0.0.2", "226.0.0.3", "226.0.0.4"}) receiver("172.17.0.1", group);
    hear("172.17.0.1", "226.0.0.1", "233.1.1.7");
    hear("172.17.0.1", "226.0.0.2", "233.1.1.3");
    hear("172.17.0.1", "226.0.0.3", "233.1.1.5");
    hear("172.17.0.1", "226.0.0.4", "233.1.1.5");
    // Between two whose group a VRF uses, one whose group none does.
    remote_update({{addr("10.0.0.7"), {}, addr("239.1.1.1"), ""},
                   {addr("10.0.0.8"), {}, addr("239.9.9.9"), ""},
                   {addr("10.0.0.9"), {}, addr("239.1.1.1"), ""}},
                  true);
    ref::settle();
  }

  // Values that a handler prints for an index, which its arguments give.
  Texts printed_by_get(const Table &table, const std::vector<ref::CliArgument> &arguments) {
    struct Sink : ref::CliSink {
      void text(std::string_view) override {}
      void value(const ref::CliValue &value) override { values[value.element] = value.text; }
      std::map<int, std::string> values;
    } sink;
    ref::cli_invoke({.handler = table.handler, .arguments = arguments, .vrf_name = {}}, sink);
    Texts texts;
    for (const host::snmp::Column &column : table.values)
      if (sink.values.count(column.element) != 0) texts.push_back(sink.values[column.element]);
    return texts;
  }

  snmp_tools::Folder folder_;
  snmp_tools::Daemon receiver_{folder_, "receiver"};  // of notifications
  const std::string receiver_address_ = own_address_text(0) + ":1162";
  snmp_tools::Master master_{folder_, receiver_address_};
  boost::asio::io_context io_;
  std::optional<AgentX> agent_;
  std::string log_;
};

std::string unquoted(const std::string &text) {
  return text.size() >= 2 && text.front() == '"' ? text.substr(1, text.size() - 2) : text;
}
Texts unquoted(Texts texts) {
  for (std::string &text : texts) text = unquoted(text);
  return texts;
}

TEST_F(AgentTest, EveryTableEndsWithNothingConfigured) {
  start();
  start_both();
  EXPECT_EQ(get(1).out, "0\n");
  EXPECT_EQ(get(2).out, "2\n");
  for (const Table &table : host::snmp::tables()) EXPECT_TRUE(walk(table).empty()) << table.name;
}

TEST_F(AgentTest, TablesOfVrfsShowWhatHandlersPrint) {
  build();
  start_both();
  EXPECT_EQ(get(1).out, "4\n");
  for (const char *name : {"korvaMvpnMdtDefaultTable", "korvaMvpnMdtDataTable", "korvaMvpnGenericTable"}) {
    const Table &table = table_named(name);
    std::map<std::string, Texts> expected;
    for (const char *vrf : {"a", "blue", "green", "red"})
      if (const Texts values = printed_by_get(table, {{"<mplsVpnVrfName-in>", vrf}}); !values.empty())
        expected[name_part(vrf)] = values;
    EXPECT_EQ(expected.size(), std::string_view(name) == "korvaMvpnMdtDataTable" ? 2u : 4u);
    std::map<std::string, Texts> walked = rows(walk(table));
    // On the stepped clock everything changed just now, long after the clock's start: a time of the agent is far below.
    if (std::string_view(name) == "korvaMvpnGenericTable")
      for (auto &[index, row] : walked) {
        EXPECT_GT(std::stoul(row.at(kChangeTime)), 0u);
        EXPECT_LT(std::stoul(row.at(kChangeTime)), std::stoul(expected[index].at(kChangeTime)) / 2);
        expected[index].at(kChangeTime) = row.at(kChangeTime);
      }
    EXPECT_EQ(walked, expected) << name;
  }
  std::map<std::string, Texts> tunnels;
  for (const char *vrf : {"blue", "green", "red"}) {
    const std::string if_index = std::to_string(context(vrf)->mti_ifindex);
    tunnels["." + if_index] = printed_by_get(table_named("korvaMvpnTunnelTable"), {{"<ifIndex-in>", if_index}});
    EXPECT_EQ(tunnels["." + if_index].size(), 2u);
  }
  std::map<std::string, Texts> walked = rows(walk("korvaMvpnTunnelTable"));
  for (auto &[index, values] : walked) values = unquoted(values);
  EXPECT_EQ(walked, tunnels);
}

TEST_F(AgentTest, EveryCoreRouteIsServed) {
  build();
  start_both();
  std::map<std::string, Texts> expected;
  for (const char *vrf : {"a", "blue", "green", "red"}) {
    const mvpn_cibtype *mvpn = context(vrf);
    for (const mvpn_mdt_route *route = mvpn_mdt_mroute_first(context(vrf)); route != nullptr;
         route = mvpn_mdt_mroute_after(context(vrf), route->source, route->group)) {
      const bool data =
          route->route_type == MVPN_MDT_ROUTE_LOCAL_DATA || route->route_type == MVPN_MDT_ROUTE_REMOTE_DATA;
      // No customer route has these addresses, so every row says upstream.
      expected[name_part(vrf) + address_parts(route->group) + address_parts(route->source) + ".1"] = {
          "1", dotted(mvpn->mdt_default_group), data ? "2" : "1"};
    }
  }
  EXPECT_GT(expected.size(), 8u);
  EXPECT_EQ(rows(walk("korvaMvpnMrouteMdtTable")), expected);
}

TEST_F(AgentTest, EveryFlowAndAnnouncementIsServed) {
  build();
  start_both();
  std::map<std::string, Texts> sent;
  const std::pair<const char *, const char *> flows[] = {{"172.16.1.1", "225.0.0.9"},
                                                         {"172.16.1.2", "225.0.0.1"},
                                                         {"172.16.1.2", "225.0.0.3"},
                                                         {"172.16.1.3", "225.0.0.2"}};
  for (const auto &[source, group] : flows)
    sent[name_part("red") + address_parts(addr(group)) + address_parts(addr(source))] =
        printed_by_get(table_named("korvaMvpnMdtJnSendTable"), {{"<mplsVpnVrfName-in>", "red"},
                                                                {"<korvaMvpnMdtJnSendGroup-in>", group},
                                                                {"<korvaMvpnMdtJnSendSource-in>", source},
                                                                {"<korvaMvpnMdtJnSendGrpAddrType-in>", "1"},
                                                                {"<korvaMvpnMdtJnSendSrcAddrType-in>", "1"}});
  EXPECT_EQ(sent.begin()->second.size(), 2u);
  EXPECT_EQ(rows(walk("korvaMvpnMdtJnSendTable")), sent);

  std::set<std::string> announced, walked;
  for (const char *group : {"233.1.1.3", "233.1.1.5", "233.1.1.7"})
    announced.insert(name_part("red") + address_parts(addr(group)) + address_parts(addr(remote_pe)));
  for (const auto &[index, values] : rows(walk("korvaMvpnMdtJnRcvTable"))) {
    walked.insert(index);
    EXPECT_EQ(values.size(), 2u);
  }
  EXPECT_EQ(walked, announced);
}

TEST_F(AgentTest, BgpAnnouncementsBehindAnUnusedOneAreServed) {
  build();
  start_both();
  std::set<std::string> walked;
  for (const auto &[index, values] : rows(walk("korvaMvpnBgpMdtUpdateTable"))) {
    walked.insert(index);
    EXPECT_EQ(values.size(), 5u);
  }
  std::set<std::string> expected;
  for (const char *source : {"10.0.0.7", "10.0.0.9"})
    expected.insert(address_parts(addr("239.1.1.1")) + address_parts(addr(source)));
  for (const char *vrf : {"blue", "green", "red"})  // our own
    expected.insert(address_parts(context(vrf)->mdt_default_group) + address_parts(addr("10.0.0.1")));
  EXPECT_EQ(walked, expected);
}

// A name that only one side knows is a command that fails, or one that nobody can give.
TEST_F(AgentTest, CommandsAndObjectsNameEveryHandlerOfTheModule) {
  start();
  std::set<std::string> named = host::handlers_of_lines(), registered;
  named.merge(host::snmp::handlers_of_objects());
  for (const std::string &name : ref::cli_registered()) registered.insert(name);
  named.insert("mvpn_show_mdt_send_history_cmd");  // what `show mvpn mdt send history` does under a name of its own
  EXPECT_EQ(named, registered);
}

// From the agent through the master to a receiver that knows the MIB.
TEST_F(AgentTest, NotificationsReachAReceiver) {
  if (std::string_view(SNMPTRAPD).ends_with("NOTFOUND")) GTEST_SKIP() << "no snmptrapd";
  std::ofstream(folder_.path() + "/receiver.conf") << "disableAuthorization yes\nformat2 %v\\n\n";
  receiver_.start({SNMPTRAPD, "-f", "-Lo", "-C", "-c", folder_.path() + "/receiver.conf", "-M", MIB_FOLDERS, "-m",
                   "LIBMVPN-MIB", "-OQs", "udp:" + receiver_address_});
  start();
  start_both();
  host::snmp::DataMdtUse use{"red", true, true, "10.1.1.1", "225.0.0.9", "232.1.1.3"};
  const Texts expected = {" = libmvpnVrfStatusChange",           "libmvpnChangedVrf.0 = \"red\"",
                          "libmvpnFormerStatus.0 = \"Created\"", "libmvpnStatus.0 = \"Up\"",
                          "libmvpnDefaultGroup.0 = 239.1.1.1",   " = libmvpnDataMdtChange",
                          "libmvpnDataMdtDirection.0 = sent",    "libmvpnDataMdtUse.0 = begins",
                          "libmvpnDataMdtSource.0 = 10.1.1.1",   "libmvpnDataMdtCustomerGroup.0 = 225.0.0.9",
                          "libmvpnDataMdtGroup.0 = 232.1.1.3"};
  const auto arrived = [&](const std::string &text) { return receiver_.output().find(text) != std::string::npos; };
  const auto all_arrived = [&] { return std::all_of(expected.begin(), expected.end(), arrived); };
  // Datagrams: the receiver may not listen yet when the first ones come.
  for (const auto until = std::chrono::steady_clock::now() + 90s;
       !all_arrived() && std::chrono::steady_clock::now() < until;) {
    agent_->notify(host::snmp::vrf_notification("red", "Created", "Up", "239.1.1.1"));
    agent_->notify(host::snmp::data_mdt_notification(use));
    serve_for(200ms);
  }
  // More at a time than may wait: managers are told that they missed some.
  const auto is_told = [&] { return arrived(" = libmvpnNotificationsLost") && arrived("libmvpnLostCount.0 = "); };
  for (const auto until = std::chrono::steady_clock::now() + 90s;
       !is_told() && std::chrono::steady_clock::now() < until;) {
    for (int i = 0; i < 3000; i++) agent_->notify(host::snmp::data_mdt_notification(use));
    serve_for(1s);
  }
  EXPECT_TRUE(is_told()) << log_;
  for (const std::string &text : expected)
    EXPECT_TRUE(arrived(text)) << text << "\n" << receiver_.output() << receiver_.messages() << log_;
}

TEST_F(AgentTest, SnmptablePrintsEveryTable) {
  build();
  start_both();
  for (const Table &table : host::snmp::tables()) {
    const auto printed_table = tool(
        asking(SNMPTABLE, {"-Ci", "-Cw", "200", master_.manager_address(), std::string("LIBMVPN-MIB::") + table.name}));
    EXPECT_EQ(printed_table.status, 0) << table.name << printed_table.err;
    EXPECT_EQ(printed_table.err, "") << table.name;
    EXPECT_EQ(printed_table.out.find("No Such"), std::string::npos) << printed_table.out;
  }
}

TEST_F(AgentTest, MasterMayComeLateAndGoAndComeBack) {
  start();
  bring_up("red", 2, "239.1.1.1");
  start_agent();
  const auto nobody = tool({SNMPGET, "-v2c", "-c", "public", "-t", "1", "-r", "0", "-M", MIB_FOLDERS, "-m",
                            "LIBMVPN-MIB", master_.manager_address(), dotted_oid(object(1)) + ".0"});
  EXPECT_NE(nobody.status, 0);
  for (int life = 0; life < 3; life++) {
    SCOPED_TRACE(life);
    master_.start();
    wait_for_objects();
    EXPECT_EQ(walk("korvaMvpnMdtDefaultTable").size(), 4u);
    master_.stop();
  }
  // And the agent may: the master then has nothing of it.
  master_.start();
  wait_for_objects();
  agent_.reset();
  std::string served;
  for (int attempt = 0; attempt < 100 && served.find("No Such") == std::string::npos; attempt++) served = get(1).out;
  EXPECT_NE(served.find("No Such"), std::string::npos) << served;
}

}  // namespace

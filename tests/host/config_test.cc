// The configuration as data: what is read, what is refused and how, printing, editing, differences.
#include "host/config/config.h"
#include "host/config/bgp_settings.h"

#include <gtest/gtest.h>

namespace host {
namespace {

Config read_clean(const std::string &text) {
  std::vector<ConfigError> errors;
  Config config = Config::read(text, &errors);
  for (const ConfigError &error : errors) ADD_FAILURE() << error.line << ": " << error.reason;
  return config;
}

// Everything that is wrong, "LINE: REASON" each.
std::vector<std::string> problems(const std::string &text) {
  std::vector<ConfigError> errors;
  const Config config = Config::read(text, &errors);
  for (const ConfigError &error : config.check()) errors.push_back(error);
  std::vector<std::string> all;
  for (const ConfigError &error : errors) all.push_back(std::to_string(error.line) + ": " + error.reason);
  return all;
}

Statement statement(Mode mode, const std::string &line) {
  const Match match = match_line(mode, split_words(line), false);
  EXPECT_FALSE(match.error) << line;
  return match.error ? Statement() : match.statements.back();
}

constexpr const char *kFull = R"(! every sort of line
hostname pe1
clock scale 60
no feature mvpn
route-map voice permit 10.0.0.0/8 232.0.0.0/8
route-map voice deny 0.0.0.0/0 224.0.0.0/4
pim
  ssm range 239.1.0.0/16
  mtu 1400
core
  carrier gre-udp listen 127.0.0.1:4754
  peer 127.0.0.2:4754
interface loopback0
  ip address 10.0.0.1
interface lan
  ip address 192.168.1.1
  vrf red
  shutdown
vrf red
  context-id 7
  table-id 9
  rd 65000:1
  mdt default 239.1.1.1
  mdt source loopback0
  mdt data 239.2.0.0/24 threshold 10 route-map voice
  mdt data 239.3.0.0/24 immediate-switch
  mdt data bidir enable
  mdt data inhibit-reuse
  mdt mtu 1300
  mdt pim hello-interval 1000
  mdt pim jp-interval 120
  no mdt enforce-bgp-mdt-safi
  mroute 10.1.1.1 232.1.1.1 iif lan rpf 10.1.1.1 oif mvpn rate 100
  mroute * 225.1.1.1 iif mvpn oif lan oif mvpn bidir
bgp
  local-as 65000
  router-id 10.0.0.1
  listen 127.0.0.1:1790
  update-source loopback0
  no graceful-restart
  restart-time 30
  neighbor 10.0.0.9 remote-as 65000
  neighbor 10.0.0.9 description the reflector  in   the north
  neighbor 10.0.0.9 password s3cret
  neighbor 10.0.0.9 hold-time 0
  neighbor 10.0.0.8 remote-as 4200000000
  neighbor 10.0.0.8 maximum-prefix 10 warning-only
  neighbor 10.0.0.8 shutdown message until noon
  neighbor 10.0.0.8 passive
)";

TEST(ConfigTest, PrintedConfigurationReadsBackTheSame) {
  const Config config = read_clean(kFull);
  EXPECT_TRUE(config.check().empty());
  const std::string printed = config.print(Config::Passwords::shown);
  const Config again = read_clean(printed);
  EXPECT_EQ(again.print(Config::Passwords::shown), printed);
  EXPECT_TRUE(difference(config, again).empty());
  // Nothing was lost on the way: as many lines as were written, without the comment and the blocks' ends.
  size_t lines = 0;
  for (const auto &[id, block] : config.blocks()) lines += block->lines().size();
  EXPECT_EQ(lines, 42u);
}

TEST(ConfigTest, PasswordsAreNotPrintedAndNotTakenForWhatStandsInTheirPlace) {
  const Config config = read_clean(kFull);
  const std::string printed = config.print();
  EXPECT_EQ(printed.find("s3cret"), std::string::npos);
  EXPECT_NE(printed.find("  neighbor 10.0.0.9 password <hidden>\n"), std::string::npos);
  std::vector<ConfigError> errors;
  Config::read(printed, &errors);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].reason, "'<hidden>' stands for a password that was not shown; write the password");
  const Statement other =
      match_line(Mode::bgp, split_words("no neighbor 10.0.0.9 password guess"), false).statements.front();
  EXPECT_EQ(config.refusal({Mode::bgp, ""}, other),
            "there is no line 'neighbor 10.0.0.9 password <hidden>', but 'neighbor 10.0.0.9 password <hidden>'");
}

TEST(ConfigTest, NeighboursBecomeTheSpeakersOwn) {
  Config config = read_clean(kFull);
  const std::optional<BgpSettings> settings = bgp_settings(config);
  ASSERT_TRUE(settings);
  EXPECT_EQ(settings->speaker.local_as, 65000u);
  EXPECT_FALSE(settings->speaker.graceful_restart);
  EXPECT_EQ(settings->speaker.restart_time, 30);
  ASSERT_EQ(settings->neighbors.size(), 2u);
  const bgp::NeighborConfig &external = settings->neighbors[0], &reflector = settings->neighbors[1];
  EXPECT_EQ(external.remote_as, 4200000000u);
  EXPECT_TRUE(external.shutdown && external.passive && external.maximum_prefix.warning_only);
  EXPECT_EQ(external.shutdown_message, "until noon");
  EXPECT_EQ(external.maximum_prefix.limit, 10u);
  EXPECT_EQ(reflector.description, "the reflector in the north");
  EXPECT_EQ(reflector.password, "s3cret");
  EXPECT_EQ(reflector.hold_time, 0);
  EXPECT_EQ(reflector.local_address, 0x7F000001u);
  // Without an address to listen on BGP speaks from its update source's.
  config.edit({Mode::bgp, ""}, match_line(Mode::bgp, {"no", "listen"}, false).statements.front());
  EXPECT_EQ(bgp_settings(config)->neighbors[0].local_address, 0x0A000001u);
  // All lines of a neighbour go at once.
  config.edit({Mode::bgp, ""}, match_line(Mode::bgp, {"no", "neighbor", "10.0.0.8"}, false).statements.front());
  EXPECT_EQ(bgp_settings(config)->neighbors.size(), 1u);
}

TEST(ConfigTest, SaysWhatIsWrongAndWhere) {
  const struct {
    const char *text;
    const char *problem;
  } cases[] = {
      {"hostnam x\n", "1: 'hostnam' is not known here"},
      {"interface eth0\n  ip address 10.0.0.256\n", "2: '10.0.0.256' is not an IPv4 address"},
      {"interface eth0\n  ip address 10.0.0.1/24\n", "2: '10.0.0.1/24' is a prefix, and an address is wanted"},
      {"interface 0123456789012345678901234567890123456789\n", "is longer than 39 characters"},
      {"vrf aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa\n  rd 1:1\n", "1: 'aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa' is longer than 32"},
      {"vrf red\n  mdt data 239.1.0.0/33\n", "2: '239.1.0.0/33' has a mask length over 32"},
      {"vrf red\n  mdt default 10.0.0.1\n", "2: '10.0.0.1' is not a multicast group"},
      {"vrf red\n  mdt mtu 20\n", "2: '20' is outside 576..65535"},
      {"vrf red\n  mdt data 239.1.0.0/16 threshold\n", "2: the line is incomplete; expected <0-4294967295>"},
      {"vrf red\n  mdt data 239.1.0.0/16 threshold 1 threshold 2\n", "2: 'threshold' is not known here"},
      {"vrf red\n  rd 65536:65536\n", "2: '65536:65536' has a number over 65535"},
      {"vrf red\n\nvrf red\n", "3: VRF red is there already, in line 1"},
      {"vrf red\n  context-id 5\nvrf blue\n  context-id 5\n", "4: context id 5 belongs to VRF red"},
      {"vrf a\n  table-id 5\nvrf b\n  table-id 5\n", "4: table id 5 belongs to VRF a"},
      {"vrf default\n", "1: the VRF default is the core's"},
      {"interface eth0\n  vrf green\n", "2: interface eth0: there is no VRF green"},
      {"vrf red\n  mroute * 225.1.1.1 iif eth0\n", "2: VRF red: there is no interface eth0"},
      {"interface eth0\nvrf red\n  mroute * 225.1.1.1 oif eth0\n", "3: interface eth0 is not in VRF red"},
      {"core\n  carrier gre-udp listen 10.0.0.1:4754\n", "2: the carrier listens on loopback addresses"},
      {"core\n  carrier gre-udp listen 127.0.0.1:1\n  peer 127.0.0.2:2\n", "3: peer 127.0.0.2:2 does not have"},
      {"interface lan\n  vrf red\nvrf red\n  mdt source lan\n", "4: interface lan is in VRF red, not in the core"},
      {"interface lan\n  vrf red\nvrf red\nbgp\n  update-source lan\n", "5: interface lan is in VRF red, not"},
      {"interface mti2\n", "1: mti2 is a name that the tunnel manager gives"},
      {"vrf red\n  rd 1:1\n  no rd 1:2\n", "3: there is no line 'rd 1:2', but 'rd 1:1'"},
      {"interface eth0\n  ip address 224.0.0.1\n", "2: '224.0.0.1' is not the address of one host"},
      {"interface eth0\n  ip address 0.0.0.0\n", "2: '0.0.0.0' is not the address of one host"},
      {"interface eth0\n  ip address 255.255.255.255\n", "2: '255.255.255.255' is not the address of one host"},
      {"vrf red\n  mroute 239.1.1.1 232.1.1.1\n", "2: '239.1.1.1' is not the address of one host"},
      {"pim\n  ssm range 10.0.0.0/8\n", "2: '10.0.0.0/8' is not a range of multicast groups"},
      {"pim\n  bidir range 224.0.0.0/3\n", "2: '224.0.0.0/3' is not a range of multicast groups"},
      {"pim\n  ssm range 239.1.0.1/16\n", "2: '239.1.0.1/16' has bits set behind its mask length"},
      {"host\x1b\xc3 x\n", "1: 'host\\x1b\\xc3' is not known here"},
  };
  for (const auto &test : cases) {
    const std::vector<std::string> found = problems(test.text);
    ASSERT_EQ(found.size(), 1u) << test.text;
    EXPECT_NE(found.front().find(test.problem), std::string::npos) << found.front();
  }
}

TEST(ConfigTest, LinesOfABlockWhoseHeaderIsWrongAreNotReported) {
  EXPECT_EQ(problems("vrff red\n  mdt default x\n  rd y\nhostname a\n").size(), 1u);
}

TEST(ConfigTest, ALineReplacesTheOneWithItsIdentity) {
  Config config = read_clean("vrf red\n  mdt data 239.1.0.0/16 threshold 5\n  mdt data 239.2.0.0/16\n");
  const BlockId red{Mode::vrf, "red"};
  config.edit(red, statement(Mode::vrf, "mdt data 239.1.0.0/16 immediate-switch"));
  EXPECT_EQ(config.print(), "vrf red\n  mdt data 239.1.0.0/16 immediate-switch\n  mdt data 239.2.0.0/16\n!\n");
  config.edit(red, statement(Mode::vrf, "no mdt data 239.1.0.0/16 threshold 9"));
  EXPECT_EQ(config.print(), "vrf red\n  mdt data 239.2.0.0/16\n!\n");
  config.edit(red, statement(Mode::vrf, "no mdt enforce-bgp-mdt-safi"));
  EXPECT_EQ(config.print(), "vrf red\n  mdt data 239.2.0.0/16\n  no mdt enforce-bgp-mdt-safi\n!\n");
  config.edit(red, statement(Mode::vrf, "mdt enforce-bgp-mdt-safi"));
  config.edit(red, statement(Mode::vrf, "no mdt source"));
  EXPECT_EQ(config.print(), "vrf red\n  mdt data 239.2.0.0/16\n!\n");
}

TEST(ConfigTest, ANoLineMustMeanALineThatIsThere) {
  Config config = read_clean(
      "route-map a permit 10.0.0.0/8 232.0.0.0/8\npim\n  ssm range 239.1.0.0/16\ninterface lan\n  vrf red\n"
      "vrf red\n  rd 1:1\n  mdt mtu 1400\n  mdt data 239.2.0.0/24 threshold 5 immediate-switch\n"
      "  mroute 10.1.1.1 232.1.1.1 oif lan oif mvpn\n");
  const struct {
    BlockId block;
    const char *line;
    const char *refusal;
  } cases[] = {
      {{Mode::vrf, "red"}, "no rd", ""},
      {{Mode::vrf, "red"}, "no rd 1:1", ""},
      {{Mode::vrf, "red"}, "no rd 1:2", "there is no line 'rd 1:2', but 'rd 1:1'"},
      {{Mode::vrf, "red"}, "no mdt mtu 1300", "there is no line 'mdt mtu 1300', but 'mdt mtu 1400'"},
      {{Mode::vrf, "red"}, "no mdt source", ""},
      {{Mode::vrf, "red"}, "no mdt source lan", "there is no line 'mdt source lan'"},
      {{Mode::vrf, "red"}, "mdt enforce-bgp-mdt-safi", ""},
      {{Mode::vrf, "red"}, "no mdt data 239.2.0.0/24", ""},
      {{Mode::vrf, "red"}, "no mdt data 239.2.0.0/24 threshold 5", ""},
      {{Mode::vrf, "red"},
       "no mdt data 239.2.0.0/24 threshold 6",
       "there is no line 'mdt data 239.2.0.0/24 threshold 6', but 'mdt data 239.2.0.0/24 threshold 5 "
       "immediate-switch'"},
      {{Mode::vrf, "red"}, "no mdt data 239.3.0.0/24", "there is no line 'mdt data 239.3.0.0/24'"},
      {{Mode::vrf, "red"}, "no mroute 10.1.1.1 232.1.1.1 oif mvpn", ""},
      {{Mode::vrf, "red"}, "no mroute 10.1.1.2 232.1.1.1", "there is no line 'mroute 10.1.1.2 232.1.1.1'"},
      {{Mode::vrf, "blue"}, "no rd 1:1", "there is no line 'rd 1:1'"},
      {{Mode::global, ""}, "no route-map a", ""},
      {{Mode::global, ""}, "no route-map b", "there is no line 'route-map b'"},
      {{Mode::global, ""},
       "no route-map a deny 10.0.0.0/8 232.0.0.0/8",
       "there is no line 'route-map a deny 10.0.0.0/8 232.0.0.0/8', but 'route-map a permit 10.0.0.0/8 232.0.0.0/8'"},
      {{Mode::pim, ""}, "no ssm range 239.2.0.0/16", "there is no line 'ssm range 239.2.0.0/16'"},
      {{Mode::interface, "lan"}, "no shutdown", ""},
  };
  for (const auto &test : cases)
    EXPECT_EQ(config.refusal(test.block, statement(test.block.mode, test.line)), test.refusal) << test.line;
}

TEST(ConfigTest, RemovingARouteMapRemovesItsEntriesAndNoOthers) {
  Config config = read_clean(
      "route-map a permit 10.0.0.0/8 232.0.0.0/8\nroute-map a deny 11.0.0.0/8 232.0.0.0/8\n"
      "route-map ab permit 10.0.0.0/8 232.0.0.0/8\n");
  config.edit({}, statement(Mode::global, "no route-map a"));
  EXPECT_EQ(config.print(), "route-map ab permit 10.0.0.0/8 232.0.0.0/8\n!\n");
}

TEST(ConfigTest, NumbersThatAreNotGivenAreChosenAndKept) {
  Config config = read_clean("vrf a\nvrf b\n  context-id 2\nvrf c\n");
  config.choose_numbers(nullptr);
  EXPECT_EQ(*config.vrf("a")->value(Command::context_id, "id"), "3");
  EXPECT_EQ(*config.vrf("c")->value(Command::context_id, "id"), "4");
  Config later = read_clean("vrf c\n");
  later.choose_numbers(&config);
  EXPECT_EQ(*later.vrf("c")->value(Command::context_id, "id"), "4");
  EXPECT_TRUE(later.check().empty());
}

TEST(ConfigTest, DifferenceNamesWhatChanged) {
  const Config before = read_clean("hostname a\nvrf red\n  rd 1:1\n  mdt mtu 1300\nvrf blue\n  rd 1:2\n");
  const Config after = read_clean("hostname a\nvrf red\n  rd 1:3\n  mdt source lo\nvrf blue\n  rd 1:2\n");
  std::vector<std::string> changes;
  for (const LineChange &change : difference(before, after))
    changes.push_back((change.before != nullptr ? change.before->statement.text : "") + " -> " +
                      (change.after != nullptr ? change.after->statement.text : ""));
  EXPECT_EQ(changes, (std::vector<std::string>{"mdt mtu 1300 -> ", "rd 1:1 -> rd 1:3", " -> mdt source lo"}));
}

TEST(ConfigTest, CopiesAreIndependent) {
  Config config = read_clean("vrf red\n  rd 1:1\n");
  const Config copy = config;
  config.edit({Mode::vrf, "red"}, statement(Mode::vrf, "rd 1:2"));
  EXPECT_EQ(copy.print(), "vrf red\n  rd 1:1\n!\n");
}

}  // namespace
}  // namespace host

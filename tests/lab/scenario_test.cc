// What a scenario file may say, what follows from it, and what is told when it is wrong.
#include "lab/scenario.h"

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "lab/config_template.h"
#include "lab/drawing.h"
#include "lab/network.h"
#include "lab/report.h"
#include "lab/traffic_control.h"

namespace lab {
namespace {

std::string written(const std::string &name, const std::string &text) {
  const std::string file = testing::TempDir() + name;
  std::ofstream(file) << text;
  return file;
}

// The reason that a function throws, or "accepted".
template <typename Function>
std::string refusal(Function function) {
  try {
    function();
    return "accepted";
  } catch (const std::exception &error) {
    return error.what();
  }
}

constexpr char kNetwork[] = R"("network": {"pes": 3, "vrfs": {"red": {"pes": ["pe1", "pe2"]}, "blue": {}},
  "flows": {"film": {"vrf": "red", "from": "pe1", "group": "232.1.1.1"},
            "news": {"vrf": "*", "from": "pe2", "group": "232.1.1.2"}}})";

std::string scenario_with(const std::string &setting, const std::string &steps) {
  return R"({"name": "n", )" + setting + R"(, "steps": [)" + steps + "]}";
}

TEST(Scenario, RefusesWhatItCannotPlay) {
  struct Case {
    const char *steps;
    const char *reason;
    bool network;
  };
  const std::string pes = R"("pes": {"pe1": {"config": ["hostname pe1"]}})";
  const Case cases[] = {
      {R"({"start": "pe1"})", "accepted", false},
      {R"({"start": "pe9"})", "there is no PE 'pe9'", false},
      {R"({"start": "pe1", "stop": "pe1"})", "'stop' is not known here", false},
      {R"({"start": "pe1", "part": "forwarder"})", "'start' needs a network", false},
      {R"({"mark": "m"})", "'mark' needs a network", false},
      {R"({"why": "nothing"})", "a step that does nothing", false},
      {R"({"on": "pe1", "expect": "e", "command": "show clock", "matches": "("})", "regular expression", false},
      {R"({"flow": "film", "rate": 1})", "accepted", true},
      {R"({"flow": "game", "rate": 1})", "there is no flow 'game'", true},
      {R"({"flow": "film", "join": "pe3"})", "pe3 has no VRF red", true},
      {R"({"in": "pe3/red", "command": "true"})", "pe3 has no VRF red", true},
      {R"({"in": "pe3/blue/host", "command": "true"})", "accepted", true},
      {R"({"vrf": "red", "of": "pe1", "set": "gone"})", "it can be set present or absent", true},
      {R"({"link": "pe1", "lose": 101})", "0 to 100 percent", true},
      {R"({"link": "pe1", "expect": "e", "groups": "239.1.8.0/24"})", "accepted", true},
      {R"({"link": "pe1", "expect": "e", "groups": "239.1.8.0/2x"})", "'239.1.8.0/2x' is no prefix", true},
      {R"({"link": "pe1", "expect": "e", "groups": "data"})", "'data' is no IPv4 address", true},
      {R"({"start": "pe1", "part": "engine"})", "a part is control or forwarder", true},
  };
  for (const Case &item : cases) {
    const std::string file = written("steps.json", scenario_with(item.network ? kNetwork : pes, item.steps));
    const std::string reason = refusal([&] { read_scenario(file); });
    EXPECT_NE(reason.find(item.reason), std::string::npos) << item.steps << ": " << reason;
  }
}

TEST(Scenario, AllAndStarStandForEveryPeAndFlow) {
  const auto count = [](const std::string &step) {
    return read_scenario(written("all.json", scenario_with(kNetwork, step))).steps.size();
  };
  EXPECT_EQ(count(R"({"start": "all"})"), 3U);
  EXPECT_EQ(count(R"({"flow": "*", "rate": 1})"), 3U);  // film, news-red, news-blue
  // film reaches pe2; news-red pe1; news-blue pe1 and pe3. Nobody is told to join his own flow.
  EXPECT_EQ(count(R"({"flow": "*", "join": "all"})"), 4U);
}

TEST(Network, RefusesWhatCannotBeBuilt) {
  const std::pair<const char *, const char *> cases[] = {
      {R"({"pes": 2, "vrfs": 2})", "accepted"},
      {R"({"pes": 0, "vrfs": 2})", "1 to 99"},
      {R"({"pes": 100, "vrfs": 2})", "1 to 99"},
      {R"({"pes": 2, "vrfs": {}})", "without VRFs"},
      {R"({"pes": ["PE-1"], "vrfs": 1})", "small letters and digits"},
      {R"({"pes": 2, "vrfs": {"red": {"pes": ["pe3"]}}})", "there is no PE 'pe3'"},
      {R"({"pes": 2, "vrfs": {"red": {"colour": 1}}})", "'colour' is not known here"},
      {R"({"pes": 2, "vrfs": 1, "core": "ring"})", "bridge or routed"},
      {R"({"pes": 2, "vrfs": {"red": {"pes": ["pe1"]}}, "flows": {"f": {"vrf": "red", "from": "pe2", "group": "232.1.1.1"}}})",
       "pe2 has no VRF red"},
  };
  for (const auto &[text, expected] : cases) {
    const std::string reason = refusal([&, text = text] { read_network(nlohmann::ordered_json::parse(text)); });
    EXPECT_NE(reason.find(expected), std::string::npos) << text << ": " << reason;
  }
}

TEST(ConfigTemplate, FillsInListsAndRefusesNamesWithoutAValue) {
  const std::string file = written("t.conf", "host {{PE}}\n{{#VRFS}}\nvrf {{VRF}} of {{PE}}\n{{/VRFS}}\nend\n");
  const nlohmann::json two{{"PE", "pe1"}, {"VRFS", {{{"VRF", "red"}}, {{"VRF", "blue"}}}}};
  EXPECT_EQ(fill_template(file, two), "host pe1\nvrf red of pe1\nvrf blue of pe1\nend\n");
  EXPECT_EQ(fill_template(file, {{"PE", "pe1"}, {"VRFS", nlohmann::json::array()}}), "host pe1\nend\n");
  const std::string slip = written("slip.conf", "host {{HOST}}\n");
  EXPECT_NE(refusal([&] { fill_template(slip, two); }).find("{{HOST}} has no value"), std::string::npos);
  EXPECT_NE(refusal([&] { fill_template("/nowhere", two); }).find("cannot be read"), std::string::npos);
}

TEST(TrafficControl, AnAddressLiesInAPrefix) {
  EXPECT_TRUE(in_prefix("239.1.8.255", "239.1.8.0/24"));
  EXPECT_FALSE(in_prefix("239.1.9.0", "239.1.8.0/24"));
  EXPECT_TRUE(in_prefix("239.1.8.1", "239.1.8.1"));
  EXPECT_TRUE(in_prefix("10.0.0.1", "0.0.0.0/0"));
  EXPECT_NE(refusal([] { in_prefix("10.0.0.1", "10.0.0.0/33"); }), "accepted");
}

// A flow of ten packets a tenth of a second, of which the receiver misses four in the second tenth.
TEST(Drawing, ShowsALossWhereItWasAndEscapesWhatItIsTold) {
  Report report("n");
  report.action("<pe1> & 'others'");
  report.line("end");
  const int64_t start = report.start_ns() / 100'000'000;
  const nlohmann::json flow{{"sent", {{start, 10}, {start + 1, 10}}},
                            {"received", {{"pe2", {{start, 10}, {start + 1, 6}}}}},
                            {"joined", {{"pe2", {{start, INT64_MAX}}}}},
                            {"groups", {{"239.1.1.1", {{start, 10}, {start + 1, 10}}}}}};
  const std::string drawing = draw_flow(flow, report);
  EXPECT_NE(drawing.find("4 of 10 lost"), std::string::npos) << drawing;
  EXPECT_EQ(drawing.find("0 of 10 lost"), std::string::npos) << drawing;
  EXPECT_NE(drawing.find("239.1.1.1: 20 packets"), std::string::npos) << drawing;
  EXPECT_NE(drawing.find("&lt;pe1&gt; &amp; &#39;others&#39;"), std::string::npos) << drawing;
}

}  // namespace
}  // namespace lab

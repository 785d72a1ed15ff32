// Work on configurations: differences as they are read, what a reload would take back, warnings, writing the file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "host/config/config_diff.h"
#include "host/config/config_edit.h"
#include "host/config/config_file.h"
#include "host/config/config_warnings.h"

namespace host {
namespace {

using Lines = std::vector<std::string>;

Config numbered(const std::string &text) {
  std::vector<ConfigError> errors;
  Config config = Config::read(text, &errors);
  for (const ConfigError &error : errors) ADD_FAILURE() << error.line << ": " << error.reason;
  config.choose_numbers(nullptr);
  return config;
}

// A configuration after an operator's lines.
Config entered(Config config, const Lines &lines) {
  const Config before = config;
  for (const std::string &line : lines) {
    const Match match = match_line(Mode::global, split_words(line), true);
    if (match.error)
      ADD_FAILURE() << line << ": " << match.error->reason;
    else
      EXPECT_EQ(edit_config(match.statements, &config), "") << line;
  }
  config.choose_numbers(&before);
  return config;
}

constexpr const char *kFile =
    "hostname a\n"
    "interface lo\n  ip address 10.0.0.1\n"
    "vrf red\n  context-id 5\n  rd 1:1\n  mdt mtu 1300\n"
    "bgp\n  local-as 1\n  neighbor 10.0.0.2 remote-as 1\n  neighbor 10.0.0.2 password old\n";

TEST(ConfigWorkTest, DifferencesAreReadAsChangesOfAFile) {
  struct Case {
    Lines commands, difference;
  };
  const Case cases[] = {
      {{}, {}},
      {{"hostname b"}, {"-hostname a", "+hostname b"}},
      {{"vrf red no mdt mtu", "vrf red rd 1:2"}, {" vrf red", "-  mdt mtu 1300", "-  rd 1:1", "+  rd 1:2"}},
      {{"no feature mvpn"}, {"+no feature mvpn"}},
      {{"vrf blue"}, {"+vrf blue", "+  context-id 2", "+  table-id 3"}},
      {{"no vrf red"}, {"-vrf red", "-  context-id 5", "-  table-id 2", "-  rd 1:1", "-  mdt mtu 1300"}},
      {{"bgp neighbor 10.0.0.2 password new"},
       {" bgp", "-  neighbor 10.0.0.2 password <hidden>", "+  neighbor 10.0.0.2 password <hidden>"}},
      {{"pim"}, {}},  // says nothing
      {{"forwarding kernel"}, {"+forwarding kernel"}},
  };
  const Config before = numbered(kFile);
  for (const Case &each : cases) {
    const Config after = entered(before, each.commands);
    EXPECT_EQ(difference_text(before, after), each.difference) << ::testing::PrintToString(each.commands);
    EXPECT_TRUE(difference_text(after, after).empty());
  }
}

TEST(ConfigWorkTest, WhatAReloadTakesBackIsNamedAsItWasEntered) {
  struct Case {
    Lines commands;
    std::string file;  // that is loaded
    Lines lost;
  };
  const std::string file = kFile;
  const Case cases[] = {
      {{"hostname b", "vrf red no mdt mtu", "no feature mvpn"},
       file,
       {"hostname b", "no feature mvpn", "vrf red no mdt mtu 1300"}},
      {{"hostname b"}, "hostname b\n" + file.substr(file.find('\n') + 1), {}},  // the file has it, too
      {{"vrf blue rd 1:9"}, file, {"vrf blue", "vrf blue rd 1:9"}},
      {{"no vrf red"}, file, {"no vrf red"}},
      {{"no vrf red"}, file.substr(0, file.find("vrf red")), {}},
      {{"vrf red context-id 6"}, file, {"vrf red context-id 6"}},
      {{}, "hostname c\n", {}},  // what the file itself takes away was not entered
      {{"bgp neighbor 10.0.0.2 password new"}, file, {"bgp neighbor 10.0.0.2 password <hidden>"}},
  };
  const Config loaded = numbered(kFile);
  for (const Case &each : cases) {
    std::vector<ConfigError> errors;
    EXPECT_EQ(lost_changes(loaded, entered(loaded, each.commands), Config::read(each.file, &errors)), each.lost)
        << ::testing::PrintToString(each.commands);
    EXPECT_TRUE(errors.empty());
  }
}

TEST(ConfigWorkTest, WarningsNameWhatIsHardlyMeant) {
  struct Case {
    std::string lines;  // behind an interface lo
    Lines warnings;     // "LINE: REASON"
  };
  const std::string lo = "interface lo\n  ip address 10.0.0.1\n";
  const auto source_at = [](const std::string &address) {
    return "interface x\n  ip address " + address + "\nvrf red\n  mdt source x\n";
  };
  const Case cases[] = {
      {"vrf red\n  rd 1:1\n  mdt default 239.1.1.1\n  mdt source lo\nbgp\n  update-source lo\n", {}},
      {"bgp\n  update-source nowhere\n", {"4: BGP's update source, interface nowhere, is not configured"}},
      {"vrf red\n  mdt source nowhere\n", {"4: VRF red: the MDT source, interface nowhere, is not configured"}},
      {"vrf red\n  mdt data 239.2.0.0/24 route-map m\n", {"4: VRF red: there is no route-map m: it selects no flow"}},
      {"route-map m permit 10.0.0.0/8 232.0.0.0/8\nvrf red\n  mdt data 239.2.0.0/24 route-map m\n", {}},
      // The later line of the two, whatever the VRFs' names.
      {"vrf b\n  rd 01:1\nvrf a\n  rd 1:1\n", {"6: VRF a: the route distinguisher 1:1 is that of VRF b, too"}},
      {"vrf a\n  rd 1:1\nvrf b\n  rd 1:1\n", {"6: VRF b: the route distinguisher 1:1 is that of VRF a, too"}},
      {"vrf a\n  mdt default 224.0.0.255\nvrf b\n  mdt default 224.0.1.0\n",
       {"4: VRF a: the default group 224.0.0.255 is a link-local one, which routers do not forward"}},
      {source_at("127.1.2.3"),
       {"6: VRF red: the MDT source, interface x, has a loopback address, 127.1.2.3, which no core carries"}},
      {source_at("169.254.0.1"),
       {"6: VRF red: the MDT source, interface x, has a link-local address, 169.254.0.1, which no core carries"}},
      {source_at("0.0.0.1"),
       {"6: VRF red: the MDT source, interface x, has an address of no network, 0.0.0.1, which no core carries"}},
      {source_at("240.0.0.1"),
       {"6: VRF red: the MDT source, interface x, has a reserved address, 240.0.0.1, which no core carries"}},
      {source_at("169.253.255.255"), {}},
      {source_at("1.0.0.0"), {}},
  };
  for (const Case &each : cases) {
    Lines warnings;
    for (const ConfigError &warning : config_warnings(numbered(lo + each.lines)))
      warnings.push_back(std::to_string(warning.line) + ": " + warning.reason);
    EXPECT_EQ(warnings, each.warnings) << each.lines;
  }
}

class ConfigFileTest : public ::testing::Test {
 protected:
  ConfigFileTest() {
    char folder[] = "/tmp/config-work-XXXXXX";
    folder_ = mkdtemp(folder);
  }
  ~ConfigFileTest() override { std::filesystem::remove_all(folder_); }

  std::string path(const std::string &name) const { return folder_ + "/" + name; }
  void put(const std::string &name, const std::string &text) const { std::ofstream(path(name)) << text; }
  std::string text(const std::string &name) const {
    std::ifstream in(path(name));
    return {std::istreambuf_iterator<char>(in), {}};
  }
  Lines names() const {
    Lines all;
    for (const auto &entry : std::filesystem::directory_iterator(folder_)) all.push_back(entry.path().filename());
    std::ranges::sort(all);
    return all;
  }

  std::string folder_;
};

TEST_F(ConfigFileTest, AWrittenFileTakesTheFormersPlaceRightsAndLinks) {
  put("real", "one\n");
  ASSERT_EQ(chmod(path("real").c_str(), 0640), 0);
  std::filesystem::create_symlink("real", path("link"));
  ASSERT_EQ(write_config_file(path("link"), "two\n"), "");
  ASSERT_EQ(write_config_file(path("link"), "three\n"), "");
  EXPECT_TRUE(std::filesystem::is_symlink(path("link")));
  EXPECT_EQ(text("real"), "three\n");
  EXPECT_EQ(text("real~"), "two\n");
  struct stat status {};
  ASSERT_EQ(stat(path("real").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  EXPECT_EQ(names(), (Lines{"link", "real", "real~"}));
  // Without a former file nobody else may read it.
  ASSERT_EQ(write_config_file(path("new"), "four\n"), "");
  ASSERT_EQ(stat(path("new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(ConfigFileTest, WhenWritingFailsTheFormerFileIsThereAndNothingElse) {
  put("real", "one\n");
  std::filesystem::create_directories(path("real~/full"));  // the former file cannot be kept under its name
  EXPECT_EQ(write_config_file(path("real"), "two\n"), path("real") + " cannot be written: Is a directory");
  EXPECT_EQ(text("real"), "one\n");
  EXPECT_EQ(names(), (Lines{"real", "real~"}));
  EXPECT_EQ(write_config_file(path("nowhere/real"), "two\n"),
            path("nowhere/real") + " cannot be written: No such file or directory");
  EXPECT_EQ(names(), (Lines{"real", "real~"}));
}

}  // namespace
}  // namespace host

// Every line that the configuration language has, made from its grammar, against those who must know it: the YANG
// module and its rows, who reads a neighbour's settings, and the sources that follow a command. Nobody lists lines
// here, so a new one is looked at as soon as the grammar has it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "host/config/bgp_settings.h"
#include "host/config/config.h"
#include "host/config/yang.h"

namespace host {
namespace {

using Json = nlohmann::json;
using Names = std::set<std::string>;
using Lines = std::vector<std::string>;

// ------------------------------------------------------------------------------------------------------------- lines

// Two values of each type, so that a value which is lost makes two lines the same.
std::string some_value(const Word &word, bool other) {
  const auto either = [other](const char *one, const char *another) { return other ? another : one; };
  switch (word.type) {
    case ValueType::number:
      return std::to_string(other ? word.range.high : word.range.low);
    case ValueType::address:
    case ValueType::unicast:
    case ValueType::source:
      return either("10.0.0.1", "10.0.0.2");
    case ValueType::group:
      return either("239.1.1.1", "239.1.1.2");
    case ValueType::prefix:
    case ValueType::groups:
      return either("239.1.0.0/16", "239.2.0.0/16");
    case ValueType::rd:
      return either("1:1", "1:2");
    case ValueType::endpoint:
      return either("127.0.0.1:4754", "127.0.0.1:4755");
    default:
      return either("some", "other");
  }
}

// Every line below a word, with one option at most; all its values are the first ones but for one of them.
void add_lines(const Word &word, const std::string &before, bool all_first, Lines *lines) {
  for (const bool other : {false, true}) {
    if (other && (word.kind == Word::Kind::keyword || !all_first)) return;
    const std::string line =
        before + (before.empty() ? "" : " ") + (word.kind == Word::Kind::keyword ? word.text : some_value(word, other));
    if (word.ends == Ends::always) lines->push_back((word.on_by_default ? "no " : "") + line);
    for (const Word &next : word.next) add_lines(next, line, all_first && !other, lines);
    for (const Word &option : word.options) {
      if (option.next.empty()) lines->push_back(line + " " + option.text);
      for (const Word &value : option.next)
        for (const bool second : {false, true})
          lines->push_back(line + " " + option.text + " " + some_value(value, second));
    }
  }
}

Lines lines_of(Mode mode) {
  Lines lines;
  for (const Word &word : root_of(mode)) add_lines(word, "", true, &lines);
  std::ranges::sort(lines);
  lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
  return lines;
}

constexpr Mode kModes[] = {Mode::global,    Mode::pim, Mode::core, Mode::forwarding,
                           Mode::interface, Mode::vrf, Mode::bgp};

Statement statement_of(Mode mode, const std::string &line) {
  const Match match = match_line(mode, split_words(line), false);
  EXPECT_FALSE(match.error) << line << ": " << (match.error ? match.error->reason : "");
  return match.error ? Statement() : match.statements.front();
}

BlockId block_for(Mode mode) { return {mode, mode == Mode::interface || mode == Mode::vrf ? "some" : ""}; }

// A configuration of one line.
Config config_of(Mode mode, const std::string &line) {
  const Statement statement = statement_of(mode, line);
  Config config;
  if (statement.enters) {
    config.open(block_of(statement));
  } else {
    config.open(block_for(mode));
    config.edit(block_for(mode), statement);
  }
  return config;
}

std::string data_of(const Config &config) { return yang_data(config, Config::Passwords::shown); }

// -------------------------------------------------------------------------------------------------------------- YANG

// Where a value stands, without its place in lists: "vrf/mdt/mtu".
void add_paths(const Json &node, const std::string &path, Names *paths) {
  if (!path.empty()) paths->insert(path);
  if (node.is_array())
    for (const Json &item : node) add_paths(item, path, paths);
  if (node.is_object())
    for (const auto &[name, member] : node.items()) add_paths(member, path + (path.empty() ? "" : "/") + name, paths);
}

std::string text_of(const std::filesystem::path &file) {
  std::ifstream in(file);
  EXPECT_TRUE(in) << file;
  return {std::istreambuf_iterator<char>(in), {}};
}

// The same of what the module's container has, one statement in a line.
Names paths_of_module() {
  Names paths;
  std::istringstream lines(text_of(SOURCE_DIR "/yang/libmvpn-configuration.yang"));
  Lines open;  // the name of each statement that is open; empty: it is no data
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> words = split_words(line);
    if (words.empty()) continue;
    if (words.back() == "{") {
      static const Names kinds = {"container", "list", "leaf", "leaf-list"};
      open.push_back(kinds.contains(words[0]) ? words[1] : "");
      if (open.back().empty() || open.size() <= 2) continue;  // module, container router
      std::string path;
      for (size_t i = 2; i < open.size(); i++) path += (i == 2 ? "" : "/") + open[i];
      paths.insert(path);
    } else if (words.back() == "}") {
      open.pop_back();
    }
  }
  EXPECT_TRUE(open.empty());
  return paths;
}

Names without(const Names &all, const Names &these) {
  Names rest;
  std::ranges::set_difference(all, these, std::inserter(rest, rest.end()));
  return rest;
}

TEST(ConfigLanguage, DifferentLinesAreDifferentDataOfTheYangModule) {
  Names paths;
  for (const Mode mode : kModes) {
    std::map<std::string, std::string> line_of{{data_of(Config()), "no line"}};
    if (mode != Mode::global) {
      Config block;
      block.open(block_for(mode));
      line_of.emplace(data_of(block), "a block without lines");
    }
    for (const std::string &line : lines_of(mode)) {
      const std::string data = data_of(config_of(mode, line));
      const auto [at, is_new] = line_of.emplace(data, line);
      EXPECT_TRUE(is_new) << "the data of '" << line << "' is that of '" << at->second << "'";
      add_paths(Json::parse(data).at("libmvpn-configuration:router"), "", &paths);
    }
  }
  const Names module = paths_of_module();
  EXPECT_GT(module.size(), 80u);
  EXPECT_EQ(without(paths, module), Names()) << "are no nodes of the module";
  EXPECT_EQ(without(module, paths), Names()) << "are nodes that no line fills";
}

// ---------------------------------------------------------------------------------------------------------- followers

TEST(ConfigLanguage, ANeighboursSettingsAreAllRead) {
  std::vector<std::pair<std::string, bgp::NeighborConfig>> read;
  read.emplace_back("no line", bgp::NeighborConfig{.address = address_value("10.0.0.1")});
  for (const std::string &line : lines_of(Mode::bgp)) {
    if (!line.starts_with("neighbor")) continue;
    Config config = config_of(Mode::bgp, line);
    config.edit({Mode::bgp, ""}, statement_of(Mode::bgp, "local-as 1"));
    const std::optional<BgpSettings> settings = bgp_settings(config);
    ASSERT_TRUE(settings && settings->neighbors.size() == 1) << line;
    for (const auto &[other, neighbor] : read)
      EXPECT_FALSE(neighbor == settings->neighbors[0]) << "'" << line << "' is read as '" << other << "'";
    read.emplace_back(line, settings->neighbors[0]);
  }
  EXPECT_GT(read.size(), 20u);
}

// The enumerators of Command, in their order.
Lines command_names() {
  const std::string text = text_of(SOURCE_DIR "/host/language/grammar.h"), head = "enum class Command {";
  const size_t begin = text.find(head) + head.size();
  std::string enumerators = text.substr(begin, text.find('}', begin) - begin);
  std::ranges::replace(enumerators, ',', ' ');
  std::ranges::replace(enumerators, '\n', ' ');
  return split_words(enumerators);
}

// Who knows a line only to print it does not follow it.
std::string followers() {
  std::string text;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(SOURCE_DIR "/host")) {
    const std::string path = entry.path().string();
    if (!entry.is_regular_file() || entry.path().extension() != ".cc") continue;
    if (path.find("/host/language/") == std::string::npos && entry.path().filename() != "yang.cc")
      text += text_of(path);
  }
  return text;
}

TEST(ConfigLanguage, EveryCommandIsNamedBySourcesThatFollowIt) {
  const Lines names = command_names();
  const std::string text = followers();
  const auto is_named = [&text](const std::string &name) {
    const std::string wanted = "Command::" + name;
    for (size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1)) {
      const char behind = text[at + wanted.size()];
      if (std::isalnum(static_cast<unsigned char>(behind)) == 0 && behind != '_') return true;
    }
    return false;
  };
  std::set<Command> seen;
  for (const Mode mode : kModes)
    for (const std::string &line : lines_of(mode)) {
      const Statement statement = statement_of(mode, line);
      const auto place = static_cast<size_t>(statement.command);
      if (statement.enters || !seen.insert(statement.command).second) continue;
      ASSERT_LT(place, names.size());
      EXPECT_TRUE(is_named(names[place])) << "nobody follows '" << line << "', Command::" << names[place];
    }
  EXPECT_GT(seen.size(), 30u);
}

}  // namespace
}  // namespace host

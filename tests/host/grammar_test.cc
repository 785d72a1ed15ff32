// The grammar's machinery, on the real command language: matching, abbreviations, modes on one line, candidates.
#include "host/language/grammar.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace host {
namespace {

Match match(Mode mode, const std::string &line, bool abbreviations = true) {
  return match_line(mode, split_words(line), abbreviations);
}

TEST(GrammarTest, ALineMayEnterBlocks) {
  const Match found = match(Mode::exec, "configure vrf red no mdt default 239.1.1.1");
  ASSERT_FALSE(found.error);
  ASSERT_EQ(found.statements.size(), 3u);
  EXPECT_EQ(found.statements[0].action, "configure");
  EXPECT_EQ(found.statements[1].arguments, (std::vector<Argument>{{"name", "red"}}));
  EXPECT_TRUE(found.statements[2].no);
  EXPECT_EQ(found.statements[2].handler, "mdt_default_cmd");
  EXPECT_EQ(found.statements[2].arguments, (std::vector<Argument>{{"<mdt-default>", "239.1.1.1"}}));
}

TEST(GrammarTest, OptionsComeInAnyOrder) {
  const Match found = match(Mode::vrf, "mdt data 239.1.0.0/16 route-map voice immediate-switch threshold 007");
  ASSERT_FALSE(found.error);
  EXPECT_EQ(found.statements[0].arguments, (std::vector<Argument>{{"<prefix>", "239.1.0.0/16"},
                                                                  {"route-map", ""},
                                                                  {"<policy-name>", "voice"},
                                                                  {"immediate-switch", ""},
                                                                  {"threshold", ""},
                                                                  {"<value>", "7"}}));
  EXPECT_TRUE(match(Mode::exec, "show mvpn mdt route vrf red").error);
  EXPECT_FALSE(match(Mode::exec, "show mvpn mdt send vrf red detail history 5").error);
  EXPECT_FALSE(match(Mode::vrf, "mroute * 225.1.1.1 oif a oif b iif c").error);
}

TEST(GrammarTest, AbbreviationsMustBeUnique) {
  EXPECT_EQ(match(Mode::exec, "sh mv int st").statements.at(0).handler, "mvpn_show_internal_state_cmd");
  EXPECT_EQ(match(Mode::exec, "show m").error->reason, "'m' is ambiguous: mvpn, mrib or metrics");
  EXPECT_TRUE(match(Mode::exec, "sh clock", false).error);
}

TEST(GrammarTest, ErrorsPointAtTheWord) {
  const struct {
    Mode mode;
    const char *line;
    size_t word;
    const char *reason;
  } cases[] = {
      {Mode::exec, "show mvpn mtd", 2, "'mtd' is not known here; expected mdt, bgp or internal"},
      {Mode::exec, "show clock now", 2, "'now' is one word too many"},
      {Mode::exec, "configure vrf red mdt mtu x", 5, "'x' is not a number"},
      {Mode::exec, "configure vrf red mdt", 4, "the line is incomplete"},
      {Mode::vrf, "mdt default", 2, "the line is incomplete; expected GROUP"},
      {Mode::vrf, "no rd 1:1 more", 3, "'more' is one word too many"},
      {Mode::exec, "", 0, "the line is incomplete"},
      {Mode::exec, "configure no vrf red mdt mtu 1", 4, "'mdt' is one word too many"},
      {Mode::exec, "conf no vrf red mdt mtu 1300", 1,
       "'no' stands in front of the block's line: vrf red no mdt mtu 1300"},
      {Mode::exec, "show events last 99999999999999999999", 3, "'99999999999999999999' is outside 1..10000"},
      {Mode::exec, "show \x1b[2J", 1, "'\\x1b[2J' is not known here"},
  };
  for (const auto &test : cases) {
    const Match found = match(test.mode, test.line);
    ASSERT_TRUE(found.error) << test.line;
    EXPECT_EQ(found.error->word, test.word) << test.line;
    EXPECT_TRUE(found.error->reason.starts_with(test.reason)) << found.error->reason;
  }
}

std::vector<std::string> texts(Mode mode, const std::string &line) {
  std::vector<std::string> all;
  for (const Candidate &candidate : candidates(mode, split_words(line))) all.push_back(candidate.text);
  return all;
}

TEST(GrammarTest, CandidatesAreWhatMayFollow) {
  using Texts = std::vector<std::string>;
  EXPECT_EQ(texts(Mode::exec, "show mvpn mdt"), (Texts{"route", "bgp", "encap", "receive", "send", "vrf", "<cr>"}));
  EXPECT_EQ(texts(Mode::exec, "show mvpn mdt send detail"), (Texts{"history", "vrf", "<cr>"}));
  EXPECT_EQ(texts(Mode::exec, "show mvpn mdt send history"), (Texts{"<1-10080>"}));
  EXPECT_EQ(texts(Mode::vrf, "mdt default"), (Texts{"GROUP"}));
  EXPECT_EQ(texts(Mode::vrf, "no mdt default"), (Texts{"GROUP", "<cr>"}));
  const Texts in_vrf = texts(Mode::exec, "configure vrf red");
  EXPECT_NE(std::find(in_vrf.begin(), in_vrf.end(), "mdt"), in_vrf.end());
  EXPECT_TRUE(texts(Mode::exec, "show nothing").empty());
}

// What completion and help offer must parse, down every path.
void check_paths(const std::vector<Word> &words, Mode mode, std::vector<std::string> before) {
  for (const Word &word : words) {
    EXPECT_FALSE(word.help.empty()) << word.text;
    if (word.kind == Word::Kind::argument) continue;
    std::vector<std::string> line = before;
    line.push_back(word.text);
    const Match found = match_line(mode, line, false);
    EXPECT_TRUE(!found.error || found.error->word == line.size()) << word.text;
    check_paths(word.next, mode, line);
  }
}

TEST(GrammarTest, EveryKeywordIsReachable) {
  for (const Mode mode :
       {Mode::exec, Mode::global, Mode::pim, Mode::core, Mode::forwarding, Mode::interface, Mode::vrf, Mode::bgp})
    check_paths(root_of(mode), mode, {});
}

}  // namespace
}  // namespace host

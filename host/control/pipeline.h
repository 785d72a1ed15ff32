// The filters behind a command: `show ... | include PATTERN | count`.
#ifndef HOST_CONTROL_PIPELINE_H
#define HOST_CONTROL_PIPELINE_H

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/control/control_protocol.h"
#include "host/language/grammar.h"

namespace host {

enum class LinePattern { include, exclude, begin, section };

struct Filters {
  std::vector<std::pair<LinePattern, std::string>> patterns;  // in their order
  bool count = false;                                         // the number of lines instead of the lines
  bool no_more = false;                                       // no pages
  std::optional<OutputFormat> format;                         // another than the client's
};

struct Pipeline {
  std::vector<std::string> command;  // the words before the first '|'
  bool filtered = false;             // there is a '|', a wrong one included
  Filters filters;                   // as far as they are right
  std::optional<SyntaxError> error;  // in a filter; its word counts from the start of the line
};

// The words of a line, with a word of its own for each '|' in front of a filter: blanks around it may be left out.
std::vector<std::string> split_pipeline(std::string_view line);

// Takes words of split_pipeline() apart.
Pipeline read_pipeline(const std::vector<std::string> &words);

// What may stand behind the words of an incomplete line that has a '|' among them.
std::vector<Candidate> filter_candidates(const std::vector<std::string> &words);

// The line, and below it a mark at the word that is wrong.
std::string point_out(const std::vector<std::string> &words, const SyntaxError &error);

// A command line, as client and daemon read it.
struct ReadLine {
  std::vector<std::string> words;  // of split_pipeline()
  Pipeline pipeline;
  Match match;  // of the pipeline's command
  // What the line begins with; null: it is wrong.
  const Statement *first() const { return match.error ? nullptr : &match.statements.front(); }
};
ReadLine read_line(std::string_view line);

// The form of a command line's answer: what the line asks for, else the client's. Of a line that goes on it is that of
// each document.
OutputFormat format_of(const Pipeline &line, const Match &match, OutputFormat clients);  // match: of its command

// Only the output of views can be filtered.
bool is_view(const Statement &statement);
// What changes nothing.
bool only_looks(const Statement &statement);

}  // namespace host

#endif  // HOST_CONTROL_PIPELINE_H

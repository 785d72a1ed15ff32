// The command language's machinery: a tree of words for each mode, and a matcher that walks it.
//
// The same tree serves the configuration file, the commands of the control socket, completion, the help behind '?', and
// the command reference. commands.cc holds the trees.
#ifndef HOST_LANGUAGE_GRAMMAR_H
#define HOST_LANGUAGE_GRAMMAR_H

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/language/values.h"

namespace host {

// Where a line stands. The configuration modes after `global` are blocks.
enum class Mode { exec, global, pim, core, forwarding, interface, vrf, bgp };
constexpr Mode kLastMode = Mode::bgp;

// What a line of the configuration is. Blocks keep their lines in this order.
enum class Command {
  none,
  hostname,
  clock_scale,
  feature_mvpn,
  metrics,
  route_map,
  interface_block,
  ip_address,
  interface_vrf,
  shutdown,
  vrf_block,
  context_id,
  table_id,
  rd,
  mdt,
  mroute,
  bgp_block,
  local_as,
  router_id,
  cluster_id,
  bgp_listen,
  update_source,
  graceful_restart,
  restart_time,
  neighbor,
  pim_block,
  ssm_range,
  bidir_range,
  pim_mtu,
  announcement_limit,
  core_block,
  carrier,
  peer,
  forwarding_block,
  forwarder_socket,
  core_interface,
  outer_ttl,
  outer_tos,
  outer_df,
  netns,
};

// What a line of Mode::exec is to those who let it in, wait for its answer and record it.
enum class Effect {
  change,  // recorded
  view,    // rows, which can be filtered
  text,    // shown as it is
  stream,  // goes on until the client ends it; can be filtered
  trial,   // changes nothing, but costs more than looking
};

// Actions after which a client goes on in another way.
inline constexpr std::string_view kConfigureAction = "configure";
inline constexpr std::string_view kAbortAction = "abort";

// What an argument names, of what the daemon has.
enum class NameKind { none, vrf, interface };

// When a line may end behind a word.
enum class Ends { never, always, no_form };

struct Word {
  enum class Kind { keyword, argument };
  Kind kind = Kind::keyword;  // which of the fields below count
  std::string text;           // keyword; argument: what stands for it in syntax and help, such as A.B.C.D
  std::string help;           // one line
  // Arguments.
  ValueType type = ValueType::name;
  NumberRange range;
  std::string name;  // that the value is recorded under, such as "<prefix>"; keywords: empty = not recorded
  NameKind names = NameKind::none;
  bool key = false;  // part of the line's identity: lines that differ in it stand beside each other
  // What follows.
  std::vector<Word> next;
  std::vector<Word> options = {};  // any order, each once unless it repeats; each is a keyword, or one with an argument
  bool repeats = false;
  // What a line that ends here does. In Mode::exec it names an action of the daemon or a handler; else it has a
  // command, and a handler when it is the module's.
  Ends ends = Ends::never;
  Command command = Command::none;
  std::string action = {};          // by the name under which the daemon has it
  Effect effect = Effect::change;   // of Mode::exec
  bool slow = false;                // nothing may come for long in answer to it
  std::string handler = {};         // that the module registered under this name
  std::optional<Mode> enters = {};  // the rest of the line, or the lines of the block, are in this mode
  bool on_by_default = false;       // configuration keeps the "no" form
};

struct Argument {
  std::string name;   // as Word::name; of a recorded keyword the same
  std::string value;  // empty for keywords
  auto operator<=>(const Argument &) const = default;
};

// A line of one mode.
struct Statement {
  Mode mode = Mode::exec;           // that the line stands in
  Command command = Command::none;  // of the configuration: what it says
  std::string action;               // as Word::action
  Effect effect = Effect::change;   // as Word::effect
  bool slow = false;                // as Word::slow
  std::string handler;              // as Word::handler
  bool no = false;                  // the line begins with "no"
  bool on_by_default = false;       // as Word::on_by_default
  std::optional<Mode> enters;       // of a block's header: the block's mode
  std::vector<Argument> arguments;  // in the order of the line
  std::string text;                 // with every keyword in full, without "no"
  std::string key;                  // identity among the lines of its block
};

// The value of an argument, "" for a keyword; null: the line has none of this name. Valid as long as the statement.
const std::string *find_argument(const Statement &statement, std::string_view name);

// The statement's text for listings and messages: with kHiddenPassword in the place of a password, which is the
// argument "secret" and the last word of its line.
std::string shown_text(const Statement &statement);

struct SyntaxError {
  size_t word = 0;     // position among the words of the line; their number when the line is incomplete
  std::string reason;  // names the word
};

struct Match {
  // The blocks that the line entered, then the command. When the line ends with a block's header that is the last.
  std::vector<Statement> statements;
  std::optional<SyntaxError> error;
};

// What stands between blanks.
std::vector<std::string> split_words(std::string_view line);
// The words with a blank between them.
std::string join_words(const std::vector<std::string> &words);

// Reads a line in a mode. abbreviations: keywords may be cut as long as they stay unambiguous.
Match match_line(Mode mode, const std::vector<std::string> &words, bool abbreviations);

// What may stand behind the words of an incomplete line: text (keywords; the form of arguments) and help.
struct Candidate {
  std::string text;                 // keyword, form of an argument, or kEndOfLine
  std::string help;                 // one line; may be empty
  bool is_keyword = true;           // false: text stands for a value and is not to be typed
  NameKind names = NameKind::none;  // of arguments
};
constexpr std::string_view kEndOfLine = "<cr>";  // candidate: the line may end here
// In the order of the grammar; empty when the words themselves are wrong.
std::vector<Candidate> candidates(Mode mode, const std::vector<std::string> &words);

// Syntax of every command of a mode in the notation of the documentation, with its help.
struct SyntaxLine {
  std::string syntax;  // in the notation of docs/commands.md
  std::string help;    // of its last keyword, and of the value behind that
};
std::vector<SyntaxLine> syntax_of(Mode mode);

// Names of the module's handlers that lines of any mode go to.
std::set<std::string> handlers_of_lines();

// The words that a line of a mode begins with.
const std::vector<Word> &root_of(Mode mode);

}  // namespace host

#endif  // HOST_LANGUAGE_GRAMMAR_H

// The configuration as data: blocks of lines. Read from a file or changed line by line, checked as a whole, printed as
// a file that loads to the same state, compared.
//
// Blocks are shared between copies of a configuration and copied when they change, so that taking a copy, editing it
// and comparing it with the original costs what was edited.
#ifndef HOST_CONFIG_CONFIG_H
#define HOST_CONFIG_CONFIG_H

#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/language/grammar.h"

namespace host {

struct BlockId {
  Mode mode = Mode::global;  // of the lines in the block
  std::string name;          // interfaces and VRFs; else empty
  auto operator<=>(const BlockId &) const = default;
};

struct Line {
  Statement statement;  // complete, never the header of a block
  int number = 0;       // in its file; 0: entered by an operator, or chosen
};

class Block {
 public:
  // Lines stand in the order of the grammar; those of one command in the order in which they came.
  struct Place {
    Command command;    // their order is that of the enumeration
    uint64_t sequence;  // grows with each line that is added; one that changes keeps its own
    auto operator<=>(const Place &) const = default;
  };

  int number = 0;  // line of its header

  const std::map<Place, Line> &lines() const { return lines_; }
  // Adds a line, or changes the one with its key in its place; removes the line with this key, or all whose keys begin
  // with it, as whole words.
  void put(Line line);
  void erase(const std::string &key);
  // The lines that erase() would remove.
  std::vector<const Line *> matching(const std::string &key) const;

  // A line by its command (and handler, where one is given), by its key; null: none. Valid until the block changes.
  const Line *find(Command command, std::string_view handler = {}) const;
  const Line *find_key(const std::string &key) const;
  // An argument of a command's line; null when there is no such line or argument.
  const std::string *value(Command command, std::string_view argument) const;

 private:
  std::map<Place, Line> lines_;
  std::unordered_map<std::string, Place> by_key_;
  uint64_t next_sequence_ = 0;
};

struct ConfigError {
  int line = 0;        // 0: not of one line
  std::string reason;  // for people, without the line's number
};

class Config {
 public:
  using Blocks = std::map<BlockId, std::shared_ptr<const Block>>;

  // Reads a file's text. Errors are appended, in line order; what is wrong is left out. Behind kMaxErrors of them it is
  // read no further.
  static constexpr size_t kMaxErrors = 1000;
  static Config read(const std::string &text, std::vector<ConfigError> *errors);

  // Why a statement cannot be applied to a block: it removes a line that is not there, or that says something else than
  // the statement. Empty when it can.
  std::string refusal(const BlockId &id, const Statement &statement) const;

  // Applies a statement to a block; the "no" form removes. Removing what is not there changes nothing.
  void edit(const BlockId &id, const Statement &statement, int number = 0);
  void remove(const BlockId &id) { blocks_.erase(id); }
  // Makes a block exist. False when it was there.
  bool open(const BlockId &id, int number = 0);

  const Blocks &blocks() const { return blocks_; }
  // Null: it does not exist. Valid as long as the block stands in some configuration.
  const Block *find(const BlockId &id) const;
  const Block *vrf(std::string_view name) const { return find({Mode::vrf, std::string(name)}); }

  // Numbers for VRFs that have none: those that the same VRF has in `before`, else the lowest that are free.
  void choose_numbers(const Config *before);

  // What is wrong between the lines: numbers used twice, names that lead nowhere.
  std::vector<ConfigError> check() const;
  // Why an interface cannot be named in a VRF; empty when it can.
  std::string why_not_in_vrf(const std::string &interface, const std::string &vrf) const;

  // Whether there is anything in it.
  bool empty() const { return blocks_.empty(); }

  // The configuration as a file. Without passwords it loads only when somebody writes them in.
  enum class Passwords { hidden, shown };
  std::string print(Passwords passwords = Passwords::hidden) const;

  std::string hostname(const std::string &otherwise) const;  // otherwise: when it is not set
  bool feature_mvpn() const;                                 // true unless switched off

 private:
  Block &writable(const BlockId &id);
  std::string value_or(const BlockId &id, Command command, std::string_view argument,
                       const std::string &otherwise) const;

  Blocks blocks_;
};

// Whether a command, such as `show running-config`, asks for passwords.
Config::Passwords passwords_of(const Statement &statement);

// The block that a header statement opens.
BlockId block_of(const Statement &header);

// The header that a block has in a file; empty for the lines outside of blocks.
std::string header_of(const BlockId &id);
// Blocks that mean the same as none: those without lines that nothing is named by.
bool is_void(const BlockId &id, const Block &block);

// A line that is in one configuration and not, or not like that, in the other. Null: not there.
struct LineChange {
  BlockId block;                 // that the line stands in, in both
  const Line *before = nullptr;  // null: it is new
  const Line *after = nullptr;   // null: it goes
};
// The statement that a change is about: the new one, else the one that goes.
const Statement &statement_of(const LineChange &change);
// Changes in the order of the blocks, and of their lines. Pointers are into the two configurations.
std::vector<LineChange> difference(const Config &before, const Config &after);

}  // namespace host

#endif  // HOST_CONFIG_CONFIG_H

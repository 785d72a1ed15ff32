// Reading, editing and printing. A line's key says which line it replaces: the command, and the arguments that identify
// it. A command that is on by default is kept in its "no" form, every other in its positive form.
#include "host/config/config.h"

#include <algorithm>
#include <climits>
#include <set>

#include "host/config/bgp_settings.h"

namespace host {
namespace {

struct Header {
  Mode mode;
  std::string_view text;
};
constexpr Header kHeaders[] = {
    {Mode::pim, "pim"}, {Mode::core, "core"}, {Mode::forwarding, "forwarding kernel"}, {Mode::interface, "interface"},
    {Mode::vrf, "vrf"}, {Mode::bgp, "bgp"}};

bool is_named(Mode mode) { return mode == Mode::interface || mode == Mode::vrf; }

// ---------------------------------------------------------------------------------------------------------- reading

struct Reader {
  Config config;
  std::vector<ConfigError> *errors;
  BlockId block;         // that indented lines belong to
  bool skipped = false;  // its header was wrong: its lines are not read
  int number = 0;

  void fail(std::string reason) { errors->push_back({number, std::move(reason)}); }
  void read(const std::string &line);
  void take(const Statement &statement);
};

void Reader::take(const Statement &statement) {
  if (!statement.enters) {
    if (std::string reason = config.refusal(block, statement); !reason.empty()) return fail(std::move(reason));
    return config.edit(block, statement, number);
  }
  const BlockId opened = block_of(statement);
  if (statement.no) return fail("a block cannot be removed in a file");
  if (!config.open(opened, number) && is_named(opened.mode)) {
    const std::string at = std::to_string(config.find(opened)->number);
    fail((opened.mode == Mode::vrf ? "VRF " : "interface ") + opened.name + " is there already, in line " + at);
  }
  block = opened;
}

void Reader::read(const std::string &line) {
  const std::vector<std::string> words = split_words(line);
  if (words.empty() || words.front().front() == '!' || words.front().front() == '#') return;
  const bool indented = line.front() == ' ' || line.front() == '\t';
  if (indented && skipped) return;
  if (!indented) block = {};
  const Match match = match_line(block.mode, words, false);
  skipped = match.error.has_value() && !indented;
  if (match.error) return fail(match.error->reason);
  for (const Statement &statement : match.statements) take(statement);
}

// ---------------------------------------------------------------------------------------------------------- checking

struct Checker {
  const Config &config;
  std::vector<ConfigError> errors;

  void fail(int line, std::string reason) { errors.push_back({line, std::move(reason)}); }
  void check_unique(Command command, const std::string &what);
  void check_interface_exists(const BlockId &vrf, const Line &line, const std::string &name);
  void check_core_interface(const Line &line, const std::string &name);
  void check_interface(const BlockId &id, const Block &block);
  void check_vrf(const BlockId &id, const Block &block);
  void check_core(const Block &block);
};

void Checker::check_unique(Command command, const std::string &what) {
  struct Owner {
    std::string vrf;
    int line;
  };
  std::map<std::string, Owner> owners;
  for (const auto &[id, block] : config.blocks()) {
    const Line *line = id.mode == Mode::vrf ? block->find(command) : nullptr;
    if (line == nullptr) continue;
    const Owner owner{id.name, line->number == 0 ? INT_MAX : line->number};  // an operator's line came last
    const auto [other, inserted] = owners.emplace(*find_argument(line->statement, "id"), owner);
    if (inserted) continue;
    const bool later = owner.line >= other->second.line;
    fail(later ? line->number : other->second.line,
         what + " " + other->first + " belongs to VRF " + (later ? other->second.vrf : owner.vrf));
  }
}

void Checker::check_interface_exists(const BlockId &vrf, const Line &line, const std::string &name) {
  const std::string reason = config.why_not_in_vrf(name, vrf.name);
  if (reason.empty()) return;
  // Who takes the interface away has another line in mind than the one that is wrong then.
  const Statement &route = line.statement;
  fail(line.number,
       reason + "; mroute " + *find_argument(route, "source") + " " + *find_argument(route, "group") + " names it");
}

// Tunnels start in the core. The interface may be configured later.
void Checker::check_core_interface(const Line &line, const std::string &name) {
  const Block *interface = config.find({Mode::interface, name});
  const std::string *vrf = interface == nullptr ? nullptr : interface->value(Command::interface_vrf, "name");
  if (vrf != nullptr) fail(line.number, "interface " + name + " is in VRF " + *vrf + ", not in the core");
}

// Names such as mti2, which the tunnel manager gives.
bool is_tunnel_name(std::string_view name) {
  constexpr std::string_view kPrefix = "mti";
  return name.starts_with(kPrefix) && name.size() > kPrefix.size() &&
         name.find_first_not_of("0123456789", kPrefix.size()) == std::string_view::npos;
}

void Checker::check_interface(const BlockId &id, const Block &block) {
  if (id.name == "mvpn") fail(block.number, "mvpn stands for a VRF's tunnel");
  if (is_tunnel_name(id.name))
    fail(block.number, id.name + " is a name that the tunnel manager gives to VRFs' tunnels");
  const Line *line = block.find(Command::interface_vrf);
  if (line == nullptr) return;
  const std::string &vrf = *find_argument(line->statement, "name");
  if (config.vrf(vrf) == nullptr) fail(line->number, "interface " + id.name + ": there is no VRF " + vrf);
}

void Checker::check_vrf(const BlockId &id, const Block &block) {
  if (id.name == "default") fail(block.number, "the VRF default is the core's");
  if (const Line *source = block.find(Command::mdt, "mdt_source_cmd"))
    check_core_interface(*source, *find_argument(source->statement, "<interface>"));
  for (const auto &[place, line] : block.lines())
    if (line.statement.command == Command::mroute)
      for (const Argument &argument : line.statement.arguments)
        if (argument.name == "iif" || argument.name == "oif") check_interface_exists(id, line, argument.value);
}

// One UDP port serves all PEs: they differ in their addresses.
void Checker::check_core(const Block &block) {
  const std::string *listen = block.value(Command::carrier, "endpoint");
  if (listen != nullptr && address_value(endpoint_value(*listen).address) >> 24 != 127)
    fail(block.find(Command::carrier)->number, "the carrier listens on loopback addresses, 127.0.0.0/8");
  for (const auto &[place, line] : block.lines()) {
    if (line.statement.command != Command::peer) continue;
    const std::string &peer = *find_argument(line.statement, "endpoint");
    if (listen != nullptr && endpoint_value(*listen).port != endpoint_value(peer).port)
      fail(line.number, "peer " + peer + " does not have the carrier's port, which all PEs share");
  }
}

// ---------------------------------------------------------------------------------------------------- chosen numbers

Statement number_statement(const char *word, uint64_t number) {
  return match_line(Mode::vrf, {word, std::to_string(number)}, false).statements.front();
}

}  // namespace

void Block::put(Line line) {
  const auto found = by_key_.find(line.statement.key);
  if (found == by_key_.end()) {
    const Place place{line.statement.command, next_sequence_++};
    by_key_.emplace(line.statement.key, place);
    lines_.emplace(place, std::move(line));
  } else if (Line &old = lines_.at(found->second); old.statement.text != line.statement.text) {
    old = std::move(line);
  }
}

void Block::erase(const std::string &key) {
  if (const auto found = by_key_.find(key); found != by_key_.end()) {
    lines_.erase(found->second);
    by_key_.erase(found);
    return;
  }
  std::erase_if(lines_, [&](const auto &item) {
    const bool goes = item.second.statement.key.starts_with(key + " ");
    if (goes) by_key_.erase(item.second.statement.key);
    return goes;
  });
}

std::vector<const Line *> Block::matching(const std::string &key) const {
  if (const Line *line = find_key(key)) return {line};
  std::vector<const Line *> found;
  for (const auto &[place, line] : lines_)
    if (line.statement.key.starts_with(key + " ")) found.push_back(&line);
  return found;
}

const Line *Block::find(Command command, std::string_view handler) const {
  for (auto at = lines_.lower_bound({command, 0}); at != lines_.end() && at->first.command == command; ++at)
    if (handler.empty() || at->second.statement.handler == handler) return &at->second;
  return nullptr;
}

const Line *Block::find_key(const std::string &key) const {
  const auto found = by_key_.find(key);
  return found == by_key_.end() ? nullptr : &lines_.at(found->second);
}

const std::string *Block::value(Command command, std::string_view argument) const {
  const Line *line = find(command);
  return line == nullptr ? nullptr : find_argument(line->statement, argument);
}

Config::Passwords passwords_of(const Statement &statement) {
  return find_argument(statement, "passwords") == nullptr ? Config::Passwords::hidden : Config::Passwords::shown;
}

BlockId block_of(const Statement &header) {
  const std::string *name = header.arguments.empty() ? nullptr : &header.arguments.front().value;
  return {*header.enters, name == nullptr ? std::string() : *name};
}

std::string header_of(const BlockId &id) {
  for (const Header &header : kHeaders)
    if (header.mode == id.mode) return std::string(header.text) + (id.name.empty() ? "" : " ") + id.name;
  return "";
}

bool is_void(const BlockId &id, const Block &block) {
  return !is_named(id.mode) && id.mode != Mode::forwarding && block.lines().empty();
}

Config Config::read(const std::string &text, std::vector<ConfigError> *errors) {
  Reader reader{{}, errors, {}};
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    reader.number++;
    reader.read(text.substr(at, end - at));
    at = end + 1;
    if (errors->size() >= kMaxErrors && at < text.size()) {
      reader.fail("so much is wrong that the rest is not read");
      break;
    }
  }
  return std::move(reader.config);
}

bool Config::open(const BlockId &id, int number) {
  auto &block = blocks_[id];
  if (block) return false;
  auto made = std::make_shared<Block>();
  made->number = number;
  block = std::move(made);
  return true;
}

Block &Config::writable(const BlockId &id) {
  std::shared_ptr<const Block> &block = blocks_[id];
  if (!block)
    block = std::make_shared<Block>();
  else if (block.use_count() > 1)
    block = std::make_shared<Block>(*block);
  return const_cast<Block &>(*block);  // made non-const here, and shared with nobody
}

// A "no" form may leave out what identifies no line. What it does say must be so: who removes a line with another value
// means another line.
std::string Config::refusal(const BlockId &id, const Statement &statement) const {
  if (statement.no == statement.on_by_default || statement.arguments.empty()) return "";
  const Block *block = find(id);
  const std::vector<const Line *> lines =
      block == nullptr ? std::vector<const Line *>() : block->matching(statement.key);
  if (lines.empty()) return "there is no line '" + shown_text(statement) + "'";
  for (const Line *line : lines)
    for (const Argument &argument : statement.arguments)
      if (std::ranges::count(line->statement.arguments, argument) == 0)
        return "there is no line '" + shown_text(statement) + "', but '" + shown_text(line->statement) + "'";
  return "";
}

void Config::edit(const BlockId &id, const Statement &statement, int number) {
  if (statement.no == statement.on_by_default)
    writable(id).put({statement, number});
  else
    writable(id).erase(statement.key);
}

const Block *Config::find(const BlockId &id) const {
  const auto found = blocks_.find(id);
  return found == blocks_.end() ? nullptr : found->second.get();
}

void Config::choose_numbers(const Config *before) {
  const std::pair<Command, const char *> kinds[] = {{Command::context_id, "context-id"},
                                                    {Command::table_id, "table-id"}};
  for (const auto &[command, word] : kinds) {
    std::set<uint64_t> taken;
    std::vector<BlockId> without;
    for (const auto &[id, block] : blocks_) {
      if (id.mode != Mode::vrf) continue;
      if (const std::string *number = block->value(command, "id"))
        taken.insert(number_value(*number));
      else
        without.push_back(id);
    }
    uint64_t next = 2;
    for (const BlockId &id : without) {
      const Block *old = before == nullptr ? nullptr : before->find(id);
      const std::string *kept = old == nullptr ? nullptr : old->value(command, "id");
      if (kept != nullptr && taken.insert(number_value(*kept)).second) {
        edit(id, number_statement(word, number_value(*kept)));
        continue;
      }
      while (!taken.insert(next).second) next++;
      edit(id, number_statement(word, next));
    }
  }
}

std::vector<ConfigError> Config::check() const {
  Checker checker{*this, {}};
  checker.check_unique(Command::context_id, "context id");
  checker.check_unique(Command::table_id, "table id");
  for (const auto &[id, block] : blocks_) {
    if (id.mode == Mode::interface) checker.check_interface(id, *block);
    if (id.mode == Mode::vrf) checker.check_vrf(id, *block);
    if (id.mode == Mode::core) checker.check_core(*block);
    if (const Line *source = id.mode == Mode::bgp ? block->find(Command::update_source) : nullptr)
      checker.check_core_interface(*source, *find_argument(source->statement, "interface"));
  }
  for (ConfigError &error : check_bgp(*this)) checker.errors.push_back(std::move(error));
  return std::move(checker.errors);
}

std::string Config::why_not_in_vrf(const std::string &interface, const std::string &vrf) const {
  if (interface == "mvpn") return "";
  const Block *block = find({Mode::interface, interface});
  if (block == nullptr) return "VRF " + vrf + ": there is no interface " + interface;
  const std::string *of = block->value(Command::interface_vrf, "name");
  return of != nullptr && *of == vrf ? "" : "interface " + interface + " is not in VRF " + vrf;
}

std::string Config::print(Passwords passwords) const {
  std::string text;
  for (const auto &[id, block] : blocks_) {
    if (is_void(id, *block)) continue;
    const std::string header = header_of(id), indent = header.empty() ? "" : "  ";
    if (!header.empty()) text += header + "\n";
    for (const auto &[place, line] : block->lines())
      text += indent + (line.statement.no ? "no " : "") +
              (passwords == Passwords::shown ? line.statement.text : shown_text(line.statement)) + "\n";
    text += "!\n";
  }
  return text;
}

std::string Config::value_or(const BlockId &id, Command command, std::string_view argument,
                             const std::string &otherwise) const {
  const Block *block = find(id);
  const std::string *found = block == nullptr ? nullptr : block->value(command, argument);
  return found == nullptr ? otherwise : *found;
}

std::string Config::hostname(const std::string &otherwise) const {
  return value_or({}, Command::hostname, "name", otherwise);
}

bool Config::feature_mvpn() const {
  const Block *block = find({});
  return block == nullptr || block->find(Command::feature_mvpn) == nullptr;
}

const Statement &statement_of(const LineChange &change) {
  return change.after != nullptr ? change.after->statement : change.before->statement;
}

std::vector<LineChange> difference(const Config &before, const Config &after) {
  static const Block empty;
  std::set<BlockId> ids;
  for (const auto &[id, block] : before.blocks()) ids.insert(id);
  for (const auto &[id, block] : after.blocks()) ids.insert(id);
  std::vector<LineChange> changes;
  for (const BlockId &id : ids) {
    const Block *old = before.find(id) == nullptr ? &empty : before.find(id);
    const Block *now = after.find(id) == nullptr ? &empty : after.find(id);
    if (old == now) continue;
    for (const auto &[place, line] : old->lines())
      if (now->find_key(line.statement.key) == nullptr) changes.push_back({id, &line, nullptr});
    for (const auto &[place, line] : now->lines()) {
      const Line *former = old->find_key(line.statement.key);
      if (former == nullptr || former->statement.text != line.statement.text) changes.push_back({id, former, &line});
    }
  }
  return changes;
}

}  // namespace host

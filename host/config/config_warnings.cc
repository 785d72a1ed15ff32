// Looks at each VRF and at BGP's update source once, in the order of the blocks. A warning stands at a line, the later
// one where two do not go together; nothing here refuses anything.
#include "host/config/config_warnings.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace host {
namespace {

// Why packets from an address cross no core; null: they can.
const char *why_not_carried(uint32_t address) {
  struct Range {
    uint32_t prefix, mask;
    const char *name;
  };
  constexpr Range ranges[] = {{0x7F000000, 0xFF000000, "a loopback address"},
                              {0xA9FE0000, 0xFFFF0000, "a link-local address"},
                              {0x00000000, 0xFF000000, "an address of no network"},
                              {0xF0000000, 0xF0000000, "a reserved address"}};
  for (const Range &range : ranges)
    if ((address & range.mask) == range.prefix) return range.name;
  return nullptr;
}

class Looker {
 public:
  explicit Looker(const Config &config) : config_(config) {}

  std::vector<ConfigError> look() {
    if (const Block *global = config_.find({}))
      for (const auto &[place, line] : global->lines())
        if (line.statement.command == Command::route_map) policies_.insert(*find_argument(line.statement, "name"));
    for (const auto &[id, block] : config_.blocks()) {
      if (id.mode == Mode::vrf) look_at_vrf(id.name, *block);
      const Line *source = id.mode == Mode::bgp ? block->find(Command::update_source) : nullptr;
      if (source != nullptr)
        look_at_source(*source, "BGP's update source", *find_argument(source->statement, "interface"));
    }
    std::ranges::stable_sort(found_, {}, &ConfigError::line);
    return std::move(found_);
  }

 private:
  struct Owner {
    std::string vrf;
    const Line *line;
  };
  void warn(const Line &line, std::string reason) { found_.push_back({line.number, std::move(reason)}); }

  void look_at_source(const Line &line, const std::string &what, const std::string &name) {
    const Block *interface = config_.find({Mode::interface, name});
    if (interface == nullptr) return warn(line, what + ", interface " + name + ", is not configured");
    const std::string *address = interface->value(Command::ip_address, "address");
    const char *reason = address == nullptr ? nullptr : why_not_carried(address_value(*address));
    if (reason != nullptr)
      warn(line, what + ", interface " + name + ", has " + reason + ", " + *address + ", which no core carries");
  }

  // The later line is the one to be looked at; an operator's came last.
  void look_at_distinguisher(const std::string &rd, Owner owner) {
    const auto [place, first] = distinguishers_.emplace(rd, owner);
    if (first) return;
    Owner other = place->second;
    if (owner.line->number != 0 && (other.line->number == 0 || other.line->number > owner.line->number))
      std::swap(owner, other);
    warn(*owner.line,
         "VRF " + owner.vrf + ": the route distinguisher " + rd + " is that of VRF " + other.vrf + ", too");
  }

  void look_at_vrf(const std::string &name, const Block &block) {
    const std::string vrf = "VRF " + name + ": ";
    for (const auto &[place, line] : block.lines()) {
      const Statement &statement = line.statement;
      if (const std::string *rd = statement.command == Command::rd ? find_argument(statement, "rd") : nullptr)
        look_at_distinguisher(*rd, {name, &line});
      if (const std::string *source = find_argument(statement, "<interface>"))
        look_at_source(line, vrf + "the MDT source", *source);
      if (const std::string *group = find_argument(statement, "<mdt-default>");
          group != nullptr && address_value(*group) >> 8 == 0xE00000)
        warn(line, vrf + "the default group " + *group + " is a link-local one, which routers do not forward");
      if (const std::string *policy = find_argument(statement, "<policy-name>"); policy && !policies_.contains(*policy))
        warn(line, vrf + "there is no route-map " + *policy + ": it selects no flow");
    }
  }

  const Config &config_;
  std::set<std::string> policies_;
  std::map<std::string, Owner> distinguishers_;
  std::vector<ConfigError> found_;
};

}  // namespace

std::vector<ConfigError> config_warnings(const Config &config) { return Looker(config).look(); }

}  // namespace host

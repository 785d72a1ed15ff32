// Texts of changes, and the bus. publish() calls the listeners at once and in the order in which they came; a listener
// may end other subscriptions but publishes nothing.
#include "host/event/change.h"

#include <algorithm>
#include <array>
#include <utility>

#include "host/language/values.h"

namespace host {
namespace {

constexpr std::pair<Level, std::string_view> kLevels[] = {{Level::error, "error"},
                                                          {Level::warning, "warning"},
                                                          {Level::notice, "notice"},
                                                          {Level::info, "info"},
                                                          {Level::debug, "debug"}};

std::string was(const std::string &before) { return before.empty() ? "" : ", was " + before; }

struct ToText {
  std::string operator()(const VrfChange &change) const {
    return "VRF " + change.vrf + ": " + (change.after.empty() ? "no default MDT" : change.after) + was(change.before);
  }
  std::string operator()(const TunnelChange &change) const {
    std::string text = "tunnel " + change.name + " of VRF " + change.vrf + ": " + change.after;
    if (change.before != change.after) text += was(change.before);
    if (change.source != 0) text += ", from " + address_text(change.source) + " to " + address_text(change.group);
    return text;
  }
  std::string operator()(const PeChange &change) const {
    const std::string vrf = change.vrf();
    return "PE " + address_text(change.address) + " " + (change.joined ? "joined " : "left ") +
           address_text(change.group) + (vrf.empty() ? "" : " of VRF " + vrf) + " with " + change.rd();
  }
  std::string operator()(const SessionChange &change) const {
    const bool up = change.after == "Established";
    return "BGP: neighbor " + address_text(change.neighbor) +
           (up                               ? " is up"
            : change.before == "Established" ? " is down"
                                             : ": no session");
  }
  std::string operator()(const DataMdtChange &change) const {
    const std::string group = "data MDT " + address_text(change.group);
    if (!change.sent)
      return "VRF " + change.vrf + ": " + group + " of PE " + address_text(change.source) +
             (change.in_use ? " joined" : " left");
    const std::string source = change.customer_source == 0 ? "*" : address_text(change.customer_source);
    return "VRF " + change.vrf + ": flow (" + source + ", " + address_text(change.customer_group) + ")" +
           (change.in_use ? " moved to " + group : " left " + group);
  }
  std::string operator()(const ServiceChange &change) const {
    return change.name + ": " + change.after + was(change.before);
  }
  std::string operator()(const CommandChange &change) const { return "command: " + change.line; }
};

}  // namespace

std::string_view name_of(Level level) {
  return std::ranges::find(kLevels, level, &std::pair<Level, std::string_view>::first)->second;
}

std::optional<Level> level_of(std::string_view name) {
  const auto found = std::ranges::find(kLevels, name, &std::pair<Level, std::string_view>::second);
  return found == std::end(kLevels) ? std::nullopt : std::optional(found->first);
}

const char *kind_of(const Change &change) {
  constexpr std::array kinds = {"vrf", "tunnel", "pe", "bgp-session", "data-mdt", "service", "command"};
  static_assert(kinds.size() == std::variant_size_v<Change::What>);
  return kinds[change.what.index()];
}

std::string text_of(const Change &change) {
  std::string text = std::visit(ToText{}, change.what);
  if (!change.reason.empty()) text += ": " + change.reason;
  if (!change.by.empty()) text += " [" + change.by + "]";
  return text;
}

EventBus::Subscription &EventBus::Subscription::operator=(Subscription &&other) noexcept {
  if (this == &other) return *this;
  end();
  bus_ = std::exchange(other.bus_, nullptr);
  at_ = other.at_;
  return *this;
}

void EventBus::Subscription::end() {
  if (bus_ != nullptr) bus_->listeners_.erase(at_);
  bus_ = nullptr;
}

EventBus::Subscription EventBus::subscribe(Listener listener) {
  return {*this, listeners_.insert(listeners_.end(), std::move(listener))};
}

void EventBus::publish(Change change) {
  if (change.when == std::chrono::system_clock::time_point{}) change.when = std::chrono::system_clock::now();
  if (change.by.empty()) change.by = cause_;
  for (const Listener &listener : listeners_) listener(change);
}

}  // namespace host

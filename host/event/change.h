// What changed in a router, as an operator hears of it: one record for each change, and one bus that hands it to
// whoever wants it: the log, `monitor`, SNMP notifications.
//
// Addresses are numbers in host byte order; 0: none, or any. States are words, as views show them.
#ifndef HOST_EVENT_CHANGE_H
#define HOST_EVENT_CHANGE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <utility>
#include <variant>

#include "host/event/level.h"

namespace host {

// The default MDT of a VRF: the status of its tunnel interface, "None" to "Up"; empty: the VRF has none.
struct VrfChange {
  std::string vrf;
  std::string before, after;  // before is empty too when it had none
  uint32_t group = 0;         // default MDT group
};

// A VRF's tunnel: "absent", "down" or "up"; also when its addresses change.
struct TunnelChange {
  std::string name, vrf;  // name: of its interface
  std::string before, after;
  uint32_t source = 0, group = 0;  // of core packets; group: the default MDT's
};

// Another PE joined a default MDT, or left it. A session brings a hundred thousand of these, of which a hundred a
// second are written: its words are made when a listener asks for them, and only while it listens.
struct PeChange {
  uint32_t address = 0;              // of the PE
  std::function<std::string()> rd;   // in the written form, "65000:1"
  uint32_t group = 0;                // default MDT group
  std::function<std::string()> vrf;  // whose default group that is; empty: none here
  bool joined = false;               // false: left
};

// A BGP session. Only the states that last are told: Established, and Idle with another reason than before.
struct SessionChange {
  uint32_t neighbor = 0;      // address
  std::string before, after;  // states of RFC 4271: "Idle", "Established"
};

// A flow of this PE moved to a data MDT or back; or this PE joined a data MDT of another PE, or left it.
struct DataMdtChange {
  std::string vrf;
  bool sent = false;                                 // by this PE; false: received from another
  bool in_use = false;                               // from now on; false: not any more
  uint32_t customer_source = 0, customer_group = 0;  // of a flow that is sent
  uint32_t source = 0;                               // the PE that sends; 0: this one
  uint32_t group = 0;                                // of the data MDT
};

// Something that the router stands on: "mvpn" (the feature), "store", "forwarder".
struct ServiceChange {
  std::string name;
  std::string before, after;  // in words; before: empty when there is none
};

// A command that changed something, of the configuration or not; passwords are hidden.
struct CommandChange {
  std::string line;  // as read, keywords in full
};

struct Change {
  using What =
      std::variant<VrfChange, TunnelChange, PeChange, SessionChange, DataMdtChange, ServiceChange, CommandChange>;
  What what;                                        // which record it holds is the kind
  Level level = Level::notice;                      // of the log's line
  std::string reason = {};                          // in words; empty: it is plain
  std::string by = {};                              // who asked; empty: nobody did, or the bus fills it in
  std::chrono::system_clock::time_point when = {};  // the bus fills it in
};

// "vrf", "tunnel", "pe", "bgp-session", "data-mdt", "service", "command".
const char *kind_of(const Change &change);
// One line without its end: what changed, why, who asked.
std::string text_of(const Change &change);

// Belongs to the thread that holds the scheduling locks.
class EventBus {
 public:
  using Listener = std::function<void(const Change &)>;

  // Ends its listener with itself; outlived by the bus.
  class Subscription {
   public:
    Subscription() = default;
    Subscription(EventBus &bus, std::list<Listener>::iterator at) : bus_(&bus), at_(at) {}
    ~Subscription() { end(); }
    Subscription(Subscription &&other) noexcept : bus_(std::exchange(other.bus_, nullptr)), at_(other.at_) {}
    Subscription &operator=(Subscription &&other) noexcept;

   private:
    void end();
    EventBus *bus_ = nullptr;
    std::list<Listener>::iterator at_;
  };

  // Calls the listener for each change from now on. It publishes nothing itself.
  [[nodiscard]] Subscription subscribe(Listener listener);

  // Tells every listener at once, in the order of their subscriptions. Not from within a listener.
  void publish(Change change);

  // Changes that say nothing else are somebody's doing from now on; empty: nobody's.
  void set_cause(std::string by) { cause_ = std::move(by); }
  const std::string &cause() const { return cause_; }

 private:
  std::list<Listener> listeners_;
  std::string cause_;
};

}  // namespace host

#endif  // HOST_EVENT_CHANGE_H

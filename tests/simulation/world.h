// A simulated router: what its operator, its neighbours and its platform want, and how the module is told.
//
// The world keeps the wishes (configuration, interfaces, routes) apart from what the module makes of them: the
// expectations are worked out from here and from what the platform holds. Where a step cannot be done (a VRF that does
// not exist), it does nothing, so that a list of steps stays playable when some are left out.
#ifndef TESTS_SIMULATION_WORLD_H
#define TESTS_SIMULATION_WORLD_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "platform/reference/cli.h"
#include "platform/reference/im.h"
#include "platform/reference/runtime.h"
#include "routing/pim/mvpn/mvpn.h"

namespace simulation {

using Words = std::vector<std::string>;

struct Range {
  std::string prefix;      // "239.2.0.0/24"
  uint32_t threshold = 0;  // kbit/s
  bool immediate = false;  // flows move at once
  std::string policy;      // empty: none

  ip_addr_t first() const;
  uint32_t length() const;
  bool holds(ip_addr_t group) const;
  bool hands_out(ip_addr_t group) const;  // holds it, among the groups that a range gives to flows
  bool overlaps(const Range &other) const;
};

// What the operator configured for a VRF.
struct Config {
  ip_addr_t group = 0;                          // 0: no "mdt default"
  std::string source;                           // empty: BGP's update source
  std::vector<Range> ranges;                    // in the order of the configuration
  uint32_t mtu = 1376, hello = 30000, jp = 60;  // bytes, milliseconds, seconds: the module's defaults
  bool bidir = false, inhibit = false, shared_tree = false, enforce = true;
};

struct Vrf {
  std::string name;
  vrf_context_id_t context_id = 0;  // of its name; see id_of()
  Config config;
  std::string rd;  // empty: none
  bool up = true;  // for the VRF manager
  // What leaves traces by design; see expectations.cc.
  bool state_changed = false;  // the VRF manager reported it down, or up again, of which the module is not told
  bool enforce_toggled = false;
};

struct Announcement {
  std::string vrf;
  ip_addr_t c_source, c_group, pe, group;  // c_source 0: any. pe sends, group is the data MDT's.
};

// One choice of a data MDT: the group and the encapsulation index of a flow.
struct Choice {
  uint16_t index;   // 2 or more
  ip_addr_t group;  // data-MDT group
  auto operator<=>(const Choice &) const = default;
};
using FlowKey = std::tuple<std::string, ip_addr_t, ip_addr_t>;  // VRF, source (0: any), group

class World {
 public:
  explicit World(uint64_t scheduler_seed);
  World(const World &) = delete;
  World &operator=(const World &) = delete;

  // What was found wrong, in words.
  void fail(const std::string &text);
  const std::vector<std::string> &failures() const { return failures_; }

  // Life of the module. A start that fails leaves it stopped.
  void start();
  void stop(bool feature_stays);
  // The process dies and starts anew: all that survives is the store, the tunnels and what the neighbours know.
  void crash();
  bool running() const { return running_; }
  // A flow gets its former choice for so long after a crash.
  bool recovers() const { return ref::now() < crash_time_ + std::chrono::seconds(240); }

  // VRFs with their interface towards the sites (NAME-site) and one RD each.
  void add_vrf(const std::string &name);
  void delete_vrf(const std::string &name);
  void set_vrf_state(const std::string &name, bool up);  // of the VRF manager
  Vrf *vrf(const std::string &name);
  std::map<std::string, Vrf> &vrfs() { return vrfs_; }

  // Runs a command and keeps it as configuration when it is accepted. Handler, arguments, "no" form.
  bool command(const std::string &vrf_name, const std::string &handler, const std::vector<ref::CliArgument> &arguments,
               bool no_form = false, bool interactive = true);
  void set_default(const std::string &vrf_name, const std::string &group);
  void no_default(const std::string &vrf_name);
  void set_range(const std::string &vrf_name, const Range &range);
  void no_range(const std::string &vrf_name, const std::string &prefix);
  // A setting of the other commands, for instance ("mdt_mtu_cmd", "<mtu-value>", "1400"); empty value: the "no" form.
  void set_number(const std::string &vrf_name, const std::string &handler, const std::string &argument,
                  uint32_t Config::*field, const std::string &value);
  void set_flag(const std::string &vrf_name, const std::string &handler, bool Config::*field, bool on);
  void set_source(const std::string &vrf_name, const std::string &interface_name);
  void all_commands_without_effect(const std::string &vrf_name);  // each view once

  void set_rd(const std::string &vrf_name, const std::string &rd);
  // The route-map "odd" permits these sources; "none" permits nothing.
  void set_policy(const std::set<ip_addr_t> &sources);
  bool permits(const std::string &policy, ip_addr_t source) const;
  void set_update_source(const std::string &interface_name);
  const std::string &update_source() const { return update_source_; }
  // The source interface of a VRF as configured; null: none, or it does not exist.
  const ref::Interface *source_of(const Vrf &vrf) const;

  // A datagram of Data-MDT announcements on the VRF's tunnel, when it has one.
  void announce(const Announcement &announcement);
  void hear(const std::string &vrf_name, const std::vector<uint8_t> &datagram);

  // Tunnel-manager answers: the next n are lost; one that nobody asked for arrives.
  void lose_answers(unsigned n) { answers_to_lose_ = n; }
  void spurious_answer(const std::string &vrf_name, uint32_t opcode, bool success);

  // Steps that run inside the n-th yield from now.
  void in_yield(unsigned n, std::function<void()> steps);

  // Whatever was made to fail, was kept back or was lost ceases to be.
  void cease_faults();

  // Choices in the store, by flow.
  std::map<FlowKey, Choice> stored_choices() const;

  // Faults that platform and neighbours cannot make good: afterwards some VRFs may need an operator.
  bool faulty = false;
  std::set<std::string> unusable;            // VRFs whose PIM context cannot be used
  bool acks_late = false;                    // the RIB kept acknowledgements back
  bool moved_while_down = false;             // a flow, onto a data MDT
  bool calls_failed = false;                 // platform calls
  bool requests_left_open = false;           // answers may have been missed
  bool cleared = false;                      // routes were cleared
  bool answers_late = false;                 // the tunnel manager kept its answers back
  bool group_changed_in_bring_up = false;    // the tunnel had been asked for with the former one
  bool rd_in_flight = false;                 // its notice has not been read yet
  bool address_overtaken = false;            // by the notice of an RD
  std::set<std::string> refused_defaults;    // VRFs without a group that were refused one
  bool tunnel_fell = false;                  // a tunnel went down without having been asked to
  bool idle_tunnel = false;                  // a tunnel was up while its VRF was not
  bool under_way = false;                    // what earlier steps asked for may not have been done yet
  std::set<std::string> rd_changed_unready;  // VRFs whose RD changed while they were not up and ready
  // Choices that were stored when the process died last, for flows that have not been touched since.
  std::map<FlowKey, Choice> remembered;
  // VRFs that had no default group any more when the process died: nobody claims, or sweeps, what is stored for them.
  std::set<std::string> unclaimed;
  bool contexts_survived = false;      // the module was stopped for a process that then lived on
  std::set<ip_addr_t> ambiguous_pes;   // PEs that advertised one group under two RDs
  std::set<ip_addr_t> joined_sources;  // that somebody else in the core ever joined
  unsigned next_address = 1;           // every address is given out once

 private:
  void boot();
  void replay_vrf(const std::string &name);
  void replay_all();
  std::vector<ref::CliArgument> range_arguments(const Range &range) const;

  uint64_t scheduler_seed_;
  std::map<std::string, Vrf> vrfs_;
  std::string update_source_ = "core0";
  std::set<ip_addr_t> permitted_;
  bool running_ = false;
  std::chrono::nanoseconds crash_time_{-std::chrono::hours(1)};
  unsigned answers_to_lose_ = 0;
  friend int process_msg_unless_lost(mts_message *message);
  std::vector<std::string> failures_;
};

bool is_up(const Vrf &vrf);  // what the module has made of it

ip_addr_t address(const std::string &dotted);
std::string dotted(ip_addr_t value);

// expectations.cc: what must hold whenever the module has settled, and once the faults have ceased.
void check_settled(World &world);
void check_end(World &world);

}  // namespace simulation

#endif  // TESTS_SIMULATION_WORLD_H

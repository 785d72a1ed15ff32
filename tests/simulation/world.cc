// Does what steps ask for by the platform's own functions, and writes down what was wished, apart from what came of it.
#include "tests/simulation/world.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_ha.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <thread>

#include "platform/l3vm.h"
#include "platform/mts.h"
#include "platform/reference/bgp.h"
#include "platform/reference/croute.h"
#include "platform/reference/diag.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/module.h"
#include "platform/reference/mts.h"
#include "platform/reference/oim.h"
#include "platform/reference/pim.h"
#include "platform/reference/pss.h"
#include "platform/reference/rpm.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "tests/support/command.h"
#include "tests/support/linked_module.h"
#include "tests/support/platform_trace.h"

namespace simulation {

using namespace std::chrono_literals;

namespace {

const uint32_t announcement_limit = mvpn_data_mdt_recv_cache_limit;  // as the module has it

World *current = nullptr;  // of the tap below

bool is_tunnel_answer(uint32_t opcode) {
  return opcode == MTS_OPC_OIM_IF_CREATE_RESPONSE || opcode == MTS_OPC_OIM_IF_DELETE_RESPONSE ||
         opcode == MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE;
}

// What a process has that starts anew, although this one has been running.
void forget_globals() {
  mvpn_is_cli_done = 0;
  mvpn_bgp_updatesrc_ifname[0] = '\0';
  mvpn_bgp_updatesrc_iod = 0;
}

uint32_t number_of(const std::string &text) { return static_cast<uint32_t>(std::stoul(text)); }

uint32_t id_of(const std::string &name) { return 2 + static_cast<uint32_t>(name.back() - '0'); }

}  // namespace

int process_msg_unless_lost(mts_message *message) {
  if (is_tunnel_answer(mts_opc_get(message)) && current->answers_to_lose_ > 0) {
    current->answers_to_lose_--;
    return 1;
  }
  return mvpn_process_msg(message);
}

ip_addr_t address(const std::string &text) {
  ip_addr_t value = 0;
  size_t at = 0;
  for (int i = 0; i < 4; i++) {
    value = value << 8 | number_of(text.substr(at));
    at = text.find('.', at) + 1;
  }
  return value;
}

bool is_up(const Vrf &vrf) {
  const pim_cibtype *pcib = pim_get_cib_by_context_name(vrf.name.c_str());
  return pcib != nullptr && pcib->mvpn != nullptr && pcib->mvpn->mti_status == MVPN_MTI_UP;
}

std::string dotted(ip_addr_t value) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) text += (text.empty() ? "" : ".") + std::to_string(value >> shift & 255);
  return text;
}

ip_addr_t Range::first() const { return address(prefix); }
uint32_t Range::length() const { return number_of(prefix.substr(prefix.find('/') + 1)); }
bool Range::holds(ip_addr_t group) const { return length() == 0 || (group ^ first()) >> (32 - length()) == 0; }
bool Range::hands_out(ip_addr_t group) const { return holds(group) && group - first() < 1024; }
bool Range::overlaps(const Range &other) const { return holds(other.first()) || other.holds(first()); }

// ------------------------------------------------------------------------------------------------ life of the module

World::World(uint64_t scheduler_seed) : scheduler_seed_(scheduler_seed) {
  current = this;
  trace::reset();
  boot();
  for (const char *name : {"core0", "core1", "core2"})
    ref::create_interface(name, VRF_CONTEXT_ID_DEFAULT, address("10.0.0.0") + next_address++, true);
  ref::bgp_set_update_source(update_source_, false);
}

// A machine without anything on it.
void World::boot() {
  ref::reset();
  ref::set_log_sink(ref::LogSink::none);
  ref::scheduler_use_seed(scheduler_seed_);
  ref::add_bidir_range(address("239.9.0.0"), 16);
  forget_globals();
  ref::set_cli_replay([this](const std::string &name) { replay_vrf(name); });
  set_policy(permitted_.empty() ? std::set<ip_addr_t>{address("192.168.1.1"), address("192.168.1.3")} : permitted_);
  ref::set_policy("none", {});
}

void World::fail(const std::string &text) { failures_.push_back(text); }

void World::start() {
  if (running_) return;
  under_way = true;
  ref::Module module = linked_module();
  module.process_msg = process_msg_unless_lost;
  ref::set_module(module);
  ref::set_feature_configured(true);
  if (mvpn_init() == 0) {
    mvpn_deinit(1);
    ref::wait_for_threads();
    return;
  }
  running_ = true;
  if (ref::cli_registered().empty()) mvpn_init_cli();
  replay_all();
  ref::enable_interface_events(true);
  ref::bgp_set_update_source(update_source_, true);  // it may have changed while nobody listened
}

void World::stop(bool feature_stays) {
  if (!running_) return;
  ref::set_feature_configured(feature_stays);
  mvpn_deinit(1);
  running_ = false;
  if (!ref::wait_for_threads()) fail("a thread of the module does not end");
  ref::clear_oim_requests();
  contexts_survived = feature_stays;
  if (!feature_stays) ref::bgp_forget_local();
}

void World::crash() {
  const bool was_running = running_;
  const auto records = ref::pss_records();
  const auto tunnels = ref::tunnels();
  const auto remote = ref::bgp_remote_entries();
  std::vector<ref::Interface> interfaces;
  for (const ref::Interface *interface : ref::interfaces())
    if (!interface->mvpn_tunnel) interfaces.push_back(*interface);
  std::map<std::string, std::vector<ref::CustomerRoute>> routes;
  for (const auto &[name, vrf] : vrfs_) routes[name] = ref::customer_routes(name);
  for (const auto &[name, vrf] : vrfs_)
    if (vrf.config.group == 0) unclaimed.insert(name);
  trace::reset();
  remembered = stored_choices();
  if (contexts_survived) start();
  stop(false);
  boot();
  for (const auto &[name, vrf] : vrfs_) {
    ref::create_vrf(name, vrf.context_id, vrf.context_id);
    if (!vrf.up) ref::set_vrf_state(name, L3VM_STATE_UP + 1);
    if (!vrf.rd.empty()) ref::bgp_set_rd(name, ref::bgp_parse_rd(vrf.rd)->data(), false);
  }
  for (const ref::Interface &interface : interfaces)
    ref::create_interface(interface.name, interface.context_id, interface.address, interface.up);
  for (const ref::Tunnel &tunnel : tunnels) ref::create_orphan_tunnel(tunnel.if_index & 0xFFFFFF);
  ref::bgp_set_update_source(update_source_, false);
  ref::bgp_add_remote(remote);
  for (const auto &[key, value] : records)
    ksink_pss_update(pim_ha_handle, key.data(), static_cast<uint32_t>(key.size()), value.data(),
                     static_cast<uint32_t>(value.size()));
  ref::set_stateful_restart(true);
  crash_time_ = ref::now();
  if (was_running) start();
  for (const auto &[name, all] : routes)
    for (const ref::CustomerRoute &route : all) ref::set_customer_route(name, route);
  ref::start_statistics();
}

// ------------------------------------------------------------------------------------------------------------- replay

std::vector<ref::CliArgument> World::range_arguments(const Range &range) const {
  std::vector<ref::CliArgument> all{{"<prefix>", range.prefix}};
  if (range.threshold != 0) {
    all.push_back({"threshold", ""});
    all.push_back({"<value>", std::to_string(range.threshold)});
  }
  if (range.immediate) all.push_back({"immediate-switch", ""});
  if (!range.policy.empty()) {
    all.push_back({"route-map", ""});
    all.push_back({"<policy-name>", range.policy});
  }
  return all;
}

// The stored commands of a VRF. What the module refuses is not in force.
void World::replay_vrf(const std::string &name) {
  Vrf *vrf = this->vrf(name);
  if (vrf == nullptr || !running_) return;
  Config &config = vrf->config;
  if (config.group != 0 && !command(name, "mdt_default_cmd", {{"<mdt-default>", dotted(config.group)}}, false, false)) {
    config.group = 0;
    refused_defaults.insert(name);
  }
  if (!config.enforce) command(name, "mdt_enforce_bgp_mdt_safi_cmd", {}, true, false);
  if (config.shared_tree) config.shared_tree = command(name, "mdt_asm_use_shared_tree_cmd", {}, false, false);
  if (!config.source.empty()) command(name, "mdt_source_cmd", {{"<interface>", config.source}}, false, false);
  command(name, "mdt_mtu_cmd", {{"<mtu-value>", std::to_string(config.mtu)}}, false, false);
  command(name, "mdt_pim_hello_interval_cmd", {{"<interval>", std::to_string(config.hello)}}, false, false);
  command(name, "mdt_pim_jp_interval_cmd", {{"<interval>", std::to_string(config.jp)}}, false, false);
  if (config.bidir) command(name, "mdt_data_bidir_enable_cmd", {}, false, false);
  if (config.inhibit) command(name, "mdt_data_inhibit_reuse_cmd", {}, false, false);
  std::vector<Range> kept;
  for (const Range &range : config.ranges)
    if (command(name, "mdt_data_cmd", range_arguments(range), false, false)) kept.push_back(range);
  config.ranges = kept;
  if (pim_cibtype *pcib = pim_get_cib_by_context_name(name.c_str())) mvpn_cli_vrf_done(pcib);
}

void World::replay_all() {
  pim_cli_requests_sent_count = static_cast<uint16_t>(pim_cli_requests_sent_count + vrfs_.size() + 1);
  pim_cli_done_recv_count++;
  for (const auto &[name, vrf] : vrfs_) {
    replay_vrf(name);
    pim_cli_done_recv_count++;
    mvpn_cli_done();
  }
  if (vrfs_.empty()) mvpn_cli_done();
}

// --------------------------------------------------------------------------------------------------------------- VRFs

Vrf *World::vrf(const std::string &name) {
  const auto found = vrfs_.find(name);
  return found == vrfs_.end() ? nullptr : &found->second;
}

void World::add_vrf(const std::string &name) {
  if (vrf(name) != nullptr || ref::create_vrf(name, id_of(name), id_of(name)) == nullptr) return;
  Vrf &added = vrfs_[name];
  added.name = name;
  added.context_id = id_of(name);
  ref::create_interface(name + "-site", added.context_id, address("172.16.0.0") + next_address++, true);
  set_rd(name, "65000:" + std::to_string(added.context_id));
}

void World::delete_vrf(const std::string &name) {
  if (vrf(name) == nullptr) return;
  no_default(name);
  ref::settle();
  if (!ref::delete_vrf(name)) return;  // its teardown takes longer: tunnel answers are kept back
  ref::bgp_set_rd(name, nullptr, false);
  vrfs_.erase(name);
}

void World::set_vrf_state(const std::string &name, bool up) {
  Vrf *vrf = this->vrf(name);
  if (vrf == nullptr || vrf->up == up) return;
  vrf->up = up;
  vrf->state_changed = true;
  ref::set_vrf_state(name, up ? L3VM_STATE_UP : L3VM_STATE_UP + 1);
}

// ----------------------------------------------------------------------------------------------------------- commands

bool World::command(const std::string &vrf_name, const std::string &handler,
                    const std::vector<ref::CliArgument> &arguments, bool no_form, bool interactive) {
  if (!running_) return true;
  const bool accepted = run_handler({.handler = handler,
                                     .arguments = arguments,
                                     .vrf_name = vrf_name,
                                     .no_form = no_form,
                                     .interactive = interactive}) == 0;
  // Where PIM's context cannot be used, commands do nothing and say nothing; these two still take away.
  const bool takes_away = no_form && (handler == "mdt_default_cmd" || handler == "mdt_data_cmd");
  return accepted && (takes_away || !unusable.contains(vrf_name));
}

void World::set_default(const std::string &vrf_name, const std::string &group) {
  Vrf *vrf = this->vrf(vrf_name);
  if (vrf == nullptr) return;
  const pim_cibtype *pcib = pim_get_cib_by_context_name(vrf_name.c_str());
  const bool bringing_up = pcib->mvpn != nullptr && pcib->mvpn->mti_status == MVPN_MTI_UP_PENDING;
  if (!command(vrf_name, "mdt_default_cmd", {{"<mdt-default>", group}})) {
    if (vrf->config.group == 0) refused_defaults.insert(vrf_name);
    return;
  }
  group_changed_in_bring_up = group_changed_in_bring_up || bringing_up;
  if (vrf->config.group != 0) return;  // one that is there must be taken off first; also where nobody says so
  vrf->config.group = address(group);
}

void World::no_default(const std::string &vrf_name) {
  Vrf *vrf = this->vrf(vrf_name);
  if (vrf != nullptr && command(vrf_name, "mdt_default_cmd", {}, true)) vrf->config.group = 0;
}

void World::set_range(const std::string &vrf_name, const Range &range) {
  Vrf *vrf = this->vrf(vrf_name);
  if (vrf == nullptr || !command(vrf_name, "mdt_data_cmd", range_arguments(range))) return;
  auto &ranges = vrf->config.ranges;
  const auto same =
      std::find_if(ranges.begin(), ranges.end(), [&](const Range &r) { return r.prefix == range.prefix; });
  if (same == ranges.end())
    ranges.push_back(range);
  else
    *same = range;
}

void World::no_range(const std::string &vrf_name, const std::string &prefix) {
  Vrf *vrf = this->vrf(vrf_name);
  if (vrf == nullptr) return;
  // Refused while the range holds the VRF's default group; one whose route-map cannot be unbound has gone all the same.
  if (!command(vrf_name, "mdt_data_cmd", {{"<prefix>", prefix}}, true) && !faulty) return;
  std::erase_if(vrf->config.ranges, [&](const Range &other) { return other.prefix == prefix; });
}

void World::set_number(const std::string &vrf_name, const std::string &handler, const std::string &argument,
                       uint32_t Config::*field, const std::string &value) {
  Vrf *vrf = this->vrf(vrf_name);
  if (vrf == nullptr) return;
  const bool no = value.empty();
  const bool taken = no ? command(vrf_name, handler, {}, true) : command(vrf_name, handler, {{argument, value}});
  if (taken) vrf->config.*field = no ? Config().*field : number_of(value);
}

void World::set_flag(const std::string &vrf_name, const std::string &handler, bool Config::*field, bool on) {
  Vrf *vrf = this->vrf(vrf_name);
  if (vrf != nullptr && command(vrf_name, handler, {}, !on)) vrf->config.*field = on;
}

void World::set_source(const std::string &vrf_name, const std::string &interface_name) {
  Vrf *vrf = this->vrf(vrf_name);
  if (vrf == nullptr) return;
  const bool no = interface_name.empty();
  const std::vector<ref::CliArgument> arguments{{"<interface>", interface_name}};
  if (no ? command(vrf_name, "mdt_source_cmd", {}, true) : command(vrf_name, "mdt_source_cmd", arguments))
    vrf->config.source = interface_name;
}

void World::all_commands_without_effect(const std::string &vrf_name) {
  if (!running_) return;
  for (const std::string &name : ref::cli_registered()) {
    if (name.starts_with("mdt_")) continue;
    run_handler(
        {.handler = name, .arguments = {}, .vrf_name = vrf_name, .all_vrfs = vrf_name.empty(), .getnext = true});
  }
}

// ---------------------------------------------------------------------------------------------------- BGP and sources

void World::set_rd(const std::string &vrf_name, const std::string &rd) {
  Vrf *vrf = this->vrf(vrf_name);
  if (vrf == nullptr) return;
  const ref::Interface *source = source_of(*vrf);
  const bool ready = is_up(*vrf) && vrf->up && source != nullptr && source->up && source->address != 0 && !under_way;
  if (rd != vrf->rd && !ready) rd_changed_unready.insert(vrf_name);
  vrf->rd = rd;
  rd_in_flight = true;
  const auto bytes = ref::bgp_parse_rd(rd);
  ref::bgp_set_rd(vrf_name, bytes ? bytes->data() : nullptr, true);
}

void World::set_policy(const std::set<ip_addr_t> &sources) {
  permitted_ = sources;
  std::vector<ref::PolicyEntry> entries;
  for (const ip_addr_t source : sources) entries.push_back({true, source, 0, MROUTE_HOST_LEN, 0});
  ref::set_policy("odd", entries);
}

bool World::permits(const std::string &policy, ip_addr_t source) const {
  return policy.empty() || (policy == "odd" && permitted_.contains(source));
}

void World::set_update_source(const std::string &interface_name) {
  update_source_ = interface_name;
  ref::bgp_set_update_source(interface_name, true);
}

const ref::Interface *World::source_of(const Vrf &vrf) const {
  return ref::find_interface(std::string_view(vrf.config.source.empty() ? update_source_ : vrf.config.source));
}

// ------------------------------------------------------------------------------------------------------- announcements

void World::announce(const Announcement &a) {
  std::vector<uint8_t> datagram(44);
  const auto put = [&datagram](size_t at, uint32_t value, size_t bytes = 4) {
    for (size_t i = 0; i < bytes; i++) datagram[at + i] = static_cast<uint8_t>(value >> 8 * (bytes - 1 - i));
  };
  datagram[0] = 0x45;
  put(2, 44, 2);
  datagram[8] = 1;
  datagram[9] = 17;
  put(12, a.pe);
  put(16, 0xE000000D);
  put(20, 3232, 2);
  put(22, 3232, 2);
  put(24, 24, 2);
  datagram[28] = 1;
  put(29, 16, 2);
  put(32, a.c_source);
  put(36, a.c_group);
  put(40, a.group);
  hear(a.vrf, datagram);
}

void World::hear(const std::string &vrf_name, const std::vector<uint8_t> &datagram) {
  for (const ref::Tunnel &tunnel : ref::tunnels())
    if (tunnel.vrf_name == vrf_name) ref::inject_datagram(tunnel.iod, datagram.data(), datagram.size());
}

// ------------------------------------------------------------------------------------------------------------- faults

void World::spurious_answer(const std::string &vrf_name, uint32_t opcode, bool success) {
  for (const ref::Tunnel &tunnel : ref::tunnels()) {
    if (tunnel.vrf_name != vrf_name) continue;
    std::vector<uint8_t> payload{0, 1};
    for (const uint32_t word : {tunnel.if_index, tunnel.iod, success ? 0u : 5u})
      for (int shift = 24; shift >= 0; shift -= 8) payload.push_back(static_cast<uint8_t>(word >> shift));
    ref::deliver(opcode, payload.data(), payload.size());
  }
}

void World::in_yield(unsigned n, std::function<void()> steps) {
  trace::on_yield(
      [n, steps = std::move(steps), me = std::this_thread::get_id(), passed = std::make_shared<unsigned>(0)](unsigned) {
        if (std::this_thread::get_id() != me || ++*passed != n) return false;
        steps();
        ref::settle();
        return true;
      });
}

void World::cease_faults() {
  trace::reset();
  answers_to_lose_ = 0;
  unusable.clear();
  mvpn_data_mdt_recv_cache_limit = announcement_limit;
  ref::set_oim_answers(true);
  ref::mrib_refuse_updates(0);
  ref::mrib_refuse_encaps(0);
  ref::set_mrib_acks(true);
  for (const auto &[name, vrf] : vrfs_) {
    ref::set_pcib_usable(name, true);
    ref::set_mrib_initializing(vrf.context_id, false);
  }
}

std::map<FlowKey, Choice> World::stored_choices() const {
  std::map<FlowKey, Choice> choices;
  for (const auto &[key, value] : ref::pss_records()) {
    if (key.size() != 20 || key[0] != 16) continue;
    const auto word = [&key = key](size_t at) {
      return uint32_t{key[at]} << 24 | uint32_t{key[at + 1]} << 16 | uint32_t{key[at + 2]} << 8 | key[at + 3];
    };
    mvpn_ha_encap_info_t stored{};
    mvpn_ha_get_encap_info_by_pss_value(value.data(), static_cast<uint32_t>(value.size()), &stored);
    for (const auto &[name, vrf] : vrfs_)
      if (vrf.context_id == word(4)) choices[{name, word(8), word(12)}] = {stored.encap_index, stored.mdt_group};
  }
  return choices;
}

}  // namespace simulation

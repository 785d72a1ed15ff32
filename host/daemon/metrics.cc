// One function for each subject writes its families. Everything is read in one turn of the main loop, so that the
// numbers belong together; a walk of the VRFs and their customer routes is the longest of it. Names and labels are an
// interface: docs/metrics.md lists them, dashboards ask for them.
#include "host/daemon/metrics.h"

#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <type_traits>

#include "platform/reference/mem.h"
#include "platform/reference/pim.h"
#include "platform/reference/pss.h"
#include "platform/reference/rpm.h"
#include "platform/reference/runtime.h"
#include "routing/pim/mvpn/mvpn.h"

namespace host {
namespace {

using metrics::Exposition;

// ---------------------------------------------------------------------------------------------------- VRFs and flows

// What the metrics of VRFs are made of: one walk of the contexts and of their customer routes.
struct VrfCounts {
  struct Vrf {
    std::string name;
    const mvpn_cibtype *mvpn;
  };
  std::vector<Vrf> vrfs;  // with MVPN
  // By mvpn_mti_status_t. Those without a VRF are told too: a state that comes and goes is no zero in a graph.
  std::array<uint64_t, std::extent_v<std::remove_pointer_t<decltype(LoadedModule::mti_status_names)>>> by_status{};
  std::array<uint64_t, MVPN_DATA_MDT_STATE_SWITCHBACK_PENDING + 1> flows{};
  uint64_t without_mvpn = 0, customer_routes = 0;
};

void count_routes(pt_root *routes, VrfCounts *counts) {
  for (pt_node *node = pt_get_first_node(routes, nullptr, 0); node != nullptr;
       node = pt_get_next_node(routes, pt_node_key(node), 0)) {
    counts->customer_routes++;
    const auto *info = static_cast<const pim_route *>(pt_node_data(node))->send_join_info;
    if (info != nullptr && info->state < counts->flows.size()) counts->flows[info->state]++;
  }
}

VrfCounts count_vrfs() {
  VrfCounts counts;
  pim_cib_iterator iterator;
  for (const pim_cibtype *pcib = pim_get_first_cib_by_name(&iterator); pcib != nullptr;
       pcib = pim_get_next_cib_by_name(&iterator)) {
    if (pcib->mvpn == nullptr) {
      counts.without_mvpn += pcib == pim_default_cib ? 0 : 1;  // the core is no VRF
      continue;
    }
    counts.vrfs.push_back({pcib->vrf_name, pcib->mvpn});
    counts.by_status[pcib->mvpn->mti_status]++;
    count_routes(pcib->route_tree, &counts);
  }
  return counts;
}

template <typename Value>
void sample_each_vrf(Exposition &out, const VrfCounts &counts, Value value) {
  for (const VrfCounts::Vrf &vrf : counts.vrfs) out.sample({{"vrf", vrf.name}}, uint64_t{value(*vrf.mvpn)});
}

void write_vrfs(Exposition &out, const VrfCounts &counts, const LoadedModule &module) {
  out.gauge("mvpn_vrfs", "VRFs by the state of their default MDT.");
  out.sample({{"state", "no MVPN"}}, counts.without_mvpn);
  for (size_t status = 0; status < counts.by_status.size(); status++)
    out.sample({{"state", (*module.mti_status_names)[status]}}, counts.by_status[status]);
  out.gauge("mvpn_customer_routes", "Customer routes of VRFs with MVPN.");
  out.sample(counts.customer_routes);
  out.gauge("mvpn_flows", "Customer routes that this PE sends into the core, by where they are.");
  constexpr const char *states[] = {"default MDT", "switchover pending", "data MDT", "switchback pending"};
  for (size_t i = 0; i < counts.flows.size(); i++) out.sample({{"state", states[i]}}, counts.flows[i]);
  out.gauge("mvpn_core_routes", "Core routes of a VRF.");
  sample_each_vrf(out, counts, [](const mvpn_cibtype &vrf) { return vrf.mdt_route_count; });
  out.gauge("mvpn_announcements", "Data MDTs of other PEs that a VRF has been told of.");
  sample_each_vrf(out, counts, [](const mvpn_cibtype &vrf) { return vrf.data_mdt_recv_count; });
  out.gauge("mvpn_announcements_joined", "Of these, those that the VRF has joined.");
  sample_each_vrf(out, counts, [](const mvpn_cibtype &vrf) { return vrf.data_mdt_recv_mapped; });
  out.counter("mvpn_join_packets_sent", "Data-MDT Join packets sent.");
  sample_each_vrf(out, counts, [](const mvpn_cibtype &vrf) { return vrf.data_mdt_send_join_count; });
  out.counter("mvpn_join_entries_received", "Data-MDT Join entries received.");
  sample_each_vrf(out, counts, [](const mvpn_cibtype &vrf) { return vrf.data_mdt_recv_join_count; });
  out.counter("mvpn_announcements_refused",
              "Announcements dropped, because the VRF's cache was full or their group bad.");
  for (const VrfCounts::Vrf &vrf : counts.vrfs) {
    out.sample({{"vrf", vrf.name}, {"reason", "full"}}, uint64_t{vrf.mvpn->data_mdt_recv_refused.count});
    out.sample({{"vrf", vrf.name}, {"reason", "invalid"}}, uint64_t{vrf.mvpn->data_mdt_recv_invalid.count});
  }
}

// ------------------------------------------------------------------------------------------- the platform's services

void write_tunnels(Exposition &out) {
  uint64_t up = 0;
  const std::vector<ref::Tunnel> tunnels = ref::tunnels();
  for (const ref::Tunnel &tunnel : tunnels) up += tunnel.up ? 1 : 0;
  out.gauge("mvpn_tunnels", "Tunnels of the tunnel manager.");
  out.sample({{"state", "up"}}, up);
  out.sample({{"state", "down"}}, tunnels.size() - up);
}

void write_platform(Exposition &out) {
  const ref::PimCounters &pim = ref::pim_counters();
  const ref::MemoryUse memory = ref::memory_use();
  const auto counter = [&out](const char *name, const char *help, uint64_t value) {
    out.counter(name, help);
    out.sample(value);
  };
  const auto gauge = [&out](const char *name, const char *help, uint64_t value) {
    out.gauge(name, help);
    out.sample(value);
  };
  counter("mvpn_pim_hellos_sent", "Hellos that the module asked PIM for.", pim.hellos_sent);
  counter("mvpn_pim_routes_reinstalled", "Customer routes installed again for another encapsulation.",
          pim.routes_reinstalled);
  counter("mvpn_pim_oif_removals", "Tunnels taken out of the routes of a VRF.", pim.oif_removals);
  counter("mvpn_pim_encap_setups", "Set-ups of routes that waited for an encapsulation.", pim.encap_setups);
  counter("mvpn_pim_rpf_lookups", "Recomputations of RPF for a VRF.", pim.rpf_lookups);
  counter("mvpn_pim_join_triggers", "Renewed notifications of joins.", pim.join_triggers);
  counter("mvpn_mrib_updates", "Update buffers that the module handed to the MRIB.", ref::mrib_updates_total());
  gauge("mvpn_module_threads", "Threads of the module, and of views that run.", ref::thread_count());
  gauge("mvpn_slab_objects", "Records of the module.", memory.slab_objects);
  gauge("mvpn_tracked_buffers", "Buffers of the module.", memory.tracked_buffers);
  gauge("mvpn_tracked_bytes", "Bytes in them.", memory.tracked_bytes);
  gauge("mvpn_timers", "Timers of the module.", memory.timers);
  gauge("mvpn_policy_bindings", "Ranges that are bound to a route-map.", ref::policy_bindings());
  gauge("mvpn_stored_records", "Records in the persistent store.", ref::pss_records().size());
  out.gauge("mvpn_mdt_safi_entries", "MDT SAFI entries, this PE's own and those of others.");
  out.sample({{"origin", "local"}}, uint64_t{ref::bgp_local_entries().size()});
  out.sample({{"origin", "remote"}}, uint64_t{ref::bgp_remote_count()});
}

void write_carrier(Exposition &out, const ref::GreUdpCarrier *carrier) {
  if (carrier == nullptr) return;
  const ref::GreUdpCarrier::Counters &core = carrier->counters();
  out.counter("mvpn_core_datagrams", "Datagrams between this PE and its peers of the core, by what became of them.");
  out.sample({{"outcome", "sent"}}, core.sent);
  out.sample({{"outcome", "send error"}}, core.send_errors);
  out.sample({{"outcome", "too large"}}, core.oversize);
  out.sample({{"outcome", "received"}}, core.received);
  out.sample({{"outcome", "malformed"}}, core.malformed);
  out.sample({{"outcome", "from a stranger"}}, core.strangers);
}

// ---------------------------------------------------------------------------------------------------------------- BGP

// A metric of each neighbour.
template <typename Value>
void sample_each(Exposition &out, const std::vector<bgp::NeighborView> &neighbors, Value value) {
  for (const bgp::NeighborView &view : neighbors)
    out.sample({{"neighbor", bgp::to_string_address(view.config.address)}}, uint64_t{value(view)});
}

void write_messages(Exposition &out, const std::vector<bgp::NeighborView> &neighbors) {
  out.counter("mvpn_bgp_messages", "BGP messages of a neighbour.");
  for (const bgp::NeighborView &view : neighbors) {
    const std::string name = bgp::to_string_address(view.config.address);
    out.sample({{"neighbor", name}, {"direction", "in"}}, view.in.total());
    out.sample({{"neighbor", name}, {"direction", "out"}}, view.out.total());
  }
  out.counter("mvpn_bgp_message_bytes", "Their bytes.");
  for (const bgp::NeighborView &view : neighbors) {
    const std::string name = bgp::to_string_address(view.config.address);
    out.sample({{"neighbor", name}, {"direction", "in"}}, view.in.octets);
    out.sample({{"neighbor", name}, {"direction", "out"}}, view.out.octets);
  }
}

void write_neighbors(Exposition &out, const std::vector<bgp::NeighborView> &neighbors) {
  out.gauge("mvpn_bgp_session_up", "1 while the session with a neighbour is Established.");
  sample_each(out, neighbors, [](const auto &view) { return view.state == bgp::State::established ? 1u : 0u; });
  out.counter("mvpn_bgp_sessions_established", "How often the session became Established.");
  sample_each(out, neighbors, [](const auto &view) { return view.established_count; });
  out.gauge("mvpn_bgp_routes_accepted", "Routes of a neighbour, stale ones included.");
  sample_each(out, neighbors, [](const auto &view) { return view.accepted; });
  out.gauge("mvpn_bgp_routes_stale", "Of these, those kept while the neighbour restarts.");
  sample_each(out, neighbors, [](const auto &view) { return view.stale; });
  out.gauge("mvpn_bgp_routes_advertised", "Routes advertised to a neighbour.");
  sample_each(out, neighbors, [](const auto &view) { return view.advertised; });
  out.counter("mvpn_bgp_loops_refused", "Routes refused for a loop.");
  sample_each(out, neighbors, [](const auto &view) { return view.refused_loops; });
  out.counter("mvpn_bgp_treated_as_withdraw", "Updates with errors that were taken for withdrawals.");
  sample_each(out, neighbors, [](const auto &view) { return view.treated_as_withdraw; });
  out.counter("mvpn_bgp_attributes_discarded", "Attributes with errors that were left out.");
  sample_each(out, neighbors, [](const auto &view) { return view.discarded_attributes; });
  write_messages(out, neighbors);
}

void write_bgp(Exposition &out, const bgp::Speaker *speaker) {
  if (speaker == nullptr) return;
  std::vector<bgp::NeighborView> neighbors;
  std::array<uint64_t, static_cast<size_t>(bgp::State::established) + 1> by_state{};
  for (const bgp::Ipv4 address : speaker->neighbors())
    if (auto view = speaker->neighbor(address)) {
      by_state[static_cast<size_t>(view->state)]++;
      neighbors.push_back(std::move(*view));
    }
  out.gauge("mvpn_bgp_sessions", "BGP neighbours by the state of their session.");
  for (size_t state = 0; state < by_state.size(); state++)
    out.sample({{"state", bgp::to_string(static_cast<bgp::State>(state))}}, by_state[state]);
  const bgp::TableSizes sizes = speaker->sizes();
  out.gauge("mvpn_bgp_routes", "Routes in the BGP table.");
  out.sample(sizes.routes);
  out.gauge("mvpn_bgp_paths", "Paths in the BGP table.");
  out.sample(sizes.paths);
  out.gauge("mvpn_bgp_table_bytes", "Bytes of the BGP table.");
  out.sample(sizes.octets);
  write_neighbors(out, neighbors);
}

// --------------------------------------------------------------------------------------------------- forwarding plane

void write_forwarding_vrfs(Exposition &out, const forwarder::Counters &counters) {
  out.counter("mvpn_forwarding_packets",
              "Customer datagrams that the forwarder encapsulated (out) and decapsulated (in).");
  for (const auto &vrf : counters.vrfs) {
    out.sample({{"vrf", vrf.vrf()}, {"direction", "out"}}, uint64_t{vrf.sent_packets()});
    out.sample({{"vrf", vrf.vrf()}, {"direction", "in"}}, uint64_t{vrf.received_packets()});
  }
  out.counter("mvpn_forwarding_bytes", "Their bytes.");
  for (const auto &vrf : counters.vrfs) {
    out.sample({{"vrf", vrf.vrf()}, {"direction", "out"}}, uint64_t{vrf.sent_bytes()});
    out.sample({{"vrf", vrf.vrf()}, {"direction", "in"}}, uint64_t{vrf.received_bytes()});
  }
}

void write_forwarding(Exposition &out, const Forwarding &forwarding) {
  if (!forwarding.active()) return;
  const auto &counters = forwarding.counters();
  out.gauge("mvpn_forwarder_connected", "1 while the forwarder is there.");
  out.sample(uint64_t{forwarding.connected() ? 1u : 0u});
  if (!counters) return;
  write_forwarding_vrfs(out, *counters);
  out.gauge("mvpn_forwarding_flows", "Flows that the forwarder sends into the core.");
  out.sample(uint64_t{counters->flows.size()});
  uint64_t joined = 0;
  for (const auto &membership : counters->core) joined += membership.joined() ? 1 : 0;
  out.gauge("mvpn_forwarding_core_memberships", "Memberships of core groups.");
  out.sample({{"state", "joined"}}, joined);
  out.sample({{"state", "waiting"}}, counters->core.size() - joined);
  out.counter("mvpn_forwarding_drops", "Packets that the forwarder dropped.");
  for (const auto &drop : counters->drops)
    out.sample({{"vrf", drop.vrf()}, {"reason", drop.reason()}}, uint64_t{drop.packets()});
}

// -------------------------------------------------------------------------------------------------------- the process

uint64_t resident_bytes() {
  uint64_t size = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

void write_process(Exposition &out, const Loop &loop) {
  out.gauge("mvpn_build_info", "1, with the version of the daemon and of the contract with its module.");
  out.sample({{"version", MVPN_VERSION}, {"contract", std::to_string(PLATFORM_CONTRACT_VERSION)}}, uint64_t{1});
  out.gauge("process_start_time_seconds", "When the daemon started, in seconds since 1970.");
  out.sample(static_cast<double>(loop.started()));
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  const auto seconds = [](const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  out.counter("process_cpu_seconds", "Processor time of the daemon.");
  out.sample(seconds(used.ru_utime) + seconds(used.ru_stime));
  out.gauge("process_resident_memory_bytes", "Memory of the daemon.");
  out.sample(resident_bytes());
  out.histogram("mvpn_loop_turn_seconds", "How long turns of the main loop take; meanwhile nothing else is served.",
                loop.turn_times());
}

}  // namespace

std::string metrics_text(const Router &router, const Loop &loop, metrics::Format format) {
  Exposition out(format);
  write_process(out, loop);
  write_vrfs(out, count_vrfs(), router.module());
  write_tunnels(out);
  write_platform(out);
  write_carrier(out, router.links().carrier());
  write_bgp(out, router.links().exchange().bgp().speaker());
  write_forwarding(out, router.forwarding());
  return out.take();
}

}  // namespace host

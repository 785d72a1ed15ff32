// Views that are gathered from many places. Each row reads what there is at that moment; a VRF that has gone while the
// listing yielded shows as one without a context.
#include "host/daemon/status_views.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "host/daemon/config_work.h"
#include "host/daemon/readiness.h"
#include "host/output/wall_time.h"
#include "platform/im.h"
#include "platform/reference/bgp.h"
#include "platform/reference/mrib.h"
#include "platform/reference/oim.h"
#include "routing/pim/mvpn/mvpn.h"

namespace host {
namespace {

using output::Cell;
using output::Listing;
using output::Row;

// VRFs of the configuration, by name.
std::vector<std::string> vrf_names(const Config &config) {
  std::vector<std::string> names;
  for (const auto &[id, block] : config.blocks())
    if (id.mode == Mode::vrf) names.push_back(id.name);
  return names;
}

Row vrf_row(const Router &router, const std::string &name) {
  const pim_cibtype *pcib = pim_get_cib_by_context_name(name.c_str());
  const mvpn_cibtype *mvpn = pcib == nullptr ? nullptr : pcib->mvpn;
  const std::string status = mti_status(name), reason = why_not_up(router, name);
  const ip_addr_t group = mvpn == nullptr ? 0 : mvpn->mdt_default_group;
  return {name, group == 0 ? Cell() : Cell(address_text(group)),
          mvpn == nullptr || mvpn->mti_iod == 0 ? Cell() : Cell(ksink_im_get_if_name(mvpn->mti_iod)),
          status.empty() ? Cell() : Cell(status), reason.empty() ? Cell() : Cell(reason)};
}

struct ProcessUse {
  uint64_t memory_bytes = 0, threads = 0;
};
ProcessUse use_of_this_process() {
  ProcessUse use;
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == "VmRSS:" && status >> use.memory_bytes) use.memory_bytes *= 1024;
    if (word == "Threads:") status >> use.threads;
  }
  return use;
}

std::string store_text(const Process &process) {
  if (!process.stores) return "memory";
  const std::string &failure = process.watcher.store_failure();
  return failure.empty() ? "writing" : "failing: " + failure;
}

std::string forwarder_text(const Forwarding &forwarding) {
  if (!forwarding.active()) return "none";
  return forwarding.connected() ? "connected" : "away";
}

struct Sessions {
  uint64_t neighbors = 0, up = 0;
};
Sessions sessions_of(const bgp::Speaker *speaker) {
  Sessions sessions;
  if (speaker == nullptr) return sessions;
  for (const bgp::Ipv4 address : speaker->neighbors()) {
    sessions.neighbors++;
    const auto view = speaker->neighbor(address);
    if (view && view->state == bgp::State::established) sessions.up++;
  }
  return sessions;
}

}  // namespace

void show_vrfs(const ViewInput &input, Listing &listing) {
  listing.begin(output::kVrfs);
  for (const std::string &name : vrf_names(input.router.running()))
    if (!listing.row(vrf_row(input.router, name))) return;
}

void show_version(const ViewInput &input, Listing &listing) {
  listing.begin(output::kVersion);
  listing.row({"pimhostd", MVPN_VERSION, "C++ compiler " __VERSION__, input.process.module});
}

void show_status(const ViewInput &input, Listing &listing) {
  const Process &process = input.process;
  const Router &router = input.router;
  const ProcessUse use = use_of_this_process();
  const std::vector<std::string> vrfs = vrf_names(router.running());
  const Sessions sessions = sessions_of(router.links().exchange().bgp().speaker());
  const auto up = std::ranges::count_if(vrfs, [&](const auto &name) { return mti_status(name) == "Up"; });
  listing.begin(output::kStatus);
  listing.row({output::wall_time(process.started),
               Cell::Seconds(std::chrono::steady_clock::now() - process.running_since),
               static_cast<uint64_t>(getpid()),
               use.memory_bytes,
               use.threads,
               std::string(name_of(process.log.level())),
               process.log.dropped(),
               router.running().feature_mvpn() ? "on" : "off",
               store_text(process),
               forwarder_text(router.forwarding()),
               process.work->status(),
               uint64_t{vrfs.size()},
               static_cast<uint64_t>(up),
               uint64_t{ref::tunnels().size()},
               uint64_t{ref::bgp_remote_count()},
               sessions.neighbors,
               sessions.up,
               uint64_t{ref::mrib_routes().size()},
               uint64_t{process.watcher.sent()},
               uint64_t{process.watcher.received()}});
}

}  // namespace host

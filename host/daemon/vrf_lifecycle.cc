// A VRF can be deleted only when the module has left it, which takes a tunnel's teardown. Until then it is "leaving",
// and a VRF that needs its name or its numbers is "waiting"; when it has gone, what the configuration says is built.
#include "host/daemon/vrf_lifecycle.h"

#include <memory>
#include <set>
#include <utility>

#include "host/daemon/vrf_commands.h"
#include "platform/pim.h"
#include "platform/reference/croute.h"
#include "platform/reference/l3vm.h"

namespace host {

VrfLifecycle::VrfLifecycle(const Parts &parts, LogLine log)
    : running_(parts.running),
      absent_(parts.absent),
      module_(parts.module),
      platform_(parts.platform),
      log_(std::move(log)) {}

void VrfLifecycle::follow(const std::string &name) {
  const Block *block = running_.vrf(name);
  absent_.waiting.erase(name);
  if (block == nullptr || absent_.leaving.contains(name) || pim_get_cib_by_context_name(name.c_str()) != nullptr)
    return;
  const auto context = static_cast<vrf_context_id_t>(number_value(*block->value(Command::context_id, "id")));
  const auto table = static_cast<uint32_t>(number_value(*block->value(Command::table_id, "id")));
  if (ref::create_vrf(name, context, table) != nullptr)
    platform_.follow_route_distinguisher(name);
  else if (!absent_.leaving.empty())
    absent_.waiting.insert(name);  // its numbers may be those of a VRF that is leaving
  else
    log_(Level::error, "VRF " + name + " cannot be created");
}

void VrfLifecycle::leave(const std::string &name) {
  pim_cibtype *pcib = pim_get_cib_by_context_name(name.c_str());
  if (pcib == nullptr) return;
  for (const ref::CustomerRoute &route : ref::customer_routes(name)) ref::delete_customer_route(name, route.addrs);
  if (module_.runs()) module_.entry_points().leave_vrf(pcib);
  absent_.leaving.insert(name);
}

void VrfLifecycle::settle() {
  if (absent_.leaving.empty()) return;
  for (auto at = absent_.leaving.begin(); at != absent_.leaving.end();) {
    const pim_cibtype *pcib = pim_get_cib_by_context_name(at->c_str());
    const bool gone = pcib == nullptr || (pcib->mvpn == nullptr && ref::customer_routes(*at).empty());
    if (!gone || (pcib != nullptr && !ref::delete_vrf(*at))) {
      ++at;
      continue;
    }
    absent_.waiting.insert(*at);
    at = absent_.leaving.erase(at);
  }
  for (const std::string &name : std::set<std::string>(absent_.waiting)) bring_in(name);
}

void VrfLifecycle::bring_in(const std::string &vrf) {
  follow(vrf);
  if (running_.vrf(vrf) == nullptr || !is_there(vrf)) return;
  for (const auto &[id, interface] : running_.blocks())
    if (const std::string *of = interface->value(Command::interface_vrf, "name"); of != nullptr && *of == vrf)
      platform_.follow_interface(id.name);
  const std::shared_ptr<const Block> kept = running_.blocks().at({Mode::vrf, vrf});
  for (const Line *line : mdt_lines(*kept)) {
    const Outcome outcome = module_.run(vrf, line->statement, line->statement.no, true);
    if (outcome.accepted) continue;
    const Rejection rejection{{{Mode::vrf, vrf}, nullptr, line}, outcome.text};
    log_(Level::error, error_of(rejection).reason);
    put_back(Config(), rejection, &running_);
  }
  for (const auto &[place, line] : kept->lines())
    if (line.statement.command == Command::mroute) platform_.set_route(vrf, line.statement.key);
}

// The end of each request is noted when the VRF's commands have been handled.
void VrfLifecycle::replay_all(std::vector<ConfigError> *refused) {
  const Config replayed = running_;
  std::vector<std::string> vrfs;
  for (const auto &[id, block] : replayed.blocks())
    if (id.mode == Mode::vrf) vrfs.push_back(id.name);
  pim_cli_requests_sent_count = static_cast<uint16_t>(pim_cli_requests_sent_count + vrfs.size() + 1);
  pim_cli_done_recv_count++;  // the lines outside of VRFs hold no command of the module
  for (const std::string &name : vrfs) {
    const BlockId id{Mode::vrf, name};
    for (const Line *line : mdt_lines(*replayed.find(id))) {
      const Outcome outcome = module_.run(name, line->statement, line->statement.no, false);
      if (outcome.accepted) continue;
      const Rejection rejection{{id, nullptr, line}, outcome.text};
      refused->push_back(error_of(rejection));
      put_back(Config(), rejection, &running_);
    }
    module_.end_of_commands(name);
    pim_cli_done_recv_count++;
    module_.entry_points().cli_done();
  }
  if (vrfs.empty()) module_.entry_points().cli_done();
}

void VrfLifecycle::replay(const std::string &vrf) {
  const Block *block = running_.vrf(vrf);
  if (block == nullptr || !module_.runs()) return;
  for (const Line *line : mdt_lines(*block)) {
    const Outcome outcome = module_.run(vrf, line->statement, line->statement.no, false);
    if (!outcome.accepted) log_(Level::error, "VRF " + vrf + ": " + line->statement.text + ": " + outcome.text);
  }
  module_.end_of_commands(vrf);
}

}  // namespace host

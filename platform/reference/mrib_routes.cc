// Records of routes, their groups and their owners. Which owner's installation counts is decided in install() and
// uninstall() alone. A client reads a route in the form in which it was installed; that form is made when it is asked
// for (mrib_route_of), not kept.
//
// Trap: ids and references to records stay valid while other records come and go, but not beyond settle() of their own.
#include "platform/reference/mrib_routes.h"

#include <algorithm>

#include "platform/reference/mrib.h"
#include "platform/reference/wire.h"

namespace ref {
namespace {

// The bytes that install a route: what no field has is 0.
std::vector<uint8_t> entry_of(const MribRoute &route, const MribInstalled &installed) {
  std::vector<uint8_t> entry(MRIB_UPDATE_ENTRY_SIZE);
  const auto store = [&entry](size_t place, uint32_t value) { wire::store_host(&entry[place], value); };
  store(MRIB_ENTRY_CONTEXT_ID, route.context_id);
  store(MRIB_ENTRY_SOURCE, route.addrs.source);
  store(MRIB_ENTRY_GROUP, route.addrs.group);
  entry[MRIB_ENTRY_SOURCE_LEN] = route.addrs.source_len;
  entry[MRIB_ENTRY_GROUP_LEN] = route.addrs.group_len;
  store(MRIB_ENTRY_RPF_ADDR, route.rpf_addr);
  store(MRIB_ENTRY_RPF_ADDR_SET, route.rpf_addr != 0 ? 1 : 0);
  store(MRIB_ENTRY_ADD_OWNER, route.owner);
  store(MRIB_ENTRY_OWNER, route.owner);
  store(MRIB_ENTRY_MDT_SOURCE_IOD, route.mdt_source_iod);
  store(MRIB_ENTRY_MTI_IOD, route.mti_iod);
  entry[MRIB_ENTRY_ASM_SHARED_TREE] = route.asm_shared_tree ? 1 : 0;
  entry[MRIB_ENTRY_ADD] = 1;
  entry[MRIB_ENTRY_LOCAL] = route.local ? 1 : 0;
  entry[MRIB_ENTRY_LAST_HOP] = route.last_hop ? 1 : 0;
  entry[MRIB_ENTRY_MTI_IOD_SET] = installed.mti_given ? 1 : 0;
  entry[MRIB_ENTRY_TEARDOWN] = installed.teardown ? 1 : 0;
  return entry;
}

}  // namespace

MribKey mrib_key(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs) {
  const bool any = addrs.source_len == MROUTE_ANY_SOURCE_LEN;
  return {context_id, addrs.group, any ? 0 : addrs.source, addrs.group_len, addrs.source_len};
}

mvpn_mdt_route_addrs addrs_of(const MribKey &key) {
  mvpn_mdt_route_addrs addrs{};
  addrs.source = key.source;
  addrs.group = key.group;
  addrs.source_len = key.source_len;
  addrs.group_len = key.group_len;
  return addrs;
}

MribRoute mrib_route_of(const MribKey &key, const MribInstalled &installed) {
  MribRoute route;
  route.addrs = addrs_of(key);
  route.context_id = key.context_id;
  route.owner = installed.owner;
  route.mti_iod = installed.mti_iod;
  route.mdt_source_iod = installed.mdt_source_iod;
  route.rpf_addr = installed.rpf_addr;
  route.local = installed.local;
  route.last_hop = installed.last_hop;
  route.asm_shared_tree = installed.asm_shared_tree;
  route.entry = entry_of(route, installed);
  route.xid = installed.xid;
  return route;
}

// ---------------------------------------------------------------------------------------------------------- look-ups

MribRoutes::Id MribRoutes::make(const MribKey &key) {
  if (const Id found = find(key); found != 0) return found;
  Record record;
  record.its_key = key;
  const Id id = records_.add(record);
  link(id);
  return id;
}

void MribRoutes::settle(Id id) {
  if (records_[id].installed || records_[id].foreign) return;
  unlink(id);
  records_.erase(id);
}

void MribRoutes::sort(std::vector<Id> &ids) const {
  std::sort(ids.begin(), ids.end(), [this](Id a, Id b) { return records_[a].its_key < records_[b].its_key; });
}

mrib_context *MribRoutes::context(vrf_context_id_t context_id) {
  const auto found = contexts_.find(context_id);
  return found == contexts_.end() ? nullptr : &found->second;
}

std::vector<MribRoutes::Id> MribRoutes::of_group(vrf_context_id_t context_id, ip_addr_t group,
                                                 uint32_t group_len) const {
  std::vector<Id> ids;
  const uint32_t found = groups_.find({context_id, group, group_len});
  for (Id id = found != 0 ? groups_[found].first : 0; id != 0; id = records_[id].after) ids.push_back(id);
  return ids;
}

// ------------------------------------------------------------------------------------------------------------ groups

void MribRoutes::link(Id id) {
  Record &record = records_[id];
  const vrf_context_id_t context_id = record.its_key.context_id;
  contexts_.try_emplace(context_id, mrib_context{context_id, 0}).first->second.routes++;
  uint32_t group = groups_.find(group_key(record.its_key));
  if (group == 0) group = groups_.add({group_key(record.its_key)});
  record.after = groups_[group].first;
  if (record.after != 0) records_[record.after].before = id;
  groups_[group].first = id;
}

void MribRoutes::unlink(Id id) {
  const Record &record = records_[id];
  if (record.after != 0) records_[record.after].before = record.before;
  if (record.before != 0) {
    records_[record.before].after = record.after;
  } else {
    const uint32_t group = groups_.find(group_key(record.its_key));
    groups_[group].first = record.after;
    if (record.after == 0) groups_.erase(group);
  }
  const auto context = contexts_.find(record.its_key.context_id);
  if (--context->second.routes == 0) contexts_.erase(context);
}

// ------------------------------------------------------------------------------------------------------------ owners

void MribRoutes::install(Id id, const MribInstalled &installed) {
  Record &record = records_[id];
  if (record.owned && record.client.owner != installed.owner) {
    auto &owners = shared_[record.its_key];
    owners.try_emplace(record.client.owner, record.client);
    owners[installed.owner] = installed;
  } else if (const auto owners = shared_.find(record.its_key); owners != shared_.end()) {
    owners->second[installed.owner] = installed;
  }
  record.installed = record.owned = true;
  record.client = installed;
}

void MribRoutes::uninstall(Id id, uint32_t owner) {
  Record &record = records_[id];
  if (!record.installed) return;
  if (owner == 0) {
    if (!record.owned) record.installed = false;
    return;
  }
  const auto owners = shared_.find(record.its_key);
  if (owners == shared_.end()) {
    if (record.client.owner == owner) record.owned = false;
    return;
  }
  owners->second.erase(owner);
  if (record.client.owner == owner) record.client = owners->second.begin()->second;
  if (owners->second.size() == 1) shared_.erase(owners);
}

void MribRoutes::forget_client(Id id) {
  Record &record = records_[id];
  record.installed = record.owned = false;
  shared_.erase(record.its_key);
}

}  // namespace ref

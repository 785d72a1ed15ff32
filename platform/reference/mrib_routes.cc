// Records of routes, their groups and their owners. Which owner's installation counts is decided in install() and
// uninstall() alone. A client reads a route in the form in which it was installed; that form is made when it is asked
// for (mrib_route_of), not kept.
//
// Trap: ids and references to records stay valid while other records come and go, but not beyond settle() of their own.
#include "platform/reference/mrib_routes.h"

#include <algorithm>
#include <utility>

#include "platform/reference/mrib.h"
#include "platform/reference/wire.h"

namespace ref {
namespace {

// The bytes that install a route: what no field has is 0.
std::vector<uint8_t> entry_of(const MribRoute &route, const MribTerms &terms) {
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
  entry[MRIB_ENTRY_MTI_IOD_SET] = terms.mti_given ? 1 : 0;
  entry[MRIB_ENTRY_TEARDOWN] = terms.teardown ? 1 : 0;
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
  const MribTerms &terms = installed.terms;
  MribRoute route;
  route.addrs = addrs_of(key);
  route.context_id = key.context_id;
  route.owner = terms.owner;
  route.mti_iod = terms.mti_iod;
  route.mdt_source_iod = terms.mdt_source_iod;
  route.rpf_addr = terms.rpf_is_source ? key.source : terms.rpf_addr;
  route.local = terms.local;
  route.last_hop = terms.last_hop;
  route.asm_shared_tree = terms.asm_shared_tree;
  route.entry = entry_of(route, terms);
  route.xid = installed.xid;
  return route;
}

// ---------------------------------------------------------------------------------------------------------- look-ups

MribRoutes::Id MribRoutes::make(const MribKey &key) {
  if (const Id found = find(key); found != 0) return found;
  Record record;
  record.context_id = key.context_id;
  record.group = key.group;
  record.source = key.source;
  record.group_len = key.group_len;
  record.source_len = key.source_len;
  const Id id = records_.add(record);
  link(id);
  return id;
}

void MribRoutes::settle(Id id) {
  if (records_[id].installed || records_[id].foreign) return;
  unlink(id);
  drop_terms(records_[id].terms);
  records_.erase(id);
}

void MribRoutes::sort(std::vector<Id> &ids) const {
  std::sort(ids.begin(), ids.end(), [this](Id a, Id b) { return records_[a].key() < records_[b].key(); });
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
  const vrf_context_id_t context_id = record.context_id;
  contexts_.try_emplace(context_id, mrib_context{context_id, 0}).first->second.routes++;
  uint32_t group = groups_.find(group_key(record.key()));
  if (group == 0) group = groups_.add({group_key(record.key())});
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
    const uint32_t group = groups_.find(group_key(record.key()));
    groups_[group].first = record.after;
    if (record.after == 0) groups_.erase(group);
  }
  const auto context = contexts_.find(record.context_id);
  if (--context->second.routes == 0) contexts_.erase(context);
}

// ------------------------------------------------------------------------------------------------------------ owners

// An owner installs many routes in a row.
void MribRoutes::set_terms(Id id, const MribInstalled &installed) {
  if (latest_terms_ == 0 || terms_[latest_terms_].its_key != installed.terms) {
    latest_terms_ = terms_.find(installed.terms);
    if (latest_terms_ == 0) latest_terms_ = terms_.add({installed.terms});
  }
  terms_[latest_terms_].users++;
  Record &record = records_[id];
  record.xid = installed.xid;
  drop_terms(std::exchange(record.terms, latest_terms_));
}

void MribRoutes::drop_terms(uint32_t terms) {
  if (terms == 0 || --terms_[terms].users > 0) return;
  if (latest_terms_ == terms) latest_terms_ = 0;
  terms_.erase(terms);
}

MribInstalled MribRoutes::installed(Id id) const {
  const Record &record = records_[id];
  return record.terms != 0 ? MribInstalled{terms_[record.terms].its_key, record.xid} : MribInstalled{};
}

void MribRoutes::install(Id id, const MribInstalled &installed) {
  Record &record = records_[id];
  const uint32_t owner = installed.terms.owner;
  if (record.owned && terms_[record.terms].its_key.owner != owner) {
    const MribInstalled former = this->installed(id);
    auto &owners = shared_[record.key()];
    owners.try_emplace(former.terms.owner, former);
    owners[owner] = installed;
  } else if (const auto owners = shared_.find(record.key()); owners != shared_.end()) {
    owners->second[owner] = installed;
  }
  record.installed = record.owned = true;
  set_terms(id, installed);
}

void MribRoutes::uninstall(Id id, uint32_t owner) {
  Record &record = records_[id];
  if (!record.installed) return;
  if (owner == 0) {
    if (!record.owned) record.installed = false;
    return;
  }
  const bool counts = terms_[record.terms].its_key.owner == owner;
  const auto owners = shared_.find(record.key());
  if (owners == shared_.end()) {
    if (counts) record.owned = false;
    return;
  }
  owners->second.erase(owner);
  if (counts) set_terms(id, owners->second.begin()->second);
  if (owners->second.size() == 1) shared_.erase(owners);
}

void MribRoutes::forget_client(Id id) {
  Record &record = records_[id];
  record.installed = record.owned = false;
  shared_.erase(record.key());
}

// ------------------------------------------------------------------------------------------------------ other holders

void MribRoutes::hold(Id id, im_iod_t mti_iod) {
  release(id);
  Record &record = records_[id];
  record.foreign = true;
  record.foreign_mti = mti_iod != 0;
  if (mti_iod != 0) foreign_mtis_[record.key()] = mti_iod;
}

void MribRoutes::release(Id id) {
  Record &record = records_[id];
  if (record.foreign_mti) foreign_mtis_.erase(record.key());
  record.foreign = record.foreign_mti = false;
}

im_iod_t MribRoutes::mti_of(Id id) const {
  const Record &record = records_[id];
  const im_iod_t clients = record.installed ? terms_[record.terms].its_key.mti_iod : 0;
  if (clients != 0 || !record.foreign_mti) return clients;
  return foreign_mtis_.at(record.key());
}

}  // namespace ref

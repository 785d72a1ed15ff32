// Consistency of the module's records with each other and with what the platform holds:
//  - a send record with a core route <=> its customer route is among that route's referers;
//  - a received announcement with a core route <=> it is among that route's referers;
//  - no send record points at a range that is not in its VRF's list;
//  - use counts, the encapsulation table and the store agree about which flow uses which group;
//  - the counters of a VRF agree with its trees.
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/reference/pss.h"
#include "routing/pim/mvpn/mvpn_ha.h"
#include "tests/support/module_test.h"

namespace {

struct Referers {
  std::set<const void *> croutes;
  std::set<const void *> joins;
};

class VrfCheck {
 public:
  VrfCheck(pim_cibtype *pcib, std::vector<std::string> *wrong) : pcib_(pcib), mvpn_(pcib->mvpn), wrong_(wrong) {}

  void run() {
    if (mvpn_->pcib != pcib_) fail("context does not point back to its PIM context");
    collect_routes();
    check_send_records();
    check_received();
    check_group_counts();
    for (const auto &[route, referers] : referers_) {
      for (const void *croute : referers.croutes)
        if (!linked_croutes_.contains({route, croute})) fail("a core route lists a customer route without it");
      for (const void *join : referers.joins)
        if (!linked_joins_.contains({route, join})) fail("a core route lists an announcement without it");
    }
  }

 private:
  void fail(const std::string &text) { wrong_->push_back(std::string(pcib_->vrf_name) + ": " + text); }

  void collect_routes() {
    uint32_t count = 0;
    for (pt_node *node = pt_get_first_node(mvpn_->mdt_route_tree, nullptr, 0); node != nullptr;
         node = pt_get_next_node(mvpn_->mdt_route_tree, pt_node_key(node), 0)) {
      const auto *route = static_cast<const mvpn_mdt_route *>(pt_node_data(node));
      count++;
      if (route->mvpn != mvpn_) fail("a core route belongs to another VRF");
      rqueue_visit_data(
          &route->referers,
          [](void *data, uint32_t tag, void *argument) {
            auto *referers = static_cast<Referers *>(argument);
            (tag == MVPN_REFERER_CUSTOMER_ROUTE ? referers->croutes : referers->joins).insert(data);
          },
          &referers_[route]);
    }
    if (count != mvpn_->mdt_route_count) fail("mdt_route_count differs from the tree");
  }

  bool has_range(const mvpn_data_mdt_range *wanted) const {
    for (const mvpn_data_mdt_range *range = mvpn_->data_mdt_config; range != nullptr; range = range->next)
      if (range == wanted) return true;
    return false;
  }

  void check_send_records() {
    for (pt_node *node = pt_get_first_node(pcib_->route_tree, nullptr, 0); node != nullptr;
         node = pt_get_next_node(pcib_->route_tree, pt_node_key(node), 0)) {
      const auto *croute = static_cast<const pim_route *>(pt_node_data(node));
      const mvpn_data_mdt_send_join_info *record = croute->send_join_info;
      if (record == nullptr) continue;
      if (record->config != nullptr && !has_range(record->config)) fail("a send record points at a freed range");
      if (record->mdt_route != nullptr) {
        linked_croutes_.insert({record->mdt_route, croute});
        const auto found = referers_.find(record->mdt_route);
        if (found == referers_.end())
          fail("a send record points at a core route that is gone");
        else if (!found->second.croutes.contains(croute))
          fail("a send record's core route does not list its customer route");
      }
      if (record->encap_index >= MVPN_ENCAP_INDEX_FIRST_DATA && record->group != 0) note_flow(*record);
    }
  }

  void note_flow(const mvpn_data_mdt_send_join_info &record) {
    if (mvpn_->mti_status == MVPN_MTI_UP && mvpn_->mdt_encap_group[record.encap_index] != record.group)
      fail("a flow's index stands for another group");
    if (record.config != nullptr && has_range(record.config)) flows_[{record.config, record.group}]++;
  }

  void check_received() {
    uint32_t count = 0;
    for (pt_node *node = pt_get_first_node(mvpn_->data_mdt_recv_cache, nullptr, 0); node != nullptr;
         node = pt_get_next_node(mvpn_->data_mdt_recv_cache, pt_node_key(node), 0)) {
      const auto *join = static_cast<const mvpn_data_mdt_recv_join_info *>(pt_node_data(node));
      count++;
      if ((join->mdt_route != nullptr) != (join->flags != 0)) fail("an announcement's flags disagree with its route");
      if (join->mdt_route == nullptr) continue;
      linked_joins_.insert({join->mdt_route, join});
      const auto found = referers_.find(join->mdt_route);
      if (found == referers_.end())
        fail("an announcement points at a core route that is gone");
      else if (!found->second.joins.contains(join))
        fail("an announcement's core route does not list it");
    }
    if (count != mvpn_->data_mdt_recv_count) fail("data_mdt_recv_count differs from the cache");
  }

  void check_group_counts() {
    for (const mvpn_data_mdt_range *range = mvpn_->data_mdt_config; range != nullptr; range = range->next)
      for (uint32_t slot = 0; slot < MVPN_DATA_MDT_POOL_GROUPS; slot++) {
        const auto found = flows_.find({range, range->prefix + slot});
        const uint32_t flows = found == flows_.end() ? 0 : found->second;
        if (range->group_refcount[slot] != flows)
          fail("group " + std::to_string(slot) + " of a range counts " + std::to_string(range->group_refcount[slot]) +
               " flows, there are " + std::to_string(flows));
      }
  }

  pim_cibtype *pcib_;
  mvpn_cibtype *mvpn_;
  std::vector<std::string> *wrong_;
  std::map<const mvpn_mdt_route *, Referers> referers_;
  std::set<std::pair<const mvpn_mdt_route *, const void *>> linked_croutes_;
  std::set<std::pair<const mvpn_mdt_route *, const void *>> linked_joins_;
  std::map<std::pair<const mvpn_data_mdt_range *, ip_addr_t>, uint32_t> flows_;
};

// Every persisted choice of a live VRF is that of a flow with the same index and group, outside a recovery period; also
// that of a flow which its tunnel has left, and which has made no other choice since.
void check_store(std::vector<std::string> *wrong) {
  if (mvpn_ha_recovery_timer != nullptr) return;
  for (const auto &[key, value] : ref::pss_records()) {
    if (key.size() != PSS_KEY_SIZE || key[0] != MVPN_PSS_ENCAP_INFO) continue;
    const uint32_t context_id = uint32_t{key[4]} << 24 | uint32_t{key[5]} << 16 | uint32_t{key[6]} << 8 | key[7];
    pim_cibtype *pcib = pim_get_cib_by_context_id(context_id);
    if (pcib == nullptr || pcib->mvpn == nullptr || pcib->mvpn->mti_status != MVPN_MTI_UP) continue;
    mvpn_ha_encap_info_t stored{};
    if (mvpn_ha_get_encap_info_by_pss_value(value.data(), static_cast<uint32_t>(value.size()), &stored) != 0) {
      wrong->push_back("a stored value cannot be decoded");
      continue;
    }
    mvpn_mdt_route_addrs addrs = mvpn_ha_addrs_of_encap_key(key.data());
    const pim_route *croute = pim_get_route_from_pt(pcib, &addrs);
    const bool on_data_mdt =
        croute != nullptr && croute->send_join_info != nullptr && croute->send_join_info->mdt_route != nullptr;
    if (croute != nullptr && !on_data_mdt && pcib->mvpn->unclaimed_choices != 0) continue;
    if (croute == nullptr || croute->send_join_info == nullptr ||
        croute->send_join_info->encap_index != stored.encap_index || croute->send_join_info->group != stored.mdt_group)
      wrong->push_back(std::string(pcib->vrf_name) + ": a stored choice is that of no flow");
  }
}

}  // namespace

std::vector<std::string> invariant_violations() {
  std::vector<std::string> wrong;
  uint32_t contexts = 0;
  pim_cib_iterator iterator;
  for (pim_cibtype *pcib = pim_get_first_cib_by_name(&iterator); pcib != nullptr;
       pcib = pim_get_next_cib_by_name(&iterator)) {
    if (pcib->mvpn == nullptr) continue;
    contexts++;
    VrfCheck(pcib, &wrong).run();
  }
  if (contexts != mvpn_mvrf_count) wrong.push_back("mvpn_mvrf_count differs from the contexts");
  check_store(&wrong);
  return wrong;
}

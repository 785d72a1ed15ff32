// High availability: the encapsulation choices that survive a restart, and the recovery period after one.
//
// When a customer flow moves to a data MDT, this PE chooses an encapsulation index and a data-MDT group for it. A
// restarted process, or the supervisor that takes over, should choose the same again, so that forwarding is not
// disturbed while state is rebuilt from live traffic. One record per switched flow is kept in the platform's
// persistent store.
//
// Records. The key is 20 bytes: record type, customer VRF, customer route; numbers in network byte order, so that the
// records of one VRF share an 8-byte prefix, and all encapsulation records a 4-byte prefix. The value is the record
// mvpn_ha_encap_info_t in the self-describing form of the platform's TLV utility. The host's end of a (*,G) route has
// no source: keys carry 0 there, so that storing and deleting meet whatever the caller's record holds in that field.
//
// Flow. The end of the configuration replay opens the recovery period on an active supervisor that took over or
// restarted; while it is open the sender side asks here before it chooses. The timer closes it and sweeps out the
// records that no rebuilt flow has claimed.
//
// Invariants. mvpn_ha_recovery_timer is set exactly while the period is open. Pointers that the store gives are good
// until its next call only, so records are copied out before anything else is asked of it. Stored values are not
// trusted: what does not decode, or names an index that the table does not have, is as good as absent.
//
// The hooks for MDT SAFI entries and the update source mark where those change; they store nothing, since BGP gives
// both again.
//
// Everything runs on the main thread, but for the deletion of a choice, which the MRIB worker needs too when a core
// route ends. The sweep and the announcement yield.
#include "routing/pim/mvpn/mvpn_ha_internal.h"

#include <cstring>
#include <vector>

#include "platform/ip.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_wire.h"

active_timer *mvpn_ha_recovery_timer;

static const tlvu_field encap_info_fields[] = {
    {1, sizeof(uint16_t), offsetof(mvpn_ha_encap_info_t, encap_index), 1, {}, sizeof(uint16_t), TLVU_END, 0},
    {2, sizeof(uint32_t), offsetof(mvpn_ha_encap_info_t, mdt_group), 1, {}, sizeof(uint32_t), TLVU_END, 0},
    {TLVU_END, TLVU_END, TLVU_END, 0, {}, 0, 0, 0},
};
static const tlvu_table mvpn_ha_encap_info_tbl = {sizeof(mvpn_ha_encap_info_t), "mvpn_ha_encap_info_t",
                                                  encap_info_fields};

static_assert(offsetof(mvpn_ha_encap_info_t, encap_index) == 0 && offsetof(mvpn_ha_encap_info_t, mdt_group) == 4);

// -------------------------------------------------------------------------------------------------------------- keys

// Offsets in a key of type MVPN_PSS_MDT_SAFI.
enum : uint32_t { PSS_SAFI_KEY_SOURCE = 4, PSS_SAFI_KEY_RD = 8, PSS_SAFI_KEY_GROUP = 16 };

void mvpn_ha_make_encap_info_pss_key(const pim_cibtype *pcib, const mvpn_mdt_route_addrs *addrs, uint8_t *key) {
  std::memset(key, 0, PSS_KEY_SIZE);
  key[MVPN_PSS_KEY_TYPE] = MVPN_PSS_ENCAP_INFO;
  if (pcib != nullptr) store_be32(key + MVPN_PSS_KEY_CONTEXT_ID, pcib->context_id);
  if (addrs == nullptr) return;
  store_be32(key + MVPN_PSS_KEY_SOURCE, addrs->source_len == MROUTE_ANY_SOURCE_LEN ? 0 : addrs->source);
  store_be32(key + MVPN_PSS_KEY_GROUP, addrs->group);
  key[MVPN_PSS_KEY_SOURCE_LEN] = addrs->source_len;
  key[MVPN_PSS_KEY_GROUP_LEN] = addrs->group_len;
}

int mvpn_ha_make_mdt_safi_pss_key(const mvpn_bgp_mdt_safi *entry, uint8_t *key) {
  if (key == nullptr) return 0;
  std::memset(key, 0, PSS_KEY_SIZE);
  key[MVPN_PSS_KEY_TYPE] = MVPN_PSS_MDT_SAFI;
  if (entry == nullptr) return 1;
  store_be32(key + PSS_SAFI_KEY_SOURCE, entry->key.mdt_src);
  std::memcpy(key + PSS_SAFI_KEY_RD, entry->key.bgp_rd, sizeof entry->key.bgp_rd);
  store_be32(key + PSS_SAFI_KEY_GROUP, entry->key.mdt_grp);
  return 1;
}

int mvpn_ha_make_bgp_update_src_if_pss_key(uint8_t *key) {
  if (key == nullptr) return 0;
  std::memset(key, 0, PSS_KEY_SIZE);
  key[MVPN_PSS_KEY_TYPE] = MVPN_PSS_BGP_UPDATE_SRC_IF;
  return 1;
}

bool mvpn_ha_is_encap_key_of(const uint8_t *key, vrf_context_id_t context_id) {
  return key[MVPN_PSS_KEY_TYPE] == MVPN_PSS_ENCAP_INFO && load_be32(key + MVPN_PSS_KEY_CONTEXT_ID) == context_id;
}

mvpn_mdt_route_addrs mvpn_ha_addrs_of_encap_key(const uint8_t *key) {
  mvpn_mdt_route_addrs addrs{};
  addrs.source = load_be32(key + MVPN_PSS_KEY_SOURCE);
  addrs.group = load_be32(key + MVPN_PSS_KEY_GROUP);
  addrs.source_len = key[MVPN_PSS_KEY_SOURCE_LEN];
  addrs.group_len = key[MVPN_PSS_KEY_GROUP_LEN];
  return addrs;
}

// ------------------------------------------------------------------------------------------------------------ values

// Prints a failed conversion under the name of the function that asked for it; hands the code on.
static int check_tlv(int code, const char *function) {
  if (code != TLVU_OK) tlvu_error_print("%s: ERR 0x%x\n", function, static_cast<unsigned>(code));
  return code;
}

static int mvpn_ha_encap_info_to_tlv(const mvpn_ha_encap_info_t *record, uint8_t *buffer, uint32_t size,
                                     uint32_t *written) {
  return check_tlv(tlvu_table_convert_struct_to_tlv(&mvpn_ha_encap_info_tbl, record, buffer, size, written), __func__);
}

int mvpn_ha_encap_info_to_struct(const uint8_t *tlv, uint32_t length, mvpn_ha_encap_info_t *record) {
  return check_tlv(tlvu_table_convert_tlv_to_struct(&mvpn_ha_encap_info_tbl, tlv, length, record, sizeof *record),
                   __func__);
}

uint32_t mvpn_ha_encap_info_get_tlv_sz(const mvpn_ha_encap_info_t *record) {
  return tlvu_table_size(&mvpn_ha_encap_info_tbl, record);
}

int mvpn_ha_encap_info_get_struct_sz(const uint8_t *tlv, uint32_t length) {
  uint32_t size = 0;
  const int code = tlvu_table_struct_size(&mvpn_ha_encap_info_tbl, tlv, length, &size);
  return check_tlv(code, __func__) == TLVU_OK ? static_cast<int>(size) : -1;
}

int mvpn_ha_encap_info_field_itr_init(const uint8_t *tlv, uint32_t length, tlvu_field_iterator *iterator) {
  return tlvu_table_field_itr_init(&mvpn_ha_encap_info_tbl, tlv, length, iterator);
}

int mvpn_ha_encap_info_field_get_next(tlvu_field_iterator *iterator, uint32_t *id, const uint8_t **value,
                                      uint32_t *size) {
  return tlvu_table_field_get_next(&mvpn_ha_encap_info_tbl, iterator, id, value, size);
}

int mvpn_ha_encap_info_get_field(const uint8_t *tlv, uint32_t length, uint32_t id, const uint8_t **value,
                                 uint32_t *size) {
  return tlvu_table_get_field(&mvpn_ha_encap_info_tbl, tlv, length, id, value, size);
}

int mvpn_ha_make_encap_info_pss_value(const mvpn_ha_encap_info_t &choice, uint8_t *buffer, uint32_t size) {
  uint32_t written = 0;
  return mvpn_ha_encap_info_to_tlv(&choice, buffer, size, &written);
}

int mvpn_ha_get_encap_info_by_pss_value(const uint8_t *tlv, uint32_t length, mvpn_ha_encap_info_t *record) {
  return mvpn_ha_encap_info_to_struct(tlv, length, record);
}

// ---------------------------------------------------------------------------------------------- store, fetch, delete

int mvpn_ha_add_encap_info(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *addrs, const mvpn_ha_encap_info_t &choice) {
  MVPN_DEBUG(mvpn->pcib, "Storing MVPN encap info for %s, encap-index %u MDT Group %s", mrib_print_addrs(addrs),
             unsigned{choice.encap_index}, ip_print_addr(choice.mdt_group));
  uint8_t key[PSS_KEY_SIZE];
  mvpn_ha_make_encap_info_pss_key(mvpn->pcib, addrs, key);
  const uint32_t size = mvpn_ha_encap_info_get_tlv_sz(&choice);
  const tracked_ptr<void> value(mvpn_tracked_alloc(MTRACK_MVPN_GENERAL, size, size, "routing/pim/mvpn/mvpn_ha",
                                                   __LINE__, "mvpn_ha_add_encap_info"));
  if (value == nullptr) {
    mvpn_report(msg_error_PIM_MALLOC, size, "mvpn_ha_add_encap_info()");
    return 0;
  }
  const int code = mvpn_ha_make_encap_info_pss_value(choice, static_cast<uint8_t *>(value.get()), size);
  if (code != TLVU_OK) return 0;
  if (ksink_pss_update(pim_ha_handle, key, PSS_KEY_SIZE, value.get(), size) == 0) {
    mvpn_report(msg_error_PIM_API_FAILED, "ksink_pss_update()", "mvpn_ha_add_encap_info()");
    return 0;
  }
  return 1;
}

int mvpn_ha_get_encap_info(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *addrs, mvpn_ha_encap_info_t *choice) {
  if (mvpn_ha_recovery_timer == nullptr) return 0;
  MVPN_DEBUG(mvpn->pcib, "Retrieving MVPN encap info for %s", mrib_print_addrs(addrs));
  uint8_t key[PSS_KEY_SIZE];
  mvpn_ha_make_encap_info_pss_key(mvpn->pcib, addrs, key);
  const void *value = nullptr;
  uint32_t length = 0;
  if (ksink_pss_fetch(pim_ha_handle, key, PSS_KEY_SIZE, &value, &length) == 0) {
    MVPN_DEBUG(mvpn->pcib, "Encap Info not present in PSS");
    return 0;
  }
  mvpn_ha_encap_info_t record{};
  if (mvpn_ha_get_encap_info_by_pss_value(static_cast<const uint8_t *>(value), length, &record) != TLVU_OK) return 0;
  MVPN_DEBUG(mvpn->pcib, "MVPN encap info for %s has encap-index %u MDT Group %s", mrib_print_addrs(addrs),
             unsigned{record.encap_index}, ip_print_addr(record.mdt_group));
  if (record.encap_index >= MVPN_ENCAP_INDEXES) {
    MVPN_DEBUG(mvpn->pcib, "Encap info refused: index %u, the table has %u", unsigned{record.encap_index},
               MVPN_ENCAP_INDEXES);
    return 0;
  }
  if (choice != nullptr) *choice = record;
  return 1;
}

int mvpn_ha_delete_encap_info(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *addrs) {
  const pim_cibtype *pcib = mvpn != nullptr ? mvpn->pcib : nullptr;
  uint8_t key[PSS_KEY_SIZE];
  mvpn_ha_make_encap_info_pss_key(pcib, addrs, key);
  if (addrs != nullptr) {
    MVPN_DEBUG(pcib, "Deleting MVPN encap info for %s", mrib_print_addrs(addrs));
    if (ksink_pss_delete(pim_ha_handle, key, PSS_KEY_SIZE) == 0) {
      mvpn_report(msg_error_PIM_API_FAILED, "ksink_pss_delete()", "mvpn_ha_delete_encap_info()");
    }
    return 1;
  }
  MVPN_DEBUG(mvpn != nullptr ? pcib : pim_null_pcib, "Deleting all MVPN encap info");
  const uint32_t prefix_size = mvpn != nullptr ? MVPN_PSS_PREFIX_VRF : MVPN_PSS_PREFIX_TYPE;
  if (ksink_pss_delete_range(pim_ha_handle, key, prefix_size) == 0) {
    mvpn_report(msg_error_PIM_API_FAILED, "ksink_pss_delete_range() ", "mvpn_ha_delete_encap_info");
  }
  return 1;
}

// ------------------------------------------------------------------------------------------------------------- hooks

void mvpn_ha_store_mdt_safi_to_pss(const mvpn_bgp_mdt_safi *) {}
void mvpn_ha_remove_mdt_safi_from_pss(const mvpn_bgp_mdt_safi *) {}
int mvpn_ha_recover_mdt_safi_from_pss(mvpn_cibtype *) { return 1; }
void mvpn_ha_store_bgp_update_src_if_to_pss(const char *, uint32_t) {}
void mvpn_ha_remove_bgp_update_src_if_from_pss() {}
int mvpn_ha_recover_bgp_update_src_if(char *) { return 1; }

// ------------------------------------------------------------------------------------------------- walk of a VRF

namespace {

// A record copied out of the store.
struct stored_encap {
  uint8_t key[PSS_KEY_SIZE];
  bool of_vrf;   // the key is one of the VRF's
  bool decoded;  // of_vrf, and the value is a proper one
  mvpn_ha_encap_info_t info;
};

}  // namespace

// Copies a record; only a value of the VRF's is decoded, others may be anything.
static void copy_stored(const pim_cibtype *pcib, const void *key, const void *value, uint32_t length,
                        stored_encap *out) {
  std::memcpy(out->key, key, PSS_KEY_SIZE);
  out->of_vrf = mvpn_ha_is_encap_key_of(out->key, pcib->context_id);
  out->decoded = out->of_vrf && mvpn_ha_get_encap_info_by_pss_value(static_cast<const uint8_t *>(value), length,
                                                                    &out->info) == TLVU_OK;
}

// The first record at or after the VRF's, which may be another VRF's or of another type; the record after the one last
// returned. False: none.
static bool first_stored(const pim_cibtype *pcib, stored_encap *out) {
  uint8_t prefix[PSS_KEY_SIZE];
  mvpn_ha_make_encap_info_pss_key(pcib, nullptr, prefix);
  const void *key = nullptr;
  const void *value = nullptr;
  uint32_t length = 0;
  if (ksink_pss_get_first(pim_ha_handle, &key, prefix, MVPN_PSS_PREFIX_VRF, &value, &length) == 0) return false;
  copy_stored(pcib, key, value, length, out);
  return true;
}

static bool next_stored(const pim_cibtype *pcib, stored_encap *out) {
  const void *key = nullptr;
  const void *value = nullptr;
  uint32_t length = 0;
  if (ksink_pss_get_next(pim_ha_handle, &key, &value, &length) == 0) return false;
  copy_stored(pcib, key, value, length, out);
  return true;
}

// --------------------------------------------------------------------------------------------------- recovery period

int mvpn_ha_recovery_start() {
  // Only an active supervisor that took over or restarted has something to take up.
  if (pim_sup_state_active == 0) return 1;
  if (pim_sup_switchover == 0 && sysmgr_is_stateful_restart() == 0) return 1;
  // A period that is still open, from an earlier end of replay or an earlier life of the module, starts anew: its
  // timer would else close this one early.
  MVPN_DEBUG(pim_null_pcib, "Creating and starting HA recovery timer");
  if (mvpn_ha_recovery_timer != nullptr) active_timer_cancel(mvpn_ha_recovery_timer);
  mvpn_ha_recovery_timer = active_timer_create(
      mvpn_at_set_heap, ACTIVE_TIMER_TYPE_MVPN, [](void *) { mvpn_ha_recovery_stop(); }, nullptr);
  if (mvpn_ha_recovery_timer == nullptr) {
    MVPN_DEBUG(pim_null_pcib, "HA recovery timer create failed");
    return 1;
  }
  // When it cannot be started the period stays open.
  constexpr uint32_t recovery_seconds = 240;
  if (active_timer_start(mvpn_ha_recovery_timer, recovery_seconds, 0, 0, 0) == 0) {
    MVPN_DEBUG(pim_null_pcib, "HA recovery timer start failed");
  }
  return 1;
}

// Whether a rebuilt flow has made the stored choice its own.
static bool is_claimed(pim_cibtype *pcib, const stored_encap &stored) {
  const mvpn_mdt_route_addrs addrs = mvpn_ha_addrs_of_encap_key(stored.key);
  const pim_route *croute = pim_get_route_from_pt(pcib, &addrs);
  return stored.decoded && croute != nullptr && croute->send_join_info != nullptr &&
         croute->send_join_info->encap_index == stored.info.encap_index;
}

// Deletes the VRF's records that nobody claims.
static void sweep(pim_cibtype *pcib) {
  stored_encap stored{};
  bool more = first_stored(pcib, &stored);
  while (more && stored.of_vrf) {
    const bool claimed = is_claimed(pcib, stored);
    uint8_t key[PSS_KEY_SIZE];
    std::memcpy(key, stored.key, sizeof key);
    // On to the next record before this one goes; the last one goes too.
    more = next_stored(pcib, &stored);
    if (!claimed) ksink_pss_delete(pim_ha_handle, key, PSS_KEY_SIZE);
  }
}

void mvpn_ha_recovery_stop() {
  MVPN_DEBUG(pim_null_pcib, "Inside HA recovery timer callback");
  active_timer_cancel(mvpn_ha_recovery_timer);
  mvpn_ha_recovery_timer = nullptr;
  ravl_iterator iterator;
  ravl_init_iterator(&iterator, &pim_contexts_by_name);
  auto *pcib = static_cast<pim_cibtype *>(ravl_get_first_user_data(&iterator));
  while (pcib != nullptr) {
    if (pcib->mvpn != nullptr) {
      sweep(pcib);
      ravl_pre_sched_yield(&iterator);
    }
    pcib = static_cast<pim_cibtype *>(ravl_get_next_user_data(&iterator));
  }
}

// ---------------------------------------------------------------------------------------------------- stored data MDTs

bool mvpn_ha_stored_data_mdts(const pim_cibtype *pcib, std::vector<mvpn_data_mdt_join> *out) {
  stored_encap stored{};
  if (!first_stored(pcib, &stored)) return false;
  bool more = true;
  for (; more && stored.of_vrf; more = next_stored(pcib, &stored)) {
    const mvpn_mdt_route_addrs addrs = mvpn_ha_addrs_of_encap_key(stored.key);
    if (stored.decoded) out->push_back({addrs.source, addrs.group, stored.info.mdt_group});
  }
  return true;
}

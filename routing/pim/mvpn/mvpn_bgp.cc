// What BGP tells the module: remote MDT SAFI entries, route distinguishers and the update source.
//
// Remote entries. BGP passes on what other PEs advertise: PE `source` takes part, under route distinguisher `rd`, in
// the default MDT `group`. Each entry is stored in the MDT SAFI database; while a VRF of this PE uses the group and its
// tunnel is up, the core route of that PE is installed or removed as well. Entries outlive the tunnel, so that the
// routes can be rebuilt from the database when it comes up again; BGP is asked for the whole set once, at the end of
// the configuration replay.
//
// Route distinguisher and update source. A VRF's default MDT needs both. They are asked for at start and followed by
// notifications: a new RD is advertised in place of the old one in a single message, withdrawal first, so that other
// PEs see no gap; a new update source moves every VRF that names no source interface of its own.
//
// Invariants. mvpn_bgp_updatesrc_ifname is always NUL-terminated: it has one byte more than BGP's buffer, and that
// byte stays 0. An RD, once set, changes by notification only. Neither survives a restart of the process; a stop and
// start within it keeps the update source.
//
// Messages come from another process. Lengths, counts and names are bounded by the payload before anything is read:
// entries beyond it are not read, a name without terminator names nothing.
//
// Everything runs on the main thread.
#include "routing/pim/mvpn/mvpn_bgp.h"

#include <algorithm>
#include <cstring>

#include "platform/im.h"
#include "platform/ip.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_default_mdt.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_ha.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mdt_safi.h"
#include "routing/pim/mvpn/mvpn_mdt_source.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "routing/pim/mvpn/mvpn_wire.h"

// --------------------------------------------------------------------------------------------------- remote entries

// The VRF that uses a group. Group 0 is no group, though it is what contexts without one carry.
static mvpn_cibtype *context_of_group(ip_addr_t group) {
  return group != 0 ? mvpn_get_context_by_mdt_group(group) : nullptr;
}

static bool is_tunnel_up(const mvpn_cibtype *mvpn) { return mvpn != nullptr && mvpn->mti_status == MVPN_MTI_UP; }

// A PE may have no group, which harms nobody; what is no multicast group cannot be a default MDT.
static bool is_refused(const mvpn_bgp_mdt_safi_key &key) {
  if (key.mdt_grp == 0 || mvpn_is_multicast(key.mdt_grp)) return false;
  static mvpn_refusals refused;
  if (mvpn_note_refusal(&refused)) {
    syslog_log(4, "MDT SAFI entry of %s refused: %s is no multicast group; %u refused so far",
               ip_print_addr(key.mdt_src), ip_print_addr(key.mdt_grp), refused.count);
  }
  return true;
}

// An advertised entry. 0: it is new and could not be stored.
static int advertise_entry(const mvpn_bgp_mdt_safi_key &key, mvpn_cibtype *mvpn) {
  if (is_refused(key)) return 0;
  switch (mvpn_bgp_mdt_safi_learn(key)) {
    case mvpn_safi_lesson::failed:
      return 0;
    case mvpn_safi_lesson::known:
    case mvpn_safi_lesson::renamed:
      // The core route, if there is one, is the same.
      return 1;
    case mvpn_safi_lesson::added:
      break;
  }
  // Nobody uses the group yet.
  if (mvpn == nullptr) {
    MVPN_SAFI_DEBUG("Caching Remote MDT SAFI entry bgp-rd %s, mdt-src %s, mdt-grp %s\n", key);
    return 1;
  }
  // The bring-up takes the route from the database.
  if (!is_tunnel_up(mvpn)) return 1;
  // The route.
  mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DEFAULT, key.mdt_src, 0, key.mdt_grp, 0);
  mvpn_mrib_trigger_rpf_lookup(mvpn);
  return 1;
}

// A withdrawn entry. mvpn: the VRF of the message's group; the route is the stored entry's, whose group may differ.
static void withdraw_entry(mvpn_bgp_mdt_safi *entry, mvpn_cibtype *mvpn) {
  const mvpn_bgp_mdt_safi_key stored = entry->key;
  mvpn_bgp_delete_mdt_safi_entry(entry);
  if (!is_tunnel_up(mvpn)) return;
  mvpn_mdt_group_mode_t mode = MVPN_MDT_GROUP_MODE_NONE;
  const ip_addr_t route_source = mvpn_get_mdt_mroute_source_address(mvpn, stored.mdt_grp, stored.mdt_src, &mode);
  // A (*,G) route is shared by every PE; without enforcement the MRIB's sources hold the route, not BGP's.
  if (route_source != 0 && mvpn->enforce_bgp_mdt_safi == 1) {
    MVPN_SAFI_DEBUG("Deleting MDT route for MDT SAFI entry bgp-rd %s, mdt-src %s, mdt-grp %s\n", stored);
    mvpn_mdt_delete_route_resources(mvpn, route_source, stored.mdt_grp, 0);
  }
  mvpn_mrib_trigger_rpf_lookup(mvpn);
}

static int mvpn_bgp_update_mdt_safi(mvpn_bgp_mdt_safi_key key, int add, int eor) {
  mvpn_cibtype *mvpn = context_of_group(key.mdt_grp);
  MVPN_SAFI_DEBUG("Received an MDT SAFI message from BGP:RD %s, src = %s, grp = %s add = %d eor = %d", key, add, eor);
  if (add != 0) return advertise_entry(key, mvpn);
  if (mvpn_bgp_mdt_safi *entry = mvpn_bgp_get_mdt_safi_entry(&key)) withdraw_entry(entry, mvpn);
  return 1;
}

// Number of whole entries that a message really holds.
static uint32_t entries_in_payload(const void *payload, size_t payload_length) {
  if (payload_length < BGP_MDT_SAFI_COUNT_SIZE) {
    MVPN_DEBUG(pim_null_pcib, "MDT SAFI message of %zu bytes refused: it holds no count", payload_length);
    return 0;
  }
  const uint32_t count = load_host<uint16_t>(payload);
  const size_t held = (payload_length - BGP_MDT_SAFI_COUNT_SIZE) / BGP_MDT_SAFI_ENTRY_SIZE;
  if (count <= held) return count;
  MVPN_DEBUG(pim_null_pcib, "MDT SAFI message clipped: it counts %u entries, its %zu bytes hold %zu", count,
             payload_length, held);
  return static_cast<uint32_t>(held);
}

static mvpn_bgp_mdt_safi_key key_of_entry(const uint8_t *entry) {
  mvpn_bgp_mdt_safi_key key;
  key.mdt_src = load_host<uint32_t>(entry + BGP_MDT_SAFI_ENTRY_SOURCE);
  std::memcpy(key.bgp_rd, entry + BGP_MDT_SAFI_ENTRY_RD, sizeof key.bgp_rd);
  key.mdt_grp = load_host<uint32_t>(entry + BGP_MDT_SAFI_ENTRY_GROUP);
  return key;
}

// Has the memory fetched that so many entries, at most MVPN_SAFI_EXPECTED, will need in the database and in their VRFs.
static void expect_entries(const mvpn_bgp_mdt_safi_key *keys, uint32_t count) {
  const mvpn_cibtype *vrfs[MVPN_SAFI_EXPECTED] = {};
  for (uint32_t i = 0; i < count; i++) {
    vrfs[i] = context_of_group(keys[i].mdt_grp);
    if (vrfs[i] == nullptr) continue;
    __builtin_prefetch(&vrfs[i]->pcib);
    __builtin_prefetch(&vrfs[i]->mdt_route_tree);
    __builtin_prefetch(&vrfs[i]->asm_use_shared_tree);
  }
  mvpn_bgp_mdt_safi_expect(keys, count);
  for (uint32_t i = 0; i < count; i++) {
    if (vrfs[i] == nullptr) continue;
    __builtin_prefetch(vrfs[i]->mdt_route_tree);
    __builtin_prefetch(&vrfs[i]->pcib->context_id);
  }
}

// Processes neighbouring entries of a message, at most MVPN_SAFI_EXPECTED.
static void receive_entries(const uint8_t *entries, uint32_t count) {
  mvpn_bgp_mdt_safi_key keys[MVPN_SAFI_EXPECTED] = {};
  for (uint32_t i = 0; i < count; i++) keys[i] = key_of_entry(entries + size_t{i} * BGP_MDT_SAFI_ENTRY_SIZE);
  expect_entries(keys, count);
  for (uint32_t i = 0; i < count; i++) {
    const uint8_t *entry = entries + size_t{i} * BGP_MDT_SAFI_ENTRY_SIZE;
    mvpn_bgp_update_mdt_safi(keys[i], entry[BGP_MDT_SAFI_ENTRY_ADD], entry[BGP_MDT_SAFI_ENTRY_EOR]);
  }
}

int mvpn_bgp_mdt_safi_receive_remote_update(const void *payload, size_t payload_length) {
  if (payload == nullptr) return 1;
  const uint32_t count = entries_in_payload(payload, payload_length);
  const uint8_t *entries = static_cast<const uint8_t *>(payload) + BGP_MDT_SAFI_COUNT_SIZE;
  for (uint32_t first = 0; first < count; first += MVPN_SAFI_EXPECTED) {
    receive_entries(entries + size_t{first} * BGP_MDT_SAFI_ENTRY_SIZE, std::min(count - first, MVPN_SAFI_EXPECTED));
  }
  mvpn_mrib_wakeup_worker_thread();
  return 1;
}

int mvpn_request_remote_mdt_safis() {
  if (!mvpn_is_up()) return 0;
  MVPN_DEBUG(pim_null_pcib, "Requesting BGP for Remote MDT Safis");
  uint8_t request[MVPN_BGP_ONE_UPDATE_SIZE] = {};
  store_host<uint16_t>(request, 1);
  uint8_t *entry = request + BGP_MDT_SAFI_COUNT_SIZE;
  entry[BGP_MDT_SAFI_ENTRY_ADD] = 1;
  entry[BGP_MDT_SAFI_ENTRY_EOR] = 1;
  return mvpn_bgp_mdt_safi_send_local_update(request, sizeof request);
}

// ------------------------------------------------------------------------------------------------------- connection

static void mvpn_get_bgp_info() {
  mvpn_bgp_resolve_update_src();
  mvpn_for_each_context_by_id([](mvpn_cibtype *mvpn) {
    mvpn_bgp_get_rd(mvpn);
    return true;
  });
}

int mvpn_init_bgp() {
  if (pim_bgp_initialized != 0) return 1;
  if (bgp_api_init() == 0) {
    mvpn_report(msg_error_PIM_API_INIT, "BGP");
    return 0;
  }
  pim_bgp_initialized = 1;
  mvpn_get_bgp_info();
  return 1;
}

void mvpn_deinit_bgp() {
  if (pim_bgp_initialized == 0) return;
  bgp_api_close();
  pim_bgp_initialized = 0;
}

// ---------------------------------------------------------------------------------------------------- update source

void mvpn_bgp_resolve_update_src() {
  // Ask for a name that is not known.
  char *name = mvpn_bgp_updatesrc_ifname;
  if (name[0] == '\0') {
    bgp_mvpn_get_update_source(name, BGP_UPDATE_SOURCE_NAME_SIZE);
    if (name[0] != '\0') {
      mvpn_ha_store_bgp_update_src_if_to_pss(name, BGP_UPDATE_SOURCE_NAME_SIZE);
    } else {
      mvpn_ha_recover_bgp_update_src_if(name);
    }
  }
  // Without one, the ordinal stays.
  if (name[0] == '\0') {
    MVPN_DEBUG(pim_null_pcib, "BGP Update Source not configured\n");
    return;
  }
  // The interface may be created later.
  MVPN_DEBUG(pim_null_pcib, "Resolving BGP Update Source %s\n", name);
  mvpn_bgp_updatesrc_iod = im_get_if_by_name(name);
  if (mvpn_bgp_updatesrc_iod == 0) MVPN_DEBUG(pim_null_pcib, "BGP Update Source %s is not created\n", name);
}

// Copies text of a message: at most size bytes, at most what the payload holds, up to a NUL. out has size + 1 bytes
// and is zero-filled behind the text.
static void copy_name(char *out, uint32_t size, const void *payload, size_t payload_length) {
  const size_t length = strnlen(static_cast<const char *>(payload), std::min<size_t>(size, payload_length));
  std::memset(out, 0, size + 1);
  std::memcpy(out, payload, length);
}

void mvpn_bgp_process_update_src_notify(mts_message *msg) {
  const void *payload = mts_payload_get(msg);
  if (payload == nullptr) return;
  char name[BGP_UPDATE_SOURCE_NAME_SIZE + 1];
  copy_name(name, BGP_UPDATE_SOURCE_NAME_SIZE, payload, mts_payload_length_get(msg));
  MVPN_DEBUG(pim_null_pcib, "Received BGP Update-source notification, Interface %s\n", name);
  if (std::strcmp(name, mvpn_bgp_updatesrc_ifname) == 0) return;
  std::memcpy(mvpn_bgp_updatesrc_ifname, name, sizeof name);
  mvpn_bgp_resolve_update_src();
  if (mvpn_bgp_updatesrc_ifname[0] != '\0') {
    mvpn_ha_store_bgp_update_src_if_to_pss(mvpn_bgp_updatesrc_ifname, BGP_UPDATE_SOURCE_NAME_SIZE);
  } else {
    mvpn_ha_remove_bgp_update_src_if_from_pss();
  }
  mvpn_process_bgp_update_source_change(mvpn_bgp_updatesrc_iod);
}

// ---------------------------------------------------------------------------------------------- route distinguisher

namespace {

struct rd_notification {
  char vrf_name[BGP_RD_NOTIFY_VRF_NAME_SIZE + 1];  // NUL-terminated
  uint32_t valid;                                  // 0: the VRF has no RD any more
  uint8_t rd[ROUTE_DISTINGUISHER_SIZE];
};

}  // namespace

static bool decode_rd_notification(const void *payload, size_t payload_length, rd_notification *out) {
  if (payload_length < BGP_RD_NOTIFY_SIZE) {
    MVPN_DEBUG(pim_null_pcib, "BGP RD notification refused: %zu bytes, %d wanted", payload_length,
               static_cast<int>(BGP_RD_NOTIFY_SIZE));
    return false;
  }
  const auto *bytes = static_cast<const uint8_t *>(payload);
  copy_name(out->vrf_name, BGP_RD_NOTIFY_VRF_NAME_SIZE, bytes + BGP_RD_NOTIFY_VRF_NAME, BGP_RD_NOTIFY_VRF_NAME_SIZE);
  out->valid = load_host<uint32_t>(bytes + BGP_RD_NOTIFY_VALID);
  std::memcpy(out->rd, bytes + BGP_RD_NOTIFY_RD, sizeof out->rd);
  return true;
}

// The RD that the VRF has already: advertised once more.
static void process_same_rd(mvpn_cibtype *mvpn, const rd_notification &notification) {
  MVPN_DEBUG(pim_null_pcib, "VRF %s: RD %s already exists\n", notification.vrf_name,
             mvpn_bgp_print_rd(notification.rd));
  if (mvpn_is_default_mdt_ready(mvpn)) mvpn_bgp_mdt_safi_send_one_local_update(mvpn, 1);
  MVPN_DEBUG(pim_null_pcib, "Received dup RD notification for VRF %s.\n", notification.vrf_name);
}

// Replaces or clears the VRF's RD, with one message of the withdrawal and the advertisement.
static void process_new_rd(mvpn_cibtype *mvpn, const rd_notification &notification) {
  uint8_t buffer[BGP_MDT_SAFI_COUNT_SIZE + 2 * BGP_MDT_SAFI_ENTRY_SIZE] = {};
  // The withdrawal goes by the old RD.
  const bool was_ready = mvpn_is_default_mdt_ready(mvpn) != 0;
  if (was_ready) mvpn_bgp_mdt_safi_fill_local_update(buffer, mvpn, 0);
  if (notification.valid != 0) {
    // The set-up comes before the send.
    std::memcpy(mvpn->bgp_rd, notification.rd, sizeof mvpn->bgp_rd);
    mvpn->bgp_rd_set = 1;
    if (!mvpn_is_default_mdt_ready(mvpn)) return;
    mvpn_bgp_mdt_safi_fill_local_update(buffer, mvpn, 1);
    if (mvpn_is_cli_done != 0) mvpn_setup_default_mdt(mvpn);
  } else {
    // The tunnel stays as it is.
    std::memset(mvpn->bgp_rd, 0, sizeof mvpn->bgp_rd);
    mvpn->bgp_rd_set = 0;
    if (!was_ready) return;
  }
  // Send.
  const uint32_t count = load_host<uint16_t>(buffer);
  mvpn_bgp_mdt_safi_send_local_update(buffer, BGP_MDT_SAFI_COUNT_SIZE + count * BGP_MDT_SAFI_ENTRY_SIZE);
}

void mvpn_bgp_process_rd_notify(mts_message *msg) {
  const void *payload = mts_payload_get(msg);
  rd_notification notification;
  if (payload == nullptr || !decode_rd_notification(payload, mts_payload_length_get(msg), &notification)) return;
  MVPN_DEBUG(pim_null_pcib, "Received BGP RD notification for VRF %s, RD %s valid %u\n", notification.vrf_name,
             mvpn_bgp_print_rd(notification.rd), notification.valid);
  // A longer name cannot be a VRF's, and no service is to see it.
  mvpn_cibtype *mvpn =
      std::strlen(notification.vrf_name) <= VRF_NAME_MAX ? mvpn_get_context(notification.vrf_name) : nullptr;
  if (mvpn == nullptr) {
    MVPN_DEBUG(pim_null_pcib, "MVPN CIB for VRF %s doesn't exist\n", notification.vrf_name);
    return;
  }
  if (notification.valid != 0 && std::memcmp(notification.rd, mvpn->bgp_rd, sizeof mvpn->bgp_rd) == 0) {
    process_same_rd(mvpn, notification);
  } else {
    process_new_rd(mvpn, notification);
  }
}

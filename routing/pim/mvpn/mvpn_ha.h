// High availability: the persisted encapsulation choices and the recovery period after a restart.
#ifndef MVPN_HA_H
#define MVPN_HA_H

#include <vector>

#include "routing/pim/mvpn/mvpn.h"

// Types of persisted records: byte 0 of their keys.
enum mvpn_pss_type_t : uint8_t {
  MVPN_PSS_ENCAP_INFO = 16,
  MVPN_PSS_MDT_SAFI = 17,
  MVPN_PSS_BGP_UPDATE_SRC_IF = 18,
};

// Offsets in a 20-byte key of type MVPN_PSS_ENCAP_INFO; numbers in network byte order.
enum mvpn_pss_encap_key_t : uint32_t {
  MVPN_PSS_KEY_TYPE = 0,
  MVPN_PSS_KEY_CONTEXT_ID = 4,
  MVPN_PSS_KEY_SOURCE = 8,
  MVPN_PSS_KEY_GROUP = 12,
  MVPN_PSS_KEY_SOURCE_LEN = 16,
  MVPN_PSS_KEY_GROUP_LEN = 17,
  MVPN_PSS_PREFIX_TYPE = 4,  // prefix bytes that select every record of the type
  MVPN_PSS_PREFIX_VRF = 8,   // prefix bytes that select one VRF's records
};

extern active_timer *mvpn_ha_recovery_timer;  // non-null exactly while the recovery period is open

// The key of a choice; a null argument leaves its part zero.
void mvpn_ha_make_encap_info_pss_key(const pim_cibtype *pcib, const mvpn_mdt_route_addrs *addrs, uint8_t *key);
// Whether a key is one of the VRF's encapsulation records; the customer route in it.
bool mvpn_ha_is_encap_key_of(const uint8_t *key, vrf_context_id_t context_id);
mvpn_mdt_route_addrs mvpn_ha_addrs_of_encap_key(const uint8_t *key);

// Decodes a stored value: 0 or the TLV utility's error code.
int mvpn_ha_get_encap_info_by_pss_value(const uint8_t *tlv, uint32_t length, mvpn_ha_encap_info_t *record);

// Encapsulation choice of a flow: store (1 when stored), fetch (1 when there is one, only while the recovery period is
// open; *choice, when given, receives it), delete: the flow's, the VRF's (addrs null), every VRF's (both null); delete
// returns 1.
int mvpn_ha_add_encap_info(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *addrs, const mvpn_ha_encap_info_t &choice);
int mvpn_ha_get_encap_info(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *addrs, mvpn_ha_encap_info_t *choice);
int mvpn_ha_delete_encap_info(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *addrs);

// Hooks at the points where MDT SAFI entries and BGP's update source change. Both are learnt from BGP again after a
// restart, so they store nothing.
void mvpn_ha_store_mdt_safi_to_pss(const mvpn_bgp_mdt_safi *entry);
void mvpn_ha_remove_mdt_safi_from_pss(const mvpn_bgp_mdt_safi *entry);
int mvpn_ha_recover_mdt_safi_from_pss(mvpn_cibtype *mvpn);
void mvpn_ha_store_bgp_update_src_if_to_pss(const char *name, uint32_t size);
void mvpn_ha_remove_bgp_update_src_if_from_pss();
int mvpn_ha_recover_bgp_update_src_if(char *name);

// Gathers the data MDTs that the store holds for a VRF. False: it holds nothing at or after the VRF's prefix. Throws
// std::bad_alloc. Everything is read before it returns: a yield could move the store's position.
bool mvpn_ha_stored_data_mdts(const pim_cibtype *pcib, std::vector<mvpn_data_mdt_join> *out);

// Opens the recovery period when there is something to take up. Its timer closes it.
int mvpn_ha_recovery_start();

#endif  // MVPN_HA_H

// The stored form of a choice, and the end of the recovery period, for tests.
#ifndef MVPN_HA_INTERNAL_H
#define MVPN_HA_INTERNAL_H

#include "platform/tlvu.h"
#include "routing/pim/mvpn/mvpn_ha.h"

// Keys of the other types. A null argument leaves its part of the key zero.
int mvpn_ha_make_mdt_safi_pss_key(const mvpn_bgp_mdt_safi *entry, uint8_t *key);
int mvpn_ha_make_bgp_update_src_if_pss_key(uint8_t *key);

// Encoded form: the TLV utility with this module's table; 0 or the utility's error code.
int mvpn_ha_make_encap_info_pss_value(const mvpn_ha_encap_info_t &choice, uint8_t *buffer, uint32_t size);
int mvpn_ha_encap_info_to_struct(const uint8_t *tlv, uint32_t length, mvpn_ha_encap_info_t *record);
uint32_t mvpn_ha_encap_info_get_tlv_sz(const mvpn_ha_encap_info_t *record);
int mvpn_ha_encap_info_get_struct_sz(const uint8_t *tlv, uint32_t length);  // bytes, -1 after an error
int mvpn_ha_encap_info_field_itr_init(const uint8_t *tlv, uint32_t length, tlvu_field_iterator *iterator);
int mvpn_ha_encap_info_field_get_next(tlvu_field_iterator *iterator, uint32_t *id, const uint8_t **value,
                                      uint32_t *size);
int mvpn_ha_encap_info_get_field(const uint8_t *tlv, uint32_t length, uint32_t id, const uint8_t **value,
                                 uint32_t *size);

// Closes the recovery period and sweeps out what nobody has claimed. Yields.
void mvpn_ha_recovery_stop();

#endif  // MVPN_HA_INTERNAL_H

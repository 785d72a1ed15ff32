// The MDT SAFI database and the local advertisement.
#ifndef MVPN_MDT_SAFI_H
#define MVPN_MDT_SAFI_H

#include "routing/pim/mvpn/mvpn.h"

constexpr uint32_t MVPN_BGP_ONE_UPDATE_SIZE = BGP_MDT_SAFI_COUNT_SIZE + BGP_MDT_SAFI_ENTRY_SIZE;

// A module-level message whose format shows an entry's key first: RD, source, group.
#define MVPN_SAFI_DEBUG(format, key, ...)                                                          \
  MVPN_DEBUG(pim_null_pcib, format, mvpn_bgp_print_rd((key).bgp_rd), ip_print_addr((key).mdt_src), \
             ip_print_addr((key).mdt_grp) __VA_OPT__(, ) __VA_ARGS__)

extern ravl_tree mvpn_bgp_mdt_safi_db;  // by the first 12 bytes of the key

// Database. init_db makes it empty: entries that a stop left in place are dropped. get ignores the key's group.
// delete_all empties the database. Nothing yields.
void mvpn_bgp_mdt_safi_init_db();
mvpn_bgp_mdt_safi *mvpn_bgp_get_mdt_safi_entry(const mvpn_bgp_mdt_safi_key *key);
int mvpn_bgp_delete_mdt_safi_entry(mvpn_bgp_mdt_safi *entry);
void mvpn_bgp_mdt_safi_delete_all();

// Entry of a group that follows the one with this key in tree order, whether or not that one still exists; the group's
// first for a null key. Null at the end. Costs the same however many entries other groups have.
mvpn_bgp_mdt_safi *mvpn_bgp_mdt_safi_of_group_after(ip_addr_t group, const mvpn_bgp_mdt_safi_key *key);

// Look-ups of so many keys, at most MVPN_SAFI_EXPECTED, follow: has the memory fetched that they go through in their
// groups. Neighbours in a message are mostly of different groups, each of which is cold. Changes nothing.
constexpr uint32_t MVPN_SAFI_EXPECTED = 16;  // what they go through fits into the processor's first cache
void mvpn_bgp_mdt_safi_expect(const mvpn_bgp_mdt_safi_key *keys, uint32_t count);

// What an advertised key told the database.
enum class mvpn_safi_lesson {
  known,    // an entry of its source and RD is there already, and keeps its group
  renamed,  // the PE has another RD for the same group: the former entry gave way
  added,    // it is new
  failed,   // it is new, or renamed, and memory ran out
};
mvpn_safi_lesson mvpn_bgp_mdt_safi_learn(const mvpn_bgp_mdt_safi_key &key);

// Asks BGP for the VRF's route distinguisher, unless it is known.
void mvpn_bgp_get_rd(mvpn_cibtype *mvpn);

// Local advertisement. fill: appends to a buffer of counted entries, which has room, and records or removes the local
// entry; 0 when the buffer is null. A withdrawal names what was advertised; without a local entry it appends nothing.
int mvpn_bgp_mdt_safi_fill_local_update(uint8_t *buffer, mvpn_cibtype *mvpn, int add);
int mvpn_bgp_mdt_safi_send_local_update(const uint8_t *buffer, uint32_t size);
int mvpn_bgp_mdt_safi_send_one_local_update(mvpn_cibtype *mvpn, int add);
void mvpn_bgp_process_local_request(mts_message *msg);

#endif  // MVPN_MDT_SAFI_H

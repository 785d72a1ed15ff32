// Data MDTs: ranges and group pool, the Join datagram and its receiver, switchover and switchback on the sending side,
// announcements on the receiving side and their ageing.
#ifndef MVPN_DATAMDT_H
#define MVPN_DATAMDT_H

#include "routing/pim/mvpn/mvpn.h"

constexpr uint16_t MVPN_DATA_MDT_UDP_PORT = 3232;
constexpr ip_addr_t MVPN_ALL_PIM_ROUTERS = 0xE000000D;  // 224.0.0.13
constexpr uint32_t MVPN_RECV_JOIN_PACKET_SIZE = 65535;
constexpr uint32_t MVPN_RECV_KEY_BYTES = 12;  // customer group, customer source, provider source; network byte order

extern int mvpn_udp_sid;           // Join socket; -1 = none
extern int mvpn_udp_up;            // 1: bound
extern pthread_t mvpn_udp_thread;  // 0 = not running
extern uint8_t mvpn_recv_data_mdt_join_pkt[MVPN_RECV_JOIN_PACKET_SIZE];
extern pt_attr *mvpn_data_mdt_info_pt_attr;  // of every VRF's receive cache
extern active_timer *mvpn_age_timer;
extern pthread_t mvpn_age_thread;   // 0 = not running
extern zeph_timestamp mvpn_age_ts;  // start of the running pass; 0 = none runs

// Set-up and tear-down of the subsystem, of its socket.
int mvpn_init_data_mdt();
void mvpn_deinit_data_mdt();
int mvpn_init_udp();
void mvpn_deinit_udp();

// Join packet of a VRF. fill: addresses of one announcement; a full packet is sent first, which yields.
void mvpn_mdt_join_init_packet(mvpn_cibtype *mvpn);
// Gives the VRF's packet back; nothing when it has none.
void mvpn_free_join_packet(mvpn_cibtype *mvpn);
void mvpn_fill_one_data_mdt_join(mvpn_cibtype *mvpn, const mvpn_data_mdt_join &join);
void *mvpn_udp_main(void *argument);
// One received datagram of n bytes in mvpn_recv_data_mdt_join_pkt, from interface iod.
void mvpn_process_data_mdt_join(uint16_t iod, size_t n);

// Ranges and the group pool.
int mvpn_does_data_mdt_policy_match(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, const rpm_binding *policy);
int mvpn_map_data_mdt_config(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute);
void mvpn_process_data_mdt_config_change(mvpn_cibtype *mvpn);
// Clears every use of a range that is about to be freed, null: of all ranges; finds what the pass above could not reach.
void mvpn_forget_data_mdt_range(mvpn_cibtype *mvpn, mvpn_data_mdt_range *range);
// Slot of a group in a range's pool; MVPN_DATA_MDT_POOL_GROUPS when the range cannot hand it out.
uint32_t mvpn_data_mdt_pool_slot(const mvpn_data_mdt_range *range, ip_addr_t group);

// Send-side record of a customer route.
int mvpn_create_data_mdt_send_join_info(mvpn_cibtype *mvpn, pim_route *croute);
void mvpn_init_data_mdt_send_join_info(mvpn_cibtype *mvpn, pim_route *croute, mvpn_data_mdt_send_join_info *record);
void mvpn_destroy_data_mdt_send_join_info(pim_route *croute);
void mvpn_destroy_all_data_mdt_send_join_info(mvpn_cibtype *mvpn);

// An address with padding 0, whatever the caller's holds: the 12-byte key of the switchover cache.
mvpn_mdt_route_addrs mvpn_unpadded_addrs(const mvpn_mdt_route_addrs &addrs);

// Switchover cache of a VRF.
mvpn_switchover_entry *mvpn_add_entry_to_switchover_cache(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key,
                                                          pim_route *croute);
mvpn_switchover_entry *mvpn_get_entry_from_switchover_cache(mvpn_cibtype *mvpn, const pim_route *croute);
void mvpn_delete_entry_from_switchover_cache(mvpn_cibtype *mvpn, mvpn_switchover_entry *entry);
void mvpn_delete_all_entries_from_switchover_cache(mvpn_cibtype *mvpn);

// Switchover and switchback.
void mvpn_start_switchover_to_data_mdt(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute);
void mvpn_finish_switchover_to_data_mdt(mvpn_cibtype *mvpn, mvpn_switchover_entry *entry);
void mvpn_start_switchback_from_data_mdt(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute);
void mvpn_finish_switchback_from_data_mdt(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute);

// Local source.
void mvpn_data_mdt_map_receiver_to_local_source(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute);
void mvpn_data_mdt_unmap_receiver_from_local_source(mvpn_cibtype *mvpn, pim_route *croute,
                                                    const mvpn_mdt_route_addrs *key);

// Receive cache.
void mvpn_build_data_mdt_recv_join_info_pt_key(ip_addr_t c_src, ip_addr_t c_grp, ip_addr_t p_src,
                                               uint8_t key[MVPN_RECV_KEY_BYTES]);
// p_src: the announcing PE.
void mvpn_add_data_mdt_recv_join_info(mvpn_cibtype *mvpn, const mvpn_data_mdt_join &join, ip_addr_t p_src);
mvpn_data_mdt_recv_join_info *mvpn_get_data_mdt_recv_join_info(mvpn_cibtype *mvpn, ip_addr_t c_src, ip_addr_t c_grp,
                                                               ip_addr_t p_src);
mvpn_data_mdt_recv_join_info *mvpn_create_data_mdt_recv_join_info(mvpn_cibtype *mvpn, const mvpn_data_mdt_join &join,
                                                                  ip_addr_t p_src);
void mvpn_destroy_data_mdt_recv_join_info(mvpn_cibtype *mvpn, mvpn_data_mdt_recv_join_info *record);
void mvpn_destroy_data_mdt_recv_cache(mvpn_cibtype *mvpn, ip_addr_t p_src);  // 0: every PE. Yields.
void mvpn_update_data_mdt_recv_join_stats_info(mvpn_cibtype *mvpn, int is_new, mvpn_data_mdt_recv_join_info *record);

// Mapping between announcements and customer routes.
int mvpn_data_mdt_map_remote_source_to_receiver(mvpn_cibtype *mvpn, mvpn_data_mdt_recv_join_info *record);
void mvpn_data_mdt_unmap_remote_source_from_receiver(mvpn_cibtype *mvpn, mvpn_data_mdt_recv_join_info *record);
int mvpn_data_mdt_map_receiver_to_remote_source(mvpn_cibtype *mvpn, pim_route *croute, const mvpn_mdt_route_addrs *key);
void mvpn_data_mdt_unmap_receiver_from_remote_source(mvpn_cibtype *mvpn, pim_route *croute,
                                                     const mvpn_mdt_route_addrs *key);
int mvpn_should_install_remote_data_mdt(const pim_route *croute, const mvpn_cibtype *mvpn);
int mvpn_install_remote_data_mdt(mvpn_cibtype *mvpn, pim_route *croute, mvpn_data_mdt_recv_join_info *record);
void mvpn_uninstall_remote_data_mdt(mvpn_cibtype *mvpn, mvpn_data_mdt_recv_join_info *record, const pim_route *croute,
                                    const mvpn_mdt_route_addrs *key);
int mvpn_match_remote_data_mdt(const mvpn_mdt_route_addrs *key, const mvpn_data_mdt_recv_join_info *record);
int mvpn_mdt_join_refers_croute(const mvpn_data_mdt_recv_join_info *record, const pim_route *croute);
uint32_t mvpn_get_recv_join_info_mask_len(int is_star_g);  // bits of the cache prefix
// Whether any announcement is installed for a customer route.
bool mvpn_is_announcement_installed_for(mvpn_cibtype *mvpn, const pim_route *croute, const mvpn_mdt_route_addrs *key);
void mvpn_mdt_route_cleanup_recv_join_info(mvpn_mdt_route *route);

// Ageing.
void mvpn_process_age_timer();
void *mvpn_age_routine(void *argument);
void mvpn_age_route_by_vpn(mvpn_cibtype *mvpn);
// Ends a running pass and waits for its end.
void mvpn_stop_ageing();

#endif  // MVPN_DATAMDT_H

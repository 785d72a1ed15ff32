// The Join socket and what arrives through it, for tests.
#ifndef MVPN_DATAMDT_JOIN_INTERNAL_H
#define MVPN_DATAMDT_JOIN_INTERNAL_H

#include "routing/pim/mvpn/mvpn_datamdt_join.h"

constexpr uint16_t MVPN_DATA_MDT_UDP_PORT = 3232;
constexpr ip_addr_t MVPN_ALL_PIM_ROUTERS = 0xE000000D;  // 224.0.0.13
constexpr uint32_t MVPN_RECV_JOIN_PACKET_SIZE = 65535;

extern int mvpn_udp_sid;           // Join socket; -1 = none
extern pthread_t mvpn_udp_thread;  // 0 = not running
extern uint8_t mvpn_recv_data_mdt_join_pkt[MVPN_RECV_JOIN_PACKET_SIZE];

int mvpn_init_udp();
// One received datagram of n bytes in mvpn_recv_data_mdt_join_pkt, from interface iod.
void mvpn_process_data_mdt_join(uint16_t iod, size_t n);

#endif  // MVPN_DATAMDT_JOIN_INTERNAL_H

// What tests need of the services beyond their driver headers: records of what each was told, faults, and events that
// no host can cause.
#ifndef REFERENCE_TESTING_SERVICES_H
#define REFERENCE_TESTING_SERVICES_H

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/mrib.h"
#include "platform/types.h"

namespace ref {

struct CorePacket;

// ----------------------------------------------------------------------------------------------------------- VRFs, PIM

// What the VRF manager says of a VRF (L3VM_STATE_...), whether PIM lets its context be used. A name that nobody has:
// nothing.
void set_vrf_state(std::string_view name, uint32_t l3vm_state);
void set_pcib_usable(std::string_view name, bool usable);

// The designated forwarder of a Bidir rendezvous point on an interface; 0: there is none. Nobody holds elections here.
void set_df_winner(ip_addr_t rp, im_iod_t iif, ip_addr_t winner);

// ------------------------------------------------------------------------------------------------------------ tunnels

struct OimRequest {
  std::string operation;    // "create", "modify", "delete", "bringup", "bringdown"
  if_index_t if_index = 0;  // as the request names it
  im_iod_t iod = 0;         // as the request names it; 0: it names none
  std::vector<std::pair<uint16_t, std::vector<uint8_t>>> params;  // type, value in network byte order
};
const std::vector<OimRequest> &oim_requests();  // the latest 1000
void clear_oim_requests();
// A tunnel that outlived the module's last run.
if_index_t create_orphan_tunnel(uint32_t table_id);
// Keeps requests without answering them until switched on again.
void set_oim_answers(bool on);

// --------------------------------------------------------------------------------------------------------------- MRIB

struct MribUpdate {
  uint32_t xid;                  // transaction id
  uint32_t count;                // of entries
  std::vector<uint8_t> entries;  // 92 * count bytes
};
const std::vector<MribUpdate> &mrib_updates();  // the latest 1000
void clear_mrib_updates();
uint32_t mrib_last_acked_xid();  // 0: none was acknowledged since reset()
// Keeps acknowledgements back until switched on again; refuses the next n updates, the next n encapsulation records.
void set_mrib_acks(bool on);
void mrib_refuse_updates(uint32_t n);
void mrib_refuse_encaps(uint32_t n);
// A route that somebody other than the module holds: customer routes of the VRFs, (S,G) state of core groups. Joins
// and deletions notify the module through the main loop.
void mrib_add_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs, im_iod_t mti_iod);
// False: nobody but the module holds it.
bool mrib_delete_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs);
void mrib_notify_join(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs);
void mrib_notify_delete(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs);
void mrib_notify_clear(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs, bool sg_only, bool star_g_only);
void mrib_request_repopulate(vrf_context_id_t context_id, const mvpn_mdt_route_addrs *filter, uint32_t route_type);
void set_mrib_initializing(vrf_context_id_t context_id, bool initializing);

// ---------------------------------------------------------------------------------------------------------- BGP, store

void bgp_request_local();  // asks the module for all local entries
// Makes a connector attribute that carries these; valid until reset().
void *bgp_make_connector_attribute(const uint8_t *rd, ip_addr_t source);

void pss_use_memory();  // as after reset()

// ------------------------------------------------------------------------------------------------------------- packets

const std::vector<CorePacket> &sent_core_packets();  // the latest 1000
void clear_sent_core_packets();
// A datagram arrives on an interface, whatever it is.
void inject_datagram(im_iod_t iod, const void *datagram, size_t size);
// Options set on the socket that was opened last, in order.
struct SocketOption {
  int level = 0;               // QUILLON_... of platform/sockets.h
  int option = 0;              // of the level
  std::vector<uint8_t> value;  // as it was given
};
std::vector<SocketOption> socket_options();
// The next n calls fail: "m_get_prio", "m_copyback", "recvfrom".
void fail_packet_calls(std::string_view operation, uint32_t n);

}  // namespace ref

#endif  // REFERENCE_TESTING_SERVICES_H

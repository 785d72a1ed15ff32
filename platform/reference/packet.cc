// Packet output and the core: buffers, what leaves through a tunnel, what arrives from other PEs.
//
// A datagram that leaves a VRF's tunnel gets the header that RFC 791 wants (total length in network byte order,
// checksum over the header alone) and crosses the core inside the tunnel's provider group, by whatever carrier is in
// use. What arrives goes to the VRF whose tunnel has that group as destination; a PE does not hear itself.
#include "platform/packet.h"

#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "platform/im.h"
#include "platform/ip.h"
#include "platform/reference/forwarding_plane.h"
#include "platform/reference/im.h"
#include "platform/reference/oim.h"
#include "platform/reference/packet.h"
#include "platform/reference/services.h"
#include "platform/reference/testing/services.h"
#include "platform/reference/wire.h"

struct mbuf {
  std::vector<uint8_t> data;
};

struct ip_client {};

namespace ref {
namespace {

enum Ipv4Offset { ip_version_ihl = 0, ip_total_length = 2, ip_protocol = 9, ip_header_checksum = 10 };
constexpr size_t ip_header_min = 20;
constexpr size_t datagram_max = 0xFFFF;
constexpr uint8_t protocol_udp = 17;
constexpr size_t udp_header_size = 8;
constexpr size_t udp_destination_port = 2;

struct State {
  std::unique_ptr<Carrier> carrier;
  std::vector<CorePacket> sent;
  uint32_t failing_buffers = 0, failing_copies = 0;
};
State state;
ip_client client;

bool take_failure(uint32_t &left) { return left > 0 && left-- > 0; }

// Bytes of the header; 0 when the datagram is too short for the one that it claims.
size_t header_size(const std::vector<uint8_t> &datagram) {
  if (datagram.size() < ip_header_min || datagram[ip_version_ihl] >> 4 != 4) return 0;
  const size_t size = size_t{datagram[ip_version_ihl] & 0x0Fu} * 4;
  return size >= ip_header_min && size <= datagram.size() ? size : 0;
}

bool finish_header(std::vector<uint8_t> &datagram) {
  const size_t size = header_size(datagram);
  if (size == 0) return false;
  wire::store_be16(&datagram[ip_total_length], static_cast<uint16_t>(datagram.size()));
  wire::store_host(&datagram[ip_header_checksum], uint16_t{0});
  wire::store_host(&datagram[ip_header_checksum], ip_checksum(datagram.data(), static_cast<uint32_t>(size)));
  return true;
}

bool is_for_socket(const std::vector<uint8_t> &datagram) {
  const size_t size = header_size(datagram);
  return size != 0 && datagram[ip_protocol] == protocol_udp && datagram.size() >= size + udp_header_size &&
         socket_listens(wire::load_be16(&datagram[size + udp_destination_port]));
}

// Carriers make system calls; output is no cancellation point.
class WithoutCancellation {
 public:
  WithoutCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
  ~WithoutCancellation() { pthread_setcancelstate(former_, nullptr); }
  WithoutCancellation(const WithoutCancellation &) = delete;
  WithoutCancellation &operator=(const WithoutCancellation &) = delete;

 private:
  int former_ = 0;
};

// Sends out of a tunnel of the VRF. 0, or an error number.
int send_through_tunnel(vrf_context_id_t context_id, std::vector<uint8_t> datagram, const Interface &interface) {
  const Tunnel *tunnel = find_tunnel(interface.if_index);
  if (tunnel == nullptr || interface.context_id != context_id) return ENODEV;
  if (!tunnel->up) return ENETDOWN;
  if (!finish_header(datagram)) return EINVAL;
  const CorePacket packet{tunnel->source, tunnel->destination, std::move(datagram)};
  if (records_are_kept()) remember(state.sent, packet);
  const WithoutCancellation guard;
  if (ForwardingPlane *plane = forwarding_plane()) return plane->send(*tunnel, packet.datagram) ? 0 : ENETDOWN;
  if (state.carrier != nullptr) state.carrier->send(packet);
  return 0;
}

}  // namespace

void packet_reset() {
  state = State{};
  pim_ip_client = &client;
}

void use_carrier(std::unique_ptr<Carrier> carrier) {
  state.carrier = std::move(carrier);
  if (state.carrier != nullptr)
    state.carrier->set_receiver([](const CorePacket &packet) { receive_core_packet(packet); });
}

const std::vector<CorePacket> &sent_core_packets() { return state.sent; }
void clear_sent_core_packets() { state.sent.clear(); }

void receive_core_packet(const CorePacket &packet) {
  const im_iod_t iod = oim_tunnel_to(packet.provider_group);
  const Interface *interface = find_interface(iod);
  if (interface == nullptr || find_tunnel(interface->if_index)->source == packet.provider_source) return;
  if (is_for_socket(packet.datagram)) socket_deliver(iod, packet.datagram.data(), packet.datagram.size());
}

void receive_tunnel_datagram(std::string_view vrf_name, std::span<const uint8_t> datagram) {
  const im_iod_t iod = oim_working_tunnel(vrf_name);
  if (iod != 0 && is_for_socket({datagram.begin(), datagram.end()}))
    socket_deliver(iod, datagram.data(), datagram.size());
}

void inject_datagram(im_iod_t iod, const void *datagram, size_t size) {
  socket_deliver(iod, static_cast<const uint8_t *>(datagram), size);
}

void fail_packet_calls(std::string_view operation, uint32_t n) {
  if (operation == "m_get_prio") state.failing_buffers = n;
  if (operation == "m_copyback") state.failing_copies = n;
  if (operation == "recvfrom") socket_fail_receives(n);
}

}  // namespace ref

extern "C" {

ip_client *pim_ip_client = nullptr;

mbuf *m_get_prio(uint32_t, uint32_t, uint32_t) {
  return ref::take_failure(ref::state.failing_buffers) ? nullptr : new (std::nothrow) mbuf;
}

int m_copyback(mbuf *buffer, uint32_t offset, uint32_t length, const void *data) {
  if (ref::take_failure(ref::state.failing_copies)) return ENOBUFS;
  const size_t end = size_t{offset} + length;
  if (end > ref::datagram_max) return EMSGSIZE;
  if (end > buffer->data.size()) buffer->data.resize(end);
  if (length > 0) std::memcpy(buffer->data.data() + offset, data, length);
  return 0;
}

void m_freem(mbuf *buffer) { delete buffer; }

int mfwd_client_ip_output(vrf_context_id_t context_id, mbuf *buffer, uint32_t, im_iod_t iod, uint32_t, mts_queue *) {
  const std::unique_ptr<mbuf> taken(buffer);
  const ref::Interface *interface = ref::find_interface(iod);
  if (interface == nullptr || !interface->mvpn_tunnel) return ENODEV;
  return ref::send_through_tunnel(context_id, std::move(taken->data), *interface);
}

// Nothing is attached to ordinary interfaces: a datagram that may leave is gone.
int ip_cl_output(vrf_context_id_t context_id, mbuf *buffer, uint32_t, im_iod_t iod, uint32_t, ip_client *) {
  const std::unique_ptr<mbuf> taken(buffer);
  const ref::Interface *interface = ref::find_interface(iod);
  if (interface == nullptr || interface->mvpn_tunnel || interface->context_id != context_id) return ENODEV;
  if (!interface->up) return ENETDOWN;
  return ref::finish_header(taken->data) ? 0 : EINVAL;
}

}  // extern "C"

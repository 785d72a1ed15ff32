// Data-MDT Joins on the wire: the set-up and tear-down of the data-MDT subsystem, the packet in which a VRF gathers its
// announcements, and the thread that receives those of all VRFs.
//
// A Join is an IPv4/UDP datagram (RFC 791, RFC 768) from the MDT source to all PIM routers, port 3232, TTL 1, with
// 16-byte entries. A VRF's packet is allocated with its first entry, filled up to the tunnel's MTU, sent when it is
// full or when somebody asks, and then reused. The header is built once per packet. Total length stays in host byte
// order and the checksum covers everything: the host's output routine expects that form and writes the final one.
//
// Sending yields. Before it does, the packet is reset to its bare header, so that entries appended during the yield are
// kept; afterwards nothing is known of the VRF but its name.
//
// Nothing that arrives is trusted: every length is compared with the bytes received before it is used, and an entry can
// only change the receive cache of the VRF whose tunnel it came through.
#include "routing/pim/mvpn/mvpn_datamdt_join_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/im.h"
#include "platform/ip.h"
#include "platform/packet.h"
#include "platform/sockets.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_datamdt.h"
#include "routing/pim/mvpn/mvpn_datamdt_age.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_wire.h"

int mvpn_udp_sid = -1;
static int mvpn_udp_up = 0;  // 1: bound
pthread_t mvpn_udp_thread = 0;
uint8_t mvpn_recv_data_mdt_join_pkt[MVPN_RECV_JOIN_PACKET_SIZE];

namespace {

// Offsets in a datagram; the packet buffer has its length, in host byte order, before the datagram.
constexpr uint32_t kLengthPrefix = 2;
enum Offset : uint32_t {
  kVersion = 0,
  kTypeOfService = 1,
  kTotalLength = 2,
  kTimeToLive = 8,
  kProtocol = 9,
  kChecksum = 10,
  kSource = 12,
  kDestination = 16,
  kSourcePort = 20,
  kDestinationPort = 22,
  kUdpLength = 24,
  kEntries = 28,
};
enum EntryOffset : uint32_t { kType = 0, kLength = 1, kCSource = 4, kCGroup = 8, kPGroup = 12 };
constexpr uint32_t kEntrySize = 16;

constexpr uint8_t kVersion4Header20 = 0x45;
constexpr uint8_t kPrecedence6 = 0xC0;
constexpr uint8_t kUdp = 17;
constexpr uint8_t kJoinEntryType = 1;
constexpr uint32_t kIpHeaderMin = 20;
constexpr uint32_t kUdpHeader = 8;
constexpr uint32_t kSmallestPacket = uint32_t{kEntries} + kEntrySize;  // a limit below this holds no entry
constexpr uint32_t kLargestPacket = 65535;
constexpr uint16_t kAnyContext = 0xFFFF;

// ------------------------------------------------------------------------------------------------ the VRF's packet

uint8_t *datagram_of(const mvpn_cibtype *mvpn) { return mvpn->data_mdt_join_pkt + kLengthPrefix; }

uint32_t length_of(const mvpn_cibtype *mvpn) { return load_host<uint16_t>(mvpn->data_mdt_join_pkt); }

void set_length(mvpn_cibtype *mvpn, uint32_t length) {
  store_host(mvpn->data_mdt_join_pkt, static_cast<uint16_t>(length));
}

// Bytes that a datagram of the VRF may have; 0 when there is no interface to send it through.
uint32_t packet_limit(const mvpn_cibtype *mvpn) {
  const pim_iftype *interface = pim_get_iftype(mvpn->mti_iod);
  if (interface == nullptr) return 0;
  return std::min({pim_mtu, interface->mtu, kLargestPacket});
}

void mvpn_mdt_join_init_packet(mvpn_cibtype *mvpn) {
  uint8_t *datagram = datagram_of(mvpn);
  std::memset(datagram, 0, kEntries);
  datagram[kVersion] = kVersion4Header20;
  datagram[kTypeOfService] = kPrecedence6;
  store_host(datagram + kTotalLength, static_cast<uint16_t>(kEntries));
  datagram[kTimeToLive] = 1;
  datagram[kProtocol] = kUdp;
  store_be32(datagram + kSource, mvpn->mdt_source_addr);
  store_be32(datagram + kDestination, MVPN_ALL_PIM_ROUTERS);
  store_be16(datagram + kSourcePort, MVPN_DATA_MDT_UDP_PORT);
  store_be16(datagram + kDestinationPort, MVPN_DATA_MDT_UDP_PORT);
  store_be16(datagram + kUdpLength, kUdpHeader);
  set_length(mvpn, kEntries);
}

// Sees to a packet that can hold what the MTU of now allows; an empty one that was made for a smaller MTU is made anew.
// The result is what the packet can hold; 0: there is none, the MTU holds no entry or memory ran out.
uint32_t prepare_packet(mvpn_cibtype *mvpn) {
  const uint32_t limit = packet_limit(mvpn);
  if (limit < kSmallestPacket) return 0;
  if (mvpn->data_mdt_join_pkt != nullptr && mvpn->data_mdt_join_capacity < limit + kLengthPrefix &&
      length_of(mvpn) == kEntries)
    mvpn_free_join_packet(mvpn);
  if (mvpn->data_mdt_join_pkt != nullptr) return std::min(limit, mvpn->data_mdt_join_capacity - kLengthPrefix);
  const uint32_t size = limit + kLengthPrefix;
  // The place that the warning names is fixed, since operators search for it: it does not follow the source.
  void *buffer = mvpn_tracked_alloc(MTRACK_MVPN_JOIN_PACKET, size, size, "routing/pim/mvpn/mvpn_datamdt", 476,
                                    "mvpn_fill_one_data_mdt_join");
  if (buffer == nullptr) {
    mvpn_report(msg_error_PIM_MALLOC, limit, "Couldnt allocate memory for MDT Join Pkt.");
    return 0;
  }
  mvpn->data_mdt_join_pkt = static_cast<uint8_t *>(buffer);
  mvpn->data_mdt_join_capacity = size;
  mvpn_mdt_join_init_packet(mvpn);
  return limit;
}

// The one place that writes an entry, and the one that reads one; read: false for what is no Join entry.
void write_entry(const mvpn_data_mdt_join &join, uint8_t *entry) {
  std::memset(entry, 0, kEntrySize);
  entry[kType] = kJoinEntryType;
  store_be16(entry + kLength, kEntrySize);
  store_be32(entry + kCSource, join.c_src);
  store_be32(entry + kCGroup, join.c_grp);
  store_be32(entry + kPGroup, join.p_grp);
}

bool read_entry(const uint8_t *entry, mvpn_data_mdt_join *join) {
  if (entry[kType] != kJoinEntryType || load_be16(entry + kLength) != kEntrySize) return false;
  *join = {load_be32(entry + kCSource), load_be32(entry + kCGroup), load_be32(entry + kPGroup)};
  return true;
}

void append_entry(mvpn_cibtype *mvpn, const mvpn_data_mdt_join &join) {
  uint8_t *datagram = datagram_of(mvpn);
  const uint32_t length = length_of(mvpn);
  write_entry(join, datagram + length);
  set_length(mvpn, length + kEntrySize);
  store_be16(datagram + kUdpLength, static_cast<uint16_t>(load_be16(datagram + kUdpLength) + kEntrySize));
  store_host(datagram + kTotalLength, static_cast<uint16_t>(length + kEntrySize));
  store_host<uint16_t>(datagram + kChecksum, 0);
  store_host(datagram + kChecksum, ip_checksum(datagram, length + kEntrySize));
}

// ------------------------------------------------------------------------------------------------------- the socket

bool set_option(int level, int option, const void *value, const char *name) {
  int result;
  {
    const yield_bracket bracket;
    result = quillon_setsockopt(mvpn_udp_sid, level, option, value, 4);
  }
  if (result >= 0) return true;
  if (name != nullptr) mvpn_report(msg_error_PIM_SETSOCKOPT, name, strerror(errno));
  return false;
}

bool open_socket() {
  {
    const yield_bracket bracket;
    mvpn_udp_sid = quillon_socket(QUILLON_AF_INET, QUILLON_SOCK_DGRAM, 0);
  }
  if (mvpn_udp_sid == -1) mvpn_report(msg_error_PIM_SOCKET, "mvpn_udp", strerror(errno));
  return mvpn_udp_sid != -1;
}

bool bind_socket() {
  quillon_sockaddr_in any{};
  any.family = QUILLON_AF_INET;
  store_be16(&any.port, MVPN_DATA_MDT_UDP_PORT);
  int result;
  {
    const yield_bracket bracket;
    result = quillon_bind(mvpn_udp_sid, &any, sizeof any);
  }
  if (result == -1) mvpn_report(msg_error_PIM_BIND, "mvpn_udp", strerror(errno));
  return result != -1;
}

// Waits for a datagram; the one place where the thread may be cancelled.
ssize_t receive(quillon_sockaddr_in *from) {
  uint32_t from_length = sizeof *from;
  const yield_bracket bracket;
  const cancellation_scope cancellable;
  return quillon_recvfrom(mvpn_udp_sid, mvpn_recv_data_mdt_join_pkt, sizeof mvpn_recv_data_mdt_join_pkt, 0, from,
                          &from_length);
}

// ------------------------------------------------------------------------------------------------ received datagrams

// The VRF whose tunnel a datagram came through; null when it is to be dropped.
mvpn_cibtype *receiving_vrf(uint16_t iod) {
  const pim_iftype *interface = pim_get_iftype(iod);
  if (interface == nullptr || interface->pim_enabled == 0) {
    syslog_log(2, "Ignoring Data MDT Join received on a non-pim interface :  %d %s", iod, ksink_im_get_if_name(iod));
    return nullptr;
  }
  mvpn_cibtype *mvpn = interface->pcib != nullptr ? interface->pcib->mvpn : nullptr;
  if (mvpn == nullptr || mvpn->mti_iod != iod) {
    MVPN_DEBUG(pim_null_pcib, "Received Data MDT Join Packet on a non default mvpn tunnel interface %ld %s",
               static_cast<long>(iod), ksink_im_get_if_name(iod));
    return nullptr;
  }
  return mvpn;
}

void take_entries(mvpn_cibtype *mvpn, const uint8_t *entry, uint32_t remaining, ip_addr_t peer) {
  const mvpn_vrf_handle vrf(mvpn);
  for (; remaining >= kEntrySize; remaining -= kEntrySize, entry += kEntrySize) {
    mvpn_data_mdt_join join;
    if (!read_entry(entry, &join)) continue;
    MVPN_DEBUG_DETAIL(mvpn->pcib, "MDT Join Entry: c_src = %s, c_grp = %s, p_grp = %s", ip_print_addr(join.c_src),
                      ip_print_addr(join.c_grp), ip_print_addr(join.p_grp));
    if (mvpn_add_data_mdt_recv_join_info(mvpn, join, peer) && !vrf.same()) return;
  }
}

}  // namespace

// ------------------------------------------------------------------------------------------- set-up and tear-down

static void *mvpn_udp_main(void *) {
  for (;;) {
    quillon_sockaddr_in from{};
    const ssize_t n = receive(&from);
    if (n >= 0) {
      mvpn_process_data_mdt_join(from.iod, static_cast<size_t>(n));
      continue;
    }
    if (mvpn_udp_thread != 0) continue;
    if (!mvpn_is_stopping()) mvpn_report(msg_error_PIM_UDP_READ);
    pthread_exit(nullptr);
  }
}

int mvpn_init_data_mdt() {
  if (mvpn_init_udp() == 0) return 0;
  mvpn_data_mdt_info_pt_attr = pt_attr_create(0, 1, MVPN_RECV_KEY_BYTES);
  if (mvpn_data_mdt_info_pt_attr == nullptr) {
    mvpn_report(msg_error_PIM_API_FAILED, "pt_attr_create()", "mvpn_init_data_mdt");
    return 0;
  }
  if (quillon_pthread_create(&mvpn_udp_thread, nullptr, mvpn_udp_main, nullptr, "mvpn-udp-thread") != 0) {
    mvpn_udp_thread = 0;
    mvpn_report(msg_error_PIM_PTHREAD_CREATE, "mvpn-udp-thread");
    return 0;
  }
  mvpn_age_timer = active_timer_create(
      mvpn_at_set_heap, ACTIVE_TIMER_TYPE_MVPN, [](void *) { mvpn_process_age_timer(); }, nullptr);
  if (mvpn_age_timer == nullptr) {
    mvpn_report(msg_error_PIM_TIMER_CREATE, "mvpn_age_timer", "Recv Data MDT");
    return 0;
  }
  active_timer_start(mvpn_age_timer, 0, 0, 0, 0);
  return 1;
}

static void mvpn_deinit_udp() {
  if (mvpn_udp_sid != -1) {
    const yield_bracket bracket;
    quillon_close(mvpn_udp_sid);
  }
  mvpn_udp_sid = -1;
  mvpn_udp_up = 0;
}

void mvpn_deinit_data_mdt() {
  if (mvpn_udp_thread != 0) {
    pthread_cancel(mvpn_udp_thread);
    const yield_bracket bracket;
    pthread_join(mvpn_udp_thread, nullptr);
  }
  mvpn_udp_thread = 0;
  mvpn_stop_ageing();
  if (mvpn_age_timer != nullptr) active_timer_cancel(mvpn_age_timer);
  mvpn_age_timer = nullptr;
  mvpn_deinit_udp();
}

int mvpn_init_udp() {
  if (mvpn_udp_up != 0) return 1;
  if (tcp_setup("pim", "/quillon/mq/mvpn-udp") == 0) {
    mvpn_report(msg_error_PIM_API_INIT, "TCP");
    return 0;
  }
  if (!open_socket()) return 0;
  const uint32_t all_bits = 0xFFFFFFFF;
  if (!set_option(QUILLON_IPPROTO_UDP, QUILLON_IP_HDRINCL, &all_bits, "mvpn_udp - IP_HDRINCL")) return 0;
  uint8_t context[4] = {};
  store_host(context + 2, kAnyContext);
  if (!set_option(QUILLON_IPPROTO_IP, QUILLON_IP_CONTEXT, context, "mvpn_udp - IP_CONTEXT")) return 0;
  const uint32_t one = 1;
  set_option(QUILLON_SOL_SOCKET, QUILLON_SO_OPTION_32, &one, nullptr);
  if (!bind_socket()) return 0;
  mvpn_udp_up = 1;
  return 1;
}

// ---------------------------------------------------------------------------------------------------------- sending

void mvpn_fill_one_data_mdt_join(mvpn_cibtype *mvpn, const mvpn_data_mdt_join &join) {
  if (mvpn == nullptr || mvpn->pcib == nullptr) return;
  uint32_t room = prepare_packet(mvpn);
  if (room == 0) return;
  if (room < length_of(mvpn) + kEntrySize) {
    const mvpn_vrf_handle vrf(mvpn);
    mvpn_send_data_mdt_join_packet(mvpn, 0);
    if (!vrf.same()) return;
    // The yield may have seen the packet freed or filled by somebody else, the MTU changed, the interface gone.
    room = prepare_packet(mvpn);
    if (room == 0 || room < length_of(mvpn) + kEntrySize) return;
  }
  append_entry(mvpn, join);
}

void mvpn_send_data_mdt_join_packet(mvpn_cibtype *mvpn, int release) {
  if (mvpn == nullptr || mvpn->data_mdt_join_pkt == nullptr) return;
  mbuf *m = m_get_prio(1, 1, 5);
  if (m == nullptr) {
    MVPN_DEBUG(mvpn->pcib, "Couldnt send Data Mdt Join packet due to mbuf alloc failure.");
    return;
  }
  const uint32_t length = length_of(mvpn);
  const uint8_t *datagram = datagram_of(mvpn);
  if (m_copyback(m, 0, length, datagram) != 0) {
    m_freem(m);
    MVPN_DEBUG(mvpn->pcib, "Couldnt send Data Mdt Join packet due to mbuf copy failure.");
    return;
  }
  const uint32_t entries = (length - kEntries) / kEntrySize;
  if (entries == 0) {
    m_freem(m);
    MVPN_DEBUG(mvpn->pcib, "No entries to send in Data MDT Join packet. Aborting send attempt.");
    return;
  }
  MVPN_DEBUG(mvpn->pcib, "Sending Join packet with entries %d and total ip length is %d buffer length = %d",
             static_cast<int>(entries), static_cast<int>(load_host<uint16_t>(datagram + kTotalLength)),
             static_cast<int>(length));
  if (mvpn->pcib == nullptr) {
    m_freem(m);
    MVPN_DEBUG(mvpn->pcib, "Couldnt send Data Mdt Join packet");
    return;
  }
  if (ksink_im_is_mvpn_tunnel(mvpn->mti_iod) != 0)
    mfwd_client_ip_output(mvpn->pcib->context_id, m, 0, mvpn->mti_iod, 0, pim_mts_q);
  else
    ip_cl_output(mvpn->pcib->context_id, m, 0, mvpn->mti_iod, 0, pim_ip_client);
  // What was sent leaves the packet before the yield, so that what is appended meanwhile stays.
  if (release != 0)
    mvpn_free_join_packet(mvpn);
  else
    mvpn_mdt_join_init_packet(mvpn);
  mvpn = mvpn_may_sched_yield(mvpn);
  if (mvpn != nullptr) mvpn->data_mdt_send_join_count++;
}

// -------------------------------------------------------------------------------------------------------- receiving

void mvpn_process_data_mdt_join(uint16_t iod, size_t n) {
  if (!mvpn_is_up()) return;
  mvpn_cibtype *mvpn = receiving_vrf(iod);
  if (mvpn == nullptr) return;
  MVPN_DEBUG(mvpn->pcib, "Total length of received MDT Join is %d", static_cast<int>(n));
  if (mvpn->mti_status != MVPN_MTI_UP || n < kIpHeaderMin) return;
  const uint8_t *datagram = mvpn_recv_data_mdt_join_pkt;
  const uint32_t ip_header = (datagram[kVersion] & 0x0Fu) * 4;
  if (ip_header < kIpHeaderMin) return;
  const ip_addr_t peer = load_be32(datagram + kSource);
  const uint32_t header = ip_header + kUdpHeader;
  const int remaining = static_cast<int>(n) - static_cast<int>(header);
  MVPN_DEBUG(mvpn->pcib, "MDT Join: Peer = %s Header length = %d Actual data = %d", ip_print_addr(peer),
             static_cast<int>(header), remaining);
  // Nobody sends from no address: such an announcement would be taken for any PE's.
  if (remaining < 1 || peer == 0) return;
  // A last part shorter than an entry holds none.
  take_entries(mvpn, datagram + header, static_cast<uint32_t>(remaining), peer);
}

// Core packets in GRE in UDP (RFC 8086).
//
// The layers are those of a real core seen through a GRE-in-UDP link, so that a packet analyser decodes a capture down
// to the customer datagram without a complaint. The outer UDP and IPv4 headers are the kernel's; a capture has them
// rebuilt, with checksums, because the socket does not show them.
//
// What arrives is only taken from the configured peers, and every length in it is checked against the bytes that are
// there before it is used.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/ip.h"
#include "platform/reference/carriers.h"
#include "platform/reference/packet.h"
#include "platform/reference/wire.h"

namespace ref {
namespace {

constexpr uint16_t ethertype_ipv4 = 0x0800;
constexpr uint8_t protocol_udp = 17;
constexpr uint8_t protocol_gre = 47;
constexpr uint8_t internetwork_control = 0xC0;  // type of service
constexpr uint8_t core_ttl = 64;                // what hosts commonly begin with

enum GreOffset { gre_flags = 0, gre_protocol = 2 };
constexpr size_t gre_size = 4;
enum GreFlag : uint16_t { gre_checksum = 0x8000, gre_key = 0x2000, gre_sequence = 0x1000, gre_version_mask = 0x0007 };
constexpr uint16_t gre_known_flags = gre_checksum | gre_key | gre_sequence;
constexpr size_t gre_option_size = 4;

enum Ipv4Offset {
  ip_version_ihl = 0,
  ip_tos = 1,
  ip_total_length = 2,
  ip_fragment = 6,
  ip_ttl = 8,
  ip_protocol = 9,
  ip_checksum_field = 10,
  ip_source = 12,
  ip_destination = 16,
};
constexpr size_t ip_size = 20;
constexpr uint16_t ip_fragment_mask = 0x3FFF;  // more-fragments flag and offset

enum UdpOffset { udp_source = 0, udp_destination = 2, udp_length = 4, udp_checksum = 6 };
constexpr size_t udp_size = 8;
constexpr size_t udp_payload_max = 0xFFFF - ip_size - udp_size;
constexpr size_t core_overhead = gre_size + ip_size + gre_size;
constexpr int reads_a_call = 64;  // so that a flood of datagrams does not keep the main loop

using Bytes = std::span<const uint8_t>;

void write_gre(uint8_t *to) {
  wire::store_be16(to + gre_flags, 0);
  wire::store_be16(to + gre_protocol, ethertype_ipv4);
}

void write_ipv4(uint8_t *to, uint8_t protocol, ip_addr_t source, ip_addr_t destination, size_t payload) {
  std::memset(to, 0, ip_size);
  to[ip_version_ihl] = 0x45;
  to[ip_tos] = internetwork_control;
  wire::store_be16(to + ip_total_length, static_cast<uint16_t>(ip_size + payload));
  to[ip_ttl] = core_ttl;
  to[ip_protocol] = protocol;
  wire::store_be32(to + ip_source, source);
  wire::store_be32(to + ip_destination, destination);
  wire::store_host(to + ip_checksum_field, ip_checksum(to, ip_size));
}

// What a GRE header that announces IPv4 carries; nullopt when it is no such header.
std::optional<Bytes> gre_payload(Bytes bytes) {
  if (bytes.size() < gre_size) return std::nullopt;
  const uint16_t flags = wire::load_be16(&bytes[gre_flags]);
  if ((flags & ~gre_known_flags) != 0 || (flags & gre_version_mask) != 0 ||
      wire::load_be16(&bytes[gre_protocol]) != ethertype_ipv4)
    return std::nullopt;
  size_t size = gre_size;
  for (const uint16_t option : {gre_checksum, gre_key, gre_sequence})
    if ((flags & option) != 0) size += gre_option_size;
  if (bytes.size() < size) return std::nullopt;
  // A checksum in the header covers header and payload and makes their sum zero.
  if ((flags & gre_checksum) != 0 && ip_checksum(bytes.data(), static_cast<uint32_t>(bytes.size())) != 0)
    return std::nullopt;
  return bytes.subspan(size);
}

// Exactly the IPv4 datagram at the start of the bytes; nullopt when it is malformed or a fragment.
std::optional<Bytes> ipv4_datagram(Bytes bytes) {
  if (bytes.size() < ip_size || bytes[ip_version_ihl] >> 4 != 4) return std::nullopt;
  const size_t header = size_t{bytes[ip_version_ihl] & 0x0Fu} * 4;
  const size_t total = wire::load_be16(&bytes[ip_total_length]);
  if (header < ip_size || total < header || total > bytes.size()) return std::nullopt;
  if ((wire::load_be16(&bytes[ip_fragment]) & ip_fragment_mask) != 0) return std::nullopt;
  if (ip_checksum(bytes.data(), static_cast<uint32_t>(header)) != 0) return std::nullopt;
  return bytes.first(total);
}

// UDP checksum with its pseudo header (RFC 768).
uint16_t checksum_of_udp(ip_addr_t source, ip_addr_t destination, Bytes segment) {
  std::vector<uint8_t> covered(12 + segment.size());
  wire::store_be32(&covered[0], source);
  wire::store_be32(&covered[4], destination);
  covered[9] = protocol_udp;
  wire::store_be16(&covered[10], static_cast<uint16_t>(segment.size()));
  std::copy(segment.begin(), segment.end(), covered.begin() + 12);
  const uint16_t sum = ip_checksum(covered.data(), static_cast<uint32_t>(covered.size()));
  return sum == 0 ? uint16_t{0xFFFF} : sum;
}

sockaddr_in socket_address(ip_addr_t address, uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  result.sin_addr.s_addr = htonl(address);
  return result;
}

int open_socket(const GreUdpCarrier::Config &config) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  const sockaddr_in local = socket_address(config.local, config.port);
  if (::bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof local) == 0) return fd;
  const int reason = errno;
  ::close(fd);
  errno = reason;
  return -1;
}

}  // namespace

std::vector<uint8_t> encode_core_packet(const CorePacket &packet) {
  if (packet.datagram.size() > udp_payload_max - core_overhead) return {};
  std::vector<uint8_t> bytes(core_overhead + packet.datagram.size());
  write_gre(bytes.data());
  write_ipv4(&bytes[gre_size], protocol_gre, packet.provider_source, packet.provider_group,
             gre_size + packet.datagram.size());
  write_gre(&bytes[gre_size + ip_size]);
  std::copy(packet.datagram.begin(), packet.datagram.end(), bytes.begin() + core_overhead);
  return bytes;
}

std::optional<CorePacket> decode_core_packet(std::span<const uint8_t> bytes) {
  const auto outer = gre_payload(bytes);
  const auto core = outer ? ipv4_datagram(*outer) : std::nullopt;
  if (!core || (*core)[ip_protocol] != protocol_gre) return std::nullopt;
  const auto inner = gre_payload(core->subspan(size_t{(*core)[ip_version_ihl] & 0x0Fu} * 4));
  const auto customer = inner ? ipv4_datagram(*inner) : std::nullopt;
  if (!customer) return std::nullopt;
  CorePacket packet;
  packet.provider_source = wire::load_be32(&(*core)[ip_source]);
  packet.provider_group = wire::load_be32(&(*core)[ip_destination]);
  packet.datagram.assign(customer->begin(), customer->end());
  return packet;
}

GreUdpCarrier::GreUdpCarrier(int fd, Config config) : fd_(fd), config_(std::move(config)) {}

GreUdpCarrier::~GreUdpCarrier() { ::close(fd_); }

std::unique_ptr<GreUdpCarrier> GreUdpCarrier::open(const Config &config, std::string *error) {
  const int fd = open_socket(config);
  if (fd >= 0) return std::unique_ptr<GreUdpCarrier>(new GreUdpCarrier(fd, config));
  if (error != nullptr)
    *error =
        "UDP port " + std::to_string(config.port) + " of " + ip_print_addr(config.local) + ": " + std::strerror(errno);
  return nullptr;
}

void GreUdpCarrier::set_receiver(std::function<void(CorePacket)> receiver) { receiver_ = std::move(receiver); }

void GreUdpCarrier::send(const CorePacket &packet) {
  const std::vector<uint8_t> bytes = encode_core_packet(packet);
  if (bytes.empty()) {
    counters_.oversize++;
    return;
  }
  for (const ip_addr_t peer : config_.peers) {
    const sockaddr_in to = socket_address(peer, config_.port);
    const ssize_t sent =
        ::sendto(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&to), sizeof to);
    // A peer that is not there yet, or has no room, misses a datagram, as in any core.
    (sent < 0 ? counters_.send_errors : counters_.sent)++;
    store(config_.local, config_.port, peer, bytes);
  }
}

void GreUdpCarrier::on_readable() {
  std::array<uint8_t, 0x10000> buffer;
  for (int reads = 0; reads < reads_a_call; reads++) {
    sockaddr_in from{};
    socklen_t from_size = sizeof from;
    const ssize_t size =
        ::recvfrom(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &from_size);
    if (size >= 0)
      receive(ntohl(from.sin_addr.s_addr), ntohs(from.sin_port), {buffer.data(), static_cast<size_t>(size)});
    else if (errno == EAGAIN || errno == EWOULDBLOCK)
      return;
    // Other errors are late answers to sends (connection refused, for one); the next read has the next datagram.
  }
}

void GreUdpCarrier::receive(ip_addr_t from, uint16_t from_port, std::span<const uint8_t> payload) {
  if (std::find(config_.peers.begin(), config_.peers.end(), from) == config_.peers.end()) {
    counters_.strangers++;
    return;
  }
  counters_.received++;
  store(from, from_port, config_.local, payload);
  auto packet = decode_core_packet(payload);
  if (!packet)
    counters_.malformed++;
  else if (receiver_)
    receiver_(std::move(*packet));
}

// To the registered port, whatever this one is: an analyser knows GRE in UDP by it. The ports that the PEs of one
// machine use would tell it nothing.
void GreUdpCarrier::store(ip_addr_t from, uint16_t from_port, ip_addr_t to, std::span<const uint8_t> payload) {
  if (capture_ == nullptr || !capture_->running()) return;
  std::vector<uint8_t> bytes(ip_size + udp_size + payload.size());
  uint8_t *udp = &bytes[ip_size];
  write_ipv4(bytes.data(), protocol_udp, from, to, udp_size + payload.size());
  wire::store_be16(udp + udp_source, from_port);
  wire::store_be16(udp + udp_destination, gre_in_udp_port);
  wire::store_be16(udp + udp_length, static_cast<uint16_t>(udp_size + payload.size()));
  std::copy(payload.begin(), payload.end(), bytes.begin() + ip_size + udp_size);
  wire::store_host(udp + udp_checksum, checksum_of_udp(from, to, {udp, udp_size + payload.size()}));
  capture_->write(bytes);
}

}  // namespace ref

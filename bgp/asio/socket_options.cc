// setsockopt() with numbers of Linux. Error texts end with the system's words, for operators.
#include "bgp/asio/socket_options.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace bgp {
namespace {

constexpr int kFullTtl = 255;
constexpr int kSystemDefault = -1;  // as IP_TTL: what the system is set to

std::string set_number(int socket, int option, int value, const char *what) {
  if (setsockopt(socket, IPPROTO_IP, option, &value, sizeof value) == 0) return "";
  return std::string(what) + ": " + std::strerror(errno);
}

}  // namespace

std::string set_md5_key(int socket, Ipv4 neighbor, const std::string &key) {
  tcp_md5sig signature{};
  if (key.size() > sizeof signature.tcpm_key) return "the password is longer than 80 octets";
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(neighbor);
  std::memcpy(&signature.tcpm_addr, &address, sizeof address);
  signature.tcpm_keylen = static_cast<uint16_t>(key.size());
  std::memcpy(signature.tcpm_key, key.data(), key.size());
  if (setsockopt(socket, IPPROTO_TCP, TCP_MD5SIG, &signature, sizeof signature) == 0) return "";
  if (key.empty() && (errno == ENOENT || errno == ENOPROTOOPT)) return "";  // there was none to take away
  if (errno == ENOPROTOOPT) return "this kernel has no TCP MD5 signatures";
  return std::string("TCP MD5 signatures: ") + std::strerror(errno);
}

std::string set_ttl_security(int socket, uint8_t hops) {
  if (hops == 0) return set_number(socket, IP_TTL, kSystemDefault, "TTL");
  if (std::string words = set_number(socket, IP_TTL, kFullTtl, "TTL"); !words.empty()) return words;
  return set_number(socket, IP_MINTTL, kFullTtl + 1 - hops, "TTL security");
}

void set_full_ttl(int socket) { (void)set_number(socket, IP_TTL, kFullTtl, "TTL"); }

}  // namespace bgp

// Interfaces, VRFs, addresses, packets and sockets, route policies, BGP's library.
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "conformance/runner.h"

using namespace conformance;

namespace {

constexpr ip_addr_t ip(uint32_t a, uint32_t b, uint32_t c, uint32_t d) { return a << 24 | b << 16 | c << 8 | d; }

constexpr vrf_context_id_t red = 7;
constexpr uint32_t red_table = 70;

}  // namespace

CHECK(ip, "masks and prefixes are total") {
  const std::pair<uint32_t, ip_addr_t> masks[] = {
      {0, 0},           {1, 0x80000000},  {8, 0xFF000000},         {31, 0xFFFFFFFE},
      {32, 0xFFFFFFFF}, {33, 0xFFFFFFFF}, {UINT32_MAX, 0xFFFFFFFF}};
  for (const auto &[length, mask] : masks) {
    EXPECT_EQUAL(platform.ip_bits2mask(length), mask);
    EXPECT_EQUAL(platform.ip_wildcard_mask(length), ~mask);
  }
  EXPECT(platform.ip_is_addr_in_prefix(ip(10, 1, 2, 3), ip(10, 1, 0, 0), 16) != 0);
  EXPECT(platform.ip_is_addr_in_prefix(ip(10, 2, 2, 3), ip(10, 1, 0, 0), 16) == 0);
  EXPECT(platform.ip_is_addr_in_prefix(ip(10, 2, 2, 3), ip(10, 1, 0, 0), 0) != 0);
  EXPECT(platform.ip_is_addr_in_prefix(ip(10, 1, 2, 4), ip(10, 1, 2, 3), 32) == 0);
  EXPECT_EQUAL(std::string(platform.ip_print_addr(ip(10, 0, 0, 1))), "10.0.0.1");
  EXPECT_EQUAL(std::string(platform.ip_print_prefix(ip(239, 1, 0, 0), 16)), "239.1.0.0/16");
}

CHECK(ip, "the checksum is that of RFC 1071, at any length and alignment") {
  // The example of RFC 1071, 3, and what it makes of an odd last byte.
  const std::vector<std::pair<std::vector<uint8_t>, uint16_t>> cases = {
      {{0x00, 0x01, 0xF2, 0x03, 0xF4, 0xF5, 0xF6, 0xF7}, 0x220D},
      {{0x00, 0x01, 0xF2}, 0x0DFE},
      {{}, 0xFFFF},
      {std::vector<uint8_t>(1500, 0xFF), 0x0000}};
  for (const auto &[data, expected] : cases)
    for (size_t shift = 0; shift < 4; shift++) {
      std::vector<uint8_t> bytes(shift);
      bytes.insert(bytes.end(), data.begin(), data.end());
      bytes.push_back(0);
      const uint16_t sum = platform.ip_checksum(bytes.data() + shift, static_cast<uint32_t>(data.size()));
      std::array<uint8_t, 2> header;
      std::memcpy(header.data(), &sum, sizeof sum);
      EXPECT_EQUAL(header[0] << 8 | header[1], int{expected});
    }
}

CHECK(im, "an interface has a name, an ordinal and an if-index that lead to each other") {
  REQUIRE(driver.add_interface("contract0", VRF_CONTEXT_ID_DEFAULT, ip(192, 0, 2, 1), 1) != 0);
  const im_iod_t iod = platform.im_get_if_by_name("contract0");
  REQUIRE(iod != 0);
  EXPECT(iod <= UINT16_MAX);
  EXPECT_EQUAL(std::string(platform.ksink_im_get_if_name(iod)), "contract0");
  if_index_t if_index = 0;
  EXPECT(platform.ksink_im_get_ifindex_frm_iod(iod, &if_index) == 0);
  im_iod_t back = 0;
  EXPECT(platform.im_get_iod_frm_ifindex(if_index, &back) == 0);
  EXPECT_EQUAL(back, iod);
  EXPECT_EQUAL(platform.ntoh_if_index(platform.hton_if_index(if_index)), if_index);
  EXPECT(platform.im_is_ifindex_mvpn_tunnel(if_index) == 0);
  EXPECT(platform.ksink_im_is_mvpn_tunnel(iod) == 0);
  EXPECT_EQUAL(platform.l3vm_if_get_context_id(iod), vrf_context_id_t{VRF_CONTEXT_ID_DEFAULT});
  EXPECT_EQUAL(platform.ip_get_local_addr(iod), ip(192, 0, 2, 1));
}

CHECK(im, "what does not exist is told by each result and leaves the output alone") {
  EXPECT_EQUAL(platform.im_get_if_by_name("no-such-interface"), 0u);
  const im_iod_t nobody = 65000;
  if_index_t if_index = 99;
  im_iod_t iod = 99;
  EXPECT(platform.ksink_im_get_ifindex_frm_iod(nobody, &if_index) != 0);
  EXPECT(platform.im_get_iod_frm_ifindex(0x7FFFFFFF, &iod) != 0);
  EXPECT_EQUAL(if_index, 99u);
  EXPECT_EQUAL(iod, 99u);
  EXPECT(platform.im_is_if_up(nobody) == 0);
  EXPECT(platform.ksink_im_is_if_up(nobody) == 0);
  EXPECT_EQUAL(std::string(platform.ksink_im_get_if_name(nobody)), "unknown");
  EXPECT_EQUAL(platform.ip_get_local_addr(nobody), 0u);
  EXPECT_EQUAL(platform.l3vm_if_get_context_id(nobody), vrf_context_id_t{VRF_CONTEXT_ID_NONE});
}

CHECK(im, "creation, state and address are told from the main loop, and only when they change") {
  {
    const InsideACall inside;
    REQUIRE(driver.add_interface("contract0", VRF_CONTEXT_ID_DEFAULT, ip(192, 0, 2, 1), 0) != 0);
  }
  const std::string iod = std::to_string(platform.im_get_if_by_name("contract0"));
  const auto told_once = [&](const std::string &text) {
    return std::count(told().begin(), told().end(), text + " " + iod) == 1;
  };
  EXPECT(run_until([&] { return told_once("created"); }));
  driver.run(500);
  told().clear();
  {
    const InsideACall inside;
    driver.set_interface("contract0", ip(192, 0, 2, 1), 1);
    driver.set_interface("contract0", ip(192, 0, 2, 1), 1);
    driver.set_interface("contract0", ip(192, 0, 2, 2), 1);
  }
  EXPECT(run_until([&] { return told_once("up") && told_once("address"); }));
  EXPECT(platform.im_is_if_up(platform.im_get_if_by_name("contract0")) != 0);
  EXPECT_EQUAL(platform.ip_get_local_addr(platform.im_get_if_by_name("contract0")), ip(192, 0, 2, 2));
  driver.set_interface("contract0", ip(192, 0, 2, 2), 0);
  EXPECT(run_until([&] { return told_once("down"); }));
  EXPECT(platform.im_is_if_up(platform.im_get_if_by_name("contract0")) == 0);
  driver.run(1000);
  EXPECT(told_once("up") && told_once("down"));
}

CHECK(im, "a table id has an overlay if-index that is a tunnel's, whether or not the tunnel exists") {
  std::set<if_index_t> all;
  for (const uint32_t table : {1u, 2u, 700u}) {
    if_index_t if_index = 0;
    EXPECT(platform.if_index_overlay_cli_init(&if_index, IF_INDEX_OVERLAY_MVPN, table) == 0);
    EXPECT(platform.im_is_ifindex_mvpn_tunnel(if_index) != 0);
    EXPECT_EQUAL(platform.ntoh_if_index(platform.hton_if_index(if_index)), if_index);
    EXPECT(std::strlen(platform.oim_print_ifname(if_index)) > 0);
    all.insert(if_index);
  }
  EXPECT_EQUAL(all.size(), size_t{3});
}

CHECK(ip, "an unnumbered interface borrows the address of another one, until it is told not to") {
  REQUIRE(driver.add_interface("lender", VRF_CONTEXT_ID_DEFAULT, ip(192, 0, 2, 9), 1) != 0);
  REQUIRE(driver.add_interface("borrower", VRF_CONTEXT_ID_DEFAULT, 0, 1) != 0);
  const im_iod_t iod = platform.im_get_if_by_name("borrower");
  EXPECT(platform.ip_set_unnumbered(iod, "lender") != 0);
  EXPECT_EQUAL(platform.ip_get_local_addr(iod), ip(192, 0, 2, 9));
  EXPECT(platform.ip_unset_unnumbered(iod) != 0);
  EXPECT_EQUAL(platform.ip_get_local_addr(iod), 0u);
  const char *default_vrf = platform.l3vm_get_context_name(VRF_CONTEXT_ID_DEFAULT);
  EXPECT(platform.ip_is_addr_local(default_vrf, ip(192, 0, 2, 9)) != 0);
  EXPECT(platform.ip_is_addr_local(default_vrf, ip(192, 0, 2, 10)) == 0);
}

CHECK(l3vm, "a VRF is known by its context id") {
  REQUIRE(driver.add_vrf("red", red, red_table, nullptr) != 0);
  l3vm_context_info info;
  REQUIRE(platform.l3vm_get_context_info(red, &info) != 0);
  EXPECT_EQUAL(info.state, uint32_t{L3VM_STATE_UP});
  EXPECT_EQUAL(info.table_id, red_table);
  EXPECT_EQUAL(std::string(info.name), "red");
  EXPECT_EQUAL(std::string(platform.l3vm_get_context_name(red)), "red");
  EXPECT(platform.l3vm_get_context_info(VRF_CONTEXT_ID_DEFAULT, &info) != 0);
  EXPECT(platform.l3vm_get_context_info(999, &info) == 0);
  EXPECT_EQUAL(std::string(platform.l3vm_get_context_name(999)), "unknown");
}

CHECK(bgp, "route distinguishers print in the three forms of RFC 4364") {
  const std::pair<std::array<uint8_t, 8>, const char *> cases[] = {
      {{0, 0, 0xFD, 0xE8, 0, 0, 0, 1}, "65000:1"},
      {{0, 1, 10, 0, 0, 1, 0, 5}, "10.0.0.1:5"},
      {{0, 2, 0xFA, 0x56, 0xEA, 0x00, 0, 1}, "4200000000:1"},
  };
  for (const auto &[rd, text] : cases) EXPECT_EQUAL(std::string(platform.mvpn_bgp_print_rd(rd.data())), text);
}

CHECK(bgp, "a VRF's route distinguisher is given when there is one, else nothing is written") {
  EXPECT(platform.bgp_api_init() != 0);
  const std::array<uint8_t, 8> configured = {0, 0, 0xFD, 0xE8, 0, 0, 0, 1}, untouched = {9, 9, 9, 9, 9, 9, 9, 9};
  REQUIRE(driver.add_vrf("red", red, red_table, configured.data()) != 0);
  REQUIRE(driver.add_vrf("blue", red + 1, red_table + 1, nullptr) != 0);
  std::array<uint8_t, 8> rd = untouched;
  EXPECT(platform.bgp_get_rd("blue", rd.data(), 0) == 0);
  EXPECT(platform.bgp_get_rd("no-such-vrf", rd.data(), 0) == 0);
  EXPECT(rd == untouched);
  EXPECT(platform.bgp_get_rd("red", rd.data(), 0) != 0);
  EXPECT(rd == configured);
  std::array<char, BGP_UPDATE_SOURCE_NAME_SIZE> name;
  name.fill('x');
  platform.bgp_mvpn_get_update_source(name.data(), name.size());  // none is configured
  EXPECT_EQUAL(name[0], 'x');
  platform.bgp_api_close();
}

CHECK(rpm, "a policy may be bound before it is defined; unbinding forgets the user") {
  const uint32_t longest = platform.rpm_get_max_name_length();
  EXPECT(longest > 0);
  std::string name = "flows";
  auto *binding = new rpm_binding{};
  binding->kind = RPM_BINDING_KIND;
  binding->client = RPM_CLIENT_MVPN;
  binding->policy_name = name.data();
  REQUIRE(platform.rpm_policy_bind(RPM_CLIENT_MVPN, name.c_str(), binding) != 0);
  const uint32_t handle = binding->policy_handle;
  EXPECT(handle != 0);
  EXPECT(platform.rpm_policy_is_ready(handle) == 0);
  rpm_mroute_match match{0, ip(239, 1, 2, 3), 0, 32};
  EXPECT(platform.rpm_eval_policy_match(handle, RPM_MATCH_MROUTE, &match, 0, 0) != 1);
  REQUIRE(driver.set_policy("flows", ip(239, 1, 0, 0), 16) != 0);
  EXPECT(platform.rpm_policy_is_ready(handle) != 0);
  EXPECT(platform.rpm_eval_policy_match(handle, RPM_MATCH_MROUTE, &match, 0, 0) == 1);
  match.group = ip(239, 2, 2, 3);
  EXPECT(platform.rpm_eval_policy_match(handle, RPM_MATCH_MROUTE, &match, 0, 0) != 1);
  EXPECT(platform.rpm_policy_unbind(handle) != 0);
  delete binding;
  name.assign("xxxxx");
  driver.set_policy("flows", 0, 0);  // a change of the policy touches no user that has gone
  driver.run(500);
  EXPECT(platform.rpm_policy_is_ready(handle) == 0);
}

CHECK(packet, "packet buffers grow as they are written; output takes them and tells what was not sent") {
  const std::array<uint8_t, 1400> bytes{};
  mbuf *buffer = platform.m_get_prio(1, 1, 5);
  REQUIRE(buffer != nullptr);
  EXPECT(platform.m_copyback(buffer, 0, 28, bytes.data()) == 0);
  EXPECT(platform.m_copyback(buffer, 28, 1372, bytes.data()) == 0);
  platform.m_freem(buffer);
  platform.m_freem(nullptr);
  for (const bool tunnel : {true, false}) {
    mbuf *lost = platform.m_get_prio(1, 1, 5);
    REQUIRE(lost != nullptr);
    EXPECT(platform.m_copyback(lost, 0, 28, bytes.data()) == 0);
    const im_iod_t nobody = 65000;
    const int sent = tunnel ? platform.mfwd_client_ip_output(1, lost, 0, nobody, 0, *platform.pim_mts_q)
                            : platform.ip_cl_output(1, lost, 0, nobody, 0, *platform.pim_ip_client);
    EXPECT(sent != 0);
  }
}

// ------------------------------------------------------------------------------------------------------------- sockets

namespace {

constexpr uint16_t join_port = 3232;

// A socket as the module opens it.
int open_socket() {
  if (platform.tcp_setup("pim", "/quillon/mq/mvpn-udp") == 0) throw Abandoned{};
  const int socket = platform.quillon_socket(QUILLON_AF_INET, QUILLON_SOCK_DGRAM, 0);
  const uint32_t on = 1;
  const uint8_t context[4] = {0, 0, 0xFF, 0xFF};
  EXPECT(socket >= 0);
  EXPECT(platform.quillon_setsockopt(socket, QUILLON_IPPROTO_UDP, QUILLON_IP_HDRINCL, &on, sizeof on) == 0);
  EXPECT(platform.quillon_setsockopt(socket, QUILLON_IPPROTO_IP, QUILLON_IP_CONTEXT, context, sizeof context) == 0);
  EXPECT(platform.quillon_setsockopt(socket, QUILLON_SOL_SOCKET, QUILLON_SO_OPTION_32, &on, sizeof on) == 0);
  quillon_sockaddr_in address{};
  address.family = QUILLON_AF_INET;
  address.port = __builtin_bswap16(join_port);
  EXPECT(platform.quillon_bind(socket, &address, sizeof address) == 0);
  return socket;
}

// A datagram from 192.0.2.7 to 224.0.0.13, ports 3232 to 3232, with four bytes.
std::vector<uint8_t> datagram() {
  return {0x45, 0, 0, 32, 0,    0,    0,    0,    1, 17, 0, 0, 192, 0, 2, 7,
          224,  0, 0, 13, 0x0C, 0xA0, 0x0C, 0xA0, 0, 12, 0, 0, 1,   2, 3, 4};
}

}  // namespace

CHECK(sockets, "calls that cannot be done give -1 and errno") {
  EXPECT(platform.tcp_setup("pim", "/quillon/mq/mvpn-udp") != 0);
  const uint32_t on = 1;
  errno = 0;
  EXPECT(platform.quillon_setsockopt(-1, QUILLON_IPPROTO_UDP, QUILLON_IP_HDRINCL, &on, sizeof on) == -1);
  EXPECT_EQUAL(errno, EBADF);
  errno = 0;
  EXPECT(platform.quillon_close(-1) == -1);
  EXPECT_EQUAL(errno, EBADF);
  errno = 0;
  EXPECT(platform.quillon_recvfrom(-1, nullptr, 0, 0, nullptr, nullptr) == -1);
  EXPECT_EQUAL(errno, EBADF);
}

CHECK(sockets, "a datagram arrives with its IP header and says on which interface") {
  REQUIRE(driver.add_interface("contract0", VRF_CONTEXT_ID_DEFAULT, ip(192, 0, 2, 1), 1) != 0);
  const int socket = open_socket();
  const std::vector<uint8_t> sent = datagram();
  REQUIRE(driver.receive_datagram("contract0", sent.data(), static_cast<uint32_t>(sent.size())) != 0);
  driver.run(100);
  std::array<uint8_t, 200> buffer{};
  quillon_sockaddr_in source{};
  uint32_t source_length = sizeof source;
  platform.tsp_before_yield();
  const ssize_t size = platform.quillon_recvfrom(socket, buffer.data(), buffer.size(), 0, &source, &source_length);
  platform.tsp_after_yield();
  REQUIRE(size == static_cast<ssize_t>(sent.size()));
  EXPECT(std::equal(sent.end() - 4, sent.end(), buffer.begin() + size - 4));
  EXPECT_EQUAL(uint32_t{source.iod}, platform.im_get_if_by_name("contract0"));
  EXPECT_EQUAL(__builtin_bswap32(source.address), ip(192, 0, 2, 7));
  EXPECT_EQUAL(__builtin_bswap16(source.port), join_port);
  EXPECT(platform.quillon_close(socket) == 0);
}

CHECK(sockets, "a thread that waits for a datagram can be cancelled there") {
  static int socket;
  static std::atomic<bool> waiting;
  socket = open_socket();
  pthread_t thread;
  REQUIRE(platform.quillon_pthread_create(
              &thread, nullptr,
              [](void *) -> void * {
                std::array<uint8_t, 100> buffer;
                waiting = true;
                platform.tsp_before_yield();
                pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
                platform.quillon_recvfrom(socket, buffer.data(), buffer.size(), 0, nullptr, nullptr);
                return nullptr;
              },
              nullptr, "receiver") == 0);
  EXPECT(run_until([] { return waiting.load(); }));
  driver.run(100);
  pthread_cancel(thread);
  platform.tsp_before_yield();
  pthread_join(thread, nullptr);
  platform.tsp_after_yield();
  EXPECT(platform.quillon_close(socket) == 0);
}

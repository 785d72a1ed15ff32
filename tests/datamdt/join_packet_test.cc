// The Join datagram: its bytes, its buffer, sending it, and what the receiver thread makes of datagrams.
#include <algorithm>
#include <cstring>

#include "platform/ip.h"
#include "platform/reference/croute.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/packet.h"
#include "platform/reference/pim.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_datamdt_join_internal.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver_internal.h"
#include "routing/pim/mvpn/mvpn_default_mdt.h"
#include "tests/support/data_mdt_test.h"

namespace {

class JoinPacket : public DataMdtTest {
 protected:
  static constexpr uint32_t header_size = 28, entry_size = 16;

  void fill(uint32_t entries, uint32_t first = 0) {
    for (uint32_t i = first; i < first + entries; i++)
      mvpn_fill_one_data_mdt_join(context("red"), {addr("172.16.9.1"), addr("225.0.0.0") + i, addr("239.2.0.0") + i});
  }
  // Length of the datagram in the buffer; 0: there is no buffer.
  static uint32_t buffered(const mvpn_cibtype *mvpn) {
    if (mvpn->data_mdt_join_pkt == nullptr) return 0;
    uint16_t length = 0;
    std::memcpy(&length, mvpn->data_mdt_join_pkt, sizeof length);
    return length;
  }
  static std::vector<size_t> sent_sizes() {
    std::vector<size_t> sizes;
    for (const ref::CorePacket &packet : ref::sent_core_packets()) sizes.push_back(packet.datagram.size());
    return sizes;
  }
  // How often an entry that fill() made was sent.
  static size_t times_sent(uint32_t i) {
    size_t times = 0;
    for (const ref::CorePacket &packet : ref::sent_core_packets())
      for (size_t at = header_size; at + entry_size <= packet.datagram.size(); at += entry_size)
        times += word_at(packet.datagram, at + 12) == __builtin_bswap32(addr("239.2.0.0") + i);
    return times;
  }
};

TEST_F(JoinPacket, ADatagramHasTheseBytes) {
  mvpn_cibtype *mvpn = start_red();
  mvpn_fill_one_data_mdt_join(mvpn, {addr("172.16.9.1"), addr("225.0.0.7"), addr("239.2.0.3")});
  std::vector<uint8_t> expected = {0x45, 0xC0, 44,  0,  0,  0,    0,    0,    1,    17, 0,   0, 10, 0,    0,
                                   1,    224,  0,   0,  13, 0x0C, 0xA0, 0x0C, 0xA0, 0,  24,  0, 0,  0x01, 0x00,
                                   0x10, 0x00, 172, 16, 9,  1,    225,  0,    0,    7,  239, 2, 0,  3};
  const std::vector<uint8_t> datagram(mvpn->data_mdt_join_pkt + 2, mvpn->data_mdt_join_pkt + 2 + expected.size());
  const uint16_t checksum = ip_checksum(expected.data(), static_cast<uint32_t>(expected.size()));
  std::memcpy(&expected[10], &checksum, sizeof checksum);
  EXPECT_EQ(datagram, expected);
  EXPECT_EQ(buffered(mvpn), 44u);
  // On the wire, the total length is in network order and the checksum covers the header.
  mvpn_send_data_mdt_join_packet(mvpn, 0);
  ASSERT_EQ(ref::sent_core_packets().size(), 1u);
  const ref::CorePacket &sent = ref::sent_core_packets()[0];
  EXPECT_EQ(sent.provider_source, addr("10.0.0.1"));
  EXPECT_EQ(sent.provider_group, addr("239.1.1.1"));
  EXPECT_EQ(sent.datagram[2], 0);
  EXPECT_EQ(sent.datagram[3], 44);
  EXPECT_EQ(ip_checksum(sent.datagram.data(), 20), 0);
  EXPECT_TRUE(std::equal(sent.datagram.begin() + 12, sent.datagram.end(), expected.begin() + 12));
  EXPECT_EQ(buffered(mvpn), header_size) << "kept, with no entries";
  EXPECT_EQ(mvpn->data_mdt_send_join_count, 1u);
}

TEST_F(JoinPacket, AFullDatagramIsSentBeforeTheNextEntry) {
  mvpn_cibtype *mvpn = start_red();
  trace::start();
  fill(84);
  EXPECT_EQ(buffered(mvpn), 1372u);
  EXPECT_TRUE(sent_sizes().empty());
  EXPECT_EQ(trace::calls_of({"mtrack_alloc"}), Texts{"mtrack_alloc(284,4)"});
  EXPECT_EQ(ip_checksum(mvpn->data_mdt_join_pkt + 2, 1372), 0) << "over the whole datagram";
  EXPECT_EQ(mvpn->data_mdt_join_pkt[2 + 24], 1352 >> 8);
  EXPECT_EQ(mvpn->data_mdt_join_pkt[2 + 25], 1352 & 255);
  fill(1, 84);
  EXPECT_EQ(sent_sizes(), std::vector<size_t>{1372});
  EXPECT_EQ(buffered(mvpn), 44u);
  mvpn_send_data_mdt_join_packet(mvpn, 1);
  EXPECT_EQ(mvpn->data_mdt_join_pkt, nullptr);
  for (uint32_t i = 0; i < 85; i++) EXPECT_EQ(times_sent(i), 1u) << i;
}

TEST_F(JoinPacket, TheLimitFollowsTheInterfaceAndTheProcess) {
  mvpn_cibtype *mvpn = start_red();
  const struct {
    uint32_t interface_mtu, process_mtu, entries;
    size_t datagrams, largest;  // sent when all entries have left
  } cases[] = {
      {20, 9216, 3, 0, 0},  {43, 9216, 3, 0, 0},  {44, 9216, 3, 3, 44},           {1376, 100, 9, 3, 92},
      {59, 9216, 2, 2, 44}, {60, 9216, 4, 2, 60}, {70000, 70000, 4095, 2, 65532},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.interface_mtu);
    mvpn->mti_pim_if->mtu = c.interface_mtu;
    pim_mtu = c.process_mtu;
    ref::clear_sent_core_packets();
    fill(c.entries);
    mvpn_send_data_mdt_join_packet(mvpn, 1);
    const auto sizes = sent_sizes();
    EXPECT_EQ(sizes.size(), c.datagrams);
    if (!sizes.empty()) {
      EXPECT_EQ(*std::max_element(sizes.begin(), sizes.end()), c.largest);
    }
    for (uint32_t i = 0; i < c.entries; i += 97) EXPECT_EQ(times_sent(i), c.datagrams > 0 ? 1u : 0u);
    mvpn_send_data_mdt_join_packet(mvpn, 1);
  }
}

// The buffer keeps the size that it was made with; a larger limit must not let entries run over its end.
TEST_F(JoinPacket, AGrowingLimitDoesNotOverrunTheBuffer) {
  mvpn_cibtype *mvpn = start_red();
  fill(1);
  mvpn_send_data_mdt_join_packet(mvpn, 0);
  EXPECT_EQ(command("mdt_mtu_cmd", "red", {{"<mtu-value>", "9000"}}), 0);
  ref::clear_sent_core_packets();
  fill(561);
  EXPECT_EQ(sent_sizes(), std::vector<size_t>{8988}) << "an empty buffer is made anew";
  // One that could not be sent when the limit grew is used up first.
  mvpn_send_data_mdt_join_packet(mvpn, 1);
  mvpn->mti_pim_if->mtu = 1376;
  fill(80);
  trace::fail("m_get_prio");
  EXPECT_EQ(command("mdt_mtu_cmd", "red", {{"<mtu-value>", "8000"}}), 0);
  EXPECT_EQ(buffered(mvpn), 1308u);
  ref::clear_sent_core_packets();
  fill(1000, 80);
  mvpn_send_data_mdt_join_packet(mvpn, 1);
  const auto sizes = sent_sizes();
  ASSERT_GE(sizes.size(), 2u);
  EXPECT_LE(sizes.front(), 1376u);
  EXPECT_EQ(*std::max_element(sizes.begin(), sizes.end()), 7996u) << "later datagrams use the new limit";
  for (uint32_t i = 0; i < 1080; i++) EXPECT_EQ(times_sent(i), 1u) << i;
}

TEST_F(JoinPacket, SendingTakesTheseSteps) {
  mvpn_cibtype *mvpn = start_red();
  const std::vector<std::string_view> shown = {"m_get_prio",   "m_copyback",         "m_freem", "mfwd_client_ip_output",
                                               "ip_cl_output", "tsp_sched_may_yield"};
  const auto steps = [&](int release) {
    trace::start();
    capture_debug();
    mvpn_send_data_mdt_join_packet(mvpn, release);
    return trace::calls_of(shown);
  };
  EXPECT_EQ(steps(1), Texts{}) << "no buffer";
  fill(1);
  trace::fail("m_get_prio");
  EXPECT_EQ(steps(1), Texts{"m_get_prio(1,1,5)"});
  EXPECT_EQ(debug_count("Couldnt send Data Mdt Join packet due to mbuf alloc failure."), 1u);
  trace::fail("m_copyback");
  EXPECT_EQ(steps(1), (Texts{"m_get_prio(1,1,5)", "m_copyback(44)", "m_freem()"}));
  EXPECT_EQ(debug_count("Couldnt send Data Mdt Join packet due to mbuf copy failure."), 1u);
  EXPECT_EQ(buffered(mvpn), 44u) << "the entries wait for the next send";
  EXPECT_EQ(mvpn->data_mdt_send_join_count, 0u);
  EXPECT_EQ(steps(0),
            (Texts{"m_get_prio(1,1,5)", "m_copyback(44)", "mfwd_client_ip_output(2)", "tsp_sched_may_yield()"}));
  EXPECT_EQ(debug_count("Sending Join packet with entries 1 and total ip length is 44 buffer length = 44"), 1u);
  EXPECT_EQ(steps(1), (Texts{"m_get_prio(1,1,5)", "m_copyback(28)", "m_freem()"})) << "an empty buffer stays";
  EXPECT_EQ(debug_count("No entries to send in Data MDT Join packet. Aborting send attempt."), 1u);
  EXPECT_EQ(buffered(mvpn), header_size);
  fill(1);
  EXPECT_EQ(steps(1).size(), 4u);
  EXPECT_EQ(mvpn->data_mdt_join_pkt, nullptr);
  // Without a tunnel the datagram leaves through the IP process.
  const im_iod_t tunnel = mvpn->mti_iod;
  const im_iod_t ethernet = ref::find_interface("ethernet1")->iod;
  pim_enable(0, mvpn->pcib, ethernet, 0);
  mvpn_set_mti_iod(mvpn, ethernet);
  fill(1);
  EXPECT_EQ(steps(1)[2], "ip_cl_output(2)");
  mvpn_set_mti_iod(mvpn, tunnel);
  pim_disable(0, mvpn->pcib, pim_get_iftype(ethernet), ethernet, 1, 0, 0);
}

TEST_F(JoinPacket, AnEntryWithoutMemoryIsDropped) {
  mvpn_cibtype *mvpn = start_red();
  trace::fail("mtrack_alloc");
  fill(1);
  EXPECT_EQ(mvpn->data_mdt_join_pkt, nullptr);
  const auto &reports = ref::reports();
  ASSERT_GE(reports.size(), 2u);
  EXPECT_EQ(reports[reports.size() - 2].arguments, (Texts{"1378", "mvpn_fill_one_data_mdt_join"}));
  EXPECT_EQ(reports.back().arguments, (Texts{"1376", "Couldnt allocate memory for MDT Join Pkt."}));
  mvpn_fill_one_data_mdt_join(nullptr, {1, 2, 3});
  fill(1);
  EXPECT_EQ(buffered(mvpn), 44u);
}

// The send yields after its output. Whatever happens meanwhile, no freed record is touched and no entry is lost.
TEST_F(JoinPacket, AnEntryThatArrivesDuringASendIsSentLater) {
  mvpn_cibtype *mvpn = start_red();
  for (const int release : {0, 1}) {
    ref::clear_sent_core_packets();
    fill(1);
    at_yield(1, [this] { fill(1, 1); });
    mvpn_send_data_mdt_join_packet(mvpn, release);
    mvpn_send_data_mdt_join_packet(mvpn, release);
    EXPECT_EQ(times_sent(0), 1u) << release;
    EXPECT_EQ(times_sent(1), 1u) << release;
  }
  // The same with a full datagram: both entries find the buffer full.
  ref::clear_sent_core_packets();
  fill(84);
  at_yield(1, [this] { fill(1, 84); });
  fill(1, 85);
  mvpn_send_data_mdt_join_packet(mvpn, 1);
  for (uint32_t i = 0; i < 86; i++) EXPECT_GE(times_sent(i), 1u) << i;
  for (const size_t size : sent_sizes()) EXPECT_LE(size, 1372u);
}

TEST_F(JoinPacket, WhatVanishesDuringASendIsNotTouched) {
  const struct {
    const char *name;
    std::function<void()> happens;
    bool vrf_stays;
  } cases[] = {
      {"the flow", [this] { remove("172.16.9.1", "225.0.0.1"); }, true},
      {"the default MDT", [this] { mvpn_default_tunnel_down(context("red"), 0); }, true},
      {"the VRF", [this] { vanish(); }, false},
  };
  start_red();
  for (const auto &c : cases) {
    for (const bool immediate : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (immediate ? ", immediate switch" : ", re-announcement"));
      configure("red", "239.1.1.1");
      range("239.2.0.0/24", immediate ? "0" : "1", immediate);
      pim_route *croute = nullptr;
      bool happened = false;
      const auto happens = [&] {
        happened = true;
        c.happens();
      };
      if (immediate) {
        croute = ref::set_customer_route("red", flow_of("172.16.9.1", "225.0.0.1"));
        fill(84, 100);
        at_yield(1, happens);
        mvpn_data_mdt_map_local_source_to_receiver(context("red"), &croute->addrs, croute);
      } else {
        croute = active_flow("172.16.9.1", "225.0.0.1");
        fill(83, 100);
        at_yield(1, happens);
        EXPECT_EQ(check(croute), 0);
      }
      trace::on_yield(nullptr);
      EXPECT_TRUE(happened);
      EXPECT_EQ(context("red") != nullptr, c.vrf_stays);
      ref::settle();
      check_invariants();
      ref::delete_customer_route("red", route_addrs("172.16.9.1", "225.0.0.1"));
      ref::settle();
    }
  }
}

// --------------------------------------------------------------------------------------------------------- receiving

class JoinReceiver : public DataMdtTest {
 protected:
  struct Entry {
    uint8_t type = 1;
    uint16_t length = 16;
  };
  // A datagram from the remote PE: entry i announces 225.0.0.i from source 172.16.7.1 on 239.7.0.i.
  static std::vector<uint8_t> datagram(unsigned ihl, const std::vector<Entry> &entries) {
    std::vector<uint8_t> bytes(ihl * 4 + 8);
    bytes[0] = static_cast<uint8_t>(0x40 | ihl);
    if (bytes.size() >= 16) put(bytes, 12, addr(remote_pe));
    for (size_t i = 0; i < entries.size(); i++) {
      const size_t at = bytes.size();
      bytes.resize(at + 16);
      bytes[at] = entries[i].type;
      bytes[at + 1] = static_cast<uint8_t>(entries[i].length >> 8);
      bytes[at + 2] = static_cast<uint8_t>(entries[i].length);
      put(bytes, at + 4, addr("172.16.7.1"));
      put(bytes, at + 8, addr("225.0.0.0") + static_cast<uint32_t>(i));
      put(bytes, at + 12, addr("239.7.0.0") + static_cast<uint32_t>(i));
    }
    return bytes;
  }
  static void put(std::vector<uint8_t> &bytes, size_t at, uint32_t value) {
    for (size_t i = 0; i < 4; i++) bytes[at + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
  }
  static void arrive(im_iod_t iod, const std::vector<uint8_t> &bytes) {
    ref::inject_datagram(iod, bytes.data(), bytes.size());
    ref::settle();
  }
};

TEST_F(JoinReceiver, OnlyWholeEntriesOfTheDatagramAreRead) {
  mvpn_cibtype *mvpn = start_red();
  const std::vector<Entry> two(2);
  const auto cut = [&two](unsigned ihl, size_t n) {
    auto bytes = datagram(ihl, two);
    bytes.resize(n);
    return bytes;
  };
  const struct {
    const char *name;
    std::vector<uint8_t> bytes;
    uint32_t entries;
  } cases[] = {
      {"two entries", datagram(5, two), 2},
      {"IHL 6", datagram(6, two), 2},
      {"IHL 15", datagram(15, two), 2},
      {"IHL 4", datagram(4, two), 0},
      {"IHL 0", datagram(0, two), 0},
      {"nothing", cut(5, 0), 0},
      {"half an IP header", cut(5, 19), 0},
      {"no entry", cut(5, 28), 0},
      {"a byte of an entry", cut(5, 29), 0},
      {"all but a byte", cut(5, 43), 0},
      {"one entry", cut(5, 44), 1},
      {"one entry and a byte", cut(5, 45), 1},
      {"one entry and most of the next", cut(5, 59), 1},
      {"header longer than the datagram", cut(15, 44), 0},
      {"options, one entry", cut(6, 48), 1},
      {"another type first", datagram(5, {{7, 16}, {1, 16}}), 1},
      {"another length first", datagram(5, {{1, 15}, {1, 16}}), 1},
      {"length in the wrong byte order", datagram(5, {{1, 0x1000}, {1, 16}}), 1},
      {"other types only", datagram(5, {{0, 16}, {2, 16}, {255, 16}}), 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    arrive(mvpn->mti_iod, datagram(5, std::vector<Entry>(4)));  // leaves its bytes in the receive buffer
    const uint32_t before = mvpn->data_mdt_recv_join_count;
    arrive(mvpn->mti_iod, c.bytes);
    EXPECT_EQ(mvpn->data_mdt_recv_join_count - before, c.entries);
  }
  const auto *record = mvpn_get_data_mdt_recv_join_info(mvpn, addr("172.16.7.1"), addr("225.0.0.1"), addr(remote_pe));
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->p_grp, addr("239.7.0.1"));
  EXPECT_EQ(mvpn->data_mdt_recv_count, 4u) << "nothing but the four flows was ever recorded";
}

TEST_F(JoinReceiver, JoinsAreTakenFromAWorkingTunnelOnly) {
  mvpn_cibtype *mvpn = start_red();
  ref::create_interface("ethernet2", 2, addr("172.16.3.1"), true);
  const im_iod_t pim_interface = ref::find_interface("ethernet1")->iod;
  pim_enable(0, mvpn->pcib, pim_interface, 0);
  const auto join = datagram(5, {{}});
  capture_debug();
  arrive(ref::find_interface("ethernet2")->iod, join);  // PIM never ran there
  arrive(60000, join);                                  // unknown
  EXPECT_EQ(debug_count("Received Data MDT Join Packet on a non default mvpn tunnel interface"), 0u);
  arrive(pim_interface, join);
  EXPECT_EQ(debug_count("Received Data MDT Join Packet on a non default mvpn tunnel interface " +
                        std::to_string(pim_interface) + " ethernet1"),
            1u);
  EXPECT_EQ(debug_count("Total length of received MDT Join is"), 0u);
  mvpn_set_mti_status(mvpn, MVPN_MTI_UP_PENDING, "test");
  arrive(mvpn->mti_iod, join);
  mvpn_set_mti_status(mvpn, MVPN_MTI_UP, "test");
  EXPECT_EQ(debug_count("Total length of received MDT Join is 44"), 1u);
  EXPECT_EQ(debug_count("MDT Join: Peer ="), 0u);
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP_PENDING;
  arrive(mvpn->mti_iod, join);
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP;
  EXPECT_EQ(mvpn->data_mdt_recv_count, 0u);
  pim_disable(0, mvpn->pcib, pim_get_iftype(pim_interface), pim_interface, 1, 0, 0);
  // The thread carries on after each of them, and after errors.
  ref::fail_packet_calls("recvfrom", 3);
  arrive(mvpn->mti_iod, join);
  EXPECT_EQ(mvpn->data_mdt_recv_count, 1u);
  EXPECT_EQ(debug_count("MDT Join: Peer = 10.0.0.9 Header length = 28 Actual data = 16"), 1u);
}

// The thread ends on an error once its handle is cleared; that is worth a report unless the module stops.
TEST_F(JoinReceiver, AReceiveErrorAtTheEndIsReportedUnlessTheModuleStops) {
  for (const auto status : {MVPN_FUNCTIONALITY_UP, MVPN_FUNCTIONALITY_DOWN_PENDING}) {
    SCOPED_TRACE(mvpn_functionality_status_str[status]);
    start_red();
    ref::clear_reports();
    const pthread_t thread = std::exchange(mvpn_udp_thread, pthread_t{});
    const int socket = std::exchange(mvpn_udp_sid, -1);
    mvpn_functionality_status = status;
    arrive(context("red")->mti_iod, datagram(5, {}));
    tsp_before_yield();
    pthread_join(thread, nullptr);
    tsp_after_yield();
    EXPECT_EQ(ref::reports().size(), status == MVPN_FUNCTIONALITY_UP ? 1u : 0u);
    if (!ref::reports().empty()) {
      EXPECT_EQ(ref::reports()[0].name, "PIM_UDP_READ");
    }
    mvpn_functionality_status = MVPN_FUNCTIONALITY_UP;
    mvpn_udp_sid = socket;
    ref::set_feature_configured(false);
    mvpn_deinit(1);
    ASSERT_TRUE(ref::wait_for_threads());
    ref::set_feature_configured(true);
    ref::delete_vrf("red");
    ref::delete_interface("ethernet1");
    ref::settle();
  }
}

TEST_F(JoinReceiver, TheSocketIsSetUpOnceAndForEveryVrf) {
  ASSERT_EQ(mvpn_init(), 1);
  ASSERT_EQ(ref::socket_options().size(), 3u);
  EXPECT_EQ(ref::socket_options()[2].value, (std::vector<uint8_t>{1, 0, 0, 0}));
  mvpn_deinit(1);
  ASSERT_TRUE(ref::wait_for_threads());
  trace::fail("quillon_setsockopt", 3);  // the last option is a wish
  ASSERT_EQ(mvpn_init(), 1);
  const auto options = ref::socket_options();
  ASSERT_EQ(options.size(), 2u);
  EXPECT_EQ(options[0].value, std::vector<uint8_t>(4, 0xFF));
  EXPECT_EQ(options[1].value, (std::vector<uint8_t>{0, 0, 0xFF, 0xFF}));
  trace::start();
  EXPECT_EQ(mvpn_init_udp(), 1);
  EXPECT_TRUE(trace::calls().empty());
}

}  // namespace

// What crosses the core: output through tunnels, GRE in UDP bytes, captures, the receiving socket.
#include <arpa/inet.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <filesystem>

#include "platform/ip.h"
#include "platform/packet.h"
#include "platform/reference/carriers.h"
#include "platform/reference/im.h"
#include "platform/reference/packet.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "platform/sockets.h"
#include "platform/thread.h"
#include "tests/reference_services/services_test.h"
#include "tests/support/own_address.h"

namespace {

class CorePacketTest : public ServicesTest {
 protected:
  void SetUp() override {
    ServicesTest::SetUp();
    red_ = vrf_with_tunnel("red", 7, address("239.1.1.1"));
    iod_ = tunnel_iod("red");
  }

  // A datagram as the module hands it over: total length in host byte order, checksum over everything.
  int output(std::vector<uint8_t> datagram, vrf_context_id_t context_id = 7) {
    if (datagram.size() >= 20) {
      put_at(datagram, 2, static_cast<uint16_t>(datagram.size()));
      put_at(datagram, 10, uint16_t{0});
      put_at(datagram, 10, ip_checksum(datagram.data(), static_cast<uint32_t>(datagram.size())));
    }
    mbuf *buffer = m_get_prio(1, 1, 5);
    EXPECT_EQ(m_copyback(buffer, 0, static_cast<uint32_t>(datagram.size()), datagram.data()), 0);
    return mfwd_client_ip_output(context_id, buffer, 0, iod_, 0, pim_mts_q);
  }

  int listening_socket() {
    EXPECT_NE(tcp_setup("pim", "/queue"), 0);
    const int descriptor = quillon_socket(QUILLON_AF_INET, QUILLON_SOCK_DGRAM, 0);
    const uint8_t all_ones[4] = {0xFF, 0xFF, 0xFF, 0xFF};
    const uint8_t every_context[4] = {0, 0, 0xFF, 0xFF};
    EXPECT_EQ(quillon_setsockopt(descriptor, QUILLON_IPPROTO_UDP, QUILLON_IP_HDRINCL, all_ones, 4), 0);
    EXPECT_EQ(quillon_setsockopt(descriptor, QUILLON_IPPROTO_IP, QUILLON_IP_CONTEXT, every_context, 4), 0);
    EXPECT_EQ(bind_to(descriptor, 3232), 0);
    return descriptor;
  }
  static int bind_to(int descriptor, uint16_t port) {
    quillon_sockaddr_in any{};
    any.family = QUILLON_AF_INET;
    any.port = htons(port);
    return quillon_bind(descriptor, &any, sizeof any);
  }

  pim_cibtype *red_ = nullptr;
  im_iod_t iod_ = 0;
};

TEST_F(CorePacketTest, OutputWritesTheHeaderOfRfc791) {
  const std::vector<uint8_t> wanted = join_datagram(address("10.0.0.1"), 16);
  EXPECT_EQ(output(wanted), 0);
  ASSERT_EQ(ref::sent_core_packets().size(), 1u);
  const ref::CorePacket &packet = ref::sent_core_packets()[0];
  EXPECT_EQ(packet.provider_source, address("10.0.0.1"));
  EXPECT_EQ(packet.provider_group, address("239.1.1.1"));
  EXPECT_EQ(packet.datagram, wanted);
  EXPECT_EQ(ip_checksum(packet.datagram.data(), 20), 0);
}

TEST_F(CorePacketTest, OutputRefusesWhatCannotLeave) {
  EXPECT_NE(output(join_datagram(1, 16), 8), 0) << "another VRF's tunnel";
  EXPECT_NE(output(std::vector<uint8_t>(19, 0x45)), 0) << "no header";
  ref::set_interface_state("mti7", false);
  EXPECT_NE(output(join_datagram(1, 16)), 0) << "tunnel down";
  EXPECT_TRUE(ref::sent_core_packets().empty());
  mbuf *buffer = m_get_prio(1, 1, 5);
  const uint8_t byte = 0;
  EXPECT_NE(m_copyback(buffer, 65535, 1, &byte), 0);
  m_freem(buffer);
}

TEST_F(CorePacketTest, GreInUdpBytes) {
  ref::CorePacket packet;
  packet.provider_source = address("10.0.0.1");
  packet.provider_group = address("239.1.1.1");
  packet.datagram = join_datagram(address("10.0.0.1"), 16);
  const std::vector<uint8_t> bytes = ref::encode_core_packet(packet);
  const std::vector<uint8_t> head{0,    0,    8, 0,                                     // GRE, IPv4
                                  0x45, 0xC0, 0, 68, 0,   0, 0, 0, 64, 47, 0x7F, 0xC8,  // IPv4: 20 + 4 + 44 bytes, GRE
                                  10,   0,    0, 1,  239, 1, 1, 1,                      //
                                  0,    0,    8, 0};                                    // GRE, IPv4
  ASSERT_EQ(bytes.size(), head.size() + packet.datagram.size());
  EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 28), head);
  EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 28, bytes.end()), packet.datagram);
  const auto decoded = ref::decode_core_packet(bytes);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->provider_source, packet.provider_source);
  EXPECT_EQ(decoded->provider_group, packet.provider_group);
  EXPECT_EQ(decoded->datagram, packet.datagram);
  packet.datagram.assign(65480, 0);
  EXPECT_TRUE(ref::encode_core_packet(packet).empty()) << "fits into no UDP datagram";
}

TEST_F(CorePacketTest, MalformedCorePacketsAreRefused) {
  ref::CorePacket packet;
  packet.datagram = join_datagram(address("10.0.0.1"), 16);
  const std::vector<uint8_t> good = ref::encode_core_packet(packet);
  for (size_t size = 0; size < good.size(); size++) EXPECT_FALSE(ref::decode_core_packet({good.data(), size})) << size;
  struct Case {
    size_t offset;
    uint8_t value;
    const char *what;
  };
  const Case cases[] = {
      {0, 0x40, "routing flag"},     {1, 0x01, "GRE version"},         {2, 0x86, "ethertype"},
      {4, 0x65, "IP version"},       {4, 0x44, "short header"},        {4, 0x4F, "header beyond the datagram"},
      {6, 0x7F, "total length"},     {10, 0x20, "fragment"},           {13, 17, "not GRE"},
      {14, 0x00, "header checksum"}, {24, 0x40, "inner flag"},         {26, 0x86, "inner ethertype"},
      {28, 0x46, "inner checksum"},  {30, 0x7F, "inner total length"},
  };
  for (const Case &c : cases) {
    std::vector<uint8_t> bad = good;
    bad[c.offset] = c.value;
    EXPECT_FALSE(ref::decode_core_packet(bad)) << c.what;
  }
  // Options of the outer GRE header are skipped: key and sequence number.
  std::vector<uint8_t> with_options = good;
  with_options[0] = 0x30;
  with_options.insert(with_options.begin() + 4, 8, 0xAA);
  EXPECT_TRUE(ref::decode_core_packet(with_options));
  EXPECT_FALSE(ref::decode_core_packet({with_options.data(), 11})) << "options cut off";
}

// Two PEs on two loopback addresses.
class CarrierTest : public CorePacketTest {
 protected:
  void SetUp() override {
    CorePacketTest::SetUp();
    for (size_t pe = 0; pe < 2; pe++) {
      std::string error;
      carriers_[pe] = ref::GreUdpCarrier::open({pes_[pe], kPort, {pes_[1 - pe]}}, &error);
      ASSERT_NE(carriers_[pe], nullptr) << error;
      carriers_[pe]->set_receiver([this, pe](ref::CorePacket packet) { received_[pe].push_back(std::move(packet)); });
    }
  }

  void wait_readable(size_t pe) {
    pollfd wait{carriers_[pe]->fd(), POLLIN, 0};
    ASSERT_EQ(::poll(&wait, 1, 60000), 1);
    carriers_[pe]->on_readable();
  }

  static constexpr uint16_t kPort = 4754;
  const ip_addr_t pes_[2] = {own_address(0), own_address(1)};
  std::unique_ptr<ref::GreUdpCarrier> carriers_[2];
  std::vector<ref::CorePacket> received_[2];
};

TEST_F(CarrierTest, CarriesPacketsToPeersOnly) {
  ref::CorePacket packet{pes_[0], address("239.1.1.1"), join_datagram(pes_[0], 32)};
  carriers_[0]->send(packet);
  wait_readable(1);
  ASSERT_EQ(received_[1].size(), 1u);
  EXPECT_EQ(received_[1][0].datagram, packet.datagram);
  EXPECT_TRUE(received_[0].empty());

  // Somebody else on the machine, and a peer that sends nonsense.
  std::string error;
  const auto stranger = ref::GreUdpCarrier::open({own_address(2), kPort, {pes_[1]}}, &error);
  ASSERT_NE(stranger, nullptr) << error;
  stranger->send(packet);
  wait_readable(1);
  EXPECT_EQ(carriers_[1]->counters().strangers, 1u);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(kPort);
  to.sin_addr.s_addr = htonl(pes_[1]);
  EXPECT_EQ(::sendto(carriers_[0]->fd(), "nonsense", 8, 0, reinterpret_cast<sockaddr *>(&to), sizeof to), 8);
  wait_readable(1);
  EXPECT_EQ(carriers_[1]->counters().malformed, 1u);
  EXPECT_EQ(received_[1].size(), 1u);

  const auto second = ref::GreUdpCarrier::open({pes_[0], kPort, {}}, &error);
  EXPECT_EQ(second, nullptr);
  EXPECT_NE(error.find(own_address_text(0)), std::string::npos) << error;
}

TEST_F(CarrierTest, CaptureHoldsDatagramsWithValidHeaders) {
  const auto path = std::filesystem::path(::testing::TempDir()) / ("capture." + std::to_string(::getpid()) + ".pcap");
  ref::Capture file;
  ASSERT_EQ(file.start(path, false), "");
  EXPECT_NE(file.start("/nonexistent/directory/file.pcap", false), "");
  carriers_[1]->set_capture(&file);
  const ref::CorePacket packet{pes_[0], address("239.1.1.1"), join_datagram(pes_[0], 33)};
  carriers_[0]->send(packet);
  wait_readable(1);
  carriers_[1]->send({pes_[1], address("239.1.1.1"), join_datagram(pes_[1], 16)});

  char error[PCAP_ERRBUF_SIZE];
  pcap_t *capture = pcap_open_offline(path.c_str(), error);
  ASSERT_NE(capture, nullptr) << error;
  EXPECT_EQ(pcap_datalink(capture), DLT_RAW);
  std::vector<std::vector<uint8_t>> frames;
  pcap_pkthdr *header = nullptr;
  const u_char *data = nullptr;
  while (pcap_next_ex(capture, &header, &data) == 1) frames.emplace_back(data, data + header->caplen);
  pcap_close(capture);
  std::filesystem::remove(path);
  ASSERT_EQ(frames.size(), 2u);
  for (const std::vector<uint8_t> &frame : frames) {
    EXPECT_EQ(ip_checksum(frame.data(), 20), 0);
    EXPECT_EQ(frame[2] << 8 | frame[3], static_cast<int>(frame.size()));
    EXPECT_EQ(frame[22] << 8 | frame[23], ref::gre_in_udp_port);
    // Pseudo header: addresses, protocol, length; together with the segment the sum is zero.
    std::vector<uint8_t> covered(frame.begin() + 12, frame.end());
    covered.insert(covered.begin() + 8, {0, 17, frame[24], frame[25]});
    EXPECT_EQ(ip_checksum(covered.data(), static_cast<uint32_t>(covered.size())), 0);
  }
  EXPECT_EQ(be32_at(frames[0], 12), pes_[0]) << "received";
  EXPECT_EQ(be32_at(frames[1], 12), pes_[1]) << "sent";
  EXPECT_TRUE(ref::decode_core_packet(std::span(frames[0]).subspan(28)));
  carriers_[1]->set_capture(nullptr);
}

// ---------------------------------------------------------------------------------------------------------- sockets

TEST_F(CorePacketTest, SocketHearsWhatCrossesTheCore) {
  const int descriptor = listening_socket();
  const std::vector<uint8_t> datagram = join_datagram(address("10.0.0.2"), 16);
  std::vector<uint8_t> other_port = datagram, not_udp = datagram;
  other_port[23]++;
  not_udp[9] = 6;
  ref::receive_core_packet({address("10.0.0.1"), address("239.1.1.1"), datagram});  // its own
  ref::receive_core_packet({address("10.0.0.2"), address("239.1.1.2"), datagram});  // nobody's group
  ref::receive_core_packet({address("10.0.0.2"), address("239.1.1.1"), other_port});
  ref::receive_core_packet({address("10.0.0.2"), address("239.1.1.1"), not_udp});
  ref::receive_core_packet({address("10.0.0.2"), address("239.1.1.1"), {0x45}});
  ref::receive_core_packet({address("10.0.0.2"), address("239.1.1.1"), datagram});
  std::vector<uint8_t> buffer(100);
  quillon_sockaddr_in from{};
  uint32_t from_size = sizeof from;
  ASSERT_EQ(quillon_recvfrom(descriptor, buffer.data(), buffer.size(), 0, &from, &from_size), 44);
  buffer.resize(44);
  EXPECT_EQ(buffer, datagram);
  EXPECT_EQ(from.iod, iod_);
  EXPECT_EQ(ntohl(from.address), address("10.0.0.2"));
  EXPECT_EQ(ntohs(from.port), 3232);
  ASSERT_EQ(ref::socket_options().size(), 2u);
  EXPECT_EQ(ref::socket_options()[1].value, (std::vector<uint8_t>{0, 0, 0xFF, 0xFF}));
  EXPECT_EQ(quillon_close(descriptor), 0);
}

TEST_F(CorePacketTest, SocketErrors) {
  EXPECT_EQ(quillon_socket(QUILLON_AF_INET, QUILLON_SOCK_DGRAM, 0), -1) << "before the set-up";
  EXPECT_EQ(errno, ENETDOWN);
  const int descriptor = listening_socket();
  const int second = quillon_socket(QUILLON_AF_INET, QUILLON_SOCK_DGRAM, 0);
  EXPECT_EQ(bind_to(second, 3232), -1);
  EXPECT_EQ(errno, EADDRINUSE);
  const uint8_t value[4] = {};
  EXPECT_EQ(quillon_setsockopt(second, QUILLON_IPPROTO_UDP, 99, value, 4), -1);
  EXPECT_EQ(errno, ENOPROTOOPT);
  EXPECT_EQ(quillon_close(second), 0);
  EXPECT_EQ(quillon_close(second), -1);
  EXPECT_EQ(errno, EBADF);
  uint8_t byte;
  EXPECT_EQ(quillon_recvfrom(second, &byte, 1, 0, nullptr, nullptr), -1);
  EXPECT_EQ(errno, EBADF);
  ref::fail_packet_calls("recvfrom", 2);
  ref::inject_datagram(iod_, "xyz", 3);
  EXPECT_EQ(quillon_recvfrom(descriptor, &byte, 1, 0, nullptr, nullptr), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(quillon_recvfrom(descriptor, &byte, 1, 0, nullptr, nullptr), -1);
  EXPECT_EQ(quillon_recvfrom(descriptor, &byte, 1, 0, nullptr, nullptr), 1) << "cut to the buffer";
  EXPECT_EQ(byte, 'x');
  EXPECT_EQ(quillon_close(descriptor), 0);
}

TEST_F(CorePacketTest, ReceiveQueueIsBounded) {
  const int descriptor = listening_socket();
  const uint8_t first = 1, later = 2;
  ref::inject_datagram(iod_, &first, 1);
  for (int i = 0; i < 5000; i++) ref::inject_datagram(iod_, &later, 1);
  // An error behind the last datagram shows where the queue ends.
  size_t received = 0;
  uint8_t byte = 0;
  EXPECT_EQ(quillon_recvfrom(descriptor, &byte, 1, 0, nullptr, nullptr), 1);
  EXPECT_EQ(byte, first) << "the oldest is kept";
  for (received = 1; received < 1024; received++)
    ASSERT_EQ(quillon_recvfrom(descriptor, &byte, 1, 0, nullptr, nullptr), 1);
  ref::inject_datagram(iod_, &first, 1);
  EXPECT_EQ(quillon_recvfrom(descriptor, &byte, 1, 0, nullptr, nullptr), 1);
  EXPECT_EQ(byte, first) << "more than 1024 were kept";
  EXPECT_EQ(quillon_close(descriptor), 0);
}

struct Receiver {
  int descriptor;
  std::atomic<int> received{0};
};

// Body of a receiving thread, as the module has one.
void *receive(void *argument) {
  auto *receiver = static_cast<Receiver *>(argument);
  while (true) {
    uint8_t byte;
    int former;
    tsp_before_yield();
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &former);
    const ssize_t size = quillon_recvfrom(receiver->descriptor, &byte, 1, 0, nullptr, nullptr);
    pthread_setcancelstate(former, nullptr);
    tsp_after_yield();
    if (size < 0) return nullptr;
    receiver->received++;
  }
}

TEST_F(CorePacketTest, BlockedReceiverIsSettledWokenAndCancelled) {
  Receiver receiver{listening_socket(), {}};
  pthread_t thread;
  ASSERT_EQ(quillon_pthread_create(&thread, nullptr, receive, &receiver, "receiver"), 0);
  ref::settle();
  EXPECT_EQ(receiver.received, 0);
  const uint8_t byte = 0;
  for (int i = 0; i < 3; i++) ref::inject_datagram(iod_, &byte, 1);
  ref::settle();
  EXPECT_EQ(receiver.received, 3) << "settle returned while a datagram was waiting";
  pthread_cancel(thread);
  tsp_before_yield();
  EXPECT_EQ(pthread_join(thread, nullptr), 0);
  tsp_after_yield();
  // The lock of the sockets was released on the way out.
  EXPECT_EQ(quillon_close(receiver.descriptor), 0);
  EXPECT_TRUE(ref::wait_for_threads());
}

TEST_F(CorePacketTest, ClosingWakesAReceiver) {
  Receiver receiver{listening_socket(), {}};
  pthread_t thread;
  ASSERT_EQ(quillon_pthread_create(&thread, nullptr, receive, &receiver, "receiver"), 0);
  ref::settle();
  quillon_close(receiver.descriptor);
  ref::settle();
  EXPECT_EQ(ref::thread_count(), 0u);
  pthread_join(thread, nullptr);
}

}  // namespace

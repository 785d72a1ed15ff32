// The forwarder as a process, in namespaces that the test makes: two PEs with a wire between their cores, a VRF each.
// Skipped where namespaces cannot be made.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/mroute.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <fstream>
#include <map>
#include <optional>

#include "forwarder/client.h"
#include "forwarder/descriptor.h"
#include "tests/forwarder/bytes.h"
#include "tests/forwarder/room.h"

extern char **environ;

namespace forwarder {
namespace {

using std::chrono::milliseconds;

constexpr uint32_t kDefaultGroup = 0xEF010101, kDataGroup = 0xEF010800;  // 239.1.1.1, 239.1.8.0
constexpr uint32_t kGroup = 0xE8010101;                                  // 232.1.1.1
constexpr uint32_t kCustomer = 0xC0A8010A;                               // 192.168.1.10
constexpr uint32_t kAllPimRouters = 0xE000000D;
constexpr uint16_t kPort = 5000;

// A forwarder in a namespace, and a control plane of it.
class Pe {
 public:
  Pe(const Rooms &rooms, std::string name, uint32_t source)
      : rooms_(rooms), name_(std::move(name)), source_(source), path_("/tmp/" + rooms.name(name_) + ".sock") {
    start();
    connect();
  }
  ~Pe() {
    client_.reset();
    stop(SIGTERM);
  }

  void start() {
    const std::vector<std::string> words = {FORWARDER, "--control", path_, "--core-netns", rooms_.name(name_)};
    std::vector<char *> arguments;
    for (const std::string &word : words) arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    ASSERT_EQ(posix_spawn(&process_, FORWARDER, nullptr, nullptr, arguments.data(), environ), 0);
  }
  int stop(int signal) {
    ::kill(process_, signal);
    int status = 0;
    ::waitpid(process_, &status, 0);
    return status;
  }
  pid_t process() const { return process_; }

  void connect(bool recovering = false) {
    Client::Callbacks callbacks;
    callbacks.interface = [this](const protocol::Interface &told) { interfaces_[{told.vrf(), told.name()}] = told; };
    callbacks.tunnel_state = [this](const protocol::TunnelState &told) { up_[told.vrf()] = told.up(); };
    callbacks.customer_route = [this](const protocol::CustomerRoute &told) {
      routes_[{told.source(), told.group()}] = told;
    };
    callbacks.datagram = [this](const protocol::Datagram &told) { datagrams_.push_back(told.bytes()); };
    callbacks.counters = [this](Counters counters) { counters_ = std::move(counters); };
    callbacks.log = [](const std::string &) {};
    callbacks.connected = [] {};
    callbacks.disconnected = [this] { lost_ = true; };
    client_.emplace(path_, "test", std::move(callbacks));
    if (recovering) client_->begin_recovery();
    up_.clear();
    ASSERT_TRUE(eventually([this] { return client_->connect(); }));
  }
  void disconnect() { client_.reset(); }

  void put_vrf() {
    protocol::Item item;
    item.mutable_vrf()->set_name("red");
    item.mutable_vrf()->set_netns(rooms_.name(name_ + "red"));
    client_->put(item);
    put_tunnel();
    put_encapsulation(1, kDefaultGroup);
  }
  void put_tunnel() {
    protocol::Item item;
    item.mutable_tunnel()->set_vrf("red");
    item.mutable_tunnel()->set_device("mti2");
    item.mutable_tunnel()->set_source(source_);
    item.mutable_tunnel()->set_destination(kDefaultGroup);
    item.mutable_tunnel()->set_mtu(1376);
    item.mutable_tunnel()->set_up(true);
    client_->put(item);
  }
  void put_encapsulation(uint32_t index, uint32_t group) {
    protocol::Item item;
    item.mutable_encapsulation()->set_vrf("red");
    item.mutable_encapsulation()->set_index(index);
    item.mutable_encapsulation()->set_group(group);
    item.mutable_encapsulation()->set_source(source_);
    client_->put(item);
  }
  void put_flow(uint32_t index) {
    protocol::Item item;
    item.mutable_flow()->set_vrf("red");
    item.mutable_flow()->set_source(kCustomer);
    item.mutable_flow()->set_group(kGroup);
    item.mutable_flow()->set_index(index);
    client_->put(item);
  }
  void put_core_route(uint32_t source, uint32_t group) {
    protocol::Item item;
    item.mutable_core_route()->set_source(source);
    item.mutable_core_route()->set_group(group);
    item.mutable_core_route()->set_vrf("red");
    client_->put(item);
  }

  // Serves the connection until the condition holds.
  bool until(const std::function<bool()> &holds) {
    return eventually([&] {
      pollfd ready{client_->descriptor(), POLLIN, 0};
      if (client_->descriptor() >= 0 && ::poll(&ready, 1, 0) > 0) client_->on_ready();
      return holds();
    });
  }
  bool tunnel_comes_up() {
    return until([this] { return up_["red"]; });
  }
  Counters counters() {
    counters_.reset();
    EXPECT_TRUE(until([this] { return client_->request_counters(); }));
    EXPECT_TRUE(until([this] { return counters_.has_value(); }));
    return counters_.value_or(Counters());
  }
  uint64_t drops(const std::string &reason) {
    for (const protocol::DropCounter &drop : counters().drops)
      if (drop.reason() == reason) return drop.packets();
    return 0;
  }

  const Rooms &rooms_;
  std::string name_;
  uint32_t source_;
  std::string path_;
  pid_t process_ = 0;
  std::optional<Client> client_;
  std::map<std::pair<std::string, std::string>, protocol::Interface> interfaces_;
  std::map<std::string, bool> up_;
  std::map<std::pair<uint32_t, uint32_t>, protocol::CustomerRoute> routes_;
  std::vector<std::string> datagrams_;
  bool lost_ = false;  // the session with the forwarder ended, once or more often
  std::optional<Counters> counters_;
};

sockaddr_in endpoint(uint32_t address, uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  result.sin_addr.s_addr = htonl(address);
  return result;
}

// A socket that hears a group on a device of the namespace that the thread is in.
Descriptor listener(uint32_t group, const char *device) {
  Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_in any = endpoint(0, kPort);
  EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
  const int buffer = 8 << 20;
  EXPECT_EQ(::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer), 0);
  ip_mreqn request{};
  request.imr_multiaddr.s_addr = htonl(group);
  request.imr_ifindex = static_cast<int>(::if_nametoindex(device));
  EXPECT_EQ(::setsockopt(socket.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request), 0);
  return socket;
}

// A socket that sends whole datagrams out of a device.
Descriptor sender(const char *device) {
  Descriptor socket(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW));
  ip_mreqn request{};
  request.imr_ifindex = static_cast<int>(::if_nametoindex(device));
  EXPECT_EQ(::setsockopt(socket.get(), IPPROTO_IP, IP_MULTICAST_IF, &request, sizeof request), 0);
  return socket;
}

void transmit(const Descriptor &socket, const Bytes &datagram, uint32_t to, uint16_t port = 0) {
  const sockaddr_in address = endpoint(to, port);
  ASSERT_EQ(::sendto(socket.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&address),
                     sizeof address),
            static_cast<ssize_t>(datagram.size()));
}

// What a routing daemon does in the namespace of the thread: multicast routing of two devices, and a route between
// them.
Descriptor routing_daemon(const char *from, const char *to, uint32_t source, uint32_t group) {
  Descriptor daemon(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_IGMP));
  const int on = 1;
  EXPECT_EQ(::setsockopt(daemon.get(), IPPROTO_IP, MRT_INIT, &on, sizeof on), 0);
  vifi_t number = 0;
  for (const char *device : {from, to}) {
    vifctl vif{};
    vif.vifc_vifi = number++;
    vif.vifc_flags = VIFF_USE_IFINDEX;
    vif.vifc_threshold = 1;
    vif.vifc_lcl_ifindex = static_cast<int>(::if_nametoindex(device));
    EXPECT_EQ(::setsockopt(daemon.get(), IPPROTO_IP, MRT_ADD_VIF, &vif, sizeof vif), 0);
  }
  mfcctl route{};
  route.mfcc_origin.s_addr = htonl(source);
  route.mfcc_mcastgrp.s_addr = htonl(group);
  route.mfcc_parent = 0;
  route.mfcc_ttls[1] = 1;
  EXPECT_EQ(::setsockopt(daemon.get(), IPPROTO_IP, MRT_ADD_MFC, &route, sizeof route), 0);
  return daemon;
}

// UDP of one customer, numbered.
Bytes numbered(uint32_t number) {
  Bytes udp(12);
  store16(udp, 0, kPort);
  store16(udp, 2, kPort);
  store16(udp, 4, 12);
  store32(udp, 8, number);
  return ipv4(kCustomer, kGroup, 17, udp);
}

// Numbers that have arrived.
std::vector<uint32_t> arrived(const Descriptor &socket) {
  std::vector<uint32_t> numbers;
  uint8_t bytes[2048];
  while (::recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT) >= 4)
    numbers.push_back(uint32_t{bytes[2]} << 8 | bytes[3]);
  return numbers;
}

class NamespacesTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!Rooms::possible()) GTEST_SKIP() << "namespaces and TUN devices cannot be made here";
    for (const char *room : {"pe1", "pe2", "pe1red", "pe2red"}) rooms_.make(room);
    rooms_.join("pe1", "core0", "10.0.0.1/24", "pe2", "core0", "10.0.0.2/24");
    one_.emplace(rooms_, "pe1", 0x0A000001);
    two_.emplace(rooms_, "pe2", 0x0A000002);
    one_->put_vrf();
    two_->put_vrf();
    two_->put_core_route(0x0A000001, kDefaultGroup);
    ASSERT_TRUE(one_->tunnel_comes_up());
    ASSERT_TRUE(two_->tunnel_comes_up());
    ASSERT_TRUE(eventually([this] { return two_->counters().core.at(0).joined(); }));
    rooms_.in("pe1red", [this] { out_ = sender("mti2"); });
    rooms_.in("pe2red", [this] { in_ = listener(kGroup, "mti2"); });
  }
  // Sends packets into the first PE's tunnel; whether each arrives at the second one, once and in order.
  void carries(uint32_t from, uint32_t to) {
    for (uint32_t number = from; number < to; number++) transmit(out_, numbered(number), kGroup);
    std::vector<uint32_t> numbers;
    eventually([&] {
      const std::vector<uint32_t> more = arrived(in_);
      numbers.insert(numbers.end(), more.begin(), more.end());
      return numbers.size() >= to - from;
    });
    std::vector<uint32_t> expected;
    for (uint32_t number = from; number < to; number++) expected.push_back(number);
    EXPECT_EQ(numbers, expected);
  }

  Rooms rooms_;
  std::optional<Pe> one_, two_;
  Descriptor out_, in_;
};

TEST_F(NamespacesTest, CarriesOnTheDefaultAndOnADataMdt) {
  carries(0, 300);
  two_->put_core_route(0x0A000001, kDataGroup);
  one_->put_encapsulation(2, kDataGroup);
  one_->put_flow(2);
  ASSERT_TRUE(one_->until([this] { return one_->counters().flows.size() == 1; }));
  ASSERT_TRUE(two_->until([this] { return two_->counters().core.size() == 2; }));
  carries(300, 600);
  const Counters sent = one_->counters(), received = two_->counters();
  EXPECT_EQ(sent.flows[0].core_group(), kDataGroup);
  EXPECT_EQ(sent.flows[0].packets(), 300u);
  EXPECT_EQ(sent.flows[0].bytes(), 300u * 32);
  for (const protocol::CoreCounters &core : received.core) {
    EXPECT_TRUE(core.joined());
    EXPECT_EQ(core.interface(), "core0");
    EXPECT_GE(core.packets(), 300u) << "and the kernel's own, such as IGMP";
  }
  EXPECT_TRUE(sent.drops.empty());
}

TEST_F(NamespacesTest, GoesOnWithoutAControlPlaneAndSweepsWhenTheNextOneHasRecovered) {
  two_->put_core_route(0x0A000001, kDataGroup);
  one_->put_encapsulation(2, kDataGroup);
  one_->put_flow(2);
  ASSERT_EQ(one_->counters().flows.size(), 1u);
  ASSERT_EQ(two_->counters().core.size(), 2u);
  one_->disconnect();
  two_->disconnect();
  carries(0, 100);
  // The next one asks for the default MDT first, as a control plane does that has not seen the flow's rate yet.
  one_->connect(true);
  two_->connect();
  ASSERT_TRUE(one_->until([this] { return one_->client_->held() > 0; }));
  one_->put_vrf();
  two_->put_vrf();
  two_->put_core_route(0x0A000001, kDataGroup);
  one_->put_flow(1);
  ASSERT_TRUE(one_->tunnel_comes_up());
  EXPECT_EQ(one_->counters().flows.at(0).index(), 2u) << "it is recovering";
  ASSERT_TRUE(two_->until([this] { return two_->counters().core.size() == 1; })) << "the default group is not claimed";
  carries(100, 200);
  one_->client_->end_recovery();
  EXPECT_EQ(one_->counters().flows.at(0).index(), 1u);
}

TEST_F(NamespacesTest, HostilePacketsAreCountedAndDropped) {
  rooms_.in("pe1", [] {
    const Descriptor core = sender("core0");
    const Bytes good = core_packet(0x0A000001, kDefaultGroup, numbered(1));
    Bytes options = good, ipv6 = good, cut_short = good;
    options[20] = 0x80;
    ipv6[24] = 0x60;
    cut_short.resize(30);
    transmit(core, options, kDefaultGroup);
    transmit(core, ipv6, kDefaultGroup);
    transmit(core, cut_short, kDefaultGroup);
    transmit(core, core_packet(0x0A000001, kDefaultGroup, good), kDefaultGroup);
    transmit(core, core_packet(0x0A000001, 0x0A000002, numbered(2)), 0x0A000002);
  });
  for (const char *reason : {"gre-options", "not-ipv4", "too-short", "looped", "unknown-group"})
    EXPECT_TRUE(eventually([&] { return two_->drops(reason) == 1; })) << reason;
  carries(0, 10);
}

TEST_F(NamespacesTest, DatagramsOfTheControlPlaneCrossTheTunnel) {
  Bytes udp(8 + 16);
  store16(udp, 0, 3232);
  store16(udp, 2, 3232);
  store16(udp, 4, 24);
  udp[8] = 1;
  const Bytes join = ipv4(0x0A000001, kAllPimRouters, 17, udp, 0xC0);
  ASSERT_TRUE(one_->client_->send("red", join));
  ASSERT_TRUE(two_->until([this] { return !two_->datagrams_.empty(); }));
  const std::string &got = two_->datagrams_[0];
  ASSERT_EQ(got.size(), join.size());
  EXPECT_EQ(Bytes(got.begin() + 12, got.end()), Bytes(join.begin() + 12, join.end()));
  EXPECT_TRUE(one_->datagrams_.empty()) << "a PE does not hear itself";
}

// Put together from fragments it is longer than what the forwarder can tell in one message.
TEST_F(NamespacesTest, ADatagramTooLongToBeToldCostsNoSession) {
  rooms_.in("pe1red", [] {
    const Descriptor customer(::socket(AF_INET, SOCK_DGRAM, 0));
    ip_mreqn tunnel{};
    tunnel.imr_ifindex = static_cast<int>(::if_nametoindex("mti2"));
    ASSERT_EQ(::setsockopt(customer.get(), IPPROTO_IP, IP_MULTICAST_IF, &tunnel, sizeof tunnel), 0);
    transmit(customer, Bytes(65507), kAllPimRouters, kPort);
  });
  const Bytes join = ipv4(0x0A000001, kAllPimRouters, 17, {0, 9, 0, 9, 0, 8, 0, 0}, 0xC0);
  ASSERT_TRUE(one_->client_->send("red", join));
  ASSERT_TRUE(two_->until([this] { return !two_->datagrams_.empty(); }));
  EXPECT_EQ(two_->datagrams_[0].size(), join.size());
  EXPECT_FALSE(two_->lost_);
}

TEST_F(NamespacesTest, TellsOfCustomerRoutesAndTheirBytes) {
  rooms_.make("host");
  rooms_.join("pe1red", "c1", "192.168.1.1/24", "host", "eth0", "192.168.1.10/24");
  Descriptor daemon;
  rooms_.in("pe1red", [&daemon] { daemon = routing_daemon("c1", "mti2", kCustomer, kGroup); });
  const std::pair key{kCustomer, kGroup};
  ASSERT_TRUE(one_->until([&] { return one_->routes_[key].present(); }));
  EXPECT_EQ(one_->routes_[key].incoming(), "c1");
  ASSERT_EQ(one_->routes_[key].outgoing_size(), 1);
  EXPECT_EQ(one_->routes_[key].outgoing(0), "mti2");
  EXPECT_EQ(one_->routes_[key].rpf_neighbor(), kCustomer) << "directly connected";
  rooms_.in("host", [this] { out_ = sender("eth0"); });
  carries(0, 50);
  ASSERT_EQ(one_->counters().routes.size(), 1u);
  EXPECT_EQ(one_->counters().routes[0].bytes(), 50u * 32);
  rooms_.ip("pe1red", "route add 192.168.1.10/32 via 192.168.1.7 dev c1");
  EXPECT_TRUE(one_->until([&] { return one_->routes_[key].rpf_neighbor() == 0xC0A80107; }))
      << "another way to the source";
  daemon = Descriptor();
  EXPECT_TRUE(one_->until([&] { return !one_->routes_[key].present(); }));
}

TEST_F(NamespacesTest, FollowsANamespaceThatIsMadeAnew) {
  rooms_.remove("pe2red");
  ASSERT_TRUE(two_->until([this] { return !two_->up_["red"]; }));
  rooms_.make("pe2red");
  ASSERT_TRUE(two_->tunnel_comes_up());
  rooms_.in("pe2red", [this] { in_ = listener(kGroup, "mti2"); });
  carries(0, 50);
}

TEST_F(NamespacesTest, AForwarderThatIsStartedAnewIsToldEverything) {
  two_->stop(SIGKILL);
  ASSERT_TRUE(two_->until([this] { return two_->client_->descriptor() < 0; }));
  two_->up_.clear();
  two_->start();
  ASSERT_TRUE(eventually([this] { return two_->client_->connect(); }));
  ASSERT_TRUE(two_->tunnel_comes_up());
  in_ = Descriptor();
  rooms_.in("pe2red", [this] { in_ = listener(kGroup, "mti2"); });
  ASSERT_TRUE(eventually([this] { return two_->counters().core.at(0).joined(); }));
  carries(0, 50);
}

TEST_F(NamespacesTest, FollowsTheCoreLink) {
  rooms_.ip("pe2", "link set core0 down");
  ASSERT_TRUE(two_->until([this] { return !two_->interfaces_[{"", "core0"}].up(); }));
  rooms_.ip("pe2", "link set core0 up");
  ASSERT_TRUE(two_->until([this] { return two_->interfaces_[{"", "core0"}].up(); }));
  EXPECT_TRUE(eventually([this] { return two_->counters().core.at(0).joined(); }));
  carries(0, 50);
}

// A routing daemon in the core's namespace has a second core link: it hears this PE as it would hear any sender.
TEST_F(NamespacesTest, ARoutingDaemonOfTheCoreCarriesOnWhatThePeSends) {
  rooms_.make("pe3");
  rooms_.join("pe1", "core1", "10.0.1.1/24", "pe3", "core0", "10.0.1.3/24");
  Descriptor daemon, heard, membership;
  rooms_.in("pe1", [&daemon] { daemon = routing_daemon("core0", "core1", 0x0A000001, kDefaultGroup); });
  rooms_.in("pe3", [&heard, &membership] {
    heard = Descriptor(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_GRE));
    membership = listener(kDefaultGroup, "core0");
  });
  uint32_t number = 0;
  uint8_t bytes[2048];
  EXPECT_TRUE(eventually([&] {
    transmit(out_, numbered(number++), kGroup);
    return ::recv(heard.get(), bytes, sizeof bytes, MSG_DONTWAIT) > 0;
  }));
}

// Two links to the same network: the routes do not say which one, the tunnel's source does.
TEST_F(NamespacesTest, MembershipsStandOnTheLinkOfTheTunnelsSource) {
  rooms_.join("pe1", "core1", "10.0.0.11/24", "pe2", "core1", "10.0.0.12/24");
  const auto stands_on = [this](const char *link) {
    return eventually([&] { return two_->counters().core.at(0).interface() == link; });
  };
  EXPECT_TRUE(stands_on("core0"));
  two_->source_ = 0x0A00000C;
  two_->put_tunnel();
  EXPECT_TRUE(stands_on("core1"));
  rooms_.ip("pe2", "link set core1 down");
  EXPECT_TRUE(stands_on("core0")) << "a link that is down carries nothing";
}

TEST_F(NamespacesTest, LargePacketsCrossASmallCore) {
  rooms_.ip("pe1", "link set core0 mtu 600");
  ASSERT_TRUE(one_->until([this] { return one_->interfaces_[{"", "core0"}].mtu() == 600; }));
  Bytes udp(1300);
  store16(udp, 0, kPort);
  store16(udp, 2, kPort);
  store16(udp, 4, 1300);
  transmit(out_, ipv4(kCustomer, kGroup, 17, udp), kGroup);
  EXPECT_TRUE(eventually([this] { return arrived(in_).size() == 1; }));
  Bytes whole = ipv4(kCustomer, kGroup, 17, udp);
  whole[6] = 0x40;
  transmit(out_, whole, kGroup);
  EXPECT_TRUE(eventually([this] { return one_->drops("too-big") == 1; })) << "it must not be cut";
}

TEST_F(NamespacesTest, KeepsThreeCapabilitiesAndNoMore) {
  std::ifstream status("/proc/" + std::to_string(one_->process()) + "/status");
  std::map<std::string, std::string> values;
  for (std::string name, value; status >> name && std::getline(status, value);) values[name] = value;
  constexpr uint64_t needed = 1u << 12 | 1u << 13 | 1u << 21;  // net_admin, net_raw, sys_admin
  for (const char *set : {"CapPrm:", "CapEff:"}) EXPECT_EQ(std::stoull(values[set], nullptr, 16), needed) << set;
  EXPECT_EQ(std::stoull(values["CapBnd:"], nullptr, 16) & ~needed, 0u);
  EXPECT_EQ(std::stoi(values["NoNewPrivs:"]), 1);
}

TEST_F(NamespacesTest, AControlPlaneOfAnotherVersionIsToldWhy) {
  one_->disconnect();
  const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  one_->path_.copy(address.sun_path, one_->path_.size());
  ASSERT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  protocol::Request hello;
  hello.mutable_hello()->set_version(kProtocolVersion + 1);
  const std::string bytes = hello.SerializeAsString();
  const std::string framed = std::string(3, '\0') + static_cast<char>(bytes.size()) + bytes;
  ASSERT_EQ(::send(socket.get(), framed.data(), framed.size(), MSG_NOSIGNAL), static_cast<ssize_t>(framed.size()));
  char answer[512];
  const ssize_t size = ::recv(socket.get(), answer, sizeof answer, 0);
  ASSERT_GT(size, 4);
  protocol::Report report;
  ASSERT_TRUE(report.ParseFromArray(answer + 4, static_cast<int>(size - 4)));
  EXPECT_NE(report.refusal().reason().find("version"), std::string::npos);
  EXPECT_EQ(::recv(socket.get(), answer, sizeof answer, 0), 0);
}

TEST_F(NamespacesTest, StrangersOnTheControlSocketDoNoHarm) {
  const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
  const std::string garbage("\xFF\xFF\xFF\xFFgarbage", 11);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  one_->path_.copy(address.sun_path, one_->path_.size());
  one_->disconnect();
  ASSERT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  ASSERT_EQ(::send(socket.get(), garbage.data(), garbage.size(), MSG_NOSIGNAL), 11);
  char byte;
  EXPECT_EQ(::recv(socket.get(), &byte, 1, 0), 0) << "the forwarder ends the connection";
  carries(0, 50);
}

}  // namespace
}  // namespace forwarder

// Data MDTs: Join entries taken in, flows checked and switched over, announcements aged, choices restored, each beside
// the floor that its work cannot go below.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <lmdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/bench_world.h"
#include "platform/reference/croute.h"
#include "platform/reference/im.h"
#include "platform/reference/pss.h"
#include "platform/reference/runtime.h"
#include "platform/reference/testing/services.h"
#include "platform/sockets.h"
#include "routing/pim/mvpn/mvpn_datamdt_age_internal.h"
#include "routing/pim/mvpn/mvpn_datamdt_join_internal.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_ha_internal.h"
#include "routing/pim/mvpn/mvpn_wire.h"

namespace {

using Datagram = std::vector<uint8_t>;

constexpr uint32_t kHeader = 28;  // IPv4 and UDP
constexpr uint32_t kEntry = 16;
constexpr uint32_t kEntriesOfDatagram = 92;  // what a packet of 1500 bytes holds
constexpr ip_addr_t kPeer = 0x0A000002;
constexpr ip_addr_t kDataGroup = 0xEF640000;
constexpr ip_addr_t kCustomerGroup = 0xE1000000;
constexpr ip_addr_t kCustomerSource = 0xAC100000;

// Announcements 0 to n - 1 as a peer sends them. variant: which data group each is on.
std::vector<Datagram> joins(uint32_t n, uint32_t variant) {
  std::vector<Datagram> out;
  for (uint32_t first = 0; first < n; first += kEntriesOfDatagram) {
    const uint32_t count = std::min(kEntriesOfDatagram, n - first);
    Datagram datagram(kHeader + size_t{count} * kEntry);
    datagram[0] = 0x45;
    datagram[9] = 17;
    store_be32(&datagram[12], kPeer);
    store_be32(&datagram[16], MVPN_ALL_PIM_ROUTERS);
    store_be16(&datagram[22], MVPN_DATA_MDT_UDP_PORT);
    for (uint32_t i = 0; i < count; i++) {
      uint8_t *entry = &datagram[kHeader + size_t{i} * kEntry];
      entry[0] = 1;
      store_be16(entry + 1, kEntry);
      store_be32(entry + 4, kCustomerSource + (first + i) * 7919u % 0xFFFFF);
      store_be32(entry + 8, kCustomerGroup + (first + i) % 1000);
      store_be32(entry + 12, kDataGroup + (first + i + variant) % 1000);
    }
    out.push_back(std::move(datagram));
  }
  return out;
}

// VRFs with their default MDTs up and data ranges configured.
class DataWorld {
 public:
  explicit DataWorld(uint32_t vrfs = 1) : vrfs_(vrfs) {
    world_.add_vrfs(0, vrfs);
    world_.end_replay();
    world_.run_until([this] {
      for (uint32_t number = 0; number < vrfs_; number++)
        if (mvpn(number)->mti_status != MVPN_MTI_UP) return false;
      return true;
    });
    for (uint32_t number = 0; number < vrfs; number++) {
      const std::string prefix = "239.100." + std::to_string(number * 4) + ".0/22";
      world_.command("mdt_data_cmd", number, {{"<prefix>", prefix}, {"threshold", ""}, {"<value>", "1"}});
      ref::create_interface("customer" + std::to_string(number), 10 + number, 0x0B000001 + (number << 8), true);
    }
    idle();
  }
  static mvpn_cibtype *mvpn(uint32_t number = 0) { return bench::World::mvpn(number); }

  // Until the route work is done and acknowledged.
  void idle() { world_.idle(); }
  template <typename Done>
  void run_until(Done done) {
    world_.run_until(done);
  }

  static void take(const std::vector<Datagram> &datagrams) {
    const auto iod = static_cast<uint16_t>(mvpn()->mti_iod);
    for (const Datagram &datagram : datagrams) {
      std::memcpy(mvpn_recv_data_mdt_join_pkt, datagram.data(), datagram.size());
      mvpn_process_data_mdt_join(iod, datagram.size());
    }
  }

  // Flows of a VRF from its sites into the MVPN.
  void add_flows(uint32_t number, uint32_t count) {
    for (uint32_t i = 0; i < count; i++) {
      ref::CustomerRoute route;
      route.addrs = {kCustomerSource + i, kCustomerGroup + i % 1000, MROUTE_HOST_LEN, MROUTE_HOST_LEN, {}};
      route.iif = "customer" + std::to_string(number);
      route.rpf_neighbor = 0x0B000002;
      route.to_mvpn = true;
      flows_.push_back({number, ref::set_customer_route("vrf" + std::to_string(number), route)});
      if (flows_.back().route == nullptr) std::abort();
    }
    idle();
  }
  void set_bytes(uint64_t bytes_last_minute) {
    for (const Flow &flow : flows_)
      ref::set_customer_bytes("vrf" + std::to_string(flow.vrf), flow.route->addrs, bytes_last_minute);
  }
  void check() {
    for (const Flow &flow : flows_) mvpn_stats_check(mvpn(flow.vrf), &flow.route->addrs, flow.route);
  }
  void expire() {
    for (uint32_t number = 0; number < vrfs_; number++) mvpn_process_data_mdt_switchover_expiry(mvpn(number));
  }
  size_t active() const {
    return static_cast<size_t>(std::count_if(flows_.begin(), flows_.end(), [](const Flow &flow) {
      return flow.route->send_join_info != nullptr && flow.route->send_join_info->state == MVPN_DATA_MDT_STATE_ACTIVE;
    }));
  }
  // Everything back on the default MDT.
  void switch_back() {
    set_bytes(0);
    check();
    check();
    idle();
    if (active() != 0) std::abort();
  }
  struct Flow {
    uint32_t vrf;
    pim_route *route;
  };
  const std::vector<Flow> &flows() const { return flows_; }

 private:
  bench::World world_;
  uint32_t vrfs_;
  std::vector<Flow> flows_;
};

constexpr uint64_t kFast = 10000000;  // bytes in the last minute, over every threshold

void sizes(benchmark::internal::Benchmark *b) { b->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond); }

// --------------------------------------------------------------------------------------------------- Join entries in

void joins_refresh(benchmark::State &state) {
  const DataWorld world;
  const auto datagrams = joins(static_cast<uint32_t>(state.range(0)), 0);
  DataWorld::take(datagrams);
  for (auto _ : state) DataWorld::take(datagrams);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(joins_refresh)->Apply(sizes);

void joins_new(benchmark::State &state) {
  const DataWorld world;
  const auto datagrams = joins(static_cast<uint32_t>(state.range(0)), 0);
  for (auto _ : state) {
    DataWorld::take(datagrams);
    state.PauseTiming();
    if (DataWorld::mvpn()->data_mdt_recv_count != state.range(0)) state.SkipWithError("records are missing");
    mvpn_destroy_data_mdt_recv_cache(DataWorld::mvpn(), 0);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(joins_new)->Apply(sizes);

void joins_replaced(benchmark::State &state) {
  const DataWorld world;
  const auto n = static_cast<uint32_t>(state.range(0));
  const std::vector<Datagram> variants[] = {joins(n, 0), joins(n, 1)};
  DataWorld::take(variants[0]);
  uint32_t turn = 0;
  for (auto _ : state) DataWorld::take(variants[++turn % 2]);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(joins_replaced)->Apply(sizes);

// Floor: the same bytes parsed, and one time stamp written per entry in a flat table with linear probing.
class FlatTable {
 public:
  explicit FlatTable(uint32_t n) {
    size_t size = 1;
    while (size < size_t{n} * 2) size *= 2;
    slots_.resize(size);
  }
  void update(ip_addr_t source, ip_addr_t group, ip_addr_t peer, ip_addr_t data_group, zeph_timestamp expiry) {
    const uint64_t hash = (uint64_t{source} << 32 | group) * 0x9E3779B97F4A7C15u ^ peer;
    size_t at = (hash >> 20) & (slots_.size() - 1);
    while (slots_[at].used && (slots_[at].source != source || slots_[at].group != group || slots_[at].peer != peer))
      at = (at + 1) & (slots_.size() - 1);
    slots_[at] = {true, source, group, peer, data_group, expiry};
  }

 private:
  struct Slot {
    bool used = false;
    ip_addr_t source = 0, group = 0, peer = 0, data_group = 0;
    zeph_timestamp expiry{};
  };
  std::vector<Slot> slots_;
};

void floor_joins_flat_table(benchmark::State &state) {
  const DataWorld world;
  const auto n = static_cast<uint32_t>(state.range(0));
  const auto datagrams = joins(n, 0);
  FlatTable table(n);
  for (auto _ : state)
    for (const Datagram &datagram : datagrams) {
      std::memcpy(mvpn_recv_data_mdt_join_pkt, datagram.data(), datagram.size());
      for (size_t at = kHeader; at + kEntry <= datagram.size(); at += kEntry) {
        const uint8_t *entry = mvpn_recv_data_mdt_join_pkt + at;
        zeph_timestamp now{};
        zeph_sys_mclock_get(&now);
        table.update(load_be32(entry + 4), load_be32(entry + 8), kPeer, load_be32(entry + 12), now);
      }
    }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(floor_joins_flat_table)->Apply(sizes);

// Through the socket and the module's thread; an item is one entry.
void joins_through_socket(benchmark::State &state) {
  DataWorld world;
  const auto datagrams = joins(static_cast<uint32_t>(state.range(0)), 0);
  const im_iod_t iod = DataWorld::mvpn()->mti_iod;
  for (auto _ : state) {
    const uint32_t target = DataWorld::mvpn()->data_mdt_recv_join_count + static_cast<uint32_t>(state.range(0));
    for (const Datagram &datagram : datagrams) ref::inject_datagram(iod, datagram.data(), datagram.size());
    world.run_until([target] { return DataWorld::mvpn()->data_mdt_recv_join_count == target; });
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(joins_through_socket)
    ->Arg(1000)
    ->Arg(10000)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Floor: the same datagrams queued on a socket that nobody else reads, and drained.
void floor_socket_drain(benchmark::State &state) {
  ref::reset();
  const auto datagrams = joins(static_cast<uint32_t>(state.range(0)), 0);
  const im_iod_t iod = ref::create_interface("tunnel", VRF_CONTEXT_ID_DEFAULT, kPeer, true);
  tcp_setup("bench", "/quillon/mq/bench");
  const int socket = quillon_socket(QUILLON_AF_INET, QUILLON_SOCK_DGRAM, 0);
  const uint32_t all_bits = 0xFFFFFFFF;
  const uint8_t any_context[4] = {0, 0, 0xFF, 0xFF};
  quillon_setsockopt(socket, QUILLON_IPPROTO_UDP, QUILLON_IP_HDRINCL, &all_bits, 4);
  quillon_setsockopt(socket, QUILLON_IPPROTO_IP, QUILLON_IP_CONTEXT, any_context, 4);
  quillon_sockaddr_in any{};
  any.family = QUILLON_AF_INET;
  store_be16(&any.port, MVPN_DATA_MDT_UDP_PORT);
  if (quillon_bind(socket, &any, sizeof any) != 0) state.SkipWithError("bind");
  for (auto _ : state) {
    for (const Datagram &datagram : datagrams) ref::inject_datagram(iod, datagram.data(), datagram.size());
    for (size_t i = 0; i < datagrams.size(); i++) {
      quillon_sockaddr_in from{};
      uint32_t length = sizeof from;
      const ssize_t n =
          quillon_recvfrom(socket, mvpn_recv_data_mdt_join_pkt, MVPN_RECV_JOIN_PACKET_SIZE, 0, &from, &length);
      benchmark::DoNotOptimize(n);
    }
  }
  quillon_close(socket);
  ref::reset();
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(floor_socket_drain)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

// A UDP socket of the kernel's on loopback that sends to itself.
class LoopbackSocket {
 public:
  LoopbackSocket() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto *at = reinterpret_cast<sockaddr *>(&address);
    works_ = socket_ >= 0 && bind(socket_, at, size) == 0 && getsockname(socket_, at, &size) == 0 &&
             connect(socket_, at, size) == 0;
  }
  ~LoopbackSocket() {
    if (socket_ >= 0) close(socket_);
  }
  LoopbackSocket(const LoopbackSocket &) = delete;
  LoopbackSocket &operator=(const LoopbackSocket &) = delete;

  bool works() const { return works_; }
  bool queue(const Datagram &datagram) const { return send(socket_, datagram.data(), datagram.size(), 0) >= 0; }
  template <size_t count>
  int drain(std::array<mmsghdr, count> &messages) const {
    return recvmmsg(socket_, messages.data(), count, MSG_DONTWAIT, nullptr);
  }

 private:
  int socket_;
  bool works_ = false;
};

double thread_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Floor: the same datagrams in a socket of the kernel's, taken out with recvmmsg and not looked at. Only that is timed;
// an item is one entry.
void floor_recvmmsg(benchmark::State &state) {
  constexpr size_t kBatch = 32;  // fits into a socket's buffer
  const Datagram datagram = joins(kEntriesOfDatagram, 0).front();
  const LoopbackSocket socket;
  std::array<std::array<uint8_t, 2048>, kBatch> room;
  std::array<iovec, kBatch> places{};
  std::array<mmsghdr, kBatch> messages{};
  for (size_t i = 0; i < kBatch; i++) {
    places[i] = {room[i].data(), room[i].size()};
    messages[i].msg_hdr.msg_iov = &places[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  for (auto _ : state) {
    for (size_t i = 0; i < kBatch; i++)
      if (!socket.works() || !socket.queue(datagram)) return state.SkipWithError("no UDP on loopback");
    const double start = thread_seconds();
    const int taken = socket.drain(messages);
    state.SetIterationTime(thread_seconds() - start);
    if (taken != kBatch) return state.SkipWithError("datagrams were lost");
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBatch * kEntriesOfDatagram));
}
BENCHMARK(floor_recvmmsg)->UseManualTime()->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------------------- checks and switchovers

void periodic_checks(benchmark::State &state) {
  DataWorld world;
  world.add_flows(0, static_cast<uint32_t>(state.range(0)));
  for (auto _ : state) world.check();
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(periodic_checks)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

// A directory of the store, gone at the end.
class Directory {
 public:
  Directory() {
    char path[] = "/tmp/mvpn-bench-XXXXXX";
    if (mkdtemp(path) == nullptr) std::abort();
    path_ = path;
  }
  ~Directory() { std::filesystem::remove_all(path_); }
  Directory(const Directory &) = delete;
  Directory &operator=(const Directory &) = delete;
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

// From the check that finds a flow over its threshold to its new encapsulation, the stored choice included. The store
// is on disk when the second argument is 1, and the pass is one transaction, as in a turn of the host's loop.
void switchovers(benchmark::State &state) {
  const Directory directory;
  DataWorld world;
  if (state.range(1) != 0 && !ref::pss_use_directory(directory.path())) state.SkipWithError("the store does not open");
  world.add_flows(0, static_cast<uint32_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    world.set_bytes(kFast);
    ref::pss_flush();
    state.ResumeTiming();
    world.check();
    world.expire();
    ref::pss_flush();
    state.PauseTiming();
    if (world.active() != world.flows().size()) state.SkipWithError("flows were not switched over");
    world.switch_back();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(switchovers)
    ->Args({100, 0})
    ->Args({1000, 0})
    ->Args({100, 1})
    ->Args({1000, 1})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Floor: as many records of the same size written to LMDB in one transaction.
void floor_lmdb(benchmark::State &state) {
  const Directory directory;
  MDB_env *environment = nullptr;
  MDB_dbi database = 0;
  MDB_txn *transaction = nullptr;
  const auto must = [&state](int error) {
    if (error != 0) state.SkipWithError(mdb_strerror(error));
  };
  must(mdb_env_create(&environment));
  must(mdb_env_set_mapsize(environment, 64 << 20));
  must(mdb_env_open(environment, directory.path().c_str(), MDB_NOMETASYNC, 0600));
  must(mdb_txn_begin(environment, nullptr, 0, &transaction));
  must(mdb_dbi_open(transaction, nullptr, MDB_CREATE, &database));
  must(mdb_txn_commit(transaction));
  pim_cibtype pcib{};
  uint8_t value[32];
  const mvpn_ha_encap_info_t record{2, kDataGroup};
  const uint32_t value_size = mvpn_ha_encap_info_get_tlv_sz(&record);
  must(mvpn_ha_make_encap_info_pss_value({2, kDataGroup}, value, sizeof value));
  for (auto _ : state) {
    must(mdb_txn_begin(environment, nullptr, 0, &transaction));
    for (uint32_t i = 0; i < state.range(0); i++) {
      const mvpn_mdt_route_addrs addrs{kCustomerSource + i, kCustomerGroup + i % 1000, 32, 32, {}};
      uint8_t key[PSS_KEY_SIZE];
      mvpn_ha_make_encap_info_pss_key(&pcib, &addrs, key);
      MDB_val k{sizeof key, key}, v{value_size, value};
      must(mdb_put(transaction, database, &k, &v, 0));
    }
    must(mdb_txn_commit(transaction));
  }
  mdb_env_close(environment);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(floor_lmdb)->Arg(100)->Arg(1000)->UseRealTime()->Unit(benchmark::kMillisecond);

// ------------------------------------------------------------------------------------------------------------ ageing

// One pass over 100000 records of which none, or all, have expired.
void ageing_pass(benchmark::State &state) {
  DataWorld world;
  const bool expired = state.range(1) != 0;
  const auto datagrams = joins(static_cast<uint32_t>(state.range(0)), 0);
  DataWorld::mvpn()->data_mdt_timeout = expired ? 0 : 100000;
  DataWorld::take(datagrams);
  double longest = 0, yields = 0;
  for (auto _ : state) {
    {
      bench::YieldMeter meter;
      mvpn_age_route_by_vpn(DataWorld::mvpn());
      meter.mark();
      longest = std::max(longest, meter.longest_us());
      yields = meter.yields();
    }
    state.PauseTiming();
    if (DataWorld::mvpn()->data_mdt_recv_count != (expired ? 0u : state.range(0)))
      state.SkipWithError("the pass removed what it should not, or left what it should remove");
    if (expired) DataWorld::take(datagrams);
    state.ResumeTiming();
  }
  state.counters["yields"] = yields;
  state.counters["longest_us"] = longest;
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ageing_pass)->Args({100000, 0})->Args({100000, 1})->UseRealTime()->Unit(benchmark::kMillisecond);

// ----------------------------------------------------------------------------------------------------------- restore

// 8000 stored choices of 8 VRFs: announced at once, taken up by the flows as they are rebuilt, and swept at the end.
void restore(benchmark::State &state) {
  constexpr uint32_t kVrfs = 8;
  constexpr uint32_t kFlows = 1000;
  DataWorld world(kVrfs);
  for (uint32_t number = 0; number < kVrfs; number++) world.add_flows(number, kFlows);
  const int was_switchover = pim_sup_switchover;
  pim_sup_switchover = 1;
  for (auto _ : state) {
    state.PauseTiming();
    world.set_bytes(kFast);
    for (size_t i = 0; i < world.flows().size(); i++) {
      const auto &flow = world.flows()[i];
      mvpn_ha_add_encap_info(DataWorld::mvpn(flow.vrf), &flow.route->addrs,
                             {static_cast<uint16_t>(MVPN_ENCAP_INDEX_FIRST_DATA + i % kFlows),
                              kDataGroup + (flow.vrf << 10) + static_cast<uint32_t>(i % kFlows)});
    }
    state.ResumeTiming();
    mvpn_ha_recovery_start();
    for (uint32_t number = 0; number < kVrfs; number++)
      mvpn_unconditional_announce_data_mdt_join(DataWorld::mvpn(number));
    world.check();
    world.expire();
    mvpn_ha_recovery_stop();
    state.PauseTiming();
    for (size_t i = 0; i < world.flows().size(); i++)
      if (world.flows()[i].route->send_join_info->encap_index != MVPN_ENCAP_INDEX_FIRST_DATA + i % kFlows)
        state.SkipWithError("a flow did not get its stored choice back");
    world.switch_back();
    state.ResumeTiming();
  }
  pim_sup_switchover = was_switchover;
  state.SetItemsProcessed(state.iterations() * kVrfs * kFlows);
}
BENCHMARK(restore)->UseRealTime()->Unit(benchmark::kMillisecond);

// ------------------------------------------------------------------------------------------------------- diagnostics

// A debug message with four arguments while nobody listens, while the event history does; and no message.
void diagnostics_message(benchmark::State &state) {
  const DataWorld world;
  const pim_cibtype *pcib = bench::World::pcib(0);
  const auto was = pim_glb_trace_buffers[MVPN_TRACE_SLOT];
  pim_glb_trace_buffers[MVPN_TRACE_SLOT] = state.range(0) != 0;
  uint32_t i = 0;
  for (auto _ : state) {
    MVPN_DEBUG(pcib, "Creating new receive cache mapping c_src %u, c_grp %u, p_src %u p_grp %u", i, i, i, i);
    benchmark::DoNotOptimize(++i);
  }
  pim_glb_trace_buffers[MVPN_TRACE_SLOT] = was;
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(diagnostics_message)->Arg(0)->Arg(1);

void floor_no_message(benchmark::State &state) {
  uint32_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(++i);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(floor_no_message);

}  // namespace

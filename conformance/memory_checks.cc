// Slabs, tracked buffers, timers and clocks, messages.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "conformance/runner.h"

using namespace conformance;

namespace {

bool is_aligned(const void *at) { return reinterpret_cast<uintptr_t>(at) % alignof(std::max_align_t) == 0; }

// The size of a type is a multiple of what it has to be aligned to.
bool is_aligned_for(size_t size, const void *at) {
  const size_t alignment = std::min(size & -size, alignof(std::max_align_t));
  return reinterpret_cast<uintptr_t>(at) % alignment == 0;
}

bool is_zero(const void *at, size_t size) {
  const auto *bytes = static_cast<const uint8_t *>(at);
  return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

slab_handle make_slab(size_t size) {
  slab_attr attributes;
  platform.slab_set_attr(&attributes, 1, 0);
  char name[] = "contract";
  slab_handle slab = platform.slab_create(size, 4, &attributes, name);
  std::memset(name, 'x', sizeof name - 1);  // the name is copied
  return slab;
}

}  // namespace

CHECK(mem, "slab objects are distinct, aligned and zero-filled, also those that were used before") {
  for (const size_t size : {size_t{1}, size_t{24}, size_t{32}, size_t{4100}}) {
    slab_handle slab = make_slab(size);
    REQUIRE(slab != nullptr);
    for (int round = 0; round < 2; round++) {
      std::vector<void *> objects(40);
      for (void *&object : objects) {
        object = platform.slab_calloc(slab);
        REQUIRE(object != nullptr);
        EXPECT(is_aligned_for(size, object));
        EXPECT(is_zero(object, size));
        std::memset(object, 0xA5, size);
      }
      EXPECT_EQUAL(std::set<void *>(objects.begin(), objects.end()).size(), objects.size());
      for (void *object : objects) platform.slab_free(slab, object);
    }
    platform.slab_destroy(&slab);
    EXPECT(slab == nullptr);
  }
}

CHECK(mem, "an object outlives its slab's handle and is given back without it") {
  slab_handle slab = make_slab(64);
  REQUIRE(slab != nullptr);
  auto *object = static_cast<uint8_t *>(platform.slab_calloc(slab));
  REQUIRE(object != nullptr);
  std::memset(object, 7, 64);
  platform.slab_destroy(&slab);
  platform.slab_destroy(&slab);  // a handle of 0 is ignored
  slab_handle next = make_slab(64);
  auto *other = static_cast<uint8_t *>(platform.slab_calloc(next));
  REQUIRE(other != nullptr);
  EXPECT(other != object);
  EXPECT(std::count(object, object + 64, 7) == 64);
  platform.slab_free(nullptr, object);
  platform.slab_free(next, other);
  platform.slab_destroy(&next);
}

CHECK(mem, "tracked buffers hold what was asked for; freeing null is nothing") {
  std::vector<std::pair<uint8_t *, size_t>> buffers;
  for (const size_t size : {1, 16, 92, 1288, 70000}) {
    auto *buffer = static_cast<uint8_t *>(platform.mtrack_alloc(MTRACK_IDENTITY_PIM, MTRACK_MVPN_GENERAL, size));
    REQUIRE(buffer != nullptr);
    EXPECT(is_aligned(buffer));
    std::memset(buffer, static_cast<int>(buffers.size()), size);
    buffers.emplace_back(buffer, size);
  }
  for (size_t i = 0; i < buffers.size(); i++) {
    const auto [buffer, size] = buffers[i];
    EXPECT(std::count(buffer, buffer + size, static_cast<uint8_t>(i)) == static_cast<std::ptrdiff_t>(size));
    platform.mtrack_free(buffer);
  }
  platform.mtrack_free(nullptr);
}

// ------------------------------------------------------------------------------------------------------------- timers

namespace {

uint64_t nanoseconds_of(const zeph_timestamp &stamp) {
  return uint64_t{stamp.seconds} * 1'000'000'000 + stamp.nanoseconds;
}

uint64_t now() {
  zeph_timestamp stamp;
  if (platform.zeph_sys_mclock_get(&stamp) == -1) differs(__FILE__, __LINE__, "the clock cannot be read");
  return nanoseconds_of(stamp);
}

// A timer that writes down when it fired.
struct Timer {
  explicit Timer(std::vector<Timer *> *fired) : order(fired) {
    static const uint8_t set = platform.active_timer_new_set_init(ACTIVE_TIMER_SET_SIZE);
    if (set != 0) handle = platform.active_timer_create(set, ACTIVE_TIMER_TYPE_MVPN, fire, this);
    if (handle == nullptr) throw Abandoned{};
  }
  static void fire(void *argument) {
    auto *timer = static_cast<Timer *>(argument);
    timer->at = now();
    timer->order->push_back(timer);
    if (timer->ends_itself) platform.active_timer_cancel(timer->handle);
    if (timer->restarts > 0 && timer->restarts-- > 0) platform.active_timer_start(timer->handle, 0, 0, 0, 0);
  }
  bool start(uint32_t seconds) {
    const InsideACall inside;
    return platform.active_timer_start(handle, seconds, 0, 0, 0) != 0;
  }
  std::vector<Timer *> *order;
  active_timer *handle = nullptr;
  uint64_t at = 0;
  bool ends_itself = false;
  int restarts = 0;
};

}  // namespace

CHECK(timer, "a timer fires once, not early, from the main loop, in order of time") {
  std::vector<Timer *> fired;
  Timer late(&fired), soon(&fired), at_once(&fired);
  const uint64_t begun = now();
  EXPECT(late.start(3));
  EXPECT(soon.start(1));
  EXPECT(at_once.start(0));
  platform.tsp_sched_may_yield();
  EXPECT(fired.empty());  // the main loop has not run
  EXPECT(run_until([&] { return fired.size() == 3; }));
  EXPECT((fired == std::vector<Timer *>{&at_once, &soon, &late}));
  EXPECT(soon.at >= begun + 1'000'000'000);
  EXPECT(late.at >= begun + 3'000'000'000);
  driver.run(5000);
  EXPECT_EQUAL(fired.size(), size_t{3});
}

CHECK(timer, "a start arms anew; a stop drops an expiry that is not delivered yet") {
  std::vector<Timer *> fired;
  Timer moved(&fired), stopped(&fired), due(&fired), last(&fired);
  const uint64_t begun = now();
  moved.start(1);
  moved.start(4);
  stopped.start(1);
  platform.active_timer_stop(stopped.handle);
  due.start(0);
  platform.active_timer_stop(due.handle);
  last.start(5);
  EXPECT(run_until([&] { return last.at != 0; }));
  EXPECT((fired == std::vector<Timer *>{&moved, &last}));
  EXPECT(moved.at >= begun + 4'000'000'000);
  EXPECT(stopped.start(0));  // a stopped timer can be started
  EXPECT(run_until([&] { return stopped.at != 0; }));
}

CHECK(timer, "a callback may free or restart its timer; null timers are ignored") {
  std::vector<Timer *> fired;
  Timer freed(&fired), restarted(&fired), cancelled(&fired);
  freed.ends_itself = true;
  restarted.restarts = 2;
  freed.start(0);
  restarted.start(0);
  cancelled.start(0);
  platform.active_timer_cancel(cancelled.handle);
  EXPECT(run_until([&] { return std::count(fired.begin(), fired.end(), &restarted) == 3; }));
  driver.run(1000);
  EXPECT_EQUAL(fired.size(), size_t{4});
  platform.active_timer_stop(nullptr);
  platform.active_timer_cancel(nullptr);
}

CHECK(timer, "the monotonic clock goes on and never back") {
  zeph_timestamp stamp;
  EXPECT(platform.zeph_sys_mclock_get(&stamp) != -1);
  EXPECT(stamp.nanoseconds < 1'000'000'000);
  const uint64_t begun = now();
  uint64_t last = begun;
  for (int i = 0; i < 1000; i++) {
    const uint64_t next = now();
    EXPECT(next >= last);
    last = next;
  }
  driver.run(1000);
  EXPECT(now() >= begun + 1'000'000'000);
}

CHECK(timer, "stamps compare with now, and are zero on the other side of it") {
  zeph_timestamp stamp, result;
  platform.zeph_sys_mclock_get(&stamp);
  EXPECT(platform.timestamp_expired(&stamp) != 0);
  zeph_timestamp future = stamp;
  future.seconds += 1000;
  EXPECT(platform.timestamp_expired(&future) == 0);
  zeph_timestamp never{UINT32_MAX, UINT32_MAX};
  EXPECT(platform.timestamp_expired(&never) == 0);
  for (const zeph_timestamp *ahead : {&future, &never}) {
    platform.timestamp_elapsed(ahead, &result);
    EXPECT_EQUAL(nanoseconds_of(result), uint64_t{0});
  }
  platform.timestamp_left_sleeping(&stamp, &result);
  EXPECT_EQUAL(nanoseconds_of(result), uint64_t{0});
  platform.timestamp_left_sleeping(&future, &result);
  EXPECT(result.seconds <= 1000 && result.seconds > 900 && result.nanoseconds < 1'000'000'000);
  driver.run(2000);
  platform.timestamp_elapsed(&stamp, &result);
  EXPECT(result.seconds >= 2 && result.nanoseconds < 1'000'000'000);
}

CHECK(timer, "durations print; debug files get the wall clock's milliseconds") {
  const std::pair<uint32_t, const char *> cases[] = {{0, "00:00:00"},  {65, "00:01:05"},  {86399, "23:59:59"},
                                                     {86400, "1d00h"}, {183600, "2d03h"}, {604799, "6d23h"},
                                                     {604800, "1w0d"}, {1300000, "2w1d"}};
  for (const auto &[seconds, text] : cases) {
    const zeph_timestamp duration{seconds, 0};
    EXPECT_EQUAL(std::string(platform.timestamp_sprint(&duration)), text);
  }
  const auto seconds = static_cast<int64_t>(platform.ksink_get_milli_abstime_now() / 1000);
  const int64_t apart = seconds - time(nullptr);
  EXPECT(apart >= -60 && apart <= 60);
}

// ----------------------------------------------------------------------------------------------------------- messages

CHECK(mts, "options belong to an opcode of a queue") {
  mts_queue *queue = *platform.pim_mts_q;
  REQUIRE(queue != nullptr);
  REQUIRE(*platform.pim_mrib_mts_q != nullptr);
  const uint32_t before = platform.mts_options_get(queue, MTS_OPC_MVPN_BGP_RESERVED);
  EXPECT(platform.mts_options_set(queue, MTS_OPC_MVPN_BGP_RD_NOTIFY, MTS_OPTION_NOTIFY) >= 0);
  EXPECT_EQUAL(platform.mts_options_get(queue, MTS_OPC_MVPN_BGP_RD_NOTIFY), uint32_t{MTS_OPTION_NOTIFY});
  EXPECT_EQUAL(platform.mts_options_get(queue, MTS_OPC_MVPN_BGP_RESERVED), before);
  EXPECT(platform.mts_options_get(*platform.pim_mrib_mts_q, MTS_OPC_MVPN_BGP_RD_NOTIFY) != MTS_OPTION_NOTIFY);
  EXPECT(platform.mts_options_set(queue, MTS_OPC_MVPN_BGP_RD_NOTIFY, 0) >= 0);
  EXPECT_EQUAL(platform.mts_options_get(queue, MTS_OPC_MVPN_BGP_RD_NOTIFY), 0u);
}

CHECK(mts, "a message that is sent has been copied") {
  std::array<uint8_t, 600> payload{}, got{};
  for (size_t i = 0; i < payload.size(); i++) payload[i] = static_cast<uint8_t>(i * 7);
  const std::array<uint8_t, 600> original = payload;
  EXPECT(platform.mts_send(*platform.pim_mts_q, MTS_DESTINATION_BGP, 0, MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_UPDATE,
                           payload.data(), payload.size(), 0, 0, 0) >= 0);
  payload.fill(0);
  uint32_t destination = 0, opcode = 0, size = got.size();
  bool taken = false;
  EXPECT(run_until([&] {
    taken = taken || driver.take_sent(&destination, &opcode, got.data(), &size) != 0;
    return taken;
  }));
  EXPECT_EQUAL(destination, MTS_DESTINATION_BGP);
  EXPECT_EQUAL(opcode, uint32_t{MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_UPDATE});
  EXPECT_EQUAL(size, original.size());
  EXPECT(got == original);
}

CHECK(mts, "messages come from the main loop, in order, with opcode, payload and length") {
  std::vector<std::vector<uint8_t>> payloads;
  set_message_watcher([&](mts_message *msg) {
    const auto *bytes = static_cast<const uint8_t *>(platform.mts_payload_get(msg));
    const size_t size = platform.mts_payload_length_get(msg);
    EXPECT((bytes == nullptr) == (size == 0));
    payloads.emplace_back(bytes, bytes + size);
  });
  std::vector<uint8_t> payload{1, 2, 3};
  {
    const InsideACall inside;
    EXPECT(driver.deliver(MTS_OPC_MVPN_BGP_RD_NOTIFY, payload.data(), 3) != 0);
    payload.assign(3, 0);
    EXPECT(driver.deliver(MTS_OPC_MVPN_BGP_RESERVED, nullptr, 0) != 0);
  }
  EXPECT(run_until([&] { return payloads.size() == 2; }));
  REQUIRE(payloads.size() == 2);
  EXPECT_EQUAL(told()[0], "message " + std::to_string(MTS_OPC_MVPN_BGP_RD_NOTIFY));
  EXPECT_EQUAL(told()[1], "message " + std::to_string(MTS_OPC_MVPN_BGP_RESERVED));
  EXPECT((payloads[0] == std::vector<uint8_t>{1, 2, 3}));
}

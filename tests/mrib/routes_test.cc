// Core routes: what is created for which request, the bytes of their MRIB entries, referers, batching and the worker.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <thread>

#include "platform/reference/diag.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/mrib.h"
#include "platform/reference/pim.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_default_mdt_internal.h"
#include "routing/pim/mvpn/mvpn_mdt_route_internal.h"
#include "routing/pim/mvpn/mvpn_mdt_route_walk.h"
#include "routing/pim/mvpn/mvpn_mrib.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "tests/support/module_test.h"

namespace {

using namespace std::chrono_literals;

class Routes : public ModuleTest {
 protected:
  // A VRF without tunnel whose routes the worker sends nowhere until it is woken.
  mvpn_cibtype *plain_vrf() {
    add_vrf("red", 2);
    mvpn_cibtype *mvpn = mvpn_create_context(nullptr, "red");
    mvpn->mdt_source_addr = addr("10.0.0.1");
    mvpn_set_mdt_source_iod(mvpn, 1);
    mvpn->mdt_source_context = VRF_CONTEXT_ID_DEFAULT;
    mvpn_set_mti_iod(mvpn, 0x55);
    mvpn_set_mdt_default_group(mvpn, addr("239.1.1.1"));
    return mvpn;
  }
  // Queues n remote (S,G) routes.
  static void queue(mvpn_cibtype *mvpn, uint32_t n, uint32_t first = 1) {
    for (uint32_t i = 0; i < n; i++)
      mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DEFAULT, addr("10.1.0.0") + first + i, 1,
                                   addr("239.1.1.1"), 0);
  }
  static void wake_and_settle() {
    mvpn_mrib_wakeup_worker_thread();
    ref::settle();
  }
  static std::vector<uint32_t> update_counts() {
    std::vector<uint32_t> counts;
    for (const ref::MribUpdate &update : ref::mrib_updates()) counts.push_back(update.count);
    return counts;
  }
};

using Counts = std::vector<uint32_t>;

enum class Mode { ssm, bidir, asm_shared, asm_enforced, asm_plain };

void use_mode(mvpn_cibtype *mvpn, Mode mode) {
  ref::remove_ssm_range(addr("239.0.0.0"), 8);
  ref::remove_bidir_range(addr("239.0.0.0"), 8);
  if (mode == Mode::ssm) ref::add_ssm_range(addr("239.0.0.0"), 8);
  if (mode == Mode::bidir) ref::add_bidir_range(addr("239.0.0.0"), 8);
  mvpn->asm_use_shared_tree = mode == Mode::asm_shared;
  mvpn->enforce_bgp_mdt_safi = mode != Mode::asm_plain;
}

// Which source a request's route gets in which mode; "-": nothing is created.
TEST_F(Routes, RequestsChooseTheirSourceByMode) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  const Mode modes[] = {Mode::ssm, Mode::bidir, Mode::asm_shared, Mode::asm_enforced, Mode::asm_plain};
  const struct {
    mvpn_mdt_route_type_t type;
    const char *source;
    const char *group;
    const char *expected[5];
  } rows[] = {
      {MVPN_MDT_ROUTE_LOCAL_DEFAULT, "10.0.0.1", "239.1.1.1", {"10.0.0.1", "*", "*", "10.0.0.1", "*"}},
      {MVPN_MDT_ROUTE_REMOTE_DEFAULT, "10.0.0.9", "239.1.1.1", {"10.0.0.9", "-", "-", "10.0.0.9", "10.0.0.9"}},
      {MVPN_MDT_ROUTE_LOCAL_DATA, "10.0.0.1", "239.2.2.2", {"10.0.0.1", "*", "*", "10.0.0.1", "10.0.0.1"}},
      {MVPN_MDT_ROUTE_REMOTE_DATA, "10.0.0.9", "239.2.2.2", {"10.0.0.9", "*", "*", "10.0.0.9", "10.0.0.9"}},
  };
  for (const auto &row : rows)
    for (size_t i = 0; i < 5; i++) {
      SCOPED_TRACE("type " + std::to_string(row.type) + ", mode " + std::to_string(i));
      use_mode(mvpn, modes[i]);
      const std::string expected = row.expected[i];
      const mvpn_mdt_route *route =
          mvpn_mdt_add_route_resources(mvpn, row.type, addr(row.source), 0, addr(row.group), 0);
      if (expected == "-") {
        EXPECT_EQ(route, nullptr);
        EXPECT_EQ(mvpn->mdt_route_count, 0u);
      } else {
        ASSERT_NE(route, nullptr);
        EXPECT_EQ(route->source, expected == "*" ? 0 : addr(expected));
        EXPECT_EQ(route->pending, MVPN_MDT_ROUTE_ADD_PENDING);
      }
      mvpn_mrib_clear_mdt_routes(mvpn, {}, 0, 0);
    }
}

TEST_F(Routes, AKnownSourceIsTakenAsItIs) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  use_mode(mvpn, Mode::asm_shared);
  const mvpn_mdt_route *route =
      mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DEFAULT, addr("10.0.0.9"), 1, addr("239.1.1.1"), 0);
  ASSERT_NE(route, nullptr);
  EXPECT_EQ(route->source, addr("10.0.0.9"));
}

// Fields of an entry that are not zero, by offset.
std::map<size_t, uint32_t> nonzero_fields(const uint8_t *entry) {
  static const size_t words[] = {0, 4, 8, 16, 24, 28, 32, 36, 40};
  std::map<size_t, uint32_t> fields;
  std::vector<bool> covered(MRIB_UPDATE_ENTRY_SIZE);
  for (const size_t offset : words) {
    uint32_t word;
    std::memcpy(&word, entry + offset, sizeof word);
    if (word != 0) fields[offset] = word;
    for (size_t i = 0; i < sizeof word; i++) covered[offset + i] = true;
  }
  for (size_t i = 0; i < MRIB_UPDATE_ENTRY_SIZE; i++)
    if (!covered[i] && entry[i] != 0) fields[i] = entry[i];
  return fields;
}

constexpr uint32_t kMti = 0x55;
const uint32_t kSource = addr("10.0.0.9");

struct EntryCase {
  const char *what;
  bool local;
  mvpn_mdt_route_type_t type;
  mvpn_mdt_group_mode_t mode;
  uint32_t source;
  bool shared, enforce;
  uint32_t mti;  // 0: none
  uint8_t local_byte;
  uint8_t last_hop;
  uint8_t shared_byte;  // on adds
};
const EntryCase kEntries[] = {
    {"local ssm", true, MVPN_MDT_ROUTE_LOCAL_DEFAULT, MVPN_MDT_GROUP_MODE_SSM, kSource, true, true, 0, 1, 0, 0},
    {"local asm (S,G)", true, MVPN_MDT_ROUTE_LOCAL_DATA, MVPN_MDT_GROUP_MODE_ASM, kSource, true, true, 0, 1, 0, 1},
    {"local asm (*,G), enforced", true, MVPN_MDT_ROUTE_LOCAL_DEFAULT, MVPN_MDT_GROUP_MODE_ASM, 0, true, true, kMti, 1,
     0, 1},
    {"local asm (*,G), not enforced", true, MVPN_MDT_ROUTE_LOCAL_DEFAULT, MVPN_MDT_GROUP_MODE_ASM, 0, false, false,
     kMti, 1, 1, 0},
    {"local bidir default", true, MVPN_MDT_ROUTE_LOCAL_DEFAULT, MVPN_MDT_GROUP_MODE_BIDIR, 0, true, true, kMti, 1, 0,
     0},
    {"local bidir data", true, MVPN_MDT_ROUTE_LOCAL_DATA, MVPN_MDT_GROUP_MODE_BIDIR, 0, true, true, 0, 1, 0, 0},
    {"remote ssm", false, MVPN_MDT_ROUTE_REMOTE_DEFAULT, MVPN_MDT_GROUP_MODE_SSM, kSource, true, true, kMti, 0, 0, 0},
    {"remote asm", false, MVPN_MDT_ROUTE_REMOTE_DATA, MVPN_MDT_GROUP_MODE_ASM, kSource, true, false, kMti, 0, 0, 0},
    {"remote bidir default", false, MVPN_MDT_ROUTE_REMOTE_DEFAULT, MVPN_MDT_GROUP_MODE_BIDIR, 0, true, true, kMti, 1, 0,
     0},
    {"remote bidir data", false, MVPN_MDT_ROUTE_REMOTE_DATA, MVPN_MDT_GROUP_MODE_BIDIR, 0, true, true, kMti, 0, 0, 0},
};

mvpn_mdt_route route_of(const EntryCase &c, mvpn_cibtype *mvpn) {
  mvpn_mdt_route route{};
  route.mvpn = mvpn;
  route.route_type = c.type;
  route.mode = c.mode;
  route.source = c.source;
  route.group = addr("239.1.1.1");
  route.mdt_source_iod = 0x33;
  route.mdt_source_context = 0x44;
  route.teardown = 1;
  return route;
}

using Fields = std::map<size_t, uint32_t>;  // by offset

// What names the route; what its owner wants of it besides; and what comes with adding it.
Fields fields_of_route(const EntryCase &c) {
  Fields fields = {{MRIB_ENTRY_CONTEXT_ID, 0x44},
                   {MRIB_ENTRY_GROUP, addr("239.1.1.1")},
                   {MRIB_ENTRY_SOURCE_LEN, c.source != 0 ? 32 : 255},
                   {MRIB_ENTRY_GROUP_LEN, 32},
                   {MRIB_ENTRY_TEARDOWN, 1}};
  if (c.source != 0) fields[MRIB_ENTRY_SOURCE] = c.source;
  return fields;
}

Fields fields_of_owner(const EntryCase &c) {
  Fields fields = fields_of_route(c);
  fields[MRIB_ENTRY_OWNER] = 2;
  fields[MRIB_ENTRY_MDT_SOURCE_IOD] = 0x33;
  if (c.mti != 0) {
    fields[MRIB_ENTRY_MTI_IOD] = c.mti;
    fields[MRIB_ENTRY_MTI_IOD_SET] = 1;
  }
  if (c.local_byte != 0) fields[MRIB_ENTRY_LOCAL] = 1;
  if (c.last_hop != 0) fields[MRIB_ENTRY_LAST_HOP] = 1;
  return fields;
}

Fields fields_of_add(const EntryCase &c) {
  Fields fields = fields_of_owner(c);
  fields[MRIB_ENTRY_ADD] = 1;
  fields[MRIB_ENTRY_ADD_OWNER] = 2;
  if (c.source != 0) {
    fields[MRIB_ENTRY_RPF_ADDR] = c.source;
    fields[MRIB_ENTRY_RPF_ADDR_SET] = 1;
  }
  if (c.shared_byte != 0) fields[MRIB_ENTRY_ASM_SHARED_TREE] = 1;
  return fields;
}

// Every builder in every mode against the fields that it must set; everything else is zero.
TEST_F(Routes, EntriesCarryTheFieldsOfTheirBuilderAndMode) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  for (const EntryCase &c : kEntries) {
    SCOPED_TRACE(c.what);
    mvpn_mdt_route route = route_of(c, mvpn);
    mvpn->asm_use_shared_tree = c.shared;
    mvpn->enforce_bgp_mdt_safi = c.enforce;
    std::vector<uint8_t> entries(2 * MRIB_UPDATE_ENTRY_SIZE);
    ASSERT_EQ(c.local ? mvpn_delete_local_mdt_routes(&route, entries.data())
                      : mvpn_delete_remote_mdt_routes(&route, entries.data()),
              2u);
    EXPECT_EQ(nonzero_fields(entries.data()), fields_of_owner(c)) << "first delete entry";
    EXPECT_EQ(nonzero_fields(entries.data() + MRIB_UPDATE_ENTRY_SIZE), fields_of_route(c)) << "second delete entry";
    std::fill(entries.begin(), entries.end(), 0);
    ASSERT_EQ(c.local ? mvpn_add_local_mdt_routes(&route, entries.data())
                      : mvpn_add_remote_mdt_routes(&route, entries.data()),
              1u);
    EXPECT_EQ(nonzero_fields(entries.data()), fields_of_add(c)) << "add entry";
  }
  mvpn->asm_use_shared_tree = 0;
}

TEST_F(Routes, TheEntryArgumentsKeepTheirOrder) {
  start();
  std::vector<uint8_t> entry(MRIB_UPDATE_ENTRY_SIZE);
  mvpn_setup_mdt_mroute_ipc(entry.data(), 1, 101, 102, 103, 104, 105, 106, 7, 108, 109, 10, 11, 12, 13);
  EXPECT_EQ(nonzero_fields(entry.data()), (std::map<size_t, uint32_t>{{0, 101},
                                                                      {4, 103},
                                                                      {8, 102},
                                                                      {12, 32},
                                                                      {13, 32},
                                                                      {16, 104},
                                                                      {24, 1},
                                                                      {28, 105},
                                                                      {32, 109},
                                                                      {36, 108},
                                                                      {40, 106},
                                                                      {60, 7},
                                                                      {62, 1},
                                                                      {70, 10},
                                                                      {71, 12},
                                                                      {72, 11},
                                                                      {83, 13}}));
  mvpn_setup_mdt_mroute_ipc(nullptr, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}

TEST_F(Routes, BuffersLeaveWhenFewerThanTwoSlotsRemain) {
  const struct {
    const char *what;
    uint32_t adds_before, deletes, adds_after;
    Counts messages;
  } cases[] = {
      {"48 adds", 48, 0, 0, {48}},
      {"49 adds", 49, 0, 0, {49}},
      {"50 adds", 50, 0, 0, {49, 1}},
      {"48 adds and a delete", 48, 1, 0, {50}},
      {"24 deletes and an add", 0, 24, 1, {49}},
      {"25 deletes", 0, 25, 0, {50}},
      {"26 deletes", 0, 26, 0, {50, 2}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    if (mvpn_functionality_status != MVPN_FUNCTIONALITY_UP) start();
    mvpn_cibtype *mvpn = plain_vrf();
    queue(mvpn, c.deletes, 1000);
    wake_and_settle();
    ref::clear_mrib_updates();
    queue(mvpn, c.adds_before, 1);
    for (uint32_t i = 0; i < c.deletes; i++)
      mvpn_mdt_delete_route_resources(mvpn, addr("10.1.0.0") + 1000 + i, addr("239.1.1.1"), 0);
    queue(mvpn, c.adds_after, 500);
    wake_and_settle();
    EXPECT_EQ(update_counts(), c.messages);
    EXPECT_EQ(mvpn->mdt_route_count, c.adds_before + c.adds_after);
    mvpn_finish_destroy_default_mdt(mvpn);
    ref::delete_vrf("red");
  }
}

TEST_F(Routes, FiveUnacknowledgedMessagesAreTheMost) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  ref::set_mrib_acks(false);
  queue(mvpn, 49 * 5 + 7);
  wake_and_settle();
  EXPECT_EQ(update_counts(), Counts(5, 49));
  EXPECT_EQ(mvpn_mrib_info->work_pending, 1u);
  ref::set_mrib_acks(true);
  ref::settle();
  EXPECT_EQ(update_counts(), (Counts{49, 49, 49, 49, 49, 7}));
  EXPECT_EQ(rqueue_count(&mvpn_mrib_info->free_buffers), MVPN_MRIB_BUFFERS);
  EXPECT_EQ(ref::mrib_routes().size(), 49u * 5 + 7);
}

// A refusal at the end of a walk, when nothing else will wake the worker, and of a full buffer.
TEST_F(Routes, ARefusedMessageIsSentAgainUnderANewTransaction) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  ref::mrib_refuse_updates(1);
  trace::start();
  queue(mvpn, 1);
  wake_and_settle();
  EXPECT_EQ(
      trace::calls_of({"mrib_mts_update_route"}),
      (std::vector<std::string>{"mrib_mts_update_route(156,1,0xaabbccde)", "mrib_mts_update_route(156,1,0xaabbccdf)"}));
  EXPECT_EQ(ref::mrib_routes().size(), 1u);
  EXPECT_EQ(mvpn_mrib_info->work_pending, 0u);

  ref::mrib_refuse_updates(3);
  queue(mvpn, 60, 100);
  wake_and_settle();
  EXPECT_EQ(ref::mrib_routes().size(), 61u);
  EXPECT_EQ(rqueue_count(&mvpn_mrib_info->free_buffers), MVPN_MRIB_BUFFERS);
}

TEST_F(Routes, TransactionIdsSkipZero) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  mvpn_mrib_info->xid = 0xfffffffe;
  for (uint32_t i = 0; i < 2; i++) {
    queue(mvpn, 1, 10 * (i + 1));
    wake_and_settle();
  }
  ASSERT_EQ(ref::mrib_updates().size(), 2u);
  EXPECT_EQ(ref::mrib_updates()[0].xid, 0xffffffffu);
  EXPECT_EQ(ref::mrib_updates()[1].xid, 1u);
}

TEST_F(Routes, AcknowledgementsThatMatchNothingAreIgnored) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  ref::set_mrib_acks(false);
  queue(mvpn, 1);
  wake_and_settle();
  ASSERT_EQ(rqueue_count(&mvpn_mrib_info->sent_buffers), 1u);
  uint8_t ack[MRIB_ACK_SIZE] = {};
  const auto acknowledge = [&ack](uint32_t xid) {
    std::memcpy(ack + MRIB_ACK_XID_OFFSET, &xid, sizeof xid);
    mvpn_process_mrib_mts_update_route_ack(ack);
  };
  acknowledge(0);
  acknowledge(0x12345);
  mvpn_functionality_status = MVPN_FUNCTIONALITY_DOWN_PENDING;
  acknowledge(0xaabbccde);
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP;
  EXPECT_EQ(rqueue_count(&mvpn_mrib_info->sent_buffers), 1u);
  acknowledge(0xaabbccde);
  acknowledge(0xaabbccde);
  EXPECT_EQ(rqueue_count(&mvpn_mrib_info->sent_buffers), 0u);
  EXPECT_EQ(rqueue_count(&mvpn_mrib_info->free_buffers), MVPN_MRIB_BUFFERS);
  ref::set_mrib_acks(true);
}

TEST_F(Routes, ARouteIsSentOnceInItsLatestState) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  queue(mvpn, 3);
  mvpn_mdt_delete_route_resources(mvpn, addr("10.1.0.1"), addr("239.1.1.1"), 0);
  queue(mvpn, 1);  // the delete is cancelled, the route moves to the tail
  wake_and_settle();
  ASSERT_EQ(update_counts(), Counts{3});
  const std::vector<uint8_t> &entries = ref::mrib_updates()[0].entries;
  EXPECT_EQ(word_at(entries, 2 * MRIB_UPDATE_ENTRY_SIZE + MRIB_ENTRY_SOURCE), addr("10.1.0.1"));
  EXPECT_EQ(entries[2 * MRIB_UPDATE_ENTRY_SIZE + MRIB_ENTRY_ADD], 1);
}

TEST_F(Routes, ARefreshVisitsOnlyWhatIsNew) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  queue(mvpn, 5000);
  wake_and_settle();
  trace::start();
  queue(mvpn, 1, 17);
  wake_and_settle();
  EXPECT_LE(trace::count("txlist_get_next_node"), 4u);
  EXPECT_EQ(ref::mrib_updates().back().count, 1u);
}

TEST_F(Routes, YieldsAtEveryStepLoseAndRepeatNothing) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  trace::fail("tsp_should_sched_yield", 1, 1000);  // asks for a yield at every step
  queue(mvpn, 3);
  wake_and_settle();
  EXPECT_EQ(update_counts(), Counts{3});
  for (uint32_t i = 1; i <= 3; i++) mvpn_mdt_delete_route_resources(mvpn, addr("10.1.0.0") + i, addr("239.1.1.1"), 0);
  mvpn_mrib_queue_context(mvpn);
  wake_and_settle();
  EXPECT_EQ(mvpn->mdt_route_count, 0u);
  EXPECT_EQ(mvpn_mrib_info->work_pending, 0u);
  trace::reset();
}

// The only element is one that vanishes or moves while the marker stands beside it.
TEST_F(Routes, TheMarkerSurvivesItsNeighbours) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  mvpn_mrib_info->work_pending = 1;
  wake_and_settle();
  EXPECT_EQ(mvpn_mrib_info->work_pending, 0u) << "an empty list";
  queue(mvpn, 1);
  wake_and_settle();
  ref::mrib_refuse_updates(1);
  mvpn_mdt_delete_route_resources(mvpn, addr("10.1.0.1"), addr("239.1.1.1"), 1);
  ref::settle();
  EXPECT_TRUE(ref::mrib_routes().empty());
  trace::fail("tsp_should_sched_yield", 1, 100);
  mvpn_mrib_queue_context(mvpn);
  ref::settle();
  trace::reset();
  queue(mvpn, 2);
  wake_and_settle();
  EXPECT_EQ(ref::mrib_routes().size(), 2u);
}

TEST_F(Routes, ManySchedulesAndAcknowledgementsLeaveNothingBehind) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  ref::scheduler_use_seed(7);
  for (uint32_t round = 0; round < 2000; round++) {
    queue(mvpn, 1 + round % 3, 1 + round % 50);
    mvpn_mrib_wakeup_worker_thread();
    ref::run_pending();
  }
  ref::settle();
  EXPECT_EQ(mvpn_mrib_info->work_pending, 0u);
  EXPECT_EQ(ref::mrib_routes().size(), mvpn->mdt_route_count);
  EXPECT_EQ(rqueue_count(&mvpn_mrib_info->free_buffers), MVPN_MRIB_BUFFERS);
  ref::scheduler_use_fifo();
}

TEST_F(Routes, CreationFailuresLeaveNothing) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  trace::fail("slab_calloc");
  EXPECT_EQ(mvpn_mdt_mroute_add(mvpn, MVPN_MDT_ROUTE_REMOTE_DATA, MVPN_MDT_GROUP_MODE_SSM, 1, 2), nullptr);
  EXPECT_EQ(ref::reports().back().arguments, (std::vector<std::string>{"mvpn_mdt_route_t", "mvpn_slab_allocate()"}));
  trace::fail("pt_add");
  EXPECT_EQ(mvpn_mdt_mroute_add(mvpn, MVPN_MDT_ROUTE_REMOTE_DATA, MVPN_MDT_GROUP_MODE_SSM, 1, 2), nullptr);
  EXPECT_EQ(ref::reports().back().name, "PIM_PT_ADD");
  EXPECT_EQ(mvpn->mdt_route_count, 0u);
}

TEST_F(Routes, TheTableIsOrderedByAddressWithSharedTreesFirst) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  for (const char *source : {"2.0.0.1", "1.0.0.2", "0.0.0.0"})
    mvpn_mdt_mroute_add(mvpn, MVPN_MDT_ROUTE_REMOTE_DATA, MVPN_MDT_GROUP_MODE_SSM, addr(source), addr("239.1.1.1"));
  std::vector<ip_addr_t> sources;
  for (const mvpn_mdt_route *route = mvpn_mdt_mroute_first(mvpn); route != nullptr;
       route = mvpn_mdt_mroute_after(mvpn, route->source, route->group))
    sources.push_back(route->source);
  EXPECT_EQ(sources, (std::vector<ip_addr_t>{0, addr("1.0.0.2"), addr("2.0.0.1")}));
}

// Registration: a start that failed late registers again; a deregistration that fails leaves no dangling list.
TEST_F(Routes, TheInterfaceIsBuiltAfreshAfterAFailedStart) {
  trace::fail("quillon_pthread_create");
  EXPECT_EQ(mvpn_init(), 0);
  mvpn_deinit(1);
  ASSERT_TRUE(ref::wait_for_threads());
  trace::start();
  start();
  EXPECT_EQ(trace::count("mrib_register"), 1u);
  mvpn_cibtype *mvpn = plain_vrf();
  queue(mvpn, 1);
  wake_and_settle();
  EXPECT_EQ(ref::mrib_routes().size(), 1u);
}

TEST_F(Routes, AFailedDeregistrationToleratesWhatComesAfter) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  queue(mvpn, 3);
  trace::fail("mrib_deregister");
  EXPECT_EQ(mvpn_deinit_mrib(1), 0);
  EXPECT_EQ(ref::reports().back().arguments, (std::vector<std::string>{"MRIB (deregister)", "mvpn_deinit_mrib()"}));
  queue(mvpn, 2, 50);
  mvpn_mrib_wakeup_worker_thread();
  const uint8_t ack[MRIB_ACK_SIZE] = {};
  mvpn_process_mrib_mts_update_route_ack(ack);
  mvpn_mrib_queue_context(mvpn);
}

TEST_F(Routes, RoutesOutliveAStopWhileTheFeatureStays) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  queue(mvpn, 3);
  EXPECT_EQ(mvpn_deinit_mrib(1), 1);
  EXPECT_EQ(mvpn->mdt_route_count, 3u);
  ASSERT_EQ(mvpn_init_mrib(), 1);
  wake_and_settle();
  EXPECT_EQ(ref::mrib_routes().size(), 3u) << "what waited for the worker waits for the next one";
}

// The worker is stopped where it gave way in the middle of its walk: its list and buffers are there until it has ended.
TEST_F(Routes, AStopLetsTheWorkerFinishItsWalk) {
  start();
  mvpn_cibtype *mvpn = plain_vrf();
  queue(mvpn, 3);
  std::atomic<bool> gave_way = false, may_go_on = false;
  trace::fail("tsp_should_sched_yield", 1, 1000);  // asks for a yield at every step
  trace::on_yield([&, test = std::this_thread::get_id()](unsigned) {
    if (std::this_thread::get_id() == test || gave_way) return false;
    tsp_before_yield();
    gave_way = true;
    while (!may_go_on) std::this_thread::yield();
    tsp_after_yield();
    return false;
  });
  mvpn_mrib_wakeup_worker_thread();
  tsp_before_yield();
  while (!gave_way) std::this_thread::yield();
  tsp_after_yield();
  may_go_on = true;
  EXPECT_EQ(mvpn_deinit_mrib(0), 1);
  trace::reset();
  EXPECT_EQ(mvpn_mrib_info, nullptr);
  EXPECT_EQ(update_counts(), Counts{3});
}

}  // namespace

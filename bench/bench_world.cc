// The module on the reference platform with a real clock, as benchmarks need it: no test framework, no invariants
// checked, records of what happened thrown away, so that what is measured is the module's and the services' work.
#include "bench/bench_world.h"

#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "platform/reference/bgp.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/module.h"
#include "platform/reference/mts.h"
#include "platform/reference/object_pages.h"
#include "platform/reference/pim.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "tests/support/linked_module.h"

namespace bench {
namespace {

class NoSink : public ref::CliSink {
 public:
  void text(std::string_view text) override { out.append(text); }
  std::string out;
};

[[noreturn]] void fail(const char *what) {
  std::fprintf(stderr, "benchmark set-up: %s\n", what);
  std::abort();
}

}  // namespace

World::World() {
  ref::reset();
  ref::set_module(linked_module());
  ref::set_log_sink(ref::LogSink::none);
  ref::keep_records(false);
  ref::clock_use_real(1);
  ref::create_interface("loopback0", VRF_CONTEXT_ID_DEFAULT, 0x0A000001, true);
  ref::bgp_set_update_source("loopback0", false);
  if (mvpn_init() != 1) fail("the module does not start");
  mvpn_init_cli();
}

World::~World() {
  ref::set_feature_configured(false);
  mvpn_deinit(1);
  if (!ref::wait_for_threads()) fail("the module's threads do not end");
  ref::reset();
}

pim_cibtype *World::pcib(uint32_t number) {
  return pim_get_cib_by_context_name(("vrf" + std::to_string(number)).c_str());
}

void World::add_vrfs(uint32_t first, uint32_t count) {
  for (uint32_t number = first; number < first + count; number++) {
    const std::string name = "vrf" + std::to_string(number);
    if (ref::create_vrf(name, 10 + number, 10 + number) == nullptr) fail("a VRF cannot be made");
    uint8_t rd[ROUTE_DISTINGUISHER_SIZE] = {};
    std::memcpy(rd + 4, &number, sizeof number);
    rd[2] = 1;
    ref::bgp_set_rd(name, rd, false);
    const uint32_t group = 0xEF000001 + number;
    command("mdt_default_cmd", number,
            {{"<mdt-default>", std::to_string(group >> 24) + "." + std::to_string(group >> 16 & 255) + "." +
                                   std::to_string(group >> 8 & 255) + "." + std::to_string(group & 255)}});
  }
}

void World::command(const char *handler, uint32_t number, std::vector<ref::CliArgument> arguments) {
  ref::CliInvocation invocation;
  invocation.handler = handler;
  invocation.vrf_name = "vrf" + std::to_string(number);
  invocation.interactive = false;
  invocation.arguments = std::move(arguments);
  NoSink sink;
  if (ref::cli_invoke(invocation, sink) != CLI_RESULT_OK) fail(sink.out.c_str());
}

void World::end_replay() {
  pim_cli_requests_sent_count = pim_cli_done_recv_count = 1;
  mvpn_cli_done();
  ref::enable_interface_events(true);
}

void World::turn() {
  ref::run_pending();
  ref::main_release();
  std::this_thread::yield();
  ref::main_acquire();
}

bool World::is_idle() {
  return mvpn_mrib_info->work_pending == 0 && rqueue_count(&mvpn_mrib_info->free_buffers) == MVPN_MRIB_BUFFERS;
}

void World::idle() { run_until(is_idle); }

std::vector<uint8_t> remote_update(uint32_t first_source, uint32_t count, ip_addr_t group, bool add) {
  std::vector<uint8_t> payload(BGP_MDT_SAFI_COUNT_SIZE + size_t{count} * BGP_MDT_SAFI_ENTRY_SIZE);
  const auto entries = static_cast<uint16_t>(count);
  std::memcpy(payload.data(), &entries, sizeof entries);
  for (uint32_t i = 0; i < count; i++) {
    uint8_t *entry = payload.data() + BGP_MDT_SAFI_COUNT_SIZE + size_t{i} * BGP_MDT_SAFI_ENTRY_SIZE;
    const uint32_t source = first_source + i;
    std::memcpy(entry + BGP_MDT_SAFI_ENTRY_SOURCE, &source, sizeof source);
    entry[BGP_MDT_SAFI_ENTRY_RD + 7] = 1;
    std::memcpy(entry + BGP_MDT_SAFI_ENTRY_GROUP, &group, sizeof group);
    entry[BGP_MDT_SAFI_ENTRY_ADD] = add ? 1 : 0;
  }
  return payload;
}

void forget_events() { ref::clear_history(); }

size_t allocated_bytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd + ref::object_page_octets();
}

}  // namespace bench

// The fixture's set-up and end. At the end the module is stopped and everything must be given back: threads, timers,
// slab objects, buffers.
#include "tests/support/module_test.h"
#include "routing/pim/mvpn/mvpn_context.h"

#include <arpa/inet.h>

#include <chrono>
#include <cstring>

#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/mem.h"
#include "platform/reference/module.h"
#include "platform/reference/mts.h"
#include "platform/reference/pim.h"
#include "platform/reference/testing/runtime.h"
#include "tests/support/command.h"
#include "tests/support/linked_module.h"

using namespace std::chrono_literals;

ip_addr_t addr(std::string_view dotted) {
  in_addr parsed{};
  if (inet_pton(AF_INET, std::string(dotted).c_str(), &parsed) != 1) ADD_FAILURE() << "bad address " << dotted;
  return ntohl(parsed.s_addr);
}

std::string dotted(ip_addr_t value) {
  if (value == 0) return "*";
  return std::to_string(value >> 24) + "." + std::to_string(value >> 16 & 255) + "." +
         std::to_string(value >> 8 & 255) + "." + std::to_string(value & 255);
}

std::vector<uint8_t> rd(std::string_view text) {
  const auto parsed = ref::bgp_parse_rd(text);
  if (!parsed) {
    ADD_FAILURE() << "bad route distinguisher " << text;
    return std::vector<uint8_t>(ROUTE_DISTINGUISHER_SIZE);
  }
  return *parsed;
}

mvpn_mdt_route_addrs route_addrs(std::string_view source, std::string_view group) {
  mvpn_mdt_route_addrs addrs{};
  const bool any = source.empty() || source == "*";
  addrs.source = any ? 0 : addr(source);
  addrs.group = addr(group);
  addrs.source_len = any ? MROUTE_ANY_SOURCE_LEN : MROUTE_HOST_LEN;
  addrs.group_len = MROUTE_HOST_LEN;
  return addrs;
}

uint32_t word_at(const std::vector<uint8_t> &bytes, size_t offset) {
  uint32_t word = 0;
  if (offset + sizeof word > bytes.size())
    ADD_FAILURE() << "only " << bytes.size() << " bytes, none at " << offset;
  else
    std::memcpy(&word, bytes.data() + offset, sizeof word);
  return word;
}

void ModuleTest::SetUp() {
  trace::reset();
  ref::reset();
  ref::set_module(linked_module());
  ref::set_log_sink(ref::LogSink::none);
  // Globals that outlive a stop of the module, as they would outlive it in a host.
  mvpn_is_cli_done = 0;
  mvpn_bgp_updatesrc_ifname[0] = '\0';
  mvpn_bgp_updatesrc_iod = 0;
  pim_mvpn_detail_debug_flag = 0;
  std::memset(pim_glb_trace_buffers, 0, sizeof pim_glb_trace_buffers);
  ref::create_interface("loopback0", VRF_CONTEXT_ID_DEFAULT, addr("10.0.0.1"), true);
  ref::bgp_set_update_source("loopback0", false);
}

void ModuleTest::TearDown() {
  trace::on_yield(nullptr);
  trace::reset();
  if (mvpn_functionality_status != MVPN_FUNCTIONALITY_DOWN) {
    ref::settle();
    if (mvpn_is_up()) check_invariants();
    ref::set_feature_configured(false);
    mvpn_deinit(1);
  }
  EXPECT_TRUE(ref::wait_for_threads());
  EXPECT_EQ(mvpn_mvrf_count, 0u);
  // Timers of interfaces that a test ran PIM on are the host's.
  for (pim_iftype *interface = pim_snmp_get_next_ifindex(0); interface != nullptr;
       interface = pim_snmp_get_next_ifindex(interface->if_index))
    if (interface->pim_enabled != 0) pim_disable(0, interface->pcib, interface, interface->iod, 1, 0, 0);
  const ref::MemoryUse left = ref::memory_use();
  EXPECT_EQ(left.slab_objects, 0u);
  EXPECT_EQ(left.tracked_buffers, 0u);
  EXPECT_EQ(left.timers, 0u);
  ref::reset();
}

void ModuleTest::start() {
  ASSERT_EQ(mvpn_init(), 1);
  mvpn_init_cli();
  ref::enable_interface_events(true);
  ref::settle();
}

void ModuleTest::end_replay() {
  pim_cli_requests_sent_count = 1;
  pim_cli_done_recv_count = 1;
  mvpn_cli_done();
  ref::settle();
}

pim_cibtype *ModuleTest::add_vrf(std::string_view name, vrf_context_id_t context_id, uint32_t table_id) {
  pim_cibtype *pcib = ref::create_vrf(name, context_id, table_id != 0 ? table_id : context_id);
  EXPECT_NE(pcib, nullptr) << name;
  ref::bgp_set_rd(name, rd("65000:" + std::to_string(context_id)).data(), false);
  return pcib;
}

mvpn_cibtype *ModuleTest::configure(std::string_view vrf, std::string_view default_group) {
  EXPECT_EQ(command("mdt_default_cmd", vrf, {{"<mdt-default>", std::string(default_group)}}), CLI_RESULT_OK) << printed;
  ref::settle();
  return context(vrf);
}

mvpn_cibtype *ModuleTest::bring_up(std::string_view name, vrf_context_id_t context_id, std::string_view default_group) {
  add_vrf(name, context_id);
  mvpn_cibtype *mvpn = configure(name, default_group);
  EXPECT_NE(mvpn, nullptr);
  if (mvpn != nullptr) {
    EXPECT_EQ(mvpn->mti_status, MVPN_MTI_UP) << mvpn_mti_status_str[mvpn->mti_status];
  }
  return mvpn;
}

int ModuleTest::command(std::string_view handler, std::string_view vrf, std::vector<ref::CliArgument> arguments,
                        bool no_form, bool interactive) {
  return run_handler({.handler = std::string(handler),
                      .arguments = std::move(arguments),
                      .vrf_name = std::string(vrf),
                      .no_form = no_form,
                      .interactive = interactive},
                     &printed);
}

std::string ModuleTest::show(std::string_view handler, std::string_view vrf, std::vector<ref::CliArgument> arguments) {
  std::string shown;
  run_handler({.handler = std::string(handler),
               .arguments = std::move(arguments),
               .vrf_name = std::string(vrf),
               .all_vrfs = vrf.empty()},
              &shown);
  return shown;
}

void ModuleTest::capture_debug() {
  pim_glb_trace_buffers[MVPN_TRACE_SLOT] = 1;
  ref::clear_history();
}

std::vector<std::string> ModuleTest::debug_texts() const {
  std::vector<std::string> texts;
  for (const ref::Event &event : ref::history()) {
    const size_t colon = event.text.find(": ");
    texts.push_back(colon == std::string::npos ? event.text : event.text.substr(colon + 2));
  }
  return texts;
}

size_t ModuleTest::debug_count(std::string_view text) const {
  size_t count = 0;
  for (const std::string &message : debug_texts()) count += message.find(text) != std::string::npos;
  return count;
}

void ModuleTest::oim_response(uint32_t opcode, const std::vector<OimAnswer> &answers) {
  std::vector<uint8_t> payload{static_cast<uint8_t>(answers.size() >> 8), static_cast<uint8_t>(answers.size())};
  const auto put = [&payload](uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) payload.push_back(static_cast<uint8_t>(value >> shift));
  };
  for (const OimAnswer &answer : answers) {
    put(answer.if_index);
    put(answer.iod);
    put(answer.result);
  }
  ref::deliver(opcode, payload.data(), payload.size());
  ref::settle();
}

void ModuleTest::remote_update(const std::vector<ref::MdtSafi> &entries, bool add) {
  std::vector<uint8_t> payload(BGP_MDT_SAFI_COUNT_SIZE + entries.size() * BGP_MDT_SAFI_ENTRY_SIZE);
  const auto count = static_cast<uint16_t>(entries.size());
  std::memcpy(payload.data(), &count, sizeof count);
  for (size_t i = 0; i < entries.size(); i++) {
    uint8_t *entry = payload.data() + BGP_MDT_SAFI_COUNT_SIZE + i * BGP_MDT_SAFI_ENTRY_SIZE;
    std::memcpy(entry + BGP_MDT_SAFI_ENTRY_SOURCE, &entries[i].source, sizeof entries[i].source);
    std::memcpy(entry + BGP_MDT_SAFI_ENTRY_RD, entries[i].rd, sizeof entries[i].rd);
    std::memcpy(entry + BGP_MDT_SAFI_ENTRY_GROUP, &entries[i].group, sizeof entries[i].group);
    entry[BGP_MDT_SAFI_ENTRY_ADD] = add ? 1 : 0;
  }
  ref::deliver(MTS_OPC_MVPN_BGP_MDT_SAFI_REMOTE_UPDATE, payload.data(), payload.size());
  ref::settle();
}

void ModuleTest::check_invariants() {
  for (const std::string &wrong : invariant_violations()) ADD_FAILURE() << wrong;
}

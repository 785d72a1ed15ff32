// The reference platform as a library for mvpn-contract-test. Its clock is real and fast, so that threads run as they
// do in the daemon and a minute takes less than a second.
#include "conformance/driver.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <thread>

#include "platform/reference/bgp.h"
#include "platform/reference/cli.h"
#include "platform/reference/croute.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/module.h"
#include "platform/reference/mts.h"
#include "platform/reference/pim.h"
#include "platform/reference/pss.h"
#include "platform/reference/rpm.h"
#include "platform/reference/runtime.h"
#include "platform/reference/testing/services.h"

namespace {

using namespace std::chrono_literals;

constexpr double clock_scale = 200;
constexpr auto turn = 200us;  // real time between two turns of the main loop

std::deque<ref::SentMessage> sent;

ref::Module entry_points(const contract_module &module) {
  ref::Module entries;
  entries.process_msg = module.process_msg;
  entries.interface_status = module.interface_status;
  entries.interface_create = module.interface_create;
  entries.process_address_change = module.process_address_change;
  entries.update_route_ack = module.update_route_ack;
  entries.mdt_notify = module.mdt_notify;
  return entries;
}

// Keeps what a command prints.
class TextSink : public ref::CliSink {
 public:
  void text(std::string_view text) override { printed += text; }
  std::string printed;
};

}  // namespace

extern "C" {

const uint32_t contract_version = PLATFORM_CONTRACT_VERSION;

int contract_start(const char *folder, int stateful, const contract_module *module) {
  ref::reset();
  ref::set_log_sink(ref::LogSink::none);
  ref::clock_use_real(clock_scale);
  ref::set_stateful_restart(stateful != 0);
  if (!ref::pss_use_directory(folder)) return 0;
  ref::set_module(entry_points(*module));
  ref::set_message_sink([](const ref::SentMessage &message) { sent.push_back(message); });
  ref::enable_interface_events(true);
  ref::set_feature_configured(true);
  return 1;
}

void contract_stop() { ref::pss_flush(); }

void contract_run(uint32_t milliseconds) {
  const auto end = ref::now() + std::chrono::milliseconds(milliseconds);
  do {
    ref::run_pending();
    ref::pss_flush();
    ref::main_release();
    std::this_thread::sleep_for(turn);
    ref::main_acquire();
  } while (ref::now() < end);
}

int contract_add_vrf(const char *name, vrf_context_id_t context_id, uint32_t table_id, const uint8_t *rd) {
  if (ref::create_vrf(name, context_id, table_id) == nullptr) return 0;
  if (rd != nullptr) ref::bgp_set_rd(name, rd, false);
  return 1;
}

int contract_add_interface(const char *name, vrf_context_id_t context_id, ip_addr_t address, int up) {
  return ref::create_interface(name, context_id, address, up != 0) != 0 ? 1 : 0;
}

int contract_set_interface(const char *name, ip_addr_t address, int up) {
  return ref::set_interface_address(name, address) && ref::set_interface_state(name, up != 0) ? 1 : 0;
}

int contract_deliver(uint32_t opcode, const void *payload, uint32_t size) {
  ref::deliver(opcode, payload, size);
  return 1;
}

int contract_take_sent(uint32_t *destination, uint32_t *opcode, void *payload, uint32_t *size) {
  if (sent.empty()) return 0;
  const ref::SentMessage message = std::move(sent.front());
  sent.pop_front();
  *destination = message.destination;
  *opcode = message.opcode;
  const size_t room = *size;
  *size = static_cast<uint32_t>(message.payload.size());
  std::copy_n(message.payload.begin(), std::min(room, message.payload.size()), static_cast<uint8_t *>(payload));
  return 1;
}

int contract_command(const char *handler, const char *vrf_name, int no_form, uint32_t count, const char *const *names,
                     const char *const *values, char *text, uint32_t text_size, int *result) {
  constexpr int no_handler = -2;
  ref::CliInvocation invocation;
  invocation.handler = handler;
  invocation.vrf_name = vrf_name;
  invocation.no_form = no_form != 0;
  for (uint32_t i = 0; i < count; i++) invocation.arguments.push_back({names[i], values[i]});
  TextSink sink;
  *result = ref::cli_invoke(invocation, sink);
  if (*result == no_handler) return 0;
  text[sink.printed.copy(text, text_size - 1)] = '\0';
  return 1;
}

int contract_set_policy(const char *name, ip_addr_t group, uint32_t group_len) {
  ref::PolicyEntry entry;
  entry.group = group;
  entry.group_len = group_len;
  ref::set_policy(name, {entry});
  return 1;
}

int contract_add_customer_route(const char *vrf_name, const mvpn_mdt_route_addrs *addrs, uint64_t bytes) {
  ref::CustomerRoute route;
  route.addrs = *addrs;
  return ref::set_customer_route(vrf_name, route) != nullptr && ref::set_customer_bytes(vrf_name, *addrs, bytes) ? 1
                                                                                                                 : 0;
}

int contract_receive_datagram(const char *interface_name, const void *datagram, uint32_t size) {
  const ref::Interface *interface = ref::find_interface(interface_name);
  if (interface == nullptr) return 0;
  ref::inject_datagram(interface->iod, datagram, size);
  return 1;
}

}  // extern "C"

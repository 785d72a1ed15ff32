// The redirected platform calls. Each wrapper notes the call, lets an injected fault take its place, or passes it on.
#include "tests/support/platform_trace.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <mutex>

#include "platform/bgp.h"
#include "platform/diag.h"
#include "platform/im.h"
#include "platform/ip.h"
#include "platform/l3vm.h"
#include "platform/mem.h"
#include "platform/oim.h"
#include "platform/pim.h"
#include "platform/reference/testing/runtime.h"
#include "platform/rpm.h"
#include "platform/rqueue.h"
#include "platform/sockets.h"
#include "platform/txlist.h"

namespace trace {
namespace {

struct Fault {
  unsigned skip;   // calls that still succeed
  unsigned times;  // calls that fail after those
};

struct State {
  bool recording = false;
  std::vector<std::string> calls;
  std::map<std::string, size_t, std::less<>> counts;
  std::map<std::string, Fault, std::less<>> faults;
  std::map<std::string, std::function<void()>, std::less<>> hooks;
  unsigned failable = 0;
  unsigned fail_at = 0;  // 0: none
  unsigned fail_next = 0;
  std::string failed;
  std::function<bool(unsigned)> yield_hook;
  unsigned yields = 0;
};

// Module threads come here without the scheduling locks around blocking calls, hence the lock.
std::recursive_mutex mutex;
State state;

bool take_fault(std::string_view name, bool failable) {
  if (failable && ++state.failable == state.fail_at) {
    state.failed += (state.failed.empty() ? "" : " ") + std::string(name);
    state.fail_at = state.fail_next != 0 ? state.fail_at + state.fail_next : 0;
    state.fail_next = 0;
    return true;
  }
  const auto fault = state.faults.find(name);
  if (fault == state.faults.end()) return false;
  if (fault->second.skip > 0) {
    fault->second.skip--;
    return false;
  }
  if (--fault->second.times == 0) state.faults.erase(fault);
  return true;
}

// Notes a call; true when it is to fail.
bool enter(const char *name, const std::string &arguments, bool failable) {
  std::function<void()> hook;
  bool fails;
  {
    const std::lock_guard guard(mutex);
    state.counts[name]++;
    if (state.recording) state.calls.push_back(std::string(name) + "(" + arguments + ")");
    if (const auto found = state.hooks.find(name); found != state.hooks.end()) hook = found->second;
    fails = take_fault(name, failable);
  }
  if (hook) hook();
  return fails;
}

bool yield_hook() {
  std::function<bool(unsigned)> hook;
  unsigned n;
  {
    const std::lock_guard guard(mutex);
    hook = state.yield_hook;
    n = ++state.yields;
  }
  return hook ? hook(n) : false;
}

std::string text(const char *value) { return value != nullptr ? value : "null"; }
std::string text(uint32_t value) { return std::to_string(value); }
std::string text(int value) { return std::to_string(value); }
std::string hex(uint32_t value) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "0x%" PRIx32, value);
  return buffer;
}

template <typename... Values>
std::string list(Values... values) {
  std::string out;
  ((out += (out.empty() ? "" : ",") + text(values)), ...);
  return out;
}

}  // namespace

void reset() {
  const std::lock_guard guard(mutex);
  state = State{};
}

void start() {
  const std::lock_guard guard(mutex);
  state.calls.clear();
  state.counts.clear();
  state.recording = true;
}

void stop() {
  const std::lock_guard guard(mutex);
  state.recording = false;
}

const std::vector<std::string> &calls() { return state.calls; }

std::vector<std::string> calls_of(const std::vector<std::string_view> &names) {
  std::vector<std::string> out;
  for (const std::string &call : state.calls)
    for (const std::string_view name : names)
      if (call.size() > name.size() && call.compare(0, name.size(), name) == 0 && call[name.size()] == '(')
        out.push_back(call);
  return out;
}

size_t count(std::string_view name) {
  const std::lock_guard guard(mutex);
  const auto found = state.counts.find(name);
  return found == state.counts.end() ? 0 : found->second;
}

void fail(std::string_view name, unsigned nth, unsigned times) {
  const std::lock_guard guard(mutex);
  state.faults[std::string(name)] = {nth - 1, times};
}

void fail_any(unsigned k, unsigned then) {
  const std::lock_guard guard(mutex);
  state.failable = 0;
  state.fail_at = k;
  state.fail_next = then;
  state.failed.clear();
}

unsigned failable_calls() {
  const std::lock_guard guard(mutex);
  return state.failable;
}

std::string failed_function() {
  const std::lock_guard guard(mutex);
  return state.failed;
}

void on_yield(std::function<bool(unsigned)> hook) {
  const std::lock_guard guard(mutex);
  state.yield_hook = std::move(hook);
  state.yields = 0;
}

void on_call(std::string_view name, std::function<void()> hook) {
  const std::lock_guard guard(mutex);
  state.hooks[std::string(name)] = std::move(hook);
}

// A call that can fail: `failure` is what it then returns.
#define CAN_FAIL(result, name, parameters, arguments, failure, shown) \
  extern "C" result __wrap_##name parameters;                         \
  extern "C" result __wrap_##name parameters {                        \
    if (enter(#name, list shown, true)) return failure;               \
    return ::name arguments;                                          \
  }
// A call that cannot fail.
#define NOTED(result, name, parameters, arguments, shown) \
  extern "C" result __wrap_##name parameters;             \
  extern "C" result __wrap_##name parameters {            \
    enter(#name, list shown, false);                      \
    return ::name arguments;                              \
  }
// A yield point whose result tells whether other work ran.
#define YIELDS(name)                  \
  extern "C" int __wrap_##name();     \
  extern "C" int __wrap_##name() {    \
    enter(#name, "", false);          \
    const bool hooked = yield_hook(); \
    const int ran = ::name();         \
    return hooked || ran ? 1 : 0;     \
  }

// Message transport.
CAN_FAIL(int, mts_send,
         (mts_queue * queue, uint32_t destination, uint32_t r1, uint32_t opcode, const void *payload, uint32_t size,
          uint32_t r2, uint32_t r3, uint32_t r4),
         (queue, destination, r1, opcode, payload, size, r2, r3, r4), (errno = ENOBUFS, -1), (opcode, size))
CAN_FAIL(int, mts_options_set, (mts_queue * queue, uint32_t opcode, uint32_t options), (queue, opcode, options),
         (errno = EINVAL, -1), (opcode, hex(options).c_str()))

// Memory.
NOTED(void, slab_set_attr, (slab_attr * attr, uint32_t kind, uint32_t flags), (attr, kind, flags), (kind, flags))
CAN_FAIL(slab_handle, slab_create, (size_t size, uint16_t count, const slab_attr *attr, const char *name),
         (size, count, attr, name), nullptr, (name, uint32_t{count}))
CAN_FAIL(void *, slab_calloc, (slab_handle slab), (slab), nullptr, ())
NOTED(void, slab_free, (slab_handle slab, void *object), (slab, object), ())
NOTED(void, slab_destroy, (slab_handle * slab), (slab), ())
CAN_FAIL(void *, mtrack_alloc, (uint32_t identity, uint32_t type, size_t size), (identity, type, size), nullptr,
         (identity, type))
NOTED(void, mtrack_free, (void *buffer), (buffer), ())

// Timers and clock.
CAN_FAIL(uint8_t, active_timer_new_set_init, (uint32_t size), (size), 0, (size))
CAN_FAIL(active_timer *, active_timer_create,
         (uint8_t set, uint32_t type, active_timer_callback callback, void *argument), (set, type, callback, argument),
         nullptr, (type))
CAN_FAIL(int, active_timer_start, (active_timer * timer, uint32_t seconds, uint32_t r1, uint32_t r2, uint32_t r3),
         (timer, seconds, r1, r2, r3), 0, (seconds))
NOTED(void, active_timer_stop, (active_timer * timer), (timer), ())
NOTED(void, active_timer_cancel, (active_timer * timer), (timer), ())
CAN_FAIL(int, zeph_sys_mclock_get, (zeph_timestamp * now), (now), -1, ())

// Containers.
CAN_FAIL(int, ravl_insert, (ravl_tree * tree, void *record), (tree, record), 0, ())
CAN_FAIL(pt_attr *, pt_attr_create, (uint32_t flags, uint32_t kind, uint32_t bytes), (flags, kind, bytes), nullptr,
         (flags, kind, bytes))
CAN_FAIL(int, pt_add, (pt_attr * attr, pt_root **root, uint32_t bytes, const void *key, uint32_t bits, void *data),
         (attr, root, bytes, key, bits, data), 1, (bytes))
CAN_FAIL(txlist *, txlist_create, (uint32_t flags, uint32_t size), (flags, size), nullptr, (flags, size))
NOTED(void, txlist_destroy, (txlist * tx), (tx), ())
CAN_FAIL(txlist_iterator *, txlist_iterator_create, (txlist * tx), (tx), nullptr, ())
NOTED(txlist_obj *, txlist_get_next_node, (txlist * tx, txlist_obj *node), (tx, node), ())
CAN_FAIL(int, renqueue_data, (rqueue * queue, void *data, uint32_t tag), (queue, data, tag), 0, (tag))

// Yields.
YIELDS(tsp_sched_may_yield)
extern "C" void __wrap_ravl_pre_sched_yield(ravl_iterator *iterator);
extern "C" void __wrap_ravl_pre_sched_yield(ravl_iterator *iterator) {
  enter("ravl_pre_sched_yield", "", false);
  yield_hook();
  ::ravl_pre_sched_yield(iterator);
}
extern "C" int __wrap_tsp_should_sched_yield();
extern "C" int __wrap_tsp_should_sched_yield() {
  return enter("tsp_should_sched_yield", "", false) ? 1 : ::tsp_should_sched_yield();
}
extern "C" void __wrap_tsp_sched_yield();
extern "C" void __wrap_tsp_sched_yield() {
  enter("tsp_sched_yield", "", false);
  yield_hook();
  ::tsp_sched_yield();
}

// Threads. A condition wait and a signal are made known to the scheduler, so that settle() can tell a thread that
// sleeps from one that was woken.
CAN_FAIL(int, quillon_pthread_create,
         (pthread_t * handle, const pthread_attr_t *attributes, void *(*body)(void *), void *argument,
          const char *name),
         (handle, attributes, body, argument, name), EAGAIN, (name))
extern "C" int __wrap_pthread_cond_signal(pthread_cond_t *condition);
extern "C" int __wrap_pthread_cond_signal(pthread_cond_t *condition) {
  enter("pthread_cond_signal", "", false);
  ref::note_condition_signal(condition);
  return ::pthread_cond_signal(condition);
}
extern "C" int __wrap_pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *locked);
extern "C" int __wrap_pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *locked) {
  ref::note_condition_wait(condition);
  const int result = ::pthread_cond_wait(condition, locked);
  ref::note_condition_woken(condition);
  return result;
}

// Diagnostics.
CAN_FAIL(int, sdwrap_dbg_init_register_mts_q, (mts_queue * queue), (queue), 5, ())
NOTED(const char *, ip_print_addr, (ip_addr_t addr), (addr), ())

// MRIB.
CAN_FAIL(mrib_client_handle *, mrib_register,
         (const char *name, mts_queue *queue, uint32_t r1, uint32_t flags, uint32_t r2, uint32_t r3, uint32_t r4,
          uint32_t r5),
         (name, queue, r1, flags, r2, r3, r4, r5), nullptr, (name, flags))
CAN_FAIL(mrib_client_handle *, mrib_reregister,
         (const char *name, mts_queue *queue, uint32_t r1, uint32_t flags, uint32_t r2, uint32_t r3, uint32_t r4),
         (name, queue, r1, flags, r2, r3, r4), nullptr, (name, flags))
NOTED(mrib_client_handle *, mrib_get_pib, (const char *name), (name), (name))
CAN_FAIL(int, mrib_deregister, (const char *name, uint32_t flags), (name, flags), 0, (name, flags))
CAN_FAIL(int, mrib_mts_update_route,
         (mrib_client_handle * client, uint32_t operation, void *buffer, uint32_t length, uint32_t entries,
          uint32_t xid, uint32_t reserved),
         (client, operation, buffer, length, entries, xid, reserved), 1, (length, entries, hex(xid).c_str()))
CAN_FAIL(int, mrib_update_mdt_encap_info,
         (mrib_client_handle * client, const void *record, uint32_t operation, uint32_t xid, uint32_t reserved),
         (client, record, operation, xid, reserved), 0, (hex(xid).c_str()))
NOTED(void, mrib_trigger_rpf_lookup, (mrib_client_handle * client, const mrib_rpf_request *request), (client, request),
      (request->context_id))
NOTED(void, mrib_trigger_join_notify, (mrib_client_handle * client), (client), ())
NOTED(void, mrib_acquire_rdlock, (), (), ())
NOTED(void, mrib_release_rdlock, (), (), ())

// Tunnel manager.
CAN_FAIL(int, oim_register, (mts_queue * queue), (queue), 0, ())
NOTED(void, oim_deregister, (), (), ())
NOTED(void, oim_api_init, (), (), ())
NOTED(void, oim_api_close, (), (), ())
NOTED(uint32_t, oim_if_info_list_get_size, (uint32_t interfaces, uint32_t parameters, uint32_t longest),
      (interfaces, parameters, longest), (interfaces, parameters, longest))
CAN_FAIL(int, oim_if_info_list_add_new_if, (void *tunnels, uint32_t size, uint8_t **header), (tunnels, size, header), 0,
         ())
CAN_FAIL(int, oim_if_info_list_add_new_param_tlv, (void *tunnels, uint32_t size, uint8_t *header, uint8_t **tlv),
         (tunnels, size, header, tlv), 0, ())
NOTED(int, oim_create_if, (const void *tunnels, uint32_t size), (tunnels, size), ())
NOTED(int, oim_modify_if, (const void *tunnels, uint32_t size), (tunnels, size), ())
NOTED(int, oim_delete_if, (const void *tunnels, uint32_t size), (tunnels, size), ())
NOTED(int, oim_send_if_bringup_request, (if_index_t if_index, uint32_t r), (if_index, r), (r))
NOTED(int, oim_send_if_bringdown_request, (if_index_t if_index, uint32_t r), (if_index, r), (r))

// VRF and interface managers, addresses.
CAN_FAIL(int, l3vm_get_context_info, (vrf_context_id_t context_id, l3vm_context_info *info), (context_id, info), 0,
         (context_id))
NOTED(vrf_context_id_t, l3vm_if_get_context_id, (im_iod_t iod), (iod), (iod))
NOTED(im_iod_t, im_get_if_by_name, (const char *name), (name), (name))
NOTED(int, im_is_if_up, (im_iod_t iod), (iod), (iod))
NOTED(int, ksink_im_is_if_up, (im_iod_t iod), (iod), ())
NOTED(int, im_get_iod_frm_ifindex, (if_index_t if_index, im_iod_t *iod), (if_index, iod), ())
CAN_FAIL(int, ksink_im_get_ifindex_frm_iod, (im_iod_t iod, if_index_t *if_index), (iod, if_index), 1, (iod))
CAN_FAIL(int, if_index_overlay_cli_init, (if_index_t * if_index, uint32_t sort, uint32_t table_id),
         (if_index, sort, table_id), 1, (sort, table_id))
NOTED(ip_addr_t, ip_get_local_addr, (im_iod_t iod), (iod), (iod))
NOTED(int, ip_set_unnumbered, (im_iod_t iod, const char *name), (iod, name), (name))
NOTED(int, ip_unset_unnumbered, (im_iod_t iod), (iod), ())

// BGP.
CAN_FAIL(int, bgp_api_init, (), (), 0, ())
NOTED(void, bgp_api_close, (), (), ())
CAN_FAIL(int, bgp_get_rd, (const char *name, uint8_t rd[ROUTE_DISTINGUISHER_SIZE], uint32_t r), (name, rd, r), 0,
         (name))
NOTED(void, bgp_mvpn_get_update_source, (char *name, uint32_t size), (name, size), (size))

// Host PIM process.
CAN_FAIL(pim_cibtype *, pim_create_context, (const char *name), (name), nullptr, (name))
NOTED(int, pim_check_feature_configured, (const char *feature), (feature), (feature))
NOTED(int, pim_enable, (uint32_t r1, pim_cibtype *pcib, im_iod_t iod, uint32_t r2), (r1, pcib, iod, r2), ())
NOTED(int, pim_disable,
      (uint32_t r1, pim_cibtype *pcib, pim_iftype *interface, im_iod_t iod, uint32_t mode, uint32_t r2, uint32_t r3),
      (r1, pcib, interface, iod, mode, r2, r3), (mode, r2, r3))
NOTED(int, pim_is_enabled, (im_iod_t iod), (iod), ())
CAN_FAIL(pim_iftype *, pim_get_iftype, (im_iod_t iod), (iod), nullptr, ())
NOTED(uint32_t, pim_calculate_holdtime, (uint32_t interval, int *adjusted), (interval, adjusted), (interval))
NOTED(void, pim_send_periodic_hello, (pim_iftype * interface), (interface), ())
NOTED(void, pim_setup_encap_for_pending_routes, (pim_cibtype * pcib), (pcib), ())
NOTED(void, pim_delete_oif_from_all_routes, (pim_cibtype * pcib, im_iod_t iod, uint32_t r), (pcib, iod, r), (r))
NOTED(int, pim_is_ssm_group, (vrf_context_id_t context_id, ip_addr_t group), (context_id, group), (context_id))
NOTED(int, pim_is_bidir_group, (vrf_context_id_t context_id, ip_addr_t group), (context_id, group), (context_id))
NOTED(void, pim_add_route,
      (pim_cibtype * pcib, pim_route *route, uint32_t r1, uint32_t r2, uint32_t r3, uint32_t r4, uint32_t r5,
       uint32_t r6),
      (pcib, route, r1, r2, r3, r4, r5, r6), (r1, r2, r3, r4, r5, r6))
NOTED(void, tsp_lock_acquire_wrlock, (tsp_lock * lock), (lock), ())
NOTED(void, pim_release_wrlock, (), (), ())
NOTED(void, pim_mrib_wakeup_txlist_worker_thread, (), (), ())

// Persistent store.
CAN_FAIL(int, ksink_pss_update,
         (ksink_pss * store, const void *key, uint32_t key_size, const void *value, uint32_t length),
         (store, key, key_size, value, length), 0, (key_size))
NOTED(int, ksink_pss_fetch,
      (ksink_pss * store, const void *key, uint32_t key_size, const void **value, uint32_t *length),
      (store, key, key_size, value, length), ())
CAN_FAIL(int, ksink_pss_delete, (ksink_pss * store, const void *key, uint32_t key_size), (store, key, key_size), 0,
         (key_size))
CAN_FAIL(int, ksink_pss_delete_range, (ksink_pss * store, const void *prefix, uint32_t size), (store, prefix, size), 0,
         (size))

// Packets and sockets.
CAN_FAIL(mbuf *, m_get_prio, (uint32_t wait, uint32_t type, uint32_t priority), (wait, type, priority), nullptr,
         (wait, type, priority))
CAN_FAIL(int, m_copyback, (mbuf * buffer, uint32_t offset, uint32_t length, const void *data),
         (buffer, offset, length, data), 1, (length))
NOTED(void, m_freem, (mbuf * buffer), (buffer), ())
NOTED(int, mfwd_client_ip_output,
      (vrf_context_id_t context_id, mbuf *buffer, uint32_t r1, im_iod_t iod, uint32_t r2, mts_queue *queue),
      (context_id, buffer, r1, iod, r2, queue), (context_id))
NOTED(int, ip_cl_output,
      (vrf_context_id_t context_id, mbuf *buffer, uint32_t r1, im_iod_t iod, uint32_t r2, ip_client *client),
      (context_id, buffer, r1, iod, r2, client), (context_id))
CAN_FAIL(int, tcp_setup, (const char *process, const char *path), (process, path), 0, (process, path))
CAN_FAIL(int, quillon_socket, (int domain, int type, int protocol), (domain, type, protocol), (errno = EMFILE, -1),
         (domain, type, protocol))
CAN_FAIL(int, quillon_setsockopt, (int socket, int level, int option, const void *value, uint32_t length),
         (socket, level, option, value, length), (errno = ENOPROTOOPT, -1), (level, option))
CAN_FAIL(int, quillon_bind, (int socket, const quillon_sockaddr_in *address, uint32_t length),
         (socket, address, length), (errno = EADDRINUSE, -1), ())
NOTED(int, quillon_close, (int socket), (socket), ())

// Route policies.
CAN_FAIL(int, rpm_policy_bind, (uint32_t client, const char *name, rpm_binding *binding), (client, name, binding), 0,
         (client, name))
// An unbind that fails has dropped the binding all the same: the manager keeps no pointer to it.
CAN_FAIL(int, rpm_policy_unbind, (uint32_t handle), (handle), (::rpm_policy_unbind(handle), 0), ())

// Command line.
CAN_FAIL(int, cli_register_cmd, (const char *name, cli_handler handler, uint32_t r), (name, handler, r), 1, (name, r))
NOTED(int, cli_send_my_global_vrf_commands, (uint32_t r, const char *name), (r, name), (r, name))
NOTED(int, cli_get_string, (cli_command * command, const char *name, const char **out), (command, name, out), (name))
NOTED(int, cli_get_ipaddr, (cli_command * command, const char *name, ip_addr_t *out), (command, name, out), (name))
NOTED(int, cli_get_integer, (cli_command * command, const char *name, int32_t *out), (command, name, out), (name))

}  // namespace trace

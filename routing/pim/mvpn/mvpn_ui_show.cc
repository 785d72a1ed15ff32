// Show commands: the module's state as text and as recorded values.
//
// Each view prints from live records and keeps nothing between calls. Every value that it prints is recorded under an
// element of the output schema, so that one walk serves the operator's screen and a JSON or XML document. Where the
// text of a value is for people (a duration, "Yes", an asterisk), the document gets the value itself.
//
// A per-VRF view is a printer for one VRF; the host says whether the command addresses one VRF or all. The module
// being anything but up, or a VRF without MVPN, is shown by silence; only the module's own state is shown always.
//
// Listings can be long, so they give way to other work as they go, and ask there whether the operator wants more. After
// a yield nothing is known: a walk finds the VRF's context and its own place again by name and key. The transmit list
// has no keys; its walk is an iterator that stands on the list itself, parked before a yield and taken off on every way
// out.
#include "routing/pim/mvpn/mvpn_ui_show_internal.h"

#include <cstring>

#include "platform/im.h"
#include "platform/ip.h"
#include "platform/thread.h"
#include "platform/tlvu.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_ha.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mdt_safi.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "routing/pim/mvpn/mvpn_ui_output.h"

namespace {

// Intervals of data MDTs as the status view shows them: the protocol's own, in seconds.
constexpr int JOIN_INTERVAL_SHOWN = 60;
constexpr int SWITCHOVER_INTERVAL_SHOWN = 3;
constexpr int HOLDDOWN_INTERVAL_SHOWN = 60;
constexpr int TIMEOUT_INTERVAL_SHOWN = 180;

// What is printed between two yields: more keeps other threads waiting for longer, less makes a long view slower, since
// the place is looked for again behind each. No finer reason; the second is 200 routes and the worker's mark among
// them.
constexpr uint32_t ROUTES_PER_YIELD = 100;
constexpr uint32_t TXLIST_OBJECTS_PER_YIELD = 201;

// Runs a printer for the VRF that a command addresses, or for all.
int show_vrfs(cli_command *command, mvpn_vrf_printer printer) {
  if (!mvpn_is_up()) return CLI_RESULT_OK;
  int all = 0;
  const pim_cibtype *pcib = pim_get_cib_from_command_line(command, &all);
  if (all != 0) return mvpn_show_clear_walk_all_vrfs(command, printer);
  if (pcib != nullptr && pcib->mvpn != nullptr) printer(command, pcib->mvpn);
  return CLI_RESULT_OK;
}

const char *yes_or_no(bool yes) { return yes ? "Yes" : "No"; }

// A duration as text is for people; the document gets it through here.
void record_duration(cli_command *command, cli_element element, const zeph_timestamp &duration) {
  cli_xml_duration(command, &duration, 0, element);
}

// ------------------------------------------------------------------------------------------------------ VRF status

void print_tunnel(cli_command *command, const mvpn_cibtype *mvpn) {
  mvpn_print(command, "MVPN Status Information for VRF \"%s\" : MTI(%s) %s\n",
             as(CLI_ELEMENT_VRF_NAME, mvpn->pcib->vrf_name),
             as(CLI_ELEMENT_VRF_MTI_NAME, mvpn_interface_text(mvpn->mti_iod)),
             as(CLI_ELEMENT_VRF_MTI_STATUS, mvpn_mti_status_str[mvpn->mti_status]));
  mvpn_print(command, "  Default MDT group %s (Mode - %s%s%s)\n",
             as(CLI_ELEMENT_VRF_DEFAULT_GROUP, ip_print_addr(mvpn->mdt_default_group)),
             as(CLI_ELEMENT_VRF_GROUP_MODE, mvpn_mdt_group_mode_str[mvpn->mdt_group_mode]),
             as(CLI_ELEMENT_VRF_SHARED, mvpn->enforce_bgp_mdt_safi != 0 ? "" : " Shared"),
             text_only(mvpn->asm_use_shared_tree != 0 ? " Shared Only" : ""));
  cli_xml_boolean(command, mvpn->asm_use_shared_tree, CLI_ELEMENT_VRF_SHARED_TREE_ONLY);
  const pim_iftype *interface = pim_get_iftype(mvpn->mti_iod);
  mvpn_print(command, "    Configured MTU: %u bytes, Actual MTU: %u bytes\n",
             as(CLI_ELEMENT_VRF_CONFIGURED_MTU, mvpn->mdt_mtu),
             as(CLI_ELEMENT_VRF_ACTUAL_MTU, interface != nullptr ? interface->mtu : 0u));
  mvpn_print(command, "    Configured tunnel source interface: %s\n",
             as(CLI_ELEMENT_VRF_CONFIGURED_SOURCE, mvpn->mdt_source_ifname));
  mvpn_print(command, "    Default BGP tunnel source interface: %s\n",
             as(CLI_ELEMENT_VRF_BGP_SOURCE, mvpn_bgp_updatesrc_ifname));
}

void print_intervals(cli_command *command, const mvpn_cibtype *mvpn) {
  mvpn_print(command, "    PIM Hello Interval: %d milliseconds\n",
             as(CLI_ELEMENT_VRF_HELLO_INTERVAL, static_cast<int>(mvpn->pim_hello_interval)));
  mvpn_print(command, "    PIM JP Interval: %d seconds\n",
             as(CLI_ELEMENT_VRF_JP_INTERVAL, static_cast<int>(mvpn->pim_jp_interval)));
  mvpn_print(command, "    Data MDT Join Interval: %d seconds\n",
             as(CLI_ELEMENT_VRF_DATA_JOIN_INTERVAL, JOIN_INTERVAL_SHOWN));
  mvpn_print(command, "    Data MDT Switchover Interval: %d seconds\n",
             as(CLI_ELEMENT_VRF_DATA_SWITCHOVER, SWITCHOVER_INTERVAL_SHOWN));
  mvpn_print(command, "    Data MDT Holddown Interval: %d seconds\n",
             as(CLI_ELEMENT_VRF_DATA_HOLDDOWN, HOLDDOWN_INTERVAL_SHOWN));
  mvpn_print(command, "    Data MDT Timeout Interval: %d seconds\n",
             as(CLI_ELEMENT_VRF_DATA_TIMEOUT, TIMEOUT_INTERVAL_SHOWN));
}

void print_source(cli_command *command, const mvpn_cibtype *mvpn) {
  mvpn_print(command, "    MDT Source address: %s (iod %s)\n",
             as(CLI_ELEMENT_VRF_SOURCE_ADDRESS, ip_print_addr(mvpn->mdt_source_addr)),
             as(CLI_ELEMENT_VRF_SOURCE_INTERFACE, ksink_im_get_if_name(mvpn->mdt_source_iod)));
  mvpn_print(command, "    BGP RD: %s (%sset)\n", as(CLI_ELEMENT_VRF_RD, mvpn_bgp_print_rd(mvpn->bgp_rd)),
             text_only(mvpn->bgp_rd_set != 0 ? "" : "not "));
  cli_xml_boolean(command, mvpn->bgp_rd_set, CLI_ELEMENT_VRF_RD_SET);
}

void print_ranges(cli_command *command, const mvpn_cibtype *mvpn) {
  for (const mvpn_data_mdt_range *range = mvpn->data_mdt_config; range != nullptr; range = range->next) {
    mvpn_print(command, "     Data MDT: %s/%d threshold: %lu kbps ",
               as(CLI_ELEMENT_RANGE_PREFIX, ip_print_addr(range->prefix)),
               as(CLI_ELEMENT_RANGE_LENGTH, static_cast<int>(range->masklen)),
               as(CLI_ELEMENT_RANGE_THRESHOLD, static_cast<unsigned long>(range->threshold)));
    if (range->policy.policy_name != nullptr)
      mvpn_print(command, "route-map: %s\n", as(CLI_ELEMENT_RANGE_ROUTE_MAP, range->policy.policy_name));
    else
      cli_tty_printf(command, "\n");
  }
  if (mvpn->data_mdt_config == nullptr) cli_tty_printf(command, "     No Data MDTS Configured \n");
}

int print_status(cli_command *command, mvpn_cibtype *mvpn) {
  print_tunnel(command, mvpn);
  print_intervals(command, mvpn);
  print_source(command, mvpn);
  mvpn_print(command, "    Data MDT Send Join Count: %d\n",
             as(CLI_ELEMENT_VRF_SEND_JOINS, static_cast<int>(mvpn->data_mdt_send_join_count)));
  mvpn_print(command, "    Data MDT Received Join Count: %d\n",
             as(CLI_ELEMENT_VRF_RECEIVED_JOINS, static_cast<int>(mvpn->data_mdt_recv_join_count)));
  print_ranges(command, mvpn);
  return CLI_RESULT_OK;
}

// --------------------------------------------------------------------------------------- core routes, encapsulations

void print_route(cli_command *command, const mvpn_mdt_route *route) {
  const zeph_timestamp uptime = mvpn_time_since(route->create_time);
  mvpn_print(command, " (%s, %s) %s [Refcount: %lu]\n", as(CLI_ELEMENT_ROUTE_SOURCE, ip_print_addr(route->source)),
             as(CLI_ELEMENT_ROUTE_GROUP, ip_print_addr(route->group)), text_only(timestamp_sprint(&uptime)),
             as(CLI_ELEMENT_ROUTE_REFERENCES, static_cast<unsigned long>(mvpn_mdt_mroute_has_referer(route))));
  record_duration(command, CLI_ELEMENT_ROUTE_UPTIME, uptime);
}

int print_routes(cli_command *command, mvpn_cibtype *mvpn) {
  mvpn_print(command, "MVPN MDT(Global) Route information for VRF \"%s\":\n",
             as(CLI_ELEMENT_VRF_NAME, mvpn->pcib->vrf_name));
  const mvpn_vrf_handle vrf(mvpn);
  uint32_t printed = 0;
  const mvpn_mdt_route *route = mvpn_mdt_mroute_first(mvpn);
  while (route != nullptr) {
    print_route(command, route);
    const ip_addr_t source = route->source, group = route->group;
    if (++printed % ROUTES_PER_YIELD == 0) {
      tsp_sched_may_yield();
      mvpn = vrf.get();
      if (mvpn == nullptr || !cli_more_output(command)) break;
    }
    route = mvpn_mdt_mroute_after(mvpn, source, group);
  }
  return CLI_RESULT_OK;
}

int print_encapsulations(cli_command *command, mvpn_cibtype *mvpn) {
  mvpn_print(command, "MVPN MDT Encap Information for VRF \"%s\"\n", as(CLI_ELEMENT_VRF_NAME, mvpn->pcib->vrf_name));
  cli_tty_printf(command, "Encap Index    MDT Group        MDT Source      MDT Source Intf\n");
  for (uint32_t index = MVPN_ENCAP_INDEX_DEFAULT; index < MVPN_ENCAP_INDEXES; index++) {
    if (mvpn->mdt_encap_group[index] == 0) continue;
    mvpn_print(command, "%11d    %-17s%-17s%s\n", as(CLI_ELEMENT_ENCAP_INDEX, static_cast<int>(index)),
               as(CLI_ELEMENT_ENCAP_GROUP, ip_print_addr(mvpn->mdt_encap_group[index])),
               as(CLI_ELEMENT_ENCAP_SOURCE, ip_print_addr(mvpn->mdt_source_addr)),
               as(CLI_ELEMENT_ENCAP_INTERFACE, ksink_im_get_if_name(mvpn->mdt_source_iod)));
  }
  return CLI_RESULT_OK;
}

// ------------------------------------------------------------------------------------------------------- data MDTs

void print_flow_header(cli_command *command) {
  cli_tty_printf(command, "%-16s%-16s%-16s%-16s%-10s\n", "C-Source", "C-Group", "MDT Source", "MDT Group", "Uptime");
}

// One flow on a data MDT, as a line.
void print_sent_line(cli_command *command, const mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs &addrs,
                     const mvpn_data_mdt_send_join_info &join, const zeph_timestamp &uptime) {
  mvpn_print(command, "%-16s%-16s%-16s%-16s", as(CLI_ELEMENT_SENT_C_SOURCE, ip_print_addr(addrs.source)),
             as(CLI_ELEMENT_SENT_C_GROUP, ip_print_addr(addrs.group)),
             as(CLI_ELEMENT_SENT_SOURCE, ip_print_addr(mvpn->mdt_source_addr)),
             as(CLI_ELEMENT_SENT_GROUP, ip_print_addr(join.group)));
  mvpn_print(command, "%-10s", text_only(timestamp_sprint(&uptime)));
  record_duration(command, CLI_ELEMENT_SENT_UPTIME, uptime);
  mvpn_record(command, "%u", as(CLI_ELEMENT_SENT_COUNT, join.join_count));
  cli_tty_printf(command, "\n");
}

// One flow on a data MDT, in detail.
void print_sent_detail(cli_command *command, const mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs &addrs,
                       const mvpn_data_mdt_send_join_info &join, const zeph_timestamp &uptime) {
  const bool holddown = join.state == MVPN_DATA_MDT_STATE_SWITCHBACK_PENDING;
  mvpn_print(command, "C-Source: %s  C-Group: %s\n", as(CLI_ELEMENT_SENT_C_SOURCE, ip_print_addr(addrs.source)),
             as(CLI_ELEMENT_SENT_C_GROUP, ip_print_addr(addrs.group)));
  mvpn_print(command, "    MDT Source: %s  MDT Group: %s\n",
             as(CLI_ELEMENT_SENT_SOURCE, ip_print_addr(mvpn->mdt_source_addr)),
             as(CLI_ELEMENT_SENT_GROUP, ip_print_addr(join.group)));
  mvpn_print(command, "    Uptime: %s \n", text_only(timestamp_sprint(&uptime)));
  record_duration(command, CLI_ELEMENT_SENT_UPTIME, uptime);
  mvpn_print(command, "    Installed in MRIB: %s\n",
             as(CLI_ELEMENT_SENT_INSTALLED, yes_or_no(join.mdt_route != nullptr)));
  mvpn_print(command, "    Send count: %d\n", as(CLI_ELEMENT_SENT_COUNT, static_cast<int>(join.join_count)));
  if (holddown) cli_tty_printf(command, " (holddown)");
  cli_xml_boolean(command, holddown ? 1 : 0, CLI_ELEMENT_SENT_HOLDDOWN);
  cli_tty_printf(command, "\n");
}

bool exceeds(const zeph_timestamp &duration, uint64_t seconds) {
  return duration.seconds > seconds || (duration.seconds == seconds && duration.nanoseconds > 0);
}

int print_sent(cli_command *command, mvpn_cibtype *mvpn) {
  const bool detail = cli_is_set(command, "detail") != 0;
  uint32_t minutes = 0;
  const bool recent_only = cli_is_set(command, "history") != 0 && cli_get_uinteger(command, "<min>", &minutes) != 0;
  mvpn_print(command, "MDT Data Groups Send List for vrf: %s\n", as(CLI_ELEMENT_VRF_NAME, mvpn->pcib->vrf_name));
  if (!detail) print_flow_header(command);
  if (mvpn->data_mdt_config == nullptr) return CLI_RESULT_OK;
  mvpn_walk_sent_flows(
      command, mvpn,
      [&](const mvpn_cibtype *vrf, const mvpn_mdt_route_addrs &addrs, const mvpn_data_mdt_send_join_info &join) {
        const zeph_timestamp uptime = mvpn_time_since(join.switch_time);
        if (recent_only && exceeds(uptime, uint64_t{minutes} * 60)) return mvpn_visit::passed;
        (detail ? print_sent_detail : print_sent_line)(command, vrf, addrs, join, uptime);
        return mvpn_visit::counted;
      });
  return CLI_RESULT_OK;
}

void print_received_line(cli_command *command, const mvpn_data_mdt_recv_join_info &join) {
  const zeph_timestamp uptime = mvpn_time_since(join.create_time);
  mvpn_print(command, "%-16s%-16s%-16s%-16s%-10s\n", as(CLI_ELEMENT_RECEIVED_C_SOURCE, ip_print_addr(join.c_src)),
             as(CLI_ELEMENT_RECEIVED_C_GROUP, ip_print_addr(join.c_grp)),
             as(CLI_ELEMENT_RECEIVED_SOURCE, ip_print_addr(join.p_src)),
             as(CLI_ELEMENT_RECEIVED_GROUP, ip_print_addr(join.p_grp)), text_only(timestamp_sprint(&uptime)));
  record_duration(command, CLI_ELEMENT_RECEIVED_UPTIME, uptime);
}

void print_received_detail(cli_command *command, const mvpn_data_mdt_recv_join_info &join) {
  const zeph_timestamp uptime = mvpn_time_since(join.create_time);
  const zeph_timestamp left = mvpn_time_until(join.expiry_time);
  mvpn_print(command, "C-Source: %s  C-Group: %s\n", as(CLI_ELEMENT_RECEIVED_C_SOURCE, ip_print_addr(join.c_src)),
             as(CLI_ELEMENT_RECEIVED_C_GROUP, ip_print_addr(join.c_grp)));
  mvpn_print(command, "    MDT Source: %s  MDT Group: %s\n", as(CLI_ELEMENT_RECEIVED_SOURCE, ip_print_addr(join.p_src)),
             as(CLI_ELEMENT_RECEIVED_GROUP, ip_print_addr(join.p_grp)));
  mvpn_print(command, "    Uptime: %s  Expires: %s \n", text_only(timestamp_sprint(&uptime)),
             text_only(timestamp_sprint(&left)));
  record_duration(command, CLI_ELEMENT_RECEIVED_UPTIME, uptime);
  record_duration(command, CLI_ELEMENT_RECEIVED_EXPIRES, left);
  mvpn_print(command, "    Installed in MRIB: %s\n",
             as(CLI_ELEMENT_RECEIVED_INSTALLED, yes_or_no(join.mdt_route != nullptr)));
  mvpn_print(command, "    Received count: %d\n", as(CLI_ELEMENT_RECEIVED_COUNT, static_cast<int>(join.join_count)));
  cli_tty_printf(command, "\n");
}

int print_received(cli_command *command, mvpn_cibtype *mvpn) {
  const bool detail = cli_is_set(command, "detail") != 0;
  mvpn_print(command, "MDT Data Groups Received List for vrf: %s\n", as(CLI_ELEMENT_VRF_NAME, mvpn->pcib->vrf_name));
  if (!detail) print_flow_header(command);
  mvpn_walk_received_joins(command, mvpn, [&](const mvpn_cibtype *, const mvpn_data_mdt_recv_join_info &join) {
    (detail ? print_received_detail : print_received_line)(command, join);
    return mvpn_visit::counted;
  });
  return CLI_RESULT_OK;
}

// ----------------------------------------------------------------------------------------- MDT SAFI, stored records

// Elements of an entry; they depend on which of the two views asks.
struct safi_elements {
  cli_element rd, source, group, local;
};
constexpr safi_elements BGP_VIEW = {CLI_ELEMENT_SAFI_RD, CLI_ELEMENT_SAFI_SOURCE, CLI_ELEMENT_SAFI_GROUP,
                                    CLI_ELEMENT_SAFI_LOCAL};
constexpr safi_elements PIM_VIEW = {CLI_ELEMENT_PIM_SAFI_RD, CLI_ELEMENT_PIM_SAFI_SOURCE, CLI_ELEMENT_PIM_SAFI_GROUP,
                                    CLI_ELEMENT_PIM_SAFI_LOCAL};

void print_safi_entry(cli_command *command, const mvpn_bgp_mdt_safi *entry, const safi_elements &elements) {
  const char *rd = mvpn_bgp_print_rd(entry->key.bgp_rd);
  const char *source = ip_print_addr(entry->key.mdt_src);
  const char *group = ip_print_addr(entry->key.mdt_grp);
  cli_tty_printf(command, "%-25s%-15s%17s%s\n", rd, source, group, entry->local != 0 ? "    *" : "");
  mvpn_record(command, "%s %s %s %s\n", as(elements.rd, rd), as(elements.source, source), as(elements.group, group),
              as(elements.local, entry->local != 0 ? "True" : "False"));
}

void print_persisted(cli_command *command, const mvpn_mdt_route_addrs &addrs, const mvpn_ha_encap_info_t &choice) {
  mvpn_print(command, "%-40s%-9u%-16s\n", as(CLI_ELEMENT_PERSISTED_ROUTE, mrib_print_addrs(&addrs)),
             as(CLI_ELEMENT_PERSISTED_INDEX, unsigned{choice.encap_index}),
             as(CLI_ELEMENT_PERSISTED_GROUP, ip_print_addr(choice.mdt_group)));
}

// A record of the store; valid until the next call of the store.
struct stored_record {
  const void *key = nullptr;
  const void *value = nullptr;
  uint32_t length = 0;
};

// First record whose key is not less than `from`, or the one after it when that key itself is there. The store has one
// cursor for the whole process, so a walk that yields finds its place anew.
bool find_stored(const uint8_t *from, bool after, stored_record *record) {
  if (!ksink_pss_get_first(pim_ha_handle, &record->key, from, PSS_KEY_SIZE, &record->value, &record->length))
    return false;
  if (!after || std::memcmp(record->key, from, PSS_KEY_SIZE) != 0) return true;
  return ksink_pss_get_next(pim_ha_handle, &record->key, &record->value, &record->length) != 0;
}

int print_all_persisted(cli_command *command, mvpn_cibtype *mvpn) {
  const vrf_context_id_t context_id = mvpn->pcib->context_id;
  mvpn_print(command, "MDT Data Encap (PSSed) Information for vrf \"%s\"\n",
             as(CLI_ELEMENT_VRF_NAME, mvpn->pcib->vrf_name));
  cli_tty_printf(command, "%-40s%-9s%-16s\n", "C-Route", "Index", "D-Group");
  uint8_t key[PSS_KEY_SIZE];
  mvpn_ha_make_encap_info_pss_key(mvpn->pcib, nullptr, key);
  stored_record record;
  bool found = find_stored(key, false, &record);
  while (found && mvpn_ha_is_encap_key_of(static_cast<const uint8_t *>(record.key), context_id)) {
    std::memcpy(key, record.key, PSS_KEY_SIZE);
    mvpn_ha_encap_info_t choice{};
    if (mvpn_ha_get_encap_info_by_pss_value(static_cast<const uint8_t *>(record.value), record.length, &choice) ==
        TLVU_OK)
      print_persisted(command, mvpn_ha_addrs_of_encap_key(key), choice);
    tsp_sched_may_yield();
    if (!cli_more_output(command)) break;
    found = find_stored(key, true, &record);
  }
  return CLI_RESULT_OK;
}

// -------------------------------------------------------------------------------------------------- MRIB interface

// Elements of an update buffer; they depend on the queue that it stands on.
struct buffer_elements {
  cli_element address, xid, count;
};
constexpr buffer_elements USED_BUFFER = {CLI_ELEMENT_USED_BUFFER_ADDRESS, CLI_ELEMENT_USED_BUFFER_XID,
                                         CLI_ELEMENT_USED_BUFFER_ENTRIES};
constexpr buffer_elements FREE_BUFFER = {CLI_ELEMENT_FREE_BUFFER_ADDRESS, CLI_ELEMENT_FREE_BUFFER_XID,
                                         CLI_ELEMENT_FREE_BUFFER_ENTRIES};

void print_buffers(cli_command *command, const rqueue *queue, const buffer_elements &elements) {
  for (const void *item = rqueue_next(queue, nullptr); item != nullptr; item = rqueue_next(queue, item)) {
    const auto *buffer = static_cast<const mrib_update_buffer *>(item);
    mvpn_print(command, "      Buffer: 0x%p, xid: 0x%x, count: %d\n", as(elements.address, item),
               as(elements.xid, buffer->xid), as(elements.count, static_cast<int>(buffer->count)));
  }
}

void print_mrib_buffers(cli_command *command) {
  const rqueue *used = &mvpn_mrib_info->sent_buffers, *unused = &mvpn_mrib_info->free_buffers;
  mvpn_print(command, "    Used buffer queue count: %d\n",
             as(CLI_ELEMENT_USED_BUFFER_COUNT, static_cast<int>(rqueue_count(used))));
  print_buffers(command, used, USED_BUFFER);
  mvpn_print(command, "    Free buffer queue count: %d\n",
             as(CLI_ELEMENT_FREE_BUFFER_COUNT, static_cast<int>(rqueue_count(unused))));
  print_buffers(command, unused, FREE_BUFFER);
}

const char *operation_text(uint8_t pending) {
  switch (pending) {
    case MVPN_MDT_ROUTE_ADD_PENDING:
      return "ADD-op";
    case MVPN_MDT_ROUTE_DELETE_PENDING:
      return "DELETE-op";
    default:
      return "NO-op";
  }
}

void print_txlist_object(cli_command *command, txlist *list, txlist_obj *object) {
  const auto version = as(CLI_ELEMENT_OBJECT_VERSION, static_cast<int>(txlist_get_obj_version(object)));
  switch (txlist_obj_get_kind(object)) {
    case MVPN_TXLIST_ELEM_ROUTE: {
      const auto *route = static_cast<const mvpn_mdt_route *>(txlist_obj_to_ptr(list, object));
      mvpn_print(command, "%8d: Contex-ID 0x%x (%s, %s) %s\n", version,
                 as(CLI_ELEMENT_OBJECT_CONTEXT_ID, route->mdt_source_context),
                 as(CLI_ELEMENT_OBJECT_SOURCE, route->source == 0 ? "*" : ip_print_addr(route->source)),
                 as(CLI_ELEMENT_OBJECT_GROUP, ip_print_addr(route->group)),
                 as(CLI_ELEMENT_OBJECT_OPERATION, operation_text(route->pending)));
      break;
    }
    case MVPN_TXLIST_ELEM_CONTEXT: {
      const auto *mvpn = static_cast<const mvpn_cibtype *>(txlist_obj_to_ptr(list, object));
      mvpn_print(command, "%8d: Recheck Element %s\n", version, as(CLI_ELEMENT_OBJECT_VRF_NAME, mvpn->pcib->vrf_name));
      break;
    }
    case MVPN_TXLIST_MEMBER_WORKER:
      mvpn_print(command, "%8d: MRIB Member\n", version);
      break;
    default:
      break;
  }
}

// Takes the iterator of a walk off its list on every way out.
class txlist_iterator_guard {
 public:
  explicit txlist_iterator_guard(txlist *list) : iterator(txlist_iterator_create(list)) {}
  ~txlist_iterator_guard() {
    if (iterator != nullptr) txlist_iterator_remove(iterator);
  }
  txlist_iterator_guard(const txlist_iterator_guard &) = delete;
  txlist_iterator_guard &operator=(const txlist_iterator_guard &) = delete;
  txlist_iterator *const iterator;
};

int print_txlist(cli_command *command) {
  txlist *list = mvpn_mrib_info->txlist;
  mvpn_print(command, "MVPN MDT Route Transmit list - version %#x\n",
             as(CLI_ELEMENT_TRANSMIT_LIST_VERSION, txlist_get_version(list)));
  const txlist_iterator_guard walk(list);
  if (walk.iterator == nullptr) {
    cli_cmd_printf(command, "  Unable to initialize txlist iterator\n");
    return CLI_RESULT_REJECTED;
  }
  uint32_t printed = 0;
  while (txlist_obj *object = txlist_iterator_next(walk.iterator)) {
    print_txlist_object(command, list, object);
    if (++printed % TXLIST_OBJECTS_PER_YIELD != 0) continue;
    txlist_iterator_commit(walk.iterator);
    if (!cli_more_output(command)) return CLI_RESULT_REJECTED;
    tsp_sched_yield();
    // The interface to the MRIB, and the list with it, may have gone.
    if (mvpn_mrib_info == nullptr || mvpn_mrib_info->txlist != list) return CLI_RESULT_OK;
  }
  cli_tty_printf(command, "\n");
  return CLI_RESULT_OK;
}

unsigned long count_contexts() {
  unsigned long count = 0;
  mvpn_for_each_context([&count](const mvpn_cibtype *) {
    count++;
    return true;
  });
  return count;
}

}  // namespace

int mvpn_show_clear_walk_all_vrfs(cli_command *command, mvpn_vrf_printer printer) {
  mvpn_for_each_context([=](mvpn_cibtype *mvpn) {
    if (printer != nullptr) printer(command, mvpn);
    cli_tty_printf(command, "\n");
    return cli_more_output(command) != 0;
  });
  return CLI_RESULT_OK;
}

int mvpn_show_mdt_cmd(cli_command *command) { return show_vrfs(command, print_status); }

int mvpn_show_mdt_route_cmd(cli_command *command) {
  if (!mvpn_is_up()) return CLI_RESULT_OK;
  return mvpn_show_clear_walk_all_vrfs(command, print_routes);
}

int mvpn_show_bgp_auto_discovery_cmd(cli_command *command) {
  if (!mvpn_is_up()) return CLI_RESULT_OK;
  uint8_t low[MVPN_MDT_SAFI_TREE_KEY_SIZE], high[MVPN_MDT_SAFI_TREE_KEY_SIZE];
  std::memset(low, 0, sizeof low);
  std::memset(high, 0xFF, sizeof high);
  ip_addr_t source = 0;
  if (cli_get_ipaddr(command, "<src-addr>", &source) != 0) {
    std::memcpy(low, &source, sizeof source);
    std::memcpy(high, &source, sizeof source);
  }
  const safi_elements &elements = cli_is_set(command, "pim") != 0 ? PIM_VIEW : BGP_VIEW;
  cli_tty_printf(command, "BGP Route-Distinguisher  PE Address       MDT Default-group Local\n");
  ravl_iterator walk{};
  void *entry = ravl_get_first_node_in_range(&mvpn_bgp_mdt_safi_db, low, high, &walk);
  while (entry != nullptr) {
    print_safi_entry(command, static_cast<const mvpn_bgp_mdt_safi *>(entry), elements);
    ravl_pre_sched_yield(&walk);
    if (!cli_more_output(command)) break;
    entry = ravl_get_next_node_in_range(&mvpn_bgp_mdt_safi_db, low, high, &walk);
  }
  return CLI_RESULT_OK;
}

int mvpn_show_mdt_bgp_cmd(cli_command *command) { return mvpn_show_bgp_auto_discovery_cmd(command); }

int mvpn_show_mdt_encap_cmd(cli_command *command) { return show_vrfs(command, print_encapsulations); }

int mvpn_show_mdt_receive_cmd(cli_command *command) { return show_vrfs(command, print_received); }

int mvpn_show_mdt_send_cmd(cli_command *command) { return show_vrfs(command, print_sent); }

int mvpn_show_mdt_send_history_cmd(cli_command *command) { return mvpn_show_mdt_send_cmd(command); }

int mvpn_show_internal_mrib_txlist_cmd(cli_command *command) {
  if (!mvpn_is_up() || mvpn_mrib_info == nullptr || mvpn_mrib_info->txlist == nullptr) return CLI_RESULT_OK;
  mvpn_print(command, "MRIB txlist work pending: %s\n",
             as(CLI_ELEMENT_MRIB_WORK_PENDING, mvpn_mrib_info->work_pending != 0 ? "TRUE" : "FALSE"));
  if (cli_is_set(command, "mrib-buffers") != 0) {
    print_mrib_buffers(command);
    return CLI_RESULT_OK;
  }
  if (cli_is_set(command, "mrib-txlist") != 0) return print_txlist(command);
  return CLI_RESULT_OK;
}

int mvpn_show_internal_ha_cmd(cli_command *command) { return show_vrfs(command, print_all_persisted); }

int mvpn_show_internal_state_cmd(cli_command *command) {
  mvpn_print(command, "  MVPN Feature Configured: %s\n",
             as(CLI_ELEMENT_FEATURE_CONFIGURED, yes_or_no(pim_mvpn_feature_configured != 0)));
  mvpn_print(command, "  MVPN Functionality Status: %s\n",
             as(CLI_ELEMENT_FUNCTIONALITY_STATUS, mvpn_functionality_status_str[mvpn_functionality_status]));
  mvpn_print(command, "  MVPN CLI Done: %s\n", as(CLI_ELEMENT_CLI_DONE, yes_or_no(mvpn_is_cli_done != 0)));
  mvpn_print(command, "  MVPN VRF Count: %lu\n",
             as(CLI_ELEMENT_VRF_COUNT, static_cast<unsigned long>(mvpn_mvrf_count)));
  mvpn_print(command, "  MVPN VRF Reference Count: %lu\n", as(CLI_ELEMENT_VRF_REFERENCE_COUNT, count_contexts()));
  return CLI_RESULT_OK;
}

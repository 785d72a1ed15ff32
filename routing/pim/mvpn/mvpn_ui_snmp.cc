// SNMP handlers: scalars and tables of the MVPN MIB for the host's SNMP agent.
//
// The agent runs a handler with the index objects of a row as arguments, or with those of the row before it for a
// get-next, and takes the printed values, one to a line and each under its element, as the columns of the row. Printing
// nothing is the answer to an index that has no row, and the end of a table.
//
// VRFs are visited in name order; a VRF is a PIM context with an MVPN context. Inside a VRF rows stand in the order of
// the tree that holds them, and the tables differ in which row comes after an index, also after one whose row does not
// exist any more:
//
//   core routes      the route behind the one that matches the index exactly; with no such route the first one with a
//                    greater source. Routes are ordered by source and group, so both are found without a walk.
//   join send        the first flow in tree order with a greater group or a greater source.
//   join receive     the next in the order that announced_after describes: the tree's order is by customer flow, of
//                    which the index says nothing.
//   BGP MDT update   the entry behind one that equals the index, or the first with a greater (group, source), whichever
//                    the walk meets first. Entries of different route distinguishers may have the same index; such a
//                    run counts as one entry, or an agent would be given the same index again for ever.
//
// Handlers keep nothing between calls, so any index is a fair question: every answer is found in one pass at most, and
// all ordering is by comparison with the index, which need not exist.
#include "routing/pim/mvpn/mvpn_ui_snmp.h"

#include <cstring>
#include <span>
#include <utility>

#include "platform/im.h"
#include "platform/ip.h"
#include "platform/thread.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_datamdt.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mdt_safi.h"
#include "routing/pim/mvpn/mvpn_ui_output.h"

namespace {

constexpr uint32_t VRFS_PER_YIELD = 100;  // looked at, most of them for nothing
constexpr size_t NAME_BYTES_COMPARED = VRF_NAME_MAX + 1;
constexpr uint64_t NANOSECONDS_PER_SECOND = 1000000000;

constexpr int ROW_ACTIVE = 1;
constexpr int ENCAPSULATION_GRE = 1;
constexpr int NOTIFICATIONS_DISABLED = 2;
constexpr int DIRECTION_LOCAL = 1;
constexpr int DIRECTION_REMOTE = 2;
constexpr int MDT_TYPE_DEFAULT = 1;
constexpr int MDT_TYPE_DATA = 2;

// Index of a row. A part that is absent, or that the table does not have, counts as no VRF name, 0, or direction 1.
struct mvpn_snmp_index {
  const char *vrf_name = nullptr;
  ip_addr_t group = 0;
  ip_addr_t source = 0;
  int32_t direction = 1;   // 1: local route, 2: remote route
  int32_t group_type = 0;  // address types: address_type_val() in every row
  int32_t source_type = 0;
  int32_t if_index = 0;  // an if_index_t; arguments have a sign
};

// ---------------------------------------------------------------------------------------------------------- columns

void print_number(cli_command *command, cli_element element, int value) {
  mvpn_print(command, "%d\n", as(element, value));
}

void print_text(cli_command *command, cli_element element, const char *text) {
  mvpn_print(command, "%s\n", as(element, text));
}

void print_address(cli_command *command, cli_element element, ip_addr_t address) {
  print_text(command, element, ip_print_addr(address));
}

void print_vrf_name(cli_command *command, cli_element element, const mvpn_cibtype *mvpn) {
  print_text(command, element, mvpn->pcib->vrf_name);
}

int address_type_val() { return 1; }

void print_address_type(cli_command *command, cli_element element) {
  print_number(command, element, address_type_val());
}

// Whole seconds, in hundredths; as far as the 32 bits of the column go.
int hundredths(const zeph_timestamp &time) {
  return static_cast<int>((time.seconds + time.nanoseconds / NANOSECONDS_PER_SECOND) * 100);
}

// ------------------------------------------------------------------------------------------------------------- VRFs

// The PIM context of a name, null for none.
pim_cibtype *pcib_named(const char *name) { return name == nullptr ? nullptr : pim_get_cib_by_context_name(name); }

mvpn_cibtype *vrf_named(const char *name) {
  const pim_cibtype *pcib = pcib_named(name);
  return pcib == nullptr ? nullptr : pcib->mvpn;
}

// Calls visit(mvpn) for the VRFs whose name sorts after a name, for all without one, until it returns true.
template <typename Visit>
void visit_vrfs_after(const char *name, Visit visit) {
  pim_cib_iterator iterator;
  uint32_t visited = 0;
  for (const pim_cibtype *pcib = pim_get_first_cib_by_name(&iterator); pcib != nullptr;
       pcib = pim_get_next_cib_by_name(&iterator)) {
    const bool after = name == nullptr || std::strncmp(pcib->vrf_name, name, NAME_BYTES_COMPARED) > 0;
    if (after && pcib->mvpn != nullptr && visit(pcib->mvpn)) return;
    if (++visited % VRFS_PER_YIELD == 0) tsp_sched_may_yield();
  }
}

// First VRF after a name, without one the first of all; `wanted` says which count.
template <typename Wanted>
mvpn_cibtype *first_vrf_after(const char *name, Wanted wanted) {
  mvpn_cibtype *found = nullptr;
  visit_vrfs_after(name, [&](mvpn_cibtype *mvpn) {
    if (wanted(mvpn)) found = mvpn;
    return found != nullptr;
  });
  return found;
}

mvpn_cibtype *first_vrf_after(const char *name) {
  return first_vrf_after(name, [](const mvpn_cibtype *) { return true; });
}

bool has_range(const mvpn_cibtype *mvpn) { return mvpn->data_mdt_config != nullptr; }

// ---------------------------------------------------------------------------------------------------------- indexes

// The argument under which an agent gives a part of a table's index.
struct index_argument {
  cli_record table;
  cli_mib_place place;
  const char *name;
};

#define COLUMN_ARGUMENT(X, id, table, arc, name, syntax, place, text) \
  {CLI_RECORD_MIB_##table, CLI_MIB_##place, "<" name "-in>"},
constexpr index_argument column_arguments[] = {CLI_MIB_COLUMN_LIST(COLUMN_ARGUMENT, )};
#undef COLUMN_ARGUMENT

void read_part(cli_command *command, const index_argument &argument, mvpn_snmp_index *index) {
  switch (argument.place) {
    case CLI_MIB_INDEX_VRF:
      cli_get_string(command, argument.name, &index->vrf_name);
      break;
    case CLI_MIB_INDEX_IF_INDEX:
      cli_get_integer(command, argument.name, &index->if_index);
      break;
    case CLI_MIB_INDEX_GROUP_TYPE:
      cli_get_integer(command, argument.name, &index->group_type);
      break;
    case CLI_MIB_INDEX_GROUP:
      cli_get_ipaddr(command, argument.name, &index->group);
      break;
    case CLI_MIB_INDEX_SOURCE_TYPE:
      cli_get_integer(command, argument.name, &index->source_type);
      break;
    case CLI_MIB_INDEX_SOURCE:
      cli_get_ipaddr(command, argument.name, &index->source);
      break;
    case CLI_MIB_INDEX_DIRECTION:
      cli_get_integer(command, argument.name, &index->direction);
      break;
    case CLI_MIB_VALUE:
      break;
  }
}

// The order in which the parts of an index are asked for, which a host sees: addresses before their types. Tables of
// VRFs go by group, the BGP table by the announcing PE.
constexpr cli_mib_place asked_of_vrf_tables[] = {
    CLI_MIB_INDEX_VRF,       CLI_MIB_INDEX_IF_INDEX,   CLI_MIB_INDEX_GROUP,       CLI_MIB_INDEX_SOURCE,
    CLI_MIB_INDEX_DIRECTION, CLI_MIB_INDEX_GROUP_TYPE, CLI_MIB_INDEX_SOURCE_TYPE,
};
constexpr cli_mib_place asked_of_bgp_table[] = {
    CLI_MIB_INDEX_SOURCE,
    CLI_MIB_INDEX_GROUP,
    CLI_MIB_INDEX_GROUP_TYPE,
    CLI_MIB_INDEX_SOURCE_TYPE,
};

mvpn_snmp_index read_index(cli_command *command, cli_record table) {
  const std::span<const cli_mib_place> order =
      table == CLI_RECORD_MIB_BGP ? std::span<const cli_mib_place>(asked_of_bgp_table) : asked_of_vrf_tables;
  mvpn_snmp_index index;
  for (const cli_mib_place place : order)
    for (const index_argument &argument : column_arguments)
      if (argument.table == table && argument.place == place) read_part(command, argument, &index);
  return index;
}

// ------------------------------------------------------------------------------------------------------ core routes

bool has_address_types(const mvpn_snmp_index &index) {
  return index.group_type == address_type_val() && index.source_type == address_type_val();
}

// What an index's direction is compared with.
int direction_of(const mvpn_mdt_route *route) {
  return route->route_type == MVPN_MDT_ROUTE_LOCAL_DEFAULT || route->route_type == MVPN_MDT_ROUTE_LOCAL_DATA
             ? DIRECTION_LOCAL
             : DIRECTION_REMOTE;
}

// What a row shows as direction: local unless the VRF has a customer route of these addresses that it does not send.
int shown_direction(const mvpn_cibtype *mvpn, const mvpn_mdt_route *route) {
  const mvpn_mdt_route_addrs addrs = {route->source, route->group, MROUTE_HOST_LEN, MROUTE_HOST_LEN, {}};
  const pim_route *croute = pim_get_route_from_pt(mvpn->pcib, &addrs);
  if (croute == nullptr) return DIRECTION_LOCAL;
  const mvpn_data_mdt_send_join_info *join = croute->send_join_info;
  return join != nullptr && join->encap_index != MVPN_ENCAP_INDEX_NONE ? DIRECTION_LOCAL : DIRECTION_REMOTE;
}

bool is_data_route(const mvpn_mdt_route *route) {
  return route->route_type == MVPN_MDT_ROUTE_LOCAL_DATA || route->route_type == MVPN_MDT_ROUTE_REMOTE_DATA;
}

// The route that matches an index exactly, or null.
mvpn_mdt_route *indexed_route(mvpn_cibtype *mvpn, const mvpn_snmp_index &index) {
  mvpn_mdt_route *route = mvpn_mdt_mroute_lookup(mvpn, index.source, index.group);
  return route != nullptr && direction_of(route) == index.direction ? route : nullptr;
}

// ------------------------------------------------------------------------------------------------------------ rows

void mvpn_show_snmp_korva_mvpn_default_table_cmd(cli_command *command, const mvpn_cibtype *mvpn) {
  print_vrf_name(command, CLI_ELEMENT_MIB_DEFAULT_VRF, mvpn);
  print_address_type(command, CLI_ELEMENT_MIB_DEFAULT_ADDR_TYPE);
  print_address(command, CLI_ELEMENT_MIB_DEFAULT_ADDR, mvpn->mdt_default_group);
  print_number(command, CLI_ELEMENT_MIB_DEFAULT_ENCAPS, ENCAPSULATION_GRE);
  mvpn_print(command, "%d", as(CLI_ELEMENT_MIB_DEFAULT_ROW_STATUS, ROW_ACTIVE));
}

void mvpn_show_snmp_korva_mvpn_data_table_cmd(cli_command *command, const mvpn_cibtype *mvpn) {
  const mvpn_data_mdt_range *range = mvpn->data_mdt_config;
  print_vrf_name(command, CLI_ELEMENT_MIB_DATA_VRF, mvpn);
  mvpn_print(command, "%d\n ", as(CLI_ELEMENT_MIB_DATA_ADDR_TYPE, address_type_val()));
  print_address(command, CLI_ELEMENT_MIB_DATA_ADDR, range->prefix);
  mvpn_print(command, "%d\n ", as(CLI_ELEMENT_MIB_DATA_WILDCARD_TYPE, address_type_val()));
  print_address(command, CLI_ELEMENT_MIB_DATA_WILDCARD, ip_wildcard_mask(range->masklen));
  mvpn_print(command, "%u\n", as(CLI_ELEMENT_MIB_DATA_THRESHOLD, range->threshold));
  print_number(command, CLI_ELEMENT_MIB_DATA_ROW_STATUS, ROW_ACTIVE);
}

uint32_t mvpn_snmp_generic_table_get_vrf_interface(pim_cibtype *pcib) {
  uint32_t count = 0;
  for (pim_iftype *interface = pim_get_next_interface(pcib, nullptr); interface != nullptr;
       interface = pim_get_next_interface(pcib, interface))
    count++;
  return count;
}

void mvpn_show_snmp_mvpn_generic_table_show(cli_command *command, const mvpn_cibtype *mvpn) {
  print_vrf_name(command, CLI_ELEMENT_MIB_GENERIC_VRF, mvpn);
  print_number(command, CLI_ELEMENT_MIB_GENERIC_CHANGE, static_cast<int>(mvpn->last_change_code));
  print_number(command, CLI_ELEMENT_MIB_GENERIC_CHANGE_TIME, hundredths(mvpn->last_change_time));
  print_number(command, CLI_ELEMENT_MIB_GENERIC_INTERFACES,
               static_cast<int>(mvpn_snmp_generic_table_get_vrf_interface(mvpn->pcib)));
  print_number(command, CLI_ELEMENT_MIB_GENERIC_ROW_STATUS, ROW_ACTIVE);
}

void mvpn_show_snmp_mvpn_mroute_mdt_table_cmd(cli_command *command, const mvpn_cibtype *mvpn,
                                              const mvpn_mdt_route *route) {
  print_vrf_name(command, CLI_ELEMENT_MIB_MROUTE_VRF, mvpn);
  print_address_type(command, CLI_ELEMENT_MIB_MROUTE_GROUP_TYPE);
  print_address(command, CLI_ELEMENT_MIB_MROUTE_GROUP, route->group);
  print_address_type(command, CLI_ELEMENT_MIB_MROUTE_SOURCE_TYPE);
  print_address(command, CLI_ELEMENT_MIB_MROUTE_SOURCE, route->source);
  print_number(command, CLI_ELEMENT_MIB_MROUTE_DIRECTION, shown_direction(mvpn, route));
  print_address_type(command, CLI_ELEMENT_MIB_MROUTE_MDT_TYPE);
  print_address(command, CLI_ELEMENT_MIB_MROUTE_MDT_GROUP, mvpn->mdt_default_group);
  print_number(command, CLI_ELEMENT_MIB_MROUTE_MDT_KIND, is_data_route(route) ? MDT_TYPE_DATA : MDT_TYPE_DEFAULT);
}

void mvpn_show_snmp_vrf_mdt_send_cmd(cli_command *command, const mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs &addrs,
                                     const mvpn_data_mdt_send_join_info &join) {
  print_vrf_name(command, CLI_ELEMENT_MIB_JN_SEND_VRF, mvpn);
  print_address_type(command, CLI_ELEMENT_MIB_JN_SEND_GROUP_TYPE);
  print_address(command, CLI_ELEMENT_MIB_JN_SEND_GROUP, addrs.group);
  print_address_type(command, CLI_ELEMENT_MIB_JN_SEND_SOURCE_TYPE);
  print_address(command, CLI_ELEMENT_MIB_JN_SEND_SOURCE, addrs.source);
  print_address(command, CLI_ELEMENT_MIB_JN_SEND_MDT_GROUP, join.group);
  // A group that came from the store may lie beyond what the range counts.
  const uint32_t slot = mvpn_data_mdt_pool_slot(join.config, join.group);
  const unsigned long flows = slot < MVPN_DATA_MDT_POOL_GROUPS ? join.config->group_refcount[slot] : 0;
  mvpn_print(command, "%lu", as(CLI_ELEMENT_MIB_JN_SEND_REFERENCES, flows));
}

void mvpn_show_snmp_korva_mvpn_mdt_jn_rcv_table_cmd(cli_command *command, const mvpn_cibtype *mvpn,
                                                    const mvpn_data_mdt_recv_join_info &join) {
  print_vrf_name(command, CLI_ELEMENT_MIB_JN_RCV_VRF, mvpn);
  print_address_type(command, CLI_ELEMENT_MIB_JN_RCV_GROUP_TYPE);
  print_address(command, CLI_ELEMENT_MIB_JN_RCV_GROUP, join.p_grp);
  print_address_type(command, CLI_ELEMENT_MIB_JN_RCV_SOURCE_TYPE);
  print_address(command, CLI_ELEMENT_MIB_JN_RCV_SOURCE, join.p_src);
  print_number(command, CLI_ELEMENT_MIB_JN_RCV_UP_TIME, hundredths(mvpn_time_since(join.create_time)));
  print_number(command, CLI_ELEMENT_MIB_JN_RCV_EXP_TIME, hundredths(mvpn_time_until(join.expiry_time)));
}

void mvpn_show_snmp_mvpn_bgp_mdt_update_table_cmd(cli_command *command, const mvpn_bgp_mdt_safi *entry) {
  // Group 0 would match a VRF that has no group.
  const mvpn_cibtype *mvpn = entry->key.mdt_grp != 0 ? mvpn_get_context_by_mdt_group(entry->key.mdt_grp) : nullptr;
  if (mvpn == nullptr) return;
  print_address_type(command, CLI_ELEMENT_MIB_BGP_GROUP_TYPE);
  print_address(command, CLI_ELEMENT_MIB_BGP_GROUP, entry->key.mdt_grp);
  print_text(command, CLI_ELEMENT_MIB_BGP_RD, mvpn_bgp_print_rd(entry->key.bgp_rd));
  print_address_type(command, CLI_ELEMENT_MIB_BGP_SOURCE_TYPE);
  print_address(command, CLI_ELEMENT_MIB_BGP_SOURCE, entry->key.mdt_src);
  print_address_type(command, CLI_ELEMENT_MIB_BGP_CONFIGURED_TYPE);
  print_address(command, CLI_ELEMENT_MIB_BGP_CONFIGURED_GROUP, mvpn->mdt_default_group);
  print_address_type(command, CLI_ELEMENT_MIB_BGP_USED_TYPE);
  print_address(command, CLI_ELEMENT_MIB_BGP_USED_GROUP, mvpn->mdt_default_group);
}

// ------------------------------------------------------------------------------------------------------ join receive

// Index of an announcement, as a number that orders by group, then source.
uint64_t announced_index(ip_addr_t group, ip_addr_t source) { return uint64_t{group} << 32 | source; }

// Collects, in a pass over a VRF's announcements, the one that a get-next prints.
//
// Announcements are stored by customer flow and announcing PE, while their index is group and PE: several flows may
// share one index, and the tree's order says nothing about indexes. So rows follow each other by ascending index, in a
// ring that is cut before the index of the tree's first record: that record starts a table, the greatest index is
// followed by the smallest, and the last row is the one below the first. Each index comes once, however many records
// have it, and an index that is not there any more has its place in the ring all the same. Only an index of zeros that
// no record has stands before the first row: it is what an agent without a row asks with.
class announced_after {
 public:
  explicit announced_after(const mvpn_snmp_index &index) : index_(announced_index(index.group, index.source)) {}

  void visit(const mvpn_data_mdt_recv_join_info &join) {
    const uint64_t its_index = announced_index(join.p_grp, join.p_src);
    if (!started_) {
      started_ = true;
      first_ = join;
      first_index_ = its_index;
    }
    if (its_index == index_) {
      index_exists_ = true;
    } else if (comes_later(its_index) && (!found_ || distance(its_index) < distance(best_index_))) {
      found_ = true;
      best_ = join;
      best_index_ = its_index;
    }
  }

  // The announcement that follows, null for none; a copy, since the records may have changed since they were visited.
  const mvpn_data_mdt_recv_join_info *result() const {
    if (index_ == 0 && started_ && !index_exists_) return &first_;
    return found_ ? &best_ : nullptr;
  }

 private:
  // Steps from the index upwards to another one, through the end of the numbers.
  uint64_t distance(uint64_t other) const { return other - index_; }
  // Places in the ring, counted from the cut.
  bool comes_later(uint64_t other) const { return other - first_index_ > index_ - first_index_; }

  uint64_t index_;
  bool started_ = false;
  bool index_exists_ = false;
  bool found_ = false;
  uint64_t first_index_ = 0;
  uint64_t best_index_ = 0;
  mvpn_data_mdt_recv_join_info first_{};
  mvpn_data_mdt_recv_join_info best_{};
};

void join_receive_get(cli_command *command, const mvpn_snmp_index &index) {
  mvpn_cibtype *mvpn = vrf_named(index.vrf_name);
  if (!has_address_types(index) || mvpn == nullptr) return;
  mvpn_walk_received_joins(command, mvpn, [&](const mvpn_cibtype *vrf, const mvpn_data_mdt_recv_join_info &join) {
    if (join.p_src != index.source || join.p_grp != index.group) return mvpn_visit::counted;
    mvpn_show_snmp_korva_mvpn_mdt_jn_rcv_table_cmd(command, vrf, join);
    return mvpn_visit::done;
  });
}

// Prints the first announcement of a VRF; false when it has none.
bool join_receive_first(cli_command *command, const mvpn_cibtype *mvpn) {
  const pt_node *node = pt_get_first_node(mvpn->data_mdt_recv_cache, nullptr, 0);
  if (node == nullptr) return false;
  mvpn_show_snmp_korva_mvpn_mdt_jn_rcv_table_cmd(
      command, mvpn, *static_cast<const mvpn_data_mdt_recv_join_info *>(pt_node_data(node)));
  return true;
}

// Prints the announcement that follows the index in its own VRF. True: the answer is known, printed or not.
bool join_receive_next_in_vrf(cli_command *command, mvpn_cibtype *mvpn, const mvpn_snmp_index &index) {
  announced_after follower(index);
  const mvpn_vrf_handle vrf(mvpn);
  const int whole =
      mvpn_walk_received_joins(command, mvpn, [&](const mvpn_cibtype *, const mvpn_data_mdt_recv_join_info &join) {
        follower.visit(join);
        return mvpn_visit::counted;
      });
  const mvpn_cibtype *now = vrf.get();
  if (!whole || now == nullptr) return true;
  if (follower.result() == nullptr) return false;
  mvpn_show_snmp_korva_mvpn_mdt_jn_rcv_table_cmd(command, now, *follower.result());
  return true;
}

void join_receive_next(cli_command *command, const mvpn_snmp_index &index) {
  if (index.vrf_name == nullptr) {
    const mvpn_cibtype *first = first_vrf_after(nullptr);
    if (first != nullptr) join_receive_first(command, first);
    return;
  }
  if (const pim_cibtype *named = pcib_named(index.vrf_name); named != nullptr) {
    if (named->mvpn == nullptr || join_receive_next_in_vrf(command, named->mvpn, index)) return;
  }
  visit_vrfs_after(index.vrf_name, [=](const mvpn_cibtype *mvpn) { return join_receive_first(command, mvpn); });
}

// -------------------------------------------------------------------------------------------------------- join send

enum class row_search { found, exhausted, interrupted };

// Prints the first flow on a data MDT, in tree order, whose addresses match(addrs) accepts.
template <typename Match>
row_search print_first_sent(cli_command *command, mvpn_cibtype *mvpn, Match match) {
  bool found = false;
  const int whole = mvpn_walk_sent_flows(
      command, mvpn,
      [&](const mvpn_cibtype *vrf, const mvpn_mdt_route_addrs &addrs, const mvpn_data_mdt_send_join_info &join) {
        if (!match(addrs)) return mvpn_visit::counted;
        mvpn_show_snmp_vrf_mdt_send_cmd(command, vrf, addrs, join);
        found = true;
        return mvpn_visit::done;
      });
  if (found) return row_search::found;
  return whole ? row_search::exhausted : row_search::interrupted;
}

// --------------------------------------------------------------------------------------------------- BGP MDT update

// The entry that answers a get or a get-next, or null.
const mvpn_bgp_mdt_safi *find_bgp_update(ip_addr_t group, ip_addr_t source, bool getnext) {
  uint8_t low[MVPN_MDT_SAFI_TREE_KEY_SIZE], high[MVPN_MDT_SAFI_TREE_KEY_SIZE];
  std::memset(low, 0, sizeof low);
  std::memset(high, 0xFF, sizeof high);
  ravl_iterator walk{};
  bool behind_index = false;
  void *node = ravl_get_first_node_in_range(&mvpn_bgp_mdt_safi_db, low, high, &walk);
  while (node != nullptr) {
    const auto *entry = static_cast<const mvpn_bgp_mdt_safi *>(node);
    const bool is_index = entry->key.mdt_src == source && entry->key.mdt_grp == group;
    if (is_index && !getnext) return entry;
    const bool greater = std::pair(entry->key.mdt_grp, entry->key.mdt_src) > std::pair(group, source);
    if (!is_index && getnext && (behind_index || greater)) return entry;
    behind_index = behind_index || is_index;
    ravl_pre_sched_yield(&walk);
    node = ravl_get_next_node_in_range(&mvpn_bgp_mdt_safi_db, low, high, &walk);
  }
  return nullptr;
}

// ----------------------------------------------------------------------------------------------------------- tunnel

// The VRF of which the interface is the MTI, or null.
const mvpn_cibtype *vrf_of_tunnel(const pim_iftype *interface, if_index_t if_index) {
  const mvpn_cibtype *mvpn = interface->pcib->mvpn;
  return mvpn != nullptr && mvpn->mti_ifindex == if_index ? mvpn : nullptr;
}

const mvpn_cibtype *tunnel_at(if_index_t if_index) {
  const pim_iftype *interface = if_index != 0 ? pim_snmp_get_ifindex(if_index, 0) : nullptr;
  return interface != nullptr && interface->pcib != nullptr ? vrf_of_tunnel(interface, if_index) : nullptr;
}

// VRF of the first MTI among the PIM interfaces after an if-index. An interface without a VRF ends the walk, and so
// does one that is not after the last, whatever the host's order.
const mvpn_cibtype *tunnel_after(if_index_t if_index) {
  for (const pim_iftype *interface = pim_snmp_get_next_ifindex(if_index);
       interface != nullptr && interface->pcib != nullptr && interface->if_index > if_index;
       interface = pim_snmp_get_next_ifindex(if_index)) {
    if_index = interface->if_index;
    if (const mvpn_cibtype *mvpn = vrf_of_tunnel(interface, if_index); mvpn != nullptr) return mvpn;
  }
  return nullptr;
}

void print_tunnel_row(cli_command *command, const mvpn_cibtype *mvpn) {
  print_number(command, CLI_ELEMENT_MIB_TUNNEL_IF_INDEX, static_cast<int>(mvpn->mti_ifindex));
  print_text(command, CLI_ELEMENT_MIB_TUNNEL_NAME, mvpn_interface_text(mvpn->mti_iod));
  mvpn_print(command, "%s\n ", as(CLI_ELEMENT_MIB_TUNNEL_VRF, mvpn->pcib->vrf_name));
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------- walkers
//
// get prints the row of an index, next the row behind it, in the VRF and those after it. Results: as the handlers';
// get_first CLI_RESULT_REJECTED when the VRF has no row, get of the core-route table when the named PIM context has no
// MVPN. All but the core-route get may yield.

static int mvpn_show_mvpn_mroute_mdt_table_get(cli_command *command, const mvpn_snmp_index &index) {
  const pim_cibtype *pcib = pcib_named(index.vrf_name);
  if (!has_address_types(index) || pcib == nullptr) return CLI_RESULT_OK;
  if (pcib->mvpn == nullptr) return CLI_RESULT_REJECTED;
  const mvpn_mdt_route *route = indexed_route(pcib->mvpn, index);
  if (route != nullptr) mvpn_show_snmp_mvpn_mroute_mdt_table_cmd(command, pcib->mvpn, route);
  return CLI_RESULT_OK;
}

static int mvpn_show_mvpn_mroute_mdt_table_next(cli_command *command, const mvpn_snmp_index &index) {
  const auto print_if_any = [command](mvpn_cibtype *mvpn, const mvpn_mdt_route *route) {
    if (route != nullptr) mvpn_show_snmp_mvpn_mroute_mdt_table_cmd(command, mvpn, route);
    return route != nullptr;
  };
  if (index.vrf_name == nullptr) {
    // A table that starts with a VRF without routes is empty to an agent that names no VRF.
    mvpn_cibtype *first = first_vrf_after(nullptr);
    if (first != nullptr) print_if_any(first, mvpn_mdt_mroute_first(first));
    return CLI_RESULT_OK;
  }
  mvpn_cibtype *mvpn = vrf_named(index.vrf_name);
  if (mvpn == nullptr) return CLI_RESULT_OK;
  // Behind the route of the index, or behind every group of its source.
  const ip_addr_t behind = indexed_route(mvpn, index) != nullptr ? index.group : UINT32_MAX;
  if (print_if_any(mvpn, mvpn_mdt_mroute_after(mvpn, index.source, behind))) return CLI_RESULT_OK;
  visit_vrfs_after(index.vrf_name, [=](mvpn_cibtype *next) { return print_if_any(next, mvpn_mdt_mroute_first(next)); });
  return CLI_RESULT_OK;
}

static int mvpn_show_snmp_vrf_mdt_send_get(cli_command *command, const mvpn_snmp_index &index) {
  mvpn_cibtype *mvpn = vrf_named(index.vrf_name);
  if (!has_address_types(index) || mvpn == nullptr || !has_range(mvpn)) return CLI_RESULT_OK;
  print_first_sent(command, mvpn, [&index](const mvpn_mdt_route_addrs &addrs) {
    return addrs.group == index.group && addrs.source == index.source;
  });
  return CLI_RESULT_OK;
}

static int mvpn_show_snmp_vrf_mdt_send_get_first(cli_command *command, mvpn_cibtype *mvpn) {
  const row_search search = print_first_sent(
      command, mvpn, [](const mvpn_mdt_route_addrs &addrs) { return addrs.source != 0 && addrs.group != 0; });
  return search == row_search::found ? CLI_RESULT_OK : CLI_RESULT_REJECTED;
}

static int mvpn_show_snmp_vrf_mdt_send_get_next(cli_command *command, const mvpn_snmp_index &index) {
  if (const pim_cibtype *named = pcib_named(index.vrf_name); named != nullptr) {
    if (named->mvpn == nullptr) return CLI_RESULT_OK;
    const row_search search = print_first_sent(command, named->mvpn, [&index](const mvpn_mdt_route_addrs &addrs) {
      return addrs.group > index.group || addrs.source > index.source;
    });
    if (search != row_search::exhausted) return CLI_RESULT_OK;
  }
  visit_vrfs_after(index.vrf_name, [command](mvpn_cibtype *mvpn) {
    return mvpn_show_snmp_vrf_mdt_send_get_first(command, mvpn) == CLI_RESULT_OK;
  });
  return CLI_RESULT_OK;
}

// --------------------------------------------------------------------------------------------------------- handlers

int mvpn_show_snmp_korva_mvpn_mvrf_number_command(cli_command *command) {
  mvpn_print(command, "%d", as(CLI_ELEMENT_MIB_MVRF_NUMBER, static_cast<int>(mvpn_mvrf_count)));
  return CLI_RESULT_OK;
}

int mvpn_show_snmp_korva_mvpn_notification_enable_command(cli_command *command) {
  mvpn_print(command, "%d", as(CLI_ELEMENT_MIB_NOTIFICATION_ENABLE, NOTIFICATIONS_DISABLED));
  return CLI_RESULT_OK;
}

int mvpn_show_snmp_korva_mvpn_mdt_default_table_command(cli_command *command) {
  const char *name = read_index(command, CLI_RECORD_MIB_DEFAULT).vrf_name;
  const mvpn_cibtype *mvpn = cli_is_getnext(command) ? first_vrf_after(name) : vrf_named(name);
  if (mvpn != nullptr) mvpn_show_snmp_korva_mvpn_default_table_cmd(command, mvpn);
  return CLI_RESULT_OK;
}

int mvpn_show_snmp_korva_mvpn_mdt_data_table_command(cli_command *command) {
  const char *name = read_index(command, CLI_RECORD_MIB_DATA).vrf_name;
  const mvpn_cibtype *mvpn = cli_is_getnext(command) ? first_vrf_after(name, has_range) : vrf_named(name);
  if (mvpn != nullptr && has_range(mvpn)) mvpn_show_snmp_korva_mvpn_data_table_cmd(command, mvpn);
  return CLI_RESULT_OK;
}

int mvpn_show_snmp_korva_generic_table_command(cli_command *command) {
  const char *name = read_index(command, CLI_RECORD_MIB_GENERIC).vrf_name;
  const mvpn_cibtype *mvpn = vrf_named(name);
  if (cli_is_getnext(command)) {
    // A name that nothing has starts the table again; a PIM context without MVPN ends it.
    if (pcib_named(name) == nullptr)
      mvpn = first_vrf_after(nullptr);
    else if (mvpn != nullptr)
      mvpn = first_vrf_after(name);
  }
  if (mvpn != nullptr) mvpn_show_snmp_mvpn_generic_table_show(command, mvpn);
  return CLI_RESULT_OK;
}

int mvpn_show_snmp_korva_tunnel_table_command(cli_command *command) {
  if (!mvpn_is_up()) return CLI_RESULT_OK;
  const auto if_index = static_cast<if_index_t>(read_index(command, CLI_RECORD_MIB_TUNNEL).if_index);
  const mvpn_cibtype *mvpn = cli_is_getnext(command) ? tunnel_after(if_index) : tunnel_at(if_index);
  if (mvpn != nullptr) print_tunnel_row(command, mvpn);
  return CLI_RESULT_OK;
}

int mvpn_show_snmp_korva_mroute_mdt_table_command(cli_command *command) {
  const mvpn_snmp_index index = read_index(command, CLI_RECORD_MIB_MROUTE);
  return cli_is_getnext(command) ? mvpn_show_mvpn_mroute_mdt_table_next(command, index)
                                 : mvpn_show_mvpn_mroute_mdt_table_get(command, index);
}

int mvpn_show_snmp_korva_mdt_jn_send_table_command(cli_command *command) {
  const mvpn_snmp_index index = read_index(command, CLI_RECORD_MIB_JN_SEND);
  return cli_is_getnext(command) ? mvpn_show_snmp_vrf_mdt_send_get_next(command, index)
                                 : mvpn_show_snmp_vrf_mdt_send_get(command, index);
}

int mvpn_show_snmp_korva_mdt_jn_rcv_table_command(cli_command *command) {
  const mvpn_snmp_index index = read_index(command, CLI_RECORD_MIB_JN_RCV);
  if (cli_is_getnext(command))
    join_receive_next(command, index);
  else
    join_receive_get(command, index);
  return CLI_RESULT_OK;
}

int mvpn_show_snmp_korva_bgp_mdt_update_table_command(cli_command *command) {
  if (!mvpn_is_up()) return CLI_RESULT_OK;
  const mvpn_snmp_index index = read_index(command, CLI_RECORD_MIB_BGP);
  const bool getnext = cli_is_getnext(command) != 0;
  if (!getnext && !has_address_types(index)) return CLI_RESULT_OK;
  const mvpn_bgp_mdt_safi *entry = find_bgp_update(index.group, index.source, getnext);
  if (entry != nullptr) mvpn_show_snmp_mvpn_bgp_mdt_update_table_cmd(command, entry);
  return CLI_RESULT_OK;
}

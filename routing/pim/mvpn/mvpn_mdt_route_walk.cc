// Walks over the core routes of a VRF: clearing, withdrawing, sending again.
//
// Freeing a route, and the offers to yield in long walks, let other work run: the route, its neighbours and the VRF
// itself may be gone afterwards. A walk therefore takes its next route by the key of the last one, and ends when the
// VRF's context is not the one that it began with. A filter that names one route is looked up, not searched.
#include "routing/pim/mvpn/mvpn_mdt_route_walk.h"

#include "platform/ip.h"
#include "platform/l3vm.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"

// ---------------------------------------------------------------------------------------------- walks over the routes

static bool same_under_mask(ip_addr_t a, ip_addr_t b, uint32_t length) { return ((a ^ b) & ip_bits2mask(length)) == 0; }

static bool matches(const mvpn_mdt_route_addrs *filter, const mvpn_mdt_route *route) {
  if (filter == nullptr) return true;
  return same_under_mask(filter->group, route->group, filter->group_len) &&
         (filter->source == 0 || same_under_mask(filter->source, route->source, filter->source_len));
}

// Whether a filter matches one route only.
static bool is_exact(const mvpn_mdt_route_addrs *filter) {
  return filter != nullptr && filter->source != 0 && filter->source_len >= MROUTE_HOST_LEN &&
         filter->group_len >= MROUTE_HOST_LEN;
}

// The routes that a filter may match: the one that it names, or all of the VRF's.
static mvpn_mdt_route *first_candidate(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *filter) {
  return is_exact(filter) ? mvpn_mdt_mroute_lookup(mvpn, filter->source, filter->group) : mvpn_mdt_mroute_first(mvpn);
}

static mvpn_mdt_route *next_candidate(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *filter, ip_addr_t source,
                                      ip_addr_t group) {
  return is_exact(filter) ? nullptr : mvpn_mdt_mroute_after(mvpn, source, group);
}

static bool selects(const mvpn_route_selection &selection, const mvpn_mdt_route *route) {
  if (selection.route_type != 0 && route->route_type != selection.route_type) return false;
  if (selection.mode != 0 && route->mode != selection.mode) return false;
  if (selection.only_shared != 0 && route->source != 0) return false;
  if (selection.only_source != 0 && route->source == 0) return false;
  return matches(selection.filter, route);
}

namespace {

// What becomes of the routes that a walk selects and the MRIB holds.
enum class disposal {
  forget,    // freed, without a word to the MRIB
  schedule,  // deleted by the worker, which frees them
  withdraw,  // freed now, withdrawn from the MRIB afterwards
};

// Freeing a route costs more than looking at one: hence two counts. Smaller ones cost yields, larger ones keep other
// threads waiting; no finer reason.
constexpr uint32_t frees_per_yield = 100;
constexpr uint32_t visits_per_yield = 250;

}  // namespace

// Frees a route without telling the MRIB. False: the VRF's context went away meanwhile.
static bool drop_route(mvpn_cibtype *mvpn, const mvpn_vrf_handle &vrf, mvpn_mdt_route *route, uint32_t *dropped) {
  const bool may_yield = mvpn_mdt_free_may_yield(route);
  mvpn_mdt_free_route_resources(route);
  if (may_yield && !vrf.same()) return false;
  *dropped += 1;
  if (*dropped % frees_per_yield != 0) return true;
  mvpn_may_sched_yield(mvpn);
  return vrf.same();
}

static void schedule_deletion(mvpn_mdt_route *route, uint8_t teardown) {
  MVPN_DEBUG(route->mvpn->pcib, "Scheduling delete for route associated with (%s, %s)", ip_print_addr(route->source),
             ip_print_addr(route->group));
  mvpn_mdt_route_schedule(route, teardown, 0);
}

// 1: a route was dropped or scheduled, or the VRF went away.
static int clear_routes(mvpn_cibtype *mvpn, const mvpn_route_selection &selection, uint8_t teardown, disposal how) {
  const mvpn_vrf_handle vrf(mvpn);
  uint32_t scheduled = 0, dropped = 0;
  mvpn_mdt_route *route = first_candidate(mvpn, selection.filter);
  while (route != nullptr) {
    const ip_addr_t source = route->source, group = route->group;
    MVPN_DEBUG(mvpn->pcib,
               "Examining MDT route for deletion:route_type = %d, mode = %d, source = %s, group = %s in_mrib = %d",
               static_cast<int>(route->route_type), static_cast<int>(route->mode), ip_print_addr(source),
               ip_print_addr(group), static_cast<int>(route->in_mrib));
    if (selects(selection, route)) {
      if (route->in_mrib != 0 && how == disposal::schedule) {
        schedule_deletion(route, teardown);
        scheduled += 1;
      } else {
        if (route->in_mrib != 0 && how == disposal::withdraw) mvpn_mdt_withdraw_route(route);
        if (!drop_route(mvpn, vrf, route, &dropped)) return 1;
      }
    }
    route = next_candidate(mvpn, selection.filter, source, group);
  }
  return scheduled + dropped != 0;
}

int mvpn_mrib_clear_mdt_routes(mvpn_cibtype *mvpn, const mvpn_route_selection &selection, uint8_t teardown, int send) {
  const mvpn_vrf_handle vrf(mvpn);
  const int cleared = clear_routes(mvpn, selection, teardown, send != 0 ? disposal::schedule : disposal::forget);
  if (send == 0 || !vrf.same()) return cleared;
  MVPN_DEBUG(mvpn->pcib, "Waking up worker thread inside mvpn_mrib_clear_mdt_routes");
  mvpn_mrib_wakeup_worker_thread();
  return cleared;
}

void mvpn_mrib_withdraw_mdt_routes(mvpn_cibtype *mvpn) {
  if (clear_routes(mvpn, {}, 1, disposal::withdraw) != 0) mvpn_mrib_wakeup_worker_thread();
}

// ------------------------------------------------------------------------------------------------------- repopulation

// Sends a route again. One that is pending reaches the MRIB anyway.
static void repopulate_route(mvpn_mdt_route *route, const mvpn_mdt_route_addrs *filter, uint32_t route_type) {
  if (route_type != 0 && route->route_type != route_type) return;
  if (route->pending != MVPN_MDT_ROUTE_NOT_PENDING) {
    MVPN_DEBUG(route->mvpn->pcib, "Mroute (%s,%s) is in pending state:%d", ip_print_addr(route->source),
               ip_print_addr(route->group), static_cast<int>(route->pending));
    return;
  }
  if (matches(filter, route)) mvpn_mdt_route_schedule(route, 0, 1);
}

static void repopulate_vrf(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *filter, uint32_t route_type) {
  const mvpn_vrf_handle vrf(mvpn);
  uint32_t visited = 0;
  mvpn_mdt_route *route = first_candidate(mvpn, filter);
  while (route != nullptr) {
    const ip_addr_t source = route->source, group = route->group;
    repopulate_route(route, filter, route_type);
    if (++visited % visits_per_yield == 0) {
      mvpn_may_sched_yield(mvpn);
      if (!vrf.same()) return;
    }
    route = next_candidate(mvpn, filter, source, group);
  }
}

void mvpn_mrib_repopulate_mdt_routes(vrf_context_id_t context_id, const mvpn_mdt_route_addrs *filter,
                                     uint32_t route_type) {
  if (!mvpn_is_up()) return;
  // The walk yields, and the MRIB's record need not outlive that.
  mvpn_mdt_route_addrs own_filter{};
  if (filter != nullptr) {
    own_filter = *filter;
    filter = &own_filter;
  }
  MVPN_DEBUG(pim_null_pcib, "Received repopulate request from mrib for context: %s for addrs: %s route_type = %u",
             l3vm_get_context_name(context_id), filter != nullptr ? mrib_print_addrs(filter) : "all", route_type);
  mvpn_for_each_context_by_id([context_id, filter, route_type](mvpn_cibtype *mvpn) {
    if (mvpn->mdt_source_context == context_id) {
      repopulate_vrf(mvpn, filter, route_type);
    } else {
      MVPN_DEBUG(mvpn->pcib, "Skipping mvpn as repopulate context %s isdifferent from mdt_source_context: %s",
                 l3vm_get_context_name(context_id), l3vm_get_context_name(mvpn->mdt_source_context));
    }
    return true;
  });
  mvpn_mrib_wakeup_worker_thread();
}

// The per-VRF contexts and what every subsystem shares: module state, slabs, look-ups, yields, readiness.
#ifndef MVPN_CONTEXT_H
#define MVPN_CONTEXT_H

#include "routing/pim/mvpn/mvpn.h"

// Whether an address is in 224.0.0.0/4.
constexpr bool mvpn_is_multicast(ip_addr_t address) { return address >> 28 == 0xE; }

// Slabs of the module, in creation order.
enum mvpn_slab_t : uint32_t {
  MVPN_SLAB_CIBTYPE,
  MVPN_SLAB_BGP_MDT_SAFI,
  MVPN_SLAB_MDT_ROUTE,
  MVPN_SLAB_SEND_JOIN_INFO,
  MVPN_SLAB_RECV_JOIN_INFO,
  MVPN_SLAB_COUNT,
};
extern slab_handle mvpn_slabs[MVPN_SLAB_COUNT];  // 0 while not created

extern mts_queue *mvpn_mts_q;       // the host's PIM queue, copied at start
extern mts_queue *mvpn_mrib_mts_q;  // the host's MRIB queue, copied at start
extern uint8_t mvpn_at_set_heap;    // timer set of every module timer; 0 = none

extern bool mvpn_stopped;  // stopped or stopping; unlike the status, false before the first start

// BGP's update-source interface: its name, NUL-terminated, empty = none known; its ordinal, 0 = not resolved.
extern char mvpn_bgp_updatesrc_ifname[BGP_UPDATE_SOURCE_NAME_SIZE + 1];
extern im_iod_t mvpn_bgp_updatesrc_iod;

// Called when a VRF's switchover timer expires. Set when the library is loaded.
extern void (*mvpn_switchover_timer_hook)(mvpn_cibtype *mvpn);

inline bool mvpn_is_up() { return mvpn_functionality_status == MVPN_FUNCTIONALITY_UP; }
inline bool mvpn_is_stopping() { return mvpn_functionality_status == MVPN_FUNCTIONALITY_DOWN_PENDING; }
// Up, or starting (also after a start that failed).
inline bool mvpn_is_running() { return mvpn_functionality_status > MVPN_FUNCTIONALITY_DOWN_PENDING; }

int mvpn_init_slabs();
int mvpn_deinit_slabs();
int mvpn_init_timers();
int mvpn_deinit_timers();

// Offers a yield in a long walk over a VRF. Returns the context to continue with: the same when no other work ran,
// else the context that the VRF has now, null when it has none. Records and cursors must be found again by key.
mvpn_cibtype *mvpn_may_sched_yield(mvpn_cibtype *mvpn);

// The name of a VRF, kept while contexts come and go; empty: no VRF.
class mvpn_vrf_name {
 public:
  mvpn_vrf_name() = default;
  explicit mvpn_vrf_name(const mvpn_cibtype *mvpn);
  const char *text() const { return text_; }

 private:
  char text_[VRF_NAME_MAX + 1] = {};
};

// Remembers a VRF across yields: get() gives the context that it has now, same() tells whether that is the remembered
// one. Contexts are compared by their serial numbers: the address of one that was freed is given to the next.
class mvpn_vrf_handle {
 public:
  explicit mvpn_vrf_handle(const mvpn_cibtype *mvpn) : name_(mvpn), serial_(mvpn != nullptr ? mvpn->serial : 0) {}
  mvpn_cibtype *get() const;  // null when the VRF or its context went away
  bool same() const;

 private:
  mvpn_vrf_name name_;
  uint64_t serial_;  // 0: no context
};

// Creation of a context, with defaults (by PIM context, or by VRF name when pcib is null).
mvpn_cibtype *mvpn_create_context(pim_cibtype *pcib, const char *vrf_name);
// Unlinks a context from its VRF and frees it; what hung on it is gone already.
void mvpn_free_context(mvpn_cibtype *mvpn);

// A start after a stop that left contexts in place: VRFs may have gone meanwhile. Nothing is looked up before it.
void mvpn_take_over_contexts();

// First context whose if-index, ordinal, default group equals the argument: by VRF name, by context id, by VRF name.
// Answered from indexes. 0 matches contexts whose field is not set: callers exclude it.
mvpn_cibtype *mvpn_get_context_by_mti(if_index_t if_index);
mvpn_cibtype *mvpn_get_context_by_mti_iod(im_iod_t iod);
mvpn_cibtype *mvpn_get_context_by_mdt_group(ip_addr_t group);

// First context, by VRF name, whose default group is in first..last, except one; null: none.
mvpn_cibtype *mvpn_get_other_context_by_mdt_groups(const mvpn_cibtype *except, ip_addr_t first, ip_addr_t last);
// The context whose VRF name comes first; one may be null.
mvpn_cibtype *mvpn_first_by_name(mvpn_cibtype *a, mvpn_cibtype *b);

// First context behind a VRF name, in name order, whose if-index, source interface equals the argument; null: none. An
// empty name is before every VRF.
mvpn_cibtype *mvpn_next_context_by_mti(if_index_t if_index, const char *vrf_name);
mvpn_cibtype *mvpn_next_context_by_source(im_iod_t iod, const char *vrf_name);

// Setters of the indexed fields.
void mvpn_set_mti_ifindex(mvpn_cibtype *mvpn, if_index_t if_index);
void mvpn_set_mti_iod(mvpn_cibtype *mvpn, im_iod_t iod);
void mvpn_set_mdt_default_group(mvpn_cibtype *mvpn, ip_addr_t group);
void mvpn_set_mdt_source_iod(mvpn_cibtype *mvpn, im_iod_t iod);

// The one place that changes mti_status; reason names the event in a detailed message.
void mvpn_set_mti_status(mvpn_cibtype *mvpn, mvpn_mti_status_t status, const char *reason);

// Whether the MTI exists as a PIM interface and its record is known.
bool mvpn_mti_has_pim_interface(const mvpn_cibtype *mvpn);

// Stamps the VRF's last operational change.
void mvpn_note_change(mvpn_cibtype *mvpn, mvpn_last_change_t code);

// Calls visit(mvpn) for every context in VRF-name order; contexts may come and go meanwhile. visit returns false to
// stop.
template <typename Visit>
void mvpn_for_each_context(Visit visit) {
  pim_cib_iterator iterator;
  for (pim_cibtype *pcib = pim_get_first_cib_by_name(&iterator); pcib != nullptr;
       pcib = pim_get_next_cib_by_name(&iterator)) {
    if (pcib->mvpn != nullptr && !visit(pcib->mvpn)) return;
  }
}

// The same for the contexts whose source is an interface; which these are is seen at each step.
template <typename Visit>
void mvpn_for_each_context_by_source(im_iod_t iod, Visit visit) {
  mvpn_vrf_name last;
  while (mvpn_cibtype *mvpn = mvpn_next_context_by_source(iod, last.text())) {
    last = mvpn_vrf_name(mvpn);
    if (!visit(mvpn)) return;
  }
}

// The same for all, in context-id order, offering a yield before each step to the next context.
template <typename Visit>
void mvpn_for_each_context_by_id(Visit visit) {
  ravl_iterator iterator;
  ravl_init_iterator(&iterator, &pim_contexts_by_context_id);
  auto *pcib = static_cast<pim_cibtype *>(ravl_get_first_user_data(&iterator));
  while (pcib != nullptr) {
    if (pcib->mvpn != nullptr && !visit(pcib->mvpn)) return;
    ravl_pre_sched_yield(&iterator);
    pcib = static_cast<pim_cibtype *>(ravl_get_next_user_data(&iterator));
  }
}

// Whether the VRF may bring its default MDT up: 1, or 0 after a message that names the first condition that fails.
int mvpn_is_default_mdt_ready(mvpn_cibtype *mvpn);

#endif  // MVPN_CONTEXT_H

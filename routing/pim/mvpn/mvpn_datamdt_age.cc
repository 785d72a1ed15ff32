// Ageing of received announcements. Every 30 seconds a timer starts a short-lived thread that removes the records whose
// expiry time has passed; a pass that is still running is not doubled. The thread is detached: who stops it cancels it
// and waits, without the scheduling locks, until its clean-up has cleared mvpn_age_thread. It may end only where it
// yields.
#include "routing/pim/mvpn/mvpn_datamdt_age_internal.h"

#include <algorithm>
#include <thread>

#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"

active_timer *mvpn_age_timer = nullptr;
pthread_t mvpn_age_thread = 0;
zeph_timestamp mvpn_age_ts{};

namespace {

constexpr uint32_t kAgeInterval = 30;           // seconds
constexpr uint32_t kNodesBetweenYields = 1000;  // less than a millisecond (docs/benchmarks.md)

// However the pass ends, nothing of it stays behind.
struct PassEnd {
  ~PassEnd() {
    mvpn_age_ts = {};
    mvpn_age_thread = 0;
  }
};

bool pass_is_running() {
  return mvpn_age_thread != 0 ||
         ((mvpn_age_ts.seconds | mvpn_age_ts.nanoseconds) != 0 && mvpn_age_ts.nanoseconds <= 999999999);
}

}  // namespace

static void *mvpn_age_routine(void *) {
  const PassEnd end;
  zeph_sys_mclock_get(&mvpn_age_ts);
  mvpn_for_each_context([](mvpn_cibtype *mvpn) {
    if (!mvpn_is_up()) return false;
    mvpn_age_route_by_vpn(mvpn);
    return true;
  });
  return nullptr;
}

void mvpn_process_age_timer() {
  active_timer_start(mvpn_age_timer, kAgeInterval, 0, 0, 0);
  if (pass_is_running()) {
    MVPN_DEBUG(pim_null_pcib, "Aging is already active");
    return;
  }
  pthread_attr_t attributes;
  if (quillon_pthread_attr_init(&attributes) != 0) return;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (quillon_pthread_create(&mvpn_age_thread, &attributes, mvpn_age_routine, nullptr, "mvpn-age-thread") != 0)
    mvpn_age_thread = 0;
  pthread_attr_destroy(&attributes);
}

void mvpn_age_route_by_vpn(mvpn_cibtype *mvpn) {
  uint8_t key[MVPN_RECV_KEY_BYTES] = {};
  uint32_t visited = 0;
  pt_node *node = pt_get_first_node(mvpn->data_mdt_recv_cache, nullptr, 0);
  while (node != nullptr) {
    std::copy_n(pt_node_key(node), sizeof key, key);
    auto *record = static_cast<mvpn_data_mdt_recv_join_info *>(pt_node_data(node));
    if (timestamp_expired(&record->expiry_time) != 0) mvpn_destroy_data_mdt_recv_join_info(mvpn, record);
    if (++visited % kNodesBetweenYields == 0) {
      mvpn = mvpn_may_sched_yield(mvpn);
      if (mvpn == nullptr || !mvpn_is_up()) return;
    }
    node = pt_get_next_node(mvpn->data_mdt_recv_cache, key, 0);
  }
}

void mvpn_stop_ageing() {
  if (mvpn_age_thread != 0) pthread_cancel(mvpn_age_thread);
  while (mvpn_age_thread != 0) {
    const yield_bracket bracket;
    std::this_thread::yield();
  }
  mvpn_age_ts = {};
}

// reset() of everything: the one place that knows every service, so that no service has to know the others.
//
// Users are reset before what they use. The VRF manager comes last, since it makes the default VRF of the first state,
// and the queue is emptied again behind it: what the services posted on the way concerns nobody any more.
#include "platform/reference/internal.h"
#include "platform/reference/runtime.h"
#include "platform/reference/services.h"

namespace ref {

static bool records_kept = true;

void keep_records(bool on) { records_kept = on; }
bool records_are_kept() { return records_kept; }

void reset() {
  records_kept = true;
  sched_reset();
  events_reset();
  croute_reset();
  mrib_reset();
  oim_reset();
  im_reset();
  pim_reset();
  bgp_reset();
  packet_reset();
  socket_reset();
  cli_reset();
  rpm_reset();
  pss_reset();
  mts_reset();
  timer_reset();
  diag_reset();
  l3vm_reset();
  events_reset();
}

}  // namespace ref

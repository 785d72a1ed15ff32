// The reference platform with one service that breaks the contract: mvpn-contract-test must find it. FAULT names which.
// The library is linked with the reference platform's, so what is not defined here is found there.
#include <dlfcn.h>
#include <pthread.h>

#include <cstdlib>
#include <cstring>

#include "conformance/driver.h"
#include "platform/im.h"
#include "platform/mem.h"
#include "platform/mts.h"
#include "platform/oim.h"
#include "platform/pss.h"
#include "platform/ravl.h"
#include "platform/thread.h"
#include "platform/timer.h"

namespace {

bool fault(const char *name) {
  const char *chosen = std::getenv("FAULT");
  return chosen != nullptr && std::strcmp(chosen, name) == 0;
}

template <typename Function>
Function *real(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}
#define REAL(name) real<decltype(::name)>(#name)

const contract_module *told_module;
void *next_record;

}  // namespace

extern "C" {

int contract_start(const char *folder, int stateful, const contract_module *module) {
  told_module = module;
  return REAL(contract_start)(folder, stateful, module);
}

void *slab_calloc(slab_handle slab) {
  void *object = REAL(slab_calloc)(slab);
  if (fault("dirty objects") && object != nullptr) *static_cast<char *>(object) = 1;
  return object;
}

void slab_destroy(slab_handle *slab) {
  slab_handle copy = *slab;
  REAL(slab_destroy)(fault("a handle that stays") ? &copy : slab);
}

void slab_free(slab_handle slab, void *object) {
  if (fault("a crash") && slab == nullptr) std::abort();
  REAL(slab_free)(slab, object);
}

int active_timer_start(active_timer *timer, uint32_t seconds, uint32_t a, uint32_t b, uint32_t c) {
  if (fault("early timers") && seconds > 0) seconds--;
  const int started = REAL(active_timer_start)(timer, seconds, a, b, c);
  return fault("another idea of success") ? started == 0 : started;
}

int oim_create_if(const void *list, uint32_t size) {
  const int queued = REAL(oim_create_if)(list, size);
  if (fault("answers from inside the call")) told_module->interface_create(1);
  return queued;
}

int tsp_sched_may_yield() {
  const int ran = REAL(tsp_sched_may_yield)();
  return fault("yields that always say so") ? 1 : ran;
}

void tsp_before_yield() {
  if (fault("a cancellation point")) pthread_testcancel();
  REAL(tsp_before_yield)();
}

// Looks for the next record before the current one may go.
void *ravl_get_first_user_data(ravl_iterator *iterator) {
  void *first = REAL(ravl_get_first_user_data)(iterator);
  next_record = first != nullptr ? REAL(ravl_get_next_node)(iterator->tree, first) : nullptr;
  return first;
}
void *ravl_get_next_user_data(ravl_iterator *iterator) {
  if (!fault("walks that look ahead")) return REAL(ravl_get_next_user_data)(iterator);
  void *next = next_record;
  next_record = next != nullptr ? REAL(ravl_get_next_node)(iterator->tree, next) : nullptr;
  return next;
}

// Stops where the prefix does.
int ksink_pss_get_next(ksink_pss *store, const void **key, const void **value, uint32_t *length) {
  const int found = REAL(ksink_pss_get_next)(store, key, value, length);
  return fault("walks that end with the prefix") && found != 0 && *static_cast<const char *>(*key) != 16 ? 0 : found;
}

size_t mts_payload_length_get(const mts_message *msg) {
  const size_t length = REAL(mts_payload_length_get)(msg);
  return fault("lengths that are one too many") ? length + 1 : length;
}

int im_get_iod_frm_ifindex(if_index_t if_index, im_iod_t *iod) {
  const int error = REAL(im_get_iod_frm_ifindex)(if_index, iod);
  if (fault("output of a failure") && error != 0) *iod = 0;
  return error;
}

}  // extern "C"

// The handler of SIGINT sets one flag. Without SA_RESTART a wait of the system returns early, and whoever waits looks
// at the flag. Guards do not nest.
#include "host/client/interrupt.h"

#include "host/control/pipeline.h"

namespace host {
namespace {

volatile sig_atomic_t interrupts = 0;

}  // namespace

InterruptGuard::InterruptGuard() {
  interrupts = 0;
  struct sigaction action {};
  action.sa_handler = [](int) { interrupts = 1; };
  sigaction(SIGINT, &action, &former_);
}

InterruptGuard::~InterruptGuard() { sigaction(SIGINT, &former_, nullptr); }

const volatile sig_atomic_t &InterruptGuard::flag() { return interrupts; }

std::string_view note_of_abandoned(const Statement *first) {
  if (first == nullptr || only_looks(*first)) return "";
  return "the line had been sent already and may still be carried out\n";
}

}  // namespace host

// Ctrl-C while a command runs: it ends the command, and not the session.
#ifndef HOST_CLIENT_INTERRUPT_H
#define HOST_CLIENT_INTERRUPT_H

#include <signal.h>

#include <string_view>

#include "host/language/grammar.h"

namespace host {

// While it lives SIGINT only sets the flag, and waits of system calls return early.
class InterruptGuard {
 public:
  InterruptGuard();
  ~InterruptGuard();
  InterruptGuard(const InterruptGuard &) = delete;
  InterruptGuard &operator=(const InterruptGuard &) = delete;

  static const volatile sig_atomic_t &flag();
  static bool interrupted() { return flag() != 0; }

 private:
  struct sigaction former_ {};
};

// What is to be said of a line that the daemon was sent and whose answer nobody waited for; empty for a view. first:
// what the line begins with; null: it is wrong, or there is none.
std::string_view note_of_abandoned(const Statement *first);

}  // namespace host

#endif  // HOST_CLIENT_INTERRUPT_H

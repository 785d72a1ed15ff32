// Checks and how they are run.
//
// A check has a name that says what must hold. It runs in a process of its own, with a platform that has just been
// started, so that a crash or a hang is the failure of one check, and no check depends on another.
#ifndef CONFORMANCE_RUNNER_H
#define CONFORMANCE_RUNNER_H

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "conformance/services.h"

namespace conformance {

struct Check {
  const char *component;                     // header of platform/ without its suffix
  const char *name;                          // what must hold
  std::vector<std::function<void()>> lives;  // each in a process of its own, one after the other, with one folder
};

// Checks register themselves when the program starts.
struct Registration {
  Registration(const char *component, const char *name, std::vector<std::function<void()>> lives);
};

// Ends a check at once.
struct Abandoned {};

// Says that something does not hold; the check goes on.
void differs(const char *file, int line, const std::string &text);

// What the module of this kit was told, in order: "message 18440", "up 3", "down 3", "created 3", "address 3", "ack 7",
// "notify". Told from another thread than the main one, or from inside a call of the kit, it differs from the contract.
std::vector<std::string> &told();

// While one exists, nothing may be told: the kit is inside a call of the platform.
class InsideACall {
 public:
  InsideACall();
  ~InsideACall();
  InsideACall(const InsideACall &) = delete;
  InsideACall &operator=(const InsideACall &) = delete;
};

// Runs the main loop until the condition holds or a minute of platform time has passed; whether it holds.
bool run_until(const std::function<bool()> &condition);

// Has every message that was delivered told to this as well; null: nobody.
void set_message_watcher(std::function<void(mts_message *)> watcher);

struct Options {
  std::string library;  // path of the platform's shared library
  std::string only;     // part of a component's or a check's name; empty: all
  bool list = false;    // prints the checks' names and runs none
};
// Prints a line for each check, and what differs below it; 0 when all hold, 1 when something differs, 2 when
// the library cannot be loaded.
int run_checks(const Options &options);

template <typename A, typename B>
void expect_equal(const char *file, int line, const char *what, const A &value, const B &expected) {
  if (value == expected) return;
  std::ostringstream text;
  text << what << " is " << value << " and not " << expected;
  differs(file, line, text.str());
}

}  // namespace conformance

#define CONTRACT_JOIN_(a, b) a##b
#define CONTRACT_JOIN(a, b) CONTRACT_JOIN_(a, b)
// CHECK(component, "what must hold") { statements }
#define CHECK(component, name)                                                 \
  static void CONTRACT_JOIN(check_, __LINE__)();                               \
  static const conformance::Registration CONTRACT_JOIN(registered_, __LINE__){ \
      #component, name, {CONTRACT_JOIN(check_, __LINE__)}};                    \
  static void CONTRACT_JOIN(check_, __LINE__)()

#define EXPECT(condition) \
  if (!(condition)) conformance::differs(__FILE__, __LINE__, "not so: " #condition)
#define REQUIRE(condition)                                           \
  if (!(condition)) {                                                \
    conformance::differs(__FILE__, __LINE__, "not so: " #condition); \
    throw conformance::Abandoned{};                                  \
  }                                                                  \
  static_assert(true)
#define EXPECT_EQUAL(value, expected) conformance::expect_equal(__FILE__, __LINE__, #value, value, expected)

#endif  // CONFORMANCE_RUNNER_H

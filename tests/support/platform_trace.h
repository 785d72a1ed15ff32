// Trace of the platform calls that the module makes, and faults injected into them.
//
// The tests link the module with its references to the platform redirected (ld --wrap on the module's objects alone),
// so that every call passes through here before it reaches the reference platform. Nothing of this is in the product.
#ifndef TESTS_SUPPORT_PLATFORM_TRACE_H
#define TESTS_SUPPORT_PLATFORM_TRACE_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace trace {

// Forgets calls, faults and hooks. Recording is off.
void reset();

// Records calls from now on; forgets the earlier ones.
void start();
void stop();

// Calls in order, as "name(arguments)". Only arguments that matter are shown.
const std::vector<std::string> &calls();
// Those whose name is in the list, in order.
std::vector<std::string> calls_of(const std::vector<std::string_view> &names);
// How often a function was called since start(), or since reset() when recording never began.
size_t count(std::string_view name);

// The n-th call (1 = the next) of a function fails, `times` of them in a row. A failing call does not reach the
// platform.
void fail(std::string_view name, unsigned nth = 1, unsigned times = 1);
// The k-th call (1 = the next) of any function that can fail does so, once; then: and the then-th one after it. 0:
// none.
void fail_any(unsigned k, unsigned then = 0);
// How many calls that can fail were made since reset() or fail_any().
unsigned failable_calls();
// Name of the function that fail_any made fail, of both with a blank between; empty: none yet.
std::string failed_function();

// Called at every yield of the module, with a running number from 1; the result counts as "other work ran".
void on_yield(std::function<bool(unsigned n)> hook);

// Called when the module calls a function, before the call.
void on_call(std::string_view name, std::function<void()> hook);

}  // namespace trace

#endif  // TESTS_SUPPORT_PLATFORM_TRACE_H

// Memory that runs out in the standard library's containers.
#ifndef TESTS_SUPPORT_FAILING_NEW_H
#define TESTS_SUPPORT_FAILING_NEW_H

namespace trace {

// The n-th allocation by operator new in the calling thread from now on (1 = the next) throws std::bad_alloc, once.
// 0: none does.
void fail_new(unsigned nth);

}  // namespace trace

#endif  // TESTS_SUPPORT_FAILING_NEW_H

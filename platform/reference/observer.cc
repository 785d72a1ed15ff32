// Who watches. A plain pointer: it is set and read under the scheduling locks.
#include "platform/reference/observer.h"

namespace ref {
namespace {
Observer *watching = nullptr;
}

void set_observer(Observer *observer) { watching = observer; }
Observer *observer() { return watching; }

}  // namespace ref

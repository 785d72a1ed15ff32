// Who watches. A plain pointer: it is set and read under the scheduling locks.
#include "platform/reference/observer.h"

#include "platform/reference/services.h"

namespace ref {
namespace {
Observer *watching = nullptr;
}

void set_observer(Observer *observer) {
  watching = observer;
  pim_forget_notes();
}

Observer *observer() { return watching; }

}  // namespace ref

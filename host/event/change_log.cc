// Changes of PEs and data MDTs are counted within a second of the steady clock; those beyond the bound are left out and
// their number is told when the second is over. Other kinds are few and are always written. The clock is looked at once
// in a turn: a session that comes up brings a hundred thousand PEs, and looking costs as much as the rest.
#include "host/event/change_log.h"

#include <utility>

namespace host {

using std::chrono::steady_clock;

ChangeLog::ChangeLog(EventBus &bus, Log &log)
    : log_(log), subscription_(bus.subscribe([this](const Change &change) { take(change); })) {}

void ChangeLog::settle() {
  looked_ = false;
  if (left_out_ > 0) begin_second();
}

// When the last one is over.
void ChangeLog::begin_second() {
  const auto now = steady_clock::now();
  if (now - second_ < std::chrono::seconds(1)) return;
  second_ = now;
  lines_ = 0;
  if (left_out_ > 0) log_.write(Level::info, "and " + std::to_string(left_out_) + " more changes of PEs and data MDTs");
  left_out_ = 0;
}

void ChangeLog::take(const Change &change) {
  const bool numerous =
      std::holds_alternative<PeChange>(change.what) || std::holds_alternative<DataMdtChange>(change.what);
  if (numerous && change.level > log_.level()) return;
  if (numerous) {
    if (!std::exchange(looked_, true)) begin_second();
    if (++lines_ > kLinesASecond) {
      left_out_++;
      return;
    }
  }
  log_.write(change.level, text_of(change));
}

}  // namespace host

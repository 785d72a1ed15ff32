// Changes of PEs and data MDTs are counted within a second of the steady clock; those beyond the bound are left out and
// their number is told when the second is over. Other kinds are few and are always written.
#include "host/event/change_log.h"

namespace host {

using std::chrono::steady_clock;

ChangeLog::ChangeLog(EventBus &bus, Log &log)
    : log_(log), subscription_(bus.subscribe([this](const Change &change) { take(change); })) {}

void ChangeLog::settle() {
  if (left_out_ == 0 || steady_clock::now() - second_ < std::chrono::seconds(1)) return;
  log_.write(Level::info, "and " + std::to_string(left_out_) + " more changes of PEs and data MDTs");
  left_out_ = 0;
}

// A session that comes up brings a hundred thousand PEs.
void ChangeLog::take(const Change &change) {
  const bool numerous =
      std::holds_alternative<PeChange>(change.what) || std::holds_alternative<DataMdtChange>(change.what);
  if (numerous && change.level > log_.level()) return;
  if (numerous) {
    settle();
    if (const auto now = steady_clock::now(); now - second_ >= std::chrono::seconds(1)) {
      second_ = now;
      lines_ = 0;
    }
    if (++lines_ > kLinesASecond) {
      left_out_++;
      return;
    }
  }
  log_.write(change.level, text_of(change));
}

}  // namespace host

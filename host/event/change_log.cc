// Changes of PEs and data MDTs are counted within a second; those beyond the bound are left out and their number is
// told when the second is over. Other kinds are few and are always written. The time is that of the changes, which say
// when they happened: a session that comes up brings a hundred thousand PEs, and looking at a clock costs as much as
// the rest.
#include "host/event/change_log.h"

namespace host {

using std::chrono::system_clock;

ChangeLog::ChangeLog(EventBus &bus, Log &log)
    : log_(log), subscription_(bus.subscribe([this](const Change &change) { take(change); })) {}

void ChangeLog::settle() {
  if (left_out_ > 0) begin_second(system_clock::now());
}

// When the last one is over, or the clock was set back.
void ChangeLog::begin_second(system_clock::time_point now) {
  if (now >= second_ && now - second_ < std::chrono::seconds(1)) return;
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
    begin_second(change.when);
    if (++lines_ > kLinesASecond) {
      left_out_++;
      return;
    }
  }
  log_.write(change.level, text_of(change));
}

}  // namespace host

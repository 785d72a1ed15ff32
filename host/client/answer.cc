// Whoever asks for documents gets one for every command, also for one that never reached the daemon. Parts pass on as
// they come; only the reason of a failure is kept, cut behind a few thousand bytes.
#include "host/client/answer.h"

#include "host/client/pager.h"
#include "host/output/output.h"

namespace host {

void Answer::note(FrameType type, std::string_view part) {
  constexpr size_t kLongestReason = 4096;  // bytes; a reason is some lines
  if (type == FrameType::output) written_ = true;
  if (type == FrameType::error && reason_.size() < kLongestReason) reason_ += part;
}

uint32_t Answer::end(uint32_t status, const std::string &reason) {
  if (status == kStatusDone || written_ || !is_document()) return status;
  const auto writer = output::writer_of(format_, write_output, output::header_now(""));
  const std::string &why = reason.empty() ? reason_ : reason;
  output::record_failure(*writer, status, why.substr(0, why.find_last_not_of('\n') + 1));
  writer->finish();
  return status;
}

}  // namespace host

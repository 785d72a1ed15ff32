// The answer to one command, of which a client that wants documents makes exactly one. What failed before the daemon
// wrote any gets its document here.
#ifndef HOST_CLIENT_ANSWER_H
#define HOST_CLIENT_ANSWER_H

#include <cstdint>
#include <string>
#include <string_view>

#include "host/control/control_protocol.h"

namespace host {

class Answer {
 public:
  // format: of this answer, see format_of().
  explicit Answer(OutputFormat format) : format_(format) {}

  bool is_document() const { return format_ != OutputFormat::text; }

  // Notes a part that came from the daemon.
  void note(FrameType type, std::string_view part);
  // The end of the answer: writes the document to standard output if there is none and the command failed. reason:
  // where the daemon did not give one. Returns the status.
  uint32_t end(uint32_t status, const std::string &reason = "");

 private:
  OutputFormat format_;
  bool written_ = false;
  std::string reason_;
};

}  // namespace host

#endif  // HOST_CLIENT_ANSWER_H

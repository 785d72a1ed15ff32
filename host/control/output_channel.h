// Output of one command on its way to a client: frames that a command produces and a connection sends.
//
// A handler may print while it holds pointers into the module's records, so printing never waits. A command waits for
// its client where it yields anyway: when more than kHighWater bytes are queued, the yield point that it comes to gives
// the scheduling locks up until the client has read. kLimit bounds what a command can print between two yields: from
// then on nothing more is wanted, and what a command writes all the same, to complete its output, is little.
#ifndef HOST_CONTROL_OUTPUT_CHANNEL_H
#define HOST_CONTROL_OUTPUT_CHANNEL_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "host/control/control_protocol.h"

namespace host {

class OutputChannel {
 public:
  // Bytes queued: a command begins to wait above the first and goes on below the second, which are far apart, so that
  // it does not change hands for each frame that the client reads.
  static constexpr size_t kHighWater = 256 * 1024;
  static constexpr size_t kLowWater = 64 * 1024;
  static constexpr size_t kLimit = 64u << 20;

  // ready: called after something was queued, by the thread that queued it.
  explicit OutputChannel(std::function<void()> ready) : ready_(std::move(ready)) {}

  // The command's side.
  void output(std::string_view text) { put(FrameType::output, text); }
  void error(std::string_view text) { put(FrameType::error, text); }
  void end(uint32_t status);
  void goes_on();       // until the client ends it: there is no end to be waited for
  bool wanted() const;  // false: the client is gone or wants no more, or the limit is reached
  bool full() const;
  // Waits, with the scheduling locks given up, until the client has read or is gone. Called with the locks.
  void wait_for_client();

  // The connection's side. take: what is to be sent next; sent: it has been sent.
  std::string take();
  void sent(size_t size);
  bool ended() const;    // the end frame has been taken
  bool endless() const;  // see goes_on()
  void stop();           // the client wants no more than what completes the output
  void abandon();        // the client is gone

 private:
  void put(FrameType type, std::string_view text);
  void flush_text();  // frames the text that has gathered

  std::function<void()> ready_;
  mutable std::mutex mutex_;
  std::condition_variable drained_;
  std::string frames_;
  std::string gathered_;  // text of the same type, not framed yet
  FrameType gathered_type_ = FrameType::output;
  size_t in_flight_ = 0;  // taken, not sent
  bool endless_ = false;
  bool overflowed_ = false;
  bool stopped_ = false;
  bool abandoned_ = false;
  bool ended_ = false;
  bool end_taken_ = false;
};

}  // namespace host

#endif  // HOST_CONTROL_OUTPUT_CHANNEL_H

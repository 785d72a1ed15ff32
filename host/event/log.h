// The log of a daemon: standard error or syslog, a line each, with its level and the wall time.
//
// It never waits for a reader. A line that cannot be written at once is dropped and counted, and the next one that can
// be is preceded by how many are missing.
#ifndef HOST_EVENT_LOG_H
#define HOST_EVENT_LOG_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "host/event/level.h"

namespace host {

class Log {
 public:
  // program: name in front of each line; outlives the log. Standard error is looked at once: lines for the journal bear
  // its level prefix and no time of their own.
  // syslog_socket: where syslog listens for datagrams.
  Log(const char *program, bool to_syslog, std::string syslog_socket = "/dev/log");
  ~Log();
  Log(const Log &) = delete;
  Log &operator=(const Log &) = delete;

  void set_level(Level level) { level_ = level; }
  Level level() const { return level_; }

  // Writes a line when its level is wanted; any thread.
  void write(Level level, std::string_view text);
  // The same whatever level is wanted.
  void write_always(Level level, std::string_view text);

  uint64_t dropped() const { return dropped_; }  // so far

 private:
  enum class Target { syslog, journal, stream, pipe, socket };

  void open_standard_error();
  std::string line_of(Level level, std::string_view text) const;
  std::string syslog_head(Level level) const;
  bool send(const std::string &line);
  bool send_to_syslog(const std::string &line);

  const char *program_;
  std::string syslog_socket_;
  Target target_ = Target::stream;
  // Own one for a pipe or terminal, which is then non-blocking for nobody else; of syslog's socket, -1 while that is
  // away.
  int descriptor_;
  std::atomic<Level> level_ = Level::info;
  std::mutex mutex_;
  std::atomic<uint64_t> dropped_ = 0;
  uint64_t told_ = 0;  // of dropped_
};

}  // namespace host

#endif  // HOST_EVENT_LOG_H

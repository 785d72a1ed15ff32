// Configuration work: what operators do with a configuration beyond entering lines.
//
// The running configuration has a file, which it was read from and may be written to. An operator may take the
// configuration exclusively: the lines then go to a candidate, which replaces the running one as a whole, and others
// wait. What ran before is kept, to be gone back to, by hand or because nobody confirmed what took its place.
//
// A client of the control socket holds the configuration: when its connection ends, so does the claim, and the
// candidate is dropped.
#ifndef HOST_DAEMON_CONFIG_WORK_H
#define HOST_DAEMON_CONFIG_WORK_H

#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/config/config.h"
#include "host/config/config_file.h"
#include "host/control/control_server.h"
#include "host/daemon/config_check.h"
#include "host/daemon/loop.h"
#include "host/daemon/router.h"
#include "host/event/change.h"
#include "host/event/level.h"

namespace host {

// Belongs to the thread that holds the scheduling locks.
class ConfigWork {
 public:
  // Who asks.
  struct Asker {
    std::string name;                             // "root, process 4711"
    std::weak_ptr<ControlServer::Client> client;  // the connection; empty: it has ended
  };
  // A configuration that ran, and what ended its time.
  struct Former {
    Config config;                                // as it ran
    std::chrono::system_clock::time_point until;  // when it ceased to run
    std::string by;                               // who ended its time, or what did
    std::string what;                             // "commit", "rollback", "reload", "not confirmed"
  };
  static constexpr size_t kKept = 10;  // former configurations, the oldest goes first; blocks are shared between them

  // Tries a configuration, given as a file's text, and the way to it from what runs, in another process; done is called
  // later, from the loop, outside of its turns. Throws std::runtime_error when there can be no such process.
  using Try = std::function<void(std::string text, ConfigCheck::Done done)>;

  // loop, router and events outlive it; the router runs what the file says.
  ConfigWork(Loop &loop, Router &router, EventBus &events, LogLine log, Try try_config, std::string file);

  // Commands. Each is refused with a reason, which names who holds the configuration.
  Outcome configure(const Asker &asker, const std::vector<Statement> &statements);
  Outcome take(const Asker &asker);
  Outcome edit(const Asker &asker, const std::vector<Statement> &statements);  // of the candidate
  // What is to run is tried first, so done is called now or later, then in a turn of the loop; not at all when the
  // process ends before.
  using Done = std::function<void(const Outcome &)>;
  void commit(const Asker &asker, std::optional<std::chrono::minutes> confirm_within, const Done &done);
  void rollback(const Asker &asker, std::optional<size_t> steps, const Done &done);  // 1 .. kKept
  Outcome abort(const Asker &asker, bool force);
  Outcome write(const Asker &asker, bool force);

  // Why a file cannot take the place of what runs; empty: it can.
  std::string why_not_loaded() const;
  // A file that was read again takes the place of what runs.
  struct Loaded {
    std::vector<ConfigError> errors;  // empty: it did
    std::vector<std::string> lost;    // what had been entered and runs no more, as commands
  };
  Loaded load(Config config, const std::string &by);

  // What runs against the file; the candidate against what runs, nothing without one. See difference_text().
  std::vector<std::string> changes() const;
  std::optional<std::vector<std::string>> candidate_changes() const;
  const std::deque<Former> &former() const { return former_; }  // the latest first
  // Whether the file has what runs, and who works on it, in words.
  std::string status() const;

 private:
  // What runs on trial.
  struct Trial {
    Config before, committed;
    std::chrono::system_clock::time_point until;
  };
  bool holds(const Asker &asker) const;
  std::string refusal(const Asker &asker) const;
  void release();
  void keep(Config before, const std::string &by, const std::string &what);
  Outcome replace(Config wanted, const std::string &by, const std::string &what);
  void when_tried(const Config &wanted, const Asker &asker, const std::function<Outcome()> &proceed, const Done &done);
  Outcome commit_now(const Asker &asker, std::optional<std::chrono::minutes> confirm_within);
  bool has_changes(const Asker &asker) const;
  void begin_trial(Config before, Config committed, std::chrono::minutes time);
  void end_trial();
  void go_back();

  Loop &loop_;
  Router &router_;
  EventBus &events_;
  LogLine log_;
  Try try_;
  std::string file_;
  Config loaded_;  // what ran when the file was read or written
  FileStamp stamp_;
  std::deque<Former> former_;

  std::weak_ptr<ControlServer::Client> holder_;
  std::string holder_name_;
  Config candidate_;  // of the holder

  boost::asio::steady_timer trial_timer_;
  std::optional<Trial> trial_;
};

}  // namespace host

#endif  // HOST_DAEMON_CONFIG_WORK_H

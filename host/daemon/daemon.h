// pimhostd: the process.
#ifndef HOST_DAEMON_DAEMON_H
#define HOST_DAEMON_DAEMON_H

#include <boost/asio/signal_set.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/config/config_file.h"
#include "host/control/control_server.h"
#include "host/control/watchdog.h"
#include "host/daemon/config_check.h"
#include "host/daemon/config_work.h"
#include "host/daemon/engine.h"
#include "host/daemon/loop.h"
#include "host/daemon/router.h"
#include "host/daemon/watcher.h"
#include "host/event/change_log.h"
#include "host/metrics/http_server.h"
#include "host/snmp/agentx.h"

namespace host {

struct DaemonOptions {
  std::string config_file;                 // path; read at the start, and again on SIGHUP
  ControlServer::Access control, looking;  // the second for looking only; without a path there is none
  std::string store;                       // folder of what outlives the process; empty: nothing does
  std::string module;                      // libmvpn.so
  std::string capture;                     // file; empty: none
  std::string agentx;                      // AgentX master; empty: no SNMP
  std::optional<double> clock_scale;       // platform seconds per real second; nothing: the configuration's
  bool stateful_restart = false;           // takes up what the store and the forwarder hold of a former process
  bool log_to_syslog = false;              // false: standard error
  Level log_level = Level::info;           // the least that is logged
  bool debug = false;                      // the module's debug output from the start, for all VRFs
};

class Daemon {
 public:
  // Starts everything. Throws std::runtime_error with the reason when it cannot.
  Daemon(DaemonOptions options, Config config);
  ~Daemon();

  // Serves until SIGTERM or SIGINT, then stops in order.
  void run();

 private:
  void lock_store();
  void open_store();
  void check_capture() const;
  void follow_metrics(const std::optional<EndpointValue> &at);
  void watch_signals();
  void reload(const std::string &by, Process::Done done);
  void check_for_reload();
  void check(bool strict, const Process::Done &done);
  void start_check(const ConfigCheck::Input &input, bool strict, ConfigCheck::Done done);
  void finish_reload(const FileStamp &checked, const ConfigCheck::Result &check);
  void end_reload(const std::vector<std::string> &errors, const std::vector<std::string> &warnings,
                  const std::string &outcome);
  void stop();
  void end_views();
  void open_sockets();
  void start_agent();
  void settle();
  void log_module(uint32_t severity, std::string_view line);

  DaemonOptions options_;
  Log log_;
  Loop loop_;
  EventBus events_;
  ChangeLog change_log_;
  std::optional<Router> router_;
  std::optional<Watcher> watcher_;
  std::optional<ConfigWork> work_;
  std::optional<Process> process_;
  std::optional<Engine> engine_;
  std::optional<ControlServer> control_, looking_;
  std::optional<snmp::AgentX> agentx_;
  EventBus::Subscription told_;  // agentx_ of changes
  std::optional<metrics::HttpServer> metrics_;
  boost::asio::signal_set signals_;
  std::optional<Watchdog> watchdog_;
  std::unique_ptr<ConfigCheck> check_;  // while a reload waits for it
  bool reload_again_ = false;           // asked for meanwhile
  struct Reload {
    std::string by;
    Process::Done done;
  };
  std::vector<Reload> reloads_;                       // that were asked for and have not ended
  std::vector<std::unique_ptr<ConfigCheck>> checks_;  // that operators asked for
};

}  // namespace host

#endif  // HOST_DAEMON_DAEMON_H

// mdt-reflector: a BGP speaker without a router, which hands MDT SAFI routes from neighbour to neighbour.
//
// Its configuration is the part of a router's that concerns it: `hostname` and the `bgp` block. A neighbour that is
// marked `route-reflector-client` gets the routes of all internal neighbours; without the mark it gets those of clients
// and of external neighbours.
#ifndef REFLECTOR_REFLECTOR_H
#define REFLECTOR_REFLECTOR_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "host/bgp/bgp_service.h"
#include "host/command/command_line.h"
#include "host/config/config_file.h"
#include "host/control/watchdog.h"
#include "host/event/change_log.h"
#include "host/event/monitor.h"
#include "host/output/listing.h"

namespace reflector {

inline constexpr const char *kDefaultControlPath = "/run/mdt-reflector.sock";

// Reads a configuration file and says what is wrong in it, what a reflector cannot do included.
host::ConfigFile read_file(const std::string &path);

class Reflector {
 public:
  struct Options {
    std::string config_file;  // path; read at the start, and again on SIGHUP
    host::ControlServer::Access control{kDefaultControlPath}, looking{"", "", true};  // without a path: none
    bool log_to_syslog = false;                                                       // false: standard error
    host::Level log_level = host::Level::info;                                        // the least that is logged
  };

  // Starts everything. Throws std::runtime_error with the reason when it cannot.
  Reflector(Options options, host::Config config);

  // Serves until SIGTERM or SIGINT, then takes leave of the neighbours.
  void run() { io_.run(); }

 private:
  void watch_signals();
  void reload();
  void read_again();
  void stop();
  void execute(const host::ControlServer::Request &request, const std::shared_ptr<host::OutputChannel> &channel);
  std::string operate(const host::Statement &statement, const std::string &by);
  void show(const host::CommandLine &line, host::OutputChannel &channel);

  using View = void (Reflector::*)(const host::Statement &, output::Listing &) const;
  void show_summary(const host::Statement &statement, output::Listing &listing) const;
  void show_neighbors(const host::Statement &statement, output::Listing &listing) const;
  void show_routes(const host::Statement &statement, output::Listing &listing) const;
  void show_config(const host::Statement &statement, output::Listing &listing) const;
  // Empty: done; else why not.
  using Operation = std::string (Reflector::*)(const host::Statement &);
  std::string set_log_level(const host::Statement &statement);
  std::string clear_neighbor(const host::Statement &statement);
  static const std::map<std::string_view, View> kViewActions;
  static const std::map<std::string_view, Operation> kOperations;
  static void check_actions();  // throws when the command language has no such action

  Options options_;
  host::Log log_;
  host::EventBus events_;
  host::ChangeLog change_log_;
  host::Monitor monitor_;
  boost::asio::io_context io_;
  host::Config config_;
  host::BgpService bgp_;
  host::ControlServer control_;
  std::optional<host::ControlServer> looking_;  // for looking only
  boost::asio::signal_set signals_;
  host::Watchdog watchdog_;
};

}  // namespace reflector

#endif  // REFLECTOR_REFLECTOR_H

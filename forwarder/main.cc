// mvpn-forwarder: the process.
//
// What it needs of the file system is opened before it gives its privileges up: the control socket. Everything else is
// in namespaces, which it may enter later.
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "forwarder/plane.h"
#include "forwarder/privileges.h"
#include "options/command_line.h"
#include "service/notify.h"

namespace forwarder {
namespace {

struct Options {
  std::string control = "/run/mvpn-forwarder.sock";
  std::string core_netns;
  std::string netns_folder = "/run/netns";
  std::string user, group;
  bool to_syslog = false;
};

Plane *running = nullptr;

void stop(int) { running->stop(); }

std::runtime_error failure(const std::string &what) { return std::runtime_error(what + ": " + std::strerror(errno)); }

bool somebody_listens(const sockaddr_un &address) {
  const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return ::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

// A socket that a killed forwarder has left behind is replaced. Only its owner and the group may connect.
Descriptor listen_on(const Options &options) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (options.control.size() >= sizeof address.sun_path) throw std::runtime_error("--control: the path is too long");
  options.control.copy(address.sun_path, options.control.size());
  if (somebody_listens(address))
    throw std::runtime_error("--control: " + options.control + ": another forwarder serves it");
  ::unlink(options.control.c_str());
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const mode_t former = ::umask(0117);  // 0660
  const int bound = ::bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
  ::umask(former);
  if (bound != 0 || ::listen(socket.get(), 4) != 0) throw failure("--control: " + options.control);
  if (options.group.empty()) return socket;
  const group *entry = ::getgrnam(options.group.c_str());
  if (entry == nullptr) throw std::runtime_error("--group: there is no group " + options.group);
  if (::chown(options.control.c_str(), static_cast<uid_t>(-1), entry->gr_gid) != 0) throw failure("--group");
  return socket;
}

void log_line(const Options &options, const std::string &text) {
  if (options.to_syslog)
    ::syslog(LOG_NOTICE, "%s", text.c_str());
  else
    std::cerr << "mvpn-forwarder: " << text << std::endl;
}

// Tells the service manager that the plane serves, as often as it wants to hear it.
std::function<void()> watchdog() {
  const auto interval = service::watchdog_interval();
  if (!interval) return nullptr;
  return [interval = *interval, next = std::chrono::steady_clock::time_point{}]() mutable {
    if (std::chrono::steady_clock::now() < next) return;
    next = std::chrono::steady_clock::now() + interval;
    service::notify("WATCHDOG=1");
  };
}

void serve(const Options &options) {
  if (options.to_syslog) ::openlog("mvpn-forwarder", LOG_PID, LOG_DAEMON);
  Descriptor listener = listen_on(options);
  keep_needed_privileges(options.user);
  Plane plane({options.netns_folder, options.core_netns, [&](const std::string &text) { log_line(options, text); },
               watchdog()});
  running = &plane;
  struct sigaction action {};
  action.sa_handler = stop;
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGINT, &action, nullptr);
  log_line(options, "ready on " + options.control);
  service::notify("READY=1");
  plane.serve(std::move(listener));
  service::notify("STOPPING=1");
}

}  // namespace
}  // namespace forwarder

int main(int argc, char **argv) {
  forwarder::Options options;
  options::CommandLine app(
      "Forwarding plane of a provider edge: tunnels, encapsulation and core groups. The control plane, pimhostd, "
      "says what to forward and may come and go.");
  app.add("--control", &options.control, "Unix socket of the control plane").show_default();
  app.add("--core-netns", &options.core_netns, "Namespace of the core, name or path; default: this process's");
  app.add("--netns-folder", &options.netns_folder, "Where names of namespaces are looked up").show_default();
  app.add("--user", &options.user, "User to become, with the capabilities that are needed");
  app.add("--group", &options.group, "Group that may connect to the control socket");
  app.add_flag("--syslog", &options.to_syslog, "Log to syslog instead of standard error");
  app.version("mvpn-forwarder " MVPN_VERSION);
  if (const std::optional<int> status = app.parse(argc, argv, 2)) return *status;
  try {
    forwarder::serve(options);
  } catch (const std::exception &error) {
    std::cerr << "mvpn-forwarder: " << error.what() << "\n";
    return 1;
  }
  return 0;
}

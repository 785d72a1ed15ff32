// The forwarding plane as a whole: what is held, the core, the VRFs, and the control plane that is connected.
//
// Everything runs in one thread. Packets come first: a turn takes a bounded number of them and of messages, and nothing
// in it waits.
#ifndef FORWARDER_PLANE_H
#define FORWARDER_PLANE_H

#include <forwarder/protocol.pb.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "forwarder/core_site.h"
#include "forwarder/framing.h"
#include "forwarder/netns.h"
#include "forwarder/poller.h"
#include "forwarder/state.h"
#include "forwarder/vrf_site.h"

namespace forwarder {

class Plane {
 public:
  struct Options {
    std::string netns_folder;                      // where names of namespaces are files
    std::string core_netns;                        // empty: the process's own
    std::function<void(const std::string &)> log;  // one line
    std::function<void()> alive = {};              // called from time to time while the plane serves
  };

  // Throws std::runtime_error when the core cannot be entered.
  explicit Plane(Options options);
  ~Plane();

  // Takes over a listening Unix stream socket. Serves until stop(), which may be called in a signal handler.
  void serve(Descriptor listener);
  void stop() { stopping_ = true; }

 private:
  struct Session {
    Descriptor socket;
    Framing framing;
    bool greeted = false;
    bool waits = false;  // for the connection to take more
  };
  using Report = protocol::Report;

  State::Observer observer();
  VrfSite::Callbacks callbacks_of(const Vrf &vrf);
  KernelView::Callbacks seen_by(const std::string &vrf);
  void tick();
  void event(const std::string &text);

  void accept_control();
  void serve_control();
  void end_session(const std::string &reason);
  void watch_session();
  void flush_session();
  void report(const Report &report);
  void refuse(const std::string &reason);

  void handle(const protocol::Request &request);
  void greet(const protocol::Hello &hello);
  void report_held();
  void report_seen();
  void report_tunnel(const std::string &vrf, bool up);
  void set(const protocol::Settings &settings);
  std::string put(const protocol::Item &item);
  void remove(const protocol::Item &item);
  void send(const protocol::Datagram &datagram);
  void report_counters(uint64_t token);
  void report_flows();
  void report_drops(const std::string &vrf, const DropCounters &drops);
  void report_vrf(const Vrf &vrf);

  Options options_;
  Namespaces namespaces_;
  Poller poller_;
  State state_;
  std::unique_ptr<CoreSite> core_;
  std::map<std::string, std::unique_ptr<VrfSite>> sites_;
  Descriptor listener_;
  std::unique_ptr<Session> session_;
  std::deque<protocol::Event> events_;  // the latest
  uint64_t instance_;
  volatile bool stopping_ = false;
};

}  // namespace forwarder

#endif  // FORWARDER_PLANE_H

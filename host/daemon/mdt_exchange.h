// MDT SAFI routes between the module and BGP: what the module advertises is originated, what is best among the others'
// routes becomes the module's remote entries.
#ifndef HOST_DAEMON_MDT_EXCHANGE_H
#define HOST_DAEMON_MDT_EXCHANGE_H

#include <boost/asio/steady_timer.hpp>
#include <map>
#include <set>
#include <string>

#include "host/bgp/bgp_service.h"
#include "host/daemon/loop.h"
#include "platform/reference/bgp.h"

namespace host {

class MdtExchange : private ref::RemoteTable {
 public:
  // restarting: see BgpService; this router's routes are complete when the module has advertised the VRFs of await(),
  // or has had its time for it.
  MdtExchange(Loop &loop, bool restarting, EventBus &events, LogLine log);
  ~MdtExchange() override;

  BgpService &bgp() { return bgp_; }
  const BgpService &bgp() const { return bgp_; }

  // Becomes what a configuration says. After a restart it also takes down which VRFs the routes are complete with.
  void follow(const Config &config);
  // VRF that a route of this PE comes from; empty: none.
  std::string vrf_of(const bgp::RouteKey &key) const;

 private:
  // ref::RemoteTable: what the module was given is what the speaker has told.
  size_t size() const override;
  bool holds(const ref::MdtSafi &entry) const override;
  void visit(const std::function<void(const ref::MdtSafi &)> &visitor) const override;

  BgpService::Callbacks callbacks(EventBus &events, LogLine log);
  size_t best_batch();
  void local_changed(const ref::MdtSafi &entry, bool add);
  void originate(const bgp::RouteKey &key);
  void best_changed(std::span<const bgp::BestChange> changes);
  void forget_remote();
  void await(const Config &config);
  void complete();

  Loop &loop_;
  size_t batch_;                                                     // changes that the module may be given in a turn
  size_t handed_ = 0;                                                // that it was given last
  uint64_t handed_turn_ = 0;                                         // when, in turns of the loop
  std::map<bgp::RouteKey, std::map<std::string, bgp::Ipv4>> local_;  // what the module advertises: VRFs, their groups
  std::set<std::string> awaited_;  // VRFs that the module has not advertised yet, after a restart
  boost::asio::steady_timer patience_;
  BgpService bgp_;
};

}  // namespace host

#endif  // HOST_DAEMON_MDT_EXCHANGE_H

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
#include "platform/reference/record_table.h"

namespace host {

class MdtExchange {
 public:
  // restarting: see BgpService; this router's routes are complete when the module has advertised the VRFs of await(),
  // or has had its time for it.
  MdtExchange(Loop &loop, bool restarting, EventBus &events, LogLine log);
  ~MdtExchange();

  BgpService &bgp() { return bgp_; }
  const BgpService &bgp() const { return bgp_; }

  // Becomes what a configuration says. After a restart it also takes down which VRFs the routes are complete with.
  void follow(const Config &config);
  // VRF that a route of this PE comes from; empty: none.
  std::string vrf_of(const bgp::RouteKey &key) const;
  // Whether the module was given an entry by BGP.
  bool told(const ref::MdtSafi &entry) const;

 private:
  struct ToldKey : bgp::RouteKey {
    uint64_t number() const;  // of the distinguisher
    uint64_t hash() const { return ref::mix(ref::mix(number()) + source); }
    bool operator==(const ToldKey &other) const { return number() == other.number() && source == other.source; }
  };
  // A remote entry that the module was given. There may be a million.
  struct Told {
    const ToldKey &key() const { return its_key; }
    ToldKey its_key;
    bgp::Ipv4 group = 0;
    uint32_t next = 0;  // the table's
  };

  BgpService::Callbacks callbacks(Loop &loop, EventBus &events, LogLine log);
  void local_changed(const ref::MdtSafi &entry, bool add);
  void originate(const bgp::RouteKey &key);
  void best_changed(std::span<const bgp::BestChange> changes);
  void forget_remote();
  void await(const Config &config);
  void complete();

  std::map<bgp::RouteKey, std::map<std::string, bgp::Ipv4>> local_;  // what the module advertises: VRFs, their groups
  ref::RecordTable<Told, ToldKey> told_;
  std::set<std::string> awaited_;  // VRFs that the module has not advertised yet, after a restart
  boost::asio::steady_timer patience_;
  BgpService bgp_;
};

}  // namespace host

#endif  // HOST_DAEMON_MDT_EXCHANGE_H

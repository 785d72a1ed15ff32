// Somebody who watches what the services see, without a part in it: what the main loop's owner logs and tells
// operators.
//
// Called by the thread that holds the scheduling locks, in the middle of the service's work: an observer takes notes
// and calls nothing here that changes anything.
#ifndef PLATFORM_REFERENCE_OBSERVER_H
#define PLATFORM_REFERENCE_OBSERVER_H

#include <string>
#include <string_view>

#include "platform/pim.h"
#include "platform/reference/bgp.h"

namespace ref {

class Observer {
 public:
  virtual ~Observer() = default;

  // The module has written an event of a VRF, or the VRF goes: something may have changed there. Events come in
  // thousands, so the observer has a note at the VRF, by which it need not look for the name: null at first, and gone
  // with the VRF or with the observer.
  virtual void vrf_touched(const char *vrf_name, void *&note) = 0;
  // The module asked for a customer route to be installed, so that its encapsulation takes effect; the route is
  // deleted.
  virtual void customer_route_installed(const std::string &vrf_name, const pim_route &route) = 0;
  virtual void customer_route_deleted(const std::string &vrf_name, const mvpn_mdt_route_addrs &addrs) = 0;
  // A VRF joined a core route of another PE, or left it. source: 0 for any.
  virtual void core_route_joined(vrf_context_id_t owner, ip_addr_t source, ip_addr_t group, bool joined) = 0;
  virtual void remote_entry_changed(const MdtSafi &entry, bool present) = 0;
  // The store's last write failed, for a reason, or succeeded again: empty.
  virtual void store_changed(const std::string &failure) = 0;
};

// Null: nobody. The caller keeps it alive.
void set_observer(Observer *observer);
Observer *observer();

}  // namespace ref

#endif  // PLATFORM_REFERENCE_OBSERVER_H

// What network managers are told without asking. LIBMVPN-MIB.txt says the same under libmvpnNotifications.
#ifndef HOST_SNMP_NOTIFICATION_H
#define HOST_SNMP_NOTIFICATION_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/snmp/tables.h"

namespace host::snmp {

// libmvpnNotifications, and libmvpnNotifyObjects, of which a notification's values are.
inline constexpr uint32_t kNotifications[] = {1, 3, 6, 1, 4, 1, 8072, 9999, 9999, 6513, 0};
inline constexpr uint32_t kNotifyObjects[] = {1, 3, 6, 1, 4, 1, 8072, 9999, 9999, 6513, 3};

struct Notification {
  struct Object {
    uint32_t arc;           // under libmvpnNotifyObjects
    cli_mib_syntax syntax;  // how the text is read
    std::string text;       // as set_value takes it: numbers in decimal, addresses dotted
  };
  uint32_t arc;                 // under libmvpnNotifications
  std::vector<Object> objects;  // in the order of the MIB
};

// The default MDT of a VRF has another status; empty: there is none. group: dotted.
Notification vrf_notification(const std::string &vrf, const std::string &before, const std::string &after,
                              const std::string &group);

// A data MDT is in use in a VRF, or not any more. sent: by this PE; then source and group are those of the customer's
// flow, otherwise source is the PE that sends and group 0.0.0.0. Addresses are dotted.
struct DataMdtUse {
  std::string vrf;            // name
  bool sent = false;          // false: received from another PE
  bool in_use = false;        // from now on; false: not any more
  std::string source, group;  // a source of 0.0.0.0: any
  std::string mdt_group;      // the data MDT's group in the core
};
Notification data_mdt_notification(const DataMdtUse &use);

// So many were lost: what managers know may be out of date. Told up to 4294967295.
Notification lost_notification(uint64_t count);

}  // namespace host::snmp

#endif  // HOST_SNMP_NOTIFICATION_H

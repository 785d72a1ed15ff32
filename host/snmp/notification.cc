// The values of notifications, in the order in which the MIB lists them. Enumerations are written as their numbers.
#include "host/snmp/notification.h"

#include <algorithm>

namespace host::snmp {
namespace {

enum NotificationArc : uint32_t { kVrfStatusChange = 1, kDataMdtChange = 2, kNotificationsLost = 3 };
enum ObjectArc : uint32_t {
  kVrf = 1,
  kFormerStatus = 2,
  kStatus = 3,
  kDefaultGroup = 4,
  kDirection = 5,
  kUse = 6,
  kSource = 7,
  kGroup = 8,
  kDataGroup = 9,
  kLost = 10,
};

// Enumerations of the MIB.
const char *direction_text(bool sent) { return sent ? "1" : "2"; }
const char *use_text(bool in_use) { return in_use ? "1" : "2"; }

}  // namespace

Notification vrf_notification(const std::string &vrf, const std::string &before, const std::string &after,
                              const std::string &group) {
  return {kVrfStatusChange,
          {{kVrf, CLI_MIB_TEXT, vrf},
           {kFormerStatus, CLI_MIB_TEXT, before},
           {kStatus, CLI_MIB_TEXT, after},
           {kDefaultGroup, CLI_MIB_ADDRESS, group}}};
}

Notification data_mdt_notification(const DataMdtUse &use) {
  return {kDataMdtChange,
          {{kVrf, CLI_MIB_TEXT, use.vrf},
           {kDirection, CLI_MIB_INTEGER, direction_text(use.sent)},
           {kUse, CLI_MIB_INTEGER, use_text(use.in_use)},
           {kSource, CLI_MIB_ADDRESS, use.source},
           {kGroup, CLI_MIB_ADDRESS, use.group},
           {kDataGroup, CLI_MIB_ADDRESS, use.mdt_group}}};
}

Notification lost_notification(uint64_t count) {
  const uint64_t shown = std::min<uint64_t>(count, UINT32_MAX);
  return {kNotificationsLost, {{kLost, CLI_MIB_UNSIGNED, std::to_string(shown)}}};
}

}  // namespace host::snmp

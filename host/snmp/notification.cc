#include "host/snmp/notification.h"

namespace host::snmp {
namespace {

enum NotificationArc : uint32_t { kVrfStatusChange = 1, kDataMdtChange = 2 };
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
};

// Enumerations of the MIB.
const char *direction_text(bool sent) { return sent ? "1" : "2"; }
const char *use_text(bool in_use) { return in_use ? "1" : "2"; }

}  // namespace

Notification vrf_notification(const std::string &vrf, const std::string &before, const std::string &after,
                              const std::string &group) {
  return {kVrfStatusChange,
          {{kVrf, Syntax::text, vrf},
           {kFormerStatus, Syntax::text, before},
           {kStatus, Syntax::text, after},
           {kDefaultGroup, Syntax::address, group}}};
}

Notification data_mdt_notification(const DataMdtUse &use) {
  return {kDataMdtChange,
          {{kVrf, Syntax::text, use.vrf},
           {kDirection, Syntax::integer, direction_text(use.sent)},
           {kUse, Syntax::integer, use_text(use.in_use)},
           {kSource, Syntax::address, use.source},
           {kGroup, Syntax::address, use.group},
           {kDataGroup, Syntax::address, use.mdt_group}}};
}

}  // namespace host::snmp

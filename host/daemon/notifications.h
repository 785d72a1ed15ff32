// Which changes of the router network managers are told of.
#ifndef HOST_DAEMON_NOTIFICATIONS_H
#define HOST_DAEMON_NOTIFICATIONS_H

#include <optional>

#include "host/event/change.h"
#include "host/snmp/notification.h"

namespace host {

// Nothing: they are not told.
std::optional<snmp::Notification> notification_of(const Change &change);

}  // namespace host

#endif  // HOST_DAEMON_NOTIFICATIONS_H

// The service manager's notification protocol: a datagram of VARIABLE=VALUE lines to the socket that it names.
#ifndef HOST_NOTIFY_H
#define HOST_NOTIFY_H

#include <string_view>

namespace host {

// Does nothing when no service manager asked to be told.
void notify_service_manager(std::string_view state);

}  // namespace host

#endif  // HOST_NOTIFY_H

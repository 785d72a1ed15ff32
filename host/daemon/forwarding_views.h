// Views of the forwarding plane.
#ifndef HOST_DAEMON_FORWARDING_VIEWS_H
#define HOST_DAEMON_FORWARDING_VIEWS_H

#include "host/daemon/views.h"

namespace host {

// What the forwarder carries, drops and has joined, as it says when it is asked; what happened to it, the latest last.
void show_forwarding(const ViewInput &input, output::Listing &listing);
void show_forwarding_events(const ViewInput &input, output::Listing &listing);

}  // namespace host

#endif  // HOST_DAEMON_FORWARDING_VIEWS_H

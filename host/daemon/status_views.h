// Views of the program as a whole: its VRFs, its version, its status.
#ifndef HOST_DAEMON_STATUS_VIEWS_H
#define HOST_DAEMON_STATUS_VIEWS_H

#include "host/daemon/views.h"

namespace host {

// On a view's thread, with the scheduling locks; show_vrfs yields between rows.
void show_vrfs(const ViewInput &input, output::Listing &listing);
void show_version(const ViewInput &input, output::Listing &listing);
void show_status(const ViewInput &input, output::Listing &listing);

}  // namespace host

#endif  // HOST_DAEMON_STATUS_VIEWS_H

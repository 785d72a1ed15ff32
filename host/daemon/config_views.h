// Views of configuration work.
#ifndef HOST_DAEMON_CONFIG_VIEWS_H
#define HOST_DAEMON_CONFIG_VIEWS_H

#include "host/daemon/views.h"

namespace host {

// On a view's thread, with the scheduling locks.
void show_config_diff(const ViewInput &input, output::Listing &listing);
void show_config_candidate(const ViewInput &input, output::Listing &listing);
void show_config_former(const ViewInput &input, output::Listing &listing);

}  // namespace host

#endif  // HOST_DAEMON_CONFIG_VIEWS_H

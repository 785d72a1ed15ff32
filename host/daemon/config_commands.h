// The commands of configuration work, from their lines.
#ifndef HOST_DAEMON_CONFIG_COMMANDS_H
#define HOST_DAEMON_CONFIG_COMMANDS_H

#include <memory>

#include "host/daemon/action.h"

namespace host {

// On the main thread. Each is refused with a reason, in complete lines.
Outcome configure(const OperationInput &input);
Outcome configure_exclusive(const OperationInput &input);
Outcome abort_candidate(const OperationInput &input);
Outcome write_config(const OperationInput &input);

// They end the channel when what is to run, or the file, has been tried.
void commit(const OperationInput &input, const std::shared_ptr<OutputChannel> &channel);
void rollback(const OperationInput &input, const std::shared_ptr<OutputChannel> &channel);
void reload_config(const OperationInput &input, const std::shared_ptr<OutputChannel> &channel);
void check_config(const OperationInput &input, const std::shared_ptr<OutputChannel> &channel);

}  // namespace host

#endif  // HOST_DAEMON_CONFIG_COMMANDS_H

// The commands of configuration work, from their lines.
#ifndef HOST_DAEMON_CONFIG_COMMANDS_H
#define HOST_DAEMON_CONFIG_COMMANDS_H

#include <memory>

#include "host/command/command_line.h"
#include "host/daemon/process.h"
#include "host/daemon/router.h"

namespace host {

// `configure`, `commit`, `rollback`, `abort` and `write`.
Outcome work_on_config(const CommandLine &line, ConfigWork &work);

// `reload` and `check`, which end the channel when the file has been tried.
void try_config_file(const CommandLine &line, const Process &process, const std::shared_ptr<OutputChannel> &channel);

}  // namespace host

#endif  // HOST_DAEMON_CONFIG_COMMANDS_H

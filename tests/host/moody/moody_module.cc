// The module, but for two whims: an operator's MTU of 1301 bytes is refused while a stored one is taken, and one of
// 1303 is refused by a daemon only, not where a configuration is tried: what passes every check can then be refused
// while it is applied.
#include <fstream>
#include <iterator>
#include <string>

#include "platform/cli.h"

namespace {

constexpr uint32_t kRefused = 1301, kRefusedByDaemons = 1303;

bool is_trial() {
  std::ifstream line("/proc/self/cmdline");
  const std::string arguments{std::istreambuf_iterator<char>(line), {}};
  return arguments.find("--check-config") != std::string::npos;
}

cli_handler real_mtu_command;

int mtu_command(cli_command *command) {
  uint32_t mtu = 0;
  const bool entered = cli_is_interactive(command) != 0 && cli_get_uinteger(command, "<mtu-value>", &mtu) != 0;
  if (entered && (mtu == kRefused || (mtu == kRefusedByDaemons && !is_trial()))) {
    cli_cmd_printf(command, "Not this one\n");
    return CLI_RESULT_REJECTED;
  }
  return real_mtu_command(command);
}

}  // namespace

extern "C" int __real_cli_register_cmd(const char *name, cli_handler handler, uint32_t flags);
extern "C" int __wrap_cli_register_cmd(const char *name, cli_handler handler, uint32_t flags);

int __wrap_cli_register_cmd(const char *name, cli_handler handler, uint32_t flags) {
  constexpr const char *kName = "mdt_mtu_cmd";
  if (__builtin_strcmp(name, kName) != 0) return __real_cli_register_cmd(name, handler, flags);
  real_mtu_command = handler;
  return __real_cli_register_cmd(name, mtu_command, flags);
}

// The module, but for one whim: an operator's MTU of 1301 bytes is refused, while a stored one is taken. A
// configuration that passes every check can thus be refused while it is applied.
#include "platform/cli.h"

namespace {

constexpr uint32_t kRefused = 1301;

cli_handler real_mtu_command;

int mtu_command(cli_command *command) {
  uint32_t mtu = 0;
  if (cli_is_interactive(command) != 0 && cli_get_uinteger(command, "<mtu-value>", &mtu) != 0 && mtu == kRefused) {
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

/* Command-line service: handlers by name, their arguments and their output.
 *
 * Structured output. Every printed value may be recorded under an element of the output schema (cli_schema.h), from
 * which the service makes a JSON or XML document. cli_new_printf and cli_xml_output take, after the values of the
 * format, one element id (int) per conversion; CLI_ELEMENT_NONE leaves a value out of the document. Conversions may
 * have flags, width, precision and the length modifiers h, l, ll, z; '*' is not used. */
#ifndef PLATFORM_CLI_H
#define PLATFORM_CLI_H

#include "platform/timer.h"
#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct cli_command cli_command; /* opaque: one invocation; valid until the handler returns */
typedef int (*cli_handler)(cli_command *command);

/* Results of handlers. */
enum {
  CLI_RESULT_OK = 0,
  CLI_RESULT_REJECTED = -500,
  CLI_RESULT_NO_MEMORY = -1,
};

/* Registers a handler under a name: cli_register_cmd(name, handler, 0). A later registration replaces it.
 * 0 on success. */
int cli_register_cmd(const char *name, cli_handler handler, uint32_t reserved);

/* Non-zero: the "no" form; typed by an operator (0: replayed from the stored configuration); a get-next; the keyword,
 * or the argument of this name, is present. */
int cli_noed(cli_command *command);
int cli_is_interactive(cli_command *command);
int cli_is_getnext(cli_command *command);
int cli_is_set(cli_command *command, const char *keyword);

/* Argument readers: non-zero when the argument is present and could be read, else *out is unchanged. An argument that
 * is present and cannot be read (malformed, out of range, an interface name of IF_NAME_SIZE bytes or more) is an error
 * of the command and not its default: cli_is_set(command, name) tells it from one that is absent. Texts stay valid
 * until the handler returns. */
int cli_get_uinteger(cli_command *command, const char *name, uint32_t *out);
int cli_get_integer(cli_command *command, const char *name, int32_t *out);
int cli_get_ipaddr(cli_command *command, const char *name, ip_addr_t *out);
int cli_get_ipprefix(cli_command *command, const char *name, ip_addr_t *prefix, uint32_t *length);
int cli_get_string(cli_command *command, const char *name, const char **out);
int cli_get_interface(cli_command *command, const char *name, const char **out);

/* Output: a message of the command; text that stays out of the document; a line with recorded values; recorded values
 * without text. */
void cli_cmd_printf(cli_command *command, const char *format, ...) __attribute__((format(printf, 2, 3)));
void cli_tty_printf(cli_command *command, const char *format, ...) __attribute__((format(printf, 2, 3)));
void cli_new_printf(cli_command *command, const char *format, ...);
void cli_xml_output(cli_command *command, const char *format, ...);

/* A boolean, a duration (seconds in the document) under an element. reserved: 0. */
void cli_xml_boolean(cli_command *command, int value, int element);
void cli_xml_duration(cli_command *command, const struct zeph_timestamp *duration, uint32_t reserved, int element);

/* Non-zero while the operator wants more output. */
int cli_more_output(cli_command *command);

/* Has the stored commands of a VRF handled again: (0, VRF name). They run after the current handler has returned. */
int cli_send_my_global_vrf_commands(uint32_t reserved, const char *vrf_name);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_CLI_H */

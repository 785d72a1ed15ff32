// Command-line service: the registry of handlers, their arguments, and their output.
//
// A format of cli_new_printf or cli_xml_output is read twice: the C library makes the text of it, and its conversions
// are parsed here, each taking its value from the arguments by class (string, character, pointer, floating point,
// integer of a size), after which the element ids follow, one per conversion. A format that this parser does not know
// ('*', an unknown conversion) yields text only, since the position of the ids is then unknown.
//
// A request to handle a VRF's stored commands again is posted, so that it runs after the handler that made it.
#include "platform/cli.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>

#include "platform/cli_schema.h"
#include "platform/pim.h"
#include "platform/reference/cli.h"
#include "platform/reference/parse.h"
#include "platform/reference/runtime.h"
#include "platform/reference/services.h"

struct cli_command {
  const ref::CliInvocation *invocation;
  ref::CliSink *sink;
};

namespace ref {
namespace {

struct State {
  std::map<std::string, cli_handler, std::less<>> handlers;
  std::vector<std::string> names;
  std::function<void(const std::string &)> replay;
};
State state;

const std::string *argument(const cli_command *command, const char *name) {
  for (const CliArgument &given : command->invocation->arguments)
    if (given.name == name) return &given.value;
  return nullptr;
}

// ------------------------------------------------------------------------------------------------------- conversions

enum class Length { none, hh, h, l, ll, z };

struct Conversion {
  char letter;
  Length length;
};

// A length modifier at *at, which moves behind it.
Length take_length(const char *&at) {
  if (*at == 'z') return at++, Length::z;
  const char letter = *at;
  if (letter != 'h' && letter != 'l') return Length::none;
  const bool doubled = *++at == letter;
  if (doubled) at++;
  if (letter == 'h') return doubled ? Length::hh : Length::h;
  return doubled ? Length::ll : Length::l;
}

// Conversions of a format that take a value, in order; nullopt when it has one that is not known.
std::optional<std::vector<Conversion>> conversions_of(const char *format) {
  std::vector<Conversion> found;
  for (const char *at = format; *at != '\0'; at++) {
    if (*at != '%') continue;
    at++;
    if (*at == '%') continue;
    at += std::strspn(at, "-+ #0");
    at += std::strspn(at, "0123456789.");
    const Length length = take_length(at);
    if (*at == '\0' || std::strchr("diouxXcspeEfFgG", *at) == nullptr) return std::nullopt;
    found.push_back({*at, length});
  }
  return found;
}

int64_t signed_argument(va_list &arguments, Length length) {
  switch (length) {
    case Length::hh:
      return static_cast<signed char>(va_arg(arguments, int));
    case Length::h:
      return static_cast<short>(va_arg(arguments, int));
    case Length::l:
      return va_arg(arguments, long);
    case Length::ll:
      return va_arg(arguments, long long);
    case Length::z:
      return va_arg(arguments, ssize_t);
    case Length::none:
      break;
  }
  return va_arg(arguments, int);
}

uint64_t unsigned_argument(va_list &arguments, Length length) {
  switch (length) {
    case Length::hh:
      return static_cast<unsigned char>(va_arg(arguments, int));
    case Length::h:
      return static_cast<unsigned short>(va_arg(arguments, int));
    case Length::l:
      return va_arg(arguments, unsigned long);
    case Length::ll:
      return va_arg(arguments, unsigned long long);
    case Length::z:
      return va_arg(arguments, size_t);
    case Length::none:
      break;
  }
  return va_arg(arguments, unsigned);
}

CliValue string_value(std::string text) {
  CliValue value;
  value.text = std::move(text);
  return value;
}

CliValue signed_value(int64_t number) {
  CliValue value = string_value(std::to_string(number));
  value.type = CliValueType::number;
  value.number = number;
  return value;
}

CliValue unsigned_value(uint64_t number) {
  CliValue value = string_value(std::to_string(number));
  value.type = CliValueType::unsigned_number;
  value.unsigned_number = number;
  return value;
}

CliValue pointer_value(const void *pointer) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", pointer);
  return string_value(text);
}

CliValue take_value(va_list &arguments, Conversion conversion) {
  switch (conversion.letter) {
    case 'd':
    case 'i':
      return signed_value(signed_argument(arguments, conversion.length));
    case 'o':
    case 'u':
    case 'x':
    case 'X':
      return unsigned_value(unsigned_argument(arguments, conversion.length));
    case 'c':
      return string_value(std::string(1, static_cast<char>(va_arg(arguments, int))));
    case 'p':
      return pointer_value(va_arg(arguments, void *));
    case 's': {
      const char *text = va_arg(arguments, const char *);
      return string_value(text != nullptr ? text : "(null)");
    }
    default:
      return string_value(std::to_string(va_arg(arguments, double)));
  }
}

void record_values(CliSink &sink, const char *format, va_list &arguments) {
  const auto conversions = conversions_of(format);
  if (!conversions) return;
  std::vector<CliValue> values;
  for (const Conversion conversion : *conversions) values.push_back(take_value(arguments, conversion));
  for (CliValue &value : values) {
    value.element = va_arg(arguments, int);
    if (value.element > 0) sink.value(value);  // the others stay out of the document
  }
}

// The formats of cli_new_printf are followed by more than they print, so that they cannot be checked as printf's are.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void print(CliSink &sink, const char *format, va_list &arguments) {
  va_list again;
  va_copy(again, arguments);
  char buffer[512];
  const int size = std::vsnprintf(buffer, sizeof buffer, format, arguments);
  if (size >= 0 && static_cast<size_t>(size) < sizeof buffer) {
    sink.text({buffer, static_cast<size_t>(size)});
  } else if (size >= 0) {
    std::string text(static_cast<size_t>(size), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    sink.text(text);
  }
  va_end(again);
}
#pragma GCC diagnostic pop

}  // namespace

void cli_reset() { state = State{}; }

int cli_invoke(const CliInvocation &invocation, CliSink &sink) {
  const auto found = state.handlers.find(invocation.handler);
  if (found == state.handlers.end()) return -2;
  cli_command command{&invocation, &sink};
  return found->second(&command);
}

std::vector<std::string> cli_registered() { return state.names; }

void set_cli_replay(std::function<void(const std::string &)> replay) { state.replay = std::move(replay); }

}  // namespace ref

extern "C" {

int cli_register_cmd(const char *name, cli_handler handler, uint32_t) {
  ref::state.handlers[name] = handler;
  ref::state.names.push_back(name);
  return 0;
}

int cli_noed(cli_command *command) { return command->invocation->no_form ? 1 : 0; }
int cli_is_interactive(cli_command *command) { return command->invocation->interactive ? 1 : 0; }
int cli_is_getnext(cli_command *command) { return command->invocation->getnext ? 1 : 0; }
int cli_is_set(cli_command *command, const char *keyword) { return ref::argument(command, keyword) != nullptr ? 1 : 0; }

int cli_get_uinteger(cli_command *command, const char *name, uint32_t *out) {
  const std::string *text = ref::argument(command, name);
  const auto value = text != nullptr ? ref::parse_number(*text, UINT32_MAX) : std::nullopt;
  if (!value) return 0;
  *out = static_cast<uint32_t>(*value);
  return 1;
}

int cli_get_integer(cli_command *command, const char *name, int32_t *out) {
  const std::string *text = ref::argument(command, name);
  if (text == nullptr) return 0;
  int32_t value = 0;
  const char *end = text->data() + text->size();
  const auto [stop, error] = std::from_chars(text->data(), end, value);
  if (error != std::errc{} || stop != end) return 0;
  *out = value;
  return 1;
}

int cli_get_ipaddr(cli_command *command, const char *name, ip_addr_t *out) {
  const std::string *text = ref::argument(command, name);
  const auto address = text != nullptr ? ref::parse_address(*text) : std::nullopt;
  if (!address) return 0;
  *out = *address;
  return 1;
}

int cli_get_ipprefix(cli_command *command, const char *name, ip_addr_t *prefix, uint32_t *length) {
  const std::string *text = ref::argument(command, name);
  const size_t slash = text != nullptr ? text->find('/') : std::string::npos;
  if (slash == std::string::npos) return 0;
  const auto address = ref::parse_address(std::string_view(*text).substr(0, slash));
  const auto bits = ref::parse_number(std::string_view(*text).substr(slash + 1), MROUTE_HOST_LEN);
  if (!address || !bits) return 0;
  *prefix = *address;
  *length = static_cast<uint32_t>(*bits);
  return 1;
}

int cli_get_string(cli_command *command, const char *name, const char **out) {
  const std::string *text = ref::argument(command, name);
  if (text == nullptr) return 0;
  *out = text->c_str();
  return 1;
}

int cli_get_interface(cli_command *command, const char *name, const char **out) {
  const std::string *text = ref::argument(command, name);
  if (text == nullptr || text->empty() || text->size() >= IF_NAME_SIZE) return 0;
  *out = text->c_str();
  return 1;
}

void cli_cmd_printf(cli_command *command, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  ref::print(*command->sink, format, arguments);
  va_end(arguments);
}

void cli_tty_printf(cli_command *command, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  ref::print(*command->sink, format, arguments);
  va_end(arguments);
}

void cli_new_printf(cli_command *command, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  ref::print(*command->sink, format, arguments);
  va_end(arguments);
  va_start(arguments, format);
  ref::record_values(*command->sink, format, arguments);
  va_end(arguments);
}

void cli_xml_output(cli_command *command, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  ref::record_values(*command->sink, format, arguments);
  va_end(arguments);
}

void cli_xml_boolean(cli_command *command, int value, int element) {
  ref::CliValue recorded = ref::string_value(value != 0 ? "true" : "false");
  recorded.type = ref::CliValueType::boolean;
  recorded.element = element;
  recorded.number = value != 0 ? 1 : 0;
  if (element > 0) command->sink->value(recorded);
}

void cli_xml_duration(cli_command *command, const zeph_timestamp *duration, uint32_t, int element) {
  ref::CliValue recorded;
  recorded.type = ref::CliValueType::duration;
  recorded.element = element;
  recorded.seconds = static_cast<double>(duration->seconds) + static_cast<double>(duration->nanoseconds) / 1e9;
  if (element > 0) command->sink->value(recorded);
}

int cli_more_output(cli_command *command) { return command->sink->more() ? 1 : 0; }

int cli_send_my_global_vrf_commands(uint32_t, const char *vrf_name) {
  ref::post([name = std::string(vrf_name)] {
    if (ref::state.replay) ref::state.replay(name);
  });
  return 0;
}

pim_cibtype *pim_get_cib_from_cli(cli_command *command, uint32_t) {
  return ref::pim_find(command->invocation->vrf_name);
}

pim_cibtype *pim_get_cib_from_command_line(cli_command *command, int *all) {
  *all = command->invocation->all_vrfs ? 1 : 0;
  return *all != 0 ? nullptr : ref::pim_find(command->invocation->vrf_name);
}

}  // extern "C"

// The command line: runs the handlers that the module registered, and takes what they print and record.
#ifndef REFERENCE_CLI_H
#define REFERENCE_CLI_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ref {

// One argument of an invocation, by the name that handlers read it under; keywords have no value.
struct CliArgument {
  std::string name;   // of the argument in the command's grammar, or the keyword itself
  std::string value;  // as typed
};
// Where output goes. text: what the operator sees; value: recorded values in order.
enum class CliValueType { string, number, unsigned_number, boolean, duration };
struct CliValue {
  int element = 0;                           // CLI_ELEMENT_...
  CliValueType type = CliValueType::string;  // which of the fields below holds it
  std::string text;                          // string; also the decimal form of numbers
  int64_t number = 0;                        // number; boolean: 0 or 1
  uint64_t unsigned_number = 0;              // unsigned_number
  double seconds = 0;                        // duration
};
class CliSink {
 public:
  virtual ~CliSink() = default;
  virtual void text(std::string_view text) = 0;  // operator output
  virtual void value(const CliValue &value) { (void)value; }
  virtual bool more() { return true; }  // cli_more_output
};
struct CliInvocation {
  std::string handler;                 // as the module registered it
  std::vector<CliArgument> arguments;  // keywords among them, in the order of the line
  std::string vrf_name;                // context that the command addresses; empty: none
  bool all_vrfs = false;               // show: every VRF
  bool no_form = false;                // the line began with "no"
  bool interactive = true;             // typed by an operator; false: replayed from the configuration
  bool getnext = false;                // SNMP asks for the entry behind the one that the arguments name
};
// Runs a registered handler; its result. -2: there is no such handler.
int cli_invoke(const CliInvocation &invocation, CliSink &sink);
std::vector<std::string> cli_registered();  // names in order of registration, with repetitions
// What cli_send_my_global_vrf_commands asks for; called from the main loop, never inside a handler.
void set_cli_replay(std::function<void(const std::string &vrf_name)> replay);

}  // namespace ref

#endif  // REFERENCE_CLI_H

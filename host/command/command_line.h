// A client's command line as a daemon takes it: read, and with a writer for its output.
#ifndef HOST_COMMAND_COMMAND_LINE_H
#define HOST_COMMAND_COMMAND_LINE_H

#include <memory>
#include <string>

#include "host/control/control_server.h"
#include "host/control/pipeline.h"
#include "host/language/grammar.h"
#include "host/output/output.h"

namespace host {

struct CommandLine {
  Match match;                               // means something without an error only
  OutputFormat format = OutputFormat::text;  // the request's, or that of a filter
  Filters filters;                           // for views and monitor; their patterns are sound
  std::string error;                         // for the client; empty: the line is right
  std::string by;                            // who asks
};
// A socket that is for looking takes views and `monitor`, and shows no passwords.
CommandLine read_command_line(const ControlServer::Request &request);

// Where a view's output goes, in the form and through the filters that the client asked for. The channel outlives it.
std::unique_ptr<output::Writer> writer_for(OutputFormat format, const Filters &filters, OutputChannel &channel);

}  // namespace host

#endif  // HOST_COMMAND_COMMAND_LINE_H

// A client's command line as a daemon takes it: read, and answered in the form that the client asked for. Whatever a
// command does, a client that asked for documents gets one: of what it shows, of what it says, or of why it failed.
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
  Match match;                                  // means something without an error only
  OutputFormat format = OutputFormat::text;     // the request's, or that of a filter
  Filters filters;                              // for views and monitor; their patterns are sound
  std::string error;                            // for the client; empty: the line is right
  std::string mark;                             // in front of it in text: where in the line it is
  std::string by;                               // who asks
  std::string hostname;                         // of documents; empty: the machine's
  std::weak_ptr<ControlServer::Client> client;  // its connection; empty once that has ended
};
// A socket that is for looking takes views and `monitor`, and shows no passwords.
CommandLine read_command_line(const ControlServer::Request &request, const std::string &hostname);

// Where a view's output goes, in the form and through the filters that the client asked for. The channel outlives it.
std::unique_ptr<output::Writer> writer_for(const CommandLine &line, OutputChannel &channel);

// Ends the answer to a command that shows nothing, which is done and says this; empty: nothing.
void finish(const CommandLine &line, const std::string &text, OutputChannel &channel);
// Ends the answer to a command that failed before it wrote anything. text: why, its line's end included.
void refuse(const CommandLine &line, uint32_t status, const std::string &text, OutputChannel &channel);

}  // namespace host

#endif  // HOST_COMMAND_COMMAND_LINE_H

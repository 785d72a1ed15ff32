// Runs handlers of the module as the host's command line does.
#ifndef TESTS_SUPPORT_COMMAND_H
#define TESTS_SUPPORT_COMMAND_H

#include <string>
#include <string_view>

#include "platform/reference/cli.h"

// The result of a handler. printed: receives what it printed; null: nobody reads it.
inline int run_handler(const ref::CliInvocation &invocation, std::string *printed = nullptr) {
  struct Text : ref::CliSink {
    void text(std::string_view piece) override { all.append(piece); }
    std::string all;
  } sink;
  const int result = ref::cli_invoke(invocation, sink);
  if (printed != nullptr) *printed = sink.all;
  return result;
}

#endif  // TESTS_SUPPORT_COMMAND_H

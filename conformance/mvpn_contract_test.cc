// mvpn-contract-test: whether a platform's services keep the contract that the module relies on.
#include <cstdio>
#include <exception>

#include "conformance/runner.h"
#include "options/command_line.h"

CHECK(all, "every service is there") {
  for (const std::string &name : conformance::missing_services())
    conformance::differs(__FILE__, __LINE__, name + " is missing");
}

int main(int argc, char **argv) {
  options::CommandLine app(
      "Checks the services of a routing platform against the contract of the multicast VPN module.");
  app.version("mvpn-contract-test " MVPN_VERSION);
  conformance::Options options;
  app.add_flag("--list", &options.list, "Print the names of the checks and run none");
  app.add("--only", &options.only, "Run the checks whose name contains this");
  app.add("LIBRARY", &options.library, "Shared library with the services and the driver");
  if (const std::optional<int> status = app.parse(argc, argv, 2)) return *status;
  if (options.library.empty() && !options.list) {
    std::fputs("mvpn-contract-test: a LIBRARY is needed\n", stderr);
    return 2;
  }
  try {
    return conformance::run_checks(options);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "mvpn-contract-test: %s\n", error.what());
    return 2;
  }
}

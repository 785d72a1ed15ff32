// mvpn-contract-test: whether a platform's services keep the contract that the module relies on.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "conformance/runner.h"

CHECK(all, "every service is there") {
  for (const std::string &name : conformance::missing_services())
    conformance::differs(__FILE__, __LINE__, name + " is missing");
}

int main(int argc, char **argv) {
  CLI::App app("Checks the services of a routing platform against the contract of the multicast VPN module.");
  app.set_version_flag("--version", "mvpn-contract-test " MVPN_VERSION);
  conformance::Options options;
  app.add_flag("--list", options.list, "Print the names of the checks and run none");
  app.add_option("--only", options.only, "Run the checks whose name contains this");
  app.add_option("LIBRARY", options.library, "Shared library with the services and the driver");
  CLI11_PARSE(app, argc, argv);
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

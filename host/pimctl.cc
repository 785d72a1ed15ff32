// pimctl: a command of pimhostd per call. Output goes to standard output, reasons of failures to standard error; the
// exit status is the command's: 0 done, 1 failed, 2 not understood; 3 when the daemon cannot be reached.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "control_client.h"

namespace {

constexpr int kStatusUnreachable = 3;

std::string joined(const std::vector<std::string> &words) {
  std::string line;
  for (const std::string &word : words) line += (line.empty() ? "" : " ") + word;
  return line;
}

int run_once(const std::string &path, host::OutputFormat format, const std::string &line) {
  host::ControlClient client(path);
  const uint32_t status = client.execute(format, line, [](host::FrameType type, std::string_view part) {
    FILE *to = type == host::FrameType::error ? stderr : stdout;
    const bool written = std::fwrite(part.data(), 1, part.size(), to) == part.size();
    return std::fflush(to) == 0 && written;
  });
  return static_cast<int>(status);
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{"Runs a command of pimhostd, such as: pimctl show mvpn mdt"};
  std::string path = host::kDefaultControlPath;
  bool json = false, xml = false;
  std::vector<std::string> words;
  app.add_option("--control", path, "control socket of pimhostd")->capture_default_str();
  auto *as_json = app.add_flag("--json", json, "structured output of views, as JSON");
  app.add_flag("--xml", xml, "structured output of views, as XML")->excludes(as_json);
  app.add_option("command", words, "the command's words")->required();
  CLI11_PARSE(app, argc, argv);
  const host::OutputFormat format = json  ? host::OutputFormat::json
                                    : xml ? host::OutputFormat::xml
                                          : host::OutputFormat::text;
  try {
    return run_once(path, format, joined(words));
  } catch (const std::exception &error) {
    std::cerr << "pimctl: " << error.what() << '\n';
    return kStatusUnreachable;
  }
}

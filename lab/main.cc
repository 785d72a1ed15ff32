// mvpn-lab: several PEs on this machine, playing a scenario. Exit status 0: everything expected happened; 1: something
// did not, or the scenario could not be played.
//
// The folder of stores and logs is kept when something went wrong, and when the caller named it.
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "lab/runner.h"
#include "options/command_line.h"

// Exit status.
constexpr int kUsage = 2;
constexpr int kSkipped = 77;  // test drivers take it for a test that was skipped

namespace {

namespace fs = std::filesystem;

// What scenarios name without saying where: here, or where an installation has it.
std::string default_project(const std::string &binaries) {
  const fs::path installed = fs::path(binaries).parent_path() / "share/mvpn";
  return !fs::exists("lab/templates") && fs::exists(installed / "lab/templates") ? installed.string() : ".";
}

// A file, or the name of one among the project's scenarios.
std::string find_scenario(const std::string &named, const std::string &project) {
  const std::string folder = project + "/lab/scenarios/";
  for (const std::string &file : {named, folder + named, folder + named + ".json"})
    if (fs::is_regular_file(file)) return file;
  throw std::runtime_error("there is no scenario " + named + ", neither here nor in " + folder);
}

lab::Scenario scenario_in(const std::string &file, bool real) {
  lab::Scenario scenario = lab::read_scenario(file);
  if (real != scenario.network.has_value())
    throw std::runtime_error(file + (real ? " has no network: it is played without --real"
                                          : " has a network: --real lets it make namespaces"));
  return scenario;
}

bool play(const std::string &file, lab::Options options, bool real, bool keep, const std::string &pages) {
  const lab::Scenario scenario = scenario_in(file, real);
  const bool own_folder = options.work.empty();
  if (own_folder) {
    char name[] = "/tmp/mvpn-lab-XXXXXX";
    if (mkdtemp(name) == nullptr) throw std::runtime_error("no folder for stores and logs can be made");
    options.work = name;
    std::filesystem::permissions(options.work, std::filesystem::perms(0755));  // routing daemons are not root
  }
  lab::Report report(scenario.name);
  bool held = false;
  {
    lab::Runner runner(scenario, options, &report);
    held = runner.play();
    if (!pages.empty()) lab::write_pages(report, runner.findings(), options.project, pages);
  }
  if (!pages.empty()) std::cout << "the report is " << pages << "/report.html\n";
  if (held && own_folder && !keep)
    std::filesystem::remove_all(options.work);
  else
    std::cout << "logs, stores and captures are in " << options.work << '\n';
  return held;
}

}  // namespace

int main(int argc, char **argv) {
  options::CommandLine app{"Plays a scenario with several PEs and tells whether what was expected happened."};
  std::string file;
  lab::Options options;
  options.binaries = fs::read_symlink("/proc/self/exe").parent_path().string();
  options.project = default_project(options.binaries);
  options.prefix = "mlab";
  bool keep = false;
  bool real = false;
  bool skip = false;
  std::string pages;
  app.add("SCENARIO", &file, "scenario: a file, or a name in lab/scenarios of the project").required();
  app.add("--bin", &options.binaries, "folder of the programs").show_default();
  app.add("--project", &options.project, "folder that configuration files are relative to").show_default();
  app.add("--work", &options.work, "folder for stores, sockets, captures and logs, which stays; default: a new one");
  app.add("--clock-scale", &options.clock_scale, "platform seconds per second, in place of the scenario's");
  app.add_flag("--real", &real, "play a scenario that has a network: root makes namespaces for it, and removes them");
  app.add_flag("--skip-without", &skip,
               "with --real: exit status 77 when namespaces or routing daemons are not to be had");
  app.add("--prefix", &options.prefix, "what the namespaces' names begin with").show_default();
  app.add("--report", &pages, "folder to write report.html and junit.xml to");
  app.add_flag("--keep", &keep, "keep the new folder even when everything held");
  app.version("mvpn-lab " MVPN_VERSION);
  if (const std::optional<int> status = app.parse(argc, argv, kUsage)) return *status;
  try {
    const std::string lacking = real ? lab::why_not_real() : std::string();
    if (!lacking.empty() && !skip) throw std::runtime_error(lacking);
    if (!lacking.empty()) {
      std::cout << "skipped: " << lacking << '\n';
      return kSkipped;
    }
    lab::note_signals();
    return play(find_scenario(file, options.project), options, real, keep, pages) ? 0 : 1;
  } catch (const std::exception &error) {
    std::cerr << "mvpn-lab: " << error.what() << '\n';
    return 1;
  }
}

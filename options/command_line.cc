// The only source that includes CLI11. Handles are pointers into the library's own objects, which live as long as the
// CommandLine. Called by programs' mains before they start any thread.
#include "options/command_line.h"

#include <CLI/CLI.hpp>
#include <cstdint>

namespace options {

Option Option::required() const { return Option(option_->required()); }
Option Option::show_default() const { return Option(option_->capture_default_str()); }
Option Option::hidden() const { return Option(option_->group("")); }
Option Option::one_of(const std::vector<std::string> &words) const {
  return Option(option_->check(CLI::IsMember(words)));
}
Option Option::within(int least, int most) const { return Option(option_->check(CLI::Range(least, most))); }
Option Option::within(double least, double most) const { return Option(option_->check(CLI::Range(least, most))); }

Option Option::check(std::string (*reason)(const std::string &), const std::string &type) const {
  return Option(option_->check(CLI::Validator([reason](std::string &text) { return reason(text); }, type)));
}

Option Option::needs(Option other) const { return Option(option_->needs(other.option_)); }
Option Option::excludes(Option other) const { return Option(option_->excludes(other.option_)); }

template <typename T>
Option Command::add(const std::string &name, T *variable, const std::string &help) {
  return Option(app_->add_option(name, *variable, help));
}
template Option Command::add(const std::string &, std::string *, const std::string &);
template Option Command::add(const std::string &, std::vector<std::string> *, const std::string &);
template Option Command::add(const std::string &, double *, const std::string &);
template Option Command::add(const std::string &, uint16_t *, const std::string &);
template Option Command::add(const std::string &, uint32_t *, const std::string &);
template Option Command::add(const std::string &, uint64_t *, const std::string &);

Option Command::add_flag(const std::string &name, bool *variable, const std::string &help) {
  return Option(app_->add_flag(name, *variable, help));
}

Command Command::add_command(const std::string &name, const std::string &help) {
  return Command(app_->add_subcommand(name, help));
}

bool Command::given(const std::string &command) const { return app_->got_subcommand(command); }

CommandLine::CommandLine(const std::string &description, const std::string &footer)
    : Command(new CLI::App(description)) {
  app_->footer(footer);
}

CommandLine::~CommandLine() { delete app_; }

void CommandLine::require_command() { app_->require_subcommand(1); }

void CommandLine::version(const std::string &text) { app_->set_version_flag("--version", text); }

std::optional<int> CommandLine::parse(int argc, char **argv, int usage) {
  try {
    app_->parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    if (app_->exit(error) == 0) return 0;
    wrong_ = error.what();
    return usage;
  }
  return std::nullopt;
}

}  // namespace options

// A program's command line: options are tied to variables; help, checks and messages come of themselves.
//
// It stands in front of CLI11, whose header costs a source more than everything else in it: only command_line.cc has
// it.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace options {

// What may be said of an option after it was added. Valid as long as its CommandLine.
class Option {
 public:
  explicit Option(CLI::Option *option) : option_(option) {}

  Option required() const;
  Option show_default() const;  // in the help: what the variable holds now
  Option hidden() const;        // not in the help
  Option one_of(const std::vector<std::string> &words) const;
  Option within(int least, int most) const;
  Option within(double least, double most) const;
  // reason returns "" or what is wrong with a value; type stands for the value in the help.
  Option check(std::string (*reason)(const std::string &), const std::string &type) const;
  Option needs(Option other) const;
  Option excludes(Option other) const;

 private:
  CLI::Option *option_;
};

// A set of options. A name with dashes is an option, one without stands for its place on the line.
class Command {
 public:
  // Variables are written by parse() only, and stay as they are when the option is not given. For std::string, a vector
  // of them, double, and unsigned numbers of 16, 32 and 64 bits.
  template <typename T>
  Option add(const std::string &name, T *variable, const std::string &help = "");
  Option add_flag(const std::string &name, bool *variable, const std::string &help);
  Command add_command(const std::string &name, const std::string &help);
  bool given(const std::string &command) const;

 protected:
  explicit Command(CLI::App *app) : app_(app) {}
  CLI::App *app_;
};

class CommandLine : public Command {
 public:
  explicit CommandLine(const std::string &description, const std::string &footer = "");
  ~CommandLine();
  CommandLine(const CommandLine &) = delete;
  CommandLine &operator=(const CommandLine &) = delete;

  void require_command();
  void version(const std::string &text);  // printed by --version

  // std::nullopt: the program goes on. Otherwise everything was said, help or what is wrong, and the program ends with
  // this status: 0, or usage.
  std::optional<int> parse(int argc, char **argv, int usage);
  const std::string &wrong() const { return wrong_; }  // what parse() said was wrong; empty: nothing

 private:
  std::string wrong_;
};

}  // namespace options

// Child processes of the lab.
#ifndef LAB_PROCESS_H
#define LAB_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lab {

// What a program, an answer or an effect takes at most that still comes, on a machine that compiles beside. What comes
// is not waited for any longer.
constexpr std::chrono::seconds kPatience{90};

// A program of the lab: in the folder, or in the folder of system programs beside it, where an installation has
// daemons.
std::string program_in(const std::string &folder, const std::string &name);

struct Launch {
  std::vector<std::string> command;    // the program, looked for in PATH unless it has a slash, and its arguments
  std::string log_file;                // gets the output, at its end; a piped program's standard error only
  std::string network_namespace = {};  // path of its file; empty: the lab's own
  bool piped = false;                  // requests and answers go through write_line and read_line
};

// A program that runs until it is stopped. Destroying it kills it.
class Process {
 public:
  // Throws std::runtime_error when the log, the namespace or a process is not to be had. A program that cannot be
  // executed ends with 127 and says why in the log.
  explicit Process(const Launch &launch);
  ~Process();
  Process(Process &&other) noexcept;
  Process &operator=(Process &&) = delete;

  void signal(int number);
  // Exit status once it has ended (128 + signal number when a signal ended it); nothing when it still runs then.
  std::optional<int> wait(std::chrono::milliseconds limit);
  bool running();
  uint64_t resident_kib() const;  // memory; 0: it has ended

  // A piped program's standard input and output, a line each. Throw std::runtime_error when it has ended or takes
  // longer than the limit.
  void write_line(const std::string &line);
  std::string read_line(std::chrono::milliseconds limit);

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;  // once it has ended and was reaped; its pid may be somebody else's from then on
  int input_ = -1;             // a piped program's
  int output_ = -1;
  std::string unread_;  // what came behind the last line that was read
};

struct Result {
  int status = -1;     // exit status, 128 + signal number; 124 when it was stopped at the limit
  std::string output;  // standard output and error together
};

// Runs a program to its end, for at most limit, in a network namespace when one is given.
// Throws as Process does.
Result run(const std::vector<std::string> &command, std::chrono::milliseconds limit,
           const std::string &network_namespace = {});

// Sleeps. Every wait of the lab, run and read_line included, throws std::runtime_error once SIGINT or SIGTERM has come,
// so that what the lab has built is taken down on the way out.
void pause_for(std::chrono::duration<double> time);
void note_signals();

}  // namespace lab

#endif  // LAB_PROCESS_H

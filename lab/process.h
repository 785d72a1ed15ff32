// Child processes of the lab.
#ifndef LAB_PROCESS_H
#define LAB_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace lab {

// A program that runs until it is stopped. Its output goes to a file. Destroying it kills it.
class Process {
 public:
  Process(const std::vector<std::string> &command, const std::string &log_file);
  ~Process();
  Process(Process &&other);
  Process &operator=(Process &&) = delete;

  void signal(int number);
  // Exit status once it has ended (128 + signal number when a signal ended it); nothing when it still runs then.
  std::optional<int> wait(std::chrono::milliseconds limit);
  bool running();

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
};

struct Result {
  int status = -1;     // exit status, 128 + signal number; 124 when it was stopped at the limit
  std::string output;  // standard output and error together
};

// Runs a program to its end, for at most limit.
Result run(const std::vector<std::string> &command, std::chrono::milliseconds limit);

}  // namespace lab

#endif  // LAB_PROCESS_H

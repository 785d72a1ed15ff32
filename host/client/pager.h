// Pages of a listing on a terminal.
//
// While the operator reads a page nothing more is taken from the daemon, which then waits where the listing yields; an
// operator who quits ends the listing there.
#ifndef HOST_CLIENT_PAGER_H
#define HOST_CLIENT_PAGER_H

#include <csignal>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace host {

// Writes text to standard output at once. False: not all of it could be written.
bool write_output(std::string_view text);
// Why that failed first, an errno; 0: it never did.
int write_error();

// How the operator wants pages. On: standard input and output are a terminal.
struct Paging {
  bool on = false;
  std::optional<size_t> rows = {};  // of a page; 0: no pages; nothing: as the terminal says
  std::string program = {};         // shows the pages instead, by way of the shell; empty: none

  bool wanted() const { return on && rows != 0; }
};

class Pager {
 public:
  // interrupted: set by the handler of SIGINT, and no page is begun any more; outlives the pager.
  Pager(const Paging &paging, const volatile sig_atomic_t &interrupted);
  ~Pager();  // waits for the program
  Pager(const Pager &) = delete;
  Pager &operator=(const Pager &) = delete;

  // Prints a part of the output; false: the operator has quit.
  bool show(std::string_view text);

 private:
  bool print_line(std::string_view line);
  bool ask();  // at the end of a page
  void measure();

  bool show_in_program(std::string_view text);

  const Paging paging_;
  std::FILE *program_ = nullptr;  // while it runs
  const volatile sig_atomic_t &interrupted_;
  bool quit_ = false;
  size_t columns_ = 80;
  size_t page_ = 23;   // rows of a page, which leaves one for the question
  size_t left_ = 23;   // rows of this page that are still free
  size_t column_ = 0;  // of the line that has begun
};

}  // namespace host

#endif  // HOST_CLIENT_PAGER_H

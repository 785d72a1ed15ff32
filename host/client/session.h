// A client's session: the mode that lines are read in, and their execution by the daemon.
//
// The daemon keeps no session, only which connection holds the configuration. A line of a configuration mode goes to it
// as one command that begins with the headers of the blocks that the session has entered.
#ifndef HOST_CLIENT_SESSION_H
#define HOST_CLIENT_SESSION_H

#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/client/known_names.h"
#include "host/client/pager.h"
#include "host/control/control_client.h"
#include "host/control/pipeline.h"

namespace host {

// Exit statuses of the program when the daemon cannot be reached, or does not answer in time; the others are those of
// commands.
constexpr uint32_t kStatusUnreachable = 3;
constexpr uint32_t kStatusNoAnswer = 4;

class Session {
 public:
  // paging: of views.
  Session(std::string path, OutputFormat format, Paging paging, ControlClient::Timeout timeout);

  // Runs a line: output to standard output, reasons to standard error. Returns the exit status.
  uint32_t run(std::string_view text);

  // Whether a line holds a password, which no history should keep.
  bool is_secret(std::string_view text) const;

  bool ended() const { return ended_; }  // by `exit`
  std::string prompt();                  // "HOST> ", "HOST(config-...)# "; may ask the daemon for the name

  // What may stand behind the words of an incomplete line; names that the daemon knows are among the keywords.
  std::vector<Candidate> next(const std::vector<std::string> &words);

 private:
  struct Target {
    Mode mode;
    std::string before;              // what the daemon gets in front of the line
    std::vector<std::string> words;  // the line
  };
  bool exclusive() const { return root_ != kConfigure; }
  std::unique_ptr<ControlClient> &connection_for_looking() { return exclusive() ? looking_ : client_; }
  ControlClient &connected(std::unique_ptr<ControlClient> &client);
  Target target_of(const std::vector<std::string> &words) const;
  void leave_block();
  void leave_configuration();
  std::optional<uint32_t> run_here(const std::vector<std::string> &words);
  bool moves(const std::vector<std::string> &words);
  uint32_t send(std::string_view line, const Statement &first, OutputFormat format, bool paging);
  void enter(const Target &target, const Match &match);
  void read_hostname();
  void add_names(std::vector<Candidate> *all);

  std::string path_;
  OutputFormat format_;
  Paging paging_;
  ControlClient::Timeout timeout_;
  // A listing that is quit takes its connection with it, and with that what a session holds exclusively.
  std::unique_ptr<ControlClient> client_, looking_;
  KnownNames names_;
  Mode mode_ = Mode::exec;
  static constexpr const char *kConfigure = "configure";
  std::string root_ = kConfigure;  // what opened the configuration; its lines begin with it
  std::string before_;             // headers of the modes that the session is in
  std::string hostname_;
  bool ended_ = false;
};

// Says why there is no answer to a line, which begins with first; null: none was sent. The program's exit status for
// it.
uint32_t tell_lost(const std::exception &error, const Statement *first);

// Prints why something failed, in colour on a terminal that shows colours.
void print_error(std::string_view text);
bool in_colour(int descriptor);

}  // namespace host

#endif  // HOST_CLIENT_SESSION_H

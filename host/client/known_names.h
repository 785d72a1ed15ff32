// Names that the daemon knows, for completion and help: fetched when they are first wanted, kept for a few seconds.
#ifndef HOST_CLIENT_KNOWN_NAMES_H
#define HOST_CLIENT_KNOWN_NAMES_H

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "host/language/grammar.h"

namespace host {

class KnownNames {
 public:
  explicit KnownNames(std::string path) : path_(std::move(path)) {}

  // Names of a kind, sorted. None when the daemon does not answer soon; that, too, is kept.
  const std::vector<std::string> &of(NameKind kind);
  void forget() { kept_.clear(); }

 private:
  struct Kept {
    std::vector<std::string> names;
    std::chrono::steady_clock::time_point until;
  };
  std::vector<std::string> fetch(NameKind kind) const;

  std::string path_;  // control socket
  std::map<NameKind, Kept> kept_;
};

}  // namespace host

#endif  // HOST_CLIENT_KNOWN_NAMES_H

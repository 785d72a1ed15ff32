// Names come from the configuration, where every VRF and interface that an operator can name has a block. The daemon
// filters its lines, so that what travels does not grow with the routes. A connection of its own keeps a slow answer
// out of the session's: whatever goes wrong there is no reason to disturb a line that is being typed.
#include "host/client/known_names.h"

#include <algorithm>
#include <stdexcept>

#include "host/control/control_client.h"

namespace host {
namespace {

constexpr std::chrono::seconds kKept{5};             // spares the daemon a question for each key; new names show soon
constexpr std::chrono::milliseconds kPatience{500};  // somebody waits at the keyboard
constexpr size_t kMaxNames = 2000;                   // more than anybody reads in a list

// The names behind a word at the beginning of a line; lines of blocks begin with blanks.
std::vector<std::string> names_behind(const std::string &word, const std::string &text) {
  std::vector<std::string> names;
  for (size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos && names.size() < kMaxNames;
       at = end + 1)
    if (text.compare(at, word.size(), word) == 0)
      names.push_back(text.substr(at + word.size(), end - at - word.size()));
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

const std::vector<std::string> &KnownNames::of(NameKind kind) {
  Kept &kept = kept_[kind];
  if (kept.until > std::chrono::steady_clock::now()) return kept.names;
  kept.names = fetch(kind);
  kept.until = std::chrono::steady_clock::now() + kKept;
  return kept.names;
}

std::vector<std::string> KnownNames::fetch(NameKind kind) const {
  const std::string header = kind == NameKind::vrf ? "vrf" : "interface";
  try {
    ControlClient client(path_, kPatience);
    return names_behind(header + " ", client.text_of("show running-config | include " + header));
  } catch (const std::runtime_error &) {
    return {};  // the next command says why
  }
}

}  // namespace host

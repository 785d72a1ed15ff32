// The machine's name stands in when no other is configured, so that a document always says where it comes from.
#include "host/output/header.h"

#include <unistd.h>

#include <array>
#include <chrono>

#include "host/output/wall_time.h"

namespace output {
namespace {

std::string name_of_machine() {
  std::array<char, 256> name{};  // one more than Linux allows, so that it ends
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "localhost";
}

}  // namespace

Header header_now(const std::string &hostname) {
  return {hostname.empty() ? name_of_machine() : hostname, wall_time(std::chrono::system_clock::now())};
}

}  // namespace output

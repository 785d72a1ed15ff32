// Order matters: the bounding set needs a capability that is given up afterwards, and a change of the user would take
// all capabilities along but for PR_SET_KEEPCAPS, which keeps permitted ones only; they are made effective again behind
// it. Called once, before the process has threads or packets.
#include "forwarder/privileges.h"

#include <grp.h>
#include <pwd.h>
#include <sys/capability.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <type_traits>

namespace forwarder {
namespace {

constexpr std::array<cap_value_t, 3> kNeeded = {CAP_NET_ADMIN, CAP_NET_RAW, CAP_SYS_ADMIN};

[[noreturn]] void fail(const std::string &what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

struct CapFree {
  void operator()(std::remove_pointer_t<cap_t> *set) const { cap_free(set); }
};
using CapSet = std::unique_ptr<std::remove_pointer_t<cap_t>, CapFree>;

void check_permitted() {
  const CapSet own(cap_get_proc());
  for (const cap_value_t needed : kNeeded) {
    cap_flag_value_t there = CAP_CLEAR;
    if (own == nullptr || cap_get_flag(own.get(), needed, CAP_PERMITTED, &there) != 0 || there != CAP_SET)
      throw std::runtime_error("it must be started as root, or with cap_net_admin, cap_net_raw and cap_sys_admin");
  }
}

// What a program that this process might ever start could get.
void drop_bounding_set() {
  for (cap_value_t capability = 0; cap_get_bound(capability) >= 0; capability++) {
    const bool needed = capability == kNeeded[0] || capability == kNeeded[1] || capability == kNeeded[2];
    if (!needed && cap_get_bound(capability) == CAP_SET && cap_drop_bound(capability) != 0 && errno != EPERM)
      fail("bounding set");
  }
}

void become(const std::string &user) {
  const passwd *entry = ::getpwnam(user.c_str());
  if (entry == nullptr) throw std::runtime_error("--user: there is no user " + user);
  if (::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0 || ::initgroups(user.c_str(), entry->pw_gid) != 0 ||
      ::setgid(entry->pw_gid) != 0 || ::setuid(entry->pw_uid) != 0)
    fail("--user: " + user);
}

}  // namespace

void keep_needed_privileges(const std::string &user) {
  check_permitted();
  drop_bounding_set();
  if (!user.empty()) become(user);
  const CapSet wanted(cap_init());
  if (wanted == nullptr || cap_set_flag(wanted.get(), CAP_PERMITTED, kNeeded.size(), kNeeded.data(), CAP_SET) != 0 ||
      cap_set_flag(wanted.get(), CAP_EFFECTIVE, kNeeded.size(), kNeeded.data(), CAP_SET) != 0 ||
      cap_set_proc(wanted.get()) != 0)
    fail("capabilities");
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) fail("no new privileges");
}

}  // namespace forwarder

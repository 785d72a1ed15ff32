// Which socket joins what: the plan of the core memberships, without system calls.
//
// A socket takes a bounded number of memberships, so groups are spread over several. On an interface, any source of a
// group includes every single one, and the kernel does not allow both on a socket: all memberships of a group stand on
// one socket, and single sources are joined again when the wish for any source goes.
#ifndef FORWARDER_MEMBERSHIPS_H
#define FORWARDER_MEMBERSHIPS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <vector>

namespace forwarder {

struct Membership {
  uint32_t group = 0;   // addresses in host byte order
  uint32_t source = 0;  // 0: any
  int interface = 0;    // index in the core namespace
  auto operator<=>(const Membership &) const = default;
};

class MembershipPlan {
 public:
  struct Step {
    size_t socket;          // number, from 0
    bool join;              // false: leave
    Membership membership;  // to be joined, or left, on that socket
    auto operator<=>(const Step &) const = default;
  };

  explicit MembershipPlan(size_t memberships_a_socket) : limit_(memberships_a_socket) {}

  // What is to be done for a wish that comes or goes. Wishes are a set: a repeated one changes nothing.
  std::vector<Step> want(const Membership &membership);
  std::vector<Step> drop(const Membership &membership);

  // Sockets that are in use, or were; a number is used again when its socket has room.
  size_t sockets() const { return used_.size(); }
  size_t size() const { return size_; }

 private:
  struct Place {  // of a group
    size_t socket = 0;
    size_t wishes = 0;
  };
  using Sources = std::set<uint32_t>;

  Place &place_of(uint32_t group);

  size_t limit_;
  std::map<uint32_t, Place> groups_;
  std::map<std::pair<uint32_t, int>, Sources> wanted_;  // by group and interface
  std::vector<size_t> used_;                            // wishes of each socket
  size_t size_ = 0;
};

}  // namespace forwarder

#endif  // FORWARDER_MEMBERSHIPS_H

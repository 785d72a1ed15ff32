// Network namespaces that a test makes and removes, and work in them.
#ifndef TESTS_FORWARDER_ROOM_H
#define TESTS_FORWARDER_ROOM_H

#include <functional>
#include <string>
#include <vector>

// Namespaces under names of this process; all of them are gone with it.
class Rooms {
 public:
  Rooms() = default;
  ~Rooms();
  Rooms(const Rooms &) = delete;
  Rooms &operator=(const Rooms &) = delete;

  // Whether this process may make namespaces and devices.
  static bool possible();

  std::string name(const std::string &room) const;
  void make(const std::string &room);
  void remove(const std::string &room);
  // Two ends of a wire, up, each in its room, each with an address "A.B.C.D/LENGTH".
  void join(const std::string &room, const std::string &device, const std::string &address, const std::string &other,
            const std::string &other_device, const std::string &other_address);
  // `ip` with arguments, in a room.
  bool ip(const std::string &room, const std::string &arguments) const;
  // Calls work on a thread in a room, and waits for its end.
  void in(const std::string &room, const std::function<void()> &work) const;

 private:
  std::vector<std::string> made_;
};

// Runs until the condition holds; whether it holds. The bound is what nothing takes that still works, on a machine that
// compiles beside: a test that passes does not wait for it.
bool eventually(const std::function<bool()> &holds);

#endif  // TESTS_FORWARDER_ROOM_H

// Namespaces by means of the program ip. Work in one is done by a thread of its own, because a thread that has entered
// another namespace should not go on with the test.
#include "tests/forwarder/room.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace {

bool run(const std::string &command) { return std::system((command + " >/dev/null 2>&1").c_str()) == 0; }

}  // namespace

Rooms::~Rooms() {
  for (const std::string &room : std::vector<std::string>(made_)) remove(room);
}

bool Rooms::possible() {
  Rooms rooms;
  try {
    rooms.make("try");
  } catch (const std::runtime_error &) {
    return false;
  }
  return ::access("/dev/net/tun", R_OK | W_OK) == 0 && rooms.ip("try", "link add try0 type veth peer name try1");
}

std::string Rooms::name(const std::string &room) const { return "mvpn-" + std::to_string(::getpid()) + "-" + room; }

void Rooms::make(const std::string &room) {
  if (!run("ip netns add " + name(room))) throw std::runtime_error("cannot make the namespace " + room);
  made_.push_back(room);
  ip(room, "link set lo up");
}

void Rooms::remove(const std::string &room) {
  run("ip netns del " + name(room));
  made_.erase(std::remove(made_.begin(), made_.end(), room), made_.end());
}

bool Rooms::ip(const std::string &room, const std::string &arguments) const {
  return run("ip -n " + name(room) + " " + arguments);
}

void Rooms::join(const std::string &room, const std::string &device, const std::string &address,
                 const std::string &other, const std::string &other_device, const std::string &other_address) {
  ip(room, "link add " + device + " type veth peer name " + other_device + " netns " + name(other));
  ip(room, "addr add " + address + " dev " + device);
  ip(other, "addr add " + other_address + " dev " + other_device);
  ip(room, "link set " + device + " up");
  ip(other, "link set " + other_device + " up");
}

void Rooms::in(const std::string &room, const std::function<void()> &work) const {
  const std::string path = "/run/netns/" + name(room);
  bool entered = false;
  std::thread([&] {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    entered = file >= 0 && ::setns(file, CLONE_NEWNET) == 0;
    if (file >= 0) ::close(file);
    if (entered) work();
  }).join();
  if (!entered) throw std::runtime_error("cannot enter the namespace " + room);
}

bool eventually(const std::function<bool()> &holds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(90);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

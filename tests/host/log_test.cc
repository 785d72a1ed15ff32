// The log towards syslog: a service that does not read, is away, or comes back holds up nobody.
#include "host/event/log.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace host {
namespace {

// A service that listens at a path while it lives.
class Service {
 public:
  explicit Service(const std::string &path) : path_(path), socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  }
  ~Service() {
    close(socket_);
    unlink(path_.c_str());
  }

  std::vector<std::string> read() const {
    std::vector<std::string> lines;
    char line[8192];
    for (ssize_t size; (size = recv(socket_, line, sizeof line, MSG_DONTWAIT)) >= 0;)
      lines.emplace_back(line, static_cast<size_t>(size));
    return lines;
  }

 private:
  std::string path_;
  int socket_;
};

TEST(LogTest, SyslogIsNotWaitedFor) {
  char folder[] = "/tmp/log-test-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::string path = std::string(folder) + "/log";
  Log log("probe", true, path);
  log.write(Level::error, "nobody is there");
  EXPECT_EQ(log.dropped(), 1u);
  {
    const Service service(path);
    constexpr int kMany = 100'000;  // more than any queue of datagrams takes
    for (int i = 0; i < kMany && log.dropped() == 1; i++) log.write(Level::notice, "line " + std::to_string(i));
    ASSERT_EQ(log.dropped(), 2u);
    const std::vector<std::string> lines = service.read();
    ASSERT_GT(lines.size(), 2u);
    const std::string head = "probe[" + std::to_string(getpid()) + "]: ";
    EXPECT_TRUE(lines[0].starts_with("<28>"));  // the facility of daemons, warning
    EXPECT_TRUE(lines[0].ends_with(head + "1 lines of the log are missing here: nobody read them"));
    EXPECT_TRUE(lines[1].starts_with("<29>"));
    EXPECT_TRUE(lines[1].ends_with(head + "line 0"));
    log.write(Level::debug, "not wanted");
    log.write(Level::info, "after the gap");
    const std::vector<std::string> later = service.read();
    ASSERT_EQ(later.size(), 2u);
    EXPECT_TRUE(later[0].ends_with("1 lines of the log are missing here: nobody read them"));
    EXPECT_TRUE(later[1].ends_with(head + "after the gap"));
  }
  const Service service(path);  // was started anew
  log.write(Level::info, "once more");
  EXPECT_EQ(service.read().size(), 1u);
  EXPECT_EQ(log.dropped(), 2u);
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace host

// A client that waits: it has one thread and nothing else to do. Only the wait for the next byte has a limit, so that a
// view may take its time as long as something comes.
#include "host/control/control_client.h"

#include <poll.h>

#include <array>
#include <boost/asio/write.hpp>
#include <cerrno>
#include <filesystem>
#include <thread>

namespace host {

namespace asio = boost::asio;

namespace {

constexpr ControlClient::Timeout kFarewell{2000};

// The same error stands for a socket that nobody has, which a daemon that was killed leaves, and for no socket at all.
std::string reason_of(const boost::system::error_code &error, const std::string &path) {
  std::error_code unknown;
  if (error != asio::error::connection_refused) return error.message();
  return std::filesystem::is_socket(path, unknown) ? "nobody listens there" : "it is no socket";
}

}  // namespace

// The queue of a daemon that accepts nobody may be full: the connection is tried again for a while.
ControlClient::ControlClient(const std::string &path, Timeout timeout) : timeout_(timeout), socket_(io_) {
  if (path.size() >= sizeof(sockaddr_un::sun_path)) throw std::runtime_error(path + ": the path is too long");
  const auto limit = std::chrono::steady_clock::now() + timeout;
  while (!connect(path)) {
    if (timeout.count() > 0 && std::chrono::steady_clock::now() >= limit)
      throw NoAnswer("pimhostd takes no connection at " + path);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

// False when it is to be tried again.
bool ControlClient::connect(const std::string &path) {
  boost::system::error_code error;
  socket_ = asio::local::stream_protocol::socket(io_, asio::local::stream_protocol());
  socket_.native_non_blocking(true);
  socket_.connect(asio::local::stream_protocol::endpoint(path), error);
  if (error == asio::error::no_buffer_space) return false;  // what a full queue is told as
  if (error) throw std::runtime_error("pimhostd cannot be reached at " + path + ": " + reason_of(error, path));
  socket_.native_non_blocking(false);
  return true;
}

bool ControlClient::open() const {
  pollfd readable{const_cast<asio::local::stream_protocol::socket &>(socket_).native_handle(), POLLIN, 0};
  return poll(&readable, 1, 0) == 0;
}

// True once, when there is something to complete.
bool ControlClient::stop_if_interrupted() {
  if (stopped_ || !interrupted_ || !interrupted_()) return false;
  stopped_ = true;
  socket_.shutdown(asio::local::stream_protocol::socket::shutdown_send);
  return true;
}

void ControlClient::wait_until_readable(Timeout timeout) {
  for (;;) {
    stop_if_interrupted();
    const Timeout limit = stopped_ ? kFarewell : timeout;
    pollfd readable{socket_.native_handle(), POLLIN, 0};
    const int ready = poll(&readable, 1, limit.count() > 0 ? static_cast<int>(limit.count()) : -1);
    if (ready > 0) return;
    if (ready == 0) throw NoAnswer("pimhostd does not answer within " + std::to_string(limit.count() / 1000) + " s");
    const int error = errno;
    if (error != EINTR || !stop_if_interrupted())
      throw boost::system::system_error(error, boost::system::system_category());
  }
}

void ControlClient::read(void *bytes, size_t size, Timeout timeout) {
  for (size_t done = 0; done < size;) {
    wait_until_readable(timeout);
    done += socket_.read_some(asio::buffer(static_cast<char *>(bytes) + done, size - done));
  }
}

uint32_t ControlClient::execute(OutputFormat format, std::string_view line, bool slow, const Take &take) {
  if (line.size() > kMaxRequest) throw LineTooLong();
  const Timeout timeout = slow ? Timeout(0) : timeout_;
  try {
    asio::write(socket_, asio::buffer(encode_request(format, line)));
    std::string body;
    for (;;) {
      std::array<uint8_t, kFrameHeaderSize> bytes;
      read(bytes.data(), bytes.size(), timeout);
      FrameHeader header;
      if (!decode_header(bytes.data(), kMaxOutputFrame, &header)) throw std::runtime_error("the answer cannot be read");
      body.resize(header.body_size);
      read(body.data(), body.size(), timeout);
      if (header.type == FrameType::end) return decode_status(body);
      if (take(header.type, body)) continue;
      socket_.close();
      return kStatusDone;
    }
  } catch (const boost::system::system_error &error) {
    throw std::runtime_error("the connection to pimhostd is lost: " + error.code().message());
  }
}

std::string ControlClient::text_of(std::string_view line) {
  constexpr size_t kMaxText = 1u << 20;
  std::string text;
  execute(OutputFormat::text, line, false, [&text](FrameType type, std::string_view part) {
    if (type == FrameType::output) text += part;
    return text.size() < kMaxText;
  });
  return text;
}

}  // namespace host

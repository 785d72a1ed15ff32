#include "host/control/control_client.h"

#include <poll.h>

#include <array>
#include <boost/asio/write.hpp>
#include <stdexcept>

namespace host {

namespace asio = boost::asio;

ControlClient::ControlClient(const std::string &path) : socket_(io_) {
  boost::system::error_code error;
  if (path.size() >= sizeof(sockaddr_un::sun_path)) throw std::runtime_error(path + ": the path is too long");
  socket_.connect(asio::local::stream_protocol::endpoint(path), error);
  if (error) throw std::runtime_error("pimhostd cannot be reached at " + path + ": " + error.message());
}

void ControlClient::read(void *bytes, size_t size) {
  for (size_t done = 0; done < size;) {
    if (deadline_) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline_ - std::chrono::steady_clock::now());
      pollfd readable{socket_.native_handle(), POLLIN, 0};
      if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) <= 0)
        throw std::runtime_error("pimhostd does not answer");
    }
    done += socket_.read_some(asio::buffer(static_cast<char *>(bytes) + done, size - done));
  }
}

uint32_t ControlClient::execute(OutputFormat format, std::string_view line, const Take &take) {
  if (line.size() > kMaxRequest) throw std::runtime_error("the command line is too long");
  try {
    asio::write(socket_, asio::buffer(encode_request(format, line)));
    std::string body;
    for (;;) {
      std::array<uint8_t, kFrameHeaderSize> bytes;
      read(bytes.data(), bytes.size());
      FrameHeader header;
      if (!decode_header(bytes.data(), kMaxOutputFrame, &header)) throw std::runtime_error("the answer cannot be read");
      body.resize(header.body_size);
      read(body.data(), body.size());
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
  execute(OutputFormat::text, line, [&text](FrameType type, std::string_view part) {
    if (type == FrameType::output) text += part;
    return text.size() < kMaxText;
  });
  return text;
}

}  // namespace host

#include "control_client.h"

#include <array>
#include <boost/asio/read.hpp>
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

uint32_t ControlClient::execute(OutputFormat format, std::string_view line, const Take &take) {
  if (line.size() > kMaxRequest) throw std::runtime_error("the command line is too long");
  try {
    asio::write(socket_, asio::buffer(encode_request(format, line)));
    std::string body;
    for (;;) {
      std::array<uint8_t, kFrameHeaderSize> bytes;
      asio::read(socket_, asio::buffer(bytes));
      FrameHeader header;
      if (!decode_header(bytes.data(), kMaxOutputFrame, &header)) throw std::runtime_error("the answer cannot be read");
      body.resize(header.body_size);
      asio::read(socket_, asio::buffer(body));
      if (header.type == FrameType::end) return decode_status(body);
      if (take(header.type, body)) continue;
      socket_.close();
      return kStatusDone;
    }
  } catch (const boost::system::system_error &error) {
    throw std::runtime_error("the connection to pimhostd is lost: " + error.code().message());
  }
}

}  // namespace host

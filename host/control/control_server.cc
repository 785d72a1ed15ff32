// A connection always reads: the end of the client's side ends its command. A request that arrives while one is running
// waits for it, and nothing more is read meanwhile.
#include "host/control/control_server.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <optional>
#include <stdexcept>

namespace host {

namespace asio = boost::asio;
using asio::local::stream_protocol;
using boost::system::error_code;

class ControlConnection : public std::enable_shared_from_this<ControlConnection> {
 public:
  ControlConnection(ControlServer &server, stream_protocol::socket socket)
      : server_(server), socket_(std::move(socket)) {}

  void read_request();
  void close();

 private:
  void read_body(size_t size);
  void take_request();
  void start();
  void send();

  ControlServer &server_;
  stream_protocol::socket socket_;
  std::array<uint8_t, kFrameHeaderSize> header_{};
  std::string body_;
  std::optional<ControlServer::Request> waiting_;
  std::shared_ptr<OutputChannel> channel_;  // of the running command
  std::string out_;                         // being sent; empty: nothing
  bool closed_ = false;
};

void ControlConnection::read_request() {
  asio::async_read(socket_, asio::buffer(header_), [self = shared_from_this()](const error_code &error, size_t) {
    FrameHeader header;
    if (error || !decode_header(self->header_.data(), kMaxRequest + 1, &header) || header.type != FrameType::request ||
        header.body_size == 0)
      return self->close();
    self->read_body(header.body_size);
  });
}

void ControlConnection::read_body(size_t size) {
  body_.resize(size);
  asio::async_read(socket_, asio::buffer(body_), [self = shared_from_this()](const error_code &error, size_t) {
    if (error || static_cast<uint8_t>(self->body_.front()) > static_cast<uint8_t>(OutputFormat::xml))
      return self->close();
    self->take_request();
  });
}

void ControlConnection::take_request() {
  waiting_ = ControlServer::Request{static_cast<OutputFormat>(body_.front()), body_.substr(1)};
  if (!channel_) start();
}

void ControlConnection::start() {
  const ControlServer::Request request = *std::exchange(waiting_, std::nullopt);
  std::weak_ptr<ControlConnection> self = weak_from_this();
  channel_ = std::make_shared<OutputChannel>([self, &io = server_.io_] {
    asio::post(io, [self] {
      if (const auto connection = self.lock()) connection->send();
    });
  });
  read_request();
  server_.execute_(request, channel_);
}

void ControlConnection::send() {
  if (closed_ || !channel_ || !out_.empty()) return;
  out_ = channel_->take();
  if (out_.empty()) return;
  asio::async_write(socket_, asio::buffer(out_), [self = shared_from_this()](const error_code &error, size_t) {
    if (error || self->closed_) return self->close();
    self->channel_->sent(self->out_.size());
    self->out_.clear();
    if (self->channel_->ended()) {
      self->channel_.reset();
      if (self->waiting_) self->start();
    } else {
      self->send();
    }
  });
}

void ControlConnection::close() {
  if (closed_) return;
  closed_ = true;
  if (channel_) channel_->abandon();
  error_code ignored;
  socket_.close(ignored);
  server_.connections_.erase(shared_from_this());
}

namespace {

// A path that is left over from a process that was killed is free; one that somebody listens on is not.
void free_path(asio::io_context &io, const std::string &path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return;
  if (!S_ISSOCK(status.st_mode)) throw std::runtime_error(path + " is there and is not a socket");
  stream_protocol::socket probe(io);
  error_code error;
  probe.connect(stream_protocol::endpoint(path), error);
  if (!error) throw std::runtime_error(path + ": another process listens there");
  unlink(path.c_str());
}

}  // namespace

ControlServer::ControlServer(asio::io_context &io, const std::string &path, Execute execute)
    : io_(io), path_(path), execute_(std::move(execute)), acceptor_(io) {
  free_path(io, path);
  try {
    const stream_protocol::endpoint endpoint(path);
    acceptor_.open(endpoint.protocol());
    const mode_t former = umask(0077);  // only this user commands the daemon
    error_code error;
    acceptor_.bind(endpoint, error);
    umask(former);
    if (error) throw boost::system::system_error(error);
    acceptor_.listen();
  } catch (const boost::system::system_error &error) {
    throw std::runtime_error(path + ": " + error.code().message());
  }
  accept();
}

ControlServer::~ControlServer() { close(); }

void ControlServer::accept() {
  acceptor_.async_accept([this](const error_code &error, stream_protocol::socket socket) {
    if (error == asio::error::operation_aborted) return;
    if (!error && connections_.size() < kMaxClients) {
      const auto connection = std::make_shared<ControlConnection>(*this, std::move(socket));
      connections_.insert(connection);
      connection->read_request();
    }
    accept();
  });
}

void ControlServer::close() {
  if (!acceptor_.is_open()) return;
  error_code ignored;
  acceptor_.close(ignored);
  unlink(path_.c_str());
  for (const auto connections = connections_; const auto &connection : connections) connection->close();
}

}  // namespace host

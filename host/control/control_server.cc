// A connection always reads: the end of the client's side stops its command, and the connection ends behind what the
// command still has to say. A request that arrives while one is running waits for it, and nothing more is read
// meanwhile.
//
// Connections are few, so that clients which hold theirs without using it must not keep others out. A request has to
// come whole soon after its first byte; a connection without a command ends after a while, and earlier when another
// client needs its place. Only a client that finds every place taken by a running command is turned away, with a
// reason.
#include "host/control/control_server.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <cerrno>
#include <chrono>
#include <map>
#include <optional>
#include <stdexcept>

namespace host {

namespace asio = boost::asio;
using asio::local::stream_protocol;
using boost::system::error_code;
using std::chrono::steady_clock;

namespace {

constexpr std::chrono::seconds kLongestIdle{300};       // of a connection without a command; clients connect anew
constexpr std::chrono::seconds kLongestRequest{10};     // from its first byte to its last
constexpr std::chrono::milliseconds kAcceptPause{500};  // when no connection can be taken, as without descriptors

std::string refusal(const std::string &reason) {
  return encode_frames(FrameType::error, reason + "\n") + encode_end(kStatusFailed);
}

// "root, process 4711"; the number where the user has no name.
std::string peer_of(stream_protocol::socket &socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return "";
  static std::map<uid_t, std::string> names;  // a directory of users may be far away: each is asked for once
  const auto [name, unknown] = names.try_emplace(peer.uid, "user " + std::to_string(peer.uid));
  if (unknown)
    if (const passwd *user = getpwuid(peer.uid)) name->second = user->pw_name;
  return name->second + ", process " + std::to_string(peer.pid);
}

}  // namespace

class ControlConnection : public std::enable_shared_from_this<ControlConnection> {
 public:
  ControlConnection(ControlServer &server, stream_protocol::socket socket)
      : server_(server), socket_(std::move(socket)), timer_(socket_.get_executor()), by_(peer_of(socket_)) {}

  void read_request();
  // Ends the connection, with a reason that the client reads when it asks for something.
  void refuse(const std::string &reason);
  void close();

  bool idle() const { return !channel_ && !waiting_ && client_ && !client_->stays; }
  steady_clock::time_point idle_since() const { return idle_since_; }

 private:
  void limit(steady_clock::duration time, const char *reason);
  void read_header();
  void read_body(size_t size);
  void take_request();
  void start();
  void send();
  void become_idle();
  void end_of_requests();

  ControlServer &server_;
  stream_protocol::socket socket_;
  asio::steady_timer timer_;  // while a request is awaited or read
  const std::string by_;      // who is at the other end
  std::shared_ptr<ControlServer::Client> client_ = std::make_shared<ControlServer::Client>();  // null when closed
  steady_clock::time_point idle_since_ = steady_clock::now();
  std::array<uint8_t, kFrameHeaderSize> header_{};
  std::string body_;
  std::optional<ControlServer::Request> waiting_;
  std::shared_ptr<OutputChannel> channel_;  // of the running command
  std::string out_;                         // being sent; empty: nothing
  bool half_ = false;                       // the client sends nothing more
  bool closed_ = false;
};

void ControlConnection::limit(steady_clock::duration time, const char *reason) {
  timer_.expires_after(time);
  timer_.async_wait([self = shared_from_this(), reason](const error_code &error) {
    if (!error && self->idle()) self->refuse(reason);
  });
}

// The first byte may take its time, the rest may not. While a command runs nothing is awaited.
void ControlConnection::read_request() {
  if (idle()) limit(kLongestIdle, "the connection was idle and has been closed");
  socket_.async_wait(stream_protocol::socket::wait_read, [self = shared_from_this()](const error_code &error) {
    if (error) return self->close();
    if (self->idle()) self->limit(kLongestRequest, "the request did not come whole in time");
    self->read_header();
  });
}

void ControlConnection::read_header() {
  asio::async_read(socket_, asio::buffer(header_), [self = shared_from_this()](const error_code &error, size_t) {
    if (error == asio::error::eof) return self->end_of_requests();
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
    if (error || static_cast<uint8_t>(self->body_.front()) > static_cast<uint8_t>(output::kLastFormat))
      return self->close();
    self->take_request();
  });
}

void ControlConnection::take_request() {
  timer_.cancel();
  waiting_ = ControlServer::Request{static_cast<OutputFormat>(body_.front()), body_.substr(1), by_, server_.read_only_,
                                    client_};
  if (!channel_) start();
}

void ControlConnection::end_of_requests() {
  if (!channel_ || channel_->endless()) return close();
  half_ = true;
  channel_->stop();
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
      self->become_idle();
    } else {
      self->send();
    }
  });
}

// A request that came meanwhile is next; else a wait for one is already under way.
void ControlConnection::become_idle() {
  if (half_) return close();
  if (waiting_) return start();
  idle_since_ = steady_clock::now();
  limit(kLongestIdle, "the connection was idle and has been closed");
}

// What fits into the socket at once: a client that reads nothing is not waited for.
void ControlConnection::refuse(const std::string &reason) {
  error_code ignored;
  socket_.non_blocking(true, ignored);
  socket_.write_some(asio::buffer(refusal(reason)), ignored);
  close();
}

void ControlConnection::close() {
  if (closed_) return;
  closed_ = true;
  client_.reset();
  if (channel_) channel_->abandon();
  timer_.cancel();
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
  stream_protocol::socket probe(io, stream_protocol());
  // A process that has been stopped takes no connections, and holds the path all the same: its queue may be full.
  probe.non_blocking(true);
  error_code error;
  probe.connect(stream_protocol::endpoint(path), error);
  const bool queue_full = error == asio::error::no_buffer_space;
  if (!error || queue_full) throw std::runtime_error(path + ": another process listens there");
  unlink(path.c_str());
}

// Members of a group may connect, too. The socket does not listen yet.
void let_in(const std::string &path, const std::string &group) {
  const struct group *known = getgrnam(group.c_str());
  if (known == nullptr) throw std::runtime_error(path + ": there is no group " + group);
  if (chown(path.c_str(), static_cast<uid_t>(-1), known->gr_gid) != 0 || chmod(path.c_str(), 0660) != 0)
    throw boost::system::system_error(errno, boost::system::system_category());
}

std::optional<SocketFile> file_at(const std::string &path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return std::nullopt;
  return SocketFile{status.st_dev, status.st_ino};
}

}  // namespace

ControlServer::ControlServer(asio::io_context &io, const Access &access, Execute execute)
    : io_(io),
      path_(access.path),
      read_only_(access.read_only),
      execute_(std::move(execute)),
      acceptor_(io),
      accept_timer_(io) {
  free_path(io, path_);
  try {
    const stream_protocol::endpoint endpoint(path_);
    acceptor_.open(endpoint.protocol());
    const mode_t former = umask(0077);  // only this user commands the daemon, and the group that is let in below
    error_code error;
    acceptor_.bind(endpoint, error);
    umask(former);
    if (error) throw boost::system::system_error(error);
    file_ = file_at(path_);
    if (!access.group.empty()) let_in(path_, access.group);
    acceptor_.listen();
  } catch (const boost::system::system_error &error) {
    throw std::runtime_error(path_ + ": " + error.code().message());
  }
  accept();
}

ControlServer::~ControlServer() { close(); }

void ControlServer::accept() {
  acceptor_.async_accept([this](const error_code &error, stream_protocol::socket socket) {
    if (error == asio::error::operation_aborted) return;
    if (error) return accept_later();
    add(std::move(socket));
    accept();
  });
}

// The client goes on waiting in the queue meanwhile, which would wake the acceptor at once and for ever.
void ControlServer::accept_later() {
  accept_timer_.expires_after(kAcceptPause);
  accept_timer_.async_wait([this](const error_code &error) {
    if (!error) accept();
  });
}

void ControlServer::add(stream_protocol::socket socket) {
  const auto connection = std::make_shared<ControlConnection>(*this, std::move(socket));
  connections_.insert(connection);
  if (connections_.size() > kMaxClients) make_room(connection);
  if (connections_.contains(connection)) connection->read_request();
}

void ControlServer::make_room(const std::shared_ptr<ControlConnection> &newest) {
  std::shared_ptr<ControlConnection> longest;
  for (const auto &connection : connections_)
    if (connection != newest && connection->idle() && (!longest || connection->idle_since() < longest->idle_since()))
      longest = connection;
  const std::string many = std::to_string(kMaxClients) + " clients are connected";
  if (longest)
    longest->refuse(many + "; this connection was idle and has made room");
  else
    newest->refuse(many + " and wait for their commands; try again later");
}

void ControlServer::close() {
  if (!acceptor_.is_open()) return;
  error_code ignored;
  acceptor_.close(ignored);
  accept_timer_.cancel();
  // Another daemon may have taken the path over meanwhile.
  if (file_ && file_at(path_) == file_) unlink(path_.c_str());
  for (const auto connections = connections_; const auto &connection : connections) connection->close();
}

}  // namespace host

// Sockets by Boost.Asio, their reading and writing by plain calls: the speaker asks when it has time, and Asio only
// tells when asking is worth it. One thread, that of the io_context.
//
// Traps. A handler that is queued runs after what it belongs to has gone: each looks first whether the transport lives
// (alive_) and whether the connection is still the one that it was made for. The speaker may not be called from within
// its own calls, so what fails in one of them is posted (fail).
#include "bgp/asio/asio_transport.h"

#include <sys/socket.h>

#include <array>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "bgp/asio/socket_options.h"

namespace bgp {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr std::chrono::seconds kLinger{1};              // a neighbour that lives has read a NOTIFICATION by then
constexpr std::chrono::milliseconds kAcceptRetry{200};  // when the process has no descriptor left

tcp::endpoint endpoint_of(Ipv4 address, uint16_t port) { return {asio::ip::address_v4(address), port}; }

// Neither of the two is reported by a socket whose connection is on the way to its end in the ordinary manner.
bool is_wait(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

}  // namespace

AsioTransport::AsioTransport(asio::io_context &io, Enter enter)
    : io_(io), enter_(std::move(enter)), acceptor_(io), alarm_(io), accept_retry_(io) {}

AsioTransport::~AsioTransport() = default;

void AsioTransport::attach(Speaker *speaker) { speaker_ = speaker; }

void AsioTransport::tell(const std::function<void(Speaker &)> &event) {
  enter_([&] {
    if (speaker_ != nullptr) event(*speaker_);
  });
}

AsioTransport::Connection *AsioTransport::find(ConnectionId connection) {
  const auto found = connections_.find(connection);
  return found == connections_.end() || found->second->closing ? nullptr : found->second.get();
}

// --------------------------------------------------------------------------------------------------------- listening

std::string AsioTransport::listen(Ipv4 address, uint16_t port) {
  stop_listening();
  tcp::acceptor acceptor(io_);
  error_code error;
  acceptor.open(tcp::v4(), error);
  if (!error) acceptor.set_option(tcp::acceptor::reuse_address(true), error);
  if (!error) acceptor.bind(endpoint_of(address, port), error);
  if (error) return error.message();
  set_full_ttl(acceptor.native_handle());
  for (const auto &[neighbor, options] : peers_)
    if (!options.password.empty()) (void)set_md5_key(acceptor.native_handle(), neighbor, options.password);
  acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error) return error.message();
  acceptor_ = std::move(acceptor);
  accept();
  return "";
}

void AsioTransport::stop_listening() {
  error_code ignored;
  acceptor_.close(ignored);
  accept_retry_.cancel();
}

void AsioTransport::accept() {
  acceptor_.async_accept([this, alive = std::weak_ptr(alive_)](const error_code &error, tcp::socket socket) {
    if (alive.expired() || error == asio::error::operation_aborted) return;
    if (!error) {
      take(std::move(socket));
      return accept();
    }
    // What there is no descriptor for stays in the queue: a new attempt at once would fail at once.
    accept_retry_.expires_after(kAcceptRetry);
    accept_retry_.async_wait([this, alive](const error_code &ended) {
      if (!ended && !alive.expired()) accept();
    });
  });
}

void AsioTransport::take(tcp::socket socket) {
  error_code error;
  const tcp::endpoint remote = socket.remote_endpoint(error);
  if (error || !remote.address().is_v4()) return;
  const tcp::endpoint local = socket.local_endpoint(error);
  if (error) return;
  const Ipv4 neighbor = remote.address().to_v4().to_uint();
  const auto options = peers_.find(neighbor);
  if (options == peers_.end()) return;
  socket.non_blocking(true, error);
  if (error || !set_ttl_security(socket.native_handle(), options->second.ttl_security).empty()) return;
  tell([&](Speaker &speaker) {
    const std::optional<ConnectionId> id = speaker.accepted(neighbor, local.address().to_v4().to_uint());
    if (!id) return;
    socket.set_option(tcp::no_delay(true), error);
    connections_[*id] = std::make_shared<Connection>(std::move(socket));
    watch_input(*id);
  });
}

std::string AsioTransport::set_peer_options(Ipv4 neighbor, const PeerOptions &options) {
  const auto former = peers_.find(neighbor);
  const bool had_key = former != peers_.end() && !former->second.password.empty();
  peers_[neighbor] = options;
  if (!acceptor_.is_open() || (options.password.empty() && !had_key)) {
    if (options.password.empty()) return "";
    // Asked on a socket of its own, so that a kernel without the option is known before the first connection.
    tcp::socket probe(io_, tcp::v4());
    return set_md5_key(probe.native_handle(), neighbor, options.password);
  }
  return set_md5_key(acceptor_.native_handle(), neighbor, options.password);
}

void AsioTransport::remove_peer_options(Ipv4 neighbor) {
  const auto found = peers_.find(neighbor);
  if (found == peers_.end()) return;
  if (acceptor_.is_open() && !found->second.password.empty())
    (void)set_md5_key(acceptor_.native_handle(), neighbor, "");
  peers_.erase(found);
}

// -------------------------------------------------------------------------------------------------------- connecting

std::string AsioTransport::prepare(tcp::socket &socket, Ipv4 neighbor, const PeerOptions &options) {
  error_code error;
  socket.open(tcp::v4(), error);
  if (!error) socket.non_blocking(true, error);
  if (!error) socket.set_option(tcp::no_delay(true), error);
  if (error) return error.message();
  if (options.local_address != 0) {
    socket.bind(endpoint_of(options.local_address, 0), error);
    if (error) return "from " + to_string_address(options.local_address) + ": " + error.message();
  }
  if (!options.password.empty()) {
    if (std::string words = set_md5_key(socket.native_handle(), neighbor, options.password); !words.empty())
      return words;
  }
  return options.ttl_security == 0 ? "" : set_ttl_security(socket.native_handle(), options.ttl_security);
}

void AsioTransport::connect(ConnectionId connection, Ipv4 neighbor, const PeerOptions &options) {
  const Pointer made = std::make_shared<Connection>(tcp::socket(io_));
  connections_[connection] = made;
  if (std::string words = prepare(made->socket, neighbor, options); !words.empty())
    return fail(connection, std::move(words));
  made->socket.async_connect(endpoint_of(neighbor, options.port),
                             [this, connection, made, alive = std::weak_ptr(alive_)](const error_code &error) {
                               if (alive.expired() || find(connection) != made.get() || !made->socket.is_open()) return;
                               error ? fail(connection, error.message()) : connected(connection);
                             });
}

void AsioTransport::connected(ConnectionId connection) {
  error_code error;
  const tcp::endpoint local = find(connection)->socket.local_endpoint(error);
  if (error) return fail(connection, error.message());
  watch_input(connection);
  tell([&](Speaker &speaker) { speaker.connected(connection, local.address().to_v4().to_uint()); });
}

// Said from the event loop: the speaker may be in the middle of something.
void AsioTransport::fail(ConnectionId connection, std::string words) {
  asio::post(io_, [this, connection, words = std::move(words), alive = std::weak_ptr(alive_)] {
    if (alive.expired() || find(connection) == nullptr) return;
    tell([&](Speaker &speaker) { speaker.connection_failed(connection, words); });
    forget(connection);
  });
}

// ----------------------------------------------------------------------------------------------- reading and writing

void AsioTransport::watch_input(ConnectionId connection) {
  const Pointer &watched = connections_.at(connection);
  if (std::exchange(watched->watched_for_input, true)) return;
  watched->socket.async_wait(tcp::socket::wait_read, [this, connection, watched = watched,
                                                      alive = std::weak_ptr(alive_)](const error_code &error) {
    if (alive.expired()) return;
    watched->watched_for_input = false;
    if (error || find(connection) != watched.get()) return;
    tell([&](Speaker &speaker) { speaker.readable(connection); });
  });
}

void AsioTransport::watch_room(ConnectionId connection) {
  const Pointer &watched = connections_.at(connection);
  if (std::exchange(watched->watched_for_room, true)) return;
  watched->socket.async_wait(tcp::socket::wait_write, [this, connection, watched = watched,
                                                       alive = std::weak_ptr(alive_)](const error_code &error) {
    if (alive.expired()) return;
    watched->watched_for_room = false;
    if (error || find(connection) != watched.get()) return;
    tell([&](Speaker &speaker) { speaker.writable(connection); });
  });
}

Received AsioTransport::receive(ConnectionId connection, std::span<uint8_t> into) {
  Connection *from = find(connection);
  if (from == nullptr) return {Received::Status::closed, 0};
  const ssize_t size = ::recv(from->socket.native_handle(), into.data(), into.size(), 0);
  if (size > 0) return {Received::Status::data, static_cast<size_t>(size)};
  if (size == 0 || !is_wait(errno)) return {Received::Status::closed, 0};
  watch_input(connection);
  return {Received::Status::would_block, 0};
}

size_t AsioTransport::send(ConnectionId connection, std::span<const uint8_t> octets) {
  Connection *to = find(connection);
  if (to == nullptr || octets.empty()) return 0;
  const ssize_t size = ::send(to->socket.native_handle(), octets.data(), octets.size(), MSG_NOSIGNAL);
  if (size < 0 && !is_wait(errno)) {
    fail(connection, std::strerror(errno));
    return 0;
  }
  const size_t taken = size < 0 ? 0 : static_cast<size_t>(size);
  if (taken < octets.size()) watch_room(connection);
  return taken;
}

// ----------------------------------------------------------------------------------------------------------- closing

void AsioTransport::close(ConnectionId connection) {
  const auto found = connections_.find(connection);
  if (found == connections_.end() || found->second->closing) return;
  const Pointer closing = found->second;
  closing->closing = true;
  error_code error;
  closing->socket.cancel(error);
  closing->socket.shutdown(tcp::socket::shutdown_send, error);
  if (error) return forget(connection);  // it was not connected, or is broken
  closing->linger.expires_after(kLinger);
  closing->linger.async_wait([this, connection, alive = std::weak_ptr(alive_)](const error_code &ended) {
    if (!ended && !alive.expired()) forget(connection);
  });
  drain(connection);
}

void AsioTransport::drain(ConnectionId connection) {
  const Pointer &closing = connections_.at(connection);
  closing->socket.async_wait(tcp::socket::wait_read, [this, connection, closing = closing,
                                                      alive = std::weak_ptr(alive_)](const error_code &error) {
    if (alive.expired() || error == asio::error::operation_aborted) return;
    std::array<uint8_t, 4096> dropped;
    const ssize_t size = error ? 0 : ::recv(closing->socket.native_handle(), dropped.data(), dropped.size(), 0);
    if (size > 0 || (size < 0 && is_wait(errno))) return drain(connection);
    forget(connection);
  });
}

void AsioTransport::forget(ConnectionId connection) {
  const auto found = connections_.find(connection);
  if (found == connections_.end()) return;
  const Pointer gone = std::move(found->second);
  connections_.erase(found);
  error_code ignored;
  gone->linger.cancel();
  gone->socket.close(ignored);
}

// -------------------------------------------------------------------------------------------------------------- time

Time AsioTransport::time() { return std::chrono::time_point_cast<Duration>(std::chrono::steady_clock::now()); }

void AsioTransport::wake_at(Time when) {
  if (armed_for_ == when) return;
  alarm_.cancel();
  armed_for_ = when;
  if (when == Time::max()) return;
  // What is due needs no timer of the system: a full table is a thousand turns.
  if (when <= now()) {
    asio::post(io_, [this, when, alive = std::weak_ptr(alive_)] {
      if (!alive.expired() && armed_for_ == when) ring();
    });
    return;
  }
  // Times are whole milliseconds, rounded down: without the one more the alarm could ring before its time has come.
  alarm_.expires_at(std::chrono::steady_clock::time_point(when) + std::chrono::milliseconds(1));
  alarm_.async_wait([this, alive = std::weak_ptr(alive_)](const error_code &error) {
    if (!error && !alive.expired()) ring();
  });
}

void AsioTransport::ring() {
  armed_for_.reset();
  tell([](Speaker &speaker) { speaker.run(); });
}

}  // namespace bgp

#include "reflector/safi_connection.h"

#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

namespace safi {

namespace asio = boost::asio;
using boost::system::error_code;

Connection::Connection(asio::ip::tcp::socket socket, Handlers handlers)
    : socket_(std::move(socket)), timer_(socket_.get_executor()), handlers_(std::move(handlers)), in_(kMaxFrame) {}

void Connection::start() {
  heard_ = std::chrono::steady_clock::now();
  read_length();
  keep_alive();
}

void Connection::close(const std::string &reason) {
  if (closed_) return;
  closed_ = true;
  error_code ignored;
  socket_.close(ignored);
  timer_.cancel();
  if (handlers_.closed) handlers_.closed(reason);
  handlers_ = {};
}

void Connection::read_length() {
  asio::async_read(socket_, asio::buffer(in_.data(), kLengthSize),
                   [this, self = shared_from_this()](const error_code &error, size_t) {
                     if (closed_) return;
                     if (error) return close(error.message());
                     const size_t length = size_t{in_[0]} << 24 | size_t{in_[1]} << 16 | size_t{in_[2]} << 8 | in_[3];
                     if (length == 0 || length > kMaxFrame)
                       return close("frame of " + std::to_string(length) + " bytes");
                     read_frame(length);
                   });
}

void Connection::read_frame(size_t length) {
  asio::async_read(socket_, asio::buffer(in_.data(), length),
                   [this, length, self = shared_from_this()](const error_code &error, size_t) {
                     if (closed_) return;
                     if (error) return close(error.message());
                     handle_frame(length);
                     if (!closed_) read_length();
                   });
}

void Connection::handle_frame(size_t length) {
  heard_ = std::chrono::steady_clock::now();
  std::string error;
  const auto message = decode({in_.data(), length}, &error);
  if (!message) return close(error);
  if (handlers_.message) handlers_.message(*message);
}

void Connection::send(const Message &message) {
  if (closed_) return;
  out_.push_back(encode(message));
  queued_ += out_.back().size();
  if (queued_ > kMaxQueued) return close("the peer reads too slowly");
  if (out_.size() == 1) write_next();
}

void Connection::send_changes(const std::vector<Change> &changes) {
  for (size_t first = 0; first < changes.size(); first += kMaxEntries) {
    const size_t last = std::min(first + kMaxEntries, changes.size());
    send(Update{
        {changes.begin() + static_cast<std::ptrdiff_t>(first), changes.begin() + static_cast<std::ptrdiff_t>(last)}});
  }
}

void Connection::write_next() {
  asio::async_write(socket_, asio::buffer(out_.front()),
                    [this, self = shared_from_this()](const error_code &error, size_t) {
                      if (closed_) return;
                      if (error) return close(error.message());
                      queued_ -= out_.front().size();
                      out_.pop_front();
                      if (!out_.empty()) write_next();
                    });
}

void Connection::keep_alive() {
  timer_.expires_after(kKeepaliveInterval);
  timer_.async_wait([this, self = shared_from_this()](const error_code &error) {
    if (error || closed_) return;
    if (std::chrono::steady_clock::now() - heard_ > kHoldTime) return close("nothing heard for the hold time");
    send(Keepalive{});
    keep_alive();
  });
}

}  // namespace safi

// HTTP by Boost.Beast. A client is an object that its own handlers keep alive; it counts itself, so that the bound on
// clients holds for those that are being answered as well. One deadline covers a client from its connection to the last
// byte.
//
// Trap: the text may come later than the call that asks for it (the forwarder is asked first), when the server may have
// gone; the client therefore has a copy of what it calls.
#include "host/metrics/http_server.h"

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <utility>

namespace host::metrics {
namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;
using boost::asio::ip::tcp;
using boost::system::error_code;

constexpr std::chrono::seconds kRetry{5};  // as http_server.h says

}  // namespace

class HttpServer::Client : public std::enable_shared_from_this<Client> {
 public:
  Client(tcp::socket socket, Write write, std::shared_ptr<size_t> clients)
      : stream_(std::move(socket)), buffer_(kMaxRequest), write_(std::move(write)), clients_(std::move(clients)) {
    ++*clients_;
    parser_.header_limit(kMaxRequest);
    parser_.body_limit(0);
  }
  ~Client() { --*clients_; }

  void serve() {
    stream_.expires_after(kLimit);
    http::async_read(stream_, buffer_, parser_, [self = shared_from_this()](const error_code &error, size_t) {
      if (!error) return self->answer();
      if (error == http::error::header_limit || error == http::error::body_limit ||
          error == http::error::buffer_overflow)
        return self->refuse(http::status::payload_too_large);
      if (error.category() == http::make_error_code(http::error::bad_method).category())
        self->refuse(http::status::bad_request);
    });
  }

 private:
  void answer() {
    const http::request<http::empty_body> &request = parser_.get();
    const beast::string_view target = request.target();
    if (target.substr(0, target.find('?')) != "/metrics") return refuse(http::status::not_found);
    if (request.method() != http::verb::get && request.method() != http::verb::head)
      return refuse(http::status::method_not_allowed);
    const beast::string_view accept = request[http::field::accept];
    const Format format = accepted_format({accept.data(), accept.size()});
    const bool head = request.method() == http::verb::head;
    write_(format, [self = shared_from_this(), format, head](std::string text) {
      self->start(http::status::ok, media_type(format), std::move(text));
      if (head) self->response_.body().clear();  // its length stays
      self->send();
    });
  }

  void refuse(http::status status) {
    const beast::string_view reason = http::obsolete_reason(status);
    start(status, "text/plain", std::string(reason.data(), reason.size()) + "\n");
    if (status == http::status::method_not_allowed) response_.set(http::field::allow, "GET, HEAD");
    send();
  }

  void start(http::status status, std::string_view type, std::string body) {
    response_.version(11);
    response_.result(status);
    response_.set(http::field::content_type, beast::string_view(type.data(), type.size()));
    response_.body() = std::move(body);
    response_.keep_alive(false);
    response_.prepare_payload();
  }

  void send() {
    http::async_write(stream_, response_, [self = shared_from_this()](const error_code &, size_t) {
      error_code ignored;
      self->stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    });
  }

  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
  http::request_parser<http::empty_body> parser_;
  http::response<http::string_body> response_;
  Write write_;
  std::shared_ptr<size_t> clients_;
};

HttpServer::HttpServer(boost::asio::io_context &io, Write write, std::function<void(const std::string &)> log)
    : write_(std::move(write)), log_(std::move(log)), acceptor_(io), retry_(io) {}

HttpServer::~HttpServer() = default;

void HttpServer::listen(const std::string &address, uint16_t port) {
  if (address == address_ && port == port_) return;
  address_ = address;
  port_ = port;
  failure_.clear();
  error_code ignored;
  acceptor_.close(ignored);
  retry_.cancel();
  if (!address.empty()) open();
}

void HttpServer::open() {
  error_code error;
  const tcp::endpoint endpoint(boost::asio::ip::make_address_v4(address_, error), port_);
  if (!error) acceptor_.open(tcp::v4(), error);
  if (!error) acceptor_.set_option(tcp::acceptor::reuse_address(true), error);
  if (!error) acceptor_.bind(endpoint, error);
  if (!error) acceptor_.listen(boost::asio::socket_base::max_listen_connections, error);
  if (!error) {
    log_("metrics on http://" + address_ + ":" + std::to_string(port_) + "/metrics");
    return accept();
  }
  if (failure_ != error.message())
    log_("metrics: " + address_ + ":" + std::to_string(port_) + ": " + error.message() + "; trying again");
  failure_ = error.message();
  error_code ignored;
  acceptor_.close(ignored);
  retry_.expires_after(kRetry);
  retry_.async_wait([this](const error_code &cancelled) {
    if (!cancelled) open();
  });
}

void HttpServer::accept() {
  acceptor_.async_accept([this](const error_code &error, tcp::socket socket) {
    if (error == boost::asio::error::operation_aborted || !acceptor_.is_open()) return;
    if (!error && *clients_ < kMaxClients) std::make_shared<Client>(std::move(socket), write_, clients_)->serve();
    if (!error) return accept();
    retry_.expires_after(kRetry);  // no descriptor for it, say
    retry_.async_wait([this](const error_code &cancelled) {
      if (!cancelled) accept();
    });
  });
}

}  // namespace host::metrics

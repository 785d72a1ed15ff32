// Serves one text by HTTP: GET /metrics.
//
// What comes from outside is bounded: so many clients, so many bytes of a request, so many seconds for a request and
// its answer. A connection carries one request. A client that reads slowly holds its own answer and nothing else.
#ifndef HOST_METRICS_HTTP_SERVER_H
#define HOST_METRICS_HTTP_SERVER_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <string>

#include "host/metrics/exposition.h"

namespace host::metrics {

class HttpServer {
 public:
  static constexpr size_t kMaxClients = 16;          // further ones are turned away
  static constexpr uint32_t kMaxRequest = 8192;      // bytes of a request's head
  static constexpr std::chrono::seconds kLimit{10};  // of a client, from its connection to the last byte

  // Makes the text and hands it over, at once or later. Called from the event loop, and answers there.
  using Write = std::function<void(Format, std::function<void(std::string)> answer)>;
  // log: lines for people.
  HttpServer(boost::asio::io_context &io, Write write, std::function<void(const std::string &)> log);
  ~HttpServer();

  // Listens on an address (dotted) and port, or on none when the address is empty. An address that cannot be had is
  // tried again every five seconds.
  void listen(const std::string &address, uint16_t port);

 private:
  class Client;
  void open();
  void accept();

  Write write_;
  std::function<void(const std::string &)> log_;
  std::string address_;
  uint16_t port_ = 0;
  std::string failure_;  // that was logged last
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer retry_;
  std::shared_ptr<size_t> clients_ = std::make_shared<size_t>(0);
};

}  // namespace host::metrics

#endif  // HOST_METRICS_HTTP_SERVER_H

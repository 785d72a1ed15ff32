// mdt-reflector: the MDT SAFI route reflector as a program.
#include <CLI/CLI.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <iostream>

#include "reflector/reflector.h"

namespace {

boost::asio::ip::tcp::endpoint parse_endpoint(const std::string &text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos) throw CLI::ValidationError("--listen", "'" + text + "' is not ADDRESS:PORT");
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address_v4(text.substr(0, colon), error);
  const std::string port = text.substr(colon + 1);
  const bool digits = !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
  if (error || !digits || std::stoul(port) > 65535)
    throw CLI::ValidationError("--listen", "'" + text + "' is not ADDRESS:PORT");
  return {address, static_cast<uint16_t>(std::stoul(port))};
}

constexpr int kUsage = 2;  // exit status

}  // namespace

int main(int argc, char **argv) {
  // Neither a log whose reader has gone nor a signal that means nothing here is a reason to end.
  for (const int number : {SIGPIPE, SIGUSR1, SIGUSR2}) std::signal(number, SIG_IGN);
  CLI::App app{"Reflects the MDT SAFI entries of each PE to all others."};
  std::string listen = "127.0.0.1:1790";
  bool quiet = false;
  app.add_option("--listen", listen, "ADDRESS:PORT to listen on; port 0 takes a free one")->capture_default_str();
  app.add_flag("--quiet", quiet, "say nothing about connections and changes");
  try {
    app.parse(argc, argv);
    boost::asio::io_context io;
    boost::asio::ip::tcp::endpoint endpoint = parse_endpoint(listen);
    safi::Reflector reflector(io, endpoint, [quiet](const std::string &text) {
      if (!quiet) std::cout << "mdt-reflector: " << text << std::endl;
    });
    endpoint.port(reflector.port());
    std::cout << "mdt-reflector: listening on " << endpoint << std::endl;
    boost::asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&io](const boost::system::error_code &, int) { io.stop(); });
    io.run();
    return 0;
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  } catch (const std::exception &error) {
    std::cerr << "mdt-reflector: " << error.what() << '\n';
    return 1;
  }
}

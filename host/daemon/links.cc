// The carrier belongs to the platform; this side waits for its socket, in turns of the main loop. A carrier is closed
// and opened anew when its line or its peers change, since it is bound to them; BGP, which is not, is changed in place.
//
// Trap: the event loop's descriptor object borrows the socket and has to give it back (release) before the carrier
// closes it.
#include "host/daemon/links.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/reference/packet.h"

namespace host {
namespace {

namespace asio = boost::asio;

constexpr std::chrono::seconds kCarrierRetry{5};  // an address that comes later is soon used, a log is not filled

}  // namespace

Links::Links(Loop &loop, const std::string &capture, bool restarting, EventBus &events, LogLine log)
    : loop_(loop),
      log_(std::move(log)),
      carrier_socket_(loop.io()),
      carrier_retry_(loop.io()),
      exchange_(loop, restarting, events, log_) {
  if (capture.empty()) return;
  if (const std::string reason = capture_.start(capture, false); !reason.empty())
    log_(Level::error, "no capture: " + reason);
}

void Links::follow(const Config &config) {
  const Block *core = config.find({Mode::core, ""});
  const std::string *listen = core == nullptr ? nullptr : core->value(Command::carrier, "endpoint");
  std::vector<std::string> wanted;
  if (listen != nullptr) {
    wanted.push_back(*listen);
    for (const auto &[place, line] : core->lines())
      if (line.statement.command == Command::peer) wanted.push_back(*find_argument(line.statement, "endpoint"));
  }
  if (wanted != carrier_wanted_) {
    close_carrier();
    carrier_wanted_ = wanted;
    open_carrier();
  }
  exchange_.follow(config);
}

void Links::clear_counters() {
  if (carrier_ != nullptr) carrier_->clear_counters();
}

void Links::close() {
  exchange_.bgp().stop("");
  close_carrier();
}

void Links::open_carrier() {
  if (carrier_wanted_.empty()) return;
  const std::string &endpoint = carrier_wanted_.front();
  const EndpointValue own = endpoint_value(endpoint);
  ref::GreUdpCarrier::Config config;
  config.local = address_value(own.address);
  config.port = own.port;
  for (auto peer = carrier_wanted_.begin() + 1; peer != carrier_wanted_.end(); ++peer)
    config.peers.push_back(address_value(endpoint_value(*peer).address));
  std::string error;
  std::unique_ptr<ref::GreUdpCarrier> carrier = ref::GreUdpCarrier::open(config, &error);
  if (!carrier) return retry_carrier(endpoint + ": " + error);
  if (carrier_failed_) log_(Level::notice, "core carrier " + endpoint + ": open");
  carrier_failed_ = false;
  carrier->set_capture(&capture_);
  carrier_ = carrier.get();
  ref::use_carrier(std::move(carrier));
  carrier_socket_.assign(carrier_->fd());
  watch_carrier();
}

// Its address or port may be free later.
void Links::retry_carrier(const std::string &reason) {
  if (!carrier_failed_)
    log_(Level::error,
         "core carrier " + reason + ", tried again every " + std::to_string(kCarrierRetry.count()) + " seconds");
  carrier_failed_ = true;
  carrier_retry_.expires_after(kCarrierRetry);
  carrier_retry_.async_wait([this](const boost::system::error_code &error) {
    if (error) return;
    Loop::Turn turn(loop_);
    open_carrier();
  });
}

void Links::close_carrier() {
  carrier_wanted_.clear();
  carrier_retry_.cancel();
  carrier_failed_ = false;
  if (carrier_ == nullptr) return;
  carrier_socket_.release();  // the descriptor is the carrier's
  carrier_ = nullptr;
  ref::use_carrier(nullptr);
}

void Links::watch_carrier() {
  carrier_socket_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const boost::system::error_code &error) {
    if (error || carrier_ == nullptr) return;
    Loop::Turn turn(loop_);
    carrier_->on_readable();
    watch_carrier();
  });
}

}  // namespace host

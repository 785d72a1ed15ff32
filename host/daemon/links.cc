// The carrier belongs to the platform; this side waits for its socket. What the reflector tells goes to the BGP stand-in
// as remote entries, and what the module advertises comes from there.
#include "host/daemon/links.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace host {
namespace {

namespace asio = boost::asio;

safi::Entry to_entry(const ref::MdtSafi &safi) {
  safi::Entry entry;
  entry.source = safi.source;
  std::copy(std::begin(safi.rd), std::end(safi.rd), entry.rd.begin());
  entry.group = safi.group;
  return entry;
}

ref::MdtSafi from_entry(const safi::Entry &entry) {
  ref::MdtSafi safi;
  safi.source = entry.source;
  std::copy(entry.rd.begin(), entry.rd.end(), safi.rd);
  safi.group = entry.group;
  return safi;
}

// Changes keep their order: an entry that is withdrawn and advertised again ends up advertised.
void apply(const std::vector<safi::Change> &changes) {
  for (size_t at = 0; at < changes.size();) {
    const bool add = changes[at].add;
    std::vector<ref::MdtSafi> entries;
    for (; at < changes.size() && changes[at].add == add; at++) entries.push_back(from_entry(changes[at].entry));
    add ? ref::bgp_add_remote(entries) : ref::bgp_withdraw_remote(entries);
  }
}

std::vector<safi::Entry> local_entries() {
  std::vector<safi::Entry> entries;
  for (const ref::MdtSafi &safi : ref::bgp_local_entries()) entries.push_back(to_entry(safi));
  return entries;
}

// What the reflector knows this PE by: several may be called alike, or not at all.
std::string name_of(const Config &config) {
  const Block *bgp = config.find({Mode::bgp, ""});
  const std::string *source = bgp == nullptr ? nullptr : bgp->value(Command::update_source, "interface");
  const Block *interface = source == nullptr ? nullptr : config.find({Mode::interface, *source});
  const std::string *address = interface == nullptr ? nullptr : interface->value(Command::ip_address, "address");
  return config.hostname() + (address == nullptr ? "" : " " + *address);
}

constexpr std::chrono::seconds kCarrierRetry{5};

}  // namespace

Links::Links(Loop &loop, std::string capture, Log log)
    : loop_(loop),
      capture_(std::move(capture)),
      log_(std::move(log)),
      carrier_socket_(loop.io()),
      carrier_retry_(loop.io()) {
  ref::set_bgp_local_sink([this](const ref::MdtSafi &safi, bool add) {
    if (reflector_) reflector_->local_change(to_entry(safi), add);
  });
}

Links::~Links() { ref::set_bgp_local_sink(nullptr); }

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
  const Block *bgp = config.find({Mode::bgp, ""});
  const std::string *endpoint = bgp == nullptr ? nullptr : bgp->value(Command::reflector, "endpoint");
  const std::string reflector = endpoint == nullptr ? "" : *endpoint;
  if (reflector == reflector_wanted_) return;
  close_reflector();
  reflector_wanted_ = reflector;
  if (endpoint != nullptr) open_reflector(reflector, name_of(config));
}

void Links::clear_counters() {
  if (carrier_ != nullptr) carrier_->clear_counters();
}

void Links::close() {
  close_reflector();
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
  if (carrier_failed_) log_("core carrier " + endpoint + ": open");
  carrier_failed_ = false;
  if (!capture_.empty() && !carrier->set_capture(capture_)) log_("cannot write the capture " + capture_);
  carrier_ = carrier.get();
  ref::use_carrier(std::move(carrier));
  carrier_socket_.assign(carrier_->fd());
  watch_carrier();
}

// Its address or port may be free later.
void Links::retry_carrier(const std::string &reason) {
  if (!carrier_failed_)
    log_("core carrier " + reason + ", tried again every " + std::to_string(kCarrierRetry.count()) + " seconds");
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

void Links::open_reflector(const std::string &endpoint, const std::string &name) {
  const EndpointValue value = endpoint_value(endpoint);
  const asio::ip::tcp::endpoint address(asio::ip::make_address_v4(value.address), value.port);
  safi::ReflectorLink::Callbacks callbacks;
  callbacks.local_entries = [this] {
    Loop::Turn turn(loop_);
    return local_entries();
  };
  callbacks.changes = [this](const std::vector<safi::Change> &changes) {
    Loop::Turn turn(loop_);
    apply(changes);
  };
  callbacks.end_of_rib = [this] {
    Loop::Turn turn(loop_);
    ref::bgp_end_of_rib();
  };
  callbacks.log = log_;
  reflector_ = std::make_unique<safi::ReflectorLink>(loop_.io(), address, name, std::move(callbacks));
}

void Links::close_reflector() {
  reflector_wanted_.clear();
  if (!reflector_) return;
  reflector_.reset();
  ref::bgp_withdraw_remote(ref::bgp_remote_entries());
}

}  // namespace host

#include "reflector/reflector_link.h"

namespace safi {

namespace asio = boost::asio;
using boost::system::error_code;

ReflectorLink::ReflectorLink(asio::io_context &io, asio::ip::tcp::endpoint reflector, std::string name,
                             Callbacks callbacks)
    : io_(io),
      reflector_(std::move(reflector)),
      name_(std::move(name)),
      callbacks_(std::move(callbacks)),
      retry_timer_(io) {
  connect();
}

ReflectorLink::~ReflectorLink() {
  callbacks_ = {};
  if (connecting_) {
    error_code ignored;
    connecting_->close(ignored);
  }
  if (connection_) {
    const std::shared_ptr<Connection> open = std::move(connection_);
    open->close("the link ends");
  }
}

void ReflectorLink::connect() {
  connecting_ = std::make_shared<asio::ip::tcp::socket>(io_);
  connecting_->async_connect(reflector_,
                             [this, socket = connecting_, alive = std::weak_ptr<int>(alive_)](const error_code &error) {
                               if (alive.expired()) return;
                               connecting_.reset();
                               if (error) return retry(error.message());
                               connected_to(std::move(*socket));
                             });
}

void ReflectorLink::connected_to(asio::ip::tcp::socket socket) {
  connection_ = std::make_shared<Connection>(std::move(socket),
                                             Connection::Handlers{[this](const Message &message) { receive(message); },
                                                                  [this](const std::string &reason) { lost(reason); }});
  connection_->start();
  connection_->send(Hello{kVersion, name_});
  std::vector<Change> all;
  for (const Entry &entry : callbacks_.local_entries()) all.push_back({entry, true});
  connection_->send_changes(all);
  connection_->send(EndOfRib{});
}

void ReflectorLink::retry(const std::string &reason) {
  if (reason != failure_) callbacks_.log("the reflector cannot be reached, tried again: " + reason);
  failure_ = reason;
  retry_timer_.expires_after(retry_);
  retry_ = std::min(retry_ * 2, kLastRetry);
  retry_timer_.async_wait([this, alive = std::weak_ptr<int>(alive_)](const error_code &error) {
    if (!alive.expired() && !error) connect();
  });
}

void ReflectorLink::receive(const Message &message) {
  if (std::holds_alternative<Hello>(message)) {
    callbacks_.log("connected to the reflector");
    failure_.clear();
  } else if (const auto *update = std::get_if<Update>(&message)) {
    for (const Change &change : update->changes) {
      if (change.add)
        learnt_.insert(change.entry);
      else
        learnt_.erase(change.entry);
    }
    callbacks_.changes(update->changes);
  } else if (std::holds_alternative<EndOfRib>(message)) {
    callbacks_.end_of_rib();
  } else if (std::holds_alternative<Keepalive>(message)) {
    // The connection has lasted: two PEs of one name, which throw each other out at once, do not get here.
    retry_ = kFirstRetry;
  }
}

void ReflectorLink::lost(const std::string &reason) {
  if (!callbacks_.log) return;  // the link is being destroyed
  connection_.reset();
  std::vector<Change> withdrawn;
  for (const Entry &entry : learnt_) withdrawn.push_back({entry, false});
  learnt_.clear();
  callbacks_.changes(withdrawn);
  retry(reason);
}

void ReflectorLink::local_change(const Entry &entry, bool add) {
  if (connection_) connection_->send(Update{{{entry, add}}});
}

}  // namespace safi

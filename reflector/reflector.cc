#include "reflector/reflector.h"

namespace safi {

namespace asio = boost::asio;

Reflector::Reflector(asio::io_context &io, const asio::ip::tcp::endpoint &listen, Log log)
    : acceptor_(io, listen), log_(std::move(log)) {
  accept();
}

void Reflector::accept() {
  acceptor_.async_accept([this](const boost::system::error_code &error, asio::ip::tcp::socket socket) {
    if (error == asio::error::operation_aborted) return;
    if (!error) add_peer(std::move(socket));
    accept();
  });
}

void Reflector::add_peer(asio::ip::tcp::socket socket) {
  if (peers_.size() >= kMaxPeers) {
    log_("a connection is refused: there are " + std::to_string(kMaxPeers) + " already");
    return;
  }
  const uint64_t number = next_number_++;
  Peer &peer = peers_[number];
  peer.number = number;
  peer.connection = std::make_shared<Connection>(
      std::move(socket),
      Connection::Handlers{[this, number](const Message &message) { receive(number, message); },
                           [this, number](const std::string &reason) { drop_peer(number, reason); }});
  peer.connection->start();
}

void Reflector::receive(uint64_t number, const Message &message) {
  Peer &peer = peers_.at(number);
  if (const auto *hello = std::get_if<Hello>(&message)) return greet(peer, *hello);
  if (peer.name.empty()) return peer.connection->close("the first frame is no hello");
  if (const auto *update = std::get_if<Update>(&message)) take_update(peer, *update);
}

void Reflector::greet(Peer &peer, const Hello &hello) {
  if (!peer.name.empty() || hello.name.empty()) return peer.connection->close("unexpected hello");
  for (auto &[number, other] : peers_)
    if (other.name == hello.name) {
      const std::shared_ptr<Connection> older = other.connection;
      older->close("a PE of this name has connected again");
      break;
    }
  peer.name = hello.name;
  log_(peer.name + " is connected");
  peer.connection->send(Hello{kVersion, "reflector"});
  std::vector<Change> all;
  for (const auto &[entry, count] : advertisers_) all.push_back({entry, true});
  peer.connection->send_changes(all);
  peer.connection->send(EndOfRib{});
}

void Reflector::take_update(Peer &peer, const Update &update) {
  std::vector<Change> news;
  for (const Change &change : update.changes)
    if (apply(peer, change)) news.push_back(change);
  if (peer.entries.size() > kMaxEntriesPerPeer) return peer.connection->close("more entries than a PE may have");
  log_(peer.name + ": " + std::to_string(news.size()) + " changes, " + std::to_string(peer.entries.size()) +
       " entries");
  tell_others(peer.number, news);
}

bool Reflector::apply(Peer &peer, const Change &change) {
  if (change.add) return peer.entries.insert(change.entry).second && ++advertisers_[change.entry] == 1;
  if (peer.entries.erase(change.entry) == 0) return false;
  const auto found = advertisers_.find(change.entry);
  if (--found->second > 0) return false;
  advertisers_.erase(found);
  return true;
}

void Reflector::drop_peer(uint64_t number, const std::string &reason) {
  const auto found = peers_.find(number);
  if (found == peers_.end()) return;
  const Peer gone = std::move(found->second);
  peers_.erase(found);
  log_((gone.name.empty() ? "a connection" : gone.name) + " is gone: " + reason);
  std::vector<Change> news;
  Peer withdrawing;
  withdrawing.entries = gone.entries;
  for (const Entry &entry : gone.entries)
    if (const Change change{entry, false}; apply(withdrawing, change)) news.push_back(change);
  tell_others(number, news);
}

void Reflector::tell_others(uint64_t number, const std::vector<Change> &changes) {
  // A send may close a connection and thereby change peers_: collect first.
  std::vector<std::shared_ptr<Connection>> others;
  for (const auto &[other, peer] : peers_)
    if (other != number && !peer.name.empty()) others.push_back(peer.connection);
  for (const auto &connection : others) connection->send_changes(changes);
}

}  // namespace safi

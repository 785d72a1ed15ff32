// Delivers octets and alarms between speakers by hand. A node is its speaker's transport, clock and observer in one;
// what the speaker asks for is noted and done by the network between its calls, as an event loop would.
#include "tests/bgp/world.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace world {

bgp::Nlri route(uint32_t vrf, Ipv4 source, Ipv4 group) {
  return {{{0, 0, 0xFD, 0xE8, static_cast<uint8_t>(vrf >> 24), static_cast<uint8_t>(vrf >> 16),
            static_cast<uint8_t>(vrf >> 8), static_cast<uint8_t>(vrf)},
           source},
          group};
}

bgp::Open open_of(Ipv4 router_id, bgp::AsNumber as) {
  bgp::Open open{as, 90, router_id, {}};
  open.capabilities.families = {bgp::kMdt};
  open.capabilities.route_refresh = open.capabilities.enhanced_refresh = open.capabilities.extended_messages = true;
  open.capabilities.four_octet_as = as;
  open.capabilities.restart = bgp::GracefulRestart{false, false, 120, {{bgp::kMdt, true}}};
  return open;
}

bgp::Attributes attributes_of(Ipv4 next_hop) {
  bgp::Attributes attributes;
  attributes.next_hop = next_hop;
  attributes.local_pref = 100;
  return attributes;
}

// --------------------------------------------------------------------------------------------------------------- node

Node::Node(Network &network, Ipv4 address, const bgp::SpeakerConfig &config) : network_(network), address_(address) {
  start(config);
}

Node::~Node() { speaker_.reset(); }  // it closes connections that stand here

void Node::start(const bgp::SpeakerConfig &config) {
  best.clear();
  events.clear();
  states.clear();
  speaker_ = std::make_unique<bgp::Speaker>(config, *this, *this, *this);
}

void Node::kill() {
  speaker_.reset();
  ends_.clear();
  calls_.clear();
  waiting_to_write_.clear();
  alarm = bgp::Time::max();
}

bgp::Time Node::now() { return network_.now; }

std::string Node::set_peer_options(Ipv4 neighbor, const bgp::PeerOptions &o) {
  if (socket_trouble.empty()) options[neighbor] = o;
  return socket_trouble;
}

void Node::connect(bgp::ConnectionId connection, Ipv4 neighbor, const bgp::PeerOptions &) {
  calls_.emplace_back(connection, neighbor);
}

bgp::Received Node::receive(bgp::ConnectionId connection, std::span<uint8_t> into) {
  const auto end = ends_.find(connection);
  if (end == ends_.end()) return {bgp::Received::Status::closed, 0};
  Link::Direction &in = end->second.in();
  if (in.octets.empty()) return {in.closed ? bgp::Received::Status::closed : bgp::Received::Status::would_block, 0};
  const size_t count = std::min(into.size(), in.octets.size());
  std::copy_n(in.octets.begin(), count, into.begin());
  in.octets.erase(in.octets.begin(), in.octets.begin() + static_cast<ptrdiff_t>(count));
  return {bgp::Received::Status::data, count};
}

size_t Node::send(bgp::ConnectionId connection, std::span<const uint8_t> octets) {
  const auto end = ends_.find(connection);
  if (end == ends_.end()) return 0;
  Link::Direction &out = end->second.out();
  const size_t count = std::min(octets.size(), out.room);
  if (out.room != SIZE_MAX) out.room -= count;
  out.octets.insert(out.octets.end(), octets.begin(), octets.begin() + static_cast<ptrdiff_t>(count));
  if (count < octets.size()) waiting_to_write_.insert(connection);
  return count;
}

void Node::close(bgp::ConnectionId connection) {
  const auto end = ends_.find(connection);
  if (end != ends_.end()) end->second.out().closed = true;
  ends_.erase(connection);
  waiting_to_write_.erase(connection);
  std::erase_if(calls_, [connection](const auto &call) { return call.first == connection; });
}

void Node::best_changed(std::span<const bgp::BestChange> changed) {
  EXPECT_FALSE(changed.empty());
  EXPECT_LE(changed.size(), bgp::kBestBatch);
  changes += changed.size();
  for (const bgp::BestChange &change : changed) {
    const auto known = best.find(change.nlri.key);
    EXPECT_EQ(change.former, known == best.end() || known->second.local ? 0 : known->second.nlri.group);
    if (change.present)
      best[change.nlri.key] = change;
    else
      EXPECT_EQ(best.erase(change.nlri.key), 1U) << "gone, but never there: " << bgp::to_string(change.nlri.key.rd);
  }
  events.push_back("best " + std::to_string(changed.size()));
}

void Node::session_changed(Ipv4, bgp::State from, bgp::State to, std::string_view) {
  states.push_back(std::string(bgp::to_string(from)) + ">" + bgp::to_string(to));
}

void Node::end_of_rib(Ipv4 neighbor) { events.push_back("end of rib " + bgp::to_string_address(neighbor)); }
void Node::log(bgp::LogLevel, std::string_view line) { lines.emplace_back(line); }

bool Node::logged(const std::string &part) const {
  return std::any_of(lines.begin(), lines.end(), [&](const std::string &line) { return line.find(part) != line.npos; });
}

std::optional<uint32_t> Node::next_hop_cost(Ipv4 next_hop) {
  const auto found = costs.find(next_hop);
  return found == costs.end() ? 0 : found->second;
}

bool Node::work() {
  if (speaker_ == nullptr) return false;
  bool any = false;
  for (const auto &[connection, neighbor] : std::exchange(calls_, {})) {
    if (network_.deaf.contains(neighbor)) continue;
    any = true;
    if (network_.place_call(*this, connection, neighbor))
      speaker_->connected(connection, address_);
    else
      speaker_->connection_failed(connection, "connection refused");
  }
  for (const auto &[connection, end] : ends_) {
    if (!end.in().octets.empty() || end.in().closed) {
      speaker_->readable(connection);
      any = true;
    }
    if (waiting_to_write_.contains(connection) && end.out().room > 0) {
      waiting_to_write_.erase(connection);
      speaker_->writable(connection);
      any = true;
    }
  }
  if (alarm <= network_.now) {
    alarm = bgp::Time::max();
    speaker_->run();
    any = true;
  }
  return any;
}

// ------------------------------------------------------------------------------------------------------------- network

Node &Network::node(Ipv4 address, const bgp::SpeakerConfig &config) {
  auto &node = nodes_[address];
  node = std::make_unique<Node>(*this, address, config);
  return *node;
}

Script &Network::script(Ipv4 address) {
  auto &script = scripts_[address];
  script = std::make_unique<Script>(*this, address);
  return *script;
}

bool Network::ring(Ipv4 caller, Ipv4 called, const std::shared_ptr<Link> &link) {
  if (const auto script = scripts_.find(called); script != scripts_.end()) {
    script->second->calls_.push_back({link, false});
    return true;
  }
  const auto node = nodes_.find(called);
  if (node == nodes_.end() || node->second->speaker_ == nullptr) return false;
  const auto connection = node->second->speaker_->accepted(caller, called);
  if (connection) node->second->ends_[*connection] = {link, false};
  return connection.has_value();
}

bool Network::place_call(Node &caller, bgp::ConnectionId connection, Ipv4 called) {
  const auto link = std::make_shared<Link>();
  caller.ends_[connection] = {link, true};
  if (ring(caller.address_, called, link)) return true;
  caller.ends_.erase(connection);
  return false;
}

void Network::settle() {
  for (int turn = 0; turn < 100000; turn++) {
    bool any = false;
    for (const auto &[address, node] : nodes_) any = node->work() || any;
    if (!any) return;
  }
  ADD_FAILURE() << "the network does not come to rest";
}

void Network::advance(bgp::Duration by) {
  const bgp::Time end = now + by;
  settle();
  while (true) {
    bgp::Time next = end;
    for (const auto &[address, node] : nodes_)
      if (node->speaker_ != nullptr) next = std::min(next, std::max(now, node->alarm));
    now = next;
    settle();
    if (now >= end) return;
  }
}

// -------------------------------------------------------------------------------------------------------------- script

bool Script::call(Ipv4 node) {
  auto link = std::make_shared<Link>();
  if (!network_.ring(address_, node, link)) return false;
  end_ = {link, true};
  network_.settle();
  return true;
}

void Script::take_call() {
  ASSERT_FALSE(calls_.empty());
  end_ = calls_.back();
  calls_.clear();
}

void Script::send(const bgp::Octets &octets) {
  auto &out = end_.out().octets;
  out.insert(out.end(), octets.begin(), octets.end());
  network_.settle();
}

void Script::close() {
  end_.out().closed = true;
  network_.settle();
}

bool Script::closed() const { return end_.in().closed; }

std::vector<bgp::Octets> Script::messages() {
  std::vector<bgp::Octets> messages;
  bgp::Octets &octets = end_.in().octets;
  size_t at = 0;
  while (octets.size() - at >= bgp::kHeaderSize) {
    const size_t length = static_cast<size_t>(octets[at + 16] << 8 | octets[at + 17]);
    messages.emplace_back(octets.begin() + static_cast<ptrdiff_t>(at),
                          octets.begin() + static_cast<ptrdiff_t>(at + length));
    at += length;
  }
  EXPECT_EQ(at, octets.size()) << "half a message";
  octets.clear();
  return messages;
}

namespace {

std::string words_of(const bgp::Octets &message) {
  const bgp::View body = bgp::View(message).subspan(bgp::kHeaderSize);
  switch (static_cast<bgp::MessageType>(message[18])) {
    case bgp::MessageType::open:
      return "OPEN";
    case bgp::MessageType::keepalive:
      return "KEEPALIVE";
    case bgp::MessageType::notification:
      return "NOTIFICATION " + std::to_string(body[0]) + "/" + std::to_string(body[1]);
    case bgp::MessageType::route_refresh:
      return "REFRESH " + std::to_string(body[2]);
    case bgp::MessageType::update:
      break;
  }
  bgp::Update update;
  EXPECT_FALSE(bgp::decode_update(body, {}, update));
  if (update.end_of_rib) return "EOR";
  std::string words = "UPDATE";
  if (!update.reachable.empty()) words += " +" + std::to_string(update.reachable.size());
  if (!update.unreachable.empty()) words += " -" + std::to_string(update.unreachable.size());
  return words;
}

}  // namespace

std::string Script::heard() {
  std::string heard;
  for (const bgp::Octets &message : messages()) heard += (heard.empty() ? "" : ", ") + words_of(message);
  return heard;
}

void Script::establish(const bgp::Open &open) {
  bgp::Octets octets;
  bgp::encode_open(open, octets);
  bgp::encode_keepalive(octets);
  send(octets);
}

void Script::announce(const std::vector<bgp::Nlri> &routes, const bgp::Attributes &attributes) {
  bgp::Octets encoded, octets;
  bgp::encode_attributes(attributes, {}, encoded);
  bgp::UpdateBuilder builder(octets, bgp::kExtendedMessageMax, encoded, attributes.next_hop);
  for (const bgp::Nlri &nlri : routes) ASSERT_TRUE(builder.add(nlri));
  builder.finish();
  send(octets);
}

void Script::withdraw(const std::vector<bgp::Nlri> &routes) {
  bgp::Octets octets;
  bgp::UpdateBuilder builder(octets, bgp::kExtendedMessageMax);
  for (const bgp::Nlri &nlri : routes) ASSERT_TRUE(builder.add(nlri));
  builder.finish();
  send(octets);
}

void Script::end_of_rib() {
  bgp::Octets octets;
  bgp::encode_end_of_rib(bgp::kMdt, octets);
  send(octets);
}

void Script::notify(const bgp::Notification &notification) {
  bgp::Octets octets;
  bgp::encode_notification(notification, bgp::kMessageMax, octets);
  send(octets);
}

void Script::keepalive() {
  bgp::Octets octets;
  bgp::encode_keepalive(octets);
  send(octets);
}

}  // namespace world

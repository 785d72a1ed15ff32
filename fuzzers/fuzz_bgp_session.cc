// A speaker with three neighbours that an input plays: connections, messages well and badly formed, time, full sockets,
// and an operator who changes things. Whatever happens, the speaker comes to rest, tells its observer of no route twice
// gone, and holds nothing but its own routes once the neighbours are removed.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>

#include "bgp/speaker.h"

namespace {

using bgp::Ipv4;

constexpr Ipv4 kUs = 0x0A000001;
constexpr Ipv4 kNeighbors[] = {0x0A000002, 0x0A000003, 0x0A000004};
constexpr bgp::AsNumber kAs[] = {65000, 65000, 65004};
constexpr size_t kTurnsAtRest = 20000;

void require(bool holds) {
  if (!holds) std::abort();
}

// The input, octet by octet; zeros once it is used up.
class Input {
 public:
  Input(const uint8_t *data, size_t size) : rest_(data, size) {}
  bool left() const { return !rest_.empty(); }
  uint8_t octet() {
    if (rest_.empty()) return 0;
    const uint8_t octet = rest_[0];
    rest_ = rest_.subspan(1);
    return octet;
  }
  bgp::Octets octets(size_t count) {
    bgp::Octets taken;
    while (count-- > 0 && left()) taken.push_back(octet());
    return taken;
  }

 private:
  bgp::View rest_;
};

class World : public bgp::Transport, public bgp::Clock, public bgp::Observer {
 public:
  explicit World(bool restarting)
      : speaker_({.local_as = 65000, .router_id = kUs, .restarting = restarting}, *this, *this, *this) {
    for (size_t i = 0; i < 3; i++) configure(i, 0);
  }

  void play(Input &input) {
    while (input.left()) {
      step(input);
      rest();
    }
    end();
  }

  std::string set_peer_options(Ipv4, const bgp::PeerOptions &) override { return {}; }
  void remove_peer_options(Ipv4) override {}
  void connect(bgp::ConnectionId id, Ipv4, const bgp::PeerOptions &) override { calls_.insert(id); }
  bgp::Received receive(bgp::ConnectionId id, std::span<uint8_t> into) override {
    Connection &connection = connections_.at(id);
    if (connection.in.empty())
      return {connection.closed ? bgp::Received::Status::closed : bgp::Received::Status::would_block, 0};
    const size_t count = std::min(into.size(), connection.in.size());
    std::copy_n(connection.in.begin(), count, into.begin());
    connection.in.erase(connection.in.begin(), connection.in.begin() + static_cast<ptrdiff_t>(count));
    return {bgp::Received::Status::data, count};
  }
  size_t send(bgp::ConnectionId id, std::span<const uint8_t> octets) override {
    Connection &connection = connections_.at(id);
    connection.wants_room = connection.full;
    return connection.full ? octets.size() / 2 : octets.size();
  }
  void close(bgp::ConnectionId id) override { require(connections_.erase(id) + calls_.erase(id) == 1); }
  bgp::Time now() override { return now_; }
  void wake_at(bgp::Time when) override { alarm_ = when; }
  void best_changed(std::span<const bgp::BestChange> changed) override {
    for (const bgp::BestChange &change : changed)
      if (change.present)
        best_[change.nlri.key] = change.local;
      else
        require(best_.erase(change.nlri.key) == 1);
  }

 private:
  struct Connection {
    bgp::Octets in;
    bool closed = false, full = false, wants_room = false;
  };

  void configure(size_t i, uint8_t variant) {
    bgp::NeighborConfig config;
    config.address = kNeighbors[i];
    config.remote_as = kAs[i];
    config.passive = i == 2;
    config.reflector_client = i == 0;
    config.shutdown = (variant & 1) != 0;
    config.hold_time = (variant & 2) != 0 ? 0 : 90;
    config.ipv4_unicast = (variant & 4) != 0;
    if ((variant & 8) != 0) config.maximum_prefix = {3, 50, (variant & 16) != 0, (variant & 32) != 0 ? 5U : 0U};
    require(speaker_.set_neighbor(config).empty());
  }

  // The connection that an octet chooses; nullptr: there is none.
  Connection *choose(uint8_t octet, bgp::ConnectionId *id = nullptr) {
    if (connections_.empty()) return nullptr;
    auto at = connections_.begin();
    std::advance(at, octet % connections_.size());
    if (id != nullptr) *id = at->first;
    return &at->second;
  }

  void give(uint8_t which, const bgp::Octets &octets) {
    bgp::ConnectionId id;
    Connection *connection = choose(which, &id);
    if (connection == nullptr) return;
    connection->in.insert(connection->in.end(), octets.begin(), octets.end());
    speaker_.readable(id);
  }

  static bgp::Octets open_of(uint8_t which, uint8_t flags) {
    bgp::Open open{kAs[which % 3], static_cast<uint16_t>((flags & 1) != 0 ? 9 : 90), kNeighbors[which % 3], {}};
    open.capabilities.families = {bgp::kMdt};
    if ((flags & 2) == 0) open.capabilities.four_octet_as = open.as;
    open.capabilities.route_refresh = open.capabilities.enhanced_refresh = (flags & 4) == 0;
    open.capabilities.extended_messages = (flags & 8) == 0;
    if ((flags & 16) == 0)
      open.capabilities.restart = bgp::GracefulRestart{(flags & 32) != 0, false, 20, {{bgp::kMdt, (flags & 64) == 0}}};
    bgp::Octets octets;
    bgp::encode_open(open, octets);
    if ((flags & 128) != 0) bgp::encode_keepalive(octets);
    return octets;
  }

  static bgp::Nlri route_of(uint8_t octet) {
    return {{{0, 0, 0, 1, 0, 0, 0, static_cast<uint8_t>(octet & 15)}, 0x0A000100U + (octet >> 6)},
            0xEF000001U + (octet >> 4 & 3)};
  }

  static bgp::Octets update_of(Input &input) {
    const uint8_t flags = input.octet();
    bgp::Octets octets, encoded;
    bgp::Attributes attributes;
    attributes.next_hop = 0x0A000200U + (flags & 3);
    if ((flags & 4) != 0) attributes.as_path = {{bgp::SegmentType::as_sequence, {65004, 7}}};
    if ((flags & 8) != 0) attributes.local_pref = 200;
    if ((flags & 16) != 0) attributes.med = flags;
    bgp::encode_attributes(attributes, {}, encoded);
    const bool withdraws = (flags & 128) != 0;
    bgp::UpdateBuilder builder =
        withdraws ? bgp::UpdateBuilder(octets, 4096) : bgp::UpdateBuilder(octets, 4096, encoded, attributes.next_hop);
    for (int count = flags >> 5 & 3; count >= 0; count--) builder.add(route_of(input.octet()));
    builder.finish();
    return octets;
  }

  static bgp::Octets raw_message(Input &input) {
    const uint8_t type = input.octet();
    const bgp::Octets body = input.octets(input.octet());
    bgp::Octets octets(16, 0xFF);
    const size_t length = bgp::kHeaderSize + body.size();
    octets.insert(octets.end(), {static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length), type});
    octets.insert(octets.end(), body.begin(), body.end());
    return octets;
  }

  void answer_call(bool well) {
    if (calls_.empty()) return;
    const bgp::ConnectionId id = *calls_.begin();
    if (!well) return speaker_.connection_failed(id, "refused");
    calls_.erase(id);
    connections_[id];
    speaker_.connected(id, kUs);
  }

  void unblock(uint8_t which) {
    bgp::ConnectionId id;
    Connection *connection = choose(which, &id);
    if (connection == nullptr) return;
    connection->full = !connection->full;
    if (!connection->full && connection->wants_room) speaker_.writable(id);
  }

  void hang_up(uint8_t which) {
    bgp::ConnectionId id;
    if (Connection *connection = choose(which, &id)) {
      connection->closed = true;
      speaker_.readable(id);
    }
  }

  void operate(uint8_t which, uint8_t what) {
    const Ipv4 neighbor = kNeighbors[which % 3];
    switch (what % 6) {
      case 0:
        speaker_.clear(neighbor, bgp::ClearKind::hard, "fuzz");
        break;
      case 1:
        speaker_.clear(neighbor, bgp::ClearKind::soft_in);
        break;
      case 2:
        speaker_.clear(neighbor, bgp::ClearKind::soft_out);
        break;
      case 3:
        speaker_.remove_neighbor(neighbor);
        break;
      case 4:
        speaker_.next_hops_changed();
        break;
      default:
        configure(which % 3, static_cast<uint8_t>(what / 6));
    }
  }

  void local(uint8_t octet) {
    const bgp::Nlri nlri = route_of(octet);
    if ((octet & 32) != 0) {
      speaker_.originate(nlri, kUs);
      own_.insert(nlri.key);
    } else {
      require(speaker_.withdraw(nlri.key) == (own_.erase(nlri.key) == 1));
    }
  }

  void message(uint8_t which, Input &input) {
    bgp::Octets octets;
    switch (input.octet() % 6) {
      case 0:
        bgp::encode_keepalive(octets);
        break;
      case 1:
        octets = update_of(input);
        break;
      case 2:
        octets = raw_message(input);
        break;
      case 3:
        bgp::encode_end_of_rib(bgp::kMdt, octets);
        break;
      case 4:
        bgp::encode_route_refresh({bgp::kMdt, static_cast<bgp::RefreshKind>(input.octet() % 4), true}, octets);
        break;
      default:
        octets = open_of(which, input.octet());
    }
    give(which, octets);
  }

  void step(Input &input) {
    const uint8_t what = input.octet(), which = input.octet();
    switch (what % 10) {
      case 0:
        return advance(std::chrono::milliseconds(500) * which);
      case 1:
        if (const auto id = speaker_.accepted(kNeighbors[which % 3], kUs)) connections_[*id];
        return;
      case 2:
        return answer_call((which & 1) == 0);
      case 3:
        return give(which, open_of(which, input.octet()));
      case 4:
        return give(which, input.octets(which));
      case 5:
        return hang_up(which);
      case 6:
        return unblock(which);
      case 7:
        return operate(which, input.octet());
      case 8:
        return local(which);
      default:
        return message(which, input);
    }
  }

  void rest() {
    for (size_t turns = 0; alarm_ <= now_; turns++) {
      require(turns < kTurnsAtRest);
      alarm_ = bgp::Time::max();
      speaker_.run();
    }
  }

  void advance(bgp::Duration by) {
    const bgp::Time end = now_ + by;
    for (rest(); alarm_ <= end; rest()) now_ = alarm_;
    now_ = end;
  }

  void look() {
    for (const Ipv4 neighbor : speaker_.neighbors()) {
      const auto view = speaker_.neighbor(neighbor);
      require(view->accepted == speaker_.keys_received(neighbor).size() && view->stale <= view->accepted);
      require(view->advertised == speaker_.keys_advertised(neighbor).size());
    }
    for (const bgp::RouteKey &key : speaker_.keys()) {
      const auto route = speaker_.route(key);
      require(route.has_value() && best_.contains(key) == route->paths[0].best);
    }
  }

  void end() {
    rest();
    look();
    for (const Ipv4 neighbor : kNeighbors) speaker_.remove_neighbor(neighbor);
    advance(std::chrono::minutes(10));
    require(connections_.empty() && calls_.empty() && speaker_.sizes().routes == own_.size());
    require(best_.size() == own_.size());
  }

  bgp::Time now_{std::chrono::hours(1)};
  bgp::Time alarm_ = bgp::Time::max();
  std::map<bgp::ConnectionId, Connection> connections_;
  std::set<bgp::ConnectionId> calls_;
  std::map<bgp::RouteKey, bool> best_;
  std::set<bgp::RouteKey> own_;
  bgp::Speaker speaker_;  // the last, since it closes its connections when it goes
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  Input input(data, size);
  World(input.octet() % 4 == 0).play(input);
  return 0;
}

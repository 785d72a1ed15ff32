// BGP's key is distinguisher and source. Two VRFs may share both, and then one route stands for them; when one of them
// withdraws, the other's entry takes its place.
//
// The module keeps the first group that it hears for a key: a change of the group is told as a withdrawal and an entry.
//
// Of a million entries none stands here: the speaker knows what it has told.
#include "host/daemon/mdt_exchange.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace host {
namespace {

bgp::RouteKey key_of(const ref::MdtSafi &entry) {
  bgp::RouteKey key;
  std::copy(std::begin(entry.rd), std::end(entry.rd), key.rd.begin());
  key.source = entry.source;
  return key;
}

ref::MdtSafi entry_of(const bgp::RouteKey &key, bgp::Ipv4 group) {
  ref::MdtSafi entry;
  std::copy(key.rd.begin(), key.rd.end(), std::begin(entry.rd));
  entry.source = key.source;
  entry.group = group;
  return entry;
}

// Changes in the order in which they came, handed on in as few calls as that allows.
class RemoteChanges {
 public:
  explicit RemoteChanges(size_t most) { entries_.reserve(most); }
  ~RemoteChanges() { flush(); }
  void add(ref::MdtSafi entry, bool advertised) {
    if (advertised != advertised_) flush();
    advertised_ = advertised;
    entries_.push_back(std::move(entry));
  }

 private:
  void flush() {
    if (entries_.empty()) return;
    ref::bgp_remote_table_changed(entries_, advertised_);
    entries_.clear();
  }

  bool advertised_ = true;
  std::vector<ref::MdtSafi> entries_;
};

// After this the module has had its time to advertise what it had before a restart.
constexpr std::chrono::seconds kPatience{30};

// A message to the module has a hundred entries: whole messages, or less than one.
constexpr size_t kMessage = 100, kLeastBatch = 10, kMostBatch = 10 * kMessage;
constexpr std::chrono::duration<double> kTurn(0.0005);  // that a turn may take, roughly

}  // namespace

MdtExchange::MdtExchange(Loop &loop, bool restarting, EventBus &events, LogLine log)
    : loop_(loop),
      batch_(kMessage),
      patience_(loop.io()),
      bgp_(loop.io(), callbacks(events, std::move(log)), restarting) {
  ref::set_bgp_local_sink([this](const ref::MdtSafi &entry, bool add) { local_changed(entry, add); });
  ref::set_bgp_remote_table(this);
  if (!restarting) return;
  patience_.expires_after(kPatience);
  patience_.async_wait([this](const boost::system::error_code &error) {
    if (error) return;
    Loop::Turn turn(loop_);
    complete();
  });
}

MdtExchange::~MdtExchange() {
  ref::set_bgp_remote_table(nullptr);
  ref::set_bgp_local_sink(nullptr);
}

BgpService::Callbacks MdtExchange::callbacks(EventBus &events, LogLine log) {
  BgpService::Callbacks callbacks;
  callbacks.enter = [this](const std::function<void()> &work) {
    Loop::Turn turn(loop_);
    work();
  };
  callbacks.best_changed = [this](std::span<const bgp::BestChange> changes) { best_changed(changes); };
  callbacks.best_batch = [this] { return best_batch(); };
  callbacks.end_of_rib = [](bgp::Ipv4) { ref::bgp_end_of_rib(); };
  callbacks.began = [this] {
    for (const auto &[key, vrfs] : local_) originate(key);
  };
  callbacks.ends = [this] { forget_remote(); };
  callbacks.changed = [&events](Change change) { events.publish(std::move(change)); };
  callbacks.log = std::move(log);
  return callbacks;
}

void MdtExchange::follow(const Config &config) {
  if (bgp_.awaits_local()) await(config);
  bgp_.follow(bgp_settings(config));
  if (bgp_.awaits_local() && awaited_.empty()) complete();
}

// ----------------------------------------------------------------------------------------------- the module's routes

std::string MdtExchange::vrf_of(const bgp::RouteKey &key) const {
  const auto found = local_.find(key);
  return found == local_.end() ? "" : found->second.begin()->first;
}

// The route of a key, for the first of the VRFs that share it.
void MdtExchange::originate(const bgp::RouteKey &key) {
  bgp_.speaker()->originate({key, local_.at(key).begin()->second}, key.source);
}

void MdtExchange::local_changed(const ref::MdtSafi &entry, bool add) {
  const bgp::RouteKey key = key_of(entry);
  std::map<std::string, bgp::Ipv4> &vrfs = local_[key];
  add ? void(vrfs[entry.vrf_name] = entry.group) : void(vrfs.erase(entry.vrf_name));
  const bool gone = vrfs.empty();
  if (gone) local_.erase(key);
  if (bgp_.speaker() != nullptr) gone ? void(bgp_.speaker()->withdraw(key)) : originate(key);
  if (add && awaited_.erase(entry.vrf_name) > 0 && awaited_.empty()) complete();
}

// VRFs that can be expected to come up.
void MdtExchange::await(const Config &config) {
  awaited_.clear();
  if (!config.feature_mvpn()) return;
  for (const auto &[id, block] : config.blocks())
    if (id.mode == Mode::vrf && block->find(Command::rd) != nullptr &&
        block->find(Command::mdt, "mdt_default_cmd") != nullptr)
      awaited_.insert(id.name);
  for (const auto &[key, vrfs] : local_)
    for (const auto &[vrf, group] : vrfs) awaited_.erase(vrf);
}

void MdtExchange::complete() {
  patience_.cancel();
  awaited_.clear();
  bgp_.complete();
}

// ----------------------------------------------------------------------------------------------- the others' routes

void MdtExchange::best_changed(std::span<const bgp::BestChange> changes) {
  handed_ = changes.size();
  handed_turn_ = loop_.turns() + 1;  // the present one is counted when it ends
  RemoteChanges remote(changes.size());
  for (const bgp::BestChange &change : changes) {
    const bool wanted = change.present && !change.local, known = change.former != 0;
    const bgp::Nlri &nlri = change.nlri;
    if (known && wanted && change.former == nlri.group) continue;
    if (known) remote.add(entry_of(nlri.key, change.former), false);
    if (wanted) remote.add(entry_of(nlri.key, nlri.group), true);
  }
}

// What a turn with so many took says how many fit into one: a route costs the module ten times as much with a thousand
// VRFs as with none, and the memory that it takes may be new.
size_t MdtExchange::best_batch() {
  if (handed_ != batch_ || handed_turn_ != loop_.turns()) return batch_;
  constexpr double kGrowth = 2;
  const double fits = static_cast<double>(batch_) * std::min(kTurn / loop_.last_turn(), kGrowth);
  batch_ = std::clamp(static_cast<size_t>(fits), kLeastBatch, kMostBatch);
  if (batch_ > kMessage) batch_ -= batch_ % kMessage;
  return batch_;
}

void MdtExchange::forget_remote() {
  std::vector<bgp::Nlri> routes = bgp_.speaker()->told_routes();
  std::sort(routes.begin(), routes.end(), [](const bgp::Nlri &a, const bgp::Nlri &b) { return a.key < b.key; });
  RemoteChanges remote(routes.size());
  for (const bgp::Nlri &route : routes) remote.add(entry_of(route.key, route.group), false);
}

size_t MdtExchange::size() const { return bgp_.speaker() == nullptr ? 0 : bgp_.speaker()->told(); }

bool MdtExchange::holds(const ref::MdtSafi &entry) const {
  return bgp_.speaker() != nullptr && entry.group != 0 && bgp_.speaker()->told_group(key_of(entry)) == entry.group;
}

void MdtExchange::visit(const std::function<void(const ref::MdtSafi &)> &visitor) const {
  if (bgp_.speaker() == nullptr) return;
  for (const bgp::Nlri &route : bgp_.speaker()->told_routes()) visitor(entry_of(route.key, route.group));
}

}  // namespace host

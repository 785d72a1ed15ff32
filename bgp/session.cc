// The connection's framing, output and timers. Input is read a share at a time into a buffer that all sessions have in
// common; what a share cuts a message in two of is kept (leftover_). Output is appended to one buffer and leaves as the
// socket takes it.
//
// Everything that ends a session goes through finish(), which tells the peer; abandon() alone ends it without. Trap:
// handling a message may end the session, so callers look at the stage behind it. The object stays until the end of the
// turn.
#include "bgp/session.h"

#include <algorithm>

#include "bgp/peer.h"

namespace bgp {
namespace {

using std::chrono::seconds;

constexpr uint16_t kLargeHoldTime = 240;  // seconds to wait for an OPEN (RFC 4271, 8.2.2)
constexpr uint16_t kSendHoldTime = 90;    // where no hold time is agreed
constexpr size_t kOutputKept = 4096;      // octets of an empty buffer: there may be thousands of sessions

}  // namespace

Session::Session(Core &core, Peer &peer, bool outgoing)
    : core_(core),
      peer_(peer),
      id_(++core.last_connection),
      outgoing_(outgoing),
      hold_(core.timers, [this] { hold_expired(); }),
      keepalive_(core.timers,
                 [this] {
                   encode_keepalive(out_);
                   count_sent(MessageType::keepalive, 1);
                   flush();
                 }),
      send_hold_(core.timers, [this] { send_hold_expired(); }) {
  core_.sessions[id_] = this;
}

Session::~Session() { close_transport(); }

void Session::close_transport() {
  if (core_.sessions.erase(id_) == 0) return;
  std::erase(core_.readable, this);
  core_.transport.close(id_);
}

void Session::connected(Ipv4 local) {
  if (stage_ != Stage::connecting) return;
  local_ = local;
  stage_ = Stage::open_sent;
  sent_open_ = make_open();
  encode_open(sent_open_, out_);
  count_sent(MessageType::open, 1);
  hold_.start(seconds(kLargeHoldTime));
  flush();
  peer_.connection_up();
}

void Session::lost(std::string_view words) {
  if (stage_ != Stage::closed) finish({SessionEnd::By::transport, std::string(words)});
}

// -------------------------------------------------------------------------------------------------------------- input

void Session::note_readable() {
  if (queued_ || stage_ == Stage::closed) return;
  queued_ = true;
  core_.readable.push_back(this);
}

size_t Session::read(size_t budget) {
  queued_ = false;
  if (stage_ == Stage::closed || stage_ == Stage::connecting) return 0;
  Octets &buffer = core_.input;
  if (buffer.size() < leftover_.size() + budget) buffer.resize(leftover_.size() + budget);
  std::copy(leftover_.begin(), leftover_.end(), buffer.begin());
  const Received received = core_.transport.receive(id_, {buffer.data() + leftover_.size(), budget});
  if (received.status == Received::Status::closed) lost("the neighbor closed the connection");
  if (received.status != Received::Status::data) return 0;
  peer_.in().octets += received.bytes;
  const View octets(buffer.data(), leftover_.size() + std::min(received.bytes, budget));
  const size_t used = work_through(octets);
  if (stage_ == Stage::closed) return 0;
  leftover_.assign(octets.begin() + static_cast<ptrdiff_t>(used), octets.end());
  return received.bytes;
}

size_t Session::work_through(View octets) {
  size_t used = 0;
  while (octets.size() - used >= kHeaderSize) {
    const View rest = octets.subspan(used);
    const auto header = decode_header(rest, largest_);
    if (header.error) {
      end(*header.error);
      return used;
    }
    if (header.value.length > rest.size()) break;
    used += header.value.length;
    if (!take_message(rest.first(header.value.length), header.value.type)) return used;
  }
  return used;
}

bool Session::take_message(View message, MessageType type) {
  peer_.count(peer_.in(), type, 1);
  if (const Stop stop = receive(message, type)) end(*stop);
  return stage_ != Stage::closed;
}

// ------------------------------------------------------------------------------------------------------------- output

void Session::count_sent(MessageType type, size_t messages) {
  peer_.count(peer_.out(), type, messages);
  if (messages > 0 && (type == MessageType::update || type == MessageType::keepalive)) restart_keepalive();
}

void Session::restart_keepalive() {
  if (stage_ < Stage::open_confirm || hold_time_ == 0) return;
  keepalive_.start(core_.jitter(seconds(std::max(1, hold_time_ / 3))));
}

void Session::flush() {
  if (stage_ == Stage::connecting || blocked_) return;
  const size_t before = out_start_;
  while (pending() > 0) {
    const size_t taken = core_.transport.send(id_, View(out_).subspan(out_start_));
    if (taken == 0) break;
    out_start_ += std::min(taken, pending());
  }
  peer_.out().octets += out_start_ - before;
  blocked_ = pending() > 0;
  // A neighbour that takes nothing for a hold time is not waited for longer (RFC 9687).
  if (blocked_ && (out_start_ > before || !send_hold_.running()))
    send_hold_.start(seconds(hold_time_ != 0 ? hold_time_ : kSendHoldTime));
  if (blocked_) return;
  send_hold_.stop();
  out_.clear();
  out_start_ = 0;
  if (out_.capacity() > kOutputKept) Octets().swap(out_);
}

void Session::writable() {
  blocked_ = false;
  out_.erase(out_.begin(), out_.begin() + static_cast<ptrdiff_t>(out_start_));
  out_start_ = 0;
  flush();
}

// ---------------------------------------------------------------------------------------------------------------- end

void Session::hold_expired() { end(error(ErrorCode::hold_timer_expired, 0)); }
void Session::send_hold_expired() { end(error(ErrorCode::send_hold_timer_expired, 0)); }

void Session::end(const Notification &notification) {
  if (stage_ == Stage::closed) return;
  if (stage_ != Stage::connecting) {
    encode_notification(notification, largest_, out_);
    count_sent(MessageType::notification, 1);
    flush();
    peer_.note_sent(notification);
  }
  finish({SessionEnd::By::sent, describe(notification)});
}

void Session::end_quietly(std::string words) {
  if (stage_ != Stage::closed) finish({SessionEnd::By::quietly, std::move(words)});
}

void Session::abandon() {
  stage_ = Stage::closed;
  hold_.stop();
  keepalive_.stop();
  send_hold_.stop();
  close_transport();
}

void Session::finish(SessionEnd end) {
  const Stage reached = stage_;
  abandon();
  peer_.session_ended(*this, reached, std::move(end));
}

}  // namespace bgp

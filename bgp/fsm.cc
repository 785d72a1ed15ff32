// What a session does with each message in each state (RFC 4271, 8.2.2), from the moment its connection stands:
// OpenSent, OpenConfirm, Established. The states before, Idle, Connect and Active, are the peer's (peer.cc).
#include <algorithm>

#include "bgp/peer.h"
#include "bgp/session.h"

namespace bgp {

Open Session::make_open() const {
  const SpeakerConfig &config = core_.config;
  Open open{config.local_as, peer_.config().hold_time, config.router_id, {}};
  Capabilities &offered = open.capabilities;
  offered.families = {kMdt};
  if (peer_.config().ipv4_unicast) offered.families.push_back(kIpv4Unicast);
  offered.route_refresh = offered.enhanced_refresh = offered.extended_messages = true;
  offered.four_octet_as = config.local_as;
  if (!config.graceful_restart) return open;
  const bool restarting = config.restarting && core_.table.deferred();
  // Forwarding outlives a session as long as the process has not started with nothing.
  const bool preserved = restarting || peer_.established_count() > 0;
  offered.restart = GracefulRestart{restarting, false, config.restart_time, {{kMdt, preserved}}};
  return open;
}

Notification Session::unexpected() const {
  switch (stage_) {
    case Stage::open_sent:
      return error(ErrorCode::fsm, FsmError::in_open_sent);
    case Stage::open_confirm:
      return error(ErrorCode::fsm, FsmError::in_open_confirm);
    case Stage::established:
      return error(ErrorCode::fsm, FsmError::in_established);
    default:
      return error(ErrorCode::fsm, FsmError::unspecific);
  }
}

Session::Stop Session::receive(View message, MessageType type) {
  const View body = message.subspan(kHeaderSize);
  if (type == MessageType::notification) {
    const auto notification = decode_notification(body);
    peer_.note_received(notification.value);
    finish({SessionEnd::By::received, describe(notification.value)});
    return std::nullopt;
  }
  if (stage_ == Stage::open_sent && type == MessageType::open) return receive_open(body);
  if (stage_ == Stage::open_confirm && type == MessageType::keepalive) return receive_keepalive();
  if (stage_ == Stage::established && type != MessageType::open) return receive_in_established(message, type);
  return unexpected();
}

Session::Stop Session::receive_open(View body) {
  const SpeakerConfig &config = core_.config;
  auto open = decode_open(body, {peer_.config().remote_as, config.local_as, config.router_id});
  if (open.error) return open.error;
  open_ = std::move(open.value);
  if (!peer_.opened(*this)) return std::nullopt;  // the other connection lives
  negotiate();
  stage_ = Stage::open_confirm;
  encode_keepalive(out_);
  count_sent(MessageType::keepalive, 1);
  flush();
  if (stage_ == Stage::open_confirm) peer_.state_changed({});
  return std::nullopt;
}

void Session::negotiate() {
  hold_time_ = std::min(open_.hold_time, peer_.config().hold_time);
  if (hold_time_ != 0)
    hold_.start(std::chrono::seconds(hold_time_));
  else
    hold_.stop();
  largest_ = open_.capabilities.extended_messages ? kExtendedMessageMax : kMessageMax;
}

Session::Stop Session::receive_keepalive() {
  stage_ = Stage::established;
  if (hold_time_ != 0) hold_.start(std::chrono::seconds(hold_time_));
  peer_.established(*this);
  return std::nullopt;
}

Session::Stop Session::receive_in_established(View message, MessageType type) {
  if (hold_time_ != 0) hold_.start(std::chrono::seconds(hold_time_));
  if (type == MessageType::update) return peer_.receive_update(*this, message.subspan(kHeaderSize));
  if (type == MessageType::route_refresh) return peer_.receive_refresh(message);
  return std::nullopt;
}

}  // namespace bgp

// NOTIFICATION (RFC 4271, 4.5): its octets, its words, and the shutdown communication within (RFC 9003).
#include <algorithm>
#include <iterator>

#include "bgp/header.h"
#include "bgp/wire.h"

namespace bgp {
namespace {

constexpr size_t kCommunicationMax = 255;

struct Name {
  uint8_t code, subcode;
  const char *words;
};

// The registered names, subcode 0 of a code being the code itself.
constexpr Name kNames[] = {
    {1, 0, "Message Header Error"},
    {1, 1, "Connection Not Synchronized"},
    {1, 2, "Bad Message Length"},
    {1, 3, "Bad Message Type"},
    {2, 0, "OPEN Message Error"},
    {2, 1, "Unsupported Version Number"},
    {2, 2, "Bad Peer AS"},
    {2, 3, "Bad BGP Identifier"},
    {2, 4, "Unsupported Optional Parameter"},
    {2, 6, "Unacceptable Hold Time"},
    {2, 7, "Unsupported Capability"},
    {2, 11, "Role Mismatch"},
    {3, 0, "UPDATE Message Error"},
    {3, 1, "Malformed Attribute List"},
    {3, 2, "Unrecognized Well-known Attribute"},
    {3, 3, "Missing Well-known Attribute"},
    {3, 4, "Attribute Flags Error"},
    {3, 5, "Attribute Length Error"},
    {3, 6, "Invalid ORIGIN Attribute"},
    {3, 8, "Invalid NEXT_HOP Attribute"},
    {3, 9, "Optional Attribute Error"},
    {3, 10, "Invalid Network Field"},
    {3, 11, "Malformed AS_PATH"},
    {4, 0, "Hold Timer Expired"},
    {5, 0, "Finite State Machine Error"},
    {5, 1, "Receive Unexpected Message in OpenSent State"},
    {5, 2, "Receive Unexpected Message in OpenConfirm State"},
    {5, 3, "Receive Unexpected Message in Established State"},
    {6, 0, "Cease"},
    {6, 1, "Maximum Number of Prefixes Reached"},
    {6, 2, "Administrative Shutdown"},
    {6, 3, "Peer De-configured"},
    {6, 4, "Administrative Reset"},
    {6, 5, "Connection Rejected"},
    {6, 6, "Other Configuration Change"},
    {6, 7, "Connection Collision Resolution"},
    {6, 8, "Out of Resources"},
    {6, 9, "Hard Reset"},
    {6, 10, "BFD Down"},
    {7, 0, "ROUTE-REFRESH Message Error"},
    {7, 1, "Invalid Message Length"},
    {8, 0, "Send Hold Timer Expired"},
};

const char *find_name(uint8_t code, uint8_t subcode) {
  const auto *found = std::find_if(std::begin(kNames), std::end(kNames), [code, subcode](const Name &name) {
    return name.code == code && name.subcode == subcode;
  });
  return found == std::end(kNames) ? nullptr : found->words;
}

bool carries_communication(const Notification &notification) {
  return notification.code == ErrorCode::cease &&
         (notification.subcode == static_cast<uint8_t>(Cease::administrative_shutdown) ||
          notification.subcode == static_cast<uint8_t>(Cease::administrative_reset));
}

// What a neighbour's operator wrote, fit for a line of a log: control characters would let it write lines of its own.
std::string communication_of(const Notification &notification) {
  if (!carries_communication(notification) || notification.data.empty()) return {};
  const size_t length = notification.data[0];
  if (length == 0 || length + 1 > notification.data.size()) return {};
  std::string text(notification.data.begin() + 1, notification.data.begin() + 1 + static_cast<ptrdiff_t>(length));
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<uint8_t>(c) < 0x20 || c == 0x7F; }, ' ');
  return text;
}

size_t utf8_prefix(std::string_view text, size_t most) {
  if (text.size() <= most) return text.size();
  while (most > 0 && (static_cast<uint8_t>(text[most]) & 0xC0) == 0x80) most--;
  return most;
}

}  // namespace

std::string describe(const Notification &notification) {
  const uint8_t code = static_cast<uint8_t>(notification.code);
  const char *name = find_name(code, 0);
  std::string words = name != nullptr ? name : "Error code " + std::to_string(code);
  if (notification.subcode != 0) {
    const char *detail = find_name(code, notification.subcode);
    words += detail != nullptr ? std::string(", ") + detail : ", subcode " + std::to_string(notification.subcode);
  }
  if (const std::string communication = communication_of(notification); !communication.empty())
    words += ": " + communication;
  return words;
}

Notification cease(Cease subcode, std::string_view communication) {
  Notification notification = error(ErrorCode::cease, subcode);
  const size_t length = utf8_prefix(communication, kCommunicationMax);
  if (length == 0) return notification;
  notification.data.resize(1 + length);
  notification.data[0] = static_cast<uint8_t>(length);
  std::copy_n(communication.begin(), length, notification.data.begin() + 1);
  return notification;
}

Decoded<Notification> decode_notification(View body) {
  if (body.size() < 2) return {{}, error(ErrorCode::header, HeaderError::bad_length)};
  return {{static_cast<ErrorCode>(body[0]), body[1], Octets(body.begin() + 2, body.end())}, {}};
}

void encode_notification(const Notification &notification, size_t largest, Octets &out) {
  const size_t start = begin_message(MessageType::notification, out);
  wire::put8(out, static_cast<uint8_t>(notification.code));
  wire::put8(out, notification.subcode);
  // Data quotes what was received, and a quotation must not make the message longer than it may be.
  const size_t room = largest - kHeaderSize - 2;
  wire::put(out, View(notification.data).first(std::min(notification.data.size(), room)));
  end_message(start, out);
}

}  // namespace bgp

#include "reflector/safi_protocol.h"

#include <algorithm>

namespace safi {
namespace {

enum Type : uint8_t { kHello = 1, kUpdate = 2, kEndOfRib = 3, kKeepalive = 4 };

void put16(std::vector<uint8_t> &out, uint16_t value) {
  out.push_back(static_cast<uint8_t>(value >> 8));
  out.push_back(static_cast<uint8_t>(value));
}

void put32(std::vector<uint8_t> &out, uint32_t value) {
  put16(out, static_cast<uint16_t>(value >> 16));
  put16(out, static_cast<uint16_t>(value));
}

uint16_t get16(std::span<const uint8_t> in) { return static_cast<uint16_t>(in[0] << 8 | in[1]); }

uint32_t get32(std::span<const uint8_t> in) { return uint32_t{get16(in)} << 16 | get16(in.subspan(2)); }

struct BodyWriter {
  std::vector<uint8_t> &out;

  void operator()(const Hello &hello) const {
    out.push_back(kHello);
    put16(out, hello.version);
    const size_t length = std::min(hello.name.size(), kMaxNameLength);
    out.push_back(static_cast<uint8_t>(length));
    out.insert(out.end(), hello.name.begin(), hello.name.begin() + static_cast<std::ptrdiff_t>(length));
  }
  void operator()(const Update &update) const {
    out.push_back(kUpdate);
    put16(out, static_cast<uint16_t>(update.changes.size()));
    for (const Change &change : update.changes) {
      put32(out, change.entry.source);
      out.insert(out.end(), change.entry.rd.begin(), change.entry.rd.end());
      put32(out, change.entry.group);
      out.push_back(change.add ? 1 : 0);
    }
  }
  void operator()(const EndOfRib &) const { out.push_back(kEndOfRib); }
  void operator()(const Keepalive &) const { out.push_back(kKeepalive); }
};

std::optional<Message> decode_hello(std::span<const uint8_t> body, std::string *error) {
  if (body.size() < 3 || body.size() != size_t{3} + body[2] || body[2] > kMaxNameLength) {
    *error = "hello of a wrong length";
    return std::nullopt;
  }
  Hello hello;
  hello.version = get16(body);
  if (hello.version != kVersion) {
    *error = "version " + std::to_string(hello.version) + " is not spoken here";
    return std::nullopt;
  }
  hello.name.assign(body.begin() + 3, body.end());
  return hello;
}

std::optional<Message> decode_update(std::span<const uint8_t> body, std::string *error) {
  if (body.size() < 2 || get16(body) > kMaxEntries || body.size() != 2 + get16(body) * kEntrySize) {
    *error = "update whose length and count disagree";
    return std::nullopt;
  }
  Update update;
  for (body = body.subspan(2); !body.empty(); body = body.subspan(kEntrySize)) {
    Change change;
    change.entry.source = get32(body);
    std::copy_n(body.begin() + 4, change.entry.rd.size(), change.entry.rd.begin());
    change.entry.group = get32(body.subspan(12));
    if (body[16] > 1) {
      *error = "update with an entry that is neither advertised nor withdrawn";
      return std::nullopt;
    }
    change.add = body[16] == 1;
    update.changes.push_back(change);
  }
  return update;
}

}  // namespace

std::vector<uint8_t> encode(const Message &message) {
  std::vector<uint8_t> body;
  std::visit(BodyWriter{body}, message);
  std::vector<uint8_t> frame;
  frame.reserve(kLengthSize + body.size());
  put32(frame, static_cast<uint32_t>(body.size()));
  frame.insert(frame.end(), body.begin(), body.end());
  return frame;
}

std::optional<Message> decode(std::span<const uint8_t> frame, std::string *error) {
  if (frame.empty()) {
    *error = "empty frame";
    return std::nullopt;
  }
  const std::span<const uint8_t> body = frame.subspan(1);
  switch (frame[0]) {
    case kHello:
      return decode_hello(body, error);
    case kUpdate:
      return decode_update(body, error);
    case kEndOfRib:
    case kKeepalive:
      if (!body.empty()) {
        *error = "mark with a body";
        return std::nullopt;
      }
      if (frame[0] == kEndOfRib) return EndOfRib{};
      return Keepalive{};
    default:
      *error = "unknown type " + std::to_string(frame[0]);
      return std::nullopt;
  }
}

}  // namespace safi

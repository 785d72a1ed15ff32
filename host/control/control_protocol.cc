// Frames, written and read byte by byte. Lengths are compared with a limit before a body is read; types that nobody
// knows are for the reader to refuse.
#include "host/control/control_protocol.h"

#include <algorithm>

namespace host {
namespace {

void append_be32(std::string *out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out->push_back(static_cast<char>(value >> shift & 0xFF));
}

uint32_t read_be32(const uint8_t *bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

void append_frame(std::string *out, FrameType type, std::string_view body) {
  append_be32(out, static_cast<uint32_t>(body.size() + 1));
  out->push_back(static_cast<char>(type));
  out->append(body);
}

}  // namespace

std::string encode_frames(FrameType type, std::string_view body) {
  std::string frames;
  do {
    append_frame(&frames, type, body.substr(0, kMaxOutputFrame));
    body.remove_prefix(std::min(body.size(), kMaxOutputFrame));
  } while (!body.empty());
  return frames;
}

std::string encode_request(OutputFormat format, std::string_view line) {
  return encode_frames(FrameType::request, static_cast<char>(format) + std::string(line));
}

std::string encode_end(uint32_t status) {
  std::string body;
  append_be32(&body, status);
  return encode_frames(FrameType::end, body);
}

bool decode_header(const uint8_t *bytes, size_t limit, FrameHeader *header) {
  const uint32_t length = read_be32(bytes);
  if (length == 0 || length - 1 > limit) return false;
  header->body_size = length - 1;
  header->type = static_cast<FrameType>(bytes[4]);
  return true;
}

uint32_t decode_status(std::string_view body) {
  return body.size() == 4 ? read_be32(reinterpret_cast<const uint8_t *>(body.data())) : uint32_t{kStatusFailed};
}

}  // namespace host

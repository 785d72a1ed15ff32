// What travels between pimhostd and its clients over a Unix stream socket.
//
// Frames: length (4 bytes, network byte order; counts type and body), type (1 byte), body.
//
//   request   1   format (1 byte, OutputFormat), command line; one at a time
//   output    2   part of the command's output
//   error     3   part of the reason why the command failed
//   end       4   exit status (4 bytes, network byte order); last frame of an answer
//
// A client that closes the connection ends its command. One that closes its sending side only has the command stop:
// what completes the output still comes, then the connection ends. A command that would never end is not waited for.
#ifndef HOST_CONTROL_CONTROL_PROTOCOL_H
#define HOST_CONTROL_CONTROL_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "host/output/format.h"

namespace host {

enum class FrameType : uint8_t { request = 1, output = 2, error = 3, end = 4 };
using OutputFormat = output::Format;

constexpr size_t kFrameHeaderSize = 5;         // length and type
constexpr size_t kMaxRequest = 16 * 1024;      // body of a request
constexpr size_t kMaxOutputFrame = 32 * 1024;  // body of any frame of an answer
constexpr const char *kDefaultControlPath = "/run/pimhostd.sock";
constexpr const char *kUnitControlPath = "/run/mvpn/pimhostd.sock";  // of the packaged unit, whose user has that folder

// Exit statuses of commands.
enum : uint32_t { kStatusDone = 0, kStatusFailed = 1, kStatusSyntax = 2 };

// A frame of a body that fits into one; the parts of a longer one, one frame after the other.
std::string encode_frames(FrameType type, std::string_view body);
std::string encode_request(OutputFormat format, std::string_view line);
std::string encode_end(uint32_t status);

struct FrameHeader {
  size_t body_size = 0;                 // bytes behind the header
  FrameType type = FrameType::request;  // as received; may be none of the four
};
// Reads a header; false when it is malformed or its body is longer than limit.
bool decode_header(const uint8_t *bytes, size_t limit, FrameHeader *header);
uint32_t decode_status(std::string_view body);  // of an end frame; failed when it is malformed

}  // namespace host

#endif  // HOST_CONTROL_CONTROL_PROTOCOL_H

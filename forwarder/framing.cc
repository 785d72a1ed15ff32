// Buffers for both directions. What has been read or written is not moved to the front at once but when it is worth it,
// so that many small messages cost no more than their bytes. Nothing here blocks; both ends of the protocol use it.
#include "forwarder/framing.h"

#include <google/protobuf/message_lite.h>
#include <sys/socket.h>

#include <cerrno>

namespace forwarder {
namespace {

constexpr size_t kLength = 4;          // bytes, most significant first
constexpr size_t kReadAtOnce = 65536;  // bytes of a system call
constexpr int kReadsACall = 16;        // so that a peer that never stops does not keep everything else waiting

uint32_t load_length(const char *from) {
  uint32_t value = 0;
  for (size_t i = 0; i < kLength; i++) value = value << 8 | static_cast<uint8_t>(from[i]);
  return value;
}

}  // namespace

bool Framing::receive(int descriptor) {
  incoming_.erase(0, taken_);
  taken_ = 0;
  for (int reads = 0; reads < kReadsACall; reads++) {
    const size_t before = incoming_.size();
    incoming_.resize(before + kReadAtOnce);
    const ssize_t size = ::recv(descriptor, incoming_.data() + before, kReadAtOnce, MSG_DONTWAIT);
    incoming_.resize(before + (size > 0 ? static_cast<size_t>(size) : 0));
    if (size > 0) continue;
    return size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
  }
  return true;
}

bool Framing::next(std::string_view *message) {
  const size_t there = incoming_.size() - taken_;
  if (there < kLength || broken_) return false;
  const uint32_t length = load_length(incoming_.data() + taken_);
  broken_ = length > kMessageMax;
  if (broken_ || there - kLength < length) return false;
  *message = std::string_view(incoming_).substr(taken_ + kLength, length);
  taken_ += kLength + length;
  return true;
}

bool Framing::send(const google::protobuf::MessageLite &message) {
  const size_t length = message.ByteSizeLong();
  if (length > kMessageMax || outgoing_.size() - sent_ + length > unsent_max_) return false;
  if (sent_ > kReadAtOnce && sent_ > outgoing_.size() / 2) {
    outgoing_.erase(0, sent_);
    sent_ = 0;
  }
  for (int shift = 24; shift >= 0; shift -= 8) outgoing_.push_back(static_cast<char>(length >> shift));
  return message.AppendToString(&outgoing_);
}

bool Framing::flush(int descriptor) {
  while (unsent()) {
    const ssize_t size =
        ::send(descriptor, outgoing_.data() + sent_, outgoing_.size() - sent_, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    sent_ += static_cast<size_t>(size);
  }
  outgoing_.clear();
  sent_ = 0;
  return true;
}

}  // namespace forwarder

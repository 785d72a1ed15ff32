// Messages on a stream: each behind its length, which is bounded before anything is read or kept.
#ifndef FORWARDER_FRAMING_H
#define FORWARDER_FRAMING_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace google::protobuf {
class MessageLite;
}

namespace forwarder {

constexpr uint32_t kProtocolVersion = 1;
constexpr size_t kMessageMax = 65536;  // bytes; bounds what a peer can make the other end keep

// One end of a connection: buffers what has come and what is to go. The descriptor is non-blocking and stays the
// caller's.
class Framing {
 public:
  explicit Framing(size_t unsent_max) : unsent_max_(unsent_max) {}

  // Reads what there is. False: the connection is over, or broke the bounds.
  bool receive(int descriptor);
  // The next whole message; false when there is none yet. Valid until the next call.
  bool next(std::string_view *message);
  bool broken() const { return broken_; }

  // Queues a message; false when more than unsent_max bytes wait, or the message is larger than one may be.
  bool send(const google::protobuf::MessageLite &message);
  // Writes as much as the connection takes. False: it is over.
  bool flush(int descriptor);
  bool unsent() const { return sent_ < outgoing_.size(); }

 private:
  size_t unsent_max_;
  std::string incoming_;
  size_t taken_ = 0;
  std::string outgoing_;
  size_t sent_ = 0;
  bool broken_ = false;
};

}  // namespace forwarder

#endif  // FORWARDER_FRAMING_H

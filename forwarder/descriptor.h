// A file descriptor that is closed with its owner.
#ifndef FORWARDER_DESCRIPTOR_H
#define FORWARDER_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace forwarder {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor &&other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  int get() const { return number_; }
  explicit operator bool() const { return number_ >= 0; }

 private:
  int number_ = -1;
};

}  // namespace forwarder

#endif  // FORWARDER_DESCRIPTOR_H

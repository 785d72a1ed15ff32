// Texts that services hand to C code. Each thread has its own ring, so that no other thread's results overwrite one;
// the module may use eight in one message, and the ring has room for twice that.
#include "platform/reference/text.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace ref {

const char *keep_text(std::string_view text) {
  thread_local std::array<std::array<char, text_buffer_size>, text_ring_size> ring;
  thread_local std::size_t next = 0;
  char *buffer = ring[next].data();
  next = (next + 1) % text_ring_size;
  const std::size_t length = std::min(text.size(), text_buffer_size - 1);
  std::memcpy(buffer, text.data(), length);
  buffer[length] = '\0';
  return buffer;
}

}  // namespace ref

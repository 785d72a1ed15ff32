// Texts that services return: a ring of buffers per thread, so that several results fit into one message.
#ifndef REFERENCE_TEXT_H
#define REFERENCE_TEXT_H

#include <cstddef>
#include <string_view>

namespace ref {

constexpr std::size_t text_ring_size = 16;     // results of one thread that stay valid
constexpr std::size_t text_buffer_size = 128;  // bytes; longer texts are cut

// A NUL-terminated copy that stays valid until the thread has kept text_ring_size more.
const char *keep_text(std::string_view text);

}  // namespace ref

#endif  // REFERENCE_TEXT_H

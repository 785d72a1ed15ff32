// The header that every message opens with (RFC 4271, 4.1), written before a message's length is known.
#ifndef BGP_HEADER_H
#define BGP_HEADER_H

#include "bgp/message.h"

namespace bgp {

inline constexpr size_t kLengthOffset = 16;  // behind the marker
inline constexpr size_t kTypeOffset = 18;

// Appends a header and returns where the message starts; end_message writes the length once all of it is there.
size_t begin_message(MessageType type, Octets &out);
void end_message(size_t start, Octets &out);

}  // namespace bgp

#endif  // BGP_HEADER_H

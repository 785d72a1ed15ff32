// What the message transport carried. BGP and the tunnel manager send and receive by it.
#ifndef REFERENCE_MTS_H
#define REFERENCE_MTS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace ref {

// Delivers a message to the module from the main loop. The payload is copied.
void deliver(uint32_t opcode, const void *payload, size_t size);

// Messages that the module sent.
struct SentMessage {
  uint32_t destination;          // MTS_DESTINATION_...
  uint32_t opcode;               // MTS_OPC_...
  std::vector<uint8_t> payload;  // as the opcode's format says
};
const std::vector<SentMessage> &sent_messages();  // the latest 1000
void clear_sent_messages();
// Called for each, from the main loop. Null: nobody.
void set_message_sink(std::function<void(const SentMessage &)> sink);

}  // namespace ref

#endif  // REFERENCE_MTS_H

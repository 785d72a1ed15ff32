// Message transport: the host's two queues, what the module sent, and delivery to the module. Neither direction calls
// through: messages are copied and delivered from the main loop, in the order in which they were sent.
#include "platform/mts.h"

#include <cerrno>
#include <map>

#include "platform/pim.h"
#include "platform/reference/internal.h"
#include "platform/reference/module.h"
#include "platform/reference/mts.h"
#include "platform/reference/runtime.h"
#include "platform/reference/services.h"

struct mts_queue {
  std::map<uint32_t, uint32_t> options;
};

struct mts_message {
  uint32_t opcode;
  std::vector<uint8_t> payload;
};

namespace ref {
namespace {

mts_queue pim_queue, mrib_queue;
std::vector<SentMessage> sent;
std::function<void(const SentMessage &)> sink;

int refused() {
  errno = EINVAL;
  return -1;
}

}  // namespace

void deliver(uint32_t opcode, const void *payload, size_t size) {
  mts_message message{opcode, {}};
  const auto *bytes = static_cast<const uint8_t *>(payload);
  if (size > 0) message.payload.assign(bytes, bytes + size);
  post([message = std::move(message)]() mutable {
    if (module().process_msg != nullptr) module().process_msg(&message);
  });
}

const std::vector<SentMessage> &sent_messages() { return sent; }
void clear_sent_messages() { sent.clear(); }
void set_message_sink(std::function<void(const SentMessage &)> new_sink) { sink = std::move(new_sink); }

void mts_reset() {
  pim_queue.options.clear();
  mrib_queue.options.clear();
  sent.clear();
  sink = nullptr;
  pim_mts_q = &pim_queue;
  pim_mrib_mts_q = &mrib_queue;
}

}  // namespace ref

mts_queue *pim_mts_q = &ref::pim_queue;
mts_queue *pim_mrib_mts_q = &ref::mrib_queue;

uint32_t mts_opc_get(const mts_message *msg) { return msg->opcode; }
const void *mts_payload_get(const mts_message *msg) { return msg->payload.empty() ? nullptr : msg->payload.data(); }
size_t mts_payload_length_get(const mts_message *msg) { return msg->payload.size(); }

int mts_send(mts_queue *queue, uint32_t destination, uint32_t, uint32_t opcode, const void *payload, uint32_t size,
             uint32_t, uint32_t, uint32_t) {
  if (queue == nullptr || (payload == nullptr && size > 0)) return ref::refused();
  const auto *bytes = static_cast<const uint8_t *>(payload);
  ref::SentMessage message{destination, opcode, {bytes, bytes + size}};
  if (ref::records_are_kept()) ref::remember(ref::sent, message);
  ref::post([message = std::move(message)] {
    ref::bgp_receive(message);
    if (ref::sink) ref::sink(message);
  });
  return 0;
}

int mts_options_set(mts_queue *queue, uint32_t opcode, uint32_t options) {
  if (queue == nullptr) return ref::refused();
  queue->options[opcode] = options;
  return 0;
}

uint32_t mts_options_get(const mts_queue *queue, uint32_t opcode) {
  const auto found = queue->options.find(opcode);
  return found == queue->options.end() ? 0 : found->second;
}

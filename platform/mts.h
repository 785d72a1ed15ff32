/* Message transport: the host's queues and the messages that BGP, the tunnel manager and the module exchange. */
#ifndef PLATFORM_MTS_H
#define PLATFORM_MTS_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct mts_queue mts_queue;     /* opaque; owned by the host, lives as long as the process */
typedef struct mts_message mts_message; /* opaque; valid while the host delivers it */

/* Opcodes that the module receives or sends. */
enum mts_opcode {
  MTS_OPC_MVPN_BGP_RD_NOTIFY = 18440,              /* BGP -> module: a VRF's route distinguisher */
  MTS_OPC_MVPN_BGP_UPDATE_SOURCE_NOTIFY = 18441,   /* BGP -> module: BGP's update-source interface */
  MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_UPDATE = 43011,  /* module -> BGP: advertise and withdraw local entries */
  MTS_OPC_MVPN_BGP_MDT_SAFI_REMOTE_UPDATE = 43012, /* BGP -> module: entries of remote PEs */
  MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_REQUEST = 43017, /* BGP -> module: send all local entries */
  MTS_OPC_MVPN_BGP_RESERVED = 62467,               /* BGP -> module: consumed without action */
  MTS_OPC_OIM_IF_CREATE_RESPONSE = 135180,         /* tunnel manager -> module */
  MTS_OPC_OIM_IF_DELETE_RESPONSE = 135181,         /* tunnel manager -> module */
  MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE = 135182,   /* tunnel manager -> module */
};

#define MTS_DESTINATION_BGP 0xFE000000u /* destination value of messages to BGP */

enum { MTS_OPTION_NOTIFY = 0x10 }; /* option bit: deliver the opcode's notifications to the queue */

/* Opcode of a message. */
uint32_t mts_opc_get(const mts_message *msg);

/* Payload of a message, or null when it has none. Valid while the message is delivered; any alignment. */
const void *mts_payload_get(const mts_message *msg);

/* Number of payload bytes; 0 when there is none. A receiver refuses counts that exceed it. */
size_t mts_payload_length_get(const mts_message *msg);

/* Sends a message. destination: MTS_DESTINATION_*. payload: size bytes, copied. The four reserved arguments are 0.
 * Result: negative on failure with errno set. */
int mts_send(mts_queue *queue, uint32_t destination, uint32_t reserved1, uint32_t opcode, const void *payload,
             uint32_t size, uint32_t reserved2, uint32_t reserved3, uint32_t reserved4);

/* Sets, reads the option bits of an opcode on a queue. set: negative on failure with errno set. */
int mts_options_set(mts_queue *queue, uint32_t opcode, uint32_t options);
uint32_t mts_options_get(const mts_queue *queue, uint32_t opcode);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_MTS_H */

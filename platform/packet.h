/* Packet output. */
#ifndef PLATFORM_PACKET_H
#define PLATFORM_PACKET_H

#include "platform/mts.h"
#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct mbuf mbuf;           /* opaque packet buffer */
typedef struct ip_client ip_client; /* opaque: a client of the IP process */

/* An empty packet buffer: m_get_prio(1, 1, 5). Null when there is none. */
mbuf *m_get_prio(uint32_t wait, uint32_t type, uint32_t priority);

/* Copies length bytes into the buffer at offset, extending it; 0 on success. */
int m_copyback(mbuf *buffer, uint32_t offset, uint32_t length, const void *data);

/* Frees a buffer; null is ignored. */
void m_freem(mbuf *buffer);

/* Sends the IPv4 datagram in a buffer out of interface iod of a VRF and takes the buffer: out of an MVPN tunnel,
 * encapsulated; out of any other interface. The header's total length arrives in host byte order and its checksum
 * covers the whole datagram; the output routine writes both as RFC 791 wants them. Results tell whether it was sent
 * (0) and may be ignored. */
int mfwd_client_ip_output(vrf_context_id_t context_id, mbuf *buffer, uint32_t reserved1, im_iod_t iod,
                          uint32_t reserved2, mts_queue *queue);
int ip_cl_output(vrf_context_id_t context_id, mbuf *buffer, uint32_t reserved1, im_iod_t iod, uint32_t reserved2,
                 ip_client *client);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_PACKET_H */

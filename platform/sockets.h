/* Sockets of the host's IP stack.
 *
 * The module uses socket options that only this stack has, so the calls have names of their own. They behave as the
 * POSIX calls whose names they carry, with errno; a platform whose stack is behind the POSIX names maps them there.
 * quillon_recvfrom is a cancellation point; its callers give up the scheduling locks around it. */
#ifndef PLATFORM_SOCKETS_H
#define PLATFORM_SOCKETS_H

#include <sys/types.h>

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  QUILLON_AF_INET = 2,
  QUILLON_SOCK_DGRAM = 2,
  QUILLON_IPPROTO_UDP = 17,  /* option level */
  QUILLON_IP_HDRINCL = 3,    /* level 17: received datagrams start with their IP header; 4 bytes */
  QUILLON_IPPROTO_IP = 0,    /* option level */
  QUILLON_IP_CONTEXT = 61,   /* level 0: two zero bytes and the context number, u16 in host byte order; 0xFFFF = all */
  QUILLON_SOL_SOCKET = 1,    /* option level */
  QUILLON_SO_OPTION_32 = 32, /* level 1: 4 bytes, 1 */
};

/* Socket address. Ports and addresses in network byte order. */
struct quillon_sockaddr_in {
  uint16_t family;     /* QUILLON_AF_INET, host byte order */
  uint16_t port;       /* network byte order */
  uint32_t address;    /* network byte order; 0 = any */
  uint16_t iod;        /* byte offset 8: ordinal of the receiving interface, host byte order; 0 when sending */
  uint8_t reserved[6]; /* 0 */
};

/* Prepares the process's endpoint for sockets; non-zero on success. */
int tcp_setup(const char *process, const char *queue_path);

/* -1 and errno on failure. */
int quillon_socket(int domain, int type, int protocol);
int quillon_setsockopt(int socket, int level, int option, const void *value, uint32_t length);
int quillon_bind(int socket, const struct quillon_sockaddr_in *address, uint32_t length);
ssize_t quillon_recvfrom(int socket, void *buffer, size_t length, int flags, struct quillon_sockaddr_in *source,
                         uint32_t *source_length);
int quillon_close(int socket);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_SOCKETS_H */

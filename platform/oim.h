/* Tunnel interface manager: the owner of the overlay interfaces, MVPN tunnels (MTIs) among them. */
#ifndef PLATFORM_OIM_H
#define PLATFORM_OIM_H

#include "platform/mts.h"
#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Interface header in an interface list. Fields in network byte order, at any alignment: written by offset. */
enum {
  OIM_IF_HEADER_IF_INDEX = 0, /* 4 bytes, hton_if_index form */
  OIM_IF_HEADER_IOD = 4,      /* 4 bytes; 0 = not known */
  OIM_IF_HEADER_SIZE = 8,
};

/* Parameter in an interface list: type, length of the value, value. Network byte order, any alignment. */
enum {
  OIM_TLV_TYPE = 0,   /* 2 bytes */
  OIM_TLV_LENGTH = 2, /* 2 bytes */
  OIM_TLV_VALUE = 4,
};

enum oim_param_type {
  OIM_PARAM_ADMIN_STATE = 1, /* 1 byte: 1 up */
  OIM_PARAM_MTU = 2,         /* 4 bytes */
  OIM_PARAM_DST_ADDR = 5,    /* address record */
  OIM_PARAM_SRC_ADDR = 6,    /* address record */
  OIM_PARAM_VRF_NAME = 7,    /* characters, no NUL */
};

enum {
  OIM_ADDR_RECORD_SIZE = 20, /* family (4 bytes), IPv4 address (4 bytes), 12 zero bytes; network byte order */
  OIM_ADDR_FAMILY_IPV4 = 1,
};

/* Response: count (2 bytes), then per interface if-index, iod and result (4 bytes each; result 0 = success), all in
 * network byte order. OIM_RESPONSE_ENTRIES is the offset of the first interface's in the response, the others are
 * offsets in an interface's. */
enum {
  OIM_RESPONSE_ENTRIES = 2,
  OIM_RESPONSE_ENTRY_SIZE = 12,
  OIM_RESPONSE_IF_INDEX = 0,
  OIM_RESPONSE_IOD = 4,
  OIM_RESPONSE_RESULT = 8,
};

/* Opens, closes the client library. */
void oim_api_init(void);
void oim_api_close(void);

/* Has responses sent to a queue; non-zero on success. */
int oim_register(mts_queue *queue);
void oim_deregister(void);

/* Bytes of a list for so many interfaces with so many parameters each, the longest value counting longest_value. */
uint32_t oim_if_info_list_get_size(uint32_t interfaces, uint32_t parameters, uint32_t longest_value);

/* Appends an interface to a zero-filled list of size bytes, a parameter to its last interface. *header and *tlv
 * receive the place to fill: OIM_IF_HEADER_SIZE bytes, OIM_TLV_VALUE bytes plus the longest value; a parameter counts
 * with its length once that is written. Non-zero on success, 0 when the list is full. */
int oim_if_info_list_add_new_if(void *list, uint32_t size, uint8_t **header);
int oim_if_info_list_add_new_param_tlv(void *list, uint32_t size, uint8_t *header, uint8_t **tlv);

/* Requests; the list is copied. Answered by the create, parameter-update and delete responses. The result tells that
 * the request was queued (non-zero). */
int oim_create_if(const void *list, uint32_t size);
int oim_modify_if(const void *list, uint32_t size);
int oim_delete_if(const void *list, uint32_t size);

/* Answered by the interface manager's state notification; by nothing when the state does not change. */
int oim_send_if_bringup_request(if_index_t if_index, uint32_t reserved);
int oim_send_if_bringdown_request(if_index_t if_index, uint32_t reserved);

/* An interface of the manager's database. The walk continues after info->if_index, present or not. */
struct oim_if_info {
  if_index_t if_index; /* where a walk goes on */
  im_iod_t iod;        /* 0 = none */
};

/* Non-zero while an entry was returned. */
int oim_sdb_get_first_if_info(struct oim_if_info *info);
int oim_sdb_get_next_if_info(struct oim_if_info *info);

/* A name for messages, whether or not the interface exists. */
const char *oim_print_ifname(if_index_t if_index);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_OIM_H */

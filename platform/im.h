/* Interface manager. */
#ifndef PLATFORM_IM_H
#define PLATFORM_IM_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Ordinal of a named interface; 0 when there is none. */
im_iod_t im_get_if_by_name(const char *name);

/* Conversions; 0 on success, non-zero when the interface is not known (*out is then unchanged). */
int im_get_iod_frm_ifindex(if_index_t if_index, im_iod_t *iod);
int ksink_im_get_ifindex_frm_iod(im_iod_t iod, if_index_t *if_index);

/* Non-zero when the interface is up: as the interface manager holds it, as the process's own copy holds it. */
int im_is_if_up(im_iod_t iod);
int ksink_im_is_if_up(im_iod_t iod);

/* Non-zero for MVPN tunnel interfaces, by if-index (also of interfaces that do not exist any more) and by ordinal. */
int im_is_ifindex_mvpn_tunnel(if_index_t if_index);
int ksink_im_is_mvpn_tunnel(im_iod_t iod);

/* Name of an interface for messages; "unknown" when there is none. */
const char *ksink_im_get_if_name(im_iod_t iod);

enum { IF_INDEX_OVERLAY_MVPN = 3 }; /* overlay sort of MVPN tunnels */

/* If-index of the overlay interface that belongs to a table id: (&if_index, IF_INDEX_OVERLAY_MVPN, table id).
 * 0 on success. */
int if_index_overlay_cli_init(if_index_t *if_index, uint32_t sort, uint32_t table_id);

/* The platform's network form of an if-index, 32 bits. */
uint32_t hton_if_index(if_index_t if_index);
if_index_t ntoh_if_index(uint32_t network_form);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_IM_H */

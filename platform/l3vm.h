/* VRF manager. */
#ifndef PLATFORM_L3VM_H
#define PLATFORM_L3VM_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum l3vm_state {
  L3VM_STATE_UNKNOWN = 0,
  L3VM_STATE_DOWN = 1,
  L3VM_STATE_UP = 2,
};

struct l3vm_context_info {
  uint32_t state;              /* enum l3vm_state */
  uint32_t table_id;           /* 0 = none */
  char name[VRF_NAME_MAX + 1]; /* NUL-terminated */
};

/* Non-zero on success; 0 when there is no such VRF, *info is then unspecified. */
int l3vm_get_context_info(vrf_context_id_t context_id, struct l3vm_context_info *info);

/* VRF of an interface; VRF_CONTEXT_ID_NONE when there is no such interface. */
vrf_context_id_t l3vm_if_get_context_id(im_iod_t iod);

/* Name of a VRF, "unknown" when there is none. */
const char *l3vm_get_context_name(vrf_context_id_t context_id);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_L3VM_H */

/* Route-policy manager: named route-maps. */
#ifndef PLATFORM_RPM_H
#define PLATFORM_RPM_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  RPM_BINDING_KIND = 15,
  RPM_CLIENT_MVPN = 500,
  RPM_MATCH_MROUTE = 7,
};

/* A user of a policy. */
struct rpm_binding {
  uint8_t kind;                /* RPM_BINDING_KIND */
  uint32_t client;             /* RPM_CLIENT_MVPN */
  char *policy_name;           /* the user's own copy; null = no policy */
  uint32_t policy_handle;      /* filled by rpm_policy_bind; 0 = not bound */
  vrf_context_id_t context_id; /* VRF in which the policy is used */
};

/* What a policy is matched against. */
struct rpm_mroute_match {
  ip_addr_t source;   /* customer source; 0 when source_len is 0 */
  ip_addr_t group;    /* customer group */
  uint8_t source_len; /* 32, or 0 for any source */
  uint8_t group_len;  /* mask length 0..32 */
};

/* Characters of the longest policy name. */
uint32_t rpm_get_max_name_length(void);

/* Binds a user to a policy, which may be defined later: (RPM_CLIENT_MVPN, name, binding). Non-zero on success; then
 * binding->policy_handle is set. Neither name nor binding is kept by anything that outlives unbind, whatever unbind
 * answers: the user frees both after it. */
int rpm_policy_bind(uint32_t client, const char *name, struct rpm_binding *binding);
int rpm_policy_unbind(uint32_t policy_handle);

/* Non-zero when the policy is defined. */
int rpm_policy_is_ready(uint32_t policy_handle);

/* 1 on a match: (handle, RPM_MATCH_MROUTE, record, 0, 0). Any other value: no match. */
int rpm_eval_policy_match(uint32_t policy_handle, uint32_t match_kind, const struct rpm_mroute_match *record,
                          uint32_t reserved1, uint32_t reserved2);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_RPM_H */

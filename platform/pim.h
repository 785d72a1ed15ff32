/* The host PIM process: its records, switches and routines that the module reads, sets and calls. */
#ifndef PLATFORM_PIM_H
#define PLATFORM_PIM_H

#include <stdio.h>

#include "platform/bitfield.h"
#include "platform/cli.h"
#include "platform/mrib.h"
#include "platform/mts.h"
#include "platform/packet.h"
#include "platform/pss.h"
#include "platform/pt.h"
#include "platform/ravl.h"
#include "platform/thread.h"
#include "platform/timer.h"
#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

struct mvpn_cibtype;                 /* the module's VRF context (mvpn.h) */
struct mvpn_data_mdt_send_join_info; /* the module's record of a customer route (mvpn.h) */

/* PIM context: one VRF in the host. Owned by the host. */
struct pim_cibtype {
  char vrf_name[VRF_NAME_MAX + 1]; /* NUL-terminated */
  vrf_context_id_t context_id;     /* not 0 once the VRF is known to the VRF manager; 1 = the default VRF */
  uint32_t table_id;               /* 0 = none; what overlay if-indexes are derived from */
  pt_root *route_tree;             /* customer routes (struct pim_route) by PIM_ROUTE_KEY_BYTES keys */
  struct mvpn_cibtype *mvpn;       /* set and cleared by the module; null = no MVPN in this VRF */
  uint8_t ignore_mrib_prunes;      /* 1: the receive side ignores MRIB prunes */
  struct ravl_node by_name;        /* user_data: this record */
  struct ravl_node by_context_id;  /* user_data: this record */
};

/* PIM interface. Owned by the host. */
struct pim_iftype {
  struct pim_cibtype *pcib;        /* VRF of the interface; null = none */
  im_iod_t iod;                    /* not 0 */
  if_index_t if_index;             /* not 0 */
  uint8_t pim_enabled;             /* 1: PIM runs on the interface */
  ip_addr_t local_addr;            /* 0 = none */
  uint32_t hello_interval;         /* milliseconds */
  uint32_t hello_holdtime;         /* seconds */
  active_timer *hello_timer;       /* null = none */
  uint16_t jp_interval;            /* seconds: interval in use */
  uint16_t configured_jp_interval; /* seconds: interval that was set */
  uint32_t mtu;                    /* bytes */
};

enum { PIM_ROUTE_KEY_BYTES = 10 }; /* customer-route tree key; see pim_get_addrs_from_pt_key */

/* Customer route. Owned by the host; deleted only after mvpn_process_pim_route_delete and
 * mvpn_data_mdt_unmap_local_source_from_receiver have been called for it. */
struct pim_route {
  struct mvpn_mdt_route_addrs addrs;                   /* the record begins with its address */
  ip_addr_t rpf_neighbor;                              /* 0 = none */
  im_iod_t iif;                                        /* incoming interface; 0 = none */
  uint8_t bidirectional;                               /* 1: route of a bidirectional group */
  uint8_t is_star_g;                                   /* 1: (*,G) route */
  uint8_t oifless_join_barred;                         /* 1: no joins without outgoing interfaces */
  struct bitfield oifs;                                /* outgoing interface ordinals */
  struct mvpn_data_mdt_send_join_info *send_join_info; /* set and cleared by the module; null = none */
};

/* A core route of the host. Begins with the MRIB address record of the core source and group. */
struct pim_core_route {
  struct mvpn_mdt_route_addrs addrs; /* core source and group */
  uint8_t reserved[138];             /* the host's */
  uint8_t marker_a;                  /* byte offset 150: the host's; non-zero = the route had dependent routes */
  uint8_t marker_b;                  /* byte offset 151: as marker_a */
};

/* Iterator over PIM contexts in name order; lives on the caller's stack and survives any change of the contexts. */
struct pim_cib_iterator {
  char vrf_name[VRF_NAME_MAX + 1]; /* of the context returned last */
};

/* Queues and handles of the process. */
extern mts_queue *pim_mts_q;
extern mts_queue *pim_mrib_mts_q;
extern mrib_client_handle *pim_mpib;
extern ip_client *pim_ip_client;
extern ksink_pss *pim_ha_handle;
extern uint32_t pim_mtu; /* bytes: the process's largest datagram */

/* Contexts. */
extern struct pim_cibtype *pim_null_pcib;           /* context of module-level messages; may be null */
extern struct pim_cibtype *pim_default_cib;         /* the default VRF */
extern struct ravl_tree pim_contexts_by_context_id; /* user data: struct pim_cibtype; ordered by number */
extern struct ravl_tree pim_contexts_by_name;       /* user data: struct pim_cibtype; ordered by bytes */

/* Walk in VRF-name order (bytes); null at the end. */
struct pim_cibtype *pim_get_first_cib_by_name(struct pim_cib_iterator *iterator);
struct pim_cibtype *pim_get_next_cib_by_name(struct pim_cib_iterator *iterator);

/* A context, or null. pim_create_context makes one for a VRF that the VRF manager does not know yet. */
struct pim_cibtype *pim_get_cib_by_context_name(const char *vrf_name);
struct pim_cibtype *pim_get_cib_by_context_id(vrf_context_id_t context_id);
struct pim_cibtype *pim_create_context(const char *vrf_name);

/* The context that a configuration command addresses (argument 0), or null; the one that a show command addresses,
 * with *all set to 1 when it addresses every VRF (the result is then null). Whether a context may be configured. */
struct pim_cibtype *pim_get_cib_from_cli(cli_command *command, uint32_t argument);
struct pim_cibtype *pim_get_cib_from_command_line(cli_command *command, int *all);
int pim_is_pcib_usable(const struct pim_cibtype *pcib);

/* Non-zero while a feature is configured: "mvpn". */
int pim_check_feature_configured(const char *feature);
extern uint32_t pim_mvpn_feature_configured;

/* PIM on an interface: pim_enable(0, pcib, iod, 0), pim_disable(0, pcib, interface, iod, 1, 0, 0); non-zero on
 * success. pim_get_iftype: the interface's record, null when PIM never ran on it. */
int pim_enable(uint32_t reserved1, struct pim_cibtype *pcib, im_iod_t iod, uint32_t reserved2);
int pim_disable(uint32_t reserved1, struct pim_cibtype *pcib, struct pim_iftype *interface, im_iod_t iod, uint32_t mode,
                uint32_t reserved2, uint32_t reserved3);
int pim_is_enabled(im_iod_t iod);
struct pim_iftype *pim_get_iftype(im_iod_t iod);

/* Hello hold time (seconds) of a hello interval (milliseconds). *adjusted: 1 when the interval was rounded up. */
uint32_t pim_calculate_holdtime(uint32_t hello_interval, int *adjusted);

/* Sends hellos on the interface; sets up the encapsulation of the VRF's routes that waited for it; takes the
 * interface out of the outgoing lists of the VRF's customer routes (third argument 0). */
void pim_send_periodic_hello(struct pim_iftype *interface);
void pim_setup_encap_for_pending_routes(struct pim_cibtype *pcib);
void pim_delete_oif_from_all_routes(struct pim_cibtype *pcib, im_iod_t iod, uint32_t reserved);

/* Mode of a group in a VRF. */
int pim_is_ssm_group(vrf_context_id_t context_id, ip_addr_t group);
int pim_is_bidir_group(vrf_context_id_t context_id, ip_addr_t group);

/* The customer route with exactly this address, or null. */
struct pim_route *pim_get_route_from_pt(struct pim_cibtype *pcib, const struct mvpn_mdt_route_addrs *addrs);

/* Address of a key of the customer-route tree. The tree keeps 0 as source length of a route for any source. */
void pim_get_addrs_from_pt_key(const uint8_t *key, struct mvpn_mdt_route_addrs *addrs);

/* Installs a customer route again, so that a changed encapsulation index takes effect; six arguments of 0. */
void pim_add_route(struct pim_cibtype *pcib, struct pim_route *route, uint32_t reserved1, uint32_t reserved2,
                   uint32_t reserved3, uint32_t reserved4, uint32_t reserved5, uint32_t reserved6);

/* Bytes that the route carried in its last minute. */
uint64_t pim_data_bytes_in_last_minute(const struct pim_route *route);

/* Designated forwarder of an RP on an incoming interface; 0 = none. */
ip_addr_t pim_get_df_winner(ip_addr_t rp, im_iod_t iif);

/* The PIM write lock: pim_wrlock_count += 1, then tsp_lock_acquire_wrlock(pim_shm_wrlock); pim_release_wrlock takes
 * one from the count and gives the lock back. */
extern uint32_t pim_wrlock_count;
extern tsp_lock *pim_shm_wrlock;
void pim_release_wrlock(void);

/* Wakes the host's own MRIB transmit worker. */
void pim_mrib_wakeup_txlist_worker_thread(void);

/* Flags of the process. The module sets the first two. */
extern uint32_t pim_oim_initialized;  /* 1: registered with the tunnel manager */
extern uint32_t pim_bgp_initialized;  /* 1: connected to BGP */
extern uint32_t pim_crashed;          /* 1: restarted after a crash */
extern uint32_t pim_sup_state_active; /* 1: this supervisor is the active one */
extern uint32_t pim_sup_switchover;   /* 1: it became active by a switchover */

/* Replay of the stored configuration: requests sent, end notices received; both wrap. */
extern uint16_t pim_cli_requests_sent_count;
extern uint16_t pim_cli_done_recv_count;

/* Diagnostics switches. */
enum { PIM_DEBUG_MVPN = 0x1000, PIM_DEBUG_BUFFER_SIZE = 2048 };
extern uint32_t pim_debug_flag;                      /* bit PIM_DEBUG_MVPN: print the module's debug messages */
extern FILE *pim_debug_fp;                           /* debug file; null = none */
extern char pim_debug_buffer[PIM_DEBUG_BUFFER_SIZE]; /* scratch line of the thread that holds the scheduling locks */
extern char pim_dfilter_vrf_name[VRF_NAME_MAX + 1];  /* VRF whose messages are printed, or "all" */

/* PIM interfaces: by if-index (second argument 0), the next one by if-index; the next one of a VRF by ordinal,
 * starting with null. Null: none. */
struct pim_iftype *pim_snmp_get_ifindex(if_index_t if_index, uint32_t reserved);
struct pim_iftype *pim_snmp_get_next_ifindex(if_index_t if_index);
struct pim_iftype *pim_get_next_interface(struct pim_cibtype *pcib, struct pim_iftype *previous);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_PIM_H */

/* What mvpn-contract-test asks of a platform besides its services: to be started, to let time pass, and to do what the
 * kit cannot do through the contract, such as making a VRF.
 *
 * The library under test shows these functions with C linkage, next to the services or in a library that it is linked
 * with. The first block is needed. Without an operation of the second block the checks that use it are skipped, and the
 * kit says so.
 *
 * Every check is a process of its own that starts the platform once, so a platform that cannot be started twice is
 * fine. All calls come from one thread, which holds the scheduling locks from contract_start to contract_stop. */
#ifndef CONFORMANCE_DRIVER_H
#define CONFORMANCE_DRIVER_H

#include "platform/mts.h"
#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What the platform is to call in place of the module. Addresses, states and messages as mvpn.h has them. */
struct contract_module {
  int (*process_msg)(mts_message *msg);           /* mvpn_process_msg */
  void (*interface_status)(im_iod_t iod, int up); /* mvpn_interface_status */
  void (*interface_create)(im_iod_t iod);         /* mvpn_interface_create */
  void (*process_address_change)(im_iod_t iod);   /* mvpn_process_address_change */
  void (*update_route_ack)(const void *message);  /* mvpn_process_mrib_mts_update_route_ack */
  void (*mdt_notify)(const void *message);        /* mvpn_process_mrib_mdt_notify */
};

/* Version of the contract that the platform was written for: PLATFORM_CONTRACT_VERSION when it was compiled. */
extern const uint32_t contract_version;

/* Brings the platform to its first state: the default VRF exists, interface events are on, the MRIB and the tunnel
 * manager have no client. folder: an empty folder for what outlives the process, or the one of an earlier process.
 * stateful: non-zero for a restart that is to take up the earlier state. module: lives until contract_stop. The calling
 * thread holds the scheduling locks afterwards. Non-zero on success. */
int contract_start(const char *folder, int stateful, const struct contract_module *module);

/* Writes what outlives the process. Nothing is called afterwards. */
void contract_stop(void);

/* Runs the main loop: delivers what is queued and the timers that are due, and lets other threads run, until so many
 * milliseconds of platform time have passed. */
void contract_run(uint32_t milliseconds);

/* ---- what may be missing; each non-zero on success ---- */

/* A VRF that is up, known to the VRF manager and to PIM. rd: null for none. */
int contract_add_vrf(const char *name, vrf_context_id_t context_id, uint32_t table_id, const uint8_t *rd);

/* An interface of a VRF; its address is in host byte order, 0 for none. contract_set_interface changes state and
 * address. */
int contract_add_interface(const char *name, vrf_context_id_t context_id, ip_addr_t address, int up);
int contract_set_interface(const char *name, ip_addr_t address, int up);

/* Queues a message for the module, as BGP would. payload: size bytes, copied; null when size is 0. */
int contract_deliver(uint32_t opcode, const void *payload, uint32_t size);

/* The oldest message that was sent to a component and not taken yet; *size: room in payload, then the length. 0: none.
 */
int contract_take_sent(uint32_t *destination, uint32_t *opcode, void *payload, uint32_t *size);

/* Runs a registered handler as an operator's command does. names, values: count arguments, by the names under which
 * handlers read them; a keyword has an empty value. vrf_name: the context that the command addresses. text: receives
 * what was printed, NUL-terminated, cut at text_size. *result: the handler's. 0: there is no such handler. */
int contract_command(const char *handler, const char *vrf_name, int no_form, uint32_t count, const char *const *names,
                     const char *const *values, char *text, uint32_t text_size, int *result);

/* A route-map whose only entry permits every source to the groups of a prefix. */
int contract_set_policy(const char *name, ip_addr_t group, uint32_t group_len);

/* A customer route of a VRF that carried so many bytes in its last minute. */
int contract_add_customer_route(const char *vrf_name, const struct mvpn_mdt_route_addrs *addrs, uint64_t bytes);

/* A datagram arrives on an interface: IPv4 and UDP, in network byte order. */
int contract_receive_datagram(const char *interface_name, const void *datagram, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif /* CONFORMANCE_DRIVER_H */

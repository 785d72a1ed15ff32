/* A host of its own in C, with nothing but the installed headers: it has the data of the contract and a platform that
 * has no memory to give. The module loads, says so when it is started, and goes on being stopped. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "platform/bgp.h"
#include "platform/bitfield.h"
#include "platform/cli.h"
#include "platform/cli_schema.h"
#include "platform/diag.h"
#include "platform/im.h"
#include "platform/ip.h"
#include "platform/l3vm.h"
#include "platform/oim.h"
#include "platform/packet.h"
#include "platform/pss.h"
#include "platform/sockets.h"
#include "platform/thread.h"
#include "platform/tlvu.h"
#include "routing/pim/mvpn/mvpn.h"

/* Data that the module reads. */
mts_queue *pim_mts_q, *pim_mrib_mts_q;
mrib_client_handle *pim_mpib;
ip_client *pim_ip_client;
ksink_pss *pim_ha_handle;
struct pim_cibtype *pim_null_pcib, *pim_default_cib;
struct ravl_tree pim_contexts_by_context_id, pim_contexts_by_name;
uint32_t pim_mtu, pim_mvpn_feature_configured, pim_wrlock_count, pim_oim_initialized, pim_bgp_initialized, pim_crashed,
    pim_sup_state_active, pim_sup_switchover, pim_debug_flag;
uint16_t pim_cli_requests_sent_count, pim_cli_done_recv_count;
tsp_lock *pim_shm_wrlock;
FILE *pim_debug_fp;
char pim_debug_buffer[PIM_DEBUG_BUFFER_SIZE], pim_dfilter_vrf_name[VRF_NAME_MAX + 1];
struct sdwrap_facility *sdwrap_sys_facility;

#define REPORT(name) const struct syslog_descriptor name = {#name, 3, 0, "text"};
REPORT(msg_error_PIM_API_FAILED)
REPORT(msg_error_PIM_API_INIT)
REPORT(msg_error_PIM_AVL_ERROR)
REPORT(msg_error_PIM_BIND)
REPORT(msg_error_PIM_CV_INIT)
REPORT(msg_error_PIM_MALLOC)
REPORT(msg_error_PIM_MTS_SEND)
REPORT(msg_error_PIM_MV_INIT)
REPORT(msg_error_PIM_OIM_REGISTER_FAIL)
REPORT(msg_error_PIM_OPCODE_REG)
REPORT(msg_error_PIM_PT_ADD)
REPORT(msg_error_PIM_PTHREAD_CREATE)
REPORT(msg_error_PIM_SETSOCKOPT)
REPORT(msg_error_PIM_SLAB_CREATE)
REPORT(msg_error_PIM_SOCKET)
REPORT(msg_error_PIM_TIMER_CREATE)
REPORT(msg_error_PIM_TIMER_SET_INIT)
REPORT(msg_error_PIM_TUNNEL_ADD_FAIL)
REPORT(msg_error_PIM_TUNNEL_ADD_TLV_FAIL)
REPORT(msg_error_PIM_TUNNEL_CREATE_FAIL)
REPORT(msg_error_PIM_TXLIST_CREATE)
REPORT(msg_error_PIM_UDP_READ)

/* Services that the start comes to. */
static const struct syslog_descriptor *reported;

void slab_set_attr(struct slab_attr *attr, uint32_t kind, uint32_t flags) {
  (void)attr, (void)kind, (void)flags;
}

slab_handle slab_create(size_t object_size, uint16_t count, const struct slab_attr *attr, const char *name) {
  (void)object_size, (void)count, (void)attr, (void)name;
  return 0;
}

int syslog_msg_rate_limit(const struct syslog_descriptor *descriptor, uint32_t count, const char *const *arguments) {
  (void)count, (void)arguments;
  reported = descriptor;
  return 0;
}

static void expect(int holds, const char *what) {
  if (holds) return;
  fprintf(stderr, "c_host: %s\n", what);
  exit(1);
}

int main(void) {
  struct mvpn_mdt_route_addrs addrs;
  memset(&addrs, 0, sizeof addrs);
  expect(sizeof addrs == 12 && sizeof(mvpn_bgp_mdt_safi_key) == 16, "the records have other sizes");
  expect(sizeof(((mvpn_cibtype *)0)->mti_status) == 4 && sizeof(mvpn_mdt_route_pending_t) == 1,
         "the enumerations have other sizes");
  expect(sizeof(((mvpn_cibtype *)0)->mdt_encap_group) == 4 * MVPN_ENCAP_INDEXES, "the table has another size");
  expect(mvpn_functionality_status == MVPN_FUNCTIONALITY_DOWN, "the module runs before its start");
  expect(strcmp(mvpn_mti_status_str[MVPN_MTI_UP], "Up") == 0, "the texts are others");
  expect(mvpn_process_msg(NULL) == 0, "a module that does not run takes a message");
  expect(mvpn_init() == 0 && mvpn_functionality_status == MVPN_FUNCTIONALITY_UP_PENDING, "it starts without memory");
  expect(reported == &msg_error_PIM_SLAB_CREATE, "it does not say why");
  puts("c_host: all holds");
  return 0;
}

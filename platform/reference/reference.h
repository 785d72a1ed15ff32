// How a host or a test drives the reference platform: create VRFs, interfaces and routes, read what the services were
// told, and run the main loop, the clock and the scheduler.
//
// The platform has one instance per process. Everything here is called on the main thread while it holds the
// scheduling locks (see Scheduler), unless a declaration says otherwise. reset() brings the platform to its first state.
#ifndef REFERENCE_H
#define REFERENCE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bgp.h"
#include "platform/bitfield.h"
#include "platform/cli.h"
#include "platform/diag.h"
#include "platform/mem.h"
#include "platform/mrib.h"
#include "platform/mts.h"
#include "platform/oim.h"
#include "platform/packet.h"
#include "platform/pim.h"
#include "platform/pss.h"
#include "platform/rpm.h"
#include "platform/types.h"

namespace ref {

// ------------------------------------------------------------------------------------------------------- lifetime

// Drops everything: VRFs, interfaces, routes, events, timers, sockets, records of what was told; stepped clock at 1000 s,
// first-come scheduler, in-memory store and carrier. The module must be stopped, its threads ended.
void reset();

// Entry points of the module that the platform delivers to; null members are not called.
struct Module {
  int (*process_msg)(mts_message *msg) = nullptr;
  void (*interface_status)(im_iod_t iod, int up) = nullptr;
  void (*interface_create)(im_iod_t iod) = nullptr;
  void (*process_address_change)(im_iod_t iod) = nullptr;
  void (*update_route_ack)(const void *message) = nullptr;
  void (*mdt_notify)(const void *message) = nullptr;
  void (*clear_route_notify)(pim_cibtype *pcib, const void *entries, uint32_t count) = nullptr;
  void (*repopulate)(vrf_context_id_t context_id, const mvpn_mdt_route_addrs *filter, uint32_t route_type) = nullptr;
  void (*free_dependent)(pim_cibtype *pcib, const pim_core_route *core_route) = nullptr;
  int (*cli_vrf_done)(pim_cibtype *pcib) = nullptr;
  int (*cli_done)() = nullptr;
  void (*mrib_join)(pim_cibtype *, const mvpn_mdt_route_addrs *, pim_route *) = nullptr;
  void (*mrib_prune)(pim_cibtype *, const mvpn_mdt_route_addrs *, pim_route *) = nullptr;
  void (*route_delete)(pim_cibtype *, const mvpn_mdt_route_addrs *, pim_route *) = nullptr;
  void (*rpf_notify)(pim_cibtype *, const mvpn_mdt_route_addrs *, pim_route *, int up) = nullptr;
  void (*map_local_source)(mvpn_cibtype *, const mvpn_mdt_route_addrs *, pim_route *) = nullptr;
  void (*unmap_local_source)(mvpn_cibtype *, pim_route *, const mvpn_mdt_route_addrs *) = nullptr;
  int (*stats_check)(mvpn_cibtype *, const mvpn_mdt_route_addrs *, pim_route *) = nullptr;
  void (*switchover_expiry)(mvpn_cibtype *) = nullptr;
  void (*send_join_packet)(mvpn_cibtype *, int release) = nullptr;
};
void set_module(const Module &module);
const Module &module();

// ------------------------------------------------------------------------------------------- main loop and clock

// Queues work for the main loop, in order. Any thread, locks held or not.
void post(std::function<void()> work);

// Has `wake` called whenever work is posted or the next deadline moves; from any thread. Null: nobody.
void set_waker(std::function<void()> wake);

// Delivers every timer that is due and every posted event, those posted meanwhile included up to a bound of 10000,
// giving other threads a turn between two. Result: how many were delivered.
size_t run_pending();

// Delivers and lets the module's threads run until nothing is left to do: no event, no due timer, no thread that could
// run. Repeatable with a stepped clock. For tests; the module's condition waits must be visible (see Scheduler).
void settle();

// Monotonic platform time; a stepped clock moves only by advance().
std::chrono::nanoseconds now();
void clock_use_stepped();
void clock_use_real(double scale);                        // platform seconds per real second, > 0
double clock_scale();                                     // 0 for a stepped clock
void advance(std::chrono::nanoseconds step);              // stepped: timers fire in order, settle() after each
std::optional<std::chrono::nanoseconds> next_deadline();  // platform time of the next timer

// ------------------------------------------------------------------------------------------------------- scheduler

// The main thread takes and gives the scheduling locks around each turn of its loop. A test's main thread holds them
// from reset() on.
void main_acquire();
void main_release();
bool locks_held();  // by the calling thread

// First-come order, or a choice of the next waiting thread by a seeded generator.
void scheduler_use_fifo();
void scheduler_use_seed(uint64_t seed);

// Module threads that are alive; waits until none is (bounded: 10 s, then false).
size_t thread_count();
bool wait_for_threads();

// What a wrapper of pthread_cond_wait and pthread_cond_signal tells the scheduler, so that settle() knows whether a
// thread that sleeps on a condition has been woken: about to wait, woken and running again; a signal was sent.
void note_condition_wait(const void *condition);
void note_condition_woken(const void *condition);
void note_condition_signal(const void *condition);

// Called at every yield point, before other threads get their turn. Returns true when it did something that counts as
// other work having run. Tests only; null: none.
void set_yield_hook(std::function<bool()> hook);

// ------------------------------------------------------------------------------------------------------- transport

// Delivers a message to the module from the main loop. The payload is copied.
void deliver(uint32_t opcode, const void *payload, size_t size);

// Messages that the module sent.
struct SentMessage {
  uint32_t destination;          // MTS_DESTINATION_...
  uint32_t opcode;               // MTS_OPC_...
  std::vector<uint8_t> payload;  // as the opcode's format says
};
const std::vector<SentMessage> &sent_messages();  // the latest 1000
void clear_sent_messages();
// Called for each; how BGP learns of local entries. Null: none.
void set_message_sink(std::function<void(const SentMessage &)> sink);

// -------------------------------------------------------------------------------------------------- memory, timers

struct MemoryUse {
  size_t slab_objects = 0;     // live objects of all slabs
  size_t tracked_buffers = 0;  // live tracked buffers
  size_t tracked_bytes = 0;    // in them
  size_t timers = 0;           // created and not cancelled, whether they run or not
};
MemoryUse memory_use();

// ---------------------------------------------------------------------------------------------------- diagnostics

struct Event {
  std::chrono::nanoseconds time;  // platform time
  std::string text;               // as the module wrote it
};
std::vector<Event> history();  // the latest 10000 events of the module, oldest first
void clear_history();
struct Report {
  std::string name;                    // of the descriptor
  std::vector<std::string> arguments;  // in the order in which the text shows them
};
const std::vector<Report> &reports();  // the latest 1000 error reports that passed the rate limit
void clear_reports();
// Where error reports and debug output go: standard error, syslog, or nowhere (tests).
enum class LogSink { none, standard_error, syslog };
void set_log_sink(LogSink sink);

// --------------------------------------------------------------------------------------- VRFs, interfaces, addresses

// A VRF, known to the VRF manager (up) and to PIM. Null when the name, the context id or the table id is taken or out of
// range. Deleting drops its routes and interfaces (with the notifications that a host gives), then its PIM context; false
// while the module has a context in the VRF: take its default group away first and wait for the teardown. The default VRF
// ("default", no table id) exists from reset() on and stays.
pim_cibtype *create_vrf(std::string_view name, vrf_context_id_t context_id, uint32_t table_id);
bool delete_vrf(std::string_view name);
void set_vrf_state(std::string_view name, uint32_t l3vm_state);
void set_pcib_usable(std::string_view name, bool usable);

// Addresses here and below are in host byte order.
struct Interface {
  std::string name;                                      // 1..39 bytes, nobody else's
  im_iod_t iod = 0;                                      // 1..65535; 0 in a new one: the next free
  if_index_t if_index = 0;                               // sort in the top byte; 0 in a new one: made of the ordinal
  vrf_context_id_t context_id = VRF_CONTEXT_ID_DEFAULT;  // VRF that it belongs to
  ip_addr_t address = 0;                                 // 0: none
  uint32_t mtu = 1500;                                   // bytes
  bool up = false;
  bool mvpn_tunnel = false;   // made by the tunnel manager
  std::string unnumbered_to;  // interface whose address it uses; empty: its own
};
// Creates an interface (iod 0: the next free one); 0 when the name is taken. Notifications go to the module through the
// main loop: creation, state and address changes, each only when something changes and while enabled.
im_iod_t create_interface(std::string_view name, vrf_context_id_t context_id, ip_addr_t address, bool up);
bool delete_interface(std::string_view name);
bool set_interface_state(std::string_view name, bool up);
bool set_interface_address(std::string_view name, ip_addr_t address);
const Interface *find_interface(std::string_view name);
const Interface *find_interface(im_iod_t iod);
std::vector<const Interface *> interfaces();  // by ordinal
// Off until the configuration has been replayed; turning it on reports every interface that is up.
void enable_interface_events(bool on);

// Groups of a mode. Defaults: SSM 232.0.0.0/8, no Bidir range.
void add_ssm_range(ip_addr_t prefix, uint32_t length);
void add_bidir_range(ip_addr_t prefix, uint32_t length);
void remove_ssm_range(ip_addr_t prefix, uint32_t length);
void remove_bidir_range(ip_addr_t prefix, uint32_t length);

// The designated forwarder of a Bidir rendezvous point on an interface; 0: there is none. Nobody holds elections here.
void set_df_winner(ip_addr_t rp, im_iod_t iif, ip_addr_t winner);

// ---------------------------------------------------------------------------------------------------- tunnel manager

struct Tunnel {
  if_index_t if_index = 0;  // of overlay sort: made of the VRF's table id
  im_iod_t iod = 0;         // its interface
  uint8_t admin_up = 0;     // 1: the module wants it up
  std::string vrf_name;
  uint32_t mtu = 0;           // bytes; 0: not given yet
  ip_addr_t source = 0;       // 0: not given yet
  ip_addr_t destination = 0;  // the default group; 0: not given yet
  bool up = false;
};
struct OimRequest {
  std::string operation;  // "create", "modify", "delete", "bringup", "bringdown"
  if_index_t if_index = 0;
  im_iod_t iod = 0;                                               // as the request names it; 0: it names none
  std::vector<std::pair<uint16_t, std::vector<uint8_t>>> params;  // type, value in network byte order
};
const std::vector<OimRequest> &oim_requests();  // the latest 1000
void clear_oim_requests();
std::vector<Tunnel> tunnels();  // by if-index
const Tunnel *find_tunnel(if_index_t if_index);
// A tunnel that outlived the module's last run.
if_index_t create_orphan_tunnel(uint32_t table_id);
// Keeps requests without answering them until switched on again.
void set_oim_answers(bool on);
// File in which the tunnel database outlives the process; empty: none. False when it cannot be read.
bool oim_use_file(const std::string &path);

// --------------------------------------------------------------------------------------------------------------- MRIB

// A core route as its owner installed it.
struct MribRoute {
  mvpn_mdt_route_addrs addrs{};
  vrf_context_id_t context_id = 0;  // of the core
  uint32_t owner = 0;               // context id of the customer VRF
  im_iod_t mti_iod = 0;             // the owner's tunnel; 0: none was given
  im_iod_t mdt_source_iod = 0;      // interface of its MDT source
  ip_addr_t rpf_addr = 0;           // 0: none was given
  bool local = false;               // this PE is the source
  bool last_hop = false;            // this PE receives
  bool asm_shared_tree = false;     // joined on the shared tree
  std::vector<uint8_t> entry;       // the 92 bytes that installed it
  uint32_t xid = 0;                 // transaction id of the update that did
};
struct MribUpdate {
  uint32_t xid;                  // transaction id
  uint32_t count;                // of entries
  std::vector<uint8_t> entries;  // 92 * count bytes
};
struct MribEncap {
  vrf_context_id_t context_id;  // customer VRF
  uint16_t index;               // 1: the default group; 2..1023: a data group
  ip_addr_t group;              // provider group
  ip_addr_t source;             // MDT source
  im_iod_t mti_iod;             // tunnel of the VRF
  im_iod_t source_iod;          // interface of the source
};
std::vector<MribRoute> mrib_routes();           // core routes, by context, group, source
std::vector<MribEncap> mrib_encaps();           // by context, index
const std::vector<MribUpdate> &mrib_updates();  // the latest 1000
void clear_mrib_updates();
uint32_t mrib_last_acked_xid();
uint64_t mrib_updates_total();
// Keeps acknowledgements back until switched on again; refuses the next n updates, the next n encapsulation records.
void set_mrib_acks(bool on);
void mrib_refuse_updates(uint32_t n);
void mrib_refuse_encaps(uint32_t n);
// A route that somebody other than the module holds: customer routes of the VRFs, (S,G) state of core groups. Joins
// and deletions notify the module through the main loop.
void mrib_add_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs, im_iod_t mti_iod);
bool mrib_delete_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs);
void mrib_notify_join(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs);
void mrib_notify_delete(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs);
void mrib_notify_clear(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs, bool sg_only, bool star_g_only);
void mrib_request_repopulate(vrf_context_id_t context_id, const mvpn_mdt_route_addrs *filter, uint32_t route_type);
void set_mrib_initializing(vrf_context_id_t context_id, bool initializing);

// ---------------------------------------------------------------------------------------------------------------- BGP

struct MdtSafi {
  ip_addr_t source = 0;                       // the announcing PE
  uint8_t rd[ROUTE_DISTINGUISHER_SIZE] = {};  // as in a message (RFC 4364): network byte order
  ip_addr_t group = 0;                        // default MDT group
  std::string vrf_name;                       // local entries only
};
// Route distinguisher of a VRF; null clears it. notify: tell the module.
void bgp_set_rd(std::string_view vrf_name, const uint8_t *rd, bool notify);
void bgp_set_update_source(std::string_view interface_name, bool notify);  // empty: none
std::optional<std::vector<uint8_t>> bgp_parse_rd(std::string_view text);   // "65000:1", "10.0.0.1:5", "4200000000:1"
std::vector<MdtSafi> bgp_local_entries();                                  // what the module advertises
std::vector<MdtSafi> bgp_remote_entries();                                 // what remote PEs advertise
// Remote entries: stored, and given to the module in messages of at most 100 entries.
void bgp_add_remote(const std::vector<MdtSafi> &entries);
void bgp_withdraw_remote(const std::vector<MdtSafi> &entries);
void bgp_end_of_rib();
void bgp_request_local();  // asks the module for all local entries
// Withdraws what the module has advertised: it has gone and tells BGP nothing any more.
void bgp_forget_local();
// Called when the module advertises (add) or withdraws an entry; how the link to other PEs learns of it.
void set_bgp_local_sink(std::function<void(const MdtSafi &entry, bool add)> sink);
// Makes a connector attribute that carries these; valid until reset().
void *bgp_make_connector_attribute(const uint8_t *rd, ip_addr_t source);

// ---------------------------------------------------------------------------------------------- persistent store

void pss_use_memory();  // first state
// LMDB; false when it cannot be opened. Without a stateful restart what is stored there is forgotten.
bool pss_use_directory(const std::string &path);
void pss_flush();  // ends the transaction of this turn of the main loop
void set_stateful_restart(bool on);
std::vector<std::pair<std::vector<uint8_t>, std::vector<uint8_t>>> pss_records();

// -------------------------------------------------------------------------------------------------- route policies

// The first entry that a flow matches decides; a flow that matches none is denied.
struct PolicyEntry {
  bool permit = true;
  ip_addr_t source = 0, group = 0;         // prefixes
  uint32_t source_len = 0, group_len = 0;  // their lengths, 0..32; 0 matches everything
};
void set_policy(std::string_view name, const std::vector<PolicyEntry> &entries);
bool delete_policy(std::string_view name);
size_t policy_bindings();

// ---------------------------------------------------------------------------------------------- core packets

// A datagram that crosses the core inside a default MDT.
struct CorePacket {
  ip_addr_t provider_source = 0;  // tunnel source of the sending PE
  ip_addr_t provider_group = 0;   // default group of the VRF
  std::vector<uint8_t> datagram;  // customer IPv4 datagram, as on the wire
};
// Carries core packets between PEs. send: out to every other PE; the receiver given by set_receiver is called on the
// main thread for what arrives.
class Carrier {
 public:
  virtual ~Carrier() = default;
  virtual void send(const CorePacket &packet) = 0;
  virtual void set_receiver(std::function<void(CorePacket)> receiver) = 0;
};
void use_carrier(std::unique_ptr<Carrier> carrier);  // null: in memory, packets are only recorded
const std::vector<CorePacket> &sent_core_packets();  // the latest 1000
void clear_sent_core_packets();
// A packet arrives from the core: handed to the VRF whose tunnel has this group as destination. Also what carriers call.
void receive_core_packet(const CorePacket &packet);
// A datagram arrives on an interface, whatever it is.
void inject_datagram(im_iod_t iod, const void *datagram, size_t size);
// Options set on the socket that was opened last, in order.
struct SocketOption {
  int level = 0;
  int option = 0;
  std::vector<uint8_t> value;
};
std::vector<SocketOption> socket_options();
// The next n calls fail: "m_get_prio", "m_copyback", "recvfrom".
void fail_packet_calls(std::string_view operation, uint32_t n);

// ----------------------------------------------------------------------------------------------- customer routes

struct CustomerRoute {
  mvpn_mdt_route_addrs addrs{};
  std::string iif;                // empty: none; "mvpn": the VRF's tunnel whenever it is up
  ip_addr_t rpf_neighbor = 0;     // 0: none
  std::vector<std::string> oifs;  // outgoing interfaces of the VRF, its tunnel apart
  bool bidirectional = false;     // Bidir PIM: both directions on one tree
  uint64_t rate_kbps = 0;         // kilobits (1000) a second that the source sends
  bool to_mvpn = false;           // the VRF's tunnel is an outgoing interface
};
// Adds or changes a route of a VRF with the notifications that a PIM process gives; removes it in the order that the
// module relies on. Null, false: no such VRF, interface or route.
pim_route *set_customer_route(std::string_view vrf_name, const CustomerRoute &route);
bool delete_customer_route(std::string_view vrf_name, const mvpn_mdt_route_addrs &addrs);
bool set_customer_rate(std::string_view vrf_name, const mvpn_mdt_route_addrs &addrs, uint64_t rate_kbps);
bool set_customer_bytes(std::string_view vrf_name, const mvpn_mdt_route_addrs &addrs, uint64_t bytes_last_minute);
std::vector<CustomerRoute> customer_routes(std::string_view vrf_name);  // in tree order
// One statistics pass over every VRF: rate check of each customer route, then the VRF's Join packet, then the end of
// pending switchovers 3 s later. start_statistics: every 60 s from now on.
void statistics_pass();
void start_statistics();
struct PimCounters {
  uint64_t hellos_sent = 0, routes_reinstalled = 0, oif_removals = 0, encap_setups = 0, host_worker_wakeups = 0;
  uint64_t rpf_lookups = 0, join_triggers = 0;
};
const PimCounters &pim_counters();

// Features and process flags.
void set_feature_configured(bool configured);

// ---------------------------------------------------------------------------------------------------- command line

// One argument of an invocation, by the name that handlers read it under; keywords have no value.
struct CliArgument {
  std::string name;
  std::string value;  // as typed
};
// Where output goes. text: what the operator sees; value: recorded values in order.
enum class CliValueType { string, number, unsigned_number, boolean, duration };
struct CliValue {
  int element = 0;  // CLI_ELEMENT_...
  CliValueType type = CliValueType::string;
  std::string text;  // string; also the decimal form of numbers
  int64_t number = 0;
  uint64_t unsigned_number = 0;
  double seconds = 0;  // duration
};
class CliSink {
 public:
  virtual ~CliSink() = default;
  virtual void text(std::string_view text) = 0;  // operator output
  virtual void value(const CliValue &value) { (void)value; }
  virtual bool more() { return true; }  // cli_more_output
};
struct CliInvocation {
  std::string handler;
  std::vector<CliArgument> arguments;
  std::string vrf_name;   // context that the command addresses; empty: none
  bool all_vrfs = false;  // show: every VRF
  bool no_form = false;
  bool interactive = true;
  bool getnext = false;
};
// Runs a registered handler; its result. -2: there is no such handler.
int cli_invoke(const CliInvocation &invocation, CliSink &sink);
std::vector<std::string> cli_registered();  // names in order of registration, with repetitions
// What cli_send_my_global_vrf_commands asks for; called from the main loop, never inside a handler.
void set_cli_replay(std::function<void(const std::string &vrf_name)> replay);

}  // namespace ref

#endif  // REFERENCE_H

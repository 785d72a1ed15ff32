// The agent library speaks AgentX and finds rows; this file gives it the tables and drives it from the event loop.
//
// Objects. Every table is a sorted container of rows behind three helpers of the library: the table helper takes object
// identifiers apart, the cache helper has the container filled when its rows are older than kCacheSeconds, the
// container helper finds the row or the one after it, and answer_rows gives the value of a column. A walk of a table
// thus reads one state of it, or a few, and each of them sorted.
//
// Turns. After each piece of work the library says which descriptors and which time it waits for, and both are waited
// for anew (arm). The descriptors are duplicated for that: the library closes its own whenever it likes, and a number
// may come to stand for another connection. The duplicates live until the next arm, which follows every piece of work.
//
// Failures. A master that goes away closes the connection; the library drops the session and tries again at intervals,
// as it does when there was none at the start, and registers everything anew. Its messages go to the log.
#include "host/snmp/agent.h"

#include <net-snmp/library/large_fd_set.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <span>
#include <stdexcept>
#include <utility>

#include "host/snmp/collect.h"
#include "platform/reference/runtime.h"

namespace host::snmp {
namespace {

constexpr int kCacheSeconds = 2;   // a walk's requests find one state of a table; a manager sees nothing older
constexpr int kAnswerSeconds = 1;  // of the master, for one request of the library
constexpr const char *kAgentName = "pimhostd";
constexpr std::chrono::milliseconds kSlice{5};  // of the main loop's time, for collecting

using Oid = std::vector<oid>;

Oid object_oid(uint32_t arc) {
  Oid oids(std::begin(kObjects), std::end(kObjects));
  oids.push_back(arc);
  return oids;
}

// A row in the library's container, which orders by what stands first.
struct ServedRow {
  netsnmp_index index;
  Oid oids;
  Values values;
};

u_char asn_type(cli_mib_syntax syntax) {
  switch (syntax) {
    case CLI_MIB_TEXT:
    case CLI_MIB_INTERFACE:
      return ASN_OCTET_STR;
    case CLI_MIB_ADDRESS:
      return ASN_IPADDRESS;
    case CLI_MIB_INTEGER:
      return ASN_INTEGER;
    case CLI_MIB_UNSIGNED:
    case CLI_MIB_GAUGE:
      return ASN_UNSIGNED;
    case CLI_MIB_TICKS:
    case CLI_MIB_INSTANT:
      return ASN_TIMETICKS;
  }
  return ASN_NULL;
}

// Puts a value into an answer; false when it is not what its object says.
bool set_value(netsnmp_variable_list *variable, cli_mib_syntax syntax, const std::string &text) {
  const u_char type = asn_type(syntax);
  if (type == ASN_OCTET_STR) return snmp_set_var_typed_value(variable, type, text.data(), text.size()) == 0;
  if (type == ASN_IPADDRESS) {
    const auto address = to_address(text);
    const in_addr_t bytes = htonl(address.value_or(0));
    return address && snmp_set_var_typed_value(variable, type, &bytes, sizeof bytes) == 0;
  }
  const auto number = to_number(text);
  if (!number) return false;
  const long value = type == ASN_INTEGER ? long{static_cast<int32_t>(*number)} : static_cast<long>(*number);
  return snmp_set_var_typed_value(variable, type, &value, sizeof value) == 0;
}

const Column *find_column(const Table &table, uint32_t arc) {
  for (const Column &column : table.values)
    if (column.arc == arc) return &column;
  return nullptr;
}

// What sysUpTime was at a time of the module's clock, both in hundredths of a second modulo 2^32. Times before the
// master started are 0. The library follows the master's clock.
std::string uptime_at(const std::string &text, uint32_t clock_now) {
  const auto at = to_number(text);
  if (!at) return text;
  const uint32_t age = clock_now - *at;
  const auto uptime = static_cast<uint32_t>(netsnmp_get_agent_uptime());
  return std::to_string(uptime > age ? uptime - age : 0);
}

void make_uptimes(const Table &table, uint32_t clock_now, Values *values) {
  for (const Column &column : table.values)
    if (column.syntax == CLI_MIB_INSTANT)
      for (auto &[element, text] : *values)
        if (element == column.element) text = uptime_at(text, clock_now);
}

void free_row(void *row, void *) { delete static_cast<ServedRow *>(row); }

void empty_container(netsnmp_container *rows) { CONTAINER_CLEAR(rows, free_row, nullptr); }

}  // namespace

Agent::Agent(boost::asio::io_context &io, std::string address, std::shared_ptr<MainThread> main, int retry_seconds)
    : io_(io), timer_(io), address_(std::move(address)), main_(std::move(main)) {
  set_options();
  start_library(retry_seconds);
  arm();
}

Agent::~Agent() {
  ++*generation_;
  watched_.clear();
  // Before the shutdown, which frees what callbacks were given.
  snmp_disable_log();
  snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, take_message, this, 1);
  snmp_shutdown(kAgentName);
  shutdown_agent();
  for (const auto &table : tables_) {
    empty_container(table->rows);
    CONTAINER_FREE(table->rows);
    netsnmp_table_registration_info_free(table->info);
  }
}

// The daemon's configuration says everything: no files of the library are read or written, no MIB modules loaded.
void Agent::set_options() {
  setenv("MIBS", "", 1);
  for (const int option :
       {NETSNMP_DS_LIB_DONT_READ_CONFIGS, NETSNMP_DS_LIB_DONT_PERSIST_STATE, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD,
        NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG})
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, option, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, address_.c_str());
}

// Between init_agent, which sets these to its own choice, and init_snmp, which makes the first attempt.
void Agent::set_intervals(int retry_seconds) {
  netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, retry_seconds);
  netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_TIMEOUT, kAnswerSeconds * ONE_SEC);
  netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_RETRIES, 0);
}

void Agent::start_library(int retry_seconds) {
  snmp_disable_log();
  snmp_enable_calllog();
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, take_message, this);
  if (init_agent(kAgentName) != 0) throw std::runtime_error("the SNMP agent library does not start");
  set_intervals(retry_seconds);
  for (const Table &table : tables()) serve_table(table);
  for (const Scalar &scalar : scalars()) serve_scalar(scalar);
  init_snmp(kAgentName);
}

int Agent::take_message(int, int, void *server, void *own) {
  const auto *message = static_cast<const snmp_log_message *>(server);
  std::string text = message->msg;
  // A failure to connect often comes without the reason that its text makes room for.
  while (!text.empty() && std::strchr("\n: ", text.back()) != nullptr) text.pop_back();
  if (text.find("Failed to connect") != std::string::npos) text += "; it is tried again";
  if (message->priority > LOG_INFO || text.empty()) return SNMP_ERR_NOERROR;
  Agent *agent = static_cast<Agent *>(own);
  if (agent->sending_)
    agent->failure_ = text;
  else
    MainThread::log(agent->main_, "SNMP: " + text);
  return SNMP_ERR_NOERROR;
}

// ---------------------------------------------------------------------------------------------------------- objects

void Agent::serve_table(const Table &table) {
  const Oid root = object_oid(table.arc);
  auto served = std::make_unique<ServedTable>();
  served->agent = this;
  served->table = &table;
  served->rows = netsnmp_container_find("table_container");
  served->info = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
  if (served->rows == nullptr || served->info == nullptr) throw std::runtime_error("no SNMP table container");
  for (const Column &part : table.index) netsnmp_table_helper_add_index(served->info, asn_type(part.syntax));
  set_columns(*served);
  netsnmp_handler_registration *registration =
      netsnmp_create_handler_registration(table.name, answer_rows, root.data(), root.size(), HANDLER_CAN_RONLY);
  netsnmp_cache *cache = netsnmp_cache_create(kCacheSeconds, load, unload, root.data(), static_cast<int>(root.size()));
  if (registration == nullptr || cache == nullptr) throw std::runtime_error("no memory for an SNMP table");
  cache->magic = served.get();
  cache->flags =
      NETSNMP_CACHE_DONT_AUTO_RELEASE | NETSNMP_CACHE_DONT_FREE_EXPIRED | NETSNMP_CACHE_DONT_INVALIDATE_ON_SET;
  registration->handler->myvoid = served.get();
  netsnmp_mib_handler *rows =
      netsnmp_container_table_handler_get(served->info, served->rows, TABLE_CONTAINER_KEY_NETSNMP_INDEX);
  netsnmp_inject_handler(registration, rows);
  netsnmp_inject_handler(registration, netsnmp_cache_handler_get(cache));
  if (netsnmp_register_table(registration, served->info) != SNMPERR_SUCCESS)
    throw std::runtime_error(std::string(table.name) + " cannot be registered");
  tables_.push_back(std::move(served));
}

// Index objects have no values, so arcs between those of the columns may lead nowhere.
void Agent::set_columns(ServedTable &served) {
  for (const Column &column : served.table->values) served.arcs.push_back(column.arc);
  served.columns.list_count = static_cast<char>(served.arcs.size());
  served.columns.details.list = served.arcs.data();
  served.info->min_column = served.arcs.front();
  served.info->max_column = served.arcs.back();
  served.info->valid_columns = &served.columns;
}

int Agent::load(netsnmp_cache *cache, void *) {
  const auto *served = static_cast<const ServedTable *>(cache->magic);
  served->agent->fill(*served);
  return 0;
}

void Agent::unload(netsnmp_cache *cache, void *) {
  empty_container(static_cast<const ServedTable *>(cache->magic)->rows);
}

void Agent::fill(const ServedTable &served) {
  Collector collector(*served.table);
  for (bool more = true; more;)
    if (!MainThread::run(main_, [&] { more = collector.run_for(kSlice); })) return;
  uint32_t clock_now = 0;
  const auto read_clock = [&] { clock_now = static_cast<uint32_t>(ref::now() / std::chrono::milliseconds(10)); };
  if (!MainThread::run(main_, read_clock)) return;
  Collection collection = collector.take();
  if (!collection.complete)
    MainThread::log(main_, std::string("SNMP: ") + served.table->name +
                               " has more rows than are served: " + std::to_string(collection.rows.size()));
  empty_container(served.rows);
  for (Row &row : collection.rows) {
    auto added = std::make_unique<ServedRow>();
    added->oids.assign(row.index.begin(), row.index.end());
    added->index = {added->oids.size(), added->oids.data()};
    added->values = std::move(row.values);
    make_uptimes(*served.table, clock_now, &added->values);
    if (CONTAINER_INSERT(served.rows, added.get()) == 0) (void)added.release();
  }
}

int Agent::answer_rows(netsnmp_mib_handler *handler, netsnmp_handler_registration *, netsnmp_agent_request_info *info,
                       netsnmp_request_info *requests) {
  const auto *served = static_cast<const ServedTable *>(handler->myvoid);
  for (netsnmp_request_info *request = requests; request != nullptr; request = request->next) {
    if (request->processed) continue;
    const auto *row = static_cast<const ServedRow *>(netsnmp_container_table_row_extract(request));
    const netsnmp_table_request_info *place = netsnmp_extract_table_info(request);
    const Column *column = place != nullptr ? find_column(*served->table, place->colnum) : nullptr;
    const std::string *text = row != nullptr && column != nullptr ? find_value(row->values, column->element) : nullptr;
    if (text == nullptr || !set_value(request->requestvb, column->syntax, *text))
      netsnmp_set_request_error(info, request, row == nullptr ? SNMP_NOSUCHINSTANCE : SNMP_NOSUCHOBJECT);
  }
  return SNMP_ERR_NOERROR;
}

void Agent::serve_scalar(const Scalar &scalar) {
  const Oid root = object_oid(scalar.arc);
  scalars_.push_back(std::make_unique<ServedScalar>(ServedScalar{this, &scalar}));
  netsnmp_handler_registration *registration =
      netsnmp_create_handler_registration(scalar.name, answer_scalar, root.data(), root.size(), HANDLER_CAN_RONLY);
  if (registration == nullptr) throw std::runtime_error("no memory for an SNMP object");
  registration->handler->myvoid = scalars_.back().get();
  if (netsnmp_register_read_only_scalar(registration) != SNMPERR_SUCCESS)
    throw std::runtime_error(std::string(scalar.name) + " cannot be registered");
}

int Agent::answer_scalar(netsnmp_mib_handler *handler, netsnmp_handler_registration *, netsnmp_agent_request_info *info,
                         netsnmp_request_info *requests) {
  const auto *served = static_cast<const ServedScalar *>(handler->myvoid);
  std::optional<std::string> text;
  MainThread::run(served->agent->main_, [&] { text = read_scalar(*served->scalar); });
  for (netsnmp_request_info *request = requests; request != nullptr; request = request->next)
    if (!text || !set_value(request->requestvb, served->scalar->syntax, *text))
      netsnmp_set_request_error(info, request, SNMP_NOSUCHINSTANCE);
  return SNMP_ERR_NOERROR;
}

// ---------------------------------------------------------------------------------------------------- notifications

namespace {

Oid oid_under(std::span<const uint32_t> root, std::initializer_list<uint32_t> arcs) {
  Oid oids(root.begin(), root.end());
  oids.insert(oids.end(), arcs.begin(), arcs.end());
  return oids;
}

// Appends a variable with a value to a list; false when there is no memory or the value is not of its syntax.
bool append(netsnmp_variable_list **list, const Oid &name, cli_mib_syntax syntax, const std::string &text) {
  netsnmp_variable_list *added = snmp_varlist_add_variable(list, name.data(), name.size(), ASN_NULL, nullptr, 0);
  return added != nullptr && set_value(added, syntax, text);
}

}  // namespace

// The session of the subagent makes an AgentX Notify of it; without a session it goes nowhere. What the library says of
// each that fails would be a line each: the first is told, and how many it were at the end.
void Agent::notify(const Notification &notification, uint64_t stands_for) {
  static constexpr oid trap_name[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};  // snmpTrapOID.0
  const Oid value = oid_under(kNotifications, {notification.arc});
  netsnmp_variable_list *list = nullptr;
  bool whole = snmp_varlist_add_variable(&list, trap_name, OID_LENGTH(trap_name), ASN_OBJECT_ID, value.data(),
                                         value.size() * sizeof value[0]) != nullptr;
  for (const Notification::Object &object : notification.objects)
    whole = whole && append(&list, oid_under(kNotifyObjects, {object.arc, 0}), object.syntax, object.text);
  const bool sent = !whole || send(list);
  snmp_free_varbind(list);
  if (sent) return tell_lost(std::exchange(failed_, 0));
  if (failed_ == 0) MainThread::log(main_, "SNMP: notifications are lost: " + failure_);
  failed_ += stands_for;
}

// False: it failed, and failure_ says why.
bool Agent::send(netsnmp_variable_list *list) {
  sending_ = true;
  failure_.clear();
  send_v2trap(list);
  sending_ = false;
  return failure_.empty();
}

// Managers are told as well: what they know is out of date, and tables say how it is now.
void Agent::tell_lost(uint64_t count) {
  if (count == 0) return;
  MainThread::log(main_, "SNMP: the master takes notifications again; " + std::to_string(count) + " were lost");
  notify(lost_notification(count), count);
}

// ------------------------------------------------------------------------------------------------------------- loop

void Agent::arm() {
  ++*generation_;
  watched_.clear();
  timer_.cancel();
  int fd_count = 0, block = 1;
  timeval wait{};
  netsnmp_large_fd_set fds;
  netsnmp_large_fd_set_init(&fds, FD_SETSIZE);
  NETSNMP_LARGE_FD_ZERO(&fds);
  snmp_select_info2(&fd_count, &fds, &wait, &block);
  for (int fd = 0; fd < fd_count; fd++)
    if (NETSNMP_LARGE_FD_ISSET(fd, &fds) != 0) watch(fd);
  netsnmp_large_fd_set_cleanup(&fds);
  if (block == 0) set_timer(wait);
}

void Agent::watch(int fd) {
  const int duplicate = dup(fd);
  if (duplicate < 0) return;
  watched_.push_back(std::make_unique<Descriptor>(io_, duplicate));
  const auto wanted = [current = generation_, mine = *generation_] { return *current == mine; };
  watched_.back()->async_wait(Descriptor::wait_read, [this, fd, wanted](const boost::system::error_code &error) {
    if (!error && wanted()) work(fd);
  });
}

void Agent::set_timer(const timeval &wait) {
  timer_.expires_after(std::chrono::seconds(wait.tv_sec) + std::chrono::microseconds(wait.tv_usec));
  const auto wanted = [current = generation_, mine = *generation_] { return *current == mine; };
  timer_.async_wait([this, wanted](const boost::system::error_code &error) {
    if (!error && wanted()) work(-1);
  });
}

// ready_fd: what can be read; negative: a time has come.
void Agent::work(int ready_fd) {
  if (ready_fd >= 0) {
    netsnmp_large_fd_set fds;
    netsnmp_large_fd_set_init(&fds, FD_SETSIZE);
    NETSNMP_LARGE_FD_ZERO(&fds);
    NETSNMP_LARGE_FD_SET(ready_fd, &fds);
    snmp_read2(&fds);
    netsnmp_large_fd_set_cleanup(&fds);
  } else {
    snmp_timeout();
  }
  run_alarms();
  netsnmp_check_outstanding_agent_requests();
  arm();
}

}  // namespace host::snmp

// The agent library with the objects of the MIB, driven from an event loop. The library waits for its master wherever
// it likes to, so it has a thread of its own (agentx.h).
#ifndef HOST_SNMP_AGENT_H
#define HOST_SNMP_AGENT_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/snmp/main_thread.h"
#include "host/snmp/notification.h"
#include "host/snmp/tables.h"

namespace host::snmp {

// One in the life of a process: the agent library keeps state that outlasts its shutdown.
class Agent {
 public:
  // io: the event loop of the thread that constructs, to which everything here belongs. address: of the master.
  // retry_seconds: between attempts to reach one that is away, and between checks of one that is there. Throws
  // std::runtime_error.
  Agent(boost::asio::io_context &io, std::string address, std::shared_ptr<MainThread> main, int retry_seconds);
  ~Agent();
  Agent(const Agent &) = delete;
  Agent &operator=(const Agent &) = delete;

  // Tells managers, by way of the master. stands_for: how many are lost when it is.
  void notify(const Notification &notification, uint64_t stands_for = 1);
  // Tells log and managers that so many were lost; nothing when it is none.
  void tell_lost(uint64_t count);

 private:
  using Descriptor = boost::asio::posix::stream_descriptor;
  struct ServedTable {
    Agent *agent;
    const Table *table;
    netsnmp_container *rows;
    netsnmp_table_registration_info *info;
    std::vector<unsigned> arcs;  // of the columns that have values
    netsnmp_column_info columns;
  };
  struct ServedScalar {
    Agent *agent;
    const Scalar *scalar;
  };

  bool send(netsnmp_variable_list *list);
  void start_library(int retry_seconds);
  void set_options();
  static void set_intervals(int retry_seconds);
  void serve_table(const Table &table);
  void serve_scalar(const Scalar &scalar);

  static void set_columns(ServedTable &served);
  void fill(const ServedTable &served);
  static int load(netsnmp_cache *cache, void *magic);
  static void unload(netsnmp_cache *cache, void *magic);
  static int answer_rows(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
                         netsnmp_agent_request_info *info, netsnmp_request_info *requests);
  static int answer_scalar(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
                           netsnmp_agent_request_info *info, netsnmp_request_info *requests);
  static int take_message(int major, int minor, void *server, void *own);

  void arm();
  void watch(int fd);
  void set_timer(const timeval &wait);
  void work(int ready_fd);

  boost::asio::io_context &io_;
  boost::asio::steady_timer timer_;
  std::string address_;
  std::shared_ptr<MainThread> main_;
  bool sending_ = false;  // a notification: what the library says is
  std::string failure_;   // why it failed
  uint64_t failed_ = 0;   // since one was sent
  std::vector<std::unique_ptr<ServedTable>> tables_;
  std::vector<std::unique_ptr<ServedScalar>> scalars_;
  std::vector<std::unique_ptr<Descriptor>> watched_;
  // Waits that were set before the latest arm are void, also when they are queued already.
  std::shared_ptr<uint64_t> generation_ = std::make_shared<uint64_t>(0);
};

}  // namespace host::snmp

#endif  // HOST_SNMP_AGENT_H

// AgentX subagent: serves the MVPN objects to network managers through a master agent.
//
// It works on a thread of its own: the agent library waits for the master wherever it likes to, and a master that hangs
// must not hold up the main loop. Only what it asks of the module runs there, in short parts.
#ifndef HOST_SNMP_AGENTX_H
#define HOST_SNMP_AGENTX_H

#include <boost/asio/io_context.hpp>
#include <memory>
#include <string>

#include "host/snmp/main_thread.h"
#include "host/snmp/notification.h"

namespace host::snmp {

// One in the life of a process: the agent library keeps state that outlasts its shutdown. Throws std::runtime_error.
class AgentX {
 public:
  using InTurn = MainThread::InTurn;
  using Log = MainThread::Log;
  struct Options {
    int retry_seconds = 10;  // between attempts to reach a master that is away, and between checks of one that is there
  };

  // main: the event loop of the thread that constructs; log and in_turn are called from it. in_turn runs a function
  // with the scheduling locks, before it returns. address: of the master, as "unix:/run/agentx.sock" or
  // "tcp:127.0.0.1:705"; a master that is away is tried again for ever.
  AgentX(boost::asio::io_context &main, std::string address, InTurn in_turn, Log log);
  AgentX(boost::asio::io_context &main, std::string address, InTurn in_turn, Log log, Options options);
  // Withdraws the objects from the master, unless it hangs: then the thread is left to itself, which does nothing more,
  // and the process should end.
  ~AgentX();

  // Tells managers of something, by way of the master; on the thread that constructs. Returns at once. It is lost while
  // the master is away, and when more than kMostWaiting wait for one that is slow; the log says when that begins, and
  // log and managers are told how many were lost when it ends.
  static constexpr size_t kMostWaiting = 1000;
  void notify(Notification notification);

  AgentX(const AgentX &) = delete;
  AgentX &operator=(const AgentX &) = delete;

 private:
  class Worker;
  std::unique_ptr<Worker> worker_;
};

}  // namespace host::snmp

#endif  // HOST_SNMP_AGENTX_H

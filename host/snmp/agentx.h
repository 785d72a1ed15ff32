// AgentX subagent: serves the MVPN objects to network managers through a master agent.
#ifndef HOST_SNMP_AGENTX_H
#define HOST_SNMP_AGENTX_H

#include <boost/asio/io_context.hpp>
#include <functional>
#include <memory>
#include <string>

namespace host::snmp {

// One in the life of a process: the agent library keeps state that outlasts its shutdown. Throws std::runtime_error.
class AgentX {
 public:
  using InTurn = std::function<void(std::function<void()>)>;
  using Log = std::function<void(const std::string &)>;
  struct Options {
    int retry_seconds = 10;  // between attempts to reach a master that is away, and between checks of one that is there
  };

  // address: of the master, as "unix:/run/agentx.sock" or "tcp:127.0.0.1:705". in_turn runs a function on this thread
  // with the scheduling locks, before it returns. Serves from the event loop, which runs on the thread that constructs;
  // a master that is away is tried again for ever.
  AgentX(boost::asio::io_context &io, std::string address, InTurn in_turn, Log log);
  AgentX(boost::asio::io_context &io, std::string address, InTurn in_turn, Log log, Options options);
  ~AgentX();
  AgentX(const AgentX &) = delete;
  AgentX &operator=(const AgentX &) = delete;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace host::snmp

#endif  // HOST_SNMP_AGENTX_H

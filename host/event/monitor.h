// `monitor`: changes as they happen, to every client that asked for them, until it goes.
//
// A client that reads slower than changes come misses some, and is told how many before the next one that it gets.
#ifndef HOST_EVENT_MONITOR_H
#define HOST_EVENT_MONITOR_H

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "host/command/command_line.h"
#include "host/event/change.h"

namespace host {

class Monitor {
 public:
  // hostname: of the router, as documents have it.
  Monitor(EventBus &bus, std::function<std::string()> hostname);

  // Serves a client: a line for each change, or a JSON document in a line. Not as XML; the client is told so.
  void serve(CommandLine line, const std::shared_ptr<OutputChannel> &channel);

 private:
  struct Client {
    std::shared_ptr<OutputChannel> channel;
    OutputFormat format;
    std::unique_ptr<output::Writer> text;  // with the client's filters; writes to the channel
    uint64_t missed = 0;                   // since it was told last
  };
  void tell(const Change &change);
  void tell(Client &client, const Change &change) const;

  std::function<std::string()> hostname_;
  std::list<Client> clients_;
  EventBus::Subscription subscription_;
};

}  // namespace host

#endif  // HOST_EVENT_MONITOR_H

// Clients that watch. A channel that is full gets nothing until there is room again, since publishing must not wait; a
// client that has gone is noticed at the next change and dropped.
#include "host/event/monitor.h"

#include <chrono>
#include <utility>

#include "host/event/change_view.h"
#include "host/output/wall_time.h"

namespace host {
namespace {

std::string missed_text(uint64_t missed) {
  return output::wall_time(std::chrono::system_clock::now()) + " " + std::to_string(missed) +
         " changes were missed: they came faster than they were read\n";
}

}  // namespace

Monitor::Monitor(EventBus &bus, std::function<std::string()> hostname)
    : hostname_(std::move(hostname)), subscription_(bus.subscribe([this](const Change &change) { tell(change); })) {}

void Monitor::serve(CommandLine line, const std::shared_ptr<OutputChannel> &channel) {
  if (line.format != OutputFormat::text && line.format != OutputFormat::json_line)
    return refuse(line, kStatusFailed, "monitor writes lines of text, or of JSON\n", *channel);
  if (line.filters.count)
    return refuse(line, kStatusFailed, "monitor has no end at which lines could be counted\n", *channel);
  std::erase_if(clients_, [](const Client &client) { return !client.channel->wanted(); });
  const OutputFormat format = std::exchange(line.format, OutputFormat::text);
  channel->goes_on();
  clients_.push_back({channel, format, writer_for(line, *channel)});
}

void Monitor::tell(const Change &change) {
  std::erase_if(clients_, [](const Client &client) { return !client.channel->wanted(); });
  for (Client &client : clients_) tell(client, change);
}

void Monitor::tell(Client &client, const Change &change) const {
  if (client.channel->full()) {
    client.missed++;
    return;
  }
  const bool json = client.format == OutputFormat::json_line;
  if (client.missed > 0)
    client.channel->output(json ? missed_document(hostname_(), client.missed) : missed_text(client.missed));
  client.missed = 0;
  if (json)
    client.channel->output(document_of(hostname_(), change));
  else
    client.text->text(output::wall_time(change.when) + " " + std::string(name_of(change.level)) + " " +
                      text_of(change) + "\n");
}

}  // namespace host

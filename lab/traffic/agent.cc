// The agent's loop, in one thread: it sends what is due, takes what has arrived, and serves requests between. Times of
// arrival are the system's and not the loop's, so that a long answer delays no measurement; what the loop sends late is
// sent late for all to see.
//
// Called from the program's main with "agent"; the lab holds the other ends of the two pipes.
#include "lab/traffic/agent.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "lab/traffic/capture.h"
#include "lab/traffic/receiver.h"
#include "lab/traffic/sender.h"

namespace traffic {
namespace {

using nlohmann::json;

// A request is shorter; an input without line ends is not kept for ever.
constexpr size_t kLongestRequest = 1 << 20;

FlowAddress address_in(const json &request) {
  const std::string source = request.value("source", std::string());
  return FlowAddress{.source = source.empty() ? 0 : address_of(source),
                     .group = address_of(request.at("group").get<std::string>()),
                     .port = request.value("port", kDefaultPort)};
}

json series_of(const std::map<int64_t, uint32_t> &series) {
  json result = json::array();
  for (const auto &[bucket, packets] : series) result.push_back({bucket, packets});
  return result;
}

class Agent {
 public:
  void run();

 private:
  void read_input();
  void serve(const std::string &line);
  json answer(const json &request);
  json act(const std::string &what, const json &request);
  json stretch(const json &request) const;
  json carried(const json &request);
  json carried_item(const Capture::Key &key, const Carried &item, const json &request) const;

  Sender sender_;
  Receiver receiver_;
  Capture capture_;
  std::string input_;
  bool ended_ = false;
};

void Agent::run() {
  while (!ended_) {
    const int64_t idle_ns = sender_.send_due();
    std::vector<pollfd> waiting{{STDIN_FILENO, POLLIN, 0}};
    for (const int fd : receiver_.descriptors()) waiting.push_back({fd, POLLIN, 0});
    const size_t captures_at = waiting.size();
    for (const int fd : capture_.descriptors()) waiting.push_back({fd, POLLIN, 0});
    const timespec limit{idle_ns / 1'000'000'000, idle_ns % 1'000'000'000};
    if (ppoll(waiting.data(), waiting.size(), &limit, nullptr) <= 0) continue;
    for (size_t i = 1; i < waiting.size(); ++i) {
      if (waiting[i].revents == 0) continue;
      if (i < captures_at)
        receiver_.read(waiting[i].fd);
      else
        capture_.read(waiting[i].fd);
    }
    if (waiting[0].revents != 0) read_input();
  }
  capture_.flush();
}

void Agent::read_input() {
  std::array<char, 4096> part;
  const ssize_t n = read(STDIN_FILENO, part.data(), part.size());
  if (n < 0 && errno == EINTR) return;
  if (n <= 0 || input_.size() > kLongestRequest) {
    ended_ = true;
    return;
  }
  input_.append(part.data(), static_cast<size_t>(n));
  for (size_t end = input_.find('\n'); end != std::string::npos; end = input_.find('\n')) {
    serve(input_.substr(0, end));
    input_.erase(0, end + 1);
  }
}

void Agent::serve(const std::string &line) {
  json reply;
  try {
    reply = answer(json::parse(line));
    reply["ok"] = true;
  } catch (const std::exception &error) {
    reply = {{"ok", false}, {"error", error.what()}};
  }
  const std::string text = reply.dump() + '\n';
  for (size_t written = 0; written < text.size();) {
    const ssize_t n = write(STDOUT_FILENO, text.data() + written, text.size() - written);
    if (n < 0 && errno != EINTR) {
      ended_ = true;
      return;
    }
    if (n > 0) written += static_cast<size_t>(n);
  }
}

json Agent::answer(const json &request) {
  const auto what = request.at("do").get<std::string>();
  if (what == "sent") {
    const Sender::Sent &sent = sender_.sent(request.at("flow"));
    return {{"last", sent.last}, {"errors", sent.errors}};
  }
  if (what == "stretch") return stretch(request);
  if (what == "sent-series") return {{"series", series_of(sender_.sent(request.at("flow")).series)}};
  if (what == "received-series") return {{"series", series_of(receiver_.flow(request.at("flow")).tally.series())}};
  if (what == "carried") return carried(request);
  return act(what, request);
}

json Agent::act(const std::string &what, const json &request) {
  if (what == "send") {
    sender_.add(request.at("flow"), address_in(request), request.at("rate"), request.at("size"));
  } else if (what == "rate") {
    sender_.set_rate(request.at("flow"), request.at("rate"));
  } else if (what == "join") {
    receiver_.join(request.at("flow"), address_in(request), request.at("interface"));
  } else if (what == "leave") {
    receiver_.leave(request.at("flow"));
  } else if (what == "watch") {
    if (request.contains("write")) capture_.write(request["write"]);
    for (const json &interface : request.at("interfaces")) capture_.watch(interface);
  } else {
    throw std::runtime_error("'" + what + "' is not known here");
  }
  return json::object();
}

json Agent::stretch(const json &request) const {
  const Receiver::Flow &flow = receiver_.flow(request.at("flow"));
  const Stretch stretch = flow.tally.stretch(request.at("from"), request.at("to"));
  return {{"received", stretch.received},     {"lost", stretch.lost},
          {"duplicates", stretch.duplicates}, {"reordered", stretch.reordered},
          {"gap_ns", stretch.longest_gap_ns}, {"missing", stretch.missing},
          {"first", flow.tally.first()},      {"highest", flow.tally.highest()},
          {"beyond", flow.tally.beyond()},    {"foreign", flow.foreign},
          {"dropped_here", flow.dropped}};
}

json Agent::carried(const json &request) {
  for (const int fd : capture_.descriptors()) capture_.read(fd);
  capture_.flush();
  const std::string interface = request.value("interface", std::string());
  json list = json::array();
  for (const auto &[key, item] : capture_.carried())
    if (interface.empty() || key.interface == interface) list.push_back(carried_item(key, item, request));
  return {{"carried", list}, {"malformed", capture_.malformed()}, {"dropped_here", capture_.dropped()}};
}

json Agent::carried_item(const Capture::Key &key, const Carried &item, const json &request) const {
  json result{{"interface", key.interface},  {"direction", key.direction == Direction::in ? "in" : "out"},
              {"group", text_of(key.group)}, {"flow", key.flow},
              {"packets", item.packets},     {"bytes", item.bytes},
              {"repeated", item.repeated}};
  if (request.value("numbers", false)) result["numbers"] = item.numbers;
  if (request.value("series", false)) result["series"] = series_of(item.series);
  return result;
}

}  // namespace

void run_agent() { Agent().run(); }

}  // namespace traffic

// BGP as a program runs it: a speaker with its sockets, following the configuration.
#ifndef HOST_BGP_BGP_SERVICE_H
#define HOST_BGP_BGP_SERVICE_H

#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "bgp/asio/asio_transport.h"
#include "host/bgp/large_pages.h"
#include "host/config/bgp_settings.h"
#include "host/event/change.h"

namespace host {

class BgpService final : bgp::Observer {
 public:
  struct Callbacks {
    bgp::AsioTransport::Enter enter;  // around everything that happens from the event loop
    // As bgp::Observer has them; empty: nobody wants to know.
    std::function<void(std::span<const bgp::BestChange>)> best_changed = {};
    std::function<size_t()> best_batch = {};
    std::function<void(bgp::Ipv4 neighbor)> end_of_rib = {};
    std::function<void()> began = {};     // there is a speaker, without routes
    std::function<void()> ends = {};      // there will be none any more, nor any of its routes
    std::function<void(Change)> changed;  // sessions
    LogLine log;                          // never empty; lines begin with "BGP"
  };

  // restarting: the process starts anew and its forwarding state was preserved. Its neighbours hear of no end of its
  // routes before complete(), or before the restart's time is over: with that mark they forget what they have kept and
  // not heard again.
  BgpService(boost::asio::io_context &io, Callbacks callbacks, bool restarting = false);
  ~BgpService() override;

  // Becomes what a configuration says; nothing: no speaker. Neighbours that stay as they are notice nothing.
  void follow(const std::optional<BgpSettings> &settings);
  void complete();
  bool awaits_local() const { return awaits_local_; }

  // Why there is nothing to show or do for the address that a command names. Empty: there is, or it names none.
  std::string missing_neighbor(const Statement &statement) const;
  // `clear bgp neighbor`. Empty: done; else why not.
  std::string clear(const Statement &statement);

  // Tells every neighbour that this router goes, with these words. Nothing begins again.
  void stop(const std::string &words);
  // Calls `then` once, at once or later in the event loop: when what was sent to the neighbours has been delivered, and
  // in two seconds when it has not. For the end of a program.
  void when_delivered(const std::function<void()> &then);

  // Null while there is none.
  bgp::Speaker *speaker() { return speaker_.get(); }
  const bgp::Speaker *speaker() const { return speaker_.get(); }
  // Where connections are accepted, or why they are not.
  const std::string &listening() const { return listening_; }
  bgp::Time now() const { return bgp::AsioTransport::time(); }

 private:
  void best_changed(std::span<const bgp::BestChange> changes) override;
  size_t best_batch() const override;
  void session_changed(bgp::Ipv4 neighbor, bgp::State from, bgp::State to, std::string_view reason) override;
  void end_of_rib(bgp::Ipv4 neighbor) override;
  void log(bgp::LogLevel level, std::string_view line) override;

  void begin(const BgpSettings &settings);
  void end();
  void listen();
  void set_neighbors(const BgpSettings &settings);
  void await_delivery(std::chrono::steady_clock::time_point limit, const std::function<void()> &then);

  Callbacks callbacks_;
  bgp::AsioTransport transport_;
  boost::asio::steady_timer listen_retry_;
  boost::asio::steady_timer farewell_;
  bool restarting_;  // of the first speaker only
  bool awaits_local_;
  std::optional<BgpSettings> settings_;
  std::string listening_;
  std::map<bgp::Ipv4, std::string> failures_;  // that were logged last
  LargePages memory_;                          // of its tables
  std::unique_ptr<bgp::Speaker> speaker_;
};

}  // namespace host

#endif  // HOST_BGP_BGP_SERVICE_H

// A PE's side of the link to the MDT SAFI route reflector.
#ifndef HOST_REFLECTOR_REFLECTOR_LINK_H
#define HOST_REFLECTOR_REFLECTOR_LINK_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "reflector/safi_connection.h"

namespace safi {

// Keeps a connection to the reflector, with a back-off between attempts. When the connection is lost every entry that
// was learnt over it is withdrawn, as a BGP speaker does; the whole set comes again with the next connection.
class ReflectorLink {
 public:
  struct Callbacks {
    std::function<std::vector<Entry>()> local_entries;         // what this PE advertises now
    std::function<void(const std::vector<Change> &)> changes;  // of other PEs
    std::function<void()> end_of_rib;
    std::function<void(const std::string &)> log;
  };

  ReflectorLink(boost::asio::io_context &io, boost::asio::ip::tcp::endpoint reflector, std::string name,
                Callbacks callbacks);
  ~ReflectorLink();

  // This PE advertises or withdraws an entry.
  void local_change(const Entry &entry, bool add);

  bool connected() const { return connection_ != nullptr; }
  size_t learnt() const { return learnt_.size(); }
  boost::asio::ip::tcp::endpoint reflector() const { return reflector_; }

 private:
  void connect();
  void connected_to(boost::asio::ip::tcp::socket socket);
  void retry(const std::string &reason);
  void receive(const Message &message);
  void lost(const std::string &reason);

  static constexpr std::chrono::milliseconds kFirstRetry{200};
  static constexpr std::chrono::milliseconds kLastRetry{10000};

  boost::asio::io_context &io_;
  boost::asio::ip::tcp::endpoint reflector_;
  std::string name_;
  Callbacks callbacks_;
  boost::asio::steady_timer retry_timer_;
  std::chrono::milliseconds retry_ = kFirstRetry;
  std::string failure_;  // said last; empty: connected since
  std::shared_ptr<boost::asio::ip::tcp::socket> connecting_;
  std::shared_ptr<Connection> connection_;  // null while not connected
  std::set<Entry> learnt_;
  // Completions that are queued when the link is destroyed find this gone.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace safi

#endif  // HOST_REFLECTOR_REFLECTOR_LINK_H

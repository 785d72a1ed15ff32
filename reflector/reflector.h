// The route reflector: gives every PE the MDT SAFI entries of all others.
#ifndef HOST_REFLECTOR_REFLECTOR_H
#define HOST_REFLECTOR_REFLECTOR_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "reflector/safi_connection.h"

namespace safi {

// A PE is known by the name in its hello; a second connection of a name takes the place of the first. An entry that
// several PEs advertise is withdrawn when the last of them withdraws it.
class Reflector {
 public:
  using Log = std::function<void(const std::string &)>;

  Reflector(boost::asio::io_context &io, const boost::asio::ip::tcp::endpoint &listen, Log log);

  uint16_t port() const { return acceptor_.local_endpoint().port(); }

 private:
  static constexpr size_t kMaxPeers = 256;
  static constexpr size_t kMaxEntriesPerPeer = 200000;

  struct Peer {
    uint64_t number = 0;  // tells connections of one name apart
    std::shared_ptr<Connection> connection;
    std::string name;  // empty until its hello
    std::set<Entry> entries;
  };

  void accept();
  void add_peer(boost::asio::ip::tcp::socket socket);
  void receive(uint64_t number, const Message &message);
  void greet(Peer &peer, const Hello &hello);
  void take_update(Peer &peer, const Update &update);
  // Records one change; true when the other PEs must hear of it.
  bool apply(Peer &peer, const Change &change);
  void drop_peer(uint64_t number, const std::string &reason);
  void tell_others(uint64_t number, const std::vector<Change> &changes);

  boost::asio::ip::tcp::acceptor acceptor_;
  Log log_;
  uint64_t next_number_ = 1;
  std::map<uint64_t, Peer> peers_;
  std::map<Entry, unsigned> advertisers_;  // how many PEs advertise each entry
};

}  // namespace safi

#endif  // HOST_REFLECTOR_REFLECTOR_H

// One BGP neighbour that announces the routes of many PEs, for scripts/bench-bgp: a speaker of the library, with
// sockets.
//
//   bench_bgp_feeder ADDRESS REFLECTOR PORT VRFS PES
//
// Each PE's VRFs share its next hop, so that they can share messages, as a reflector of another cluster would send
// them. It says "established" and "sent MESSAGES OCTETS" on its output, once each, stays until its input ends, and
// takes leave.
#include <arpa/inet.h>
#include <unistd.h>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <cstdio>
#include <cstdlib>

#include "bgp/asio/asio_transport.h"

namespace {

constexpr bgp::AsNumber kAs = 65000;
constexpr bgp::Ipv4 kFirstPe = 0x0B000000, kFirstGroup = 0xEF010000;

bgp::Ipv4 address_of(const char *text) {
  in_addr address;
  if (inet_pton(AF_INET, text, &address) == 1) return ntohl(address.s_addr);
  std::fprintf(stderr, "bench_bgp_feeder: %s is not an IPv4 address\n", text);
  std::exit(2);
}

uint32_t number_of(const char *text) { return static_cast<uint32_t>(std::strtoul(text, nullptr, 10)); }

class Feeder : bgp::Observer {
 public:
  Feeder(bgp::Ipv4 own, bgp::Ipv4 reflector, uint16_t port)
      : reflector_(reflector),
        transport_(io_, [](const std::function<void()> &work) { work(); }),
        speaker_({.local_as = kAs, .router_id = own}, transport_, transport_, *this),
        input_(io_, ::dup(STDIN_FILENO)),
        look_(io_) {
    transport_.attach(&speaker_);
    bgp::NeighborConfig neighbor{.address = reflector, .remote_as = kAs, .port = port};
    neighbor.local_address = own;
    neighbor.connect_retry = 1;
    speaker_.set_neighbor(neighbor);
  }
  ~Feeder() override { transport_.attach(nullptr); }

  void originate(uint32_t vrfs, uint32_t pes) {
    for (uint32_t pe = 0; pe < pes; pe++)
      for (uint32_t vrf = 0; vrf < vrfs; vrf++) {
        const bgp::Rd rd{0, 0, kAs >> 8, kAs & 0xFF, 0, 0, static_cast<uint8_t>(vrf >> 8), static_cast<uint8_t>(vrf)};
        speaker_.originate({{rd, kFirstPe + pe}, kFirstGroup + vrf}, kFirstPe + pe);
      }
  }

  void run() {
    wait_for_end();
    look();
    io_.run();
  }

 private:
  void session_changed(bgp::Ipv4, bgp::State, bgp::State to, std::string_view) override {
    if (to != bgp::State::established) return;
    std::puts("established");
    std::fflush(stdout);
  }

  void look() {
    const auto view = speaker_.neighbor(reflector_);
    if (view && view->end_of_rib_sent && view->output_pending == 0) {
      std::printf("sent %llu %llu\n", static_cast<unsigned long long>(view->out.update),
                  static_cast<unsigned long long>(view->out.octets));
      std::fflush(stdout);
      return;
    }
    look_.expires_after(std::chrono::milliseconds(5));
    look_.async_wait([this](const boost::system::error_code &error) {
      if (!error) look();
    });
  }

  void wait_for_end() {
    input_.async_wait(boost::asio::posix::stream_descriptor::wait_read, [this](const boost::system::error_code &) {
      look_.cancel();
      speaker_.stop(bgp::StopKind::shutdown);
      speaker_.run();
      io_.stop();
    });
  }

  bgp::Ipv4 reflector_;
  boost::asio::io_context io_;
  bgp::AsioTransport transport_;
  bgp::Speaker speaker_;
  boost::asio::posix::stream_descriptor input_;
  boost::asio::steady_timer look_;
};

}  // namespace

int main(int count, char **arguments) {
  if (count != 6) {
    std::fprintf(stderr, "usage: bench_bgp_feeder ADDRESS REFLECTOR PORT VRFS PES\n");
    return 2;
  }
  Feeder feeder(address_of(arguments[1]), address_of(arguments[2]), static_cast<uint16_t>(number_of(arguments[3])));
  feeder.originate(number_of(arguments[4]), number_of(arguments[5]));
  feeder.run();
  return 0;
}

// Builds the network of a real scenario out of namespaces, Ethernet pairs, a bridge, and the routing daemons that stand
// for the customers' (and in a routed core the provider's) routers: zebra, staticd and pimd of the frr package, a set
// for each VRF, in folders of the run, so that none of the machine's own is touched.
//
// Traps. A fresh bridge floods every group until its querier's response interval has passed, which is set short before
// the querier is switched on. A namespace whose tunnel somebody else holds open outlives its name: the link to the
// customer is deleted at the customer's end, where a bridge keeps the customer's interface and memberships.
#ifndef LAB_STAGE_H
#define LAB_STAGE_H

#include <array>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "lab/namespaces.h"
#include "lab/network.h"
#include "lab/process.h"

namespace lab {

class Stage {
 public:
  // project: the folder that templates are relative to. work: the run's folder.
  Stage(const Network &network, std::string prefix, std::string project, std::string work);

  // Makes everything, daemons included. Throws std::runtime_error.
  void build();

  // These throw std::runtime_error with what a program said, too.
  void add_vrf(const std::string &pe, const std::string &vrf);
  void remove_vrf(const std::string &pe, const std::string &vrf);
  void set_link(const std::string &pe, bool up);
  // Both directions of the PE's core link: netem's arguments, for kernels that have it, and packets that are dropped at
  // random, in percent. Nothing and 0: the link is as it was. Throw std::runtime_error.
  void impair(const std::string &pe, const std::string &netem);
  void lose(const std::string &pe, double percent);

  // The texts of configuration files: a PE's, the reflector's.
  std::string configuration(const std::string &pe, const std::string &forwarder_socket) const;
  std::string reflector_configuration() const;

  // Runs a shell command in a place as scenarios name it. $VTYSH in it asks the daemons of the place.
  Result shell(const std::string &place, const std::string &command) const;

  const Network &network() const { return network_; }
  const Namespaces &namespaces() const { return namespaces_; }

 private:
  std::array<std::pair<std::string, std::string>, 2> link_ends(const std::string &pe) const;  // namespace, interface
  void in_or_throw(const std::string &place, const std::string &command) const;
  void build_bridge();
  void build_routers();
  void add_router(const std::string &name, const std::string &other);
  void add_pe(const NetworkPe &pe);
  void add_customer(const NetworkPe &pe, const NetworkVrf &vrf);
  void add_wires();
  void connect_vrf(const NetworkPe &pe, const std::string &place);
  void write_vrf_daemons(const NetworkPe &pe, const NetworkVrf &vrf, const std::string &place);
  void write_daemon_file(const std::string &place, const std::string &daemon, const std::string &text) const;
  void start_daemons(const std::vector<std::string> &places);
  std::string daemon_folder(const std::string &place) const { return work_ + "/frr/" + place; }
  std::string template_file(const std::string &name) const { return project_ + "/lab/templates/" + name; }

  const Network &network_;
  Namespaces namespaces_;
  std::string project_;
  std::string work_;
  std::map<std::string, std::vector<Process>> daemons_;  // by namespace
};

// Why the routing daemons cannot be started here; empty when they can.
std::string why_no_daemons();

}  // namespace lab

#endif  // LAB_STAGE_H

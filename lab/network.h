// The network of a real scenario: a provider core, PEs, VRFs with a customer's site behind each PE, and flows. Names
// and addresses follow from the numbers of PEs and VRFs, so that a scenario says only what is its own:
//
//   "network": {
//     "core": "bridge",                       one link that snoops IGMP, with a querier ("routed": two P routers)
//     "tunnels": "wired",                     a wire in place of the VRFs' tunnels, to try a lab without any MVPN in it
//     "pes": 4,                               pe1 to pe4; or ["pe1", …]
//     "vrfs": {                               or a number: v1, v2, …, each on every PE
//       "red": {"pes": ["pe1", "pe2"],        every PE unless given
//               "data": "239.1.8.0/24",       data-MDT range, this one unless given (the last byte counts on with the VRF)
//               "threshold": 100,             kbit/s
//               "lines": ["mdt mtu 1400"]}    further lines of the VRF's block
//     },
//     "template": "lab/templates/pe.conf",    of a PE's configuration, this one unless given
//     "lines": {"pe1": ["…"]},                further lines of a PE's configuration
//     "flows": {
//       "video": {"vrf": "red", "from": "pe1", "to": ["pe2"], "group": "232.1.1.1", "size": 200}
//     }
//   }
//
// "flows" may also be {"each": {"vrf": "*", …}}: '*' makes one flow for each VRF, named NAME-VRF.
//
//   place                 namespace            interfaces
//   core link             core                 br0 10.0.0.254/24, one port a PE, named after it
//   P routers             p1, p2               lo 10.0.0.254 (p1), one a PE, "p" between them
//   PE N                  peN                  core 10.0.0.N/24 (bridge) or 10.0.N.2/24 (routed); core2 10.0.0.(100+N)/24 (bridge)
//   VRF R of PE N         peN-R                lan 192.168.N.1/24, and the tunnel mtiT, T being the VRF's number + 1
//   customer of R at PE N peN-R-h              eth0 192.168.N.10/24
//
// Every VRF uses the same customer addresses: that is what VRFs are for.
#ifndef LAB_NETWORK_H
#define LAB_NETWORK_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace lab {

struct NetworkVrf {
  std::string name;                // 1 to 12 small letters and digits; part of namespaces' and files' names
  int number = 0;                  // from 1, in the order of the file
  std::vector<std::string> pes;    // names of the PEs that have it
  std::string default_group;       // 239.1.1.NUMBER
  std::string data_range;          // prefix of provider groups: A.B.C.D/LENGTH
  int threshold = 100;             // kbit/s
  std::vector<std::string> lines;  // further lines of its block in the PEs' configurations

  int table() const { return number + 1; }  // context and table: 1 is the default VRF's
  std::string tunnel() const { return "mti" + std::to_string(table()); }
};

struct NetworkPe {
  std::string name;                // as a VRF's
  int number = 0;                  // from 1, in the order of the file; the last byte of its core address
  std::vector<std::string> lines;  // further lines of its configuration
};

struct NetworkFlow {
  std::string name;             // with "each": NAME-VRF
  uint32_t number = 0;          // from 1; test packets carry it
  std::string vrf;              // name of a VRF that the sending PE has
  std::string from;             // PE that the source is behind
  std::vector<std::string> to;  // PEs that receivers may be behind; never the sending one
  std::string group;            // the customer's, in dotted form
  size_t size = 200;            // bytes of UDP payload
};

struct Network {
  bool routed = false;          // two P routers; false: a bridge
  bool wired = false;           // Ethernet links in place of tunnels
  std::string config_template;  // file of the template of a PE's configuration, relative to the project
  // In the order of the file: number - 1 is the index.
  std::vector<NetworkPe> pes;
  std::vector<NetworkVrf> vrfs;
  std::vector<NetworkFlow> flows;

  const NetworkPe &pe(const std::string &name) const;    // These three throw std::runtime_error for a name that
  const NetworkVrf &vrf(const std::string &name) const;  // is not there.
  const NetworkFlow &flow(const std::string &name) const;
  bool has(const std::string &pe, const std::string &vrf) const;

  std::string core_address(const NetworkPe &pe) const;
  std::string core_namespace(const NetworkPe &pe) const;  // of the other end of the PE's core link
  std::vector<std::string> core_namespaces() const;
  static std::string site(const NetworkPe &pe) { return "192.168." + std::to_string(pe.number) + "."; }
  static std::string source(const NetworkPe &pe) { return site(pe) + "10"; }

  // The namespace of a place as scenarios write it: "core", "p1", "pe1", "pe1/red", "pe1/red/host".
  std::string namespace_of(const std::string &place) const;
};

constexpr char kReflectorAddress[] = "10.0.0.254";

// Reads a scenario's "network". Throws std::runtime_error that says what is wrong.
Network read_network(const nlohmann::ordered_json &object);

}  // namespace lab

#endif  // LAB_NETWORK_H

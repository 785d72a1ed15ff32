// Scenario files: what a lab run does, in JSON with // comments.
//
//   {
//     "name": "…",                       one line for people
//     "clock_scale": 60,                 platform seconds per second, optional (1)
//     "pes": {"pe1": {"config": "examples/pe1.conf"}},   relative to the scenario's project root, or the lines: ["…", …]
//     "reflector": "examples/reflector.conf",   optional: runs mdt-reflector with this configuration
//     "network": { … },                  in place of "pes" and "reflector": namespaces and packets (network.h)
//     "steps": [ … ]
//   }
//
// A step is an object with one of these keys; "why" may stand beside any of them. "all" in place of a PE is every PE,
// one after the other; with a flow, every PE that it goes to. "*" in place of a flow is every flow.
//   "say": "text"                                     prints a heading
//   "start": "pe1", "restart": "stateful"             starts a PE (stateful: optional)
//   "stop": "pe1"                                     SIGTERM, waits; the exit status must be 0
//   "kill": "pe1"                                     SIGKILL
//   "on": "pe1", "command": "show …" or ["…", …]      runs pimctl; "print": true shows its output; "on": "reflector"
//                                                     asks the reflector
//   "on": "pe1", "expect": "…", "command": "show …", "matches": "regex", "within": 10
//                                                     repeats the command until its output matches ("absent": true:
//                                                     does not match), at most `within` real seconds; the last output
//                                                     is what happened. "times": n matches exactly n times.
//   "wait": 3                                         platform seconds
//
// With a network:
//   "start", "stop", "kill": "pe1", "part": "forwarder"   the forwarder instead of the control plane, which is started
//                                                     with its PE the first time
//   "in": "pe1/red", "command": …, "expect": …        as "on", but a shell command in a namespace: core, p1, pe1, pe1/red,
//                                                     pe1/red/host; "$VTYSH -c '…'" asks its routing daemons; the
//                                                     lab's own programs are found by name
//   "mark": "text"                                    a heading; what follows judges what is sent from here on
//   "flow": "video", "rate": 200                      packets a second; the first rate starts the flow
//   "flow": "video", "join": "pe2"                    (or "leave") a receiver behind the PE
//   "flow": "video", "at": "pe2", "expect": "…"       waits for a packet that is sent from now on ("within")
//   "flow": "video", "at": "pe2", "expect": "…", "lost": 0, "duplicates": 0
//                                                     at most so many since the mark, whichever of the two are given
//   "link": "pe2", "groups": "239.1.8.0/24", "packets": 0, "expect": "…"
//                                                     GRE packets since the mark over the PE's core link to it
//                                                     ("from": true: from it); or "at_least": n, within so many seconds
//   "memory": "pe1", "part": "forwarder", "expect": "…", "grows_at_most": 1024
//                                                     KiB that the process takes more than at the mark
//   "link": "pe2", "set": "down" or "up"              the core link
//   "link": "pe2", "lose": 2.5                        percent of the packets, at random, both ways; 0 ends that
//   "link": "pe2", "netem": "delay 20ms"              impairs it with tc's netem, both ways; "" ends that. Not every
//                                                     kernel has it
//   "vrf": "red", "of": "pe1", "set": "absent" or "present"   the VRF's namespace goes with all that is in it, or comes
#ifndef LAB_SCENARIO_H
#define LAB_SCENARIO_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lab/network.h"

namespace lab {

struct Step {
  enum class Kind {
    say,
    start,
    stop,
    kill,
    command,
    expect,
    wait,
    mark,
    rate,
    join,
    leave,
    arrive,
    judge,
    carried,
    memory,
    set_link,
    impair,
    lose,
    set_vrf
  };
  Kind kind = Kind::say;               // tells which of the fields below count; the others keep these values
  std::string text;                    // say, mark: heading; whoever expects: what; impair: netem's arguments
  std::string pe;                      // whom it is done to, asked of or judged at; never "all", which is several steps
  std::string place;                   // command, expect: a namespace in place of pimctl
  std::string flow;                    // name; empty: none
  std::string vrf;                     // set_vrf
  std::string groups;                  // carried: prefix
  std::vector<std::string> commands;   // command: run in order; expect: one
  std::string pattern;                 // expect: an ECMAScript regular expression, ^ and $ at lines
  bool absent = false;                 // expect: the pattern must not match
  int times = -1;                      // expect: exact number of matches; -1: at least one
  bool print = false;                  // command: show the output
  bool stateful = false;               // start: with the choices that its store holds
  bool forwarder = false;              // start, stop, kill, memory: the forwarder in place of the control plane
  bool from_pe = false;                // carried: from the PE into the core; false: out of the core to it
  bool present = false;                // set_link: up; set_vrf: present
  double seconds = 0;                  // whoever expects: limit in real seconds; wait: platform seconds
  double rate = 0;                     // rate: packets a second; lose: percent
  std::optional<uint64_t> lost;        // judge: most
  std::optional<uint64_t> duplicates;  // judge: most
  std::optional<uint64_t> packets;     // carried: exactly
  uint64_t at_least = 0;               // carried, unless packets is given
  uint64_t grows_kib = 0;              // memory: most
};

inline constexpr const char *kReflector = "reflector";  // its name among the PEs in steps

struct PeConfig {
  std::string file;                // relative to the project; empty: the lines
  std::vector<std::string> lines;  // of its configuration, unless there is a file
};

struct Scenario {
  std::string name;                         // one line for people
  double clock_scale = 1;                   // platform seconds per second, above 0
  std::map<std::string, PeConfig> configs;  // by PE
  std::string reflector;                    // its configuration file; empty: none, or the network's
  std::optional<Network> network;           // real packets
  std::vector<Step> steps;                  // "all" and "*" spelled out
};

// Reads a scenario. Throws std::runtime_error that names the file and what is wrong.
Scenario read_scenario(const std::string &path);

}  // namespace lab

#endif  // LAB_SCENARIO_H

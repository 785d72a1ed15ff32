// Scenario files: what a lab run does, in JSON with // comments.
//
//   {
//     "name": "…",                       one line for people
//     "clock_scale": 60,                 platform seconds per second, optional (1)
//     "pes": {"pe1": {"config": "examples/pe1.conf"}},   relative to the scenario's project root
//     "reflector": "127.0.0.1:1790",     optional: runs mdt-reflector there
//     "steps": [ … ]
//   }
//
// A step is an object with one of these keys; "why" may stand beside any of them.
//   "say": "text"                                     prints a heading
//   "start": "pe1", "restart": "stateful"             starts a PE (stateful: optional)
//   "stop": "pe1"                                     SIGTERM, waits; the exit status must be 0
//   "kill": "pe1"                                     SIGKILL
//   "on": "pe1", "command": "show …" or ["…", …]      runs pimctl; "print": true shows its output
//   "on": "pe1", "expect": "…", "command": "show …", "matches": "regex", "within": 10
//                                                     repeats the command until its output matches ("absent": true:
//                                                     does not match), at most `within` real seconds; the last output
//                                                     is what happened. "times": n matches exactly n times.
//   "wait": 3                                         platform seconds
#ifndef LAB_SCENARIO_H
#define LAB_SCENARIO_H

#include <map>
#include <string>
#include <vector>

namespace lab {

struct Step {
  enum class Kind { say, start, stop, kill, command, expect, wait };
  Kind kind = Kind::say;
  std::string text;                   // say: heading; expect: what is expected; start, stop, kill: PE
  std::string pe;                     // command, expect
  std::vector<std::string> commands;  // command: run in order; expect: one
  std::string pattern;                // expect
  bool absent = false;                // expect: the pattern must not match
  int times = -1;                     // expect: exact number of matches; -1: at least one
  bool print = false;                 // command: show the output
  bool stateful = false;              // start
  double seconds = 0;                 // expect: limit in real seconds; wait: platform seconds
};

struct Scenario {
  std::string name;
  double clock_scale = 1;
  std::map<std::string, std::string> configs;  // PE name -> configuration file
  std::string reflector;                       // empty: none
  std::vector<Step> steps;
};

// Reads a scenario. Throws std::runtime_error that names the file and what is wrong.
Scenario read_scenario(const std::string &path);

}  // namespace lab

#endif  // LAB_SCENARIO_H

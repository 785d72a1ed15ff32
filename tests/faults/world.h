// What stands around the module while calls fail: the operator, who knows what was configured and can enter it again;
// remote PEs, which repeat their announcements every minute; and the host, which plays the configuration back when the
// module asks for it or is started anew.
//
// Whatever the world does can be done twice: a step of the story that lost a call is repeated as an operator or a
// neighbour would repeat it.
#ifndef TESTS_FAULTS_WORLD_H
#define TESTS_FAULTS_WORLD_H

#include <string>
#include <string_view>
#include <vector>

namespace faults {

class World {
 public:
  // A core with loopback0 (10.0.0.1) and loopback1 (10.0.0.101), VRFs red, blue, green and white with a site each.
  // The module is not started. Nothing may have used the platform before.
  World();

  // Start with the configuration entered so far, as a host starts the module; false when the start failed.
  bool start();
  // Stop for good (the feature is taken away), and start.
  void restart();
  // Stop and start with the feature kept: contexts and tunnels stay.
  void restart_in_place();
  // The process dies and comes back: what the store held is there again.
  void crash();

  // A configuration command of a VRF. arguments: names and values in turn, keywords with the value "".
  using Words = std::vector<std::string>;
  void configure(const std::string &vrf, const std::string &handler, const Words &arguments);
  void unconfigure(const std::string &vrf, const std::string &handler, const Words &arguments);
  // Every show and SNMP handler, for all VRFs.
  void look_at_everything();

  // A customer flow from a site of this PE; a route of a site to a flow from a remote PE.
  void flow(const std::string &vrf, std::string_view source, std::string_view group, uint64_t kbps,
            bool bidirectional = false);
  void receiver(const std::string &vrf, std::string_view source, std::string_view group);
  void no_route(const std::string &vrf, std::string_view source, std::string_view group);

  // A remote PE's default MDT, told by BGP.
  void remote_pe(std::string_view source, std::string_view rd, std::string_view group);
  void no_remote_pe(std::string_view source, std::string_view rd, std::string_view group);
  // A remote PE announces a data MDT, now and every minute.
  void announcement(std::string_view default_group, std::string_view c_src, std::string_view c_grp,
                    std::string_view data_group);
  void no_announcements() { announcements_.clear(); }

  // A statistics pass, the remote PEs' announcements, and a minute.
  void minute();
  // The source interface goes down and comes up: every tunnel is taken down and brought up.
  void bounce();

  // What the module and the services hold, a line each, without numbers that depend on the way there.
  std::vector<std::string> state() const;

 private:
  struct Line {
    std::string vrf, handler;
    Words arguments;
  };
  struct Announcement {
    uint32_t default_group, c_src, c_grp, data_group;
  };

  int run(const Line &line, bool no_form, bool interactive);
  void replay_vrf(const std::string &vrf);
  void replay();
  void announce(const Announcement &announcement);

  std::vector<Line> configuration_;
  std::vector<Announcement> announcements_;
};

}  // namespace faults

#endif  // TESTS_FAULTS_WORLD_H

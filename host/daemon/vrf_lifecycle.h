// The life of a VRF: it is created, comes in with everything that the configuration says of it, leaves, and is deleted
// when the module has left it.
#ifndef HOST_DAEMON_VRF_LIFECYCLE_H
#define HOST_DAEMON_VRF_LIFECYCLE_H

#include <string>
#include <vector>

#include "host/config/config.h"
#include "host/daemon/module_runner.h"
#include "host/daemon/platform_config.h"
#include "host/event/level.h"

namespace host {

class VrfLifecycle {
 public:
  // References outlive it. A line that a handler refuses when a VRF comes in is taken out of `running`.
  struct Parts {
    Config &running;
    AbsentVrfs &absent;
    const ModuleRunner &module;
    PlatformConfig &platform;
  };
  VrfLifecycle(const Parts &parts, LogLine log);

  bool is_there(const std::string &vrf) const { return !absent_.contains(vrf); }  // neither leaving nor waiting

  // Creates a VRF of the configuration, unless it is there or must wait.
  void follow(const std::string &vrf);
  // Deletes a VRF as soon as the module has left it; what the configuration says of it then is built.
  void leave(const std::string &vrf);
  // Goes on with the VRFs that leave and wait. At every turn's end.
  void settle();

  // The module has started: one request for the commands of each VRF.
  void replay_all(std::vector<ConfigError> *refused);
  // The module has made a VRF's context anew and wants the VRF's other commands again.
  void replay(const std::string &vrf);

 private:
  void bring_in(const std::string &vrf);

  Config &running_;
  AbsentVrfs &absent_;
  const ModuleRunner &module_;
  PlatformConfig &platform_;
  const LogLine log_;
};

}  // namespace host

#endif  // HOST_DAEMON_VRF_LIFECYCLE_H

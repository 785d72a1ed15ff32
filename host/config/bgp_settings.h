// What the bgp block of a configuration says, in the words of the BGP library.
#ifndef HOST_CONFIG_BGP_SETTINGS_H
#define HOST_CONFIG_BGP_SETTINGS_H

#include <optional>
#include <vector>

#include "bgp/speaker.h"
#include "host/config/config.h"

namespace host {

struct BgpSettings {
  bgp::SpeakerConfig speaker;                  // but for what a start knows: seed, restarting
  bgp::Ipv4 listen_address = 0;                // 0: every address
  uint16_t listen_port = 179;                  // host byte order
  std::vector<bgp::NeighborConfig> neighbors;  // ascending by address, each once
};

// Nothing: no local AS, so BGP speaks to nobody. Of a configuration that check_bgp() has found right.
std::optional<BgpSettings> bgp_settings(const Config &config);

// What is wrong in the block.
std::vector<ConfigError> check_bgp(const Config &config);

}  // namespace host

#endif  // HOST_CONFIG_BGP_SETTINGS_H

// Modes of groups, features and counters of the PIM process around the module.
#ifndef REFERENCE_PIM_H
#define REFERENCE_PIM_H

#include <cstdint>

#include "platform/types.h"

namespace ref {

// Groups of a mode. Defaults: SSM 232.0.0.0/8, no Bidir range.
void add_ssm_range(ip_addr_t prefix, uint32_t length);
void add_bidir_range(ip_addr_t prefix, uint32_t length);
void remove_ssm_range(ip_addr_t prefix, uint32_t length);
void remove_bidir_range(ip_addr_t prefix, uint32_t length);

// Whether the feature "mvpn" is configured, as the module asks the host.
void set_feature_configured(bool configured);

struct PimCounters {
  // How often the module had the process do each, since reset().
  uint64_t hellos_sent = 0, routes_reinstalled = 0, oif_removals = 0, encap_setups = 0;
  uint64_t rpf_lookups = 0, join_triggers = 0;
};
const PimCounters &pim_counters();

// Grows whenever a PIM context comes or goes: until then pointers to them stay good.
uint64_t context_changes();

}  // namespace ref

#endif  // REFERENCE_PIM_H

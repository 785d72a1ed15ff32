// Route policies.
#ifndef REFERENCE_RPM_H
#define REFERENCE_RPM_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/types.h"

namespace ref {

// The first entry that a flow matches decides; a flow that matches none is denied.
struct PolicyEntry {
  bool permit = true;                      // false: the entry denies
  ip_addr_t source = 0, group = 0;         // prefixes
  uint32_t source_len = 0, group_len = 0;  // their lengths, 0..32; 0 matches everything
};
// Defines a policy anew, also one that is bound. False: there was none. Users that are bound to a policy, defined or
// not.
void set_policy(std::string_view name, const std::vector<PolicyEntry> &entries);
bool delete_policy(std::string_view name);
size_t policy_bindings();

}  // namespace ref

#endif  // REFERENCE_RPM_H

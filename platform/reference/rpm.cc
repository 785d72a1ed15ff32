// Route policies: named lists of permit and deny entries. A user may bind to a policy before it is defined.
#include "platform/rpm.h"

#include <cstring>
#include <map>

#include "platform/ip.h"
#include "platform/reference/internal.h"
#include "platform/reference/rpm.h"

namespace ref {
namespace {

constexpr uint32_t name_length_max = 63;  // this policy manager's own bound; clients ask for it

struct State {
  std::map<std::string, std::vector<PolicyEntry>, std::less<>> policies;
  std::map<uint32_t, std::string> bindings;
  uint32_t next_handle = 1;
};
State state;

const std::vector<PolicyEntry> *policy_of(uint32_t handle) {
  const auto binding = state.bindings.find(handle);
  if (binding == state.bindings.end()) return nullptr;
  const auto policy = state.policies.find(binding->second);
  return policy == state.policies.end() ? nullptr : &policy->second;
}

bool matches(const PolicyEntry &entry, const rpm_mroute_match &record) {
  const bool source = record.source_len == 0 ? entry.source_len == 0
                                             : ip_is_addr_in_prefix(record.source, entry.source, entry.source_len) != 0;
  return source && ip_is_addr_in_prefix(record.group, entry.group, entry.group_len) != 0;
}

}  // namespace

void set_policy(std::string_view name, const std::vector<PolicyEntry> &entries) {
  state.policies[std::string(name)] = entries;
}

bool delete_policy(std::string_view name) { return state.policies.erase(std::string(name)) > 0; }

size_t policy_bindings() { return state.bindings.size(); }

void rpm_reset() { state = State{}; }

}  // namespace ref

using namespace ref;

uint32_t rpm_get_max_name_length() { return name_length_max; }

int rpm_policy_bind(uint32_t, const char *name, rpm_binding *binding) {
  if (name == nullptr || *name == '\0' || std::strlen(name) > name_length_max) return 0;
  binding->policy_handle = state.next_handle++;
  state.bindings[binding->policy_handle] = name;
  return 1;
}

int rpm_policy_unbind(uint32_t handle) { return state.bindings.erase(handle) > 0 ? 1 : 0; }

int rpm_policy_is_ready(uint32_t handle) { return policy_of(handle) != nullptr ? 1 : 0; }

// The first entry that matches decides; none: no match.
int rpm_eval_policy_match(uint32_t handle, uint32_t match_kind, const rpm_mroute_match *record, uint32_t, uint32_t) {
  const std::vector<PolicyEntry> *policy = policy_of(handle);
  if (policy == nullptr || match_kind != RPM_MATCH_MROUTE) return 0;
  for (const PolicyEntry &entry : *policy)
    if (matches(entry, *record)) return entry.permit ? 1 : 2;
  return 2;
}

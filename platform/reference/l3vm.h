// VRFs.
#ifndef REFERENCE_L3VM_H
#define REFERENCE_L3VM_H

#include <cstdint>
#include <string_view>

#include "platform/pim.h"
#include "platform/types.h"

namespace ref {

// A VRF, known to the VRF manager (up) and to PIM. Null when the name, the context id or the table id is taken or out
// of range. Deleting drops its routes and interfaces (with the notifications that a host gives), then its PIM context;
// false while the module has a context in the VRF: take its default group away first and wait for the teardown. The
// default VRF
// ("default", no table id) exists from reset() on and stays.
pim_cibtype *create_vrf(std::string_view name, vrf_context_id_t context_id, uint32_t table_id);
bool delete_vrf(std::string_view name);

}  // namespace ref

#endif  // REFERENCE_L3VM_H

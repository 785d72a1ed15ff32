// Which forwarding plane is in use. One that comes is told of everything that the services hold: tunnels before the
// core routes that name them, customer routes last.
#include "platform/reference/forwarding_plane.h"

#include "platform/reference/services.h"

namespace ref {
namespace {
ForwardingPlane *in_use = nullptr;
}

ForwardingPlane *forwarding_plane() { return in_use; }

void use_forwarding_plane(ForwardingPlane *plane) {
  in_use = plane;
  if (plane == nullptr) return oim_leave_plane();
  oim_tell_plane();
  mrib_tell_plane();
  croute_tell_plane();
}

}  // namespace ref

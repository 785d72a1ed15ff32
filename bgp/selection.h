// The decision process (RFC 4271, 9.1.2) with the steps of route reflection (RFC 4456, section 9).
#ifndef BGP_SELECTION_H
#define BGP_SELECTION_H

#include "bgp/table.h"

namespace bgp {

// The best of a route's paths; 0: none can be used.
PathId best_path(const Table &table, RouteId route);

// Why `id` is not `best`: the step that it lost at; for the best itself what made it so. In words.
std::string reason(const Table &table, RouteId route, PathId best, PathId id);

}  // namespace bgp

#endif  // BGP_SELECTION_H

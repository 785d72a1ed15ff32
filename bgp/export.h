// What one neighbour may be told, and in which words: route reflection (RFC 4456), and the changes that attributes
// undergo on their way out of a speaker (RFC 4271, 5.1).
#ifndef BGP_EXPORT_H
#define BGP_EXPORT_H

#include "bgp/table.h"

namespace bgp {

// The neighbour as seen from the routes that are sent to it, for one session.
struct ExportTarget {
  SourceId source = 0;        // the neighbour's number in the table
  bool internal = true;       // the neighbour is in this AS
  bool client = false;        // this speaker reflects routes for it
  bool four_octet_as = true;  // agreed (RFC 6793)
  AsNumber local_as = 0;      // prepended for external neighbours
  Ipv4 cluster_id = 0;        // prepended to the cluster list of what is reflected
  Ipv4 local_address = 0;     // of the session: the next hop of routes from here
  size_t largest = 4096;      // message that the neighbour takes
};

bool may_send(const Table &table, const Path &path, const ExportTarget &to);

// From what was received to what is sent.
void export_attributes(const Source &from, bool local, const ExportTarget &to, Attributes &attributes);

}  // namespace bgp

#endif  // BGP_EXPORT_H

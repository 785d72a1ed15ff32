// Changes as documents of the output schema.
#ifndef HOST_EVENT_CHANGE_VIEW_H
#define HOST_EVENT_CHANGE_VIEW_H

#include <cstdint>
#include <string>

#include "host/event/change.h"
#include "host/output/listing.h"

namespace host {

// A row of output::kChanges.
output::Row row_of(const Change &change);

// A JSON document in one line, its end included: of a change; of how many a client has missed.
// hostname: of the router.
std::string document_of(const std::string &hostname, const Change &change);
std::string missed_document(const std::string &hostname, uint64_t missed);

}  // namespace host

#endif  // HOST_EVENT_CHANGE_VIEW_H

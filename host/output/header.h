// What every document begins with: the version of its schema, who wrote it, and when.
#ifndef HOST_OUTPUT_HEADER_H
#define HOST_OUTPUT_HEADER_H

#include <string>

namespace output {

// The schema's version, MAJOR.MINOR. A change that a reader of the former version does not survive, such as another
// name, type or meaning, raises MAJOR and sets MINOR to 0; an addition raises MINOR.
inline constexpr const char *kSchemaVersion = "1.0";

// The YANG module that describes documents, and when the schema last changed, which is its revision.
inline constexpr const char *kStateModule = "libmvpn-state";
inline constexpr const char *kSchemaDate = "2026-11-23";

struct Header {
  std::string hostname;  // never empty
  std::string time;      // RFC 3339, as wall_time() writes it
};

// The header of a document that begins now. hostname: as configured; empty: the machine's.
Header header_now(const std::string &hostname);

}  // namespace output

#endif  // HOST_OUTPUT_HEADER_H

// The file of the tunnel database: a JSON object with a list of tunnels.
#ifndef REFERENCE_OIM_FILE_H
#define REFERENCE_OIM_FILE_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/reference/oim.h"

namespace ref {

// Nothing when the file cannot be read, or holds anything but sound tunnels; none, when there is no file.
std::optional<std::vector<Tunnel>> read_tunnels(const std::string &path);

// Writes beside the file and renames, so that a crash, also of the machine, leaves the old or the new one. Empty, or
// why it was not written.
std::string write_tunnels(const std::string &path, const std::map<if_index_t, Tunnel> &tunnels);

}  // namespace ref

#endif  // REFERENCE_OIM_FILE_H

// The persistent store. In its first state it is in memory.
#ifndef REFERENCE_PSS_H
#define REFERENCE_PSS_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace ref {

// LMDB; false when it cannot be opened. Without a stateful restart what is stored there is forgotten.
bool pss_use_directory(const std::string &path);
void pss_flush();  // ends the transaction of this turn of the main loop
void set_stateful_restart(bool on);
std::vector<std::pair<std::vector<uint8_t>, std::vector<uint8_t>>> pss_records();

}  // namespace ref

#endif  // REFERENCE_PSS_H

// What a configuration says that is allowed and hardly meant: names that lead nowhere, values that no network can use.
#ifndef HOST_CONFIG_CONFIG_WARNINGS_H
#define HOST_CONFIG_CONFIG_WARNINGS_H

#include <vector>

#include "host/config/config.h"

namespace host {

// In line order.
std::vector<ConfigError> config_warnings(const Config &config);

}  // namespace host

#endif  // HOST_CONFIG_CONFIG_WARNINGS_H

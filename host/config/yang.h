// The configuration as data of the YANG module libmvpn-configuration, in JSON as RFC 7951 wants it.
#ifndef HOST_CONFIG_YANG_H
#define HOST_CONFIG_YANG_H

#include <string>

#include "host/config/config.h"

namespace host {

// What is not configured is left out, as are hidden passwords: the module says the defaults. Ends with a newline.
std::string yang_data(const Config &config, Config::Passwords passwords);

}  // namespace host

#endif  // HOST_CONFIG_YANG_H

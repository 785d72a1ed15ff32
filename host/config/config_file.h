// The configuration file: reading it, and how its errors are told.
#ifndef HOST_CONFIG_FILE_H
#define HOST_CONFIG_FILE_H

#include <string>
#include <vector>

#include "host/config/config.h"

namespace host {

struct ConfigFile {
  std::string text;
  Config config;
  std::vector<ConfigError> errors;  // in line order; of line 0 when the file cannot be read
};

// Reads and checks a file. One without any line is an error: it is what is left when writing it failed.
ConfigFile read_config_file(const std::string &path);

// FILE:LINE: REASON
std::string described(const std::string &file, const ConfigError &error);

}  // namespace host

#endif  // HOST_CONFIG_FILE_H

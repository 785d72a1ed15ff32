// The configuration file: reading it, and how its errors are told.
//
// What a file can cost is bounded: a longer one is refused before it is read, one that is wrong throughout is not read to
// its end, and of its errors the first few are told. A file given by mistake must not fill the log.
#ifndef HOST_CONFIG_FILE_H
#define HOST_CONFIG_FILE_H

#include <string>
#include <vector>

#include "host/config/config.h"

namespace host {

constexpr size_t kMaxConfigFile = 16u << 20;  // bytes; some hundred thousand lines
constexpr size_t kMaxErrorsTold = 20;

struct ConfigText {
  std::string text;
  std::string reason;  // why it cannot be read; empty when it was
};
ConfigText read_config_text(const std::string &path);

struct ConfigFile {
  Config config;
  std::vector<ConfigError> errors;  // in line order; of line 0 when the file cannot be read
};

// Reads and checks a text, a file. A file without any line is an error: it is what is left when writing it failed.
ConfigFile parse_config(const std::string &text);
ConfigFile read_config_file(const std::string &path);

// FILE:LINE: REASON
std::string described(const std::string &file, const ConfigError &error);
// The same for the first kMaxErrorsTold, and how many more there are.
std::vector<std::string> described(const std::string &file, const std::vector<ConfigError> &errors);

}  // namespace host

#endif  // HOST_CONFIG_FILE_H

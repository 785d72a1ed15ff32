// The configuration file: reading and writing it, and how its errors are told.
//
// What a file can cost is bounded: a longer one is refused before it is read, one that is wrong throughout is not read
// to its end, and of its errors the first few are told. A file given by mistake must not fill the log.
#ifndef HOST_CONFIG_CONFIG_FILE_H
#define HOST_CONFIG_CONFIG_FILE_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/config/config.h"

namespace host {

constexpr size_t kMaxConfigFile = 16u << 20;  // bytes; some hundred thousand lines
constexpr size_t kMaxErrorsTold = 20;         // a screen of them; the first ones explain the rest

struct ConfigFile {
  Config config;                    // without the lines that are wrong
  std::vector<ConfigError> errors;  // in line order; of line 0 when the file cannot be read
};

// Reads and checks a file's text.
ConfigFile read_config_text(const std::string &text);

// Reads and checks a file. One without any line is an error: it is what is left when writing it failed.
ConfigFile read_config_file(const std::string &path);

// Puts a text in the place of a file, which is kept as FILE~. At every moment there is one of the two under the name,
// whole; when it fails the former one is. A link stays a link, and rights and owner stay as far as this user may set
// them. Result: why it cannot be done; empty: done.
std::string write_config_file(const std::string &path, const std::string &text);

// Writes a whole text behind where an open file stands, down to the disk. Result: 0, or an error number.
int write_whole(int file, std::string_view text);

// What tells whether a file has been changed or replaced. All zero for a file that is not there.
struct FileStamp {
  // Another file at the path has another pair.
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;           // bytes
  int64_t seconds = 0;      // of its last change, since 1970
  int64_t nanoseconds = 0;  // 0..999999999
  bool operator==(const FileStamp &) const = default;
};
FileStamp stamp_of(const std::string &path);

// FILE:LINE: REASON
std::string described(const std::string &file, const ConfigError &error);
// The same for the first kMaxErrorsTold, and how many more there are.
std::vector<std::string> described(const std::string &file, const std::vector<ConfigError> &errors);

}  // namespace host

#endif  // HOST_CONFIG_CONFIG_FILE_H

#include "host/config/config_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace host {
namespace {

// The reason why it cannot be read; empty when it was.
std::string read_text(const std::string &path, std::string *text) {
  struct stat status {};
  const bool exists = stat(path.c_str(), &status) == 0;
  if (exists && S_ISDIR(status.st_mode)) return std::strerror(EISDIR);
  // Reading a pipe could hold up the daemon, and gives its text once only.
  if (exists && !S_ISREG(status.st_mode)) return "it is no regular file";
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::strerror(errno);
  std::ostringstream read;
  if (in.peek() != std::ifstream::traits_type::eof()) read << in.rdbuf();
  if (in.bad() || !read) return std::strerror(EIO);
  *text = read.str();
  return "";
}

}  // namespace

ConfigFile read_config_file(const std::string &path) {
  ConfigFile file;
  if (std::string reason = read_text(path, &file.text); !reason.empty()) {
    file.errors.push_back({0, std::move(reason)});
    return file;
  }
  file.config = Config::read(file.text, &file.errors);
  for (ConfigError &error : file.config.check()) file.errors.push_back(std::move(error));
  std::stable_sort(file.errors.begin(), file.errors.end(),
                   [](const ConfigError &a, const ConfigError &b) { return a.line < b.line; });
  if (file.errors.empty() && file.config.empty()) file.errors.push_back({0, "the file holds no line of configuration"});
  return file;
}

std::string described(const std::string &file, const ConfigError &error) {
  return file + ":" + (error.line > 0 ? std::to_string(error.line) + ":" : "") + " " + error.reason;
}

}  // namespace host

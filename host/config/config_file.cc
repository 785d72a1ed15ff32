// Reads files with what may be wrong with them: one that is a folder or a pipe, that is longer than a configuration,
// that holds nothing. Called by the daemons at their start and at a reload, and by the checks beside a running one.
#include "host/config/config_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace host {
namespace {

struct ConfigText {
  std::string text;
  std::string reason;  // why it cannot be read; empty when it was
};

ConfigText read_text(const std::string &path) {
  struct stat status {};
  const bool exists = stat(path.c_str(), &status) == 0;
  if (exists && S_ISDIR(status.st_mode)) return {"", std::strerror(EISDIR)};
  // Reading a pipe could hold up the daemon, and gives its text once only.
  if (exists && !S_ISREG(status.st_mode)) return {"", "it is no regular file"};
  std::ifstream in(path, std::ios::binary);
  if (!in) return {"", std::strerror(errno)};
  constexpr size_t kPart = 65536;
  std::string text;
  while (in && text.size() <= kMaxConfigFile) {
    const size_t before = text.size();
    text.resize(before + kPart);
    in.read(text.data() + before, kPart);
    text.resize(before + static_cast<size_t>(in.gcount()));
  }
  if (in.bad()) return {"", std::strerror(EIO)};
  if (text.size() > kMaxConfigFile)
    return {"", "it is longer than " + std::to_string(kMaxConfigFile >> 20) + " MB, which no configuration is"};
  return {std::move(text), ""};
}

}  // namespace

ConfigFile read_config_file(const std::string &path) {
  const ConfigText read = read_text(path);
  if (!read.reason.empty()) return {{}, {{0, read.reason}}};
  ConfigFile file;
  file.config = Config::read(read.text, &file.errors);
  for (ConfigError &error : file.config.check()) file.errors.push_back(std::move(error));
  std::stable_sort(file.errors.begin(), file.errors.end(),
                   [](const ConfigError &a, const ConfigError &b) { return a.line < b.line; });
  if (file.errors.empty() && file.config.empty()) file.errors.push_back({0, "the file holds no line of configuration"});
  return file;
}

FileStamp stamp_of(const std::string &path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return {};
  return {status.st_dev, status.st_ino, status.st_size, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

std::string described(const std::string &file, const ConfigError &error) {
  return file + ":" + (error.line > 0 ? std::to_string(error.line) + ":" : "") + " " + error.reason;
}

std::vector<std::string> described(const std::string &file, const std::vector<ConfigError> &errors) {
  std::vector<std::string> lines;
  const size_t told = std::min(errors.size(), kMaxErrorsTold);
  for (size_t i = 0; i < told; i++) lines.push_back(described(file, errors[i]));
  if (told < errors.size()) lines.push_back(file + ": and " + std::to_string(errors.size() - told) + " more");
  return lines;
}

}  // namespace host

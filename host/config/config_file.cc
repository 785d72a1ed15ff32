// Reads files with what may be wrong with them: one that is a folder or a pipe, that is longer than a configuration,
// that holds nothing. Called by the daemons at their start and at a reload, and by the checks beside a running one.
//
// Writes one by putting a new file in its place: text, rights and a sync come before the rename, which is the one
// moment that counts.
#include "host/config/config_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

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

// Where a path leads.
std::string resolved(const std::string &path) {
  const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), std::free);
  return real == nullptr ? path : real.get();
}

// Those that return a number: 0, or an error number.

// Rights and owner of another file. With an owner or a group that this user cannot give away, nobody but him may read
// what may hold passwords.
int make_alike(int file, const std::string &other) {
  struct stat wanted {
  }, made{};
  if (stat(other.c_str(), &wanted) != 0) return errno == ENOENT ? 0 : errno;
  if (fstat(file, &made) != 0) return errno;
  const bool same = fchown(file, wanted.st_uid, wanted.st_gid) == 0 || made.st_gid == wanted.st_gid ||
                    fchown(file, static_cast<uid_t>(-1), wanted.st_gid) == 0;
  return fchmod(file, wanted.st_mode & (same ? 0777u : 0700u)) == 0 ? 0 : errno;
}

// A copy of a file that may be read.
int copy(const std::string &path, const std::string &to) {
  const ConfigText former = read_text(path);
  if (!former.reason.empty()) return EACCES;
  const int file = open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (file < 0) return errno;
  int error = write_whole(file, former.text);
  if (error == 0) error = make_alike(file, path);
  close(file);
  return error;
}

// A file under its name with a ~ as well; between: a free name beside it. A former ~ is there until the new one is. The
// kernel lets nobody link to a file that is another user's and not his to write (fs.protected_hardlinks).
int keep(const std::string &path, const std::string &between) {
  const int unlinked = link(path.c_str(), between.c_str()) == 0 ? 0 : errno;
  if (unlinked == ENOENT) return 0;
  const int uncopied = unlinked == EPERM ? copy(path, between) : unlinked;
  if (uncopied != 0) {
    unlink(between.c_str());
    return uncopied;
  }
  const int error = std::rename(between.c_str(), (path + "~").c_str()) == 0 ? 0 : errno;
  unlink(between.c_str());  // still there when it failed, and when both are the same file
  return error;
}

// So that the new name survives a power failure. Without it the former file does.
void sync_folder_of(const std::string &path) {
  const std::string folder = std::filesystem::path(path).parent_path().string();
  const int file = open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (file < 0) return;
  fsync(file);
  close(file);
}

}  // namespace

int write_whole(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(file, text.data(), text.size());
    if (written < 0 && errno != EINTR) return errno;
    if (written > 0) text.remove_prefix(static_cast<size_t>(written));
  }
  return fsync(file) == 0 ? 0 : errno;
}

ConfigFile read_config_text(const std::string &text) {
  ConfigFile file;
  file.config = Config::read(text, &file.errors);
  for (ConfigError &error : file.config.check()) file.errors.push_back(std::move(error));
  std::stable_sort(file.errors.begin(), file.errors.end(),
                   [](const ConfigError &a, const ConfigError &b) { return a.line < b.line; });
  if (file.errors.empty() && file.config.empty()) file.errors.push_back({0, "the file holds no line of configuration"});
  return file;
}

ConfigFile read_config_file(const std::string &path) {
  const ConfigText read = read_text(path);
  return read.reason.empty() ? read_config_text(read.text) : ConfigFile{{}, {{0, read.reason}}};
}

std::string write_config_file(const std::string &path, const std::string &text) {
  const std::string real = resolved(path);
  std::string made = real + ".XXXXXX";
  const int file = mkostemp(made.data(), O_CLOEXEC);
  if (file < 0) return real + " cannot be written: " + std::strerror(errno);
  int error = write_whole(file, text);
  if (error == 0) error = make_alike(file, real);
  close(file);
  if (error == 0) error = keep(real, made + "~");
  if (error == 0 && std::rename(made.c_str(), real.c_str()) != 0) error = errno;
  if (error == 0) sync_folder_of(real);
  if (error == 0) return "";
  unlink(made.c_str());
  return real + " cannot be written: " + std::strerror(error);
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

// Configuration files: any text is read without harm, and what was read prints as a file that reads to the same.
#include <cstdlib>
#include <string>
#include <vector>

#include "host/config/config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  std::vector<host::ConfigError> errors;
  const host::Config config = host::Config::read(text, &errors);
  (void)config.check();
  std::vector<host::ConfigError> again;
  const host::Config copy = host::Config::read(config.print(), &again);
  if (!again.empty() || !host::difference(config, copy).empty() || copy.print() != config.print()) std::abort();
  return 0;
}

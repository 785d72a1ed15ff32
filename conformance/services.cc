// Finds the platform's services by name. The list of them is services.def, which is included here once for looking them
// up and once for naming those that are missing. The library stays loaded.
#include "conformance/services.h"

#include <dlfcn.h>

#include <stdexcept>

namespace conformance {

Services platform;
Driver driver;

namespace {

template <typename T>
void find(void *library, Service<T> *service) {
  service->set(dlsym(library, service->name()));
}

void find_driver(void *library) {
  find(library, &driver.version);
  find(library, &driver.start);
  find(library, &driver.stop);
  find(library, &driver.run);
  find(library, &driver.add_vrf);
  find(library, &driver.add_interface);
  find(library, &driver.set_interface);
  find(library, &driver.deliver);
  find(library, &driver.take_sent);
  find(library, &driver.command);
  find(library, &driver.set_policy);
  find(library, &driver.add_customer_route);
  find(library, &driver.receive_datagram);
}

}  // namespace

void load(const std::string &library) {
  void *handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) throw std::runtime_error(dlerror());
#define FUNCTION(component, name) find(handle, &platform.name);
#define DATUM(component, name) FUNCTION(component, name)
#include "conformance/services.def"
#undef FUNCTION
#undef DATUM
  find_driver(handle);
}

std::vector<std::string> missing_services() {
  std::vector<std::string> names;
#define FUNCTION(component, name) \
  if (!platform.name.present()) names.push_back(#name);
#define DATUM(component, name) FUNCTION(component, name)
#include "conformance/services.def"
#undef FUNCTION
#undef DATUM
  return names;
}

}  // namespace conformance

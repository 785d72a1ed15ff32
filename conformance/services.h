// The services of the platform under test, found by name in its library.
//
// A service is called through `platform`, as in platform.slab_calloc(slab); one that the library does not have throws
// Missing, and the check that needed it names it.
#ifndef CONFORMANCE_SERVICES_H
#define CONFORMANCE_SERVICES_H

#include <string>
#include <vector>

#include "conformance/driver.h"
#include "platform/bgp.h"
#include "platform/cli.h"
#include "platform/cli_schema.h"
#include "platform/diag.h"
#include "platform/im.h"
#include "platform/ip.h"
#include "platform/l3vm.h"
#include "platform/mem.h"
#include "platform/mrib.h"
#include "platform/oim.h"
#include "platform/packet.h"
#include "platform/pim.h"
#include "platform/pss.h"
#include "platform/pt.h"
#include "platform/ravl.h"
#include "platform/rpm.h"
#include "platform/rqueue.h"
#include "platform/sockets.h"
#include "platform/thread.h"
#include "platform/timer.h"
#include "platform/tlvu.h"
#include "platform/txlist.h"

namespace conformance {

// A service, or an operation of the driver, that the library does not have.
struct Missing {
  const char *name;  // of the function or datum; lives as long as the program
  bool optional;     // an operation of the driver without which a platform may be
};

// A function is called as it is; a datum is read with *.
template <typename T>
class Service {
 public:
  Service(const char *name, bool optional) : name_(name), optional_(optional) {}
  operator T *() const { return get(); }
  T &operator*() const { return *get(); }
  bool present() const { return at_ != nullptr; }
  const char *name() const { return name_; }
  void set(void *at) { at_ = reinterpret_cast<T *>(at); }

 private:
  T *get() const {
    if (at_ == nullptr) throw Missing{name_, optional_};
    return at_;
  }
  const char *name_;
  bool optional_;
  T *at_ = nullptr;
};

struct Services {
#define FUNCTION(component, name) Service<decltype(::name)> name{#name, false};
#define DATUM(component, name) FUNCTION(component, name)
#include "conformance/services.def"
#undef FUNCTION
#undef DATUM
};

struct Driver {
  // What driver.h tells, under its names without "contract_".
  Service<decltype(contract_version)> version{"contract_version", false};
  Service<decltype(contract_start)> start{"contract_start", false};
  Service<decltype(contract_stop)> stop{"contract_stop", false};
  Service<decltype(contract_run)> run{"contract_run", false};
  Service<decltype(contract_add_vrf)> add_vrf{"contract_add_vrf", true};
  Service<decltype(contract_add_interface)> add_interface{"contract_add_interface", true};
  Service<decltype(contract_set_interface)> set_interface{"contract_set_interface", true};
  Service<decltype(contract_deliver)> deliver{"contract_deliver", true};
  Service<decltype(contract_take_sent)> take_sent{"contract_take_sent", true};
  Service<decltype(contract_command)> command{"contract_command", true};
  Service<decltype(contract_set_policy)> set_policy{"contract_set_policy", true};
  Service<decltype(contract_add_customer_route)> add_customer_route{"contract_add_customer_route", true};
  Service<decltype(contract_receive_datagram)> receive_datagram{"contract_receive_datagram", true};
};

extern Services platform;
extern Driver driver;

// Loads the library and finds what it has. Throws std::runtime_error with the loader's reason.
void load(const std::string &library);

// Names of the services that the library does not have.
std::vector<std::string> missing_services();

}  // namespace conformance

#endif  // CONFORMANCE_SERVICES_H

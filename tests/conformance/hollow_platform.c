/* A platform that has a driver and not one service. */
#include "conformance/driver.h"

const uint32_t contract_version = PLATFORM_CONTRACT_VERSION;

int contract_start(const char *folder, int stateful, const struct contract_module *module) {
  (void)folder, (void)stateful, (void)module;
  return 1;
}

void contract_stop(void) {}

void contract_run(uint32_t milliseconds) { (void)milliseconds; }

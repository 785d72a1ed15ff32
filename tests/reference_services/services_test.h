// Fixture of the routing services' tests: a fresh platform and a module that only writes down what it is told.
#ifndef TESTS_REFERENCE_SERVICES_SERVICES_TEST_H
#define TESTS_REFERENCE_SERVICES_SERVICES_TEST_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/mrib.h"
#include "platform/pim.h"

// What the module was told, one text per call.
extern std::vector<std::string> told;

ip_addr_t address(std::string_view dotted);
mvpn_mdt_route_addrs sg(std::string_view source, std::string_view group);
mvpn_mdt_route_addrs star_g(std::string_view group);

// Network-order and host-order numbers appended to bytes.
void put_be16(std::vector<uint8_t> &bytes, uint16_t value);
void put_be32(std::vector<uint8_t> &bytes, uint32_t value);
template <typename T>
void put_at(std::vector<uint8_t> &bytes, size_t offset, T value) {
  const auto *from = reinterpret_cast<const uint8_t *>(&value);
  std::copy(from, from + sizeof value, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}
uint32_t be32_at(const std::vector<uint8_t> &bytes, size_t offset);

// A UDP datagram to port 3232 as the wire has it.
std::vector<uint8_t> join_datagram(ip_addr_t source, size_t payload);

class ServicesTest : public ::testing::Test {
 protected:
  // The recording module is registered with the tunnel manager and the MRIB; interface events are on.
  void SetUp() override;
  void TearDown() override;

  // A VRF that the module seems to have a context in, and its tunnel, created, up and running PIM.
  pim_cibtype *vrf_with_tunnel(std::string_view name, vrf_context_id_t context_id, ip_addr_t group);
  im_iod_t tunnel_iod(std::string_view vrf) const;

  mrib_client_handle *client = nullptr;
};

#endif  // TESTS_REFERENCE_SERVICES_SERVICES_TEST_H

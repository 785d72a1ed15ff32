// The recording module: each entry point appends a line to `told`. Called by the platform on the test's thread.
#include <cstring>

#include "tests/reference_services/services_test.h"

#include "platform/im.h"
#include "platform/ip.h"
#include "platform/mrib.h"
#include "platform/oim.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/module.h"
#include "platform/reference/oim.h"
#include "platform/reference/testing/runtime.h"

std::vector<std::string> told;

namespace {

std::string text(const mvpn_mdt_route_addrs *addrs) { return mrib_print_addrs(addrs); }

// Anything but null: the platform passes the module's context on without looking into it.
mvpn_cibtype *const some_context = reinterpret_cast<mvpn_cibtype *>(0x1000);

int process_msg(mts_message *msg) {
  told.push_back("message " + std::to_string(mts_opc_get(msg)));
  return 1;
}
void interface_status(im_iod_t iod, int up) {
  told.push_back(std::string(ksink_im_get_if_name(iod)) + (up ? " up" : " down"));
}
void interface_create(im_iod_t iod) { told.push_back(std::string(ksink_im_get_if_name(iod)) + " created"); }
void address_change(im_iod_t iod) { told.push_back(std::string(ksink_im_get_if_name(iod)) + " address"); }
void update_route_ack(const void *message) {
  uint32_t xid;
  std::memcpy(&xid, static_cast<const uint8_t *>(message) + MRIB_ACK_XID_OFFSET, sizeof xid);
  told.push_back("ack " + std::to_string(xid));
}
void mdt_notify(const void *message) {
  uint32_t count;
  std::memcpy(&count, static_cast<const uint8_t *>(message) + MRIB_NOTIFY_COUNT_OFFSET, sizeof count);
  const uint8_t *entry = static_cast<const uint8_t *>(message) + MRIB_NOTIFY_ENTRIES_OFFSET;
  told.push_back("mdt notify " + std::to_string(count) + " event " + std::to_string(entry[4]));
}
void mrib_join(pim_cibtype *, const mvpn_mdt_route_addrs *key, pim_route *) { told.push_back("join " + text(key)); }
void mrib_prune(pim_cibtype *, const mvpn_mdt_route_addrs *key, pim_route *) { told.push_back("prune " + text(key)); }
void route_delete(pim_cibtype *pcib, const mvpn_mdt_route_addrs *key, pim_route *route) {
  EXPECT_EQ(pim_get_route_from_pt(pcib, key), route);
  told.push_back("delete " + text(key));
}
void rpf_notify(pim_cibtype *, const mvpn_mdt_route_addrs *key, pim_route *, int up) {
  told.push_back((up ? "rpf up " : "rpf down ") + text(key));
}
void map_local_source(mvpn_cibtype *, const mvpn_mdt_route_addrs *key, pim_route *) {
  told.push_back("map " + text(key));
}
void unmap_local_source(mvpn_cibtype *, pim_route *route, const mvpn_mdt_route_addrs *key) {
  EXPECT_EQ(route->addrs.group, key->group);  // still readable
  told.push_back("unmap " + text(key));
}
int stats_check(mvpn_cibtype *, const mvpn_mdt_route_addrs *key, pim_route *route) {
  told.push_back("check " + text(key) + " " + std::to_string(pim_data_bytes_in_last_minute(route)));
  return 0;
}
void switchover_expiry(mvpn_cibtype *) { told.push_back("expiry"); }
void send_join_packet(mvpn_cibtype *, int release) { told.push_back("send " + std::to_string(release)); }

ref::Module recording_module() {
  ref::Module module;
  module.process_msg = process_msg;
  module.interface_status = interface_status;
  module.interface_create = interface_create;
  module.process_address_change = address_change;
  module.update_route_ack = update_route_ack;
  module.mdt_notify = mdt_notify;
  module.mrib_join = mrib_join;
  module.mrib_prune = mrib_prune;
  module.route_delete = route_delete;
  module.rpf_notify = rpf_notify;
  module.map_local_source = map_local_source;
  module.unmap_local_source = unmap_local_source;
  module.stats_check = stats_check;
  module.switchover_expiry = switchover_expiry;
  module.send_join_packet = send_join_packet;
  return module;
}

// Tunnel described by its five parameters, through the list operations.
std::vector<uint8_t> tunnel_list(if_index_t if_index, const std::string &vrf, ip_addr_t source, ip_addr_t group) {
  std::vector<uint8_t> list(oim_if_info_list_get_size(1, 5, VRF_NAME_MAX + 1));
  const auto size = static_cast<uint32_t>(list.size());
  uint8_t *header = nullptr;
  EXPECT_NE(oim_if_info_list_add_new_if(list.data(), size, &header), 0);
  const uint32_t network_form = hton_if_index(if_index);
  std::memcpy(header, &network_form, sizeof network_form);
  const auto add = [&](uint16_t type, const std::vector<uint8_t> &value) {
    uint8_t *tlv = nullptr;
    EXPECT_NE(oim_if_info_list_add_new_param_tlv(list.data(), size, header, &tlv), 0);
    std::vector<uint8_t> bytes;
    put_be16(bytes, type);
    put_be16(bytes, static_cast<uint16_t>(value.size()));
    bytes.insert(bytes.end(), value.begin(), value.end());
    std::copy(bytes.begin(), bytes.end(), tlv);
  };
  const auto record = [](ip_addr_t addr) {
    std::vector<uint8_t> value;
    put_be32(value, OIM_ADDR_FAMILY_IPV4);
    put_be32(value, addr);
    value.resize(OIM_ADDR_RECORD_SIZE);
    return value;
  };
  add(OIM_PARAM_ADMIN_STATE, {1});
  add(OIM_PARAM_VRF_NAME, {vrf.begin(), vrf.end()});
  add(OIM_PARAM_MTU, {0, 0, 0x05, 0x60});
  add(OIM_PARAM_SRC_ADDR, record(source));
  add(OIM_PARAM_DST_ADDR, record(group));
  return list;
}

}  // namespace

ip_addr_t address(std::string_view dotted) {
  ip_addr_t result = 0;
  unsigned octet = 0;
  for (const char c : std::string(dotted) + ".") {
    if (c == '.') {
      result = result << 8 | octet;
      octet = 0;
    } else {
      octet = octet * 10 + static_cast<unsigned>(c - '0');
    }
  }
  return result;
}

mvpn_mdt_route_addrs sg(std::string_view source, std::string_view group) {
  mvpn_mdt_route_addrs addrs{};
  addrs.source = address(source);
  addrs.group = address(group);
  addrs.source_len = addrs.group_len = MROUTE_HOST_LEN;
  return addrs;
}

mvpn_mdt_route_addrs star_g(std::string_view group) {
  mvpn_mdt_route_addrs addrs{};
  addrs.group = address(group);
  addrs.source_len = MROUTE_ANY_SOURCE_LEN;
  addrs.group_len = MROUTE_HOST_LEN;
  return addrs;
}

void put_be16(std::vector<uint8_t> &bytes, uint16_t value) {
  bytes.push_back(static_cast<uint8_t>(value >> 8));
  bytes.push_back(static_cast<uint8_t>(value));
}

void put_be32(std::vector<uint8_t> &bytes, uint32_t value) {
  put_be16(bytes, static_cast<uint16_t>(value >> 16));
  put_be16(bytes, static_cast<uint16_t>(value));
}

uint32_t be32_at(const std::vector<uint8_t> &bytes, size_t offset) {
  uint32_t value = 0;
  for (size_t i = 0; i < 4; i++) value = value << 8 | bytes.at(offset + i);
  return value;
}

std::vector<uint8_t> join_datagram(ip_addr_t source, size_t payload) {
  std::vector<uint8_t> bytes{0x45, 0xC0};
  put_be16(bytes, static_cast<uint16_t>(28 + payload));
  put_be32(bytes, 0);
  bytes.insert(bytes.end(), {1, 17, 0, 0});
  put_be32(bytes, source);
  put_be32(bytes, address("224.0.0.13"));
  put_be16(bytes, 3232);
  put_be16(bytes, 3232);
  put_be16(bytes, static_cast<uint16_t>(8 + payload));
  put_be16(bytes, 0);
  for (size_t i = 0; i < payload; i++) bytes.push_back(static_cast<uint8_t>(i));
  put_at(bytes, 10, ip_checksum(bytes.data(), 20));
  return bytes;
}

void ServicesTest::SetUp() {
  ref::reset();
  ref::set_log_sink(ref::LogSink::none);
  ref::set_module(recording_module());
  ref::enable_interface_events(true);
  oim_register(pim_mts_q);
  client = mrib_register(MRIB_CLIENT_NAME, pim_mrib_mts_q, 0, MRIB_REGISTER_FLAGS, 0, 0, 0, 0);
  ASSERT_NE(client, nullptr);
  told.clear();
}

void ServicesTest::TearDown() {
  ref::reset();
  told.clear();
}

pim_cibtype *ServicesTest::vrf_with_tunnel(std::string_view name, vrf_context_id_t context_id, ip_addr_t group) {
  pim_cibtype *pcib = ref::create_vrf(name, context_id, context_id);
  if_index_t if_index = 0;
  EXPECT_EQ(if_index_overlay_cli_init(&if_index, IF_INDEX_OVERLAY_MVPN, context_id), 0);
  const std::vector<uint8_t> list = tunnel_list(if_index, std::string(name), address("10.0.0.1"), group);
  EXPECT_NE(oim_create_if(list.data(), static_cast<uint32_t>(list.size())), 0);
  oim_send_if_bringup_request(if_index, 0);
  ref::settle();
  pim_enable(0, pcib, tunnel_iod(name), 0);
  pcib->mvpn = some_context;
  told.clear();
  return pcib;
}

im_iod_t ServicesTest::tunnel_iod(std::string_view vrf) const {
  for (const ref::Tunnel &tunnel : ref::tunnels())
    if (tunnel.vrf_name == vrf) return tunnel.iod;
  return 0;
}

// The MRIB and the tunnel manager.
#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "conformance/runner.h"

using namespace conformance;

namespace {

constexpr ip_addr_t source = 0x0A000002, group = 0xEF010101;  // 10.0.0.2, 239.1.1.1
constexpr vrf_context_id_t red = 7;
constexpr uint32_t red_table = 70;

template <typename T>
void put(std::vector<uint8_t> *bytes, size_t offset, T value) {
  std::memcpy(bytes->data() + offset, &value, sizeof value);
}

mvpn_mdt_route_addrs sg_addrs() {
  mvpn_mdt_route_addrs addrs{};
  addrs.source = source;
  addrs.group = group;
  addrs.source_len = addrs.group_len = MROUTE_HOST_LEN;
  return addrs;
}

mrib_client_handle *register_client() {
  mrib_client_handle *client =
      platform.mrib_register(MRIB_CLIENT_NAME, *platform.pim_mrib_mts_q, 0, MRIB_REGISTER_FLAGS, 0, 0, 0, 0);
  if (client == nullptr) throw Abandoned{};
  return client;
}

// The entry that installs the core route, or the two that take it away, behind the room for the MRIB's header.
std::vector<uint8_t> update(bool add) {
  const size_t count = add ? 1 : 2;
  std::vector<uint8_t> buffer(MRIB_UPDATE_HEADER_SIZE + MRIB_UPDATE_ENTRY_SIZE * count);
  for (size_t i = 0; i < count; i++) {
    const size_t at = MRIB_UPDATE_HEADER_SIZE + MRIB_UPDATE_ENTRY_SIZE * i;
    put(&buffer, at + MRIB_ENTRY_CONTEXT_ID, vrf_context_id_t{VRF_CONTEXT_ID_DEFAULT});
    put(&buffer, at + MRIB_ENTRY_SOURCE, source);
    put(&buffer, at + MRIB_ENTRY_GROUP, group);
    put(&buffer, at + MRIB_ENTRY_SOURCE_LEN, uint8_t{MROUTE_HOST_LEN});
    put(&buffer, at + MRIB_ENTRY_GROUP_LEN, uint8_t{MROUTE_HOST_LEN});
    put(&buffer, at + MRIB_ENTRY_ADD, uint8_t{add});
    if (i == 0) put(&buffer, at + MRIB_ENTRY_OWNER, red);
    if (add) put(&buffer, at + MRIB_ENTRY_ADD_OWNER, red);
  }
  return buffer;
}

// Hands an update over, and spoils the buffer afterwards; whether it was accepted and acknowledged.
bool send(mrib_client_handle *client, bool add, uint32_t xid) {
  std::vector<uint8_t> buffer = update(add);
  {
    const InsideACall inside;
    if (platform.mrib_mts_update_route(client, 1, buffer.data(), static_cast<uint32_t>(buffer.size()), add ? 1 : 2, xid,
                                       0) != 0)
      return false;
  }
  std::fill(buffer.begin(), buffer.end(), 0xEE);
  const std::string ack = "ack " + std::to_string(xid);
  return run_until([&] { return std::count(told().begin(), told().end(), ack) == 1; });
}

}  // namespace

CHECK(mrib, "a client is known by its name until it is deregistered") {
  EXPECT(platform.mrib_get_pib(MRIB_CLIENT_NAME) == nullptr);
  EXPECT(platform.mrib_deregister(MRIB_CLIENT_NAME, 1) == 0);
  mrib_client_handle *client = register_client();
  EXPECT(platform.mrib_get_pib(MRIB_CLIENT_NAME) == client);
  EXPECT(platform.mrib_reregister(MRIB_CLIENT_NAME, *platform.pim_mrib_mts_q, 0, MRIB_REREGISTER_FLAGS, 0, 0, 0) !=
         nullptr);
  EXPECT(platform.mrib_deregister(MRIB_CLIENT_NAME, 1) != 0);
  EXPECT(platform.mrib_get_pib(MRIB_CLIENT_NAME) == nullptr);
}

CHECK(mrib, "an accepted update is acknowledged later, and its buffer stays the client's") {
  REQUIRE(driver.add_vrf("red", red, red_table, nullptr) != 0);
  mrib_client_handle *client = register_client();
  EXPECT(send(client, true, 0xAABBCCDD));
  const mvpn_mdt_route_addrs addrs = sg_addrs();
  platform.mrib_acquire_rdlock();
  platform.mrib_acquire_rdlock();  // any number of readers, also of one thread
  const mrib_route *route = platform.mrib_get_route_by_addr(VRF_CONTEXT_ID_DEFAULT, &addrs);
  REQUIRE(route != nullptr);
  EXPECT_EQUAL(route->addrs.source, source);
  EXPECT_EQUAL(route->addrs.group, group);
  mrib_context *context = platform.mrib_get_context_by_context_id(VRF_CONTEXT_ID_DEFAULT);
  REQUIRE(context != nullptr);
  const mrib_group *found = platform.mrib_get_group(context, group, MROUTE_HOST_LEN);
  REQUIRE(found != nullptr);
  EXPECT(found->star_g == nullptr);
  const std::array<uint8_t, 4> key = {10, 0, 0, 2};
  const auto *listed = static_cast<const mrib_route *>(platform.pt_lookup(found->sources, key.data(), 32, 1));
  REQUIRE(listed != nullptr);
  EXPECT(listed->addrs.source == source && listed->addrs.group == group);  // a copy, perhaps
  platform.mrib_release_rdlock();
  platform.mrib_release_rdlock();
  EXPECT(send(client, false, 0xAABBCCDE));
  EXPECT(platform.mrib_get_route_by_addr(VRF_CONTEXT_ID_DEFAULT, &addrs) == nullptr);
}

CHECK(mrib, "what is not there is null") {
  mvpn_mdt_route_addrs addrs = sg_addrs();
  EXPECT(platform.mrib_get_route_by_addr(VRF_CONTEXT_ID_DEFAULT, &addrs) == nullptr);
  EXPECT(platform.mrib_get_route_by_addr(999, &addrs) == nullptr);
  EXPECT(platform.mrib_get_context_by_context_id(999) == nullptr);
  EXPECT(platform.mrib_context_initializing(999) == 0);
  EXPECT_EQUAL(std::string(platform.mrib_print_addrs(&addrs)), "(10.0.0.2/32, 239.1.1.1/32)");
  addrs.source = 0;
  addrs.source_len = MROUTE_ANY_SOURCE_LEN;
  EXPECT_EQUAL(std::string(platform.mrib_print_addrs(&addrs)), "(*, 239.1.1.1/32)");
}

CHECK(mrib, "an encapsulation record is accepted and not acknowledged") {
  REQUIRE(driver.add_vrf("red", red, red_table, nullptr) != 0);
  mrib_client_handle *client = register_client();
  std::vector<uint8_t> record(MRIB_ENCAP_RECORD_SIZE);
  put(&record, MRIB_ENCAP_ADD, uint8_t{1});
  put(&record, MRIB_ENCAP_CONTEXT_ID, red);
  put(&record, MRIB_ENCAP_INDEX, uint16_t{1});
  put(&record, MRIB_ENCAP_GROUP, group);
  put(&record, MRIB_ENCAP_SOURCE, source);
  EXPECT(platform.mrib_update_mdt_encap_info(client, record.data(), 1, 77, 0) != 0);
  driver.run(1000);
  EXPECT(told().empty());
}

// ------------------------------------------------------------------------------------------------------ tunnel manager

namespace {

if_index_t red_tunnel() {
  if_index_t if_index = 0;
  EXPECT(platform.if_index_overlay_cli_init(&if_index, IF_INDEX_OVERLAY_MVPN, red_table) == 0);
  return if_index;
}

// A list of one interface with these parameters: type and value.
std::vector<uint8_t> list_of(if_index_t if_index,
                             const std::vector<std::pair<uint16_t, std::vector<uint8_t>>> &params) {
  std::vector<uint8_t> list(platform.oim_if_info_list_get_size(1, 5, VRF_NAME_MAX + 1));
  const auto size = static_cast<uint32_t>(list.size());
  uint8_t *header = nullptr, *tlv = nullptr;
  if (platform.oim_if_info_list_add_new_if(list.data(), size, &header) == 0) throw Abandoned{};
  const uint32_t network_form = platform.hton_if_index(if_index);
  std::memcpy(header + OIM_IF_HEADER_IF_INDEX, &network_form, sizeof network_form);
  for (const auto &[type, value] : params) {
    if (platform.oim_if_info_list_add_new_param_tlv(list.data(), size, header, &tlv) == 0) throw Abandoned{};
    const uint8_t head[] = {0, static_cast<uint8_t>(type), 0, static_cast<uint8_t>(value.size())};
    std::copy(std::begin(head), std::end(head), tlv);
    std::copy(value.begin(), value.end(), tlv + OIM_TLV_VALUE);
  }
  return list;
}

std::vector<uint8_t> record_of(ip_addr_t addr) {
  std::vector<uint8_t> value(OIM_ADDR_RECORD_SIZE);
  value[3] = OIM_ADDR_FAMILY_IPV4;
  for (int i = 0; i < 4; i++) value[4 + static_cast<size_t>(i)] = static_cast<uint8_t>(addr >> (24 - 8 * i));
  return value;
}

std::vector<uint8_t> create_list() {
  return list_of(red_tunnel(), {{OIM_PARAM_ADMIN_STATE, {1}},
                                {OIM_PARAM_VRF_NAME, {'r', 'e', 'd'}},
                                {OIM_PARAM_MTU, {0, 0, 0x05, 0x60}},
                                {OIM_PARAM_SRC_ADDR, record_of(source)},
                                {OIM_PARAM_DST_ADDR, record_of(group)}});
}

uint32_t be32(const uint8_t *at) {
  return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | uint32_t{at[3]};
}

// The answers that came, by opcode: (opcode, if-index, iod, result).
struct Answer {
  uint32_t opcode;
  if_index_t if_index;
  im_iod_t iod;
  uint32_t result;
};
std::vector<Answer> answers;

void watch_answers() {
  set_message_watcher([](mts_message *msg) {
    const auto *bytes = static_cast<const uint8_t *>(platform.mts_payload_get(msg));
    EXPECT_EQUAL(platform.mts_payload_length_get(msg), size_t{OIM_RESPONSE_ENTRIES + OIM_RESPONSE_ENTRY_SIZE});
    REQUIRE(bytes != nullptr);
    const uint8_t *entry = bytes + OIM_RESPONSE_ENTRIES;
    uint32_t network_form;
    std::memcpy(&network_form, entry + OIM_RESPONSE_IF_INDEX, sizeof network_form);
    answers.push_back({platform.mts_opc_get(msg), platform.ntoh_if_index(network_form), be32(entry + OIM_RESPONSE_IOD),
                       be32(entry + OIM_RESPONSE_RESULT)});
  });
}

// Makes a request and waits for its answer.
template <typename Request>
Answer answer_to(Request request, const std::vector<uint8_t> &list, uint32_t opcode) {
  answers.clear();
  {
    const InsideACall inside;
    if (request(list.data(), static_cast<uint32_t>(list.size())) == 0) throw Abandoned{};
  }
  EXPECT(run_until([] { return !answers.empty(); }));
  if (answers.size() != 1) throw Abandoned{};
  EXPECT_EQUAL(answers[0].opcode, opcode);
  EXPECT_EQUAL(answers[0].if_index, red_tunnel());
  return answers[0];
}

void open_manager() {
  REQUIRE(driver.add_vrf("red", red, red_table, nullptr) != 0);
  platform.oim_api_init();
  REQUIRE(platform.oim_register(*platform.pim_mts_q) != 0);
  watch_answers();
}

}  // namespace

CHECK(oim, "a list is full before it overflows") {
  const uint32_t size = platform.oim_if_info_list_get_size(1, 2, 33);
  std::vector<uint8_t> list(size + 64, 0);
  std::fill(list.end() - 64, list.end(), 0xEE);
  uint8_t *header = nullptr, *tlv = nullptr;
  REQUIRE(platform.oim_if_info_list_add_new_if(list.data(), size, &header) != 0);
  for (int i = 0; i < 2; i++) {
    REQUIRE(platform.oim_if_info_list_add_new_param_tlv(list.data(), size, header, &tlv) != 0);
    EXPECT(tlv >= list.data() && tlv + OIM_TLV_VALUE + 33 <= list.data() + size);
    const uint8_t head[] = {0, OIM_PARAM_VRF_NAME, 0, 33};
    std::copy(std::begin(head), std::end(head), tlv);
  }
  EXPECT(platform.oim_if_info_list_add_new_param_tlv(list.data(), size, header, &tlv) == 0);
  EXPECT(platform.oim_if_info_list_add_new_if(list.data(), size, &header) == 0);
  EXPECT(std::count(list.end() - 64, list.end(), 0xEE) == 64);
}

CHECK(oim, "a tunnel is created, changed, brought up and down, and deleted, each answered later") {
  open_manager();
  const Answer created = answer_to(platform.oim_create_if, create_list(), MTS_OPC_OIM_IF_CREATE_RESPONSE);
  EXPECT_EQUAL(created.result, 0u);
  REQUIRE(created.iod != 0);
  EXPECT(platform.ksink_im_is_mvpn_tunnel(created.iod) != 0);
  EXPECT_EQUAL(platform.l3vm_if_get_context_id(created.iod), red);
  im_iod_t iod = 0;
  EXPECT(platform.im_get_iod_frm_ifindex(red_tunnel(), &iod) == 0 && iod == created.iod);

  const std::string up = "up " + std::to_string(iod), down = "down " + std::to_string(iod);
  const auto was_told = [](const std::string &text) { return std::count(told().begin(), told().end(), text) > 0; };
  if (platform.im_is_if_up(iod) == 0) {
    const InsideACall inside;
    EXPECT(platform.oim_send_if_bringup_request(red_tunnel(), 0) != 0);
  }
  EXPECT(run_until([&] { return was_told(up); }));
  EXPECT(platform.im_is_if_up(iod) != 0);

  const std::vector<uint8_t> mtu = list_of(red_tunnel(), {{OIM_PARAM_MTU, {0, 0, 0x04, 0}}});
  EXPECT_EQUAL(answer_to(platform.oim_modify_if, mtu, MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE).result, 0u);
  {
    const InsideACall inside;
    EXPECT(platform.oim_send_if_bringdown_request(red_tunnel(), 0) != 0);
  }
  EXPECT(run_until([&] { return was_told(down); }));

  EXPECT_EQUAL(answer_to(platform.oim_delete_if, list_of(red_tunnel(), {}), MTS_OPC_OIM_IF_DELETE_RESPONSE).result, 0u);
  EXPECT(platform.im_get_iod_frm_ifindex(red_tunnel(), &iod) != 0);
  platform.oim_deregister();
  platform.oim_api_close();
}

CHECK(oim, "the walk of the database goes on behind an interface that has gone") {
  open_manager();
  oim_if_info info{};
  EXPECT(platform.oim_sdb_get_first_if_info(&info) == 0);
  answer_to(platform.oim_create_if, create_list(), MTS_OPC_OIM_IF_CREATE_RESPONSE);
  REQUIRE(platform.oim_sdb_get_first_if_info(&info) != 0);
  EXPECT_EQUAL(info.if_index, red_tunnel());
  info.if_index = red_tunnel() - 1;  // no interface
  EXPECT(platform.oim_sdb_get_next_if_info(&info) != 0);
  EXPECT_EQUAL(info.if_index, red_tunnel());
  answer_to(platform.oim_delete_if, list_of(red_tunnel(), {}), MTS_OPC_OIM_IF_DELETE_RESPONSE);
  EXPECT(platform.oim_sdb_get_next_if_info(&info) == 0);
}

CHECK(oim, "a change of a tunnel that does not exist is answered with a failure") {
  open_manager();
  const std::vector<uint8_t> mtu = list_of(red_tunnel(), {{OIM_PARAM_MTU, {0, 0, 0x04, 0}}});
  EXPECT(answer_to(platform.oim_modify_if, mtu, MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE).result != 0);
}

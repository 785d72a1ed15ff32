// Interface lists, the tunnel manager's answers and events, its database.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform/im.h"
#include "platform/l3vm.h"
#include "platform/oim.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/oim.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "tests/reference_services/services_test.h"

namespace {

class TunnelTest : public ServicesTest {
 protected:
  if_index_t if_index_of(uint32_t table_id) {
    if_index_t if_index = 0;
    EXPECT_EQ(if_index_overlay_cli_init(&if_index, IF_INDEX_OVERLAY_MVPN, table_id), 0);
    return if_index;
  }

  // A list of one interface with raw parameters.
  std::vector<uint8_t> list_of(if_index_t if_index, const std::vector<std::vector<uint8_t>> &tlvs) {
    std::vector<uint8_t> list(oim_if_info_list_get_size(1, 5, 33));
    const auto size = static_cast<uint32_t>(list.size());
    uint8_t *header = nullptr;
    EXPECT_NE(oim_if_info_list_add_new_if(list.data(), size, &header), 0);
    const uint32_t network_form = hton_if_index(if_index);
    std::memcpy(header + OIM_IF_HEADER_IF_INDEX, &network_form, sizeof network_form);
    for (const auto &bytes : tlvs) {
      uint8_t *tlv = nullptr;
      EXPECT_NE(oim_if_info_list_add_new_param_tlv(list.data(), size, header, &tlv), 0);
      std::copy(bytes.begin(), bytes.end(), tlv);
    }
    return list;
  }

  int remove(if_index_t if_index) {
    const std::vector<uint8_t> list = list_of(if_index, {});
    return oim_delete_if(list.data(), static_cast<uint32_t>(list.size()));
  }
};

const std::string create_response = "message " + std::to_string(MTS_OPC_OIM_IF_CREATE_RESPONSE);
const std::string delete_response = "message " + std::to_string(MTS_OPC_OIM_IF_DELETE_RESPONSE);
const std::string update_response = "message " + std::to_string(MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE);

TEST_F(TunnelTest, ListHoldsAllParametersOfAnOddLengthName) {
  const std::string name(31, 'v');
  vrf_with_tunnel(name, 7, address("239.1.1.1"));
  ASSERT_EQ(ref::tunnels().size(), 1u);
  const ref::Tunnel tunnel = ref::tunnels()[0];
  EXPECT_EQ(tunnel.vrf_name, name);
  EXPECT_EQ(tunnel.admin_up, 1);
  EXPECT_EQ(tunnel.mtu, 1376u);
  EXPECT_EQ(tunnel.source, address("10.0.0.1"));
  EXPECT_EQ(tunnel.destination, address("239.1.1.1"));
  EXPECT_TRUE(tunnel.up);
  EXPECT_EQ(l3vm_if_get_context_id(tunnel.iod), 7u);
  const ref::OimRequest &create = ref::oim_requests().front();
  ASSERT_EQ(create.params.size(), 5u);
  EXPECT_EQ(create.params[1].second, std::vector<uint8_t>(name.begin(), name.end()));
}

TEST_F(TunnelTest, MalformedListsAreRefusedAtOnce) {
  ref::create_vrf("red", 7, 7);
  std::vector<uint8_t> list = list_of(if_index_of(7), {{0, OIM_PARAM_VRF_NAME, 0, 3, 'r', 'e', 'd'}});
  const auto size = static_cast<uint32_t>(list.size());
  for (uint32_t cut = 0; cut < 4 + 12 + 7; cut++) EXPECT_EQ(oim_create_if(list.data(), cut), 0) << cut;
  const auto with = [&](size_t offset, std::vector<uint8_t> bytes) {
    std::vector<uint8_t> changed = list;
    std::copy(bytes.begin(), bytes.end(), changed.begin() + static_cast<std::ptrdiff_t>(offset));
    return changed;
  };
  EXPECT_EQ(oim_create_if(with(0, {0xFF, 0xFF}).data(), size), 0) << "interface count";
  EXPECT_EQ(oim_create_if(with(4, {0xFF, 0xFF}).data(), size), 0) << "parameter count";
  EXPECT_EQ(oim_create_if(with(18, {0xFF, 0xFF}).data(), size), 0) << "parameter length";
  EXPECT_EQ(oim_create_if(with(8, {1, 0, 0, 1}).data(), size), 0) << "if-index of no tunnel";
  EXPECT_EQ(oim_create_if(nullptr, 0), 0);
  ref::settle();
  EXPECT_TRUE(told.empty());
  EXPECT_TRUE(ref::tunnels().empty());
}

TEST_F(TunnelTest, BadParameterValuesFailTheRequest) {
  ref::create_vrf("red", 7, 7);
  const std::vector<uint8_t> name{0, OIM_PARAM_VRF_NAME, 0, 3, 'r', 'e', 'd'};
  const std::vector<std::vector<uint8_t>> bad{
      {0, OIM_PARAM_ADMIN_STATE, 0, 2, 1, 1},
      {0, OIM_PARAM_MTU, 0, 3, 1, 1, 1},
      {0, OIM_PARAM_SRC_ADDR, 0, 4, 10, 0, 0, 1},
      {0, 99, 0, 1, 0},
  };
  for (const auto &param : bad) {
    const std::vector<uint8_t> list = list_of(if_index_of(7), {name, param});
    ASSERT_NE(oim_create_if(list.data(), static_cast<uint32_t>(list.size())), 0);
    told.clear();
    ref::settle();
    EXPECT_EQ(told, std::vector<std::string>{create_response});
    EXPECT_TRUE(ref::tunnels().empty()) << int{param[1]};
  }
}

TEST_F(TunnelTest, AnswersComeFromTheMainLoopAndOnlyForChanges) {
  vrf_with_tunnel("red", 7, address("239.1.1.1"));
  const if_index_t if_index = if_index_of(7);
  oim_send_if_bringup_request(if_index, 0);
  EXPECT_TRUE(told.empty());
  ref::settle();
  EXPECT_TRUE(told.empty()) << "it was up already";
  oim_send_if_bringdown_request(if_index, 0);
  ref::settle();
  EXPECT_EQ(told, std::vector<std::string>{"mti7 down"});
  told.clear();
  oim_send_if_bringup_request(if_index, 0);
  ref::settle();
  EXPECT_EQ(told, std::vector<std::string>{"mti7 up"});
  told.clear();
  remove(if_index);
  ref::settle();
  EXPECT_EQ(told, std::vector<std::string>{delete_response}) << "no state notification";
  im_iod_t iod = 0;
  EXPECT_NE(im_get_iod_frm_ifindex(if_index, &iod), 0);
  told.clear();
  remove(if_index);
  ref::settle();
  EXPECT_EQ(told, std::vector<std::string>{delete_response}) << "deleting what is gone succeeds";
}

TEST_F(TunnelTest, RequestsAreKeptWhileAnswersAreOff) {
  vrf_with_tunnel("red", 7, address("239.1.1.1"));
  ref::set_oim_answers(false);
  oim_send_if_bringdown_request(if_index_of(7), 0);
  remove(if_index_of(7));
  ref::settle();
  EXPECT_TRUE(told.empty());
  EXPECT_EQ(ref::tunnels().size(), 1u);
  ref::set_oim_answers(true);
  ref::settle();
  EXPECT_EQ(told, std::vector<std::string>{delete_response}) << "the interface was gone when its event came up";
  EXPECT_TRUE(ref::tunnels().empty());
}

TEST_F(TunnelTest, UnknownVrfAndUnknownTunnelFail) {
  const std::vector<uint8_t> list = list_of(if_index_of(7), {{0, OIM_PARAM_VRF_NAME, 0, 3, 'r', 'e', 'd'}});
  oim_create_if(list.data(), static_cast<uint32_t>(list.size()));
  oim_modify_if(list.data(), static_cast<uint32_t>(list.size()));
  ref::settle();
  EXPECT_EQ(told, (std::vector<std::string>{create_response, update_response}));
  EXPECT_TRUE(ref::tunnels().empty());
}

class TunnelFileTest : public TunnelTest {
 protected:
  void SetUp() override {
    TunnelTest::SetUp();
    path_ = std::filesystem::path(::testing::TempDir()) / ("tunnels." + std::to_string(::getpid()));
    std::filesystem::remove(path_);
  }
  void TearDown() override {
    TunnelTest::TearDown();
    std::filesystem::remove(path_);
  }
  std::filesystem::path path_;
};

TEST_F(TunnelFileTest, DatabaseOutlivesThePlatform) {
  ASSERT_TRUE(ref::oim_use_file(path_));
  vrf_with_tunnel("red", 7, address("239.1.1.1"));
  ref::create_orphan_tunnel(9);
  ref::settle();
  const im_iod_t iod = tunnel_iod("red");
  ref::reset();
  EXPECT_TRUE(ref::tunnels().empty());
  ASSERT_TRUE(ref::oim_use_file(path_));
  ASSERT_EQ(ref::tunnels().size(), 2u);
  ref::create_vrf("red", 7, 7);
  const ref::Tunnel red = ref::tunnels()[0];
  EXPECT_EQ(red.iod, iod);
  EXPECT_FALSE(red.up) << "nobody serves it";
  EXPECT_EQ(red.destination, address("239.1.1.1"));
  EXPECT_EQ(l3vm_if_get_context_id(iod), 7u) << "the VRF came after its tunnel";
  // A change that is not written when the file is switched off is written nowhere.
  const std::filesystem::path stray = std::filesystem::current_path() / ".new";
  std::filesystem::remove(stray);
  ref::create_orphan_tunnel(8);
  ASSERT_TRUE(ref::oim_use_file(""));
  ref::settle();
  EXPECT_FALSE(std::filesystem::exists(stray));
}

TEST_F(TunnelFileTest, BadFilesAreRefusedAndLeftAlone) {
  const std::string good = R"({"tunnels":[{"if_index":50331655,"iod":1,"admin_up":1,"vrf":"red","mtu":1376,)"
                           R"("source":"10.0.0.1","destination":"239.1.1.1"}]})";
  const auto replaced = [&good](const std::string &from, const std::string &to) {
    std::string changed = good;
    return changed.replace(changed.find(from), from.size(), to);
  };
  const std::vector<std::string> bad{
      "",
      "{",
      "[]",
      R"({"tunnels":{}})",
      replaced("50331655", "16777223"),
      replaced("\"iod\":1", "\"iod\":-1"),
      replaced("\"iod\":1", "\"iod\":65536"),
      replaced("10.0.0.1", "10.0.0.256"),
      replaced("\"red\"", "\"" + std::string(33, 'r') + "\""),
      replaced("\"mtu\":1376,", ""),
  };
  for (const std::string &content : bad) {
    std::ofstream(path_) << content;
    EXPECT_FALSE(ref::oim_use_file(path_)) << content;
    EXPECT_TRUE(ref::tunnels().empty()) << content;
    EXPECT_EQ(std::filesystem::file_size(path_), content.size());
  }
  std::ofstream(path_) << good;
  EXPECT_TRUE(ref::oim_use_file(path_));
  EXPECT_EQ(ref::tunnels().size(), 1u);
}

TEST_F(TunnelTest, InterfaceEventsOnlyForChangesAndOnlyWhileEnabled) {
  ref::enable_interface_events(false);
  ref::create_interface("eth0", VRF_CONTEXT_ID_DEFAULT, address("10.1.0.1"), true);
  ref::create_interface("eth1", VRF_CONTEXT_ID_DEFAULT, 0, false);
  ref::settle();
  EXPECT_TRUE(told.empty());
  ref::enable_interface_events(true);
  ref::settle();
  EXPECT_EQ(told, std::vector<std::string>{"eth0 up"});
  told.clear();
  ref::set_interface_state("eth0", true);
  ref::set_interface_address("eth0", address("10.1.0.1"));
  ref::settle();
  EXPECT_TRUE(told.empty());
  ref::set_interface_address("eth0", address("10.1.0.2"));
  ref::delete_interface("eth0");
  ref::settle();
  EXPECT_EQ(told, (std::vector<std::string>{"eth0 address", "eth0 down"}));
  EXPECT_EQ(ref::find_interface("eth0"), nullptr);
  EXPECT_EQ(ref::create_interface("eth1", VRF_CONTEXT_ID_DEFAULT, 0, true), 0u) << "taken";
}

// What a VRF remembers of its tunnel's source is the ordinal.
TEST_F(TunnelTest, AnInterfaceThatComesBackIsTheOneThatWas) {
  const im_iod_t lan = ref::create_interface("lan", VRF_CONTEXT_ID_DEFAULT, address("10.1.0.1"), true);
  ref::settle();
  ref::delete_interface("lan");
  ref::settle();
  EXPECT_NE(ref::create_interface("other", VRF_CONTEXT_ID_DEFAULT, 0, false), lan);
  ref::settle();
  told.clear();
  EXPECT_EQ(ref::create_interface("lan", VRF_CONTEXT_ID_DEFAULT, address("10.1.0.2"), true), lan);
  ref::settle();
  EXPECT_EQ(told, (std::vector<std::string>{"lan created", "lan address", "lan up"}));
  // A VRF that goes takes along what was about to go; what then comes in its place stays.
  ref::create_vrf("red", 7, 7);
  const im_iod_t port = ref::create_interface("port", 7, 0, true);
  ref::settle();
  ref::delete_interface("port");
  ASSERT_TRUE(ref::delete_vrf("red"));
  EXPECT_EQ(ref::create_interface("port", VRF_CONTEXT_ID_DEFAULT, 0, true), port);
  ref::settle();
  EXPECT_NE(ref::find_interface("port"), nullptr);
  // Names that come and go use no number up.
  for (int i = 0; i < 0x10000; i++) {
    const std::string name = "if" + std::to_string(i);
    ASSERT_NE(ref::create_interface(name, VRF_CONTEXT_ID_DEFAULT, 0, false), 0u) << name;
    ref::delete_interface(name);
  }
}

TEST_F(TunnelTest, OverlayIfIndexesAreComputedFromTableIds) {
  EXPECT_TRUE(im_is_ifindex_mvpn_tunnel(if_index_of(1)));
  EXPECT_TRUE(im_is_ifindex_mvpn_tunnel(if_index_of(0xFFFFFF)));
  if_index_t untouched = 5;
  EXPECT_NE(if_index_overlay_cli_init(&untouched, IF_INDEX_OVERLAY_MVPN, 0), 0);
  EXPECT_NE(if_index_overlay_cli_init(&untouched, IF_INDEX_OVERLAY_MVPN, 0x1000000), 0);
  EXPECT_NE(if_index_overlay_cli_init(&untouched, 4, 1), 0);
  EXPECT_EQ(untouched, 5u);
  const im_iod_t iod = ref::create_interface("eth0", VRF_CONTEXT_ID_DEFAULT, 0, false);
  EXPECT_FALSE(im_is_ifindex_mvpn_tunnel(ref::find_interface(iod)->if_index));
}

}  // namespace

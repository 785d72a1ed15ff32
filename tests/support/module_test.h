// Fixture of the module's tests: a fresh reference platform with a core, the module linked in, and the checks that
// every test ends with.
#ifndef TESTS_SUPPORT_MODULE_TEST_H
#define TESTS_SUPPORT_MODULE_TEST_H

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/reference/bgp.h"
#include "platform/reference/cli.h"
#include "routing/pim/mvpn/mvpn.h"
#include "tests/support/platform_trace.h"

// Address from its dotted form.
ip_addr_t addr(std::string_view dotted);
// And back; "*" for 0.
std::string dotted(ip_addr_t value);
// Route distinguisher from its printed form.
std::vector<uint8_t> rd(std::string_view text);
// Customer route addresses; source "" or "*" for (*,G).
mvpn_mdt_route_addrs route_addrs(std::string_view source, std::string_view group);
// Little-endian host words of a byte string, as the MRIB and BGP formats have them.
uint32_t word_at(const std::vector<uint8_t> &bytes, size_t offset);

class ModuleTest : public ::testing::Test {
 protected:
  // The core: loopback0 10.0.0.1 in the default VRF, up; BGP's update source is loopback0. The module is not started.
  void SetUp() override;
  // Stops the module when it runs, waits for its threads, and fails the test when memory or timers are left over.
  void TearDown() override;

  // Starts the module with its commands registered; interface events are on.
  void start();
  // Ends the configuration replay (end-of-replay counters, mvpn_cli_done).
  void end_replay();

  // A VRF with RD 65000:<context id>, without MVPN configuration. table_id 0: the same as the context id.
  pim_cibtype *add_vrf(std::string_view name, vrf_context_id_t context_id, uint32_t table_id = 0);
  // Gives a VRF a default group by its command, as an operator would, and settles.
  mvpn_cibtype *configure(std::string_view vrf, std::string_view default_group);
  // add_vrf, configure; the default MDT is Up afterwards.
  mvpn_cibtype *bring_up(std::string_view name, vrf_context_id_t context_id, std::string_view default_group);

  // Runs a handler for a VRF. text receives what it printed.
  int command(std::string_view handler, std::string_view vrf, std::vector<ref::CliArgument> arguments = {},
              bool no_form = false, bool interactive = true);
  // Runs a show handler; the text that it prints.
  std::string show(std::string_view handler, std::string_view vrf, std::vector<ref::CliArgument> arguments = {});
  std::string printed;  // of the last command

  mvpn_cibtype *context(std::string_view vrf) { return mvpn_get_context(std::string(vrf).c_str()); }

  // Texts of the module's debug messages, without prefixes; debugging is on from capture_debug().
  void capture_debug();
  std::vector<std::string> debug_texts() const;
  size_t debug_count(std::string_view text) const;  // messages that contain the text

  // Delivers a tunnel-manager response with (if-index, iod, result) entries, a BGP message, at once.
  struct OimAnswer {
    if_index_t if_index;
    im_iod_t iod;
    uint32_t result;
  };
  void oim_response(uint32_t opcode, const std::vector<OimAnswer> &answers);
  void remote_update(const std::vector<ref::MdtSafi> &entries, bool add);

  // Fails the test when a record is inconsistent with the others, the MRIB or the store.
  void check_invariants();
};

// The checks of check_invariants, as texts of what is wrong.
std::vector<std::string> invariant_violations();

#endif  // TESTS_SUPPORT_MODULE_TEST_H

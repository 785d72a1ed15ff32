// Persisted records: any bytes under any key, read by the decoder, the recovery sweep and the announcement.
#include <cstdlib>

#include "fuzzers/fuzz_world.h"
#include "routing/pim/mvpn/mvpn_ha_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  mvpn_cibtype *red = fuzz::red();
  mvpn_ha_encap_info_t record{};
  if (mvpn_ha_get_encap_info_by_pss_value(data, static_cast<uint32_t>(size), &record) == 0) {
    // What decodes also encodes, to a value that decodes to the same.
    uint8_t value[64];
    mvpn_ha_encap_info_t again{};
    if (mvpn_ha_make_encap_info_pss_value(record, value, sizeof value) != 0) std::abort();
    if (mvpn_ha_get_encap_info_by_pss_value(value, mvpn_ha_encap_info_get_tlv_sz(&record), &again) != 0 ||
        again.encap_index != record.encap_index || again.mdt_group != record.mdt_group)
      std::abort();
  }
  if (size < PSS_KEY_SIZE) return 0;
  uint8_t key[PSS_KEY_SIZE] = {MVPN_PSS_ENCAP_INFO, 0, 0, 0, 0, 0, 0, 2};
  for (size_t i = 8; i < PSS_KEY_SIZE; i++) key[i] = data[i];
  ksink_pss_update(pim_ha_handle, key, PSS_KEY_SIZE, data + PSS_KEY_SIZE, static_cast<uint32_t>(size - PSS_KEY_SIZE));
  mvpn_unconditional_announce_data_mdt_join(red);
  mvpn_ha_recovery_stop();
  fuzz::deliver();
  return 0;
}

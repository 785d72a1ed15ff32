// The persistent store and the converter of the records that go into it.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "conformance/runner.h"

using namespace conformance;

namespace {

using Key = std::array<uint8_t, PSS_KEY_SIZE>;
using Bytes = std::vector<uint8_t>;
using Model = std::map<Key, Bytes>;

ksink_pss *store() { return *platform.pim_ha_handle; }

Key key_of(uint8_t kind, uint8_t number) {
  Key key{};
  key[0] = kind;
  key[7] = number;
  return key;
}

bool put(const Key &key, const Bytes &value) {
  return platform.ksink_pss_update(store(), key.data(), PSS_KEY_SIZE, value.data(),
                                   static_cast<uint32_t>(value.size())) != 0;
}

std::optional<Bytes> fetch(const Key &key) {
  const void *value = nullptr;
  uint32_t length = 0;
  if (platform.ksink_pss_fetch(store(), key.data(), PSS_KEY_SIZE, &value, &length) == 0) return std::nullopt;
  const auto *bytes = static_cast<const uint8_t *>(value);
  return Bytes(bytes, bytes + length);
}

struct Walk {
  bool first(const void *prefix, uint32_t size) {
    return take(platform.ksink_pss_get_first(store(), &at, prefix, size, &value, &length));
  }
  bool next() { return take(platform.ksink_pss_get_next(store(), &at, &value, &length)); }
  bool take(int result) {
    if (result == 0) return false;
    std::memcpy(key.data(), at, key.size());
    return true;
  }
  const void *at = nullptr, *value = nullptr;
  uint32_t length = 0;
  Key key{};
};

Model stored() {
  Model all;
  Walk walk;
  for (bool more = walk.first(nullptr, 0); more; more = walk.next()) {
    const auto *bytes = static_cast<const uint8_t *>(walk.value);
    all.emplace(walk.key, Bytes(bytes, bytes + walk.length));
  }
  return all;
}

// What the second life of the process finds.
const Model kept = {{key_of(16, 1), {1, 2, 3}}, {key_of(16, 9), Bytes(40, 7)}, {key_of(17, 1), {}}};

void write_what_is_kept() {
  EXPECT(platform.sysmgr_is_stateful_restart() == 0);
  for (const auto &[key, value] : kept) EXPECT(put(key, value));
  EXPECT(put(key_of(20, 1), {5}));
  driver.run(100);
  const Key gone = key_of(20, 1);
  EXPECT(platform.ksink_pss_delete(store(), gone.data(), PSS_KEY_SIZE) != 0);
  driver.run(100);
}

void find_what_is_kept() {
  EXPECT(platform.sysmgr_is_stateful_restart() != 0);
  EXPECT(stored() == kept);
}

const Registration restart{
    "pss", "records survive a restart, those that were deleted do not", {write_what_is_kept, find_what_is_kept}};

}  // namespace

CHECK(pss, "the store agrees with an ordered map") {
  std::mt19937 random(1);
  Model model;
  for (int step = 0; step < 3000; step++) {
    const Key key = key_of(static_cast<uint8_t>(random() % 3), static_cast<uint8_t>(random() % 20));
    switch (random() % 8) {
      case 0: {
        const uint32_t size = static_cast<uint32_t>(random() % 8 + 1);
        EXPECT(platform.ksink_pss_delete_range(store(), key.data(), size) != 0);
        std::erase_if(
            model, [&](const auto &item) { return std::equal(key.begin(), key.begin() + size, item.first.begin()); });
        break;
      }
      case 1:
      case 2:
        EXPECT(platform.ksink_pss_delete(store(), key.data(), PSS_KEY_SIZE) != 0);
        model.erase(key);
        break;
      default:
        model[key] = Bytes(random() % 40, static_cast<uint8_t>(step));
        REQUIRE(put(key, model[key]));
    }
    const std::optional<Bytes> found = fetch(key);
    REQUIRE(found.has_value() == model.contains(key));
    REQUIRE(!found || *found == model[key]);
    if (step % 100 == 0) driver.run(1);
    if (step % 50 == 0) REQUIRE(stored() == model);
  }
}

CHECK(pss, "a walk starts at the prefix, goes on past it, and ends") {
  for (const uint8_t kind : {15, 16, 17}) put(key_of(kind, 1), {kind});
  put(key_of(16, 2), {});
  const uint8_t sixteen = 16;
  Walk walk;
  REQUIRE(walk.first(&sixteen, 1));
  for (const Key &key : {key_of(16, 1), key_of(16, 2), key_of(17, 1)}) {
    EXPECT(walk.key == key);
    EXPECT(walk.next() == (key != key_of(17, 1)));
  }
  const Key absent = key_of(16, 3);
  REQUIRE(walk.first(absent.data(), PSS_KEY_SIZE));
  EXPECT(walk.key == key_of(17, 1));
  const uint8_t eighteen = 18;
  EXPECT(!walk.first(&eighteen, 1));
}

CHECK(pss, "a walk survives the removal of the record it stands on and of the next") {
  for (uint8_t number = 0; number < 50; number++) put(key_of(16, number), {number});
  std::vector<int> met;
  Walk walk;
  for (bool more = walk.first(nullptr, 0); more; more = walk.next()) {
    const uint8_t number = walk.key[7];
    met.push_back(number);
    const Key next = key_of(16, static_cast<uint8_t>(number + 1));
    fetch(key_of(16, 49));
    if (number % 3 == 0) platform.ksink_pss_delete(store(), next.data(), PSS_KEY_SIZE);
    const Key current = walk.key;
    if (number % 2 == 0) platform.ksink_pss_delete(store(), current.data(), PSS_KEY_SIZE);
  }
  std::vector<int> expected;
  for (int number = 0; number < 50; number++)
    if (number % 3 != 1) expected.push_back(number);
  EXPECT(met == expected);
}

// ----------------------------------------------------------------------------------------------------------- converter

namespace {

struct Sample {
  uint8_t small;
  uint16_t middle;
  uint32_t large;
  uint32_t list[3];
};

constexpr uint32_t end = TLVU_END;
const tlvu_field sample_fields[] = {
    {1, 1, offsetof(Sample, small), 1, {}, 1, end, 0},
    {2, 2, offsetof(Sample, middle), 1, {}, 2, end, 0},
    {3, 4, offsetof(Sample, large), 1, {}, 4, end, 0},
    {900, 4, offsetof(Sample, list), 3, {}, 4, end, 0},
    {end, end, end, 0, {}, 0, end, 0},
};
const tlvu_table sample_table = {sizeof(Sample), "sample", sample_fields};
// The same record without its last field: what an older program knew.
const tlvu_field older_fields[] = {sample_fields[0], sample_fields[1], sample_fields[2], sample_fields[4]};
const tlvu_table older_table = {sizeof(Sample), "sample", older_fields};

constexpr Sample sample = {0x12, 0x3456, 0x789ABCDE, {1, 2, 0xFFFFFFFF}};

Bytes encode(const tlvu_table &table) {
  Bytes bytes(200);
  uint32_t written = 0;
  EXPECT_EQUAL(platform.tlvu_table_convert_struct_to_tlv(&table, &sample, bytes.data(), 200, &written), int{TLVU_OK});
  bytes.resize(std::min<size_t>(written, bytes.size()));
  EXPECT_EQUAL(platform.tlvu_table_size(&table, &sample), bytes.size());
  return bytes;
}

// From an odd address, in a buffer that ends where the bytes do, so that a sanitizer sees what is read beyond them.
int decode(const tlvu_table &table, const Bytes &bytes, Sample *record, uint32_t room = sizeof(Sample)) {
  const auto exact = std::make_unique<uint8_t[]>(bytes.size() + 1);
  std::copy(bytes.begin(), bytes.end(), exact.get() + 1);
  return platform.tlvu_table_convert_tlv_to_struct(&table, exact.get() + 1, static_cast<uint32_t>(bytes.size()), record,
                                                   room);
}

}  // namespace

CHECK(tlvu, "a record comes back as it went; its numbers are in network byte order") {
  const Bytes bytes = encode(sample_table);
  Sample back{};
  EXPECT_EQUAL(decode(sample_table, bytes, &back), int{TLVU_OK});
  EXPECT(back.small == sample.small && back.middle == sample.middle && back.large == sample.large);
  EXPECT(std::equal(std::begin(back.list), std::end(back.list), std::begin(sample.list)));
  uint32_t size = 0;
  EXPECT_EQUAL(platform.tlvu_table_struct_size(&sample_table, bytes.data(), static_cast<uint32_t>(bytes.size()), &size),
               int{TLVU_OK});
  EXPECT_EQUAL(size, sizeof(Sample));
  const uint8_t *value = nullptr;
  EXPECT_EQUAL(
      platform.tlvu_table_get_field(&sample_table, bytes.data(), static_cast<uint32_t>(bytes.size()), 3, &value, &size),
      0);
  const uint8_t large[] = {0x78, 0x9A, 0xBC, 0xDE};
  EXPECT(value != nullptr && size == 4 && std::equal(value, value + 4, large));
  EXPECT_EQUAL(platform.tlvu_table_get_field(&sample_table, bytes.data(), static_cast<uint32_t>(bytes.size()), 77,
                                             &value, &size),
               -1);
}

CHECK(tlvu, "unknown fields are skipped, missing ones are an error") {
  Sample back{};
  EXPECT_EQUAL(decode(older_table, encode(sample_table), &back), int{TLVU_OK});
  EXPECT(back.large == sample.large);
  EXPECT_EQUAL(decode(sample_table, encode(older_table), &back), int{TLVU_ERR_FIELD});
  const tlvu_field last_fields[] = {sample_fields[3], sample_fields[4]};
  const tlvu_table last_table = {sizeof(Sample), "sample", last_fields};
  EXPECT_EQUAL(decode(last_table, encode(sample_table), &back), int{TLVU_OK});
  EXPECT_EQUAL(back.list[2], sample.list[2]);
}

CHECK(tlvu, "what is cut off, too large or nothing is an error of its kind") {
  const Bytes bytes = encode(sample_table);
  for (size_t size = 1; size < bytes.size(); size++) {
    Sample part{};
    const Bytes cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
    const int error = decode(sample_table, cut, &part);
    if (error != TLVU_ERR_TRUNCATED && error != TLVU_ERR_FIELD)
      differs(__FILE__, __LINE__, std::to_string(size) + " bytes of a record give " + std::to_string(error));
  }
  Sample back{};
  for (size_t extra = 1; extra < 4; extra++) {  // part of another field
    Bytes longer = bytes;
    longer.resize(bytes.size() + extra);
    EXPECT_EQUAL(decode(sample_table, longer, &back), int{TLVU_ERR_TRUNCATED});
  }
  EXPECT_EQUAL(decode(sample_table, bytes, &back, sizeof back - 1), int{TLVU_ERR_SPACE});
  tlvu_field wide_fields[std::size(sample_fields)];
  std::copy(std::begin(sample_fields), std::end(sample_fields), wide_fields);
  wide_fields[1].size = wide_fields[1].element_size = 4;
  EXPECT_EQUAL(decode(sample_table, encode({sizeof(Sample), "sample", wide_fields}), &back), int{TLVU_ERR_FIELD});
  const uint8_t *nothing = nullptr;
  EXPECT_EQUAL(platform.tlvu_table_convert_tlv_to_struct(nullptr, bytes.data(), 1, &back, sizeof back),
               int{TLVU_ERR_ARGUMENT});
  EXPECT_EQUAL(platform.tlvu_table_convert_tlv_to_struct(&sample_table, nothing, 1, &back, sizeof back),
               int{TLVU_ERR_ARGUMENT});
  std::vector<uint8_t> room(bytes.size());
  uint32_t written = 0;
  for (size_t size = 0; size < bytes.size(); size++)
    EXPECT_EQUAL(platform.tlvu_table_convert_struct_to_tlv(&sample_table, &sample, room.data(),
                                                           static_cast<uint32_t>(size), &written),
                 int{TLVU_ERR_SPACE});
  EXPECT_EQUAL(platform.tlvu_table_convert_struct_to_tlv(nullptr, &sample, room.data(), 10, &written),
               int{TLVU_ERR_ARGUMENT});
  EXPECT_EQUAL(platform.tlvu_table_convert_struct_to_tlv(&sample_table, nullptr, room.data(), 10, &written),
               int{TLVU_ERR_ARGUMENT});
}

CHECK(tlvu, "fields are walked in order, to the end or to bad bytes") {
  Bytes bytes = encode(sample_table);
  tlvu_field_iterator walk;
  std::vector<uint32_t> ids;
  uint32_t id = 0, size = 0;
  const uint8_t *value = nullptr;
  REQUIRE(platform.tlvu_table_field_itr_init(&sample_table, bytes.data(), static_cast<uint32_t>(bytes.size()), &walk) ==
          0);
  int result;
  while ((result = platform.tlvu_table_field_get_next(&sample_table, &walk, &id, &value, &size)) == 0 && ids.size() < 9)
    ids.push_back(id);
  EXPECT_EQUAL(result, -1);
  EXPECT((ids == std::vector<uint32_t>{1, 2, 3, 900}));
  platform.tlvu_table_field_itr_init(&sample_table, bytes.data(), static_cast<uint32_t>(bytes.size() - 1), &walk);
  for (size_t i = 0; i < 4; i++) result = platform.tlvu_table_field_get_next(&sample_table, &walk, &id, &value, &size);
  EXPECT_EQUAL(result, int{TLVU_ERR_TRUNCATED});
}

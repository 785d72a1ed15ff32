// Trees, queues and bit sets against the standard library's containers: random operations, and walks that lose the
// record they stand on, the one after it, and records anywhere.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <deque>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "conformance/runner.h"

using namespace conformance;

namespace {

constexpr uint32_t key_size = 8;
using Key = std::array<uint8_t, key_size>;

// Few different bytes, so that keys collide and share prefixes.
Key random_key(std::mt19937 &random) {
  Key key{};
  for (const size_t place : {0, 3, 4, 7}) key[place] = static_cast<uint8_t>(random() % 4 * 85);
  return key;
}

struct Record {
  ravl_node node{};
  Key key{};
};

struct AvlTree {
  AvlTree() { platform.ravl_init(&tree, key_size, offsetof(Record, key), nullptr); }
  bool insert(const Key &key) {
    auto record = std::make_unique<Record>();
    record->key = key;
    record->node.user_data = record.get();
    if (platform.ravl_insert(&tree, record.get()) == 0) return false;
    records[key] = std::move(record);
    return true;
  }
  bool erase(const Key &key) {
    const auto found = records.find(key);
    if (found == records.end()) return false;
    EXPECT(platform.ravl_delete(&tree, found->second.get()) != 0);
    records.erase(found);
    return true;
  }
  std::vector<void *> expected() const {
    std::vector<void *> all;
    for (const auto &[key, record] : records) all.push_back(record.get());
    return all;
  }
  ravl_tree tree{};
  std::map<Key, std::unique_ptr<Record>> records;
};

}  // namespace

CHECK(ravl, "a tree agrees with an ordered map") {
  AvlTree tree;
  std::mt19937 random(1);
  for (int step = 0; step < 5000; step++) {
    const Key key = random_key(random);
    const bool known = tree.records.contains(key), inserts = random() % 2 == 0;
    REQUIRE((inserts ? tree.insert(key) : tree.erase(key)) == (known != inserts));
    const auto found = tree.records.find(key);
    REQUIRE(platform.ravl_lookup(&tree.tree, key.data()) ==
            (found != tree.records.end() ? found->second.get() : nullptr));
    REQUIRE(tree.tree.count == tree.records.size());
    if (step % 100 != 0) continue;
    std::vector<void *> walked;
    for (void *at = platform.ravl_get_first_node(&tree.tree, 0); at != nullptr;
         at = platform.ravl_get_next_node(&tree.tree, at))
      walked.push_back(at);
    REQUIRE(walked == tree.expected());
  }
}

CHECK(ravl, "a range holds both ends") {
  AvlTree tree;
  std::mt19937 random(2);
  for (int i = 0; i < 100; i++) tree.insert(random_key(random));
  for (int i = 0; i < 200; i++) {
    const Key low = random_key(random), high = random_key(random);
    std::vector<void *> expected, walked;
    for (const auto &[key, record] : tree.records)
      if (low <= key && key <= high) expected.push_back(record.get());
    ravl_iterator walk;
    for (void *at = platform.ravl_get_first_node_in_range(&tree.tree, low.data(), high.data(), &walk); at != nullptr;
         at = platform.ravl_get_next_node_in_range(&tree.tree, low.data(), high.data(), &walk))
      walked.push_back(at);
    REQUIRE(walked == expected);
  }
}

CHECK(ravl, "a walk survives the removal of any record, and yields") {
  AvlTree tree;
  std::mt19937 random(3);
  for (int round = 0; round < 50; round++) {
    for (int i = 0; i < 60; i++) tree.insert(random_key(random));
    ravl_iterator walk;
    platform.ravl_init_iterator(&walk, &tree.tree);
    Key last{};
    bool first = true;
    for (void *at = platform.ravl_get_first_user_data(&walk); at != nullptr;
         at = platform.ravl_get_next_user_data(&walk)) {
      const Key key = static_cast<Record *>(at)->key;
      const auto expected = first ? tree.records.begin() : tree.records.upper_bound(last);
      REQUIRE(expected != tree.records.end() && key == expected->first);
      last = key;
      first = false;
      if (const auto next = std::next(expected); next != tree.records.end() && random() % 2 == 0)
        tree.erase(Key(next->first));
      if (random() % 2 == 0) tree.erase(key);
      if (random() % 4 == 0) tree.insert(random_key(random));
      if (random() % 8 == 0) platform.ravl_pre_sched_yield(&walk);
    }
    REQUIRE(tree.records.upper_bound(last) == tree.records.end());
  }
}

CHECK(ravl, "a record of an emptied tree is not in it") {
  AvlTree tree;
  Key low{}, high{};
  high[0] = 1;
  REQUIRE(tree.insert(low));
  Record *stale = tree.records[low].get();
  platform.ravl_init(&tree.tree, key_size, offsetof(Record, key), nullptr);
  EXPECT(platform.ravl_get_first_node(&tree.tree, 0) == nullptr);
  EXPECT(platform.ravl_delete(&tree.tree, stale) == 0);
  Record fresh;
  fresh.key = high;
  EXPECT(platform.ravl_insert(&tree.tree, &fresh) != 0);
  EXPECT(platform.ravl_lookup(&tree.tree, high.data()) == &fresh);
  EXPECT_EQUAL(tree.tree.count, 1u);
}

CHECK(ravl, "a tree with a comparison of its own is in that order") {
  struct Numbered {
    ravl_node node{};
    uint32_t number = 0;
  };
  const ravl_compare by_number = [](const void *a, const void *b) {
    uint32_t x, y;
    std::memcpy(&x, a, sizeof x);
    std::memcpy(&y, b, sizeof y);
    return x < y ? -1 : x > y ? 1 : 0;
  };
  ravl_tree tree{};
  platform.ravl_init(&tree, sizeof(uint32_t), offsetof(Numbered, number), by_number);
  std::array<Numbered, 300> records;
  for (size_t i = 0; i < records.size(); i++) {
    records[i].number = static_cast<uint32_t>(i * 7919 % records.size());
    REQUIRE(platform.ravl_insert(&tree, &records[i]) != 0);
  }
  uint32_t expected = 0;
  for (void *at = platform.ravl_get_first_node(&tree, 0); at != nullptr; at = platform.ravl_get_next_node(&tree, at))
    REQUIRE(static_cast<Numbered *>(at)->number == expected++);
  EXPECT_EQUAL(expected, records.size());
}

// ------------------------------------------------------------------------------------------------------ Patricia trees

namespace {

struct Patricia {
  static constexpr uint32_t all_bits = key_size * 8;
  Patricia() : attributes(platform.pt_attr_create(0, 1, key_size)) {
    if (attributes == nullptr) throw Abandoned{};
  }
  bool add(const Key &key) {
    const bool added = platform.pt_add(attributes, &root, key_size, key.data(), all_bits, &model) == 0;
    if (added) model.insert(key);
    return added;
  }
  bool remove(const Key &key) {
    model.erase(key);
    return platform.pt_delete(attributes, &root, key.data(), all_bits) == 0;
  }
  pt_attr *attributes;
  pt_root *root = nullptr;
  std::set<Key> model;
};

}  // namespace

CHECK(pt, "a tree agrees with a set, and is null while it is empty") {
  Patricia tree;
  EXPECT(platform.pt_attr_create(0, 1, key_size) == tree.attributes);
  EXPECT(platform.pt_get_first_node(nullptr, nullptr, 0) == nullptr);
  std::mt19937 random(4);
  for (int step = 0; step < 5000; step++) {
    const Key key = random_key(random);
    const bool known = tree.model.contains(key), adds = random() % 2 == 0;
    REQUIRE((adds ? tree.add(key) : tree.remove(key)) == (known != adds));
    REQUIRE(platform.pt_lookup(tree.root, key.data(), Patricia::all_bits, 1) ==
            (tree.model.contains(key) ? &tree.model : nullptr));
    REQUIRE((tree.root == nullptr) == tree.model.empty());
  }
}

CHECK(pt, "walks by prefix are in key order and survive the removal of any record") {
  Patricia tree;
  std::mt19937 random(5);
  for (int round = 0; round < 100; round++) {
    for (int i = 0; i < 60; i++) tree.add(random_key(random));
    const Key prefix = random_key(random);
    const uint32_t bytes = static_cast<uint32_t>(round) % 5 * 2;
    std::set<Key> left;
    for (const Key &key : tree.model)
      if (std::equal(key.begin(), key.begin() + bytes, prefix.begin())) left.insert(key);
    for (pt_node *node = platform.pt_get_first_node(tree.root, prefix.data(), bytes * 8); node != nullptr;) {
      Key key;
      std::memcpy(key.data(), platform.pt_node_key(node), key_size);
      REQUIRE(!left.empty() && key == *left.begin());
      EXPECT(platform.pt_node_data(node) == &tree.model);
      left.erase(key);
      if (!left.empty() && random() % 2 == 0) {
        tree.remove(*left.begin());
        left.erase(left.begin());
      }
      if (random() % 2 == 0) tree.remove(key);
      node = platform.pt_get_next_node(tree.root, key.data(), bytes * 8);
    }
    REQUIRE(left.empty());
  }
}

// -------------------------------------------------------------------------------------------------------------- queues

CHECK(rqueue, "a linking queue agrees with a deque; its first word is the head") {
  struct Item {
    void *link;
  };
  std::array<Item, 20> items{};
  std::deque<void *> model;
  rqueue queue;
  platform.rqueue_init(&queue, RQUEUE_LINKING, 0);
  EXPECT(platform.rdequeue(&queue) == nullptr);
  std::mt19937 random(6);
  for (int step = 0; step < 5000; step++) {
    Item *item = &items[random() % items.size()];
    const auto at = std::find(model.begin(), model.end(), item);
    if (at == model.end()) {
      REQUIRE(platform.runqueue(&queue, item) == 0);
      platform.renqueue(&queue, item);
      model.push_back(item);
    } else if (random() % 2 == 0) {
      REQUIRE(platform.runqueue(&queue, item) != 0);
      model.erase(at);
    } else {
      REQUIRE(platform.rdequeue(&queue) == model.front());
      model.pop_front();
    }
    REQUIRE(queue.head == (model.empty() ? nullptr : model.front()));
    std::deque<void *> walked;
    for (void *next = platform.rqueue_next(&queue, nullptr); next != nullptr; next = platform.rqueue_next(&queue, next))
      walked.push_back(next);
    REQUIRE(walked == model);
    REQUIRE(platform.rqueue_count(&queue) == model.size());
  }
}

CHECK(rqueue, "a data queue agrees with a deque of pointers and tags, and holds nothing while empty") {
  using Model = std::deque<std::pair<void *, uint32_t>>;
  std::array<int, 12> targets{};
  Model model;
  rqueue queue;
  platform.rqueue_init(&queue, RQUEUE_DATA, 0);
  std::mt19937 random(7);
  for (uint32_t step = 0; step < 5000; step++) {
    void *data = &targets[random() % targets.size()];
    const auto at = std::find_if(model.begin(), model.end(), [data](const auto &item) { return item.first == data; });
    REQUIRE((platform.rqueue_find_item(&queue, data) != 0) == (at != model.end()));
    if (at == model.end()) {
      REQUIRE(platform.runqueue_data(&queue, data) == 0);
      REQUIRE(platform.renqueue_data(&queue, data, step) != 0);
      model.emplace_back(data, step);
    } else if (random() % 3 > 0) {
      REQUIRE(platform.runqueue_data(&queue, data) != 0);
      model.erase(at);
    } else {
      uint32_t tag = 0;
      REQUIRE(platform.rdequeue_data(&queue, &tag) == model.front().first && tag == model.front().second);
      model.pop_front();
    }
    Model walked;
    platform.rqueue_visit_data(
        &queue, [](void *item, uint32_t tag, void *list) { static_cast<Model *>(list)->emplace_back(item, tag); },
        &walked);
    REQUIRE(walked == model);
    REQUIRE(queue.head == (model.empty() ? nullptr : model.front().first));
  }
  while (platform.rdequeue_data(&queue, nullptr) != nullptr) {
  }
  EXPECT(queue.rest == 0);
}

CHECK(rqueue, "a pointer that was queued twice is there twice") {
  int target = 0;
  rqueue queue;
  platform.rqueue_init(&queue, RQUEUE_DATA, 0);
  platform.renqueue_data(&queue, &target, 1);
  platform.renqueue_data(&queue, &target, 2);
  EXPECT(platform.runqueue_data(&queue, &target) != 0);
  EXPECT(platform.rqueue_find_item(&queue, &target) != 0);
  EXPECT(platform.rdequeue_data(&queue, nullptr) == &target);
  EXPECT(platform.rqueue_find_item(&queue, &target) == 0);
}

CHECK(bitfield, "a bit set agrees with a set") {
  std::mt19937 random(8);
  std::array<uint32_t, 5> words;
  for (int round = 0; round < 200; round++) {
    std::set<int64_t> model;
    words.fill(0);
    for (uint32_t n = random() % 4; n > 0; n--) {
      const uint32_t bit = random() % (words.size() * 32);
      words[bit / 32] |= uint32_t{1} << bit % 32;
      model.insert(bit);
    }
    const bitfield set{words.data(), static_cast<uint32_t>(words.size())};
    REQUIRE((platform.bitfield_is_any_set(&set) != 0) == !model.empty());
    REQUIRE(platform.bitfield_find_first_set(&set) == (model.empty() ? -1 : *model.begin()));
    for (uint32_t bit = 0; bit < words.size() * 32 + 40; bit++) {
      REQUIRE((platform.bitfield_test(&set, bit) != 0) == model.contains(bit));
      const auto next = model.upper_bound(bit);
      REQUIRE(platform.bitfield_find_next_set(&set, bit) == (next == model.end() ? -1 : *next));
    }
  }
  const bitfield empty{};
  EXPECT(platform.bitfield_find_first_set(&empty) == -1);
  EXPECT(platform.bitfield_find_next_set(&empty, UINT32_MAX) == -1);
}

// Trees, queues and bit sets against the standard library's containers: random operations, and walks that lose the
// record they stand on, the one after it, and records anywhere.
#include <array>
#include <cstring>
#include <deque>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>

#include "platform/pt.h"
#include "platform/ravl.h"
#include "platform/rqueue.h"
#include "tests/reference/runtime_test.h"

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

class AvlTree : public RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    ravl_init(&tree_, key_size, offsetof(Record, key), nullptr);
  }

  bool insert(const Key &key) {
    auto record = std::make_unique<Record>();
    record->key = key;
    record->node.user_data = record.get();
    if (ravl_insert(&tree_, record.get()) == 0) return false;
    records_[key] = std::move(record);
    return true;
  }

  bool erase(const Key &key) {
    const auto found = records_.find(key);
    if (found == records_.end()) return false;
    EXPECT_NE(ravl_delete(&tree_, found->second.get()), 0);
    records_.erase(found);
    return true;
  }

  // The keys of every sort of walk are those of the model.
  void expect_walks_agree() {
    auto expected = records_.begin();
    for (void *at = ravl_get_first_node(&tree_, 0); at != nullptr; at = ravl_get_next_node(&tree_, at), ++expected) {
      ASSERT_NE(expected, records_.end());
      ASSERT_EQ(at, expected->second.get());
    }
    ASSERT_EQ(expected, records_.end());
    ravl_iterator walk;
    ravl_init_iterator(&walk, &tree_);
    size_t count = 0;
    for (void *at = ravl_get_next_user_data(&walk); at != nullptr; at = ravl_get_next_user_data(&walk)) count++;
    ASSERT_EQ(count, records_.size());
    ASSERT_EQ(tree_.count, records_.size());
  }

  ravl_tree tree_;
  std::map<Key, std::unique_ptr<Record>> records_;
};

TEST_F(AvlTree, AgreesWithAMap) {
  std::mt19937 random(1);
  for (int step = 0; step < 5000; step++) {
    const Key key = random_key(random);
    const bool known = records_.contains(key);
    const bool inserts = random() % 2 == 0;
    ASSERT_EQ(inserts ? insert(key) : erase(key), known != inserts);
    const auto found = records_.find(key);
    ASSERT_EQ(ravl_lookup(&tree_, key.data()), found != records_.end() ? found->second.get() : nullptr);
    if (step % 100 == 0) expect_walks_agree();
  }
}

TEST_F(AvlTree, RangeHoldsBothEnds) {
  std::mt19937 random(2);
  for (int i = 0; i < 100; i++) insert(random_key(random));
  for (int i = 0; i < 200; i++) {
    const Key low = random_key(random), high = random_key(random);
    std::vector<void *> expected, found;
    for (const auto &[key, record] : records_)
      if (low <= key && key <= high) expected.push_back(record.get());
    ravl_iterator walk;
    for (void *at = ravl_get_first_node_in_range(&tree_, low.data(), high.data(), &walk); at != nullptr;
         at = ravl_get_next_node_in_range(&tree_, low.data(), high.data(), &walk))
      found.push_back(at);
    ASSERT_EQ(found, expected);
  }
}

TEST_F(AvlTree, WalkSurvivesRemovals) {
  std::mt19937 random(3);
  for (int round = 0; round < 50; round++) {
    for (int i = 0; i < 60; i++) insert(random_key(random));
    ravl_iterator walk;
    ravl_init_iterator(&walk, &tree_);
    Key last{};
    bool first = true;
    for (void *at = ravl_get_first_user_data(&walk); at != nullptr; at = ravl_get_next_user_data(&walk)) {
      const Key key = static_cast<Record *>(at)->key;
      const auto expected = first ? records_.begin() : records_.upper_bound(last);
      ASSERT_EQ(key, expected->first);
      last = key;
      first = false;
      if (const auto next = std::next(expected); next != records_.end() && random() % 2 == 0) erase(Key(next->first));
      if (random() % 2 == 0) erase(key);
      if (random() % 4 == 0) insert(random_key(random));
    }
    ASSERT_EQ(records_.upper_bound(last), records_.end());
  }
}

TEST_F(AvlTree, RecordsOfAnEmptiedTreeAreNotInIt) {
  Key low{}, high{};
  high[0] = 1;
  ASSERT_TRUE(insert(low));
  Record *stale = records_[low].get();
  ravl_init(&tree_, key_size, offsetof(Record, key), nullptr);
  EXPECT_EQ(ravl_delete(&tree_, stale), 0);
  Record fresh;
  fresh.key = high;
  ASSERT_NE(ravl_insert(&tree_, &fresh), 0);
  EXPECT_EQ(ravl_delete(&tree_, stale), 0);
  EXPECT_EQ(ravl_lookup(&tree_, high.data()), &fresh);
  EXPECT_NE(ravl_insert(&tree_, stale), 0);
  EXPECT_EQ(tree_.count, 2u);
}

class PatriciaTree : public RuntimeTest {
 protected:
  using Model = std::map<Key, int>;
  static constexpr uint32_t all_bits = key_size * 8;

  bool add(const Key &key) {
    const bool added = pt_add(attributes_, &root_, key_size, key.data(), all_bits, &model_) == 0;
    if (added) model_[key] = 0;
    return added;
  }
  bool remove(const Key &key) {
    model_.erase(key);
    return pt_delete(attributes_, &root_, key.data(), all_bits) == 0;
  }
  void TearDown() override {
    while (!model_.empty()) remove(Key(model_.begin()->first));
    EXPECT_EQ(root_, nullptr);
    RuntimeTest::TearDown();
  }

  pt_attr *attributes_ = pt_attr_create(0, 1, key_size);
  pt_root *root_ = nullptr;
  Model model_;
};

TEST_F(PatriciaTree, AgreesWithAMap) {
  std::mt19937 random(4);
  EXPECT_EQ(pt_attr_create(0, 1, key_size), attributes_);
  for (int step = 0; step < 5000; step++) {
    const Key key = random_key(random);
    const bool known = model_.contains(key);
    const bool adds = random() % 2 == 0;
    ASSERT_EQ(adds ? add(key) : remove(key), known != adds);
    ASSERT_EQ(pt_lookup(root_, key.data(), all_bits, 1) != nullptr, model_.contains(key));
    ASSERT_EQ(root_ == nullptr, model_.empty());
  }
}

TEST_F(PatriciaTree, PrefixWalksSurviveRemovals) {
  std::mt19937 random(5);
  for (int round = 0; round < 100; round++) {
    for (int i = 0; i < 60; i++) add(random_key(random));
    const Key prefix = random_key(random);
    const uint32_t bytes = round % 5 * 2;
    const auto matches = [&](const Key &key) { return std::memcmp(key.data(), prefix.data(), bytes) == 0; };
    std::set<Key> left;
    for (const auto &[key, unused] : model_)
      if (matches(key)) left.insert(key);
    for (pt_node *node = pt_get_first_node(root_, prefix.data(), bytes * 8); node != nullptr;) {
      Key key;
      std::memcpy(key.data(), pt_node_key(node), key_size);
      ASSERT_FALSE(left.empty());
      ASSERT_EQ(key, *left.begin());
      left.erase(key);
      if (!left.empty() && random() % 2 == 0) {
        remove(*left.begin());
        left.erase(left.begin());
      }
      if (random() % 2 == 0) remove(key);
      node = pt_get_next_node(root_, key.data(), bytes * 8);
    }
    ASSERT_TRUE(left.empty());
  }
}

TEST(LinkingQueue, AgreesWithADeque) {
  struct Item {
    void *link;
  };
  std::array<Item, 20> items{};
  std::deque<void *> model;
  rqueue queue;
  rqueue_init(&queue, RQUEUE_LINKING, 0);
  std::mt19937 random(6);
  for (int step = 0; step < 5000; step++) {
    Item *item = &items[random() % items.size()];
    const auto at = std::find(model.begin(), model.end(), item);
    if (at == model.end()) {
      ASSERT_EQ(runqueue(&queue, item), 0);
      renqueue(&queue, item);
      model.push_back(item);
    } else if (random() % 2 == 0) {
      ASSERT_NE(runqueue(&queue, item), 0);
      model.erase(at);
    } else {
      ASSERT_EQ(rdequeue(&queue), model.front());
      model.pop_front();
    }
    ASSERT_EQ(queue.head, model.empty() ? nullptr : model.front());
    std::deque<void *> walked;
    for (void *next = rqueue_next(&queue, nullptr); next != nullptr; next = rqueue_next(&queue, next))
      walked.push_back(next);
    ASSERT_EQ(walked, model);
    ASSERT_EQ(rqueue_count(&queue), model.size());
  }
}

TEST(DataQueue, AgreesWithADeque) {
  using Model = std::deque<std::pair<void *, uint32_t>>;
  std::array<int, 12> targets{};
  Model model;
  rqueue queue;
  rqueue_init(&queue, RQUEUE_DATA, 0);
  std::mt19937 random(7);
  for (uint32_t step = 0; step < 5000; step++) {
    void *data = &targets[random() % targets.size()];
    const auto at = std::find_if(model.begin(), model.end(), [data](const auto &item) { return item.first == data; });
    ASSERT_EQ(rqueue_find_item(&queue, data) != 0, at != model.end());
    if (at == model.end()) {
      ASSERT_EQ(runqueue_data(&queue, data), 0);
      ASSERT_NE(renqueue_data(&queue, data, step), 0);
      model.emplace_back(data, step);
    } else if (random() % 3 > 0) {
      ASSERT_NE(runqueue_data(&queue, data), 0);
      model.erase(at);
    } else {
      uint32_t tag = 0;
      ASSERT_EQ(rdequeue_data(&queue, &tag), model.front().first);
      ASSERT_EQ(tag, model.front().second);
      model.pop_front();
    }
    Model walked;
    rqueue_visit_data(
        &queue, [](void *item, uint32_t tag, void *list) { static_cast<Model *>(list)->emplace_back(item, tag); },
        &walked);
    ASSERT_EQ(walked, model);
    ASSERT_EQ(queue.head, model.empty() ? nullptr : model.front().first);
  }
  while (rdequeue_data(&queue, nullptr) != nullptr) {
  }
  EXPECT_EQ(queue.index, nullptr);
}

TEST(DataQueue, PointerThatWasQueuedTwiceIsThereTwice) {
  int target = 0;
  rqueue queue;
  rqueue_init(&queue, RQUEUE_DATA, 0);
  renqueue_data(&queue, &target, 1);
  renqueue_data(&queue, &target, 2);
  EXPECT_NE(runqueue_data(&queue, &target), 0);
  EXPECT_NE(rqueue_find_item(&queue, &target), 0);
  EXPECT_EQ(rdequeue_data(&queue, nullptr), &target);
  EXPECT_EQ(rqueue_find_item(&queue, &target), 0);
}

TEST(BitSet, AgreesWithASet) {
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
    EXPECT_EQ(bitfield_is_any_set(&set) != 0, !model.empty());
    EXPECT_EQ(bitfield_find_first_set(&set), model.empty() ? -1 : *model.begin());
    for (uint32_t bit = 0; bit < words.size() * 32 + 40; bit++) {
      ASSERT_EQ(bitfield_test(&set, bit) != 0, model.contains(bit));
      const auto next = model.upper_bound(bit);
      ASSERT_EQ(bitfield_find_next_set(&set, bit), next == model.end() ? -1 : *next);
    }
  }
  const bitfield empty{};
  EXPECT_EQ(bitfield_find_first_set(&empty), -1);
  EXPECT_EQ(bitfield_find_next_set(&empty, UINT32_MAX), -1);
}

}  // namespace

// Transmit list: marker rules, versions, and walks over a list that changes.
#include "platform/txlist.h"

#include <array>
#include <cstddef>
#include <memory>
#include <string>

#include "tests/reference/runtime_test.h"

namespace {

constexpr uint8_t item_kind = 1, context_kind = 3, marker_kind = 7;

struct Item {
  char name = 0;
  txlist_element element{};
};

class TransmitList : public RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    list_ = txlist_create(0, 0);
    ASSERT_NE(list_, nullptr);
    txlist_register_kind(list_, item_kind, offsetof(Item, element));
    txlist_init_member(&marker_, marker_kind);
    for (size_t i = 0; i < items_.size(); i++) {
      items_[i].name = static_cast<char>('a' + i);
      txlist_init_element(&items_[i].element, item_kind);
    }
  }
  void TearDown() override {
    txlist_destroy(list_);
    RuntimeTest::TearDown();
  }

  void append(char name) { txlist_insert_element_at_tail(list_, &item(name).element); }
  void remove(char name) { txlist_remove_element(list_, &item(name).element); }
  Item &item(char name) { return items_.at(static_cast<size_t>(name - 'a')); }
  txlist_obj *object(char name) { return name == '|' ? txlist_member_to_obj(&marker_) : &item(name).element.obj; }

  char name_of(txlist_obj *obj) const {
    if (txlist_obj_is_element(obj) == 0) return '|';
    return static_cast<Item *>(txlist_obj_to_ptr(list_, obj))->name;
  }
  std::string shown() const {
    std::string names;
    for (txlist_obj *at = txlist_get_next_node(list_, nullptr); at != nullptr; at = txlist_get_next_node(list_, at))
      names += name_of(at);
    return names;
  }

  txlist *list_ = nullptr;
  txlist_member marker_;
  std::array<Item, 6> items_;
};

TEST_F(TransmitList, ElementsMoveToTheTail) {
  for (const char name : {'a', 'b', 'c'}) append(name);
  const uint32_t before = txlist_get_obj_version(object('a'));
  append('a');
  EXPECT_EQ(shown(), "bca");
  EXPECT_GT(txlist_get_obj_version(object('a')), txlist_get_obj_version(object('c')));
  EXPECT_GT(txlist_get_obj_version(object('a')), before);
  EXPECT_EQ(txlist_get_version(list_), txlist_get_obj_version(object('a')));
  remove('c');
  remove('c');
  EXPECT_EQ(shown(), "ba");
  EXPECT_EQ(txlist_element_is_linked(&item('c').element), 0);
}

TEST_F(TransmitList, MarkerGoesWhereItIsPut) {
  for (const char name : {'a', 'b', 'c'}) append(name);
  struct Case {
    char place;   // '|': the marker itself
    bool behind;  // or before
    const char *expected;
    char version_of;  // 0: nothing stands before the marker
  };
  // Each from where the one above left it.
  const Case cases[] = {
      {'b', true, "ab|c", 'b'},  {'b', true, "ab|c", 'b'},  {'c', false, "ab|c", 'b'}, {'|', true, "ab|c", 'b'},
      {'|', false, "ab|c", 'b'}, {'b', false, "a|bc", 'a'}, {'a', true, "a|bc", 'a'},  {'a', false, "|abc", 0},
      {'c', true, "abc|", 'c'},  {'a', false, "|abc", 0},
  };
  txlist_insert_member_at_head(list_, &marker_);
  EXPECT_EQ(shown(), "|abc");
  for (const Case &c : cases) {
    if (c.behind)
      txlist_insert_member_after_node(list_, &marker_, object(c.place));
    else
      txlist_insert_member_before_node(list_, &marker_, object(c.place));
    ASSERT_EQ(shown(), c.expected);
    EXPECT_EQ(txlist_get_member_version(&marker_),
              c.version_of == 0 ? 0 : txlist_get_obj_version(object(c.version_of)));
  }
  txlist_remove_member(list_, &marker_);
  EXPECT_EQ(shown(), "abc");
}

TEST_F(TransmitList, MarkerCatchesUpWithANeighbourThatBecameNew) {
  for (const char name : {'a', 'b', 'c'}) append(name);
  txlist_insert_member_after_node(list_, &marker_, object('b'));
  remove('b');
  EXPECT_EQ(shown(), "a|c");
  txlist_insert_member_after_node(list_, &marker_, object('a'));
  EXPECT_EQ(txlist_get_member_version(&marker_), txlist_get_obj_version(object('a')));
}

TEST_F(TransmitList, MarkerAloneStaysPut) {
  txlist_insert_member_at_head(list_, &marker_);
  txlist_insert_member_after_node(list_, &marker_, object('|'));
  txlist_insert_member_before_node(list_, &marker_, object('|'));
  EXPECT_EQ(shown(), "|");
  EXPECT_EQ(txlist_get_next_node(list_, object('|')), nullptr);
}

TEST_F(TransmitList, ObjectThatWasRemovedHasNoNext) {
  append('a');
  append('b');
  remove('a');
  EXPECT_EQ(txlist_get_next_node(list_, object('a')), nullptr);
}

// What happens to the list each time the walk has returned an object, and what the walk then meets.
TEST_F(TransmitList, WalkSurvivesChanges) {
  struct Case {
    const char *what;
    std::function<void(char)> change;
    const char *expected;
  };
  const Case cases[] = {
      {"nothing", [](char) {}, "abcd"},
      {"the current one goes", [&](char at) { remove(at); }, "abcd"},
      {"the next one goes",
       [&](char at) {
         if (at == 'a') remove('b');
       },
       "acd"},
      {"both go",
       [&](char at) {
         if (at == 'b') {
           remove('b');
           remove('c');
         }
       },
       "abd"},
      {"the current one moves",
       [&](char at) {
         if (at == 'a') append('a');
       },
       "abcda"},
      {"one is added",
       [&](char at) {
         if (at == 'd') append('e');
       },
       "abcde"},
      {"all go",
       [&](char) {
         for (const char name : {'a', 'b', 'c', 'd'}) remove(name);
       },
       "a"},
  };
  for (const Case &c : cases) {
    for (const bool commits : {false, true}) {
      for (const char name : {'a', 'b', 'c', 'd'}) append(name);
      txlist_iterator *other = txlist_iterator_create(list_);  // stands in the way of the walk and must not be met
      txlist_iterator *walk = txlist_iterator_create(list_);
      EXPECT_EQ(shown(), "abcd");
      std::string met;
      size_t moved = 0;
      for (txlist_obj *at = txlist_iterator_next(walk); at != nullptr; at = txlist_iterator_next(walk)) {
        met += name_of(at);
        if (commits) txlist_iterator_commit(walk);
        if (met.size() > 4 || (met.size() > 1 && moved++ > 20)) break;
        c.change(met.back());
      }
      EXPECT_EQ(met, c.expected) << c.what;
      txlist_iterator_remove(walk);
      txlist_iterator_remove(other);
      for (const char name : {'a', 'b', 'c', 'd', 'e'}) remove(name);
    }
  }
}

TEST_F(TransmitList, DestroyUnlinksEverything) {
  append('a');
  append('b');
  txlist_insert_member_at_head(list_, &marker_);
  txlist_iterator *walk = txlist_iterator_create(list_);
  txlist_destroy(list_);
  EXPECT_EQ(txlist_element_is_linked(&item('a').element), 0);
  EXPECT_EQ(txlist_iterator_next(walk), nullptr);
  txlist_iterator_remove(walk);

  list_ = txlist_create(0, 0);  // what outlived the list may stand on the next one
  txlist_register_kind(list_, item_kind, offsetof(Item, element));
  append('b');
  txlist_insert_member_after_node(list_, &marker_, object('b'));
  EXPECT_EQ(shown(), "b|");
}

TEST_F(TransmitList, KindsHavePlacesOfTheirOwn) {
  struct Context {
    uint64_t padding[4];
    txlist_element element;
  } context{};
  txlist_register_kind(list_, context_kind, offsetof(Context, element));
  txlist_init_element(&context.element, context_kind);
  txlist_insert_element_at_tail(list_, &context.element);
  append('a');
  txlist_obj *first = txlist_get_next_node(list_, nullptr);
  EXPECT_EQ(txlist_obj_get_kind(first), context_kind);
  EXPECT_EQ(txlist_obj_to_ptr(list_, first), &context);
  EXPECT_EQ(txlist_obj_to_ptr(list_, object('a')), &item('a'));
  txlist_remove_element(list_, &context.element);
}

}  // namespace

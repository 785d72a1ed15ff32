// Transmit list: marker rules, versions, and walks over a list that changes.
#include <array>
#include <cstddef>
#include <functional>
#include <string>

#include "conformance/runner.h"

using namespace conformance;

namespace {

constexpr uint8_t item_kind = 1, context_kind = 3, marker_kind = 7;

struct Item {
  char name = 0;
  txlist_element element{};
};

// A list, six elements 'a' to 'f' and a marker '|', none of them linked.
struct List {
  List() {
    if (list == nullptr) throw Abandoned{};
    platform.txlist_register_kind(list, item_kind, offsetof(Item, element));
    platform.txlist_init_member(&marker, marker_kind);
    for (size_t i = 0; i < items.size(); i++) {
      items[i].name = static_cast<char>('a' + i);
      platform.txlist_init_element(&items[i].element, item_kind);
    }
  }
  void append(const char *names) {
    for (; *names != '\0'; names++) platform.txlist_insert_element_at_tail(list, &item(*names).element);
  }
  void remove(const char *names) {
    for (; *names != '\0'; names++) platform.txlist_remove_element(list, &item(*names).element);
  }
  Item &item(char name) { return items.at(static_cast<size_t>(name - 'a')); }
  txlist_obj *object(char name) {
    return name == '|' ? platform.txlist_member_to_obj(&marker) : &item(name).element.obj;
  }
  uint32_t version(char name) { return platform.txlist_get_obj_version(object(name)); }
  char name_of(txlist_obj *obj) const {
    if (platform.txlist_obj_is_element(obj) == 0) return '|';
    return static_cast<Item *>(platform.txlist_obj_to_ptr(list, obj))->name;
  }
  std::string shown() const {
    std::string names;
    for (txlist_obj *at = platform.txlist_get_next_node(list, nullptr); at != nullptr && names.size() < 20;
         at = platform.txlist_get_next_node(list, at))
      names += name_of(at);
    return names;
  }

  txlist *list = platform.txlist_create(0, 0);
  txlist_member marker{};
  std::array<Item, 6> items{};
};

}  // namespace

CHECK(txlist, "an element that stands on the list moves to the tail and becomes new") {
  List list;
  list.append("abc");
  const uint32_t before = list.version('a');
  list.append("a");
  EXPECT_EQUAL(list.shown(), "bca");
  EXPECT(list.version('a') > list.version('c'));
  EXPECT(list.version('a') > before);
  EXPECT_EQUAL(platform.txlist_get_version(list.list), list.version('a'));
  list.remove("c");
  list.remove("c");
  EXPECT_EQUAL(list.shown(), "ba");
  EXPECT(platform.txlist_element_is_linked(&list.item('c').element) == 0);
  EXPECT(platform.txlist_element_is_linked(&list.item('a').element) != 0);
  EXPECT(platform.txlist_get_next_node(list.list, list.object('c')) == nullptr);
}

CHECK(txlist, "a member goes where it is put and has the version of what stands before it") {
  List list;
  list.append("abc");
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
  platform.txlist_insert_member_at_head(list.list, &list.marker);
  EXPECT_EQUAL(list.shown(), "|abc");
  for (const Case &c : cases) {
    if (c.behind)
      platform.txlist_insert_member_after_node(list.list, &list.marker, list.object(c.place));
    else
      platform.txlist_insert_member_before_node(list.list, &list.marker, list.object(c.place));
    REQUIRE(list.shown() == c.expected);
    EXPECT_EQUAL(platform.txlist_get_member_version(&list.marker), c.version_of == 0 ? 0 : list.version(c.version_of));
  }
  platform.txlist_remove_member(list.list, &list.marker);
  EXPECT_EQUAL(list.shown(), "abc");
  list.remove("abc");
  platform.txlist_insert_member_at_head(list.list, &list.marker);
  platform.txlist_insert_member_after_node(list.list, &list.marker, list.object('|'));
  platform.txlist_insert_member_before_node(list.list, &list.marker, list.object('|'));
  EXPECT_EQUAL(list.shown(), "|");  // alone, it stays where it is
}

CHECK(txlist, "a member catches up with a neighbour that became new") {
  List list;
  list.append("abc");
  platform.txlist_insert_member_after_node(list.list, &list.marker, list.object('b'));
  list.remove("b");
  EXPECT_EQUAL(list.shown(), "a|c");
  platform.txlist_insert_member_after_node(list.list, &list.marker, list.object('a'));
  EXPECT_EQUAL(platform.txlist_get_member_version(&list.marker), list.version('a'));
}

CHECK(txlist, "a walk survives whatever happens to the list") {
  List list;
  struct Case {
    const char *what;
    std::function<void(char)> change;  // when the walk has returned this object
    const char *expected;
  };
  const Case cases[] = {
      {"nothing", [](char) {}, "abcd"},
      {"the current one goes", [&](char at) { list.remove(std::string(1, at).c_str()); }, "abcd"},
      {"the next one goes", [&](char at) { list.remove(at == 'a' ? "b" : ""); }, "acd"},
      {"both go", [&](char at) { list.remove(at == 'b' ? "bc" : ""); }, "abd"},
      {"the current one moves", [&](char at) { list.append(at == 'a' ? "a" : ""); }, "abcda"},
      {"one is added", [&](char at) { list.append(at == 'd' ? "e" : ""); }, "abcde"},
      {"all go", [&](char) { list.remove("abcd"); }, "a"},
  };
  for (const Case &c : cases) {
    for (const bool commits : {false, true}) {
      list.append("abcd");
      txlist_iterator *other = platform.txlist_iterator_create(list.list);  // in the way of the walk, and not met
      txlist_iterator *walk = platform.txlist_iterator_create(list.list);
      REQUIRE(other != nullptr && walk != nullptr);
      EXPECT_EQUAL(list.shown(), "abcd");
      std::string met;
      for (txlist_obj *at = platform.txlist_iterator_next(walk); at != nullptr && met.size() < 20;
           at = platform.txlist_iterator_next(walk)) {
        met += list.name_of(at);
        if (commits) platform.txlist_iterator_commit(walk);
        if (met.size() > 4) break;
        c.change(met.back());
      }
      if (met != c.expected) differs(__FILE__, __LINE__, std::string(c.what) + ": the walk meets " + met);
      platform.txlist_iterator_remove(walk);
      platform.txlist_iterator_remove(other);
      list.remove("abcde");
    }
  }
}

CHECK(txlist, "destroying a list unlinks everything, iterators too") {
  List list;
  list.append("ab");
  platform.txlist_insert_member_at_head(list.list, &list.marker);
  txlist_iterator *walk = platform.txlist_iterator_create(list.list);
  REQUIRE(walk != nullptr);
  platform.txlist_destroy(list.list);
  platform.txlist_destroy(nullptr);
  EXPECT(platform.txlist_element_is_linked(&list.item('a').element) == 0);
  EXPECT(platform.txlist_iterator_next(walk) == nullptr);
  platform.txlist_iterator_remove(walk);

  list.list = platform.txlist_create(0, 0);  // what outlived the list may stand on the next one
  REQUIRE(list.list != nullptr);
  platform.txlist_register_kind(list.list, item_kind, offsetof(Item, element));
  list.append("b");
  platform.txlist_insert_member_after_node(list.list, &list.marker, list.object('b'));
  EXPECT_EQUAL(list.shown(), "b|");
}

CHECK(txlist, "a kind has a place of its own in its records") {
  List list;
  struct Context {
    uint64_t padding[4];
    txlist_element element;
  } context{};
  platform.txlist_register_kind(list.list, context_kind, offsetof(Context, element));
  platform.txlist_init_element(&context.element, context_kind);
  platform.txlist_insert_element_at_tail(list.list, &context.element);
  list.append("a");
  txlist_obj *first = platform.txlist_get_next_node(list.list, nullptr);
  REQUIRE(first != nullptr);
  EXPECT_EQUAL(int{platform.txlist_obj_get_kind(first)}, int{context_kind});
  EXPECT(platform.txlist_obj_to_ptr(list.list, first) == &context);
  EXPECT(platform.txlist_obj_to_ptr(list.list, list.object('a')) == &list.item('a'));
}

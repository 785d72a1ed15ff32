// MDT SAFI database and the local advertisement.
//
// Every PE announces each of its MVPN-enabled VRFs through BGP as an MDT SAFI route: the VRF's route distinguisher,
// the PE's MDT source address and the VRF's default MDT group. The database holds every such triple that this PE
// knows, its own (local) and those of others. Remote entries tell who takes part in a default MDT; local entries
// record what BGP was last told, so that a withdrawal names exactly what was advertised even after the VRF's source
// or group has changed. Entries are never persisted: BGP gives them again after a restart.
//
// Records. mvpn_bgp_mdt_safi stands in the tree mvpn_bgp_mdt_safi_db under {source, RD}, compared byte by byte as the
// bytes lie in memory; on a little-endian machine that is not the numeric order of addresses. The group is no part of
// the key: there is one entry per (source, RD). Two indexes, both in tree order, answer what would else be a walk of
// the whole database:
//   safi_groups       the entries of each group: rebuilding the routes of one VRF, the equivalent entry of another RD;
//   safi_local_by_rd  local entries by RD: what to withdraw.
// There are many entries and each VRF's update looks at its own group only. So the entries of a group are a tree that
// is linked through the entries themselves, and which has a hundred of them where the database has a hundred thousand:
// it costs two words each, and few of the waits for memory that are most of what an update costs in a large database.
// The tree is kept in shape by random ranks (a treap): each entry's rank is at least that of those below it.
//
// Flow. An advertisement fills a 56-byte entry of a message to BGP and records the triple; a withdrawal takes the
// first local entry with the VRF's RD, failing that the VRF's own triple, fills it in and removes it. BGP may ask for
// the whole set, which goes out in messages of at most 100 entries; the last entry is a mark that ends the set.
//
// Invariants. An entry is in the database's tree and in its group's, or in neither; it is in safi_local_by_rd exactly
// while `local` is 1. The key never changes while an entry is stored. The database is told what was filled in, not what
// the transport accepted: nothing is rolled back or sent again when a send fails.
//
// Runs on the main thread, and on the MRIB worker when it has a tunnel brought up again. Nothing here yields.
#include "routing/pim/mvpn/mvpn_mdt_safi_internal.h"

#include <cerrno>
#include <compare>
#include <cstring>
#include <new>
#include <set>
#include <unordered_map>

#include "platform/ip.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_ha.h"
#include "routing/pim/mvpn/mvpn_wire.h"

ravl_tree mvpn_bgp_mdt_safi_db;

static constexpr uint32_t MVPN_BGP_LOCAL_UPDATE_ENTRIES = 100;  // 5602 bytes: the buffer is there all the time
static constexpr uint32_t MVPN_BGP_LOCAL_UPDATE_SIZE =
    BGP_MDT_SAFI_COUNT_SIZE + MVPN_BGP_LOCAL_UPDATE_ENTRIES * BGP_MDT_SAFI_ENTRY_SIZE;
static uint8_t mvpn_bgp_local_update_buf[MVPN_BGP_LOCAL_UPDATE_SIZE];  // used while answering one request

static_assert(MVPN_BGP_LOCAL_UPDATE_SIZE == 5602);
static_assert(MVPN_BGP_ONE_UPDATE_SIZE == 58);
static_assert(offsetof(mvpn_bgp_mdt_safi_key, bgp_rd) == 4 && offsetof(mvpn_bgp_mdt_safi_key, mdt_grp) == 12);

// ------------------------------------------------------------------------------------------------- order and indexes

namespace {

using Entry = mvpn_bgp_mdt_safi;

// Where an entry stands among those of its group: bytes in memory order, as the order of numbers.
struct place {
  uint32_t source;
  uint64_t rd;
  explicit place(const mvpn_bgp_mdt_safi_key &key) : source(load_be32(&key.mdt_src)), rd(load_be64(key.bgp_rd)) {}
  auto operator<=>(const place &) const = default;
};

// The entries of one group. Links are void pointers, since the left one is the platform's.
class group_tree {
 public:
  bool empty() const { return root_ == nullptr; }
  Entry *root() const { return static_cast<Entry *>(root_); }

  void insert(Entry *entry) {
    const place at(entry->key);
    void **link = &root_;
    while (*link != nullptr && entry_at(link)->group_rank >= entry->group_rank) {
      link = at < place(entry_at(link)->key) ? left_of(entry_at(link)) : right_of(entry_at(link));
    }
    // What stood here is parted into what comes before and behind the entry.
    void *rest = *link;
    *link = entry;
    void **before = left_of(entry), **behind = right_of(entry);
    while (rest != nullptr) {
      auto *other = static_cast<Entry *>(rest);
      void **&end = place(other->key) < at ? before : behind;
      *end = other;
      end = &end == &before ? right_of(other) : left_of(other);
      rest = *end;
    }
    *before = nullptr;
    *behind = nullptr;
  }

  void erase(Entry *entry) {
    const place at(entry->key);
    void **link = &root_;
    while (*link != entry) link = at < place(entry_at(link)->key) ? left_of(entry_at(link)) : right_of(entry_at(link));
    // Its two sides become one.
    void *before = *left_of(entry), *behind = *right_of(entry);
    while (before != nullptr && behind != nullptr) {
      auto *a = static_cast<Entry *>(before), *b = static_cast<Entry *>(behind);
      const bool first = a->group_rank >= b->group_rank;
      *link = first ? a : b;
      link = first ? right_of(a) : left_of(b);
      (first ? before : behind) = *link;
    }
    *link = before != nullptr ? before : behind;
  }

  // The way to a place, step by step: the entry below this one, fetched ahead; null: the way ends here.
  static Entry *fetched_below(Entry *entry, const place &at) {
    Entry *below = entry_at(at < place(entry->key) ? left_of(entry) : right_of(entry));
    fetch(below);
    return below;
  }
  static void fetch(const Entry *entry) {
    if (entry == nullptr) return;  // it has no member to point at
    __builtin_prefetch(&entry->node.user_data);
    __builtin_prefetch(&entry->group_right);
  }

  // The first entry at a place or behind it, behind it only; null: none.
  Entry *first_at(const place &at) const {
    return first_with([&at](const Entry *entry) { return place(entry->key) >= at; });
  }
  Entry *first_behind(const place &at) const {
    return first_with([&at](const Entry *entry) { return place(entry->key) > at; });
  }

 private:
  static Entry *entry_at(void *const *link) { return static_cast<Entry *>(*link); }
  static void **left_of(Entry *entry) { return &entry->node.user_data; }
  static void **right_of(Entry *entry) { return &entry->group_right; }

  template <typename Reached>
  Entry *first_with(Reached reached) const {
    Entry *found = nullptr;
    for (Entry *entry = root(); entry != nullptr;) {
      const bool there = reached(entry);
      if (there) found = entry;
      entry = entry_at(there ? left_of(entry) : right_of(entry));
    }
    return found;
  }

  void *root_ = nullptr;
};

// Entries with the same RD stand in tree order, which is then the order of their sources.
struct by_rd {
  bool operator()(const Entry *a, const Entry *b) const {
    const place x(a->key), y(b->key);
    return x.rd != y.rd ? x.rd < y.rd : x.source < y.source;
  }
};

}  // namespace

static std::unordered_map<ip_addr_t, group_tree> safi_groups;  // every group that an entry names
static std::set<Entry *, by_rd> safi_local_by_rd;

// The next of a fixed row of ranks (xorshift): what others advertise has no influence on it.
static uint32_t next_rank() {
  static uint32_t rank = 1;
  rank ^= rank << 13;
  rank ^= rank >> 17;
  rank ^= rank << 5;
  return rank;
}

static void report_no_memory(const char *function) { mvpn_report(msg_error_PIM_MALLOC, sizeof(Entry *), function); }

// 0 after a report when memory ran out.
static int add_to_group(Entry *entry) {
  entry->group_rank = next_rank();
  try {
    safi_groups[entry->key.mdt_grp].insert(entry);
    return 1;
  } catch (const std::bad_alloc &) {
    report_no_memory("mvpn_bgp_create_mdt_safi_entry");
    return 0;
  }
}

static void drop_from_group(Entry *entry) {
  const auto group = safi_groups.find(entry->key.mdt_grp);
  group->second.erase(entry);
  if (group->second.empty()) safi_groups.erase(group);
}

static bool same_rd(const uint8_t *a, const uint8_t *b) { return std::memcmp(a, b, ROUTE_DISTINGUISHER_SIZE) == 0; }

mvpn_bgp_mdt_safi *mvpn_bgp_mdt_safi_of_group_after(ip_addr_t group, const mvpn_bgp_mdt_safi_key *key) {
  const auto found = safi_groups.find(group);
  if (found == safi_groups.end()) return nullptr;
  return key != nullptr ? found->second.first_behind(place(*key)) : found->second.first_at(place({}));
}

// The keys take their steps in turns, so that they wait for memory together.
void mvpn_bgp_mdt_safi_expect(const mvpn_bgp_mdt_safi_key *keys, uint32_t count) {
  Entry *at[MVPN_SAFI_EXPECTED] = {};
  for (uint32_t i = 0; i < count; i++) {
    const auto group = safi_groups.find(keys[i].mdt_grp);
    if (group == safi_groups.end()) continue;
    at[i] = group->second.root();
    group_tree::fetch(at[i]);
  }
  for (bool more = true; more;) {
    more = false;
    for (uint32_t i = 0; i < count; i++) {
      if (at[i] != nullptr) at[i] = group_tree::fetched_below(at[i], place(keys[i]));
      more = more || at[i] != nullptr;
    }
  }
}

// The one place that changes an entry's local flag, which stays set until the entry is deleted. 0: memory ran out.
static int mark_local(mvpn_bgp_mdt_safi *entry) {
  try {
    safi_local_by_rd.insert(entry);
  } catch (const std::bad_alloc &) {
    report_no_memory(__func__);
    return 0;
  }
  entry->local = 1;
  return 1;
}

// The first local entry with this RD in tree order, or null.
static mvpn_bgp_mdt_safi *first_local_entry(const uint8_t *rd) {
  mvpn_bgp_mdt_safi probe{};
  std::memcpy(probe.key.bgp_rd, rd, sizeof probe.key.bgp_rd);
  const auto found = safi_local_by_rd.lower_bound(&probe);
  return found != safi_local_by_rd.end() && same_rd((*found)->key.bgp_rd, rd) ? *found : nullptr;
}

// ---------------------------------------------------------------------------------------------------------- database

void mvpn_bgp_mdt_safi_init_db() {
  // Their slab was dropped by the stop that left them in place.
  for (auto &[group, entries] : safi_groups) {
    while (!entries.empty()) {
      Entry *survivor = entries.root();
      entries.erase(survivor);
      slab_free(nullptr, survivor);
    }
  }
  safi_groups.clear();
  safi_local_by_rd.clear();
  ravl_init(&mvpn_bgp_mdt_safi_db, MVPN_MDT_SAFI_TREE_KEY_SIZE, offsetof(mvpn_bgp_mdt_safi, key), nullptr);
}

mvpn_bgp_mdt_safi *mvpn_bgp_create_mdt_safi_entry(const mvpn_bgp_mdt_safi_key *key) {
  auto *entry = static_cast<mvpn_bgp_mdt_safi *>(slab_calloc(mvpn_slabs[MVPN_SLAB_BGP_MDT_SAFI]));
  if (entry == nullptr) {
    mvpn_report(msg_error_PIM_MALLOC, sizeof *entry, "mvpn_bgp_create_mdt_safi_entry");
    return nullptr;
  }
  entry->key = *key;
  if (ravl_insert(&mvpn_bgp_mdt_safi_db, entry) == 0) {
    mvpn_report(msg_error_PIM_AVL_ERROR, "ravl_insert", "mvpn_bgp_mdt_safi_db");
    slab_free(mvpn_slabs[MVPN_SLAB_BGP_MDT_SAFI], entry);
    return nullptr;
  }
  if (add_to_group(entry) == 0) {
    ravl_delete(&mvpn_bgp_mdt_safi_db, entry);
    slab_free(mvpn_slabs[MVPN_SLAB_BGP_MDT_SAFI], entry);
    return nullptr;
  }
  mvpn_ha_store_mdt_safi_to_pss(entry);
  return entry;
}

mvpn_bgp_mdt_safi *mvpn_bgp_get_mdt_safi_entry(const mvpn_bgp_mdt_safi_key *key) {
  if (key == nullptr) return nullptr;
  return static_cast<mvpn_bgp_mdt_safi *>(ravl_lookup(&mvpn_bgp_mdt_safi_db, key));
}

int mvpn_bgp_delete_mdt_safi_entry(mvpn_bgp_mdt_safi *entry) {
  ravl_delete(&mvpn_bgp_mdt_safi_db, entry);
  if (entry->local != 0) safi_local_by_rd.erase(entry);
  drop_from_group(entry);
  mvpn_ha_remove_mdt_safi_from_pss(entry);
  slab_free(mvpn_slabs[MVPN_SLAB_BGP_MDT_SAFI], entry);
  return 1;
}

mvpn_bgp_mdt_safi *mvpn_bgp_get_equivalent_mdt_safi_entry(const mvpn_bgp_mdt_safi_key *key) {
  if (key == nullptr) return nullptr;
  const auto group = safi_groups.find(key->mdt_grp);
  if (group == safi_groups.end()) return nullptr;
  // Of the group's entries, those of one source stand together; at most one of them has the key's own RD, so the
  // answer is the first or the second.
  mvpn_bgp_mdt_safi_key of_source{};
  of_source.mdt_src = key->mdt_src;
  Entry *entry = group->second.first_at(place(of_source));
  if (entry != nullptr && place(entry->key) == place(*key)) entry = group->second.first_behind(place(*key));
  return entry != nullptr && entry->key.mdt_src == key->mdt_src ? entry : nullptr;
}

mvpn_safi_lesson mvpn_bgp_mdt_safi_learn(const mvpn_bgp_mdt_safi_key &key) {
  if (mvpn_bgp_get_mdt_safi_entry(&key) != nullptr) {
    MVPN_SAFI_DEBUG("Received MDT SAFI message from BGP:RD %s, src = %s, grp = %s already exists", key);
    return mvpn_safi_lesson::known;
  }
  mvpn_bgp_mdt_safi *equivalent = mvpn_bgp_get_equivalent_mdt_safi_entry(&key);
  if (equivalent != nullptr) {
    MVPN_SAFI_DEBUG("Equivalent MDT SAFI exists:RD %s, src = %s, grp = %s", equivalent->key);
    mvpn_bgp_delete_mdt_safi_entry(equivalent);
  }
  if (mvpn_bgp_create_mdt_safi_entry(&key) == nullptr) return mvpn_safi_lesson::failed;
  return equivalent != nullptr ? mvpn_safi_lesson::renamed : mvpn_safi_lesson::added;
}

void mvpn_bgp_mdt_safi_delete_all() {
  // The count is 0 also of a tree that a start which failed early never set up.
  while (mvpn_bgp_mdt_safi_db.count != 0) {
    mvpn_bgp_delete_mdt_safi_entry(static_cast<mvpn_bgp_mdt_safi *>(ravl_get_first_node(&mvpn_bgp_mdt_safi_db, 0)));
  }
}

// ---------------------------------------------------------------------------------------- RD and connector attribute

void mvpn_bgp_get_rd(mvpn_cibtype *mvpn) {
  if (mvpn == nullptr || mvpn->pcib == nullptr || mvpn->bgp_rd_set != 0) return;
  if (pim_bgp_initialized == 0) {
    MVPN_DEBUG(mvpn->pcib, "Couldnt obtain RD info, havent initialized with BGP");
    return;
  }
  if (bgp_get_rd(mvpn->pcib->vrf_name, mvpn->bgp_rd, 0) == 0) {
    MVPN_DEBUG(mvpn->pcib, "Failed to get RD information");
    return;
  }
  mvpn->bgp_rd_set = 1;
  MVPN_DEBUG(mvpn->pcib, "Obtained RD information");
}

mvpn_cibtype *mvpn_bgp_get_context_by_connector_attribute(void *first, void *attribute, ip_addr_t *source) {
  if (attribute == nullptr) return nullptr;
  mvpn_bgp_mdt_safi_key key{};
  bgp_mvpn_get_conattr(first, attribute, key.bgp_rd, &key.mdt_src);
  MVPN_DEBUG(pim_null_pcib, "Connector attribute: RD = %s, mdt source = %s\n", mvpn_bgp_print_rd(key.bgp_rd),
             ip_print_addr(key.mdt_src));
  if (key.mdt_src == 0) return nullptr;
  if (source != nullptr) *source = key.mdt_src;
  const mvpn_bgp_mdt_safi *entry = mvpn_bgp_get_mdt_safi_entry(&key);
  if (entry == nullptr || entry->key.mdt_grp == 0) return nullptr;
  return mvpn_get_context_by_mdt_group(entry->key.mdt_grp);
}

// ------------------------------------------------------------------------------------------------ local entries

// What the VRF advertises.
static mvpn_bgp_mdt_safi_key local_key(const mvpn_cibtype *mvpn) {
  mvpn_bgp_mdt_safi_key key{};
  key.mdt_src = mvpn->mdt_source_addr;
  std::memcpy(key.bgp_rd, mvpn->bgp_rd, sizeof key.bgp_rd);
  key.mdt_grp = mvpn->mdt_default_group;
  return key;
}

static int mvpn_bgp_mdt_safi_add_local(mvpn_cibtype *mvpn) {
  MVPN_DEBUG(mvpn->pcib, "Caching our MDT-SAFI info");
  const mvpn_bgp_mdt_safi_key key = local_key(mvpn);
  if (mvpn_bgp_get_mdt_safi_entry(&key) != nullptr) return 1;
  mvpn_bgp_mdt_safi *entry = mvpn_bgp_create_mdt_safi_entry(&key);
  if (entry != nullptr && mark_local(entry) != 0) return 1;
  // An entry that could not be marked local would pass for a remote PE's.
  if (entry != nullptr) mvpn_bgp_delete_mdt_safi_entry(entry);
  MVPN_DEBUG(mvpn->pcib, "Couldnt add our MDT-SAFI info into database");
  return 0;
}

// What BGP was told for the VRF, or null. Where BGP had given the triple back to this PE before, as it does with what
// the PE's former life advertised, the entry is taken for a remote PE's; it is withdrawn all the same, or BGP would
// keep the advertisement.
static mvpn_bgp_mdt_safi *advertised_entry(const mvpn_cibtype *mvpn) {
  if (mvpn_bgp_mdt_safi *entry = first_local_entry(mvpn->bgp_rd)) return entry;
  const mvpn_bgp_mdt_safi_key key = local_key(mvpn);
  return mvpn_bgp_get_mdt_safi_entry(&key);
}

int mvpn_bgp_mdt_safi_delete_local(const mvpn_bgp_mdt_safi_key &key) {
  MVPN_DEBUG(pim_null_pcib, "Deleting MDT-SAFI info for RD %s, src = %s,grp = %s", mvpn_bgp_print_rd(key.bgp_rd),
             ip_print_addr(key.mdt_src), ip_print_addr(key.mdt_grp));
  mvpn_bgp_mdt_safi *entry = mvpn_bgp_get_mdt_safi_entry(&key);
  if (entry == nullptr) {
    MVPN_DEBUG(pim_null_pcib, "Couldnt find the MDT-SAFI info while deletion for RD %s", mvpn_bgp_print_rd(key.bgp_rd));
    return 0;
  }
  if (entry->local == 0) MVPN_DEBUG(pim_null_pcib, "Our MDT-SAFI is marked as non-local !");
  return mvpn_bgp_delete_mdt_safi_entry(entry);
}

// -------------------------------------------------------------------------------------------------- local updates

static uint16_t entry_count(const uint8_t *buffer) { return load_host<uint16_t>(buffer); }

// The free slot behind the counted entries.
static uint8_t *next_slot(uint8_t *buffer) {
  return buffer + BGP_MDT_SAFI_COUNT_SIZE + size_t{entry_count(buffer)} * BGP_MDT_SAFI_ENTRY_SIZE;
}

static void count_slot(uint8_t *buffer) {
  store_host<uint16_t>(buffer, static_cast<uint16_t>(entry_count(buffer) + 1));
}

static void put_vrf_name(uint8_t *slot, const mvpn_cibtype *mvpn) {
  uint8_t *name = slot + BGP_MDT_SAFI_ENTRY_VRF_NAME;
  std::memset(name, 0, VRF_NAME_MAX + 1);
  std::memcpy(name, mvpn->pcib->vrf_name, strnlen(mvpn->pcib->vrf_name, VRF_NAME_MAX));
}

// Completes a slot with a triple and counts it.
static void put_triple(uint8_t *buffer, const mvpn_cibtype *mvpn, const mvpn_bgp_mdt_safi_key &key,
                       const char *purpose) {
  MVPN_DEBUG(pim_null_pcib, "Fill BGP MDT SAFI message VRF %s, RD %s, Group %s, Source %s for %s\n",
             mvpn->pcib->vrf_name, mvpn_bgp_print_rd(key.bgp_rd), ip_print_addr(key.mdt_grp),
             ip_print_addr(key.mdt_src), purpose);
  uint8_t *slot = next_slot(buffer);
  store_host<uint32_t>(slot + BGP_MDT_SAFI_ENTRY_SOURCE, key.mdt_src);
  std::memcpy(slot + BGP_MDT_SAFI_ENTRY_RD, key.bgp_rd, sizeof key.bgp_rd);
  store_host<uint32_t>(slot + BGP_MDT_SAFI_ENTRY_GROUP, key.mdt_grp);
  count_slot(buffer);
}

int mvpn_bgp_mdt_safi_fill_local_update(uint8_t *buffer, mvpn_cibtype *mvpn, int add) {
  if (buffer == nullptr) return 0;
  // The slot gets these even when there turns out to be nothing to withdraw; it is then not counted, and the next
  // entry overwrites it.
  uint8_t *slot = next_slot(buffer);
  put_vrf_name(slot, mvpn);
  slot[BGP_MDT_SAFI_ENTRY_ADD] = add != 0 ? 1 : 0;
  // Advertisement.
  if (add != 0) {
    put_triple(buffer, mvpn, local_key(mvpn), "Add");
    mvpn_bgp_mdt_safi_add_local(mvpn);
    return 1;
  }
  // Withdrawal of what was advertised under the VRF's RD.
  if (const mvpn_bgp_mdt_safi *entry = advertised_entry(mvpn)) {
    const mvpn_bgp_mdt_safi_key advertised = entry->key;
    put_triple(buffer, mvpn, advertised, "Delete");
    mvpn_bgp_mdt_safi_delete_local(advertised);
  }
  return 1;
}

static int mvpn_bgp_mdt_safi_fill_end_of_local_update(uint8_t *buffer) {
  if (buffer == nullptr) return 0;
  next_slot(buffer)[BGP_MDT_SAFI_ENTRY_END_OF_LOCAL] = 1;
  count_slot(buffer);
  return 1;
}

int mvpn_bgp_mdt_safi_send_local_update(const uint8_t *buffer, uint32_t size) {
  if (mts_send(mvpn_mts_q, MTS_DESTINATION_BGP, 0, MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_UPDATE, buffer, size, 0, 0, 0) < 0) {
    mvpn_report(msg_error_PIM_MTS_SEND, "mvpn_bgp_mdt_safi_send_local_update", std::strerror(errno));
    return 0;
  }
  MVPN_DEBUG(pim_null_pcib, "Sent MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_UPDATE notification, size %d with %d count\n",
             static_cast<int>(size), static_cast<int>(entry_count(buffer)));
  return 1;
}

int mvpn_bgp_mdt_safi_send_one_local_update(mvpn_cibtype *mvpn, int add) {
  uint8_t buffer[MVPN_BGP_ONE_UPDATE_SIZE] = {};
  if (mvpn_bgp_mdt_safi_fill_local_update(buffer, mvpn, add) == 0) return 0;
  return mvpn_bgp_mdt_safi_send_local_update(buffer, sizeof buffer);
}

void mvpn_bgp_process_local_request(mts_message *) {
  uint8_t *buffer = mvpn_bgp_local_update_buf;
  std::memset(buffer, 0, MVPN_BGP_LOCAL_UPDATE_SIZE);
  MVPN_DEBUG(pim_null_pcib, "Received local MDT SAFI request\n");
  mvpn_for_each_context([buffer](mvpn_cibtype *mvpn) {
    if (!mvpn_is_default_mdt_ready(mvpn)) return true;
    mvpn_bgp_mdt_safi_fill_local_update(buffer, mvpn, 1);
    if (entry_count(buffer) == MVPN_BGP_LOCAL_UPDATE_ENTRIES) {
      mvpn_bgp_mdt_safi_send_local_update(buffer, MVPN_BGP_LOCAL_UPDATE_SIZE);
      std::memset(buffer, 0, MVPN_BGP_LOCAL_UPDATE_SIZE);
    }
    return true;
  });
  // A full buffer has just been sent, so there is room for the mark.
  mvpn_bgp_mdt_safi_fill_end_of_local_update(buffer);
  mvpn_bgp_mdt_safi_send_local_update(buffer, BGP_MDT_SAFI_COUNT_SIZE + entry_count(buffer) * BGP_MDT_SAFI_ENTRY_SIZE);
}

// The routes of the MRIB: who holds each, what its owners installed, and its group.
//
// A route is held by the client, who installs it, or by somebody else (a receiver in the core, the host's customer
// routes), or by both; it goes when nobody holds it. Several of the client's VRFs may own one route, each with its own
// tunnel; what counts is what the latest of them installed, and when that one goes what another did.
//
// There may be a million, so a route is one small record in a hash table. What an owner installs of its routes is the
// same for most of them, so it is kept once. Nearly all routes have one owner; the few with more have theirs in a map
// besides, and so have those with a tunnel from somebody else. A group's routes are a list through their records. What
// is read in order is sorted when it is read.
//
// Everything runs under the scheduling locks.
#ifndef REFERENCE_MRIB_ROUTES_H
#define REFERENCE_MRIB_ROUTES_H

#include <compare>
#include <cstdint>
#include <map>
#include <vector>

#include "platform/mrib.h"
#include "platform/reference/mrib.h"
#include "platform/reference/record_table.h"

struct mrib_context {
  vrf_context_id_t context_id;  // of the routes; the core's, or a customer VRF's
  size_t routes;                // of either sort
};

namespace ref {

struct MribKey {
  vrf_context_id_t context_id = 0;  // that the route stands in
  ip_addr_t group = 0;              // host byte order
  ip_addr_t source = 0;             // 0 for (*,G)
  uint8_t group_len = 0;            // 0..32
  uint8_t source_len = 0;           // 0..32; MROUTE_ANY_SOURCE_LEN: (*,G)
  auto operator<=>(const MribKey &) const = default;
  uint64_t hash() const {
    return mix(mix(uint64_t{group} << 32 | source) + (uint64_t{context_id} << 16 | group_len << 8 | source_len));
  }
};

// Any source length that stands for any source counts as the (*,G) route.
MribKey mrib_key(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs);
inline bool is_star_g(const MribKey &key) { return key.source_len == MROUTE_ANY_SOURCE_LEN; }
mvpn_mdt_route_addrs addrs_of(const MribKey &key);

// What an owner installed, but for its number.
struct MribTerms {
  uint32_t owner = 0;              // context id of the customer VRF; 0: nobody
  im_iod_t mti_iod = 0;            // 0: none
  im_iod_t mdt_source_iod = 0;     // 0: none
  ip_addr_t rpf_addr = 0;          // 0: none was given, or the next
  bool rpf_is_source : 1 = false;  // the route's source is the reverse path
  bool mti_given : 1 = false;      // as the next four: flags of the update entry (platform/mrib.h)
  bool local : 1 = false;
  bool last_hop : 1 = false;
  bool asm_shared_tree : 1 = false;
  bool teardown : 1 = false;
  auto operator<=>(const MribTerms &) const = default;
  uint64_t hash() const {
    const uint64_t flags =
        rpf_is_source | mti_given << 1 | local << 2 | last_hop << 3 | asm_shared_tree << 4 | teardown << 5;
    return mix(mix(mix(uint64_t{owner} << 32 | mti_iod) + (uint64_t{mdt_source_iod} << 32 | rpf_addr)) + flags);
  }
};
struct MribInstalled {
  MribTerms terms;
  uint32_t xid = 0;  // transaction id of the update
};

class MribRoutes {
 public:
  using Id = uint32_t;  // 0: none

  struct Record {
    MribKey key() const { return {context_id, group, source, group_len, source_len}; }
    // The key, which never changes.
    vrf_context_id_t context_id = 0;
    ip_addr_t group = 0, source = 0;
    uint8_t group_len = 0, source_len = 0;
    bool foreign : 1 = false;      // held by somebody else than the client
    bool foreign_mti : 1 = false;  // who gave it a tunnel
    bool installed : 1 = false;    // held by the client
    bool owned : 1 = false;        // by the VRF in `terms`, and by those in `shared_` that stand under its key
    bool forwarded : 1 = false;    // a forwarding plane, when there is one, was told
    uint32_t next = 0;             // the table's
    Id before = 0, after = 0;      // in the group
    uint32_t terms = 0;            // what counts of what the owners installed; 0: nothing was yet
    uint32_t xid = 0;              // transaction id of the update that did
  };
  static_assert(sizeof(Record) == 36);

  // Looks a route up, by `make` adding it where it is missing. Callers that changed what holds a route settle it.
  Id find(const MribKey &key) const { return records_.find(key); }
  Id make(const MribKey &key);
  // Look-ups of so many keys follow.
  template <typename KeyOf>
  void expect(size_t count, KeyOf key_of) const {
    records_.expect(count, key_of);
    groups_.expect(count, [&key_of](size_t i) { return group_key(key_of(i)); });
  }
  void settle(Id id);  // drops a route that nobody holds

  Record &operator[](Id id) { return records_[id]; }
  const Record &operator[](Id id) const { return records_[id]; }

  // What counts of the route from now on; the client holds it.
  void install(Id id, const MribInstalled &installed);
  // What counts of it; nothing but zeros when nothing was ever installed.
  MribInstalled installed(Id id) const;
  // Takes an owner away; 0: the client's hold, when no owner is left.
  void uninstall(Id id, uint32_t owner);
  // Takes every owner and the client's hold away.
  void forget_client(Id id);

  // Who holds it beside the client; mti_iod: a tunnel that it was given, 0: none.
  void hold(Id id, im_iod_t mti_iod);
  void release(Id id);
  // The tunnel of the client, else that of somebody else; 0: none.
  im_iod_t mti_of(Id id) const;

  // Routes that match, in the order of their keys.
  template <typename Matches>
  std::vector<Id> sorted(Matches matches) const {
    std::vector<Id> ids;
    records_.for_each([&](Id id) {
      if (matches(records_[id])) ids.push_back(id);
    });
    sort(ids);
    return ids;
  }

  // Null: it has no route.
  mrib_context *context(vrf_context_id_t context_id);
  // Routes of a group, in no order.
  std::vector<Id> of_group(vrf_context_id_t context_id, ip_addr_t group, uint32_t group_len) const;

 private:
  struct GroupKey {
    vrf_context_id_t context_id = 0;  // as the routes'
    ip_addr_t group = 0;              // host byte order
    uint32_t group_len = 0;           // 0..32
    bool operator==(const GroupKey &) const = default;
    uint64_t hash() const { return mix(mix(uint64_t{context_id} << 32 | group) + group_len); }
  };
  struct Group {
    const GroupKey &key() const { return its_key; }
    GroupKey its_key;
    uint32_t next = 0;  // the table's
    Id first = 0;       // head of the list of its routes
  };
  static GroupKey group_key(const MribKey &key) { return {key.context_id, key.group, key.group_len}; }
  struct Shared {
    const MribTerms &key() const { return its_key; }
    MribTerms its_key;
    uint32_t next = 0;   // the table's
    uint32_t users = 0;  // routes
  };

  void sort(std::vector<Id> &ids) const;
  void link(Id id);
  void unlink(Id id);
  void set_terms(Id id, const MribInstalled &installed);
  void drop_terms(uint32_t terms);

  RecordTable<Record, MribKey> records_;
  RecordTable<Shared, MribTerms> terms_;
  uint32_t latest_terms_ = 0;  // that were installed; 0: they are gone
  RecordTable<Group, GroupKey> groups_;
  std::map<vrf_context_id_t, mrib_context> contexts_;
  std::map<MribKey, std::map<uint32_t, MribInstalled>> shared_;  // routes with several owners: what each installed
  std::map<MribKey, im_iod_t> foreign_mtis_;                     // tunnels that routes have from somebody else
};

// What a client reads of a route.
MribRoute mrib_route_of(const MribKey &key, const MribInstalled &installed);

}  // namespace ref

#endif  // REFERENCE_MRIB_ROUTES_H

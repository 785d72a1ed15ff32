// What one neighbour has been told, and what it is to be told next.
//
// It reads the table's changes, a bounded number at a time, and puts routes with equal attributes into the same UPDATE.
// The set of routes that the neighbour holds is one bit each, kept by the reader; everything else follows from the
// table.
#ifndef BGP_ADJ_RIB_OUT_H
#define BGP_ADJ_RIB_OUT_H

#include "bgp/export.h"
#include "bgp/message.h"
#include "bgp/route_groups.h"
#include "bgp/table.h"

namespace bgp {

class AdjRibOut {
 public:
  // Messages that a turn has written.
  struct Written {
    size_t updates = 0, refreshes = 0;  // messages; refreshes: the marks of RFC 7313
  };

  AdjRibOut(Table &table, const ExportTarget &target) : table_(table), target_(target), reader_(table) {}

  // Everything, with an end-of-RIB mark behind it.
  void start();
  // Everything once more, between the marks of RFC 7313 where both sides know them.
  void refresh(bool enhanced);
  bool pending() const { return started_ && (reader_.behind() || mark_due() || begin_refresh_); }
  // Whether the end-of-RIB mark waits, though everything that is known has been sent.
  void hold_end_of_rib(bool hold) { held_ = hold; }
  // Appends the messages for at most `most` routes. `groups` is scratch.
  Written run(size_t most, RouteGroups &groups, Octets &out);

  const ExportTarget &target() const { return target_; }
  uint32_t advertised() const { return reader_.told_count(); }
  bool told(RouteId id) const { return reader_.told(id); }
  bool end_of_rib_sent() const { return end_of_rib_sent_; }
  uint64_t too_long() const { return too_long_; }  // routes whose attributes fit into no message for this neighbour

 private:
  enum class Mark : uint8_t { none, end_of_rib, refresh };  // due when the walk is over

  bool mark_due() const { return mark_ == Mark::refresh || (mark_ == Mark::end_of_rib && !held_); }
  void gather(size_t most, RouteGroups &groups);
  void announce(const RouteGroup &group, Octets &out);
  void withdraw(Octets &out);
  void finish_walk(Octets &out);
  void mark_refresh(RefreshKind kind, Octets &out);

  Table &table_;
  ExportTarget target_;
  ChangeReader reader_;
  Mark mark_ = Mark::none;
  bool started_ = false, end_of_rib_sent_ = false, begin_refresh_ = false, held_ = false;
  uint64_t too_long_ = 0;
  std::vector<Nlri> withdrawn_;  // of the batch
  Attributes attributes_;        // scratch
  Octets encoded_;               // scratch
  Written written_;
};

}  // namespace bgp

#endif  // BGP_ADJ_RIB_OUT_H

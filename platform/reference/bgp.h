// MDT SAFI routes between the module and BGP, and what BGP knows of the VRFs.
#ifndef REFERENCE_BGP_H
#define REFERENCE_BGP_H

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bgp.h"
#include "platform/types.h"

namespace ref {

struct MdtSafi {
  ip_addr_t source = 0;                       // the announcing PE
  uint8_t rd[ROUTE_DISTINGUISHER_SIZE] = {};  // as in a message (RFC 4364): network byte order
  ip_addr_t group = 0;                        // default MDT group
  std::string vrf_name;                       // local entries only
};
// Route distinguisher of a VRF; null clears it. notify: tell the module.
void bgp_set_rd(std::string_view vrf_name, const uint8_t *rd, bool notify);
void bgp_set_update_source(std::string_view interface_name, bool notify);  // empty: none
std::optional<std::vector<uint8_t>> bgp_parse_rd(std::string_view text);   // "65000:1", "10.0.0.1:5", "4200000000:1"
std::vector<MdtSafi> bgp_local_entries();                                  // what the module advertises

// Entries of other PEs that stand in a table of the host's, so that they need not stand here too: there may be a
// million.
class RemoteTable {
 public:
  virtual ~RemoteTable() = default;
  virtual size_t size() const = 0;
  virtual bool holds(const MdtSafi &entry) const = 0;
  virtual void visit(const std::function<void(const MdtSafi &)> &visitor) const = 0;  // every entry, in no order
};
// Null: none. The caller keeps it alive.
void set_bgp_remote_table(const RemoteTable *table);
// Entries that the table has come to hold (add), or lets go: given to the module in messages of at most 100 entries.
void bgp_remote_table_changed(std::span<const MdtSafi> entries, bool add);
// Entries that are added beside that table, or withdrawn whatever it holds, and given to the module likewise. What is
// done to an entry last counts.
void bgp_add_remote(const std::vector<MdtSafi> &entries);
void bgp_withdraw_remote(const std::vector<MdtSafi> &entries);
std::vector<MdtSafi> bgp_remote_entries();  // what remote PEs advertise, ascending
size_t bgp_remote_count();                  // how many these are
bool bgp_is_remote(const MdtSafi &entry);
std::vector<MdtSafi> bgp_added_entries();  // those that the table has not, ascending
void bgp_end_of_rib();
// Withdraws what the module has advertised: it has gone and tells BGP nothing any more.
void bgp_forget_local();
// Called when the module advertises (add) or withdraws an entry; how the link to other PEs learns of it.
void set_bgp_local_sink(std::function<void(const MdtSafi &entry, bool add)> sink);

}  // namespace ref

#endif  // REFERENCE_BGP_H

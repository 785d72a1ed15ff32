// BGP library: route distinguishers, the update source, and the MDT SAFI entries of this PE and of the others.
//
// What the module advertises arrives as local-update messages (bgp_receive). A VRF has one entry at most: a newer one
// takes its place, and a withdrawal takes away what is there. An entry goes with the route distinguisher that it was
// advertised under, and with its VRF: a module that has left the VRF by then does not tell. What other PEs advertise is
// given to the module in remote updates of at most 100 entries. A request of the module for the whole set is answered
// with every remote entry, closed by an end-of-RIB mark: an entry that withdraws nothing. Everything goes through the
// transport's queue.
//
// Remote entries stand in the host's table when it has one. What was added or withdrawn beside it is kept here as the
// entries that there are although the table has them not, and those that there are not although it has them: both are
// exceptions, and another change of such an entry makes it none.
//
// Route distinguishers are printed as RFC 4364 has them: 2-byte AS and number (type 0), address and number (type 1),
// 4-byte AS and number (type 2). A 4-byte AS that would fit into two bytes is written high.low, so that every printed
// form reads back to the same bytes. Other types are shown in hexadecimal.
#include "platform/bgp.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/ip.h"
#include "platform/mts.h"
#include "platform/reference/bgp.h"
#include "platform/reference/mts.h"
#include "platform/reference/observer.h"
#include "platform/reference/parse.h"
#include "platform/reference/record_table.h"
#include "platform/reference/services.h"
#include "platform/reference/testing/services.h"
#include "platform/reference/text.h"
#include "platform/reference/wire.h"

namespace ref {
namespace {

constexpr size_t entries_a_message = 100;  // as many as the module puts into one of its own
enum RdType : uint16_t { rd_as2 = 0, rd_address = 1, rd_as4 = 2 };

using Rd = std::array<uint8_t, ROUTE_DISTINGUISHER_SIZE>;

struct EntryKey {
  ip_addr_t source = 0;
  Rd rd{};
  ip_addr_t group = 0;
  auto operator<=>(const EntryKey &) const = default;
  uint64_t hash() const { return mix(mix(wire::load_be64(rd.data())) + (uint64_t{source} << 32 | group)); }
};

struct Exception {
  const EntryKey &key() const { return its_key; }
  EntryKey its_key;
  uint32_t next = 0;
};

struct ConnectorAttribute {
  Rd rd;
  ip_addr_t source;
};

struct State {
  ByName<Rd> rds;  // by VRF
  std::string update_source;
  ByName<EntryKey> local;  // by VRF
  const RemoteTable *table = nullptr;
  RecordTable<Exception, EntryKey> exceptions;
  std::function<void(const MdtSafi &, bool)> sink;
  std::vector<std::unique_ptr<ConnectorAttribute>> attributes;
};
State state;

Rd rd_of(const uint8_t *bytes) {
  Rd rd;
  std::copy_n(bytes, rd.size(), rd.begin());
  return rd;
}

EntryKey key_of(const MdtSafi &entry) { return {entry.source, rd_of(entry.rd), entry.group}; }

MdtSafi entry_of(const EntryKey &key, std::string_view vrf_name = {}) {
  MdtSafi entry;
  entry.source = key.source;
  std::copy(key.rd.begin(), key.rd.end(), entry.rd);
  entry.group = key.group;
  entry.vrf_name = vrf_name;
  return entry;
}

// --------------------------------------------------------------------------------------------------- remote entries

bool table_holds(const MdtSafi &entry) { return state.table != nullptr && state.table->holds(entry); }

bool is_exception(const EntryKey &key) { return state.exceptions.size() > 0 && state.exceptions.find(key) != 0; }
void forget_exception(const EntryKey &key) { state.exceptions.erase(state.exceptions.find(key)); }

// Of exceptions that there are although the table has them not.
std::vector<EntryKey> added_keys() {
  std::vector<EntryKey> keys;
  state.exceptions.for_each([&keys](uint32_t id) {
    const EntryKey &key = state.exceptions[id].its_key;
    if (!table_holds(entry_of(key))) keys.push_back(key);
  });
  return keys;
}

std::vector<MdtSafi> sorted_entries(std::vector<EntryKey> keys) {
  std::sort(keys.begin(), keys.end());
  std::vector<MdtSafi> all;
  all.reserve(keys.size());
  for (const EntryKey &key : keys) all.push_back(entry_of(key));
  return all;
}

// --------------------------------------------------------------------------------------------------------- messages

void encode_entry(uint8_t *to, const MdtSafi &entry, bool add) {
  wire::store_host(to + BGP_MDT_SAFI_ENTRY_SOURCE, entry.source);
  std::memcpy(to + BGP_MDT_SAFI_ENTRY_RD, entry.rd, sizeof entry.rd);
  wire::store_host(to + BGP_MDT_SAFI_ENTRY_GROUP, entry.group);
  to[BGP_MDT_SAFI_ENTRY_ADD] = add ? 1 : 0;
}

void send_remote(std::span<const MdtSafi> entries, bool add) {
  for (size_t first = 0; first < entries.size(); first += entries_a_message) {
    const size_t count = std::min(entries_a_message, entries.size() - first);
    std::vector<uint8_t> payload(BGP_MDT_SAFI_COUNT_SIZE + count * BGP_MDT_SAFI_ENTRY_SIZE);
    wire::store_host(payload.data(), static_cast<uint16_t>(count));
    for (size_t i = 0; i < count; i++)
      encode_entry(&payload[BGP_MDT_SAFI_COUNT_SIZE + i * BGP_MDT_SAFI_ENTRY_SIZE], entries[first + i], add);
    deliver(MTS_OPC_MVPN_BGP_MDT_SAFI_REMOTE_UPDATE, payload.data(), payload.size());
  }
}

MdtSafi decode_entry(const uint8_t *from) {
  MdtSafi entry;
  const char *name = reinterpret_cast<const char *>(from + BGP_MDT_SAFI_ENTRY_VRF_NAME);
  entry.vrf_name.assign(name, strnlen(name, VRF_NAME_MAX));
  entry.source = wire::load_host<uint32_t>(from + BGP_MDT_SAFI_ENTRY_SOURCE);
  std::memcpy(entry.rd, from + BGP_MDT_SAFI_ENTRY_RD, sizeof entry.rd);
  entry.group = wire::load_host<uint32_t>(from + BGP_MDT_SAFI_ENTRY_GROUP);
  return entry;
}

void change_beside_table(const std::vector<MdtSafi> &entries, bool add) {
  for (const MdtSafi &entry : entries) {
    const EntryKey key = key_of(entry);
    if (bgp_is_remote(entry) == add) continue;
    is_exception(key) ? forget_exception(key) : void(state.exceptions.add({key}));
    if (observer() != nullptr) observer()->remote_entry_changed(entry, add);
  }
  send_remote(entries, add);
}

void answer_request() {
  send_remote(bgp_remote_entries(), true);
  bgp_end_of_rib();
}

void withdraw_local(std::string_view vrf_name) {
  const auto found = state.local.find(vrf_name);
  if (found == state.local.end()) return;
  const MdtSafi withdrawn = entry_of(found->second, vrf_name);
  state.local.erase(found);
  if (state.sink) state.sink(withdrawn, false);
}

void advertise_local(const MdtSafi &entry) {
  const auto found = state.local.find(entry.vrf_name);
  if (found != state.local.end() && found->second != key_of(entry)) withdraw_local(entry.vrf_name);
  state.local[entry.vrf_name] = key_of(entry);
  if (state.sink) state.sink(entry, true);
}

void take_local_entry(const uint8_t *from) {
  if (from[BGP_MDT_SAFI_ENTRY_EOR] != 0) return answer_request();
  if (from[BGP_MDT_SAFI_ENTRY_END_OF_LOCAL] != 0) return;
  const MdtSafi entry = decode_entry(from);
  if (from[BGP_MDT_SAFI_ENTRY_ADD] != 0)
    advertise_local(entry);
  else
    withdraw_local(entry.vrf_name);
}

// ---------------------------------------------------------------------------------------------- route distinguishers

// Text of an RD, which stands in most messages.
struct PrintedRd {
  explicit PrintedRd(const uint8_t *rd) {
    const uint16_t type = wire::load_be16(rd), last = wire::load_be16(rd + 6);
    const uint32_t first = wire::load_be32(rd + 2);
    if (type == rd_as2)
      number(wire::load_be16(rd + 2)).put(":").number(wire::load_be32(rd + 4));
    else if (type == rd_address)
      put(ip_print_addr(first)).put(":").number(last);
    else if (type == rd_as4)
      put(first <= 0xFFFF ? "0." : "").number(first).put(":").number(last);
    else
      put("0x").hexadecimal(rd);
    *at = '\0';
  }
  PrintedRd &put(const char *words) {
    while (*words != '\0') *at++ = *words++;
    return *this;
  }
  PrintedRd &number(uint32_t value) {
    at = std::to_chars(at, text + sizeof text, value).ptr;
    return *this;
  }
  void hexadecimal(const uint8_t *rd) {
    for (size_t i = 0; i < ROUTE_DISTINGUISHER_SIZE; i++) at += std::snprintf(at, 3, "%02x", rd[i]);
  }
  char text[32];
  char *at = text;
};

// The part before the colon, with the type that it gives the whole.
struct Administrator {
  uint16_t type;
  uint32_t value;
};

std::optional<Administrator> parse_administrator(std::string_view text) {
  if (const auto address = parse_address(text)) return Administrator{rd_address, *address};
  if (const size_t dot = text.find('.'); dot != text.npos) {
    const auto high = parse_number(text.substr(0, dot), 0xFFFF), low = parse_number(text.substr(dot + 1), 0xFFFF);
    if (!high || !low) return std::nullopt;
    return Administrator{rd_as4, static_cast<uint32_t>(*high << 16 | *low)};
  }
  const auto as = parse_number(text, 0xFFFFFFFF);
  if (!as) return std::nullopt;
  return Administrator{*as <= 0xFFFF ? rd_as2 : rd_as4, static_cast<uint32_t>(*as)};
}

std::optional<std::vector<uint8_t>> parse_hexadecimal(std::string_view text) {
  if (text.size() != 2 + 2 * ROUTE_DISTINGUISHER_SIZE) return std::nullopt;
  std::vector<uint8_t> rd(ROUTE_DISTINGUISHER_SIZE);
  for (size_t i = 0; i < rd.size(); i++) {
    const char *digits = text.data() + 2 + 2 * i;
    const auto [stop, error] = std::from_chars(digits, digits + 2, rd[i], 16);
    if (error != std::errc{} || stop != digits + 2) return std::nullopt;
  }
  return rd;
}

}  // namespace

void bgp_reset() { state = State{}; }

// A local update that the module sent.
void bgp_receive(const SentMessage &message) {
  if (message.destination != MTS_DESTINATION_BGP || message.opcode != MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_UPDATE ||
      message.payload.size() < BGP_MDT_SAFI_COUNT_SIZE)
    return;
  const size_t room = (message.payload.size() - BGP_MDT_SAFI_COUNT_SIZE) / BGP_MDT_SAFI_ENTRY_SIZE;
  const size_t count = std::min<size_t>(wire::load_host<uint16_t>(message.payload.data()), room);
  for (size_t i = 0; i < count; i++)
    take_local_entry(&message.payload[BGP_MDT_SAFI_COUNT_SIZE + i * BGP_MDT_SAFI_ENTRY_SIZE]);
}

void bgp_drop_vrf(std::string_view vrf_name) {
  withdraw_local(vrf_name);
  if (const auto found = state.rds.find(vrf_name); found != state.rds.end()) state.rds.erase(found);
}

void bgp_set_rd(std::string_view vrf_name, const uint8_t *rd, bool notify) {
  const auto advertised = state.local.find(vrf_name);
  if (advertised != state.local.end() && (rd == nullptr || advertised->second.rd != rd_of(rd)))
    withdraw_local(vrf_name);
  if (rd != nullptr)
    state.rds[std::string(vrf_name)] = rd_of(rd);
  else if (const auto found = state.rds.find(vrf_name); found != state.rds.end())
    state.rds.erase(found);
  if (!notify) return;
  std::array<uint8_t, BGP_RD_NOTIFY_SIZE> payload{};
  std::memcpy(&payload[BGP_RD_NOTIFY_VRF_NAME], vrf_name.data(), std::min<size_t>(vrf_name.size(), VRF_NAME_MAX));
  wire::store_host(&payload[BGP_RD_NOTIFY_VALID], uint32_t{rd != nullptr ? 1u : 0u});
  if (rd != nullptr) std::memcpy(&payload[BGP_RD_NOTIFY_RD], rd, ROUTE_DISTINGUISHER_SIZE);
  deliver(MTS_OPC_MVPN_BGP_RD_NOTIFY, payload.data(), payload.size());
}

void bgp_set_update_source(std::string_view interface_name, bool notify) {
  state.update_source = interface_name.substr(0, BGP_UPDATE_SOURCE_NAME_SIZE);
  if (!notify) return;
  std::array<char, BGP_UPDATE_SOURCE_NAME_SIZE> payload{};
  state.update_source.copy(payload.data(), payload.size());
  deliver(MTS_OPC_MVPN_BGP_UPDATE_SOURCE_NOTIFY, payload.data(), payload.size());
}

std::optional<std::vector<uint8_t>> bgp_parse_rd(std::string_view text) {
  if (text.substr(0, 2) == "0x") return parse_hexadecimal(text);
  const size_t colon = text.find(':');
  if (colon == text.npos) return std::nullopt;
  const auto administrator = parse_administrator(text.substr(0, colon));
  if (!administrator) return std::nullopt;
  const bool short_as = administrator->type == rd_as2;
  const auto number = parse_number(text.substr(colon + 1), short_as ? 0xFFFFFFFF : 0xFFFF);
  if (!number) return std::nullopt;
  std::vector<uint8_t> rd(ROUTE_DISTINGUISHER_SIZE);
  wire::store_be16(rd.data(), administrator->type);
  if (short_as) {
    wire::store_be16(&rd[2], static_cast<uint16_t>(administrator->value));
    wire::store_be32(&rd[4], static_cast<uint32_t>(*number));
  } else {
    wire::store_be32(&rd[2], administrator->value);
    wire::store_be16(&rd[6], static_cast<uint16_t>(*number));
  }
  return rd;
}

std::vector<MdtSafi> bgp_local_entries() {
  std::vector<MdtSafi> all;
  for (const auto &[vrf_name, key] : state.local) all.push_back(entry_of(key, vrf_name));
  std::sort(all.begin(), all.end(), [](const MdtSafi &a, const MdtSafi &b) { return a.vrf_name < b.vrf_name; });
  return all;
}

void set_bgp_remote_table(const RemoteTable *table) { state.table = table; }

void bgp_remote_table_changed(std::span<const MdtSafi> entries, bool add) {
  for (const MdtSafi &entry : entries) {
    const bool is_news = !is_exception(key_of(entry));
    if (!is_news) forget_exception(key_of(entry));
    if (is_news && observer() != nullptr) observer()->remote_entry_changed(entry, add);
  }
  send_remote(entries, add);
}

void bgp_add_remote(const std::vector<MdtSafi> &entries) { change_beside_table(entries, true); }
void bgp_withdraw_remote(const std::vector<MdtSafi> &entries) { change_beside_table(entries, false); }

std::vector<MdtSafi> bgp_remote_entries() {
  std::vector<EntryKey> keys = added_keys();
  if (state.table != nullptr) {
    keys.reserve(keys.size() + state.table->size());
    state.table->visit([&keys](const MdtSafi &entry) {
      if (!is_exception(key_of(entry))) keys.push_back(key_of(entry));
    });
  }
  return sorted_entries(std::move(keys));
}

bool bgp_is_remote(const MdtSafi &entry) { return table_holds(entry) != is_exception(key_of(entry)); }

std::vector<MdtSafi> bgp_added_entries() { return sorted_entries(added_keys()); }

size_t bgp_remote_count() {
  const size_t added = added_keys().size(), withdrawn = state.exceptions.size() - added;
  return (state.table == nullptr ? 0 : state.table->size()) - withdrawn + added;
}

void bgp_end_of_rib() {
  std::array<uint8_t, BGP_MDT_SAFI_COUNT_SIZE + BGP_MDT_SAFI_ENTRY_SIZE> payload{};
  wire::store_host(payload.data(), uint16_t{1});
  payload[BGP_MDT_SAFI_COUNT_SIZE + BGP_MDT_SAFI_ENTRY_EOR] = 1;
  deliver(MTS_OPC_MVPN_BGP_MDT_SAFI_REMOTE_UPDATE, payload.data(), payload.size());
}

void bgp_request_local() { deliver(MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_REQUEST, nullptr, 0); }

void bgp_forget_local() {
  for (const MdtSafi &entry : bgp_local_entries()) withdraw_local(entry.vrf_name);
}

void set_bgp_local_sink(std::function<void(const MdtSafi &, bool)> sink) { state.sink = std::move(sink); }

void *bgp_make_connector_attribute(const uint8_t *rd, ip_addr_t source) {
  state.attributes.push_back(std::make_unique<ConnectorAttribute>(ConnectorAttribute{rd_of(rd), source}));
  return state.attributes.back().get();
}

}  // namespace ref

extern "C" {

int bgp_api_init() { return 1; }
void bgp_api_close() {}

int bgp_get_rd(const char *vrf_name, uint8_t rd[ROUTE_DISTINGUISHER_SIZE], uint32_t) {
  const auto found = ref::state.rds.find(std::string_view(vrf_name));
  if (found == ref::state.rds.end()) return 0;
  std::copy(found->second.begin(), found->second.end(), rd);
  return 1;
}

void bgp_mvpn_get_update_source(char *name, uint32_t size) {
  if (ref::state.update_source.empty() || size == 0) return;
  const size_t copied = ref::state.update_source.copy(name, size);
  if (copied < size) name[copied] = '\0';
}

void bgp_mvpn_get_conattr(void *, void *attribute, uint8_t rd[ROUTE_DISTINGUISHER_SIZE], ip_addr_t *source) {
  for (const auto &known : ref::state.attributes) {
    if (known.get() != attribute) continue;
    std::copy(known->rd.begin(), known->rd.end(), rd);
    *source = known->source;
  }
}

const char *mvpn_bgp_print_rd(const uint8_t rd[ROUTE_DISTINGUISHER_SIZE]) {
  return ref::keep_text(ref::PrintedRd(rd).text);
}

}  // extern "C"

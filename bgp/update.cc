// UPDATE (RFC 4271, 4.3) with the multiprotocol attributes (RFC 4760) of this family.
//
// A message is judged by the worst thing in it (RFC 7606): attributes are dropped, its routes are taken as withdrawn,
// or the session ends. Where the routes cannot be found, because the list of attributes breaks off before MP_REACH_NLRI
// or that attribute itself is wrong, only the end of the session remains: routes would otherwise be kept that the
// neighbour believes replaced.
#include <algorithm>
#include <bitset>

#include "bgp/attributes.h"
#include "bgp/header.h"
#include "bgp/wire.h"

namespace bgp {
namespace {

constexpr size_t kUnreachHead = 3;  // family
constexpr uint8_t kNextHopSize = 4;

bool usable_next_hop(Ipv4 address) { return address != 0 && address < 0xE0000000; }

class UpdateDecoder {
 public:
  UpdateDecoder(const UpdateContext &context, Update &update)
      : update_(update), sink_{context, update.attributes, {}, {}, false, false} {}

  std::optional<Notification> decode(View body);

 private:
  bool skip_prefixes(View prefixes);
  void walk_attributes(View attributes);
  void take(const RawAttribute &raw);
  void take_reach(const RawAttribute &raw);
  void take_unreach(const RawAttribute &raw);
  void take_nlri(const RawAttribute &raw, const Family &family, View nlri, NlriList &into);
  void fault(AttributeFault fault, const RawAttribute &raw);
  std::optional<Notification> verdict();

  Update &update_;
  AttributeSink sink_;
  std::bitset<256> seen_;
  bool reachable_ = false;   // the message announces something, of whatever family
  bool attributes_ = false;  // it has attributes other than MP_UNREACH_NLRI
  AttributeFault worst_;
  RawAttribute culprit_;
};

void UpdateDecoder::fault(AttributeFault found, const RawAttribute &raw) {
  if (found.treatment == Treatment::discard) update_.discarded++;
  if (found.treatment <= worst_.treatment) return;
  worst_ = found;
  culprit_ = raw;
}

// IPv4 unicast prefixes, which are counted and not looked at further. False: no such list.
bool UpdateDecoder::skip_prefixes(View prefixes) {
  wire::Reader reader(prefixes);
  while (reader.left() > 0) {
    const uint8_t bits = reader.u8();
    const size_t octets = (bits + 7U) / 8;
    if (bits > 32 || octets > reader.left()) return false;
    reader.take(octets);
    update_.unicast++;
  }
  return true;
}

void UpdateDecoder::take_nlri(const RawAttribute &raw, const Family &family, View nlri, NlriList &into) {
  if (family == kIpv4Unicast && !skip_prefixes(nlri)) fault({Treatment::reset, UpdateError::optional_attribute}, raw);
  if (family != kMdt) return;  // not agreed: ignored (RFC 4760, section 6)
  bool well = nlri.size() % kNlriSize == 0;
  for (size_t at = 0; well && at < nlri.size(); at += kNlriSize) well = nlri[at] == kNlriBits;
  if (well)
    into = NlriList(nlri);
  else
    fault({Treatment::reset, UpdateError::optional_attribute}, raw);
}

void UpdateDecoder::take_reach(const RawAttribute &raw) {
  const AttributeFault broken{Treatment::reset, UpdateError::optional_attribute};
  wire::Reader reader(raw.value);
  if (reader.left() < 5) return fault(broken, raw);
  Family family;
  family.afi = reader.u16();
  family.safi = reader.u8();
  const size_t next_hop_size = reader.u8();
  if (next_hop_size + 1 > reader.left()) return fault(broken, raw);
  const View next_hop = reader.take(next_hop_size);
  reader.u8();
  reachable_ = true;
  if (family == kMdt) {
    // Routes behind a next hop of another length cannot be trusted to begin where they seem to (RFC 7606, 7.11).
    if (next_hop_size != kNextHopSize) return fault(broken, raw);
    update_.attributes.next_hop = wire::load32(next_hop.data());
    if (!usable_next_hop(update_.attributes.next_hop))
      fault({Treatment::as_withdraw, UpdateError::invalid_next_hop}, raw);
  }
  take_nlri(raw, family, reader.rest(), update_.reachable);
}

void UpdateDecoder::take_unreach(const RawAttribute &raw) {
  wire::Reader reader(raw.value);
  if (reader.left() < kUnreachHead) return fault({Treatment::reset, UpdateError::optional_attribute}, raw);
  Family family;
  family.afi = reader.u16();
  family.safi = reader.u8();
  if (reader.left() == 0) update_.end_of_rib = family;
  take_nlri(raw, family, reader.rest(), update_.unreachable);
}

void UpdateDecoder::take(const RawAttribute &raw) {
  const bool multiprotocol = raw.type == attribute_mp_reach || raw.type == attribute_mp_unreach;
  if (raw.type != attribute_mp_unreach) attributes_ = true;
  if (seen_[raw.type]) {
    if (multiprotocol) return fault({Treatment::reset, UpdateError::malformed_attribute_list}, {});
    return fault({Treatment::discard, UpdateError::malformed_attribute_list}, raw);
  }
  seen_.set(raw.type);
  if (!multiprotocol) return fault(decode_attribute(raw, sink_), raw);
  if ((raw.flags & (flag_optional | flag_transitive)) != flag_optional)
    fault({Treatment::as_withdraw, UpdateError::attribute_flags}, raw);
  if (raw.type == attribute_mp_reach)
    take_reach(raw);
  else
    take_unreach(raw);
}

void UpdateDecoder::walk_attributes(View attributes) {
  // An attribute that reaches beyond the list: what stands behind cannot be found, what came before can be withdrawn.
  const AttributeFault broken{Treatment::as_withdraw, UpdateError::malformed_attribute_list};
  wire::Reader reader(attributes);
  while (reader.left() > 0) {
    const View start = reader.rest();
    if (reader.left() < 3) return fault(broken, {});
    RawAttribute raw;
    raw.flags = reader.u8();
    raw.type = reader.u8();
    const bool extended = (raw.flags & flag_extended_length) != 0;
    if (extended && reader.left() < 2) return fault(broken, {});
    const size_t length = extended ? reader.u16() : reader.u8();
    if (length > reader.left()) return fault(broken, {});
    raw.value = reader.take(length);
    raw.whole = start.first(start.size() - reader.left());
    take(raw);
  }
}

std::optional<Notification> UpdateDecoder::verdict() {
  // Without a route to withdraw instead, what is wrong with the attributes of routes ends the session (RFC 7606, 5.2).
  if (worst_.treatment == Treatment::as_withdraw && !reachable_) worst_.treatment = Treatment::reset;
  if (worst_.treatment == Treatment::accept) return std::nullopt;
  Notification notification =
      error(ErrorCode::update, worst_.subcode, Octets(culprit_.whole.begin(), culprit_.whole.end()));
  if (worst_.subcode == UpdateError::missing_well_known)
    notification.data = {static_cast<uint8_t>(sink_.has_origin ? attribute_as_path : attribute_origin)};
  else if (worst_.subcode == UpdateError::malformed_as_path)
    notification.data.clear();
  if (worst_.treatment == Treatment::reset) return notification;
  update_.remark = describe(notification);
  if (culprit_.type != 0) update_.remark += ", attribute " + std::to_string(culprit_.type);
  update_.as_withdraw = worst_.treatment == Treatment::as_withdraw;
  return std::nullopt;
}

std::optional<Notification> UpdateDecoder::decode(View body) {
  const Notification broken = error(ErrorCode::update, UpdateError::malformed_attribute_list);
  wire::Reader reader(body);
  if (reader.left() < 4) return broken;
  const size_t withdrawn = reader.u16();
  if (withdrawn + 2 > reader.left()) return broken;
  const bool prefixes_well = skip_prefixes(reader.take(withdrawn));
  const size_t attributes = reader.u16();
  if (attributes > reader.left()) return broken;
  const View list = reader.take(attributes);
  if (!prefixes_well) return error(ErrorCode::update, UpdateError::invalid_network);
  walk_attributes(list);
  if (!skip_prefixes(reader.rest())) return error(ErrorCode::update, UpdateError::invalid_network);
  reachable_ = reachable_ || reader.left() > 0;
  if (attributes_ && worst_.treatment < Treatment::as_withdraw && reachable_) fault(complete_attributes(sink_), {});
  if (reader.left() > 0 || withdrawn > 0 || attributes_) update_.end_of_rib.reset();
  if (body.size() == 4) update_.end_of_rib = kIpv4Unicast;
  return verdict();
}

}  // namespace

Nlri NlriList::operator[](size_t i) const {
  const uint8_t *at = octets_.data() + i * kNlriSize + 1;
  Nlri nlri;
  std::copy(at, at + nlri.key.rd.size(), nlri.key.rd.begin());
  nlri.key.source = wire::load32(at + 8);
  nlri.group = wire::load32(at + 12);
  return nlri;
}

std::optional<Notification> decode_update(View body, const UpdateContext &context, Update &update) {
  reset(update.attributes);
  update.reachable = update.unreachable = {};
  update.end_of_rib.reset();
  update.unicast = update.discarded = 0;
  update.as_withdraw = false;
  update.remark.clear();
  return UpdateDecoder(context, update).decode(body);
}

// ---------------------------------------------------------------------------------------------------------- encoding
//
// MP_REACH_NLRI comes first, so that a receiver that stumbles over a later attribute knows the routes (RFC 7606, 5.1).

UpdateBuilder::UpdateBuilder(Octets &out, size_t largest, View attributes, Ipv4 next_hop)
    : out_(out), attributes_(attributes), start_(begin_message(MessageType::update, out)) {
  wire::put16(out_, 0);
  wire::put16(out_, 0);
  put_multiprotocol(attribute_mp_reach);
  wire::put8(out_, kNextHopSize);
  wire::put32(out_, next_hop);
  wire::put8(out_, 0);
  limit_room(largest);
}

UpdateBuilder::UpdateBuilder(Octets &out, size_t largest) : out_(out), start_(begin_message(MessageType::update, out)) {
  wire::put16(out_, 0);
  wire::put16(out_, 0);
  put_multiprotocol(attribute_mp_unreach);
  limit_room(largest);
}

void UpdateBuilder::put_multiprotocol(uint8_t type) {
  wire::put8(out_, flag_optional | flag_extended_length);
  wire::put8(out_, type);
  wire::put16(out_, 0);
  value_ = out_.size();
  wire::put16(out_, kMdt.afi);
  wire::put8(out_, kMdt.safi);
}

void UpdateBuilder::limit_room(size_t largest) {
  const size_t used = out_.size() - start_ + attributes_.size();
  room_ = used > largest ? 0 : (largest - used) / kNlriSize;
}

bool UpdateBuilder::add(const Nlri &nlri) {
  if (room_ == 0) return false;
  room_--;
  uint8_t octets[kNlriSize];
  octets[0] = kNlriBits;
  std::copy(nlri.key.rd.begin(), nlri.key.rd.end(), octets + 1);
  wire::store32(octets + 9, nlri.key.source);
  wire::store32(octets + 13, nlri.group);
  wire::put(out_, octets);
  return true;
}

void UpdateBuilder::finish() {
  wire::store16(&out_[value_ - 2], static_cast<uint16_t>(out_.size() - value_));
  wire::put(out_, attributes_);
  const size_t attributes_start = start_ + kHeaderSize + 4;
  wire::store16(&out_[attributes_start - 2], static_cast<uint16_t>(out_.size() - attributes_start));
  end_message(start_, out_);
}

void encode_end_of_rib(const Family &family, Octets &out) {
  const size_t start = begin_message(MessageType::update, out);
  wire::put16(out, 0);
  if (family == kIpv4Unicast) {
    wire::put16(out, 0);
  } else {
    wire::put16(out, 6);
    put_attribute_head(flag_optional, attribute_mp_unreach, kUnreachHead, out);
    wire::put16(out, family.afi);
    wire::put8(out, family.safi);
  }
  end_message(start, out);
}

}  // namespace bgp

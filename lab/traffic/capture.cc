// Captures with libpcap, one handle for each direction of an interface: an Ethernet capture does not say in which
// direction a frame went. Handles do not block; the caller polls their descriptors.
//
// Trap: a handle that is full drops silently. dropped() has to be asked with every figure that is taken from here.
#include "lab/traffic/capture.h"

#include <stdexcept>

namespace traffic {
namespace {

constexpr int kSnapLength = 4096;    // bytes of a frame that are kept: more than any link of a lab carries
constexpr int kBuffer = 8 << 20;     // bytes of each handle: room for a busy link while the agent does something else
constexpr size_t kMostRuns = 10000;  // of a key, 16 bytes each: a flow that is lost here and there stays far below
constexpr size_t kEthernetHeader = 14;
constexpr uint8_t kGreProtocol = 47;
constexpr size_t kProtocolAt = kEthernetHeader + 9;

void count(const TestPacket &packet, Carried *carried) {
  ++carried->series[packet.sent_ns / kBucketNs];
  Ranges &runs = carried->numbers;
  if (runs.empty() || packet.number > runs.back().second + 1) {
    if (runs.size() < kMostRuns) runs.emplace_back(packet.number, packet.number);
  } else if (packet.number == runs.back().second + 1) {
    runs.back().second = packet.number;
  } else {
    ++carried->repeated;
  }
}

}  // namespace

void Capture::watch(const std::string &interface) {
  open(interface, Direction::in);
  open(interface, Direction::out);
}

void Capture::open(const std::string &interface, Direction direction) {
  char error[PCAP_ERRBUF_SIZE] = "";
  Watch watch{interface, direction, std::unique_ptr<pcap_t, CloseHandle>(pcap_create(interface.c_str(), error))};
  pcap_t *handle = watch.handle.get();
  if (handle == nullptr) throw std::runtime_error(interface + ": " + error);
  pcap_set_snaplen(handle, kSnapLength);
  pcap_set_immediate_mode(handle, 1);
  pcap_set_buffer_size(handle, kBuffer);
  if (pcap_activate(handle) < 0 || pcap_setnonblock(handle, 1, error) != 0 ||
      pcap_setdirection(handle, direction == Direction::in ? PCAP_D_IN : PCAP_D_OUT) != 0)
    throw std::runtime_error(interface + ": " + pcap_geterr(handle));
  if (pcap_datalink(handle) != DLT_EN10MB) throw std::runtime_error(interface + " is no Ethernet link");
  watches_.push_back(std::move(watch));
}

void Capture::write(const std::string &file) {
  file_handle_.reset(pcap_open_dead(DLT_EN10MB, kSnapLength));
  file_.reset(pcap_dump_open(file_handle_.get(), file.c_str()));
  if (!file_) throw std::runtime_error(file + ": " + pcap_geterr(file_handle_.get()));
}

std::vector<int> Capture::descriptors() const {
  std::vector<int> result;
  for (const Watch &watch : watches_) result.push_back(pcap_get_selectable_fd(watch.handle.get()));
  return result;
}

void Capture::read(int descriptor) {
  for (const Watch &watch : watches_) {
    if (pcap_get_selectable_fd(watch.handle.get()) != descriptor) continue;
    pcap_pkthdr *header = nullptr;
    const uint8_t *frame = nullptr;
    while (pcap_next_ex(watch.handle.get(), &header, &frame) == 1) take(watch, *header, frame);
  }
}

void Capture::take(const Watch &watch, const pcap_pkthdr &header, const uint8_t *frame) {
  if (file_ && watch.direction == Direction::in) pcap_dump(reinterpret_cast<uint8_t *>(file_.get()), &header, frame);
  const std::span<const uint8_t> bytes(frame, header.caplen);
  if (bytes.size() <= kProtocolAt || bytes[12] != 8 || bytes[13] != 0 || bytes[kProtocolAt] != kGreProtocol) return;
  const auto packet = decode_core(bytes.subspan(kEthernetHeader));
  if (!packet) {
    ++malformed_;
    return;
  }
  Carried &carried =
      carried_[{watch.interface, watch.direction, packet->group, packet->test ? packet->test->flow : 0U}];
  ++carried.packets;
  carried.bytes += header.len - kEthernetHeader;
  if (packet->test) count(*packet->test, &carried);
}

void Capture::flush() {
  if (file_) pcap_dump_flush(file_.get());
}

uint64_t Capture::dropped() const {
  uint64_t dropped = 0;
  for (const Watch &watch : watches_) {
    pcap_stat stat{};
    if (pcap_stats(watch.handle.get(), &stat) == 0) dropped += stat.ps_drop;
  }
  return dropped;
}

}  // namespace traffic

// Watches links of the core and counts what goes over them by provider group and flow, each direction for itself: the
// only witness of which group carried a packet, and of what reached a PE that did not want it.
#ifndef LAB_TRAFFIC_CAPTURE_H
#define LAB_TRAFFIC_CAPTURE_H

#include <pcap/pcap.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lab/traffic/tally.h"

namespace traffic {

enum class Direction { in, out };  // as the interface's own machine sees it

struct Carried {
  uint64_t packets = 0;                // GRE datagrams
  uint64_t bytes = 0;                  // of the outer datagrams
  uint64_t repeated = 0;               // numbers that were not higher than the one before
  Ranges numbers;                      // the first 10000 runs of numbers that follow each other
  std::map<int64_t, uint32_t> series;  // as Tally::series
};

class Capture {
 public:
  struct Key {
    std::string interface;  // its name in this network namespace
    Direction direction;    // in the lab's core, in is what the PE sent
    uint32_t group;         // host byte order
    uint32_t flow;          // 0: datagrams that are no test packets
    auto operator<=>(const Key &) const = default;
  };

  // Watches an interface of this network namespace. Throws std::runtime_error.
  void watch(const std::string &interface);
  // Also writes what comes in at the interfaces that are watched from now on to a file, so that each datagram stands in
  // it once, as it entered the core. Throws std::runtime_error.
  void write(const std::string &file);

  std::vector<int> descriptors() const;
  void read(int descriptor);
  void flush();

  const std::map<Key, Carried> &carried() const { return carried_; }
  uint64_t malformed() const { return malformed_; }  // GRE datagrams that could not be read
  uint64_t dropped() const;                          // packets that the system dropped before they could be counted

 private:
  struct CloseHandle {
    void operator()(pcap_t *handle) const { pcap_close(handle); }
  };
  struct CloseFile {
    void operator()(pcap_dumper_t *file) const { pcap_dump_close(file); }
  };
  struct Watch {
    std::string interface;
    Direction direction;
    std::unique_ptr<pcap_t, CloseHandle> handle;
  };
  void open(const std::string &interface, Direction direction);
  void take(const Watch &watch, const pcap_pkthdr &header, const uint8_t *frame);

  std::vector<Watch> watches_;
  std::unique_ptr<pcap_t, CloseHandle> file_handle_;
  std::unique_ptr<pcap_dumper_t, CloseFile> file_;
  std::map<Key, Carried> carried_;
  uint64_t malformed_ = 0;
};

}  // namespace traffic

#endif  // LAB_TRAFFIC_CAPTURE_H

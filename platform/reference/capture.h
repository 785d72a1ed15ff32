// A file of packets as packet analysers read it (pcap, IPv4 datagrams without a link layer).
#ifndef REFERENCE_CAPTURE_H
#define REFERENCE_CAPTURE_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>

struct pcap;
struct pcap_dumper;

namespace ref {

class Capture {
 public:
  Capture();
  ~Capture();
  Capture(const Capture &) = delete;
  Capture &operator=(const Capture &) = delete;

  // Writes to a file from now on, and to no other any more. append: behind what it holds; otherwise it begins anew.
  // Result: why it cannot be written; empty: it can.
  std::string start(const std::string &path, bool append);
  void stop();
  // Gives the file a name with the time of day behind it, *kept, and begins it anew. Result: why not; empty: done.
  std::string rotate(std::string *kept);

  bool running() const { return file_ != nullptr; }
  const std::string &path() const { return path_; }
  uint64_t packets() const { return packets_; }  // since start or rotate

  // Stores a datagram with the present time. Nothing while it is not running.
  void write(std::span<const uint8_t> datagram);

 private:
  struct Closer {
    void operator()(pcap_dumper *dumper) const;
    void operator()(pcap *handle) const;
  };
  std::string path_;
  uint64_t packets_ = 0;
  std::unique_ptr<pcap, Closer> handle_;  // outlives the dumper
  std::unique_ptr<pcap_dumper, Closer> file_;
};

}  // namespace ref

#endif  // REFERENCE_CAPTURE_H

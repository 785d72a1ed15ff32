// Writes by libpcap, which is told a file without a device. Times in the file are the wall clock's and not the
// platform's: whoever looks at it compares it with other machines' captures. A capture that cannot be written loses
// packets and says nothing; start() tries, so that a path or a full disk is noticed by the operator who asks for it.
#include "platform/reference/capture.h"

#include <pcap/pcap.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/reference/runtime.h"

namespace ref {
namespace {

// "20261123T101530.123456Z", in UTC.
std::string time_mark() {
  timeval now{};
  gettimeofday(&now, nullptr);
  std::tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  char day[32], whole[48];
  std::strftime(day, sizeof day, "%Y%m%dT%H%M%S", &parts);
  std::snprintf(whole, sizeof whole, "%s.%06ldZ", day, static_cast<long>(now.tv_usec));
  return whole;
}

}  // namespace

void Capture::Closer::operator()(pcap_dumper *dumper) const { pcap_dump_close(dumper); }
void Capture::Closer::operator()(pcap *handle) const { pcap_close(handle); }

Capture::Capture() = default;
Capture::~Capture() = default;

// The former file is left alone when the new one cannot be written.
std::string Capture::start(const std::string &path, bool append) {
  std::unique_ptr<pcap, Closer> handle(pcap_open_dead(DLT_RAW, 0xFFFF));
  if (handle == nullptr) return "there is no memory for a capture";
  std::unique_ptr<pcap_dumper, Closer> file(append ? pcap_dump_open_append(handle.get(), path.c_str())
                                                   : pcap_dump_open(handle.get(), path.c_str()));
  if (file == nullptr) return pcap_geterr(handle.get());
  if (pcap_dump_flush(file.get()) != 0) return path + ": " + std::strerror(errno);
  file_ = std::move(file);
  handle_ = std::move(handle);
  path_ = path;
  packets_ = 0;
  return "";
}

void Capture::stop() {
  file_.reset();
  handle_.reset();
}

std::string Capture::rotate(std::string *kept) {
  if (!running()) return "there is no capture";
  *kept = path_ + "." + time_mark();
  if (access(kept->c_str(), F_OK) == 0) return *kept + " is there already";
  if (std::rename(path_.c_str(), kept->c_str()) != 0) return path_ + ": " + std::strerror(errno);
  return start(path_, false);
}

// Flushed packet by packet, so that the file can be read while it grows and after a crash.
void Capture::write(std::span<const uint8_t> datagram) {
  if (!running()) return;
  pcap_pkthdr header{};
  gettimeofday(&header.ts, nullptr);
  header.caplen = header.len = static_cast<uint32_t>(datagram.size());
  pcap_dump(reinterpret_cast<u_char *>(file_.get()), &header, datagram.data());
  pcap_dump_flush(file_.get());
  packets_++;
}

}  // namespace ref

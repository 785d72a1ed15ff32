// Diagnostics: the event history, debug output, error reports and their rate limiter.
//
// The history keeps events as they come, texts or records of the module's, and makes texts when somebody reads them;
// adding one allocates nothing once the memory is there. Every event of a VRF is also the observer's hint that
// something may have changed there.
//
// What is written to the log goes out at once, by any thread that holds the scheduling locks; a thread may not be
// cancelled while it writes.
#include "platform/diag.h"

#include <execinfo.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include "platform/reference/diag.h"
#include "platform/reference/internal.h"
#include "platform/reference/observer.h"
#include "platform/reference/runtime.h"
#include "platform/reference/services.h"
#include "platform/tlvu.h"

namespace ref {
namespace {

constexpr size_t history_kept = 10000;            // events, at least; up to twice as many are held
constexpr std::chrono::seconds limit_window{10};  // platform time
constexpr unsigned limit_count = 50;              // reports of one kind in a window

struct Window {
  std::chrono::nanoseconds start{};
  unsigned count = 0;
  unsigned dropped = 0;
};

// Stands before what was stored of an event, at a multiple of 8 bytes.
struct EventHead {
  std::chrono::nanoseconds time;
  sdwrap_text_writer writer;  // null: a text follows
  uint32_t size;              // of what follows; of a text without its padding
};

// Words that are written one after the other. They are not cleared before, which would cost as much again as writing.
class Words {
 public:
  // Room for so many behind the last.
  uint64_t *append(size_t count) {
    if (count_ + count > room_) grow(count_ + count);
    uint64_t *place = words_.get() + count_;
    count_ += count;
    return place;
  }
  void clear() { count_ = 0; }  // the memory stays
  size_t size() const { return count_; }
  const uint64_t *at(size_t place) const { return words_.get() + place; }

 private:
  void grow(size_t needed) {
    room_ = std::max(2 * room_, needed);
    auto grown = std::make_unique_for_overwrite<uint64_t[]>(room_);
    std::copy_n(words_.get(), count_, grown.get());
    words_ = std::move(grown);
  }

  std::unique_ptr<uint64_t[]> words_;
  size_t count_ = 0, room_ = 0;
};

// Events one after the other; the older half goes at once. The memory stays, so that nothing is allocated for an event.
class History {
 public:
  void add(sdwrap_text_writer writer, const void *bytes, size_t size) {
    if (count_ == history_kept) {
      std::swap(older_, latest_);
      latest_.clear();
      count_ = 0;
    }
    const EventHead head{event_time(), writer, static_cast<uint32_t>(size)};
    uint64_t *place = latest_.append((sizeof head + size + 7) / 8);
    std::memcpy(place, &head, sizeof head);
    if (size > 0) std::memcpy(place + sizeof head / 8, bytes, size);
    count_++;
  }

  std::vector<Event> read() const {
    std::vector<Event> events;
    for (const Words *half : {&older_, &latest_})
      for (size_t at = 0; at < half->size();) at += read_one(half->at(at), events);
    return events;
  }

 private:
  // How many words it takes.
  static size_t read_one(const uint64_t *from, std::vector<Event> &events) {
    EventHead head;
    std::memcpy(&head, from, sizeof head);
    const uint64_t *record = from + sizeof head / 8;
    char text[SDWRAP_EVENT_TEXT_MAX + 1];
    if (head.writer != nullptr) head.writer(record, text);
    events.push_back({head.time, head.writer != nullptr
                                     ? std::string(text)
                                     : std::string(reinterpret_cast<const char *>(record), head.size)});
    return (sizeof head + (head.size + 7) / 8 * 8) / 8;
  }

  Words older_, latest_;
  size_t count_ = 0;  // in latest_
};

struct State {
  History history;
  std::vector<Report> reports;
  std::map<const syslog_descriptor *, Window> windows;
  LogSink sink = LogSink::standard_error;
  LogWriter writer;  // instead of standard error
  sdwrap_facility facility{7};
};
State state;

void write_line(uint32_t severity, const std::string &text) {
  const NoCancellation no_cancellation;
  if (state.sink == LogSink::none) return;
  const std::string_view line = std::string_view(text).substr(0, text.size() - (text.ends_with('\n') ? 1 : 0));
  if (state.writer) return state.writer(severity, line);
  std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
}

__attribute__((format(printf, 1, 0))) std::string format_list(const char *format, va_list arguments) {
  char text[2048];
  std::vsnprintf(text, sizeof text, format, arguments);
  return text;
}

__attribute__((format(printf, 1, 0))) void print_debug(const char *format, va_list arguments) {
  if (state.sink != LogSink::none) write_line(LOG_DEBUG, "pim: " + format_list(format, arguments));
}

std::string report_text(const syslog_descriptor *descriptor, uint32_t count, const char *const *arguments) {
  std::string text = std::string(descriptor->name) + ": " + descriptor->text;
  for (uint32_t i = 0; i < count; i++) text += std::string(i == 0 ? ": " : ", ") + arguments[i];
  return text;
}

// An event of a VRF begins with its name: "(red) : ".
void tell_vrf(std::string_view text) {
  const size_t end = text.find(") : ");
  if (!text.starts_with('(') || end == text.npos) return;
  const std::string name(text.substr(1, end - 1));
  void *gone = nullptr;  // the note of a VRF that is not there any more
  const pim_cibtype *pcib = pim_find(name);
  observer()->vrf_touched(name.c_str(), pcib != nullptr ? pim_note_of(pcib) : gone);
}

}  // namespace

std::vector<Event> history() { return state.history.read(); }
void clear_history() { state.history = {}; }
const std::vector<Report> &reports() { return state.reports; }
void clear_reports() { state.reports.clear(); }
void set_log_sink(LogSink sink) { state.sink = sink; }
void set_log_writer(LogWriter writer) { state.writer = std::move(writer); }

void diag_reset() {
  state = State{};
  sdwrap_sys_facility = &state.facility;
}

}  // namespace ref

using namespace ref;

sdwrap_facility *sdwrap_sys_facility = &state.facility;

// A traceback follows the reports that mean a mistake in the program.
#define REPORT(kind, severity, text) REPORT_WITH(kind, severity, 0, text)
#define REPORT_WITH(kind, severity, traceback, text) \
  extern const syslog_descriptor msg_error_PIM_##kind = {"PIM_" #kind, severity, traceback, text}
REPORT(API_FAILED, 3, "a call of a service failed");
REPORT(API_INIT, 3, "a service cannot be initialised");
REPORT_WITH(AVL_ERROR, 3, 1, "an AVL tree refused an operation");
REPORT(BIND, 3, "a socket cannot be bound");
REPORT(CV_INIT, 3, "a condition variable cannot be initialised");
REPORT(MALLOC, 2, "memory ran out");
REPORT(MTS_SEND, 3, "a message cannot be sent");
REPORT(MV_INIT, 3, "a mutex cannot be initialised");
REPORT(OIM_REGISTER_FAIL, 3, "the tunnel manager refused the registration");
REPORT(OPCODE_REG, 3, "a message opcode cannot be registered");
REPORT(PTHREAD_CREATE, 2, "a thread cannot be started");
REPORT_WITH(PT_ADD, 3, 1, "a patricia tree refused a record");
REPORT(SETSOCKOPT, 3, "a socket option cannot be set");
REPORT(SLAB_CREATE, 2, "a slab cannot be created");
REPORT(SOCKET, 3, "a socket cannot be opened");
REPORT(TIMER_CREATE, 3, "a timer cannot be created");
REPORT(TIMER_SET_INIT, 3, "a timer set cannot be created");
REPORT(TUNNEL_ADD_FAIL, 3, "an interface cannot be added to a tunnel request");
REPORT(TUNNEL_ADD_TLV_FAIL, 3, "a parameter cannot be added to a tunnel request");
REPORT(TUNNEL_CREATE_FAIL, 3, "the index of a tunnel interface cannot be derived");
REPORT(TXLIST_CREATE, 3, "a transmit list cannot be created");
REPORT(UDP_READ, 3, "a datagram cannot be read");
#undef REPORT_WITH
#undef REPORT

void sdwrap_his_log_event_for_uuid_inst(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t length,
                                        const sdwrap_event *event) {
  const size_t room = length > sizeof event->type ? length - sizeof event->type : 0;
  const size_t size = strnlen(event->text, std::min<size_t>(room, SDWRAP_EVENT_TEXT_MAX));
  if (observer() != nullptr) tell_vrf({event->text, size});
  state.history.add(nullptr, event->text, size);
}

void sdwrap_his_log_unformatted(uint32_t, uint32_t, uint32_t, sdwrap_text_writer writer, const pim_cibtype *pcib,
                                uint32_t size, const void *record) {
  if (observer() != nullptr && pcib != nullptr) observer()->vrf_touched(pcib->vrf_name, pim_note_of(pcib));
  state.history.add(writer, record, size);
}

int sdwrap_hist_event_subtype_check(uint32_t, uint32_t) { return 0; }

void sdwrap_hist_event(uint32_t, uint32_t, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = format_list(format, arguments);
  state.history.add(nullptr, text.data(), text.size());
  va_end(arguments);
}

int sdwrap_chk_int(uint32_t, uint32_t, uint32_t, uint32_t) { return 1; }

void buginf(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  print_debug(format, arguments);
  va_end(arguments);
}

void buginf_func(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  print_debug(format, arguments);
  va_end(arguments);
}

int sdwrap_dbg_init_register_mts_q(mts_queue *queue) { return queue != nullptr ? 0 : 22; }

const char *syserr2str(int code) { return std::strerror(code); }

int syslog_msg_rate_limit(const syslog_descriptor *descriptor, uint32_t count, const char *const *arguments) {
  Window &window = state.windows[descriptor];
  if (window.count == 0 || now() - window.start >= limit_window) {
    if (window.dropped > 0)
      write_line(LOG_WARNING,
                 std::string(descriptor->name) + ": " + std::to_string(window.dropped) + " reports were left out");
    window = {now(), 0, 0};
  }
  if (window.count >= limit_count) {
    window.dropped++;
    return 0;
  }
  window.count++;
  remember(state.reports, {descriptor->name, {arguments, arguments + count}});
  if (sdwrap_sys_facility == nullptr) write_line(descriptor->severity, report_text(descriptor, count, arguments));
  return 1;
}

const char *syslog_preamble() { return "pim"; }

void zeph_lumo_syslog(const syslog_descriptor *descriptor, const char *preamble, uint32_t count,
                      const char *const *arguments) {
  write_line(descriptor->severity, std::string(preamble) + ": " + report_text(descriptor, count, arguments));
}

void syslog_traceback(const syslog_descriptor *descriptor) {
  if (state.sink == LogSink::none) return;
  std::array<void *, 32> frames;
  const int depth = backtrace(frames.data(), static_cast<int>(frames.size()));
  char **names = backtrace_symbols(frames.data(), depth);
  if (names == nullptr) return;
  for (int i = 0; i < depth; i++) write_line(descriptor->severity, std::string("  ") + names[i]);
  std::free(names);
}

void syslog_log(uint32_t severity, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_line(severity, format_list(format, arguments));
  va_end(arguments);
}

void tlvu_error_print(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_line(LOG_ERR, format_list(format, arguments));
  va_end(arguments);
}

// Diagnostics: where debug messages and error reports go.
//
// A debug message has three sinks, switched on independently: the platform's event history (an enable word of the
// host), the host's debug file, and the platform's debug output (a debug flag with a VRF filter). It is formatted once
// and handed to those that listen. An error report goes to the platform's log through its rate limiter. Neither has
// any effect on the caller.
//
// Messages are formatted in the host's scratch line, which belongs to the thread that holds the scheduling locks:
// module code runs under them, and no message is written while they are given up. Text that comes from outside (VRF
// and interface names) is only ever an argument, never a format.
#include "routing/pim/mvpn/mvpn_diag.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

uint32_t pim_glb_trace_buffers[PIM_TRACE_BUFFERS];
uint32_t pim_mvpn_detail_debug_flag;

// ----------------------------------------------------------------------------------------------------- debug messages

// The system is asked once for each thread. A process that another one forked has one thread, with a number of its own.
static thread_local uint32_t known_thread_id;
[[maybe_unused]] static const int at_fork = pthread_atfork(nullptr, nullptr, [] { known_thread_id = 0; });

static uint32_t thread_id() {
  if (known_thread_id == 0) known_thread_id = static_cast<uint32_t>(gettid());
  return known_thread_id;
}

// What an event's text begins with: which VRF, or without one which thread, the message belongs to. vrf_name: null for
// the default VRF and without one; thread: 0 with one. Returns its length.
static size_t write_prefix(char *text, size_t size, const char *vrf_name, uint32_t thread) {
  int length;
  if (thread != 0) {
    length = std::snprintf(text, size, "[%u]: ", static_cast<unsigned>(thread));
  } else if (vrf_name != nullptr) {
    length = std::snprintf(text, size, "(%s) : ", vrf_name);
  } else {
    length = std::snprintf(text, size, ": ");
  }
  return static_cast<size_t>(length);
}

// Null: the default VRF, or none.
static const char *shown_vrf_name(const pim_cibtype *pcib) {
  return pcib != nullptr && pcib->context_id != VRF_CONTEXT_ID_DEFAULT ? pcib->vrf_name : nullptr;
}

static uint32_t shown_thread(const pim_cibtype *pcib) { return pcib == nullptr ? thread_id() : 0; }

mvpn_event_record::mvpn_event_record(const pim_cibtype *pcib, const char *its_format, printer prints,
                                     uint32_t arguments)
    : print(prints), format(its_format), thread(shown_thread(pcib)), vrf_name(0) {
  used = static_cast<uint16_t>(offsetof(mvpn_event_record, words) + arguments * sizeof words[0]);
  if (const char *name = shown_vrf_name(pcib)) vrf_name = keep_text(name);
}

uint16_t mvpn_event_record::keep_rd(const uint8_t *rd) {
  const uint16_t place = std::min<uint16_t>(used, size_t{SDWRAP_RECORD_MAX} - ROUTE_DISTINGUISHER_SIZE);
  std::memcpy(reinterpret_cast<uint8_t *>(this) + place, rd, ROUTE_DISTINGUISHER_SIZE);
  used = place + ROUTE_DISTINGUISHER_SIZE;
  return place;
}

uint16_t mvpn_event_record::keep_text(const char *text) {
  if (text == nullptr) text = "(null)";
  const uint16_t place = std::min<uint16_t>(used, SDWRAP_RECORD_MAX - 1);
  const size_t room = std::min<size_t>(SDWRAP_EVENT_TEXT_MAX, SDWRAP_RECORD_MAX - 1 - place);
  char *copy = reinterpret_cast<char *>(this) + place;
  size_t length = 0;  // names and words, which a loop has copied before a function has been called
  for (; length < room && text[length] != '\0'; length++) copy[length] = text[length];
  copy[length] = '\0';
  used = static_cast<uint16_t>(place + length + 1);
  return place;
}

static void write_event(const void *bytes, char text[SDWRAP_EVENT_TEXT_MAX + 1]) {
  const auto &record = *static_cast<const mvpn_event_record *>(bytes);
  constexpr size_t size = SDWRAP_EVENT_TEXT_MAX + 1;
  const char *vrf_name = record.vrf_name != 0 ? record.at(record.vrf_name) : nullptr;
  const size_t length = write_prefix(text, size, vrf_name, record.thread);
  record.print(record, text + length, size - length);
}

void mvpn_event_record::store(const pim_cibtype *pcib) const {
  sdwrap_his_log_unformatted(SDWRAP_UUID_PIM, SDWRAP_HISTORY_MVPN, SDWRAP_HISTORY_BUFFER, write_event,
                             vrf_name != 0 ? pcib : nullptr, (used + 7u) / 8 * 8, this);
}

static void record_in_history(const pim_cibtype *pcib, const char *message) {
  sdwrap_event event{};
  event.type = SDWRAP_EVENT_MVPN;
  size_t length = write_prefix(event.text, sizeof event.text, shown_vrf_name(pcib), shown_thread(pcib));
  const size_t copied = strnlen(message, SDWRAP_EVENT_TEXT_MAX - length);
  std::memcpy(event.text + length, message, copied);
  length += copied;
  constexpr size_t type_and_nul = sizeof event.type + 1;
  sdwrap_his_log_event_for_uuid_inst(SDWRAP_UUID_PIM, SDWRAP_HISTORY_MVPN, SDWRAP_HISTORY_BUFFER, 0,
                                     static_cast<uint32_t>(length + type_and_nul), &event);
}

static void write_to_debug_file(const char *message) {
  const unsigned long long milliseconds = ksink_get_milli_abstime_now();
  std::fprintf(pim_debug_fp, "%llu PIM: %s\n", milliseconds, message);
  std::fflush(pim_debug_fp);
}

static bool passes_vrf_filter(const pim_cibtype *pcib) {
  return pcib == nullptr || std::strcmp(pim_dfilter_vrf_name, pcib->vrf_name) == 0 ||
         std::strcmp(pim_dfilter_vrf_name, "all") == 0;
}

static bool is_printed() { return sdwrap_chk_int(SDWRAP_EVENT_MVPN, 0, 0, 1) != 0; }

static void print(const pim_cibtype *pcib, const char *message) {
  if (pcib != nullptr) {
    if (is_printed()) buginf_func("(%s-%s) %s", pcib->vrf_name, "base", message);
    return;
  }
  if (sdwrap_hist_event_subtype_check(SDWRAP_HISTORY_MVPN, SDWRAP_EVENT_MVPN) == 0) {
    sdwrap_hist_event(SDWRAP_HISTORY_MVPN, SDWRAP_EVENT_MVPN, "%s", message);
  }
  if (is_printed()) buginf("%s", message);
}

void mvpn_debug_message(const pim_cibtype *pcib, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(pim_debug_buffer, sizeof pim_debug_buffer, format, arguments);
  va_end(arguments);
  if (pim_glb_trace_buffers[MVPN_TRACE_SLOT] != 0) record_in_history(pcib, pim_debug_buffer);
  if (pim_debug_fp != nullptr) write_to_debug_file(pim_debug_buffer);
  if ((pim_debug_flag & PIM_DEBUG_MVPN) != 0 && passes_vrf_filter(pcib)) print(pcib, pim_debug_buffer);
}

// ------------------------------------------------------------------------------------------------------ error reports

void mvpn_report_texts(const syslog_descriptor &descriptor, uint32_t count, const char *const *arguments) {
  // Without a facility the limiter itself writes the report.
  if (sdwrap_sys_facility == nullptr) {
    syslog_msg_rate_limit(&descriptor, count, arguments);
    return;
  }
  if (sdwrap_sys_facility->level < descriptor.severity) return;
  if (syslog_msg_rate_limit(&descriptor, count, arguments) == 0) return;
  zeph_lumo_syslog(&descriptor, syslog_preamble(), count, arguments);
  if (descriptor.wants_traceback != 0) syslog_traceback(&descriptor);
}

// ----------------------------------------------------------------------------------------------------------- refusals

bool mvpn_note_refusal(mvpn_refusals *refusals) {
  constexpr uint64_t seconds_between_messages = 60;
  refusals->count++;
  zeph_timestamp now{};
  zeph_sys_mclock_get(&now);
  if (refusals->noted.seconds != 0 && now.seconds - refusals->noted.seconds < seconds_between_messages) return false;
  refusals->noted = now;
  return true;
}

// --------------------------------------------------------------------------------------------------- tracked buffers

void *mvpn_tracked_alloc(mtrack_type type, size_t size, size_t reported_size, const char *file, int line,
                         const char *function) {
  void *buffer = mtrack_alloc(MTRACK_IDENTITY_PIM, type, size);
  if (buffer == nullptr) {
    std::printf("Warning! Malloc Failure in %s[%d] for size %d\n", file, line, static_cast<int>(reported_size));
    mvpn_report(msg_error_PIM_MALLOC, reported_size, function);
    return nullptr;
  }
  std::memset(buffer, 0, size);
  return buffer;
}

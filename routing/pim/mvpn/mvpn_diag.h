// Diagnostics of the module: one macro for debug messages, one function for error reports.
//
// A debug message is tied to a PIM context: the VRF's own, or pim_null_pcib for module-level messages. It goes to the
// event history, the debug file and the debug output, each when it is switched on; while all are off a message costs
// the test below and its arguments are not evaluated. An error report never changes control flow.
#ifndef MVPN_DIAG_H
#define MVPN_DIAG_H

#include <array>
#include <charconv>
#include <string>
#include <type_traits>

#include "platform/diag.h"
#include "routing/pim/mvpn/mvpn.h"
#include "routing/pim/mvpn/mvpn_event.h"

// Whether any sink listens.
inline bool mvpn_debug_wanted() {
  return __builtin_expect(pim_glb_trace_buffers[MVPN_TRACE_SLOT] | (pim_debug_flag & PIM_DEBUG_MVPN) |
                              static_cast<uint32_t>(pim_debug_fp != nullptr),
                          0) != 0;
}

// Whether the history alone listens, and formats when it is read.
inline bool mvpn_event_is_enough() {
  return sdwrap_his_log_unformatted != nullptr && pim_debug_fp == nullptr && (pim_debug_flag & PIM_DEBUG_MVPN) == 0;
}

// Formats and delivers a message. Callers use the macros.
void mvpn_debug_message(const pim_cibtype *pcib, const char *format, ...) __attribute__((format(printf, 2, 3)));

// MVPN_DEBUG(pcib, format, ...): a message tied to pcib (null: pim_null_pcib semantics, no VRF prefix). While nothing
// but a history that formats when it is read wants it, its arguments are stored as they are. In that branch two
// printing functions stand for what they would print, so that addresses are stored as numbers.
#define MVPN_DEBUG(pcib, ...)                                         \
  do {                                                                \
    if (mvpn_debug_wanted()) {                                        \
      if (mvpn_event_is_enough()) {                                   \
        [[maybe_unused]] constexpr mvpn_address_shower ip_print_addr; \
        [[maybe_unused]] constexpr mvpn_rd_shower mvpn_bgp_print_rd;  \
        mvpn_store_event(pcib, __VA_ARGS__);                          \
      } else {                                                        \
        mvpn_debug_message(pcib, __VA_ARGS__);                        \
      }                                                               \
    }                                                                 \
  } while (0)

// A message that is emitted only while detailed messages are on as well.
#define MVPN_DEBUG_DETAIL(pcib, ...)                                    \
  do {                                                                  \
    if (pim_mvpn_detail_debug_flag != 0) MVPN_DEBUG(pcib, __VA_ARGS__); \
  } while (0)

// Delivers an error report whose arguments are texts already.
void mvpn_report_texts(const syslog_descriptor &descriptor, uint32_t count, const char *const *arguments);

// An argument of an error report as text. Nothing is allocated: reports are made when memory has run out.
class mvpn_report_text {
 public:
  mvpn_report_text(const char *text) : text_(text != nullptr ? text : "") {}
  mvpn_report_text(const std::string &text) : text_(text.c_str()) {}
  template <typename T>
  requires std::is_integral_v<T> mvpn_report_text(T number) {
    *std::to_chars(digits_, digits_ + sizeof digits_ - 1, number).ptr = '\0';
  }
  const char *c_str() const { return text_ != nullptr ? text_ : digits_; }

 private:
  const char *text_ = nullptr;  // the caller's, outlives the report; null = a number, in digits_
  char digits_[24];
};

// Counts something that was refused. True when it is to be said: at most once a minute.
bool mvpn_note_refusal(mvpn_refusals *refusals);

// Reports an error: a descriptor and its arguments, texts or numbers.
template <typename... Arguments>
void mvpn_report(const syslog_descriptor &descriptor, const Arguments &...arguments) {
  if constexpr (sizeof...(arguments) == 0) {
    mvpn_report_texts(descriptor, 0, nullptr);
  } else {
    const std::array<mvpn_report_text, sizeof...(arguments)> texts{mvpn_report_text(arguments)...};
    std::array<const char *, sizeof...(arguments)> pointers{};
    for (size_t i = 0; i < texts.size(); i++) pointers[i] = texts[i].c_str();
    mvpn_report_texts(descriptor, static_cast<uint32_t>(pointers.size()), pointers.data());
  }
}

// A zero-filled tracked buffer. When memory ran out: the warning with file (without its extension), line and size on
// standard output, a PIM_MALLOC report with the size and the function's name, and null. Callers add reports of their
// own where they have more to say. reported_size: what the texts show.
void *mvpn_tracked_alloc(mtrack_type type, size_t size, size_t reported_size, const char *file, int line,
                         const char *function);

#endif  // MVPN_DIAG_H

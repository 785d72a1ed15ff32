// Debug messages for the event history, stored as a format and its arguments: nearly none of them is ever read, and to
// format one costs ten times what it takes to store it.
//
// A record is a head, a word for each argument, and the bytes of texts and route distinguishers, which are copied: what
// they were taken from may be gone when the history is read. The types of the arguments stand in the function that
// prints the record. A record has room for more text than an event shows, so what does not fit would not be seen.
#ifndef MVPN_EVENT_H
#define MVPN_EVENT_H

#include <cstdint>
#include <cstdio>
#include <type_traits>
#include <utility>

#include "platform/bgp.h"
#include "platform/diag.h"
#include "platform/ip.h"
#include "routing/pim/mvpn/mvpn.h"

// An argument whose text is made when the message is read.
struct mvpn_event_argument {
  enum kind_t : uint8_t { TEXT, ADDRESS, RD };
  mvpn_event_argument(const char *words) : kind(TEXT), text(words) {}
  mvpn_event_argument(kind_t its_kind, uint32_t number, const uint8_t *bytes)
      : kind(its_kind), address(number), rd(bytes) {}
  kind_t kind;                  // which of the three below holds it
  ip_addr_t address = 0;        // ADDRESS
  const char *text = nullptr;   // TEXT; not owned
  const uint8_t *rd = nullptr;  // RD: 8 bytes; not owned
};

struct mvpn_address_shower {
  mvpn_event_argument operator()(ip_addr_t address) const { return {mvpn_event_argument::ADDRESS, address, nullptr}; }
};
struct mvpn_rd_shower {
  mvpn_event_argument operator()(const uint8_t *rd) const { return {mvpn_event_argument::RD, 0, rd}; }
};

struct mvpn_event_record {
  using printer = void (*)(const mvpn_event_record &record, char *text, size_t size);

  // What the text begins with comes from pcib, null: from the thread.
  mvpn_event_record(const pim_cibtype *pcib, const char *its_format, printer prints, uint32_t arguments);

  printer print;       // makes the text; knows the arguments' types
  const char *format;  // a literal of the module's, there while it is loaded
  uint32_t thread;     // 0: the message belongs to a VRF
  uint16_t vrf_name;   // place of its name, 0: the default VRF
  uint16_t used;       // bytes of the record
  uint64_t words[(SDWRAP_RECORD_MAX - 24) / 8];

  // Copies into the record; where the copy is.
  uint16_t keep_rd(const uint8_t *rd);
  uint16_t keep_text(const char *text);

  const char *at(uint64_t place) const { return reinterpret_cast<const char *>(this) + place; }
  void store(const pim_cibtype *pcib) const;
};
static_assert(sizeof(mvpn_event_record) == SDWRAP_RECORD_MAX);

// ------------------------------------------------------------------------------------ an argument as a word, and back

template <typename T>
uint64_t mvpn_word_of(mvpn_event_record &record, const T &argument) {
  if constexpr (std::is_same_v<T, mvpn_event_argument>) {
    const uint64_t kind = uint64_t{argument.kind} << 32;
    if (argument.kind == mvpn_event_argument::ADDRESS) return kind | argument.address;
    if (argument.kind == mvpn_event_argument::RD) return kind | record.keep_rd(argument.rd);
    return kind | record.keep_text(argument.text);
  } else if constexpr (std::is_convertible_v<T, const char *>) {
    return record.keep_text(argument);
  } else if constexpr (std::is_pointer_v<T>) {
    return reinterpret_cast<uintptr_t>(argument);
  } else {
    static_assert(std::is_integral_v<T>, "messages show numbers, texts and addresses of memory");
    return static_cast<uint64_t>(argument);
  }
}

template <typename T>
auto mvpn_argument_of(const mvpn_event_record &record, uint64_t word) {
  if constexpr (std::is_same_v<T, mvpn_event_argument>) {
    const auto kind = static_cast<mvpn_event_argument::kind_t>(word >> 32);
    const auto number = static_cast<uint32_t>(word);
    if (kind == mvpn_event_argument::ADDRESS) return ip_print_addr(number);
    if (kind == mvpn_event_argument::RD) return mvpn_bgp_print_rd(reinterpret_cast<const uint8_t *>(record.at(number)));
    return record.at(number);
  } else if constexpr (std::is_convertible_v<T, const char *>) {
    return record.at(word);
  } else if constexpr (std::is_pointer_v<T>) {
    return reinterpret_cast<T>(static_cast<uintptr_t>(word));
  } else {
    return static_cast<T>(word);
  }
}

// ---------------------------------------------------------------------------------------------------------- the record

// The compiler compares formats with arguments where a message is formatted at once.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
template <typename... T>
struct mvpn_event_types {
  static void print(const mvpn_event_record &record, char *text, size_t size) {
    print(record, text, size, std::index_sequence_for<T...>());
  }
  template <size_t... i>
  static void print(const mvpn_event_record &record, char *text, size_t size, std::index_sequence<i...>) {
    std::snprintf(text, size, record.format, mvpn_argument_of<T>(record, record.words[i])...);
  }
};
#pragma GCC diagnostic pop

template <typename... T>
void mvpn_store_event(const pim_cibtype *pcib, const char *format, T... arguments) {
  mvpn_event_record record(pcib, format, mvpn_event_types<T...>::print, sizeof...(T));
  [[maybe_unused]] uint64_t *word = record.words;
  ((*word++ = mvpn_word_of(record, arguments)), ...);
  record.store(pcib);
}

#endif  // MVPN_EVENT_H

// What the show and SNMP handlers share: printing with a checked format and an element for every value, and the walk
// over a VRF's records that gives way to other work.
#ifndef MVPN_UI_OUTPUT_H
#define MVPN_UI_OUTPUT_H

#include <concepts>
#include <cstring>
#include <type_traits>

#include "platform/cli_schema.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver.h"

// ------------------------------------------------------------------------------------------------------- printing
//
// cli_new_printf and cli_xml_output take the values of a format and then an element for each. The functions below take
// values and elements in pairs, so that no value can lack its element, and check the format against the values when
// they are compiled: the compiler cannot, because of the elements.

// A value and the element that it is recorded under.
template <typename T>
struct mvpn_shown {
  T value;      // of a type that a conversion prints
  int element;  // cli_element; CLI_ELEMENT_NONE: stays out of the document
};
template <typename T>
requires(!std::convertible_to<T, const char *>) constexpr mvpn_shown<T> as(cli_element element, T value) {
  return {value, element};
}
constexpr mvpn_shown<const char *> as(cli_element element, const char *text) { return {text, element}; }
// A text that stays out of the document.
constexpr mvpn_shown<const char *> text_only(const char *text) { return {text, CLI_ELEMENT_NONE}; }

// Whether a conversion, with its length modifier or 0, prints values of a type.
template <typename T>
consteval bool mvpn_conversion_fits(char length, char conversion) {
  if constexpr (std::same_as<T, const char *>) return length == 0 && conversion == 's';
  if constexpr (std::same_as<T, int>) return length == 0 && conversion == 'd';
  if constexpr (std::same_as<T, unsigned>) return length == 0 && (conversion == 'u' || conversion == 'x');
  if constexpr (std::same_as<T, unsigned long>) return length == 'l' && conversion == 'u';
  if constexpr (std::same_as<T, const void *>) return length == 0 && conversion == 'p';
  return false;
}

// Advances past the next conversion; false when there is none or it does not print a T.
template <typename T>
consteval bool mvpn_next_conversion_fits(const char *&at) {
  while (*at != '\0' && *at != '%') at++;
  if (*at == '\0') return false;
  at++;
  while (*at == '-' || *at == '+' || *at == ' ' || *at == '#' || (*at >= '0' && *at <= '9')) at++;
  const char length = *at == 'l' ? *at++ : '\0';
  return *at != '\0' && mvpn_conversion_fits<T>(length, *at++);
}

// A format whose conversions print exactly these types; anything else does not compile.
template <typename... T>
struct mvpn_show_format {
  consteval mvpn_show_format(const char *format) : text(format) {
    const char *at = format;
    if (!(mvpn_next_conversion_fits<T>(at) && ...)) throw "a conversion does not fit its value";
    while (*at != '\0')
      if (*at++ == '%') throw "a conversion has no value";
  }
  const char *text;  // a literal
};

// A line with recorded values; recorded values without text.
template <typename... T>
void mvpn_print(cli_command *command, mvpn_show_format<std::type_identity_t<T>...> format, mvpn_shown<T>... shown) {
  cli_new_printf(command, format.text, shown.value..., shown.element...);
}
template <typename... T>
void mvpn_record(cli_command *command, mvpn_show_format<std::type_identity_t<T>...> format, mvpn_shown<T>... shown) {
  cli_xml_output(command, format.text, shown.value..., shown.element...);
}

inline zeph_timestamp mvpn_time_since(const zeph_timestamp &since) {
  zeph_timestamp elapsed{};
  timestamp_elapsed(&since, &elapsed);
  return elapsed;
}
inline zeph_timestamp mvpn_time_until(const zeph_timestamp &until) {
  zeph_timestamp left{};
  timestamp_left_sleeping(&until, &left);
  return left;
}

// Name of an interface, a single blank for none.
inline const char *mvpn_interface_text(im_iod_t iod) { return iod == 0 ? " " : ksink_im_get_if_name(iod); }

// ----------------------------------------------------------------------------------------------------------- walks

constexpr uint32_t MVPN_SHOW_RECORDS_PER_YIELD = 50;  // records print several lines each

// What the visit of a record says: the record does not count; it counts; the walk ends here.
enum class mvpn_visit { passed, counted, done };

// Calls visit(mvpn, key, record) for the records of one of a VRF's trees in key order. root_of(mvpn) gives the tree.
// After every 50 records that count, offers a yield and asks whether the operator wants more; then goes on behind the
// last key in the tree of the context that the VRF has then. 0: the walk ended early, because the VRF lost its context
// or the operator wants no more.
template <uint32_t KeyBytes, typename RootOf, typename Visit>
int mvpn_walk_records(cli_command *command, mvpn_cibtype *mvpn, RootOf root_of, Visit visit) {
  uint8_t key[KeyBytes];
  uint32_t counted = 0;
  pt_node *node = pt_get_first_node(root_of(mvpn), nullptr, 0);
  while (node != nullptr) {
    std::memcpy(key, pt_node_key(node), KeyBytes);
    const mvpn_visit verdict = visit(mvpn, key, pt_node_data(node));
    if (verdict == mvpn_visit::done) return 1;
    if (verdict == mvpn_visit::counted && ++counted == MVPN_SHOW_RECORDS_PER_YIELD) {
      counted = 0;
      mvpn = mvpn_may_sched_yield(mvpn);
      if (mvpn == nullptr || !cli_more_output(command)) return 0;
    }
    node = pt_get_next_node(root_of(mvpn), key, 0);
  }
  return 1;
}

// The walk over the customer routes of a VRF that are on a data MDT: visit(mvpn, addrs, route).
template <typename Visit>
int mvpn_walk_sent_flows(cli_command *command, mvpn_cibtype *mvpn, Visit visit) {
  return mvpn_walk_records<PIM_ROUTE_KEY_BYTES>(
      command, mvpn, [](const mvpn_cibtype *vrf) { return vrf->pcib->route_tree; },
      [&visit](const mvpn_cibtype *vrf, const uint8_t *key, void *data) {
        const auto *route = static_cast<const pim_route *>(data);
        const mvpn_data_mdt_send_join_info *join = route->send_join_info;
        if (join == nullptr || join->config == nullptr || join->encap_index < MVPN_ENCAP_INDEX_FIRST_DATA ||
            join->state == MVPN_DATA_MDT_STATE_SWITCHOVER_PENDING)
          return mvpn_visit::passed;
        mvpn_mdt_route_addrs addrs{};
        pim_get_addrs_from_pt_key(key, &addrs);
        return visit(vrf, addrs, *join);
      });
}

// The walk over the announcements that a VRF has received: visit(mvpn, record).
template <typename Visit>
int mvpn_walk_received_joins(cli_command *command, mvpn_cibtype *mvpn, Visit visit) {
  return mvpn_walk_records<MVPN_RECV_KEY_BYTES>(
      command, mvpn, [](const mvpn_cibtype *vrf) { return vrf->data_mdt_recv_cache; },
      [&visit](const mvpn_cibtype *vrf, const uint8_t *, void *data) {
        return visit(vrf, *static_cast<const mvpn_data_mdt_recv_join_info *>(data));
      });
}

#endif  // MVPN_UI_OUTPUT_H

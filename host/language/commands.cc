// The command language: every command of every mode.
//
// Builders keep the tables readable. A keyword or argument is built with its help, then completed with what follows:
//   .then({...})     words that follow          .with({...})   options, in any order
//   .runs(command)   the line may end here      .undone()      ... in its "no" form only
//   .acts(name)      the same outside of the configuration, .shows(name) for a view: the daemon's action of that name
#include <utility>

#include "host/language/grammar.h"

namespace host {
namespace {

struct Build : Word {
  Build(Word word) : Word(std::move(word)) {}
  Build then(std::vector<Word> words) && {
    next = std::move(words);
    return std::move(*this);
  }
  Build with(std::vector<Word> words) && {
    options = std::move(words);
    return std::move(*this);
  }
  Build runs(Command what, std::string registered = {}) && {
    command = what;
    handler = std::move(registered);
    ends = Ends::always;
    return std::move(*this);
  }
  // A line of Mode::exec.
  Build acts(std::string does, Effect what = Effect::change) && {
    action = std::move(does);
    effect = what;
    ends = Ends::always;
    return std::move(*this);
  }
  Build shows(std::string does) && { return std::move(*this).acts(std::move(does), Effect::view); }
  Build takes_long() && {
    slow = true;
    return std::move(*this);
  }
  Build undone(Command what, std::string registered = {}) && {
    command = what;
    handler = std::move(registered);
    ends = Ends::no_form;
    return std::move(*this);
  }
  Build opens(Mode mode) && {
    enters = mode;
    return std::move(*this);
  }
  Build names_a(NameKind what) && {
    names = what;
    return std::move(*this);
  }
  Build identifies() && {
    key = true;
    return std::move(*this);
  }
  // The keyword is an argument of the command under this name.
  Build recorded(std::string under) && {
    name = std::move(under);
    return std::move(*this);
  }
  Build again() && {
    repeats = true;
    return std::move(*this);
  }
  Build by_default() && {
    on_by_default = true;
    return std::move(*this);
  }
};

Build keyword(std::string text, std::string help) {
  Word word;
  word.text = std::move(text);
  word.help = std::move(help);
  return word;
}

// A keyword whose presence is an argument of the command.
Build flag(std::string text, std::string help) {
  Build word = keyword(text, std::move(help));
  word.name = std::move(text);
  return word;
}

Build argument(ValueType type, std::string text, std::string name, std::string help, NumberRange range = {}) {
  Word word;
  word.kind = Word::Kind::argument;
  word.type = type;
  word.text = std::move(text);
  word.name = std::move(name);
  word.help = std::move(help);
  word.range = range;
  return word;
}

Build number(std::string name, std::string help, uint64_t low, uint64_t high) {
  std::string text = "<" + std::to_string(low) + "-" + std::to_string(high) + ">";
  return argument(ValueType::number, std::move(text), std::move(name), std::move(help), {low, high});
}

constexpr uint64_t kMax32 = UINT32_MAX;
constexpr uint64_t kMaxTableId = 0xFFFFFF;  // what an if-index has room for below its sort
constexpr uint64_t kMaxRate = 100'000'000;  // kbps

Build vrf_name(std::string name, std::string help) {
  return argument(ValueType::name, "NAME", std::move(name), std::move(help)).names_a(NameKind::vrf);
}
Build interface_name(std::string name, std::string help) {
  return argument(ValueType::interface, "INTERFACE", std::move(name), std::move(help)).names_a(NameKind::interface);
}

// Options that several commands share.
Word vrf_option() { return keyword("vrf", "One VRF instead of all").then({vrf_name("vrf", "Name of the VRF")}); }
Word detail_option() { return flag("detail", "Everything about each entry"); }

Word route_map_clause(std::string word, std::string help) {
  Word groups = argument(ValueType::prefix, "GROUPS", "groups", "Customer groups, A.B.C.D/LENGTH")
                    .identifies()
                    .runs(Command::route_map);
  Word sources = argument(ValueType::prefix, "SOURCES", "sources", "Customer sources, A.B.C.D/LENGTH")
                     .identifies()
                     .then({std::move(groups)});
  return flag(std::move(word), std::move(help)).then({std::move(sources)});
}

std::vector<Word> global_words() {
  return {
      keyword("hostname", "Name of this router")
          .then({argument(ValueType::name, "NAME", "name", "Name").runs(Command::hostname)})
          .undone(Command::hostname),
      keyword("clock", "The platform's clock")
          .then({keyword("scale", "Speed of the clock")
                     .then({number("scale", "Platform seconds per second", 1, 1000).runs(Command::clock_scale)})
                     .undone(Command::clock_scale)}),
      keyword("feature", "Features of the PIM process")
          .then({keyword("mvpn", "Multicast VPN; on unless it is switched off")
                     .runs(Command::feature_mvpn)
                     .by_default()}),
      keyword("metrics", "Metrics for monitoring systems by HTTP; on 127.0.0.1:9469 unless an address is given")
          .runs(Command::metrics)
          .with({keyword("listen", "Where")
                     .then({argument(ValueType::endpoint, "ADDRESS:PORT", "endpoint", "Address and TCP port")})}),
      keyword("route-map", "Policies that select customer flows")
          .then({argument(ValueType::policy, "NAME", "name", "Name of the route-map")
                     .identifies()
                     .undone(Command::route_map)
                     .then({
                         route_map_clause("permit", "Flows that match are selected"),
                         route_map_clause("deny", "Flows that match are left out"),
                     })}),
      keyword("pim", "PIM of the core").runs(Command::pim_block).opens(Mode::pim),
      keyword("core", "Links that carry core packets").runs(Command::core_block).opens(Mode::core),
      keyword("forwarding", "What carries customers' packets; nothing does, unless it is said here")
          .then({keyword("kernel", "The kernel's network namespaces, by way of mvpn-forwarder")
                     .runs(Command::forwarding_block)
                     .opens(Mode::forwarding)}),
      keyword("interface", "Interfaces")
          .then(
              {interface_name("name", "Name of the interface").runs(Command::interface_block).opens(Mode::interface)}),
      keyword("vrf", "VPN routing and forwarding instances")
          .then({vrf_name("name", "Name of the VRF").runs(Command::vrf_block).opens(Mode::vrf)}),
      keyword("bgp", "BGP, which carries MDT SAFI entries").runs(Command::bgp_block).opens(Mode::bgp),
  };
}

std::vector<Word> pim_words() {
  const auto range = [](std::string word, std::string help, Command command) {
    return keyword(std::move(word), std::move(help))
        .then({keyword("range", "Range of groups")
                   .then({argument(ValueType::groups, "PREFIX", "prefix", "Groups, A.B.C.D/LENGTH")
                              .identifies()
                              .runs(command)})});
  };
  return {
      range("ssm", "Source-specific multicast", Command::ssm_range),
      range("bidir", "Bidirectional PIM", Command::bidir_range),
      keyword("mtu", "Largest datagram of the process")
          .then({number("mtu", "Bytes", 68, 65535).runs(Command::pim_mtu)})
          .undone(Command::pim_mtu),
      keyword("announcement-limit", "Data MDTs of other PEs that a VRF keeps; the newest beyond it are dropped")
          .then({number("limit", "Announcements", 1, 10'000'000).runs(Command::announcement_limit)})
          .undone(Command::announcement_limit),
  };
}

std::vector<Word> core_words() {
  return {
      keyword("carrier", "How core packets travel between PEs")
          .undone(Command::carrier)
          .then({keyword("gre-udp", "GRE in UDP")
                     .undone(Command::carrier)
                     .then({keyword("listen", "Where this PE receives")
                                .then({argument(ValueType::endpoint, "ADDRESS:PORT", "endpoint", "Address and UDP port")
                                           .runs(Command::carrier)})})}),
      keyword("peer", "Another PE")
          .then({argument(ValueType::endpoint, "ADDRESS:PORT", "endpoint", "Where it receives")
                     .identifies()
                     .runs(Command::peer)}),
  };
}

std::vector<Word> forwarding_words() {
  const auto outer = [](std::string word, std::string help, Command command, std::vector<Word> values) {
    return keyword(std::move(word), std::move(help)).undone(command).then(std::move(values));
  };
  return {
      keyword("socket", "Where the forwarder listens; /run/mvpn-forwarder.sock unless set")
          .then({argument(ValueType::path, "PATH", "path", "Unix socket").runs(Command::forwarder_socket)})
          .undone(Command::forwarder_socket),
      keyword("core-interface", "Where core packets leave; none: the interface that has their source")
          .then({interface_name("name", "Interface of the core").runs(Command::core_interface)})
          .undone(Command::core_interface),
      outer("ttl", "Time to live of core packets; 64 unless set", Command::outer_ttl,
            {number("ttl", "Hops", 1, 255).runs(Command::outer_ttl)}),
      outer("tos", "Type of service of core packets; the customer's unless set", Command::outer_tos,
            {number("tos", "Octet; its last two bits are the customer's", 0, 255).runs(Command::outer_tos)}),
      outer("dont-fragment", "Whether core routers may cut core packets; as the customer says unless set",
            Command::outer_df,
            {flag("set", "They may not").runs(Command::outer_df), flag("clear", "They may").runs(Command::outer_df)}),
  };
}

std::vector<Word> interface_words() {
  return {
      keyword("vrf", "VRF that the interface belongs to; none: the core")
          .then({vrf_name("name", "Name of the VRF").runs(Command::interface_vrf)})
          .undone(Command::interface_vrf),
      keyword("ip", "IPv4")
          .then({keyword("address", "Address of the interface")
                     .then({argument(ValueType::unicast, "A.B.C.D", "address", "Address").runs(Command::ip_address)})
                     .undone(Command::ip_address)}),
      keyword("shutdown", "Takes the interface down").runs(Command::shutdown),
  };
}

// The VRF's multicast distribution trees. Arguments bear the names that the registered handlers read.
Word mdt_words() {
  const auto mdt = Command::mdt;
  Word data_prefix = argument(ValueType::prefix, "PREFIX", "<prefix>", "Groups for data MDTs, A.B.C.D/LENGTH")
                         .identifies()
                         .runs(mdt, "mdt_data_cmd")
                         .with({flag("threshold", "Rate from which on a flow gets its own group")
                                    .then({number("<value>", "kbit/s", 0, kMax32)}),
                                flag("immediate-switch", "Flows move as soon as they are known"),
                                flag("route-map", "Only flows that a route-map selects")
                                    .then({argument(ValueType::policy, "NAME", "<policy-name>", "Route-map")})});
  return keyword("mdt", "Multicast distribution trees of the VRF")
      .then({
          keyword("default", "Default MDT, which switches MVPN on in the VRF")
              .then(
                  {argument(ValueType::group, "GROUP", "<mdt-default>", "Provider group").runs(mdt, "mdt_default_cmd")})
              .undone(mdt, "mdt_default_cmd"),
          keyword("source", "Interface that tunnels start from; none: BGP's update source")
              .then({interface_name("<interface>", "Interface of the core").runs(mdt, "mdt_source_cmd")})
              .undone(mdt, "mdt_source_cmd"),
          keyword("data", "Data MDTs")
              .then(
                  {data_prefix,
                   keyword("bidir", "Flows of bidirectional groups")
                       .then({keyword("enable", "They may move to data MDTs").runs(mdt, "mdt_data_bidir_enable_cmd")}),
                   keyword("inhibit-reuse", "Reserved: kept and shown, no effect on the choice of groups")
                       .runs(mdt, "mdt_data_inhibit_reuse_cmd")}),
          keyword("mtu", "MTU of the VRF's tunnel")
              .then({number("<mtu-value>", "Bytes; 1376 unless set", 576, 65535).runs(mdt, "mdt_mtu_cmd")})
              .undone(mdt, "mdt_mtu_cmd"),
          keyword("pim", "PIM on the VRF's tunnel")
              .then({keyword("hello-interval", "Interval of hellos")
                         .then({number("<interval>", "Milliseconds; 30000 unless set", 1, 18724286)
                                    .runs(mdt, "mdt_pim_hello_interval_cmd")})
                         .undone(mdt, "mdt_pim_hello_interval_cmd"),
                     keyword("jp-interval", "Interval of joins and prunes")
                         .then({number("<interval>", "Seconds, a multiple of 60; 60 unless set", 1, 65520)
                                    .runs(mdt, "mdt_pim_jp_interval_cmd")})
                         .undone(mdt, "mdt_pim_jp_interval_cmd")}),
          keyword("enforce-bgp-mdt-safi", "Remote PEs are learnt from BGP only; on unless it is switched off")
              .runs(mdt, "mdt_enforce_bgp_mdt_safi_cmd")
              .by_default(),
          keyword("asm-use-shared-tree", "ASM groups use their shared tree only")
              .runs(mdt, "mdt_asm_use_shared_tree_cmd"),
      });
}

Word mroute_words() {
  Word group = argument(ValueType::group, "GROUP", "group", "Customer group")
                   .identifies()
                   .runs(Command::mroute)
                   .with({keyword("iif", "Where the flow comes in")
                              .then({interface_name("iif", "Interface of the VRF, or mvpn for its tunnel")}),
                          keyword("rpf", "Neighbour towards the source")
                              .then({argument(ValueType::unicast, "A.B.C.D", "rpf", "Address of the neighbour")}),
                          keyword("oif", "Where the flow goes out; may be repeated")
                              .then({interface_name("oif", "Interface of the VRF, or mvpn for its tunnel")})
                              .again(),
                          flag("bidir", "Route of a bidirectional group"),
                          keyword("rate", "Traffic of the flow").then({number("rate", "kbit/s", 0, kMaxRate)})});
  return keyword("mroute", "Customer routes")
      .then({argument(ValueType::source, "SOURCE", "source", "Customer source, or * for any")
                 .identifies()
                 .then({group})});
}

std::vector<Word> vrf_words() {
  return {
      keyword("context-id", "Number of the VRF; chosen when it is not given")
          .then({number("id", "Number", 2, kMax32).runs(Command::context_id)}),
      keyword("table-id", "Table that the tunnel's index is made from; chosen when it is not given")
          .then({number("id", "Number", 1, kMaxTableId).runs(Command::table_id)}),
      keyword("rd", "Route distinguisher")
          .then({argument(ValueType::rd, "RD", "rd", "AS:NUMBER or A.B.C.D:NUMBER").runs(Command::rd)})
          .undone(Command::rd),
      keyword("netns", "Network namespace of the VRF; the one of its name unless set")
          .then({argument(ValueType::path, "NAME", "name", "Name, as of ip netns, or path").runs(Command::netns)})
          .undone(Command::netns),
      mdt_words(),
      mroute_words(),
  };
}

// What a line says of a neighbour. Each setting has a line of its own, which tells the lines of a neighbour apart.
Build setting(std::string word, std::string help) { return flag(std::move(word), std::move(help)).identifies(); }

Build setting(std::string word, std::string help, uint64_t low, uint64_t high, std::string unit) {
  return setting(std::move(word), std::move(help))
      .undone(Command::neighbor)
      .then({number("value", std::move(unit), low, high).runs(Command::neighbor)});
}

Build setting(std::string word, std::string help, ValueType type, std::string text, std::string name) {
  return setting(std::move(word), std::move(help))
      .undone(Command::neighbor)
      .then({argument(type, std::move(text), std::move(name), "Value").runs(Command::neighbor)});
}

Word neighbor_words() {
  Word limit = number("value", "Routes", 1, kMax32)
                   .runs(Command::neighbor)
                   .with({flag("warning-only", "Say so in the log, and keep the session"),
                          flag("restart", "Try the session again after a while")
                              .then({number("restart-seconds", "Seconds", 1, 65535)})});
  return keyword("neighbor", "A BGP neighbour")
      .then(
          {argument(ValueType::unicast, "A.B.C.D", "address", "Its address")
               .identifies()
               .undone(Command::neighbor)
               .then({
                   setting("remote-as", "Its AS; the own one: an internal neighbour", 1, kMax32, "AS number"),
                   setting("port", "Its TCP port; 179 unless set", 1, 65535, "Port"),
                   setting("description", "Words for people", ValueType::text, "TEXT", "text"),
                   setting("password", "Key of TCP MD5 signatures", ValueType::password, "PASSWORD", "secret"),
                   setting("hold-time", "Silence that ends the session; 90 unless set, 0: never", 0, 65535,
                           "Seconds, 0 or at least 3"),
                   setting("connect-retry", "Pause between attempts; 30 unless set", 1, 65535, "Seconds"),
                   setting("passive", "Waits for the neighbour's connection").runs(Command::neighbor),
                   setting("ttl-security", "Takes only packets of neighbours that are near", 1, 254,
                           "Links between the two; 1: none is between them"),
                   setting("maximum-prefix", "Ends the session when the neighbour sends more routes")
                       .undone(Command::neighbor)
                       .then({limit}),
                   setting("shutdown", "Ends the session and starts no other")
                       .runs(Command::neighbor)
                       .then({keyword("message", "Words for the neighbour's operator")
                                  .then({argument(ValueType::text, "TEXT", "text", "Words").runs(Command::neighbor)})}),
                   setting("route-reflector-client", "Reflects routes to it and from it").runs(Command::neighbor),
                   setting("ipv4-unicast", "Offers IPv4 unicast too, for neighbours that want a family in common")
                       .runs(Command::neighbor),
               })});
}

std::vector<Word> bgp_words() {
  const auto id = [](std::string word, std::string help, Command command) {
    return keyword(std::move(word), std::move(help))
        .undone(command)
        .then({argument(ValueType::unicast, "A.B.C.D", "id", "Identifier").runs(command)});
  };
  return {
      keyword("local-as", "AS of this router; BGP speaks when it is set")
          .undone(Command::local_as)
          .then({number("as", "AS number", 1, kMax32).runs(Command::local_as)}),
      id("router-id", "BGP identifier; the address of the update source unless set", Command::router_id),
      id("cluster-id", "Cluster of a route reflector; the router id unless set", Command::cluster_id),
      keyword("listen", "Where BGP accepts connections, and the address that it speaks from; 0.0.0.0:179 unless set")
          .undone(Command::bgp_listen)
          .then({argument(ValueType::endpoint, "ADDRESS:PORT", "endpoint", "Address and TCP port")
                     .runs(Command::bgp_listen)}),
      keyword("update-source", "Interface whose address BGP speaks from")
          .then({interface_name("interface", "Interface of the core").runs(Command::update_source)})
          .undone(Command::update_source),
      keyword("graceful-restart", "Routes outlive a restart; on unless it is switched off")
          .runs(Command::graceful_restart)
          .by_default(),
      keyword("restart-time", "How long neighbours keep routes for a restart; 120 unless set")
          .undone(Command::restart_time)
          .then({number("seconds", "Seconds", 1, 4095).runs(Command::restart_time)}),
      neighbor_words(),
  };
}

// A view of the module.
Build handled(Build word, std::string handler) {
  word.handler = std::move(handler);
  word.effect = Effect::view;
  word.ends = Ends::always;
  return word;
}

Build module_view(std::string text, std::string help, std::string handler) {
  return handled(keyword(std::move(text), std::move(help)), std::move(handler));
}

Word show_mvpn_words() {
  Word mdt = module_view("mdt", "MVPN status of VRFs", "mvpn_show_mdt_cmd")
                 .with({vrf_option()})
                 .then({
                     module_view("route", "Core routes of every VRF", "mvpn_show_mdt_route_cmd"),
                     module_view("bgp", "MDT SAFI database", "mvpn_show_mdt_bgp_cmd")
                         .recorded("pim")
                         .then({handled(argument(ValueType::address, "A.B.C.D", "<src-addr>", "Entries of one PE"),
                                        "mvpn_show_mdt_bgp_cmd")}),
                     module_view("encap", "Encapsulation table", "mvpn_show_mdt_encap_cmd").with({vrf_option()}),
                     module_view("receive", "Data MDTs that other PEs announce", "mvpn_show_mdt_receive_cmd")
                         .with({detail_option(), vrf_option()}),
                     module_view("send", "Data MDTs of this PE's flows", "mvpn_show_mdt_send_cmd")
                         .with({detail_option(),
                                flag("history", "Only flows that were switched lately")
                                    .then({number("<min>", "Minutes", 1, 10080)}),
                                vrf_option()}),
                 });
  Word mrib = module_view("mrib", "Updates to the MRIB", "mvpn_show_internal_mrib_txlist_cmd")
                  .with({flag("mrib-buffers", "Update buffers"), flag("mrib-txlist", "Routes that wait")});
  return keyword("mvpn", "Multicast VPN")
      .then({
          mdt,
          keyword("bgp", "MDT SAFI")
              .then({module_view("auto-discovery", "MDT SAFI database", "mvpn_show_bgp_auto_discovery_cmd")}),
          keyword("internal", "State of the module")
              .then({mrib,
                     module_view("ha", "Encapsulation choices in the persistent store", "mvpn_show_internal_ha_cmd")
                         .with({vrf_option()}),
                     module_view("state", "Status and counts", "mvpn_show_internal_state_cmd")}),
      });
}

Word show_words() {
  const auto view = [](std::string text, std::string help, std::string action) {
    return keyword(std::move(text), std::move(help)).shows(std::move(action));
  };
  return keyword("show", "Shows state")
      .then({
          show_mvpn_words(),
          view("vrfs", "VRFs, and why one is not up", "show_vrfs"),
          view("version", "The program and its module", "show_version"),
          view("status", "The program: uptime, memory, counts", "show_status"),
          view("interfaces", "Interfaces", "show_interfaces"),
          view("tunnels", "Tunnels, as the tunnel manager holds them", "show_tunnels"),
          keyword("bgp", "BGP")
              .then({view("summary", "The speaker and its sessions", "show_bgp_summary"),
                     view("neighbor", "Everything about neighbours", "show_bgp_neighbor")
                         .then({argument(ValueType::unicast, "A.B.C.D", "address", "One of them")
                                    .shows("show_bgp_neighbor")}),
                     view("mdt", "MDT SAFI routes, as BGP holds them", "show_bgp_mdt").with({detail_option()})}),
          keyword("mrib", "Multicast routing information base")
              .then({view("routes", "Core routes", "show_mrib_routes").with({detail_option()}),
                     view("encaps", "Encapsulations of the VRFs", "show_mrib_encaps")}),
          keyword("core", "The core").then({view("groups", "Provider groups in use", "show_core_groups")}),
          view("customer-routes", "Customer routes", "show_customer_routes").with({vrf_option()}),
          view("forwarding", "What the forwarder carries", "show_forwarding")
              .with({vrf_option()})
              .then({view("events", "What happened to the forwarder", "show_forwarding_events")}),
          view("events", "Event history and error reports of the module", "show_events")
              .with({keyword("last", "Only the latest").then({number("last", "How many", 1, 10000)})}),
          view("counters", "Counters", "show_counters"),
          view("running-config", "The configuration as a file, without passwords", "show_running_config")
              .with({flag("passwords", "With them: a file that loads to the same")}),
          keyword("configuration", "Work on the configuration")
              .then({view("diff", "What runs, against the file", "show_config_diff"),
                     view("candidate", "The candidate, against what runs", "show_config_candidate"),
                     view("former", "What ran before", "show_config_former")}),
          view("clock", "The platform's clock", "show_clock"),
          keyword("metrics", "Metrics, as a monitoring system reads them").acts("show_metrics", Effect::text),
      });
}

Word test_words() {
  const auto flow = [](std::vector<Word> behind_group) {
    return keyword("vrf", "VRF of the route")
        .then({vrf_name("vrf", "Name of the VRF")
                   .then({argument(ValueType::source, "SOURCE", "source", "Customer source, or * for any")
                              .then({argument(ValueType::group, "GROUP", "group", "Customer group")
                                         .then(std::move(behind_group))})})});
  };
  const auto receiver = [](std::string text, std::string help) {
    return flag(std::move(text), std::move(help))
        .then({interface_name("oif", "Interface of the VRF, or mvpn for its tunnel").acts("test_receiver")});
  };
  return keyword("test", "Makes something happen that the configuration does not keep")
      .then({
          keyword("interface", "Link state")
              .then({interface_name("interface", "Name of the interface")
                         .then({flag("up", "The link comes up").acts("test_interface"),
                                flag("down", "The link fails").acts("test_interface")})}),
          keyword("flow", "Traffic of a customer route")
              .then({flow({keyword("rate", "Its rate from now on")
                               .then({number("rate", "kbit/s", 0, kMaxRate).acts("test_flow")})})}),
          keyword("receiver", "Receivers of a customer route")
              .then({flow(
                  {receiver("join", "Receivers appear behind an interface"), receiver("leave", "They are gone")})}),
          keyword("remote-pe", "MDT SAFI entry of a PE that exists only here")
              .then({argument(ValueType::unicast, "A.B.C.D", "source", "Address of the PE")
                         .then({argument(ValueType::rd, "RD", "rd", "Its route distinguisher")
                                    .then({argument(ValueType::group, "GROUP", "group", "Default MDT group")
                                               .then({flag("advertise", "The PE joins").acts("test_remote_pe"),
                                                      flag("withdraw", "It leaves").acts("test_remote_pe")})})})}),
          keyword("statistics", "Runs a statistics pass now").acts("test_statistics"),
      });
}

Word clear_bgp_words() {
  const std::vector<Word> kinds = {
      keyword("soft", "Without ending the session")
          .then({flag("in", "Asks for the neighbour's routes again").acts("clear_bgp_neighbor"),
                 flag("out", "Sends it ours again").acts("clear_bgp_neighbor")})};
  return keyword("bgp", "BGP sessions")
      .then({keyword("neighbor", "Ends the session and begins another")
                 .then({argument(ValueType::unicast, "A.B.C.D", "address", "Address of the neighbour")
                            .acts("clear_bgp_neighbor")
                            .then(kinds),
                        flag("all", "Every neighbour").acts("clear_bgp_neighbor").then(kinds)})});
}

Word write_words() {
  const Word force = flag("force", "Also over a file that was changed meanwhile").acts("write");
  return keyword("write", "Writes what runs to the configuration file")
      .acts("write")
      .then({force, keyword("memory", "The same, as other routers have it").acts("write").then({force})});
}

std::vector<Word> exec_words() {
  const auto log_level = [](std::string text, std::string help) {
    return flag(std::move(text), std::move(help)).acts("log_level");
  };
  return {
      show_words(),
      keyword("configure", "Changes the configuration")
          .acts(std::string(kConfigureAction))
          .opens(Mode::global)
          .then({keyword("terminal", "The same, as other routers have it")
                     .acts(std::string(kConfigureAction))
                     .opens(Mode::global),
                 keyword("exclusive", "Changes a candidate, which runs with commit; others wait")
                     .acts("configure_exclusive")
                     .opens(Mode::global)}),
      keyword("commit", "The candidate runs from now on; confirms a former commit")
          .acts("commit")
          .takes_long()
          .with({keyword("confirmed", "What ran before comes back unless another commit comes in time")
                     .then({number("minutes", "Minutes", 1, 1440)})}),
      keyword("rollback", "What ran before runs again; the candidate starts anew from what runs")
          .acts("rollback")
          .takes_long()
          .then({number("steps", "Which, 1 is the latest: show configuration former", 1, 10)
                     .acts("rollback")
                     .takes_long()}),
      keyword("abort", "Drops the candidate")
          .acts(std::string(kAbortAction))
          .then({flag("force", "Also somebody else's").acts(std::string(kAbortAction))}),
      write_words(),
      keyword("reload", "Reads the configuration file again, as SIGHUP does").acts("reload").takes_long(),
      keyword("check", "Tries the configuration file and changes nothing")
          .acts("check", Effect::trial)
          .takes_long()
          .then({flag("strict", "Warnings are errors").acts("check", Effect::trial).takes_long()}),
      keyword("monitor", "Changes of state as they happen, until Ctrl-C")
          .acts("monitor", Effect::stream)
          .takes_long()
          .with({flag("json", "A JSON document in each line")}),
      keyword("log", "The daemon's log")
          .then({keyword("level", "The least that is written; until the daemon ends")
                     .then({log_level("error", "What needs somebody"), log_level("warning", "What may need somebody"),
                            log_level("notice", "Changes of VRFs, sessions and services, and commands"),
                            log_level("info", "Changes of tunnels, PEs and data MDTs too"),
                            log_level("debug", "Everything")})}),
      keyword("clear", "Starts records anew")
          .then({keyword("counters", "Counters").acts("clear_counters"),
                 keyword("events", "Event history and error reports").acts("clear_events"), clear_bgp_words()}),
      keyword("debug", "Debug messages, on the daemon's log")
          .then({keyword("mvpn", "Multicast VPN").acts("debug_mvpn").with({vrf_option(), detail_option()})}),
      keyword("no", "Ends something").then({keyword("debug", "Debug messages").acts("debug_off")}),
      test_words(),
      keyword("capture", "A file of core packets, for packet analysers")
          .then({keyword("start", "Writes them from now on")
                     .then({argument(ValueType::path, "PATH", "path", "File")
                                .acts("capture_start")
                                .with({flag("append", "Behind what the file holds; otherwise it begins anew")})}),
                 keyword("stop", "Ends it").acts("capture_stop"),
                 keyword("rotate", "Keeps the file under another name and begins it anew").acts("capture_rotate")}),
  };
}

}  // namespace

const std::vector<Word> &root_of(Mode mode) {
  static const std::vector<Word> roots[] = {exec_words(),       global_words(),    pim_words(), core_words(),
                                            forwarding_words(), interface_words(), vrf_words(), bgp_words()};
  return roots[static_cast<size_t>(mode)];
}

}  // namespace host

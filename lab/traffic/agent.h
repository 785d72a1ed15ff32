// Sends, receives and watches at one place on behalf of somebody else, who writes requests to standard input, one JSON
// object a line, and reads one JSON object a line for each: {"ok": true, …} or {"ok": false, "error": "…"}. The agent
// ends at the end of its input, so that it never outlives who started it.
//
//   {"do": "send", "flow": 1, "source": "192.168.1.10", "group": "232.1.1.1", "rate": 200, "size": 200, "port": 5000}
//   {"do": "rate", "flow": 1, "rate": 0}
//   {"do": "join", "flow": 1, "source": "192.168.1.10" (absent: any), "group": "232.1.1.1", "interface": "eth0"}
//   {"do": "leave", "flow": 1}
//   {"do": "watch", "interfaces": ["pe1", …], "write": "core.pcap" (may be absent)}
//   {"do": "sent", "flow": 1}                    last, errors
//   {"do": "stretch", "flow": 1, "from": 1, "to": 100}   received, lost, duplicates, reordered, gap_ns, missing, …
//   {"do": "sent-series" | "received-series", "flow": 1}   series: [[tenth of a second of CLOCK_REALTIME, packets], …]
//   {"do": "carried", "interface": "pe1" (absent: all), "series": true (absent: no), "numbers": true (absent: no)}
//                                                carried: [{interface, direction, group, flow, packets, bytes, …}, …]
#ifndef LAB_TRAFFIC_AGENT_H
#define LAB_TRAFFIC_AGENT_H

namespace traffic {

// Serves until the input ends.
void run_agent();

}  // namespace traffic

#endif  // LAB_TRAFFIC_AGENT_H

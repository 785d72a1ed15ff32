"""Routes between our programs and neighbours whose octets are not made by our encoder.  usage: routes_test.py BIN_DIR

Everything is on loopback: the reflector at an address of the test's own, neighbours at 127.0.0.2 and up.
"""

import contextlib
import pathlib
import socket
import struct
import sys
import tempfile
import unittest

from network import SKIPPED, Machine, wait_until
from ours import Program
from patience import holds_for, own_address

try:
    import scapy_peer as peer
    from scapy.contrib.bgp import BGPCapFourBytesASN, BGPCapGeneric, BGPCapMultiprotocol
except ImportError as error:
    print(f"skipped: {error}")
    sys.exit(SKIPPED)

BINARIES = sys.argv.pop(1)
A, B, C = "127.0.0.2", "127.0.0.3", "127.0.0.4"
OURS, PORT = own_address(), 1790
R1 = ((65000, 1), "10.0.0.1", "239.1.1.1")
R2 = ((65000, 2), "10.0.0.1", "239.1.1.2")


class Here:
    """What stands in for a network: the machine that the test runs on."""

    def __init__(self, stack):
        self.stack = stack
        self.folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="mvpn-routes-")))


class RoutesTest(unittest.TestCase):
    def setUp(self):
        self.stack = contextlib.ExitStack()
        self.addCleanup(self.stack.close)
        self.machine = Machine(Here(self.stack), "here", OURS)

    def start(self, *lines, external=()):
        config = f"hostname rr\nbgp\n  local-as 65000\n  router-id 10.0.0.9\n  listen {OURS}:{PORT}\n"
        for address in (A, B, C):
            config += f"  neighbor {address} remote-as {65001 if address in external else 65000}\n  neighbor {address} passive\n"
            if address not in external:
                config += f"  neighbor {address} route-reflector-client\n"
        config += "".join(f"  {line}\n" for line in lines)
        self.ours = Program(self.machine, BINARIES, "rr", config).start()

    def peer(self, address, **more):
        one = peer.Peer(address, (OURS, PORT), **more)
        self.stack.callback(one.close)
        return one

    def established(self, *addresses):
        peers = [self.peer(address).establish() for address in addresses]
        for address in addresses:
            self.ours.wait_for(address)
        return peers

    def hears(self, who, groups):
        """A neighbour's routes become these."""
        expected = {(*rd, source): group for rd, source, group in groups}
        wait_until(lambda: who.groups() == expected, lambda: f"{who.address} has {expected}, not {who.groups()}")

    def test_routes_come_and_go(self):
        self.start()
        a, b = self.established(A, B)
        wait_until(lambda: a.end_of_rib and b.end_of_rib, "end-of-RIB marks")
        a.send(peer.announcement([R1, R2], "10.0.0.1"))
        self.hears(b, [R1, R2])
        attributes = b.attributes_of(*R1[:2])
        self.assertEqual(attributes[peer.MP_REACH][1][:9], b"\0\1\x42\4" + socket.inet_aton("10.0.0.1") + b"\0")
        self.assertEqual(attributes[peer.ORIGINATOR_ID][1], socket.inet_aton(A))
        self.assertEqual(attributes[peer.CLUSTER_LIST][1], socket.inet_aton("10.0.0.9"))
        self.assertEqual(attributes[peer.LOCAL_PREF][1], struct.pack(">I", 100))
        self.assertNotIn(peer.NEXT_HOP, attributes)
        self.hears(a, [])  # nobody hears his own
        late = self.peer(C).establish()
        wait_until(lambda: late.end_of_rib, "the late one's end-of-RIB mark")
        self.hears(late, [R1, R2])
        other = (*R1[:2], "239.9.9.9")
        a.send(peer.announcement([other], "10.0.0.1"))  # another group for the same key
        self.hears(b, [other, R2])
        a.send(peer.withdrawal([other, R2]))
        self.hears(b, [])
        a.send(peer.withdrawal([R1]))  # what is not there
        holds_for(0.5, lambda: self.ours.established(A), "the session")

    def test_one_key_from_two_neighbours(self):
        self.start()
        a, b, c = self.established(A, B, C)
        mine, other = (*R1[:2], "239.1.1.1"), (*R1[:2], "239.2.2.2")
        a.send(peer.announcement([mine], "10.0.0.1"))
        self.hears(c, [mine])
        # The second is worse until the first goes.
        b.send(peer.update([*peer.well_known()[:2], peer.attribute(peer.WELL_KNOWN, peer.LOCAL_PREF, struct.pack(">I", 50)),
                            peer.reach([other], "10.0.0.1")]))
        wait_until(lambda: len(self.ours.paths()) == 2, "two paths")
        self.assertEqual([path["neighbor"] for path in self.ours.paths().values() if path["best"]], [A])
        self.hears(c, [mine])
        a.close()  # lost, without a word
        self.hears(c, [other])
        b.cease()
        self.hears(c, [])

    def test_attributes_that_are_not_known_pass_unchanged(self):
        self.start()
        a, b = self.established(A, B)
        unknown = peer.attribute(peer.OPTIONAL_TRANSITIVE, 199, b"strange")
        local = peer.attribute(peer.OPTIONAL, 198, b"not transitive")
        communities = peer.attribute(peer.OPTIONAL_TRANSITIVE, 8, struct.pack(">II", 65000 << 16 | 7, 0xFFFFFF01))
        a.send(peer.announcement([R1], "10.0.0.1", [communities, local, unknown]))
        self.hears(b, [R1])
        attributes = b.attributes_of(*R1[:2])
        self.assertEqual(attributes[199], (peer.OPTIONAL_TRANSITIVE | 0x20, b"strange"))
        self.assertEqual(attributes[8][1], struct.pack(">II", 65000 << 16 | 7, 0xFFFFFF01))
        self.assertNotIn(198, attributes)

    def test_malformed_attributes_cost_their_routes_or_are_left_out(self):
        self.start()
        a, b = self.established(A, B)
        a.send(peer.announcement([R2], "10.0.0.1"))
        self.hears(b, [R2])
        origin, path, preference = peer.well_known()
        reach = peer.reach([R1], "10.0.0.1")
        as_withdraw = {
            "origin of a value that there is none of": [peer.attribute(peer.WELL_KNOWN, peer.ORIGIN, b"\7"), path, preference],
            "origin of two octets": [peer.attribute(peer.WELL_KNOWN, peer.ORIGIN, b"\0\0"), path, preference],
            "AS path cut in a segment": [origin, peer.attribute(peer.WELL_KNOWN, peer.AS_PATH, b"\2\2\0\0\0\1"), preference],
            "local preference of three octets": [origin, path, peer.attribute(peer.WELL_KNOWN, peer.LOCAL_PREF, b"\0\0\1")],
            "no origin": [path, preference],
            "no AS path": [origin, preference],
            "cluster list of five octets": [origin, path, preference, peer.attribute(peer.OPTIONAL, peer.CLUSTER_LIST, bytes(5))],
            "flags of an optional attribute on a well-known one": [peer.attribute(peer.OPTIONAL, peer.ORIGIN, b"\0"), path,
                                                                   preference],
            "communities of three octets": [origin, path, preference, peer.attribute(peer.OPTIONAL_TRANSITIVE, 8, bytes(3))],
        }
        for what, attributes in as_withdraw.items():
            with self.subTest(what):
                a.send(peer.announcement([R1], "10.0.0.1"))
                self.hears(b, [R1, R2])
                before = self.ours.neighbour(A)["taken-as-withdrawn"]
                a.send(peer.update([*attributes, reach]))
                self.hears(b, [R2])
                self.assertEqual(self.ours.neighbour(A)["taken-as-withdrawn"], before + 1)
        discarded = {
            "atomic aggregate with a value": peer.attribute(peer.WELL_KNOWN, 6, b"\1"),
            "aggregator of seven octets": peer.attribute(peer.OPTIONAL_TRANSITIVE, 7, bytes(7)),
        }
        for what, attribute in discarded.items():
            with self.subTest(what):
                a.send(peer.withdrawal([R1]))
                self.hears(b, [R2])
                before = self.ours.neighbour(A)["attributes-discarded"]
                a.send(peer.announcement([R1], "10.0.0.1", [attribute]))
                self.hears(b, [R1, R2])
                self.assertEqual(self.ours.neighbour(A)["attributes-discarded"], before + 1)
        self.assertEqual(self.ours.neighbour(A)["established-count"], 1)

    def test_what_cannot_be_taken_apart_ends_the_session_with_the_right_words(self):
        self.start()
        marker = b"\xff" * 16
        well_known = peer.well_known()
        cases = {
            "a marker that is none": (b"\0" * 16 + b"\0\x13\4", (1, 1)),
            "a length below the header's": (marker + b"\0\x12\4", (1, 2)),
            "a keepalive with a body": (marker + b"\0\x14\4x", (1, 2)),
            "a type that there is none of": (marker + b"\0\x13\x63", (1, 3)),
            "a message over the largest": (marker + b"\x10\x01\2" + bytes(4078), (1, 2)),
            "an open in the middle": (None, (5, 3)),
            "attributes longer than the message": (marker + b"\0\x19\2\0\0\0\x50\x40\1", (3, 1)),
            "withdrawn routes longer than the message": (marker + b"\0\x17\2\0\x50\0\0", (3, 1)),
            "a route of 127 bits": (peer.update([*well_known, peer.attribute(
                peer.OPTIONAL, peer.MP_REACH, peer.MDT + b"\4\x0a\0\0\1\0" + b"\x7f" + bytes(16))]), None),
            "a route cut short": (peer.update([*well_known, peer.attribute(
                peer.OPTIONAL, peer.MP_REACH, peer.MDT + b"\4\x0a\0\0\1\0" + b"\x80" + bytes(10))]), None),
            "a next hop of five octets": (peer.update([*well_known, peer.attribute(
                peer.OPTIONAL, peer.MP_REACH, peer.MDT + b"\5\x0a\0\0\1\0\0" + peer.nlri(*R1))]), None),
            "two sets of routes": (peer.update([*well_known, peer.reach([R1], "10.0.0.1"), peer.reach([R2], "10.0.0.1")]), (3, 1)),
        }
        for what, (octets, error) in cases.items():
            with self.subTest(what):
                a = self.peer(A).establish()
                self.ours.wait_for(A)
                a.send(octets if octets is not None else a.open_message())
                wait_until(lambda: a.notification, lambda: f"a notification; {self.ours.neighbour(A)}")
                self.assertEqual(a.notification[0], error[0] if error else 3)
                if error:
                    self.assertEqual(a.notification[:2], error)
                self.assertIn("last-error-sent", self.ours.neighbour(A))
                a.close()
                self.ours.run(f"clear bgp neighbor {A}")

    def test_opens_that_are_refused(self):
        self.start()
        def opened(**fields):
            one = self.peer(A)
            message = bytearray(one.open_message())
            for at, octets in fields.get("patch", {}).items():
                message[at:at + len(octets)] = octets
            one.open_message = lambda: bytes(message)
            return one.connect()
        for what, patch, error in [("version 3", {19: b"\3"}, (2, 1)), ("another AS", {20: b"\x12\x34", 45: b"\0\0\x12\x34"}, (2, 2)),
                                   ("identifier 0", {24: bytes(4)}, (2, 3)), ("hold time of a second", {22: b"\0\1"}, (2, 6)),
                                   ("our own identifier", {24: socket.inet_aton("10.0.0.9")}, (2, 3))]:
            with self.subTest(what):
                one = opened(patch=patch)
                wait_until(lambda: one.notification, lambda: f"a notification; {self.ours.neighbour(A)}")
                self.assertEqual(one.notification[:2], error)
                self.assertFalse(self.ours.established(A))
                one.close()
                self.ours.run(f"clear bgp neighbor {A}")

    def test_a_silent_neighbour_is_dropped_after_its_hold_time(self):
        self.start(f"neighbor {A} hold-time 3")
        silent = self.peer(A, hold_time=3)
        silent.keep_alive = lambda: None
        silent.establish()
        wait_until(lambda: silent.notification, "the hold timer's notification")
        self.assertEqual(silent.notification[:2], (4, 0))
        self.assertEqual(self.ours.neighbour(A)["established-count"], 1)

    def test_a_route_refresh_brings_everything_again(self):
        self.start()
        a, b = self.established(A, B)
        a.send(peer.announcement([R1, R2], "10.0.0.1"))
        self.hears(b, [R1, R2])
        with b.lock:
            b.routes.clear()
        b.send(peer.refresh())
        self.hears(b, [R1, R2])
        refreshes = a.counts.get(peer.REFRESH, 0)
        self.assertEqual(self.ours.run(f"clear bgp neighbor {A} soft in").returncode, 0)
        wait_until(lambda: a.counts.get(peer.REFRESH, 0) > refreshes, "a request for the neighbour's routes")

    def test_more_routes_than_allowed(self):
        self.start(f"neighbor {A} maximum-prefix 3")
        a, b = self.established(A, B)
        many = [((65000, number), "10.0.0.1", "239.1.1.1") for number in range(5)]
        a.send(peer.announcement(many[:3], "10.0.0.1"))
        self.hears(b, many[:3])
        a.send(peer.announcement(many[3:], "10.0.0.1"))
        wait_until(lambda: a.notification, "a notification")
        self.assertEqual(a.notification[:2], (6, 1))
        self.hears(b, [])
        self.assertTrue(self.ours.neighbour(A)["over-limit"])
        self.assertEqual(self.ours.run(f"clear bgp neighbor {A}").returncode, 0)
        self.peer(A).establish()
        self.ours.wait_for(A)

    def test_an_external_neighbour(self):
        self.start(external=(A,))
        a, b = self.peer(A, local_as=65001).establish(), self.peer(B).establish()
        origin = peer.well_known()[0]
        path = peer.attribute(peer.WELL_KNOWN, peer.AS_PATH, struct.pack(">BBI", 2, 1, 65001))
        loop = peer.attribute(peer.WELL_KNOWN, peer.AS_PATH, struct.pack(">BBII", 2, 2, 65001, 65000))
        a.send(peer.update([origin, path, peer.reach([R1], "10.0.0.1")]))
        a.send(peer.update([origin, loop, peer.reach([R2], "10.0.0.1")]))
        self.hears(b, [R1])  # the other one has passed this AS already
        self.assertEqual(b.attributes_of(*R1[:2])[peer.AS_PATH][1], struct.pack(">BBI", 2, 1, 65001))
        b.send(peer.announcement([((65000, 3), "10.0.0.3", "239.1.1.3")], "10.0.0.3"))
        wait_until(lambda: (65000, 3, "10.0.0.3") in a.groups(), "the external neighbour hears of it")
        self.assertEqual(a.attributes_of((65000, 3), "10.0.0.3")[peer.AS_PATH][1], struct.pack(">BBI", 2, 1, 65000))

    def test_a_reflected_loop_is_refused(self):
        self.start()
        a, b = self.established(A, B)
        own_cluster = peer.attribute(peer.OPTIONAL, peer.CLUSTER_LIST, socket.inet_aton("10.0.0.9"))
        own_id = peer.attribute(peer.OPTIONAL, peer.ORIGINATOR_ID, socket.inet_aton("10.0.0.9"))
        a.send(peer.announcement([R1], "10.0.0.1", [own_cluster]))
        a.send(peer.announcement([R1], "10.0.0.1", [own_id]))
        a.send(peer.announcement([R2], "10.0.0.1"))
        self.hears(b, [R2])
        self.assertEqual(self.ours.neighbour(A)["refused-loops"], 2)

    def restarting(self, address, seconds, forwarding=True, restarted=False):
        flags = 8 if restarted else 0
        value = struct.pack(">HHBB", flags << 12 | seconds, 1, 66, 0x80 if forwarding else 0)
        return self.peer(address, capabilities=[
            BGPCapMultiprotocol(afi=1, safi=66), BGPCapFourBytesASN(asn=65000),
            BGPCapGeneric(code=64, length=len(value), cap_data=value)])

    def end_of_rib(self):
        return peer.update([peer.attribute(peer.OPTIONAL, peer.MP_UNREACH, peer.MDT)])

    def test_a_neighbour_that_restarts_keeps_what_it_says_again(self):
        self.start()
        b, = self.established(B)
        a = self.restarting(A, 120).establish()
        a.send(peer.announcement([R1, R2], "10.0.0.1") + self.end_of_rib())
        self.hears(b, [R1, R2])
        a.close()
        wait_until(lambda: self.ours.neighbour(A)["routes-stale"] == 2, "its routes are stale")
        updates = b.counts[peer.UPDATE]
        again = self.restarting(A, 120, restarted=True).establish()
        again.send(peer.announcement([R1], "10.0.0.1") + self.end_of_rib())
        self.hears(b, [R1])
        self.assertEqual(self.ours.neighbour(A)["routes-stale"], 0)
        self.assertLessEqual(b.counts[peer.UPDATE], updates + 1)  # R1 was neither withdrawn nor sent again
        again.cease()  # not a restart: what it had goes
        self.hears(b, [])

    def test_a_neighbour_that_does_not_come_back_in_time_loses_its_routes(self):
        self.start()
        b, = self.established(B)
        a = self.restarting(A, 10).establish()
        a.send(peer.announcement([R1], "10.0.0.1") + self.end_of_rib())
        self.hears(b, [R1])
        a.close()
        wait_until(lambda: self.ours.neighbour(A)["routes-stale"] == 1, "its route is stale")
        self.hears(b, [R1])
        self.hears(b, [])

    def test_a_neighbour_that_lost_its_forwarding_state_loses_its_routes_at_once(self):
        self.start()
        b, = self.established(B)
        a = self.restarting(A, 60).establish()
        a.send(peer.announcement([R1], "10.0.0.1") + self.end_of_rib())
        self.hears(b, [R1])
        a.close()
        wait_until(lambda: self.ours.neighbour(A)["routes-stale"] == 1, "its route is stale")
        self.restarting(A, 60, forwarding=False, restarted=True).establish()
        self.hears(b, [])

    def test_a_reload_touches_only_what_it_changes(self):
        self.start()
        a, b = self.established(A, B)
        a.send(peer.announcement([R1], "10.0.0.1"))
        self.hears(b, [R1])
        text = self.ours.file.read_text()
        self.ours.write(text + f"  neighbor {C} hold-time 30\n  neighbor {A} description edge\n")
        self.ours.process.popen.send_signal(1)
        wait_until(lambda: self.ours.neighbour(A).get("description") == "edge", "the new description")
        self.ours.write(text + "  neighbor 1.2.3.4 passive\nvrf red\n")
        self.ours.process.popen.send_signal(1)
        self.ours.wait_for_log("the configuration stays as it is")
        self.assertIn("rr.conf:15: neighbor 1.2.3.4: its remote-as is missing", self.ours.process.text())
        self.assertIn("mdt-reflector has no such block", self.ours.process.text())
        self.assertTrue(a.established() and b.established())
        self.ours.write(text.replace(f"  neighbor {A}", f"! {A}"))
        self.ours.process.popen.send_signal(1)
        wait_until(lambda: a.notification, "a goes")
        self.assertEqual(a.notification[:2], (6, 3))
        self.hears(b, [])
        self.assertTrue(b.established())


if __name__ == "__main__":
    unittest.main(verbosity=2)

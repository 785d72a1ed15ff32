"""Sessions with a BGP speaker that others wrote.  usage: sessions_test.py BIN_DIR bird|frr|gobgp|exabgp [unittest options]

None of these speakers carries MDT SAFI routes, so what is tested is what every session needs: opening, keepalives,
refusals, notifications, ends and beginnings. Ours is the reflector, in one namespace; theirs runs in another.
"""

import contextlib
import sys
import unittest

import network
from network import skip, wait_until
from ours import Program
from patience import holds_for
from speakers import SPEAKERS, Session

BINARIES, KIND = sys.argv[1:3]
OURS, THEIRS = "10.77.0.1", "10.77.0.2"

CONFIG = """hostname ours
bgp
  local-as 65000
  router-id 10.77.0.1
"""


def neighbour(*lines, remote_as=65000, hold_time=9):
    first = [f"remote-as {remote_as}", f"hold-time {hold_time}", "connect-retry 1"]
    return CONFIG + "".join(f"  neighbor {THEIRS} {line}\n" for line in [*first, *lines])


class SessionsTest(unittest.TestCase):
    def setUp(self):
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        self.network = network.Network(stack)
        self.machine = self.network.machine("theirs")

    def start(self, config, **session):
        self.ours = Program(self.network.here, BINARIES, "ours", config).start()
        self.theirs = SPEAKERS[KIND](self.machine, Session(OURS, **session))

    def reload(self, config):
        self.ours.write(config)
        reloads = self.ours.process.text().count("reloaded ")
        self.ours.process.popen.send_signal(1)
        wait_until(lambda: self.ours.process.text().count("reloaded ") > reloads, lambda: self.ours.process.text()[-2000:])

    def up(self):
        self.ours.wait_for(THEIRS)
        wait_until(self.theirs.established, lambda: "their side comes up:\n" + self.theirs.process.text()[-3000:])

    def test_a_session_comes_up_and_outlives_its_hold_time(self):
        for lines in (["ipv4-unicast"], ["ipv4-unicast", "passive"], []):  # [] leaves no family in common
            with self.subTest(lines):
                if not lines and not SPEAKERS[KIND].lives_without_common_family:
                    continue
                self.start(neighbour(*lines))
                self.up()
                count = self.ours.neighbour(THEIRS)["established-count"]
                # Five times a third of the hold time, each shortened by a quarter at most.
                wait_until(lambda: self.ours.message_count(THEIRS, "keepalive") > 5, "keepalives come")
                self.assertTrue(self.theirs.established())
                found = self.ours.neighbour(THEIRS)
                self.assertEqual((found["established-count"], found["hold-time-seconds"], found["keepalive-time-seconds"]), (count, 9, 3))
                self.assertIn("four-octet AS", found["agreed"])
                self.assertNotIn("MDT", found["agreed"])  # they do not know it
                self.assertTrue(self.ours.established(THEIRS))
                self.ours.process.end()
                self.theirs.stop()

    def test_an_external_session_with_four_octet_as_numbers(self):
        self.start(neighbour("ipv4-unicast", remote_as=4200000001), local_as=4200000001)
        self.up()
        self.assertEqual(self.ours.neighbour(THEIRS)["session"], "external")

    def test_a_wrong_as_is_refused_until_it_is_right(self):
        self.start(neighbour("ipv4-unicast", remote_as=65001))
        refused = lambda: "Bad Peer AS" in (self.ours.neighbour(THEIRS).get("last-error-sent", "")
                                            + self.ours.neighbour(THEIRS).get("last-error-received", ""))
        wait_until(refused, lambda: str(self.ours.neighbour(THEIRS)))
        self.assertFalse(self.theirs.established())
        self.reload(neighbour("ipv4-unicast"))
        self.up()

    def test_only_the_right_password_makes_a_session(self):
        self.start(neighbour("ipv4-unicast", "password right"), password="wrong")
        holds_for(5, lambda: not self.ours.established(THEIRS) and not self.theirs.established(), "no session")
        self.theirs.configure(Session(OURS, password="right"))
        self.up()
        self.theirs.configure(Session(OURS))
        wait_until(lambda: not self.ours.established(THEIRS), "the session ends")
        holds_for(3, lambda: not self.ours.established(THEIRS), "no session without a password")
        self.assertNotIn("right", self.ours.show("running-config"))

    def test_their_shutdown_is_understood_and_its_end_too(self):
        self.start(neighbour("ipv4-unicast"))
        self.up()
        before = self.ours.neighbour(THEIRS)["established-count"]
        self.theirs.shut_down("until noon")
        wait_until(lambda: not self.ours.established(THEIRS) or self.ours.neighbour(THEIRS)["established-count"] > before,
                   "the session ends")
        error = self.ours.neighbour(THEIRS)["last-error-received"]
        self.assertIn("Cease, Administrative Shutdown", error)
        if self.theirs.sends_shutdown_text:
            self.assertIn("until noon", error)
            self.assertIn("until noon", self.ours.process.text())
        self.theirs.bring_up()
        self.up()

    def test_ours_ends_the_session_and_they_hear_why(self):
        self.start(neighbour("ipv4-unicast"))
        self.up()
        self.reload(neighbour("ipv4-unicast", "shutdown message back at noon"))
        wait_until(lambda: not self.theirs.established() or not self.theirs.says_that_it_is_down, "their side is down")
        self.ours.wait_for(THEIRS, "Idle")
        self.reload(neighbour("ipv4-unicast"))
        self.up()
        count = self.ours.neighbour(THEIRS)["established-count"]
        self.assertEqual(self.ours.run(f"clear bgp neighbor {THEIRS}").returncode, 0)
        wait_until(lambda: self.ours.neighbour(THEIRS)["established-count"] > count, "a new session after a clear")
        self.up()

    def test_they_crash_and_come_back(self):
        self.start(neighbour("ipv4-unicast"))
        self.up()
        self.theirs.crash()
        wait_until(lambda: not self.ours.established(THEIRS), "the session is lost")
        self.theirs.start()
        self.up()

    def test_a_route_refresh_and_foreign_routes_do_no_harm(self):
        self.start(neighbour("ipv4-unicast"))
        self.up()
        wait_until(lambda: self.ours.neighbour(THEIRS)["unicast-ignored"] > 0 or not self.theirs.announces,
                   "their unicast route comes")
        self.theirs.refresh()
        wait_until(lambda: self.ours.message_count(THEIRS, "route-refresh") > 0 or not self.theirs.asks_for_refresh,
                   lambda: f"a refresh comes: {self.ours.neighbour(THEIRS)}\n{self.theirs.process.text()[-2000:]}")
        holds_for(4, lambda: self.ours.established(THEIRS), "the session after a refresh")
        self.assertEqual(self.ours.neighbour(THEIRS)["routes-received"], 0)
        self.assertEqual(self.ours.paths(), {})


if __name__ == "__main__":
    reason = SPEAKERS[KIND].missing()
    if reason:
        skip(reason)
    network.enter_namespaces()
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)

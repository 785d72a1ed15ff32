"""Two PEs behind a reflector, each in a network namespace with an address that is not loopback.  usage: routers_test.py BIN_DIR

What docs/operations.md tells an operator: port 179, addresses of the machines, a password, TTL security.
"""

import contextlib
import sys
import unittest

import network
from network import wait_until
from ours import Program

BINARIES = sys.argv[1]
REFLECTOR = "10.77.0.2"
PES = {"pe1": "10.77.0.3", "pe2": "10.77.0.4"}

PE = """hostname {name}
interface core0
  ip address {address}
pim
  ssm range 239.0.0.0/8
vrf red
  rd 65000:1
  mdt default 239.1.1.1
bgp
  local-as 65000
  update-source core0
  restart-time {restart}
  neighbor 10.77.0.2 remote-as 65000
  neighbor 10.77.0.2 password s3cret
  neighbor 10.77.0.2 ttl-security 1
  neighbor 10.77.0.2 connect-retry 1
"""


def reflector_config():
    text = f"hostname rr\nbgp\n  local-as 65000\n  router-id {REFLECTOR}\n"
    for name, address in PES.items():
        for line in ["remote-as 65000", f"description {name}", "password s3cret", "ttl-security 1", "route-reflector-client",
                     "connect-retry 1"]:
            text += f"  neighbor {address} {line}\n"
    return text


class RoutersTest(unittest.TestCase):
    def setUp(self):
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        self.network = network.Network(stack)
        self.reflector = Program(self.network.machine("rr"), BINARIES, "rr", reflector_config()).start()
        self.pes = {}
        for name, address in PES.items():
            machine = self.network.machine(name)
            self.assertEqual(machine.address, address)
            config = PE.format(name=name, address=address, restart=10 if name == "pe1" else 600)
            self.pes[name] = Program(machine, BINARIES, name, config, "pimhostd",
                                     ["--store", machine.folder / "store", "--clock-scale", "20"]).start()
        for address in PES.values():
            self.reflector.wait_for(address)

    def joined(self, name, other):
        return f"({PES[other]}, 239.1.1.1)" in self.pes[name].show("mvpn mdt route")

    def wait_joined(self, name, other, wanted=True):
        wait_until(lambda: self.joined(name, other) == wanted,
                   lambda: f"{name} {'joins' if wanted else 'leaves'} {other}: {self.pes[name].show('mvpn mdt route')}"
                           f"{self.pes[name].show('bgp mdt')}{self.reflector.show('bgp mdt')}")

    def test_routes_restarts_and_departures(self):
        for name, other in [("pe1", "pe2"), ("pe2", "pe1")]:
            self.wait_joined(name, other)
        path = self.pes["pe1"].paths()[("65000:1", PES["pe2"], REFLECTOR)]
        self.assertEqual((path["next-hop"], path["originator-id"], path["cluster-list"]), (PES["pe2"], PES["pe2"], REFLECTOR))
        # PE 2 is killed and comes back with its store: nobody is told to leave.
        self.assertEqual(self.pes["pe1"].run("clear events").returncode, 0)
        self.pes["pe2"].process.kill()
        wait_until(lambda: self.reflector.neighbour(PES["pe2"])["routes-stale"] == 1, "its route is stale")
        self.assertTrue(self.joined("pe1", "pe2"))
        self.pes["pe2"].start("--restart", "stateful")
        wait_until(lambda: self.reflector.neighbour(PES["pe2"])["routes-stale"] == 0 and self.reflector.established(PES["pe2"])
                   and self.reflector.neighbour(PES["pe2"])["routes-received"] == 1, "PE 2 has said again what it had")
        self.wait_joined("pe2", "pe1")
        self.assertTrue(self.joined("pe1", "pe2"))
        self.assertNotIn("add = 0", self.pes["pe1"].show("events"))
        # PE 1 is killed and does not come back in time.
        self.pes["pe1"].process.kill()
        wait_until(lambda: self.reflector.neighbour(PES["pe1"])["routes-stale"] == 1, "its route is stale")
        self.wait_joined("pe2", "pe1", wanted=False)
        self.pes["pe1"].start()
        self.wait_joined("pe2", "pe1")
        # An orderly end needs no timer.
        self.assertEqual(self.pes["pe2"].process.end(), 0)
        self.wait_joined("pe1", "pe2", wanted=False)
        self.assertIn("Administrative Shutdown", self.reflector.neighbour(PES["pe2"])["last-error-received"])

    def test_changes_while_running_leave_other_neighbours_alone(self):
        pe = self.pes["pe1"]
        self.wait_joined("pe1", "pe2")
        since = pe.neighbour(REFLECTOR)["established-count"]
        for line in [f"neighbor {PES['pe2']} remote-as 65000", f"neighbor {PES['pe2']} passive"]:
            self.assertEqual(pe.run("configure bgp " + line).returncode, 0, line)
        self.assertTrue(pe.neighbour(PES["pe2"])["passive"])
        refused = pe.run(f"configure bgp no neighbor {REFLECTOR} password guess")
        self.assertEqual(refused.returncode, 1)
        self.assertNotIn("s3cret", refused.stdout + refused.stderr + pe.show("running-config"))
        self.assertEqual(pe.run(f"configure bgp no neighbor {PES['pe2']}").returncode, 0)
        self.assertIn("there is no BGP neighbor", pe.run(f"show bgp neighbor {PES['pe2']}").stderr)
        self.assertTrue(pe.established(REFLECTOR))
        self.assertEqual(pe.neighbour(REFLECTOR)["established-count"], since)
        self.assertEqual(pe.run(f"configure bgp no local-as").returncode, 1)
        self.assertEqual(pe.run(f"configure bgp no neighbor {REFLECTOR}").returncode, 0)
        self.wait_joined("pe1", "pe2", wanted=False)
        self.wait_joined("pe2", "pe1", wanted=False)


if __name__ == "__main__":
    network.enter_namespaces()
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)

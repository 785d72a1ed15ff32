"""Configuration and state as data of our YANG modules, as a validator of others takes them.

usage: yang_test.py BIN_DIR
"""

import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from patience import LIMIT, own_address, wait_until  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BINARIES = pathlib.Path(sys.argv.pop(1)).resolve()
SKIPPED = 77

# A line of every kind that a configuration has, but those that want a forwarder.
CONFIG = """
hostname pe1
clock scale 20
route-map voice permit 192.168.1.0/24 232.1.0.0/16
route-map voice deny 0.0.0.0/0 224.0.0.0/4
interface loopback0
  ip address 10.0.0.1
interface loopback1
  ip address 10.0.0.5
  shutdown
pim
  ssm range 239.1.0.0/16
  bidir range 239.5.0.0/16
  mtu 1500
  announcement-limit 1000
core
  carrier gre-udp listen {own}:4754
  peer {other}:4754
vrf red
  context-id 2
  table-id 2
  rd 65000:1
  netns red-ns
  mdt default 239.1.1.1
  mdt source loopback0
  mdt data 239.1.8.0/24 threshold 100 route-map voice
  mdt data 239.1.9.0/24 immediate-switch
  mdt data bidir enable
  mdt data inhibit-reuse
  mdt mtu 1400
  mdt pim hello-interval 10000
  mdt pim jp-interval 120
  no mdt enforce-bgp-mdt-safi
  mroute 192.168.1.5 232.1.1.1 iif red-lan rpf 192.168.1.2 oif mvpn oif red-lan rate 5000
  mroute * 225.1.1.1 oif mvpn bidir
vrf blue
  rd 10.0.0.1:7
  mdt default 239.1.1.2
  mdt asm-use-shared-tree
interface red-lan
  vrf red
  ip address 192.168.1.1
bgp
  local-as 65000
  router-id 10.0.0.1
  cluster-id 10.0.0.1
  listen {own}:1790
  update-source loopback0
  no graceful-restart
  restart-time 60
  neighbor 127.0.0.9 remote-as 65000
  neighbor 127.0.0.9 port 1790
  neighbor 127.0.0.9 description "the" reflector
  neighbor 127.0.0.9 password s3cret
  neighbor 127.0.0.9 hold-time 30
  neighbor 127.0.0.9 connect-retry 5
  neighbor 127.0.0.9 passive
  neighbor 127.0.0.9 ttl-security 1
  neighbor 127.0.0.9 maximum-prefix 1000 restart 60
  neighbor 127.0.0.9 shutdown message until noon
  neighbor 127.0.0.9 route-reflector-client
  neighbor 127.0.0.9 ipv4-unicast
"""
EXPECTED = """{{
    "hostname": "pe1", "clock-scale": 20,
    "route-map": [{{"name": "voice", "rule": [
        {{"action": "permit", "sources": "192.168.1.0/24", "groups": "232.1.0.0/16"}},
        {{"action": "deny", "sources": "0.0.0.0/0", "groups": "224.0.0.0/4"}}]}}],
    "pim": {{"ssm-range": ["239.1.0.0/16"], "bidir-range": ["239.5.0.0/16"], "mtu": 1500, "announcement-limit": 1000}},
    "core": {{"gre-udp-listen": "{own}:4754", "peer": ["{other}:4754"]}},
    "interface": [{{"name": "loopback0", "address": "10.0.0.1"}},
                  {{"name": "loopback1", "address": "10.0.0.5", "shutdown": true}},
                  {{"name": "red-lan", "address": "192.168.1.1", "vrf": "red"}}],
    "vrf": [
        {{"name": "blue", "context-id": 3, "table-id": 3, "route-distinguisher": "10.0.0.1:7",
         "mdt": {{"default-group": "239.1.1.2", "asm-use-shared-tree": true}}}},
        {{"name": "red", "context-id": 2, "table-id": 2, "route-distinguisher": "65000:1", "network-namespace": "red-ns",
         "mdt": {{"default-group": "239.1.1.1", "source-interface": "loopback0",
                 "data-range": [{{"prefix": "239.1.8.0/24", "threshold-kbps": 100, "route-map": "voice"}},
                                {{"prefix": "239.1.9.0/24", "immediate-switch": true}}],
                 "data-bidir": true, "data-inhibit-reuse": true, "mtu": 1400, "pim-hello-interval-milliseconds": 10000,
                 "pim-jp-interval-seconds": 120, "enforce-bgp-mdt-safi": false}},
         "customer-route": [
             {{"customer-source": "192.168.1.5", "customer-group": "232.1.1.1", "incoming-interface": "red-lan",
              "rpf-neighbor": "192.168.1.2", "outgoing-interface": ["mvpn", "red-lan"], "rate-kbps": 5000}},
             {{"customer-source": "*", "customer-group": "225.1.1.1", "outgoing-interface": ["mvpn"],
              "bidirectional": true}}]}}],
    "bgp": {{
        "local-as": 65000, "router-id": "10.0.0.1", "cluster-id": "10.0.0.1", "listen": "{own}:1790",
        "update-source": "loopback0", "graceful-restart": false, "restart-time-seconds": 60,
        "neighbor": [{{"address": "127.0.0.9", "remote-as": 65000, "port": 1790, "description": "\\"the\\" reflector",
                      "password": "s3cret", "hold-time-seconds": 30, "connect-retry-seconds": 5, "passive": true,
                      "ttl-security-hops": 1, "maximum-prefix": {{"routes": 1000, "restart-seconds": 60}},
                      "shutdown": true, "shutdown-message": "until noon", "route-reflector-client": true,
                      "ipv4-unicast": true}}]}}
}}"""
VIEWS = ["mvpn mdt", "mvpn mdt route", "mvpn mdt bgp", "mvpn mdt encap", "mvpn mdt send detail", "mvpn mdt receive detail",
         "mvpn internal state", "vrfs", "version", "status", "interfaces", "tunnels", "bgp summary", "bgp neighbor",
         "bgp mdt detail", "mrib routes detail", "mrib encaps", "core groups", "customer-routes", "forwarding", "events",
         "counters", "clock"]


class Yang(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="ya")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        config = cls.folder / "pe.conf"
        addresses = {"own": own_address(), "other": own_address(1)}
        config.write_text(CONFIG.format(**addresses))
        cls.expected = json.loads(EXPECTED.format(**addresses))
        log = (cls.folder / "log").open("w")
        cls.addClassCleanup(log.close)
        cls.daemon = subprocess.Popen([BINARIES / "pimhostd", "--config", config, "--control", cls.folder / "s"], stderr=log)
        cls.addClassCleanup(lambda: (cls.daemon.terminate(), cls.daemon.wait(LIMIT)))
        wait_until(lambda: cls.daemon.poll() is not None or "(mti2) Up" in cls.ask("show mvpn mdt").stdout, "red is Up")
        assert cls.daemon.poll() is None, (cls.folder / "log").read_text()
        cls.ask("test remote-pe 10.0.0.2 65000:1 239.1.1.1 advertise")

    @classmethod
    def ask(cls, line):
        return subprocess.run([BINARIES / "pimctl", "--timeout", str(LIMIT), "--control", cls.folder / "s", line],
                              capture_output=True, text=True, timeout=LIMIT)

    def data(self, line):
        answer = self.ask(line + " | yang")
        return json.loads(answer.stdout)

    def faults(self, module, data):
        """What the validator has against data of a module; empty: nothing."""
        file = self.folder / "data.json"
        file.write_text(json.dumps(data))
        kind = "config" if module == "libmvpn-configuration" else "data"
        run = subprocess.run(["yanglint", "-t", kind, "-p", ROOT / "yang", ROOT / "yang" / f"{module}.yang", file],
                             capture_output=True, text=True, timeout=LIMIT)
        return run.stderr if run.returncode else ""

    def test_the_configuration_is_data_of_its_module(self):
        data = self.data("show running-config passwords")
        self.assertEqual(self.faults("libmvpn-configuration", data), "")
        self.assertEqual(data["libmvpn-configuration:router"], self.expected)
        hidden = self.data("show running-config")["libmvpn-configuration:router"]["bgp"]["neighbor"]
        self.assertNotIn("password", hidden[0])

    def test_every_view_is_data_of_the_state_module(self):
        for view in VIEWS:
            with self.subTest(view):
                data = self.data("show " + view)
                self.assertGreater(len(data["libmvpn-state:mvpn-output"]), 3)
                self.assertEqual(self.faults("libmvpn-state", data), "")
        failed = self.data("show mvpn mdt vrf nowhere")
        self.assertEqual(failed["libmvpn-state:mvpn-output"]["error"], [{"reason": "there is no VRF nowhere", "status": "1"}])
        self.assertEqual(self.faults("libmvpn-state", failed), "")

    def test_damaged_data_is_refused(self):
        configuration = "libmvpn-configuration", self.data("show running-config")
        state = "libmvpn-state", self.data("show tunnels")
        self.assertTrue(state[1]["libmvpn-state:mvpn-output"]["tunnel"])
        for (module, data), path, value in [
            (configuration, ("interface", 2, "vrf"), "nowhere"),
            (configuration, ("vrf", 0, "mdt", "default-group"), "10.0.0.1"),
            (configuration, ("vrf", 0, "mdt", "mtu"), 100),
            (configuration, ("vrf", 0, "colour"), "red"),
            (configuration, ("bgp", "neighbor", 0, "hold-time-seconds"), 2),
            (state, ("time",), "noon"),
            (state, ("tunnel", 0, "mdt-source"), "10.0.0.300"),
            (state, ("tunnel", 0, "mtu"), "many"),
            (state, ("tunnel", 0, "colour"), "red"),
            (state, ("hostname",), None),
        ]:
            with self.subTest(path=path):
                damaged = json.loads(json.dumps(data))
                node = next(iter(damaged.values()))
                for step in path[:-1]:
                    node = node.setdefault(step, {}) if isinstance(node, dict) else node[step]
                if value is None:
                    del node[path[-1]]
                else:
                    node[path[-1]] = value
                self.assertNotEqual(self.faults(module, damaged), "")


if __name__ == "__main__":
    if shutil.which("yanglint") is None:
        print("skipped: no yanglint")
        sys.exit(SKIPPED)
    unittest.main()

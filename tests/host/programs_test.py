"""Drives the real programs: pimhostd with the module, pimctl.  usage: programs_test.py BIN_DIR [unittest options]

PIMHOSTD_MODULE names another module than the one beside the programs.
"""

import contextlib
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

BIN = pathlib.Path(sys.argv.pop(1))
HERE = pathlib.Path(__file__).resolve().parent
EXAMPLES = HERE.parent.parent / "examples"
LIMIT = 30  # seconds until something that must happen counts as missing


def wait_until(condition, what):
    limit = time.monotonic() + LIMIT
    while not condition():
        if time.monotonic() > limit:
            raise AssertionError(f"did not happen: {what}")
        time.sleep(0.02)


class Daemon:
    def __init__(self, folder, config, *options, env=None):
        self.socket = str(folder / "s")
        self.log = folder / "log"
        module = os.environ.get("PIMHOSTD_MODULE")
        command = [BIN / "pimhostd", "--config", config, "--control", self.socket, *options]
        command += ["--module", module] if module else []
        with self.log.open("a") as log:
            sanitizer = {"LSAN_OPTIONS": f"suppressions={HERE}/lsan.supp:print_suppressions=0"}
            self.process = subprocess.Popen(command, stderr=log, env={**sanitizer, **os.environ, **(env or {})})
        wait_until(lambda: self.process.poll() is not None or self.run("show clock").returncode == 0, "the daemon answers")
        if self.process.poll() is not None:
            raise AssertionError(self.log.read_text())

    def run(self, line, *options):
        return subprocess.run([BIN / "pimctl", "--control", self.socket, *options, *line.split()], capture_output=True,
                              text=True, timeout=LIMIT)

    def show(self, line, *options):
        result = self.run("show " + line, *options)
        if result.returncode != 0:
            raise AssertionError(f"{line}: {result.stderr}")
        return result.stdout

    def wait_for(self, line, pattern):
        wait_until(lambda: re.search(pattern, self.show(line)), f"{line}: {pattern}")

    def wait_for_absence(self, line, pattern):
        wait_until(lambda: not re.search(pattern, self.show(line)), f"{line}: no {pattern}")

    def wait_for_log(self, text, times=1):
        wait_until(lambda: self.log.read_text().count(text) >= times, f"log: {text}")

    def stop(self):
        """The exit status after SIGTERM."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        return self.process.wait(LIMIT)

    def kill(self):
        self.process.kill()
        self.process.wait(LIMIT)


class ProgramsTest(unittest.TestCase):
    def setUp(self):
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        self.stack = stack
        self.folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="ph")))
        self.config = self.folder / "router.conf"

    def start(self, config=None, *options, env=None):
        if config is not None:
            self.config.write_text(config)
        daemon = Daemon(self.folder, self.config, *options, env=env)
        self.stack.callback(daemon.kill)
        return daemon

    def start_example(self, *options):
        daemon = self.start((EXAMPLES / "two-vrfs.conf").read_text(), *options)
        for vrf in ("red", "blue"):
            daemon.wait_for(f"mvpn mdt vrf {vrf}", r"MTI\(\S+\) Up\n")
        return daemon

    def test_check_config_names_file_line_and_reason(self):
        self.config.write_text("hostname a\nvrf red\n  mdt data 239.1.0.0/33\n")
        result = subprocess.run([BIN / "pimhostd", "--config", self.config, "--check-config"], capture_output=True, text=True)
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stderr, f"{self.config}:3: '239.1.0.0/33' has a mask length over 32\n")
        for example in EXAMPLES.glob("*.conf"):
            subprocess.run([BIN / "pimhostd", "--config", example, "--check-config"], check=True)

    def test_default_mdts_come_up_and_go_down(self):
        daemon = self.start_example()
        self.assertEqual(len(re.findall("^10.0.0.1 .*local", daemon.show("bgp mdt"), re.M)), 2)
        self.assertRegex(daemon.show("mrib encaps"), r"red +1 +239\.1\.1\.1 +10\.0\.0\.1")
        self.assertEqual(daemon.run("configure vrf red no mdt default").returncode, 0)
        daemon.wait_for("mvpn internal state", "MVPN VRF Count: 1")
        daemon.wait_for_absence("tunnels", "red")
        self.assertNotIn("239.1.1.1 ", daemon.show("bgp mdt") + daemon.show("mrib routes"))
        self.assertEqual(daemon.stop(), 0)
        self.assertFalse(os.path.exists(daemon.socket))

    def test_rejections_reach_the_operator_and_change_nothing(self):
        daemon = self.start_example()
        before = daemon.show("running-config")
        for line, status, text in [
            ("configure vrf red mdt default 239.9.9.9", 1,
             "Cannot change the default mdt group address. Must deconfigure first\n"),
            ("configure vrf red no mdt default 239.9.9.9", 1,
             "The group address does not match the configured default mdt group address\n"),
            ("configure vrf blue mdt data 239.1.1.0/24", 1,
             "Data MDT Prefix 239.1.1.0/24 comprises default MDT group 239.1.1.2\n"),
            ("configure vrf red mdt pim jp-interval 90", 1, "Join Prune interval should be in multiple of 60 sec\n"),
            ("configure vrf blue context-id 2", 1, "context id 2 belongs to VRF red\n"),
            ("configure no vrf red", 1, "interface red-lan: there is no VRF red\n"),
            ("configure no vrf green", 1, "there is no vrf green\n"),
            ("show mvpn mtd", 2, "  show mvpn mtd\n            ^\n'mtd' is not known here; expected mdt, bgp or internal\n"),
            ("show mvpn mdt vrf green", 1, "there is no VRF green\n"),
        ]:
            result = daemon.run(line)
            self.assertEqual((result.returncode, result.stderr, result.stdout), (status, text, ""), line)
        self.assertEqual(daemon.show("running-config"), before)

    def test_running_configuration_loads_to_itself(self):
        daemon = self.start_example()
        for line in ["vrf red no mdt enforce-bgp-mdt-safi", "vrf red mdt mtu 1300", "vrf green mdt default 239.1.1.9",
                     "vrf green no mdt default", "route-map m permit 10.0.0.0/8 232.0.0.0/8",
                     "vrf blue mdt data 239.7.0.0/24 immediate-switch route-map m", "interface red-lan shutdown",
                     "vrf red mroute * 225.1.1.1 iif red-lan oif mvpn"]:
            result = daemon.run("configure " + line)
            self.assertEqual(result.returncode, 0, result.stderr)
        printed = daemon.show("running-config")
        state = daemon.show("customer-routes") + daemon.show("bgp mdt")
        self.assertEqual(daemon.stop(), 0)
        again = self.start(printed)
        again.wait_for("bgp mdt", "239.1.1.1 ")
        again.wait_for("bgp mdt", "239.1.1.2 ")
        self.assertEqual(again.show("running-config"), printed)
        self.assertEqual(again.show("customer-routes") + again.show("bgp mdt"), state)

    def test_stored_commands_follow_a_new_default_group(self):
        daemon = self.start_example()
        for line in ["interface loopback1 ip address 10.0.0.99", "vrf green mdt source loopback1", "vrf green rd 65000:9",
                     "vrf green mdt mtu 1300", "vrf green mdt default 239.1.1.9"]:
            self.assertEqual(daemon.run("configure " + line).returncode, 0)
        daemon.wait_for("tunnels", r"green +10\.0\.0\.99 +239\.1\.1\.9 +1300 +up +up")

    def test_a_signal_reads_the_file_again(self):
        daemon = self.start_example()
        text = self.config.read_text()
        running = daemon.show("running-config")
        self.config.write_text(text + "interface eth9\n  vrf nowhere\n")
        daemon.process.send_signal(signal.SIGHUP)
        daemon.wait_for_log("stays as it is")
        self.assertIn(f"{self.config}:{text.count(chr(10)) + 2}: interface eth9: there is no VRF nowhere", daemon.log.read_text())
        self.assertEqual(daemon.show("running-config"), running)
        # Red gets another group, blue other numbers; green takes the numbers that blue had.
        text = text.replace("239.1.1.1\n", "239.1.1.7\n").replace("context-id 3\n  table-id 3", "context-id 9\n  table-id 9")
        self.config.write_text(text + "vrf green\n  context-id 3\n  table-id 3\n  rd 65000:3\n  mdt default 239.1.1.3\n")
        daemon.process.send_signal(signal.SIGHUP)
        daemon.wait_for_log("was read again")
        for vrf, group in (("red", 7), ("blue", 2), ("green", 3)):
            daemon.wait_for("tunnels", rf"{vrf} +10\.0\.0\.1 +239\.1\.1\.{group} +\d+ +up +up")
        daemon.wait_for("interfaces", "blue-lan .* blue ")
        # What a handler refuses stays as it was, the rest is taken.
        self.config.write_text(text + "vrf green\n  rd 65000:3\n  mdt default 239.1.1.7\n")
        daemon.process.send_signal(signal.SIGHUP)
        daemon.wait_for_log("The MDT-default group overlaps with VRF red")
        running = daemon.show("running-config")
        self.assertEqual((running.count("mdt default 239.1.1.3"), running.count("mdt default 239.1.1.7")), (1, 1))
        daemon.wait_for("tunnels", r"green +10\.0\.0\.1 +239\.1\.1\.3 +\d+ +up +up")

    def test_the_feature_goes_and_comes_back(self):
        daemon = self.start_example()
        self.assertEqual(daemon.run("configure no feature mvpn").returncode, 0)
        self.assertIn("MVPN Functionality Status: Down\n", daemon.show("mvpn internal state"))
        self.assertEqual(daemon.run("configure vrf red mdt mtu 1300").returncode, 0)
        self.assertEqual(daemon.run("configure feature mvpn").returncode, 0)
        for vrf in ("red", "blue"):
            daemon.wait_for(f"mvpn mdt vrf {vrf}", r"MTI\(\S+\) Up\n")
        self.assertIn("Configured MTU: 1300", daemon.show("mvpn mdt vrf red"))

    def test_a_killed_process_leaves_orphans_that_the_next_one_deletes(self):
        daemon = self.start_example("--store", str(self.folder / "store"))
        daemon.kill()
        text = self.config.read_text()
        self.config.write_text(text.replace("  mdt default 239.1.1.2\n", ""))
        daemon = self.start(None, "--store", str(self.folder / "store"), "--restart", "stateful")
        daemon.wait_for("tunnels", "red .* up +up")
        daemon.wait_for_absence("tunnels", "mti3")

    def test_structured_output_and_filters(self):
        daemon = self.start_example()
        import json
        import xml.etree.ElementTree as tree
        vrfs = json.loads(daemon.show("mvpn mdt", "--json"))["vrf"]
        self.assertEqual([(vrf["name"], vrf["mti-status"]) for vrf in vrfs], [("blue", "Up"), ("red", "Up")])
        for view in ["interfaces", "tunnels", "bgp mdt", "mrib routes detail", "mrib encaps", "core groups", "customer-routes",
                     "events", "counters", "running-config", "clock", "mvpn mdt receive", "mvpn internal state"]:
            json.loads(daemon.show(view + " | json"))
            tree.fromstring(daemon.show(view, "--xml"))
        self.assertEqual(daemon.show("tunnels | include blue | count"), "1\n")
        self.assertEqual(daemon.run("show tunnels | sort").returncode, 2)

    def test_readiness_is_announced(self):
        path = str(self.folder / "notify")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as receiver:
            receiver.bind(path)
            receiver.settimeout(LIMIT)
            daemon = self.start("hostname a\n", env={"NOTIFY_SOCKET": path})
            self.assertEqual(receiver.recv(100), b"READY=1")
            daemon.stop()
            self.assertEqual(receiver.recv(100), b"STOPPING=1")

    # ------------------------------------------------------------------------------------------- the control socket

    def connect(self, daemon):
        client = socket.socket(socket.AF_UNIX)
        self.stack.callback(client.close)
        client.settimeout(LIMIT)
        client.connect(daemon.socket)
        return client

    def test_malformed_frames_end_the_connection_only(self):
        daemon = self.start("hostname a\n")
        for frame in [bytes(5), b"\xff" * 5, struct.pack(">IB", 2, 9) + b"x", struct.pack(">IB", 1, 1),
                      struct.pack(">IB", 3, 1) + b"\x07x", struct.pack(">IB", 20000, 1)]:
            client = self.connect(daemon)
            client.sendall(frame)
            try:
                self.assertEqual(client.recv(1), b"")
            except ConnectionResetError:
                pass
        self.assertEqual(daemon.run("show clock").returncode, 0)

    def test_a_client_that_does_not_read_holds_up_nobody(self):
        routes = "".join(f"  mroute 10.0.{i // 200}.{i % 200 + 1} 232.1.1.1\n" for i in range(20000))
        daemon = self.start("vrf red\n" + routes)
        request = struct.pack(">IB", 2 + len("show customer-routes"), 1) + b"\0show customer-routes"
        threads = lambda: len(os.listdir(f"/proc/{daemon.process.pid}/task"))
        idle = threads()
        slow = [self.connect(daemon) for _ in range(2)]
        for client in slow:
            client.sendall(request)
        wait_until(lambda: threads() == idle + 2, "both views wait")
        self.assertEqual(daemon.run("show clock").returncode, 0)
        self.assertEqual(daemon.run("configure hostname b").returncode, 0)
        self.assertEqual(threads(), idle + 2)
        slow[0].close()  # ends its view
        wait_until(lambda: threads() == idle + 1, "the view of the closed connection has ended")
        received = b""
        while not received.endswith(struct.pack(">IBI", 5, 4, 0)):
            part = slow[1].recv(1 << 20)
            self.assertTrue(part)
            received += part
        self.assertEqual(received.count(b"232.1.1.1"), 20000)
        waiting = self.connect(daemon)
        waiting.sendall(request)
        wait_until(lambda: threads() == idle + 1, "a view waits")
        self.assertEqual(daemon.stop(), 0)


if __name__ == "__main__":
    unittest.main()

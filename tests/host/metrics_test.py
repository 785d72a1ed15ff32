"""The metrics of a running pimhostd: by HTTP, from the command line, in both formats; hostile clients; the dashboard.

usage: metrics_test.py BIN_DIR
"""

import http.client
import json
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile
import unittest

from programs_test import DOCS, EXAMPLES, Daemon

MOST_CLIENTS = 16


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Metrics(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix="mt")
        cls.port = free_port()
        config = pathlib.Path(cls.folder.name, "pe.conf")
        config.write_text(f"metrics listen 127.0.0.1:{cls.port}\n" + (EXAMPLES / "two-vrfs.conf").read_text())
        cls.daemon = Daemon(config.parent, config)
        cls.daemon.wait_for("mvpn mdt", "Up")

    @classmethod
    def tearDownClass(cls):
        assert cls.daemon.stop() == 0
        cls.folder.cleanup()

    def get(self, path="/metrics", method="GET", port=None, **headers):
        connection = http.client.HTTPConnection("127.0.0.1", port or self.port, timeout=30)
        connection.request(method, path, headers=headers)
        answer = connection.getresponse()
        return answer, answer.read().decode()

    def test_values_are_those_of_the_router(self):
        answer, text = self.get()
        self.assertEqual((answer.status, answer.getheader("Content-Type")),
                         (200, "text/plain; version=0.0.4; charset=utf-8"))
        for line in ['mvpn_vrfs{state="Up"} 2', 'mvpn_tunnels{state="up"} 2', "# TYPE mvpn_mrib_updates_total counter",
                     'mvpn_core_routes{vrf="red"} 1', 'mvpn_mdt_safi_entries{origin="local"} 2']:
            self.assertIn(line + "\n", text)
        self.assertGreater(float(re.search(r"^mvpn_mrib_updates_total (.*)$", text, re.M)[1]), 0)
        buckets = [int(count) for count in re.findall(r"^mvpn_loop_turn_seconds_bucket.* (\d+)$", text, re.M)]
        self.assertEqual(buckets, sorted(buckets))
        self.assertEqual(buckets[-1], int(re.search(r"^mvpn_loop_turn_seconds_count (.*)$", text, re.M)[1]))

    def test_open_metrics_when_it_is_asked_for(self):
        answer, text = self.get(Accept="application/openmetrics-text;version=1.0.0,text/plain;q=0.5")
        self.assertTrue(answer.getheader("Content-Type").startswith("application/openmetrics-text; version=1.0.0"))
        self.assertTrue(text.endswith("\n# EOF\n"))
        self.assertIn("# TYPE mvpn_mrib_updates counter\nmvpn_mrib_updates_total ", text)
        families = re.findall(r"^# TYPE (\S+)", text, re.M)
        self.assertEqual(len(families), len(set(families)))

    def test_a_checker_finds_nothing(self):
        if shutil.which("promtool") is None:
            self.skipTest("no promtool")
        shown = self.daemon.run("show metrics")
        self.assertEqual(shown.returncode, 0)
        checked = subprocess.run(["promtool", "check", "metrics"], input=shown.stdout, capture_output=True, text=True)
        self.assertEqual((checked.returncode, checked.stdout + checked.stderr), (0, ""))

    def test_other_requests_are_refused(self):
        for path, method, status in [("/", "GET", 404), ("/metrics", "DELETE", 405), ("/metrics?a=b", "GET", 200),
                                     ("/metrics", "HEAD", 200)]:
            self.assertEqual(self.get(path, method)[0].status, status, (path, method))
        self.assertEqual(self.get(Padding="x" * 20000)[0].status, 413)
        with socket.create_connection(("127.0.0.1", self.port), 30) as client:
            client.sendall(b"\x00\xff nonsense\r\n\r\n")
            self.assertTrue(client.makefile("rb").read().startswith(b"HTTP/1.1 400"))
        self.assertEqual(self.get()[0].status, 200)

    def test_clients_that_say_nothing_hold_up_nobody_for_long(self):
        silent = [socket.create_connection(("127.0.0.1", self.port), 30) for _ in range(MOST_CLIENTS)]
        self.assertIn("Up", self.daemon.run("show mvpn mdt").stdout)  # the daemon serves others
        with socket.create_connection(("127.0.0.1", self.port), 30) as late:
            self.assertEqual(late.makefile("rb").read(), b"")  # turned away
        for client in silent:
            client.settimeout(60)
            self.assertEqual(client.recv(1), b"")  # their time is over
            client.close()
        self.assertEqual(self.get()[0].status, 200)

    def test_the_address_follows_the_configuration(self):
        other = free_port()
        self.assertEqual(self.daemon.run(f"configure metrics listen 127.0.0.1:{other}").returncode, 0)
        self.assertEqual(self.get(port=other)[0].status, 200)
        with self.assertRaises(ConnectionRefusedError):
            self.get()
        self.assertEqual(self.daemon.run(f"configure metrics listen 127.0.0.1:{self.port}").returncode, 0)
        self.assertEqual(self.get()[0].status, 200)

    def test_the_dashboard_names_what_there_is(self):
        dashboard = json.loads((EXAMPLES / "dashboard.json").read_text())
        queries = [target["expr"] for panel in dashboard["panels"] for target in panel.get("targets", [])]
        used = {name for query in queries for name in re.findall(r"\b(?:mvpn|process)_\w+", query)}
        self.assertGreater(len(used), 10)
        listed = set(re.findall(r"^\| `(\w+)", (DOCS / "metrics.md").read_text(), re.M))
        self.assertLessEqual(used, listed | {name + "_bucket" for name in listed})
        shown = set(re.findall(r"^# TYPE (\S+)", self.daemon.run("show metrics").stdout, re.M))
        optional = {name for name in listed if name.startswith(("mvpn_forward", "mvpn_bgp", "mvpn_core_datagrams"))}
        self.assertEqual(shown | optional, listed)


if __name__ == "__main__":
    unittest.main()

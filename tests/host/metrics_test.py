"""The metrics of a running pimhostd: by HTTP, from the command line, in both formats; hostile clients; the dashboard.

usage: metrics_test.py BIN_DIR
"""

import contextlib
import http.client
import json
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile
import unittest
import urllib.parse

from programs_test import DOCS, EXAMPLES, Daemon
from patience import LIMIT, own_address, wait_until

MOST_CLIENTS = 16
HERE, OTHER = (own_address(), 9100), (own_address(1), 9100)
INSTANCE = f"{HERE[0]}:{HERE[1]}"


class Metrics(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix="mt")
        config = pathlib.Path(cls.folder.name, "pe.conf")
        config.write_text(f"metrics listen {INSTANCE}\n" + (EXAMPLES / "two-vrfs.conf").read_text()
                          + f"  local-as 65000\n  listen {HERE[0]}:1790\n  neighbor 127.0.0.9 remote-as 65000\n"
                          + f"core\n  carrier gre-udp listen {HERE[0]}:4754\n")
        cls.daemon = Daemon(config.parent, config)
        cls.daemon.wait_for_example()

    @classmethod
    def tearDownClass(cls):
        assert cls.daemon.stop() == 0
        cls.folder.cleanup()

    def get(self, path="/metrics", method="GET", at=HERE, **headers):
        with contextlib.closing(http.client.HTTPConnection(*at, timeout=LIMIT)) as connection:
            connection.request(method, path, headers=headers)
            answer = connection.getresponse()
            return answer, answer.read().decode()

    def test_values_are_those_of_the_router(self):
        answer, text = self.get()
        self.assertEqual((answer.status, answer.getheader("Content-Type")),
                         (200, "text/plain; version=0.0.4; charset=utf-8"))
        for line in ['mvpn_vrfs{state="Up"} 2', 'mvpn_vrfs{state="Down"} 0', 'mvpn_vrfs{state="no MVPN"} 0',
                     'mvpn_bgp_sessions{state="Established"} 0', 'mvpn_tunnels{state="up"} 2', "# TYPE mvpn_mrib_updates_total counter",
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
        with socket.create_connection(HERE, LIMIT) as client:
            client.sendall(b"\x00\xff nonsense\r\n\r\n")
            self.assertTrue(client.makefile("rb").read().startswith(b"HTTP/1.1 400"))
        self.assertEqual(self.get()[0].status, 200)

    def test_clients_that_say_nothing_hold_up_nobody_for_long(self):
        silent = [socket.create_connection(HERE, LIMIT) for _ in range(MOST_CLIENTS)]
        self.assertIn("Up", self.daemon.run("show mvpn mdt").stdout)  # the daemon serves others
        with socket.create_connection(HERE, LIMIT) as late:
            self.assertEqual(late.makefile("rb").read(), b"")  # turned away
        for client in silent:
            self.assertEqual(client.recv(1), b"")  # their time is over
            client.close()
        self.assertEqual(self.get()[0].status, 200)

    def test_the_address_follows_the_configuration(self):
        self.assertEqual(self.daemon.run(f"configure metrics listen {OTHER[0]}:{OTHER[1]}").returncode, 0)
        self.assertEqual(self.get(at=OTHER)[0].status, 200)
        with self.assertRaises(ConnectionRefusedError):
            self.get()
        self.assertEqual(self.daemon.run(f"configure metrics listen {INSTANCE}").returncode, 0)
        self.assertEqual(self.get()[0].status, 200)

    def samples(self):
        """The labels of each family that has samples."""
        labels = {}
        for name, text in re.findall(r"^(\w+)(?:\{(.*)\})? \S+$", self.daemon.run("show metrics").stdout, re.M):
            family = re.sub("_(bucket|count|sum)$", "", name) if name.startswith("mvpn_loop_turn") else name
            labels.setdefault(family, set()).update(re.findall(r'(\w+)="', text))
        return labels

    def test_the_page_lists_metrics_with_their_labels(self):
        listed = {name: set(re.findall(r"\w+", labels)) for name, labels in
                  re.findall(r"^\| `(\w+)` \| \w+ \| (.*?) \|", (DOCS / "metrics.md").read_text(), re.M)}
        self.assertEqual({name: labels for name, labels in listed.items() if not name.startswith("mvpn_forward")},
                         self.samples())

    def start_prometheus(self):
        """A monitoring system that reads this daemon every second; how to ask it."""
        folder, at = pathlib.Path(self.folder.name), (own_address(2), 9090)
        config = folder / "prometheus.yml"
        config.write_text("global: {scrape_interval: 1s}\nscrape_configs:\n"
                          f"- {{job_name: mvpn, static_configs: [{{targets: ['{INSTANCE}']}}]}}\n")
        with (folder / "prometheus.log").open("w") as log:
            program = subprocess.Popen(["prometheus", f"--config.file={config}", f"--storage.tsdb.path={folder}/data",
                                        f"--web.listen-address={at[0]}:{at[1]}"], stdout=log, stderr=log)
        self.addCleanup(program.wait)
        self.addCleanup(program.kill)

        def is_ready():
            try:
                return self.get("/-/ready", at=at)[0].status == 200
            except OSError:
                return False

        wait_until(is_ready, "the monitoring system is there")
        return lambda query: json.loads(self.get("/api/v1/query?" + urllib.parse.urlencode({"query": query}), at=at)[1])

    def test_every_panel_of_the_dashboard_shows_something(self):
        if shutil.which("prometheus") is None:
            self.skipTest("no prometheus")
        ask = self.start_prometheus()
        dashboard = json.loads((EXAMPLES / "dashboard.json").read_text())
        targets = [target for panel in dashboard["panels"] for target in panel["targets"]]
        self.assertGreater(len(targets), 15)
        for target in targets:
            # What needs a forwarder is seen where there is one.
            if "mvpn_forward" in target["expr"]:
                continue
            expression = target["expr"].replace("$instance", INSTANCE)
            result = ask(expression)
            self.assertEqual(result["status"], "success", result)
            curves = wait_until(lambda: ask(expression)["data"]["result"], expression)
            # Curves bear different names, made of labels that they have.
            names = [re.sub(r"\{\{(\w+)\}\}", lambda label: curve["metric"][label[1]], target["legendFormat"])
                     for curve in curves]
            self.assertEqual(len(names), len(set(names)), names)
        variable = next(each for each in dashboard["templating"]["list"] if each["name"] == "instance")
        name, label = re.fullmatch(r"label_values\((\w+), (\w+)\)", variable["query"]["query"]).groups()
        curves = wait_until(lambda: ask(name)["data"]["result"], name)
        self.assertEqual([curve["metric"][label] for curve in curves], [INSTANCE])


if __name__ == "__main__":
    unittest.main()

"""What operators are told, and how they work: log, monitor, configuration work.  usage: operations_test.py BIN_DIR"""

import json
import os
import re
import select
import signal
import socket
import struct
import subprocess
import unittest

import programs_test
from programs_test import BIN, DOCS, EXAMPLES, PIMCTL, schema_faults
from patience import LIMIT, own_address, wait_until

TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z"
OPERATOR = rf"{os.environ.get('USER', 'root')}, process \d+"


EFFECTS_BASE = """hostname pe1
interface loopback0
  ip address 10.0.0.1
interface loopback1
  ip address 10.0.0.5
interface red-lan
  vrf red
interface spare
vrf red
  rd 65000:1
  mdt default 239.1.1.1
bgp
  local-as 65000
  router-id 10.0.0.1
  listen 127.0.0.8:17990
  update-source loopback0
  neighbor 127.0.0.9 remote-as 65000
  neighbor 127.0.0.9 shutdown
"""
# Lines, and where it is seen that the daemon follows them; each stays for those behind it.
EFFECTS = [
    ("hostname pe2", "clock | json", '"hostname": "pe2"'),
    ("clock scale 30", "clock", r" 30\.000$"),
    ("no feature mvpn", "mvpn internal state", "Feature Configured: No"),
    ("feature mvpn", "mvpn internal state", "Feature Configured: Yes"),
    ("vrf blue rd 65000:2", "vrfs", "^blue "),
    ("vrf blue mdt default 239.1.1.2", "vrfs", r"^blue +239\.1\.1\.2 +mti\d+ +Up"),
    ("interface spare vrf red", "interfaces", "^spare .* red "),
    ("interface spare ip address 10.0.0.9", "interfaces", r"^spare .* 10\.0\.0\.9 "),
    ("interface spare shutdown", "interfaces", "^spare .* down "),
    ("vrf red table-id 70", "tunnels", "^mti70 .* up +up$"),
    ("vrf red rd 65000:7", "bgp mdt", "65000:7 "),
    ("vrf red mdt source loopback1", "tunnels", r"^mti70 +red +10\.0\.0\.5 "),
    ("vrf red mdt data 239.1.8.0/24 threshold 100", "mvpn mdt", r"239\.1\.8\.0/24 threshold: 100 kbps"),
    ("vrf red mdt mtu 1300", "tunnels", "^mti70 .* 1300 "),
    ("vrf red mdt pim hello-interval 10000", "mvpn mdt", "Hello Interval: 10000 "),
    ("vrf red mdt pim jp-interval 120", "mvpn mdt", "JP Interval: 120 "),
    ("vrf blue no mdt enforce-bgp-mdt-safi", "mvpn mdt vrf blue", r"Mode - ASM Shared\)"),
    ("vrf red mdt asm-use-shared-tree", "mvpn mdt", "Mode - ASM Shared Only"),
    ("vrf red mroute 192.168.1.6 232.1.1.1 iif red-lan oif mvpn rate 50", "customer-routes", r"^red +192\.168\.1\.6 .* 50 "),
    ("bgp local-as 65001", "bgp summary", "Local AS: 65001"),
    ("bgp router-id 10.0.0.7", "bgp summary", r"Router ID: 10\.0\.0\.7"),
    ("bgp cluster-id 10.0.0.8", "bgp summary", r"Cluster ID: 10\.0\.0\.8"),
    ("bgp listen 127.0.0.8:17993", "bgp summary", "Listening: 127.0.0.8:17993"),
    ("bgp update-source loopback1", "tunnels", r" blue +10\.0\.0\.5 "),
    ("bgp neighbor 127.0.0.9 port 17994", "bgp neighbor", "Port: 17994"),
    ("bgp neighbor 127.0.0.9 description some words", "bgp neighbor", "Description: some words"),
    ("bgp neighbor 127.0.0.9 password s3cret", "bgp neighbor", "Password: yes"),
    ("bgp neighbor 127.0.0.9 hold-time 30", "bgp neighbor", "Hold time offered: 30"),
    ("bgp neighbor 127.0.0.9 passive", "bgp neighbor", "Passive: yes"),
    ("bgp neighbor 127.0.0.9 ttl-security 1", "bgp neighbor", "TTL security: 1"),
    ("bgp neighbor 127.0.0.9 maximum-prefix 1000", "bgp neighbor", "Maximum prefix: 1000"),
    ("bgp neighbor 127.0.0.9 route-reflector-client", "bgp neighbor", "Route reflector client: yes"),
    ("bgp neighbor 127.0.0.7 remote-as 65009", "bgp neighbor", "AS: 65009"),
    ("core carrier gre-udp listen 127.0.0.8:17992", "counters", "^core-received "),
    ("forwarding kernel", "status", "Forwarder: away"),
    ("forwarding kernel socket /nowhere", "forwarding", "^/nowhere "),
]
# What they change is seen in packets, sessions and choices, and tested there.
WITHOUT_VIEW = {
    "route-map NAME permit SOURCES GROUPS", "route-map NAME deny SOURCES GROUPS", "metrics", "pim", "pim ssm range PREFIX",
    "pim bidir range PREFIX", "pim mtu <68-65535>", "pim announcement-limit <1-10000000>", "core peer ADDRESS:PORT",
    "vrf NAME context-id <2-4294967295>", "vrf NAME netns NAME", "vrf NAME mdt data bidir enable",
    "vrf NAME mdt data inhibit-reuse", "bgp graceful-restart", "bgp restart-time <1-4095>",
    "bgp neighbor A.B.C.D connect-retry <1-65535>", "bgp neighbor A.B.C.D shutdown",
    "bgp neighbor A.B.C.D shutdown message TEXT", "bgp neighbor A.B.C.D ipv4-unicast",
    "forwarding kernel core-interface INTERFACE", "forwarding kernel ttl <1-255>", "forwarding kernel tos <0-255>",
    "forwarding kernel dont-fragment set", "forwarding kernel dont-fragment clear",
}


class Client:
    """A connection of the control socket, which stays between commands."""

    def __init__(self, test, daemon):
        self.socket = socket.socket(socket.AF_UNIX)
        test.stack.callback(self.socket.close)
        self.socket.settimeout(LIMIT)
        self.socket.connect(daemon.socket)

    def ask(self, line):
        """The exit status of a line and all that it prints."""
        self.send(line)
        return self.answer()

    def send(self, line):
        self.socket.sendall(struct.pack(">IB", 2 + len(line), 1) + b"\0" + line.encode())

    def answer(self):
        text = ""
        while True:
            size, kind = struct.unpack(">IB", self.receive(5))
            body = self.receive(size - 1)
            if kind == 4:
                return int.from_bytes(body, "big"), text
            text += body.decode()

    def receive(self, size):
        data = b""
        while len(data) < size:
            data += self.socket.recv(size - len(data))
        return data


class OperationsTest(unittest.TestCase):
    setUp = programs_test.ProgramsTest.setUp
    start = programs_test.ProgramsTest.start
    start_example = programs_test.ProgramsTest.start_example

    def set_up_flow(self, daemon):
        for line in ["configure vrf red mdt data 239.1.8.0/24 threshold 100",
                     "configure vrf red mroute 192.168.1.5 232.1.1.1 iif red-lan rpf 192.168.1.5 oif mvpn rate 500"]:
            self.assertEqual(daemon.run(line).returncode, 0)

    def monitor(self, daemon, *words):
        client = subprocess.Popen([*PIMCTL, "--control", daemon.socket, "monitor", *words],
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.stack.callback(client.communicate)
        self.stack.callback(client.kill)
        # The client is there when it is told of something.
        wait_until(lambda: daemon.run("log level info").returncode == 0 and client.poll() is None
                   and select_line(client.stdout), "the monitor hears")
        return client

    def test_the_log_says_what_changed_and_why_and_who_asked(self):
        daemon = self.start_example()
        self.set_up_flow(daemon)
        self.assertEqual(daemon.run("test remote-pe 10.0.0.2 65000:1 239.1.1.1 advertise").returncode, 0)
        self.assertEqual(daemon.run("test statistics").returncode, 0)
        daemon.wait_for_log("moved to data MDT")
        self.assertEqual(daemon.run("test interface loopback0 down").returncode, 0)
        daemon.wait_for("vrfs", "red .*loopback0, is down")
        self.assertEqual(daemon.run("configure no feature mvpn").returncode, 0)
        log = daemon.log.read_text()
        for level, text in [
            ("notice", r"VRF red: Up"),
            ("info", r"tunnel mti2 of VRF red: up, was absent, from 10\.0\.0\.1 to 239\.1\.1\.1"),
            ("notice", rf"command: configure vrf red mdt data 239\.1\.8\.0/24 threshold 100 \[{OPERATOR}\]"),
            ("info", rf"PE 10\.0\.0\.2 joined 239\.1\.1\.1 of VRF red with 65000:1 \[{OPERATOR}\]"),
            ("info", r"VRF red: flow \(192\.168\.1\.5, 232\.1\.1\.1\) moved to data MDT 239\.1\.8\.0: it had 500 kbit/s, "
                     r"the threshold is 100"),
            ("info", r"VRF red: flow \(192\.168\.1\.5, 232\.1\.1\.1\) left data MDT 239\.1\.8\.0: the default MDT goes down"),
            ("warning", rf"VRF red: Down( in Progress)?, was Up: its MDT source, interface loopback0, is down \[{OPERATOR}\]"),
            ("notice", rf"mvpn: off, was on \[{OPERATOR}\]"),
        ]:
            with self.subTest(text):
                wait_until(lambda: re.search(rf"(?m)^{TIME} {level} pimhostd: {text}", daemon.log.read_text()), text)

    def test_the_first_unmet_condition_is_in_the_views(self):
        daemon = self.start_example()
        vrf = "vrf green "
        for line, reason in [
            (vrf + "mdt mtu 1400", "it has no default MDT group ('mdt default')"),
            (vrf + "mdt default 239.1.1.9", "it has no route distinguisher ('rd')"),
            (vrf + "mdt source loopback9", "it has no route distinguisher ('rd')"),
            (vrf + "rd 65000:9", "its MDT source, interface loopback9, does not exist"),
            ("interface loopback9 shutdown", "its MDT source, interface loopback9, is down"),
            ("interface loopback9 no shutdown", "its MDT source, interface loopback9, has no address"),
            ("interface loopback9 ip address 10.0.9.9", ""),
        ]:
            with self.subTest(line):
                self.assertEqual(daemon.run("configure " + line).returncode, 0)
                row = lambda: next(r for r in json.loads(daemon.show("vrfs", "--json"))["vrf"] if r["name"] == "green")
                wait_until(lambda: row().get("not-up-reason", "") == reason, f"{reason}, not {row()}")
                shown = daemon.show("mvpn mdt vrf green")
                self.assertEqual(f"VRF green is not Up: {reason}\n" in shown, reason != "", shown)
                document = json.loads(daemon.show("mvpn mdt vrf green", "--json"))
                if "vrf" in document and document["vrf"]:
                    self.assertEqual(document["vrf"][0].get("not-up-reason", ""), reason)
        self.assertEqual(daemon.run("configure no feature mvpn").returncode, 0)
        for view in ("mvpn mdt", "mvpn mdt route", "mvpn mdt bgp"):
            self.assertIn("MVPN is switched off", daemon.show(view))
        self.assertIn("no 'local-as'", daemon.show("bgp summary"))

    def test_levels_and_the_journal(self):
        config = "hostname a\n"
        with (self.folder / "journal").open("w") as log, socket.socket(socket.AF_UNIX) as listener:
            path = str(self.folder / "j")
            listener.bind(path)
            listener.listen()
            stream = socket.socket(socket.AF_UNIX)
            self.stack.callback(stream.close)
            stream.connect(path)
            journal, _ = listener.accept()
            self.stack.callback(journal.close)
            status = os.fstat(stream.fileno())
            daemon = self.start(config, "--log-level", "warning", log=stream.fileno(),
                                env={"JOURNAL_STREAM": f"{status.st_dev}:{status.st_ino}"})
            daemon.run("configure hostname b")  # a notice
            daemon.run("log level notice")
            daemon.run("configure hostname c")
            self.assertEqual(daemon.stop(), 0)
            journal.settimeout(LIMIT)
            stream.close()
            text = b"".join(iter(lambda: journal.recv(65536), b"")).decode()
        self.assertNotIn("hostname b", text)
        self.assertRegex(text, rf"(?m)^<5>command: log level notice \[{OPERATOR}\]$")
        self.assertRegex(text, rf"(?m)^<5>command: configure hostname c \[{OPERATOR}\]$")

    def test_a_log_that_nobody_reads_holds_up_nobody(self):
        reading, writing = os.pipe()
        daemon = self.start("hostname a\n", log=writing)
        os.close(writing)
        # A pipe takes 64 kB, which is less than these lines.
        for _ in range(10):
            lines = "".join(f"configure hostname name-{n}\n" for n in range(200))
            done = subprocess.run([*PIMCTL, "--control", daemon.socket], input=lines, text=True, timeout=LIMIT,
                                  capture_output=True)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
        lost = int(re.search(r"Log lines lost: (\d+)", daemon.show("status")).group(1))
        self.assertGreater(lost, 0)
        os.set_blocking(reading, False)
        os.read(reading, 1 << 20)
        self.assertEqual(daemon.run("configure hostname b").returncode, 0)
        read = ""
        while "hostname b" not in read:
            self.assertTrue(select.select([reading], [], [], LIMIT)[0], read)
            read += os.read(reading, 1 << 20).decode()
        os.close(reading)
        self.assertRegex(read, rf"^{TIME} warning pimhostd: {lost} lines of the log are missing here: nobody read them\n"
                               rf"{TIME} notice pimhostd: command: configure hostname b")
        self.assertEqual(daemon.stop(), 0)

    def test_a_store_that_fails_and_recovers_is_said(self):
        # A file system that is full, and has room again.
        store = self.folder / "store"
        store.mkdir()
        mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256k", "none", store], capture_output=True)
        if mounted.returncode != 0:
            self.skipTest("file systems cannot be mounted here")
        self.stack.callback(lambda: subprocess.run(["umount", "-l", store], check=True))
        daemon = self.start_example("--store", str(store))
        with (store / "filler").open("wb") as filler:
            try:
                while True:
                    os.write(filler.fileno(), bytes(4096))
            except OSError:
                pass
        self.set_up_flow(daemon)
        routes = "".join(f"configure vrf red mroute 192.168.2.{n} 232.1.1.1 iif red-lan rpf 192.168.1.5 oif mvpn rate 500\n"
                         for n in range(1, 200))
        subprocess.run([*PIMCTL, "--control", daemon.socket], input=routes, text=True, check=True)
        self.assertEqual(daemon.run("test statistics").returncode, 0)
        daemon.wait_for_log("error pimhostd: store: failing, was writing: ")
        self.assertRegex(daemon.show("status"), r"Store: failing: \S")
        (store / "filler").unlink()
        daemon.run("show clock")
        daemon.wait_for_log("notice pimhostd: store: writing, was failing: ")
        self.assertIn("Store: writing\n", daemon.show("status"))

    # ------------------------------------------------------------------------------------- work on a configuration

    def play(self, clients, steps):
        """Steps are who, the line, the exit status, and a pattern of all that is printed."""
        for who, line, status, pattern in steps:
            got, text = clients[who].ask(line)
            self.assertEqual(got, status, (line, text))
            self.assertRegex(text, rf"\A{pattern}\Z", line)

    def test_what_a_line_says_is_seen_in_a_view(self):
        own = own_address()
        daemon = self.start(EFFECTS_BASE.replace("127.0.0.8", own))
        client = Client(self, daemon)
        daemon.wait_for("mvpn mdt vrf red", r"MTI\(\S+\) Up\n")
        for line, view, pattern in [[text.replace("127.0.0.8", own) for text in row] for row in EFFECTS]:
            with self.subTest(line):
                seen = lambda: re.search(pattern, client.ask("show " + view)[1], re.MULTILINE)  # noqa: B023
                self.assertIsNone(seen())
                self.assertEqual(client.ask("configure " + line), (0, ""))
                wait_until(seen, lambda: client.ask("show " + view)[1])  # noqa: B023
        # Every line that the language has is among them, but for those that no view shows.
        without_view = set()
        header = ""
        for row in subprocess.run([BIN / "pimctl", "--syntax"], text=True, capture_output=True, check=True).stdout.splitlines():
            if row.startswith("### "):
                header = row.removeprefix("### ")
            elif row.startswith("| `") and header.startswith("configure"):
                syntax = (header + " " + row.split("`")[1]).removeprefix("configure ")
                words = [r"\S+" if word[0] == "<" or word[:2].isupper() or "." in word else re.escape(word)
                         for word in syntax.split(" [")[0].split()]
                if not any(re.match(" ".join(words) + r"\b", line.replace("no ", "")) for line, *_ in EFFECTS):
                    without_view.add(syntax.split(" [")[0])
        self.assertEqual(without_view, WITHOUT_VIEW)

    def test_a_candidate_runs_as_a_whole_and_others_wait(self):
        daemon = self.start_example()
        clients = {"a": Client(self, daemon), "b": Client(self, daemon)}
        held = rf"the configuration is held by {OPERATOR}, who works on it with configure exclusive\n"
        name = "show running-config | include ^hostname"
        self.play(clients, [
            ("a", "configure exclusive", 0, "what is entered runs with commit\n"),
            *[("b", line, 1, held) for line in ("configure hostname x", "configure exclusive", "commit", "rollback", "write",
                                                "abort")],
            ("b", "reload", 1, rf"the configuration is held by {OPERATOR}: commit or abort first\n"
                               "the configuration stays as it is\n"),
            ("a", "configure exclusive hostname x", 0, ""),
            ("a", "configure vrf green rd 65000:3", 0, ""),  # a line of one's own goes to the candidate as well
            ("a", "configure exclusive no vrf grey", 1, "there is no vrf grey\n"),
            ("a", "configure exclusive vrf red context-id 3", 1, "context id 3 belongs to VRF blue\n"),
            ("b", "show configuration candidate", 0, r"-hostname pe1\n\+hostname x\n\+vrf green\n\+  rd 65000:3\n"),
            ("b", name, 0, "hostname pe1\n"),
            ("a", "commit", 0, ""),
            ("b", name, 0, "hostname x\n"),
            # What only the module judges: nothing of it runs, and it can be mended.
            ("a", "configure exclusive vrf green mdt default 239.1.1.1", 0, ""),
            ("a", "configure exclusive hostname y", 0, ""),
            ("a", "commit", 1, "VRF green: mdt default 239.1.1.1: The MDT-default group overlaps with VRF red\n"
                               "the configuration stays as it is\n"),
            ("b", name, 0, "hostname x\n"),
            ("a", "configure exclusive vrf green mdt default 239.1.1.3", 0, ""),
            ("a", "commit", 0, ""),
            ("b", name, 0, "hostname y\n"),
            ("a", "configure exclusive hostname z", 0, ""),
            ("a", "rollback", 0, "the candidate is what runs\n"),
            ("a", "commit", 1, "there is nothing to commit\n"),
            ("a", "rollback 2", 0, "runs with commit\n"),
            ("b", name, 0, "hostname y\n"),
            ("a", "commit", 0, ""),
            ("b", name, 0, "hostname pe1\n"),
            ("a", "configure exclusive hostname z", 0, ""),
            ("b", "abort force", 0, "what was not committed is dropped\n"),
            ("a", "configure exclusive hostname z", 1, "you do not hold the configuration: .*\n"),
            ("b", "rollback 4", 1, "there are 3 former configurations\n"),
            ("b", "rollback", 0, ""),
            ("b", name, 0, "hostname y\n"),
            ("a", "configure exclusive", 0, "what is entered runs with commit\n"),
            ("a", "configure exclusive hostname z", 0, ""),
        ])
        # A client that goes away leaves nothing behind.
        clients["a"].socket.close()
        wait_until(lambda: clients["b"].ask("configure exclusive")[0] == 0, "the configuration is free")
        self.play(clients, [("b", "show configuration candidate", 0, ""),
                            ("b", "show configuration former | count", 0, "5\n")])

    def test_a_commit_that_is_refused_moves_nothing(self):
        daemon = self.start_example("--module", BIN / "libmoody.so")  # refuses MTUs of 1301 and 1303 bytes
        a, b = Client(self, daemon), Client(self, daemon)
        running, log = daemon.show("running-config"), len(daemon.log.read_text())
        self.play({"a": a}, [
            ("a", "configure exclusive", 0, ".*\n"),
            ("a", "configure exclusive vrf blue no mdt mtu", 0, ""),
            ("a", "configure exclusive vrf red mdt default 239.1.1.2", 0, ""),
            ("a", "commit confirmed 10", 1, "VRF red: mdt default 239.1.1.2: The MDT-default group overlaps with VRF blue\n"
                                            "the configuration stays as it is\n"),
        ])
        self.assertNotIn("VRF ", daemon.log.read_text()[log:])
        self.play({"a": a}, [
            ("a", "rollback", 0, ".*\n"),
            ("a", "configure exclusive vrf blue mdt mtu 1301", 0, ""),
            ("a", "commit", 1, "VRF blue: mdt mtu 1301: Not this one\nthe configuration stays as it is\n"),
            ("a", "configure exclusive vrf blue mdt mtu 1303", 0, ""),
            ("a", "commit", 1, "VRF blue: mdt mtu 1303: Not this one\nwhat ran before runs again\n"),
        ])
        # The claim ends while the candidate is tried.
        daemon.process.send_signal(signal.SIGSTOP)
        a.send("commit")
        b.send("abort force")
        daemon.process.send_signal(signal.SIGCONT)
        self.assertEqual(b.answer(), (0, "what was not committed is dropped\n"))
        status, text = a.answer()
        self.assertEqual(status, 1)
        self.assertRegex(text, "the candidate was dropped while it was tried|there is nothing to commit")
        self.assertEqual(daemon.show("running-config"), running)

    def test_a_rollback_that_is_refused_moves_nothing(self):
        former = (EXAMPLES / "two-vrfs.conf").read_text().replace("mdt mtu 1400", "mdt mtu 1301")
        daemon = self.start(former, "--module", BIN / "libmoody.so")
        client = Client(self, daemon)
        self.play({"a": client}, [
            ("a", "configure exclusive", 0, ".*\n"),
            ("a", "configure exclusive vrf blue mdt mtu 1302", 0, ""),
            ("a", "configure exclusive vrf red no mdt default", 0, ""),
            ("a", "commit", 0, ""),
            ("a", "abort", 0, ""),
        ])
        running, log = daemon.show("running-config"), len(daemon.log.read_text())
        self.play({"a": client}, [
            ("a", "rollback", 1, "VRF blue: mdt mtu 1301: Not this one\nthe configuration stays as it is\n"),
        ])
        self.assertNotIn("VRF ", daemon.log.read_text()[log:])
        self.assertEqual(daemon.show("running-config"), running)

    def test_a_commit_that_nobody_confirms_goes_back(self):
        daemon = self.start("hostname a\n", "--clock-scale", "1000")
        clients = {"a": Client(self, daemon), "b": Client(self, daemon)}
        trial = rf"what ran before runs again at {TIME} unless commit comes before\n"
        self.play(clients, [
            ("a", "configure exclusive", 0, ".*\n"),
            ("a", "configure exclusive hostname b", 0, ""),
            ("a", "commit confirmed 1440", 0, trial),
            ("a", "write", 1, "a commit waits for its confirmation: commit, or rollback\n"),
            ("a", "configure exclusive hostname c", 0, ""),
            ("a", "commit", 0, "confirmed\n"),
            ("a", "configure exclusive hostname d", 0, ""),
            ("a", "commit confirmed 1440", 0, trial),
            ("a", "abort", 0, ""),
            ("b", "rollback", 0, ""),
            ("b", "commit", 1, "there is nothing to commit\n"),
            ("b", "show running-config", 0, "hostname c\n!\n"),
            # On trial twice: what goes back is both, and what was entered meanwhile.
            ("b", "configure exclusive", 0, ".*\n"),
            ("b", "configure exclusive hostname e", 0, ""),
            ("b", "commit confirmed 1440", 0, trial),
            ("b", "abort", 0, ""),
            ("b", "configure vrf green", 0, ""),
            ("b", "commit confirmed 1", 0, trial),
        ])
        daemon.wait_for_log("entered since the commit and taken back with it: vrf green\n")
        self.assertIn("nobody confirmed the commit: what ran before it runs again\n", daemon.log.read_text())
        self.assertEqual(daemon.show("running-config"), "hostname c\n!\n")
        self.assertRegex(daemon.show("configuration former"), rf"1 +{TIME} +not confirmed +commit confirmed\n2 +{TIME} +commit ")

    def test_the_file_is_written_read_again_and_checked(self):
        daemon = self.start((EXAMPLES / "two-vrfs.conf").read_text() + "  local-as 65000\n  listen 127.0.0.1:17911\n"
                            "  neighbor 127.0.0.9 remote-as 65000\n  neighbor 127.0.0.9 shutdown\n")
        client = Client(self, daemon)
        former = self.config.read_text()
        self.assertEqual(client.ask("configure bgp neighbor 127.0.0.9 password old")[0], 0)
        self.assertIn("Configuration: changed since the file was read or written\n", daemon.show("status"))
        # A file whose former one cannot be kept is not touched.
        kept = self.folder / "router.conf~"
        kept.mkdir()
        self.assertEqual(client.ask("write"), (1, f"{self.config} cannot be written: Is a directory\n"))
        self.assertEqual(self.config.read_text(), former)
        kept.rmdir()
        self.assertEqual(client.ask("write"), (0, f"written to {self.config}; the former file is {kept}\n"))
        self.assertEqual(self.config.read_text(), daemon.show("running-config passwords"))
        self.assertEqual(kept.read_text(), former)
        self.assertEqual(client.ask("show configuration diff"), (0, ""))
        self.assertIn("Configuration: as in the file\n", daemon.show("status"))
        # SIGHUP and reload name what they take back.
        self.assertEqual(client.ask("configure bgp neighbor 127.0.0.9 password new")[0], 0)
        self.assertEqual(client.ask("configure vrf blue no mdt mtu")[0], 0)
        daemon.process.send_signal(signal.SIGHUP)
        daemon.wait_for_log("was read again")
        for line in ("vrf blue no mdt mtu 1400", "bgp neighbor 127.0.0.9 password <hidden>"):
            self.assertIn(f"warning pimhostd: was entered and is not in the file: {line}\n", daemon.log.read_text())
        self.assertEqual(client.ask("configure hostname other")[0], 0)
        self.assertEqual(client.ask("reload"), (0, "was entered and is not in the file: hostname other\n"
                                                   "the configuration was read again\n"))
        # Somebody else's changes of the file are not written over.
        written = self.config.read_text()
        self.config.write_text(written + "vrf green\n  rd 65000:1\n")
        line = written.count("\n") + 2
        warning = "VRF green: the route distinguisher 65000:1 is that of VRF red, too\n"
        for command, status, text in [
            ("write memory", 1, f"{self.config} was changed after it was read: reload it, or write force\n"),
            ("check", 0, f"{self.config}:{line}: warning: {warning}"),
            ("check strict", 1, f"{self.config}:{line}: {warning}"),
            ("reload", 0, f"{self.config}:{line}: warning: {warning}the configuration was read again\n"),
        ]:
            self.assertEqual(client.ask(command), (status, text))
        self.config.write_text(written + "vrf green\n  bogus\n")
        for command, behind in [("check", ""), ("reload", "the configuration stays as it is\n")]:
            status, text = client.ask(command)
            self.assertEqual((status, text.startswith(f"{self.config}:{line}: 'bogus' is not known here"), text.endswith(behind)),
                             (1, True, True), text)
        self.assertEqual(client.ask("write memory force")[0], 0)
        self.assertEqual(kept.read_text(), written + "vrf green\n  bogus\n")
        self.assertEqual(client.ask("show configuration diff"), (0, ""))
        self.assertEqual(client.ask("check")[0], 0)

    # ------------------------------------------------------------------------------------------------------ monitor

    def test_monitor_tells_changes_as_they_happen(self):
        daemon = self.start_example()
        text, documents = self.monitor(daemon), self.monitor(daemon, "json")
        self.assertEqual(daemon.run("configure vrf red no mdt default").returncode, 0)
        schema = json.loads((DOCS / "schema/mvpn-output.schema.json").read_text())
        seen = []
        while not any(change["kind"] == "vrf" and "after" not in change for change in seen):
            document = json.loads(documents.stdout.readline())
            self.assertEqual(schema_faults(document, schema, schema), [])
            seen += document["change"]
        gone = seen[-1]
        self.assertEqual((gone["vrf"], gone["default-group"], gone["level"]), ("red", "239.1.1.1", "notice"))
        self.assertRegex(gone["by"], OPERATOR)
        lines = ""
        while "VRF red: no default MDT" not in lines:
            lines += text.stdout.readline()
        self.assertRegex(lines, rf"(?m)^{TIME} info tunnel mti2 of VRF red: absent, was ")
        self.assertEqual(daemon.run("monitor | xml").returncode, 1)

    def test_a_monitor_that_reads_slowly_is_told_what_it_missed(self):
        daemon = self.start("hostname a\n")
        slow = socket.socket(socket.AF_UNIX)
        self.stack.callback(slow.close)
        slow.connect(daemon.socket)
        slow.sendall(struct.pack(">IB", 2 + len("monitor json"), 1) + b"\0monitor json")
        wait_until(lambda: daemon.run("log level error").returncode == 0 and readable(slow), "the monitor hears")
        lines = "".join(f"configure hostname name-{n}\n" for n in range(2500))
        done = subprocess.run([*PIMCTL, "--control", daemon.socket], input=lines, text=True, capture_output=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        slow.settimeout(LIMIT)
        frames = b""
        hostnames = 0
        while b'"missed-changes":' not in frames and hostnames < 1000:
            while readable(slow):
                frames += slow.recv(1 << 20)
            daemon.run("configure hostname b")
            hostnames += 1
        heard = text_of_frames(frames)
        before, _, after = heard.partition('"missed-changes":[{"count":')
        told = int(re.match(r"\d+", after).group())
        self.assertGreater(told, 0)
        missed_hostnames = before.count("command: configure hostname name-") + told - 2500
        self.assertIn(missed_hostnames, range(0, hostnames + 1))


def text_of_frames(frames):
    text = b""
    while len(frames) >= 5:
        size, kind = struct.unpack(">IB", frames[:5])
        text += frames[5:4 + size] if kind == 2 else b""
        frames = frames[4 + size:]
    return text.decode()


def readable(stream):
    return bool(select.select([stream], [], [], 0)[0])


def select_line(stream):
    return readable(stream) and stream.readline()


if __name__ == "__main__":
    unittest.main()

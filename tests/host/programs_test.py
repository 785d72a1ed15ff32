"""Drives the real programs: pimhostd with the module, pimctl.  usage: programs_test.py BIN_DIR [unittest options]

PIMHOSTD_MODULE names another module than the one beside the programs.
"""

import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import unittest
from xml.etree import ElementTree

HERE = pathlib.Path(__file__).resolve().parent
sys.path.append(str(HERE.parent / "support"))
import command_examples  # noqa: E402
from patience import LIMIT, wait_until  # noqa: E402

BIN = pathlib.Path(sys.argv.pop(1))
EXAMPLES = HERE.parent.parent / "examples"
DOCS = HERE.parent.parent / "docs"
PIMCTL = [BIN / "pimctl", "--timeout", str(LIMIT)]


def schema_faults(value, schema, root, path=""):
    """What a value has against the parts of JSON schema that the output schema uses."""
    while "$ref" in schema:
        schema = root["$defs"][schema["$ref"].removeprefix("#/$defs/")]
    kinds = {"object": dict, "array": list, "string": str, "boolean": bool, "integer": int, "number": (int, float)}
    kind = schema["type"]
    if not isinstance(value, kinds[kind]) or isinstance(value, bool) != (kind == "boolean"):
        return [f"{path}: {value!r} is no {kind}"]
    faults = []
    if "pattern" in schema and not re.search(schema["pattern"], value):
        faults.append(f"{path}: {value!r} does not match")
    if "minimum" in schema and value < schema["minimum"]:
        faults.append(f"{path}: {value!r} is too small")
    if kind == "array":
        for item in value:
            faults += schema_faults(item, schema["items"], root, path)
    if kind == "object":
        faults += [f"{path}: {name} is missing" for name in schema.get("required", []) if name not in value]
        for name, member in value.items():
            if name in schema["properties"]:
                faults += schema_faults(member, schema["properties"][name], root, f"{path}/{name}")
            else:
                faults.append(f"{path}: {name} is not in the schema")
    return faults


class Daemon:
    def __init__(self, folder, config, *options, env=None, log=None):
        self.socket = str(folder / "s")
        self.log = folder / "log"
        module = os.environ.get("PIMHOSTD_MODULE")
        command = [BIN / "pimhostd", "--config", config, "--control", self.socket, *options]
        command += ["--module", module] if module else []
        with self.log.open("a") as file:
            sanitizer = {"LSAN_OPTIONS": f"suppressions={HERE}/lsan.supp:print_suppressions=0"}
            self.process = subprocess.Popen(command, stderr=log or file, env={**sanitizer, **os.environ, **(env or {})})
        try:
            wait_until(lambda: self.process.poll() is not None or self.run("show clock").returncode == 0, "the daemon answers")
        except BaseException:
            self.kill()
            raise
        if self.process.poll() is not None:
            raise AssertionError(self.log.read_text())

    def run(self, line, *options):
        """A command's result; options may have another --timeout."""
        pimctl = [BIN / "pimctl"] if "--timeout" in options else PIMCTL
        return subprocess.run([*pimctl, "--control", self.socket, *options, *line.split()], capture_output=True, text=True,
                              timeout=LIMIT)

    def show(self, line, *options):
        result = self.run("show " + line, *options)
        if result.returncode != 0:
            raise AssertionError(f"{line}: {result.stderr}")
        return result.stdout

    def wait_for(self, line, pattern):
        wait_until(lambda: re.search(pattern, self.show(line)), f"{line}: {pattern}")

    def wait_for_example(self):
        """Until both VRFs of the example are Up, and what follows of that is done: entries, routes, encapsulations."""
        for vrf in ("red", "blue"):
            self.wait_for(f"mvpn mdt vrf {vrf}", r"MTI\(\S+\) Up\n")
        for view in ("bgp mdt", "mrib routes", "mrib encaps"):
            wait_until(lambda: len(re.findall(r"239\.1\.1\.[12] ", self.show(view))) == 2, lambda: f"{view}: {self.show(view)}")

    def wait_for_absence(self, line, pattern):
        wait_until(lambda: not re.search(pattern, self.show(line)), f"{line}: no {pattern}")

    def wait_for_log(self, text, times=1):
        wait_until(lambda: self.log.read_text().count(text) >= times, f"log: {text}")

    def listings(self):
        """How many views are being printed, by threads of their own."""
        count = 0
        for thread in pathlib.Path(f"/proc/{self.process.pid}/task").glob("*/comm"):
            with contextlib.suppress(OSError):  # it may end meanwhile
                count += thread.read_text() == "pim-show\n"
        return count

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

    def start(self, config=None, *options, env=None, log=None):
        if config is not None:
            self.config.write_text(config)
        daemon = Daemon(self.folder, self.config, *options, env=env, log=log)
        self.stack.callback(daemon.kill)
        return daemon

    def start_example(self, *options):
        daemon = self.start((EXAMPLES / "two-vrfs.conf").read_text(), *options)
        daemon.wait_for_example()
        return daemon

    def end_at_once(self, *options):
        """The status and the errors of a daemon that does not start."""
        module = os.environ.get("PIMHOSTD_MODULE")
        control = [] if "--control" in options else ["--control", self.folder / "other"]
        command = [BIN / "pimhostd", *control, *options, *(["--module", module] if module else [])]
        sanitizer = {"LSAN_OPTIONS": f"suppressions={HERE}/lsan.supp:print_suppressions=0"}
        result = subprocess.run(command, capture_output=True, text=True, timeout=LIMIT, env={**sanitizer, **os.environ})
        self.assertEqual(result.stdout, "")
        return result.returncode, result.stderr

    def test_check_config_names_file_line_and_reason(self):
        first_errors = "".join(f"{{}}:{n}: the line is incomplete; expected NAME\npimhostd: " for n in range(1, 21))
        for text, problems in [
            ("hostname a\nvrf red\n  mdt data 239.1.0.0/33\n", "{}:3: '239.1.0.0/33' has a mask length over 32"),
            # Only the module knows these.
            ("vrf a\n  mdt default 239.1.1.1\nvrf b\n  mdt pim jp-interval 90\n  mdt default 239.1.1.1\n",
             "{}:4: VRF b: mdt pim jp-interval 90: Join Prune interval should be in multiple of 60 sec\n"
             "pimhostd: {}:5: VRF b: mdt default 239.1.1.1: The MDT-default group overlaps with VRF a"),
            ("", "{}: the file holds no line of configuration"),
            ("! nothing but a comment\n", "{}: the file holds no line of configuration"),
            # Files that are no configurations are not told line by line, nor read to their end.
            ("vrf\n" * 30, first_errors + "{}: and 10 more"),
            ("vrf\n" * 1000000, first_errors + "{}: and 981 more"),
            ("!" * (16 * 2**20 + 1), "{}: it is longer than 16 MB, which no configuration is"),
        ]:
            self.config.write_text(text)
            expected = (1, "pimhostd: " + problems.replace("{}", str(self.config)) + "\n")
            self.assertEqual(self.end_at_once("--config", self.config, "--check-config"), expected)
        for example in EXAMPLES.glob("*.conf"):
            self.assertEqual(self.end_at_once("--config", example, "--check-config"), (0, ""))

    def test_a_daemon_that_cannot_start_says_why(self):
        self.config.write_text("hostname a\n")
        (self.folder / "file").touch()
        store = str(self.folder / "store")
        self.start(None, "--store", store)
        config = ["--config", str(self.config)]
        for options, status, reason in [
            (["--config", str(self.folder)], 1, f"pimhostd: {self.folder}: Is a directory\n"),
            (["--config", "missing.conf"], 1, "pimhostd: missing.conf: No such file or directory\n"),
            ([*config, "--store", f"{self.folder}/a/b"], 1, f"pimhostd: --store: {self.folder}/a/b: No such file or directory\n"),
            ([*config, "--store", f"{self.folder}/file"], 1, f"pimhostd: --store: {self.folder}/file: Not a directory\n"),
            ([*config, "--store", store], 1, f"pimhostd: --store: {store}: another pimhostd uses this folder\n"),
            ([*config, "--capture", f"{self.folder}/a/b"], 1,
             f"pimhostd: --capture: {self.folder}/a/b: No such file or directory\n"),
            ([*config, "--restart", "stateful"], 2, "--restart requires --store\n"),
            ([*config, "--agentx", "foo"], 2, "--agentx: foo is neither unix:PATH nor tcp:HOST:PORT\n"),
            ([*config, "--bogus"], 2, "--bogus\n"),
        ]:
            found = self.end_at_once(*options)
            self.assertEqual(found[0], status, options)
            self.assertIn(reason, found[1])

    def test_default_mdts_come_up_and_go_down(self):
        daemon = self.start_example()
        self.assertEqual(len(re.findall("^10.0.0.1 .*local", daemon.show("bgp mdt"), re.M)), 2)
        self.assertRegex(daemon.show("mrib encaps"), r"red +1 +239\.1\.1\.1 +10\.0\.0\.1")
        self.assertEqual(daemon.run("configure vrf red no mdt default").returncode, 0)
        daemon.wait_for("mvpn internal state", "MVPN VRF Count: 1")
        daemon.wait_for_absence("tunnels", "red")
        for view in ("bgp mdt", "mrib routes"):
            daemon.wait_for_absence(view, r"239\.1\.1\.1 ")
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
            ("configure vrf green mdt default 239.1.1.1", 1, "The MDT-default group overlaps with VRF red\n"),
            ("configure vrf green no mdt default", 1, "No default mdt group configured\n"),
            ("configure interface mti2 shutdown", 1, "mti2 is a name that the tunnel manager gives to VRFs' tunnels\n"),
            ("configure vrf blue no mdt mtu 1300", 1, "there is no line 'mdt mtu 1300', but 'mdt mtu 1400'\n"),
            ("configure vrf red mdt source red-lan", 1, "interface red-lan is in VRF red, not in the core\n"),
            ("configure bgp no update-source lan", 1,
             "there is no line 'update-source lan', but 'update-source loopback0'\n"),
            ("configure core no peer 127.0.0.1:1", 1, "there is no line 'peer 127.0.0.1:1'\n"),
            ("debug mvpn vrf green", 1, "there is no VRF green\n"),
            ("test remote-pe 10.0.0.1 65000:1 239.1.1.1 advertise", 1,
             "10.0.0.1 is the address of this PE's interface loopback0\n"),
            ("test remote-pe 10.0.0.2 65000:1 239.1.1.1 withdraw", 1, "there is no such entry of PE 10.0.0.2\n"),
            ("show mvpn mtd", 2, "  show mvpn mtd\n            ^\n'mtd' is not known here; expected mdt, bgp or internal\n"),
            ("show mvpn mdt vrf green", 1, "there is no VRF green\n"),
        ]:
            result = daemon.run(line)
            self.assertEqual((result.returncode, result.stderr, result.stdout), (status, text, ""), line)
        self.assertEqual(daemon.show("running-config"), before)
        for vrf in ("red", "blue"):
            self.assertRegex(daemon.show(f"mvpn mdt vrf {vrf}"), r"MTI\(\S+\) Up\n")

    def test_receivers_appear_on_interfaces_of_the_vrf_only(self):
        daemon = self.start_example()
        self.assertEqual(daemon.run("configure vrf red mroute 192.168.1.5 232.1.1.9 iif red-lan").returncode, 0)
        for change, status, text, oifs in [
            ("join blue-lan", 1, "interface blue-lan is not in VRF red\n", "-"),
            ("join mti2", 1, "VRF red: there is no interface mti2\n", "-"),
            ("leave red-lan", 1, "red-lan is no outgoing interface of the route\n", "-"),
            ("leave mvpn", 1, "mvpn is no outgoing interface of the route\n", "-"),
            ("join red-lan", 0, "", "red-lan"),
            ("join mvpn", 0, "", "red-lan,mvpn"),
            ("leave red-lan", 0, "", "mvpn"),
        ]:
            result = daemon.run("test receiver vrf red 192.168.1.5 232.1.1.9 " + change)
            self.assertEqual((result.returncode, result.stderr), (status, text))
            self.assertRegex(daemon.show("customer-routes vrf red"), rf"232\.1\.1\.9 +red-lan +\S+ +{oifs} ")

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

    def test_a_default_group_inside_an_own_range_is_refused(self):
        daemon = self.start_example()
        self.assertEqual(daemon.run("configure vrf green mdt data 239.5.0.0/16").returncode, 0)
        refused = daemon.run("configure vrf green mdt default 239.5.0.5")
        self.assertEqual((refused.returncode, refused.stderr), (1, "the group is in the VRF's own range 239.5.0.0/16\n"))
        self.assertEqual(daemon.run("configure vrf green mdt default 239.6.0.5").returncode, 0)

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
        # What only the module refuses is found before anything changes; so is a file that has gone or is empty.
        running = daemon.show("running-config")
        overlap = "hostname other\n" + text + "vrf green\n  rd 65000:3\n  mdt default 239.1.1.7\n"
        line = overlap.count("\n")  # green's, which is new, though a start would give its group to green and refuse red's
        for content, reason in [(overlap, f":{line}: VRF green: mdt default 239.1.1.7: The MDT-default group "
                                          "overlaps with VRF red"),
                                ("", ": the file holds no line of configuration"), (None, ": No such file or directory")]:
            self.config.unlink() if content is None else self.config.write_text(content)
            kept = daemon.log.read_text().count("stays as it is")
            daemon.process.send_signal(signal.SIGHUP)
            daemon.wait_for_log("stays as it is", kept + 1)
            self.assertIn(f"pimhostd: {self.config}{reason}\n", daemon.log.read_text())
            self.assertEqual(daemon.show("running-config"), running)

    def test_a_change_that_is_refused_on_the_way_is_taken_back(self):
        # A module that takes both MTUs from a file; the step to the first is refused where it is tried, to the second not.
        daemon = self.start_example("--module", BIN / "libmoody.so")
        running, file = daemon.show("running-config"), self.config.read_text()
        for mtu, outcome in ((1301, "the configuration stays as it is"), (1303, "the former configuration is restored")):
            self.config.write_text(file.replace("mdt mtu 1400", f"mdt mtu {mtu}").replace("hostname pe1", "hostname x")
                                   + "vrf green\n  mdt default 239.6.0.1\n")
            daemon.process.send_signal(signal.SIGHUP)
            daemon.wait_for_log(outcome)
            self.assertRegex(daemon.log.read_text(), rf"router.conf:\d+: VRF blue: mdt mtu {mtu}: Not this one\n")
        self.assertEqual(daemon.show("running-config"), running)
        daemon.wait_for("tunnels", r"blue +10\.0\.0\.1 +239\.1\.1\.2 +1400 +up +up")

    def test_sources_and_route_distinguishers_are_followed_when_they_come_and_go(self):
        daemon = self.start_example()
        text = self.config.read_text()
        # The interface that tunnels start from goes and comes back.
        for line in ["no interface loopback0", "interface loopback0 ip address 10.0.0.5"]:
            self.assertEqual(daemon.run("configure " + line).returncode, 0)
        for vrf in ("red", "blue"):
            daemon.wait_for("tunnels", rf"{vrf} +10\.0\.0\.5 +\S+ +\d+ +up +up")
        # A source that is named before it exists.
        for line in ["vrf red mdt source loopback9", "interface loopback9 ip address 10.0.0.9"]:
            self.assertEqual(daemon.run("configure " + line).returncode, 0)
        daemon.wait_for("tunnels", r"red +10\.0\.0\.9 +\S+ +\d+ +up +up")
        # Another update source while nobody listens.
        for line in ["no feature mvpn", "bgp update-source loopback9", "feature mvpn"]:
            self.assertEqual(daemon.run("configure " + line).returncode, 0)
        daemon.wait_for("tunnels", r"blue +10\.0\.0\.9 +\S+ +\d+ +up +up")
        # The module leaves a VRF in the turn in which its route distinguisher changes.
        self.config.write_text(text.replace("rd 65000:1\n", "rd 65000:7\n").replace("  mdt default 239.1.1.1\n", ""))
        daemon.process.send_signal(signal.SIGHUP)
        daemon.wait_for_log("was read again")
        daemon.wait_for("mvpn internal state", "MVPN VRF Count: 1")
        daemon.wait_for_absence("bgp mdt", "red")

    def test_the_feature_goes_and_comes_back(self):
        daemon = self.start_example()
        self.assertEqual(daemon.run("configure vrf red mroute 192.168.1.7 232.1.1.7 iif red-lan rpf 192.168.1.1 oif mvpn").returncode, 0)
        encapsulated = r"(?m)^red .*232\.1\.1\.7 .* mvpn +0 +no +1 "
        daemon.wait_for("customer-routes", encapsulated)
        self.assertEqual(daemon.run("configure no feature mvpn").returncode, 0)
        daemon.wait_for("mvpn internal state", "MVPN Functionality Status: Down\n")
        self.assertEqual(daemon.run("configure vrf red mdt mtu 1300").returncode, 0)
        self.assertEqual(daemon.run("configure feature mvpn").returncode, 0)
        for vrf in ("red", "blue"):
            daemon.wait_for(f"mvpn mdt vrf {vrf}", r"MTI\(\S+\) Up\n")
        self.assertIn("Configured MTU: 1300", daemon.show("mvpn mdt vrf red"))
        daemon.wait_for("customer-routes", encapsulated)

    def test_a_killed_process_leaves_orphans_that_the_next_one_deletes(self):
        daemon = self.start_example("--store", str(self.folder / "store"))
        daemon.kill()
        text = self.config.read_text()
        self.config.write_text(text.replace("  mdt default 239.1.1.2\n", ""))
        daemon = self.start(None, "--store", str(self.folder / "store"), "--restart", "stateful")
        daemon.wait_for("tunnels", "red .* up +up")
        daemon.wait_for_absence("tunnels", "mti3")

    def test_a_tunnel_that_outlived_its_process_gets_the_present_parameters(self):
        daemon = self.start_example("--store", str(self.folder / "store"))
        for end in (Daemon.kill, Daemon.stop):
            self.assertEqual(daemon.run("configure vrf blue mdt mtu 1300").returncode, 0)
            daemon.wait_for("tunnels", r"blue +10\.0\.0\.1 +239\.1\.1\.2 +1300 ")
            end(daemon)
            daemon = self.start(None, "--store", str(self.folder / "store"), "--restart", "stateful")
            daemon.wait_for("tunnels", r"blue +10\.0\.0\.1 +239\.1\.1\.2 +1400 +up +up")
        # So does one whose VRF was configured anew while nobody served it.
        for line in ["no feature mvpn", "vrf blue mdt mtu 1300", "vrf blue no mdt default", "vrf blue mdt default 239.1.1.5",
                     "feature mvpn"]:
            self.assertEqual(daemon.run("configure " + line).returncode, 0)
        daemon.wait_for("tunnels", r"blue +10\.0\.0\.1 +239\.1\.1\.5 +1300 +up +up")

    def test_structured_output_and_filters(self):
        daemon = self.start_example()
        vrfs = json.loads(daemon.show("mvpn mdt", "--json"))["vrf"]
        self.assertEqual([(vrf["name"], vrf["mti-status"]) for vrf in vrfs], [("blue", "Up"), ("red", "Up")])
        daemon.run("configure vrf red mroute 192.168.1.5 232.1.1.1 iif red-lan oif mvpn")
        daemon.run("test remote-pe 10.0.0.2 65000:1 239.1.1.1 advertise")
        schema = json.loads((DOCS / "schema/mvpn-output.schema.json").read_text())
        for view in ["interfaces", "tunnels", "bgp mdt", "mrib routes", "mrib routes detail", "mrib encaps", "core groups",
                     "customer-routes", "events", "events last 3", "counters", "running-config", "clock", "mvpn mdt",
                     "mvpn mdt route", "mvpn mdt receive", "mvpn mdt send", "mvpn internal state"]:
            with self.subTest(view):
                document = json.loads(daemon.show(view + " | json"))
                self.assertGreater(len(document), 3)
                self.assertEqual(schema_faults(document, schema, schema), [])
                self.assertEqual((document["hostname"], "interrupted" in document), ("pe1", False))
                xml = subprocess.run(["xmllint", "--noout", "--schema", DOCS / "schema/mvpn-output.xsd", "-"], text=True,
                                     input=daemon.show(view, "--xml"), capture_output=True)
                self.assertEqual(xml.returncode, 0, xml.stderr)
        self.assertNotEqual(schema_faults({"clock": [{"clock-seconds": "1"}]}, schema, schema), [])
        route = json.loads(daemon.show("customer-routes", "--json"))["customer-route"][0]
        self.assertEqual((route["customer-source"], route["rate-kbps"], route["bidirectional"], route["outgoing-interface"]),
                         ("192.168.1.5", 0, False, [{"name": "mvpn"}]))
        self.assertEqual(daemon.show("tunnels | include blue | count"), "1\n")
        self.assertEqual(daemon.run("show tunnels | sort").returncode, 2)

    def test_every_answer_is_a_document(self):
        daemon = self.start_example()
        schema = json.loads((DOCS / "schema/mvpn-output.schema.json").read_text())
        sockets = {"daemon": daemon.socket, "nobody": str(self.folder / "nobody"), "file": str(self.config),
                   "dead": str(self.folder / "dead")}
        with socket.socket(socket.AF_UNIX) as dead:
            dead.bind(sockets["dead"])
        for line, at, status, body in [
            ("show customer-routes vrf blue", "daemon", 0, {"customer-route": []}),
            ("show mvpn mdt send vrf red", "daemon", 0, {"vrf": [{"name": "red", "sent-data-mdt": []}]}),
            ("show mvpn mdt bgp 10.9.9.9", "daemon", 0, {"mdt-safi-entry": []}),
            ("show forwarding", "daemon", 0, {"forwarder": []}),
            ("configure vrf red mdt mtu 1300", "daemon", 0, {}),
            ("show mvpn mdt vrf green", "daemon", 1, "there is no VRF green"),
            ("show tunnels backwards", "daemon", 2, "'backwards' is one word too many"),
            ("configure vrf red mdt default 239.9.9.9", "daemon", 1,
             "Cannot change the default mdt group address. Must deconfigure first"),
            ("monitor json", "nobody", 3, f"pimhostd cannot be reached at {sockets['nobody']}: No such file or directory"),
            ("show clock", "file", 3, f"pimhostd cannot be reached at {self.config}: it is no socket"),
            ("show clock", "dead", 3, f"pimhostd cannot be reached at {sockets['dead']}: nobody listens there"),
            ("show clock", "nobody", 3, f"pimhostd cannot be reached at {sockets['nobody']}: No such file or directory"),
        ]:
            with self.subTest(line):
                for words in ([*line.split()], ["session", line]):  # one command, and a line of a session
                    session = words[0] == "session"
                    run = subprocess.run([*PIMCTL, "--control", sockets[at], "--json", *([] if session else words)],
                                         input=line if session else "", text=True, capture_output=True, timeout=LIMIT)
                    self.assertEqual(run.returncode, status, run.stderr)
                    document = json.loads(run.stdout)
                    self.assertEqual(schema_faults(document, schema, schema), [])
                    header = [document.pop(name) for name in ("schema-version", "hostname", "time")]
                    self.assertEqual(header[1] == "pe1", at == "daemon" and not (session and status == 2))
                    expected = {"error": [{"reason": body, "status": status}]} if status else body
                    self.assertEqual(document, expected)
                    self.assertIn(body if status else "", run.stderr)

    def test_a_command_line_that_is_wrong_is_answered_with_a_document_too(self):
        daemon = self.start("hostname a\n")
        for words, form in [(["--json", "--bogus"], "json"), (["show", "clock", "--timeout", "x", "--json"], "json"),
                            (["--xml", "--control"], "xml"), (["--json", "--control", daemon.socket, "x" * 20000], "json"),
                            (["--bogus", "--", "--json"], "text")]:
            run = subprocess.run([*PIMCTL, *words], text=True, capture_output=True, timeout=LIMIT)
            self.assertEqual(run.returncode, 2, words)
            if form == "text":
                self.assertEqual(run.stdout, "")
                continue
            if form == "json":
                (error,) = json.loads(run.stdout)["error"]
                reason, status = error["reason"], error["status"]
            else:
                error = ElementTree.fromstring(run.stdout.encode()).find("error")
                reason, status = error.find("reason").text, int(error.find("status").text)
            self.assertEqual(status, 2)
            self.assertIn(reason, run.stderr)

    def test_a_monitor_asked_for_documents_fails_with_one_in_a_line(self):
        daemon = self.start("hostname a\n")
        for line, at, status in [("monitor json", "/nowhere", 3), ("--json monitor", "/nowhere", 3),
                                 ("monitor json | count", daemon.socket, 1)]:
            run = subprocess.run([*PIMCTL, "--control", at, *line.split()], text=True, capture_output=True, timeout=LIMIT)
            self.assertEqual((run.returncode, run.stdout.count("\n")), (status, 1), run.stdout)
            self.assertEqual(json.loads(run.stdout)["error"][0]["status"], status)

    def test_an_interrupted_document_is_whole_and_says_so(self):
        count = 8000
        daemon = self.start("".join(f"interface i{n}\n  ip address 10.{n // 62500 + 1}.{n // 250 % 250}.{n % 250 + 1}\n"
                                    for n in range(count)))
        for line in ("show interfaces", "show interfaces | json"):
            words = ["--json"] if line.endswith("s") else []
            with subprocess.Popen([*PIMCTL, "--control", daemon.socket, *words, line], stdout=subprocess.PIPE) as listing:
                begin = listing.stdout.read(1)
                listing.send_signal(signal.SIGINT)  # the listing is longer than what waits on its way
                document = json.loads(begin + listing.stdout.read())
                self.assertEqual(listing.wait(LIMIT), -signal.SIGINT)
            self.assertEqual(document["interrupted"], True)
            self.assertIn(len(document["platform-interface"]), range(1, count))
        self.assertEqual(len(json.loads(daemon.show("interfaces", "--json"))["platform-interface"]), count)

    def test_signals_and_a_log_that_nobody_reads_end_nothing(self):
        daemon = self.start("hostname a\n", log=subprocess.PIPE)
        daemon.process.stderr.close()
        for number in (signal.SIGUSR1, signal.SIGUSR2, signal.SIGHUP, signal.SIGHUP):
            daemon.process.send_signal(number)
            self.assertEqual(daemon.run("show clock").returncode, 0)
        self.assertEqual(daemon.stop(), 0)

    def test_a_bad_file_of_any_size_does_not_hold_up_the_daemon(self):
        daemon = self.start("hostname a\n")
        self.config.write_text("x\n" * 2000000)
        daemon.process.send_signal(signal.SIGHUP)
        daemon.wait_for_log("stays as it is")
        self.assertIn(f"{self.config}: and 981 more", daemon.log.read_text())
        self.assertLess(daemon.log.read_text().count("\n"), 30)

    def test_readiness_is_announced(self):
        path = str(self.folder / "notify")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as receiver:
            receiver.bind(path)
            receiver.settimeout(LIMIT)
            daemon = self.start("hostname a\n", env={"NOTIFY_SOCKET": path})
            self.assertEqual(receiver.recv(100), b"READY=1")
            daemon.stop()
            self.assertEqual(receiver.recv(100), b"STOPPING=1")

    def test_man_pages_name_every_option(self):
        for page in (HERE.parent.parent / "docs/man").glob("*.[18].scd"):
            with self.subTest(page.name):
                program = page.name.split(".")[0]
                ask = lambda *words: subprocess.run([BIN / program, *words, "--help"], capture_output=True, text=True,
                                                    check=True).stdout
                help = ask()
                for subcommand in re.findall(r"^  (\w+)", help.partition("\nSubcommands:\n")[2], re.M):
                    help += ask(subcommand)
                options = set(re.findall(r"^  (?:-\w,)?(--[\w-]+)", help, re.M))
                described = "".join(re.findall(r"^\*-.*$", page.read_text(), re.M))
                self.assertEqual(set(re.findall(r"--[\w-]+", described)), options)
                self.assertEqual(subprocess.run([BIN / program, "--bogus"], capture_output=True).returncode, 2)

    def test_the_examples_of_the_reference_are_what_the_commands_answer(self):
        daemon = self.start(command_examples.EXAMPLE.read_text(), *command_examples.OPTIONS)
        daemon.wait_for("mvpn mdt vrf red", r"MTI\(\S+\) Up\n")
        examples = list(command_examples.blocks(command_examples.PAGE.read_text()))
        self.assertGreater(len(examples), 100)
        for command, expected, _, _ in examples:
            found = command_examples.answer_like(expected, BIN, daemon.socket, command, LIMIT)
            self.assertEqual(command_examples.stable(found), command_examples.stable(expected), command)

    def test_the_lab_says_at_once_what_it_cannot_play(self):
        show = {"on": "pe1", "expect": "x", "command": "show clock", "matches": "Scale"}
        wrong = {"on": "pe1", "expect": "x", "command": "show clcok", "matches": "Scale", "within": 3600}
        here = {"pes": {"pe1": {"config": "router.conf"}}, "steps": [{"start": "pe1"}, show]}
        self.config.write_text("hostname a\n")
        with socket.socket() as stranger:
            stranger.bind(("127.0.0.1", 0))
            stranger.listen()
            (self.folder / "reflector.conf").write_text(
                f"bgp\n  local-as 65000\n  router-id 10.0.0.9\n  listen 127.0.0.1:{stranger.getsockname()[1]}\n")
            for scenario, status, reason in [
                (here, 0, "2 of 2 expectations held"),
                (here | {"reflector": "reflector.conf"}, 1, "Address already in use"),
                (here | {"pes": {"pe1": {"config": "nowhere.conf"}}}, 1, "there is no "),
                (here | {"steps": [{"start": "pe1"}, wrong]}, 1, "'clcok' is not known here"),
            ]:
                file = self.folder / "scenario.json"
                file.write_text(json.dumps({"name": "a"} | scenario))
                result = subprocess.run([BIN / "mvpn-lab", file, "--work", self.folder / "work", "--project", self.folder],
                                        capture_output=True, text=True, timeout=LIMIT)
                self.assertEqual((result.returncode, reason in result.stdout), (status, True), result.stdout + result.stderr)

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

    def test_a_hung_agentx_master_holds_up_nobody(self):
        with socket.socket(socket.AF_UNIX) as master:
            master.bind(str(self.folder / "x"))
            master.listen()
            master.settimeout(LIMIT)
            daemon = self.start("hostname a\n", "--agentx", f"unix:{self.folder}/x")
            # The agent waits for the master's answer for a second and closes the connection then. On a busy machine an
            # answer to an operator may take as long, though nobody held it up.
            for _ in range(10):
                connection, _ = master.accept()
                self.assertEqual(len(connection.recv(20, socket.MSG_WAITALL)), 20)
                self.assertEqual(daemon.run("show clock").returncode, 0)
                connection.setblocking(False)
                with contextlib.suppress(BlockingIOError):
                    while connection.recv(65536):
                        pass
                    continue
                break
            else:
                self.fail("no answer while the master was waited for")
            self.assertEqual(daemon.stop(), 0)

    def test_clients_that_are_idle_make_room(self):
        daemon = self.start("hostname a\n")
        idle = [self.connect(daemon) for _ in range(70)]
        self.assertEqual(daemon.run("show clock").returncode, 0)
        received = b"".join(iter(lambda: idle[0].recv(4096), b""))
        self.assertIn(b"64 clients are connected; this connection was idle and has made room\n", received)
        self.assertTrue(received.endswith(struct.pack(">IBI", 5, 4, 1)))
        self.assertEqual(daemon.run("show clock").returncode, 0)

    def test_the_control_socket_stays_with_whom_it_belongs_to(self):
        first = self.start("hostname first\n")
        first.process.send_signal(signal.SIGSTOP)
        self.assertEqual(self.end_at_once("--config", self.config, "--control", first.socket),
                         (1, f"pimhostd: {first.socket}: another process listens there\n"))
        os.unlink(first.socket)
        second = self.start("hostname second\n")
        first.process.send_signal(signal.SIGCONT)
        self.assertEqual(first.stop(), 0)
        self.assertEqual(second.show("running-config | include hostname"), "hostname second\n")

    def test_a_daemon_that_says_nothing_is_not_waited_for(self):
        daemon = self.start("hostname a\n")
        daemon.process.send_signal(signal.SIGSTOP)
        silent = "pimctl: pimhostd does not answer within 1 s\n"
        for line, text in [("show clock", silent),
                           ("configure hostname b", silent + "the line had been sent already and may still be carried out\n")]:
            result = daemon.run(line, "--timeout", "1")
            self.assertEqual((result.returncode, result.stderr), (4, text))
        # The queue of connections is full.
        queued = []
        with contextlib.suppress(BlockingIOError):
            while len(queued) < 10000:
                queued.append(self.stack.enter_context(socket.socket(socket.AF_UNIX)))
                queued[-1].setblocking(False)
                queued[-1].connect(daemon.socket)
        result = daemon.run("show clock", "--timeout", "0.2")
        self.assertEqual((result.returncode, result.stderr), (4, f"pimctl: pimhostd takes no connection at {daemon.socket}\n"))
        self.assertEqual(self.end_at_once("--config", self.config, "--control", daemon.socket)[0], 1)
        daemon.process.send_signal(signal.SIGCONT)
        wait_until(lambda: daemon.run("show clock").returncode == 0, "the daemon goes on")

    def test_a_client_that_does_not_read_holds_up_nobody(self):
        routes = "".join(f"  mroute 10.0.{i // 200}.{i % 200 + 1} 232.1.1.1\n" for i in range(5000))
        daemon = self.start("vrf red\n" + routes)
        request = struct.pack(">IB", 2 + len("show customer-routes"), 1) + b"\0show customer-routes"
        slow = [self.connect(daemon) for _ in range(2)]
        for client in slow:
            client.sendall(request)
        wait_until(lambda: daemon.listings() == 2, "both views wait")
        self.assertEqual(daemon.run("show clock").returncode, 0)
        self.assertEqual(daemon.run("configure hostname b").returncode, 0)
        self.assertEqual(daemon.listings(), 2)
        slow[0].close()  # ends its view
        wait_until(lambda: daemon.listings() == 1, "the view of the closed connection has ended")
        received = b""
        while not received.endswith(struct.pack(">IBI", 5, 4, 0)):
            part = slow[1].recv(1 << 20)
            self.assertTrue(part)
            received += part
        self.assertEqual(received.count(b"232.1.1.1"), 5000)
        waiting = self.connect(daemon)
        waiting.sendall(request)
        wait_until(lambda: daemon.listings() == 1, "a view waits")
        self.assertEqual(daemon.stop(), 0)


if __name__ == "__main__":
    unittest.main()

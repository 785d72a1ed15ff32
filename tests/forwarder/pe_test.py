#!/usr/bin/env python3
"""Two PEs with real packets: control and forwarding planes, in namespaces that this test makes and removes.

A customer's source behind PE 1 sends numbered datagrams to a receiver behind PE 2. The VRFs' multicast routes are set by
hand, as a routing daemon would set them. Skipped (exit status 77) where namespaces cannot be made.

    pe_test.py FOLDER_OF_THE_PROGRAMS
"""

import ctypes
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from patience import LIMIT, own_address, wait_until  # noqa: E402

PROGRAMS = pathlib.Path(sys.argv[1])
PROJECT = pathlib.Path(__file__).resolve().parent.parent.parent
PREFIX = f"mvpn-{os.getpid()}-"
GROUP, SOURCE, PORT = "232.1.1.1", "192.168.1.10", 5000
CLONE_NEWNET = 0x40000000
LIBC = ctypes.CDLL(None, use_errno=True)
REFLECTOR_AT, *PES_AT = map(own_address, range(3))  # their BGP, not in the namespaces

CONFIG = """
hostname {name}
pim
  ssm range 239.1.0.0/16
forwarding kernel
  socket {folder}/{name}.fwd
interface core0
vrf red
  netns {prefix}{name}red
  table-id 2
  rd 65000:1
  mdt default 239.1.1.1
  mdt data 239.1.8.0/24 threshold 100
bgp
  update-source core0
  local-as 65000
  router-id 10.0.0.{number}
  listen {address}:1790
  neighbor {reflector} remote-as 65000
  neighbor {reflector} port 1790
  neighbor {reflector} connect-retry 1
"""
REFLECTOR = f"""
bgp
  local-as 65000
  router-id 10.0.0.9
  listen {REFLECTOR_AT}:1790
""" + "".join(f"  neighbor {pe} {line}\n" for pe in PES_AT for line in ["remote-as 65000", "passive", "route-reflector-client"])


def ip(*words):
    return subprocess.run(["ip", *words], stderr=subprocess.DEVNULL, check=False).returncode == 0


def possible():
    if os.geteuid() != 0 or not os.path.exists("/dev/net/tun"):
        return False
    name = PREFIX + "try"
    able = ip("netns", "add", name) and ip("-n", name, "link", "add", "try0", "type", "veth", "peer", "name", "try1")
    ip("netns", "del", name)
    return able


def inside(room, work):
    """What `work` returns, called on a thread in a namespace."""
    result = []

    def body():
        with open(f"/run/netns/{PREFIX}{room}") as file:
            if LIBC.setns(file.fileno(), CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), f"cannot enter {room}")
        result.append(work())

    thread = threading.Thread(target=body)
    thread.start()
    thread.join()
    return result[0]


class MulticastRoutes:
    """A namespace's multicast routes, while this lives."""

    INIT, ADD_VIF, ADD_MFC, DEL_MFC = 200, 202, 204, 205

    def __init__(self, room, devices):
        def open_socket():
            sock = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_IGMP)
            sock.setsockopt(socket.IPPROTO_IP, self.INIT, 1)
            for number, device in enumerate(devices):
                vif = struct.pack("HBBIiI", number, 8, 1, 0, socket.if_nametoindex(device), 0)
                sock.setsockopt(socket.IPPROTO_IP, self.ADD_VIF, vif)
            return sock

        self.socket = inside(room, open_socket)

    def add(self, incoming, outgoing):
        ttls = bytearray(32)
        ttls[outgoing] = 1
        route = struct.pack("4s4sH32sxxIIIi", socket.inet_aton(SOURCE), socket.inet_aton(GROUP), incoming, bytes(ttls),
                            0, 0, 0, 0)
        self.socket.setsockopt(socket.IPPROTO_IP, self.ADD_MFC, route)

    def close(self):
        self.socket.close()


class Traffic:
    """Numbered datagrams from one namespace to another, until stop()."""

    def __init__(self, sender, receiver, rate):
        self.numbers = []
        self.sent = 0
        self.running = True
        self.last = None  # number of the last datagram, once there is one, and until when it may take to come
        self.patient_until = None
        self.out = inside(sender, self.open_sender)
        self.into = inside(receiver, self.open_receiver)
        self.threads = [threading.Thread(target=self.send, args=(rate,)), threading.Thread(target=self.receive)]
        for thread in self.threads:
            thread.start()

    @staticmethod
    def open_sender():
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sock.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 16)
        return sock

    @staticmethod
    def open_receiver():
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sock.setsockopt(socket.SOL_SOCKET, 33, 8 << 20)  # SO_RCVBUFFORCE
        sock.bind(("", PORT))
        request = struct.pack("4s4si", socket.inet_aton(GROUP), bytes(4), socket.if_nametoindex("eth0"))
        sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, request)
        sock.settimeout(0.2)
        return sock

    def send(self, rate):
        begin = time.monotonic()
        while self.running:
            while self.sent < (time.monotonic() - begin) * rate:
                self.out.sendto(struct.pack(">I", self.sent) + bytes(196), (GROUP, PORT))
                self.sent += 1
            time.sleep(0.002)

    def receive(self):
        while self.last is None or self.numbers[-1:] != [self.last]:
            try:
                self.numbers.append(struct.unpack(">I", self.into.recv(2048)[:4])[0])
            except TimeoutError:
                if self.last is not None and time.monotonic() > self.patient_until:
                    return

    def stop(self, patience=0):
        """Sends no more; what is under way may take so many seconds to come."""
        self.running = False
        sender, receiver = self.threads
        sender.join()
        self.patient_until = time.monotonic() + patience
        self.last = self.sent - 1
        receiver.join()
        self.out.close()
        self.into.close()


class Pe:
    def __init__(self, name, folder):
        self.name, self.folder, self.address = name, folder, f"10.0.0.{name[-1]}"
        self.config = f"{folder}/{name}.conf"
        pathlib.Path(self.config).write_text(
            CONFIG.format(name=name, number=name[-1], folder=folder, prefix=PREFIX, reflector=REFLECTOR_AT,
                          address=PES_AT[int(name[-1]) - 1]))
        self.log = open(f"{folder}/{name}.log", "w")
        self.forwarder = self.control = None

    def start_forwarder(self):
        self.forwarder = subprocess.Popen(
            [PROGRAMS / "mvpn-forwarder", "--control", f"{self.folder}/{self.name}.fwd", "--core-netns",
             PREFIX + self.name], stderr=self.log)

    def start_control(self, *options):
        self.control = subprocess.Popen(
            [PROGRAMS / "pimhostd", "--config", self.config, "--control", f"{self.folder}/{self.name}.ctl", "--store",
             f"{self.folder}/{self.name}.store", *options], stderr=self.log)

    def ask(self, *words):
        done = subprocess.run([PROGRAMS / "pimctl", "--timeout", str(LIMIT), "--control", f"{self.folder}/{self.name}.ctl",
                               *words], capture_output=True, text=True, check=False)
        return done.stdout

    def ask_json(self, words):
        try:
            return json.loads(self.ask(words + " | json"))
        except json.JSONDecodeError:
            return {}

    def stop(self):
        for process in (self.control, self.forwarder):
            if process is not None and process.poll() is None:
                process.terminate()
                try:
                    process.wait(LIMIT)
                except subprocess.TimeoutExpired:
                    process.kill()
                    process.wait()
        self.log.close()

    def is_up(self):
        return "MTI(mti2) Up\n" in self.ask("show", "mvpn", "mdt")

    def forwards(self, other):
        """Whether the forwarder has the VRF's tunnel up, and has joined the default MDT of another PE."""
        said = self.ask_json("show forwarding")
        return any(vrf["tunnel-up"] for vrf in said.get("forwarding-vrf", [])) and any(
            member["mdt-source"] == other.address and member["joined"] for member in said.get("core-membership", []))

    def flow(self):
        """Index and core group of the customer's flow, as the forwarder has it."""
        text = self.ask("show", "forwarding")
        for line in text.splitlines():
            words = line.split()
            if words[:3] == ["red", SOURCE, GROUP]:
                return words[3], words[4]
        return None


class TwoPes(unittest.TestCase):
    def setUp(self):
        self.routes, self.traffic = [], None
        self.addCleanup(self.remove_rooms)
        self.folder = tempfile.mkdtemp(prefix="mvpn-pe-")
        self.addCleanup(shutil.rmtree, self.folder)
        for room in ("pe1", "pe2", "pe1red", "pe2red", "source", "receiver"):
            self.assertTrue(ip("netns", "add", PREFIX + room))
            ip("-n", PREFIX + room, "link", "set", "lo", "up")
        self.wire("pe1", "core0", "10.0.0.1/24", "pe2", "core0", "10.0.0.2/24")
        self.wire("pe1red", "c1", "192.168.1.1/24", "source", "eth0", "192.168.1.10/24")
        self.wire("pe2red", "c1", "192.168.2.1/24", "receiver", "eth0", "192.168.2.10/24")
        ip("-n", PREFIX + "source", "route", "add", "default", "via", "192.168.1.1")
        config = pathlib.Path(self.folder) / "reflector.conf"
        config.write_text(REFLECTOR)
        self.reflector = subprocess.Popen([PROGRAMS / "mdt-reflector", "--config", config, "--control",
                                           f"{self.folder}/reflector.ctl"], stderr=subprocess.DEVNULL)
        self.addCleanup(self.reflector.wait)
        self.addCleanup(self.reflector.terminate)
        self.pes = [Pe("pe1", self.folder), Pe("pe2", self.folder)]
        for pe in self.pes:
            self.addCleanup(pe.stop)
            pe.start_forwarder()
            pe.start_control()
        for pe in self.pes:
            self.wait_ready(pe)
        self.set_routes("pe1red", ["c1", "mti2"], 0, 1)
        self.set_routes("pe2red", ["c1", "mti2"], 1, 0)

    def wait_ready(self, pe):
        """Until both planes of a PE are ready to carry the customer's packets to or from the other PE."""
        wait_until(pe.is_up, lambda: f"{pe.name} is up: " + pe.ask("show", "mvpn", "mdt"))
        other, = (one for one in self.pes if one is not pe)
        wait_until(lambda: pe.forwards(other), lambda: f"{pe.name} forwards: " + pe.ask("show", "forwarding"))

    def remove_rooms(self):
        if self.traffic is not None:
            self.traffic.stop()
        for routes in self.routes:
            routes.close()
        for room in ("pe1", "pe2", "pe1red", "pe2red", "source", "receiver"):
            ip("netns", "del", PREFIX + room)

    @staticmethod
    def wire(room, device, address, other, other_device, other_address):
        ip("-n", PREFIX + room, "link", "add", device, "type", "veth", "peer", "name", other_device, "netns",
           PREFIX + other)
        for name, end, own in ((room, device, address), (other, other_device, other_address)):
            ip("-n", PREFIX + name, "addr", "add", own, "dev", end)
            ip("-n", PREFIX + name, "link", "set", end, "up")

    def set_routes(self, room, devices, incoming, outgoing):
        if room == "pe2red":
            ip("-n", PREFIX + room, "route", "replace", "192.168.1.0/24", "via", "10.0.0.1", "dev", "mti2", "onlink")
        routes = MulticastRoutes(room, devices)
        routes.add(incoming, outgoing)
        self.routes.append(routes)

    def start_traffic(self):
        self.traffic = Traffic("source", "receiver", 1000)
        wait_until(lambda: len(self.traffic.numbers) > 10, "packets come")

    def wait_flow(self, *expected):
        wait_until(lambda: self.pes[0].flow() == expected, lambda: f"{expected} in " + self.pes[0].ask("show", "forwarding"))

    def switch_over(self):
        """To a data MDT, by the rate between two statistics passes. PE 2 has the usual time to join, hence the real clock."""
        self.pes[0].ask("test", "statistics")
        sent = self.traffic.sent
        wait_until(lambda: self.traffic.sent > sent + 1000, "some rate")
        self.pes[0].ask("test", "statistics")
        self.wait_flow("2", "239.1.8.0")

    def expect_everything_once(self):
        wait_until(lambda: len(self.traffic.numbers) > 1000, "1000 packets")
        self.traffic.stop(LIMIT)
        numbers, sent = self.traffic.numbers, self.traffic.sent
        self.traffic = None
        self.assertEqual(numbers, list(range(numbers[0], sent)), "lost, repeated or out of order")
        self.assertLess(numbers[0], 100)

    def expect_metrics_of_the_forwarder(self):
        """Those that the page lists and the dashboard asks for, with their labels."""
        page = (PROJECT / "docs/metrics.md").read_text()
        listed = {name: sorted(re.findall(r"\w+", labels))
                  for name, labels in re.findall(r"^\| `(mvpn_forward\w+)` \| \w+ \| (.*?) \|", page, re.M)}
        asked = set(re.findall(r"mvpn_forward\w+", (PROJECT / "examples/dashboard.json").read_text()))
        self.assertLessEqual(asked, set(listed))
        shown = dict(re.findall(r"^(mvpn_forward\w+)(?:\{(.*)\})? [1-9]", self.pes[0].ask("show", "metrics"), re.M))
        shown = {name: sorted(re.findall(r'(\w+)="', labels)) for name, labels in shown.items()}
        # Nothing is dropped unless something goes wrong.
        listed.pop("mvpn_forwarding_drops_total")
        shown.pop("mvpn_forwarding_drops_total", None)
        self.assertEqual(shown, listed)

    def test_a_forwarder_that_does_not_answer_holds_up_nobody_else(self):
        pe = self.pes[0]
        # After five seconds the forwarder counts as one that hangs. On a busy machine that may pass meanwhile.
        for _ in range(10):
            pe.forwarder.send_signal(signal.SIGSTOP)
            with subprocess.Popen([PROGRAMS / "pimctl", "--control", f"{self.folder}/pe1.ctl", "show", "forwarding"],
                                  stdout=subprocess.PIPE, text=True) as waiting:
                self.assertIn("Scale", pe.ask("show", "clock"))
                waits = waiting.poll() is None
                pe.forwarder.send_signal(signal.SIGCONT)
                answer = waiting.communicate(timeout=LIMIT)[0]
            if waits and "Core memberships" in answer:
                return
            self.wait_ready(pe)
        self.fail("no answer while the forwarder was waited for: " + answer)

    def test_switchover_and_switchback_lose_nothing(self):
        self.start_traffic()
        self.switch_over()
        self.assertIn("239.1.8.0", self.pes[1].ask("show", "forwarding"))
        self.expect_metrics_of_the_forwarder()
        self.pes[0].ask("configure", "vrf", "red", "no mdt data 239.1.8.0/24")
        self.wait_flow("1", "239.1.1.1")
        self.expect_everything_once()

    def test_a_killed_control_plane_costs_no_packet_and_its_successor_keeps_the_flow(self):
        self.start_traffic()
        self.switch_over()
        pe = self.pes[0]
        pe.control.send_signal(signal.SIGKILL)
        pe.control.wait()
        time.sleep(1)
        pe.start_control("--restart", "stateful")
        seen = set()

        def look(condition, what):
            wait_until(lambda: seen.add(pe.flow()) or condition(), what)

        look(lambda: pe.flow() is not None, "the successor has the flow")
        pe.ask("test", "statistics")
        look(lambda: GROUP in pe.ask("show", "mvpn", "mdt", "send"), "the flow is switched again")
        pe.ask("configure", "clock", "scale", "100")  # four minutes of recovery
        look(lambda: "swept" in pe.ask("show", "forwarding", "events"), "the recovery is over")
        self.assertLessEqual(seen, {None, ("2", "239.1.8.0")})
        self.assertEqual(pe.flow(), ("2", "239.1.8.0"))
        self.expect_everything_once()

    def test_a_vrf_whose_namespace_is_made_anew_is_followed(self):
        self.start_traffic()
        self.routes.pop().close()
        ip("netns", "del", PREFIX + "pe2red")
        wait_until(lambda: not self.pes[1].is_up(), "the VRF is down")
        ip("netns", "add", PREFIX + "pe2red")
        ip("-n", PREFIX + "receiver", "link", "del", "eth0")
        self.wire("pe2red", "c1", "192.168.2.1/24", "receiver", "eth0", "192.168.2.10/24")
        self.wait_ready(self.pes[1])
        self.set_routes("pe2red", ["c1", "mti2"], 1, 0)
        self.traffic.stop()
        self.traffic = None
        self.start_traffic()
        self.expect_everything_once()

    def test_a_vrf_that_is_removed_and_added_carries_again(self):
        self.start_traffic()
        pe = self.pes[0]
        text = pathlib.Path(pe.config).read_text()
        begin, end = text.index("vrf red"), text.index("bgp")
        pathlib.Path(pe.config).write_text(text[:begin] + text[end:])
        pe.control.send_signal(signal.SIGHUP)
        gone = lambda: "mti2" not in subprocess.run(["ip", "-n", PREFIX + "pe1red", "link"], capture_output=True,
                                                    text=True, check=False).stdout
        wait_until(gone, lambda: "the tunnel goes: " + pe.ask("show", "forwarding"))
        pathlib.Path(pe.config).write_text(text)
        pe.control.send_signal(signal.SIGHUP)
        self.wait_ready(pe)
        self.routes.pop(0).close()
        self.set_routes("pe1red", ["c1", "mti2"], 0, 1)
        before = len(self.traffic.numbers)
        wait_until(lambda: len(self.traffic.numbers) > before + 100, "packets come again")
        self.traffic.stop()
        self.traffic = None

    def test_a_forwarder_that_is_started_anew_and_a_pe_that_leaves_the_kernel_for_a_while(self):
        pe = self.pes[1]
        pe.forwarder.kill()
        pe.forwarder.wait()
        self.routes.pop().close()
        pe.start_forwarder()
        wait_until(lambda: pe.forwards(self.pes[0]), lambda: "the new one is told: " + pe.ask("show", "forwarding"))
        self.assertTrue(pe.is_up(), "its control plane noticed nothing")
        pe.ask("configure", "no forwarding kernel")
        self.assertEqual(pe.ask("show", "forwarding"), "")
        pe.ask("configure", "forwarding kernel socket " + f"{self.folder}/pe2.fwd")
        self.wait_ready(pe)
        self.set_routes("pe2red", ["c1", "mti2"], 1, 0)
        self.start_traffic()
        self.expect_everything_once()

    def test_views_are_documents(self):
        self.start_traffic()
        self.switch_over()
        for words in ("show forwarding", "show forwarding vrf red", "show forwarding events", "show customer-routes"):
            self.assertNotEqual(self.pes[0].ask_json(words), {}, words)
        self.assertIn("<", self.pes[0].ask("show forwarding | xml"))


if __name__ == "__main__":
    if not possible():
        print("skipped: namespaces cannot be made here")
        sys.exit(77)
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])

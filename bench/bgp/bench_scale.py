#!/usr/bin/env python3
"""The same routes fed to BIRD and to pimhostd: processor time and memory of a route, side by side.

usage: bench_scale.py BIN_DIR [--routes 100000] [--vrfs 10,1000] [--pes 0] [--rounds 3] [--one-processor] [--dry-run]

One feeder speaks BGP on loopback and announces, then withdraws, so many routes: those of each VRF at each PE, or with
--pes at its share of so many PEs. A PE's routes share their attributes and a message, as a reflector sends them, at most
200 to a message. BIRD, which does not know MDT SAFI, takes each as a VPN-IPv4 route, whose key is the same: a
distinguisher and an address. pimhostd makes a core route from each, sends it to the MRIB and has it acknowledged.

Processor seconds are the process's own clock, all threads, less what it said before the feeder came; an update is over when
that clock has stood for a second. Memory is the growth of the proportional set. Daemons take turns, each in a new process for
each round, and the least of the rounds counts: others may compute on the machine.

With --one-processor each comparison is made once more with daemon and feeder on one processor: there no thread waits for one
that runs on another, which is a large part of what pimhostd takes on a machine with nothing else to do.

How long turns of pimhostd's main loop took is real time, the machine's other work included; the least of the rounds counts.
"""

import argparse
import contextlib
import ipaddress
import math
import os
import pathlib
import re
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests/interop"))
from network import Machine, wait_until  # noqa: E402
from ours import Program  # noqa: E402

AS = 65000
FEEDER, DAEMON = "127.0.0.7", "127.0.0.8"
FIRST_PE, FIRST_GROUP = 0x0B000000, 0xEF010000
ROUTES_A_MESSAGE = 200
PATIENCE = 300  # seconds until everything must be over
MEASURES = ("announce", "withdraw", "memory")


def number(address):
    return int(ipaddress.IPv4Address(address))


# ---------------------------------------------------------------------------------------------------------- messages


def message(kind, body):
    return b"\xff" * 16 + struct.pack("!HB", 19 + len(body), kind) + body


def attribute(flags, kind, body):
    return struct.pack("!BBH", flags | 0x10, kind, len(body)) + body


def update(withdrawn, attributes, announced=b""):
    return message(2, struct.pack("!H", len(withdrawn)) + withdrawn + struct.pack("!H", len(attributes)) + attributes + announced)


KEEPALIVE = message(4, b"")
ORIGIN_PATH_PREFERENCE = attribute(0x40, 1, b"\0") + attribute(0x40, 2, b"") + attribute(0x40, 5, struct.pack("!I", 100))


class Vpn:
    """As a layer 3 VPN has them: a label, the VRF's distinguisher, an address of 32 bits."""

    afi_safi = struct.pack("!HBB", 1, 0, 128)
    LABEL = 3 << 4 | 1  # implicit null; the only label

    @classmethod
    def nlri(cls, vrf, pe):
        return struct.pack("!BBHHHII", 24 + 64 + 32, cls.LABEL >> 16, cls.LABEL & 0xFFFF, 0, AS, vrf, FIRST_PE + pe)

    @staticmethod
    def announce(pe, routes):
        reach = struct.pack("!HBBQI", 1, 128, 12, 0, FIRST_PE + pe) + b"\0" + routes
        return update(b"", ORIGIN_PATH_PREFERENCE + attribute(0x80, 14, reach))

    @staticmethod
    def withdraw(routes):
        return update(b"", attribute(0x80, 15, struct.pack("!HB", 1, 128) + routes))


class MdtSafi:
    """Distinguisher of the VRF, the PE and the VRF's group."""

    afi_safi = struct.pack("!HBB", 1, 0, 66)

    @staticmethod
    def nlri(vrf, pe):
        return struct.pack("!BHHIII", 128, 0, AS, vrf, FIRST_PE + pe, FIRST_GROUP + vrf)

    @staticmethod
    def announce(pe, routes):
        reach = struct.pack("!HBBI", 1, 66, 4, FIRST_PE + pe) + b"\0" + routes
        return update(b"", ORIGIN_PATH_PREFERENCE + attribute(0x80, 14, reach))

    @staticmethod
    def withdraw(routes):
        return update(b"", attribute(0x80, 15, struct.pack("!HB", 1, 66) + routes))


def updates(family, vrfs, pes, shares=1):
    """All announcements and all withdrawals, as octets. A PE has every VRF, or one of so many equal shares of them."""
    announced, withdrawn = bytearray(), bytearray()
    for pe in range(pes):
        own = range(pe % shares, vrfs, shares)
        for first in range(0, len(own), ROUTES_A_MESSAGE):
            routes = b"".join(family.nlri(vrf, pe) for vrf in own[first : first + ROUTES_A_MESSAGE])
            announced += family.announce(pe, routes)
            withdrawn += family.withdraw(routes)
    return bytes(announced), bytes(withdrawn)


class Feeder:
    """A session with a daemon. What comes back is read and not looked at."""

    def __init__(self, stack, port, family):
        self.connection = stack.enter_context(socket.create_connection((DAEMON, port), timeout=PATIENCE,
                                                                       source_address=(FEEDER, 0)))
        capabilities = b"".join(struct.pack("!BB", kind, len(value)) + value
                                for kind, value in ((1, family.afi_safi), (65, struct.pack("!I", AS))))
        options = struct.pack("!BB", 2, len(capabilities)) + capabilities
        self.connection.sendall(message(1, struct.pack("!BHHIB", 4, AS, 90, number(FEEDER), len(options)) + options) + KEEPALIVE)
        self.lock = threading.Lock()
        self.ended = threading.Event()
        stack.callback(self.ended.set)
        threading.Thread(target=self.drain, daemon=True).start()
        threading.Thread(target=self.keep_alive, daemon=True).start()

    def drain(self):
        with contextlib.suppress(OSError):
            while self.connection.recv(65536):
                pass

    def keep_alive(self):
        while not self.ended.wait(20):
            with contextlib.suppress(OSError):
                self.send(KEEPALIVE)

    def send(self, octets):
        with self.lock:
            self.connection.sendall(octets)


# ----------------------------------------------------------------------------------------------------------- daemons


def tool(name):
    """BIRD's programs stand where root's do."""
    return shutil.which(name, path=os.environ["PATH"] + ":/usr/sbin") or sys.exit(f"{name} is missing: scripts/setup installs it")


class Bird:
    name = "BIRD"
    family = Vpn

    def __init__(self, bench, _):
        self.control = bench.folder / "bird.ctl"
        config = bench.folder / "bird.conf"
        config.write_text(f"router id {DAEMON};\nprotocol device {{}}\nvpn4 table core;\nprotocol bgp feeder {{\n"
                          f"  local {DAEMON} port {bench.port} as {AS};\n  neighbor {FEEDER} as {AS};\n"
                          f"  passive;\n  strict bind;\n  vpn4 mpls {{ import all; table core; export none; }};\n}}\n")
        self.process = bench.machine.start("bird", tool("bird"), "-f", "-c", config, "-s", self.control).popen
        wait_until(self.control.exists, "BIRD runs")

    def turns(self):
        return {}

    def routes(self):
        shown = subprocess.run([tool("birdc"), "-s", self.control, "show", "protocols", "all", "feeder"], check=True,
                               capture_output=True, text=True, timeout=PATIENCE).stdout
        found = re.search(r"Routes: +(\d+) imported", shown)
        return int(found.group(1)) if found else 0


class Pimhostd:
    name = "pimhostd"
    family = MdtSafi

    def __init__(self, bench, vrfs):
        text = "hostname pe\ninterface core\n  ip address 10.0.0.1\npim\n  ssm range 239.0.0.0/8\n"
        for vrf in range(vrfs):
            text += f"vrf v{vrf}\n  rd {AS}:{vrf}\n  mdt default {ipaddress.IPv4Address(FIRST_GROUP + vrf)}\n"
        lines = ["update-source core", f"local-as {AS}", f"router-id {DAEMON}", f"listen {DAEMON}:{bench.port}",
                 f"neighbor {FEEDER} remote-as {AS}", f"neighbor {FEEDER} passive"]
        text += "bgp\n" + "".join(f"  {line}\n" for line in lines) + f"metrics listen {DAEMON}:{bench.metrics_port}\n"
        self.metrics = f"http://{DAEMON}:{bench.metrics_port}/metrics"
        self.program = Program(bench.machine, bench.binaries, "pe", text, "pimhostd").start()
        self.process = self.program.process.popen

    def routes(self):
        """Of other PEs, in the MRIB."""
        return sum(group["remote-routes"] for group in self.program.document("core groups").get("core-group", []))

    def turns(self):
        """Of the main loop so far: by a number of milliseconds, those that took no longer."""
        text = urllib.request.urlopen(self.metrics, timeout=PATIENCE).read().decode()
        return {float(bound) * 1e3: int(count) for bound, count in re.findall(r'_turn_seconds_bucket{le="(.+)"} (\d+)', text)}


# ---------------------------------------------------------------------------------------------------------- measuring


class Usage:
    """Processor seconds and memory of a process, and when it rests."""

    def __init__(self, process):
        self.process = process
        self.clock = ~process.pid << 3 | 2  # the process's own, of all its threads

    def seconds(self):
        if self.process.poll() is not None:
            raise SystemExit("the daemon ended")
        return time.clock_gettime(self.clock)

    def octets(self):
        rollup = pathlib.Path(f"/proc/{self.process.pid}/smaps_rollup").read_text()
        return int(re.search(r"^Pss: +(\d+) kB", rollup, re.M).group(1)) * 1024

    def at_rest(self):
        """Waits until the clock has all but stood for a second; what it says."""
        limit = time.monotonic() + PATIENCE
        seconds = self.seconds()
        while time.monotonic() < limit:
            time.sleep(1)
            before, seconds = seconds, self.seconds()
            if seconds - before < 0.002:
                return seconds
        raise SystemExit("the daemon comes to no rest")


class Bench:
    """One process of a daemon, from its start to its end."""

    def __init__(self, stack, binaries, daemon, vrfs):
        self.stack, self.binaries = stack, binaries.resolve()
        self.folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="mvpn-bench-scale-")))
        self.machine = Machine(self, "here", DAEMON)
        with socket.socket() as probe, socket.socket() as another:
            probe.bind((DAEMON, 0))
            another.bind((DAEMON, 0))
            self.port, self.metrics_port = probe.getsockname()[1], another.getsockname()[1]
        self.daemon = daemon(self, vrfs)
        self.usage = Usage(self.daemon.process)

    def run(self, feed, routes):
        """Processor seconds for all announcements and all withdrawals, and octets."""
        announced, withdrawn = feed
        self.usage.at_rest()
        feeder = Feeder(self.stack, self.port, self.daemon.family)
        turns = self.daemon.turns()
        start, octets = self.usage.at_rest(), self.usage.octets()
        feeder.send(announced)
        announce = self.usage.at_rest() - start
        memory = self.usage.octets() - octets
        turns = {bound: count - turns[bound] for bound, count in self.daemon.turns().items()}
        self.expect(routes)
        start = self.usage.at_rest()
        feeder.send(withdrawn)
        withdraw = self.usage.at_rest() - start
        self.expect(0)
        of_turns = {}
        if turns:
            count = turns[math.inf]
            of_turns = {"long turns": 1 - turns[1] / count, "longest": min(bound for bound in turns if turns[bound] == count)}
        return {"announce": announce / routes, "withdraw": withdraw / routes, "memory": memory / routes, **of_turns}

    def expect(self, routes):
        if (found := self.daemon.routes()) != routes:
            raise SystemExit(f"{self.daemon.name} has {found} routes, not {routes}")


def spread(options, vrfs):
    """At how many PEs a VRF is, how many PEs there are, and in how many shares they have the VRFs."""
    pes_of_vrf = options.routes // vrfs
    pes = max(options.pes, pes_of_vrf)
    if pes_of_vrf == 0 or pes % pes_of_vrf != 0 or vrfs % (pes // pes_of_vrf) != 0:
        raise ValueError(f"{vrfs} VRFs cannot each be at {pes_of_vrf} of {pes} PEs evenly")
    return pes_of_vrf, pes, pes // pes_of_vrf


def measure(options, vrfs):
    """The least of each measure for each daemon."""
    pes_of_vrf, pes, shares = spread(options, vrfs)
    feeds = {daemon: updates(daemon.family, vrfs, pes, shares) for daemon in (Bird, Pimhostd)}
    least = {daemon.name: {} for daemon in feeds}
    for _ in range(options.rounds):
        for daemon, feed in feeds.items():
            with contextlib.ExitStack() as stack:
                for name, value in Bench(stack, options.binaries, daemon, vrfs).run(feed, pes_of_vrf * vrfs).items():
                    least[daemon.name][name] = min(value, least[daemon.name].get(name, value))
    return least


def show(vrfs, pes, least, where=""):
    print(f"{vrfs} VRFs of {pes} PEs, a route{where}:          announced   withdrawn      memory")
    for name, of in least.items():
        print(f"  {name:32} {of['announce'] * 1e6:8.2f} µs {of['withdraw'] * 1e6:8.2f} µs {of['memory']:7.0f} octets")
    bird, own = least[Bird.name], least[Pimhostd.name]
    ratios = [own[name] / bird[name] for name in MEASURES]
    print(f"  {'pimhostd beside BIRD':32} {ratios[0]:9.2f} x {ratios[1]:9.2f} x {ratios[2]:9.2f} x")
    print(f"  pimhostd: {1 / own['announce']:,.0f} routes a processor second, BIRD {1 / bird['announce']:,.0f}; "
          f"to withdraw costs {own['withdraw'] / own['announce']:.2f} x to announce")
    print(f"  pimhostd: {own['long turns']:.2%} of the turns of its main loop took more than 1 ms while routes came, "
          f"none more than {own['longest']:g} ms", flush=True)


def compare_on_one_processor(options, vrfs, anywhere):
    """The comparison once more, and what pimhostd takes there beside what it took on all processors."""
    processors = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {min(processors)})  # daemons and the feeder's threads inherit it
    least = measure(options, vrfs)
    os.sched_setaffinity(0, processors)
    show(vrfs, options.routes // vrfs, least, " on one processor")
    one, all_of_them = least[Pimhostd.name], anywhere[Pimhostd.name]
    print(f"  pimhostd beside itself on {len(processors)} processors: announcing {one['announce'] / all_of_them['announce']:.2f} x, "
          f"withdrawing {one['withdraw'] / all_of_them['withdraw']:.2f} x", flush=True)


def between(least, most):
    def read(text):
        if not text.isdecimal() or not least <= int(text) <= most:
            raise argparse.ArgumentTypeError(f"a number from {least} to {most} is wanted, not {text}")
        return int(text)
    return read


def read_options():
    parser = argparse.ArgumentParser(description="The same routes fed to BIRD and to pimhostd.")
    parser.add_argument("binaries", type=pathlib.Path)
    parser.add_argument("--routes", type=between(1, 10**7), default=100000)
    parser.add_argument("--vrfs", type=lambda text: [between(1, 2**16)(number) for number in text.split(",")], default=[10, 1000],
                        help="numbers of VRFs, with commas")
    parser.add_argument("--pes", type=between(0, 2**16), default=0, help="more PEs than a VRF has: each has a share of the VRFs")
    parser.add_argument("--rounds", type=between(1, 100), default=3)
    parser.add_argument("--one-processor", action="store_true", help="compares once more with everything on one processor")
    parser.add_argument("--dry-run", action="store_true", help="reads the options and runs nothing")
    options = parser.parse_args()
    try:
        for vrfs in options.vrfs:
            spread(options, vrfs)
    except ValueError as error:
        parser.error(str(error))
    return options


def main():
    options = read_options()
    if options.dry_run:
        return
    own = []
    for vrfs in options.vrfs:
        least = measure(options, vrfs)
        show(vrfs, options.routes // vrfs, least)
        if options.one_processor:
            compare_on_one_processor(options, vrfs, least)
        own.append((vrfs, least[Pimhostd.name]["announce"]))
    if len(own) > 1:
        print(f"pimhostd with {own[-1][0]} VRFs costs {own[-1][1] / own[0][1]:.2f} x what it does with {own[0][0]}")


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""What a full table costs: 1,000 VRFs of 100 PEs through a reflector to a PE, over sockets.

usage: bench_bgp.py BIN_DIR [--vrfs 1000] [--pes 100]

A feeder announces every route to mdt-reflector on loopback, which sends them to pimhostd, its other client. In one round
the PE only holds the routes; in the other it has all the VRFs, and builds a core route for each. Processor seconds and
memory are what /proc says about a process, less what it said before the feeder came: memory includes what the allocator
keeps of the transfer's buffers, and the PE's seconds include the views that it is asked for meanwhile. At the end the PE's
session begins anew, with the whole table to be sent at once.
"""

import argparse
import contextlib
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests/interop"))
from network import Machine  # noqa: E402
from ours import Program  # noqa: E402

FEEDER, PE, REFLECTOR = "127.0.0.7", "127.0.0.8", "127.0.0.9"
PATIENCE = 300  # seconds until everything must have arrived


class Usage:
    """Processor seconds and resident octets of a process, since it was made."""

    def __init__(self, program):
        self.pid = program.process.popen.pid
        self.cpu, self.memory = self.now()

    def now(self):
        fields = pathlib.Path(f"/proc/{self.pid}/stat").read_text().rsplit(")", 1)[1].split()
        pages = int(pathlib.Path(f"/proc/{self.pid}/statm").read_text().split()[1])
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK"), pages * os.sysconf("SC_PAGE_SIZE")

    def since(self):
        cpu, memory = self.now()
        return cpu - self.cpu, memory - self.memory


class Bench:
    def __init__(self, stack, options, pe_has_vrfs):
        self.stack, self.options = stack, options
        self.folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="mvpn-bench-bgp-")))
        machine = Machine(self, "here", REFLECTOR)
        with socket.socket() as probe:
            probe.bind((REFLECTOR, 0))
            self.port = probe.getsockname()[1]
        self.reflector = Program(machine, options.binaries, "reflector", self.reflector_config()).start()
        self.pe = Program(machine, options.binaries, "pe", self.pe_config(pe_has_vrfs), "pimhostd").start()
        self.pe.wait_for(REFLECTOR)
        time.sleep(2)  # its own start is over

    def reflector_config(self):
        lines = ["local-as 65000", f"router-id {REFLECTOR}", f"listen {REFLECTOR}:{self.port}"]
        for address in (FEEDER, PE):
            lines += [f"neighbor {address} remote-as 65000", f"neighbor {address} passive",
                      f"neighbor {address} route-reflector-client"]
        return "hostname reflector\nbgp\n" + "".join(f"  {line}\n" for line in lines)

    def pe_config(self, has_vrfs):
        text = "hostname pe\ninterface core\n  ip address 10.0.0.1\npim\n  ssm range 239.0.0.0/8\n"
        for number in range(self.options.vrfs if has_vrfs else 0):
            text += f"vrf v{number}\n  rd 65000:{number}\n  mdt default 239.1.{number >> 8}.{number & 255}\n"
        lines = ["update-source core", "local-as 65000", f"router-id {PE}", f"listen {PE}:{self.port}",
                 f"neighbor {REFLECTOR} remote-as 65000", f"neighbor {REFLECTOR} port {self.port}"]
        return text + "bgp\n" + "".join(f"  {line}\n" for line in lines)

    def run(self):
        routes = self.options.vrfs * self.options.pes
        usages = {"reflector": Usage(self.reflector), "PE": Usage(self.pe)}
        before = {name: self.pe.message_count(REFLECTOR, name) for name in ("update", "octets")}
        with subprocess.Popen([str(self.options.binaries / "bench_bgp_feeder"), FEEDER, REFLECTOR, str(self.port),
                               str(self.options.vrfs), str(self.options.pes)],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as feeder:
            self.stack.callback(feeder.kill)
            assert feeder.stdout.readline() == "established\n"
            begun = time.monotonic()
            messages, octets = feeder.stdout.readline().split()[1:]
            print(f"  feeder to reflector   {routes} routes in {messages} messages, {int(octets) / routes:.1f} octets a route; "
                  f"sent after {time.monotonic() - begun:.2f} s")
            self.wait_for_routes(routes, begun + PATIENCE)
            print(f"  all at the PE         after {time.monotonic() - begun:.2f} s")
            self.wait_for_rest(usages)
            after = {name: self.pe.message_count(REFLECTOR, name) - count for name, count in before.items()}
            print(f"  reflector to PE       {after['update']} messages, {after['octets'] / routes:.1f} octets a route")
            for name, usage in usages.items():
                cpu, memory = usage.since()
                print(f"  {name:20}  {cpu:.2f} s of processor, {cpu / routes * 1e6:.1f} µs and {memory / routes:.0f} octets a route")
            self.begin_anew(routes)
            feeder.stdin.close()
            feeder.wait(PATIENCE)

    def begin_anew(self, routes):
        sessions = self.pe.neighbour(REFLECTOR)["established-count"]
        self.pe.run(f"clear bgp neighbor {REFLECTOR}")
        limit = time.monotonic() + PATIENCE
        while time.monotonic() < limit:
            view = self.pe.neighbour(REFLECTOR)
            if view["established-count"] > sessions and view["end-of-rib-received"]:
                assert view["routes-received"] == routes, view
                print(f"  a new session         end-of-RIB at the PE after {float(view['state-age-seconds']):.2f} s")
                return
            time.sleep(0.02)
        raise SystemExit("no end-of-RIB in the new session")

    def wait_for_routes(self, routes, limit):
        while self.pe.neighbour(REFLECTOR)["routes-received"] < routes:
            if time.monotonic() > limit:
                raise SystemExit(f"not every route arrived: {self.pe.neighbour(REFLECTOR)['received']}")
            time.sleep(0.02)

    @staticmethod
    def wait_for_rest(usages):
        """Until nobody works any more: the module takes its routes from a queue."""
        limit = time.monotonic() + PATIENCE
        busy = None
        while busy != (busy := [usage.since()[0] for usage in usages.values()]) and time.monotonic() < limit:
            time.sleep(1)


def main():
    parser = argparse.ArgumentParser(description="A full table through a reflector to a PE.")
    parser.add_argument("binaries", type=pathlib.Path)
    parser.add_argument("--vrfs", type=int, default=1000)
    parser.add_argument("--pes", type=int, default=100)
    options = parser.parse_args()
    for title, pe_has_vrfs in (("a PE without VRFs", False), (f"a PE with {options.vrfs} VRFs", True)):
        print(f"{options.vrfs} VRFs of {options.pes} PEs, {title}:", flush=True)
        with contextlib.ExitStack() as stack:
            Bench(stack, options, pe_has_vrfs).run()


if __name__ == "__main__":
    main()

#!/usr/bin/python3
"""Neighbours that come and go at random.  usage: churn.py BIN_DIR [--seconds 120] [--peers 20] [--seed N]

A reflector and a PE, which is its client, with a crowd of scripted neighbours on loopback: they open, announce, withdraw, ask
for a refresh, restart gracefully, say something broken, leave in order or without a word. At the end the table must be what
the survivors announced, in the reflector and in the PE, and both programs must end in order and without a word from a
sanitizer. Two minutes of it are for builds with sanitizers; the tests run a short piece.
"""

import argparse
import contextlib
import pathlib
import random
import signal
import struct
import sys
import tempfile
import threading
import time

from network import SKIPPED, Machine, wait_until
from ours import Program
from patience import LIMIT, own_address

try:
    import scapy_peer as peer
    from scapy.contrib.bgp import BGPCapFourBytesASN, BGPCapGeneric, BGPCapMultiprotocol
except ImportError as error:
    print(f"skipped: {error}")
    sys.exit(SKIPPED)

REFLECTOR, PE, PORT = own_address(), own_address(1), 1790
KEYS = 40  # routes that a neighbour picks from; neighbours share half of them
COMPLAINTS = ("AddressSanitizer", "ThreadSanitizer", "LeakSanitizer", "runtime error")


class Crowd:
    def __init__(self, stack, options):
        self.stack = stack
        self.options = options
        self.folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="mvpn-churn-")))
        machine = Machine(self, "here", REFLECTOR)
        addresses = [f"127.0.1.{number + 1}" for number in range(options.peers)]
        self.reflector = Program(machine, options.binaries, "reflector", self.reflector_config(addresses)).start()
        self.pe = Program(machine, options.binaries, "pe", self.pe_config(), "pimhostd").start()
        self.pe.wait_for(REFLECTOR)
        self.members = [Member(self, address, options.seed + number) for number, address in enumerate(addresses)]
        self.ends = 0

    def reflector_config(self, addresses):
        lines = [f"local-as 65000", "router-id 10.0.0.9", f"listen {REFLECTOR}:{PORT}", "restart-time 2"]
        for address in [*addresses, PE]:
            lines += [f"neighbor {address} remote-as 65000", f"neighbor {address} passive",
                      f"neighbor {address} route-reflector-client", f"neighbor {address} maximum-prefix 1000 restart 1"]
        return "hostname reflector\nbgp\n" + "".join(f"  {line}\n" for line in lines)

    def pe_config(self):
        lines = ["local-as 65000", "router-id 10.0.0.8", f"listen {PE}:{PORT}",
                 *[f"neighbor {REFLECTOR} {line}" for line in ("remote-as 65000", f"port {PORT}", "connect-retry 1")]]
        return "hostname pe\nbgp\n" + "".join(f"  {line}\n" for line in lines)

    def run(self):
        end = time.monotonic() + self.options.seconds
        failed = []
        threading.excepthook = failed.append
        threads = [threading.Thread(target=member.live, args=(end,), daemon=True) for member in self.members]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(self.options.seconds + LIMIT)
            assert not thread.is_alive(), "a neighbour did not come to its end"
        assert not failed, f"a neighbour failed: {[str(one.exc_value) for one in failed]}"
        expected = {}
        for member in self.members:
            for key in member.routes:
                expected.setdefault((f"65000:{key[0][1]}", key[1]), set()).add(member.address)
        found = lambda: self.paths(self.reflector)
        wait_until(lambda: found() == expected, lambda: f"the survivors' routes: {self.differences(found(), expected)}")
        wait_until(lambda: set(self.paths(self.pe)) == set(expected),
                   lambda: f"the PE's routes: {set(self.paths(self.pe)) ^ set(expected)}")
        return sum(len(routes) for routes in expected.values()), sum(member.sessions for member in self.members)

    @staticmethod
    def paths(program):
        found = {}
        for rd, source, neighbour in program.paths():
            found.setdefault((rd, source), set()).add(neighbour)
        return found

    @staticmethod
    def differences(found, expected):
        return {key: (found.get(key), expected.get(key)) for key in {*found, *expected} if found.get(key) != expected.get(key)}

    def end(self):
        for program in (self.pe, self.reflector):
            status = program.process.end(signal.SIGTERM)
            assert status == 0, f"{program.name} ended with {status}: {program.process.text()[-3000:]}"
            complaints = [line for line in program.process.text().splitlines() if any(word in line for word in COMPLAINTS)]
            assert not complaints, f"{program.name}: {complaints[:5]}"


class Member:
    """A neighbour with several lives."""

    def __init__(self, crowd, address, seed):
        self.crowd = crowd
        self.address = address
        self.random = random.Random(seed)
        self.peer = None
        self.routes = set()
        self.sessions = 0

    def live(self, end):
        while time.monotonic() < end:
            self.open()
            for _ in range(self.random.randrange(20)):
                if time.monotonic() > end or not self.peer.established():
                    break
                self.act()
                time.sleep(self.random.random() * 0.1)
            if time.monotonic() < end - 1:
                self.leave()
                time.sleep(self.random.random() * 0.3)
        if self.peer is None or not self.peer.established():
            self.open()

    def open(self):
        self.routes = set()
        limit = time.monotonic() + LIMIT / 2
        while True:
            self.peer = peer.Peer(self.address, (REFLECTOR, PORT), hold_time=self.random.choice([9, 30, 90]),
                                  capabilities=self.capabilities())
            try:
                self.peer.establish()
                break
            except AssertionError:  # refused: after failures a speaker rests longer and longer, unless it is cleared
                self.peer.close()
                if time.monotonic() > limit:
                    raise
                self.crowd.reflector.run(f"clear bgp neighbor {self.address}")
                time.sleep(0.3)
        self.sessions += 1
        self.announce(self.some())
        self.peer.send(peer.update([peer.attribute(peer.OPTIONAL, peer.MP_UNREACH, peer.MDT)]))

    def capabilities(self):
        offered = [BGPCapMultiprotocol(afi=1, safi=66), BGPCapFourBytesASN(asn=65000)]
        if self.random.random() < 0.7:
            offered.append(BGPCapGeneric(code=2, length=0, cap_data=b""))
        if self.random.random() < 0.5:
            value = struct.pack(">HHBB", (8 if self.sessions else 0) << 12 | 2, 1, 66, 0x80)
            offered.append(BGPCapGeneric(code=64, length=len(value), cap_data=value))
        return offered

    def some(self):
        own = int(self.address.rsplit(".", 1)[1]) * 1000
        return [((65000, number if number < KEYS // 2 else own + number), "10.1.0.1", f"239.1.{self.random.randrange(4)}.1")
                for number in self.random.sample(range(KEYS), self.random.randrange(1, KEYS))]

    def announce(self, routes):
        self.peer.send(peer.announcement(routes, "10.1.0.1"))
        self.routes |= {route[:2] for route in routes}

    def act(self):
        kind = self.random.random()
        if kind < 0.5:
            self.announce(self.some())
        elif kind < 0.9:
            routes = self.some()
            self.peer.send(peer.withdrawal(routes))
            self.routes -= {route[:2] for route in routes}
        else:
            self.peer.send(peer.refresh())

    def leave(self):
        kind = self.random.random()
        if kind < 0.3:
            self.peer.cease()
        elif kind < 0.5:
            octets = bytearray(peer.announcement(self.some(), "10.1.0.1"))
            octets[self.random.randrange(len(octets))] ^= 1 << self.random.randrange(8)
            self.peer.send(bytes(octets))
            time.sleep(0.1)
            self.peer.close()
        else:
            self.peer.close()


def main():
    parser = argparse.ArgumentParser(description="Neighbours that come and go at random.")
    parser.add_argument("binaries")
    parser.add_argument("--seconds", type=float, default=120)
    parser.add_argument("--peers", type=int, default=20)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    options = parser.parse_args()
    print(f"churn: {options.peers} neighbours, {options.seconds:.0f} s, seed {options.seed}", flush=True)
    with contextlib.ExitStack() as stack:
        crowd = Crowd(stack, options)
        paths, sessions = crowd.run()
        crowd.end()
    print(f"churn: {sessions} sessions; {paths} paths of the survivors are in both tables")


if __name__ == "__main__":
    main()

"""Our own programs in tests: a reflector, a PE, and what they answer."""

import json
import os
import pathlib
import subprocess

from network import LIMIT, wait_until

HERE = pathlib.Path(__file__).resolve().parent
SANITIZER = {"LSAN_OPTIONS": f"suppressions={HERE.parent / 'host/lsan.supp'}:print_suppressions=0"}


class Program:
    """One of the daemons on a machine, with a configuration file that can be changed."""

    def __init__(self, machine, binaries, name, config, program="mdt-reflector", options=()):
        self.machine = machine
        self.binaries = pathlib.Path(binaries)
        self.name = name
        self.program = program
        self.options = options
        self.socket = machine.folder / f"{name}.sock"
        self.file = machine.folder / f"{name}.conf"
        self.process = None
        self.write(config)

    def write(self, config):
        self.file.write_text(config)

    def start(self, *more):
        self.process = self.machine.start(self.name, self.binaries / self.program, "--config", self.file, "--control",
                                          self.socket, *self.options, *more, env={**SANITIZER, **os.environ})
        wait_until(lambda: not self.process.running() or self.run("show bgp summary").returncode == 0,
                   f"{self.name} answers")
        if not self.process.running():
            raise AssertionError(self.process.text())
        return self

    def run(self, line):
        return subprocess.run([self.binaries / "pimctl", "--timeout", str(LIMIT), "--control", self.socket, *line.split()],
                              capture_output=True, text=True, timeout=LIMIT, env={**SANITIZER, **os.environ})

    def show(self, line):
        result = self.run("show " + line)
        if result.returncode != 0:
            raise AssertionError(f"{line}: {result.stderr}")
        return result.stdout

    def document(self, line):
        return json.loads(self.show(line + " | json"))

    def neighbour(self, address):
        return self.document(f"bgp neighbor {address}")["bgp-neighbor"][0]

    def state(self, address):
        return self.neighbour(address)["state"]

    def established(self, address):
        return self.state(address) == "Established"

    def message_count(self, address, kind, direction="in"):
        return next(one[direction] for one in self.neighbour(address)["messages"] if one["type"] == kind)

    def paths(self):
        """{(rd, source, neighbour): the path's record}; the neighbour of an own route is None."""
        return {(path["route-distinguisher"], path["pe-address"], path.get("neighbor")): path
                for path in self.document("bgp mdt detail")["mdt-safi-entry"]}

    def wait_for(self, address, state="Established"):
        wait_until(lambda: self.state(address) == state,
                   lambda: f"{self.name}: {address} is {state}: {self.neighbour(address)}\n{self.process.text()[-2000:]}")

    def wait_for_log(self, text):
        wait_until(lambda: text in self.process.text(), lambda: f"{text} in\n{self.process.text()[-3000:]}")

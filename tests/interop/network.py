"""Networks of namespaces for tests, of which nothing is left behind.

A test that needs machines of its own runs itself again as the first process of a PID namespace, inside a network
namespace: when that process ends, however it does, the kernel ends everything that was started in it, and what has no
process left has no namespace left. A machine of the test is one more network namespace that a sleeping process holds;
it hangs on a bridge of the first one, so all machines see each other and nothing else.

Root is not needed where users may make namespaces. Where they may not, the test is skipped.
"""

import contextlib
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from patience import LIMIT, wait_until  # noqa: E402

SKIPPED = 77  # exit status that ctest counts as skipped

INSIDE = "MVPN_TEST_INSIDE_NAMESPACES"


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(SKIPPED)


def enter_namespaces():
    """Goes on in namespaces of its own, or ends the process as skipped."""
    if os.environ.get(INSIDE):
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        # Programs that write beside what they were told to leave nothing behind either.
        subprocess.run(["mount", "-t", "tmpfs", "scratch", "/var/tmp"], check=True)
        return
    command = ["unshare", "--net", "--mount", "--pid", "--fork", "--kill-child=KILL", "--mount-proc"]
    if os.getuid() != 0:
        command += ["--user", "--map-root-user"]
    try:
        probe = subprocess.run([*command, "ip", "link", "add", "probe", "type", "bridge"], capture_output=True, text=True)
    except FileNotFoundError as error:
        skip(f"{error.filename} is not installed")
    if probe.returncode != 0:
        skip(f"no rights to make network namespaces: {probe.stderr.strip()}")
    with subprocess.Popen([*command, sys.executable, *sys.argv], env={**os.environ, INSIDE: "1"}) as inside:
        try:
            sys.exit(inside.wait())
        finally:
            inside.kill()


class Process:
    """A program that writes to a log, in a machine; ended with everything that it started."""

    def __init__(self, machine, name, command, env=None):
        self.log = machine.folder / f"{name}.log"
        with self.log.open("a") as log:
            self.popen = subprocess.Popen([*machine.prefix, *map(str, command)], stdin=subprocess.DEVNULL, stdout=log,
                                          stderr=log, env={**os.environ, **(env or {})}, cwd=machine.folder,
                                          start_new_session=True)

    def running(self):
        return self.popen.poll() is None

    def text(self):
        return self.log.read_text(errors="replace")

    def end(self, number=signal.SIGTERM):
        """Its exit status; None when it had to be killed."""
        if self.running():
            os.killpg(self.popen.pid, number)
        try:
            return self.popen.wait(LIMIT)
        except subprocess.TimeoutExpired:
            return None
        finally:
            self.kill()

    def kill(self):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.popen.pid, signal.SIGKILL)
        self.popen.wait(LIMIT)


class Machine:
    """A network namespace with a folder; `address` is on its link to the others. The first machine is the test's own."""

    def __init__(self, network, name, address, holder=None):
        self.network = network
        self.name = name
        self.address = address
        self.folder = network.folder / name
        self.folder.mkdir()
        self.holder = holder
        self.prefix = [] if holder is None else ["nsenter", "-t", str(holder.pid), "-n", "--"]

    def run(self, *command, check=True):
        return subprocess.run([*self.prefix, *map(str, command)], capture_output=True, text=True, timeout=LIMIT,
                              check=check, cwd=self.folder)

    def start(self, name, *command, env=None):
        process = Process(self, name, command, env)
        self.network.stack.callback(process.kill)
        return process


class Network:
    """Machines on one bridge, 10.77.0.0/24; 10.77.0.1 is the test's own."""

    def __init__(self, stack):
        self.stack = stack
        self.folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="mvpn-interop-")))
        self.machines = {}
        self.ip("link", "add", "core", "type", "bridge")
        stack.callback(self.ip, "link", "del", "core")
        self.ip("link", "set", "core", "up")
        self.ip("address", "add", "10.77.0.1/24", "dev", "core")
        self.here = Machine(self, "here", "10.77.0.1")

    @staticmethod
    def ip(*command):
        subprocess.run(["ip", *command], check=True)

    def machine(self, name):
        address = f"10.77.0.{len(self.machines) + 2}"
        holder = subprocess.Popen(["unshare", "--net", "sleep", "infinity"])
        self.stack.callback(holder.wait)
        self.stack.callback(holder.kill)
        own = os.readlink("/proc/self/ns/net")
        wait_until(lambda: os.readlink(f"/proc/{holder.pid}/ns/net") != own, "a namespace is made")
        machine = Machine(self, name, address, holder)
        link = f"to-{name}"[:15]
        self.ip("link", "add", link, "type", "veth", "peer", "name", "eth0", "netns", str(holder.pid))
        self.stack.callback(subprocess.run, ["ip", "link", "del", link], capture_output=True)  # may be gone already
        self.ip("link", "set", link, "master", "core", "up")
        for command in ["link set lo up", f"address add {address}/24 dev eth0", "link set eth0 up"]:
            machine.run("ip", *command.split())
        self.machines[name] = machine
        return machine


def found(pattern, text):
    return re.search(pattern, text, re.M) is not None

"""BGP speakers that others wrote, each behind the same few actions.

They run in the foreground on a machine of the test, with a configuration and sockets in its folder. `Session` says what
the test wants of the one session that each of them has; a speaker's class says it in that program's words.
"""

import dataclasses
import json
import re
import shutil

from network import found, wait_until


@dataclasses.dataclass
class Session:
    neighbour: str  # address of our speaker
    local_as: int = 65000
    remote_as: int = 65000
    password: str = ""
    hold_time: int = 9  # seconds; keepalives go out each third of it


class Speaker:
    """A speaker on a machine; its session is tried at once and again and again."""

    program = ""
    sends_shutdown_text = False
    lives_without_common_family = True
    announces = True  # 192.0.2.0/24
    asks_for_refresh = True
    says_that_it_is_down = True  # in what established() reads

    @classmethod
    def missing(cls):
        return None if shutil.which(cls.program) else f"{cls.program} is not installed"

    def __init__(self, machine, session):
        self.machine = machine
        self.session = session
        self.process = None
        self.start()

    def start(self):
        self.write_config()
        self.process = self.machine.start(type(self).__name__.lower(), *self.command(), env=self.environment())

    def configure(self, session):
        """Starts again with another session."""
        self.stop()
        self.session = session
        self.start()

    def stop(self):
        self.process.end()

    def crash(self):
        self.process.kill()

    def environment(self):
        return {}

    def file(self, name, text=None):
        path = self.machine.folder / name
        if text is not None:
            path.write_text(text)
        return path


class Bird(Speaker):
    program = "bird"
    lives_without_common_family = False
    sends_shutdown_text = True

    def write_config(self):
        session = self.session
        password = f'password "{session.password}";' if session.password else ""
        self.file("bird.conf", f"""
            router id {self.machine.address};
            protocol device {{ }}
            protocol static {{ ipv4; route 192.0.2.0/24 blackhole; }}
            protocol bgp session_1 {{
                local {self.machine.address} as {session.local_as};
                neighbor {session.neighbour} as {session.remote_as};
                hold time {session.hold_time};
                connect delay time 1; connect retry time 1; error wait time 1, 1;
                graceful restart on; {password}
                ipv4 {{ import all; export all; }};
            }}""")

    def command(self):
        return ["bird", "-f", "-c", self.file("bird.conf"), "-s", self.file("bird.ctl"), "-P", self.file("bird.pid")]

    def control(self, *words):
        return self.machine.run("birdc", "-s", self.file("bird.ctl"), *words, check=False).stdout

    def established(self):
        return found(r"BGP state: +Established", self.control("show", "protocols", "all", "session_1"))

    def shut_down(self, text):
        self.control("disable", "session_1", f'"{text}"')

    def bring_up(self):
        self.control("enable", "session_1")

    def refresh(self):
        self.control("reload", "in", "session_1")


class Frr(Speaker):
    program = "/usr/lib/frr/bgpd"
    sends_shutdown_text = True

    def write_config(self):
        session = self.session
        us = f" neighbor {session.neighbour}"
        password = f"{us} password {session.password}\n" if session.password else ""
        self.file("bgpd.conf", f"router bgp {session.local_as}\n bgp router-id {self.machine.address}\n"
                  f" no bgp ebgp-requires-policy\n no bgp network import-check\n bgp graceful-restart\n"
                  f"{us} remote-as {session.remote_as}\n{us} timers {session.hold_time // 3} {session.hold_time}\n"
                  f"{us} timers connect 1\n{us} ebgp-multihop 2\n{us} override-capability\n"
                  f"{us} advertisement-interval 0\n{password}"
                  f" address-family ipv4 unicast\n  network 192.0.2.0/24\n")

    def command(self):
        return [self.program, "-Z", "-S", "-f", self.file("bgpd.conf"), "-i", self.file("bgpd.pid"), "--vty_socket",
                self.machine.folder, "-P", "0", "-l", self.machine.address, "--log", "stdout", "--log-level", "debug"]

    def control(self, *lines):
        commands = [word for line in lines for word in ("-c", line)]
        return self.machine.run("vtysh", "--vty_socket", self.machine.folder, *commands, check=False).stdout

    def established(self):
        return found(r"BGP state = Established", self.control(f"show bgp neighbors {self.session.neighbour}"))

    def shut_down(self, text):
        self.control("configure", f"router bgp {self.session.local_as}",
                     f"neighbor {self.session.neighbour} shutdown message {text}")

    def bring_up(self):
        self.control("configure", f"router bgp {self.session.local_as}", f"no neighbor {self.session.neighbour} shutdown")

    def refresh(self):
        self.control(f"clear bgp ipv4 unicast {self.session.neighbour} in")


class Gobgp(Speaker):
    program = "gobgpd"
    announces = False
    asks_for_refresh = False  # its soft reset uses what it has kept

    def write_config(self):
        session = self.session
        password = f'auth-password = "{session.password}"' if session.password else ""
        self.file("gobgp.toml", f"""
            [global.config]
              as = {session.local_as}
              router-id = "{self.machine.address}"
              local-address-list = ["{self.machine.address}"]
            [[neighbors]]
              [neighbors.config]
                neighbor-address = "{session.neighbour}"
                peer-as = {session.remote_as}
                {password}
              [neighbors.timers.config]
                hold-time = {session.hold_time}
                keepalive-interval = {session.hold_time // 3}
                connect-retry = 1
                idle-hold-time-after-reset = 1""")

    def command(self):
        return ["gobgpd", "-f", self.file("gobgp.toml"), "--api-hosts", "127.0.0.1:50051", "--pprof-disable", "-p"]

    def control(self, *words):
        return self.machine.run("gobgp", "-u", "127.0.0.1", "-p", "50051", *words, check=False).stdout

    def established(self):
        try:
            neighbours = json.loads(self.control("-j", "neighbor"))
        except ValueError:
            return False
        return isinstance(neighbours, list) and any(one["state"].get("session_state") == 6 for one in neighbours)

    def shut_down(self, text):
        self.control("neighbor", self.session.neighbour, "disable", "--reason", text)

    def bring_up(self):
        self.control("neighbor", self.session.neighbour, "enable")

    def refresh(self):
        self.control("neighbor", self.session.neighbour, "softresetin")


class Exabgp(Speaker):
    """Takes its orders from a process that it starts: one that follows a file."""

    program = "exabgp"
    says_that_it_is_down = False

    def write_config(self):
        session = self.session
        password = f"md5-password '{session.password}';" if session.password else ""
        orders = self.file("orders", "")
        self.file("exabgp.conf", f"""
            process orders {{ run /usr/bin/tail -n +1 -f {orders}; encoder text; }}
            neighbor {session.neighbour} {{
                router-id {self.machine.address}; local-address {self.machine.address};
                local-as {session.local_as}; peer-as {session.remote_as}; hold-time {session.hold_time};
                {password}
                capability {{ route-refresh enable; }}
                family {{ ipv4 unicast; }}
                api {{ processes [ orders ]; }}
                static {{ route 192.0.2.0/24 next-hop self; }}
            }}""")

    def command(self):
        return ["exabgp", self.file("exabgp.conf")]

    def environment(self):
        settings = {"daemon.user": "root", "daemon.drop": "false", "tcp.bind": self.machine.address, "tcp.delay": "0",
                    "log.destination": "stdout", "api.ack": "false", "api.cli": "false", "cache.attributes": "false"}
        return {f"exabgp.{name}": value for name, value in settings.items()}

    def order(self, line):
        with self.file("orders").open("a") as orders:
            orders.write(line + "\n")

    def established(self):
        """From its log, the only place where it says so."""
        events = re.findall(r"connected to peer-\d+|peer-\d+ +reset|down|loop", self.process.text())
        changes = [event for event in events if event.startswith("connected") or "reset" in event]
        return bool(changes) and changes[-1].startswith("connected")

    def shut_down(self, text):
        self.order(f"neighbor {self.session.neighbour} teardown 2")

    def bring_up(self):
        pass  # it tries again by itself

    def refresh(self):
        self.order(f"neighbor {self.session.neighbour} announce route-refresh ipv4 unicast")


SPEAKERS = {"bird": Bird, "frr": Frr, "gobgp": Gobgp, "exabgp": Exabgp}

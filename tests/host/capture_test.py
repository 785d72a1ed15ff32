"""Captures of a running pimhostd: started, appended to, rotated and stopped by commands, and read by another program.

usage: capture_test.py BIN_DIR
"""

import pathlib
import shutil
import struct
import subprocess
import tempfile
import unittest

from programs_test import EXAMPLES, Daemon
from patience import own_address, wait_until

CORE = f"core\n  carrier gre-udp listen {own_address()}:17571\n  peer {own_address(1)}:17571\n"
FLOW = "  mroute 192.168.1.5 232.1.1.1 iif red-lan rpf 192.168.1.5 oif mvpn rate 500\n"


def packets(path):
    """The datagrams of a pcap file, whole."""
    data, at, found = path.read_bytes(), 24, []
    assert struct.unpack("<IHHIIII", data[:24])[6] == 101  # IPv4 without a link layer
    while at < len(data):
        size = struct.unpack("<IIII", data[at:at + 16])[2]
        found.append(data[at + 16:at + 16 + size])
        at += 16 + size
    return found


class Captures(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="ct")))
        config = self.folder / "pe.conf"
        text = (EXAMPLES / "two-vrfs.conf").read_text() + CORE
        config.write_text(text.replace("  rd 65000:1\n", "  rd 65000:1\n" + FLOW))
        self.daemon = Daemon(self.folder, config, "--clock-scale", "20")
        self.addCleanup(self.daemon.stop)
        self.daemon.wait_for_example()

    def command(self, line):
        result = self.daemon.run(line)
        return result.returncode, result.stdout + result.stderr

    def join(self, path, more_than=0):
        """Has the daemon announce its data MDT; until the file has another packet."""
        def announced():
            self.command("test statistics")
            return len(packets(path)) > more_than
        wait_until(announced, "a packet in the file")

    def test_commands(self):
        path = self.folder / "core.pcap"
        self.assertEqual(self.command("capture stop"), (1, "there is no capture\n"))
        self.assertEqual(self.command("capture start /nowhere/at/all")[0], 1)
        self.assertEqual(self.command(f"capture start {path}"), (0, ""))
        self.join(path)
        status, said = self.command("capture rotate")
        kept = pathlib.Path(said.split()[-1])
        self.assertEqual(status, 0)
        self.assertEqual(said, f"{len(packets(kept))} packets in {kept}\n")
        self.assertEqual(packets(path)[:1], [])
        self.join(path)
        self.assertEqual(self.command("capture stop")[0], 0)
        before = packets(path)
        self.assertEqual(self.command(f"capture start {path} append"), (0, ""))
        self.join(path, len(before))
        self.assertEqual(packets(path)[:len(before)], before)
        self.assertEqual(self.command(f"capture start {path}"), (0, ""))
        self.assertLess(len(packets(path)), len(before) + 1)
        for datagram in packets(kept):
            self.assertEqual(struct.unpack("!H", datagram[22:24])[0], 4754)  # whatever port the carrier has

    def test_another_program_decodes_them(self):
        if shutil.which("tshark") is None:
            self.skipTest("no tshark")
        path = self.folder / "core.pcap"
        self.assertEqual(self.command(f"capture start {path}"), (0, ""))
        self.join(path)
        self.command("capture stop")
        read = subprocess.run(["tshark", "-X", f"lua_script:{EXAMPLES}/data-mdt-join.lua", "-r", path, "-Y",
                               "data_mdt_join", "-T", "fields", "-e", "frame.protocols", "-e", "data_mdt_join.source",
                               "-e", "data_mdt_join.group", "-e", "data_mdt_join.data_group", "-e", "_ws.expert"],
                              capture_output=True, text=True, timeout=60)
        first = read.stdout.splitlines()[0].split("\t")
        self.assertEqual(first[0], "raw:ip:udp:gre:ip:gre:ip:udp:data_mdt_join")
        self.assertEqual(first[1:3], ["192.168.1.5", "232.1.1.1"])
        self.assertRegex(first[3], r"^239\.1\.8\.\d+$")
        self.assertEqual(first[4:], [""])


if __name__ == "__main__":
    unittest.main()

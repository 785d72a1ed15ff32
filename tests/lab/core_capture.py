#!/usr/bin/env python3
"""What a packet analyser says of a core's capture: nothing. Skipped (exit status 77) without tshark or the capture.

    core_capture.py CAPTURE

Only core packets are asked about, with every checksum verified; BGP between PEs and reflector uses an address family that
analysers do not know. That the analyser would have spoken is tried with a damaged copy.
"""

import pathlib
import shutil
import subprocess
import sys
import tempfile

CHECKSUMS = ["-o", "ip.check_checksum:TRUE", "-o", "udp.check_checksum:TRUE"]


def frames(capture, which):
    result = subprocess.run(["tshark", "-r", capture, *CHECKSUMS, "-Y", which, "-T", "fields", "-e", "frame.number",
                             "-e", "_ws.expert.message"], capture_output=True, text=True, check=True, timeout=120)
    return result.stdout.splitlines()


def damaged(capture, folder):
    """A copy whose first core packet has another time to live than its checksum says."""
    content = bytearray(capture.read_bytes())
    outer = b"\x08\x00\x45"  # Ethernet's type, then IPv4 without options
    at = content.index(outer)
    while content[at + 2 + 9] != 47:
        at = content.index(outer, at + 1)
    content[at + 2 + 8] ^= 1
    copy = pathlib.Path(folder) / "damaged.pcap"
    copy.write_bytes(content)
    return copy


def main():
    capture = pathlib.Path(sys.argv[1])
    if shutil.which("tshark") is None:
        print("skipped: tshark is not installed")
        return 77
    if not capture.exists():
        print(f"skipped: there is no {capture}; the scenario was skipped")
        return 77
    faults = []
    core = len(frames(capture, "gre"))
    joins = len(frames(capture, "gre && udp.dstport == 3232 && ip.dst == 224.0.0.13 && udp.length == 24"))
    if core < 1000 or joins == 0:
        faults.append(f"{core} core packets and {joins} Joins: the scenario has not played")
    faults += [f"frame {remark}" for remark in frames(capture, "gre && _ws.expert")[:20]]
    with tempfile.TemporaryDirectory() as folder:
        if not frames(damaged(capture, folder), "gre && _ws.expert"):
            faults.append("the analyser overlooks a wrong checksum")
    print(f"{core} core packets, {joins} of them Joins")
    for fault in faults:
        print(f"WRONG {fault}")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())

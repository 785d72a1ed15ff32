"""Plays docs/linux.md: every command of its shell blocks in one shell, and a look at what they print.

Needs root and the routing daemons; exit status 77 without them, or when a namespace of the page's names is there already.
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

root = pathlib.Path(__file__).resolve().parent.parent.parent
NAMES = ["core", "pe1", "pe2", "red1", "red2", "host1", "host2"]
LIMIT = 900  # seconds


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)


def check_place():
    if os.geteuid() != 0:
        skip("only root may make network namespaces")
    if not pathlib.Path("/usr/lib/frr/pimd").exists():
        skip("frr is not installed")
    if any(pathlib.Path("/run/netns", name).exists() for name in NAMES):
        skip("the page's namespaces are in use")


def sections():
    """The page's shell blocks by the number of their section, without those that install and build."""
    page = (root / "docs/linux.md").read_text()
    found = {}
    for part in re.split(r"^## ", page, flags=re.M)[1:]:
        number = re.match(r"(\d+)\.", part)
        blocks = re.findall(r"^```sh\n(.*?)^```", part, flags=re.M | re.S)
        if number and blocks:
            found[int(number.group(1))] = [block for block in blocks if "scripts/" not in block]
    return found


def clean_up():
    for name in NAMES:
        subprocess.run(f"ip netns pids {name} | xargs -r kill -9; ip netns del {name}", shell=True, check=False,
                       stderr=subprocess.DEVNULL)
    subprocess.run("rm -rf /etc/frr/red[12] /var/run/frr/red[12] /tmp/mvpn-by-hand", shell=True, check=False)


def play(binaries):
    text = ""
    for number, blocks in sorted(sections().items()):
        text += f"echo '@{number}'\n" + "".join(blocks)
    text = text.replace("$PWD/build/release/bin", binaries)
    # A file, not a pipe: what the shell leaves in the background may hold it open.
    with tempfile.TemporaryFile("w+") as output:
        try:
            subprocess.run(["bash", "-c", text], cwd=root, timeout=LIMIT, stdin=subprocess.DEVNULL, stdout=output,
                           stderr=subprocess.STDOUT, check=False)
        finally:
            clean_up()
        output.seek(0)
        printed = output.read()
    parts = re.split(r"^@(\d+)$", printed, flags=re.M)
    return {int(parts[i]): parts[i + 1] for i in range(1, len(parts), 2)}


def records(text):
    return [json.loads(line) for line in text.splitlines() if line.startswith("{")]


def faults(said):
    received = [item for item in records(said[6]) if "received" in item]
    if not received or received[-1]["received"] < 150 or received[-1]["duplicates"]:
        yield f"6: the stream does not arrive: {received}"
    for section, pattern in [(5, r"MTI\(mti2\) Up"), (5, r"10\.0\.0\.2 +239\.1\.1\.1"), (5, r"mti2 +10\.0\.0\.2"),
                             (6, r"192\.168\.1\.10 +232\.1\.1\.1 +1 +239\.1\.1\.1"),
                             (7, r"192\.168\.1\.10 +232\.1\.1\.1 +10\.0\.0\.1 +239\.1\.8\.0"),
                             (8, r"192\.168\.1\.10 +232\.1\.1\.1 +2 +239\.1\.8\.0")]:
        if not re.search(pattern, said[section]):
            yield f"{section}: nothing like {pattern}"
    for section in (7, 8):
        carried = [item for item in records(said[section]) if item.get("group") == "239.1.8.0"]
        if not any(item["packets"] > 100 for item in carried):
            yield f"{section}: the data group carries nothing: {carried}"


def main():
    check_place()
    said = play(sys.argv[1])
    found = list(faults(said))
    for fault in found:
        print(fault)
    if found:
        for section, text in said.items():
            print(f"---- {section}\n{text}")
    sys.exit(1 if found else 0)


main()

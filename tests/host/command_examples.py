"""The examples of docs/commands.md against a running pimhostd, in the order of the page.

usage: command_examples.py BIN_DIR   writes what the commands answer into the page

What differs from run to run is left out of a comparison: times, process ids, addresses in memory, counts that grow.
"""

import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.append(str(HERE.parent / "support"))
from patience import LIMIT, wait_until  # noqa: E402

PAGE = HERE.parent.parent / "docs/commands.md"
EXAMPLE = HERE.parent.parent / "examples/two-vrfs.conf"
OPTIONS = ["--clock-scale", "20"]

VOLATILE = [(r"(?m)^\d+\.\d{3} +[\[(].*\n", ""),  # events
            (r"\d{4}-\d\d-\d\dT[\d:.]+Z", "TIME"), (r"\d\d:\d\d:\d\d", "TIME"), (r"\b\d+\.\d+(?=\b[^.])", "SECONDS"), (r"0x[0-9a-fx]+", "ADDRESS"),
            (r'"transaction-id":\d+', '"transaction-id":X'), (r"(?i)((?:join|send) count: )\d+", r"\1N"), (r"(?m)^([a-z]+-[a-z-]+ +)\d+$", r"\1N")]


def stable(text):
    for pattern, instead in VOLATILE:
        text = re.sub(pattern, instead, text)
    return text


def answer(binaries, socket, command):
    """What the page has below a command."""
    result = subprocess.run([binaries / "pimctl", "--timeout", str(LIMIT), "--control", socket, *shlex.split(command)],
                            capture_output=True, text=True, timeout=LIMIT)
    status = f"(exit status {result.returncode})\n" if result.returncode else ""
    return result.stdout + result.stderr + status


def answer_like(expected, binaries, socket, command, seconds):
    """What a command answers; a view's answer, when it becomes what is expected within some seconds."""
    limit = time.monotonic() + seconds
    while True:
        found = answer(binaries, socket, command)
        view = re.match("'?show ", command)
        if stable(found) == stable(expected) or not view or time.monotonic() > limit:
            return found
        time.sleep(0.1)


def blocks(text):
    """Pairs of a command and its answer, with the answer's place in the text."""
    for block in re.finditer(r"(?ms)^```\n(\$ .*?)^```$", text):
        for example in re.finditer(r"(?ms)^\$ (pimctl .*?)\n(.*?)(?=^\$ |\Z)", block.group(1)):
            begin = block.start(1) + example.start(2)
            yield example.group(1).removeprefix("pimctl "), example.group(2), begin, begin + len(example.group(2))


def regenerate(binaries):
    with tempfile.TemporaryDirectory(prefix="ce") as folder:
        socket = f"{folder}/s"
        daemon = subprocess.Popen([binaries / "pimhostd", "--config", EXAMPLE, "--control", socket, *OPTIONS],
                                  stderr=subprocess.DEVNULL)
        wait_until(lambda: "Up\n" in answer(binaries, socket, "show mvpn mdt vrf red"), "red is Up")
        text, done, page = PAGE.read_text(), 0, ""
        for command, old, begin, end in blocks(text):
            new = answer_like(old, binaries, socket, command, 3)
            page += text[done:begin] + (old if stable(new) == stable(old) else new)
            done = end
        PAGE.write_text(page + text[done:])
        daemon.terminate()
        daemon.wait()


if __name__ == "__main__":
    regenerate(pathlib.Path(sys.argv[1]))

#!/usr/bin/env python3
"""How long the daemon's main loop keeps a client waiting while somebody outside misbehaves.

usage: bench/loop_latency.py BIN_DIR [SECONDS]

A client asks for a short answer again and again over one connection, two milliseconds apart, for so many seconds (15) in
each case. The first case is the quiet one that the others are to be compared with: on a busy machine its worst figure is
the machine's.
"""

import pathlib
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

BIN = pathlib.Path(sys.argv[1])
SECONDS = float(sys.argv[2]) if len(sys.argv) > 2 else 15
REQUEST = struct.pack(">IB", 2 + len("show clock"), 1) + b"\0show clock"
END = struct.pack(">IBI", 5, 4, 0)
CONFIG = "hostname a\ninterface loopback0\n  ip address 10.0.0.1\nvrf red\n  rd 65000:1\n  mdt default 239.1.1.1\nbgp\n  update-source loopback0\n"


def exact(connection, size):
    data = b""
    while len(data) < size:
        part = connection.recv(size - len(data))
        if not part:
            return b""
        data += part
    return data


def serve_agentx(listener, opens):
    """Takes connections. Says nothing; or answers the request to open a session, and nothing after it."""
    kept = []
    while True:
        try:
            connection, _ = listener.accept()
        except OSError:
            return
        kept.append(connection)
        if opens and len(header := exact(connection, 20)) == 20:
            order = ">" if header[2] & 0x10 else "<"
            transaction, packet, length = struct.unpack(order + "III", header[8:])
            exact(connection, length)
            connection.sendall(struct.pack(order + "BBBBIIIIIHH", 1, 18, header[2], 0, 7, transaction, packet, 8, 0, 0, 0))


def latencies(path):
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(path)
        found = []
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            start = time.monotonic()
            client.sendall(REQUEST)
            answer = b""
            while not answer.endswith(END):
                answer += client.recv(65536)
            found.append((time.monotonic() - start) * 1000)
            time.sleep(0.002)
        return sorted(found)


def measure(name, options=(), prepare=lambda daemon, config, path: None, folder=None):
    with tempfile.TemporaryDirectory(prefix="ll") as name_of_folder:
        folder = pathlib.Path(name_of_folder)
        config, path = folder / "c", str(folder / "s")
        config.write_text(CONFIG)
        options = options(folder) if callable(options) else options
        with (folder / "log").open("w") as log:
            daemon = subprocess.Popen([BIN / "pimhostd", "--config", config, "--control", path, *options], stderr=log)
        try:
            while not pathlib.Path(path).exists():
                time.sleep(0.01)
            kept = prepare(daemon, config, path)
            found = latencies(path)
            del kept
        finally:
            daemon.send_signal(signal.SIGTERM)
            stopping = time.monotonic()
            daemon.wait(60)
        print(f"{name:36} {len(found):6} answers  median {found[len(found) // 2]:6.2f} ms  worst {found[-1]:8.2f} ms"
              f"  stopped in {time.monotonic() - stopping:5.2f} s")


def hung_master(opens):
    def options(folder):
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(str(folder / "x"))
        listener.listen()
        threading.Thread(target=serve_agentx, args=(listener, opens), daemon=True).start()
        return ["--agentx", f"unix:{folder}/x"]
    return options


def idle_clients(daemon, config, path):
    clients = [socket.socket(socket.AF_UNIX) for _ in range(64)]
    for client in clients:
        client.connect(path)
    return clients


def bad_file(daemon, config, path):
    config.write_text("x\n" * (8 * 2**20))
    threading.Timer(1, daemon.send_signal, [signal.SIGHUP]).start()


measure("quiet")
measure("AgentX master says nothing", hung_master(False))
measure("AgentX master opens, then is silent", hung_master(True))
measure("64 idle control connections", prepare=idle_clients)
measure("16 MB of nonsense at SIGHUP", prepare=bad_file)

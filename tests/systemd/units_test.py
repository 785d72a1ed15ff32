"""The units under a real systemd: a container whose root is this machine's, with a layer above it that is thrown away.

usage: units_test.py BIN_DIR

The daemons are to start, say that they are ready, reload, run as users of their own, reach each other, be started anew when
they hang, and stop in order. Skipped without root or systemd-nspawn.
"""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BINARIES = pathlib.Path(sys.argv[1]).resolve()
UNITS = ROOT / "packaging/debian"
SKIPPED = 77

# Runs inside. Each line says whether something holds.
CHECKS = r"""
say() { echo "$1 $2" >>/result; }
holds() { what=$1; shift; if "$@" >>/log 2>&1; then say ok "$what"; else say WRONG "$what"; fi; }
prop() { [ "$(systemctl show -P "$2" "$1")" = "$3" ]; }
until_holds() { for i in $(seq 450); do "$@" && return 0; sleep 0.2; done; return 1; }
prop_of_file() { [ "$(stat -c '%U %a' "$1")" = "$2" ]; }
user_of() { [ "$(stat -c %U /proc/"$(systemctl show -P MainPID "$1")")" = "$2" ]; }
systemd-sysusers /etc/sysusers.d/mvpn.conf
systemd-tmpfiles --create /etc/tmpfiles.d/mvpn.conf
# The reflector's configuration is where it once was: what pimhostd's account put there is not taken, root's file is.
former=/etc/mvpn/mdt-reflector.conf own=/etc/mdt-reflector/mdt-reflector.conf
printf 'bgp\n  local-as 65000\n  router-id 10.0.0.9\n  listen 127.0.0.1:179\n' >/root.conf
is_there() { [ -e "$1" ] && [ ! -e "$2" ]; }
as_mvpn() { runuser -u mvpn -- "$@"; }
as_mvpn cp /root.conf $former
sh /postinst configure 0.1.0 2>>/log
holds "an upgrade leaves what mvpn put there" is_there $former $own
as_mvpn ln -sf /root.conf $former
sh /postinst configure 0.1.0 2>>/log
holds "an upgrade leaves a link of mvpn's" is_there $former $own
rm $former
install -m 664 /root.conf $former
sh /postinst configure 0.1.0 2>>/log
holds "an upgrade takes root's file to the reflector's folder" is_there $own $former
holds "nobody else may write it" prop_of_file $own "root 644"
as_root_only() { ! as_mvpn mv -T $own $former && ! as_mvpn cp /root.conf $own; }
holds "pimhostd's account cannot replace it" as_root_only
ip link add core0 type veth peer name core1
ip address add 10.0.0.1/24 dev core0
ip link set core0 up; ip link set core1 up
chmod 666 /dev/net/tun  # as udev has it
for unit in mvpn-forwarder pimhostd mdt-reflector; do
  holds "$unit starts and says that it is ready" systemctl start $unit
  holds "$unit is active" prop $unit ActiveState active
done
holds "pimhostd is mvpn" user_of pimhostd mvpn
holds "the forwarder is mvpn-forwarder" user_of mvpn-forwarder mvpn-forwarder
holds "the reflector is nobody else" user_of mdt-reflector mdt-reflector
answers() { pimctl show forwarding | grep -q "control.sock *yes"; }
holds "pimhostd reaches the forwarder" until_holds answers
ip netns add red  # while the forwarder runs
tunnel() { ip netns exec red ip link show up | grep -q mti; }
holds "the forwarder makes the tunnel in a namespace" until_holds tunnel
for unit in pimhostd mdt-reflector; do
  holds "$unit reloads" systemctl reload $unit
  holds "$unit goes on" until_holds prop $unit ActiveState active
done
asked() { pimctl --control /run/mvpn/pimhostd.sock "$@"; }
candidate() { printf 'configure exclusive\nhostname written\ncommit\nend\nwrite\n' | asked; }
holds "an operator commits and writes" candidate
holds "what runs is in the file" grep -q "hostname written" /etc/mvpn/pimhostd.conf
holds "the former file is beside it" grep -q "by root" /etc/mvpn/pimhostd.conf~
holds "nobody else reads what the daemon wrote" prop_of_file /etc/mvpn/pimhostd.conf "mvpn 600"
holds "what was written loads" asked reload
hung=/run/hung
mkdir $hung
for unit in mvpn-forwarder pimhostd mdt-reflector; do
  systemctl show -P MainPID $unit >$hung/$unit
  kill -STOP "$(cat $hung/$unit)"
done
anew() { now=$(systemctl show -P MainPID $1); [ "$now" != "$(cat $hung/$1)" ] && [ "$now" != 0 ] && prop $1 ActiveState active; }
for unit in mvpn-forwarder pimhostd mdt-reflector; do
  holds "$unit that hangs is started anew" until_holds anew $unit
done
for unit in pimhostd mdt-reflector mvpn-forwarder; do
  holds "$unit stops" systemctl stop $unit
  holds "$unit stopped in order" prop $unit Result success
done
journalctl --no-pager -o cat >>/log
systemctl poweroff --force
"""

CHECK_UNIT = """[Unit]
Description=Checks
After=basic.target
[Service]
Type=simple
ExecStart=/bin/sh /checks
"""


def furnish(root):
    for name in ["pimhostd", "mdt-reflector", "mvpn-forwarder"]:
        shutil.copy(BINARIES / name, root / "usr/sbin" / name)
    shutil.copy(BINARIES / "pimctl", root / "usr/bin")
    shutil.copy(BINARIES / "libmvpn.so", root / "usr/sbin")
    for unit in UNITS.glob("mvpn.*.service"):
        name = unit.name.removeprefix("mvpn.")
        shutil.copy(unit, root / "etc/systemd/system" / name)
        # A watchdog that the test can wait for, and that a busy machine does not set off.
        folder = root / "etc/systemd/system" / (name + ".d")
        folder.mkdir()
        (folder / "soon.conf").write_text("[Service]\nWatchdogSec=15\nRestartSec=0\nWatchdogSignal=SIGKILL\n"
                                          "[Unit]\nStartLimitIntervalSec=0\n")
    (root / "etc/sysusers.d").mkdir(exist_ok=True)
    shutil.copy(UNITS / "mvpn.sysusers", root / "etc/sysusers.d/mvpn.conf")
    (root / "etc/tmpfiles.d").mkdir(exist_ok=True)
    shutil.copy(UNITS / "mvpn.tmpfiles", root / "etc/tmpfiles.d/mvpn.conf")
    (root / "etc/mvpn").mkdir()
    (root / "etc/mvpn/pimhostd.conf").write_text(
        "! by root\nforwarding kernel\n  socket /run/mvpn-forwarder/control.sock\ninterface core0\n  ip address 10.0.0.1\n"
        "pim\n  ssm range 239.1.0.0/16\nvrf red\n  rd 65000:1\n  mdt default 239.1.1.1\n"
        "bgp\n  update-source core0\n")
    (root / "etc/mdt-reflector").mkdir()
    shutil.copy(UNITS / "mvpn.postinst", root / "postinst")
    (root / "etc/systemd/system/checks.service").write_text(CHECK_UNIT)
    (root / "checks").write_text(CHECKS)
    for name in ["result", "log"]:
        (root / name).unlink(missing_ok=True)


def main():
    if os.geteuid() != 0 or shutil.which("systemd-nspawn") is None:
        return SKIPPED
    with tempfile.TemporaryDirectory(prefix="units") as folder:
        layer, root = pathlib.Path(folder, "layer"), pathlib.Path(folder, "root")
        layer.mkdir(), root.mkdir()
        mounted = []
        try:
            for command in [["mount", "-t", "tmpfs", "none", layer], None,
                            ["mount", "-t", "overlay", "overlay", "-o",
                             f"lowerdir=/,upperdir={layer}/up,workdir={layer}/work", root]]:
                if command is None:
                    (layer / "up").mkdir(), (layer / "work").mkdir()
                    continue
                if subprocess.run(command).returncode != 0:
                    print("the machine lets nobody mount a layer")
                    return SKIPPED
                mounted.append(command[-1])
            furnish(root)
            boot = subprocess.run(["systemd-nspawn", "--quiet", "-D", root, "--private-network", "--register=no", f"--machine=units-{os.getpid()}",
                                   "--keep-unit", "--boot", "systemd.unit=checks.service", "systemd.mask=frr.service"],
                                  stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=900)
            result = root / "result"
            if not result.exists():
                print(boot.stdout[-3000:], boot.stderr[-1000:])
                print("the container did not come up")
                return SKIPPED
            said = result.read_text()
            print(said)
            if "WRONG" in said or "mvpn-forwarder stopped in order" not in said:
                print((root / "log").read_text()[-16000:] if (root / "log").exists() else "")
                return 1
            return 0
        finally:
            for place in reversed(mounted):
                subprocess.run(["umount", "-l", place])


if __name__ == "__main__":
    sys.exit(main())

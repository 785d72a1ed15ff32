"""Drives pimctl as a person does, through a pseudo-terminal, and through a pipe.  usage: interactive_test.py BIN_DIR"""

import contextlib
import fcntl
import json
import os
import pathlib
import pty
import re
import select
import signal
import struct
import subprocess
import tempfile
import termios
import time
import unittest

from programs_test import BIN, EXAMPLES, HERE, PIMCTL, Daemon
from patience import LIMIT, wait_until

DOCS = HERE.parent.parent / "docs"
ESCAPES = re.compile(r"\x1b\[[0-9;?]*[A-Za-z]")


class Terminal:
    """A session of pimctl on a terminal of 10 rows and 200 columns."""

    def __init__(self, socket, state, colour=False, pager=None):
        environment = {k: v for k, v in os.environ.items() if k not in ("NO_COLOR", "PAGER")}
        environment |= {"PAGER": pager} if pager else {}
        environment |= {"XDG_STATE_HOME": str(state), "TERM": "xterm"} | ({} if colour else {"NO_COLOR": "1"})
        main, terminal = pty.openpty()
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 10, 200, 0, 0))
        self.terminal = main
        self.process = subprocess.Popen([*PIMCTL, "--control", socket], stdin=terminal, stdout=terminal,
                                        stderr=terminal, env=environment, start_new_session=True,
                                        preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        os.close(terminal)
        self.seen = ""  # behind what was expected last

    def type(self, text):
        os.write(self.terminal, text.encode())

    def expect(self, text):
        """Reads until a text; returns what came before it."""
        limit = time.monotonic() + LIMIT
        while text not in (plain := ESCAPES.sub("", self.seen).replace("\r\n", "\n")):
            if not select.select([self.terminal], [], [], max(0, limit - time.monotonic()))[0]:
                raise AssertionError(f"{text!r} did not come; {plain!r} came")
            try:
                self.seen += os.read(self.terminal, 65536).decode()
            except OSError:
                raise AssertionError(f"{text!r} did not come before the end; {plain!r} came") from None
        before, _, self.seen = plain.partition(text)
        return before

    def close(self):
        self.process.kill()
        self.process.wait()
        os.close(self.terminal)


class InteractiveTest(unittest.TestCase):
    def setUp(self):
        self.stack = contextlib.ExitStack()
        self.addCleanup(self.stack.close)
        self.folder = pathlib.Path(self.stack.enter_context(tempfile.TemporaryDirectory(prefix="pc")))
        self.config = self.folder / "router.conf"

    def start(self, of_vrf_red=""):
        example = (EXAMPLES / "two-vrfs.conf").read_text()
        self.config.write_text(example.replace("vrf red\n", "vrf red\n" + of_vrf_red, 1))
        daemon = Daemon(self.folder, self.config)
        self.stack.callback(daemon.kill)
        return daemon

    def open(self, daemon, **options):
        terminal = Terminal(daemon.socket, self.folder / "state", **options)
        self.stack.callback(terminal.close)
        terminal.expect("pe1> ")
        return terminal

    def test_tab_completes_words_and_modes_follow_the_blocks(self):
        daemon = self.start()
        terminal = self.open(daemon)
        terminal.type("sh\tclo\t\n")  # without the blanks that completion adds this is no command
        terminal.expect("Platform seconds  Scale")
        terminal.type("conf\t\n")
        terminal.expect("pe1(config)# ")
        terminal.type("vrf red\n")
        terminal.expect("pe1(config-vrf-red)# ")
        terminal.type("md\tmt\t1300\n")
        terminal.expect("pe1(config-vrf-red)# ")
        terminal.type("do show tunnels | inc\t239.1.1.1\n")
        self.assertRegex(terminal.expect("pe1(config-vrf-red)# "), r"red +10\.0\.0\.1 +239\.1\.1\.1 +1300")
        terminal.type("interface eth5\n")  # of the mode around the block
        terminal.expect("pe1(config-interface-eth5)# ")
        terminal.type("exit\n")
        terminal.expect("pe1(config)# ")
        terminal.type("hostname other\n")
        terminal.expect("other(config)# ")
        terminal.type("end\n")
        terminal.expect("other> ")
        terminal.type("exit\n")
        self.assertEqual(terminal.process.wait(LIMIT), 0)
        self.assertIn("\n  mdt mtu 1300\n", daemon.show("running-config"))

    def test_habits_of_other_routers_work_here(self):
        daemon = self.start()
        terminal = self.open(daemon)
        for typed, seen in [("help", "Tab completes a word"), ("terminal length x", "expected terminal length"),
                            ("show vrfs|include blue|count", "1\n"),
                            # 10 rows: without pages the end comes at once
                            ("terminal length 0", ""), ("show counters", "stored-records")]:
            terminal.type(typed + "\n")
            self.assertIn(seen, terminal.expect("pe1> "), typed)
        terminal.type("configure bgp neighbor 10.0.0.9 password s3cret\n")
        terminal.expect("pe1> ")
        terminal.type("show clock\n")
        terminal.expect("pe1> ")
        history = (self.folder / "state/pimctl/history").read_text()
        self.assertIn("clock", history)
        self.assertNotIn("s3cret", history)
        terminal.type("conf t\n")
        terminal.expect("pe1(config)# ")
        terminal.type("vrf red\n")
        terminal.expect("pe1(config-vrf-red)# ")
        terminal.type("end\n")
        terminal.expect("pe1> ")
        terminal.type("quit\n")
        self.assertEqual(terminal.process.wait(LIMIT), 0)

    def test_a_pager_of_ones_own_shows_the_pages(self):
        daemon = self.start()
        pager = self.folder / "pager"
        pager.write_text("#!/bin/sh\nsed s/^/paged:/\n")
        pager.chmod(0o755)
        terminal = self.open(daemon, pager=str(pager))
        terminal.type("show vrfs\n")
        self.assertIn("paged:blue", terminal.expect("pe1> "))

    def test_question_mark_lists_what_may_stand_there(self):
        terminal = self.open(self.start())
        for typed, listed in [
            ("show mvpn ?", ["mdt       MVPN status of VRFs", "bgp       MDT SAFI", "internal  State of the module"]),
            ("show mvpn mdt send history ?", ["<1-10080>  Minutes"]),
            ("show mvpn mdt send history 5 ?", ["detail", "vrf", "<cr>", "|"]),
            ("show mrib r?", ["routes  Core routes"]),
            ("show clock | ?", ["include  Only lines that match a pattern", "section", "count", "no-more", "json", "xml"]),
            ("configure vrf red no mdt ?", ["default", "mtu"]),
            ("show bogus ?", ["nothing is known here"]),
        ]:
            with self.subTest(typed):
                terminal.type(typed)
                terminal.expect("\n")
                listing = terminal.expect("pe1> ")
                position = 0
                for text in listed:
                    self.assertIn("  " + text, listing[position:])
                    position = listing.index("  " + text, position)
                terminal.type("\x15")  # the line is dropped

    def test_errors_point_at_the_word_as_it_was_typed(self):
        terminal = self.open(self.start())
        terminal.type("configure vrf red\n")
        terminal.expect("red)# ")
        for line, mark in [("mdt bogus 3", "mdt bogus 3\n      ^\n'bogus' is not known here; expected default, "),
                           ("mdt mtu", "mdt mtu\n          ^\nthe line is incomplete; expected <576-65535>"),
                           ("do show tunnels | cuont", "do show tunnels | cuont\n                    ^\n'cuont' is not"),
                           ("do show tunnles", "do show tunnles\n          ^\n'tunnles' is not known here; expected ")]:
            with self.subTest(line):
                terminal.type(line + "\n")
                terminal.expect("  " + mark)
                terminal.expect("pe1(config-vrf-red)# ")

    def test_quitting_a_page_ends_the_listing_in_the_daemon(self):
        routes = "".join(f"  mroute 10.{i >> 8}.{i & 255}.1 225.1.1.1 iif red-lan\n" for i in range(5000))
        daemon = self.start(routes)

        terminal = self.open(daemon)
        wait_until(lambda: daemon.listings() == 0, "no listing is running")
        for key in ("q", "\x03", "\x04"):
            terminal.type("show customer-routes\n")
            terminal.expect("show customer-routes\n")
            self.assertEqual(terminal.expect("--More--").count("\n"), 9)
            terminal.type(" ")
            self.assertEqual(terminal.expect("--More--").count("\n"), 9)
            terminal.type("\n")
            self.assertEqual(terminal.expect("--More--").count("\n"), 1)
            self.assertEqual(daemon.listings(), 1)
            terminal.type(key)
            terminal.expect("pe1> ")
            wait_until(lambda: daemon.listings() == 0, "the listing ends")
        terminal.type("show customer-routes | no-more | count\n")
        self.assertGreater(int(terminal.expect("pe1> ").split("\n")[1]), 5000)

    def test_what_is_held_exclusively_outlives_a_listing_that_is_quit(self):
        daemon = self.start()
        terminal = self.open(daemon)
        other = self.open(daemon)
        terminal.type("configure exclusive\n")
        terminal.expect("pe1(config-exclusive)# ")
        terminal.type("vrf blue\nrd 65000:7\nshow events\n")
        terminal.expect("--More--")
        terminal.type("q")
        terminal.expect("pe1(config-exclusive-vrf-blue)# ")
        other.type("configure hostname pe2\n")
        other.expect("is held by")
        terminal.type("commit\n")
        terminal.expect("pe1(config-exclusive-vrf-blue)# ")
        self.assertIn("rd 65000:7\n", daemon.show("running-config"))
        terminal.type("rd 65000:8\nend\n")
        terminal.expect("what was not committed is dropped")
        terminal.expect("pe1> ")
        other.type("configure hostname pe2\n")
        other.expect("pe2> ")
        self.assertNotIn("65000:8", daemon.show("running-config"))

    def test_an_interrupt_drops_the_line_and_keeps_the_session(self):
        terminal = self.open(self.start())
        for typed in ("show clo", ""):
            terminal.type(typed + "\x03")
            terminal.expect("^C\n")
            terminal.expect("pe1> ")
        terminal.type("configure vrf red\n")
        terminal.expect("red)# ")
        terminal.type("mdt mtu 1300\x03")
        terminal.expect("red)# ")
        terminal.type("do show clock\n")
        terminal.expect("Platform seconds  Scale")
        terminal.expect("red)# ")
        terminal.type("do show running-config | include mtu\n")
        self.assertNotIn("1300", terminal.expect("red)# "))

    def test_a_line_that_was_sent_before_an_interrupt_may_still_apply(self):
        daemon = self.start()
        terminal = self.open(daemon)
        terminal.type("show clock\n")  # opens the connection
        terminal.expect("Platform seconds  Scale")
        terminal.expect("pe1> ")
        daemon.process.send_signal(signal.SIGSTOP)
        terminal.type("configure vrf red mdt mtu 1300\n")
        terminal.expect("1300\n")
        sockets = lambda: (line.split() for line in subprocess.check_output(["ss", "-xnH"], text=True).splitlines())
        wait_until(lambda: any(daemon.socket in words and int(words[2]) > 0 for words in sockets()), "the line is on its way")
        terminal.type("\x03")
        terminal.expect("the line had been sent already and may still be carried out\n")
        daemon.process.send_signal(signal.SIGCONT)
        terminal.expect("pe1> ")
        wait_until(lambda: "mdt mtu 1300" in daemon.show("running-config"), "the line is carried out")

    def test_what_is_typed_is_what_is_read(self):
        terminal = self.open(self.start())
        terminal.type("configure vrf r\u00f8d rd 65000:9\n")
        terminal.expect("'r\\xc3\\xb8d' is not a name")

    def test_the_configuration_can_be_pasted(self):
        daemon = self.start()
        before = daemon.show("running-config")
        terminal = self.open(daemon)
        terminal.type("configure\n")
        terminal.expect("pe1(config)# ")
        for line in before.splitlines():
            terminal.type(line + "\n")
            terminal.expect("# ")
        terminal.type("end\n")
        terminal.expect("pe1> ")
        self.assertEqual(daemon.show("running-config"), before)

    def test_history_is_kept_across_sessions(self):
        daemon = self.start()
        terminal = self.open(daemon)
        terminal.type("show mrib encaps\n")
        terminal.expect("239.1.1.1")
        terminal.expect("pe1> ")
        terminal.process.kill()
        terminal = self.open(daemon)
        terminal.type("\x10\n")
        terminal.expect("239.1.1.1")
        history = self.folder / "state/pimctl/history"
        self.assertIn("encaps", history.read_text())
        self.assertEqual(history.stat().st_mode & 0o077, 0)

    def test_sessions_keep_each_others_history(self):
        daemon = self.start()
        first, second = self.open(daemon), self.open(daemon)
        for terminal, line in [(first, "show clock"), (second, "show tunnels"), (first, "show mrib encaps"),
                               (second, "show bgp mdt")]:
            terminal.type(line + "\n")
            terminal.expect("pe1> ")
        third = self.open(daemon)
        third.type("\x10\x10\n")
        third.expect("VRF             Index")
        third.expect("pe1> ")
        lines = (self.folder / "state/pimctl/history").read_text().splitlines()
        self.assertEqual([line.removesuffix("\\012").replace("\\040", " ") for line in lines[1:]],
                         ["show clock", "show tunnels", "show mrib encaps", "show bgp mdt", "show mrib encaps"])

    def test_history_is_bounded(self):
        daemon = self.start()
        history = self.folder / "state/pimctl/history"
        history.parent.mkdir(parents=True)
        history.write_text("_HiStOrY_V2_\n" + "".join(f"old\\040{i}\n" for i in range(1500)))
        terminal = self.open(daemon)
        terminal.type("show clock\n")
        terminal.expect("pe1> ")
        lines = history.read_text().splitlines()
        self.assertEqual(len(lines), 1001)
        self.assertEqual((lines[1], lines[-1].removesuffix("\\012")), ("old\\040501", "show\\040clock"))

    def test_names_that_the_daemon_knows_are_offered(self):
        daemon = self.start()
        terminal = self.open(daemon)
        for typed, listed, others in [
            ("show mvpn mdt vrf ?", ["NAME", "blue", "red"], ["red-lan"]),
            ("show customer-routes vrf r?", ["NAME", "red"], ["blue"]),
            ("test interface ?", ["INTERFACE", "blue-lan", "loopback0", "red-lan"], ["blue "]),
            ("configure interface red-lan vrf ?", ["NAME", "blue", "red"], []),
            ("configure vrf red mdt source l?", ["loopback0"], ["red-lan"]),
        ]:
            with self.subTest(typed):
                terminal.type(typed)
                terminal.expect("\n")
                listing = terminal.expect("pe1> ")
                for name in listed:
                    self.assertIn(f"  {name} ", listing)
                for name in others:
                    self.assertNotIn(f"  {name}", listing)
                terminal.type("\x15")
        terminal.type("show customer-routes vrf b\t | count\n")  # the blank comes with the completion
        terminal.expect("| count\n1\n")
        terminal.expect("pe1> ")
        # What the session has made is offered at once.
        terminal.type("configure vrf green rd 65000:9\n")
        terminal.expect("pe1> ")
        terminal.type("configure\n")
        terminal.expect("pe1(config)# ")
        terminal.type("no vrf g\t\n")
        terminal.expect("pe1(config)# ")
        self.assertNotIn("green", daemon.show("running-config"))

    def test_completion_does_without_the_daemon(self):
        daemon = self.start()
        terminal = self.open(daemon)
        os.kill(daemon.process.pid, signal.SIGSTOP)  # takes connections, says nothing
        terminal.type("show mvpn mdt vrf ?")
        terminal.expect("  NAME  Name of the VRF\n")
        os.kill(daemon.process.pid, signal.SIGCONT)
        daemon.kill()
        terminal.type("\x15test interface ?")
        terminal.expect("  INTERFACE  Name of the interface\n")
        terminal.type("\x15sh\tclo\t\n")
        terminal.expect("pimctl: ")
        terminal.expect("pe1> ")

    def test_a_session_outlives_the_daemon(self):
        daemon = self.start()
        terminal = self.open(daemon)
        daemon.stop()
        terminal.type("show clock\n")
        terminal.expect("pimctl: ")
        terminal.expect("pe1> ")
        self.start()
        terminal.type("show clock\n")
        terminal.expect("Platform seconds  Scale")

    def test_colour_is_for_terminals(self):
        daemon = self.start()
        terminal = self.open(daemon, colour=True)
        terminal.type("bogus\n")
        while "is not known here" not in terminal.seen:
            self.assertTrue(select.select([terminal.terminal], [], [], LIMIT)[0], terminal.seen)
            terminal.seen += os.read(terminal.terminal, 65536).decode()
        self.assertIn("\x1b[31m", terminal.seen)
        environment = {**os.environ, "TERM": "xterm"}
        result = subprocess.run([*PIMCTL, "--control", daemon.socket, "bogus"], capture_output=True, text=True,
                                env=environment)
        self.assertIn("is not known here", result.stderr)
        self.assertNotIn("\x1b", result.stdout + result.stderr)

    def test_lines_of_a_pipe_run_until_one_fails(self):
        daemon = self.start()
        for lines, status, errors in [
            ("! comment\n\nconfigure\nvrf red\n  mdt mtu 1290\nvrf blue\n  mdt mtu 1291\nend\nshow clock\n", 0, ""),
            ("configure vrf red\nmdt default 239.9.9.9\nmdt mtu 1292\n", 1,
             "Cannot change the default mdt group address. Must deconfigure first\n"
             "pimctl: line 2 failed; the lines behind it were not run\n"),
            ("show clokc\nconfigure vrf red mdt mtu 1292\n", 2, None),
            ("exit\nbogus\n", 0, ""),
        ]:
            with self.subTest(lines):
                result = subprocess.run([*PIMCTL, "--control", daemon.socket], input=lines, capture_output=True,
                                        text=True, timeout=LIMIT)
                self.assertEqual(result.returncode, status, result.stderr)
                if errors is not None:
                    self.assertEqual(result.stderr, errors)
        self.assertRegex(daemon.show("running-config"), r"(?s)mdt mtu 1290.*mdt mtu 1291|mdt mtu 1291.*mdt mtu 1290")
        self.assertNotIn("1292", daemon.show("running-config"))
        nobody = subprocess.run([*PIMCTL, "--control", self.folder / "none", "show", "clock"], capture_output=True)
        self.assertEqual(nobody.returncode, 3)

    def test_output_that_cannot_be_written_is_an_error(self):
        daemon = self.start()
        with open("/dev/full", "w") as full:
            for arguments, lines in [(["show", "running-config"], None), ([], "show clock\n")]:
                run = subprocess.run([*PIMCTL, "--control", daemon.socket, *arguments], input=lines, stdout=full,
                                     stderr=subprocess.PIPE, text=True, timeout=LIMIT)
                self.assertEqual(run.returncode, 1)
                self.assertIn("No space left on device", run.stderr)

    def test_filters_that_contradict_each_other_are_refused(self):
        daemon = self.start()
        for line in ["show clock | json | xml", "show clock | json | count", "show clock | include x | json"]:
            run = subprocess.run([*PIMCTL, "--control", daemon.socket, line], capture_output=True, text=True,
                                 timeout=LIMIT)
            self.assertEqual((run.returncode, [*json.loads(run.stdout)][3:]), (2, ["error"]), line)

    def test_the_reference_names_every_command(self):
        tables = subprocess.run([BIN / "pimctl", "--syntax"], capture_output=True, text=True, check=True).stdout
        self.assertIn("`show mvpn mdt receive [detail] [vrf NAME]`", tables)
        text = (DOCS / "commands.md").read_text()
        for table in tables.strip().split("\n### "):
            self.assertIn(table, text, "regenerate with: pimctl --syntax")


if __name__ == "__main__":
    unittest.main()

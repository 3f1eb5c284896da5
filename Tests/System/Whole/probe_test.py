"""The daemon and the program that connects for it, which may end at any moment."""

import os
import random
import re
import signal
import subprocess
import sys
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "support"))

from machine import Machine
from processes import wait_until

BIN = os.environ["STILLOW_BIN"]
SILENCE = ("INPUT", "-p", "tcp", "--dport", "443", "-j", "DROP")
KILLED = "/stillow-probe was ended by signal 9."


def is_there(pid):
    try:
        state = re.search(r"^State:\t(.)", Path(f"/proc/{pid}/status").read_text(), re.MULTILINE)
    except (FileNotFoundError, ProcessLookupError):
        return False
    return state[1] not in "ZX"


class ProbeProgram(unittest.TestCase):
    ROUNDS = 40

    def setUp(self):
        self.machine = Machine(BIN, ["neighbour.example"])
        self.addCleanup(self.machine.close)
        self.machine.start_filter()
        self.machine.start_daemon()
        self.assertEqual(self.validate(), {"passed": {}})

    def validate(self):
        return self.machine.rpc("validateEnforcement")["result"]["readiness"]["validation"]

    def begin_validation(self):
        validation = subprocess.Popen(
            self.machine.command("StillowDaemon", "--validate"), stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(validation.communicate)
        return validation

    def silence_the_internet(self, is_silent=True):
        """Connections hang for as long as they may."""
        self.machine.internet.run("iptables", "-A" if is_silent else "-D", *SILENCE)

    def probes(self):
        """The ids of the daemon's children that connect."""
        found = []
        for children in Path(f"/proc/{self.machine.daemon.pid}/task").glob("*/children"):
            try:
                for child in children.read_text().split():
                    if Path(f"/proc/{child}/comm").read_text() == "stillow-probe\n":
                        found.append(int(child))
            except (FileNotFoundError, ProcessLookupError):
                continue  # it ended while we looked
        return found

    def hanging_probe(self):
        self.silence_the_internet()
        self.begin_validation()
        return wait_until(self.probes, "a connection")[0]

    def test_whose_end_proves_nothing_although_the_neighbour_answers(self):
        self.silence_the_internet()
        validation = self.begin_validation()
        os.kill(wait_until(self.probes, "a connection")[0], signal.SIGKILL)
        self.silence_the_internet(False)
        output, _ = validation.communicate()
        self.assertEqual(validation.returncode, 2)
        self.assertIn('"inconclusive"', output)
        self.assertEqual(self.machine.daemon.log().count(KILLED), 1)
        self.assertEqual(self.validate(), {"passed": {}})

    def test_killed_at_random_moments_is_never_taken_for_a_block(self):
        generator = random.Random(20261122)
        killed = 0
        for _ in range(self.ROUNDS):
            mark = len(self.machine.daemon.log())
            validation = self.begin_validation()
            end = time.monotonic() + generator.uniform(0, 0.15)
            while time.monotonic() < end:
                time.sleep(0.001)
            for pid in self.probes():
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
            output, _ = validation.communicate()
            was_killed = KILLED in self.machine.daemon.log()[mark:]
            killed += was_killed
            self.assertIn('"inconclusive"' if was_killed else '"passed"', output)
        self.assertGreater(killed, 0, "no kill hit a connection")
        self.assertEqual(self.validate(), {"passed": {}})

    def test_ends_with_a_daemon_that_is_killed(self):
        probe = self.hanging_probe()
        self.machine.kill(self.machine.daemon)
        wait_until(lambda: not is_there(probe), "the end of the connection")

    def test_ends_with_a_daemon_that_is_stopped(self):
        probe = self.hanging_probe()
        self.machine.daemon.send_signal(signal.SIGTERM)
        self.machine.daemon.wait()
        wait_until(lambda: not is_there(probe), "the end of the connection")


if __name__ == "__main__":
    unittest.main(verbosity=2)

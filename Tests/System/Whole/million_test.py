"""The largest Commitment that anybody is promised: a million websites in one activation. With the
release build, as installed: an unoptimised one only shows how long a debug build takes."""

import json
import os
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "support"))

from machine import Machine
from processes import wait_until

BIN = os.environ["STILLOW_RELEASE_BIN"]

WEBSITES = 1_000_000
# What the processes may have held at their largest. A Scope is held once by the machine and once by
# each status that is on its way; the filter holds the old and the new while it replaces them. These
# are twice what was seen (245 MiB each), against growth of another order.
DAEMON_BYTES_MAX = 512 << 20
FILTER_BYTES_MAX = 512 << 20
# For what takes a second or two where nobody else computes.
PATIENCE_SECONDS = 300


def largest_size(process):
    """The most memory that a process has ever held, in bytes."""
    for line in Path(f"/proc/{process.pid}/status").read_text(encoding="ascii").splitlines():
        if line.startswith("VmHWM:"):
            return int(line.split()[1]) << 10
    raise AssertionError("the kernel tells no peak of the resident memory")


class AMillionWebsites(unittest.TestCase):
    def setUp(self):
        self.assertTrue((Path(BIN) / "StillowDaemon").exists(),
                        f"{BIN} is empty: cmake --preset release && cmake --build --preset release")
        self.machine = Machine(BIN, ["blocked.example", "second.example", "neighbour.example"])
        self.addCleanup(self.machine.close)

    def call(self, method, params):
        answer = self.machine.stillow("rpc", method, "-", input=json.dumps(params), check=False,
                                      timeout=PATIENCE_SECONDS)
        self.assertEqual(answer.returncode, 0, answer.stdout[:500] + answer.stderr)
        return json.loads(answer.stdout)["result"]

    def test_are_blocked_survive_a_kill_and_grow(self):
        machine = self.machine
        machine.start_filter()
        machine.start_daemon()
        machine.rpc("validateEnforcement")
        names = [f"site-{number}.example" for number in range(WEBSITES - 1)] + ["blocked.example"]
        status = self.call("activate", {
            "selection": {"allWebsites": {}},
            "collectionSnapshot": [{"domain": name, "groups": []} for name in names],
            "duration": 36_000})
        active = status["commitment"]["active"]["_0"]
        self.assertEqual(active["scopeGeneration"], 1)
        self.assertEqual(len(active["scope"]), WEBSITES)
        # In force when the answer is there, for the first connection after it.
        self.assertTrue(machine.is_refused("blocked.example"))
        self.assertTrue(machine.answers("neighbour.example"))
        self.assertTrue(machine.answers("second.example"))

        machine.kill(machine.daemon)
        self.assertTrue(machine.is_refused("blocked.example"))
        machine.start_daemon()
        restored = machine.active()
        self.assertEqual(set(restored["scope"]), set(names))
        self.assertLessEqual(restored["remainingDuration"], active["remainingDuration"] + 61)

        strengthened = self.call("strengthen", {"websites": {"_0": ["second.example"]}})
        grown = strengthened["commitment"]["active"]["_0"]
        self.assertEqual(grown["scopeGeneration"], 2)
        self.assertEqual(len(grown["scope"]), WEBSITES + 1)
        self.assertTrue(machine.is_refused("second.example"))
        self.assertTrue(machine.is_refused("blocked.example"))
        self.assertTrue(machine.answers("neighbour.example"))
        wait_until(lambda: machine.health() == {"healthy": {}}, "health")

        for process, most in ((machine.daemon, DAEMON_BYTES_MAX),
                              (machine.filter, FILTER_BYTES_MAX)):
            size = largest_size(process)
            print(f"{process.log_path.name}: at most {size >> 20} MiB resident", file=sys.stderr)
            self.assertLess(size, most, process.log_path.name)


if __name__ == "__main__":
    unittest.main(verbosity=2)

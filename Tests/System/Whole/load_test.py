"""The daemon's socket under more load than any honest client makes."""

import json
import os
import shutil
import sys
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "support"))

from load_client import LAST_SITE
from machine import SOCKET_NAME, Machine
from processes import Process, run, wait_until

BIN = Path(os.environ["STILLOW_BIN"])
HERE = Path(__file__).resolve().parent
CODESIGN = HERE.parents[2] / "scripts" / "codesign"

# How long the load goes on; some of it takes longer to end.
SECONDS = float(os.environ.get("STILLOW_LOAD_SECONDS", "10"))
SITES = 400
KIBIBYTE = 1 << 10
MEBIBYTE = 1 << 20

# What the limits of Platform/Linux/IPC/SocketLimits.hpp come to together, whatever clients do.
BUFFERED_BYTES_MAX = 256 * MEBIBYTE
CALLS_IN_FLIGHT_MAX, CALL_BYTES = 16_384, 4 * KIBIBYTE
REQUEST_BYTES_MAX = 4 * MEBIBYTE
LINE_VALUES_MAX = 8 << 20
DECODED_VALUE_BYTES = 32
CONNECTIONS_MAX, SMALL_LINE_BYTES_MAX, CHUNK_BYTES = 512, 32 * KIBIBYTE, 4 * KIBIBYTE
MEMORY_MAX = (BUFFERED_BYTES_MAX                           # long lines, and text that waits
              + CALLS_IN_FLIGHT_MAX * CALL_BYTES
              + REQUEST_BYTES_MAX * DECODED_VALUE_BYTES    # requests in small lines, decoded
              + LINE_VALUES_MAX * DECODED_VALUE_BYTES      # the one request in a long line, decoded
              + CONNECTIONS_MAX * (SMALL_LINE_BYTES_MAX + CHUNK_BYTES))

# Users without a name here; each is somebody else to the daemon.
ROLES = ["witness", "follower", "strangers", "connections", "calls", "deaf", "subscribers", "requests",
         "lines", "garbage", "halves", "killed", "vanishing"]
FIRST_USER = 64_000


class SocketTestCase(unittest.TestCase):
    def setUp(self):
        self.machine = Machine(BIN, ["blocked.example"])
        self.addCleanup(self.machine.close)
        self.machine.start_filter()
        self.machine.start_daemon()
        # A signed interpreter is a client of ours, whatever it runs; the other one is a stranger.
        self.machine.directory.chmod(0o711)
        self.signed = self.machine.directory / "signed-python"
        shutil.copy(os.path.realpath(sys.executable), self.signed)
        run([CODESIGN, self.signed, "com.larchmoor.Stillow",
             "--key-directory", BIN.parent / "signing"])

    def start_client(self, role, seconds):
        interpreter = sys.executable if role == "strangers" else self.signed
        process = Process(
            self.machine.inside("env", f"PYTHONHOME={sys.base_prefix}", interpreter,
                                HERE / "load_client.py", role, f"/run/stillow/{SOCKET_NAME}",
                                FIRST_USER + ROLES.index(role), seconds),
            self.machine.directory / f"{role}.log")
        self.addCleanup(process.stop)
        return process

    def result_of(self, role, process):
        status = process.wait()
        user = f"of user {FIRST_USER + ROLES.index(role)}:"
        refusals = [line for line in self.machine.daemon.log().splitlines() if user in line]
        self.assertEqual(status, 0, "\n".join([f"{role}: {process.log()[-2000:]}", *refusals[-5:]]))
        return json.loads(process.log().splitlines()[-1])

    def memory(self, figure):
        status = Path(f"/proc/{self.machine.daemon.pid}/status").read_text()
        line = next(line for line in status.splitlines() if line.startswith(figure))
        return int(line.split()[1]) * KIBIBYTE

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.machine.daemon.pid}/fd"))


class Endings(SocketTestCase):
    def test_leave_nothing_of_what_was_asked_for(self):
        def is_armed():
            return self.machine.status()["readiness"]["filterConfigurationIsEnabled"]

        # Whoever announces a user interface arms the filter for as long as it is connected.
        before = self.descriptors()
        processes = {role: self.start_client(role, 3) for role in ("vanishing", "killed")}
        wait_until(is_armed, "the filter to be armed")
        for role, process in processes.items():
            self.result_of(role, process)
        wait_until(lambda: not is_armed(), "the last user interface to be forgotten")
        wait_until(lambda: self.descriptors() <= before, "the descriptors to be closed")


class Load(SocketTestCase):
    def add(self, site):
        self.machine.rpc("strengthen", {"websites": {"_0": [site]}})

    def test_costs_bounded_memory_and_nobody_else_the_service(self):
        self.machine.rpc("validateEnforcement")
        self.machine.rpc("activate", {
            "selection": {"allWebsites": {}}, "duration": 3600,
            "collectionSnapshot": [{"domain": f"a-site-with-a-longer-name-{number}.example",
                                    "groups": []} for number in range(SITES)]})
        # One line says why; under load it would be among those that are only counted.
        self.result_of("strangers", self.start_client("strangers", 0))
        self.machine.daemon.wait_for_log("is not signed")

        before, idle = self.descriptors(), self.memory("VmRSS")
        began = time.monotonic()
        processes = {role: self.start_client(role, SECONDS) for role in ROLES}
        # Statuses flow: every site that is added is pushed to every subscriber.
        added = 0
        while any(process.is_running() for role, process in processes.items() if role != "follower"):
            self.add(f"added-{added}.example")
            added += 1
        self.add(LAST_SITE)
        results = {role: self.result_of(role, process) for role, process in processes.items()}
        elapsed = time.monotonic() - began
        peak = self.memory("VmHWM")
        after = self.memory("RssAnon")
        for role, counts in results.items():
            print(f"{role}: {counts}", file=sys.stderr)
        print(f"{added} statuses in {elapsed:.0f} s; memory {idle / MEBIBYTE:.0f} MiB before, "
              f"{peak / MEBIBYTE:.0f} MiB at most, {after / MEBIBYTE:.0f} MiB of it anonymous after",
              file=sys.stderr)

        self.assertLess(peak, idle + MEMORY_MAX)
        # Nobody got in who may not, and everybody else did what they came for.
        self.assertNotIn("bytes", results["strangers"])
        for role, what, least in (
                ("witness", "answers", 20), ("follower", "statuses", 2),
                ("strangers", "connections", 60), ("connections", "connections", 2000),
                ("connections", "served", 1), ("calls", "answers", 3000), ("deaf", "calls", 1000),
                ("subscribers", "subscriptions", 100), ("requests", "answered", 1),
                ("lines", "lines", 6), ("garbage", "faults", 16), ("garbage", "duplicates", 100),
                ("halves", "ended", 2), ("killed", "killed", 3), ("vanishing", "vanished", 4)):
            self.assertGreaterEqual(results[role][what], least, (role, what))

        # A line for each of thousands of refusals would drown the journal.
        lines = [line for line in self.machine.daemon.log().splitlines()
                 if "the connection of process" in line]
        self.assertLessEqual(len(lines), 20 * (elapsed / 10 + 2))

        # Nothing is left of any of it.
        wait_until(lambda: self.descriptors() <= before, "the descriptors to be closed")
        self.assertTrue(self.machine.daemon.is_running())
        self.assertIn(LAST_SITE, self.machine.active()["scope"])


if __name__ == "__main__":
    unittest.main(verbosity=2)

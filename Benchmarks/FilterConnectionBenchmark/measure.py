#!/usr/bin/python3
"""A new HTTPS connection with the filter against one without.

Two clients in namespaces of their own, with equal links to one nginx; one of them has the kernel
rules and stillow-filter. They take turns in batches of about 10 ms, so that both see the same
machine. Every process is pinned to one core. The figure is the ratio of the best batches.

  STILLOW_BIN=build/bench/bin Benchmarks/FilterConnectionBenchmark/measure.py [FILE]

FILE takes the figures as JSON.
"""

import json
import os
import statistics
import subprocess
import sys
import unittest
from pathlib import Path

os.environ["STILLOW_BIN"] = str(Path(os.environ["STILLOW_BIN"]).resolve())  # seen from a chroot too
os.environ.setdefault("STILLOW_STATE_DIRECTORY", "/Library/Application Support/Stillow")
sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "Tests" / "System" / "Filter"))

from filterbench import BIN, FilterTestCase, Link, NetworkNamespace  # noqa: E402

BATCHES = 301
BATCH_SECONDS = 0.010
CORE = "0"


class Client:
    def __init__(self, test, namespace, address):
        self._process = subprocess.Popen(
            namespace.command("taskset", "-c", CORE, BIN / "FilterConnectionClient", address,
                              "neighbour.example"),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)
        test.addCleanup(self._process.stdout.close)
        test.addCleanup(self._process.wait)
        test.addCleanup(self._process.stdin.close)

    def seconds_per_connection(self, count):
        self._process.stdin.write(f"{count}\n")
        return int(self._process.stdout.readline()) / 1e9 / count


class Measurement(FilterTestCase):
    def runTest(self):
        plain = self._closing(NetworkNamespace("plain"))
        link = Link(plain, self.server, number=2)
        os.sched_setaffinity(0, {int(CORE)})  # inherited by the server and the filter
        self.start_server()
        self.directive.publish("blocked.example")
        self.start_filter()
        self.rules.arm()
        filtered = Client(self, self.client, self.link.right_ipv4)
        reference = Client(self, plain, link.right_ipv4)
        for client in (filtered, reference):
            client.seconds_per_connection(200)
        single = min(reference.seconds_per_connection(20) for _ in range(20))
        count = max(1, round(BATCH_SECONDS / single))
        times = {filtered: [], reference: []}
        for number in range(BATCHES):
            for client in (filtered, reference) if number % 2 else (reference, filtered):
                times[client].append(client.seconds_per_connection(count))
        counters = self.counters()
        self.assertGreaterEqual(counters["released"], BATCHES * count)
        # A released flow is the kernel's alone.
        self.assertLess(counters["packets"], 1.01 * counters["classified"])
        ours, theirs = min(times[filtered]), min(times[reference])
        median = statistics.median(times[filtered]) / statistics.median(times[reference])
        print(f"{BATCHES} batches of {count} connections on core {CORE}; "
              f"one connection without the filter {theirs * 1e6:.0f} us, with it {ours * 1e6:.0f} us\n"
              f"ratio of the best batches {ours / theirs:.3f}, of the medians {median:.3f}; "
              f"{counters['packets'] / counters['classified']:.2f} trips to user space each")
        if len(sys.argv) > 1:
            Path(sys.argv[1]).write_text(json.dumps(
                {"FilterConnection/connect": {
                    "ours_ns": ours * 1e9, "reference_ns": theirs * 1e9, "ratio": ours / theirs,
                    "ratio_median": median}}), encoding="utf-8")


if __name__ == "__main__":
    result = unittest.TextTestRunner(verbosity=0).run(Measurement())
    sys.exit(0 if result.wasSuccessful() else 1)

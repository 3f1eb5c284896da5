"""What the measuring scripts share. Imported first: it finds the executables and the support of the
system tests, whose machines, links and servers the measurements use too."""

import json
import os
import statistics
import subprocess
import sys
import unittest
from pathlib import Path

_TESTS = Path(__file__).resolve().parent.parent / "Tests" / "System"
for _directory in ("Filter", "support"):
    sys.path.insert(0, str(_TESTS / _directory))
# The support reads both. Absolute: seen from a file tree of its own too.
os.environ["STILLOW_BIN"] = str(Path(os.environ["STILLOW_BIN"]).resolve())
os.environ.setdefault("STILLOW_STATE_DIRECTORY", "/Library/Application Support/Stillow")

BIN = Path(os.environ["STILLOW_BIN"])
# The first of those that we may use.
CORE = min(os.sched_getaffinity(0))


def pin():
    """This process and what it starts from now on run on one core."""
    os.sched_setaffinity(0, {CORE})


class Conversation:
    """A program that answers each line with one number. It ends with the test."""

    def __init__(self, test, command):
        self._process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         text=True, bufsize=1)
        test.addCleanup(self._process.stdout.close)
        test.addCleanup(self._process.wait)
        test.addCleanup(self._process.stdin.close)

    def ask(self, question):
        self._process.stdin.write(f"{question}\n")
        return int(self._process.stdout.readline())


def alternate(count, ours, reference):
    """`count` batches of both, by turns and each first as often as the other: two lists of what the
    calls gave."""
    results = {ours: [], reference: []}
    for number in range(count):
        for side in (ours, reference) if number % 2 else (reference, ours):
            results[side].append(side())
    return results[ours], results[reference]


def of_times(ours, reference):
    """The figures of two lists of seconds."""
    best, median = (side(ours) / side(reference) for side in (min, statistics.median))
    return {"ours_ns": min(ours) * 1e9, "reference_ns": min(reference) * 1e9, "ratio": best,
            "ratio_median": median}


def of_rates(ours, reference):
    """The figures of two lists of amounts per second."""
    best, median = (side(ours) / side(reference) for side in (max, statistics.median))
    return {"ours_rate": max(ours), "reference_rate": max(reference), "ratio": best,
            "ratio_median": median}


def write(results):
    """Into the file that the command line names, if it does."""
    if len(sys.argv) > 1:
        Path(sys.argv[1]).write_text(json.dumps(results), encoding="utf-8")


def measure(test_case):
    """Runs a test case that measures; ends this process."""
    result = unittest.TextTestRunner(verbosity=0).run(test_case())
    sys.exit(0 if result.wasSuccessful() else 1)

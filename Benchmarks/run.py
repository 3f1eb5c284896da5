#!/usr/bin/python3
"""Runs every benchmark and prints one table: what, measured, reference, ratio, aim.

The ratio is that of the best batches, or where a disk is waited for of the medians; the ratio of the
medians stands beside it, and where the two differ much the machine was busy.

STILLOW_BIN names the directory of the executables. Exits 1 if a benchmark could not be run, if one
has no row here or if a row got no figure. An aim that is missed is only said.
"""

import json
import os
import re
import subprocess
import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path

BIN = Path(os.environ["STILLOW_BIN"]).resolve()
CONNECTION = Path(__file__).resolve().parent / "FilterConnectionBenchmark" / "measure.py"


@dataclass(frozen=True)
class Row:
    """A benchmark, or a series of them that differ by the size that ends their names."""
    benchmark: str
    what: str
    reference: str
    unit: str = ""
    ratio_max: float | None = None
    nanoseconds_max: float | None = None

    def aim(self, result):
        if self.ratio_max is not None:
            aim, is_met = f"ratio <= {self.ratio_max}", result["ratio"] <= self.ratio_max
        elif self.nanoseconds_max is not None:
            aim = f"<= {duration(self.nanoseconds_max)}"
            is_met = result["ours_ns"] <= self.nanoseconds_max
        else:
            return "-"
        return aim + (", met" if is_met else ", missed")


LABEL_WALK = "label walk on absl::flat_hash_set"
BARE_CALLS = "bare system calls"
LOCK_AND_MATCH = "lock and match"
SEGMENT_COPY = "copy of the segment"

ROWS = (
    Row("DomainMatcher/compare/unblocked", "matches: no host blocked", LABEL_WALK, "names", 0.4),
    Row("DomainMatcher/compare/halfBlocked", "matches: half the hosts blocked", LABEL_WALK, "names",
        0.4),
    Row("DomainMatcher/compare/distinct", "matches: half blocked, no host twice", LABEL_WALK,
        "names", 0.4),
    Row("DomainMatcher/compare/blocked", "matches: every host blocked", LABEL_WALK, "names", 0.4),
    Row("DomainMatcher/compare/manyLabels", "matches: 127 labels, half blocked", LABEL_WALK, "names",
        0.4),
    Row("PublicSuffixList/registrableDomain", "registrableDomain", "libpsl", ratio_max=0.1),
    Row("PublicSuffixList/split", "registrableDomain as a view", "libpsl"),
    Row("FlowClassifier/classifyName", "classify with a name", LOCK_AND_MATCH, "names", 1.5),
    Row("FlowClassifier/classifyKnownPair", "classify with a known name and address",
        LOCK_AND_MATCH, "names", 1.5),
    Row("FlowClassifier/record", "record into a full table of 10,000", "bare hash map",
        nanoseconds_max=1000),
    Row("Checkpoint/save", "durable save of a checkpoint", BARE_CALLS, "names", 1.2),
    Row("DurableFile/replaceDurably", "durable replacement of a file", BARE_CALLS, "bytes", 1.2),
    Row("Tick/tick", "tick", "the same at 10 names", "names", 1.2),
    Row("FilterConnection/connect", "new HTTPS connection with the filter", "without the filter",
        ratio_max=1.1),
    Row("DirectiveRead/readAfterProbe", "directive of which only the probe changed",
        "reading it anew", "names"),
    Row("NameReader/stream/tlsOfCurl", "name of a TLS flow (curl)", SEGMENT_COPY),
    Row("NameReader/stream/tlsOfChromium", "name of a TLS flow (Chromium)", SEGMENT_COPY),
    Row("NameReader/stream/tlsInTwoRecords", "name of a TLS flow in two records", SEGMENT_COPY),
    Row("NameReader/stream/http", "name of an HTTP flow", SEGMENT_COPY),
    Row("NameReader/quic", "name of a QUIC flow", "bare OpenSSL calls"),
)


def duration(nanoseconds):
    for limit, divisor, unit, digits in ((1e3, 1, "ns", 0), (1e6, 1e3, "us", 1),
                                         (1e9, 1e6, "ms", 1)):
        if nanoseconds < limit:
            return f"{nanoseconds / divisor:.{digits}f} {unit}"
    return f"{nanoseconds / 1e9:.2f} s"


def run_program(program):
    """The results by name, with the program's name before it."""
    output = subprocess.run([program, "--benchmark_format=json"], check=True,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True).stdout
    results = {}
    for result in json.loads(output)["benchmarks"]:
        # What the library adds to the name: how often and with which clock.
        name = re.sub(r"/(iterations:\d+|manual_time)", "", result["name"])
        name = f"{program.name.removesuffix('Benchmark')}/{name}"
        if result.get("error_occurred"):
            raise RuntimeError(f"{name}: {result['error_message']}")
        results[name] = result
    return results


def run_connection():
    with tempfile.NamedTemporaryFile() as file:
        subprocess.run([CONNECTION, file.name], check=True, stdout=subprocess.PIPE,
                       stderr=subprocess.PIPE, text=True)
        return {"FilterConnection/connect": json.load(file)}


def run_all():
    """The results, and what failed."""
    results, failures = {}, []
    programs = sorted(BIN.glob("*Benchmark"))
    if not programs:
        failures.append(f"There are no benchmarks in {BIN}.")
    for name, run in [(program.name, lambda program=program: run_program(program))
                      for program in programs] + [("FilterConnectionBenchmark", run_connection)]:
        print(f"{name} …", file=sys.stderr, flush=True)
        try:
            results |= run()
        except subprocess.CalledProcessError as error:
            failures.append(f"{name}: exit status {error.returncode}\n{error.stderr.strip()}")
        except (OSError, ValueError, KeyError, RuntimeError) as error:
            failures.append(f"{name}: {error}")
    return results, failures


def table(results):
    """The lines of the table; takes what it shows out of `results`."""
    lines = [("what", "size", "measured", "reference", "", "ratio", "medians", "aim")]
    for row in ROWS:
        for name in [name for name in results if re.fullmatch(rf"{row.benchmark}(/\d+)?", name)]:
            result = results.pop(name)
            size = name.removeprefix(row.benchmark)[1:]
            lines.append((row.what, f"{int(size):,} {row.unit}" if size else "",
                          duration(result["ours_ns"]), duration(result["reference_ns"]),
                          row.reference, f"{result['ratio']:.2f}",
                          f"{result['ratio_median']:.2f}", row.aim(result)))
    return lines


def show(lines):
    widths = [max(map(len, column)) for column in zip(*lines)]
    right = (False, True, True, True, False, True, True, False)
    for line in lines:
        print("  ".join(cell.rjust(width) if is_right else cell.ljust(width)
                        for cell, width, is_right in zip(line, widths, right)).rstrip())
        if line is lines[0]:
            print("-" * (sum(widths) + 2 * (len(widths) - 1)))


def main():
    load = os.getloadavg()[0]
    results, failures = run_all()
    lines = table(results)
    failures += [f"{name}: has no row in {Path(__file__).name}" for name in results]
    shown = {line[0] for line in lines}
    failures += [f"{row.benchmark}: no figure" for row in ROWS if row.what not in shown]
    show(lines)
    print(f"\n{os.cpu_count()} processors, load {load:.1f} at the beginning. Both sides of a row took "
          "turns on this machine:\nthe ratios count, the times are those of the moment.")
    for failure in failures:
        print(failure, file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

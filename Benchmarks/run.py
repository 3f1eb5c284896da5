#!/usr/bin/python3
"""Runs every benchmark, prints one table and writes it into docs/performance.md.

The ratio is that of the best batches; the ratio of the medians stands beside it, and where the two
differ much the machine was busy.

STILLOW_BIN names the directory of the executables. With arguments only the benchmarks whose names
begin with one of them, and the document stays as it is. Exits 1 if a benchmark could not be run, if
one has no row here or a row no figure, or if an aim is missed by more than a quarter.
"""

import json
import os
import re
import subprocess
import sys
import tempfile
from dataclasses import dataclass
from datetime import datetime, timezone
from pathlib import Path

HERE = Path(__file__).resolve().parent
DOCUMENT = HERE.parent / "docs" / "performance.md"
TABLE_BEGIN = "<!-- What scripts/bench wrote begins here. -->"
TABLE_END = "<!-- What scripts/bench wrote ends here. -->"
# How far from its aim a figure may be before the run fails: these are shared machines.
TOLERANCE = 1.25


@dataclass(frozen=True)
class AtMost:
    limit: float

    def __str__(self):
        return f"≤ {self.limit:g}"

    def is_met(self, value, tolerance=1.0):
        return value <= self.limit * tolerance


@dataclass(frozen=True)
class AtLeast:
    limit: float

    def __str__(self):
        return f"≥ {self.limit:g}"

    def is_met(self, value, tolerance=1.0):
        return value >= self.limit / tolerance


def duration(nanoseconds):
    for limit, divisor, unit, digits in ((1e3, 1, "ns", 0), (1e6, 1e3, "µs", 1),
                                         (1e9, 1e6, "ms", 1)):
        if nanoseconds < limit:
            return f"{nanoseconds / divisor:.{digits}f} {unit}"
    return f"{nanoseconds / 1e9:.2f} s"


@dataclass(frozen=True)
class Row:
    """A benchmark, or a series of them that differ by the size that ends their names. Of each comes
    `ours_ns` and `reference_ns`, or, where `rate` says of what, `ours_rate` and `reference_rate`,
    and the `ratio` of these, `ratio_median` beside it."""
    benchmark: str
    what: str
    reference: str
    unit: str = ""
    aim: AtMost | AtLeast | None = None
    aims: tuple = ()  # (size, aim) where a size has an aim of its own
    rate: tuple | None = None  # (divisor, unit)

    def aim_at(self, size):
        return dict(self.aims).get(size, self.aim)

    def cells(self, size, result):
        def amount(side):
            if self.rate is None:
                return duration(result[f"{side}_ns"])
            return f"{result[f'{side}_rate'] / self.rate[0]:,.1f} {self.rate[1]}"

        return (self.what, f"{size:,} {self.unit}" if size else "", amount("ours"),
                amount("reference"), self.reference, f"{result['ratio']:.2f}",
                f"{result['ratio_median']:.2f}")

    @staticmethod
    def judged(result):
        return result["ratio"]


@dataclass(frozen=True)
class Figure:
    """A benchmark that has a limit instead of a reference: its `value`."""
    benchmark: str
    what: str
    unit: str
    aim: AtMost | AtLeast | None = None
    digits: int = 2

    def aim_at(self, _):
        return self.aim

    def cells(self, size, result):
        return (self.what, f"{size:,}" if size else "", f"{result['value']:.{self.digits}f} "
                f"{self.unit}".rstrip(), "", "", "", "")

    @staticmethod
    def judged(result):
        return result["value"]


LABEL_WALK = "label walk on absl::flat_hash_set"
BARE_CALLS = "bare system calls"
LOCK_AND_MATCH = "mutex and match"
SEGMENT_COPY = "copy of the segment"
BYTES_READ_ONCE = "reading the bytes once"
OPENSSL = "OpenSSL’s own calls"

ROWS = (
    Row("DomainMatcher/compare/halfBlocked", "matches: half of 4,096 hosts blocked", LABEL_WALK,
        "names", AtMost(0.35), ((1_000_000, AtMost(0.5)),)),
    Row("DomainMatcher/compare/distinct", "matches: 1,000,000 hosts, half blocked", LABEL_WALK,
        "names", AtMost(0.8)),
    Row("DomainMatcher/compare/manyLabels", "matches: hosts of 127 labels", LABEL_WALK, "names",
        AtMost(0.05)),
    Row("DomainMatcher/compare/unblocked", "matches: no host blocked", LABEL_WALK, "names"),
    Row("DomainMatcher/compare/blocked", "matches: every host blocked", LABEL_WALK, "names"),
    Row("PublicSuffixList/registrableDomain", "registrableDomain", "psl_registrable_domain",
        aim=AtMost(0.07)),
    Row("PublicSuffixList/split", "registrableDomain as a view", "psl_registrable_domain"),
    Row("PublicSuffixList/parse", "parse the public suffix list", "psl_load_file", aim=AtMost(0.3)),
    Row("DomainNormalizer/ascii", "normalize a typed site of ASCII", "uidna_nameToASCII_UTF8",
        aim=AtMost(3)),
    Row("DomainNormalizer/umlauts", "normalize a typed site with umlauts", "uidna_nameToASCII_UTF8",
        aim=AtMost(2)),
    Row("DaemonStatus/encode", "encode a DaemonStatus", "RapidJSON’s Writer", "domains",
        AtMost(0.4)),
    Row("DaemonStatus/decode", "decode a DaemonStatus", "simdjson On Demand", "domains",
        AtMost(1.2)),
    Row("Digest/sha256", "SHA-256 of a checkpoint", OPENSSL, "domains", AtMost(1.05)),
    Row("Digest/base64", "Base64 of a checkpoint", OPENSSL, "domains", AtMost(1.05)),
    Row("FlowClassifier/classifyName", "classify with a name", LOCK_AND_MATCH, "names",
        AtMost(1.3)),
    Row("FlowClassifier/twoThreads", "classify on two threads", "the same work on one thread",
        "names", AtMost(1)),
    Row("FlowClassifier/lookUpAddress", "address lookup with ageing, 10,000 addresses",
        "absl::flat_hash_map find", aim=AtMost(1.5)),
    Row("FlowClassifier/record", "record into a full table of 10,000", "a recency list",
        aim=AtMost(2)),
    Row("FlowClassifier/classifyKnownPair", "classify with a known name and address",
        LOCK_AND_MATCH, "names"),
    Row("NameReader/stream/tlsOfCurl", "ClientHello to name (curl)", BYTES_READ_ONCE,
        aim=AtMost(5)),
    Row("NameReader/stream/tlsOfChromium", "ClientHello to name (Chromium)", BYTES_READ_ONCE,
        aim=AtMost(5)),
    Row("NameReader/stream/tlsInTwoRecords", "ClientHello to name, in two records",
        BYTES_READ_ONCE, aim=AtMost(5)),
    Row("NameReader/stream/http", "HTTP request to name", BYTES_READ_ONCE),
    Row("NameReader/quic", "QUIC Initial to name", "OpenSSL’s AES and HKDF alone",
        aim=AtMost(1.3)),
    Row("Checkpoint/save", "durable save", BARE_CALLS, "domains", AtMost(1.1)),
    Row("Checkpoint/saveLarge", "durable save", "encode, SHA-256, Base64, one write", "domains",
        AtMost(1.2)),
    Row("DurableFile/replaceDurably", "durable replacement of a file", BARE_CALLS, "bytes",
        AtMost(1.1)),
    Row("Strand/hop", "strand hop", "bare co_spawn onto a strand", aim=AtMost(1.2)),
    Row("Strand/serialisedCall", "serialised call", "bare co_spawn onto a strand", aim=AtMost(1.2)),
    Row("SocketStatus/call", "status call over the socket, one core", "epoll echo of the bytes",
        "domains", AtMost(2)),
    Row("SocketPush/push", "a status pushed to 1,000 subscribers", "one encode, 1,000 writes",
        "domains", AtMost(1.3)),
    Row("Activation/activate", "activation, request to reply", "one decode, one durable save",
        "domains", AtMost(2)),
    Row("Tick/tick", "a tick", "a tick, 10 domains", "domains", AtMost(1.1)),
    Row("DirectiveRead/readAfterProbe", "directive of which only the probe changed",
        "reading it anew", "domains"),
    Row("FilterConnection/connect", "new HTTPS connection, armed, 1,000 names, one core",
        "no rules", aim=AtMost(1.08)),
    Row("FilterTransfer/bulk", "bulk transfer of a released flow, one core", "conntrack alone",
        aim=AtLeast(0.98), rate=(1e9, "Gbit/s")),
    Row("FilterDecisions/decide", "decisions, one queue thread, one core",
        "a loop that accepts everything", aim=AtLeast(0.8), rate=(1e3, "thousand/s")),
    Figure("Idle/daemon/wakeups", "daemon, idle for ten minutes: wake-ups", "/s", AtMost(1)),
    Figure("Idle/daemon/processor", "daemon, idle for ten minutes: of a core", "%", AtMost(0.1), 3),
    Figure("Idle/daemon/resident", "daemon, idle for ten minutes: resident", "MB", AtMost(15), 1),
    Figure("Idle/filter/wakeups", "filter, idle for ten minutes: wake-ups beyond the directory’s "
           "events", "/s", AtMost(0)),
    Figure("Idle/filter/processor", "filter, idle for ten minutes: of a core", "%", None, 3),
    Figure("Idle/filter/resident", "filter, idle for ten minutes: resident", "MB", AtMost(15), 1),
)


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


def run_script(script):
    """A script writes its results by name, as JSON, into the file that it is given."""
    with tempfile.NamedTemporaryFile() as file:
        subprocess.run([script, file.name], check=True, stdout=subprocess.PIPE,
                       stderr=subprocess.PIPE, text=True)
        return json.load(file)


def runs(directory):
    """Every benchmark by its name, with what runs it."""
    for program in sorted(directory.glob("*Benchmark")):
        yield program.name, lambda program=program: run_program(program)
    for script in sorted(HERE.glob("*Benchmark/measure.py")):
        yield script.parent.name, lambda script=script: run_script(script)


def run_all(wanted):
    """The results, and what failed."""
    directory = Path(os.environ["STILLOW_BIN"]).resolve()
    results, failures = {}, []
    for name, run in runs(directory):
        if wanted and not name.startswith(tuple(wanted)):
            continue
        print(f"{name} …", file=sys.stderr, flush=True)
        try:
            results |= run()
        except subprocess.CalledProcessError as error:
            failures.append(f"{name}: exit status {error.returncode}\n{error.stderr.strip()}")
        except (OSError, ValueError, KeyError, RuntimeError) as error:
            failures.append(f"{name}: {error}")
    return results, failures


HEAD = ("What", "Size", "Measured", "Reference", "", "Ratio", "Medians", "Aim", "")
IS_RIGHT = (False, True, True, True, False, True, True, False, False)


def table(results):
    """The lines of the table and what was missed by too much; takes what it shows out of
    `results`."""
    lines, failures = [HEAD], []
    for row in ROWS:
        for name in [name for name in results if re.fullmatch(rf"{row.benchmark}(/\d+)?", name)]:
            result = results.pop(name)
            size = int(name.removeprefix(row.benchmark)[1:] or 0)
            aim, value = row.aim_at(size), row.judged(result)
            verdict = "" if aim is None else "met" if aim.is_met(value) else "missed"
            lines.append((*row.cells(size, result), "–" if aim is None else str(aim), verdict))
            if aim is not None and not aim.is_met(value, TOLERANCE):
                failures.append(f"{name}: {value:.3g} is more than a quarter from its aim, {aim}")
    return lines, failures


def show(lines):
    widths = [max(map(len, column)) for column in zip(*lines)]
    for line in lines:
        print("  ".join(cell.rjust(width) if is_right else cell.ljust(width)
                        for cell, width, is_right in zip(line, widths, IS_RIGHT)).rstrip())
        if line is lines[0]:
            print("-" * (sum(widths) + 2 * (len(widths) - 1)))


def markdown(lines):
    def of(line):
        what, size, measured, reference_time, reference, ratio, medians, aim, verdict = line
        if verdict == "missed":
            verdict = "**missed**"
        return (what, size, measured, f"{reference_time} {reference}".strip(), ratio, medians,
                ", ".join(filter(None, (aim, verdict))))

    head, *rest = map(of, lines)
    return "\n".join(f"| {' | '.join(cells)} |"
                     for cells in (head, ("---", "--:", "--:", "---", "--:", "--:", "---"), *rest))


def machine():
    """Date, compiler, processor and system, for the words before the table."""
    cache = (Path(os.environ["STILLOW_BIN"]).resolve().parent / "CMakeCache.txt").read_text()
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.+)$", cache, re.MULTILINE)[1]
    version = subprocess.run([compiler, "--version"], check=True, stdout=subprocess.PIPE,
                             text=True).stdout.splitlines()[0]
    flags = " ".join(re.search(rf"^{name}:\w+=(.*)$", cache, re.MULTILINE)[1]
                     for name in ("CMAKE_CXX_FLAGS_RELWITHDEBINFO", "CMAKE_CXX_FLAGS"))
    model = re.search(r"^model name\s*: (.+)$", Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    return (f"{datetime.now(timezone.utc):%Y-%m-%d}, {version}, `{flags.strip()}`, "
            f"{os.cpu_count()} × {model[1] if model else os.uname().machine}, "
            f"Linux {os.uname().release}")


def write_document(lines, load):
    text = DOCUMENT.read_text()
    before, _, rest = text.partition(TABLE_BEGIN)
    _, _, after = rest.partition(TABLE_END)
    DOCUMENT.write_text(f"{before}{TABLE_BEGIN}\n{machine()}, load {load:.1f} at the beginning.\n\n"
                        f"{markdown(lines)}\n{TABLE_END}{after}")


def main():
    wanted = sys.argv[1:]
    load = os.getloadavg()[0]
    results, failures = run_all(wanted)
    lines, missed = table(results)
    failures += missed
    failures += [f"{name}: has no row in {Path(__file__).name}" for name in results]
    shown = {line[0] for line in lines}
    if not wanted:
        failures += [f"{row.benchmark}: no figure" for row in ROWS if row.what not in shown]
    show(lines)
    print(f"\n{machine()}, load {load:.1f} at the beginning.\nBoth sides of a row took turns on this "
          "machine: the ratios count, the times are those of the moment.")
    if not wanted and not any("no figure" in failure for failure in failures):
        write_document(lines, load)
        print(f"Written into {DOCUMENT.relative_to(HERE.parent)}.")
    for failure in failures:
        print(failure, file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

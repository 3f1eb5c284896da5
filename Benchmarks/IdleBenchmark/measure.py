#!/usr/bin/python3
"""What daemon and filter cost while nothing happens.

The real programs on a machine in namespaces, with a Commitment of 100 domains, are watched for ten
minutes in which nobody connects and nothing changes.

  STILLOW_BIN=build/bench/bin Benchmarks/IdleBenchmark/measure.py [FILE]

FILE takes the figures as JSON. IDLE_SECONDS in the environment makes it shorter, for a trial.

A wake-up is a voluntary context switch of any thread: it had slept, in a wait or in a system call,
and ran again. Processor time is what the scheduler counted for all threads. Resident is what lies in
memory at the end, the mapped parts of executable and libraries included.

The state directory lies in memory here. On a disk each save of the checkpoint, one a minute, makes its
thread wait for the disk a few times more, which says something about the disk and is not an idle
process waking up; docs/performance.md has the durable save in rows of its own.

The filter watches the state directory, in which the daemon saves its checkpoint once a minute; the
kernel cannot tell it of one name only. So those wake-ups are subtracted that bring it an event of
that directory: at most as many as there were events, which a watch of our own counts.
"""

import ctypes
import os
import struct
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

import measuring  # noqa: E402

from machine import Machine  # noqa: E402
from processes import run, wait_until  # noqa: E402

SECONDS = float(os.environ.get("IDLE_SECONDS", "600"))
STATE_DIRECTORY = os.environ["STILLOW_STATE_DIRECTORY"]
DOMAINS = 100
# The first pass, the validation before the activation and what follows it are over by then.
SETTLING_SECONDS = 15

# Of <sys/inotify.h>: what the filter's watch of the state directory takes.
IN_ATTRIB, IN_CLOSE_WRITE, IN_MOVED_FROM, IN_MOVED_TO = 0x4, 0x8, 0x40, 0x80
IN_CREATE, IN_DELETE = 0x100, 0x200
EVENT = struct.Struct("iIII")  # watch, mask, cookie, bytes of the name


class DirectoryEvents:
    def __init__(self, directory):
        libc = ctypes.CDLL(None, use_errno=True)
        self._descriptor = libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        mask = IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE
        if libc.inotify_add_watch(self._descriptor, os.fsencode(directory), mask) < 0:
            raise OSError(ctypes.get_errno(), f"cannot watch {directory}")

    def take(self):
        """How many there were since the last call."""
        count = 0
        while True:
            try:
                events = os.read(self._descriptor, 1 << 20)
            except BlockingIOError:
                return count
            while events:
                *_, name_bytes = EVENT.unpack_from(events)
                events = events[EVENT.size + name_bytes:]
                count += 1


class Reading:
    """What a process has cost so far, thread by thread."""

    def __init__(self, pid):
        self.wakeups, self.nanoseconds = {}, 0
        for task in Path(f"/proc/{pid}/task").iterdir():
            status = self._fields(task / "status")
            self.wakeups[task.name] = int(status["voluntary_ctxt_switches"])
            self.nanoseconds += int((task / "schedstat").read_text().split()[0])
        status = self._fields(Path(f"/proc/{pid}/status"))
        self.resident = sum(int(status[name].split()[0]) * 1024
                            for name in ("RssAnon", "RssFile", "RssShmem"))

    @staticmethod
    def _fields(path):
        return dict(line.split(":\t", 1) for line in path.read_text().splitlines() if ":\t" in line)

    def wakeups_since(self, before):
        """By thread; those that slept all the while are left out."""
        counts = {task: count - before.wakeups.get(task, 0)
                  for task, count in self.wakeups.items()}
        return {task: count for task, count in counts.items() if count}


def main():
    machine = Machine(measuring.BIN, ["example.com"])
    try:
        run(machine.inside("mount", "-t", "tmpfs", "-o", "mode=755", "idle", "/Library"))
        machine.start_filter()
        machine.start_daemon()
        machine.stillow("start", "--for", "10h", "--yes",
                        *(f"site{number}.example.com" for number in range(DOMAINS)))
        wait_until(lambda: machine.health() == {"healthy": {}}, "health")
        assert len(machine.active()["scope"]) == DOMAINS
        time.sleep(SETTLING_SECONDS)
        events = DirectoryEvents(f"/proc/{machine.daemon.pid}/root{STATE_DIRECTORY}")
        processes = {"daemon": machine.daemon, "filter": machine.filter}
        before = {name: Reading(process.pid) for name, process in processes.items()}
        begun = time.monotonic()
        time.sleep(SECONDS)
        after = {name: Reading(process.pid) for name, process in processes.items()}
        seconds = time.monotonic() - begun
        explained = {"daemon": 0, "filter": events.take()}
        assert machine.health() == {"healthy": {}} and machine.active()
        results = {}
        for name in processes:
            by_thread = after[name].wakeups_since(before[name])
            wakeups = sum(by_thread.values())
            nanoseconds = after[name].nanoseconds - before[name].nanoseconds
            print(f"{name}: {wakeups} wake-ups in {seconds:.1f} s, by thread "
                  f"{sorted(by_thread.values(), reverse=True)}, {explained[name]} events; "
                  f"{nanoseconds / 1e6:.1f} ms; {after[name].resident / 1e6:.1f} MB")
            results |= {
                f"Idle/{name}/wakeups": {"value": max(0, wakeups - explained[name]) / seconds},
                f"Idle/{name}/processor": {"value": nanoseconds / 1e9 / seconds * 100},
                f"Idle/{name}/resident": {"value": after[name].resident / 1e6}}
        measuring.write(results)
    finally:
        machine.close()


if __name__ == "__main__":
    main()

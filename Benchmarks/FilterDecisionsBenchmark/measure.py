#!/usr/bin/python3
"""What decisions cost the filter, beside a loop that accepts everything.

Two namespaces with the same kernel rules. In one stillow-filter holds the queue and blocks 1,000
other names, in the other a bare loop holds it: receive a packet, read its identifier, accept it. The
feed is the same: hellos like those of curl, to 64 hosts, each on a connection of its own. Behind the
rules they are discarded.

A batch waits in the queue, its holder being stopped, before it is answered. So what is measured is the
thread at work and not how feeder and holder share the machine: decisions by the seconds that the
scheduler counted for that thread. Those include what the kernel does for a verdict, but not the way
out of the machine. Batches take about 10 ms and alternate; every process is pinned to one core.

  STILLOW_BIN=build/bench/bin Benchmarks/FilterDecisionsBenchmark/measure.py [FILE]

FILE takes the figures as JSON.
"""

import signal
import ssl
import struct
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

import measuring  # noqa: E402

from filterbench import (BIN, QUEUE, FilterTestCase, Link, NetworkNamespace, Rules,  # noqa: E402
                         wait_until)

BATCHES = 101
PACKETS = 3000
NAMES = 1000
HOSTS = 64
HOSTS_NETWORK = "10.99.0.0/16"
# Of the bare loop. With 32, as the filter has them, it decides half as many again.
PACKETS_AT_ONCE = 1


def hello(name):
    """The first bytes of a TLS connection to `name`."""
    context = ssl.create_default_context()
    context.set_alpn_protocols(["h2", "http/1.1"])
    outgoing = ssl.MemoryBIO()
    connection = context.wrap_bio(ssl.MemoryBIO(), outgoing, server_hostname=name)
    try:
        connection.do_handshake()
    except ssl.SSLWantReadError:
        return outgoing.read()
    raise AssertionError("a handshake with nobody")


class Side:
    """A namespace, whoever holds its queue, and its feeder."""

    def __init__(self, test, namespace, link, hellos):
        self.namespace = namespace
        namespace.run("ip", "route", "add", HOSTS_NETWORK, "via", link.right_ipv4)
        namespace.run("iptables", "-t", "mangle", "-A", "POSTROUTING", "-d", HOSTS_NETWORK,
                      "-j", "DROP")
        self.feeder = measuring.Conversation(
            test, namespace.command(BIN / "FilterDecisionsPeer", "feed", hellos))
        self.holder = None

    def waiting(self):
        listing = self.namespace.run("cat", "/proc/net/netfilter/nfnetlink_queue").stdout
        return next(int(line.split()[2]) for line in listing.splitlines()
                    if int(line.split()[0]) == QUEUE)

    def passed(self):
        listing = self.namespace.run("iptables", "-t", "mangle", "-nvxL", "POSTROUTING").stdout
        return next(int(line.split()[0]) for line in listing.splitlines() if "DROP" in line)

    def nanoseconds(self):
        """Of the thread that holds the queue, which is asleep, so that nothing is yet to be added."""
        return int(Path(f"/proc/{self.holder.pid}/task/{self.holder.pid}/schedstat")
                   .read_text(encoding="utf-8").split()[0])

    def batch(self, test):
        """Decisions a second of the holder's time."""
        before = self.passed()
        self.holder.send_signal(signal.SIGSTOP)
        self.feeder.ask(PACKETS)
        test.assertEqual(self.waiting(), PACKETS)
        spent = self.nanoseconds()
        self.holder.send_signal(signal.SIGCONT)
        wait_until(lambda: self.waiting() == 0, "the verdicts")
        spent = self.nanoseconds() - spent
        test.assertEqual(self.passed() - before, PACKETS)
        return PACKETS / (spent / 1e9)


class Measurement(FilterTestCase):
    def runTest(self):
        measuring.pin()
        hellos = self.directory / "hellos"
        texts = [hello(f"www.neighbour{number}.example") for number in range(HOSTS)]
        hellos.write_bytes(b"".join(struct.pack(">H", len(text)) + text for text in texts))
        self.directive.publish(*(f"blocked{number}.example" for number in range(NAMES)))
        self.start_filter()
        filtering = Side(self, self.client, self.link, hellos)
        filtering.holder = self.filter
        plain = self._closing(NetworkNamespace("accepting"))
        accepting = Side(self, plain, Link(plain, self.server, number=2), hellos)
        accepting.holder = plain.start(BIN / "FilterDecisionsPeer", "accept", PACKETS_AT_ONCE,
                                       log_path=self.directory / "accepting.log")
        accepting.holder.wait_for_log("accepting")
        self.rules.arm()
        accepting_rules = Rules(plain)
        accepting_rules.arm()
        for side in (filtering, accepting) * 3:
            side.batch(self)
        figures = measuring.of_rates(*measuring.alternate(
            BATCHES, lambda: filtering.batch(self), lambda: accepting.batch(self)))
        counters = self.counters()
        self.assertEqual(counters["released"], (BATCHES + 3) * PACKETS)
        self.assertEqual(counters["queueOverruns"], 0)
        print(f"{BATCHES} batches of {PACKETS} connections on core {measuring.CORE}; {figures}")
        measuring.write({"FilterDecisions/decide": figures})


if __name__ == "__main__":
    measuring.measure(Measurement)

#!/usr/bin/python3
"""A bulk transfer of a released flow beside one of a flow that is only tracked.

Two senders in namespaces of their own, with equal links to one receiver, each with established TCP
connections that take turns: of two that are equal one is up to 3 % quicker for as long as both live,
wherever that comes from. One namespace has the kernel rules and stillow-filter, which released the
flows by their name; in the other connection tracking runs, with no rule that its packets meet.
Sending is the direction in which every packet with data meets our rules; receiving, only
acknowledgements do. The sides take turns in batches of some 10 ms. Every process is pinned to one
core.

  STILLOW_BIN=build/bench/bin Benchmarks/FilterTransferBenchmark/measure.py [FILE]

FILE takes the figures as JSON.
"""

import itertools
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

import measuring  # noqa: E402

from filterbench import BIN, FilterTestCase, Link, NetworkNamespace  # noqa: E402

BATCHES = 252  # by turns on each connection of a side
CONNECTIONS = 4
BATCH_BYTES = 64 << 20
PORT = 8080


class Measurement(FilterTestCase):
    def runTest(self):
        tracked = self._closing(NetworkNamespace("tracked"))
        link = Link(tracked, self.server, number=2)
        # Connection tracking runs wherever a rule asks for it; nothing is forwarded here.
        tracked.run("iptables", "-t", "mangle", "-A", "FORWARD", "-m", "conntrack", "--ctstate",
                    "NEW", "-j", "RETURN")
        measuring.pin()
        receiver = self.server.start(BIN / "FilterTransferPeer", "serve", PORT,
                                     log_path=self.directory / "receiver.log")
        receiver.wait_for_log("listening")
        self.directive.publish("blocked.example")
        self.start_filter()
        self.rules.arm()

        def rate(namespace, address):
            senders = itertools.cycle([
                measuring.Conversation(self, namespace.command(
                    BIN / "FilterTransferPeer", "send", address, PORT, "neighbour.example"))
                for _ in range(CONNECTIONS)])
            return lambda: BATCH_BYTES * 8 / (next(senders).ask(BATCH_BYTES) / 1e9)

        rates = [rate(self.client, self.link.right_ipv4), rate(tracked, link.right_ipv4)]
        for _ in range(10 * CONNECTIONS):  # the windows open, the buffers grow
            for call in rates:
                call()
        before = self.counters()
        self.assertEqual(before["released"], CONNECTIONS)
        figures = measuring.of_rates(*measuring.alternate(BATCHES, *rates))
        # Not one packet of a released flow visits user space, and all connections are tracked.
        self.assertEqual(self.counters()["packets"], before["packets"])
        for namespace in (self.client, tracked):
            entries = namespace.run("conntrack", "-L", "-p", "tcp").stdout
            self.assertEqual(entries.count("ESTABLISHED"), CONNECTIONS, entries)
        print(f"{BATCHES} batches of {BATCH_BYTES >> 20} MiB on core {measuring.CORE}; {figures}")
        measuring.write({"FilterTransfer/bulk": figures})


if __name__ == "__main__":
    measuring.measure(Measurement)

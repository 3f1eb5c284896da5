#!/usr/bin/python3
"""A new HTTPS connection with the filter against one without.

Two clients in namespaces of their own, with equal links to one nginx; one of them has the kernel
rules and stillow-filter. They take turns in batches of about 10 ms, so that both see the same
machine. Every process is pinned to one core. The figure is the ratio of the best batches.

  STILLOW_BIN=build/bench/bin Benchmarks/FilterConnectionBenchmark/measure.py [FILE]

FILE takes the figures as JSON.
"""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

import measuring  # noqa: E402

from filterbench import BIN, FilterTestCase, Link, NetworkNamespace  # noqa: E402

BATCHES = 301
BATCH_SECONDS = 0.010
NAMES = 1000


class Measurement(FilterTestCase):
    def runTest(self):
        plain = self._closing(NetworkNamespace("plain"))
        link = Link(plain, self.server, number=2)
        measuring.pin()
        self.start_server()
        self.directive.publish(*(f"blocked{number}.example" for number in range(NAMES)))
        self.start_filter()
        self.rules.arm()
        clients = [
            measuring.Conversation(self, namespace.command(BIN / "FilterConnectionClient", address,
                                                           "neighbour.example"))
            for namespace, address in ((self.client, self.link.right_ipv4),
                                       (plain, link.right_ipv4))]

        def seconds_per_connection(client, count):
            return client.ask(count) / 1e9 / count

        for client in clients:
            seconds_per_connection(client, 200)
        single = min(seconds_per_connection(clients[1], 20) for _ in range(20))
        count = max(1, round(BATCH_SECONDS / single))
        figures = measuring.of_times(*measuring.alternate(
            BATCHES, *(lambda client=client: seconds_per_connection(client, count)
                       for client in clients)))
        counters = self.counters()
        self.assertGreaterEqual(counters["released"], BATCHES * count)
        # A released flow is the kernel's alone.
        self.assertLess(counters["packets"], 1.01 * counters["classified"])
        print(f"{BATCHES} batches of {count} connections on core {measuring.CORE}; "
              f"{counters['packets'] / counters['classified']:.2f} trips to user space each; "
              f"{figures}")
        measuring.write({"FilterConnection/connect": figures})


if __name__ == "__main__":
    measuring.measure(Measurement)

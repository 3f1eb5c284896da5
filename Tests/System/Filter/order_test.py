"""A directive that was renamed into place before a packet was sent is in force when that packet is
judged: under load on both cores, and while a million names are being indexed."""

import json
import multiprocessing
import os
import time

from filterbench import FilterTestCase, answer, main, request

ROUNDS = 1_000


def _burn():
    while True:
        pass


class Order(FilterTestCase):
    def setUp(self):
        super().setUp()
        self.start_server()
        self.start_filter()
        self.rules.arm()

    def fetch(self, host):
        tcp = self.connect()
        tcp.send(request(host))
        result = answer(tcp)
        tcp.close()
        return result

    def load_both_cores(self):
        for _ in range(max(2, os.cpu_count() or 2)):
            process = multiprocessing.Process(target=_burn, daemon=True)
            process.start()
            self.addCleanup(process.join)
            self.addCleanup(process.kill)

    def test_publish_then_connect_never_misses(self):
        self.load_both_cores()
        misses = []
        for number in range(ROUNDS):
            blocked, freed = f"d{number}.example", f"d{number - 1}.example"
            self.directive.publish(blocked)
            if self.fetch(blocked) != "reset":
                misses.append(f"{blocked} passed")
            if self.fetch(freed) != f"ok {freed}":
                misses.append(f"{freed} was refused")
        self.assertEqual(misses, [])
        counters = self.counters()
        self.assertEqual(counters["dropped"], ROUNDS)
        self.assertEqual(counters["released"], ROUNDS)

    def test_publish_between_connect_and_send_never_misses(self):
        """The narrowest way: the connection stands, and the first byte follows the rename."""
        self.load_both_cores()
        misses = 0
        for number in range(ROUNDS // 4):
            tcp = self.connect()
            self.directive.publish(f"d{number}.example")
            tcp.send(request(f"d{number}.example"))
            misses += answer(tcp) != "reset"
            tcp.close()
        self.assertEqual(misses, 0)

    def test_waits_for_a_large_directive(self):
        names = 200_000
        domains = sorted(f"name{number}.example" for number in range(names))
        text = json.dumps({"scope": {"generation": 7, "domains": domains},
                           "publishedAt": 800_000_000.0})
        self.directive.write(text)
        begin = time.monotonic()
        result = self.fetch(f"www.name{names - 1}.example")
        print(f"[{names} names: judged after {time.monotonic() - begin:.3f} s]", end=" ")
        self.assertEqual(result, "reset")
        self.assertEqual(self.fetch("neighbour.example"), "ok neighbour.example")
        self.assertEqual(self.counters()["scopeGeneration"], 7)


if __name__ == "__main__":
    main()

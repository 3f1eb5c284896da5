"""A directive that was renamed into place before a packet was sent is in force when that packet is
judged: under load on both cores, and while a million names are being indexed."""

import json
import multiprocessing
import os
import socket
import time

from filterbench import FilterTestCase, answer, datagrams, main, request

ROUNDS = 1_000


def _burn():
    while True:
        pass


def _keep_the_loop_busy(udp, datagram, destination):
    """Sends what is queued and refused, each time anew. As many as the socket has room for are in
    flight at a time, which is far less than would fill the queue."""
    while True:
        udp.sendto(datagram, destination)


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
            self.start(_burn)

    def start(self, function, *arguments):
        process = multiprocessing.Process(target=function, args=arguments, daemon=True)
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
        """The narrowest way: the connection stands, the first byte follows the rename, and the
        filter is busy with other packets, so that it may be anywhere in its loop meanwhile."""
        with self.client.entered():
            udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(udp.close)
        self.directive.publish("example.com")
        self.start(_keep_the_loop_busy, udp, datagrams("rfc9001-a2.datagrams")[0],
                   (self.link.right_ipv4, 9443))
        misses = 0
        for number in range(ROUNDS):
            tcp = self.connect()
            self.directive.publish(f"d{number}.example", "example.com")
            tcp.send(request(f"d{number}.example"))
            misses += answer(tcp) != "reset"
            tcp.close()
        self.assertEqual(misses, 0)
        counters = self.counters()
        self.assertEqual(counters["queueOverruns"], 0)
        self.assertGreater(counters["packets"], 4 * ROUNDS, "the loop was not busy")

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

"""Connections that are open when the Scope grows: those that it blocks end, and no others."""

import socket

from filterbench import (DROPPED, FilterTestCase, Link, NetworkNamespace, answer, datagrams, main,
                         request, wait_until)


class Cutting(FilterTestCase):
    def setUp(self):
        super().setUp()
        self.web = self.start_server()
        self.directive.publish("blocked.example")
        self.start_filter()
        self.rules.arm()

    def open_connection(self, host, **options):
        tcp = self.connect(**options)
        tcp.send(request(host))
        self.assertEqual(answer(tcp), f"ok {host}")
        return tcp

    def assert_works(self, tcp, host):
        tcp.send(request(host, "/again"))
        self.assertEqual(answer(tcp), f"ok {host}")

    def established(self):
        listing = self.server.run("ss", "-Htn", "state", "established", "sport = :80").stdout
        return len(listing.splitlines())

    def test_ends_what_a_grown_scope_blocks_at_both_ends_and_nothing_else(self):
        for ipv6 in (False, True):
            with self.subTest(ipv6=ipv6):
                self.directive.publish("blocked.example")
                cut = [self.open_connection("www.neighbour.example", ipv6=ipv6),
                       self.open_connection("neighbour.example", ipv6=ipv6)]
                kept = self.open_connection("third.example", ipv6=ipv6)
                before = self.established()
                self.directive.publish("blocked.example", "neighbour.example")
                for tcp in cut:
                    # Nothing was sent: it learns of its end while it waits.
                    with self.assertRaises(ConnectionAbortedError):
                        tcp.recv(1)
                wait_until(lambda: self.established() == before - 2, "the server's ends to close")
                self.assert_works(kept, "third.example")
                kept.close()
        self.assertEqual(self.counters()["cutFlows"], 4)

    def test_ends_connections_that_were_made_while_nothing_was_blocked(self):
        self.directive.publish()
        tcp = self.open_connection("neighbour.example")
        self.directive.publish("neighbour.example")
        with self.assertRaises(ConnectionAbortedError):
            tcp.recv(1)

    def test_does_not_end_a_connection_whose_ports_another_one_had_before(self):
        with self.client.entered():
            first = socket.socket()
            second = socket.socket()
        for tcp in (first, second):
            self.addCleanup(tcp.close)
            tcp.settimeout(60)
            tcp.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        address = (self.link.right_ipv4, 80)
        first.bind((self.link.left_ipv4, 45_678))
        first.connect(address)
        first.send(request("neighbour.example"))
        self.assertEqual(answer(first), "ok neighbour.example")
        # Without a wait state, so that the ports are free at once.
        first.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        first.close()
        wait_until(lambda: self.established() == 0, "the first connection to be gone")
        second.bind((self.link.left_ipv4, 45_678))
        second.connect(address)
        second.send(request("third.example"))
        self.assertEqual(answer(second), "ok third.example")
        self.directive.publish("blocked.example", "neighbour.example")
        other = self.connect()
        other.send(request("neighbour.example"))
        self.assertEqual(answer(other), "reset")  # so the new directive is in force
        self.assert_works(second, "third.example")
        self.assertEqual(self.counters()["cutFlows"], 0)

    def test_refuses_the_next_datagram_of_a_released_quic_flow(self):
        self.directive.publish("blocked.example")
        receiver = self.receive_udp(9443)
        (opening,) = datagrams("rfc9001-a2.datagrams")[:1]  # to example.com
        udp = self.connect_udp(9443)
        udp.send(opening)
        self.assertEqual(receiver.recv(65536), opening)
        self.directive.publish("example.com")
        wait_until(lambda: self.counters()["cutFlows"] == 1, "the flow to be cut")
        with self.assertRaises(PermissionError):
            udp.send(b"\x40 a packet of an established connection")
        receiver.setblocking(False)
        with self.assertRaises(BlockingIOError):
            receiver.recv(65536)

    def test_resets_a_connection_of_a_machine_behind_this_one_at_its_next_packet(self):
        guest = self._closing(NetworkNamespace("guest"))
        inner = Link(guest, self.client, number=2)
        guest.run("ip", "route", "add", "10.77.1.0/24", "via", inner.right_ipv4)
        self.server.run("ip", "route", "add", "10.77.2.0/24", "via", self.link.left_ipv4)
        self.client.sysctl("net.ipv4.ip_forward", 1)
        tcp = self.open_connection("neighbour.example", namespace=guest)
        self.directive.publish("blocked.example", "neighbour.example")
        wait_until(lambda: self.counters()["cutFlows"] == 1, "the flow to be cut")
        self.assertIn(f"mark={DROPPED}", "\n".join(self.connections()))
        tcp.send(request("neighbour.example"))
        self.assertEqual(answer(tcp), "reset")
        self.assertEqual(len(self.web.requests()), 1)


if __name__ == "__main__":
    main()

"""The filter's main job: real curl, real TLS, real kernel queue."""

import shutil
import socket
import time

from filterbench import FilterTestCase, NetworkNamespace, Link, answer, main, request, wait_until


class Blocking(FilterTestCase):
    def setUp(self):
        super().setUp()
        self.web = self.start_server()

    def arm(self, *domains):
        self.directive.publish(*domains)
        self.start_filter()
        self.rules.arm()

    def test_refuses_a_blocked_name_and_those_below_it_and_nothing_else(self):
        self.arm("blocked.example")
        for ipv6 in (False, True):
            for scheme in ("https", "http"):
                with self.subTest(scheme=scheme, ipv6=ipv6):
                    self.assert_refused(f"{scheme}://blocked.example/", ipv6=ipv6)
                    self.assert_refused(f"{scheme}://www.blocked.example/", ipv6=ipv6)
                    self.assert_passes(f"{scheme}://neighbour.example/", ipv6=ipv6)
        names = {line.split()[0] for line in self.web.requests()}
        self.assertEqual(names, {"neighbour.example"})
        counters = self.counters()
        self.assertEqual(counters["dropped"], 8)
        self.assertEqual(counters["released"], 4)
        self.assertEqual(counters["packets"], 12, "one trip to user space for each connection")

    def test_refuses_a_name_in_the_second_segment_of_a_hello(self):
        self.arm("blocked.example")
        whole = request("blocked.example")
        tcp = self.connect()
        tcp.send(whole[:25])
        wait_until(lambda: self.counters()["undecidedFlows"] == 1, "the first half to be judged")
        tcp.send(whole[25:])
        self.assertEqual(answer(tcp), "reset")
        self.assertEqual(self.web.requests(), [])

    def test_blocks_what_comes_from_machines_behind_this_one(self):
        guest = self._closing(NetworkNamespace("guest"))
        inner = Link(guest, self.client, number=2)
        for family, gateway, outer in ((4, inner.right_ipv4, "10.77.1.0/24"),
                                       (6, inner.right_ipv6, "fd77:1::/64")):
            guest.run("ip", f"-{family}", "route", "add", outer, "via", gateway)
            source = "10.77.2.0/24" if family == 4 else "fd77:2::/64"
            back = self.link.left_ipv4 if family == 4 else self.link.left_ipv6
            self.server.run("ip", f"-{family}", "route", "add", source, "via", back)
        self.client.sysctl("net.ipv4.ip_forward", 1)
        self.client.sysctl("net.ipv6.conf.all.forwarding", 1)
        self.arm("blocked.example")
        for ipv6 in (False, True):
            with self.subTest(ipv6=ipv6):
                for host, expected in (("blocked.example", "reset"),
                                       ("neighbour.example", "ok neighbour.example")):
                    tcp = self.connect(ipv6=ipv6, namespace=guest)
                    tcp.send(request(host))
                    self.assertEqual(answer(tcp), expected)

    def test_looks_at_no_packet_of_a_server_on_this_machine(self):
        self.arm("blocked.example")
        with self.client.entered():
            listener = socket.create_server(("", 8080))
        self.addCleanup(listener.close)
        with self.server.entered():
            peer = socket.create_connection((self.link.left_ipv4, 8080))
        self.addCleanup(peer.close)
        served, _ = listener.accept()
        self.addCleanup(served.close)
        served.sendall(request("blocked.example"))
        self.assertEqual(peer.recv(1000), request("blocked.example"))
        self.assertEqual(self.counters()["packets"], 0)


class Directives(FilterTestCase):
    def setUp(self):
        super().setUp()
        self.web = self.start_server()

    def fetch(self, host):
        tcp = self.connect()
        tcp.send(request(host))
        return answer(tcp)

    def assert_blocked(self, *hosts):
        for host in hosts:
            self.assertEqual(self.fetch(host), "reset")

    def assert_open(self, *hosts):
        for host in hosts:
            self.assertEqual(self.fetch(host), f"ok {host}")

    def test_a_change_takes_effect_on_the_next_connection(self):
        self.directive.publish("blocked.example")
        self.start_filter()
        self.rules.arm()
        self.assert_blocked("blocked.example")
        self.assert_open("third.example")
        self.directive.publish("blocked.example", "third.example")
        self.assert_blocked("blocked.example", "third.example")
        self.directive.publish("third.example")
        self.assert_open("blocked.example")
        self.directive.publish()
        self.assert_open("third.example")

    def test_a_removed_or_damaged_file_leaves_the_last_directive_in_force(self):
        self.directive.publish("blocked.example")
        self.start_filter()
        self.rules.arm()
        self.directive.path.unlink()
        self.assert_blocked("blocked.example")
        self.filter.wait_for_log("the file is gone; the last one stays in force")
        self.directive.write('{"scope":')
        self.assert_blocked("blocked.example")
        self.directive.write("")
        self.assert_blocked("blocked.example")
        self.assert_open("third.example")
        shutil.rmtree(self.state_directory)
        self.assert_blocked("blocked.example")
        self.state_directory.mkdir(mode=0o700)
        self.directive.publish("third.example")
        self.assert_blocked("third.example")
        self.assert_open("blocked.example")

    def test_an_unreadable_directive_blocks_nothing_and_says_so(self):
        self.directive.write("not JSON")
        self.start_filter()
        self.rules.arm()
        self.assertIn("cannot read the enforcement directive", self.filter.log())
        self.assertIn("nothing is blocked", self.filter.log())
        self.assert_open("blocked.example")

    def test_starts_before_the_state_directory_exists(self):
        self.state_directory.rmdir()
        self.state_directory.parent.rmdir()
        self.start_filter()
        self.rules.arm()
        self.assert_open("blocked.example")
        self.state_directory.mkdir(parents=True, mode=0o700)
        self.directive.publish("blocked.example")
        self.assert_blocked("blocked.example")

    def test_a_probe_is_blocked_until_it_expires(self):
        self.directive.publish("blocked.example", probe="third.example", probe_seconds=20)
        self.start_filter()
        self.rules.arm()
        self.assert_blocked("blocked.example", "third.example")
        self.directive.publish("blocked.example", probe="third.example", probe_seconds=0.2)
        published = time.monotonic()
        wait_until(lambda: self.fetch("third.example") == "ok third.example", "the probe to end")
        self.assertGreater(time.monotonic() - published, 0.2 - 0.1)
        self.assert_blocked("blocked.example")


if __name__ == "__main__":
    main()

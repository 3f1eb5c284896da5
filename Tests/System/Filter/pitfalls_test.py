"""What once went wrong with packet queues and marks. Each test fails without its remedy."""

import signal
import socket
import subprocess
import sys
from pathlib import Path

from filterbench import (BIN, DROPPED, MASK, QUEUE, RELEASED, FilterTestCase, answer, datagrams,
                         main, refusal, request, run, wait_until)

# Binds the filter's queue, as another program would, and waits to be ended.
STRANGER = f"""
import socket, struct, sys
netlink = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 12)
netlink.bind((0, 0))
attribute = struct.pack("=HHBxH", 8, 1, 1, 0)
body = struct.pack("=BBH", 0, 0, socket.htons({QUEUE})) + attribute
netlink.send(struct.pack("=IHHII", 16 + len(body), 0x0302, 5, 1, 0) + body)
reply = netlink.recv(4096)
assert struct.unpack("=i", reply[16:20])[0] == 0, reply
print("stranger is bound", flush=True)
sys.stdin.read()
"""


class Marks(FilterTestCase):
    def setUp(self):
        super().setUp()
        self.web = self.start_server()
        self.directive.publish("blocked.example")
        self.start_filter()

    def count(self, mark, mask=0xffffffff):
        """Counts packets to the server's port 80 that leave with this mark."""
        comment = f"count-{mark:x}"
        self.client.run("iptables", "-t", "mangle", "-A", "POSTROUTING", "-p", "tcp", "--dport",
                        "80", "-m", "mark", "--mark", f"{mark:#x}/{mask:#x}", "-m", "comment",
                        "--comment", comment)

        def packets():
            listing = self.client.run("iptables", "-t", "mangle", "-nvxL", "POSTROUTING").stdout
            (line,) = [line for line in listing.splitlines() if comment in line]
            return int(line.split()[0])

        return packets

    def test_a_sockets_own_mark_survives_the_queue(self):
        self.rules.arm()
        marked, unmarked = self.count(0xca6c), self.count(0)
        tcp = self.connect(mark=0xca6c)
        handshake = marked()
        tcp.send(request("neighbour.example"))
        self.assertEqual(answer(tcp), "ok neighbour.example")
        self.assertGreater(marked(), handshake)
        self.assertEqual(unmarked(), 0)
        listing = "\n".join(self.connections())
        self.assertIn(f"mark={RELEASED}", listing)

    def test_no_mark_of_ours_leaves_the_machine(self):
        self.rules.arm()
        ours = [self.count(bits, MASK) for bits in (RELEASED, 0x20000000, DROPPED)]
        whole = request("neighbour.example")
        tcp = self.connect()
        tcp.send(whole[:25])
        wait_until(lambda: self.counters()["undecidedFlows"] == 1, "the first half to be judged")
        tcp.send(whole[25:])
        self.assertEqual(answer(tcp), "ok neighbour.example")
        self.assertEqual([packets() for packets in ours], [0, 0, 0])

    def test_rules_behind_ours_see_queued_packets_and_are_routed_by(self):
        """Policy routing by a mark that another program's rule sets, compared in full: the queued
        packet has to take the same way as the rest of its connection."""
        self.rules.arm()
        self.client.run("iptables", "-t", "mangle", "-A", "OUTPUT", "-p", "tcp", "--dport", "80",
                        "-j", "MARK", "--set-mark", "0x55")
        self.client.run("ip", "rule", "add", "fwmark", "0x55", "lookup", "100")
        self.client.run("ip", "route", "add", "default", "via", self.link.right_ipv4, "table",
                        "100")
        # Whoever is routed by the main table runs into this.
        self.client.run("ip", "route", "add", "blackhole", f"{self.link.right_ipv4}/32")
        wanted = self.count(0x55)
        source = self.link.left_ipv4
        with self.client.entered():
            tcp = socket.socket()
        self.addCleanup(tcp.close)
        tcp.settimeout(20)
        tcp.setsockopt(socket.SOL_SOCKET, socket.SO_MARK, 0x55)
        tcp.bind((source, 0))
        tcp.connect((self.link.right_ipv4, 80))
        handshake = wanted()
        tcp.send(request("neighbour.example"))
        self.assertEqual(answer(tcp), "ok neighbour.example")
        self.assertGreater(wanted(), handshake)
        retransmitted = self.client.run("nstat", "-asz", "TcpRetransSegs").stdout
        self.assertEqual(retransmitted.split()[-2], "0", retransmitted)

    def test_others_bits_of_a_connection_mark_survive(self):
        self.client.run("iptables", "-t", "mangle", "-A", "OUTPUT", "-p", "tcp", "-j", "CONNMARK",
                        "--set-xmark", "0x80000/0xff0000")
        self.rules.arm()
        tcp = self.connect()
        tcp.send(request("neighbour.example"))
        self.assertEqual(answer(tcp), "ok neighbour.example")
        listing = "\n".join(self.connections())
        self.assertIn(f"mark={RELEASED | 0x80000}", listing)


class Flows(FilterTestCase):
    def setUp(self):
        super().setUp()
        self.directive.publish("blocked.example", "example.com")
        self.start_filter()
        self.rules.arm()

    def while_the_filter_sleeps(self, action):
        self.filter.send_signal(signal.SIGSTOP)
        try:
            action()
        finally:
            self.filter.send_signal(signal.SIGCONT)

    def test_later_segments_of_a_decided_flow_do_not_undo_the_decision(self):
        """Both are queued before the first is judged; the second alone names nobody."""
        web = self.start_server()
        self.client.sysctl("net.ipv4.tcp_autocorking", 0)
        tcp = self.connect()
        tcp.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

        def send_both():
            tcp.send(request("blocked.example"))
            tcp.send(b"bytes that name nobody")

        self.while_the_filter_sleeps(send_both)
        self.assertEqual(answer(tcp), "reset")
        counters = self.counters()
        self.assertEqual(counters["packets"], 2)
        self.assertEqual(counters["classified"], 1)
        self.assertEqual(counters["dropped"], 1)
        self.assertEqual(web.requests(), [])

    def test_a_new_connection_over_the_ports_of_a_decided_one_is_judged_anew(self):
        """Connection tracking keeps an entry that ended by a reset from the far side, and its mark
        with it, for a while, also for the next connection over the same ports."""
        web = self.start_server()
        expected = [("blocked.example", "reset"), ("neighbour.example", "ok neighbour.example"),
                    ("blocked.example", "reset")]
        for host, result in expected:
            with self.client.entered():
                tcp = socket.socket()
            tcp.settimeout(60)
            tcp.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            tcp.bind((self.link.left_ipv4, 45_678))
            tcp.connect((self.link.right_ipv4, 80))
            tcp.send(request(host))
            self.assertEqual(answer(tcp), result)
            if result != "reset":
                # The server's end closes it, by a reset.
                self.server.run("ss", "-K", "dst", self.link.left_ipv4, "dport", "=", "45678")
                with self.assertRaises(ConnectionResetError):
                    tcp.recv(1)
            tcp.close()
            # The server's end of a dropped connection does not know of its end.
            self.server.run("ss", "-K", "dst", self.link.left_ipv4, "dport", "=", "45678")
        self.assertEqual(len(web.requests()), 1)

    def test_datagrams_back_to_back_are_one_flow(self):
        """Of two datagrams that wait in the queue together only one can make an entry in
        connection tracking; the mark on the other is lost, so that further ones come back."""
        receiver = self.receive_udp(9443)
        (opening,) = datagrams("rfc9369-a2.datagrams")[:1]
        self.directive.publish("blocked.example")
        udp = self.connect_udp(9443)
        self.while_the_filter_sleeps(lambda: [udp.send(opening) for _ in range(5)])
        for _ in range(5):
            self.assertEqual(receiver.recv(65536), opening)
        udp.send(opening)
        receiver.recv(65536)
        counters = self.counters()
        self.assertEqual(counters["classified"], 1)
        self.assertEqual(counters["released"], 1)

    def test_a_refused_datagram_is_refused_again_and_counted_once(self):
        """Its rejection leaves no entry in connection tracking, so every further one is new."""
        for ipv6, refused in ((False, "EHOSTUNREACH"), (True, "EACCES")):
            with self.subTest(ipv6=ipv6):
                before = self.counters()
                receiver = self.receive_udp(9443, ipv6=ipv6)
                receiver.setblocking(False)
                (opening,) = datagrams("rfc9001-a2.datagrams")[:1]
                udp = self.connect_udp(9443, ipv6=ipv6)
                for _ in range(3):
                    udp.send(opening)
                    self.assertEqual(refusal(udp), refused)  # the ICMP error was not eaten either
                after = self.counters()
                self.assertEqual(after["packets"] - before["packets"], 3)
                self.assertEqual(after["dropped"] - before["dropped"], 1)
                with self.assertRaises(BlockingIOError):
                    receiver.recv(65536)
                receiver.close()

    def test_the_hello_in_a_fast_open_syn_is_read(self):
        web = self.start_server()
        # 4 and 512: data in the SYN without a cookie.
        self.client.sysctl("net.ipv4.tcp_fastopen", 1 | 4)
        self.server.sysctl("net.ipv4.tcp_fastopen", 2 | 512)
        for host, expected in (("neighbour.example", "ok neighbour.example"),
                               ("blocked.example", None)):
            with self.client.entered():
                tcp = socket.socket()
            self.addCleanup(tcp.close)
            tcp.settimeout(60)
            try:
                tcp.sendto(request(host), socket.MSG_FASTOPEN, (self.link.right_ipv4, 80))
                result = answer(tcp)
            except ConnectionError:
                result = None
            self.assertEqual(result, expected)
        opened = self.server.run("nstat", "-asz", "TcpExtTCPFastOpenPassive").stdout.split()[-2]
        self.assertGreaterEqual(int(opened), 1, "the server has to have taken data from a SYN")
        self.assertEqual([line.split()[0] for line in web.requests()], ["neighbour.example"])
        self.assertEqual(self.counters()["dropped"], 1)

    def test_neighbour_discovery_is_left_alone(self):
        self.start_server()
        self.client.run("ip", "-6", "neigh", "flush", "dev", self.link.left_interface)
        self.server.run("ip", "-6", "neigh", "flush", "dev", self.link.right_interface)
        self.assert_passes("http://neighbour.example/", ipv6=True)
        rejected = self.client.run("ip6tables", "-nvxL", "STILLOW-VERDICT").stdout
        self.assertEqual({line.split()[0] for line in rejected.splitlines() if "REJECT" in line},
                         {"0"}, rejected)

    def test_a_flow_that_is_not_tracked_passes(self):
        """A match that is negated would hold for such packets too."""
        web = self.start_server()
        self.client.run("iptables", "-t", "raw", "-A", "OUTPUT", "-p", "tcp", "-j", "CT",
                        "--notrack")
        self.client.run("iptables", "-t", "raw", "-A", "PREROUTING", "-p", "tcp", "-j", "CT",
                        "--notrack")
        self.assert_passes("http://neighbour.example/")
        self.assertEqual(self.counters()["packets"], 0)
        self.assertEqual(len(web.requests()), 1)

    def test_a_closed_port_still_refuses_with_its_own_reset(self):
        with self.assertRaises(ConnectionRefusedError):
            self.connect(port=81)

    def test_names_behind_ipv6_extension_headers_are_read(self):
        web = self.start_server()
        with self.client.entered():
            tcp = socket.socket(socket.AF_INET6)
        self.addCleanup(tcp.close)
        tcp.settimeout(60)
        # A destination options header of padding in front of every segment.
        tcp.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_DSTOPTS, bytes([0, 0, 1, 4, 0, 0, 0, 0]))
        tcp.connect((self.link.right_ipv6, 80))
        tcp.send(request("blocked.example"))
        self.assertEqual(answer(tcp), "reset")
        counters = self.counters()
        self.assertEqual(counters["dropped"], 1)
        self.assertGreater(counters["packets"], 1, "such packets are queued whole, the SYN too")
        self.assertEqual(web.requests(), [])


class RuleSets(FilterTestCase):
    def test_a_rule_set_loaded_twice_is_there_once(self):
        for _ in range(3):
            self.rules.arm()
        for family in (4, 6):
            self.assertEqual(self.rules.missing(family), [])
            self.assertTrue(self.rules.are_in_place(family))
            listing = self.rules.listing(family).splitlines()
            for jump in ("-A OUTPUT -j STILLOW-HOLD", "-A FORWARD -j STILLOW-HOLD",
                         "-A OUTPUT -j STILLOW-VERDICT", "-A FORWARD -j STILLOW-VERDICT"):
                self.assertEqual(listing.count(jump), 1, jump)

    def test_jumps_that_two_loaders_doubled_are_cleared_up(self):
        for family in (4, 6):
            text = self.rules.text("arm", family)
            self.rules.load(text, family)
            self.rules.load(text, family)  # by somebody who had not seen the first
            listing = self.rules.listing(family).splitlines()
            self.assertEqual(listing.count("-A OUTPUT -j STILLOW-HOLD"), 2)
        self.rules.arm()
        for family in (4, 6):
            listing = self.rules.listing(family).splitlines()
            self.assertEqual(listing.count("-A OUTPUT -j STILLOW-HOLD"), 1)

    def test_disarming_takes_everything_of_ours_and_nothing_else(self):
        self.client.run("iptables", "-A", "OUTPUT", "-d", "192.0.2.7", "-j", "ACCEPT")
        self.client.run("iptables", "-t", "mangle", "-A", "FORWARD", "-d", "192.0.2.8", "-j",
                        "ACCEPT")
        before = [self.rule_lines(family) for family in (4, 6)]
        self.rules.disarm()
        self.rules.arm()
        self.assertNotEqual([self.rule_lines(family) for family in (4, 6)], before)
        self.rules.disarm()
        self.assertEqual([self.rule_lines(family) for family in (4, 6)], before)
        self.assertFalse(self.rules.are_in_place(4))

    def rule_lines(self, family):
        return [line for line in self.rules.listing(family).splitlines()
                if line.startswith("-A") or "STILLOW" in line]

    def test_every_rule_that_another_program_removes_is_missed(self):
        self.rules.arm()
        commands = [line.rstrip("\t").split("\t") for line in
                    run([BIN / "filter-rules", "check", "4"]).stdout.splitlines()]
        for command in commands:
            with self.subTest(command=command):
                removal = ["-D" if word == "-C" else word for word in command]
                self.client.run(*removal)
                self.assertEqual(self.rules.missing(4), [command])
                self.assertFalse(self.rules.are_in_place(4))
                self.rules.arm()
                self.assertEqual(self.rules.missing(4), [])


class TheQueue(FilterTestCase):
    def test_a_second_program_is_told_who_holds_the_queue(self):
        self.start_filter()
        first = self.filter
        self.start_filter(wait=False)
        self.assertEqual(self.filter.wait(), 75)
        self.assertEqual(
            self.filter.log(),
            f"error: packet queue {QUEUE} is held by stillow-filter (process {first.pid})\n")
        self.assertTrue(first.is_running())

    def test_a_stranger_on_the_queue_is_named(self):
        stranger = subprocess.Popen(
            self.client.command(sys.executable, "-c", STRANGER), stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, text=True)
        self.addCleanup(stranger.stdout.close)
        self.addCleanup(stranger.wait)
        self.addCleanup(stranger.kill)
        self.addCleanup(stranger.stdin.close)
        self.assertEqual(stranger.stdout.readline(), "stranger is bound\n")
        self.start_filter(wait=False)
        self.assertEqual(self.filter.wait(), 75)
        name = Path(f"/proc/{stranger.pid}/comm").read_text(encoding="utf-8").strip()
        self.assertEqual(
            self.filter.log(),
            f"error: packet queue {QUEUE} is held by {name} (process {stranger.pid})\n")


if __name__ == "__main__":
    main()

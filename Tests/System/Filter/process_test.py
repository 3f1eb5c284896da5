"""stillow-filter as a process: how it starts, ends, fails and gives way."""

import ctypes
import os
import re
import signal
import socket
import sys
from pathlib import Path

from filterbench import (BIN, QUEUE, FilterTestCase, answer, main, request, run, wait_until)

# Starts a program for which the kernel has no netfilter netlink sockets: a system call filter that
# answers EPROTONOSUPPORT to socket(AF_NETLINK, ..., NETLINK_NETFILTER).
WITHOUT_NETFILTER = """
import ctypes, os, struct, sys
load, jump, give = 0x20, 0x15, 0x06
program = [(load, 0, 0, 0), (jump, 0, 5, 41), (load, 0, 0, 16), (jump, 0, 3, 16),
           (load, 0, 0, 32), (jump, 0, 1, 12), (give, 0, 0, 0x00050000 | 93),
           (give, 0, 0, 0x7fff0000)]
code = b"".join(struct.pack("=HBBI", *line) for line in program)
buffer = ctypes.create_string_buffer(code, len(code))
filter = ctypes.create_string_buffer(struct.pack("=HxxxxxxQ", len(program),
                                                 ctypes.addressof(buffer)))
libc = ctypes.CDLL(None, use_errno=True)
assert libc.prctl(38, 1, 0, 0, 0) == 0
assert libc.prctl(22, 2, filter, 0, 0) == 0, ctypes.get_errno()
os.execv(sys.argv[1], sys.argv[1:])
"""

PTRACE_SEIZE = 0x4206
PTRACE_INTERRUPT = 0x4207


class Running(FilterTestCase):
    def status(self):
        fields = {}
        with open(f"/proc/{self.filter.pid}/status", encoding="utf-8") as file:
            for line in file:
                key, value = line.split(":", 1)
                fields[key] = value.strip()
        return fields

    def queue_line(self):
        text = self.client.run("cat", "/proc/net/netfilter/nfnetlink_queue").stdout
        lines = [line.split() for line in text.splitlines() if line.split()[0] == str(QUEUE)]
        return [int(number) for number in lines[0]] if lines else None

    def test_keeps_one_capability(self):
        self.start_filter()
        status = self.status()
        net_admin = 1 << 12
        for name in ("CapPrm", "CapEff", "CapBnd"):
            self.assertEqual(int(status[name], 16), net_admin, name)
        for name in ("CapInh", "CapAmb"):
            self.assertEqual(int(status[name], 16), 0, name)
        self.assertEqual(status["NoNewPrivs"], "1")
        for thread in os.listdir(f"/proc/{self.filter.pid}/task"):
            with open(f"/proc/{self.filter.pid}/task/{thread}/status", encoding="utf-8") as file:
                self.assertIn(f"CapEff:\t{net_admin:016x}", file.read())

    def test_binds_with_its_process_id_as_port(self):
        self.start_filter()
        self.assertEqual(self.queue_line()[1], self.filter.pid)

    def start_under_a_manager(self, **environment):
        """What reads the messages to the service manager until one has come so many times, and
        gives all that came."""
        path = self.directory / "notify"
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(manager.close)
        manager.settimeout(60)
        manager.bind(str(path))
        self.start_filter(env={**os.environ, "NOTIFY_SOCKET": str(path), **environment})
        messages = []

        def receive_until(message, times=1):
            while messages.count(message) < times:
                messages.append(manager.recv(4096).decode())
            return messages

        return receive_until

    def enforce_and_stop(self, receive_until):
        """All messages, up to the last one."""
        self.directive.publish("blocked.example")
        receive_until("STATUS=Enforcing generation 1")
        self.filter.stop()
        return receive_until("STOPPING=1")

    def test_tells_the_service_manager_when_it_is_ready_and_that_it_lives(self):
        receive_until = self.start_under_a_manager(WATCHDOG_USEC="200000")
        messages = receive_until("WATCHDOG=1", times=3)
        self.assertLess(messages.index("READY=1"), messages.index("WATCHDOG=1"))
        self.enforce_and_stop(receive_until)

    def test_gives_no_sign_of_life_that_nobody_asked_for(self):
        receive_until = self.start_under_a_manager()
        receive_until("READY=1")
        messages = self.enforce_and_stop(receive_until)
        self.assertEqual(messages, ["READY=1", "STATUS=Enforcing generation 1", "STOPPING=1"])

    def armed_timers(self):
        """Of the filter's timer descriptors those that will expire."""
        directory = Path(f"/proc/{self.filter.pid}/fdinfo")
        texts = [path.read_text(encoding="utf-8") for path in directory.iterdir()]
        timers = [text for text in texts if "it_value" in text]
        self.assertEqual(len(timers), 2)
        return [text for text in timers if "it_value: (0, 0)" not in text]

    def test_has_no_timer_running_while_nothing_is_to_be_done(self):
        self.directive.publish("blocked.example")
        self.start_filter()
        self.rules.arm()
        self.assertEqual(self.armed_timers(), [])
        # Half a hello: the time that the flow has for the rest is running.
        self.start_server()
        tcp = self.connect()
        tcp.send(b"GET / HTTP/1.1\r\n")
        wait_until(lambda: len(self.armed_timers()) == 1, "the timer")
        tcp.send(b"Host: neighbour.example\r\n\r\n")
        self.assertEqual(answer(tcp), "ok neighbour.example")
        wait_until(lambda: self.armed_timers() == [], "the timer to rest")

    def test_logs_its_counters_on_a_signal_and_at_its_end(self):
        self.directive.publish("blocked.example")
        self.start_filter()
        line = ("scopeGeneration=1 classified=0 dropped=0 released=0 heldForInspection=0 "
                "ambiguousAllowed=0 unattributedAllowed=0 associationsRecorded=0 "
                "associatedAddresses=0")
        self.counters()
        self.assertEqual(self.filter.log().count(line), 1)
        self.assertEqual(self.filter.stop(signal.SIGTERM), 0)
        self.assertEqual(self.filter.log().count(line), 2)
        self.assertEqual(self.queue_line(), None)

    def test_traffic_passes_while_it_is_dead_and_is_blocked_again_after_its_return(self):
        web = self.start_server()
        self.directive.publish("blocked.example")
        self.start_filter()
        self.rules.arm()
        released = self.connect()
        released.send(request("neighbour.example"))
        self.assertEqual(answer(released), "ok neighbour.example")
        self.assertEqual(self.filter.stop(signal.SIGKILL), -signal.SIGKILL)
        self.assert_passes("https://blocked.example/")
        released.send(request("neighbour.example", "/again"))
        self.assertEqual(answer(released), "ok neighbour.example")
        self.start_filter()
        self.assert_refused("https://blocked.example/")
        self.assertEqual(len(web.requests()), 3)

    def test_packets_that_wait_at_its_end_are_answered(self):
        """All of them, although they do not fit into two batches. What stays the kernel discards."""
        self.directive.publish("blocked.example")
        self.start_filter()
        self.rules.arm()
        receiver = self.receive_udp(9443)
        sockets = [self.connect_udp(9443) for _ in range(70)]
        self.filter.send_signal(signal.SIGSTOP)
        for udp in sockets:
            udp.send(b"\xc0" + bytes(1199))
        wait_until(lambda: self.queue_line()[2] == len(sockets), "the datagrams to wait")
        self.filter.send_signal(signal.SIGTERM)
        self.filter.send_signal(signal.SIGCONT)
        self.assertEqual(self.filter.wait(), 0)
        for _ in sockets:
            self.assertEqual(len(receiver.recv(65536)), 1200)

    def test_dies_rather_than_hang(self):
        """Only the packet thread is held, as a loop that never ends would hold it."""
        self.start_server()
        self.directive.publish("blocked.example")
        self.start_filter()
        self.rules.arm()
        libc = ctypes.CDLL(None, use_errno=True)
        libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
        self.assertEqual(libc.ptrace(PTRACE_SEIZE, self.filter.pid, None, None), 0)
        self.assertEqual(libc.ptrace(PTRACE_INTERRUPT, self.filter.pid, None, None), 0)
        wait_until(lambda: self.status()["State"].startswith("t"), "the thread to stop")
        tcp = self.connect()
        tcp.send(request("neighbour.example"))
        # Other connections hang with it until the watchdog acts; then they pass.
        self.assertEqual(answer(tcp), "ok neighbour.example")
        self.assertEqual(self.filter.wait(), -signal.SIGABRT)
        self.assertIn("packets wait and the packet loop does not turn", self.filter.log())
        self.assert_passes("https://third.example/")

    def test_packets_pass_when_the_queue_overflows(self):
        self.start_filter()
        self.rules.arm()
        receiver = self.receive_udp(9443)
        received = []
        self.filter.send_signal(signal.SIGSTOP)
        udp = self.connect_udp(9443)
        # Datagrams in the queue still count as unsent.
        so_sndbufforce = 32
        udp.setsockopt(socket.SOL_SOCKET, so_sndbufforce, 64 << 20)
        payload = b"\xc0" + bytes(1199)
        for _ in range(12_000):
            udp.send(payload)
        receiver.setblocking(False)
        try:
            while True:
                received.append(receiver.recv(65536))
        except BlockingIOError:
            pass
        self.assertGreater(len(received), 0, "what did not fit should have passed")
        self.filter.send_signal(signal.SIGCONT)
        wait_until(lambda: self.queue_line()[2] == 0, "the queue to be empty")
        self.assertGreater(self.counters()["queueOverruns"], 0)
        self.assertEqual(self.queue_line()[5:7], [0, 0], "none may have been discarded")

    def test_a_flood_of_syns_does_not_reach_it(self):
        self.directive.publish("blocked.example")
        self.start_filter()
        self.rules.arm()
        with self.client.entered():
            sockets = [socket.socket() for _ in range(500)]
        for tcp in sockets:
            tcp.setblocking(False)
            tcp.connect_ex((self.link.right_ipv4, 4444))
        counters = self.counters()
        for tcp in sockets:
            tcp.close()
        self.assertEqual(counters["packets"], 0)

    def test_a_flood_of_datagrams_does_not_make_it_grow(self):
        self.directive.publish("blocked.example")
        self.start_filter()
        self.rules.arm()
        payload = b"\xc0" + bytes(1199)

        def flood():
            """Flows that were not there before: each time from a port of its own."""
            with self.client.entered(), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
                for port in range(10_000, 65_000):
                    udp.sendto(payload, (self.link.right_ipv4, port))
            return self.counters()["packets"]

        # The tables take memory as they are used for the first time: fill them.
        while flood() < 150_000:
            pass
        before = self.memory()
        judged = self.counters()["packets"]
        while flood() < judged + 40_000:
            pass
        self.assertLess(self.memory() - before, 2 << 20, "bytes")

    def memory(self):
        self.counters()  # everything before has been judged
        return int(re.match(r"(\d+) kB", self.status()["VmRSS"]).group(1)) << 10


class Starting(FilterTestCase):
    def run_filter(self, *arguments, before=()):
        return self.client.run(*self.private_root.command(*before, BIN / "stillow-filter",
                                                          *arguments), check=False)

    def test_needs_root(self):
        result = self.run_filter(before=("setpriv", "--reuid", "65534", "--clear-groups"))
        self.assertEqual(result.returncode, 77)
        self.assertEqual(result.stderr, "error: stillow-filter has to run as root\n")

    def test_needs_the_capability(self):
        result = self.run_filter(before=("setpriv", "--bounding-set", "-net_admin"))
        self.assertEqual(result.returncode, 77)
        self.assertEqual(result.stderr,
                         f"error: packet queue {QUEUE} cannot be bound without CAP_NET_ADMIN\n")

    def test_says_when_the_kernel_has_no_queue(self):
        result = self.run_filter(before=(sys.executable, "-c", WITHOUT_NETFILTER))
        self.assertEqual(result.returncode, 69, result.stderr)
        self.assertEqual(result.stderr, "error: this kernel has no packet queues "
                                        "(nfnetlink_queue): Protocol not supported\n")

    def test_takes_no_arguments_but_two(self):
        for arguments in (("--queue", "1"), ("--state-directory=/tmp",), ("extra",),
                          ("--help", "--help")):
            result = self.run_filter(*arguments)
            self.assertEqual(result.returncode, 64)
        result = self.run_filter("--help")
        self.assertEqual(result.returncode, 0)
        self.assertIn("Exit status:", result.stdout)
        result = self.run_filter("--version")
        self.assertEqual(result.returncode, 0)
        self.assertRegex(result.stdout, r"^stillow-filter \d+\.\d+\.\d+\n$")


if __name__ == "__main__":
    main()

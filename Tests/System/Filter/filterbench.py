"""A client's machine with the filter on it, and a server behind a link: what the filter tests share.

The filter is the real executable with the real kernel rules, in a network namespace and a file tree
of its own. STILLOW_BIN names the directory of the executables, STILLOW_STATE_DIRECTORY the state
directory that was fixed when they were built.
"""

import errno
import json
import os
import signal
import socket
import struct
import sys
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "support"))

from namespaces import (Link, NetworkNamespace, PrivateRoot, TemporaryDirectory,  # noqa: E402
                        remove_leftovers)
from processes import HANG_SECONDS, run, wait_until  # noqa: E402
from webserver import CertificateAuthority, WebServer  # noqa: E402

BIN = Path(os.environ["STILLOW_BIN"])
FIXTURES = Path(__file__).resolve().parent.parent.parent / "Fixtures" / "wire"
STATE_DIRECTORY = Path(os.environ["STILLOW_STATE_DIRECTORY"])
QUEUE = 5300
MASK = 0x30000000
RELEASED = 0x10000000
DROPPED = 0x30000000

# Exit statuses of curl.
CURL_OK = 0
CURL_CANNOT_CONNECT = 7
CURL_TLS_FAILED = 35
CURL_RECEIVE_FAILED = 56

_REFERENCE_DATE = 978307200


class Rules:
    """The kernel rules of a namespace, loaded as the daemon loads them."""

    def __init__(self, namespace):
        self._namespace = namespace

    @staticmethod
    def _program(family):
        return "iptables" if family == 4 else "ip6tables"

    def listing(self, family):
        save = self._program(family) + "-save"
        return "".join(self._namespace.run(save, "-t", table).stdout
                       for table in ("mangle", "filter"))

    def text(self, action, family):
        return run([BIN / "filter-rules", action, str(family)], input=self.listing(family)).stdout

    def load(self, text, family):
        self._namespace.run(self._program(family) + "-restore", "--noflush", "-w", "3", input=text)

    def arm(self):
        for family in (4, 6):
            self.load(self.text("arm", family), family)

    def disarm(self):
        for family in (4, 6):
            self.load(self.text("disarm", family), family)

    def are_in_place(self, family):
        result = run([BIN / "filter-rules", "in-place", str(family)], check=False,
                     input=self.listing(family))
        return result.returncode == 0

    def missing(self, family):
        """The checks of single jumps and rules that fail."""
        lines = run([BIN / "filter-rules", "check", str(family)]).stdout.splitlines()
        commands = [line.rstrip("\t").split("\t") for line in lines]
        assert len(commands) > 10
        return [command for command in commands
                if self._namespace.run(*command, check=False).returncode != 0]


class DirectiveFile:
    """The enforcement directive, published as the daemon publishes it: renamed into place."""

    def __init__(self, directory):
        self.directory = directory
        self.path = directory / "enforcement-directive.json"
        self._generation = 0

    def publish(self, *domains, probe=None, probe_seconds=20):
        now = time.time() - _REFERENCE_DATE
        directive = {"publishedAt": now}
        if domains:
            self._generation += 1
            directive["scope"] = {"generation": self._generation, "domains": list(domains)}
        if probe is not None:
            directive["validation"] = {"domain": probe, "expiresAt": now + probe_seconds}
        self.write(json.dumps(directive))

    def write(self, text):
        aside = self.directory / ".directive-aside"
        aside.write_text(text, encoding="utf-8")
        aside.chmod(0o600)
        aside.rename(self.path)


class FilterTestCase(unittest.TestCase):
    """Client and server namespaces with a link; the filter's state directory is empty but there."""

    names = ("blocked.example", "*.blocked.example", "neighbour.example", "third.example")

    def setUp(self):
        remove_leftovers()
        self.directory = self._closing(TemporaryDirectory("filter-test")).path
        self.client = self._closing(NetworkNamespace("client"))
        self.server = self._closing(NetworkNamespace("server"))
        self.link = Link(self.client, self.server)
        # The top-level directory of the state directory is exchanged for one of the test's own.
        top = Path("/", STATE_DIRECTORY.parts[1])
        library = self.directory / "library"
        self.state_directory = library / STATE_DIRECTORY.relative_to(top)
        self.state_directory.mkdir(parents=True, mode=0o755)
        hosts = self.directory / "hosts"
        hosts.write_text(self.hosts(), encoding="utf-8")
        self.private_root = self._closing(PrivateRoot({top: library, "/etc/hosts": hosts}))
        self.rules = Rules(self.client)
        self.directive = DirectiveFile(self.state_directory)
        self._filter_count = 0
        self.filter = None
        self.authority = None

    def hosts(self):
        """The hosts file that is seen in the private root."""
        return "127.0.0.1 localhost\n"

    def _closing(self, thing):
        self.addCleanup(thing.close)
        return thing

    def start_filter(self, wait=True, **options):
        self._filter_count += 1
        self.filter = self.client.start(
            *self.private_root.command(BIN / "stillow-filter"),
            log_path=self.directory / f"filter-{self._filter_count}.log", **options)
        if wait:
            self.filter.wait_for_log("bound to packet queue")
        return self.filter

    def start_server(self, **options):
        if self.authority is None:
            self.authority = CertificateAuthority(self.directory)
        return WebServer(self.server, self.directory / "nginx", self.authority, self.names,
                         **options)

    def counters(self):
        """Both counter lines of the filter, as one dictionary."""
        before = self.filter.log().count("queueOverruns=")
        self.filter.send_signal(signal.SIGUSR1)
        wait_until(lambda: self.filter.log().count("queueOverruns=") > before, "counters")
        lines = self.filter.log().splitlines()
        last = [next(line for line in reversed(lines) if key in line)
                for key in ("scopeGeneration=", "queueOverruns=")]
        fields = " ".join(last).replace("info: ", "").split()
        return {key: int(value) for key, value in (field.split("=") for field in fields)}

    def curl(self, url, *options, ipv6=False, check=None):
        """curl to a name that resolves to the server. With `check` the exit status has to be it."""
        address = f"[{self.link.right_ipv6}]" if ipv6 else self.link.right_ipv4
        host = url.split("/")[2].split(":")[0]
        resolve = [argument for port in (80, 443, 8443)
                   for argument in ("--resolve", f"{host}:{port}:{address}")]
        trust = ["--cacert", self.authority.bundle] if self.authority else []
        result = self.client.run("curl", "-q", "-sS", "--noproxy", "*", *trust, *resolve, *options,
                                 url, check=False)
        if check is not None:
            self.assertEqual(result.returncode, check, f"{url}: {result.stdout}{result.stderr}")
        return result

    def assert_passes(self, url, *options, ipv6=False):
        result = self.curl(url, *options, ipv6=ipv6, check=CURL_OK)
        self.assertEqual(result.stdout, f"ok {url.split('/')[2]}\n")

    def assert_refused(self, url, *options, ipv6=False):
        """Refused by a reset, not by a time-out: curl says so by its exit status."""
        result = self.curl(url, *options, ipv6=ipv6)
        self.assertIn(result.returncode, (CURL_TLS_FAILED, CURL_RECEIVE_FAILED),
                      f"{url}: {result.stdout}{result.stderr}")
        self.assertIn("reset", result.stderr.lower())

    def connections(self):
        """Connection tracking's entries in the client's namespace, as text lines."""
        lines = []
        for family in ("ipv4", "ipv6"):
            lines += self.client.run("conntrack", "-L", "-f", family).stdout.splitlines()
        return lines

    def connect(self, port=80, ipv6=False, mark=None, namespace=None):
        """A TCP connection from the client's namespace to the server."""
        with (namespace or self.client).entered():
            tcp = socket.socket(socket.AF_INET6 if ipv6 else socket.AF_INET)
        self.addCleanup(tcp.close)
        tcp.settimeout(HANG_SECONDS)
        if mark is not None:
            tcp.setsockopt(socket.SOL_SOCKET, socket.SO_MARK, mark)
        tcp.connect((self.link.right_ipv6 if ipv6 else self.link.right_ipv4, port))
        return tcp

    def connect_udp(self, port=443, ipv6=False):
        """A connected UDP socket in the client's namespace."""
        with self.client.entered():
            udp = socket.socket(socket.AF_INET6 if ipv6 else socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(udp.close)
        udp.settimeout(HANG_SECONDS)
        udp.connect((self.link.right_ipv6 if ipv6 else self.link.right_ipv4, port))
        return udp

    def receive_udp(self, port=443, ipv6=False):
        """A UDP socket in the server's namespace that takes what comes to `port`."""
        with self.server.entered():
            udp = socket.socket(socket.AF_INET6 if ipv6 else socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(udp.close)
        udp.settimeout(HANG_SECONDS)
        udp.bind(("::" if ipv6 else "0.0.0.0", port))
        return udp


def request(host, path="/"):
    return f"GET {path} HTTP/1.1\r\nHost: {host}\r\n\r\n".encode()


def answer(tcp):
    """The answer to one request; "reset" where the connection was reset instead."""
    received = b""
    try:
        while not received.endswith(b"\n"):
            part = tcp.recv(65536)
            if not part:
                break
            received += part
    except ConnectionResetError:
        return "reset"
    return received.decode().split("\r\n\r\n")[-1].strip()


def datagrams(fixture):
    """The datagrams of a captured fixture."""
    data = (FIXTURES / fixture).read_bytes()
    result = []
    while data:
        (size,) = struct.unpack(">H", data[:2])
        result.append(data[2:2 + size])
        data = data[2 + size:]
    return result


def refusal(udp):
    """Waits for what the kernel reports on a connected UDP socket, and gives the error's name."""
    try:
        udp.recv(65536)
    except OSError as error:
        return errno.errorcode.get(error.errno, str(error))
    return "an answer"


def main():
    unittest.main(verbosity=2)

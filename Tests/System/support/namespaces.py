"""Network namespaces, the links between them, and file trees of their own for what runs there.

Everything is removed by close(), also when the test fails; register it with addCleanup. Names carry
the id of the test's process, and what a test that was killed left behind is removed by the next.
"""

import contextlib
import ctypes
import itertools
import os
import shutil
import tempfile
from pathlib import Path

from processes import Process, require_root, run, wait_until

_NAME_PREFIX = "stillow-test-"
_numbers = itertools.count(1)
_CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)
_PRIVATE_ROOT = str(Path(__file__).with_name("private-root"))


def remove_leftovers():
    """Removes namespaces of test processes that are gone. Whatever still ran in them goes on
    without a network."""
    for name in os.listdir("/run/netns") if os.path.isdir("/run/netns") else []:
        if not name.startswith(_NAME_PREFIX):
            continue
        owner = name.removeprefix(_NAME_PREFIX).split("-")[0]
        if owner.isdigit() and not os.path.exists(f"/proc/{owner}"):
            run(["ip", "netns", "delete", name], check=False)


class NetworkNamespace:
    """A network namespace with its loopback interface up."""

    def __init__(self, label):
        require_root()
        self.name = f"{_NAME_PREFIX}{os.getpid()}-{next(_numbers)}-{label}"
        self._processes = []
        run(["ip", "netns", "add", self.name])
        self.run("ip", "link", "set", "lo", "up")

    def command(self, *argv):
        """The command line that runs `argv` here, under the id of the process that is started."""
        return ["ip", "netns", "exec", self.name, *map(str, argv)]

    def run(self, *argv, **options):
        return run(self.command(*argv), **options)

    def start(self, *argv, log_path, **options):
        process = Process(self.command(*argv), log_path, **options)
        self._processes.append(process)
        return process

    @contextlib.contextmanager
    def entered(self):
        """Sockets that this thread makes in the block belong to this namespace for good."""
        with open("/proc/thread-self/ns/net", "rb") as home, \
                open(f"/run/netns/{self.name}", "rb") as there:
            _enter(there)
            try:
                yield
            finally:
                _enter(home)

    def sysctl(self, name, value):
        self.run("sysctl", "-q", "-w", f"{name}={value}")

    def close(self):
        for process in reversed(self._processes):
            process.stop()
        run(["ip", "netns", "delete", self.name], check=False)


def _enter(namespace_file):
    if _libc.setns(namespace_file.fileno(), _CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def enter_network_of(pid):
    """Sockets that this thread makes from now on belong to the network of process `pid`."""
    with open(f"/proc/{pid}/ns/net", "rb") as there:
        _enter(there)


class PrivateRoot:
    """The machine's file tree with some directories exchanged, for a command that is to see it so:
    namespace.run(*private_root.command("program", "argument")).

    `replacements` maps a path to the directory (or file, where there is one already) that stands in
    its place; see private-root."""

    def __init__(self, replacements):
        self._replacements = dict(replacements)
        self._scratch = tempfile.mkdtemp(prefix="stillow-root-")

    def command(self, *argv):
        exchanged = [f"{path}={source}" for path, source in self._replacements.items()]
        return [_PRIVATE_ROOT, self._scratch, *exchanged, "--", *map(str, argv)]

    def close(self):
        # Mounts lie in the commands' own mount namespaces: here the directory is empty.
        os.rmdir(self._scratch)


class Link:
    """A veth pair between two namespaces, with an IPv4 and an IPv6 network on it."""

    def __init__(self, left, right, number=1):
        self.left_interface = f"to-{number}a"
        self.right_interface = f"to-{number}b"
        self.left_ipv4, self.right_ipv4 = f"10.77.{number}.1", f"10.77.{number}.2"
        self.left_ipv6, self.right_ipv6 = f"fd77:{number}::1", f"fd77:{number}::2"
        run(["ip", "link", "add", self.left_interface, "netns", left.name, "type", "veth",
             "peer", "name", self.right_interface, "netns", right.name])
        for namespace, interface, ipv4, ipv6 in (
                (left, self.left_interface, self.left_ipv4, self.left_ipv6),
                (right, self.right_interface, self.right_ipv4, self.right_ipv6)):
            namespace.run("ip", "addr", "add", f"{ipv4}/24", "dev", interface)
            namespace.run("ip", "addr", "add", f"{ipv6}/64", "dev", interface, "nodad")
            namespace.run("ip", "link", "set", interface, "up")
        # The carrier takes a moment to be seen; until then IPv6 has no route.
        for namespace, interface in ((left, self.left_interface), (right, self.right_interface)):
            wait_until(
                lambda ns=namespace, name=interface:
                "state UP" in ns.run("ip", "link", "show", name).stdout,
                f"carrier on {interface}")


class TemporaryDirectory:
    """Like the standard library's, but kept when the environment asks for it."""

    def __init__(self, label):
        self.path = Path(tempfile.mkdtemp(prefix=f"stillow-{label}-"))

    def close(self):
        if os.environ.get("STILLOW_KEEP_TEST_FILES"):
            print(f"kept: {self.path}")
        else:
            shutil.rmtree(self.path, ignore_errors=True)

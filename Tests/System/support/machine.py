"""A machine of its own for the whole product: a network namespace with daemon, filter and client, and
another one that plays the internet. The state directory, /run, the trust store and the hosts file are
private, so an installation on the same machine is neither seen nor disturbed."""

import json
import os
import signal
from contextlib import ExitStack, closing
from pathlib import Path

from namespaces import Link, NetworkNamespace, PrivateRoot, TemporaryDirectory, remove_leftovers
from processes import HANG_SECONDS, Process, run, wait_until
from webserver import CertificateAuthority, WebServer

PROBED_HOST = "old-probe.stillow.larchmoor.com"
CONTROL_HOST = "new-probe.stillow.larchmoor.com"
SOCKET_NAME = "com.larchmoor.Stillow.daemon.sock"


class Machine:
    """`bin_directory` holds the executables; `sites` are served besides the probe hosts."""

    def __init__(self, bin_directory, sites):
        self.bin = Path(bin_directory)
        self._parts = ExitStack()
        remove_leftovers()
        try:
            self._build(sites)
        except BaseException:
            self.close()
            raise

    def _keep(self, part):
        return self._parts.enter_context(closing(part))

    def _build(self, sites):
        self.directory = self._keep(TemporaryDirectory("machine")).path
        self.home = self._keep(NetworkNamespace("home"))
        self.internet = self._keep(NetworkNamespace("net"))
        self.link = Link(self.home, self.internet)
        self.home.run("ip", "route", "add", "default", "via", self.link.right_ipv4)
        self.home.run("ip", "-6", "route", "add", "default", "via", self.link.right_ipv6)
        self.authority = CertificateAuthority(self.directory)
        self.names = [*sites, PROBED_HOST, CONTROL_HOST]
        self.web = WebServer(self.internet, self.directory / "web", self.authority, self.names)

        self.library = self.directory / "Library"
        self.runtime = self.directory / "run"
        for directory in (self.library, self.runtime):
            directory.mkdir(mode=0o755)
        (self.runtime / ".machine").touch()
        self.hosts = self.directory / "hosts"
        self.point_names_at(self.link.right_ipv4, self.link.right_ipv6)
        self.root = self._keep(PrivateRoot({
            "/Library": self.library,
            "/run": self.runtime,
            "/etc/hosts": self.hosts,
            "/etc/ssl/certs/ca-certificates.crt": self.authority.bundle,
        }))
        # One tree for all of them, as on a real machine: the daemon looks its peers' executables up.
        self._tree = self.home.start(*self.root.command("sleep", "infinity"),
                                     log_path=self.directory / "tree.log")
        wait_until(lambda: os.path.exists(f"/proc/{self._tree.pid}/root/run/.machine"),
                   "the file tree")
        self.state = self.library / "Application Support" / "Stillow"
        self.daemon = None
        self.filter = None

    def point_names_at(self, ipv4, ipv6, names=None):
        """Rewritten in place: the file is bound into every process's tree."""
        lines = ["127.0.0.1 localhost"]
        for name in names or self.names:
            lines += [f"{ipv4} {name}"] + ([f"{ipv6} {name}"] if ipv6 else [])
        self.hosts.write_text("\n".join(lines) + "\n", encoding="utf-8")

    def close(self):
        self._parts.close()

    # ---- the product's processes

    def inside(self, *argv):
        """The command line that runs `argv` on this machine, under the id of what is started."""
        return ["nsenter", "--target", str(self._tree.pid), "--mount", "--net", "--root", "--wd=/",
                "--", *map(str, argv)]

    def start_program(self, program, *arguments):
        process = Process(self.inside(self.bin / program, *arguments),
                          self.directory / f"{program}.log")
        self._parts.callback(process.stop)
        return process

    def start_filter(self):
        self.filter = self.start_program("stillow-filter")
        wait_until(self._queue_is_bound, f"the filter to bind its queue:\n{self.filter.log()}")

    def _queue_is_bound(self):
        if not self.filter.is_running():
            raise AssertionError(f"the filter ended:\n{self.filter.log()}")
        listing = self.home.run("cat", "/proc/net/netfilter/nfnetlink_queue", check=False).stdout
        return any(line.split()[1] == str(self.filter.pid) for line in listing.splitlines())

    def start_daemon(self):
        """Returns when clients can connect."""
        mark = len(self.daemon.log()) if self.daemon else 0
        self.daemon = self.start_program("StillowDaemon")
        daemon = self.daemon

        def is_serving():
            if not daemon.is_running():
                raise AssertionError(f"the daemon ended:\n{daemon.log()}")
            return "Serving clients." in daemon.log()[mark:]

        wait_until(is_serving, "the daemon to serve")

    def kill(self, process):
        process.send_signal(signal.SIGKILL)
        process.wait()

    # ---- what a user does

    def command(self, program, *arguments):
        return self.inside(self.bin / program, *arguments)

    def stillow(self, *arguments, check=True, **options):
        return run(self.command("stillow", *arguments), check=check, **options)

    def status(self):
        return json.loads(self.stillow("status", "--json").stdout)

    def active(self):
        """The active Commitment's record; none if there is none."""
        return self.status()["commitment"].get("active", {}).get("_0")

    def health(self):
        return self.status()["enforcement"]

    def rpc(self, method, params=None, check=True):
        arguments = [method] + ([json.dumps(params)] if params is not None else [])
        return json.loads(self.stillow("rpc", *arguments, check=check).stdout)

    def curl(self, url, *options):
        """Exit status and output of a curl that knows our authority and our names."""
        result = run(
            self.inside("curl", "--silent", "--show-error", "--max-time", HANG_SECONDS, *options, url),
            check=False)
        return result.returncode, result.stdout.strip() or result.stderr.strip()

    def answers(self, name):
        return self.curl(f"https://{name}/") == (0, f"ok {name}")

    def is_refused(self, name):
        """Reset at once, as TLS clients (35) or plain ones (56) see it, or unreachable (7)."""
        return self.curl(f"https://{name}/")[0] in (35, 56, 7)

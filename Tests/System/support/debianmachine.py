"""A Debian machine that boots, with systemd as its first process: a tree made by debootstrap and run
by systemd-nspawn. The tree is made once, which needs a package mirror (the one that this machine's own
apt uses), and kept; each test boots a copy of it and needs no network."""

import hashlib
import os
import re
import shutil
from contextlib import ExitStack, closing
from pathlib import Path

from namespaces import NetworkNamespace, TemporaryDirectory, remove_leftovers
from processes import Process, run, wait_until

# What a machine needs to boot and to configure its network, and a user to type for.
_BASE_PACKAGES = ["systemd", "systemd-sysv", "iproute2"]
_MAKING_SECONDS = 1200
INTERFACE = "net0"
ADDRESSES = ("10.77.1.1/24", "fd77:1::1/64")
INTERNET_ADDRESSES = ("10.77.1.2/24", "fd77:1::2/64")

_NETWORK_UNIT = """\
[Unit]
Description=The network of this machine
DefaultDependencies=no
After=network-pre.target
Before=network.target

[Service]
Type=oneshot
RemainAfterExit=yes
ExecStart=/usr/local/sbin/bring-network-up
"""

# The note is what a test reads about the moment before there was a network.
_NETWORK_PROGRAM = """\
#!/bin/sh
{{
  iptables-save -t mangle
  ip6tables-save -t mangle
  systemctl show --property=Id --property=ActiveState 'com.larchmoor.Stillow.*'
}} >/var/log/before-network 2>&1
ip link set {interface} up
for address in {addresses}; do ip address add $address dev {interface}; done
ip route add default via {gateway4}
ip -6 route add default via {gateway6}
"""


def _address_only(address):
    return address.split("/")[0]


def _release():
    """The Debian release of this machine, and where its own apt gets it from."""
    codename = re.search(r"^VERSION_CODENAME=(\S+)", Path("/etc/os-release").read_text(),
                         re.MULTILINE).group(1)
    targets = run(["apt-get", "indextargets", "--format", "$(RELEASE) $(COMPONENT) $(REPO_URI)",
                   "Identifier: Packages"]).stdout
    for line in targets.splitlines():
        release, component, uri = line.split(" ", 2)
        if (release, component) == (codename, "main"):
            return codename, uri
    raise AssertionError(f"apt knows no repository of {codename}:\n{targets}")


def dependencies(package):
    """Names of the packages that the package file depends on, the first of alternatives. A name that
    only others provide stands for the one of them that is installed here, where it was built."""
    field = run(["dpkg-deb", "--field", package, "Depends"]).stdout
    names = [re.match(r"[a-z0-9.+-]+", term.strip()).group(0) for term in field.split(",")]
    installed = {}
    for line in run(["dpkg-query", "--show", "--showformat=${Package}\t${Provides}\n"]).stdout.splitlines():
        name, provided = line.split("\t")
        for term in provided.split(",") if provided else []:
            installed.setdefault(term.split()[0], name)
        installed[name] = name
    return [installed.get(name, name) for name in names]


def debian_tree(cache, packages):
    """The directory of a tree that has `packages`; in `cache`, where it is made if it is missing."""
    codename, mirror = _release()
    wanted = sorted({*_BASE_PACKAGES, *packages})
    digest = hashlib.sha256(" ".join([codename, *wanted]).encode()).hexdigest()[:16]
    tree = Path(cache) / f"{codename}-{digest}"
    if tree.is_dir():
        return tree
    # Trees for other lists of packages are of no more use.
    shutil.rmtree(cache, ignore_errors=True)
    Path(cache).mkdir(parents=True)
    new_tree = tree.with_suffix(".new")
    # In a mount namespace of its own, so that nothing stays mounted if it is interrupted.
    run(["unshare", "--mount", "--propagation", "private", "debootstrap", "--variant=minbase",
         f"--include={','.join(wanted)}", codename, new_tree, mirror], timeout=_MAKING_SECONDS)
    shutil.rmtree(new_tree / "var/cache/apt/archives", ignore_errors=True)
    new_tree.rename(tree)
    return tree


class DebianMachine:
    """A copy of `tree`, on or off. Its network comes up when it boots and leads to the namespace
    `internet`. Nothing outside is changed but for names with this process's id."""

    def __init__(self, tree):
        self._parts = ExitStack()
        remove_leftovers()
        try:
            self.directory = self._keep(TemporaryDirectory("booted")).path
            self.internet = self._keep(NetworkNamespace("net"))
            self.root = self.directory / "root"
            run(["cp", "--archive", "--reflink=auto", tree, self.root])
            self._log_path = self.directory / "console.log"
            self._process = None
            self._leader = None
            self._link_name = f"stw{os.getpid()}"
            self._parts.callback(self.turn_off)
            self._install_network()
        except BaseException:
            self.close()
            raise

    def _keep(self, part):
        return self._parts.enter_context(closing(part))

    def close(self):
        self._parts.close()

    def _install_network(self):
        units = self.root / "etc/systemd/system"
        (units / "bring-network-up.service").write_text(_NETWORK_UNIT)
        wants = units / "multi-user.target.wants"
        wants.mkdir(exist_ok=True)
        (wants / "bring-network-up.service").symlink_to("../bring-network-up.service")
        program = self.root / "usr/local/sbin/bring-network-up"
        program.write_text(_NETWORK_PROGRAM.format(
            interface=INTERFACE, addresses=" ".join(ADDRESSES),
            gateway4=_address_only(INTERNET_ADDRESSES[0]),
            gateway6=_address_only(INTERNET_ADDRESSES[1])))
        program.chmod(0o755)

    def point_names_at_the_internet(self, names):
        lines = ["127.0.0.1 localhost"]
        lines += [f"{_address_only(address)} {name}"
                  for name in names for address in INTERNET_ADDRESSES]
        (self.root / "etc/hosts").write_text("\n".join(lines) + "\n")

    # ---- power

    def turn_on(self):
        """Returns when it has booted, with a network."""
        self._process = Process(
            # The machine goes with this process, whatever becomes of it.
            ["setpriv", "--pdeathsig", "TERM", "systemd-nspawn", "--quiet", "--boot",
             f"--directory={self.root}", "--private-network", "--register=no", "--keep-unit",
             f"--network-veth-extra={self._link_name}:{INTERFACE}", "--console=read-only",
             "--resolv-conf=off", "--timezone=off", "--link-journal=no"],
            self._log_path)
        self._leader = wait_until(self._find_leader, "the machine's first process")
        self._connect()
        wait_until(lambda: self._is_booted(), f"the machine to boot; see {self._log_path}")

    def turn_off(self):
        """Shuts it down in order; by force if it does not listen."""
        if self._process is None:
            return
        if self._process.is_running():
            # systemd-nspawn passes it on as a request to power off.
            self._process.send_signal(15)
            try:
                self._process.wait()
            finally:
                self._process.stop(9)
        self._process = self._leader = None

    def _find_leader(self):
        if not self._process.is_running():
            raise AssertionError(f"systemd-nspawn ended:\n{self._process.log()}")
        pid = self._process.pid
        for child in Path(f"/proc/{pid}/task/{pid}/children").read_text().split():
            status = Path(f"/proc/{child}/status").read_text()
            # Its id in its own namespace stands last.
            if re.search(r"^NSpid:\s+\d+\s+1$", status, re.MULTILINE):
                return int(child)
        return None

    def _connect(self):
        wait_until(lambda: os.path.exists(f"/sys/class/net/{self._link_name}"), "the link")
        run(["ip", "link", "set", self._link_name, "netns", self.internet.name])
        for address in INTERNET_ADDRESSES:
            options = ["nodad"] if ":" in address else []
            self.internet.run("ip", "address", "add", address, "dev", self._link_name, *options)
        self.internet.run("ip", "link", "set", self._link_name, "up")

    def _is_booted(self):
        if not self._process.is_running():
            raise AssertionError(f"systemd-nspawn ended:\n{self._process.log()}")
        state = self.run("systemctl", "is-system-running", check=False).stdout.strip()
        return state in ("running", "degraded")

    # ---- what somebody does there

    @property
    def leader(self):
        """The id, on this machine, of the other machine's first process."""
        return self._leader

    def command(self, *argv):
        return ["nsenter", "--target", str(self._leader), "--all", "--", "env", "--chdir=/", "-i",
                "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8",
                "TZ=UTC", "DEBIAN_FRONTEND=noninteractive", *map(str, argv)]

    def run(self, *argv, **options):
        return run(self.command(*argv), **options)

    def run_in_its_network(self, *argv, **options):
        """A program of this machine's, with the other machine's network."""
        return run(["nsenter", "--target", str(self._leader), "--net", "--", *map(str, argv)],
                   **options)

    def path(self, path):
        """Where a file of the machine's lies here."""
        return self.root / str(path).lstrip("/")

    def log(self):
        """For a test that has failed: what the machine's services said last."""
        if self._process is None or not self._process.is_running():
            return Path(self._log_path).read_text(errors="replace")[-6000:]
        return self.run("journalctl", "--no-pager", "--lines=150", check=False).stdout

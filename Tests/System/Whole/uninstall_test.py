"""Leaving: `StillowDaemon --uninstall` and `stillow removal-check`, with and without a daemon that answers."""

import json
import os
import shutil
import signal
import socket
import sys
import threading
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "support"))

from machine import SOCKET_NAME, Machine
from processes import run, wait_until

BIN = os.environ["STILLOW_BIN"]
LABEL = "com.larchmoor.Stillow.daemon"
FILTER_LABEL = "com.larchmoor.Stillow.filter"
STATE = "/Library/Application Support/Stillow"
UNITS = "/etc/systemd/system"

ACTIVE = ("Stillow can’t be uninstalled while a Commitment is active. Nothing has been removed. "
          "Removal becomes available when the Commitment ends — projected ~")
ACTIVE_END = ". Time while this Mac is shut down doesn’t count, so that can move later.\n"
UNKNOWN = ("Stillow can’t tell whether a Commitment is active, so it has removed nothing. Start "
           "Stillow, let it reach the daemon, and try again.\n")
NOT_ROOT = "Stillow's uninstaller needs root — re-run it with sudo.\n"
ALL_GONE = ("Stillow’s privileged components are off this Mac. Move Stillow.app to the Trash to "
            "finish.\n")

# Stands in systemctl's place: notes what it is asked, ends the daemon that is asked for, and knows
# no other unit.
SYSTEMCTL = """#!/bin/sh
echo "$*" >> {log}
case "$2 $3" in
  "stop {label}.service") [ ! -e {pid} ] || {{ kill "$(cat {pid})"; rm {pid}; }};;
  "stop "*) echo "Unit $3 not loaded." >&2; exit 5;;
  "disable "*) echo "Unit file $3 does not exist." >&2; exit 1;;
  "show "*) echo LoadState=not-found; echo UnitFileState=;;
esac
"""


class UninstallTestCase(unittest.TestCase):
    def setUp(self):
        self.machine = Machine(BIN, ["blocked.example"])
        self.addCleanup(self.machine.close)
        directory = self.machine.directory
        self.asked = directory / "systemctl.log"
        self.daemon_pid = directory / "daemon.pid"
        fake = directory / "systemctl"
        fake.write_text(SYSTEMCTL.format(log=self.asked, pid=self.daemon_pid, label=LABEL))
        fake.chmod(0o755)
        self.inside("mount", "--bind", fake, shutil.which("systemctl", path="/usr/bin:/bin"))
        # The places of a development install, this machine's own ones hidden.
        self.places = {}
        for place in (UNITS, "/usr/local"):
            self.places[place] = directory / place.strip("/").replace("/", "-")
            self.places[place].mkdir()
            self.inside("mount", "--bind", self.places[place], place)

    def inside(self, *argv):
        return run(self.machine.inside(*argv))

    def install_for_development(self):
        units, local = self.places[UNITS], self.places["/usr/local"]
        (local / "lib/stillow").mkdir(parents=True)
        (local / "lib/stillow/StillowDaemon").write_text("a program\n")
        (local / "sbin").mkdir()
        (local / "sbin/StillowDaemon").write_text("an older program\n")
        (local / "sbin/other").write_text("somebody else's\n")
        for label in (LABEL, FILTER_LABEL):
            (units / f"{label}.service").write_text(f"[Service]\n# {label}\n")

    def start(self):
        self.machine.start_filter()
        self.machine.start_daemon()
        self.daemon_pid.write_text(str(self.machine.daemon.pid))

    def begin(self):
        self.machine.stillow("start", "--for", "10m", "--yes", "blocked.example")

    def uninstall(self, *environment):
        return run(self.machine.inside("env", "LC_ALL=C", "TZ=UTC", *environment,
                                       self.machine.bin / "StillowDaemon", "--uninstall"),
                   check=False)

    def removal_check(self):
        return run(self.machine.inside("env", "LC_ALL=C", "TZ=UTC",
                                       self.machine.bin / "stillow", "removal-check"), check=False)

    def rules(self):
        return [self.machine.home.run(*command).stdout
                for command in (("iptables", "-t", "mangle", "-S"),
                                ("ip6tables", "-t", "mangle", "-S"))]

    def everything(self):
        """Every file of ours with its bytes, its mode and its time, the rules, and what systemctl was
        asked."""
        found = {}
        for tree in (self.machine.library, *self.places.values()):
            for path in sorted(tree.rglob("*")):
                status = path.lstat()
                found[str(path)] = (status.st_mode, status.st_mtime_ns, status.st_ino,
                                    path.read_bytes() if path.is_file() else None)
        asked = self.asked.read_text() if self.asked.exists() else ""
        return found, self.rules(), asked

    def assert_refused(self, outcome):
        self.assertEqual((outcome.returncode, outcome.stderr), (3, ""), outcome.stdout)
        self.assertTrue(outcome.stdout.startswith(ACTIVE), outcome.stdout)
        self.assertTrue(outcome.stdout.endswith(ACTIVE_END), outcome.stdout)
        self.assertEqual(outcome.stdout.count("\n"), 1)
        return outcome.stdout.removeprefix(ACTIVE).removesuffix(ACTIVE_END)

    def assert_refused_leaving_everything(self):
        before = self.everything()
        self.assert_refused(self.uninstall())
        self.assert_refused(self.removal_check())
        self.assertEqual(self.everything(), before)


class Refusals(UninstallTestCase):
    def test_without_root_nobody_is_asked(self):
        # Where another user can get at the programs, whoever built them.
        (self.machine.runtime / "bin").mkdir()
        self.inside("mount", "--bind", self.machine.bin, "/run/bin")
        self.start()
        before = self.machine.daemon.log()
        for command in (("/run/bin/StillowDaemon", "--uninstall"),
                        ("/run/bin/stillow", "removal-check")):
            outcome = run(self.machine.inside("setpriv", "--reuid=65534", "--regid=65534",
                                              "--clear-groups", *command), check=False)
            self.assertEqual((outcome.returncode, outcome.stdout, outcome.stderr),
                             (77, "", NOT_ROOT))
        self.assertEqual(self.machine.daemon.log(), before)
        self.assertTrue(self.machine.state.exists())

    def test_while_a_commitment_is_active_leave_every_file_rule_and_unit(self):
        self.install_for_development()
        self.start()
        self.begin()
        self.assertTrue(self.machine.is_refused("blocked.example"))
        self.assertIn("NFQUEUE", "".join(self.rules()))
        # A daemon that hangs writes nothing while we look.
        os.kill(self.machine.daemon.pid, signal.SIGSTOP)
        try:
            self.assert_refused_leaving_everything()
        finally:
            os.kill(self.machine.daemon.pid, signal.SIGCONT)
        # And one that answers.
        self.assertRegex(self.assert_refused(self.uninstall()),
                         "^[A-Z][a-z]{2} [0-9]{1,2}, 20[0-9]{2}, [0-9]{1,2}:[0-9]{2}\u202f[AP]M$")
        self.assertRegex(self.assert_refused(self.uninstall("LC_ALL=de_DE.UTF-8")),
                         r"^[0-9]{1,2}\. \S+ 20[0-9]{2}, [0-9]{1,2}:[0-9]{2}$")
        self.assert_refused(self.removal_check())
        self.assertFalse(self.asked.exists(), "no unit was touched")
        self.assertIn("NFQUEUE", "".join(self.rules()))
        self.assertTrue(self.machine.is_refused("blocked.example"))
        self.assertIsNotNone(self.machine.active())

        self.machine.kill(self.machine.daemon)
        self.assert_refused_leaving_everything()

    def test_follow_the_files_when_the_daemon_refuses_the_caller(self):
        self.start()
        self.begin()
        stranger = self.machine.directory / "StillowDaemon"
        shutil.copy(Path(BIN) / "StillowDaemon", stranger)
        shutil.copytree(Path(BIN) / "StillowCore_StillowCore.bundle",
                        self.machine.directory / "StillowCore_StillowCore.bundle")
        before = self.machine.daemon.log()
        outcome = run(self.machine.inside("env", "LC_ALL=C", stranger, "--uninstall"), check=False)
        self.assert_refused(outcome)
        wait_until(lambda: len(self.machine.daemon.log()) > len(before),
                   "the daemon to note that it let nobody in")

    def test_follow_the_files_when_the_reply_does_not_decode(self):
        self.start()
        self.begin()
        self.machine.kill(self.machine.daemon)
        with AnsweringNonsense(self.machine.runtime / "stillow" / SOCKET_NAME) as daemon:
            self.assert_refused(self.uninstall())
            self.assertGreater(daemon.answers, 0)

    def test_say_so_when_nobody_can_tell(self):
        self.start()
        self.begin()
        self.machine.kill(self.machine.daemon)
        for name in ("commitment-checkpoint.json", "commitment-checkpoint.last-known-good.json"):
            (self.machine.state / name).write_text("{")
        before = self.everything()
        for outcome in (self.uninstall(), self.removal_check()):
            self.assertEqual((outcome.returncode, outcome.stdout, outcome.stderr),
                             (3, UNKNOWN, ""))
        self.assertEqual(self.everything(), before)


class AnsweringNonsense:
    """A daemon, to look at, that answers each line with one that is no status."""

    def __init__(self, path):
        path.parent.mkdir(mode=0o755, exist_ok=True)
        path.unlink(missing_ok=True)
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(str(path))
        self._listener.listen()
        path.chmod(0o666)
        self.answers = 0
        self._thread = threading.Thread(target=self._serve, daemon=True)

    def _serve(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            with connection, connection.makefile("rb") as lines:
                for line in lines:
                    answer = {"jsonrpc": "2.0", "id": json.loads(line)["id"],
                              "result": {"commitment": "none"}}
                    connection.sendall(json.dumps(answer).encode() + b"\n")
                    self.answers += 1

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()


class Removal(UninstallTestCase):
    def lines(self, *lines):
        return "".join(line + "\n" for line in lines)

    def test_takes_everything_away_and_says_so(self):
        self.install_for_development()
        self.start()
        outcome = self.removal_check()
        self.assertEqual((outcome.returncode, outcome.stdout, outcome.stderr), (0, "", ""))
        outcome = self.uninstall()
        self.assertEqual(outcome.stdout, self.lines(
            "Removed Stillow’s content filter configuration.",
            f"Removed {LABEL}",
            f"Removed {STATE}",
            f"Removed {UNITS}/{LABEL}.service",
            "Removed /usr/local/lib/stillow",
            "Removed /usr/local/sbin/StillowDaemon") + ALL_GONE)
        self.assertEqual((outcome.returncode, outcome.stderr), (0, ""))
        self.assertEqual(self.asked.read_text().splitlines(), [
            f"--no-ask-password stop {LABEL}.service",
            f"--no-ask-password disable {LABEL}.service",
            f"--no-ask-password show --property=LoadState --property=UnitFileState {LABEL}.service",
            f"--no-ask-password stop {FILTER_LABEL}.service",
            f"--no-ask-password disable {FILTER_LABEL}.service",
            "--no-ask-password show --property=LoadState --property=UnitFileState "
            f"{FILTER_LABEL}.service"])
        wait_until(lambda: not self.machine.daemon.is_running(), "the daemon to end")
        self.assertFalse(self.machine.state.exists())
        self.assertEqual(list(self.places[UNITS].iterdir()), [])
        self.assertEqual([path.name for path in self.places["/usr/local"].rglob("*")
                          if path.is_file()], ["other"])
        self.assertNotIn("NFQUEUE", "".join(self.rules()))

        again = self.uninstall()
        self.assertEqual((again.returncode, again.stdout), (0, self.lines(
            "Removed Stillow’s content filter configuration.",
            f"Removed {LABEL}",
            f"Not present: {STATE}",
            f"Not present: {UNITS}/{LABEL}.service",
            "Not present: /usr/local/lib/stillow",
            "Not present: /usr/local/sbin/StillowDaemon") + ALL_GONE))

    def test_takes_rules_away_that_were_left_behind(self):
        self.start()
        self.begin()
        self.machine.kill(self.machine.daemon)
        self.daemon_pid.unlink()
        self.assertIn("NFQUEUE", "".join(self.rules()))
        # Its state is gone with the disk: nothing there is nothing active.
        shutil.rmtree(self.machine.state)
        outcome = self.uninstall()
        self.assertEqual(outcome.returncode, 0, outcome.stdout + outcome.stderr)
        self.assertNotIn("NFQUEUE", "".join(self.rules()))
        self.assertTrue(self.machine.answers("blocked.example"))

    def test_says_what_is_left(self):
        shutil.copy("/bin/false", self.machine.directory / "systemctl")
        self.machine.library.joinpath("Application Support/Stillow").mkdir(parents=True)
        self.inside("mount", "-t", "tmpfs", "held", STATE)
        outcome = self.uninstall()
        self.assertEqual(outcome.returncode, 4, outcome.stdout)
        self.assertEqual(outcome.stdout.splitlines(), [
            "Could not remove the content filter configuration (systemctl stop exited 1). If System "
            "Settings ▸ Network ▸ Filters still lists Stillow, remove it there.",
            f"Still there: {LABEL} — systemctl stop exited 1",
            f"Still there: {STATE} — Device or resource busy",
            f"Not present: {UNITS}/{LABEL}.service",
            "Not present: /usr/local/lib/stillow",
            "Not present: /usr/local/sbin/StillowDaemon",
            "Some pieces are still here; see above."])

    def test_never_starts_a_daemon(self):
        outcome = self.uninstall()
        self.assertEqual(outcome.returncode, 0, outcome.stdout + outcome.stderr)
        self.assertFalse(self.machine.state.exists())
        self.assertFalse((self.machine.runtime / "stillow" / SOCKET_NAME).exists())


if __name__ == "__main__":
    unittest.main()

"""`StillowDaemon --uninstall` and the service manager itself: a development install, taken away again from a
machine that boots."""

import os
import shutil
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "support"))

from debianmachine import DebianMachine, debian_tree, dependencies
from packagefile import the_package
from processes import wait_until

LABEL = "com.larchmoor.Stillow.daemon"
FILTER_LABEL = "com.larchmoor.Stillow.filter"
STATE = "/Library/Application Support/Stillow"
UNITS = "/etc/systemd/system"
LIBRARY = "/usr/local/lib/stillow"
ALL_GONE = ("Stillow’s privileged components are off this Mac. Move Stillow.app to the Trash to "
            "finish.")
UNIT = """\
[Unit]
Description=Stillow, a development install

[Service]
Type=notify
ExecStart={program}

[Install]
WantedBy=multi-user.target
"""


class DevelopmentInstall(unittest.TestCase):
    def setUp(self):
        tree = debian_tree(os.environ["STILLOW_MACHINE_CACHE"], dependencies(the_package()))
        self.machine = DebianMachine(tree)
        self.addCleanup(self.machine.close)
        built = Path(os.environ["STILLOW_RELEASE_BIN"])
        for place in (LIBRARY, "/root/outside"):
            shutil.copytree(built, self.machine.path(place))
        for label, program in ((LABEL, "StillowDaemon"), (FILTER_LABEL, "stillow-filter")):
            self.machine.path(f"{UNITS}/{label}.service").write_text(
                UNIT.format(program=f"{LIBRARY}/{program}"))
        self.machine.path("/usr/local/sbin/StillowDaemon").write_text("an older program\n")
        self.machine.turn_on()

    def shown(self, label):
        return self.machine.run("systemctl", "show", "--property=LoadState",
                                "--property=ActiveState", f"{label}.service").stdout

    def uninstall(self):
        return self.machine.run("/root/outside/StillowDaemon", "--uninstall", check=False)

    def assert_prints(self, outcome, *lines):
        self.assertEqual((outcome.stdout.splitlines(), outcome.stderr, outcome.returncode),
                         ([*lines], "", 0))

    def test_goes_from_the_service_manager_and_from_the_disk(self):
        self.machine.run("systemctl", "enable", "--now", f"{FILTER_LABEL}.service",
                         f"{LABEL}.service")
        # A busy machine may take longer than the daemon is given for an answer.
        wait_until(lambda: self.machine.run(f"{LIBRARY}/StillowDaemon", "--report-status",
                                            check=False).returncode == 0, "the daemon to answer")
        self.assert_prints(
            self.uninstall(),
            "Removed Stillow’s content filter configuration.",
            f"Removed {LABEL}",
            f"Removed {STATE}",
            f"Removed {UNITS}/{LABEL}.service",
            f"Removed {LIBRARY}",
            "Removed /usr/local/sbin/StillowDaemon",
            ALL_GONE)
        for place in (STATE, LIBRARY, "/usr/local/sbin/StillowDaemon",
                      f"{UNITS}/{LABEL}.service", f"{UNITS}/{FILTER_LABEL}.service",
                      f"{UNITS}/multi-user.target.wants/{LABEL}.service",
                      f"{UNITS}/multi-user.target.wants/{FILTER_LABEL}.service"):
            self.assertFalse(os.path.lexists(self.machine.path(place)), place)
        self.machine.run("systemctl", "daemon-reload")
        for label in (LABEL, FILTER_LABEL):
            self.assertEqual(self.shown(label), "LoadState=not-found\nActiveState=inactive\n")
        # Units that nobody knows any more: systemctl stop says 5, which is no failure.
        unknown = self.machine.run("systemctl", "stop", f"{LABEL}.service", check=False)
        self.assertEqual(unknown.returncode, 5)
        self.assert_prints(
            self.uninstall(),
            "Removed Stillow’s content filter configuration.",
            f"Removed {LABEL}",
            f"Not present: {STATE}",
            f"Not present: {UNITS}/{LABEL}.service",
            f"Not present: {LIBRARY}",
            "Not present: /usr/local/sbin/StillowDaemon",
            ALL_GONE)

    def test_goes_where_an_administrator_has_masked_the_units(self):
        for label in (LABEL, FILTER_LABEL):
            self.machine.path(f"{UNITS}/{label}.service").unlink()
        self.machine.run("systemctl", "mask", f"{LABEL}.service", f"{FILTER_LABEL}.service")
        outcome = self.uninstall()
        # The mask is the administrator's, but it lies where a development install has its unit.
        self.assert_prints(
            outcome,
            "Removed Stillow’s content filter configuration.",
            f"Removed {LABEL}",
            f"Not present: {STATE}",
            f"Removed {UNITS}/{LABEL}.service",
            f"Removed {LIBRARY}",
            "Removed /usr/local/sbin/StillowDaemon",
            ALL_GONE)


if __name__ == "__main__":
    unittest.main()

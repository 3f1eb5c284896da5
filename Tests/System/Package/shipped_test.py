"""What the package ships, looked at without installing it."""

import os
import re
import subprocess
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "support"))

from namespaces import TemporaryDirectory
from packagefile import the_package
from processes import run

UNITS = [f"com.larchmoor.Stillow.{name}.service" for name in ("daemon", "filter")]


class Shipped(unittest.TestCase):
    def setUp(self):
        directory = TemporaryDirectory("shipped")
        self.addCleanup(directory.close)
        self.root = directory.path
        run(["dpkg-deb", "--extract", the_package(), self.root])

    def test_units_are_hardened(self):
        for unit in UNITS:
            path = self.root / "lib/systemd/system" / unit
            run(["systemd-analyze", "security", "--offline=true", "--threshold=30", "--no-pager",
                 path])
            text = path.read_text()
            for line in ("Restart=always", "RestartSec=250ms", "StartLimitIntervalSec=0",
                         "Before=network-pre.target shutdown.target",
                         'RequiresMountsFor="/Library/Application Support/Stillow"'):
                self.assertIn(f"\n{line}\n", text, unit)

    def test_executables_are_signed_as_they_are_shipped_by_whom_the_anchor_names(self):
        anchor = self.root / "usr/share/stillow/anchor.pem"
        for path, identifier in (("usr/sbin/StillowDaemon", "com.larchmoor.Stillow.daemon"),
                                 ("usr/sbin/stillow-filter", "com.larchmoor.Stillow.filter"),
                                 ("usr/bin/stillow", "com.larchmoor.Stillow")):
            executable = self.root / path
            statement = run(["openssl", "cms", "-verify", "-inform", "DER", "-in",
                             f"{executable}.cms", "-CAfile", anchor, "-purpose", "any"]).stdout
            digest = run(["sha256sum", executable]).stdout.split()[0]
            self.assertEqual(statement.splitlines(), [
                "stillow code statement 1", f"identifier {identifier}",
                f"size {executable.stat().st_size}", f"sha256 {digest}"])
            sections = run(["readelf", "--wide", "--sections", executable]).stdout
            self.assertNotIn(".symtab", sections, "stripped before it was signed")

    def test_the_daemon_has_the_program_that_connects_for_it_beside_it_and_no_libcurl(self):
        needed = {}
        for name in ("StillowDaemon", "stillow-probe"):
            executable = self.root / "usr/sbin" / name
            self.assertEqual(executable.stat().st_mode & 0o7777, 0o755, name)
            needed[name] = run(["readelf", "--wide", "--dynamic", executable]).stdout
        self.assertIn("[libcurl", needed["stillow-probe"])
        self.assertNotIn("[libcurl", needed["StillowDaemon"])

    def test_nothing_lies_where_the_state_does(self):
        self.assertFalse((self.root / "Library").exists())


class ClientTexts(unittest.TestCase):
    """The manual page and the completions know what the client knows."""

    LINUX = Path(__file__).resolve().parents[3] / "Packaging/Linux"

    def help_of(self, *command):
        text = subprocess.run([Path(os.environ["STILLOW_BIN"]) / "stillow", *command, "--help"],
                              stdout=subprocess.PIPE, text=True, check=True).stdout
        listed = re.split(r"^Subcommands:$", text, flags=re.MULTILINE)
        commands = re.findall(r"^  ([a-z-]+) ", listed[1], re.MULTILINE) if len(listed) > 1 else []
        return commands, set(re.findall(r"^  (?:-\w,)?--([a-z-]+)", listed[0], re.MULTILINE))

    def setUp(self):
        self.commands, self.options = self.help_of()
        self.edits = {}
        for command in self.commands:
            edits, options = self.help_of(command)
            self.options |= options
            self.edits[command] = edits
            for edit in edits:
                self.options |= self.help_of(command, edit)[1]
        self.assertIn("start", self.commands)
        self.assertIn("import", self.edits["sites"])
        self.assertLessEqual({"json", "yes", "group", "until"}, self.options)

    def assert_knows(self, text, words, name):
        for word in words:
            self.assertRegex(text, rf"(?<![\w-]){re.escape(word)}(?![\w-])", name)

    def test_manual_page_has_every_command_and_every_option_and_no_other(self):
        page = (self.LINUX / "man/stillow.1").read_text().replace("\\-", "-")
        commands = page[page.index(".SH COMMANDS"):page.index(".SH OPTIONS")]
        options = page[page.index(".SH OPTIONS"):page.index(".SH EXIT STATUS")]
        for command in self.commands:
            self.assertRegex(commands, rf'(?m)^\.B[IR]? "?{command}(?![\w-])', command)
            for edit in self.edits[command]:
                self.assertRegex(commands, rf'(?m)^\.B[IR]? "?{command} {edit}(?![\w-])')
        self.assertEqual(set(re.findall(r'(?m)^\.B.*?--([a-z-]+)', options)), self.options)

    def test_completions_have_every_command_and_every_option(self):
        edits = {edit for several in self.edits.values() for edit in several}
        for name in ("stillow.bash", "_stillow", "stillow.fish"):
            text = (self.LINUX / "completions" / name).read_text()
            self.assert_knows(text, [*self.commands, *edits], name)
            marks = "--long-option {}" if name.endswith(".fish") else "--{}"
            self.assert_knows(text.replace("--long-option ", "\n--long-option "),
                              [marks.format(option) for option in self.options], name)

    def test_completions_are_sound_shell(self):
        run(["bash", "-n", self.LINUX / "completions/stillow.bash"])


if __name__ == "__main__":
    unittest.main()

"""The client as a person sees it: in a terminal, with questions, a bar and Ctrl-C."""

import os
import re
import signal
import sys
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "support"))

from machine import Machine
from processes import run, wait_until
from terminal import Screen, Terminal, UnknownSequence

BIN = Path(os.environ["STILLOW_BIN"])


class TerminalTestCase(unittest.TestCase):
    def setUp(self):
        self.machine = Machine(BIN, ["blocked.example", "second.example"])
        self.addCleanup(self.machine.close)
        self.config = self.machine.directory / "config"

    def open(self, *arguments, columns=80, **environment):
        variables = [f"{name}={value}" for name, value in environment.items()]
        terminal = Terminal(
            self.machine.inside("env", f"XDG_CONFIG_HOME={self.config}", "TZ=UTC", *variables,
                                BIN / "stillow", *arguments),
            columns=columns)
        self.addCleanup(terminal.close)
        return terminal

    def serve(self):
        self.machine.start_filter()
        self.machine.start_daemon()
        wait_until(self.is_healthy, "health")

    def is_healthy(self):
        """Also false while a busy disk keeps the daemon from answering in time."""
        answer = self.machine.stillow("status", "--json", check=False).stdout
        return '"enforcement":{"healthy":{}}' in answer

    def begin(self, length="10m", *sites):
        self.machine.stillow("start", "--yes", "--for", length, *(sites or ["blocked.example"]))
        wait_until(self.is_healthy, "health")

    def fits(self, terminal, columns):
        """No line was longer than the terminal is wide: none was broken by it."""
        plain = re.sub(r"\x1b\[[0-9;?]*[A-Za-z]", "", terminal.output)
        for line in re.split(r"[\r\n]+", plain):
            screen = Screen(10_000)
            screen.feed(line)
            self.assertLessEqual(screen.widest, columns, line)


class Starting(TerminalTestCase):
    def test_says_it_all_on_one_screen_and_starts_after_a_yes(self):
        self.serve()
        terminal = self.open("start", "--for", "90m", "https://www.blocked.example/page",
                             "mail.second.example")
        terminal.wait_for("Type yes: ")
        asked = terminal.screen().text()
        for words in ("This blocks 2 sites", "blocked.example  (from https://www.blocked.example/",
                      "mail.second.example", "at the latest, 1 h 30 min from now",
                      "Time asleep counts. Time shut down does not",
                      "Nobody can end it early, you included."):
            self.assertIn(words, asked)
        self.assertLessEqual(asked.count("\n"), 23)
        self.assertEqual(self.machine.status()["commitment"], {"idle": {}})
        terminal.type("yes\n")
        self.assertEqual(terminal.end(), 0, terminal.output)
        shown = terminal.screen().text()
        self.assertIn("Testing that the filter really blocks …", shown)
        self.assertIn("A Commitment is active for another 1 h 30 min", shown)
        self.assertIn("█", shown)
        self.assertEqual(self.machine.active()["scope"], ["blocked.example", "mail.second.example"])
        self.assertTrue(terminal.has_its_settings_back())

    def test_starts_nothing_for_another_answer_the_end_of_input_or_ctrl_c(self):
        self.serve()
        for answer, status in (("no\n", 4), ("y\n", 4), ("\n", 4), ("\x04", 4),
                               ("\x03", -signal.SIGINT)):
            terminal = self.open("start", "--for", "90m", "blocked.example")
            terminal.wait_for("Type yes: ")
            terminal.type(answer)
            self.assertEqual(terminal.end(), status, repr(answer))
            self.assertTrue(terminal.has_its_settings_back())
        self.assertEqual(self.machine.status()["commitment"], {"idle": {}})

    def test_survives_a_daemon_that_restarts_while_the_user_thinks(self):
        self.serve()
        terminal = self.open("start", "--for", "90m", "blocked.example")
        terminal.wait_for("Type yes: ")
        self.machine.kill(self.machine.daemon)
        self.machine.start_daemon()
        terminal.type("yes\n")
        self.assertEqual(terminal.end(), 0, terminal.output)
        self.assertEqual(self.machine.active()["scope"], ["blocked.example"])

    def test_asks_before_it_adds_and_before_it_extends(self):
        self.serve()
        self.begin()
        terminal = self.open("add", "blocked.example", "second.example")
        terminal.wait_for("Add them? Type yes: ")
        self.assertIn("This adds 1 site to what is blocked:\n  second.example\n",
                      terminal.screen().text())
        terminal.type("yes\n")
        self.assertEqual(terminal.end(), 0, terminal.output)
        terminal = self.open("extend", "--by", "30m")
        terminal.wait_for("Extend it? Type yes: ")
        terminal.type("no\n")
        self.assertEqual(terminal.end(), 4)
        self.assertLess(self.machine.active()["remainingDuration"], 601)

    def test_refuses_to_take_a_yes_from_a_pipe(self):
        self.serve()
        refused = self.machine.stillow("start", "--for", "1h", "blocked.example", check=False,
                                       input="yes\n")
        self.assertEqual((refused.returncode, refused.stdout), (4, ""))
        self.assertIn("Standard input is no terminal, so nobody can answer. For a script, add "
                      "--yes. Nothing was started.\n", refused.stderr)
        self.assertEqual(self.machine.status()["commitment"], {"idle": {}})

    def test_fits_terminals_of_80_and_40_columns(self):
        self.serve()
        run(self.machine.inside("env", f"XDG_CONFIG_HOME={self.config}", BIN / "stillow", "groups",
                                "add", "日本語のニュースとその他のもの、とても長い名前", "blocked.example",
                                "a-very-long-name-that-does-not-fit-into-forty-columns.example"))
        for columns in (80, 40):
            for arguments in (("status",), ("sites", "list"), ("groups", "list"),
                              ("explain", "https://mail.blocked.example/a/long/path?and=more"),
                              ("start", "--for", "25h", "blocked.example"),
                              ("start", "--for", "1h", "10.0.0.1", "co.uk")):
                terminal = self.open(*arguments, columns=columns)
                terminal.end()
                self.fits(terminal, columns)
            terminal = self.open("start", "--all", "--until", "23:59", columns=columns)
            if "too far ahead" not in terminal.output:
                terminal.wait_for("Type yes: ")
                terminal.type("no\n")
            terminal.end()
            self.fits(terminal, columns)
        terminal = self.open("groups", "list")
        terminal.end()
        self.assertIn("日本語のニュース", terminal.screen().text())


class Colour(TerminalTestCase):
    def test_is_for_terminals_that_want_it(self):
        self.serve()
        self.begin()
        self.assertIn("32", self.shown("status").colours, "green for a block in force")
        for environment in ({"NO_COLOR": "1"}, {"TERM": "dumb"}):
            self.assertEqual(self.shown("status", **environment).colours, set(), environment)
        self.assertNotIn("\x1b", self.machine.stillow("status").stdout)

    def shown(self, *arguments, **environment):
        terminal = self.open(*arguments, **environment)
        self.assertEqual(terminal.end(), 0)
        return terminal.screen()


class Watching(TerminalTestCase):
    def test_shows_a_live_bar_every_change_and_ends_with_ctrl_c(self):
        self.serve()
        self.begin()
        terminal = self.open("watch")
        at = terminal.wait_for("left")
        terminal.wait_for("Blocking is in force.")
        self.assertIn("Blocked: blocked.example", terminal.screen().text())
        self.assertFalse(terminal.screen().shows_cursor)
        # It lives: another second, another line in the same place.
        at = terminal.wait_for("left", at)
        terminal.wait_for("left", at)
        self.assertEqual(terminal.screen().text().count("left"), 1)

        self.machine.stillow("add", "--yes", "second.example")
        terminal.wait_for("Added: second.example.")
        self.machine.stillow("extend", "--yes", "--by", "5m")
        at = terminal.wait_for("Extended: it ends at about")
        terminal.wait_for("left", at)

        self.machine.kill(self.machine.filter)
        at = terminal.wait_for("Nothing is being blocked at the moment; it is being repaired.")
        self.machine.start_filter()
        at = terminal.wait_for("Blocking is in force.", at)
        terminal.wait_for("left", at)

        terminal.type("\x03")
        self.assertEqual(terminal.end(), 0)
        screen = terminal.screen()
        self.assertTrue(screen.shows_cursor)
        self.assertTrue(terminal.has_its_settings_back())
        self.assertTrue(terminal.output.endswith("\n\x1b[?25h"), repr(terminal.output[-40:]))
        self.assertEqual(screen.text().count("left"), 1)

    def test_comes_back_when_the_daemon_does(self):
        self.serve()
        self.begin()
        terminal = self.open("watch")
        terminal.wait_for("left")
        self.machine.kill(self.machine.daemon)
        at = terminal.wait_for("The daemon is gone; waiting for it to come back.")
        at = terminal.wait_for("left", at)  # the bar goes on: the Commitment does
        self.machine.start_daemon()
        at = terminal.wait_for("The daemon is back.", at)
        self.machine.stillow("add", "--yes", "second.example")
        terminal.wait_for("Added: second.example.", at)
        self.assertEqual(terminal.screen().text().count("left"), 1)
        terminal.type("\x03")
        self.assertEqual(terminal.end(), 0)

    def test_ends_as_cleanly_when_it_is_terminated_while_it_waits_for_the_daemon(self):
        self.serve()
        terminal = self.open("watch")
        terminal.wait_for("No Commitment is active.")
        self.machine.kill(self.machine.daemon)
        terminal.wait_for("The daemon is gone")
        terminal.send_signal(signal.SIGTERM)
        self.assertEqual(terminal.end(), 0)
        self.assertTrue(terminal.screen().shows_cursor)

    def test_leaves_the_terminal_in_order_while_it_is_put_aside(self):
        self.serve()
        terminal = self.open("watch")
        terminal.wait_for("No Commitment is active.")
        terminal.type("\x1a")
        at = terminal.wait_for("\x1b[?25h")
        terminal.wait_until_stopped()
        self.assertTrue(terminal.screen().shows_cursor)
        terminal.send_signal(signal.SIGCONT)
        terminal.wait_for("No Commitment is active.", at)
        self.assertFalse(terminal.screen().shows_cursor)
        terminal.type("\x03")
        self.assertEqual(terminal.end(), 0)

    def test_stays_in_its_place_in_a_narrow_terminal(self):
        self.serve()
        self.begin()
        terminal = self.open("watch", columns=40)
        at = terminal.wait_for("left")
        self.machine.stillow("add", "--yes", "second.example", "a-long-name-indeed.second.example")
        at = terminal.wait_for("Added:", at)
        at = terminal.wait_for("left", at)
        terminal.wait_for("left", at)
        self.fits(terminal, 40)
        self.assertEqual(terminal.screen().text().count("left"), 1)
        terminal.type("\x03")
        self.assertEqual(terminal.end(), 0)

    def test_tells_of_the_end(self):
        self.serve()
        self.begin("6s")
        terminal = self.open("status", "--watch")  # the same as watch
        terminal.wait_for("The Commitment has ended. Clear this with: stillow acknowledge")
        terminal.wait_for("The Commitment ended at")
        self.machine.stillow("acknowledge")
        terminal.wait_for("No Commitment is active any more.")
        terminal.type("\x03")
        self.assertEqual(terminal.end(), 0)

    def test_moves_no_cursor_where_there_is_none(self):
        self.serve()
        self.begin()
        terminal = self.open("watch", TERM="dumb")
        terminal.wait_for("Blocked: blocked.example")
        self.machine.stillow("add", "--yes", "second.example")
        terminal.wait_for("Added: second.example.")
        terminal.type("\x03")
        self.assertEqual(terminal.end(), 0)
        self.assertNotIn("\x1b", terminal.output)

        watching = self.machine.start_program("stillow", "watch")
        wait_until(lambda: "Blocked: " in watching.log(), "the present state")
        self.machine.kill(self.machine.daemon)
        wait_until(lambda: "was lost" in watching.log(), "the loss")
        self.machine.start_daemon()
        wait_until(lambda: "is back" in watching.log(), "the return")
        self.assertEqual(watching.stop(signal.SIGINT), 0)
        self.assertNotIn("\x1b", watching.log())

    def test_needs_a_daemon_to_begin_with(self):
        outcome = self.machine.stillow("watch", check=False)
        self.assertEqual((outcome.returncode, outcome.stdout), (3, ""))
        self.assertIn("there is no socket", outcome.stderr)


class OnePicture(unittest.TestCase):
    """The screen of these tests is itself a terminal: what it cannot show fails."""

    def test_moves_erases_and_refuses(self):
        screen = Screen(5)
        screen.feed("abcdefg\r\n日本語")
        self.assertEqual(screen.text(), "abcde\nfg\n日本\n語")
        screen.feed("\r\x1b[1A\x1b[Jx")
        self.assertEqual(screen.text(), "abcde\nfg\nx")
        with self.assertRaises(UnknownSequence):
            screen.feed("\x1b[2K")
        with self.assertRaises(UnknownSequence):
            screen.feed("\x07")


if __name__ == "__main__":
    unittest.main(verbosity=2)

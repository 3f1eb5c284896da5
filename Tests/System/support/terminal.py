"""A pseudo-terminal with a program in it, and what a person would see on its screen."""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time
import unicodedata

from processes import HANG_SECONDS, WaitingFailed, wait_until

_SEQUENCE = re.compile(r"\x1b\[([0-9;?]*)([A-Za-z])")


def cells(character):
    if unicodedata.combining(character):
        return 0
    return 2 if unicodedata.east_asian_width(character) in "WF" else 1


class UnknownSequence(AssertionError):
    pass


class Screen:
    """Just as much of a terminal as the client needs. What it does not know fails the test."""

    def __init__(self, columns, rows=200):
        self.columns = columns
        self.rows = rows
        self.lines = [[]]
        self.row = 0
        self.column = 0
        self.shows_cursor = True
        self.colours = set()
        self.widest = 0

    def feed(self, text):
        at = 0
        while at < len(text):
            sequence = _SEQUENCE.match(text, at)
            if sequence:
                self._control(*sequence.groups())
                at = sequence.end()
                continue
            self._put(text[at])
            at += 1

    def _control(self, numbers, letter):
        if letter == "m":
            self.colours.add(numbers)
        elif letter == "A":
            self.row = max(0, self.row - int(numbers or 1))
        elif letter == "J" and numbers in ("", "0"):
            del self.lines[self.row + 1:]
            del self.lines[self.row][self.column:]
        elif (numbers, letter) == ("?25", "l"):
            self.shows_cursor = False
        elif (numbers, letter) == ("?25", "h"):
            self.shows_cursor = True
        else:
            raise UnknownSequence(f"CSI {numbers} {letter}")

    def _put(self, character):
        if character == "\r":
            self.column = 0
        elif character == "\n":
            self._next_row()
        elif character < " " or character == "\x7f":
            raise UnknownSequence(repr(character))
        else:
            width = cells(character)
            if self.column + width > self.columns:
                self._next_row()
                self.column = 0
            line = self.lines[self.row]
            line += [" "] * (self.column - len(line))
            line[self.column:self.column + width] = [character] + [""] * (width - 1)
            self.column += width
            self.widest = max(self.widest, self.column)

    def _next_row(self):
        self.row += 1
        while len(self.lines) <= self.row:
            self.lines.append([])

    def text(self):
        return "\n".join("".join(line).rstrip() for line in self.lines).rstrip("\n")


class Terminal:
    """Runs `command` in a terminal of its own, which is its controlling one: Ctrl-C reaches it."""

    def __init__(self, command, columns=80, rows=24, environment=None):
        self.columns = columns
        self._master, slave = pty.openpty()
        self.resize(columns, rows)
        self._before = termios.tcgetattr(slave)
        variables = {**os.environ, "TERM": "xterm-256color", **(environment or {})}
        variables.pop("COLUMNS", None)
        if "NO_COLOR" not in (environment or {}):
            variables.pop("NO_COLOR", None)

        def own_terminal():
            os.setsid()
            fcntl.ioctl(0, termios.TIOCSCTTY, 0)

        self._process = subprocess.Popen(
            command, stdin=slave, stdout=slave, stderr=slave, env=variables,
            preexec_fn=own_terminal)
        self._slave = slave
        self.output = ""
        self._bytes = b""

    def resize(self, columns, rows):
        self.columns = columns
        fcntl.ioctl(self._master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def _read(self, seconds):
        ready, _, _ = select.select([self._master], [], [], seconds)
        if not ready:
            return False
        try:
            block = os.read(self._master, 65536)
        except OSError:  # the last program has left
            return False
        self._bytes += block
        self.output = self._bytes.decode("utf-8", errors="ignore")
        return bool(block)

    def wait_for(self, text, since=0):
        """Returns where in the output the text ends."""
        end = time.monotonic() + HANG_SECONDS
        while text not in self.output[since:]:
            if time.monotonic() > end:
                raise WaitingFailed(f"{text!r} never came; there was:\n{self.output}")
            if not self._read(0.2) and self._process.poll() is not None and not self._read(0):
                raise WaitingFailed(f"ended before {text!r}:\n{self.output}")
        return self.output.index(text, since) + len(text)

    def type(self, text):
        os.write(self._master, text.encode())

    def send_signal(self, number):
        self._process.send_signal(number)

    def wait_until_stopped(self):
        def is_stopped():
            with open(f"/proc/{self._process.pid}/stat", encoding="utf-8") as file:
                return file.read().rpartition(")")[2].split()[0] == "T"

        wait_until(is_stopped, "the program to be stopped")

    def end(self):
        """What it ends with, once it does."""
        limit = time.monotonic() + HANG_SECONDS
        while self._process.poll() is None:
            if time.monotonic() > limit:
                raise WaitingFailed(f"does not end:\n{self.output}")
            self._read(0.1)
        while self._read(0):
            pass
        return self._process.returncode

    def has_its_settings_back(self):
        return termios.tcgetattr(self._slave) == self._before

    def screen(self, columns=None):
        screen = Screen(columns or self.columns)
        screen.feed(self.output)
        return screen

    def close(self):
        if self._process.poll() is None:
            self._process.send_signal(signal.SIGKILL)
            self._process.wait()
        os.close(self._slave)
        os.close(self._master)

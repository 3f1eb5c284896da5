"""Programs that a test starts: each is ended by its own id, whatever becomes of the test."""

import os
import signal
import subprocess
import time

# Nothing here is a check of speed: a limit only keeps a test that has failed from hanging.
HANG_SECONDS = 120


class WaitingFailed(AssertionError):
    pass


def wait_until(condition, what, seconds=HANG_SECONDS):
    """Calls `condition` until it gives something true, and returns that."""
    end = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise WaitingFailed(f"waited {seconds} s in vain: {what}")
        time.sleep(0.01)


def run(command, check=True, text=True, timeout=HANG_SECONDS, **options):
    """Runs a command to its end. Its output is part of the error where it fails."""
    result = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=text, timeout=timeout,
        stdin=options.pop("stdin", None if "input" in options else subprocess.DEVNULL), **options)
    if check and result.returncode != 0:
        raise AssertionError(
            f"{' '.join(map(str, command))}\nended with {result.returncode}:\n"
            f"{result.stdout}\n{result.stderr}")
    return result


class Process:
    """A program in the background. What it prints goes to a file, so that it never waits for a
    reader."""

    def __init__(self, command, log_path, **options):
        self.log_path = log_path
        with open(log_path, "ab") as log:
            self._process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=log, stderr=log, **options)

    @property
    def pid(self):
        return self._process.pid

    def log(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as file:
            return file.read()

    def is_running(self):
        return self._process.poll() is None

    def returncode(self):
        """The exit status, negative for a signal; None while it runs."""
        return self._process.poll()

    def wait(self):
        return self._process.wait(HANG_SECONDS)

    def send_signal(self, number):
        self._process.send_signal(number)

    def wait_for_log(self, text):
        def is_there():
            if text in self.log():
                return True
            if not self.is_running():
                raise AssertionError(
                    f"ended with {self.returncode()} before it said {text!r}:\n{self.log()}")
            return False

        wait_until(is_there, f"{text!r} in the log:\n{self.log()}")

    def stop(self, number=signal.SIGTERM):
        """Ends it, by force if it does not listen, and returns its exit status."""
        if self.is_running():
            self._process.send_signal(number)
            try:
                self._process.wait(10)
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait()
        return self._process.returncode


def require_root():
    """These tests need the kernel's own means. Without them they fail; they are never skipped."""
    if os.geteuid() != 0:
        raise AssertionError("this test needs root: network namespaces, packet queues, mounts")

"""A Commitment from typed websites to dropped connections and back."""

import json
import os
import random
import shutil
import subprocess
import sys
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "support"))

from machine import CONTROL_HOST, PROBED_HOST, Machine
from processes import run, wait_until
from webserver import CertificateAuthority, WebServer

BIN = os.environ["STILLOW_BIN"]


class WholeTestCase(unittest.TestCase):
    def setUp(self):
        self.machine = Machine(BIN, ["blocked.example", "www.blocked.example", "second.example",
                                     "neighbour.example"])
        self.addCleanup(self.machine.close)
        self.addCleanup(self._show_logs)

    def _show_logs(self):
        if any(error for _, error in getattr(self._outcome, "errors", [])) or \
                getattr(getattr(self._outcome, "result", None), "failures", []):
            for log in sorted(self.machine.directory.glob("*.log")):
                print(f"---- {log.name}\n{log.read_text(errors='replace')[-4000:]}", file=sys.stderr)

    def start(self):
        self.machine.start_filter()
        self.machine.start_daemon()

    def begin(self, duration, *sites):
        return self.machine.stillow("start", "--for", duration, "--yes", *sites)

    def error_of(self, answer):
        return answer["error"]["data"]


class Commitment(WholeTestCase):
    def test_blocks_what_was_typed_and_what_is_below_it_and_nothing_else_until_it_ends(self):
        self.start()
        for name in ("blocked.example", "neighbour.example"):
            self.assertTrue(self.machine.answers(name), name)
        started = self.begin("20s", "https://www.blocked.example/page?x=1")
        self.assertIn("A Commitment is active", started.stdout)
        self.assertTrue(self.machine.is_refused("blocked.example"))
        self.assertTrue(self.machine.is_refused("www.blocked.example"))
        self.assertTrue(self.machine.answers("neighbour.example"))

        self.assertTrue(self.machine.answers("second.example"))
        self.machine.stillow("add", "--yes", "second.example")
        self.assertTrue(self.machine.is_refused("second.example"))
        before = self.machine.active()
        self.machine.stillow("extend", "--yes", "--by", "5s")
        after = self.machine.active()
        self.assertGreater(after["projectedEndTime"]["date"],
                           before["projectedEndTime"]["date"] + 4)
        self.assertEqual(after["scopeGeneration"], 2)

        wait_until(lambda: "expired" in self.machine.status()["commitment"], "the end")
        self.assertTrue(self.machine.answers("blocked.example"))
        self.machine.stillow("acknowledge")
        self.assertEqual(self.machine.status()["commitment"], {"idle": {}})

    def test_says_the_daemons_own_words_when_it_refuses(self):
        self.start()
        for arguments, words in (
                (("add", "blocked.example"), "No Commitment is active."),
                (("extend", "--by", "1m"), "No Commitment is active.")):
            refused = self.machine.stillow(*arguments, check=False)
            self.assertEqual((refused.returncode, refused.stderr.splitlines()[0]), (1, words))
        self.begin("1m", "blocked.example")
        refused = self.machine.stillow("start", "--for", "1m", "--yes", "second.example",
                                       check=False)
        self.assertEqual(refused.returncode, 1)
        self.assertIn("A Commitment is already active; strengthen it instead of starting another.",
                      refused.stderr)
        refused = self.machine.stillow("add", "blocked.example", check=False)
        self.assertIn("Every Website offered is already in Scope.", refused.stderr)

    def test_refuses_bad_input_without_asking_the_daemon(self):
        for arguments in (("start", "--for", "25h", "--yes", "blocked.example"),
                          ("start", "--for", "1h", "--yes", "10.0.0.1"),
                          ("start", "--for", "1h", "--yes", "co.uk"),
                          ("start", "--for", "1h"), ("extend", "--by", "soon")):
            refused = self.machine.stillow(*arguments, check=False)
            self.assertEqual(refused.returncode, 2, arguments)

    def test_starts_nothing_without_a_yes(self):
        self.start()
        declined = self.machine.stillow("start", "--for", "1h", "blocked.example", check=False,
                                        input="no\n")
        self.assertEqual(declined.returncode, 4)
        self.assertIn("Nobody can end it early", declined.stderr)
        self.assertEqual(self.machine.status()["commitment"], {"idle": {}})


class Activation(WholeTestCase):
    REQUEST = {"selection": {"allWebsites": {}},
               "collectionSnapshot": [{"domain": "blocked.example", "groups": []}],
               "duration": 60}

    def refusal(self, request=None):
        answer = self.machine.rpc("activate", request or self.REQUEST, check=False)
        return self.error_of(answer)

    def test_is_refused_before_any_validation_even_with_a_wrong_request(self):
        self.start()
        never = {"enforcementNotValidated": {"_0": {"neverValidated": {}}}}
        self.assertEqual(self.refusal(), never)
        self.assertEqual(self.refusal({"nonsense": 1}), never)

    def test_is_refused_after_a_failed_validation_and_accepted_after_a_passed_one(self):
        # Both names lead nowhere: neither answers, which proves nothing.
        self.start()
        self.machine.point_names_at("10.77.1.99", None)
        report = self.machine.rpc("validateEnforcement")["result"]["readiness"]
        self.assertEqual(report["validation"], {"failed": {"_0": "networkUnavailable"}})
        self.assertEqual(self.refusal(), {"enforcementNotValidated": {
            "_0": {"validationFailed": {"_0": "networkUnavailable"}}}})

        self.machine.point_names_at(self.machine.link.right_ipv4, self.machine.link.right_ipv6)
        report = self.machine.rpc("validateEnforcement")["result"]["readiness"]
        self.assertEqual(report["validation"], {"passed": {}})
        self.assertIn("result", self.machine.rpc("activate", self.REQUEST))

    def test_is_refused_when_the_probe_gets_through(self):
        # The probed host on the loopback interface, which the rules leave alone.
        self.start()
        directory = self.machine.directory / "loopback"
        WebServer(self.machine.home, directory, self.machine.authority,
                  [PROBED_HOST, "localhost"])
        everything = self.machine.hosts.read_text()
        self.machine.hosts.write_text(
            "\n".join(line for line in everything.splitlines() if PROBED_HOST not in line)
            + f"\n127.0.0.1 {PROBED_HOST}\n")
        report = self.machine.rpc("validateEnforcement")["result"]["readiness"]
        self.assertEqual(report["validation"], {"failed": {"_0": "connectionNotDropped"}})

    def test_is_refused_behind_a_captive_portal_with_a_trusted_certificate(self):
        self.start()
        directory = self.machine.directory / "portal"
        portal = WebServer(self.machine.home, directory, self.machine.authority,
                           [PROBED_HOST, CONTROL_HOST, "portal.example"],
                           extra_http="")
        configuration = directory / "nginx.conf"
        text = configuration.read_text().replace('return 200 "ok $host\\n"',
                                                 'return 200 "please log in\\n"')
        self.assertNotEqual(text, configuration.read_text())
        configuration.write_text(text)
        portal.reload()
        self.machine.point_names_at("127.0.0.1", None)
        report = self.machine.rpc("validateEnforcement")["result"]["readiness"]
        self.assertEqual(report["validation"], {"failed": {"_0": "inconclusive"}})


class OneShotModes(WholeTestCase):
    def run_mode(self, *arguments):
        return run(self.machine.command("StillowDaemon", *arguments), check=False)

    def test_say_that_there_is_no_daemon(self):
        for mode in ("--report-status", "--validate"):
            outcome = self.run_mode(mode)
            self.assertEqual((outcome.returncode, outcome.stdout), (1, ""))
            self.assertTrue(outcome.stderr.startswith(
                "Could not reach the Stillow daemon: The Stillow daemon is unavailable: "),
                outcome.stderr)

    def test_print_status_and_validation(self):
        self.start()
        status = self.run_mode("--report-status", "--validate")
        self.assertEqual(status.returncode, 0, status.stderr)
        self.assertEqual(status.stdout.count("\n"), 1)
        self.assertIn('"commitment":{"idle":{}}', status.stdout)
        validated = self.run_mode("--validate")
        self.assertEqual(validated.returncode, 0, validated.stdout + validated.stderr)
        self.assertRegex(
            validated.stdout,
            r'^\{\n  "filterConfigurationIsEnabled" : (true|false),\n  "validatedAt" : [0-9.]+,\n'
            r'  "validation" : \{\n    "passed" : \{\n\n    \}\n  \}\n\}\n$')


class Strangers(WholeTestCase):
    def test_get_no_answer_and_leave_one_line_in_the_log(self):
        self.start()
        before = self.machine.daemon.log()
        copied = self.machine.directory / "stillow-unsigned"
        shutil.copy(Path(BIN) / "stillow", copied)
        shutil.copytree(Path(BIN) / "StillowCore_StillowCore.bundle",
                        self.machine.directory / "StillowCore_StillowCore.bundle")
        outcome = run(self.machine.inside(copied, "status"), check=False)
        self.assertEqual(outcome.returncode, 3)
        self.assertIn("because it does not know this program", outcome.stderr)
        wait_until(lambda: len(self.machine.daemon.log()) > len(before), "the log line")
        self.assertEqual(self.machine.daemon.log()[len(before):].count("\n"), 1)


class Faults(WholeTestCase):
    def test_losing_the_filter_is_noticed_and_healed_when_it_is_back(self):
        self.start()
        self.begin("10m", "blocked.example")
        self.assertTrue(self.machine.is_refused("blocked.example"))
        wait_until(lambda: self.machine.health() == {"healthy": {}}, "health before")
        self.machine.kill(self.machine.filter)
        wait_until(lambda: self.machine.health() == {"degraded": {"_0": "failedOpen"}},
                   "the loss to be noticed")
        self.assertTrue(self.machine.answers("neighbour.example"))
        self.machine.start_filter()
        self.assertTrue(wait_until(lambda: self.machine.is_refused("blocked.example"), "the block"))
        wait_until(lambda: self.machine.health() == {"healthy": {}}, "health again")

    def test_rules_that_another_program_flushed_come_back(self):
        self.start()
        self.begin("10m", "blocked.example")
        wait_until(lambda: self.machine.health() == {"healthy": {}}, "health before")
        self.machine.home.run("iptables", "-t", "mangle", "-F")
        wait_until(lambda: self.machine.is_refused("blocked.example"), "the rules")
        wait_until(lambda: self.machine.health() == {"healthy": {}}, "health again")

    def test_a_daemon_without_a_filter_is_never_healthy(self):
        self.machine.start_daemon()
        self.assertEqual(self.machine.health(), {"degraded": {"_0": "failedOpen"}})
        report = self.machine.rpc("validateEnforcement")["result"]["readiness"]
        self.assertEqual(report["validation"], {"failed": {"_0": "extensionNotApproved"}})
        self.machine.start_filter()
        wait_until(lambda: self.machine.health() == {"healthy": {}}, "health")

    def test_both_checkpoints_damaged_start_idle_and_say_so(self):
        self.start()
        self.begin("10m", "blocked.example")
        self.machine.stillow("add", "--yes", "second.example")
        self.machine.kill(self.machine.daemon)
        for name in ("commitment-checkpoint.json", "commitment-checkpoint.last-known-good.json"):
            path = self.machine.state / name
            path.write_bytes(path.read_bytes()[:-20])
        self.machine.start_daemon()
        self.assertEqual(self.machine.status()["commitment"], {"idle": {}})

    def test_a_damaged_current_checkpoint_falls_back_to_the_one_before(self):
        self.start()
        self.begin("10m", "blocked.example")
        self.machine.stillow("add", "--yes", "second.example")
        self.machine.kill(self.machine.daemon)
        (self.machine.state / "commitment-checkpoint.json").write_text("{")
        self.machine.start_daemon()
        self.assertIn("blocked.example", self.machine.active()["scope"])
        self.assertTrue(self.machine.is_refused("blocked.example"))

    def test_a_second_daemon_waits_and_takes_over(self):
        self.start()
        self.begin("10m", "blocked.example")
        first = self.machine.daemon
        written = (self.machine.state / "commitment-checkpoint.json").read_bytes()
        second = self.machine.start_program("StillowDaemon")
        second.wait_for_log("wait")
        self.assertEqual((self.machine.state / "commitment-checkpoint.json").read_bytes()[:16],
                         written[:16])
        self.machine.kill(first)
        self.machine.daemon = second
        wait_until(lambda: self.machine.stillow("status", check=False).returncode == 0,
                   "the second one to serve")
        self.assertIsNotNone(self.machine.active())


class FullDisk(WholeTestCase):
    def test_is_told_and_survived(self):
        # The state directory on a file system of its own that is small enough to fill.
        run(self.machine.inside("mount", "-t", "tmpfs", "-o", "size=256k,mode=755", "full-disk",
                                "/Library"))
        self.start()
        self.begin("10m", "blocked.example")
        filler = "/Library/Application Support/Stillow/filler"
        run(self.machine.inside("dd", "if=/dev/zero", f"of={filler}", "bs=4k"), check=False)
        added = self.machine.stillow("add", "--yes", "second.example")
        self.assertEqual(added.returncode, 0)
        wait_until(lambda: "degraded" in self.machine.health(), "the loss to be told")
        run(self.machine.inside("rm", filler))
        wait_until(lambda: self.machine.health() == {"healthy": {}}, "health again")
        self.machine.kill(self.machine.daemon)
        self.machine.start_daemon()
        self.assertEqual(set(self.machine.active()["scope"]), {"blocked.example", "second.example"})


class Crash(WholeTestCase):
    KILLS = int(os.environ.get("STILLOW_KILLS", "200"))

    def test_never_takes_time_names_or_generations_away(self):
        generator = random.Random(20261115)
        self.start()
        self.begin("10h", "blocked.example")
        before = self.machine.active()
        seen_at = time.monotonic()
        for round_number in range(self.KILLS):
            site = f"site{round_number}.example"
            adding = subprocess.Popen(
                self.machine.command("stillow", "add", "--yes", site), stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            # A random moment within the activity; where exactly is the point of the test.
            time.sleep(generator.uniform(0, 0.15))
            self.machine.kill(self.machine.daemon)
            adding.wait()
            acknowledged = adding.returncode == 0
            self.machine.start_daemon()
            after = self.machine.active()
            elapsed = time.monotonic() - seen_at
            self.assertIsNotNone(after)
            self.assertGreaterEqual(after["remainingDuration"],
                                    before["remainingDuration"] - elapsed - 1)
            self.assertLessEqual(after["remainingDuration"], before["remainingDuration"] + 61)
            self.assertGreaterEqual(after["scopeGeneration"], before["scopeGeneration"])
            self.assertLessEqual(set(before["scope"]), set(after["scope"]))
            if acknowledged:
                self.assertIn(site, after["scope"])
            before, seen_at = after, time.monotonic()
        self.assertTrue(self.machine.is_refused("blocked.example"))


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""What `stillow doctor` finds, on a machine on which all is well and on others that are broken."""

import json
import os
import pty
import shutil
import signal
import sys
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent / "support"), str(HERE.parent / "Client")]

from machine import CONTROL_HOST, PROBED_HOST, Machine
from processes import Process, run, wait_until
from strict_schema import Mismatch, Schemas
from webserver import CertificateAuthority

BIN = os.environ["STILLOW_BIN"]
SCHEMAS = Schemas(HERE.parents[2] / "docs" / "client-json")
NOBODYS_ADDRESS = "10.77.1.9"
A_DAY = 86400
# No service manager runs the machine of a test.
UNITS = {"daemon-unit": "notChecked", "filter-unit": "notChecked"}
NEEDS_ROOT = dict.fromkeys(("checkpoints", "directive", "filter", "rules"), "notChecked")


class DoctorTestCase(unittest.TestCase):
    def setUp(self):
        self.machine = Machine(BIN, ["blocked.example"])
        self.addCleanup(self.machine.close)

    def start(self):
        self.machine.start_filter()
        self.machine.start_daemon()
        # Its first look at the client's executable takes long on a busy machine, and is remembered.
        wait_until(lambda: self.machine.stillow("status", check=False).returncode == 0,
                   "an answer of the daemon")

    def begin(self):
        self.machine.stillow("start", "--for", "10m", "--yes", "blocked.example")

    def report(self, command=None):
        """The report, which has the form that docs/client-json promises."""
        outcome = run(command or self.machine.command("stillow", "doctor", "--json"), check=False)
        report = SCHEMAS.check_command("doctor", outcome.stdout)
        self.assertEqual(outcome.returncode, 0 if report["healthy"] else 1, outcome.stdout)
        self.assertIn("test hosts", outcome.stderr, "progress goes to standard error")
        return report

    def troubles(self, report):
        """What is not ok, by check: the state, and behind "<" what it follows from."""
        return {finding["check"]: finding["state"] + (
            "<" + finding["consequenceOf"] if "consequenceOf" in finding else "")
            for finding in report["findings"] if finding["state"] != "ok"}

    def expect(self, troubles, command=None):
        report = self.report(command)
        self.assertEqual(self.troubles(report), UNITS | troubles,
                         json.dumps(report, indent=1, ensure_ascii=False))
        self.assertEqual(report["healthy"], set(troubles.values()) <= {"notChecked"})
        return {finding["check"]: finding for finding in report["findings"]}

    def serve_oddly(self, status, body, clock=0, authority=None, days=2):
        """Has a server of its own kind answer for the test hosts."""
        directory = self.machine.directory / "odd"
        directory.mkdir()
        self.machine.web.stop()
        authority = authority or self.machine.authority
        certificate, key = issue(authority, directory, days)
        server = self.machine.internet.start(
            sys.executable, HERE / "odd_server.py", self.machine.link.right_ipv4, certificate, key,
            status, body, clock, log_path=directory / "server.log")
        server.wait_for_log("listening")
        self.machine.point_names_at(self.machine.link.right_ipv4, None)


def issue(authority, directory, days):
    """A certificate for the test hosts, and its key. Fewer than no days have run out."""
    certificate, key = authority.issue([PROBED_HOST, CONTROL_HOST])
    if days > 0:
        return certificate, key
    request, extensions = (directory / name for name in ("request", "extensions"))
    extensions.write_text(f"subjectAltName=DNS:{PROBED_HOST},DNS:{CONTROL_HOST}\n")
    expired = directory / "expired.pem"
    run(["openssl", "req", "-new", "-key", key, "-subj", "/CN=odd", "-out", request])
    run(["openssl", "x509", "-req", "-in", request, "-CA", authority.bundle, "-CAkey",
         authority.bundle.with_suffix(".key"), "-CAcreateserial", "-days", str(days), "-extfile",
         extensions, "-out", expired])
    return expired, key


class Form(unittest.TestCase):
    # As the first version printed it.
    FIRST = """{"version":1,"healthy":false,"findings":[
{"check":"network","state":"ok","meaning":"There is a way out over eth0."},
{"check":"clock","state":"failed","meaning":"It is wrong.","action":"Set it."},
{"check":"control-host","state":"failed","meaning":"It is not reached.","consequenceOf":"clock"},
{"check":"probed-host","state":"warning","meaning":"It is dropped.","action":"Look again."},
{"check":"rules","state":"notChecked","meaning":"Only root may look at it.","action":"Be root."},
{"check":"blocking","state":"notChecked","meaning":"Unknown.","consequenceOf":"daemon"}]}"""

    def test_takes_a_report_of_the_first_version_and_none_of_another_form(self):
        first = json.loads(self.FIRST)
        SCHEMAS.check("doctor.schema.json", first)
        for change in ({"version": 2}, {"healthy": "no"}, {"findings": {}}, {"extra": 1},
                       {"findings": [{"check": "network", "state": "ok"}]},
                       {"findings": [{"check": "network", "state": "fine", "meaning": "So."}]}):
            with self.assertRaises(Mismatch, msg=change):
                SCHEMAS.check("doctor.schema.json", first | change)


class Healthy(DoctorTestCase):
    def test_is_content_with_a_machine_on_which_nothing_is_blocked(self):
        self.start()
        findings = self.expect({})
        self.assertIn("No Commitment is active", findings["daemon"]["meaning"])
        outcome = self.machine.stillow("doctor")
        self.assertIn("All is well, as far as it could be checked.", outcome.stdout)
        self.assertNotIn("\x1b", outcome.stdout + outcome.stderr)

    def test_is_content_in_the_middle_of_a_commitment(self):
        self.start()
        self.begin()
        findings = self.expect({})
        self.assertIn("A Commitment is active", findings["daemon"]["meaning"])
        self.assertIn("1 site", findings["directive"]["meaning"])
        self.assertIn("IPv4 and IPv6", findings["rules"]["meaning"])
        self.assertTrue(self.machine.is_refused("blocked.example"), "it has changed nothing")

    def test_leaves_to_root_what_only_root_may_see(self):
        self.start()
        self.begin()
        # As a package leaves it; the daemon makes what is missing for root alone.
        self.machine.state.parent.chmod(0o755)
        user = self.machine.inside("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                   self.machine.bin / "stillow", "doctor", "--json")
        findings = self.expect(NEEDS_ROOT, user)
        self.assertIn("sudo stillow doctor", findings["rules"]["action"])

    def test_has_colour_on_a_terminal_and_none_for_those_who_want_none(self):
        self.start()
        for environment, has_colour in (([], True), (["NO_COLOR=1"], False)):
            shown = in_terminal(self.machine.inside(
                "env", "TERM=xterm", *environment, self.machine.bin / "stillow", "doctor"))
            self.assertIn("All is well", shown)
            self.assertEqual("\x1b[" in shown, has_colour, shown)

    def test_connects_to_the_two_test_hosts_and_to_nobody_else(self):
        self.start()
        before = len(self.machine.web.requests())
        self.report()
        hosts = {line.split()[0] for line in self.machine.web.requests()[before:]}
        self.assertEqual(hosts, {PROBED_HOST, CONTROL_HOST})


def in_terminal(command):
    """What `command` prints on a terminal of its own."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.execvp(command[0], command)
    shown = b""
    try:
        while piece := os.read(terminal, 4096):
            shown += piece
    except OSError:
        pass  # the other side of the terminal is closed
    os.waitpid(pid, 0)
    os.close(terminal)
    return shown.decode()


class Daemon(DoctorTestCase):
    def test_finds_that_the_daemon_was_never_started(self):
        self.machine.start_filter()
        findings = self.expect({
            "socket": "failed", "daemon": "failed<socket", "state-directory": "failed<socket",
            "directive": "failed<socket", "blocking": "notChecked<socket"})
        self.assertIn("Start StillowDaemon", findings["socket"]["action"])

    def test_finds_that_the_daemon_is_down(self):
        self.start()
        self.machine.kill(self.machine.daemon)
        findings = self.expect({"daemon": "failed", "blocking": "notChecked<daemon"})
        self.assertIn("nobody listens", findings["daemon"]["meaning"])

    def test_finds_that_the_daemon_hangs(self):
        self.start()
        self.machine.daemon.send_signal(signal.SIGSTOP)
        self.addCleanup(self.machine.daemon.send_signal, signal.SIGCONT)
        findings = self.expect({"daemon": "failed", "blocking": "notChecked<daemon"})
        self.assertIn("did not answer within 5 s", findings["daemon"]["meaning"])

    def test_finds_that_it_is_not_signed_itself(self):
        self.start()
        copied = self.machine.directory / "stillow"
        shutil.copy(self.machine.bin / "stillow", copied)
        findings = self.expect(
            {"signature": "failed", "daemon": "failed<signature",
             "filter": "notChecked", "blocking": "notChecked<signature"},
            self.machine.inside(copied, "doctor", "--json"))
        self.assertIn("is not signed", findings["signature"]["meaning"])


class Kernel(DoctorTestCase):
    def test_finds_that_the_filter_is_down(self):
        self.start()
        self.begin()
        self.machine.kill(self.machine.filter)
        self.expect({"filter": "failed", "blocking": "failed<filter"})

    def test_finds_that_the_rules_are_gone_with_nobody_to_put_them_back(self):
        self.start()
        self.begin()
        self.machine.kill(self.machine.daemon)
        for command in ("iptables", "ip6tables"):
            for table in ("mangle", "filter"):
                self.machine.home.run(command, "-t", table, "-F")
        findings = self.expect({"daemon": "failed", "rules": "failed<daemon",
                                "blocking": "notChecked<daemon"})
        self.assertIn("IPv4 and IPv6", findings["rules"]["meaning"])

    def test_names_another_program_on_the_queue(self):
        stranger = self.machine.directory / "stranger"
        shutil.copy(self.machine.bin / "stillow-filter", stranger)
        process = Process(self.machine.inside(stranger), self.machine.directory / "stranger.log")
        self.addCleanup(process.stop)
        process.wait_for_log("bound to packet queue")
        self.machine.start_daemon()
        findings = self.expect({"filter": "failed", "blocking": "failed<filter"})
        self.assertIn(f"stranger (process {process.pid})", findings["filter"]["meaning"])


class Network(DoctorTestCase):
    def test_reports_that_there_is_no_network_before_what_follows(self):
        self.start()
        self.machine.home.run("ip", "link", "set", self.machine.link.left_interface, "down")
        self.expect({
            "network": "failed", "portal": "notChecked", "control-host": "failed<network",
            "probed-host": "failed<network", "blocking": "failed<network"} | self.clock_unknown())

    def clock_unknown(self):
        """Without a host that tells the time it depends on the test's machine what is known."""
        clock = next(finding for finding in self.report()["findings"]
                     if finding["check"] == "clock")
        return {} if clock["state"] == "ok" else {"clock": "notChecked"}

    def test_recognises_a_captive_portal(self):
        self.start()
        self.serve_oddly(302, "Please sign in.")
        findings = self.expect({
            "portal": "failed", "control-host": "failed<portal", "probed-host": "failed<portal",
            "blocking": "failed<portal"})
        self.assertIn("sign in", findings["portal"]["action"])

    def test_recognises_a_captive_portal_with_a_certificate_of_its_own(self):
        self.start()
        directory = self.machine.directory / "stranger"
        directory.mkdir()
        self.serve_oddly(200, "ok HOST", authority=CertificateAuthority(directory))
        self.expect({
            "portal": "failed", "control-host": "failed<portal", "probed-host": "failed<portal",
            "blocking": "failed<portal"} | self.clock_unknown())

    def test_finds_that_its_clock_is_not_the_worlds(self):
        self.start()
        self.serve_oddly(200, "ok HOST", clock=-3 * A_DAY)
        findings = self.expect({"clock": "failed"})
        self.assertIn("72 h 0 min ahead", findings["clock"]["meaning"])

    def test_finds_that_certificates_are_refused_because_of_its_clock(self):
        self.start()
        self.serve_oddly(200, "ok HOST", clock=-3 * A_DAY, days=-1)
        self.expect({
            "clock": "failed", "portal": "notChecked", "control-host": "failed<clock",
            "probed-host": "failed<clock", "blocking": "failed<clock"})

    def test_finds_that_nobody_is_trusted(self):
        self.start()
        self.machine.authority.bundle.write_text("")
        self.expect({
            "trust-store": "failed", "portal": "notChecked",
            "control-host": "failed<trust-store", "probed-host": "failed<trust-store",
            "blocking": "failed<trust-store"} | self.clock_unknown())

    def test_finds_that_somebody_else_drops_connections_to_the_probed_host(self):
        self.start()
        self.machine.point_names_at(NOBODYS_ADDRESS, None, [PROBED_HOST])
        with self.machine.hosts.open("a", encoding="utf-8") as hosts:
            hosts.write(f"{self.machine.link.right_ipv4} {CONTROL_HOST}\n")
        self.machine.home.run("iptables", "-A", "OUTPUT", "-d", NOBODYS_ADDRESS, "-p", "tcp", "-j",
                              "REJECT", "--reject-with", "tcp-reset")
        self.expect({"probed-host": "failed", "blocking": "warning<probed-host"})


if __name__ == "__main__":
    unittest.main(verbosity=2)

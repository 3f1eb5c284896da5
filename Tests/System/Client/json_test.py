"""What `--json` prints is what docs/client-json says, today and with every later version.

The golden documents under Tests/Fixtures/client-json were printed by the first version. A schema that
no longer takes one of them has changed incompatibly, and so has a program whose output no longer
looks like them.
"""

import json
import os
import re
import sys
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "support"))

from machine import Machine
from processes import run, wait_until
from strict_schema import Mismatch, Schemas

BIN = Path(os.environ["STILLOW_BIN"])
ROOT = HERE.parents[2]
SCHEMAS = ROOT / "docs" / "client-json"
GOLDEN = ROOT / "Tests" / "Fixtures" / "client-json"
ID = "https://stillow.larchmoor.com/client-json/v1/"
# What doctor prints has a test of its own.
COMMANDS = ("start", "add", "extend", "status", "watch", "acknowledge", "validate", "explain",
            "sites", "groups", "rpc", "removal-check")


def masked(line):
    """`line` without what is different each time: numbers, the ids of groups, and whether the filter
    happened to be armed already."""
    line = re.sub(r'(?<="filterConfigurationIsEnabled":)(true|false)', "BOOLEAN", line)
    line = re.sub(r'"[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}"', '"ID"', line)
    return re.sub(r"(?<=[:\[,])-?[0-9]+(\.[0-9]+)?(e[-+]?[0-9]+)?(?=[,}\]])", "0", line)


def golden(name):
    return (GOLDEN / f"{name}.json").read_text(encoding="utf-8")


class Validator(unittest.TestCase):
    """The comparison itself is seen to fail."""

    def setUp(self):
        self.schemas = Schemas(SCHEMAS)

    def refuses(self, command, document):
        with self.assertRaises(Mismatch, msg=document):
            self.schemas.check(f"{command}.schema.json", document)

    def test_refuses_what_is_missing_extra_or_of_another_kind(self):
        status = json.loads(golden("status-active"))
        self.schemas.check("status.schema.json", status)
        for change in (lambda s: s.pop("readiness"),
                       lambda s: s.update(extra=1),
                       lambda s: s.update(observedAt="now"),
                       lambda s: s.update(observedAt=True),
                       lambda s: s.update(commitment={}),
                       lambda s: s.update(commitment={"idle": {}, "expired": {"endedAt": 1}}),
                       lambda s: s.update(commitment={"idle": {"x": 1}}),
                       lambda s: s.update(enforcement={"degraded": {"_0": "unheardOf"}}),
                       lambda s: s["commitment"]["active"]["_0"].update(scopeGeneration=0),
                       lambda s: s["commitment"]["active"]["_0"].update(scopeGeneration=1.5),
                       lambda s: s["commitment"]["active"]["_0"].update(scope=["a.com", "a.com"]),
                       lambda s: s["commitment"]["active"]["_0"].update(scope=[1])):
            document = json.loads(golden("status-active"))
            change(document)
            self.refuses("status", document)
        self.refuses("sites", {"version": 2, "groups": [], "websites": []})
        self.refuses("sites", {"version": 1, "groups": [{"id": "x", "name": "y"}], "websites": []})
        self.refuses("explain", {"alreadyRegistrable": {"domain": "a.com"}})

    def test_knows_every_keyword_of_every_schema(self):
        def walk(schema, name):
            if isinstance(schema, dict):
                if "$ref" in schema:
                    self.schemas._resolve(schema["$ref"], name)
                for key, value in schema.items():
                    if key in ("properties", "$defs"):
                        for each in value.values():
                            walk(each, name)
                    elif key in ("items", "oneOf"):
                        for each in value if isinstance(value, list) else [value]:
                            walk(each, name)
                    elif not key.startswith("$") and key not in ("title", "description"):
                        self.assertTrue(hasattr(self.schemas, "_" + key), f"{name}: {key}")
        for command in COMMANDS:
            walk(self.schemas.load(f"{command}.schema.json"), f"{command}.schema.json")

    def test_there_is_a_schema_of_this_version_for_every_command(self):
        help_text = run([BIN / "stillow", "--help"]).stdout
        commands = re.findall(r"^  ([a-z-]+) {2,}\S", help_text.split("Subcommands:")[1], re.M)
        self.assertLessEqual(set(COMMANDS), set(commands))
        for command in commands:
            self.assertTrue((SCHEMAS / f"{command}.schema.json").exists(), command)
        for command in COMMANDS:
            schema = self.schemas.load(f"{command}.schema.json")
            self.assertEqual(schema["$id"], f"{ID}{command}.schema.json")


class Golden(unittest.TestCase):
    def test_documents_of_the_first_version_still_conform(self):
        schemas = Schemas(SCHEMAS)
        seen = set()
        for path in sorted(GOLDEN.glob("*.json")):
            command = next(name for name in sorted(COMMANDS, key=len, reverse=True)
                           if path.stem == name or path.stem.startswith(name + "-"))
            for line in path.read_text(encoding="utf-8").splitlines(keepends=True):
                schemas.check_command(command, line)
            seen.add(command)
        self.assertEqual(seen, set(COMMANDS))


    def test_words_of_the_first_version_are_still_taken(self):
        schemas = Schemas(SCHEMAS)
        for reason in ("recoveringFromCorruption", "pathUnverified", "failedOpen"):
            status = json.loads(golden("status-degraded"))
            status["enforcement"] = {"degraded": {"_0": reason}}
            schemas.check("status.schema.json", status)
        for cause in ("extensionNotApproved", "filterNotArmed", "connectionNotDropped",
                      "networkUnavailable", "inconclusive"):
            report = json.loads(golden("validate-failed"))
            report["validation"] = {"failed": {"_0": cause}}
            schemas.check("validate.schema.json", report)
        for health in ("healthy", "degraded"):
            status = json.loads(golden("status-active"))
            status["commitment"]["active"]["_0"]["health"] = health
            schemas.check("status.schema.json", status)
        schemas.check("validate.schema.json", {"filterConfigurationIsEnabled": False})
        schemas.check("removal-check.schema.json", {"refused": {"_0": {"enforcementStateUnknown": {}}}})


class Outputs(unittest.TestCase):
    def setUp(self):
        self.schemas = Schemas(SCHEMAS)
        self.machine = Machine(BIN, ["blocked.example", "second.example"])
        self.addCleanup(self.machine.close)
        self.home = self.machine.directory / "config"
        self.differences = []

    def stillow(self, *arguments, check=True):
        return run(self.machine.inside("env", f"XDG_CONFIG_HOME={self.home}", "TZ=UTC",
                                       BIN / "stillow", *arguments), check=check)

    def expect(self, name, command, line):
        """`line` conforms, and looks like what the first version printed."""
        if os.environ.get("STILLOW_WRITE_GOLDEN"):
            GOLDEN.mkdir(exist_ok=True)
            (GOLDEN / f"{name}.json").write_text(line, encoding="utf-8")
        document = self.schemas.check_command(command, line)
        self.assertEqual(masked(line), masked(golden(name)), name)
        return document

    def prints(self, name, *arguments, command=None, status=0):
        outcome = self.stillow(*arguments, check=False)
        self.assertEqual(outcome.returncode, status, outcome.stdout + outcome.stderr)
        return self.expect(name, command or arguments[0], outcome.stdout)

    def test_of_the_commands_that_speak_to_the_daemon(self):
        self.machine.start_filter()
        self.machine.start_daemon()
        wait_until(lambda: self.machine.health() == {"healthy": {}}, "health")
        self.prints("status-idle", "status", "--json")
        self.prints("rpc-error", "rpc", "--json", "extend", '{"newEndTime":{"date":1}}', status=1)
        self.prints("rpc-standard-error", "rpc", "noSuchMethod", status=1)
        self.prints("removal-check-permitted", "removal-check", "--json")
        self.prints("validate-passed", "validate", "--json")
        wait_until(lambda: self.machine.health() == {"healthy": {}}, "health")
        self.prints("start", "start", "--json", "--yes", "--for", "30s", "blocked.example")
        self.prints("add", "add", "--json", "--yes", "second.example")
        self.prints("extend", "extend", "--json", "--yes", "--by", "2s")
        # The filter is armed within a moment, which the status then says.
        wait_until(lambda: self.machine.status()["readiness"]["filterConfigurationIsEnabled"]
                   and self.machine.health() == {"healthy": {}}, "the filter to be armed")
        self.prints("status-active", "status", "--json")
        self.prints("rpc-status", "rpc", "status")
        self.prints("removal-check-refused", "removal-check", "--json", status=3)
        self.watches()
        wait_until(lambda: "expired" in self.machine.status()["commitment"]
                   and not self.machine.status()["readiness"]["filterConfigurationIsEnabled"],
                   "the end")
        self.prints("status-expired", "status", "--json")
        self.prints("acknowledge", "acknowledge", "--json")
        self.machine.kill(self.machine.filter)
        wait_until(lambda: "degraded" in self.machine.health(), "the loss to be noticed")
        self.prints("status-degraded", "status", "--json")
        self.prints("validate-failed", "validate", "--json", status=1)

    def watches(self):
        watching = self.machine.start_program("stillow", "watch", "--json")
        try:
            wait_until(lambda: watching.log().count("\n") >= 1, "the present status")
            self.stillow("extend", "--yes", "--by", "1s")
            wait_until(lambda: watching.log().count("\n") >= 2, "the change")
        finally:
            self.assertEqual(watching.stop(), 0, watching.log())
        first, second = watching.log().splitlines(keepends=True)[:2]
        before = self.expect("watch", "watch", first)
        after = self.expect("watch", "watch", second)
        self.assertGreater(after["commitment"]["active"]["_0"]["projectedEndTime"]["date"],
                           before["commitment"]["active"]["_0"]["projectedEndTime"]["date"])

    def test_of_the_commands_that_need_no_daemon(self):
        self.prints("explain-registrable", "explain", "--json", "Example.com.")
        self.prints("explain-normalized", "explain", "--json", "https://www.example.com:8443/x?y#z")
        self.prints("explain-narrower", "explain", "--json", "mail.example.co.uk")
        refused = self.stillow("explain", "--json", "10.0.0.1", check=False)
        self.assertEqual((refused.returncode, refused.stdout), (2, ""))

        self.prints("sites-empty", "sites", "list", "--json")
        self.prints("groups", "groups", "add", "--json", "work", "news.example.com")
        self.prints("sites", "sites", "add", "--json", "bücher.example.com")
        listed = self.prints("sites-list", "sites", "list", "--json", "--group", "work")
        self.assertEqual([site["domain"] for site in listed["websites"]], ["news.example.com"])
        self.prints("groups-list", "groups", "list", "--json")

        self.machine.start_daemon()  # without a filter
        refused = self.stillow("start", "--json", "--yes", "--for", "1h", "a.com", check=False)
        self.assertEqual((refused.returncode, refused.stdout), (1, ""), "refusals are no records")


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""The user's own sites and groups, through pipes. Nothing of it needs the daemon."""

import json
import os
import stat
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "support"))

from processes import HANG_SECONDS, run

BIN = Path(os.environ["STILLOW_BIN"])


class CollectionTestCase(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="stillow-collection-")
        self.addCleanup(directory.cleanup)
        self.directory = Path(directory.name)
        self.config = self.directory / "config"
        self.path = self.config / "stillow" / "collection.json"
        self.environment = {**os.environ, "XDG_CONFIG_HOME": str(self.config)}

    def stillow(self, *arguments, status=0, **options):
        outcome = run([BIN / "stillow", *arguments], check=False, env=self.environment, **options)
        self.assertEqual(outcome.returncode, status, outcome.stdout + outcome.stderr)
        return outcome

    def listed(self, *arguments):
        return self.stillow("sites", "list", *arguments).stdout.splitlines()

    def file(self, name, content):
        path = self.directory / name
        path.write_text(content, encoding="utf-8")
        return str(path)


class Editing(CollectionTestCase):
    def test_begins_with_nothing_and_says_what_to_do(self):
        self.assertEqual(self.stillow("sites", "list").stderr,
                         "Your collection is empty. To add a site: stillow sites add SITE\n")
        self.assertEqual(self.stillow("groups", "list").stderr,
                         "You have no groups. To make one: stillow groups add NAME\n")
        self.assertFalse(self.config.exists())

    def test_adds_lists_and_removes_sites_and_groups(self):
        self.assertEqual(self.stillow("sites", "add", "https://www.example.com/x", "b.com").stdout,
                         "Added 2 sites.\n")
        self.assertEqual(self.stillow("groups", "add", "work", "b.com", "c.com").stdout,
                         "Made the group “work”. Added 1 site in work. "
                         "Filed 1 site that was there in work.\n")
        self.assertEqual(self.stillow("groups", "add", "日本語").stdout, "Made the group “日本語”.\n")
        self.assertEqual(self.stillow("sites", "add", "c.com", "--group", "日本語").stdout,
                         "Filed 1 site that was there in 日本語.\n")
        self.assertEqual(self.listed(), ["b.com  (work)", "c.com  (work, 日本語)", "example.com"])
        self.assertEqual(self.listed("--group", "日本語"), ["c.com  (work, 日本語)"])
        self.assertEqual(self.stillow("groups", "list").stdout,
                         "work  (2 sites)\n日本語  (1 site)\n")
        self.stillow("groups", "remove", "work", "b.com")
        self.assertEqual(self.listed(), ["b.com", "c.com  (work, 日本語)", "example.com"])
        self.stillow("groups", "remove", "work")
        self.assertEqual(self.listed(), ["b.com", "c.com  (日本語)", "example.com"])
        self.assertEqual(self.stillow("sites", "remove", "b.com", "example.com").stdout,
                         "Removed 2 sites from your collection. What is blocked stays blocked.\n")
        self.assertEqual(self.listed(), ["c.com  (日本語)"])
        self.assertEqual(self.stillow("groups", "add", "日本語").stdout,
                         "Nothing to do: the group “日本語” is there already.\n")

    def test_keeps_the_json_form_of_website_and_group_for_its_owner_alone(self):
        self.stillow("groups", "add", "work", "b.com")
        self.assertEqual(stat.S_IMODE(self.path.stat().st_mode), 0o600)
        self.assertEqual(stat.S_IMODE(self.path.parent.stat().st_mode), 0o700)
        self.assertEqual(os.listdir(self.path.parent), ["collection.json"], "nothing is left over")
        kept = json.loads(self.path.read_text(encoding="utf-8"))
        group = kept["groups"][0]
        self.assertRegex(group["id"], "^[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-")
        self.assertEqual(kept, {"version": 1, "groups": [{"id": group["id"], "name": "work"}],
                                "websites": [{"domain": "b.com", "groups": [group["id"]]}]})

    def test_refuses_bad_input_with_a_sentence_and_changes_nothing(self):
        self.stillow("groups", "add", "work", "b.com")
        before = self.path.read_bytes()
        for arguments, sentence in (
                (("sites", "add", "10.0.0.1"), "“10.0.0.1” is an address"),
                (("sites", "add", "co.uk"), "“co.uk” is shared by many owners (a public suffix)"),
                (("sites", "add", "larchmoor.com"), "would cover the hosts"),
                (("sites", "add", "a\x1bb.com"), "“a\ufffdb.com” is not a host name: it has"),
                (("sites", "add", "a.com", "--group", "wrok"), "“wrok” is none of your groups"),
                (("sites", "remove", "c.com"), "“c.com” is none of your sites"),
                (("sites", "list", "--group", "wrok"), "“wrok” is none of your groups"),
                (("groups", "remove", "wrok"), "“wrok” is none of your groups"),
                (("groups", "remove", "work", "c.com"), "“c.com” is not in the group “work”"),
                (("groups", "add", " "), "An empty text names no group"),
                (("groups", "add", "a\nb"), "characters that cannot be shown"),
                (("groups", "add", "x" * 101), "at most 100 characters"),
                (("sites", "import", "/nowhere"), "“/nowhere” could not be read: No such file"),
                (("sites", "import", "/"), "“/” could not be read: Is a directory")):
            refused = self.stillow(*arguments, status=2)
            self.assertIn(sentence, refused.stderr)
            self.assertEqual(refused.stderr.count("\n"), 1, refused.stderr)
            self.assertEqual(refused.stdout, "")
        self.assertEqual(self.path.read_bytes(), before)


class Importing(CollectionTestCase):
    def test_takes_one_site_a_line_from_a_file_and_from_standard_input(self):
        sites = self.file("sites.txt", "\ufeff# mine\n\n a.com \r\nhttps://www.b.com/x\nA.com\n"
                          "bücher.de")
        self.assertEqual(self.stillow("sites", "import", sites).stdout, "Added 3 sites.\n")
        self.assertEqual(self.listed(), ["a.com", "b.com", "xn--bcher-kva.de"])
        self.assertEqual(self.stillow("groups", "import", "work", "-", input="a.com\nd.com\n").stdout,
                         "Made the group “work”. Added 1 site in work. "
                         "Filed 1 site that was there in work.\n")

    def test_imports_all_or_nothing_and_names_each_bad_line(self):
        sites = self.file("sites.txt", "a.com\n10.0.0.1\n\nco.uk\n")
        refused = self.stillow("sites", "import", sites, status=2)
        self.assertEqual(refused.stderr.splitlines(), [
            f"{sites}:2: “10.0.0.1” is an address; Stillow blocks sites by name, so give the "
            "site’s name.",
            f"{sites}:4: “co.uk” is shared by many owners (a public suffix); name a site below it.",
            "Nothing was imported. Mend these lines and try again."])
        self.assertFalse(self.path.exists())
        refused = self.stillow("sites", "import", self.file("none.txt", "# nothing\n"), status=2)
        self.assertIn("names no site: write one on each line.", refused.stderr)

    def test_takes_a_hundred_thousand_sites(self):
        sites = self.file("many.txt", "".join(f"site{n}.example.com\n" for n in range(100_000)))
        self.assertEqual(self.stillow("sites", "import", sites).stdout, "Added 100000 sites.\n")
        self.assertEqual(self.stillow("sites", "import", sites).stdout,
                         "Nothing to do: all of that is there already.\n")
        self.assertEqual(len(self.listed()), 100_000)


class Damage(CollectionTestCase):
    def damaged(self, content):
        self.path.parent.mkdir(parents=True, exist_ok=True)
        self.path.write_bytes(content)
        for arguments in (("sites", "list"), ("groups", "list"), ("sites", "add", "b.com"),
                          ("groups", "add", "x"), ("start", "--yes", "--for", "1h", "--all")):
            refused = self.stillow(*arguments, status=5)
            self.assertIn(str(self.path), refused.stderr)
            self.assertIn("left as they are", refused.stderr)
        self.assertEqual(self.path.read_bytes(), content, "nothing is lost")
        return refused.stderr

    def test_is_told_and_loses_nothing(self):
        self.stillow("sites", "add", "a.com")
        whole = self.path.read_bytes()
        for content in (whole[:-10], b"", b"\0" * len(whole), b"[]",
                        whole.replace(b'"version":1', b'"version":2')):
            self.damaged(content)
        self.assertIn("it has the form 2, and this program knows 1.", self.damaged(
            whole.replace(b'"version":1', b'"version":2')))

    def test_of_the_disk_is_told(self):
        self.path.parent.parent.mkdir(parents=True)
        self.path.parent.write_text("a file in the directory’s place", encoding="utf-8")
        refused = self.stillow("sites", "add", "b.com", status=5)
        self.assertTrue(refused.stderr.startswith(
            "Nothing was changed: your sites could not be saved. "), refused.stderr)

    def test_two_at_once_both_count(self):
        programs = [subprocess.Popen([BIN / "stillow", "sites", "add", f"site{number}.com"],
                                     env=self.environment, stdout=subprocess.DEVNULL)
                    for number in range(20)]
        for program in programs:
            self.assertEqual(program.wait(HANG_SECONDS), 0)
        self.assertEqual(len(self.listed()), 20)


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""The page as a task of a playbook: when it says changed, what it returns, what it refuses."""

import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

from support import TREE, card, host, write

PLAY = """
- hosts: localhost
  gather_facts: false
  tasks:
    - qvcapture.fleet.qvcap_report: {src: reports, dest: %s}
      register: result
      ignore_errors: true
    - ansible.builtin.copy: {content: "{{ result | to_json }}", dest: result.json}
      check_mode: false
"""


class Task(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        collections = self.folder / "collections/ansible_collections/qvcapture"
        collections.mkdir(parents=True)
        (collections / "fleet").symlink_to(TREE / "fleet")
        (self.folder / "reports").mkdir()
        self.page = self.folder / "fleet.html"

    def ansible(self, program, *arguments):
        environment = os.environ | {
            "ANSIBLE_COLLECTIONS_PATH": str(self.folder / "collections"),
            "ANSIBLE_HOME": str(self.folder / "home"),
            "ANSIBLE_LOCAL_TEMP": str(self.folder / "tmp"),
            "ANSIBLE_LOCALHOST_WARNING": "false",
            "ANSIBLE_NOCOLOR": "1",
        }
        return subprocess.run(
            [program, *arguments],
            cwd=self.folder,
            env=environment,
            capture_output=True,
            text=True,
            timeout=300,
        )

    def play(self, *options, dest="fleet.html"):
        (self.folder / "play.yml").write_text(PLAY % dest)
        made = self.ansible("ansible-playbook", "play.yml", *options)
        self.assertEqual(made.returncode, 0, made.stdout + made.stderr)
        return json.loads((self.folder / "result.json").read_text())

    def test_it_is_changed_exactly_when_the_page_shows_something_else(self):
        write(self.folder / "reports", host("alpha", card()))
        self.assertEqual((self.play("--check")["changed"], self.page.exists()), (True, False))
        result = self.play()
        self.assertEqual((result["changed"], result["size"]), (True, self.page.stat().st_size))
        self.assertEqual((result["totals"]["hosts"], result["totals"]["cards"]), (1, 1))
        self.assertEqual(result["dest"], str(self.page))
        first = self.page.read_bytes()
        self.assertEqual((self.play()["changed"], self.page.read_bytes()), (False, first))
        write(self.folder / "reports", host("alpha", card(state="staged")))
        self.assertTrue(self.play()["changed"])
        self.assertEqual(re.findall(r'<li class="s(.)"', self.page.read_text()), ["s"])
        self.assertEqual(sorted(entry.name for entry in self.folder.glob("*.html*")), ["fleet.html"])

    def test_what_cannot_be_done_is_told_and_leaves_nothing(self):
        result = self.play(dest="/nowhere/fleet.html")
        self.assertTrue(result["failed"])
        self.assertEqual(
            result["msg"], "the page /nowhere/fleet.html cannot be written: No such file or directory"
        )
        (self.folder / "reports").rmdir()
        result = self.play()
        self.assertTrue(result["failed"])
        self.assertIn("/reports cannot be read: No such file or directory", result["msg"])
        self.assertFalse(self.page.exists())

    def test_its_documentation_is_shown(self):
        shown = self.ansible("ansible-doc", "--json", "qvcapture.fleet.qvcap_report")
        document = json.loads(shown.stdout)["qvcapture.fleet.qvcap_report"]
        self.assertEqual(sorted(document["doc"]["options"]), ["dest", "src", "title"])
        self.assertTrue(document["doc"]["has_action"])
        self.assertIn("totals", document["return"])


if __name__ == "__main__":
    unittest.main()

"""The page as a task of a playbook: when it says changed, what it returns, what it refuses."""

import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

from support import TREE, card, host, write

# One run of Ansible for all of it: each costs seconds.
PLAY = """
- hosts: localhost
  gather_facts: false
  tasks:
    - name: Checked
      qvcapture.fleet.qvcap_report: {src: before, dest: fleet.html}
      check_mode: true
      register: checked
    - {name: See whether it is there, ansible.builtin.stat: {path: fleet.html}, register: there}
    - {name: First, qvcapture.fleet.qvcap_report: {src: before, dest: fleet.html}, register: first}
    - {name: See it, ansible.builtin.stat: {path: fleet.html}, register: seen}
    - {name: Again, qvcapture.fleet.qvcap_report: {src: before, dest: fleet.html}, register: again}
    - {name: See it again, ansible.builtin.stat: {path: fleet.html}, register: seen_again}
    - {name: Later, qvcapture.fleet.qvcap_report: {src: after, dest: fleet.html}, register: later}
    - name: Nowhere to write
      qvcapture.fleet.qvcap_report: {src: after, dest: /nowhere/fleet.html}
      ignore_errors: true
      register: no_dest
    - name: Nothing to read
      qvcapture.fleet.qvcap_report: {src: missing, dest: other.html}
      ignore_errors: true
      register: no_src
    - ansible.builtin.copy:
        content: "{{ {'checked': checked, 'there': there, 'first': first, 'seen': seen, 'again': again,
                      'seen_again': seen_again, 'later': later, 'no_dest': no_dest, 'no_src': no_src}
                  | to_json }}"
        dest: results.json
"""


class Task(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        collections = cls.folder / "collections/ansible_collections/qvcapture"
        collections.mkdir(parents=True)
        (collections / "fleet").symlink_to(TREE / "fleet")
        for name, state in (("before", "current"), ("after", "staged")):
            (cls.folder / name).mkdir()
            write(cls.folder / name, host("alpha", card(state=state)))
        (cls.folder / "play.yml").write_text(PLAY)
        made = cls.ansible("ansible-playbook", "play.yml")
        assert made.returncode == 0, made.stdout + made.stderr
        cls.results = json.loads((cls.folder / "results.json").read_text())

    @classmethod
    def ansible(cls, program, *arguments):
        environment = os.environ | {
            "ANSIBLE_COLLECTIONS_PATH": str(cls.folder / "collections"),
            "ANSIBLE_HOME": str(cls.folder / "home"),
            "ANSIBLE_LOCAL_TEMP": str(cls.folder / "tmp"),
            "ANSIBLE_LOCALHOST_WARNING": "false",
            "ANSIBLE_NOCOLOR": "1",
        }
        return subprocess.run(
            [program, *arguments],
            cwd=cls.folder,
            env=environment,
            capture_output=True,
            text=True,
            timeout=600,
        )

    def test_check_mode_says_so_and_writes_nothing(self):
        self.assertTrue(self.results["checked"]["changed"])
        self.assertFalse(self.results["there"]["stat"]["exists"])

    def test_it_is_changed_exactly_when_the_page_shows_something_else(self):
        changed = [self.results[step]["changed"] for step in ("first", "again", "later")]
        self.assertEqual(changed, [True, False, True])
        before, after = (self.results[step]["stat"] for step in ("seen", "seen_again"))
        self.assertEqual((before["checksum"], before["inode"]), (after["checksum"], after["inode"]))
        page = (self.folder / "fleet.html").read_text()
        self.assertEqual(re.findall(r'<li class="s(.)"', page), ["s"])

    def test_it_returns_the_figures_of_the_page(self):
        later = self.results["later"]
        self.assertEqual(later["dest"], str(self.folder / "fleet.html"))
        self.assertEqual(later["size"], (self.folder / "fleet.html").stat().st_size)
        figures = [later["totals"][name] for name in ("hosts", "cards", "power_cycle", "left_out")]
        self.assertEqual(figures, [1, 1, 1, 0])

    def test_what_cannot_be_done_is_told_and_leaves_nothing(self):
        self.assertTrue(self.results["no_dest"]["failed"])
        self.assertEqual(
            self.results["no_dest"]["msg"],
            "the page /nowhere/fleet.html cannot be written: No such file or directory",
        )
        self.assertTrue(self.results["no_src"]["failed"])
        self.assertIn("/missing cannot be read: No such file or directory", self.results["no_src"]["msg"])
        self.assertEqual([entry.name for entry in self.folder.glob("*.html*")], ["fleet.html"])

    def test_its_documentation_is_shown(self):
        shown = self.ansible("ansible-doc", "--json", "qvcapture.fleet.qvcap_report")
        document = json.loads(shown.stdout)["qvcapture.fleet.qvcap_report"]
        self.assertEqual(sorted(document["doc"]["options"]), ["dest", "src", "title"])
        self.assertTrue(document["doc"]["has_action"])
        self.assertIn("totals", document["return"])


if __name__ == "__main__":
    unittest.main()

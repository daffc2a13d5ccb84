"""Host files, good and bad, as the library reads them."""

import json
import os
import pathlib
import tempfile
import unittest

from support import card, host, run, status, upgraded, write

from plugin_utils import hosts


class HostFiles(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def read(self, *documents):
        write(self.folder, *documents)
        fleet, left_out = hosts.read_fleet(self.folder)
        self.assertEqual(left_out, 0)
        return fleet

    def only(self, document):
        (found,) = self.read(document)
        return found

    def refused(self, data, *words):
        """A file of these bytes beside a good one: both are there, one with the words as its reason."""
        (self.folder / "bad.json").write_bytes(data)
        good, bad = sorted(self.read(host("alpha", card())), key=lambda found: found.file)
        self.assertEqual((good.name, good.condition, len(good.cards)), ("alpha", "", 1))
        self.assertEqual((bad.condition, bad.cards, bad.run), ("unusable file", [], None))
        for word in ("bad.json: ", *words):
            self.assertIn(word, bad.error)

    def wrong(self, words, **members):
        self.refused(json.dumps(host("beta", card()) | members).encode(), words)
        (self.folder / "bad.json").unlink()

    def test_a_card_has_what_its_status_says(self):
        found = self.only(host("alpha", card("01:02", "interrupted", reason="half", path="/dev/video7")))
        self.assertEqual(
            found.cards,
            [
                hosts.Card(
                    "01:02",
                    "interrupted",
                    "/dev/video7",
                    "Pelix Duo HDMI",
                    "PX1",
                    "1.0",
                    "1.1 complete",
                    "blank",
                    "1.1",
                    "duo.qvf",
                    "half",
                )
            ],
        )
        self.assertEqual((found.name, found.condition, found.collected), ("alpha", "", 1795332600))

    def test_an_image_is_worded_as_on_the_command_line(self):
        other = {"content": "other", "version": "2.0", "compatibility": 1, "differences": []}
        self.assertEqual(self.only(host("alpha", card(main=other))).cards[0].main, "2.0")

    def test_nulls_of_a_card_that_says_nothing_are_empty(self):
        silent = self.only(host("alpha", card(product=None, serial=None, running=None, package=None))).cards[
            0
        ]
        self.assertEqual((silent.product, silent.serial, silent.running, silent.package), ("", "", "", ""))

    def test_a_result_of_the_upgrade_joins_its_card(self):
        report = run(upgraded("00:01", "failed", "write error"), exit_status=1, problem="one card failed")
        found = self.only(host("alpha", card("00:00"), card("00:01"), run=report))
        self.assertEqual(
            [(c.card, c.result, c.result_reason) for c in found.cards],
            [("00:00", "", ""), ("00:01", "failed", "write error")],
        )
        self.assertEqual(found.run, hosts.Run("night-1", 1795327200, "failed", "one card failed"))

    def test_of_two_cards_with_one_name_the_path_decides(self):
        cards = card("00:00", path="/dev/video0"), card("00:00", path="/dev/video4")
        report = run(upgraded(path="/dev/video4", result="busy"), upgraded(path="/dev/video0", result="left"))
        self.assertEqual(
            [c.result for c in self.only(host("alpha", *cards, run=report)).cards], ["left", "busy"]
        )

    def test_a_card_that_only_the_upgrade_knows_is_kept(self):
        report = run(upgraded("00:00"), upgraded("05:00", "failed", "gone"))
        found = self.only(host("alpha", card(), run=report))
        self.assertEqual(
            [(c.card, c.state, c.result) for c in found.cards],
            [("00:00", "current", "done"), ("05:00", "staged", "failed")],
        )

    def test_endings_of_an_upgrade(self):
        for members, ending in (
            ({"active": True, "exit_status": None}, "at work"),
            ({"exit_status": None}, "killed"),
            ({"exit_status": 2}, "nothing to do"),
            ({"exit_status": 77}, "exit status 77"),
        ):
            self.assertEqual(self.only(host("alpha", run=run(**members))).run.ending, ending)

    def test_hosts_that_did_not_answer(self):
        away, mute = self.read(
            host("away", reachable=False, status=None, error="timed out"),
            host("mute", status=None, error="no qvcap"),
        )
        self.assertEqual((away.condition, away.error), ("unreachable", "timed out"))
        self.assertEqual((mute.condition, mute.error), ("no status", "no qvcap"))

    def test_packages_that_cannot_be_used_are_known(self):
        found = self.only(host("alpha", status=status(unreadable=[("x.qvf", "too short")])))
        self.assertEqual(found.bad_packages, [("x.qvf", "too short")])

    def test_new_keys_change_nothing(self):
        self.assertEqual(self.only(host("alpha", card(colour="red"), weather="fair")).condition, "")

    def test_hosts_are_in_the_order_of_their_names(self):
        names = [found.name for found in self.read(host("rack-10"), host("Rack-9"), host("rack-2"))]
        self.assertEqual(names, ["rack-2", "Rack-9", "rack-10"])

    def test_a_second_file_for_a_host_is_told_and_loses_nothing_of_the_first(self):
        first, second = sorted(self.read(host("alpha", card()), host("alpha")), key=lambda found: found.file)
        self.assertEqual((first.name, len(first.cards)), ("alpha", 1))
        self.assertEqual(second.error, "00001.json: 00000.json speaks for alpha, too")

    def test_damaged_files(self):
        self.refused(b"", "it is not JSON")
        self.refused(b'{"schema": "qvcapture.fleet.host", "ver', "it is not JSON")
        self.refused(b"\xff\xfe{}", "it is not UTF-8 at byte 0")
        self.refused(b"[" * 200000, "nested too deeply")
        self.refused(b"[]", "is not an object")
        self.refused(b'{"schema": "qvcapture.fleet.host", "version": ' + b"1" * 5000 + b"}", "it is not JSON")
        self.refused(b"\0" * 64, "it is not JSON")

    def test_files_of_somebody_else(self):
        self.refused(b'{"name": "left-pad"}', "not of the schema qvcapture.fleet.host")
        self.wrong("version 2 of qvcapture.fleet.host", version=2)
        self.wrong("version is not a number", version=True)
        self.wrong("its status is not of the schema qvcap-status", status={"schema": "qvcap-doctor"})

    def test_members_that_are_wrong_are_named(self):
        self.wrong("host is empty", host="")
        self.wrong("host is not a text", host=7)
        self.wrong("reachable is not true or false", reachable=1)
        self.wrong("collected is no time", collected="yesterday")
        self.wrong("collected is no time of this calendar", collected="2026-02-30T00:00:00Z")
        self.wrong("status is not an object or null", status=[])
        self.wrong("status.cards is not a list", status=status() | {"cards": {}})
        self.wrong("status.cards[0] is not an object", status=status("card"))
        self.wrong("status.cards[1].state is 'happy'", status=status(card(), card(state="happy")))
        self.wrong("status.cards[0].main.content is 'torn'", status=status(card(main={"content": "torn"})))
        self.wrong("run.exit_status is not a number", run=run(exit_status="0"))
        self.wrong("run.cards[0].result is 'won'", run=run(upgraded(result="won")))
        for key in ("host", "collected", "reachable", "error", "status", "run"):
            document = host("beta")
            del document[key]
            self.refused(json.dumps(document).encode(), f"{key} is missing")

    def test_sizes_are_bounded(self):
        self.refused(b" " * (hosts.LARGEST_FILE + 1), "larger than 4 MiB")
        many = [card(f"{i}") for i in range(hosts.MOST_CARDS + 1)]
        self.wrong(
            f"status.cards has {len(many)} entries, more than {hosts.MOST_CARDS}", status=status(*many)
        )
        long = self.only(host("n" * 5000, card(reason="r" * 5000)))
        self.assertEqual(
            (len(long.name), len(long.cards[0].reason)), (hosts.LONGEST_NAME, hosts.LONGEST_REASON)
        )
        self.assertEqual((long.name[-2:], long.cards[0].reason[-2:]), ("n…", "r…"))

    def test_files_beyond_the_bound_are_counted(self):
        bound, hosts.MOST_FILES = hosts.MOST_FILES, 2
        self.addCleanup(setattr, hosts, "MOST_FILES", bound)
        write(self.folder, host("a"), host("b"), host("c"), host("d"))
        fleet, left_out = hosts.read_fleet(self.folder)
        self.assertEqual(([found.name for found in fleet], left_out), (["a", "b"], 2))

    def test_what_is_no_regular_file_is_neither_followed_nor_waited_for(self):
        os.mkfifo(self.folder / "pipe.json")
        (self.folder / "folder.json").mkdir()
        (self.folder / "link.json").symlink_to("/etc/passwd")
        errors = [found.error for found in hosts.read_fleet(self.folder)[0]]
        self.assertEqual(
            errors,
            [
                "folder.json: it is not a regular file",
                "link.json: it is not a regular file",
                "pipe.json: it is not a regular file",
            ],
        )

    def test_other_files_of_the_folder_are_nobody_s(self):
        for name in ("notes.txt", ".alpha.json", "alpha.json.tmp"):
            (self.folder / name).write_text("{")
        self.assertEqual(hosts.read_fleet(self.folder), ([], 0))

    def test_texts_cannot_steer_a_screen(self):
        for text, shown in (
            ("\x1b[31mred", "\\x1b[31mred"),
            ("a\u202eb", "a\\xe2\\x80\\xaeb"),
            ("\u2066x", "\\xe2\\x81\\xa6x"),
            ("a\u200bb", "a\\xe2\\x80\\x8bb"),
            ("\x9b1m", "\\xc2\\x9b1m"),
            ("\ud800", "\\xed\\xa0\\x80"),
            ("\0\n\x7f", "\\x00\\x0a\\x7f"),
            ("\u2028", "\\xe2\\x80\\xa8"),
            ("\ufffe", "\\xef\\xbf\\xbe"),
            ('Größe 鏡 <b>&"', 'Größe 鏡 <b>&"'),
        ):
            self.assertEqual(self.only(host("alpha", card(reason=text))).cards[0].reason, shown)


if __name__ == "__main__":
    unittest.main()

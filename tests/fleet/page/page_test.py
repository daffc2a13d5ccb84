"""The page as text: every card exactly once, nothing of a card as markup, bounded in size, valid HTML."""

import collections
import html
import json
import re
import subprocess
import tempfile
import unittest

import html5lib
import jsonschema
import hypothesis.configuration
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as some

import sample
from support import COMMAND, NOW, TREE, card, host, image, make_page, page_of, run, status, upgraded

from plugin_utils import hosts, page

# What it remembers of a run goes with the run.
HOME = tempfile.TemporaryDirectory()
hypothesis.configuration.set_hypothesis_home_dir(HOME.name)

HTML = "{http://www.w3.org/1999/xhtml}"
HOSTILE = (
    "</script><script>alert(1)</script>\"'><img src=x onerror=alert(2)>&amp;<!--\x1b]0;x\x07\u202e{{ 7 * 7 }}"
)

texts = some.text(max_size=30) | some.sampled_from([HOSTILE, "", "1.0", "</style>", "]]>", "\u2028"])
names = some.text(min_size=1, max_size=12) | some.just(HOSTILE)
versions = some.none() | some.sampled_from(["1.0", "1.1", "12.34"])


@some.composite
def any_card(draw, number):
    package = some.none() | some.fixed_dictionaries(
        {"name": texts, "version": texts, "compatibility": some.just(1)}
    )
    return card(
        draw(names),
        draw(some.sampled_from(hosts.STATES)),
        path=f"/dev/video{number}",
        product=draw(some.none() | texts),
        serial=draw(some.none() | texts),
        running=draw(versions),
        reason=draw(texts),
        package=draw(package),
        main=image(draw(some.sampled_from(hosts.CONTENTS)), draw(versions)),
    )


@some.composite
def any_host(draw, number):
    cards = [draw(any_card(i)) for i in range(draw(some.integers(0, 5)))]
    done = [
        upgraded(each["card"], draw(some.sampled_from(hosts.RESULTS)), draw(texts), path=each["path"])
        for each in cards
        if draw(some.booleans())
    ]
    done += [
        upgraded(f"only the upgrade knows {i}", "failed", draw(texts), path=f"/gone/{i}")
        for i in range(draw(some.integers(0, 2)))
    ]
    report = run(*draw(some.permutations(done)), problem=draw(some.none() | texts.filter(bool)))
    return host(
        f"{number} {draw(names)}",
        *cards,
        error=draw(some.none() | texts.filter(bool)),
        reachable=draw(some.booleans()),
        run=report if draw(some.booleans()) else None,
    )


fleets = some.integers(0, 6).flatmap(lambda count: some.tuples(*map(any_host, range(count))))


def told(text):
    return hosts.shown(text or "", hosts.LONGEST_REASON)


def cards_of(document):
    """Each card, from the file alone: (name, state, path, running, result, serial number, reason)."""
    results = {each["path"]: each for each in (document["run"] or {"cards": []})["cards"]}
    for each in document["status"]["cards"]:
        done = results.pop(each["path"], {"result": ""})
        yield tuple(
            map(
                told,
                (
                    each["card"],
                    each["state"],
                    each["path"],
                    each["running"],
                    done["result"],
                    each["serial"],
                    each["reason"],
                ),
            )
        )
    for each in results.values():
        yield tuple(
            map(
                told,
                (each["card"], each["state"], each["path"], each["from"], each["result"], each["serial"], ""),
            )
        )


def parsed(text):
    """The page's tree; the parser is strict: a mistake in the syntax raises."""
    parser = html5lib.HTMLParser(strict=True, namespaceHTMLElements=True)
    return parser.parse(text)


def found(tree, *path):
    return tree.findall(".//" + "//".join(HTML + name for name in path))


def text_of(element):
    return "".join(element.itertext())


def element_of(tree, name, ident):
    (element,) = (each for each in found(tree, name) if each.get("id") == ident)
    return element


def data_of(tree):
    return json.loads(text_of(element_of(tree, "script", "data")))


def rows_of(tree):
    return found(element_of(tree, "table", "fleet"), "tbody", "tr")


class RoundTrip(unittest.TestCase):
    @settings(
        max_examples=30,
        derandomize=True,
        deadline=None,
        database=None,
        suppress_health_check=list(HealthCheck),
    )
    @given(fleets)
    def test_every_card_is_in_the_page_exactly_once_and_is_no_markup(self, fleet):
        tree = parsed(page_of(*fleet))
        expected = collections.Counter((told(f["host"]), *each) for f in fleet for each in cards_of(f))
        self.assertEqual(
            collections.Counter(
                (name, c.card, c.state, c.path, c.running, c.result, c.serial, c.reason)
                for name, _, _, _, _, cards in page.undata(data_of(tree))
                for c in cards
            ),
            expected,
        )
        # What is seen without a script: host, card, state and, where it failed, result.
        seen = collections.Counter(
            (text_of(row[0]), text_of(item[0]), text_of(item[1]))
            for row in rows_of(tree)
            for item in found(row, "ul", "li")
        )
        self.assertEqual(
            seen,
            collections.Counter(
                (e[0], e[1], e[2] + (f", upgrade {e[5]}" if e[5] in hosts.FAILED_RESULTS else ""))
                for e in expected.elements()
            ),
        )
        self.assertEqual([len(found(tree, name)) for name in ("script", "style", "img")], [2, 1, 0])
        self.assertEqual(len(rows_of(tree)), max(1, len(fleet)))

    def test_each_field_of_a_card_reaches_the_page(self):
        fields = {
            "product": "Product",
            "serial": "Serial",
            "reason": "Reason",
            "path": "/dev/video63",
            "running": "9.8",
        }
        document = host(
            "alpha",
            card(
                "07:03",
                "unknown",
                main=image("partial", "9.9"),
                safe=image("complete", "9.7"),
                package={"name": "Name.qvf", "version": "9.9", "compatibility": 1},
                **fields,
            ),
            run=run(upgraded("07:03", "refused", "Because", path="/dev/video63")),
        )
        ((name, _, _, _, told_run, (only,)),) = page.undata(data_of(parsed(page_of(document))))
        self.assertEqual((name, told_run), ("alpha", hosts.Run("night-1", 1795327200, "done", "")))
        self.assertEqual(
            only,
            hosts.Card(
                "07:03",
                "unknown",
                "/dev/video63",
                "Product",
                "Serial",
                "9.8",
                "9.9 partial",
                "9.7 complete",
                "9.9",
                "Name.qvf",
                "Reason",
                "refused",
                "Because",
            ),
        )

    def test_unusable_files_are_rows_with_their_reason(self):
        with tempfile.TemporaryDirectory() as folder:
            for name in ("bro<b>ken.json", "zero.json"):
                with open(f"{folder}/{name}", "w", encoding="utf-8") as file:
                    file.write("<script>")
            rows = rows_of(parsed(make_page(folder)))
        self.assertEqual([text_of(row[0]) for row in rows], ["bro<b>ken", "zero"])
        for row in rows:
            self.assertEqual(text_of(row[1]), "unusable file")
            self.assertIn("it is not JSON", text_of(row[2]))


class Lists(unittest.TestCase):
    def list_of(self, tree, ident):
        return [
            [" ".join(text_of(cell).split()) for cell in row]
            for row in found(element_of(tree, "section", ident), "tbody", "tr")
        ]

    def test_staged_cards_need_a_power_cycle(self):
        tree = parsed(
            page_of(
                host("alpha", card("00:00", "staged"), card("00:01")),
                host("beta", card()),
                host("gamma", card("02:00", "staged"), card("02:01", "staged")),
            )
        )
        self.assertEqual(
            self.list_of(tree, "power"),
            [["alpha", "00:00 1.0→1.1"], ["gamma", "02:00 1.0→1.1 02:01 1.0→1.1"]],
        )

    def test_failures_of_one_reason_are_together(self):
        bad = run(upgraded("00:00", "failed", "write error"), upgraded("00:01", "failed", "write error"))
        tree = parsed(
            page_of(
                host("alpha", card("00:00"), card("00:01"), run=bad),
                host("beta", card("00:00"), run=run(upgraded("00:00", "failed", "write error"))),
                host("gamma", status=None, reachable=False, error="timed out"),
                host("delta", card("03:00", "unreadable", reason="input/output error")),
                host("epsilon", status=status(unreadable=[("x.qvf", "too short")])),
                host("zeta", card(), run=run(exit_status=None, problem="it was killed")),
            )
        )
        self.assertEqual(
            self.list_of(tree, "failures"),
            [
                ["upgrade failed 3", "write error", "alpha 00:00, 00:01 beta 00:00"],
                ["package", "x.qvf: too short", "epsilon"],
                ["unreachable", "timed out", "gamma"],
                ["unreadable", "input/output error", "delta 03:00"],
                ["upgrade", "it was killed", "zeta"],
            ],
        )

    def test_a_healthy_fleet_says_so(self):
        text = page_of(host("alpha", card()))
        self.assertIn("Nothing failed.", text)
        self.assertIn("No card waits for its power", text)

    def test_an_empty_folder_is_a_page(self):
        (row,) = rows_of(parsed(page_of()))
        self.assertEqual(text_of(row), "There are no files of hosts.")


class WholePage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = folder.name
        sample.write(cls.folder, 1000, 8)
        cls.text = make_page(cls.folder)

    def test_a_thousand_hosts_of_eight_cards_are_less_than_2_mib(self):
        self.assertLess(len(self.text.encode()), 2 << 20)
        self.assertGreater(self.text.count('<li class="s'), 7600)

    def test_nothing_is_fetched_and_nothing_else_may_run(self):
        self.assertNotRegex(
            self.text, r"(?i)https?:|//[a-z]+\.|url\(|@import|<link|<img|<iframe|\bsrc=|\bon[a-z]+="
        )
        policy = re.search(r'http-equiv="Content-Security-Policy" content="([^"]+)"', self.text).group(1)
        policy = html.unescape(policy)
        self.assertRegex(
            policy,
            r"^default-src 'none'; script-src 'sha256-[\w+/]{43}='; style-src 'sha256-[\w+/]{43}='; "
            r"base-uri 'none'; form-action 'none'$",
        )

    def test_the_validator_is_silent(self):
        small = page_of(
            host("alpha", card("00:00", "staged"), card("00:01", "unreadable", reason=HOSTILE)),
            host(HOSTILE),
            host("beta", status=None, error=HOSTILE, run=run(upgraded(result="failed"))),
        )
        for text in (self.text, small, page_of()):
            checked = subprocess.run(
                ["tidy", "-quiet", "-errors", "-utf8"], input=text.encode(), capture_output=True
            )
            self.assertEqual((checked.returncode, checked.stderr.decode()), (0, ""))

    def test_the_same_files_at_the_same_time_make_the_same_page(self):
        self.assertEqual(make_page(self.folder), self.text)

    def test_ids_are_unique_and_links_lead_to_them(self):
        with tempfile.TemporaryDirectory() as folder:
            sample.write(folder, 100, 8)
            tree = parsed(make_page(folder))
        ids = [element.get("id") for element in tree.iter() if element.get("id")]
        self.assertEqual(len(ids), len(set(ids)))
        links = [link.get("href") for link in found(tree, "a")]
        self.assertGreater(len(links), 50)
        self.assertEqual({link for link in links if not (link[0] == "#" and link[1:] in set(ids))}, set())


class Sample(unittest.TestCase):
    """What these tests show to the page is what hosts may say."""

    def test_host_files_are_of_their_schema(self):
        formats = TREE / "docs/formats"
        schema = json.loads((formats / "fleet-host.schema.json").read_text())
        resolver = jsonschema.RefResolver(f"{formats.as_uri()}/fleet-host.schema.json", schema)
        check = jsonschema.Draft202012Validator(schema, resolver=resolver)
        with self.assertRaises(jsonschema.ValidationError):
            check.validate(host("alpha", status={}))
        failed = run(upgraded(result="failed"), exit_status=1, problem="one card failed")
        for document in [*(sample.host(number, 60, 8) for number in range(60)), host("alpha", run=failed)]:
            if document["host"] == "alpha":
                document["status"] = None
            check.validate(document)


class Command(unittest.TestCase):
    def test_a_folder_that_cannot_be_read_is_told(self):
        made = subprocess.run([COMMAND, "/nowhere"], capture_output=True, text=True)
        self.assertEqual((made.returncode, made.stdout), (1, ""))
        self.assertEqual(
            made.stderr, "qvcap-fleet-report: /nowhere cannot be read: No such file or directory\n"
        )

    def test_a_wrong_command_line_is_told(self):
        made = subprocess.run([COMMAND], capture_output=True, text=True)
        self.assertEqual((made.returncode, made.stdout), (64, ""))
        self.assertIn("the following arguments are required: DIR; see --help", made.stderr)

    def test_it_runs_from_a_link_in_another_folder(self):
        with tempfile.TemporaryDirectory() as folder:
            link = f"{folder}/report"
            subprocess.run(["ln", "-s", COMMAND, link], check=True)
            made = subprocess.run(
                [link, "--title", "<Racks>", folder], capture_output=True, text=True, check=True
            )
        self.assertIn("<title>&lt;Racks&gt;</title>", made.stdout)

    def test_ages_are_those_of_the_time_it_was_made(self):
        for seconds, age in (
            (59, "just now"),
            (60, "1 min ago"),
            (7199, "1 h ago"),
            (86400, "1 d ago"),
            (-5, "just now"),
        ):
            with tempfile.TemporaryDirectory() as folder:
                sample.write(folder, 0, 0)
                with open(f"{folder}/a.json", "w", encoding="utf-8") as file:
                    json.dump(host("a", card(), collected=page.utc(NOW - seconds)), file)
                row = rows_of(parsed(make_page(folder)))[0]
            self.assertEqual(text_of(row[4]), age)


if __name__ == "__main__":
    unittest.main()

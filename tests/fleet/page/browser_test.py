"""The page in a browser: what is shown, filtered, searched and sorted, by mouse and keyboard."""

import json
import pathlib
import tempfile
import unittest

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select

import sample
from browser_page import Page, fleet
from support import NOW, browser, card, host, make_page, page_of, run, status, upgraded

from plugin_utils import hosts as fleet_hosts

HOSTILE = [
    "</script><script>window.broken = 1</script>",
    "<img src=x onerror='window.broken = 2'>",
    '" onclick="x',
    "&amp;&lt;",
    "\x1b]0;title\x07\x1b[31m",
    "\u202egnp.exe",
    "{{ 7 * 7 }}",
    "<!--",
    "]]>",
]


def setUpModule():
    Page.driver = unittest.enterModuleContext(browser())


class Shown(Page):
    def test_totals_and_rows(self):
        self.show(*fleet())
        figures = [
            " ".join(e.text.split()) for e in self.driver.find_elements(By.CSS_SELECTOR, ".figures li")
        ]
        self.assertEqual(
            figures,
            [
                "6 hosts",
                "9 cards",
                "2 hosts need a power cycle",
                "5 failures",
                "1 hosts with data older than a day",
            ],
        )
        self.assertEqual(self.shown(), ["rack-1", "rack-2", "rack-3", "rack-10", "rack-11", "rack-12"])
        self.assertEqual(len(self.cards()), 9)
        self.told("6 hosts, 9 cards")
        counts = {
            e.get_attribute("data-face"): int(e.find_element(By.TAG_NAME, "b").text)
            for e in self.driver.find_elements(By.CSS_SELECTOR, ".chip")
        }
        self.assertEqual(
            counts,
            {
                "unreachable": 1,
                "upgrade failed": 1,
                "unreadable": 1,
                "interrupted": 1,
                "unknown": 1,
                "upgrade available": 1,
                "staged": 2,
                "no package": 1,
                "current": 2,
                "old": 1,
            },
        )

    def test_a_host_s_worst_card_is_its_condition(self):
        self.show(*fleet())
        conditions = self.js(
            "return [...document.querySelectorAll('#fleet > tbody > tr')].map((r) => r.cells[1].innerText)"
        )
        self.assertEqual(
            conditions,
            ["current", "upgrade available", "upgrade failed", "staged", "unreachable", "unreadable"],
        )
        self.assertIn("ssh: timed out", self.find("#h4").text)

    def test_details_of_a_host_have_every_field(self):
        self.show(*fleet())
        self.find("#h2 button").click()
        cells = [cell.text for cell in self.driver.find_elements(By.CSS_SELECTOR, ".details tbody tr > *")]
        self.assertEqual(
            cells,
            [
                "00:00",
                "interrupted",
                "Pelix Duo HDMI",
                "PX1",
                "/dev/video0",
                "0.9",
                "1.1 complete",
                "blank",
                "duo.qvf 1.1",
                "failed",
                "half an image; write error 131072",
            ],
        )
        self.assertEqual(self.find("#h2 button").get_attribute("aria-expanded"), "true")
        self.find("#h2 li").click()
        self.assertEqual(self.driver.find_elements(By.CSS_SELECTOR, ".details"), [])
        self.assertEqual(self.find("#h2 button").get_attribute("aria-expanded"), "false")

    def test_ages_go_on_while_the_page_is_read(self):
        clock = "(() => { const begun = Date.now(); Date.now = () => %d; })()" % ((NOW + 3 * 3600) * 1000)
        script = self.cdp("Page.addScriptToEvaluateOnNewDocument", source=clock)
        self.addCleanup(self.cdp, "Page.removeScriptToEvaluateOnNewDocument", identifier=script["identifier"])
        text = page_of(*fleet())
        self.assertIn(">2 min ago</time>", text)
        self.show(text=text)
        self.assertEqual(self.find("#h0 td:last-child").text, "3 h ago")
        self.assertEqual(
            self.find("#h0 td:nth-child(4)").text,
            "done,\n6 h ago" if "\n" in self.find("#h0 td:nth-child(4)").text else "done, 6 h ago",
        )
        self.assertEqual(self.find(".made time").text, "3 h ago")

    def test_texts_of_cards_are_shown_as_text(self):
        for text in HOSTILE:
            with self.subTest(text=text):
                shown = fleet_hosts.shown(text, 1000)
                bad = card(
                    text,
                    "unreadable",
                    product=text,
                    serial=text,
                    reason=text,
                    running=text,
                    path=text,
                    package={"name": text, "version": text, "compatibility": 1},
                )
                self.show(
                    host(
                        text,
                        bad,
                        error=text,
                        run=run(upgraded(text, "failed", text), problem=text),
                        status=status(bad, card("00:09", "staged"), unreadable=[(text, text)]),
                    )
                )
                self.find("#h0 button").click()
                self.assertEqual(self.find("#h0 button").text.strip(), shown.strip())
                self.assertEqual(self.find("#h0 li b").text, shown)
                row = [
                    cell.get_attribute("textContent")
                    for cell in self.driver.find_elements(
                        By.CSS_SELECTOR, ".details tbody tr:first-child > *"
                    )
                ]
                self.assertEqual([row[i] for i in (0, 2, 3, 4, 5, 10)], [shown] * 6)
                self.assertEqual(row[8], f"{shown} {shown}")
                self.assertIn(shown, self.find("#failures").text)
                self.assertIn(
                    shown, [option.get_attribute("value") for option in Select(self.find("#product")).options]
                )
                self.assertEqual(
                    self.js("return [window.broken ?? 0, document.scripts.length, document.images.length]"),
                    [0, 2, 0],
                )
                self.assertEqual(self.driver.title, "Capture cards")
                raw = self.js("return document.documentElement.textContent")
                self.assertNotRegex(raw, "[\x00-\x08\x0b-\x1f\x7f-\x9f\u202a-\u202e\u2066-\u2069]")


class Filters(Page):
    def setUp(self):
        super().setUp()
        self.show(*fleet())

    def test_a_state_shows_its_hosts_and_dims_their_other_cards(self):
        self.face("staged").click()
        self.assertEqual(self.shown(), ["rack-2", "rack-10"])
        self.assertEqual(self.cards(), ["rack-2 00:00", "rack-10 00:00"])
        self.assertEqual(self.face("staged").get_attribute("aria-pressed"), "true")
        self.told("2 of 6 hosts, 2 cards")
        self.face("staged").click()
        self.assertEqual(len(self.shown()), 6)
        self.told("6 hosts, 9 cards")

    def test_of_several_states_one_is_enough(self):
        self.face("staged").click()
        self.face("unreachable").click()
        self.assertEqual(self.shown(), ["rack-2", "rack-10", "rack-11"])

    def test_each_state_shows_as_many_as_it_says(self):
        for word in fleet_hosts.STATES:
            self.face(word).click()
            self.assertEqual(
                len(self.cards()), int(self.face(word).find_element(By.TAG_NAME, "b").text), word
            )
            self.find("#clear").click()

    def test_failed_upgrades_and_old_data(self):
        self.face("upgrade failed").click()
        self.assertEqual(self.shown(), ["rack-3"])
        self.find("#clear").click()
        self.face("old").click()
        self.assertEqual(self.shown(), ["rack-10"])

    def test_product_and_version_have_to_hold_for_the_same_card(self):
        Select(self.find("#product")).select_by_value("Lumo Quad SDI")
        self.assertEqual(self.cards(), ["rack-2 00:01", "rack-10 00:00"])
        Select(self.find("#version")).select_by_value("2.0")
        self.assertEqual(self.cards(), ["rack-10 00:00"])
        self.face("upgrade available").click()
        self.assertEqual(self.shown(), [])
        self.assertTrue(self.find("#nothing").is_displayed())
        self.find("#clear").click()
        self.assertEqual(len(self.shown()), 6)
        self.assertEqual(self.js("return [product.value, version.value, search.value]"), ["", "", ""])

    def test_menus_offer_what_is_there_with_its_count(self):
        menus = [
            [option.text for option in Select(self.find(menu)).options] for menu in ("#product", "#version")
        ]
        self.assertEqual(
            menus,
            [["all", "Lumo Quad SDI (2)", "Pelix Duo HDMI (7)"], ["all", "0.9 (1)", "1.0 (6)", "2.0 (1)"]],
        )

    def test_search_finds_words_of_a_card_and_its_host(self):
        for words, cards in (
            ("PX200", ["rack-2 00:00"]),
            ("px10", ["rack-1 00:00", "rack-1 00:01"]),
            ("HALF image", ["rack-3 00:00"]),
            ("rack-2 staged", ["rack-2 00:00"]),
            ("131072", ["rack-3 00:00"]),
            ("no-such-word", []),
        ):
            self.find("#search").clear()
            self.find("#search").send_keys(words)
            self.assertEqual(self.cards(), cards, words)
        self.told("0 of 6 hosts, 0 cards")

    def test_search_finds_a_host_without_cards_by_its_error(self):
        self.find("#search").send_keys("timed")
        self.assertEqual(self.shown(), ["rack-11"])
        self.told("1 of 6 hosts, 0 cards")

    def test_a_link_from_the_lists_shows_a_host_that_filters_hid(self):
        self.face("current").click()
        self.assertEqual(self.shown(), ["rack-1"])
        self.find('#failures a[href="#h2"]').click()
        self.wait(lambda: "rack-3" in self.shown(), "rack-3 is shown")
        self.wait(
            lambda: self.js("return document.activeElement === document.querySelector('#h2 button')"),
            "it has the focus",
        )
        self.assertIn("half an image", self.find(".details").text)


class Sorting(Page):
    def setUp(self):
        super().setUp()
        self.show(*fleet())

    def test_by_clicks_on_each_head(self):
        by_name = ["rack-1", "rack-2", "rack-3", "rack-10", "rack-11", "rack-12"]
        self.assertEqual(self.sorted_by(), [["Host", "ascending"]])
        for name, up in (
            ("Condition", ["rack-11", "rack-3", "rack-12", "rack-2", "rack-10", "rack-1"]),
            ("Cards", ["rack-11", "rack-3", "rack-10", "rack-1", "rack-2", "rack-12"]),
            ("Last upgrade", ["rack-2", "rack-10", "rack-11", "rack-12", "rack-1", "rack-3"]),
            ("Seen", ["rack-10", "rack-2", "rack-3", "rack-11", "rack-12", "rack-1"]),
            ("Host", by_name),
        ):
            self.head(name).click()
            self.assertEqual((self.shown(), self.sorted_by()), (up, [[name, "ascending"]]), name)
        self.head("Host").click()
        self.assertEqual((self.shown(), self.sorted_by()), (by_name[::-1], [["Host", "descending"]]))

    def test_by_keyboard(self):
        self.head("Host").send_keys(Keys.ENTER)
        self.assertEqual(self.sorted_by(), [["Host", "descending"]])
        ActionChains(self.driver).send_keys(Keys.TAB, Keys.SPACE).perform()
        self.assertEqual(self.sorted_by(), [["Condition", "ascending"]])
        self.assertEqual(self.shown()[0], "rack-11")

    def test_details_stay_with_their_host_and_filters_hold(self):
        self.find("#h1 button").click()
        self.face("staged").click()
        self.head("Host").click()
        order = self.js(
            "return [...document.querySelectorAll('#fleet > tbody > tr')].filter((r) => r.offsetHeight)"
            ".map((r) => r.className || r.id)"
        )
        self.assertEqual(order, ["h3", "h1", "details"])


class Keyboard(Page):
    def test_everything_is_reached_in_order(self):
        self.show(*fleet()[:3])
        reached = []
        for _ in range(60):
            ActionChains(self.driver).send_keys(Keys.TAB).perform()
            reached.append(
                self.js(
                    "const e = document.activeElement; return e.id || e.dataset.face || "
                    "e.getAttribute('href') || e.innerText.trim().split(/[\\t\\n]/)[0]"
                )
            )
            if reached[-1] == "rack-3":
                break
        self.assertEqual(
            reached,
            [
                "#hosts",
                "#power",
                "#failures",
                "Host",
                "#h1",
                "What",
                "#h2",
                "#h2",
                "upgrade failed",
                "interrupted",
                "upgrade available",
                "staged",
                "current",
                "search",
                "product",
                "version",
                "clear",
                "Host",
                "Condition",
                "Cards",
                "Last upgrade",
                "Seen",
                "rack-1",
                "rack-2",
                "rack-3",
            ],
        )
        outline = self.js("return getComputedStyle(document.activeElement).outlineStyle")
        self.assertEqual(outline, "solid")
        ActionChains(self.driver).send_keys(Keys.ENTER).perform()
        self.assertIn("half an image", self.find(".details").text)

    def test_a_slash_leads_to_the_search(self):
        self.show(*fleet())
        ActionChains(self.driver).send_keys("/").perform()
        ActionChains(self.driver).send_keys("rack/").perform()
        self.assertEqual(self.js("return [document.activeElement.id, search.value]"), ["search", "rack/"])


class Large(Page):
    def test_a_thousand_hosts_are_filtered_searched_and_sorted(self):
        with tempfile.TemporaryDirectory() as folder:
            sample.write(folder, 1000, 8)
            documents = [json.loads(path.read_text()) for path in sorted(pathlib.Path(folder).iterdir())]
            self.show(text=make_page(folder))
        cards = [each for document in documents if document["status"] for each in document["status"]["cards"]]
        self.told(f"1000 hosts, {len(cards)} cards")
        self.face("staged").click()
        staged = [
            d for d in documents if d["status"] and any(c["state"] == "staged" for c in d["status"]["cards"])
        ]
        self.told(f"{len(staged)} of 1000 hosts, {sum(c['state'] == 'staged' for c in cards)} cards")
        self.assertEqual(sorted(self.shown()), sorted(d["host"] for d in staged))
        self.find("#clear").click()
        self.find("#search").send_keys(cards[4321]["serial"])
        self.told(f"1 of 1000 hosts, {sum(c['serial'] == cards[4321]['serial'] for c in cards)} cards")
        self.find("#clear").click()
        self.head("Host").click()
        self.assertEqual(self.shown(), sorted((d["host"] for d in documents), reverse=True))


if __name__ == "__main__":
    unittest.main()

"""The page in a browser: what is shown, filtered, searched and sorted, by mouse, keyboard and screen reader."""

import functools
import http.server
import io
import itertools
import json
import pathlib
import re
import tempfile
import threading
import unittest

from PIL import Image
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select, WebDriverWait

import sample
from support import NOW, browser, card, host, make_page, page_of, run, status, upgraded

from plugin_utils import hosts as fleet_hosts

PATIENCE = 60  # seconds, for a condition; nothing waits for its end
HOSTILE = [
    "</script><script>window.broken = 1</script>", "<img src=x onerror='window.broken = 2'>", "\" onclick=\"x", "&amp;&lt;",
    "\x1b]0;title\x07\x1b[31m", "\u202egnp.exe", "{{ 7 * 7 }}", "<!--", "]]>",
]


def fleet():
    """Hosts of which each does one thing."""
    failed = run(upgraded("00:00", "failed", "write error 131072"), exit_status=1, problem="one card failed")
    return [
        host("rack-1", card("00:00", serial="PX100"), card("00:01", serial="PX101"), collected="2026-11-22T07:58:00Z",
             run=run(begun="2026-11-22T05:00:00Z")),
        host("rack-2", card("00:00", "staged", serial="PX200"), card("00:01", "upgrade available", product="Lumo Quad SDI")),
        host("rack-3", card("00:00", "interrupted", reason="half an image", running="0.9"), run=failed),
        host("rack-10", card("00:00", "staged", product="Lumo Quad SDI", running="2.0"), collected="2026-11-20T07:00:00Z"),
        host("rack-11", status=None, reachable=False, error="ssh: timed out"),
        host("rack-12", card("00:00", "no package"), card("00:01", "unknown"), card("01:00", "unreadable", running=None)),
    ]


def setUpModule():
    Page.driver = unittest.enterModuleContext(browser())
    Page.driver.set_script_timeout(PATIENCE)


class Page(unittest.TestCase):
    driver = None

    @classmethod
    def setUpClass(cls):
        folder = cls.enterClassContext(tempfile.TemporaryDirectory())
        cls.file = pathlib.Path(folder) / "fleet.html"

    def setUp(self):
        self.cdp("Emulation.clearDeviceMetricsOverride")
        self.cdp("Emulation.setEmulatedMedia", features=[])
        self.resize(1440, 1000)

    def cdp(self, command, **parameters):
        return self.driver.execute_cdp_cmd(command, parameters)

    def resize(self, width, height):
        self.cdp("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)

    def show(self, *documents, text=None):
        self.file.write_text(text or page_of(*documents), encoding="utf-8")
        self.driver.get("about:blank")
        self.driver.get(self.file.as_uri())

    def js(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def find(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def wait(self, condition, what):
        WebDriverWait(self.driver, PATIENCE, 0.05).until(lambda _: condition(), what)

    def shown(self):
        """Names of the hosts whose rows are shown, from top to bottom."""
        return self.js("return [...document.querySelectorAll('#fleet > tbody > tr:not(.details)')]"
                       ".filter((row) => row.offsetHeight > 0).map((row) => row.cells[0].innerText.trim())")

    def cards(self):
        """Cards that are shown and not dimmed, as HOST CARD."""
        return self.js("return [...document.querySelectorAll('#fleet li:not(.out)')].filter((li) => li.offsetHeight > 0)"
                       ".map((li) => li.closest('tr').cells[0].innerText.trim() + ' ' + li.firstChild.textContent)")

    def told(self, text):
        self.wait(lambda: self.find("#matches").text == text, f"{self.find('#matches').text!r} instead of {text!r}")

    def face(self, word):
        return self.find(f'.chip[data-face="{word}"]')

    def head(self, name):
        return next(h for h in self.driver.find_elements(By.CSS_SELECTOR, "#fleet > thead button") if h.text == name)

    def sorted_by(self):
        return self.js("return [...document.querySelectorAll('#fleet th[aria-sort]')].map((th) => "
                       "[th.innerText.trim(), th.ariaSort])")


class Shown(Page):
    def test_totals_and_rows(self):
        self.show(*fleet())
        figures = [" ".join(e.text.split()) for e in self.driver.find_elements(By.CSS_SELECTOR, ".figures li")]
        self.assertEqual(figures, ["6 hosts", "9 cards", "2 hosts need a power cycle", "5 failures",
                                   "1 hosts with data older than a day"])
        self.assertEqual(self.shown(), ["rack-1", "rack-2", "rack-3", "rack-10", "rack-11", "rack-12"])
        self.assertEqual(len(self.cards()), 9)
        self.told("6 hosts, 9 cards")
        counts = {e.get_attribute("data-face"): int(e.find_element(By.TAG_NAME, "b").text)
                  for e in self.driver.find_elements(By.CSS_SELECTOR, ".chip")}
        self.assertEqual(counts, {"unreachable": 1, "upgrade failed": 1, "unreadable": 1, "interrupted": 1, "unknown": 1,
                                  "upgrade available": 1, "staged": 2, "no package": 1, "current": 2, "old": 1})

    def test_a_host_s_worst_card_is_its_condition(self):
        self.show(*fleet())
        conditions = self.js("return [...document.querySelectorAll('#fleet > tbody > tr')].map((r) => r.cells[1].innerText)")
        self.assertEqual(conditions, ["current", "upgrade available", "upgrade failed", "staged", "unreachable", "unreadable"])
        self.assertIn("ssh: timed out", self.find("#h4").text)

    def test_details_of_a_host_have_every_field(self):
        self.show(*fleet())
        self.find("#h2 button").click()
        cells = [cell.text for cell in self.driver.find_elements(By.CSS_SELECTOR, ".details tbody tr > *")]
        self.assertEqual(cells, ["00:00", "interrupted", "Pelix Duo HDMI", "PX1", "/dev/video0", "0.9", "1.1 complete", "blank",
                                 "duo.qvf 1.1", "failed", "half an image; write error 131072"])
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
        self.assertEqual(self.find("#h0 td:nth-child(4)").text, "done,\n6 h ago" if "\n" in self.find("#h0 td:nth-child(4)").text
                         else "done, 6 h ago")
        self.assertEqual(self.find(".made time").text, "3 h ago")

    def test_texts_of_cards_are_shown_as_text(self):
        for text in HOSTILE:
            with self.subTest(text=text):
                shown = fleet_hosts.shown(text, 1000)
                bad = card(text, "unreadable", product=text, serial=text, reason=text, running=text, path=text,
                           package={"name": text, "version": text, "compatibility": 1})
                self.show(host(text, bad, error=text, run=run(upgraded(text, "failed", text), problem=text),
                               status=status(bad, card("00:09", "staged"), unreadable=[(text, text)])))
                self.find("#h0 button").click()
                self.assertEqual(self.find("#h0 button").text.strip(), shown.strip())
                self.assertEqual(self.find("#h0 li b").text, shown)
                row = [cell.get_attribute("textContent") for cell in self.driver.find_elements(
                    By.CSS_SELECTOR, ".details tbody tr:first-child > *")]
                self.assertEqual([row[i] for i in (0, 2, 3, 4, 5, 10)], [shown] * 6)
                self.assertEqual(row[8], f"{shown} {shown}")
                self.assertIn(shown, self.find("#failures").text)
                self.assertIn(shown, [option.get_attribute("value") for option in Select(self.find("#product")).options])
                self.assertEqual(self.js("return [window.broken ?? 0, document.scripts.length, document.images.length]"), [0, 2, 0])
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
            self.assertEqual(len(self.cards()), int(self.face(word).find_element(By.TAG_NAME, "b").text), word)
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
        menus = [[option.text for option in Select(self.find(menu)).options] for menu in ("#product", "#version")]
        self.assertEqual(menus, [["all", "Lumo Quad SDI (2)", "Pelix Duo HDMI (7)"], ["all", "0.9 (1)", "1.0 (6)", "2.0 (1)"]])

    def test_search_finds_words_of_a_card_and_its_host(self):
        for words, cards in (("PX200", ["rack-2 00:00"]), ("px10", ["rack-1 00:00", "rack-1 00:01"]),
                             ("HALF image", ["rack-3 00:00"]), ("rack-2 staged", ["rack-2 00:00"]), ("131072", ["rack-3 00:00"]),
                             ("no-such-word", [])):
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
        self.wait(lambda: self.js("return document.activeElement === document.querySelector('#h2 button')"), "it has the focus")
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
        order = self.js("return [...document.querySelectorAll('#fleet > tbody > tr')].filter((r) => r.offsetHeight)"
                        ".map((r) => r.className || r.id)")
        self.assertEqual(order, ["h3", "h1", "details"])


class Keyboard(Page):
    def test_everything_is_reached_in_order(self):
        self.show(*fleet()[:3])
        reached = []
        for _ in range(60):
            ActionChains(self.driver).send_keys(Keys.TAB).perform()
            reached.append(self.js("const e = document.activeElement; return e.id || e.dataset.face || "
                                   "e.getAttribute('href') || e.innerText.trim().split(/[\\t\\n]/)[0]"))
            if reached[-1] == "rack-3":
                break
        self.assertEqual(reached, [
            "#hosts", "#power", "#failures", "Host", "#h1", "What", "#h2", "#h2", "upgrade failed", "interrupted",
            "upgrade available", "staged", "current", "search", "product", "version", "clear",
            "Host", "Condition", "Cards", "Last upgrade", "Seen", "rack-1", "rack-2", "rack-3"])
        outline = self.js("return getComputedStyle(document.activeElement).outlineStyle")
        self.assertEqual(outline, "solid")
        ActionChains(self.driver).send_keys(Keys.ENTER).perform()
        self.assertIn("half an image", self.find(".details").text)

    def test_a_slash_leads_to_the_search(self):
        self.show(*fleet())
        ActionChains(self.driver).send_keys("/").perform()
        ActionChains(self.driver).send_keys("rack/").perform()
        self.assertEqual(self.js("return [document.activeElement.id, search.value]"), ["search", "rack/"])


class Readers(Page):
    """What a screen reader gets, and what is left where there is no script."""

    def tree(self):
        """(role, name, properties) of all that is read, in the order of reading."""
        nodes = {node["nodeId"]: node for node in self.cdp("Accessibility.getFullAXTree")["nodes"]}
        read, waiting = [], [next(iter(nodes))]
        while waiting:
            node = nodes.get(waiting.pop())
            if node is None:
                continue
            waiting += reversed(node.get("childIds", []))
            if not node["ignored"]:
                read.append((node["role"]["value"], node.get("name", {}).get("value", ""),
                             {p["name"]: p["value"].get("value") for p in node.get("properties", [])}))
        return read

    def test_the_table_is_one(self):
        self.show(*fleet())
        tree = self.tree()
        roles = [role for role, _, _ in tree]
        self.assertEqual((roles.count("table"), roles.count("columnheader")), (3, 10))
        heads = [name for role, name, _ in tree if role == "rowheader"]
        self.assertEqual(heads[-6:], ["rack-1", "rack-2", "rack-3", "rack-10", "rack-11", "rack-12"])
        words = " ".join(name for role, name, _ in tree if role == "StaticText")
        self.assertIn("upgrade available", words)
        self.assertIn("interrupted, upgrade failed", words)
        # Marks are shapes; nothing reads them out.
        self.assertFalse(any(name.strip() in ("!", "▸") for role, name, _ in tree if role == "StaticText"))

    def test_the_table_is_one_in_a_narrow_window_too(self):
        self.resize(360, 900)
        self.show(*fleet())
        roles = [role for role, _, _ in self.tree()]
        counts = [roles.count(role) for role in ("table", "columnheader", "rowheader", "row")]
        self.assertEqual(counts, [3, 10, 2 + 5 + 6, 3 + 6 + 7])

    def test_controls_have_names_and_states(self):
        self.show(*fleet())
        tree = self.tree()
        self.assertIn(("searchbox", "Search"), [(role, name) for role, name, _ in tree])
        self.assertEqual([name for role, name, _ in tree if role == "combobox"], ["Product", "Running version"])
        self.assertEqual([name for role, name, _ in tree if role == "button" and not name.strip()], [])
        self.assertEqual([p["live"] for role, _, p in tree if role == "status"], ["polite"])
        expanded = [p["expanded"] for role, name, p in tree if role == "button" and name.startswith("rack-")]
        self.assertEqual(expanded, [False] * 6)
        self.assertEqual([p.get("disabled") for role, _, p in tree if role == "button" and p.get("disabled")], [])

    def test_without_a_script_the_table_is_whole_and_controls_are_off(self):
        self.cdp("Emulation.setScriptExecutionDisabled", value=True)
        self.addCleanup(self.cdp, "Emulation.setScriptExecutionDisabled", value=False)
        self.show(*fleet())
        tree = self.tree()
        self.assertEqual([name for role, name, _ in tree if role == "rowheader"][-6:],
                         ["rack-1", "rack-2", "rack-3", "rack-10", "rack-11", "rack-12"])
        words = [name for role, name, _ in tree if role == "StaticText"]
        self.assertEqual(words.count("staged"), 2 + 1 + 1)  # cards, a condition, a filter
        self.assertIn("Filters, search and sorting need JavaScript; the table is complete without it.", words)
        buttons = [p.get("disabled") for role, _, p in tree if role == "button"]
        self.assertEqual((len(buttons) > 15, set(buttons)), (True, {True}))


class Colours(Page):
    def luminance(self, colour):
        parts = [c / 12.92 if c <= 0.04045 else ((c + 0.055) / 1.055) ** 2.4 for c in (v / 255 for v in colour[:3])]
        return 0.2126 * parts[0] + 0.7152 * parts[1] + 0.0722 * parts[2]

    def contrast(self, one, other):
        low, high = sorted((self.luminance(one), self.luminance(other)))
        return (high + 0.05) / (low + 0.05)

    def screenshot(self):
        return Image.open(io.BytesIO(self.driver.get_screenshot_as_png())).convert("RGB")

    def boxes(self, selector):
        """(text, left, top, width, height) of each element, in the window."""
        return self.js("return [...document.querySelectorAll(arguments[0])].map((e) => { const b = e.getBoundingClientRect();"
                       "return [e.textContent, b.x, b.y, b.width, b.height]; })", selector)

    def scheme(self, name):
        self.cdp("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": name}])

    def every_state(self):
        cards = [card(f"00:0{i}", state) for i, state in enumerate(fleet_hosts.STATES)]
        failed = card("01:00", "upgrade available")
        self.show(host("alpha", *cards, failed, run=run(upgraded("01:00", "failed", "write error"))),
                  host("beta", status=None, reachable=False, error="timed out"))

    def test_light_and_dark(self):
        grounds = {}
        for name in ("light", "dark"):
            self.scheme(name)
            self.every_state()
            picture = self.screenshot()
            grounds[name] = picture.getpixel((2, 2))
            self.assertGreater(len(picture.getcolors(1 << 24)), 50, "the page is blank")
        self.assertGreater(self.luminance(grounds["light"]), 0.8)
        self.assertLess(self.luminance(grounds["dark"]), 0.05)

    def test_texts_have_contrast(self):
        colours = """const seen = [];
            const paint = document.createElement("canvas").getContext("2d", { willReadFrequently: true });
            const solid = (layers) => { for (const layer of layers) { paint.fillStyle = layer; paint.fillRect(0, 0, 1, 1); }
                return [...paint.getImageData(0, 0, 1, 1).data]; };
            const walk = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
            while (walk.nextNode()) {
                const element = walk.currentNode.parentElement;
                if (!walk.currentNode.data.trim() || !element.offsetHeight || element.closest("script, option")) continue;
                const layers = [];
                for (let e = element; e; e = e.parentElement) layers.unshift(getComputedStyle(e).backgroundColor);
                seen.push([walk.currentNode.data, solid(layers), solid([...layers, getComputedStyle(element).color])]);
            }
            return seen;"""
        for name in ("light", "dark"):
            self.scheme(name)
            self.every_state()
            self.face("staged").click()
            seen = self.js(colours)
            self.assertGreater(len(seen), 80)
            poor = [(text, ground, ink) for text, ground, ink in seen if self.contrast(ground, ink) < 4.5]
            self.assertEqual(poor, [], name)

    def test_cells_show_the_colour_of_their_state(self):
        for name in ("light", "dark"):
            self.scheme(name)
            self.every_state()
            picture = self.screenshot()
            hues = {}
            for text, left, top, width, height in self.boxes("#fleet li"):
                self.assertTrue(width > 60 and height > 12, text)
                cell = picture.crop((int(left), int(top), int(left) + 16, int(top + height)))
                colours = [colour for _, colour in cell.getcolors(1 << 16)]
                # The mark is what differs most from the ground of the cell.
                hues[text] = max(colours, key=lambda c: self.contrast(c, picture.getpixel((int(left + width) - 6, int(top) + 6))))
                self.assertGreater(self.contrast(hues[text], cell.getpixel((cell.width - 1, 1))), 3, (name, text, hues[text]))
            green, red = (next(hue for text, hue in hues.items() if text.endswith(state)) for state in ("current", "unreadable"))
            self.assertTrue(green[1] > green[0] and green[1] > green[2], green)
            self.assertTrue(red[0] > red[1] and red[0] > red[2], red)

    def test_states_differ_without_colours(self):
        self.every_state()
        shapes = {}
        self.cdp("Emulation.setEmulatedVisionDeficiency", type="achromatopsia")
        self.addCleanup(self.cdp, "Emulation.setEmulatedVisionDeficiency", type="none")
        picture = self.screenshot().convert("L")
        marks = [(text, left, top + height / 2) for text, left, top, _, height in self.boxes("#fleet li")[:7]]
        marks += [(text, left, top + height / 2) for text, left, top, _, height in self.boxes(".chip[data-face^=un]")[:1]]
        for text, left, middle in marks:
            cell = picture.crop((int(left), round(middle) - 8, int(left) + 16, round(middle) + 8))
            dark, light = cell.getextrema()
            self.assertGreater(light - dark, 60, text)
            shapes[text] = [value < (dark + light) / 2 for value in cell.getdata()]
        for (one, these), (other, those) in itertools.combinations(shapes.items(), 2):
            self.assertGreater(sum(a != b for a, b in zip(these, those)), 12, f"{one} and {other} look the same")

    def test_a_failed_upgrade_has_a_frame_and_a_mark(self):
        self.every_state()
        picture = self.screenshot()
        *_, (text, left, top, width, height) = self.boxes("#fleet li")
        self.assertIn("upgrade failed", text)
        edge = picture.getpixel((int(left + width / 2), int(top)))
        self.assertGreater(self.contrast(edge, picture.getpixel((int(left + width / 2), int(top) - 3))), 3)

    def test_nothing_is_wider_than_the_window(self):
        for width in (360, 700, 1440, 2560):
            self.resize(width, 900)
            self.show(*fleet(), host("x" * 150, card("/dev/" + "v" * 150, serial="s" * 190, running="12345.12345")))
            self.find("#h6 button").click()
            self.assertLessEqual(self.js("return document.documentElement.scrollWidth"), width)


class Alone(Page):
    def test_nothing_is_asked_of_any_network(self):
        asked = []

        class Handler(http.server.SimpleHTTPRequestHandler):
            def do_GET(self):
                asked.append(self.path)
                super().do_GET()

            def log_message(self, *_):
                pass

        self.file.write_text(page_of(*fleet()), encoding="utf-8")
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Handler, directory=self.file.parent))
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        self.driver.get_log("performance")
        self.driver.get(f"http://127.0.0.1:{server.server_address[1]}/fleet.html")
        self.face("staged").click()
        self.find("#h1 button").click()
        self.told("2 of 6 hosts, 2 cards")
        urls = set()
        for entry in self.driver.get_log("performance"):
            message = json.loads(entry["message"])["message"]
            if message["method"] == "Network.requestWillBeSent":
                urls.add(message["params"]["request"]["url"])
        self.assertEqual({re.sub(":[0-9]+/", "/", url) for url in urls} - {"http://127.0.0.1/favicon.ico"},
                         {"http://127.0.0.1/fleet.html"})
        self.assertEqual(set(asked) - {"/favicon.ico"}, {"/fleet.html"})

    def test_the_console_is_silent(self):
        self.driver.get_log("browser")
        self.show(*fleet())
        self.find("#h1 button").click()
        self.assertEqual(self.driver.get_log("browser"), [])

    def test_the_policy_refuses_other_scripts_styles_and_requests(self):
        text = page_of(*fleet())
        self.show(text=text.replace("<main>", "<main><script>window.broken = 1</script><style>body { display: none }</style>"
                                              "<img src='data:,x' onerror='window.broken = 2'>"))
        self.assertEqual(self.js("return [window.broken ?? 0, getComputedStyle(document.body).display]"), [0, "block"])
        self.assertEqual(len(self.shown()), 6)
        refused = self.driver.execute_async_script(
            "const done = arguments[0]; fetch('http://127.0.0.1:9/').then(() => done('sent'), (e) => done(e.name))")
        self.assertEqual(refused, "TypeError")
        self.assertTrue(any("Content Security Policy" in entry["message"] and "connect-src" in entry["message"]
                            for entry in self.driver.get_log("browser")))


class Large(Page):
    def test_a_thousand_hosts_are_filtered_searched_and_sorted(self):
        with tempfile.TemporaryDirectory() as folder:
            sample.write(folder, 1000, 8)
            documents = [json.loads(path.read_text()) for path in sorted(pathlib.Path(folder).iterdir())]
            self.show(text=make_page(folder))
        cards = [each for document in documents if document["status"] for each in document["status"]["cards"]]
        self.told(f"1000 hosts, {len(cards)} cards")
        self.face("staged").click()
        staged = [d for d in documents if d["status"] and any(c["state"] == "staged" for c in d["status"]["cards"])]
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

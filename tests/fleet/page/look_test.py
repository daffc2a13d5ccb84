"""How the page looks, what a screen reader gets of it, and that it is alone: no request, no other script."""

import functools
import http.server
import io
import itertools
import json
import re
import threading
import unittest

from PIL import Image

from browser_page import Page, fleet
from support import browser, card, host, page_of, run, upgraded

from plugin_utils import hosts as fleet_hosts

# Each text that is shown, with the colours behind and of it. A canvas mixes what is translucent.
TEXTS_AND_COLOURS = """
    const seen = [];
    const paint = document.createElement("canvas").getContext("2d", { willReadFrequently: true });
    const mixed = (layers) => {
        for (const layer of layers) {
            paint.fillStyle = layer;
            paint.fillRect(0, 0, 1, 1);
        }
        return [...paint.getImageData(0, 0, 1, 1).data];
    };
    const walk = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
    while (walk.nextNode()) {
        const text = walk.currentNode.data;
        const element = walk.currentNode.parentElement;
        if (!text.trim() || !element.offsetHeight || element.closest("script, option")) continue;
        const layers = [];
        for (let e = element; e; e = e.parentElement) layers.unshift(getComputedStyle(e).backgroundColor);
        seen.push([text, mixed(layers), mixed([...layers, getComputedStyle(element).color])]);
    }
    return seen;
"""


def setUpModule():
    Page.driver = unittest.enterModuleContext(browser())


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
                read.append(
                    (
                        node["role"]["value"],
                        node.get("name", {}).get("value", "").strip(),
                        {p["name"]: p["value"].get("value") for p in node.get("properties", [])},
                    )
                )
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
        # In one piece: what wraps is read letter by letter.
        self.assertIn(
            "interrupted, upgrade failed", [name for role, name, _ in tree if role == "InlineTextBox"]
        )
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
        self.assertEqual(
            [name for role, name, _ in tree if role == "combobox"], ["Product", "Running version"]
        )
        self.assertEqual([name for role, name, _ in tree if role == "button" and not name.strip()], [])
        self.assertEqual([p["live"] for role, _, p in tree if role == "status"], ["polite"])
        expanded = [p["expanded"] for role, name, p in tree if role == "button" and name.startswith("rack-")]
        self.assertEqual(expanded, [False] * 6)
        self.assertEqual(
            [p.get("disabled") for role, _, p in tree if role == "button" and p.get("disabled")], []
        )

    def test_without_a_script_the_table_is_whole_and_controls_are_off(self):
        self.cdp("Emulation.setScriptExecutionDisabled", value=True)
        self.addCleanup(self.cdp, "Emulation.setScriptExecutionDisabled", value=False)
        self.show(*fleet())
        tree = self.tree()
        self.assertEqual(
            [name for role, name, _ in tree if role == "rowheader"][-6:],
            ["rack-1", "rack-2", "rack-3", "rack-10", "rack-11", "rack-12"],
        )
        words = [name for role, name, _ in tree if role == "StaticText"]
        self.assertEqual(words.count("staged"), 2 + 1 + 1)  # cards, a condition, a filter
        self.assertIn("Filters, search and sorting need JavaScript; the table is complete without it.", words)
        buttons = [p.get("disabled") for role, _, p in tree if role == "button"]
        self.assertEqual((len(buttons) > 15, set(buttons)), (True, {True}))


class Colours(Page):
    def luminance(self, colour):
        parts = [
            c / 12.92 if c <= 0.04045 else ((c + 0.055) / 1.055) ** 2.4 for c in (v / 255 for v in colour[:3])
        ]
        return 0.2126 * parts[0] + 0.7152 * parts[1] + 0.0722 * parts[2]

    def contrast(self, one, other):
        low, high = sorted((self.luminance(one), self.luminance(other)))
        return (high + 0.05) / (low + 0.05)

    def screenshot(self):
        return Image.open(io.BytesIO(self.driver.get_screenshot_as_png())).convert("RGB")

    def boxes(self, selector):
        """(text, left, top, width, height) of each element, in the window."""
        return self.js(
            "return [...document.querySelectorAll(arguments[0])].map((e) => {"
            "const b = e.getBoundingClientRect(); return [e.textContent, b.x, b.y, b.width, b.height]; })",
            selector,
        )

    def scheme(self, name):
        self.cdp("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": name}])

    def every_state(self):
        cards = [card(f"00:0{i}", state) for i, state in enumerate(fleet_hosts.STATES)]
        failed = card("01:00", "upgrade available")
        self.show(
            host("alpha", *cards, failed, run=run(upgraded("01:00", "failed", "write error"))),
            host("beta", status=None, reachable=False, error="timed out"),
        )

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
        for name in ("light", "dark"):
            self.scheme(name)
            self.every_state()
            self.face("staged").click()
            seen = self.js(TEXTS_AND_COLOURS)
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
                hues[text] = max(
                    colours,
                    key=lambda c: self.contrast(c, picture.getpixel((int(left + width) - 6, int(top) + 6))),
                )
                self.assertGreater(
                    self.contrast(hues[text], cell.getpixel((cell.width - 1, 1))), 3, (name, text, hues[text])
                )
            green, red = (
                next(hue for text, hue in hues.items() if text.endswith(state))
                for state in ("current", "unreadable")
            )
            self.assertTrue(green[1] > green[0] and green[1] > green[2], green)
            self.assertTrue(red[0] > red[1] and red[0] > red[2], red)

    def test_states_differ_without_colours(self):
        self.every_state()
        shapes = {}
        self.cdp("Emulation.setEmulatedVisionDeficiency", type="achromatopsia")
        self.addCleanup(self.cdp, "Emulation.setEmulatedVisionDeficiency", type="none")
        picture = self.screenshot().convert("L")
        marks = [(text, left, top + height / 2) for text, left, top, _, height in self.boxes("#fleet li")[:7]]
        marks += [
            (text, left, top + height / 2)
            for text, left, top, _, height in self.boxes(".chip[data-face^=un]")[:1]
        ]
        for text, left, middle in marks:
            cell = picture.crop((int(left), round(middle) - 8, int(left) + 16, round(middle) + 8))
            dark, light = cell.getextrema()
            self.assertGreater(light - dark, 60, text)
            shapes[text] = [value < (dark + light) / 2 for value in cell.getdata()]
        for (one, these), (other, those) in itertools.combinations(shapes.items(), 2):
            self.assertGreater(
                sum(a != b for a, b in zip(these, those)), 24, f"{one} and {other} look the same"
            )

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
            self.show(
                *fleet(), host("x" * 150, card("/dev/" + "v" * 150, serial="s" * 190, running="12345.12345"))
            )
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
        server = http.server.ThreadingHTTPServer(
            ("127.0.0.1", 0), functools.partial(Handler, directory=self.file.parent)
        )
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
        self.assertEqual(
            {re.sub(":[0-9]+/", "/", url) for url in urls} - {"http://127.0.0.1/favicon.ico"},
            {"http://127.0.0.1/fleet.html"},
        )
        self.assertEqual(set(asked) - {"/favicon.ico"}, {"/fleet.html"})

    def test_the_console_is_silent(self):
        self.driver.get_log("browser")
        self.show(*fleet())
        self.find("#h1 button").click()
        self.assertEqual(self.driver.get_log("browser"), [])

    def test_the_policy_refuses_other_scripts_styles_and_requests(self):
        text = page_of(*fleet())
        self.show(
            text=text.replace(
                "<main>",
                "<main><script>window.broken = 1</script><style>body { display: none }</style>"
                "<img src='data:,x' onerror='window.broken = 2'>",
            )
        )
        self.assertEqual(
            self.js("return [window.broken ?? 0, getComputedStyle(document.body).display]"), [0, "block"]
        )
        self.assertEqual(len(self.shown()), 6)
        refused = self.driver.execute_async_script(
            "const done = arguments[0];"
            "fetch('http://127.0.0.1:9/').then(() => done('sent'), (e) => done(e.name))"
        )
        self.assertEqual(refused, "TypeError")
        self.assertTrue(
            any(
                "Content Security Policy" in entry["message"] and "connect-src" in entry["message"]
                for entry in self.driver.get_log("browser")
            )
        )


if __name__ == "__main__":
    unittest.main()

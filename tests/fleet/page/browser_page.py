"""A page in a browser, for the tests that look at it. One browser serves a run of tests."""

import pathlib
import tempfile
import unittest

from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

from support import PATIENCE, card, host, page_of, run, upgraded


def fleet():
    """Hosts of which each does one thing."""
    failed = run(upgraded("00:00", "failed", "write error 131072"), exit_status=1, problem="one card failed")
    return [
        host(
            "rack-1",
            card("00:00", serial="PX100"),
            card("00:01", serial="PX101"),
            collected="2026-11-22T07:58:00Z",
            run=run(begun="2026-11-22T05:00:00Z"),
        ),
        host(
            "rack-2",
            card("00:00", "staged", serial="PX200"),
            card("00:01", "upgrade available", product="Lumo Quad SDI"),
        ),
        host("rack-3", card("00:00", "interrupted", reason="half an image", running="0.9"), run=failed),
        host(
            "rack-10",
            card("00:00", "staged", product="Lumo Quad SDI", running="2.0"),
            collected="2026-11-20T07:00:00Z",
        ),
        host("rack-11", status=None, reachable=False, error="ssh: timed out"),
        host(
            "rack-12",
            card("00:00", "no package"),
            card("00:01", "unknown"),
            card("01:00", "unreadable", running=None),
        ),
    ]


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
        self.cdp(
            "Emulation.setDeviceMetricsOverride",
            width=width,
            height=height,
            deviceScaleFactor=1,
            mobile=False,
        )

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
        return self.js(
            "return [...document.querySelectorAll('#fleet > tbody > tr:not(.details)')]"
            ".filter((row) => row.offsetHeight > 0).map((row) => row.cells[0].innerText.trim())"
        )

    def cards(self):
        """Cards that are shown and not dimmed, as HOST CARD."""
        return self.js(
            "return [...document.querySelectorAll('#fleet li:not(.out)')].filter((li) => li.offsetHeight > 0)"
            ".map((li) => li.closest('tr').cells[0].innerText.trim() + ' ' + li.firstChild.textContent)"
        )

    def told(self, text):
        self.wait(
            lambda: self.find("#matches").text == text, f"{self.find('#matches').text!r} instead of {text!r}"
        )

    def face(self, word):
        return self.find(f'.chip[data-face="{word}"]')

    def head(self, name):
        return next(
            h for h in self.driver.find_elements(By.CSS_SELECTOR, "#fleet > thead button") if h.text == name
        )

    def sorted_by(self):
        return self.js(
            "return [...document.querySelectorAll('#fleet th[aria-sort]')].map((th) => "
            "[th.innerText.trim(), th.ariaSort])"
        )

"""What the tests of the page share: host files by parts, pages, and a browser that leaves nothing behind."""

import contextlib
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

TREE = pathlib.Path(__file__).resolve().parents[3]
COMMAND = TREE / "fleet/bin/qvcap-fleet-report"
sys.path.insert(0, str(TREE / "fleet/plugins"))
sys.path.insert(0, str(pathlib.Path(__file__).parent))

PATIENCE = 60  # seconds, for a condition; nothing waits for its end
NOW = 1795334400  # 2026-11-22 08:00 UTC
CHROMIUM, DRIVER = "/usr/bin/chromium", "/usr/bin/chromedriver"


def image(content="blank", version=None):
    return {"content": content, "version": version, "compatibility": None, "differences": []}


def card(name="00:00", state="current", **members):
    """A card of a status."""
    return {
        "card": name,
        "path": "/dev/video0",
        "paths": ["/dev/video0"],
        "board": 0,
        "channel": 0,
        "family": "Pelix Capture",
        "product": "Pelix Duo HDMI",
        "serial": "PX1",
        "product_code": 257,
        "hardware": 65,
        "running": "1.0",
        "main": image("complete", "1.1"),
        "safe": image(),
        "package": {"name": "duo.qvf", "version": "1.1", "compatibility": 1},
        "state": state,
        "reason": "",
    } | members


def upgraded(name="00:00", result="done", reason="", **members):
    """A card of an upgrade's report."""
    return {
        "card": name,
        "path": "/dev/video0",
        "product": "Pelix Duo HDMI",
        "serial": "PX1",
        "from": "1.0",
        "to": "1.1",
        "package": "duo.qvf",
        "sha256": "",
        "state": "staged",
        "result": result,
        "reason": reason,
        "attempts": 1,
        "tool_result": "success",
        "tool_message": "",
        "tool_output": "",
    } | members


def status(*cards, unreadable=()):
    return {
        "schema": "qvcap-status",
        "version": 1,
        "headers_only": False,
        "packages": {
            "folder": "/srv",
            "readable": 1,
            "unreadable": [{"name": n, "reason": r} for n, r in unreadable],
        },
        "cards": list(cards),
        "summary": {},
    }


def run(*cards, **members):
    return {
        "run": "night-1",
        "begun": "2026-11-22T06:00:00Z",
        "active": False,
        "exit_status": 0,
        "problem": None,
        "cards": list(cards),
    } | members


def host(name="alpha", *cards, **members):
    return {
        "schema": "qvcapture.fleet.host",
        "version": 1,
        "host": name,
        "collected": "2026-11-22T07:30:00Z",
        "reachable": True,
        "error": None,
        "status": status(*cards),
        "run": None,
    } | members


def write(folder, *hosts):
    """The files of these hosts; names of files are numbers, so that names of hosts may be anything."""
    for number, document in enumerate(hosts):
        (pathlib.Path(folder) / f"{number:05}.json").write_text(json.dumps(document), encoding="utf-8")


def make_page(folder, now=NOW):
    """What the command prints for the folder."""
    made = subprocess.run(
        [COMMAND, folder],
        capture_output=True,
        check=True,
        timeout=300,
        env=os.environ | {"SOURCE_DATE_EPOCH": str(now)},
    )
    assert made.stderr == b"", made.stderr
    return made.stdout.decode("utf-8")


def page_of(*documents):
    """The page for these hosts, from the library."""
    from plugin_utils import hosts, page

    with tempfile.TemporaryDirectory() as folder:
        write(folder, *documents)
        fleet, left_out = hosts.read_fleet(folder)
    return page.render(fleet, NOW, left_out)


def of_profile(profile):
    """The processes that were started with this profile."""
    for entry in pathlib.Path("/proc").iterdir():
        with contextlib.suppress(OSError):
            if entry.name.isdecimal() and profile.encode() in (entry / "cmdline").read_bytes():
                yield int(entry.name)


@contextlib.contextmanager
def browser():
    """A Chromium without a window and with an empty profile. None of its processes is left behind."""
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    profile = tempfile.mkdtemp(prefix="fleet-page-")
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for argument in (
        "headless=new",
        "no-sandbox",
        "disable-gpu",
        "disable-quic",
        "no-first-run",
        "hide-scrollbars",
        "disable-background-networking",
        "disable-component-update",
        "disable-sync",
        "force-color-profile=srgb",
        f"user-data-dir={profile}",
    ):
        options.add_argument(f"--{argument}")
    options.set_capability("goog:loggingPrefs", {"performance": "ALL", "browser": "ALL"})
    try:
        driver = webdriver.Chrome(service=Service(DRIVER), options=options)
        try:
            driver.set_script_timeout(PATIENCE)
            yield driver
        finally:
            driver.quit()
    finally:
        for _ in range(100):
            if not list(of_profile(profile)):
                break
            time.sleep(0.1)
        for process in of_profile(profile):
            with contextlib.suppress(ProcessLookupError):
                os.kill(process, 9)
        shutil.rmtree(profile, ignore_errors=True)

#!/usr/bin/python3
"""A fleet of any size as host files: always the same one, with every state and every kind of trouble.

  sample.py DIR HOSTS CARDS [NOW]
"""

import datetime
import json
import pathlib
import random
import sys

PRODUCTS = [
    ("Pelix Duo HDMI", "Pelix Capture", "pelix-duo-hdmi", "2.4"),
    ("Pelix Quad SDI", "Pelix Capture", "pelix-quad-sdi", "1.9"),
    ("Lumo Quad SDI", "Lumo Capture", "lumo-quad-sdi", "3.1"),
]
STATES = (
    ["current"] * 70
    + ["staged"] * 12
    + ["upgrade available"] * 12
    + ["no package"] * 3
    + ["interrupted", "unknown", "unreadable"]
)
REASONS = {
    "interrupted": "its main image is unfinished",
    "unknown": "the main image is no package that is known here",
    "unreadable": "the flash cannot be read at offset 65536: Input/output error",
    "no package": "no package has its product code",
}
SITES = ["north", "south", "studio", "archive"]
NOW = 1795334400  # 2026-11-22 08:00 UTC


def utc(moment):
    return datetime.datetime.fromtimestamp(moment, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


def image(content, version):
    return {
        "content": content,
        "version": version,
        "compatibility": 1 if version else None,
        "differences": [],
    }


def card(rng, number, host, channel):
    product, family, package, newest = PRODUCTS[(number + channel // 4) % len(PRODUCTS)]
    state = rng.choice(STATES)
    older = newest[:-1] + str(int(newest[-1]) - 1)
    running = newest if state == "current" else older
    main = {
        "current": image("complete", newest),
        "staged": image("complete", newest),
        "interrupted": image("partial", newest),
    }
    board = channel // 2
    return {
        "card": f"{board:02}:{channel % 2:02}",
        "path": f"/dev/video{channel}",
        "paths": [f"/dev/video{channel}"],
        "board": board,
        "channel": channel % 2,
        "family": family,
        "product": product,
        "serial": f"{product[0]}X{number:05}{board}",
        "product_code": 257,
        "hardware": 65,
        "running": None if state == "unreadable" else running,
        "main": main.get(state, image("other", older)),
        "safe": image("blank", None),
        "package": None
        if state == "no package"
        else {"name": f"{package}-{newest}.qvf", "version": newest, "compatibility": 1},
        "state": state,
        "reason": REASONS.get(state, ""),
    }


def report(rng, cards, begun):
    done = []
    for each in cards:
        result, reason = {
            "staged": ("done", ""),
            "current": ("left", ""),
            "no package": ("skipped", REASONS["no package"]),
        }.get(each["state"], ("not begun", ""))
        if each["state"] in ("interrupted", "unreadable"):
            result, reason = "failed", "write error 131072"
        if each["state"] == "upgrade available" and rng.random() < 0.3:
            result, reason = "busy", "process 4711 (recorder) has /dev/video0 open"
        done.append(
            {
                "card": each["card"],
                "path": each["path"],
                "product": each["product"],
                "serial": each["serial"],
                "from": each["running"] or "",
                "to": (each["package"] or {}).get("version", ""),
                "package": (each["package"] or {}).get("name", ""),
                "sha256": "",
                "state": each["state"],
                "result": result,
                "reason": reason,
                "attempts": 1,
                "tool_result": "no result",
                "tool_message": "",
                "tool_output": "",
            }
        )
    results = [each["result"] for each in done]
    status = 1 if "failed" in results else 5 if "busy" in results else 0 if "done" in results else 2
    problem = {1: "a card failed", 5: "a card is in use"}.get(status)
    return {
        "run": utc(begun).replace(":", ""),
        "begun": utc(begun),
        "active": False,
        "exit_status": status,
        "problem": problem,
        "cards": done,
    }


def host(number, hosts, cards, now=NOW):
    """One host's document; some hosts are unreachable, some have no upgrade behind them."""
    rng = random.Random(number)
    name = f"{SITES[number * len(SITES) // hosts]}-{number + 1:0{len(str(hosts))}}"
    collected = now - rng.choice([120, 240, 600, 3000, 9000]) - (200000 if number % 29 == 11 else 0)
    document = {
        "schema": "qvcapture.fleet.host",
        "version": 1,
        "host": name,
        "collected": utc(collected),
        "reachable": True,
        "error": None,
        "status": None,
        "run": None,
    }
    if number % 23 == 7:
        return dict(document, reachable=False, error="ssh: connect to host port 22: Connection timed out")
    mine = [card(rng, number, name, channel) for channel in range(cards)]
    document["status"] = {
        "schema": "qvcap-status",
        "version": 1,
        "headers_only": False,
        "packages": {"folder": "/srv/firmware", "readable": 3, "unreadable": []},
        "cards": mine,
        "summary": {state: sum(each["state"] == state for each in mine) for state in sorted(set(STATES))},
    }
    if number % 5 != 4:
        document["run"] = report(rng, mine, collected - 5400)
    return document


def write(folder, hosts, cards, now=NOW):
    folder = pathlib.Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    for number in range(hosts):
        document = host(number, hosts, cards, now)
        (folder / f"{document['host']}.json").write_text(json.dumps(document), encoding="utf-8")


if __name__ == "__main__":
    write(sys.argv[1], *map(int, sys.argv[2:]))

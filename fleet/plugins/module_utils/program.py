"""The program qvcap on this host: its exit statuses, its JSON, and what to tell of it.

It reads what the program printed and decides nothing about a flash. No state.
"""
from __future__ import annotations

import json
import os

DONE = 0
FAILED = 1
NOTHING_TO_DO = 2
NO_CARD = 3
BUSY = 5

STATE_DIR = "/var/lib/qvcap-fleet"


class Problem(Exception):
    """What went wrong, as one sentence for people."""


def find_program(module):
    """The path of qvcap, even if it is not on the PATH of a user."""
    given = module.params["program"]
    if os.sep in given:
        return given
    return module.get_bin_path(given, required=True)


def ask(module, *arguments):
    """Runs `qvcap ARGUMENTS --json` and returns its status and the one object that it printed."""
    command = [find_program(module), *arguments, "--json"]
    status, out, errors = module.run_command(command, handle_exceptions=False)
    try:
        answer = json.loads(out)
    except ValueError:
        answer = None
    if not isinstance(answer, dict):
        said = errors.strip().splitlines()
        raise Problem(f"{' '.join(command)} ended with status {status}"
                      f"{': ' + said[-1] if said else ' and no answer'}")
    return status, answer


def parse_events(text):
    """The objects of `qvcap upgrade --json`, one per line; ignores a last line that was cut off."""
    events = []
    for line in text.splitlines():
        try:
            event = json.loads(line)
        except ValueError:
            continue
        if isinstance(event, dict) and isinstance(event.get("event"), str):
            events.append(event)
    return events


def of_kind(events, *kinds):
    return [event for event in events if event["event"] in kinds]


def closing_cards(events):
    """The cards of all final reports."""
    return [card for end in of_kind(events, "end") for card in end.get("cards", [])]


def was_written(card, events):
    """Whether the flash of a card of the final report may hold other bytes than before."""
    if card["result"] == "done":
        return True
    mine = [event for event in events if event.get("card") == card["card"]]
    if not of_kind(mine, "card-begin"):
        return False
    for event in of_kind(mine, "stage", "progress"):
        if event["stage"] in ("writing", "verifying") or (event["stage"] == "erasing" and event["percent"] > 0):
            return True
    # The tool prints a percentage only when it changes: an erase may have begun without one. A flash that
    # was complete before and is judged the same now was not changed.
    before = [event["state"] for event in of_kind(mine, "plan")]
    return card["state"] in ("interrupted", "unreadable") or [card["state"]] != before[-1:]


def name_of(card):
    return f"{card['card']} ({card['product'] or 'unknown product'}, serial {card['serial'] or 'unknown'})"


def failures(cards):
    """A sentence for each card that did not get what it needed, with the log of the tool."""
    lines = []
    for card in cards:
        if card["result"] not in ("failed", "refused", "busy", "not begun"):
            continue
        line = f"{name_of(card)} {card['result']}: {card['reason'] or 'no reason was given'}"
        if card.get("tool_output"):
            line += f"; log: {card['tool_output']}"
        lines.append(line)
    return lines


def version_table(cards, version_key):
    """Lines of cards and versions for diff mode."""
    rows = [f"{card['card']} {card['product']} {card['serial']}: {card[version_key] or 'no package'}"
            for card in sorted(cards, key=lambda card: card["card"])]
    return "".join(row + "\n" for row in rows)

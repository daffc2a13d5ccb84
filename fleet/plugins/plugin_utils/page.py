"""One page of HTML that shows a fleet: a table of hosts, and the same cards as data for its script.

Pure: hosts in, text out. Texts of hosts are already harmless to a screen (see hosts.py); here they are kept
from being markup, by the template engine's own rule in the table and by escapes in the data.
"""

from __future__ import annotations

import base64
import collections
import dataclasses
import datetime
import hashlib
import json
import os

import jinja2
import markupsafe

from . import hosts as fleet_hosts

PARTS = os.path.join(os.path.dirname(__file__), "page_parts")
TITLE = "Capture cards"
OLD_AFTER = 24 * 3600  # seconds; older data has a mark

# What a card or a host can be shown as: word, class in the page, and what a reader should do about it. From
# worst to best, which is the order of the page's filters and of sorting.
FACES = (
    ("unusable file", "hf", "the host's file could not be used"),
    ("unreachable", "hu", "the host did not answer"),
    ("no status", "hs", "the host answered, and its cards are not known"),
    ("upgrade failed", "fx", "the last upgrade failed, was refused, or found the card busy"),
    ("unreadable", "sx", "the flash could not be read"),
    ("interrupted", "si", "an upgrade has not ended; run it again"),
    ("unknown", "sq", "none of what is in the flash is known"),
    ("upgrade available", "su", "a newer package fits"),
    ("staged", "ss", "written; turn the power off and on"),
    ("no package", "sn", "no package fits"),
    ("current", "sc", "runs what its package has"),
)
CLASSES = {word: css for word, css, _ in FACES}
RANK = {word: rank for rank, (word, _, _) in enumerate(FACES)}
BAD_STATES = ("unreadable", "interrupted", "unknown")
# The fields of a card in the page's data, in this order.
CARD_FIELDS = tuple(field.name for field in dataclasses.fields(fleet_hosts.Card))


@dataclasses.dataclass
class Failure:
    """The same trouble at one or many places: [(host's number, host, cards)]."""

    what: str
    reason: str
    places: list[tuple[int, str, list[str]]]

    @property
    def count(self):
        return sum(max(1, len(cards)) for _, _, cards in self.places)


def age(seconds):
    """How long ago that was, as a readable text."""
    if seconds < 60:
        return "just now"
    for unit, length in (("d", 86400), ("h", 3600), ("min", 60)):
        if seconds >= length:
            return f"{seconds // length} {unit} ago"
    raise AssertionError


def utc(moment):
    return datetime.datetime.fromtimestamp(moment, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


def face(host):
    """The condition shown for a host: its own problem, or the worst of its cards; "" without cards."""
    words = ["upgrade failed" if card.failed else card.state for card in host.cards]
    return host.condition or min(words, key=RANK.get, default="")


def troubles(host):
    """(what, reason, card or "") of every problem of a host."""
    if host.condition or host.error:
        yield host.condition or "host", host.error or "no reason was given", ""
    if host.run and host.run.problem and not any(card.failed for card in host.cards):
        yield "upgrade", host.run.problem, ""
    for name, reason in host.bad_packages:
        yield "package", f"{name}: {reason}", ""
    for card in host.cards:
        if card.failed:
            yield f"upgrade {card.result}", card.result_reason or "no reason was given", card.card
        if card.state in BAD_STATES and not (card.failed and card.reason == card.result_reason):
            yield card.state, card.reason or "no reason was given", card.card


def failures(hosts):
    """All troubles, those with the same reason together; the most frequent first."""
    places = {}
    for number, host in enumerate(hosts):
        for what, reason, card in troubles(host):
            cards = places.setdefault((what, reason), {}).setdefault(number, [])
            if card:
                cards.append(card)
    found = [
        Failure(what, reason, [(number, hosts[number].name, cards) for number, cards in at.items()])
        for (what, reason), at in places.items()
    ]
    return sorted(found, key=lambda failure: (-failure.count, failure.what, failure.reason))


def power_cycles(hosts):
    """(number, host, cards) of hosts with firmware that waits for a power cycle."""
    for number, host in enumerate(hosts):
        cards = [card for card in host.cards if card.state == "staged"]
        if cards:
            yield number, host, cards


def totals(hosts, now):
    """The figures of the page's head, which the Ansible module returns as well."""
    cards = [card for host in hosts for card in host.cards]
    states = collections.Counter(card.state for card in cards)
    return {
        "hosts": len(hosts),
        "cards": len(cards),
        "states": {state: states[state] for state in fleet_hosts.STATES},
        "unreachable": sum(host.condition == "unreachable" for host in hosts),
        "no_status": sum(host.condition == "no status" for host in hosts),
        "unusable_files": sum(host.condition == "unusable file" for host in hosts),
        "upgrade_failed": sum(card.failed for card in cards),
        "power_cycle": sum(any(card.state == "staged" for card in host.cards) for host in hosts),
        "old": sum(host.collected is not None and now - host.collected > OLD_AFTER for host in hosts),
    }


def data(hosts, now):
    """The hosts for the page's script. A text that comes more than once is a number: its place in `texts`."""
    rows = [
        [
            host.name,
            host.condition,
            host.error,
            host.collected,
            list(dataclasses.astuple(host.run)) if host.run else None,
            [[getattr(card, field) for field in CARD_FIELDS] for card in host.cards],
        ]
        for host in hosts
    ]
    counts = collections.Counter(text for row in rows for card in row[5] for text in card)
    texts = [text for text, count in counts.most_common() if count > 1]
    number = {text: place for place, text in enumerate(texts)}
    for row in rows:
        row[5] = [[number.get(text, text) for text in card] for card in row[5]]
    faces = [[word, css] for word, css, _ in FACES]
    return {
        "made": now,
        "old": OLD_AFTER,
        "faces": faces,
        "fields": CARD_FIELDS,
        "texts": texts,
        "hosts": rows,
    }


def undata(document):
    """The way back: (name, condition, error, collected, run, [Card]) for each host."""
    texts = document["texts"]
    for name, condition, error, collected, run, cards in document["hosts"]:
        yield name, condition, error, collected, run and fleet_hosts.Run(*run), [
            fleet_hosts.Card(*(texts[field] if isinstance(field, int) else field for field in card))
            for card in cards
        ]


def script_json(document):
    """JSON that cannot end the element it is in, nor begin another."""
    text = json.dumps(document, ensure_ascii=False, separators=(",", ":"))
    for character in "<>&":
        text = text.replace(character, f"\\u{ord(character):04x}")
    return markupsafe.Markup(text)


def part(name):
    with open(os.path.join(PARTS, name), encoding="utf-8") as file:
        return file.read().strip()


def policy(style, script):
    """The browser's policy for the page: it may use these two, and nothing else from anywhere."""
    own = [base64.b64encode(hashlib.sha256(text.encode()).digest()).decode() for text in (style, script)]
    return (
        f"default-src 'none'; script-src 'sha256-{own[1]}'; style-src 'sha256-{own[0]}'; "
        "base-uri 'none'; form-action 'none'"
    )


def fingerprint(hosts, now, left_out=0, title=TITLE):
    """Equal for pages that show the same, whenever they were made."""
    known = json.dumps([[dataclasses.asdict(host) for host in hosts], totals(hosts, now), left_out, title])
    parts = "".join(part(name) for name in ("page.html.j2", "page.css", "page.js"))
    return hashlib.sha256((known + parts).encode()).hexdigest()


def arrow(card):
    """The version that a card runs, and the one that it could."""
    waits = (
        card.package
        and card.package != card.running
        and card.state in ("upgrade available", "staged", "interrupted")
    )
    return f"{card.running}→{card.package}" if waits else card.running


def counted(texts):
    """[(text, how often)] for a menu; the empty text is not offered."""
    return sorted((text, count) for text, count in collections.Counter(texts).items() if text)


def version_order(entry):
    return [int(number) if number.isdecimal() else 0 for number in entry[0].split(".")]


def render(hosts, now, left_out=0, title=TITLE):
    """The page as text. `now` is in seconds since 1970; `left_out` counts files that were too many."""
    engine = jinja2.Environment(
        loader=jinja2.FileSystemLoader(PARTS),
        autoescape=True,
        undefined=jinja2.StrictUndefined,
        trim_blocks=True,
        lstrip_blocks=True,
    )
    style, script = part("page.css"), part("page.js")
    cards = [card for host in hosts for card in host.cards]
    figures = totals(hosts, now)
    troubled = failures(hosts)
    counts = collections.Counter(host.condition for host in hosts)
    counts.update(figures["states"], **{"upgrade failed": figures["upgrade_failed"]})
    return engine.get_template("page.html.j2").render(
        title=title,
        now=now,
        hosts=hosts,
        left_out=left_out,
        figures=figures,
        faces=[(word, css, hint, counts[word]) for word, css, hint in FACES],
        failures=troubled,
        failed=sum(failure.count for failure in troubled),
        power_cycles=list(power_cycles(hosts)),
        products=counted(card.product for card in cards),
        versions=sorted(counted(card.running for card in cards), key=version_order),
        classes=CLASSES,
        old_after=OLD_AFTER,
        data=script_json(data(hosts, now)),
        style=markupsafe.Markup(style),
        script=markupsafe.Markup(script),
        policy=policy(style, script),
        fingerprint=fingerprint(hosts, now, left_out, title),
        age=age,
        utc=utc,
        face=face,
        arrow=arrow,
    )

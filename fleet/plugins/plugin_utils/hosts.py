"""What the files of a fleet say: one file for each host, read into plain objects.

Everything in a file is untrusted. A file that cannot be used becomes a host with the reason in its place, so
that a page always shows every file. Texts come out bounded and free of what could steer a reader's screen.
"""

from __future__ import annotations

import dataclasses
import datetime
import json
import os
import re
import stat
import unicodedata

# Sizes, in bytes, files, cards and characters. A host of 64 cards needs a tenth of the bytes.
LARGEST_FILE = 4 << 20
MOST_FILES = 10000
MOST_CARDS = 256
LONGEST_NAME = 200
LONGEST_REASON = 1000

STATES = ("current", "upgrade available", "staged", "interrupted", "no package", "unknown", "unreadable")
# What an upgrade did with a card. The first three are failures.
RESULTS = ("failed", "refused", "busy", "done", "left", "skipped", "planned", "not begun")
FAILED_RESULTS = RESULTS[:3]
ENDINGS = {
    0: "done",
    1: "failed",
    2: "nothing to do",
    3: "no card",
    5: "busy",
}  # exit statuses of qvcap upgrade
LONGEST_WORD = 30
CONTENTS = ("not read", "blank", "damaged", "other", "header only", "partial", "complete")
TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d{1,9})?(Z|\+00:00)", re.ASCII)


class Unusable(Exception):
    """The reason why a file, or a part of it, cannot be used."""


@dataclasses.dataclass
class Card:
    """One flash. Texts are empty where nothing was said."""

    card: str
    state: str
    path: str = ""
    product: str = ""
    serial: str = ""
    running: str = ""
    main: str = ""
    safe: str = ""
    package: str = ""
    package_name: str = ""
    reason: str = ""
    result: str = ""  # of the last upgrade
    result_reason: str = ""

    @property
    def failed(self):
        return self.result in FAILED_RESULTS


@dataclasses.dataclass
class Run:
    """The last upgrade of a host."""

    name: str
    begun: int  # seconds since 1970
    ending: str  # in a word or two
    problem: str  # why it did not end well; empty when it did


@dataclasses.dataclass
class Host:
    """One file. The condition is "" for a host whose cards are known."""

    name: str
    file: str
    condition: str = ""  # "unreachable", "no status", "unusable file"
    collected: int | None = None  # seconds since 1970
    error: str = ""
    run: Run | None = None
    cards: list[Card] = dataclasses.field(default_factory=list)
    bad_packages: list[tuple[str, str]] = dataclasses.field(default_factory=list)


def harmless(character):
    """Whether a character is displayed in place and affects nothing else."""
    return unicodedata.category(character) not in ("Cc", "Cf", "Cs", "Cn", "Co", "Zl", "Zp")


def shown(text, longest):
    """The text with controls, marks of direction and the like as "\\x1b"; cut where it is too long."""
    text = text if len(text) <= longest else text[: longest - 1] + "…"
    if text.isascii() and text.isprintable():
        return text
    return "".join(
        c if harmless(c) else "".join(f"\\x{byte:02x}" for byte in c.encode("utf-8", "surrogatepass"))
        for c in text
    )


class Reader:
    """The members of a JSON object, with the place for messages."""

    def __init__(self, value, place):
        if not isinstance(value, dict):
            raise Unusable(f"{place} is not an object")
        self.value, self.place = value, place

    def wrong(self, key, what):
        return Unusable(f"{self.place}.{key} {what}" if self.place else f"{key} {what}")

    def get(self, key, kinds, what):
        if key not in self.value:
            raise self.wrong(key, "is missing")
        found = self.value[key]
        # In Python a bool is an int, but not in JSON.
        if not isinstance(found, kinds) or (isinstance(found, bool) and kinds is int):
            raise self.wrong(key, f"is not {what}")
        return found

    def text(self, key, longest=LONGEST_NAME):
        return shown(self.get(key, str, "a text"), longest)

    def text_or_null(self, key, longest=LONGEST_NAME):
        return shown(self.get(key, (str, type(None)), "a text or null") or "", longest)

    def name(self, key):
        if text := self.text(key):
            return text
        raise self.wrong(key, "is empty")

    def choice(self, key, choices):
        text = self.text(key)
        if text not in choices:
            raise self.wrong(key, f"is {text!r}, which is none of: {', '.join(choices)}")
        return text

    def time(self, key):
        text = self.text(key)
        if not TIME.fullmatch(text):
            raise self.wrong(key, f"is no time such as 2026-01-31T08:00:00Z: {text}")
        try:
            moment = datetime.datetime.fromisoformat(text[:19]).replace(tzinfo=datetime.timezone.utc)
        except ValueError:
            raise self.wrong(key, f"is no time of this calendar: {text}") from None
        return int(moment.timestamp())

    def part(self, key):
        return Reader(self.get(key, dict, "an object"), f"{self.place}.{key}" if self.place else key)

    def part_or_null(self, key):
        return None if self.get(key, (dict, type(None)), "an object or null") is None else self.part(key)

    def parts(self, key, most=MOST_CARDS):
        found = self.get(key, list, "a list")
        if len(found) > most:
            raise self.wrong(key, f"has {len(found)} entries, more than {most}")
        return [Reader(entry, f"{self.place}.{key}[{i}]") for i, entry in enumerate(found)]


def image_text(image):
    """In the words of `qvcap status`."""
    content, version = image.choice("content", CONTENTS), image.text_or_null("version")
    if not version:
        return content
    return version if content == "other" else f"{version} {content}"


def identity(entry, text):
    """What an entry of the status and one of a report have in common; `text` reads what may be null in one."""
    return {
        "card": entry.name("card"),
        "state": entry.choice("state", STATES),
        "path": entry.text("path"),
        "product": text("product"),
        "serial": text("serial"),
    }


def status_card(entry):
    package = entry.part_or_null("package")
    return Card(
        **identity(entry, entry.text_or_null),
        running=entry.text_or_null("running"),
        main=image_text(entry.part("main")),
        safe=image_text(entry.part("safe")),
        package=package.text("version") if package else "",
        package_name=package.text("name") if package else "",
        reason=entry.text("reason", LONGEST_REASON),
    )


def run_card(entry):
    """A card of an upgrade's report, in case the status has no card of that name."""
    return Card(
        **identity(entry, entry.text),
        running=entry.text("from"),
        package=entry.text("to"),
        package_name=entry.text("package"),
        result=entry.choice("result", RESULTS),
        result_reason=entry.text("reason", LONGEST_REASON),
    )


def run_of(entry):
    status = entry.get("exit_status", (int, type(None)), "a number or null")
    if entry.get("active", bool, "true or false"):
        ending = "at work"
    else:
        ending = "killed" if status is None else ENDINGS.get(status, f"exit status {status}"[:LONGEST_WORD])
    return Run(entry.name("run"), entry.time("begun"), ending, entry.text_or_null("problem", LONGEST_REASON))


def join(cards, upgraded):
    """Each card of the status with its result of the upgrade; then those that only the upgrade knows."""
    waiting = {}
    for card in cards:
        waiting.setdefault((card.card, card.path), []).append(card)
        waiting.setdefault(card.card, []).append(card)
    taken = set()
    alone = []
    for done in upgraded:
        both = waiting.get((done.card, done.path), []) + waiting.get(done.card, [])
        card = next((card for card in both if id(card) not in taken), None)
        if card is None:
            alone.append(done)
            continue
        taken.add(id(card))
        card.result, card.result_reason = done.result, done.result_reason
    return cards + alone


def check_schema(reader, name, whose):
    if reader.value.get("schema") != name:
        raise Unusable(f"{whose} is not of the schema {name}")
    if reader.get("version", int, "a number") != 1:
        raise Unusable(f"{whose} is of version {reader.value['version']} of {name}; only version 1 is known")


def fill(host, document):
    """Copies the document into the host; may raise Unusable half-way."""
    whole = Reader(document, "")
    check_schema(whole, "qvcapture.fleet.host", "the file")
    host.name = whole.name("host")
    host.collected = whole.time("collected")
    reachable = whole.get("reachable", bool, "true or false")
    host.error = whole.text_or_null("error", LONGEST_REASON)
    status, run = whole.part_or_null("status"), whole.part_or_null("run")
    cards, upgraded = [], []
    if status:
        check_schema(status, "qvcap-status", "its status")
        cards = [status_card(entry) for entry in status.parts("cards")]
        packages = status.part("packages").parts("unreadable")
        host.bad_packages = [(p.text("name"), p.text("reason", LONGEST_REASON)) for p in packages]
    if run:
        host.run = run_of(run)
        upgraded = [run_card(entry) for entry in run.parts("cards")]
    host.cards = join(cards, upgraded)
    host.condition = "unreachable" if not reachable else "" if status else "no status"


def read_bounded(folder, name):
    """The bytes of a regular file; never waits for others, follows links or reads without a limit."""
    path = os.path.join(folder, name)
    if not stat.S_ISREG(os.lstat(path).st_mode):
        raise Unusable("it is not a regular file")
    # It may have been replaced since.
    descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_NOFOLLOW | os.O_CLOEXEC)
    with open(descriptor, "rb") as file:
        data = file.read(LARGEST_FILE + 1)
    if len(data) > LARGEST_FILE:
        raise Unusable(f"it is larger than {LARGEST_FILE >> 20} MiB")
    return data


def parse(data):
    try:
        return json.loads(data.decode("utf-8"))
    except UnicodeDecodeError as error:
        raise Unusable(f"it is not UTF-8 at byte {error.start}") from None
    except RecursionError:
        raise Unusable("its JSON is nested too deeply") from None
    except ValueError as error:
        raise Unusable(f"it is not JSON: {error}") from None


def read_host(folder, name):
    """The host of one file, whatever its contents."""
    host = Host(name=shown(name.removesuffix(".json"), LONGEST_NAME), file=shown(name, LONGEST_NAME))
    try:
        fill(host, parse(read_bounded(folder, name)))
    except (Unusable, OSError) as error:
        reason = error.strerror or str(error) if isinstance(error, OSError) else str(error)
        host.condition, host.error = "unusable file", shown(f"{name}: {reason}", LONGEST_REASON)
        host.cards, host.run, host.bad_packages = [], None, []
    return host


def natural(host):
    """An order of names in which host2 comes before host10."""
    return [
        (0, int(run), "") if run.isdecimal() else (1, 0, run)
        for run in re.split(r"([0-9]+)", host.name.casefold())
    ]


def read_fleet(folder):
    """All hosts of a folder in the order of their names, and how many files were too many.

    Names that begin with a dot are left out, as are those without .json: a file that is being written has
    such a name. Raises OSError when the folder itself cannot be read.
    """
    names = sorted(n for n in os.listdir(folder) if n.endswith(".json") and not n.startswith("."))
    hosts, seen = [], {}
    for name in names[:MOST_FILES]:
        host = read_host(folder, name)
        if host.name in seen and host.condition != "unusable file":
            twin = shown(f"{name}: {seen[host.name]} speaks for {host.name}, too", LONGEST_REASON)
            host = Host(
                name=host.file.removesuffix(".json"), file=host.file, condition="unusable file", error=twin
            )
        seen.setdefault(host.name, host.file)
        hosts.append(host)
    return sorted(hosts, key=natural), max(0, len(names) - MOST_FILES)

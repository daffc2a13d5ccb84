#!/usr/bin/python
"""Brings capture cards to the firmware of a folder of packages."""
from __future__ import annotations

DOCUMENTATION = r"""
module: qvcap_firmware
short_description: Bring capture cards to the firmware of a folder of packages
version_added: 3.3.0
description:
  - Copies packages from the controller to the host, with check sums, and keeps them there; then C(qvcap upgrade)
    brings the cards to them and reads back what was written.
  - C(changed) exactly when a flash was written. A card that is current, or staged, is left alone and C(ok).
  - The upgrade runs in a session of its own. It goes on when the connection or the controller goes away; whoever
    asks for the same meanwhile waits for it and gets its result.
  - With another request at work, or another program at a card, it fails and does nothing.
options:
  src:
    description: Folder on the controller with the packages. Files without C(.qvf) in the name are left out.
    type: path
  restore:
    description:
      - Name of a run whose backups go back onto the cards that it wrote, or V(latest) for the newest upgrade.
      - A card that holds its backup already is left alone.
    type: str
  cards:
    description:
      - V(all), or boards and cards by number (V(0), V(0:1)) or node (V(/dev/video0)).
    type: list
    elements: str
    default: [all]
  force:
    description: Write cards that are current or newer, too. A staged card is never written again.
    type: bool
    default: false
  backup:
    description: Save what is in the flash of each card before its first erase. Without room nothing is written.
    type: bool
    default: true
  power_off:
    description:
      - V(when_done) turns the host off after complete success, when a card waits for that. The host is off some
        seconds after the result has arrived.
    type: str
    choices: [never, when_done]
    default: never
  wait:
    description: Wait for another run, or for another qvcap, to end instead of failing.
    type: bool
    default: false
  jobs:
    description: So many boards at once.
    type: int
    default: 1
  stalled_after:
    description: After so many seconds without progress of a card, qvcap says so in its output.
    type: int
    default: 60
  program:
    description: Name or path of qvcap on the host.
    type: str
    default: qvcap
  state:
    description: Folder on the host for packages, runs and backups.
    type: path
    default: /var/lib/qvcap-fleet
attributes:
  check_mode:
    description: Shows what would be written, and writes nothing.
    support: full
  diff_mode:
    description: A table of cards with their versions before and after.
    support: full
  async:
    description: For flashes that take long. Neither its end nor its limit of time ends the upgrade.
    support: full
notes:
  - One of O(src) and O(restore) is needed.
  - qvcap upgrade itself and qvcap-upgrade are described by their manual pages.
author:
  - The qvcapture maintainers (@qvcapture)
"""

EXAMPLES = r"""
- name: Bring all cards to these packages
  qvcapture.fleet.qvcap_firmware:
    src: firmware/2026-11
  async: 86400
  poll: 15

- name: Put back what the last upgrade replaced
  qvcapture.fleet.qvcap_firmware:
    restore: latest
"""

RETURN = r"""
run:
  description: Name of the run, for O(restore); empty when no card was begun.
  returned: always
  type: str
joined:
  description: Whether the run was at work already and was waited for.
  returned: always
  type: bool
cards:
  description: A result for each card, as in the closing report of C(qvcap upgrade --json).
  returned: always
  type: list
  elements: dict
written:
  description: Names of the cards whose flash was written, or in check mode would be.
  returned: always
  type: list
  elements: str
staged:
  description: Names of the cards that wait for the host to be turned off and on.
  returned: always
  type: list
  elements: str
exit_status:
  description: Of qvcap upgrade; null when it was killed.
  returned: always
  type: int
packages:
  description: Folder on the host with the packages.
  returned: with O(src)
  type: str
power:
  description: C(off) when the host is about to be turned off, C(awaited) when a card waits for that, or C(on).
  returned: always
  type: str
"""

import os
import subprocess

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.qvcapture.fleet.plugins.module_utils import packages, program, runs

POWER_OFF_DELAY = 5


class Upgrade:
    """What is common to an upgrade and to putting backups back."""

    kind = "upgrade"

    def __init__(self, module):
        self.module = module
        self.params = module.params
        self.program = program.find_program(module)
        self.runs = runs.Runs(self.params["state"])

    def base(self, folder):
        return [self.program, "upgrade", "--json", "--packages", folder, "--stalled-after",
                str(self.params["stalled_after"])]

    def real(self, backup):
        options = ["--jobs", str(self.params["jobs"])]
        options += ["--backup", backup] if self.params["backup"] else []
        return options + (["--wait"] if self.params["wait"] else [])

    def dry(self, folder, *options):
        """The events of a plan."""
        command = [*self.base(folder), "--dry-run", *(["--wait"] if self.params["wait"] else []), *options]
        status, out, errors = self.module.run_command(command, handle_exceptions=False)
        events = program.parse_events(out)
        if not program.of_kind(events, "end"):
            notices = [event["message"] for event in program.of_kind(events, "notice")]
            raise program.Problem((notices or errors.strip().splitlines() or [f"qvcap ended with status {status}"])[-1])
        return events


class FromPackages(Upgrade):
    """The cards that were asked for, to the packages of a folder."""

    def __init__(self, module, wanted):
        super().__init__(module)
        self.sets = packages.PackageSets(self.params["state"])
        self.wanted = wanted
        self.folder = self.sets.path(wanted)

    def request(self):
        keys = ("cards", "force", "backup")
        return {"packages": self.wanted, **{key: self.params[key] for key in keys}}

    def selections(self, events):
        """Options of one qvcap upgrade for each choice; the cards are those of a plan."""
        known = {card["card"]: card["path"] for card in program.closing_cards(events)}
        chosen = []
        for choice in self.params["cards"]:
            if choice == "all":
                return [[]]
            if choice.startswith("/"):
                chosen.append(["--device", choice])
            elif choice.isdigit():
                chosen.append(["--board", choice])
            else:
                wanted = [f"{int(part):02d}" for part in choice.split(":") if part.isdigit()]
                path = known.get(":".join(wanted))
                if path is None:
                    raise program.Problem(f"there is no card {choice}; there are: {', '.join(known) or 'none'}")
                chosen.append(["--device", path])
        return chosen

    def is_plain(self):
        return self.params["cards"] == ["all"] and not self.params["force"]

    def plans(self):
        """A plan's events, and the options of the commands that carry it out."""
        events = [] if self.is_plain() else self.dry(self.folder)
        selections = self.selections(events)
        if not self.params["force"]:
            if not self.module.check_mode:
                return [], selections
            return [event for options in selections for event in self.dry(self.folder, *options)], selections
        # qvcap forces staged cards, too: so each of the others is named separately.
        planned, commands = [], []
        for options in selections:
            for plan in program.of_kind(self.dry(self.folder, *options), "plan"):
                which = ["--device", plan["path"]] + ([] if plan["state"] == "staged" else ["--force"])
                planned += self.dry(self.folder, *which) if self.module.check_mode else []
                commands.append(which)
        return planned, commands or selections

    def make_commands(self, backup):
        if self.module.check_mode:
            raise AssertionError("nothing is run in check mode")
        self.sets.use(self.wanted)
        return [[*self.base(self.folder), *self.real(backup), *options] for options in self.plans()[1]]


class FromBackups(Upgrade):
    """Backups of one run back onto the cards that it wrote."""

    kind = "restore"

    def __init__(self, module):
        super().__init__(module)
        name = self.params["restore"]
        self.run = self.runs.last("upgrade") if name == "latest" else self._named(name)
        if self.run is None:
            raise program.Problem(f"there is no run '{name}' on this host; known are: "
                                  f"{', '.join(run.name for run in self.runs.all()) or 'none'}")

    def _named(self, name):
        return next((run for run in self.runs.all() if run.name == name), None)

    def request(self):
        return {"restore": self.run.name, "backup": self.params["backup"]}

    def backups(self):
        """Backup folder and node of each card that the run wrote, according to the present cards."""
        status = program.ask(self.module, "status", "--quick", "--packages", self.run.folder)[1]
        now = {(card["serial"], card["card"]): card["path"] for card in status["cards"]}
        written = {card["card"]: card for card in self.run.cards if program.was_written(card, self.run.events)}
        if not written:
            raise program.Problem(f"run {self.run.name} wrote no card; nothing was done")
        saved = {event["card"]: event["images"] for event in program.of_kind(self.run.events, "backup")}
        found = []
        for name, card in written.items():
            images = [image for image in saved.get(name, []) if image["version"] == card["from"]]
            images.sort(key=lambda image: image["image"] != "main")
            path = now.get((card["serial"], name))
            if not images:
                raise program.Problem(f"{program.name_of(card)}: run {self.run.name} has no backup of {card['from']}, "
                                      "which it ran; nothing was done")
            if path is None:
                raise program.Problem(f"{program.name_of(card)} is not in this host any more; nothing was done")
            found.append((os.path.dirname(images[0]["file"]), path, images[0]["image"]))
        return found

    def plans(self):
        events, commands = [], []
        for folder, path, image in self.backups():
            selection = ["--device", path]
            plan = program.of_kind(self.dry(folder, *selection), "plan")
            if plan and plan[0]["state"] not in ("current", "staged"):
                selection.append("--force")
            planned = self.dry(folder, *selection)
            for plan in program.of_kind(planned, "plan"):
                # A backup of the main image has no valid data for the safe image.
                mode = "upgrade" if image == "main" else "safe upgrade"
                if plan["action"] in ("flash", "refused") and plan["mode"] != mode:
                    raise program.Problem(f"{plan['card']} ({plan['product']}) would get its {image} image by a "
                                          f"{plan['mode']}; turn the host off and on first, and try again")
            events += planned
            commands.append((folder, selection))
        return events, commands

    def make_commands(self, backup):
        return [[*self.base(folder), *self.real(backup), *options] for folder, options in self.plans()[1]]


def result_of(module, run, joined, changed_key="result"):
    """The result of a run for Ansible."""
    written = [card["card"] for card in run.cards if program.was_written(card, run.events)]
    staged = [card["card"] for card in run.cards if card["state"] == "staged"]
    result = {"changed": bool(written), "written": written, "staged": staged, "cards": run.cards, "joined": joined,
              "run": run.name if run.began_a_card else "", "exit_status": run.exit_status,
              "power": "awaited" if staged else "on"}
    if module._diff:
        result["diff"] = diff_of(run.cards, written)
    problem = run.problem()
    if problem:
        result.update(failed=True, msg=problem)
    return result


def diff_of(cards, written):
    after = [{**card, "now": card["to"] if card["card"] in written else card["from"]} for card in cards]
    return {"before_header": "running", "after_header": "in the flash", "before": program.version_table(cards, "from"),
            "after": program.version_table(after, "now")}


def planned_result(module, events):
    cards = program.closing_cards(events)
    written = [card["card"] for card in cards if card["result"] == "planned"]
    staged = [card["card"] for card in cards if card["state"] == "staged"]
    statuses = [end["exit_status"] for end in program.of_kind(events, "end")]
    result = {"changed": bool(written), "written": written, "staged": staged, "cards": cards, "joined": False,
              "run": "", "exit_status": max(statuses, default=program.NOTHING_TO_DO),
              "power": "awaited" if staged else "on"}
    if module._diff:
        result["diff"] = diff_of(cards, written)
    problems = program.failures(cards)
    if not problems and all(status == program.NO_CARD for status in statuses):
        problems = ["no card was found, or no package fits one"]
    if problems:
        result.update(failed=True, msg="; ".join(problems))
    return result


def power_off(module, result):
    """Some seconds from now, so that the result arrives first."""
    if module.params["power_off"] == "never" or result.get("failed") or not result["staged"]:
        return
    if module.check_mode:
        return
    poweroff = module.get_bin_path("poweroff", required=True)
    with subprocess.Popen(["/bin/sh", "-c", f"(sleep {POWER_OFF_DELAY}; exec {poweroff}) &"], cwd="/",
                          stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          start_new_session=True):
        result["power"] = "off"


def bring(module, wanted, brought):
    """Packages that the action plugin has put into the folder `brought`; in check mode they stay there."""
    sets = packages.PackageSets(module.params["state"])
    if sets.has(wanted):
        return sets.path(wanted)
    if not brought:
        module.exit_json(changed=False, missing=True)
    if module.check_mode:
        packages.check(wanted, brought)
        return brought
    sets.add(wanted, brought)
    return sets.path(wanted)


def run_it(module):
    wanted = module.params["wanted"]
    if wanted is None:
        work = FromBackups(module)
    else:
        work = FromPackages(module, wanted)
        work.folder = bring(module, wanted, module.params["brought"])
        if module.params["only_bring"]:
            module.exit_json(changed=False, missing=False)
    if module.check_mode:
        return planned_result(module, work.plans()[0])
    key = runs.key_of(work.request())
    lock, ended = work.runs.take(key, module.params["wait"])
    if ended is None:
        with lock:
            ended = work.runs.begin(lock, key, work.kind, work.make_commands)
        joined = False
    else:
        joined = True
    result = result_of(module, ended, joined)
    if wanted is not None:
        result["packages"] = work.folder
    return result


def main():
    module = AnsibleModule(
        argument_spec={
            "src": {"type": "path"},
            "restore": {"type": "str"},
            "cards": {"type": "list", "elements": "str", "default": ["all"]},
            "force": {"type": "bool", "default": False},
            "backup": {"type": "bool", "default": True},
            "power_off": {"type": "str", "choices": ["never", "when_done"], "default": "never"},
            "wait": {"type": "bool", "default": False},
            "jobs": {"type": "int", "default": 1},
            "stalled_after": {"type": "int", "default": 60},
            "program": {"type": "str", "default": "qvcap"},
            "state": {"type": "path", "default": program.STATE_DIR},
            # Of the action plugin: names and check sums, the folder it has put them into, whether that is all.
            "wanted": {"type": "dict"},
            "brought": {"type": "path"},
            "only_bring": {"type": "bool", "default": False},
        },
        required_one_of=[("restore", "wanted")],
        mutually_exclusive=[("restore", "wanted")],
        supports_check_mode=True,
    )
    try:
        result = run_it(module)
    except (program.Problem, OSError) as problem:
        module.fail_json(msg=str(problem), changed=False)
    power_off(module, result)
    if result.pop("failed", False):
        module.fail_json(**result)
    module.exit_json(**result)


if __name__ == "__main__":
    main()

#!/usr/bin/python
"""What qvcap knows of the capture cards of a host, as facts."""
from __future__ import annotations

DOCUMENTATION = r"""
module: qvcap_facts
short_description: What firmware the capture cards of a host have, as facts
version_added: 3.3.0
description:
  - Runs C(qvcap status --json) and brings its answer as the fact C(ansible_facts.qvcap), together with how the last
    upgrade of the host ended.
  - Writes nothing on the host and nothing to a card.
options:
  packages:
    description:
      - Folder on the host with the packages to judge the cards by.
      - Without it, the packages that M(qvcapture.fleet.qvcap_firmware) brought last; cards are C(unknown) when
        there are none.
    type: path
  quick:
    description: Read headers of the flash only. A section that differs is not noticed then.
    type: bool
    default: false
  doctor:
    description: Run C(qvcap doctor), too.
    type: bool
    default: false
  room:
    description: Folders on the host whose free bytes are wanted. Of one that is not there, its nearest parent counts.
    type: list
    elements: path
    default: []
  least_room:
    description: Free bytes that each of them needs.
    type: int
    default: 0
  expect:
    description: Versions that cards must run, by the names of the cards.
    type: dict
    default: {}
  save:
    description:
      - Folder on the controller that gets C(HOST.json), also when the host cannot be reached. The format is
        C(fleet-host.schema.json) in the documentation of qvcap.
    type: path
  error:
    description: What went wrong on the host before, for that file.
    type: str
    default: ''
  program:
    description: Name or path of qvcap on the host.
    type: str
    default: qvcap
  state:
    description: Folder on the host with packages, runs and backups of M(qvcapture.fleet.qvcap_firmware).
    type: path
    default: /var/lib/qvcap-fleet
attributes:
  check_mode:
    description: The same in check mode.
    support: full
author:
  - The qvcapture maintainers (@qvcapture)
"""

EXAMPLES = r"""
- name: Ask every card
  qvcapture.fleet.qvcap_facts:
    save: /srv/report/hosts

- name: Say which hosts wait for the power to go
  ansible.builtin.debug:
    msg: "{{ ansible_facts.qvcap.status.summary.staged }} cards"
"""

RETURN = r"""
ansible_facts:
  description: Facts about the capture cards.
  returned: success
  type: dict
  contains:
    qvcap:
      description: All of them.
      type: dict
      contains:
        status:
          description: What C(qvcap status --json) printed; C(status.schema.json) describes it.
          type: dict
        doctor:
          description: Findings of C(qvcap doctor --json); empty unless O(doctor) is set.
          type: list
          elements: dict
        run:
          description: The last upgrade that began a card, C(run) of C(fleet-host.schema.json); null when none did.
          type: dict
        room:
          description: Free bytes of each folder of O(room).
          type: dict
        trouble:
          description:
            - Why no upgrade should begin here, or did not end well, a sentence each. From errors of C(qvcap doctor),
              cards that a process has open unless that is an upgrade of this collection, O(least_room), O(expect).
          type: list
          elements: str
        boot:
          description: Another text after each start of the host.
          type: str
"""

import os
import tempfile

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.qvcapture.fleet.plugins.module_utils import packages, program, runs


def boot_identity():
    """The kernel's own, and when the first process began: a container starts without its kernel."""
    with open("/proc/sys/kernel/random/boot_id", encoding="ascii") as file:
        boot = file.read().strip()
    with open("/proc/1/stat", encoding="utf-8", errors="replace") as file:
        begun = file.read().rpartition(")")[2].split()[19]
    return f"{boot}-{begun}"


def free_bytes(path):
    while not os.path.isdir(path):
        path = os.path.dirname(path)
    volume = os.statvfs(path)
    return volume.f_bavail * volume.f_frsize


def status_of(module):
    folder = module.params["packages"] or packages.PackageSets(module.params["state"]).current()
    arguments = ["status"] + (["--quick"] if module.params["quick"] else [])
    with tempfile.TemporaryDirectory() as nothing:
        return program.ask(module, *arguments, "--packages", folder or nothing)[1]


def trouble_of(facts, params):
    """Sentences; none when all is well."""
    sentences = []
    at_work = facts["run"] is not None and facts["run"]["active"]
    for finding in facts["doctor"]:
        holder = finding["check"] == "holders" and (finding["subject"] or "").startswith("/dev/video")
        if finding["severity"] == "error" or (holder and not at_work):
            sentences.append(" ".join(part for part in (finding["subject"], finding["message"]) if part))
    for path, free in facts["room"].items():
        if free < params["least_room"]:
            sentences.append(f"{path} has {free} free bytes, and {params['least_room']} are wanted")
    running = {card["card"]: card["running"] for card in facts["status"]["cards"]}
    for card, version in params["expect"].items():
        if running.get(card) != version:
            sentences.append(f"{card} runs {running.get(card) or 'nothing that it would say'}, not {version}")
    return sentences


def last_run(state):
    every = runs.Runs(state)
    active = every.active_name()
    for run in reversed(every.all()):
        if run.name == active or run.began_a_card:
            return run.summary(run.name == active)
    return None


def main():
    module = AnsibleModule(
        argument_spec={
            "packages": {"type": "path"},
            "quick": {"type": "bool", "default": False},
            "doctor": {"type": "bool", "default": False},
            "room": {"type": "list", "elements": "path", "default": []},
            "least_room": {"type": "int", "default": 0},
            "expect": {"type": "dict", "default": {}},
            "save": {"type": "path"},
            "error": {"type": "str", "default": ""},
            "program": {"type": "str", "default": "qvcap"},
            "state": {"type": "path", "default": program.STATE_DIR},
        },
        supports_check_mode=True,
    )
    facts = {"boot": boot_identity(), "run": last_run(module.params["state"]), "doctor": [],
             "room": {path: free_bytes(os.path.abspath(path)) for path in module.params["room"]}}
    try:
        facts["status"] = status_of(module)
        if module.params["doctor"]:
            facts["doctor"] = program.ask(module, "doctor")[1]["findings"]
        facts["trouble"] = trouble_of(facts, module.params)
    except program.Problem as problem:
        module.fail_json(msg=str(problem), run=facts["run"])
    module.exit_json(changed=False, ansible_facts={"qvcap": facts})


if __name__ == "__main__":
    main()

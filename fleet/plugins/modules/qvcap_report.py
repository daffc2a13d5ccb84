# -*- coding: utf-8 -*-
"""Documentation of the action of the same name, which does the work on the controller."""

from __future__ import annotations

DOCUMENTATION = r"""
module: qvcap_report
short_description: Makes one page that shows all hosts and their capture cards
version_added: 3.3.0
author: The qvcapture maintainers (@qvcapture)
description:
  - Makes one page of HTML from a folder with one file for each host, C(HOST.json), as the roles of this
    collection write them. The page needs no other file, and nothing from a network.
  - It shows totals, each host with the state of its cards, what needs a power cycle, failures with their
    reason, and the age of all that. It has filters, search and sorting.
  - A file that cannot be used becomes a row of the page with the reason.
  - Runs on the controller, whatever host the task is for. Use C(run_once) in a play over many hosts.
options:
  src:
    description: The folder of the host files, on the controller.
    type: path
    required: true
  dest:
    description:
      - The page to write, on the controller. Its folder has to exist.
      - A page that shows the same already is left as it is; the ages on it go on by themselves.
    type: path
    required: true
  title:
    description: Title of the page.
    type: str
    default: Capture cards
attributes:
  check_mode:
    support: full
    description: Nothing is written; says whether the page would be.
  diff_mode:
    support: none
    description: A page of HTML is nothing to compare line by line.
seealso:
  - module: qvcapture.fleet.qvcap_facts
"""

EXAMPLES = r"""
- name: Make the page of the fleet
  qvcapture.fleet.qvcap_report:
    src: reports
    dest: fleet.html
  run_once: true
"""

RETURN = r"""
dest:
  description: The page.
  type: str
  returned: success
  sample: /home/op/fleet.html
size:
  description: Size of the page, in bytes.
  type: int
  returned: success
  sample: 63625
totals:
  description: The figures at the head of the page.
  type: dict
  returned: success
  sample:
    cards: 24
    hosts: 3
    left_out: 0
    no_status: 0
    old: 0
    power_cycle: 1
    states:
      current: 20
      staged: 4
    unreachable: 0
    unusable_files: 0
    upgrade_failed: 0
"""

#!/usr/bin/python
"""Documentation of the action plugin qvcap_back, which does the work on the controller."""
from __future__ import annotations

DOCUMENTATION = r"""
module: qvcap_back
short_description: Wait until a host is back from a power cycle
version_added: 3.3.0
description:
  - Asks the host over and over until it answers and has been started anew, or has only been away when no O(since)
    is given. An answer from before the start does not count, however late the power goes.
options:
  since:
    description: C(ansible_facts.qvcap.boot) from before. Empty when any answer will do.
    type: str
    default: ''
  timeout:
    description: Seconds to wait for that. When they have passed, the task fails.
    type: int
    default: 1800
  pause:
    description: Seconds between two questions.
    type: int
    default: 5
attributes:
  check_mode:
    description: Nothing is waited for in check mode.
    support: full
author:
  - The qvcapture maintainers (@qvcapture)
"""

EXAMPLES = r"""
- name: Wait for somebody to turn it off and on
  qvcapture.fleet.qvcap_back:
    since: "{{ ansible_facts.qvcap.boot }}"
"""

RETURN = r"""
boot:
  description: What C(ansible_facts.qvcap.boot) is now.
  returned: success
  type: str
elapsed:
  description: Seconds that passed.
  returned: always
  type: int
"""

"""Makes the page of a fleet on the controller; documented in the module of the same name."""

from __future__ import annotations

import os
import re
import tempfile
import time

from ansible.errors import AnsibleActionFail
from ansible.plugins.action import ActionBase
from ansible_collections.qvcapture.fleet.plugins.plugin_utils import hosts, page

# The head of a page, with the mark in it, is shorter than this many bytes.
HEAD = 4096


def mark_of(path):
    """The mark of the existing page: a digest of what it shows. None without a page, or without a mark in it."""
    try:
        with open(path, "rb") as file:
            found = re.search(rb'<meta name="qvcap-fleet" content="([0-9a-f]{64})">', file.read(HEAD))
    except FileNotFoundError:
        return None
    return found and found.group(1).decode()


def replace_file(path, text):
    """Nobody sees half of a page, and after a failed write the old page stays."""
    umask = os.umask(0)
    os.umask(umask)
    folder, name = os.path.split(path)
    descriptor, beside = tempfile.mkstemp(prefix=f".{name}.", dir=folder)
    try:
        with open(descriptor, "wb") as file:
            file.write(text.encode("utf-8"))
            os.fchmod(file.fileno(), 0o666 & ~umask)
        os.replace(beside, path)
    except BaseException:
        os.unlink(beside)
        raise


class ActionModule(ActionBase):
    TRANSFERS_FILES = False
    _requires_connection = False

    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        del tmp
        _, options = self.validate_argument_spec(
            {
                "src": {"type": "path", "required": True},
                "dest": {"type": "path", "required": True},
                "title": {"type": "str", "default": page.TITLE},
            }
        )
        folder, path = (os.path.abspath(options[key]) for key in ("src", "dest"))
        try:
            fleet, left_out = hosts.read_fleet(folder)
        except OSError as error:
            raise AnsibleActionFail(f"the host files in {folder} cannot be read: {error.strerror}") from None
        now = int(time.time())
        title = hosts.shown(options["title"], hosts.LONGEST_NAME)
        text = page.render(fleet, now, left_out, title)
        result.update(
            dest=path, size=len(text.encode()), totals=page.totals(fleet, now) | {"left_out": left_out}
        )
        try:
            result["changed"] = mark_of(path) != page.fingerprint(fleet, now, left_out, title)
            if result["changed"] and not self._task.check_mode:
                replace_file(path, text)
        except OSError as error:
            raise AnsibleActionFail(f"the page {path} cannot be written: {error.strerror}") from None
        return result

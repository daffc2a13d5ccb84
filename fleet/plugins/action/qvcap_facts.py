"""The controller's side of qvcap_facts: saves a host's answer, or that there was none, as HOST.json."""
from __future__ import annotations

import json
import os
import tempfile
import time

from ansible.errors import AnsibleConnectionFailure
from ansible.plugins.action import ActionBase

MODULE = "qvcapture.fleet.qvcap_facts"


def file_name(host):
    """A file name for any host name."""
    return "".join(c if c.isalnum() or c in "-._" else f"%{ord(c):02x}" for c in host).lstrip(".") + ".json"


def save(folder, report):
    """Writes the whole file or nothing: two controllers may write at once."""
    os.makedirs(folder, exist_ok=True)
    handle, fresh = tempfile.mkstemp(prefix=".new-", dir=folder)
    with os.fdopen(handle, "w", encoding="utf-8") as file:
        json.dump(report, file, indent=1)
    os.chmod(fresh, 0o644)
    os.replace(fresh, os.path.join(folder, file_name(report["host"])))


class ActionModule(ActionBase):
    """One task on one host."""

    def run(self, tmp=None, task_vars=None):
        self._supports_check_mode = True
        result = super().run(tmp, task_vars)
        arguments = dict(self._task.args)
        folder = arguments.pop("save", None)
        error = arguments.pop("error", "") or None
        report = {"schema": "qvcapture.fleet.host", "version": 1, "host": task_vars["inventory_hostname"],
                  "collected": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()), "reachable": True, "error": error,
                  "status": None, "run": None}
        try:
            result.update(self._execute_module(MODULE, arguments, task_vars=task_vars))
        except AnsibleConnectionFailure as failure:
            report.update(reachable=False, error=error or f"cannot be reached: {failure.message}")
            if folder:
                save(folder, report)
            raise
        finally:
            self._remove_tmp_path(self._connection._shell.tmpdir)
        facts = result.get("ansible_facts", {}).get("qvcap")
        if facts:
            report.update(status=facts["status"], run=facts["run"])
        else:
            report.update(error=error or result.get("msg") or "no answer", run=result.get("run"))
        if folder:
            save(folder, report)
        return result

"""Waits on the controller until a host answers and, when `since` is given, has started again."""
from __future__ import annotations

import time

from ansible.errors import AnsibleError
from ansible.plugins.action import ActionBase

# The same value as `boot` of qvcap_facts, but without Python on the host, which may still
# be starting.
BOOT = "read -r b < /proc/sys/kernel/random/boot_id; s=$(cat /proc/1/stat); set -- ${s##*)}; echo boot $b-${20}"


class ActionModule(ActionBase):
    """One task on one host."""

    TRANSFERS_FILES = False
    _VALID_ARGS = frozenset(("since", "timeout", "pause"))

    def run(self, tmp=None, task_vars=None):
        self._supports_check_mode = True
        result = super().run(tmp, task_vars)
        since = str(self._task.args.get("since") or "")
        timeout = int(self._task.args.get("timeout", 1800))
        pause = int(self._task.args.get("pause", 5))
        begun = time.monotonic()
        if self._task.check_mode:
            return {**result, "changed": False, "skipped": True, "elapsed": 0}
        while True:
            boot, problem = self._boot()
            elapsed = int(time.monotonic() - begun)
            if boot and boot != since:
                return {**result, "changed": False, "boot": boot, "elapsed": elapsed}
            if elapsed >= timeout:
                why = "it has not been turned off" if boot else f"it cannot be reached: {problem}"
                return {**result, "failed": True, "elapsed": elapsed,
                        "msg": f"not back after {elapsed} seconds: {why}"}
            time.sleep(pause)

    def _boot(self):
        """The host's answer, or why there is none."""
        try:
            self._connection.reset()  # a master connection may be to a host that is off by now
            answer = self._low_level_execute_command(BOOT, sudoable=False)
        except AnsibleError as problem:
            return "", str(problem)
        for line in answer["stdout"].splitlines():
            if line.startswith("boot "):
                return line[len("boot "):].strip(), ""
        return "", (answer["stderr"] or answer["stdout"]).strip()[-200:]

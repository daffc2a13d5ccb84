"""The controller's side of qvcap_firmware: takes the packages to the host, then has the module run there.

What the host has already is not sent again. In check mode they go into a folder that is removed behind the task.
"""
from __future__ import annotations

import os

from ansible.errors import AnsibleActionFail
from ansible.plugins.action import ActionBase
from ansible_collections.qvcapture.fleet.plugins.module_utils import packages

MODULE = "qvcapture.fleet.qvcap_firmware"


class ActionModule(ActionBase):
    """One task on one host."""

    def run(self, tmp=None, task_vars=None):
        self._supports_async = True
        self._supports_check_mode = True
        result = super().run(tmp, task_vars)
        arguments = dict(self._task.args)
        for name in ("wanted", "brought", "only_bring"):
            if name in arguments:
                raise AnsibleActionFail(f"{name} is no option of {MODULE}")
        source = arguments.pop("src", None)
        if (source is None) == (arguments.get("restore") is None):
            raise AnsibleActionFail("give one of src and restore")
        wrap_async = bool(self._task.async_val) and not self._connection.has_native_async
        try:
            if source is not None:
                early = self._bring(source, arguments, wrap_async, task_vars)
                if early is not None:
                    result.update(early)
                    return result
            result.update(self._execute_module(MODULE, arguments, task_vars=task_vars, wrap_async=wrap_async))
        finally:
            if not wrap_async:
                self._remove_tmp_path(self._connection._shell.tmpdir)
        return result

    def _bring(self, source, arguments, wrap_async, task_vars):
        """Makes sure that the host has the packages. Returns a result if that was all, or if it failed."""
        folder = self._folder(source)
        wanted = packages.packages_in(folder)
        if not wanted:
            raise AnsibleActionFail(f"{folder}: there is no package; names of packages have .qvf in them")
        arguments["wanted"] = wanted
        # The first try runs the module itself, except for a background job: then it only copies the
        # packages.
        first = {**arguments, "only_bring": wrap_async}
        answer = self._execute_module(MODULE, first, task_vars=task_vars)
        if answer.get("missing"):
            arguments["brought"] = first["brought"] = self._send(folder, wanted)
            if not wrap_async:
                return None
            answer = self._execute_module(MODULE, first, task_vars=task_vars)
            arguments.pop("brought")
        return None if wrap_async and not answer.get("failed") else answer

    def _folder(self, source):
        try:
            folder = self._find_needle("files", source)
        except Exception as problem:
            raise AnsibleActionFail(f"the folder of packages was not found on the controller: {problem}") from problem
        if not os.path.isdir(folder):
            raise AnsibleActionFail(f"{folder} is no folder")
        return folder

    def _send(self, folder, wanted):
        if self._connection._shell.tmpdir is None:
            self._make_tmp_path()
        there = self._connection._shell.join_path(self._connection._shell.tmpdir, "packages")
        # Owned by the user who logs in, who writes into it next; the module may become root, who can read it
        # anyway.
        self._low_level_execute_command(f"mkdir -p {there}", sudoable=False)
        paths = [there]
        for name in wanted:
            path = self._connection._shell.join_path(there, name)
            paths.append(self._transfer_file(os.path.join(folder, name), path))
        self._fixup_perms2([self._connection._shell.tmpdir, *paths])
        return there

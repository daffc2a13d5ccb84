"""The controller: ansible-playbook as an operator runs it, and a power switch that it can reach."""
from __future__ import annotations

import contextlib
import os
import pathlib
import re
import resource
import signal
import subprocess
import threading
import time

CONFIG = """[defaults]
collections_paths = {collections}
host_key_checking = true
interpreter_python = /usr/bin/python3
retry_files_enabled = false
forks = {forks}
nocows = true
local_tmp = {work}/ansible
[ssh_connection]
pipelining = true
ssh_args = -o ControlMaster=auto -o ControlPersist=30m -o ServerAliveInterval=5 -o ConnectTimeout=5 \
-o UserKnownHostsFile={work}/known_hosts
control_path_dir = {control}
"""

# Asks the switch, which is a folder, for a power cycle, and waits until it is done.
SWITCH = """#!/bin/sh
: >"{work}/switch/$1"
while [ -e "{work}/switch/$1" ]; do sleep 0.1; done
"""

RECAP = re.compile(r"^(\S+)\s+: (ok=.*)$", re.MULTILINE)


class Play:
    """How a playbook ended."""

    def __init__(self, status, output):
        self.status = status
        self.output = output
        self.recap = {name: {key: int(number) for key, number in (pair.split("=") for pair in counts.split())}
                      for name, counts in RECAP.findall(output)}

    def count(self, key):
        """Of every host."""
        return {name: counts[key] for name, counts in self.recap.items()}


class Controller:
    def __init__(self, tree, work, forks=10):
        self.tree = pathlib.Path(tree)
        self.work = pathlib.Path(work)
        self.forks = forks
        self.report = self.work / "report"
        self.inventory = self.work / "inventory"
        self.config = self.work / "ansible.cfg"
        self.firmware = self.work / "firmware"
        self._outputs = []
        (self.work / "switch").mkdir()
        switch = self.work / "power-switch"
        switch.write_text(SWITCH.format(work=self.work))
        switch.chmod(0o755)
        collections = self.work / "collections"
        (collections / "ansible_collections/qvcapture").mkdir(parents=True)
        (collections / "ansible_collections/qvcapture/fleet").symlink_to(self.tree / "fleet")
        control = pathlib.Path("/run/qvcap-fleet-demo")  # a socket's name is short
        control.mkdir(exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "control", control], check=True)
        self.config.write_text(CONFIG.format(collections=collections, work=self.work, forks=forks, control=control))

    def know(self, hosts):
        key = (self.work / "host_key.pub").read_text().split()
        (self.work / "known_hosts").write_text(
            "".join(f"[127.0.0.1]:{host.port} {key[0]} {key[1]}\n" for host in hosts))
        lines = [f"{host.name} ansible_port={host.port}" for host in hosts]
        self.inventory.write_text("\n".join(
            ["[racks]", *lines, "", "[racks:vars]", "ansible_host=127.0.0.1", "ansible_user=root",
             f"ansible_ssh_private_key_file={self.work}/key", ""]))

    def start(self, playbook, *options, **variables):
        """A controller at work. Variables are those of the roles."""
        values = {"qvcap_report": self.report, "qvcap_poll": 1, "qvcap_back_pause": 1, "qvcap_back": 60, **variables}
        command = ["ansible-playbook", *os.environ.get("QV_FLEET_VERBOSE", "").split(), "-i", str(self.inventory), f"qvcapture.fleet.{playbook}", *options]
        for name, value in values.items():
            command += ["-e", f"{name}={value}" if not isinstance(value, list) else
                        "{" + f'"{name}": [{", ".join(chr(34) + str(v) + chr(34) for v in value)}]' + "}"]
        output = open(self.work / f"play-{len(self._outputs)}.log", "w+", encoding="utf-8")
        self._outputs.append(output)
        environment = {**os.environ, "ANSIBLE_CONFIG": str(self.config), "LC_ALL": "C.UTF-8", "HOME": str(self.work)}
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                                   env=environment, start_new_session=True)
        return process, output

    def end(self, started):
        process, output = started
        status = process.wait()
        output.seek(0)
        return Play(status, output.read())

    def play(self, playbook, *options, **variables):
        return self.end(self.start(playbook, *options, **variables))

    @staticmethod
    def kill(started):
        """The controller and its workers end at once; what they started on hosts is not theirs to end."""
        process, _ = started
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()

    def last_output(self):
        if not self._outputs:
            return ""
        self._outputs[-1].seek(0)
        return self._outputs[-1].read()

    def upgrade(self, *options, **variables):
        return self.play("upgrade", *options, **self.upgrade_variables(), **variables)

    def upgrade_variables(self):
        return {"qvcap_packages": self.firmware, "qvcap_power": "command",
                "qvcap_power_command": [f"{self.work}/power-switch", "{{ inventory_hostname }}"]}

    @contextlib.contextmanager
    def power_switch(self, hosts):
        """Turns hosts off and on when it is asked to."""
        stop = threading.Event()
        cycled = []

        def serve():
            while not stop.is_set():
                for host in hosts:
                    asked = self.work / "switch" / host.name
                    if asked.exists():
                        host.power_cycle()
                        cycled.append(host.name)
                        asked.unlink()
                time.sleep(0.05)

        thread = threading.Thread(target=serve)
        thread.start()
        try:
            yield cycled
        finally:
            stop.set()
            thread.join()

    @staticmethod
    def children_usage():
        return resource.getrusage(resource.RUSAGE_CHILDREN)

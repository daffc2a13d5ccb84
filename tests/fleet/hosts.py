"""Hosts on this machine: an overlay over one Debian, a process tree and mounts of their own, an sshd on a
loopback port, and simulated cards. Needs root, in a mount and PID namespace that ends with the caller.

A power cut ends every process of a host at once, and what its memory held; the cards load their firmware anew.
"""
from __future__ import annotations

import json
import os
import pathlib
import shutil
import signal
import subprocess
import threading
import time

INIT = """#!/bin/bash
# The first process of a host: starts sshd, and reaps what others leave.
mkdir -p /run/sshd /run/lock
/usr/sbin/sshd -f /etc/ssh/demo
trap 'exit 0' TERM
while :; do sleep 1000 & wait $!; done
"""

# A real qvcap or qvcap-upgrade with the cards in its /dev.
WRAPPER = """#!/bin/sh
exec /usr/bin/qvcap-sim run /var/lib/cards -- /usr/sbin/{name} "$@"
"""

POWEROFF = """#!/bin/sh
# Turns off this host, which is a few processes.
kill -TERM 1
"""

SSHD = """ListenAddress 127.0.0.1
Port {port}
HostKey /etc/ssh/demo_key
AuthorizedKeysFile /etc/ssh/demo_authorized
PermitRootLogin yes
PasswordAuthentication no
UsePAM no
StrictModes no
PidFile /run/sshd.pid
MaxStartups 100
Subsystem sftp internal-sftp
"""

SCENARIO = """
[latency]
erase_sector = 0
program_page = 0
read_kib = 0

[[board]]
product = "Pelix Duo HDMI"
product_code = 0x0101
serial = "PX{number:03d}0"
channels = 2
firmware = "1.0"
golden = "0.9"
flash_size = 4194304

[[board]]
family = "Lumo Capture"
product = "Lumo Quad SDI"
product_code = 0x0201
hardware = "B"
serial = "LM{number:03d}0"
channels = 4
firmware = "1.2"
golden = "0.9"
flash_size = 4194304
"""
SIMULATED_MAJOR = 0xF0
CARDS = ("00:00", "00:01", "01:00")


def run(*command, **options):
    """A command that must end well."""
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, check=False, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(str(word) for word in command)}: status {done.returncode}\n{done.stdout}")
    return done.stdout


def wait_for(what, condition, seconds=60):
    """Seconds are a watchdog: the caller waits for what happens."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise RuntimeError(f"waited {seconds} seconds for {what}")
        time.sleep(0.05)


class Host:
    """One host. `name` is its inventory name."""

    def __init__(self, work, lower, number, port):
        self.name = f"rack{number:02d}"
        self.number = number
        self.port = port
        self.folder = pathlib.Path(work) / self.name
        self.root = self.folder / "root"
        self.power_returns = True  # somebody turns it on again
        self._init = None
        self._watcher = None
        self._mounts = []
        self._cut = threading.Lock()
        for part in ("upper", "work", "root"):
            (self.folder / part).mkdir(parents=True)
        run("mount", "-t", "overlay", "overlay", "-o",
            f"lowerdir={lower},upperdir={self.folder}/upper,workdir={self.folder}/work", self.root)
        self._furnish(work)

    def _furnish(self, work):
        dev = self.root / "dev"
        run("mount", "-t", "tmpfs", "dev", dev)
        for node in ("null", "zero", "full", "random", "urandom", "tty"):
            run("cp", "-a", f"/dev/{node}", dev)
        (dev / "shm").mkdir()
        (dev / "fd").symlink_to("/proc/self/fd")
        run("mount", "-t", "tmpfs", "run", self.root / "run")
        self._write("init", INIT)
        self._write("usr/local/sbin/poweroff", POWEROFF)
        self._write("etc/hostname", self.name + "\n")
        self._write("etc/ssh/demo", SSHD.format(port=self.port))
        shutil.copy(work / "host_key", self.root / "etc/ssh/demo_key")
        (self.root / "etc/ssh/demo_key").chmod(0o600)
        shutil.copy(work / "key.pub", self.root / "etc/ssh/demo_authorized")

    def _write(self, path, text):
        file = self.root / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)
        file.chmod(0o755)

    # Cards

    def make_cards(self):
        self._write("usr/local/sbin/qvcap", WRAPPER.format(name="qvcap"))
        shutil.rmtree(self.root / "var/lib/cards", ignore_errors=True)
        (self.root / "tmp/cards.toml").write_text(SCENARIO.format(number=self.number))
        self.inside("qvcap-sim", "init", "/var/lib/cards", "--scenario", "/tmp/cards.toml", "--packages")

    def inside(self, *command):
        """A command in its root, beside its processes."""
        return run("chroot", self.root, "env", "-i", "PATH=/usr/local/sbin:/usr/sbin:/usr/bin:/sbin:/bin", *command)

    def sim(self, *arguments):
        return self.inside("qvcap-sim", *arguments)

    def cards(self):
        """Channel states by card name, as the simulation has them."""
        state = json.loads(self.sim("status", "/var/lib/cards", "--json"))
        return {f"{board['index']:02d}:{channel['channel']:02d}": channel
                for board in state["boards"] for channel in board["channels"]}

    def running(self):
        cards = self.cards()
        return {name: cards[name]["running"] for name in CARDS}

    def stored(self):
        cards = self.cards()
        return {name: cards[name]["main"]["version"] for name in CARDS}

    def journal(self):
        """What the driver was asked, as objects."""
        return [json.loads(line) for line in self.sim("journal", "/var/lib/cards", "--json").splitlines()]

    def forget_journal(self):
        self.sim("journal", "/var/lib/cards", "--clear")

    def writes(self):
        """Bytes erased and written, by node."""
        sums = {}
        for line in self.journal():
            if line.get("request") in ("EraseFirmwareData", "WriteFirmwareData"):
                node = sums.setdefault(line["node"], {"EraseFirmwareData": 0, "WriteFirmwareData": 0})
                node[line["request"]] += int(line["arguments"]["size"])
        return sums

    def add_user(self, name):
        """A user who may become root with su, without a password."""
        self.inside("sh", "-c", f"id {name} || useradd --create-home --password '*' --groups root {name}")
        (self.root / "etc/pam.d/su").write_text("auth sufficient pam_rootok.so\nauth sufficient pam_wheel.so trust\n"
                                                "account sufficient pam_permit.so\nsession sufficient pam_permit.so\n")

    # Power and connection

    def start(self):
        (self.root / "run/off").unlink(missing_ok=True)
        self._init = subprocess.Popen(
            ["unshare", "--mount", "--pid", "--uts", "--fork", "--kill-child", f"--mount-proc={self.root}/proc",
             "chroot", str(self.root), "/bin/bash", "/init"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
        wait_for(f"sshd of {self.name}", lambda: (self.root / "run/sshd.pid").exists())
        self._watcher = threading.Thread(target=self._watch, args=(self._init,), daemon=True)
        self._watcher.start()

    def _watch(self, init):
        """A host that turned itself off is turned on by somebody, if there is somebody."""
        if init.wait() == 0 and self._init is init and self.power_returns:
            self.power_cycle()

    def stop(self):
        """The power goes."""
        init, self._init = self._init, None
        if init is not None and init.poll() is None:
            init.kill()  # unshare, which takes the first process of the host with it
            init.wait()
        for mounted in [f"{self.root}/run", *self._mounts]:
            run("umount", mounted)
        self._mounts = []
        run("mount", "-t", "tmpfs", "run", self.root / "run")
        if (self.root / "var/lib/cards").is_dir():
            self.sim("power-cycle", "/var/lib/cards")

    def power_cycle(self):
        with self._cut:
            self.stop()
            self.start()

    def processes(self):
        """Numbers and names of the processes of the host, and their parents."""
        found = {}
        wanted = os.stat(f"/proc/{self._first()}/ns/pid").st_ino
        for entry in os.listdir("/proc"):
            try:
                if entry.isdigit() and os.stat(f"/proc/{entry}/ns/pid").st_ino == wanted:
                    name = pathlib.Path(f"/proc/{entry}/comm").read_text(encoding="utf-8").strip()
                    found[int(entry)] = name
            except OSError:
                continue
        return found

    def signal_upgrade(self, number):
        """Stops the tool that writes, or lets it go on."""
        for process, name in self.processes().items():
            if name == "qvcap-upgrade":
                os.kill(process, number)

    def is_joined(self):
        """Whether a process of it waits for the lock of its runs."""
        waiting = [line.split() for line in pathlib.Path("/proc/locks").read_text(encoding="ascii").splitlines()
                   if "-> FLOCK" in line]
        own = self.processes()
        return any(int(words[5]) in own for words in waiting)

    def _first(self):
        children = pathlib.Path(f"/proc/{self._init.pid}/task/{self._init.pid}/children").read_text(encoding="utf-8")
        return int(children.split()[0])

    def lose_connection(self):
        """sshd and its sessions end; all else goes on."""
        for number, name in self.processes().items():
            if name == "sshd":
                os.kill(number, signal.SIGKILL)
        (self.root / "run/sshd.pid").unlink(missing_ok=True)

    def regain_connection(self):
        run("nsenter", "-t", self._first(), "--mount", "--pid", "--uts", "chroot", self.root,
            "/usr/sbin/sshd", "-f", "/etc/ssh/demo")
        wait_for(f"sshd of {self.name}", lambda: (self.root / "run/sshd.pid").exists())

    def start_with(self, kind, path, options):
        """Starts it anew with a mount that it has until its power goes."""
        self.stop()
        run("mount", "-t", kind, "-o", options, kind, f"{self.root}{path}")
        self._mounts.append(f"{self.root}{path}")
        self.start()

    def hold(self, node, minor):
        """A program that captures: a process with the node open. The simulated cards are in the /dev of programs
        that are started with them alone, and so not seen in /proc: a node of their numbers stands in for it."""
        run("mknod", self.root / "dev" / node, "c", SIMULATED_MAJOR, minor)
        return self.start_inside("/usr/bin/python3", "-c", "import os, sys\n"
                                 f"os.open('/dev/{node}', os.O_PATH)\nprint('open', flush=True)\nsys.stdin.readline()")

    def start_inside(self, *command):
        """A process of the host that goes on."""
        return subprocess.Popen(["nsenter", "-t", str(self._first()), "--mount", "--pid", "--uts", "chroot",
                                 str(self.root), *command], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                start_new_session=True)

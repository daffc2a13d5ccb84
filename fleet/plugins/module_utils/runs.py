"""Upgrades that outlive whoever started them: each is a folder under the state folder of this host.

    runs/RUN/request.json    what was asked for, before anything is done
    runs/RUN/out.jsonl       what qvcap printed, and a line {"event":"exit"} behind each of its commands
    runs/RUN/errors.txt      its standard error
    run.lock                 held, as an flock, by the processes of the run; names the run

Whoever asks for the same while a run is at work waits for that one and gets its result. The lock goes with
the last process that holds it, however that ends. One thread per process.
"""
from __future__ import annotations

import fcntl
import hashlib
import json
import os
import shlex
import shutil
import subprocess
import time

from ansible_collections.qvcapture.fleet.plugins.module_utils import program

TIME = "%Y-%m-%dT%H:%M:%SZ"
KEPT_RUNS = 10


def time_text():
    return time.strftime(TIME, time.gmtime())


def key_of(request):
    """Equal for requests that ask for the same."""
    text = json.dumps(request, sort_keys=True)
    return hashlib.sha256(text.encode()).hexdigest()


def write_json(path, value):
    """Writes the whole file or nothing."""
    with open(path + ".new", "w", encoding="utf-8") as file:
        json.dump(value, file)
        file.flush()
        os.fsync(file.fileno())
    os.replace(path + ".new", path)


def read_json(path):
    try:
        with open(path, encoding="utf-8") as file:
            value = json.load(file)
    except (OSError, ValueError):
        return None
    return value if isinstance(value, dict) else None


class Run:
    """A run on disk, at work or over."""

    def __init__(self, folder):
        self.folder = folder
        self.name = os.path.basename(folder)
        self.request = read_json(os.path.join(folder, "request.json")) or {}
        self.events = program.parse_events(self._text("out.jsonl"))
        self.cards = program.closing_cards(self.events)
        self.said = self._text("errors.txt").strip().splitlines()

    def _text(self, name):
        try:
            with open(os.path.join(self.folder, name), encoding="utf-8", errors="replace") as file:
                return file.read()
        except OSError:
            return ""

    @property
    def began_a_card(self):
        return bool(program.of_kind(self.events, "card-begin"))

    @property
    def exit_statuses(self):
        return [event["status"] for event in program.of_kind(self.events, "exit")]

    @property
    def exit_status(self):
        """The worst exit status of its commands; None when one did not end by itself."""
        statuses = self.exit_statuses
        if len(statuses) < self.request.get("commands", 1) or any(s > 100 for s in statuses):
            return None
        for worst in (program.FAILED, program.BUSY):
            if worst in statuses:
                return worst
        others = [s for s in statuses if s not in (0, program.NOTHING_TO_DO, program.NO_CARD)]
        return others[0] if others else min(statuses, default=program.NOTHING_TO_DO)

    def problem(self):
        """Why it did not end well; None when it did, or is still running."""
        failed = program.failures(self.cards)
        if failed:
            return "; ".join(failed)
        status = self.exit_status
        if status in (program.DONE, program.NOTHING_TO_DO):
            return None
        if status is None:
            return f"qvcap was killed or did not start; what it said is in {self.folder}"
        notices = [event["message"] for event in program.of_kind(self.events, "notice")]
        if status == program.BUSY and notices:
            return notices[-1]
        if status == program.NO_CARD:
            return "no card was found, or no package fits one"
        return self.said[-1] if self.said else f"qvcap ended with status {status}"

    def summary(self, active):
        """In the format of docs/formats/fleet-host.schema.json."""
        return {"run": self.name, "begun": self.request.get("begun", "1970-01-01T00:00:00Z"), "active": active,
                "exit_status": None if active else self.exit_status,
                "problem": None if active else self.problem(), "cards": self.cards}


class Runs:
    """All runs of this host."""

    def __init__(self, state):
        self.state = state
        self.folder = os.path.join(state, "runs")
        self._lock_path = os.path.join(state, "run.lock")

    def all(self):
        """The oldest first."""
        try:
            names = sorted(os.listdir(self.folder))
        except OSError:
            names = []
        return [Run(os.path.join(self.folder, name)) for name in names]

    def active_name(self):
        """The active run; None when there is none."""
        try:
            with open(self._lock_path, "r+", encoding="utf-8") as file:
                try:
                    fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
                except BlockingIOError:
                    return self._holder(file).get("run")
        except OSError:
            pass
        return None

    def last(self, kind=None):
        """The newest run that began a card; of a kind, "upgrade" or "restore", when one is given."""
        for run in reversed(self.all()):
            if run.began_a_card and kind in (None, run.request.get("kind")):
                return run
        return None

    @staticmethod
    def _holder(file):
        """What the holder has written; empty until then."""
        file.seek(0)
        try:
            value = json.loads(file.read())
        except ValueError:
            return {}
        return value if isinstance(value, dict) else {}

    def take(self, key, wait):
        """Takes the lock, or waits for the active run.

        Returns (file, None) when a new run may begin, and (None, run) when one that was asked for the same
        was at work and has ended.
        """
        os.makedirs(self.folder, mode=0o755, exist_ok=True)
        while True:
            file = open(self._lock_path, "a+", encoding="utf-8")
            try:
                fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
                return file, None
            except BlockingIOError:
                pass
            holder = self._holder(file)
            if not holder:  # taken this moment, not signed yet
                file.close()
                time.sleep(0.05)
                continue
            if holder.get("key") != key and not wait:
                file.close()
                raise program.Problem(f"run {holder.get('run')}, begun {holder.get('begun')}, is at work with "
                                      "other packages or cards; nothing was done")
            fcntl.flock(file, fcntl.LOCK_EX)
            ended = self._holder(file)
            file.close()
            folder = os.path.join(self.folder, str(ended.get("run")))
            if ended.get("key") == key and os.path.isdir(folder):
                return None, Run(folder)

    def begin(self, file, key, kind, make_commands):
        """Starts a run and waits for its end. `make_commands` gets the folder for backups.

        The processes have a session of their own and hold the lock: neither the end of a connection nor that
        of this process reaches them.
        """
        begun = time_text()
        name = f"{begun.replace(':', '').replace('-', '')}-{os.getpid()}"
        file.seek(0)
        file.truncate()
        json.dump({"run": name, "key": key, "begun": begun}, file)
        file.flush()
        folder = os.path.join(self.folder, name)
        commands = make_commands(os.path.join(self.state, "backups", name))
        os.mkdir(folder, 0o755)
        write_json(os.path.join(folder, "request.json"),
                   {"kind": kind, "begun": begun, "key": key, "commands": len(commands)})
        script = "\n".join(f"{shlex.join(command)}\nprintf '{{\"event\":\"exit\",\"status\":%d}}\\n' $?"
                           for command in commands)
        with open(os.path.join(folder, "out.jsonl"), "ab") as out, \
                open(os.path.join(folder, "errors.txt"), "ab") as errors, \
                subprocess.Popen(["/bin/sh", "-c", script], stdin=subprocess.DEVNULL, stdout=out, stderr=errors,
                                 cwd="/", start_new_session=True, pass_fds=[file.fileno()]) as child:
            child.wait()
        run = Run(folder)
        if not run.began_a_card:
            self._remove(name)
        self.prune()
        return run

    def _remove(self, name):
        shutil.rmtree(os.path.join(self.folder, name), ignore_errors=True)
        shutil.rmtree(os.path.join(self.state, "backups", name), ignore_errors=True)

    def prune(self):
        """Keeps only the newest runs and their backups."""
        for run in self.all()[:-KEPT_RUNS]:
            self._remove(run.name)

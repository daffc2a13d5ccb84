"""Firmware packages on this host: each set that was brought is a folder named by what is in it.

    packages/SET/*.qvf       as they came, checked by SHA-256
    packages/current         a link to the set that was used last

A set is complete or not there. No state; one process at a time changes a set.
"""
from __future__ import annotations

import hashlib
import os
import shutil
import tempfile

from ansible_collections.qvcapture.fleet.plugins.module_utils import program

KEPT_SETS = 5


def sha256_of(path):
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        while block := file.read(1 << 20):
            digest.update(block)
    return digest.hexdigest()


def is_package_name(name):
    """The rule of qvcap-upgrade: `.qvf` anywhere in the name."""
    return ".qvf" in name


def packages_in(folder):
    """Names and checksums of the packages of a folder."""
    found = {}
    for name in sorted(os.listdir(folder)):
        path = os.path.join(folder, name)
        if is_package_name(name) and os.path.isfile(path):
            found[name] = sha256_of(path)
    return found


def set_name(wanted):
    lines = "".join(f"{wanted[name]}  {name}\n" for name in sorted(wanted))
    return hashlib.sha256(lines.encode()).hexdigest()[:16]


class PackageSets:
    def __init__(self, state):
        self.folder = os.path.join(state, "packages")

    def path(self, wanted):
        return os.path.join(self.folder, set_name(wanted))

    def has(self, wanted):
        path = self.path(wanted)
        return os.path.isdir(path) and packages_in(path) == wanted

    def current(self):
        """The set that was used last; None when there is none."""
        path = os.path.join(self.folder, "current")
        return os.path.realpath(path) if os.path.isdir(path) else None

    def add(self, wanted, source):
        """Copies the set that was put into the folder `source`."""
        os.makedirs(self.folder, mode=0o755, exist_ok=True)
        fresh = tempfile.mkdtemp(prefix=".new-", dir=self.folder)
        try:
            for name in wanted:
                shutil.copyfile(os.path.join(source, name), os.path.join(fresh, name))
            check(wanted, fresh)
            os.chmod(fresh, 0o755)
            shutil.rmtree(self.path(wanted), ignore_errors=True)
            os.rename(fresh, self.path(wanted))
        finally:
            shutil.rmtree(fresh, ignore_errors=True)

    def use(self, wanted):
        """Makes it the current set and removes the oldest of the others."""
        path = self.path(wanted)
        os.utime(path)
        link = os.path.join(self.folder, "current")
        fresh = f"{link}.{os.getpid()}"
        os.symlink(set_name(wanted), fresh)
        os.replace(fresh, link)
        names = [name for name in os.listdir(self.folder) if not name.startswith((".", "current"))]
        folders = sorted((os.path.join(self.folder, name) for name in names), key=os.path.getmtime)
        for old in folders[:-KEPT_SETS]:
            shutil.rmtree(old, ignore_errors=True)
        return path


def check(wanted, folder):
    found = packages_in(folder)
    for name, digest in wanted.items():
        if found.get(name) != digest:
            raise program.Problem(f"{name} did not arrive as it was sent: its SHA-256 differs; try again")

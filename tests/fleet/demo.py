#!/usr/bin/env python3
"""The scenarios of scripts/fleet-demo, which prepares what they need and says how to call it."""
from __future__ import annotations

import argparse
import hashlib
import os
import pathlib
import shutil
import sys
import time

import scenarios
from controller import Controller
from hosts import Host, run

FIRST_PORT = int(os.environ.get("QV_FLEET_PORT", "22400"))  # hosts take those behind it


def installed_layer(tree, given, work, controller):
    """The Debian with the project's packages: the role `install` has brought them to a host, once for each build."""
    architecture = given.architecture
    packages = tree / given.packages
    debs = sorted(packages.glob(f"*_{architecture}.deb"))
    digest = hashlib.sha256()
    for deb in debs:
        digest.update(deb.read_bytes())
    for file in sorted((tree / "fleet/roles/install").rglob("*.*")):
        digest.update(file.read_bytes())
    layer = tree / f"build/fleet/installed-{architecture}-{digest.hexdigest()[:16]}"
    if not layer.is_dir():
        print("== the role install brings the packages to a host", flush=True)
        host = Host(work, given.base, 0, FIRST_PORT)
        host.start()
        scenarios.install(controller, host, packages)
        host.stop()
        for mounted in ("run", "dev", "."):
            run("umount", host.root / mounted)
        for old in (tree / "build/fleet").glob(f"installed-{architecture}-*"):
            shutil.rmtree(old)
        run("cp", "-a", host.folder / "upper", layer)
    return f"{layer}:{given.base}"


def main():
    parser = argparse.ArgumentParser(prog="scripts/fleet-demo")
    for name in ("tree", "base", "architecture", "packages"):
        parser.add_argument(name)
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--keep", action="store_true")
    parser.add_argument("--scale", action="store_true")
    parser.add_argument("--only", help="the scenarios with this text in their names")
    parser.add_argument("count", type=int, nargs="*")
    given = parser.parse_intermixed_args()
    tree = pathlib.Path(given.tree)
    work = tree / "build/fleet/run"
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    # In memory: what is written to so many hosts is gone with them.
    run("mount", "-t", "tmpfs", "fleet", work)
    run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", work / "host_key")
    run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", work / "key")
    controller = Controller(tree, work)
    lower = installed_layer(tree, given, work, controller)
    if given.scale:
        import scale  # the bench of many hosts

        return scale.measure(given.count or [10, 100], work, lower, controller, FIRST_PORT)
    count = 3 if given.short else (given.count or [5])[0]
    if count < 3:
        parser.error("at least 3 hosts")
    hosts = [Host(work, lower, number, FIRST_PORT + number) for number in range(1, count + 1)]
    for host in hosts:
        host.make_cards()
        host.start()
    controller.know(hosts)
    if given.keep:
        return keep(hosts, controller)
    return play(hosts, controller, given)


def keep(hosts, controller):
    scenarios.packages_of(hosts[0], controller)
    print(f"""{len(hosts)} hosts run. In another shell, as root:

    nsenter --target "$(pgrep --oldest --full {controller.tree}/build/fleet/base)" --mount --pid bash
    export ANSIBLE_CONFIG={controller.config}
    ansible-playbook -i {controller.inventory} qvcapture.fleet.status -e qvcap_report={controller.report}
    ansible-playbook -i {controller.inventory} qvcapture.fleet.upgrade -e qvcap_report={controller.report} \\
        -e qvcap_packages={controller.firmware}

Press Enter here to end them.""", flush=True)
    with controller.power_switch(hosts):
        sys.stdin.readline()
    for host in hosts:
        host.stop()
    return 0


def play(hosts, controller, given):
    begun = time.monotonic()
    failed = []
    chosen = scenarios.SHORT if given.short else scenarios.ALL
    for scenario in chosen:
        name = scenario.__name__
        if given.only and given.only not in name:
            continue
        print(f"== {name.replace('_', ' ')}", flush=True)
        started = time.monotonic()
        scenarios.fresh(hosts, controller)
        with controller.power_switch(hosts):
            try:
                scenario(hosts, controller)
                print(f"   {time.monotonic() - started:.0f} s", flush=True)
            except Exception as problem:  # whatever it is, the other scenarios are played all the same
                failed.append(name)
                log = controller.tree / f"build/fleet/failed-{name}.log"
                log.write_text(controller.last_output())
                print(f"FAILED: {name}: {problem}\n   what Ansible printed last: {log}", file=sys.stderr, flush=True)
    for host in hosts:
        host.stop()
    print(f"{'FAILED: ' + ', '.join(failed) if failed else 'seen to work'}; {len(hosts)} hosts, "
          f"{time.monotonic() - begun:.0f} s")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())

"""What the controller needs for each host, and how that grows: status.yml and an upgrade over light hosts, which
share one root and differ in what they have in memory. Hosts and controller are on the same processors: wall time is
theirs together, processor time and memory are the controller's alone."""
from __future__ import annotations

import os
import resource
import threading
import time

import scenarios
from hosts import Host, run

PLAYS = (("status", {}), ("upgrade", {"qvcap_serial": "100%", "qvcap_room": 0, "qvcap_poll": 15}))


def resident(process):
    """Bytes that a controller and all its descendants hold now, shared pages counted by share."""
    total = 0
    pending = [process]
    while pending:
        number = pending.pop()
        try:
            with open(f"/proc/{number}/smaps_rollup", encoding="ascii") as file:
                total += sum(int(line.split()[1]) for line in file if line.startswith("Pss:")) * 1024
            with open(f"/proc/{number}/task/{number}/children", encoding="ascii") as file:
                pending += [int(child) for child in file.read().split()]
        except OSError:
            continue
    return total


def measured(controller, playbook, variables):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    begun = time.monotonic()
    started = controller.start(playbook, **variables)
    most = [0]
    over = threading.Event()

    def watch():
        while not over.wait(0.5):
            most[0] = max(most[0], resident(started[0].pid))

    watcher = threading.Thread(target=watch)
    watcher.start()
    done = controller.end(started)
    over.set()
    watcher.join()
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    assert done.status == 0, done.output
    return {"seconds": time.monotonic() - begun, "memory": most[0], "again": done.output.count("FAILED - RETRYING"),
            "processor": after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime}


def measure(counts, work, lower, controller, first_port):
    hosts = []
    figures = {}
    print(f"{os.cpu_count()} processors, {controller.forks} forks")
    print(f"{'playbook':10} {'hosts':>6} {'wall s':>8} {'cpu s':>8} {'cpu s/host':>11} {'memory MiB':>11} "
          f"{'asked again':>12}")
    for count in sorted(counts):
        while len(hosts) < count:
            host = Host(work, lower, len(hosts) + 1, first_port + len(hosts) + 1)
            host.make_cards()
            host.start()
            hosts.append(host)
        controller.know(hosts)
        scenarios.packages_of(hosts[0], controller)
        for playbook, variables in PLAYS:
            given = {**variables, "qvcap_packages": controller.firmware} if playbook == "upgrade" else variables
            seen = figures[playbook, count] = measured(controller, playbook, given)
            print(f"{playbook:10} {count:6} {seen['seconds']:8.1f} {seen['processor']:8.1f} "
                  f"{seen['processor'] / count:11.2f} {seen['memory'] / 2**20:11.0f} {seen['again']:12}", flush=True)
        for host in hosts:
            run("rm", "-rf", host.root / "var/lib/qvcap-fleet")
            host.make_cards()
    for host in hosts:
        host.stop()
    least, most = min(counts), max(counts)
    for playbook, _ in PLAYS:
        growth = figures[playbook, most]["processor"] / most / (figures[playbook, least]["processor"] / least)
        print(f"{playbook}: processor time of a host among {most} and among {least}: ratio {growth:.2f}")
        if growth > 1.1:
            print(f"FAILED: {playbook} grows faster than the number of hosts")
            return 1
    return 0

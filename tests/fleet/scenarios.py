"""What must happen on a fleet: each scenario begins with fresh hosts and asserts what Ansible said, what the
simulated cards were asked, and what they hold."""
from __future__ import annotations

import contextlib
import json
import shutil
import signal

import jsonschema
from hosts import CARDS, wait_for

OLD = {"00:00": "1.0", "00:01": "1.0", "01:00": "1.2"}
NEWER = {"00:00": "1.2", "00:01": "1.2", "01:00": "1.4"}
NEW = {"00:00": "1.1", "00:01": "1.1", "01:00": "1.3"}


def equal(expected, seen, what):
    assert expected == seen, f"{what}: expected {expected}, saw {seen}"


def fresh(hosts, controller):
    """Hosts as they were at first, and the packages for them."""
    for host in hosts:
        host.stop()
        for folder in ("var/lib/qvcap-fleet", "var/log/qvcap", "root/.ansible_async"):
            shutil.rmtree(host.root / folder, ignore_errors=True)
        host.make_cards()
        host.power_returns = True
        host.start()
    shutil.rmtree(controller.report, ignore_errors=True)
    packages_of(hosts[0], controller)


def packages_of(host, controller):
    """Brings the packages for its cards to the controller."""
    shutil.rmtree(controller.firmware, ignore_errors=True)
    shutil.copytree(host.root / "var/lib/cards/packages", controller.firmware)


def all_of(hosts, value):
    return {host.name: value for host in hosts}


def report(controller, host):
    return json.loads((controller.report / "hosts" / f"{host.name}.json").read_text())


def nothing_written(hosts):
    for host in hosts:
        equal({}, host.writes(), f"{host.name}: erased and written")


def written_as_planned(controller, hosts):
    """Every byte that was erased or written belongs to a plan: each card once, as long as its package."""
    sizes = {path.name: path.stat().st_size for path in controller.firmware.iterdir()}
    duo = next(size for name, size in sizes.items() if "duo" in name)
    quad = next(size for name, size in sizes.items() if "quad" in name)
    for host in hosts:
        writes = host.writes()
        equal({"/dev/video0", "/dev/video1", "/dev/video2"}, set(writes), f"{host.name}: nodes that were written")
        for node, size in (("/dev/video0", duo), ("/dev/video1", duo), ("/dev/video2", quad)):
            equal({"EraseFirmwareData": size, "WriteFirmwareData": size}, writes[node], f"{host.name} {node}")


def upgraded(done, changed, hosts, controller):
    """A run that ended well changed these hosts; every card was written once and runs what is new."""
    equal(0, done.status, "status")
    equal(changed, done.count("changed"), "changed")
    written_as_planned(controller, hosts)
    for host in hosts:
        equal(NEW, host.running(), f"{host.name} runs")


def install(controller, host, packages):
    """The role install, a second time without a change."""
    controller.know([host])
    variables = {"qvcap_debs": packages, "qvcap_install_packages": [
        "libqvcapture3", "qvcap-upgrade", "qvcap", "qvcapture-companions", "qvcapture-door"]}
    first = controller.play("install", **variables)
    equal(0, first.status, f"status of the role install\n{first.output}")
    assert first.recap[host.name]["changed"] > 0, "the role install changed nothing"
    again = controller.play("install", **variables)
    equal(0, again.status, f"status of the role install, run again\n{again.output}")
    equal(0, again.recap[host.name]["changed"], f"changes of the role install, run again\n{again.output}")


def a_healthy_fleet(hosts, controller):
    """Check mode shows the plan and writes nothing; the upgrade writes each card once; a second one nothing."""
    plan = controller.upgrade("--check", "--diff")
    equal(0, plan.status, "status in check mode")
    equal(all_of(hosts, 1), plan.count("changed"), "changed in check mode")
    assert "00:00 Pelix Duo HDMI" in plan.output and "+00:00" in plan.output, "diff mode shows no table"
    nothing_written(hosts)
    for host in hosts:
        assert not (host.root / "var/lib/qvcap-fleet").exists(), f"{host.name}: check mode left something"
    done = controller.upgrade()
    upgraded(done, all_of(hosts, 1), hosts, controller)
    equal(all_of(hosts, 0), done.count("failed"), "failed")
    for host in hosts:
        equal(3, report(controller, host)["status"]["summary"]["current"], f"{host.name}: current in the report")
        equal(3, len(report(controller, host)["run"]["cards"]), f"{host.name}: cards of the run in the report")
        valid_report(controller, report(controller, host))
        host.forget_journal()
    again = controller.upgrade()
    equal(0, again.status, "status of the second run")
    equal(all_of(hosts, 0), again.count("changed"), "changed by the second run")
    nothing_written(hosts)


def slow(host, milliseconds=2500):
    """Each write to the first card takes its time."""
    host.sim("fault", "add", "/var/lib/cards", "request=WriteFirmwareData", "kind=slow", f"value={milliseconds}",
             "count=-1", "board=0", "channel=0")


def is_writing(host):
    return any(line.get("request") == "WriteFirmwareData" for line in host.journal())


@contextlib.contextmanager
def writing_stands_still(host):
    """From the first write on, until the end of the block."""
    wait_for("a write", lambda: is_writing(host))
    host.signal_upgrade(signal.SIGSTOP)
    try:
        yield
    finally:
        host.signal_upgrade(signal.SIGCONT)


def has_ended(host):
    return not any(name.startswith("qvcap") for name in host.processes().values())


def a_failing_canary(hosts, controller):
    """A card of the first host cannot be erased: its other cards are done, and no other host is touched."""
    canary, rest = hosts[0], hosts[1:]
    canary.sim("fault", "add", "/var/lib/cards", "request=EraseFirmwareData", "kind=refuse", "count=-1", "board=0",
               "channel=1")
    done = controller.upgrade()
    equal(2, done.status, "status")
    equal({**all_of(hosts, 0), canary.name: 1}, done.count("failed"), "failed")
    equal({**all_of(hosts, 0), canary.name: 1}, done.count("changed"), "changed")
    nothing_written(rest)
    equal({"00:00": "1.1", "00:01": "1.0", "01:00": "1.3"}, canary.stored(), "in the flash of the canary")
    equal(OLD, canary.running(), "a host with a failed card is not turned off; it runs")
    error = report(controller, canary)["error"]
    valid_report(controller, report(controller, canary))
    log = error.rpartition("log: ")[2]
    assert error.startswith("00:01 (Pelix Duo HDMI, serial PX0010) failed: "), error
    assert (canary.root / log.lstrip("/")).is_file(), f"no log at {log}"
    assert error in done.output, "the failure is not in the output of Ansible"
    assert canary.name in page(controller) and "PX0010" in page(controller)


def a_fleet_that_goes_on(hosts, controller):
    """The same canary, when one failed host is not to stop the rest: they are done, and it fails at the end."""
    canary, rest = hosts[0], hosts[1:]
    canary.sim("fault", "add", "/var/lib/cards", "request=EraseFirmwareData", "kind=refuse", "count=-1", "board=0",
               "channel=1")
    done = controller.upgrade(qvcap_go_on="true")
    equal(2, done.status, "status")
    equal({**all_of(hosts, 0), canary.name: 1}, done.count("failed"), "failed")
    equal(all_of(hosts, 1), done.count("changed"), "changed")
    written_as_planned(controller, rest)
    equal(OLD, canary.running(), "a host with a failed card is not turned off; it runs")
    for host in rest:
        equal(NEW, host.running(), f"{host.name} runs")


def an_unprivileged_login(hosts, controller):
    """Ansible logs in as a user and becomes root on the host: the same upgrade, and nothing twice."""
    for host in hosts:
        host.add_user("keeper")
    become = {"ansible_user": "keeper", "ansible_become": "true", "ansible_become_method": "su",
              "qvcap_program": "/usr/local/sbin/qvcap"}  # a user's path has no such folder
    done = controller.upgrade(**become)
    equal(0, done.status, "status")
    equal(all_of(hosts, 1), done.count("changed"), "changed")
    written_as_planned(controller, hosts)
    for host in hosts:
        equal(NEW, host.running(), f"{host.name} runs")
        host.forget_journal()
    again = controller.upgrade(**become)
    equal(all_of(hosts, 0), again.count("changed"), "changed by the second run")
    nothing_written(hosts)


def page(controller):
    return (controller.report / "fleet.html").read_text(encoding="utf-8")


def a_lost_connection(hosts, controller):
    """The first host cannot be reached while it is written to, and comes back: one upgrade, nothing twice."""
    slow(hosts[0])
    started = controller.start("upgrade", **controller.upgrade_variables())
    wait_for("a write", lambda: is_writing(hosts[0]))
    hosts[0].lose_connection()
    wait_for("the end of qvcap", lambda: has_ended(hosts[0]))
    hosts[0].regain_connection()
    done = controller.end(started)
    upgraded(done, all_of(hosts, 1), hosts, controller)


def a_host_that_stays_away(hosts, controller):
    """It is given up, and the rest left alone; its upgrade ends all the same. The next run does the rest."""
    away, rest = hosts[0], hosts[1:]
    slow(away)
    started = controller.start("upgrade", **controller.upgrade_variables(), qvcap_back=2)
    wait_for("a write", lambda: is_writing(away))
    away.lose_connection()
    done = controller.end(started)
    equal(2, done.status, "status")
    equal({**all_of(hosts, 0), away.name: 1}, done.count("failed"), "failed")
    nothing_written(rest)
    wait_for("the end of qvcap", lambda: has_ended(away))
    equal(NEW, away.stored(), "in the flash of the host that was away")
    equal(False, report(controller, away)["reachable"], "reachable in the report")
    away.regain_connection()
    again = controller.upgrade()
    upgraded(again, {**all_of(hosts, 1), away.name: 0}, hosts, controller)


def a_full_host(hosts, controller):
    """Pre-flight finds it: nothing is written anywhere, unless it is to be left out."""
    full, rest = hosts[1], [hosts[0], *hosts[2:]]
    state = full.root / "var/lib/qvcap-fleet"
    state.mkdir()
    full.start_with("tmpfs", "/var/lib/qvcap-fleet", "size=64k")
    done = controller.upgrade()
    equal(2, done.status, "status")
    equal({**all_of(hosts, 0), full.name: 1}, done.count("failed"), "failed")
    assert "/var/lib/qvcap-fleet has 65536 free bytes" in done.output, "the reason is not in the output"
    nothing_written(hosts)
    without = controller.upgrade(qvcap_leave_out="true")
    equal({**all_of(hosts, 1), full.name: 0}, without.count("changed"), "changed when it is left out")
    equal({**all_of(hosts, 0), full.name: 1}, without.count("failed"), "failed when it is left out")
    equal(2, without.status, "status when it is left out")
    nothing_written([full])
    written_as_planned(controller, rest)
    # Without the look at its room it fails before its first erase.
    forced = controller.upgrade(qvcap_room=0)
    equal(2, forced.status, "status without pre-flight for room")
    equal({**all_of(hosts, 0), full.name: 1}, forced.count("failed"), "failed without pre-flight for room")
    nothing_written([full])


def a_host_that_captures(hosts, controller):
    """A process has a card open: pre-flight names it, and nothing is written."""
    user = hosts[1].hold("video1", 1)
    equal("open\n", user.stdout.readline(), "what the capturing program said")
    done = controller.upgrade()
    equal(2, done.status, "status")
    equal({**all_of(hosts, 0), hosts[1].name: 1}, done.count("failed"), "failed")
    assert "/dev/video1 is open in python3 (process" in done.output, "who captures is not in the output"
    nothing_written(hosts)
    user.communicate("end\n")
    (hosts[1].root / "dev/video1").unlink()
    again = controller.upgrade()
    equal(0, again.status, "status when it has ended")
    written_as_planned(controller, hosts)


def a_staged_host(hosts, controller):
    """Somebody has upgraded it by hand: it is not written again, only turned off and on."""
    staged = hosts[0]
    staged.inside("/usr/local/sbin/qvcap", "upgrade", "--packages", "/var/lib/cards/packages")
    done = controller.upgrade()
    upgraded(done, {**all_of(hosts, 1), staged.name: 0}, hosts, controller)


def nobody_turns_hosts_off(hosts, controller):
    """The default: the output and the page say which hosts somebody must turn off; later nothing is written."""
    done = controller.play("upgrade", qvcap_packages=controller.firmware)
    equal(0, done.status, "status")
    equal(len(hosts), done.output.count("Somebody must turn this host off and on: 00:00, 00:01, 01:00 staged"),
          "hosts that somebody must turn off")
    for host in hosts:
        equal(OLD, host.running(), f"{host.name} runs")
        equal(3, report(controller, host)["status"]["summary"]["staged"], f"{host.name}: staged in the report")
    again = controller.play("upgrade", "-e", "qvcap_force=true", qvcap_packages=controller.firmware)
    equal(all_of(hosts, 0), again.count("changed"), "changed by a forced run over staged cards")
    written_as_planned(controller, hosts)


def hosts_that_turn_themselves_off(hosts, controller):
    """Each turns itself off when its result has arrived; somebody turns it on."""
    done = controller.play("upgrade", qvcap_packages=controller.firmware, qvcap_power="when_off")
    upgraded(done, all_of(hosts, 1), hosts, controller)


def a_killed_controller(hosts, controller):
    """The one that is started again takes up the upgrade that is at work, and does the rest."""
    slow(hosts[0])
    started = controller.start("upgrade", **controller.upgrade_variables())
    with writing_stands_still(hosts[0]):
        controller.kill(started)
        again = controller.start("upgrade", **controller.upgrade_variables())
        wait_for("a second controller that joins", hosts[0].is_joined, 300)
    done = controller.end(again)
    upgraded(done, all_of(hosts, 1), hosts, controller)


def a_package_that_fits_nothing(hosts, controller):
    shutil.rmtree(controller.firmware)
    controller.firmware.mkdir()
    hosts[0].sim("init", "/tmp/others", "--packages")
    shutil.copy(hosts[0].root / "tmp/others/packages/pelix-safe-hdmi-2.1.qvf", controller.firmware)
    shutil.rmtree(hosts[0].root / "tmp/others")
    done = controller.upgrade()
    equal(2, done.status, "status")
    equal({**all_of(hosts, 0), hosts[0].name: 1}, done.count("failed"), "failed")
    equal(all_of(hosts, 0), done.count("changed"), "changed")
    assert "no package fits" in done.output, "the reason is not in the output"
    nothing_written(hosts)


def two_controllers(hosts, controller):
    """One that wants the same joins; one that wants something else is refused. Nothing is written twice."""
    slow(hosts[0])
    variables = {"qvcap_packages": controller.firmware}
    first = controller.start("upgrade", **variables)
    other = controller.work / "other"
    shutil.rmtree(other, ignore_errors=True)
    shutil.copytree(controller.firmware, other)
    next(other.glob("*quad*")).unlink()
    with writing_stands_still(hosts[0]):
        same = controller.start("upgrade", **variables)
        refused = controller.play("upgrade", qvcap_packages=other)
        wait_for("a second controller that joins", hosts[0].is_joined, 300)
    equal(2, refused.status, "status of the one with other packages")
    assert "is at work with other packages or cards; nothing was done" in refused.output, "not said why"
    ends = [controller.end(first), controller.end(same)]
    equal([0, 0], [end.status for end in ends], "statuses of the two that wanted the same")
    equal(1, ends[0].recap[hosts[0].name]["changed"], "changed of the first")
    equal(1, ends[1].recap[hosts[0].name]["changed"], "changed of the one that joined")
    written_as_planned(controller, hosts)


def later(host, controller):
    """Puts packages of the version after the next in the place of those."""
    shutil.rmtree(controller.firmware)
    text = (host.root / "tmp/cards.toml").read_text()
    (host.root / "tmp/later.toml").write_text(text.replace('firmware = "1.0"', 'firmware = "1.1"')
                                              .replace('firmware = "1.2"', 'firmware = "1.3"'))
    host.sim("init", "/tmp/later", "--scenario", "/tmp/later.toml", "--packages")
    shutil.copytree(host.root / "tmp/later/packages", controller.firmware)
    shutil.rmtree(host.root / "tmp/later")


def a_rollback(hosts, controller):
    """Backups of the upgrade go back onto the cards; a second rollback has nothing to do."""
    equal(0, controller.upgrade().status, "status of the upgrade")
    later(hosts[0], controller)
    equal(0, controller.upgrade().status, "status of the upgrade after that")
    for host in hosts:
        equal(NEWER, host.running(), f"{host.name} runs")
    variables = {key: value for key, value in controller.upgrade_variables().items() if key != "qvcap_packages"}
    for host in hosts:
        host.forget_journal()
    plan = controller.play("rollback", "--check", **variables)
    equal(0, plan.status, "status in check mode")
    equal(all_of(hosts, 1), plan.count("changed"), "changed in check mode")
    nothing_written(hosts)
    back = controller.play("rollback", **variables)
    equal(0, back.status, "status")
    equal(all_of(hosts, 1), back.count("changed"), "changed")
    for host in hosts:
        equal(NEW, host.running(), f"{host.name} runs")
        host.forget_journal()
    again = controller.play("rollback", **variables)
    equal(0, again.status, "status of the second rollback")
    equal(all_of(hosts, 0), again.count("changed"), "changed by the second rollback")
    nothing_written(hosts)


def the_page(hosts, controller):
    """Of hosts that answer and one that does not; each file of a host is as its schema has it."""
    hosts[-1].lose_connection()
    done = controller.play("status")
    equal(2, done.status, "status with a host that does not answer")
    equal({**all_of(hosts, 0), hosts[-1].name: 1}, done.count("failed"), "failed")
    shown = page(controller)
    for host in hosts:
        assert host.name in shown, f"{host.name} is not on the page"
        valid_report(controller, report(controller, host))
    equal([True] * (len(hosts) - 1) + [False], [report(controller, host)["reachable"] for host in hosts], "reachable")
    hosts[-1].regain_connection()
    equal(0, controller.play("status").status, "status when all answer")
    nothing_written(hosts)


def valid_report(controller, value):
    base = "file:///formats/"  # a name: what refers to another schema finds it in the store
    store = {base + path.name: json.loads(path.read_text())
             for path in (controller.tree / "docs/formats").glob("*.schema.json")}
    schema = store[base + "fleet-host.schema.json"]
    resolver = jsonschema.RefResolver(base + "fleet-host.schema.json", schema, store=store)
    jsonschema.Draft202012Validator(schema, resolver=resolver).validate(value)


SHORT = [a_healthy_fleet, a_failing_canary, a_killed_controller]
ALL = [a_healthy_fleet, a_failing_canary, a_fleet_that_goes_on, an_unprivileged_login, a_lost_connection,
       a_host_that_stays_away, a_full_host, a_host_that_captures, a_staged_host, nobody_turns_hosts_off, hosts_that_turn_themselves_off,
       a_killed_controller, a_package_that_fits_nothing, two_controllers, a_rollback, the_page]

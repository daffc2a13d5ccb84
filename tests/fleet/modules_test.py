"""The modules of the collection as programs, on a stand-in for qvcap that says what a test tells it to, and
writes down how it was called."""
from __future__ import annotations

import hashlib
import importlib.util
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

TREE = pathlib.Path(__file__).resolve().parents[2]

# Says what is in the file `answer-COMMAND`, one for dry runs, or waits until there is a file `go`.
STAND_IN = """#!/bin/sh
here=$(dirname "$0")
echo "$@" >>"$here/calls"
case "$*" in
    upgrade*--dry-run*) name=plan ;;
    *) name=$1 ;;
esac
while [ -e "$here/wait-$name" ]; do sleep 0.02; done
cat "$here/answer-$name"
exit "$(cat "$here/status-$name")"
"""


def card(name="00:00", **values):
    return {"card": name, "path": f"/dev/video{int(name[-1])}", "product": "Duo", "serial": "S1", "from": "1.0",
            "to": "1.1", "package": "a.qvf", "sha256": "0" * 64, "state": "staged", "result": "done", "reason": "",
            "attempts": 1, "tool_result": "success", "tool_message": "", "tool_output": "/var/log/qvcap/tool-1.log",
            **values}


def begun(name="00:00"):
    return {"event": "card-begin", "card": name}


def stage(kind, percent=0, name="00:00"):
    return {"event": "stage", "card": name, "stage": kind, "percent": percent}


def plan(name="00:00", **values):
    return {"event": "plan", "card": name, "path": f"/dev/video{int(name[-1])}", "product": "Duo", "serial": "S1",
            "state": "upgrade available", "action": "flash", "mode": "upgrade", **values}


def end(*cards, status=0):
    return {"event": "end", "exit_status": status, "cards": list(cards)}


class Modules(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        place = self.folder / "collections/ansible_collections/qvcapture"
        place.mkdir(parents=True)
        (place / "fleet").symlink_to(TREE / "fleet")
        self.program = self.folder / "qvcap"
        self.program.write_text(STAND_IN)
        self.program.chmod(0o755)
        off = self.folder / "poweroff"  # comes first on PATH, and is not there any more when its time has come
        off.write_text("#!/bin/sh\nexit 0\n")
        off.chmod(0o755)
        self.brought = self.folder / "brought"
        self.brought.mkdir()
        (self.brought / "a.qvf").write_bytes(b"package")
        self.state = self.folder / "state"

    def answer(self, command, *objects, status=0):
        (self.folder / f"answer-{command}").write_text("".join(json.dumps(o) + "\n" for o in objects))
        (self.folder / f"status-{command}").write_text(str(status))

    def calls(self):
        try:
            return (self.folder / "calls").read_text().splitlines()
        except FileNotFoundError:
            return []

    def begin(self, module, check=False, diff=False, **arguments):
        arguments = {"program": str(self.program), "state": str(self.state), "_ansible_check_mode": check,
                     "_ansible_diff": diff, **arguments}
        environment = {**os.environ, "PYTHONPATH": str(self.folder / "collections")}
        environment["PATH"] = f"{self.folder}:{environment['PATH']}"
        process = subprocess.Popen(
            [sys.executable, "-B", "-m", f"ansible_collections.qvcapture.fleet.plugins.modules.{module}"],
            env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        process.stdin.write(json.dumps({"ANSIBLE_MODULE_ARGS": arguments}))
        process.stdin.close()
        return process

    def result(self, process):
        out, errors = process.stdout.read(), process.stderr.read()
        process.wait()
        process.stdout.close()
        process.stderr.close()
        self.assertTrue(out, errors)
        return json.loads(out)

    def firmware(self, check=False, diff=False, **arguments):
        if "restore" not in arguments:
            arguments = {"wanted": {"a.qvf": hashlib.sha256(b"package").hexdigest()}, "brought": str(self.brought),
                         **arguments}
        return self.begin("qvcap_firmware", check, diff, **arguments)

    def run_firmware(self, *arguments, **named):
        return self.result(self.firmware(*arguments, **named))

    def files(self):
        return [str(path.relative_to(self.folder)) for path in self.state.rglob("*")]

    def upgrades(self):
        return [call for call in self.calls() if call.startswith("upgrade") and "--dry-run" not in call]

    def wait_for(self, condition):
        while not condition():
            time.sleep(0.01)


class Upgrades(Modules):
    def test_a_written_flash_is_a_change(self):
        self.answer("upgrade", plan(), begun(), stage("erasing"), end(card()))
        result = self.run_firmware()
        self.assertEqual((True, ["00:00"], ["00:00"], 0, "awaited"),
                         tuple(result[key] for key in ("changed", "written", "staged", "exit_status", "power")))
        self.assertEqual(1, len(self.upgrades()))
        self.assertIn(f"--backup {self.state}/backups/{result['run']}", self.upgrades()[0])
        self.assertEqual(b"package", pathlib.Path(result["packages"], "a.qvf").read_bytes())

    def test_staged_and_current_cards_are_no_change(self):
        self.answer("upgrade", plan(), end(card(result="left"), card("00:01", result="left", state="current")), status=2)
        result = self.run_firmware()
        self.assertEqual((False, [], ["00:00"], ""),
                         tuple(result[key] for key in ("changed", "written", "staged", "run")))
        self.assertEqual([], list((self.state / "runs").iterdir()))

    def test_a_refused_first_erase_is_a_failure_and_no_change(self):
        failed = card(result="failed", state="upgrade available", reason="erase failed")
        self.answer("upgrade", plan(), begun(), stage("erasing"), end(failed), status=1)
        result = self.run_firmware()
        self.assertEqual((True, False), (result["failed"], result["changed"]))
        self.assertEqual("00:00 (Duo, serial S1) failed: erase failed; log: /var/log/qvcap/tool-1.log", result["msg"])

    def test_a_failure_after_an_erase_is_a_change(self):
        failed = card(result="failed", state="upgrade available", reason="write failed")
        self.answer("upgrade", plan(), begun(), stage("erasing"), stage("writing"), end(failed), status=1)
        self.assertEqual(["00:00"], self.run_firmware()["written"])

    def test_a_flash_that_is_judged_otherwise_than_before_is_a_change(self):
        failed = card(result="failed", state="interrupted", reason="erase failed")
        self.answer("upgrade", plan(), begun(), end(failed), status=1)
        self.assertTrue(self.run_firmware()["changed"])

    def test_no_card_and_no_package_is_a_failure(self):
        self.answer("upgrade", end(card(result="skipped", state="no package", to="")), status=3)
        self.assertEqual("no card was found, or no package fits one", self.run_firmware()["msg"])

    def test_a_run_without_its_end_is_a_failure(self):
        self.program.write_text(STAND_IN.replace("exit", "kill -9 $$; exit"))
        self.answer("upgrade", begun(), stage("writing"))
        result = self.run_firmware()
        self.assertTrue(result["failed"])
        self.assertIsNone(result["exit_status"])
        self.assertIn("qvcap was killed", result["msg"])

    def test_somebody_at_work_is_named(self):
        self.answer("upgrade", {"event": "notice", "message": "flasher (process 7) is at work"}, status=5)
        self.assertEqual("flasher (process 7) is at work", self.run_firmware()["msg"])

    def test_only_cards_that_were_asked_for(self):
        self.answer("plan", end(card(), card("00:01")))
        self.answer("upgrade", begun("00:01"), end(card("00:01")))
        self.run_firmware(cards=["0:1", "3"])
        self.assertEqual(["--device /dev/video1", "--board 3"],
                         [" ".join(call.split()[-2:]) for call in self.upgrades()])
        self.assertEqual("there is no card 7:7; there are: 00:00, 00:01", self.run_firmware(cards=["7:7"])["msg"])

    def test_force_leaves_a_staged_card_alone(self):
        self.answer("plan", plan(state="staged"), plan("00:01", state="current"), end(card(), card("00:01")))
        self.answer("upgrade", begun(), end(card()))
        self.run_firmware(force=True)
        self.assertEqual([False, True], ["--force" in call for call in self.upgrades()])

    def test_check_mode_shows_the_plan_and_leaves_nothing(self):
        self.answer("plan", plan(), end(card(result="planned", state="upgrade available")))
        result = self.run_firmware(check=True, diff=True)
        self.assertEqual((True, ["00:00"]), (result["changed"], result["written"]))
        self.assertEqual(("00:00 Duo S1: 1.0\n", "00:00 Duo S1: 1.1\n"),
                         (result["diff"]["before"], result["diff"]["after"]))
        self.assertEqual([], self.files())
        self.assertEqual([], self.upgrades())
        self.assertIn(f"--packages {self.brought}", self.calls()[0])

    def test_power_goes_only_after_success_and_when_it_is_needed(self):
        for result, state, status, power in (("done", "staged", 0, "off"), ("left", "current", 2, "on"),
                                             ("failed", "staged", 1, "awaited")):
            self.answer("upgrade", begun(), end(card(result=result, state=state), status=status), status=status)
            self.assertEqual(power, self.run_firmware(power_off="when_done")["power"], result)


class Packages(Modules):
    def test_what_the_host_has_not_is_asked_for(self):
        self.assertEqual(True, self.run_firmware(brought=None)["missing"])
        self.assertEqual(([], []), (self.files(), self.calls()))

    def test_what_arrives_damaged_is_not_used(self):
        (self.brought / "a.qvf").write_bytes(b"pack")
        self.assertIn("a.qvf did not arrive as it was sent", self.run_firmware()["msg"])
        self.assertEqual([], self.calls())

    def test_what_is_there_is_used_again(self):
        self.answer("upgrade", end(card(result="left")), status=2)
        first = self.run_firmware()
        again = self.run_firmware(brought=None)
        self.assertEqual(first["packages"], again["packages"])
        self.assertEqual(first["packages"], str((self.state / "packages/current").resolve()))


class Runs(Modules):
    def start_slow(self):
        self.answer("upgrade", plan(), begun(), end(card()))
        (self.folder / "wait-upgrade").touch()
        process = self.firmware()
        self.wait_for(self.upgrades)
        return process

    def wait_until_it_waits(self, process):
        """For a lock that another process has."""
        self.wait_for(lambda: any("->" in line and f" {process.pid} " in line
                                  for line in pathlib.Path("/proc/locks").read_text().splitlines()))

    def go(self):
        (self.folder / "wait-upgrade").unlink()

    def test_who_asks_for_the_same_joins(self):
        first = self.start_slow()
        second = self.firmware()
        self.wait_until_it_waits(second)
        self.go()
        results = [self.result(first), self.result(second)]
        self.assertEqual([True, True], [result["changed"] for result in results])
        self.assertEqual(results[0]["run"], results[1]["run"])
        self.assertEqual([False, True], [result["joined"] for result in results])
        self.assertEqual(1, len(self.upgrades()))

    def test_who_asks_for_something_else_is_refused(self):
        first = self.start_slow()
        refused = self.run_firmware(cards=["3"])
        self.assertIn("is at work with other packages or cards; nothing was done", refused["msg"])
        self.go()
        self.result(first)
        self.assertEqual(1, len(self.upgrades()))

    def test_an_upgrade_outlives_who_started_it(self):
        first = self.start_slow()
        first.kill()
        first.wait()
        first.stdout.close()
        first.stderr.close()
        second = self.firmware()
        self.wait_until_it_waits(second)
        self.go()
        result = self.result(second)
        self.assertEqual((True, True), (result["joined"], result["changed"]))
        self.assertEqual(1, len(self.upgrades()))


class Restoring(Modules):
    def upgraded(self):
        saved = {"event": "backup", "card": "00:00", "images": [
            {"image": "safe", "version": "0.9", "file": "/b/safe/safe.qvf", "sha256": "0"},
            {"image": "main", "version": "1.0", "file": "/b/main/main.qvf", "sha256": "0"}]}
        self.answer("upgrade", plan(), saved, begun(), end(card()))
        name = self.run_firmware()["run"]
        self.answer("status", {"cards": [{"card": "00:00", "serial": "S1", "path": "/dev/video5"}]})
        (self.folder / "calls").unlink()
        return name

    def test_the_image_that_ran_goes_back_onto_its_card(self):
        name = self.upgraded()
        self.answer("plan", plan(), end(card(to="1.0")))
        self.answer("upgrade", begun(), end(card(**{"from": "1.1", "to": "1.0"})))
        result = self.run_firmware(restore="latest")
        self.assertTrue(result["changed"])
        self.assertNotEqual(name, result["run"])
        self.assertIn("--packages /b/main ", self.upgrades()[0])
        self.assertTrue(self.upgrades()[0].endswith("--device /dev/video5 --force"), self.upgrades())

    def test_a_card_that_has_its_backup_is_left_alone(self):
        self.upgraded()
        self.answer("plan", plan(state="current", action="left alone"), end(card(result="left", state="current")))
        self.answer("upgrade", end(card(result="left", state="current")), status=2)
        self.assertFalse(self.run_firmware(restore="latest")["changed"])
        self.assertNotIn("--force", self.upgrades()[0])

    def test_a_main_image_is_not_put_into_the_place_of_the_safe_one(self):
        self.upgraded()
        for action in ("flash", "refused"):
            self.answer("plan", plan(mode="safe upgrade", action=action), end(card()))
            self.assertIn("turn the host off and on first", self.run_firmware(restore="latest")["msg"])
        self.assertEqual([], self.upgrades())

    def test_a_card_that_has_gone_is_named(self):
        self.upgraded()
        self.answer("status", {"cards": [{"card": "00:00", "serial": "S2", "path": "/dev/video5"}]})
        self.assertIn("is not in this host any more; nothing was done", self.run_firmware(restore="latest")["msg"])

    def test_an_unknown_run(self):
        name = self.upgraded()
        self.assertEqual(f"there is no run 'x' on this host; known are: {name}", self.run_firmware(restore="x")["msg"])


class Facts(Modules):
    def facts(self, **arguments):
        return self.result(self.begin("qvcap_facts", **arguments))

    def test_trouble_is_told_in_sentences(self):
        self.answer("status", {"cards": [{"card": "00:00", "running": "1.0"}], "summary": {}})
        self.answer("doctor", {"findings": [
            {"severity": "error", "check": "nodes", "subject": "/dev/video0", "message": "does not answer"},
            {"severity": "note", "check": "holders", "subject": "/dev/video1", "message": "is open in x"},
            {"severity": "note", "check": "holders", "subject": "/dev/qv-event", "message": "is open in y"},
            {"severity": "warning", "check": "udev", "subject": None, "message": "not installed"}]})
        facts = self.facts(doctor=True, room=[str(self.folder / "none/at/all")], least_room=1 << 62,
                           expect={"00:00": "1.1", "07:00": "2.0"})["ansible_facts"]["qvcap"]
        self.assertEqual(["/dev/video0 does not answer", "/dev/video1 is open in x"], facts["trouble"][:2])
        self.assertRegex(facts["trouble"][2], r"none/at/all has [0-9]+ free bytes, and [0-9]+ are wanted$")
        self.assertEqual(["00:00 runs 1.0, not 1.1", "07:00 runs nothing that it would say, not 2.0"],
                         facts["trouble"][3:])
        self.assertIsNone(facts["run"])

    def test_the_last_run_and_its_problem(self):
        failed = card(result="failed", state="interrupted", reason="write failed")
        self.answer("upgrade", plan(), begun(), end(failed), status=1)
        name = self.run_firmware()["run"]
        self.answer("status", {"cards": [], "summary": {}})
        run = self.facts()["ansible_facts"]["qvcap"]["run"]
        self.assertEqual((name, False, 1, [failed]), tuple(run[key] for key in ("run", "active", "exit_status", "cards")))
        self.assertIn("write failed", run["problem"])

    def test_no_answer_is_a_failure(self):
        self.answer("status", status=1)
        self.assertIn("ended with status 1 and no answer", self.facts()["msg"])

    def test_boot_is_what_the_host_says_without_python(self):
        self.answer("status", {"cards": [], "summary": {}})
        source = (TREE / "fleet/plugins/action/qvcap_back.py").read_text()
        text = next(line for line in source.splitlines() if line.startswith("BOOT = "))
        said = subprocess.run(["sh", "-c", json.loads(text.removeprefix("BOOT = "))], stdout=subprocess.PIPE, text=True,
                              check=True).stdout
        self.assertEqual(f"boot {self.facts()['ansible_facts']['qvcap']['boot']}\n", said)


if __name__ == "__main__":
    if importlib.util.find_spec("ansible") is None:
        print("not run: there is no ansible-core; scripts/bootstrap --fleet installs it", file=sys.stderr)
        sys.exit(1 if os.environ.get("CI") == "true" else 77)
    unittest.main()

#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Usage: units.py PROGRAMS RESULTS

Runs in a virtual machine whose first process is systemd. Tests the units as
shipped, together with Debian's unit of bluetoothd and what docs/deployment.md
tells integrators to add. Prints a line; ends with status 0 if it passed."""

import pathlib
import re
import shutil
import sys

import bed
import cases
from bed import KEPT, expect
from steps import LATER, PAIRED_COURSE, SOON

UNIT = "vexabluetoohtd.service"
# More than systemd's default start limit.
ENDS = 6
UNITS = pathlib.Path("/etc/systemd/system")
PROJECT = pathlib.Path(__file__).resolve().parents[2]


def systemctl(*arguments):
    bed.run("systemctl", *arguments)


def state():
    return bed.run("systemctl", "is-active", UNIT, check=False).stdout.strip()


def main_pid():
    return int(bed.run("systemctl", "show", "--property=MainPID", "--value", UNIT).stdout)


def journal(*options):
    return bed.run("journalctl", "--no-pager", "-b", *options).stdout


def install(build):
    """Installs as the install target does."""
    for name in ("vexabluetoohtd", "vexaagent"):
        unit = (build / f"packaging/{name}.service").read_text()
        (UNITS / f"{name}.service").write_text(unit)
        program = re.search(r"^ExecStart=(\S+)$", unit, re.MULTILINE)[1]
        shutil.copy(build / "utils" / name / name, program)
    shutil.copy(PROJECT / "packaging/dbus/vexabluetoohtd.conf", "/etc/dbus-1/system.d/")
    systemctl("daemon-reload")


def add_what_the_guide_says(file):
    """One of the files that docs/deployment.md shows."""
    guide = (PROJECT / "docs/deployment.md").read_text()
    text = re.search(rf"^# (/etc/systemd/system/\S+/{re.escape(file)})\n(.*?)^```", guide,
                     re.MULTILINE | re.DOTALL)
    for other in (UNITS / f"{UNIT}.d").glob("*.conf"):
        other.unlink()
    path = pathlib.Path(text[1])
    path.parent.mkdir(exist_ok=True)
    path.write_text(text[2])
    systemctl("reenable", UNIT)
    systemctl("daemon-reload")


def await_stopped(box):
    box.await_that(lambda: state() == "inactive", "the end of the unit", LATER)
    expect(not list(bed.TMP.glob("bluetooth_*")), "files left behind")


def lives_with_bluetoothd(box):
    add_what_the_guide_says("with-bluetoothd.conf")
    systemctl("enable", "--now", "vexaagent")
    systemctl("start", "bluetooth")
    box.await_status("no device", LATER)
    calm_kilobytes = bed.own_kilobytes(main_pid())
    box.hold_button(4)
    box.await_status("scanning", SOON)
    box.await_status("connected", LATER)
    box.await_file("bluetooth_rc_battery", "80", SOON)
    box.await_file("bluetooth_rc_fw_version", "1a3", SOON)

    # A flag set by another user, who owns neither /tmp nor the remote.
    bed.run("setpriv", "--reuid=nobody", "--clear-groups", "touch", "/tmp/bluetooth_reset")
    box.await_status("scanning", SOON)
    box.await_status("connected", LATER)

    complaints = bed.memory_complaints(calm_kilobytes, bed.own_kilobytes(main_pid()))
    expect(not complaints, "; ".join(complaints))

    systemctl("kill", "--signal=KILL", "bluetooth")
    await_stopped(box)
    systemctl("start", "bluetooth")
    box.await_status("init", SOON)
    box.await_status("connected", LATER)
    systemctl("stop", "bluetooth")
    await_stopped(box)
    systemctl("start", "bluetooth")
    box.await_status("connected", LATER)


def lives_with_the_adapter(box):
    add_what_the_guide_says("with-adapter.conf")
    box.play("RemoveAdapter", "s", "hci0")
    await_stopped(box)
    box.play("AddAdapter", "ss", "hci0", "00:00:00:00:00:00")
    box.await_status("init", SOON)
    box.await_status("connected", LATER)


def starts_anew(box):
    """However often a signal ends it that systemd considers a clean exit."""
    for _ in range(ENDS):
        former = main_pid()
        systemctl("kill", "--signal=TERM", UNIT)
        box.await_that(lambda old=former: main_pid() not in (0, old), "the daemon's new start", LATER)
        box.await_status("init", SOON)
        box.await_status("connected", LATER)


@cases.case("11", "systemd: the daemon lives as long as bluetoothd and the adapter do")
def units(box):
    try:
        install(pathlib.Path(box.programs["build"]))
        box.start_air()
        lives_with_bluetoothd(box)
        lives_with_the_adapter(box)
        starts_anew(box)
        systemctl("stop", UNIT)
        await_stopped(box)
        # Passes may come between the ends of the link, of its objects and of the daemon;
        # one at the very moment when the remote's object goes sees an error.
        again = ("disconnected?", "error?", "no device?", "init", "connected")
        box.expect_course(*PAIRED_COURSE, "scanning", "pairing?", "connected", *again * (3 + ENDS))
        errors = journal("-u", UNIT, "--priority=err", "--output=cat").splitlines()
        expect(len(errors) == 2 and all(KEPT in error for error in errors), f"other errors in the log: {errors}")
        expect("REMOVE /tmp/bluetooth_status" in journal("-u", UNIT), "the daemon's log isn't in the journal")
    finally:
        (box.folder / "journal").write_text(journal())


def main():
    build, results = map(pathlib.Path, sys.argv[1:])
    bed.prepare_machine()
    programs = bed.programs_of(build)
    if not cases.is_ours(results / "case-11"):
        return 0
    return 0 if cases.run_case("11", programs, results) else 1


if __name__ == "__main__":
    sys.exit(main())

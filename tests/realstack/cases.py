#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Usage: cases.py [--bluez TREE] PROGRAMS RESULTS [CASE...]

Runs the cases in the virtual machine and prints a line for each. PROGRAMS is
the build folder, RESULTS the folder for the logs, TREE the files of another
Debian release whose bluetoothd is used. Several machines with the same RESULTS
share the cases. Ends with status 0 if all passed."""

import argparse
import pathlib
import signal
import subprocess
import sys
import time
import traceback

import bed
import planted
from bed import KEPT, UPLOADING, expect
from steps import (GONE_COURSE, KEEPS_CONNECTED, KEEPS_REFUSED, KERNEL_DISCOVERY, LATER, LATEST, PAIRED_COURSE,
                   REMOVED, Removal, SOON, UPDATE_BLOCKS, ask_to_connect, lose_link, lose_link_for_good,
                   offer_update, pair, pair_anew, paired_box, read_battery, start_daemon_without_remote)

CASES = {}


def case(number, title):
    def register(function):
        CASES[number] = (title, function)
        return function
    return register


# ---- the cases

@case("1", "cold start: the button pairs the remote, which is then connected and read")
def from_cold(box):
    box.start_bus()
    box.start_air()
    box.start_bluetoothd(powers_adapters=False)
    box.start_agent()
    box.start_daemon()
    box.await_status("no device", LATER)
    box.note_memory()
    box.hold_button(4)
    box.await_status("scanning", SOON)
    box.await_status("connected", LATER)
    box.await_file("bluetooth_rc", bed.REMOTE, SOON)
    box.await_file("bluetooth_rc_battery", "80", SOON)
    box.await_file("bluetooth_rc_fw_version", "1a3", SOON)
    expect(box.device_property("Percentage", interface="org.bluez.Battery1") == 80,
           "bluetoothd doesn't tell the battery itself")
    box.expect_course(*PAIRED_COURSE)
    box.expect_errors(KEPT)


@case("2", "the daemon restarts: remote connected, in range, and out of range")
def daemon_restarts(box):
    paired_box(box)
    expect(box.stop_daemon() == 0, "the daemon didn't end in order")
    expect(box.device_property("Connected"), "the link ended with the daemon")

    box.start_daemon()
    box.await_status("connected", SOON)
    read_battery(box, "1a3")
    box.stop_daemon(signal.SIGTERM)
    expect(box.read("bluetooth_status") == "connected", "SIGTERM removed the status")

    box.play("Leave")
    box.await_remote("connected", False, SOON)
    box.await_that(lambda: box.device_property("Connected") is False, "the end of the link", SOON)
    box.play("ComeBack")
    box.start_daemon()
    box.await_status("init", SOON)
    box.await_status("connected", LATER)
    box.stop_daemon()

    box.play("Leave")
    box.await_that(lambda: box.device_property("Connected") is False, "the end of the link", SOON)
    box.start_daemon()
    box.await_status("disconnected", LATEST)
    box.note_memory()
    box.play("ComeBack")
    box.await_that(lambda: box.course.words()[-1] == "connected" or "abort-by-local" in box.bluetoothd.text(),
                   "the end of bluetoothd's attempt", LATER)
    box.expect_course(*PAIRED_COURSE, "init", "disconnected?", "connected", "init", "disconnected?",
                      "connected", "init", "disconnected", "connected?")
    box.expect_errors(KEPT, "Timeout was reached")


@case("3", "the link is lost: the hour passes, or the pair flag skips it")
def link_lost(box):
    paired_box(box)
    read_battery(box, "1a3")
    lose_link(box)
    expect(box.read("bluetooth_rc_battery") == "", "the battery level outlived the link")
    expect(box.read("bluetooth_rc") == bed.REMOTE, "the address didn't outlive the link")
    # Nothing reconnects: bluetoothd never does, and the daemon only after an hour.
    box.clock.skip(3540)
    time.sleep(5)
    expect(box.course.words()[-1] == "disconnected", f"reconnected too early: {box.course.words()}")
    box.clock.skip(60)
    box.await_status("connected", LATER)
    lose_link(box)
    ask_to_connect(box)
    box.expect_course(*PAIRED_COURSE, "disconnected", "connecting", "connected", "disconnected",
                      "connecting", "connected")
    box.expect_errors(KEPT)


@case("4", "the reset flag with a paired and connected remote")
def reset(box):
    paired_box(box)
    in_vain = box.bluez_version() <= KEEPS_CONNECTED
    first = pair_anew(box, in_vain)
    read_battery(box, "1a3")
    box.expect_course(*PAIRED_COURSE, *first, "scanning", "pairing?", "connected")
    box.expect_errors(*[KEPT] * (2 + in_vain))


@case("5a", "a remote whose name arrives late, next to a device with another name")
def late_name(box):
    box.start_all()
    box.play("SetName", "s", "")
    box.play("AddDevice", "ss", "C0:FF:EE:00:00:0A", "Kitchen radio")
    start_daemon_without_remote(box)
    box.set_flag("pair")
    box.await_status("scanning", SOON)
    box.await_log("Device: + ", SOON, 2)
    box.play("SetName", "s", "VEXA RC")
    box.await_that(lambda: box.device_property("Name") == "VEXA RC", "the late name", SOON)
    box.clock.skip(60)
    box.await_log("VEXA RC not found", SOON)
    box.await_status("no device", SOON)
    # The second request removes the nameless object first.
    pair(box)
    box.expect_course("init", "no device", "scanning", "no device", "scanning", "pairing?", "connected")
    box.expect_errors(KEPT, KEPT)


@case("5b", "a second remote appears while another program discovers devices")
def second_remote(box):
    paired_box(box)
    box.play("AddDevice", "ss", "C0:FF:EE:00:00:09", "VEXA Two")
    time.sleep(3)
    expect(box.course.words()[-1] == "connected", "a second remote was seen without discovery")
    with Removal(box):
        with subprocess.Popen(["bluetoothctl"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL) as other:
            other.stdin.write(b"scan on\n")
            other.stdin.flush()
            box.await_log("RC found VEXA Two", LATER)
            other.stdin.write(b"scan off\nquit\n")
        box.await_log("Removing failed to pair device", LATER)
    box.await_status("no device", LATER)
    expect(box.device_property("Connected") is True, "the first remote lost its link")
    box.stop_daemon()
    box.start_daemon()
    box.await_status("connected", LATER)
    box.note_memory()
    box.expect_course(*PAIRED_COURSE, "no device", "init", "disconnected?", "connected")
    box.expect_errors(KEPT)


@case("6a", "a complete update, which arrives unchanged, and the new version read after it")
def whole_update(box):
    paired_box(box)
    read_battery(box, "1a3")
    offer_update(box, 0x1a4)
    box.await_status("rc_fw_update_succeed", LATEST)
    expect(box.remote("verified") and box.remote("blocks") == UPDATE_BLOCKS and box.remote("complaint") == "",
           f"the remote got another image: {box.play('Status')}")
    box.await_status("disconnected", SOON)
    ask_to_connect(box)
    read_battery(box, "1a4")
    box.expect_course(*PAIRED_COURSE, "rc_fw_update_preparing", UPLOADING, "rc_fw_update_succeed",
                      "disconnected", "connecting", "connected")
    box.expect_errors(KEPT)


@case("6c", "a second update right after the first fails, and how to recover")
def second_update(box):
    paired_box(box)
    read_battery(box, "1a3")
    offer_update(box, 0x1a4)
    box.await_status("rc_fw_update_succeed", LATEST)
    box.await_status("disconnected", SOON)
    ask_to_connect(box)
    read_battery(box, "1a4")
    # bluetoothd still knows the first update's device and so never announces it,
    # however long the daemon waits.
    offer_update(box, 0x1a5)
    box.await_status("rc_fw_update_failed", LATEST)
    box.play("LeaveUpdateMode")
    box.await_status("disconnected", SOON)
    # The failed update left discovery on, during which a slow bluetoothd may fail
    # to announce a new link. Discovery ends with the daemon.
    box.stop_daemon()
    box.start_daemon()
    box.await_status("connected", LATER)
    box.note_memory()
    box.await_that(lambda: box.device_property("Name", bed.UPDATE_DEVICE) is None,
                   "the end of the update device", LATER)
    read_battery(box, "1a4")
    offer_update(box, 0x1a5)
    box.await_status("rc_fw_update_succeed", LATEST)
    update = ("rc_fw_update_preparing", UPLOADING, "rc_fw_update_succeed")
    box.expect_course(*PAIRED_COURSE, *update, "disconnected", "connecting", "connected",
                      "rc_fw_update_preparing", "rc_fw_update_failed", "disconnected",
                      "init", "disconnected?", "connected", *update)
    box.expect_errors(KEPT, "Find RCU in OTA mode failed", "Firmware update failed")


@case("6b", "the remote vanishes halfway through an update")
def update_breaks(box):
    paired_box(box)
    read_battery(box, "1a3")
    box.play("SetUpdateFault", "sa{sv}", "data", 2, "vanish", "b", "true", "block", "u", UPDATE_BLOCKS // 2)
    offer_update(box, 0x1a4)
    box.await_status("rc_fw_update_failed", LATEST)
    box.await_status("disconnected", SOON)
    # The user takes the battery out and puts it back.
    box.play("ClearUpdateFaults")
    box.play("LeaveUpdateMode")
    box.play("ComeBack")
    ask_to_connect(box)
    read_battery(box, "1a3")
    box.expect_course(*PAIRED_COURSE, "rc_fw_update_preparing", UPLOADING, "rc_fw_update_failed",
                      "disconnected", "connecting", "connected")
    box.expect_errors(KEPT, ".*ATT error: 0x0e", "Write buffer failed", "Upload fw failed",
                      "Firmware update failed")


def failed_pairing(box):
    failures = box.count("Device pairing call has failed")
    box.set_flag("pair")
    box.await_status("scanning", SOON)
    with Removal(box):
        box.await_log("Device pairing call has failed", LATER, failures + 1)
    box.await_status("no device", LATER)


@case("7a", "the remote refuses to pair or doesn't answer, or no agent is running")
def no_pairing(box):
    box.start_all()
    start_daemon_without_remote(box)
    box.play("SetPairing", "s", "refuses")
    failed_pairing(box)
    box.play("SetPairing", "s", "silent")
    failed_pairing(box)
    box.play("SetPairing", "s", "willing")
    box.agent.stop()
    failed_pairing(box)
    expect(box.device_property("Paired") is not True, "bluetoothd pairs without an agent")
    box.processes.remove(box.agent)
    box.counts["bluetoothd"] = 1
    box.start_agent()
    pair(box)
    failed = ("scanning", "no device")
    box.expect_course("init", "no device", *failed, *failed, *failed, "scanning", "pairing?", "connected")
    one = (KEPT, "Device pairing call has failed")
    # bluetoothd drops the device itself, perhaps before the daemon asks it to.
    box.expect_errors(*one, *one, *one, KEPT, tolerated=[".*DoesNotExist.*"])


@case("7b", "the remote has lost its bond")
def lost_bond(box):
    paired_box(box)
    box.play("SetForgotBond", "b", "true")
    box.play("HangUp")
    box.await_status("disconnected", SOON)
    box.set_flag("pair")
    box.await_status("connecting", SOON)
    box.await_status("disconnected", LATER)
    expect(box.device_property("Paired") is True, "bluetoothd noticed the lost bond")
    in_vain = box.bluez_version() >= KEEPS_REFUSED
    first = pair_anew(box, in_vain)
    # If a link ends before bluetoothd has used it, its connection request stays in the
    # kernel, which connects again at once, and is refused again.
    again = ("connected?", "disconnected?")
    box.expect_course(*PAIRED_COURSE, "disconnected", "connecting", "connected?", "disconnected", *again,
                      *first, "scanning", "pairing?", "connected")
    # The answer to Connect if the remote disconnects before bluetoothd has given it.
    box.expect_errors(*[KEPT] * (2 + in_vain), tolerated=[".*(br-connection-canceled|Disconnected early)"])


def restart_bluetoothd(box):
    adapters = box.count("Adapter: + ")
    box.start_bluetoothd()
    box.await_log("Adapter: + ", LATER, adapters + 1)


def bluetoothd_ends(box, how):
    """While idle, scanning, pairing and updating."""
    paired_box(box)
    read_battery(box, "1a3")

    with Removal(box):
        box.stop_bluetoothd(how)
    box.await_status("no device", SOON)
    restart_bluetoothd(box)
    box.await_status("disconnected", LATER)
    ask_to_connect(box)
    read_battery(box, "1a3")

    offer_update(box, 0x1a4)
    # In the five seconds before the verification; for the middle of the transfer see 8c.
    box.await_log("left 0 (", LATEST)
    with Removal(box):
        box.stop_bluetoothd(how)
        box.await_log("Firmware update failed", LATER)
    box.await_status("no device", SOON)
    box.play("LeaveUpdateMode")
    restart_bluetoothd(box)
    box.await_status("disconnected", LATER)
    ask_to_connect(box)
    box.await_services()

    box.play("Leave")
    removals = box.count(REMOVED)
    box.set_flag("reset")
    box.await_status("scanning", LATER)
    box.await_log(REMOVED, LATER, removals + 1)
    box.stop_bluetoothd(how)
    stopped = time.monotonic()
    restart_bluetoothd(box)
    box.play("ComeBack")
    box.clock.skip(60)
    box.await_log("VEXA RC not found", SOON)
    box.await_status("no device", SOON)
    # The kernel continues discovery for ten seconds after its bluetoothd was killed,
    # and refuses to start another one until then.
    time.sleep(max(0, stopped + KERNEL_DISCOVERY - time.monotonic()))

    # The remote shows no services: their objects would still arrive as bluetoothd ends.
    box.play("SetMute", "b", "true")
    box.play("SetPairing", "s", "silent")
    box.set_flag("pair")
    box.await_status("scanning", SOON)
    with Removal(box):
        box.await_remote("connected", True, LATER)
        box.stop_bluetoothd(how)
        box.await_log("Device pairing call has failed", LATER)
    box.await_status("no device", SOON)
    box.play("SetMute", "b", "false")
    box.play("SetPairing", "s", "willing")
    # bluetoothd has kept the unpaired remote, and the daemon removes it.
    found = box.count("RC found VEXA RC")
    with Removal(box):
        restart_bluetoothd(box)
        box.await_log("RC found VEXA RC", LATER, found + 1)
    box.await_status("no device", SOON)
    pair(box)
    idle = (*GONE_COURSE, "connected?", "disconnected", "connecting", "connected")
    # The dropped link may end before the daemon sees the flag.
    scanning = ("disconnected?", "scanning", "no device")
    pairing = ("scanning", "no device")
    box.expect_course(*PAIRED_COURSE, *idle, "rc_fw_update_preparing", UPLOADING, "rc_fw_update_failed", *idle,
                      *scanning, *pairing, "scanning", "pairing?", "connected")
    update = ("(No proxy found.*|.*DBus.Error.*)", "Write characteristics failed", "Verification failed",
              "Firmware update failed")
    scan = (".*No discovery started", KEPT)
    pairing = (KEPT, ".*DBus.Error.*", "Device pairing call has failed")
    box.expect_errors(KEPT, *update, *scan, *pairing, KEPT, tolerated=[".*DoesNotExist.*"])


@case("8a", "bluetoothd is terminated: idle, updating, scanning, pairing")
def bluetoothd_terminated(box):
    bluetoothd_ends(box, signal.SIGTERM)


@case("8b", "bluetoothd is killed: idle, updating, scanning, pairing")
def bluetoothd_killed(box):
    bluetoothd_ends(box, signal.SIGKILL)


@case("8c", "bluetoothd is killed in mid-transfer; the daemon is restarted with it")
def bluetoothd_killed_in_transfer(box):
    paired_box(box)
    read_battery(box, "1a3")
    offer_update(box, 0x1a4)
    box.await_log("writeFw: writing...", LATEST)
    box.stop_bluetoothd(signal.SIGKILL)
    status = box.stop_daemon()
    expect(status == 0, f"the daemon ended with status {status}")
    box.play("LeaveUpdateMode")
    box.start_bluetoothd()
    box.start_daemon()
    # At its start the daemon connects by itself, so the user needn't wait an hour.
    box.await_status("connected", LATER)
    box.note_memory()
    read_battery(box, "1a3")
    box.expect_course(*PAIRED_COURSE, "rc_fw_update_preparing", UPLOADING + "?", "rc_fw_update_failed?",
                      "init", "connected")
    box.expect_errors(KEPT, tolerated=[".*DBus.Error.*", "Write buffer failed", "Upload fw failed",
                                       "Firmware update failed"])


@case("8d", "thirty times, bluetoothd is terminated, is killed or loses its adapter during Connect")
def bond_is_kept(box):
    paired_box(box)
    lose_link_for_good(box)
    for turn in range(30):
        box.set_flag("pair")
        box.await_status("connecting", SOON)
        with Removal(box):
            if turn % 3 == 2:
                box.play("RemoveAdapter", "s", "hci0")
            else:
                box.stop_bluetoothd(signal.SIGTERM if turn % 3 else signal.SIGKILL)
        if turn % 3 == 2:
            box.play("AddAdapter", "ss", "hci0", "00:00:00:00:00:00")
        else:
            restart_bluetoothd(box)
        box.await_status("disconnected", LATER)
        expect(box.device_property("Paired") is True, f"the bond was lost in turn {turn}")
    expect(box.count("Removing failed to pair device") == 0, "the daemon removed the remote")
    box.play("ComeBack")
    ask_to_connect(box)


@case("9", "the adapter is pulled and put back, with and without AutoEnable")
def adapter_pulled(box):
    paired_box(box)
    with Removal(box):
        box.play("RemoveAdapter", "s", "hci0")
    box.await_status("no device", SOON)
    box.play("AddAdapter", "ss", "hci0", "00:00:00:00:00:00")
    box.await_status("disconnected", LATER)
    ask_to_connect(box)
    box.expect_course(*PAIRED_COURSE, *GONE_COURSE, "disconnected", "connecting", "connected")
    box.expect_errors(KEPT)
    box.await_services()

    with Removal(box):
        box.stop_bluetoothd(signal.SIGTERM)
    box.start_bluetoothd(powers_adapters=False)
    box.await_status("disconnected", LATER)
    box.set_flag("pair")
    box.await_status("connecting", SOON)
    box.await_status("disconnected", SOON)
    box.expect_errors(KEPT, ".*Failed: Input/output error")
    box.stop_daemon()
    box.start_daemon()
    box.await_status("connected", LATER)
    box.note_memory()
    box.expect_errors(KEPT, ".*Failed: Input/output error")


@case("10a", "bluetoothd starts after the daemon")
def bluetoothd_late(box):
    box.start_bus()
    box.start_air()
    box.start_daemon()
    box.await_log("Waiting adapter...", SOON)
    time.sleep(3)
    box.start_bluetoothd()
    box.start_agent()
    box.await_log("Waiting RC...", LATER)
    box.clock.skip(5)
    box.await_status("no device", SOON)
    box.note_memory()
    pair(box)
    box.expect_course(*PAIRED_COURSE)
    box.expect_errors(KEPT)


def start_bluetoothd_in_vain(box):
    """The daemon has given up, and finds bluetoothd only after a restart."""
    box.start_bluetoothd()
    box.start_agent()
    time.sleep(5)
    box.expect_course("init")
    box.stop_daemon()
    start_daemon_without_remote(box)


@case("10b", "the system bus starts after the daemon")
def bus_late(box):
    box.start_air()
    box.start_daemon()
    box.await_log("Connection failed", SOON)
    box.start_bus()
    start_bluetoothd_in_vain(box)
    pair(box)
    box.expect_course("init", "no device", "scanning", "pairing?", "connected")
    box.expect_errors("Connection failed", KEPT)


@case("10c", "bluetoothd starts after the daemon, on a bus that fails to activate it")
def broken_activation(box):
    box.break_activation()
    box.start_bus()
    box.start_air()
    box.start_daemon()
    box.await_log("Creating object manager failed", LATER)
    start_bluetoothd_in_vain(box)
    box.expect_course("init", "no device")
    box.expect_errors("Creating object manager failed.*")


@case("12", "another user plants links, FIFOs and files in the place of the daemon's files")
def planted_files(box):
    paired_box(box)
    box.stop_daemon()
    planted.make_victim()
    for protection in (1, 0):
        planted.protect(protection)
        for wrapper in ((), planted.with_the_units_capabilities(box.programs["build"])):
            planted.plant("a link")
            box.start_daemon(*wrapper)
            box.await_log("process loop start", LATER)
            box.await_status("connected", LATER)
            read_battery(box, "1a3")
            planted.attack(box)
            expect(box.stop_daemon() == 0, "the daemon didn't end in order")
            expect(not list(bed.TMP.glob("bluetooth_*")), "files left behind")
    box.expect_errors(KEPT)


# ---- running them

def run_case(number, programs, results):
    """True if it passed."""
    title, function = CASES[number]
    begin = time.monotonic()
    complaints = []
    box = bed.Box(programs, results / f"case-{number}")
    try:
        function(box)
    except bed.Failure as failure:
        complaints.append(str(failure))
    except Exception:  # pylint: disable=broad-except
        complaints.append(traceback.format_exc())
    try:
        complaints += box.end()
    except bed.Failure as failure:
        complaints.append(str(failure))
    verdict = "FAILED" if complaints else "ok"
    print(f"{verdict:6} {number:>3} {title} ({time.monotonic() - begin:.0f} s)", flush=True)
    for complaint in complaints:
        print("       ", complaint, flush=True)
    return not complaints


def is_wanted(number, wanted):
    """"8" means 8a and 8b."""
    return not wanted or number in wanted or number.rstrip("abcd") in wanted


def is_ours(folder):
    """False if another machine with the same results has begun the case."""
    try:
        folder.mkdir()
        return True
    except FileExistsError:
        return False


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bluez")
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("results", type=pathlib.Path)
    parser.add_argument("wanted", nargs="*")
    options = parser.parse_intermixed_args()
    programs = bed.programs_of(options.build, options.bluez)
    bed.prepare_machine()
    passed = [run_case(number, programs, options.results) for number in CASES
              if is_wanted(number, options.wanted) and is_ours(options.results / f"case-{number}")]
    return 0 if all(passed) else 1


if __name__ == "__main__":
    sys.exit(main())

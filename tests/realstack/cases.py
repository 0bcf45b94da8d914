#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Usage: cases.py PROGRAMS RESULTS [CASE...]

Runs the cases in the virtual machine and prints a line for each. PROGRAMS is
the build folder, RESULTS where the logs go. Ends with status 0 if all passed."""

import pathlib
import sys
import time
import traceback

import bed
from bed import expect

CASES = {}

# The daemon logs this line after every scan whose end went well.
KEPT = "Switching scan off failed"


def case(number, title):
    def register(function):
        CASES[number] = (title, function)
        return function
    return register


@case("1", "from cold: the button leads to a remote that is connected and read")
def from_cold(box):
    box.start_bus()
    box.start_air()
    box.start_bluetoothd(powers_adapters=False)
    box.start_agent()
    box.start_daemon()
    box.await_status("no device", 60)
    box.hold_button(4)
    box.await_status("scanning", 20)
    box.await_status("connected", 60)
    box.await_file("bluetooth_rc", bed.REMOTE, 10)
    box.await_file("bluetooth_rc_battery", "80", 20)
    box.await_file("bluetooth_rc_fw_version", "1a3", 20)
    words = box.course.words()
    expect(words in (["init", "no device", "scanning", "connected"],
                     ["init", "no device", "scanning", "pairing", "connected"]),
           f"another course than from cold to connected: {words}")
    expect(box.errors() == [KEPT], f"other errors in the log: {box.errors()}")


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


def main():
    build, results, *wanted = sys.argv[1:]
    build = pathlib.Path(build)
    programs = {
        "vexabluetoohtd": str(build / "utils/vexabluetoohtd/vexabluetoohtd"),
        "vexaagent": str(build / "utils/vexaagent/vexaagent"),
        "vexasim": str(build / "sim/vexasim"),
    }
    bed.prepare_machine()
    passed = [run_case(number, programs, pathlib.Path(results)) for number in wanted or CASES]
    return 0 if all(passed) else 1


if __name__ == "__main__":
    sys.exit(main())

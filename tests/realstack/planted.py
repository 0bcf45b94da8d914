# SPDX-License-Identifier: MIT
"""What an unprivileged user of the box plants in /tmp in the place of the
daemon's files, and what must result."""

import pathlib
import re
import stat
import subprocess
import sys
import time

import bed
from bed import TMP, expect

# A file of root's, and a path at which root must not be made to create one.
VICTIM = TMP / "victim"
MADE = TMP / "made"
VICTIMS_TEXT = "root's own\n"

PUBLISHED = {
    "bluetooth_status": "connected",
    "bluetooth_rc": bed.REMOTE,
    "bluetooth_rc_battery": "80",
    "bluetooth_rc_fw_version": "1a3",
}

# Shell commands that plant at the path $f. The kernel may refuse the hard link.
THINGS = {
    "a link": f'ln -s {VICTIM} "$f"',
    "a link to nothing": f'ln -s {MADE} "$f"',
    "a hard link": f'ln {VICTIM} "$f" || true',
    "a FIFO": 'mkfifo -m 666 "$f"',
    "a file": '(umask 0; echo forged >"$f")',
}

# Plants, as fast as it can, whatever each name allows.
RACER = """
import os, sys
while True:
    for name in sys.argv[3:]:
        for plant in (lambda: os.symlink(sys.argv[1], name), lambda: os.link(sys.argv[1], name),
                      lambda: os.symlink(sys.argv[2], name), lambda: os.remove(name)):
            try:
                plant()
            except OSError:
                pass
"""

RACE_SECONDS = 10


def as_nobody(*command):
    return ("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", *command)


def with_the_units_capabilities(build):
    """The prefix of a command that runs as root with only the capabilities that the daemon's unit leaves."""
    unit = (pathlib.Path(build) / "packaging/vexabluetoohtd.service").read_text()
    names = re.search(r"^CapabilityBoundingSet=(.*)$", unit, re.MULTILINE)[1].lower().split()
    kept = ",".join(f"+{name.removeprefix('cap_')}" for name in names)
    return ("setpriv", f"--bounding-set=-all,{kept}", "--inh-caps=-all", "--no-new-privs")


def protect(how_much):
    """Sets how strictly the kernel restricts such links and files in /tmp."""
    for what in ("symlinks", "hardlinks", "regular", "fifos"):
        pathlib.Path(f"/proc/sys/fs/protected_{what}").write_text(str(how_much))


def make_victim():
    VICTIM.write_text(VICTIMS_TEXT)


def make_room():
    for name in PUBLISHED:
        (TMP / name).unlink(missing_ok=True)


def plant(thing):
    """Plants the thing at each name; before the daemon's next pass if its clock is held."""
    make_room()
    for name in PUBLISHED:
        bed.run(*as_nobody("sh", "-ec", f'f={TMP / name}; {THINGS[thing]}'))


def is_roots_own(path):
    try:
        info = path.lstat()
    except OSError:
        return False
    return stat.S_ISREG(info.st_mode) and info.st_uid == 0 and info.st_nlink == 1


def expect_good_files(box, after):
    box.clock.skip(3 * 3600 + 60)  # the next reading is due
    box.await_that(lambda: all(is_roots_own(TMP / name) for name in PUBLISHED), f"files of its own after {after}", 60)
    for name, text in PUBLISHED.items():
        box.await_file(name, text, 60)
    expect(VICTIM.read_text() == VICTIMS_TEXT and VICTIM.stat().st_uid == 0, f"the victim was written after {after}")
    expect(not MADE.exists(), f"a file was made through {after}")


def attack(box):
    for thing in THINGS:
        box.clock.hold()
        time.sleep(0.5)
        plant(thing)
        box.clock.go_on()
        expect_good_files(box, thing)
    racer = subprocess.Popen(as_nobody(sys.executable, "-c", RACER, VICTIM, MADE, *(TMP / name for name in PUBLISHED)))
    end = time.monotonic() + RACE_SECONDS
    while time.monotonic() < end:
        make_room()
        time.sleep(0.1)
    expect(racer.poll() is None, "the racer ended by itself")
    racer.kill()
    racer.wait()
    expect_good_files(box, "a race")
    # A flag that the attacker makes as a FIFO is taken like any other.
    bed.run(*as_nobody("mkfifo", str(TMP / "bluetooth_pair")))
    box.await_that(lambda: not (TMP / "bluetooth_pair").exists(), "the flag's removal", 60)

#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""The story of scripts/demo. Runs in the private /tmp that scripts/demo makes."""

import os
import re
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

PROJECT = Path(sys.argv[1])  # its path in here
OUTSIDE = Path(sys.argv[2])  # its path for the user
KEY = os.environ.get("VEXA_DEMO_KEY")  # descriptor of the update key's file, if the build has its own key
BUILD = PROJECT / "build/release"
DAEMON_LOG = "build/demo/daemon.log"
SIM_LOG = "build/demo/vexasim.log"

STATUS = Path("/tmp/bluetooth_status")
ADDRESS = Path("/tmp/bluetooth_rc")
BATTERY = Path("/tmp/bluetooth_rc_battery")
VERSION = Path("/tmp/bluetooth_rc_fw_version")
PAIR_FLAG = Path("/tmp/bluetooth_pair")
FIRMWARE_LINK = Path("/tmp/bluetooth_rc_fw")
BUTTON = Path("/sys/class/saradc/saradc_ch0")
PUBLISHED = (STATUS, ADDRESS, BATTERY, VERSION)

RELEASED, PRESSED = 1000, 300
OLD_VERSION, NEW_VERSION = 0x1A3, 0x1A4
IMAGE_BYTES = 8000
UPLOADING = "rc_fw_update_uploading_"

TERMINAL = sys.stdout.isatty() and os.environ.get("TERM", "dumb") != "dumb"
COLOURS = TERMINAL and "NO_COLOR" not in os.environ
STARTED = time.monotonic()


class DidNotHappen(Exception):
    pass


def paint(code, text):
    return f"\x1b[{code}m{text}\x1b[0m" if COLOURS else text


def tell(who, text):
    """Prints a line for an event."""
    colour = {"you": 33, "remote": 36, "daemon": 32, "box": 34}[who]
    print(f"{time.monotonic() - STARTED:6.1f} s  {paint(colour, f'{who:<7}')} {text}", flush=True)


def contents(path):
    try:
        return path.read_text().partition("\n")[0]
    except FileNotFoundError:
        return None


class StatusWatch(threading.Thread):
    """Records the words of the status file in order."""

    def __init__(self):
        super().__init__(daemon=True)
        self.words = []
        self.changed = threading.Condition()

    def run(self):
        last = None
        while True:
            word = contents(STATUS)
            if word and word != last:  # empty if read between truncation and writing
                last = word
                if not word.startswith(UPLOADING):
                    tell("daemon", f"{STATUS} says {paint(1, word)}")
                with self.changed:
                    self.words.append(word)
                    self.changed.notify_all()
            time.sleep(0.01)

    def mark(self):
        """The present position: later words come after it."""
        with self.changed:
            return len(self.words)

    def await_word(self, word, since, limit, what):
        with self.changed:
            if not self.changed.wait_for(lambda: word in self.words[since:], limit):
                raise DidNotHappen(f"{what}: the status wasn't {word!r} within {limit} seconds")


def await_that(condition, limit, what):
    end = time.monotonic() + limit
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.02)
    raise DidNotHappen(f"{what}: not within {limit} seconds")


def start(program, log, pass_fds=(), **environment):
    """Starts a program that ends with this one."""
    with open(PROJECT / log, "w", encoding="utf-8") as output:
        return subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", str(program[0]), *program[1:]],
            stdin=subprocess.DEVNULL,
            stdout=output,
            stderr=output,
            env={**os.environ, **environment},
            start_new_session=True,  # only this program handles Ctrl-C
            pass_fds=pass_fds,
        )


class Box:
    """A private bus with a simulated BlueZ and remote."""

    def __init__(self):
        options = ["--fw-version", f"{OLD_VERSION:x}", "--battery", "80", "--unpowered"]
        # Slow enough to watch.
        for what, milliseconds in (("discovery", 1500), ("connect", 700), ("connect-timeout", 10000),
                                   ("pair", 1000), ("pair-timeout", 10000),
                                   ("resolve", 400), ("resolve-timeout", 10000)):
            options += ["--timing", f"{what}={milliseconds}"]
        key = [int(KEY)] if KEY else []
        options += [f"--key-file=/dev/fd/{descriptor}" for descriptor in key]
        self.process = start([BUILD / "sim/vexasim", *options], SIM_LOG, pass_fds=key)
        self.bus = await_that(self.find_bus, 10, "the simulated box starts")

    def find_bus(self):
        if self.process.poll() is not None:
            raise DidNotHappen(f"the simulated box starts: vexasim ended with status {self.process.returncode}")
        found = re.search(r"unix:\S+", (PROJECT / SIM_LOG).read_text())
        return found and found.group()

    def call(self, name, path, method, *arguments):
        command = ["gdbus", "call", "--address", self.bus, "--dest", name, "--object-path", path,
                   "--method", method, *map(str, arguments)]
        done = subprocess.run(command, capture_output=True, text=True, timeout=10, check=False)
        if done.returncode:
            raise DidNotHappen(f"{method} on the bus: {done.stderr.strip()}")
        return done.stdout

    def remote(self, method, *arguments):
        """Calls a method of the simulated remote."""
        name = "org.vexabluetoohtd.Sim"
        self.call(name, "/sim", f"{name}.{method}", *arguments)

    def powered(self):
        return "true" in self.call("org.bluez", "/org/bluez/hci0", "org.freedesktop.DBus.Properties.Get",
                                   "org.bluez.Adapter1", "Powered")


class Bar:
    """The progress of the update, from the status file."""

    WIDTH = 40

    def __init__(self):
        self.printed = -1

    def show(self, percent):
        if percent == self.printed:
            return
        if TERMINAL:
            full = min(percent, 100) * self.WIDTH // 100
            print(f"\r          update  [{'#' * full}{'.' * (self.WIDTH - full)}] {percent:3d} %", end="",
                  flush=True)
        elif percent // 10 > self.printed // 10:
            print(f"          update  {percent:3d} %", flush=True)
        self.printed = percent

    def end(self):
        if TERMINAL and self.printed >= 0:
            print(flush=True)


def show_progress(watch, since, limit):
    """Draws the bar until the status file shows the outcome; returns it."""
    bar = Bar()
    end = time.monotonic() + limit
    seen = since
    try:
        while time.monotonic() < end:
            with watch.changed:
                watch.changed.wait(0.2)
                words = watch.words[seen:]
                seen = len(watch.words)
            for word in words:
                if word.startswith(UPLOADING):
                    bar.show(int(word[len(UPLOADING):]))
                elif word in ("rc_fw_update_succeed", "rc_fw_update_failed", "rc_fw_update_canceled"):
                    return word
    finally:
        bar.end()
    raise DidNotHappen(f"the update ends: not within {limit} seconds")


def write_image(path):
    """Writes an image with a newer version than the remote's."""
    payload = Path("/tmp/payload")
    payload.write_bytes(bytes(i * 7 & 0xFF for i in range(IMAGE_BYTES)))
    subprocess.run([BUILD / "utils/vexafw/vexafw", "pack", payload, path, "--signature", "0x5a5a",
                    "--version", f"{NEW_VERSION:#x}"], check=True, stdout=subprocess.DEVNULL)


def await_readings(version, what):
    level = await_that(lambda: contents(BATTERY), 25, f"{what}: the battery level appears")
    tell("daemon", f"{BATTERY} says {paint(1, level)} percent")
    text = f"{version:x}"
    await_that(lambda: contents(VERSION) == text, 5, f"{what}: firmware version {text} appears")
    tell("daemon", f"{VERSION} says {paint(1, text)}")


def everyday(box, watch):
    watch.await_word("init", 0, 10, "the daemon starts")
    await_that(box.powered, 10, "the daemon powers the adapter")
    tell("daemon", "has powered the adapter; waits five seconds for a known remote")
    watch.await_word("no device", 0, 15, "the daemon is ready")

    since = watch.mark()
    tell("you", "hold the box's button")
    BUTTON.write_text(f"{PRESSED}\n")
    watch.await_word("scanning", since, 10, "a held button leads to scanning")
    BUTTON.write_text(f"{RELEASED}\n")
    tell("you", "release the button")
    watch.await_word("connected", since, 60, "the remote is paired and connected")
    address = await_that(lambda: contents(ADDRESS), 5, "the remote's address appears")
    tell("daemon", f"{ADDRESS} says {paint(1, address)}")
    tell("daemon", "waits 15 seconds before the first battery reading")
    await_readings(OLD_VERSION, "after the connection")

    since = watch.mark()
    tell("remote", "is carried out of the room")
    box.remote("Leave")
    watch.await_word("disconnected", since, 10, "the remote goes away")
    await_that(lambda: contents(BATTERY) is None, 5, "the battery file is removed")
    tell("daemon", f"{BATTERY} is gone")


def bring_back(box, watch, what):
    since = watch.mark()
    box.remote("ComeBack")
    tell("you", f"touch {PAIR_FLAG}, to connect it now instead of within the hour")
    PAIR_FLAG.touch()
    watch.await_word("connecting", since, 10, f"{what}: the daemon connects it")
    watch.await_word("connected", since, 30, f"{what}: the remote is connected")


def update(box, watch):
    image = Path("/tmp/remote-new.img")
    write_image(image)
    box.remote("ExpectImage", image)
    since = watch.mark()
    tell("you", f"ln -s {image} {FIRMWARE_LINK}, an image with version {NEW_VERSION:x}")
    FIRMWARE_LINK.symlink_to(image)
    watch.await_word("rc_fw_update_preparing", since, 10, "the update begins")
    tell("remote", "restarts in update mode, under another name")
    outcome = show_progress(watch, since, 120)
    if outcome != "rc_fw_update_succeed":
        raise DidNotHappen(f"the update succeeds: it ended with {outcome}")
    tell("remote", "has verified the image and restarts into it")
    watch.await_word("disconnected", since, 20, "the daemon resumes its normal work")


def interrupt(daemon):
    tell("you", "interrupt the daemon")
    daemon.send_signal(signal.SIGINT)
    try:
        status = daemon.wait(30)
    except subprocess.TimeoutExpired:
        raise DidNotHappen("the daemon ends: still running 30 seconds after the interrupt") from None
    if status:
        raise DidNotHappen(f"the daemon ends cleanly: its exit status is {status}")
    left = [str(path) for path in PUBLISHED if path.exists()]
    if left:
        raise DidNotHappen(f"the files are removed: {', '.join(left)} remained")
    tell("daemon", "has ended with status 0 and removed its files")


def story():
    BUTTON.write_text(f"{RELEASED}\n")
    tell("box", "a private bus with a simulated BlueZ and remote; a button; an empty /tmp")
    box = Box()
    watch = StatusWatch()
    watch.start()
    tell("box", "starts vexabluetoohtd")
    daemon = start([BUILD / "utils/vexabluetoohtd/vexabluetoohtd"], DAEMON_LOG,
                   DBUS_SYSTEM_BUS_ADDRESS=box.bus, VEXA_LOG_USE_COLORS="0")
    try:
        everyday(box, watch)
        tell("remote", "comes back, its battery at 62 percent")
        box.remote("SetBattery", 62)
        bring_back(box, watch, "the remote comes back")
        await_readings(OLD_VERSION, "after it came back")
        update(box, watch)
        tell("remote", "is picked up again")
        bring_back(box, watch, "after the update")
        await_readings(NEW_VERSION, "after the update")
        interrupt(daemon)
    finally:
        daemon.kill()
        box.process.kill()


def main():
    try:
        story()
    except DidNotHappen as what:
        print(f"\n{paint(31, 'This did not happen:')} {what}", file=sys.stderr)
        print(f"{STATUS} says {contents(STATUS)!r}. The end of the daemon's log:", file=sys.stderr)
        log = PROJECT / DAEMON_LOG
        for line in (log.read_text(errors="replace").splitlines()[-12:] if log.exists() else []):
            print(line, file=sys.stderr)
        print(f"Full logs: {OUTSIDE / DAEMON_LOG} and {OUTSIDE / SIM_LOG}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("\ninterrupted", file=sys.stderr)
        return 130
    print(f"\n{paint(32, 'Everything happened as expected.')} The daemon's log: {OUTSIDE / DAEMON_LOG}")
    return 0


if __name__ == "__main__":
    sys.exit(main())

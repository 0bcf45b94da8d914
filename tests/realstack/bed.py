# SPDX-License-Identifier: MIT
"""The box in the virtual machine: its bus, its Bluetooth stack, the remote on
the air, the daemon, and what is to be seen of them. Runs as root in a machine
that is thrown away; see tests/realstack/machine."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import threading
import time

TMP = pathlib.Path("/tmp")
STATUS = TMP / "bluetooth_status"
ADC = pathlib.Path("/sys/class/saradc/saradc_ch0")
REMOTE = "C0:FF:EE:00:00:01"
BLUETOOTHD = "/usr/libexec/bluetooth/bluetoothd"
STATE = pathlib.Path("/var/lib/bluetooth")

# How often files are looked at. Every word that the tests wait for stands for
# longer than half a second.
LOOK_SECONDS = 0.05


class Failure(Exception):
    """What a case expected and didn't see."""


def run(*command, check=True):
    return subprocess.run(command, check=check, capture_output=True, text=True)


def prepare_machine():
    """Gives the machine, which is still the host's image, a box's face."""
    run("mount", "-t", "tmpfs", "-o", "mode=1777", "tmpfs", "/tmp")
    os.makedirs("/run/dbus", exist_ok=True)
    run("mount", "-t", "tmpfs", "tmpfs", "/run/dbus")
    # sysfs takes no new folder: one with the button in it goes over its class
    # folder, and what the Bluetooth stack needs of that is bound back in. With
    # a dead copy of rfkill bluetoothd would wait for ever at its start.
    box = pathlib.Path("/run/class")
    (box / "saradc").mkdir(parents=True)
    for name in ("rfkill", "bluetooth", "misc", "net", "input"):
        live = pathlib.Path("/sys/class") / name
        if live.is_dir():
            (box / name).mkdir()
            run("mount", "--bind", str(live), str(box / name))
    run("mount", "--rbind", str(box), "/sys/class")


class Process:
    """A program with its output in a file."""

    def __init__(self, name, folder, *command, **environment):
        self.name = name
        self.log = folder / f"{name}.log"
        with open(self.log, "ab") as output:
            self._child = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                env={**os.environ, **environment})

    def text(self):
        return self.log.read_text(errors="replace")

    def running(self):
        return self._child.poll() is None

    def stop(self, how=signal.SIGTERM, limit=20):
        """The exit status; negative for a signal."""
        if self.running():
            self._child.send_signal(how)
        try:
            return self._child.wait(limit)
        except subprocess.TimeoutExpired:
            self._child.kill()
            self._child.wait()
            raise Failure(f"{self.name} didn't end within {limit} s of {how!r}") from None

    def resident_kilobytes(self):
        text = pathlib.Path(f"/proc/{self._child.pid}/status").read_text()
        return int(re.search(r"VmRSS:\s+(\d+)", text)[1])


class Course:
    """Every word that the status file held, with the time since the start."""

    def __init__(self):
        self._begin = time.monotonic()
        self._words = []
        self._lock = threading.Lock()
        self._stopped = threading.Event()
        self._thread = threading.Thread(target=self._watch, daemon=True)
        self._thread.start()

    def _watch(self):
        while not self._stopped.wait(LOOK_SECONDS):
            try:
                word = STATUS.read_text().strip()
            except OSError:
                continue
            # A reader can meet the file while it is being replaced.
            if not word:
                continue
            with self._lock:
                if not self._words or self._words[-1][1] != word:
                    self._words.append((time.monotonic() - self._begin, word))

    def words(self):
        with self._lock:
            return [word for _, word in self._words]

    def timed(self):
        with self._lock:
            return "".join(f"{at:8.2f} s  {word}\n" for at, word in self._words)

    def stop(self):
        self._stopped.set()
        self._thread.join()


class Box:
    """One case's box. Everything of it ends with the case."""

    def __init__(self, programs, folder):
        self.programs = programs
        self.folder = folder
        self.processes = []
        self.daemon = self.bluetoothd = self.air = self.agent = self.bus = None
        folder.mkdir(parents=True, exist_ok=True)
        for entry in TMP.iterdir():
            if entry.is_dir():
                shutil.rmtree(entry)
            else:
                entry.unlink()
        if STATE.exists():
            shutil.rmtree(STATE)
        STATE.mkdir(parents=True)
        ADC.write_text("1023\n")
        self.course = Course()
        self.start("btmon", "btmon", "-w", str(folder / "btsnoop"))

    def start(self, name, *command, **environment):
        process = Process(name, self.folder, *command, **environment)
        self.processes.append(process)
        return process

    # ---- the parts of the box
    def start_bus(self):
        self.bus = self.start("dbus-daemon", "dbus-daemon", "--system", "--nofork", "--nopidfile")
        self.await_that(lambda: pathlib.Path("/run/dbus/system_bus_socket").exists(), "the bus", 20)

    def start_air(self, *options):
        """The adapter with the remote in range."""
        self.air = self.start("vexasim", self.programs["vexasim"], "air", "--bus-dir", "/tmp/air",
                              "--tmp", "/tmp", "--adc-file", str(ADC), *options)
        self.await_that(lambda: "VEXASIM_BUS_ADDRESS=" in self.air.text(), "the remote on the air", 60)

    def start_bluetoothd(self, powers_adapters=True):
        configuration = self.folder / "bluetoothd.conf"
        configuration.write_text(f"[Policy]\nAutoEnable={str(powers_adapters).lower()}\n")
        self.bluetoothd = self.start("bluetoothd", BLUETOOTHD, "-n", "-d", "-f", str(configuration))
        self.await_that(lambda: "hci0" in run("busctl", "--system", "tree", "org.bluez", check=False).stdout,
                        "bluetoothd's adapter", 60)

    def start_agent(self):
        self.agent = self.start("vexaagent", self.programs["vexaagent"], VEXA_LOG_USE_COLORS="0")
        self.await_that(lambda: "registered as the default agent" in self.agent.text(), "the agent", 30)

    def start_daemon(self):
        self.daemon = self.start("vexabluetoohtd", self.programs["vexabluetoohtd"], VEXA_LOG_USE_COLORS="0")

    def end(self):
        """Stops everything, the latest first; returns what is wrong with how it ended."""
        complaints = []
        if self.daemon is not None:
            if not self.daemon.running():
                complaints.append(f"the daemon ended by itself, status {self.daemon.stop()}")
            elif (status := self.daemon.stop(signal.SIGINT)) != 0:
                complaints.append(f"the daemon ended with status {status}")
        for process in reversed(self.processes):
            process.stop()
        self.course.stop()
        (self.folder / "status-course").write_text(self.course.timed())
        (self.folder / "kernel.log").write_text(run("dmesg").stdout)
        return complaints

    # ---- what a person does
    def play(self, method, *arguments):
        """Calls the control interface of the remote on the air."""
        return run("busctl", "--address=unix:path=/tmp/air/bus", "call", "org.vexabluetoohtd.Sim", "/sim",
                   "org.vexabluetoohtd.Sim", method, *map(str, arguments)).stdout

    def hold_button(self, seconds):
        self.play("HoldButton", "u", int(seconds * 1000))

    # ---- what is to be seen
    def read(self, name):
        """The line in a file of the daemon's; empty if it isn't there."""
        try:
            return (TMP / name).read_text().strip()
        except OSError:
            return ""

    def await_that(self, condition, what, limit):
        end = time.monotonic() + limit
        while not condition():
            if time.monotonic() > end:
                raise Failure(f"{what} didn't come within {limit} s; {self.situation()}")
            time.sleep(LOOK_SECONDS)

    def await_status(self, word, limit):
        self.await_that(lambda: self.course.words()[-1:] == [word], f'status "{word}"', limit)

    def await_file(self, name, text, limit):
        self.await_that(lambda: self.read(name) == text, f'"{text}" in {name}', limit)

    def situation(self):
        files = {path.name: self.read(path.name) for path in sorted(TMP.glob("bluetooth_*"))}
        return f"course {self.course.words()}, files {files}"

    def errors(self):
        """The daemon's lines of level ERROR, without time and place."""
        pattern = re.compile(r"^\s*[\d:.]+ E \[[^]]*\] (.*)$", re.M)
        return pattern.findall(self.daemon.text()) if self.daemon else []


def expect(condition, what):
    if not condition:
        raise Failure(what)

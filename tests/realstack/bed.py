# SPDX-License-Identifier: MIT
"""The box in the virtual machine: its bus, its Bluetooth stack, the remote on
the air, the daemon, and what a case can observe of them. Runs as root in a
disposable machine; see tests/realstack/machine."""

import json
import mmap
import os
import pathlib
import re
import shutil
import signal
import socket
import struct
import subprocess
import threading
import time

TMP = pathlib.Path("/tmp")
STATUS = TMP / "bluetooth_status"
ADC = pathlib.Path("/sys/class/saradc/saradc_ch0")
REMOTE = "C0:FF:EE:00:00:01"
UPDATE_DEVICE = "C0:FF:EE:00:00:02"
BUS_SOCKET = pathlib.Path("/run/dbus/system_bus_socket")
# Debian's file has the bus start bluetoothd through a service manager, which the
# machine lacks; that failure would end the daemon's wait for bluetoothd.
ACTIVATION = pathlib.Path("/usr/share/dbus-1/system-services/org.bluez.service")
STATE = pathlib.Path("/var/lib/bluetooth")

# Of the objects of the remote's attributes, bluetoothd announces this one last.
LAST_OBJECT = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01/service0020/char0023"

# The daemon logs this line after every scan that it has stopped successfully.
KEPT = "Switching scan off failed"
# One or more words of an update's progress.
UPLOADING = "uploading..."

# How much the daemon's own memory may grow from the quiet moment at a case's
# beginning to its end. The allocator keeps some; a leak in a loop is larger.
MEMORY_MARGIN_KILOBYTES = 1024

LOG_LINE = re.compile(r"^\s*[\d:.]+ ([EWIDT]) (?:\[([^]]*)\] )?(.*)$")

NANOSECONDS = 1000000000

# How often files are checked. Every word that the tests wait for stays for
# longer than half a second.
LOOK_SECONDS = 0.05


class Failure(Exception):
    """What a case expected and didn't see."""


def run(*command, check=True):
    done = subprocess.run(command, check=False, capture_output=True, text=True)
    if check and done.returncode != 0:
        raise Failure(f"{' '.join(command)}: status {done.returncode}: {done.stderr.strip()}")
    return done


def bus_listens():
    """The socket's file isn't enough: it exists before the bus listens, and stays when the bus has ended."""
    with socket.socket(socket.AF_UNIX) as client:
        return client.connect_ex(str(BUS_SOCKET)) == 0


def prepare_machine():
    """Makes the machine, which is still an image of the host, look like a box."""
    run("mount", "-t", "tmpfs", "-o", "mode=1777", "tmpfs", "/tmp")
    os.makedirs("/run/dbus", exist_ok=True)
    # sysfs allows no new folders, so a folder with the button in it is mounted
    # over /sys/class, and what the Bluetooth stack needs of that is bind-mounted
    # into it. With a plain copy of rfkill, bluetoothd would wait forever at its start.
    box = pathlib.Path("/run/class")
    (box / "saradc").mkdir(parents=True)
    for name in ("rfkill", "bluetooth", "misc", "net", "input"):
        live = pathlib.Path("/sys/class") / name
        if live.is_dir():
            (box / name).mkdir()
            run("mount", "--bind", str(live), str(box / name))
    run("mount", "--rbind", str(box), "/sys/class")


def read_at_once(path):
    """The first line of a small file, from one read. The daemon writes its files in
    place: after "pairing" the file can hold the end of a "connected" that is being
    written, and even a single read can see that, since the kernel copies in steps.
    A FIFO doesn't block it."""
    with open(path, "rb", buffering=0, opener=lambda name, flags: os.open(name, flags | os.O_NONBLOCK)) as file:
        return (file.read(4096) or b"").decode(errors="replace").partition("\n")[0].strip()


def own_kilobytes(pid):
    """A process's resident memory without the pages of files, which are loaded as
    code first runs."""
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"RssAnon:\s+(\d+)", text)[1])


def memory_complaints(before, after):
    """What is wrong with the daemon's own memory, in kilobytes, at a case's end."""
    if after <= before + MEMORY_MARGIN_KILOBYTES:
        return []
    return [f"the daemon's memory grew from {before} to {after} kB"]


class Process:
    """A program whose output goes to a file."""

    def __init__(self, name, log, *command, **environment):
        self.name = name
        self.log = log
        with open(self.log, "ab") as output:
            self._child = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                env={**os.environ, **environment})

    def text(self):
        return self.log.read_text(errors="replace")

    def running(self):
        return self._child.poll() is None

    def stop(self, how=signal.SIGTERM, limit=90):
        """The exit status; negative for a signal."""
        if self.running():
            self._child.send_signal(how)
        try:
            return self._child.wait(limit)
        except subprocess.TimeoutExpired:
            self._child.kill()
            self._child.wait()
            raise Failure(f"{self.name} didn't end within {limit} s of {how!r}") from None

    def own_kilobytes(self):
        return own_kilobytes(self._child.pid)


class Clock:
    """The daemon's monotonic clock, which a case advances instead of waiting.
    The page is that of tests/kit/ClockPage.h, which begins with the offset
    and the time at which the clock is held, both in nanoseconds."""

    def __init__(self, preload):
        self._path = pathlib.Path("/run/clock")
        self._path.write_bytes(bytes(64))
        with open(self._path, "r+b") as file:
            self._page = mmap.mmap(file.fileno(), 64)
        self._preload = preload

    def environment(self):
        return {"LD_PRELOAD": self._preload, "VEXABOX_CLOCK": str(self._path)}

    def skip(self, seconds):
        self._set(0, self._get(0) + int(seconds * NANOSECONDS))

    def hold(self):
        """From now on the daemon begins no idle pass: its clock stands still, a
        little before the last one."""
        self._set(8, time.monotonic_ns() + self._get(0) - 10 * NANOSECONDS)

    def go_on(self):
        self._set(0, self._get(0) + 30 * NANOSECONDS)
        self._set(8, 0)

    def _get(self, at):
        return struct.unpack_from("=q", self._page, at)[0]

    def _set(self, at, value):
        struct.pack_into("=q", self._page, at, value)


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
                word = read_at_once(STATUS)
            except OSError:
                continue
            # A read can find the file empty, just before it is rewritten.
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
    """One case's box, which ends with the case. Its logs stay in the machine's
    memory until then: writing a line to the host is slow, and the programs would
    wait for it."""

    def __init__(self, programs, results):
        self.programs = programs
        self.results = results
        self.folder = pathlib.Path("/run/box")
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir()
        self.processes = []
        self.counts = {}
        self.daemon_logs = []
        self.daemon = self.bluetoothd = self.air = self.agent = self.bus = None
        self.calm_kilobytes = None
        for entry in TMP.iterdir():
            if entry.is_dir():
                shutil.rmtree(entry)
            else:
                entry.unlink()
        if STATE.exists():
            shutil.rmtree(STATE)
        STATE.mkdir(parents=True)
        ACTIVATION.unlink(missing_ok=True)
        ADC.write_text("1023\n")
        run("dmesg", "--clear")
        self.clock = Clock(programs["clock"])
        self.course = Course()
        self.start("btmon", "btmon", "-w", str(self.folder / "btsnoop"))

    def start(self, name, *command, **environment):
        """A second program of the same name gets a log of its own."""
        count = self.counts[name] = self.counts.get(name, 0) + 1
        log = self.folder / (f"{name}.log" if count == 1 else f"{name}-{count}.log")
        process = Process(name, log, *command, **environment)
        self.processes.append(process)
        return process

    # ---- the parts of the box
    def start_bus(self):
        self.bus = self.start("dbus-daemon", "dbus-daemon", "--system", "--nofork", "--nopidfile")
        self.await_that(bus_listens, "the bus", 30)

    def break_activation(self):
        """Call this before the bus starts: installs a file like Debian's, but with a program that fails."""
        ACTIVATION.write_text("[D-BUS Service]\nName=org.bluez\nExec=/bin/false\nUser=root\n")

    def start_air(self, *options):
        """The adapter with the remote in range."""
        if self.programs["key"]:
            options = ("--key-file", self.programs["key"], *options)
        self.air = self.start("vexasim", self.programs["vexasim"], "air", "--bus-dir", "/tmp/air",
                              "--tmp", "/tmp", "--adc-file", str(ADC), *options)
        self.await_that(lambda: "VEXASIM_BUS_ADDRESS=" in self.air.text(), "the remote on the air", 60)

    def start_bluetoothd(self, powers_adapters=True):
        configuration = self.folder / "bluetoothd.conf"
        configuration.write_text(f"[Policy]\nAutoEnable={str(powers_adapters).lower()}\n")
        self.bluetoothd = self.start("bluetoothd", *self.programs["bluetoothd"], "-n", "-d",
                                     "-f", str(configuration))
        self.await_that(lambda: re.search(r"Adapter /org/bluez/hci\d+ registered", self.bluetoothd.text()),
                        "bluetoothd's adapter", 90)
        if self.agent is not None:
            self.await_agent()

    def bluez_version(self):
        return tuple(map(int, re.search(r"Bluetooth daemon (\d+)\.(\d+)", self.bluetoothd.text()).groups()))

    def stop_bluetoothd(self, how):
        self.bluetoothd.stop(how)
        self.processes.remove(self.bluetoothd)
        self.bluetoothd = None

    def start_agent(self):
        self.agent = self.start("vexaagent", self.programs["vexaagent"], VEXA_LOG_USE_COLORS="0")
        self.await_agent()

    def await_agent(self):
        """Waits until it has registered as often as bluetoothd was started."""
        self.await_that(lambda: self.agent.text().count("registered as the default agent")
                        >= self.counts["bluetoothd"], "the agent", 60)

    def start_daemon(self, *wrapper):
        """Through the wrapper command, if there is one."""
        self.daemon = self.start("vexabluetoohtd", *wrapper, self.programs["vexabluetoohtd"],
                                 VEXA_LOG_USE_COLORS="0", VEXA_LOG_TRACE_MODULES="Bluez",
                                 **self.clock.environment())
        self.daemon_logs.append(self.daemon.log)
        self.calm_kilobytes = None

    def stop_daemon(self, how=signal.SIGINT):
        """Its exit status."""
        status = self.daemon.stop(how)
        self.processes.remove(self.daemon)
        self.daemon = None
        return status

    def start_all(self, *air_options):
        """All but the daemon; the adapter is powered by bluetoothd."""
        self.start_bus()
        self.start_air(*air_options)
        self.start_bluetoothd()
        self.start_agent()

    def end(self):
        """Stops everything, the latest first; returns complaints about how it ended."""
        try:
            return self.stop_all()
        finally:
            shutil.copytree(self.folder, self.results, dirs_exist_ok=True)

    def stop_all(self):
        complaints = []
        if self.daemon is not None:
            complaints += self.end_daemon()
        if self.bluetoothd is not None and not self.bluetoothd.running():
            complaints.append(f"bluetoothd ended by itself, status {self.bluetoothd.stop()}")
        for process in reversed(self.processes):
            process.stop()
        if self.bus is not None:
            BUS_SOCKET.unlink(missing_ok=True)
        self.course.stop()
        (self.folder / "status-course").write_text(self.course.timed())
        kernel = run("dmesg").stdout
        (self.folder / "kernel.log").write_text(kernel)
        complaints += re.findall(r".*(?:BUG:|WARNING:|Oops|general protection).*", kernel)
        return complaints

    def end_daemon(self):
        if not self.daemon.running():
            return [f"the daemon ended by itself, status {self.daemon.stop()}"]
        complaints = []
        if self.calm_kilobytes is None:
            complaints.append("the case never noted the daemon's memory in a calm")
        else:
            complaints += memory_complaints(self.calm_kilobytes, self.daemon.own_kilobytes())
        if (status := self.daemon.stop(signal.SIGINT)) != 0:
            complaints.append(f"the daemon ended with status {status}")
        left = [path.name for path in TMP.glob("bluetooth_*")]
        if left:
            complaints.append(f"files left behind: {left}")
        return complaints

    # ---- what a person does
    def play(self, method, *arguments):
        """Calls the control interface of the remote on the air."""
        return run("busctl", "--json=short", "--address=unix:path=/tmp/air/bus", "call",
                   "org.vexabluetoohtd.Sim", "/sim", "org.vexabluetoohtd.Sim", method, *map(str, arguments)).stdout

    def remote(self, word):
        """One value from the remote's own status."""
        return json.loads(self.play("Status"))["data"][0][word]["data"]

    def hold_button(self, seconds):
        self.play("HoldButton", "u", int(seconds * 1000))

    def set_flag(self, name):
        (TMP / f"bluetooth_{name}").touch()

    def image(self, version, size):
        """A firmware image for the remote; size in bytes."""
        image = self.folder / f"image-{version:x}"
        if image.exists():
            return image
        payload = self.folder / f"payload-{version:x}"
        payload.write_bytes(bytes((7 * i + i // 251 + version) % 256 for i in range(size)))
        run(self.programs["vexafw"], "pack", str(payload), str(image), "--signature", "0x1234",
            "--version", hex(version))
        return image

    def offer(self, image):
        self.play("OfferImage", "s", image)

    def device_property(self, name, address=REMOTE, interface="org.bluez.Device1"):
        """As bluetoothd reports it; None if it doesn't know the device."""
        path = "/org/bluez/hci0/dev_" + address.replace(":", "_")
        answer = run("busctl", "--json=short", "get-property", "org.bluez", path, interface, name,
                     check=False).stdout
        return json.loads(answer)["data"] if answer else None

    # ---- what can be observed
    def read(self, name):
        """The line in one of the daemon's files; empty if there is no such file."""
        try:
            return read_at_once(TMP / name)
        except OSError:
            return ""

    def await_that(self, condition, what, limit):
        end = time.monotonic() + limit
        while not condition():
            if self.daemon is not None and not self.daemon.running():
                raise Failure(f"the daemon ended by itself before {what}; {self.situation()}")
            if time.monotonic() > end:
                raise Failure(f"{what} didn't come within {limit} s; {self.situation()}")
            time.sleep(LOOK_SECONDS)

    def await_status(self, word, limit):
        self.await_that(lambda: self.course.words()[-1:] == [word], f'status "{word}"', limit)

    def await_file(self, name, text, limit):
        self.await_that(lambda: self.read(name) == text, f'"{text}" in {name}', limit)

    def await_log(self, text, limit, times=1):
        """Waits until the running daemon has logged it this often."""
        self.await_that(lambda: self.daemon.text().count(text) >= times, f'"{text}" in the log', limit)

    def count(self, text):
        """How often the running daemon has logged it."""
        return self.daemon.text().count(text)

    def await_services(self):
        """Waits until the running daemon has handled the last of the remote's objects."""
        self.await_that(lambda: self._last_object_at() >= 0, "the remote's services in the log", 60)
        seen = self._last_object_at()
        # The event thread logs an object before it handles it, and handling a
        # characteristic logs nothing more. So another event is made to follow.
        path = "/org/bluez/hci0/dev_" + REMOTE.replace(":", "_")
        run("busctl", "set-property", "org.bluez", path, "org.bluez.Device1", "Alias", "s", f"Settled {seen}")
        self.await_that(lambda: "props changed" in self.daemon.text()[seen:], "the event that follows", 30)

    def _last_object_at(self):
        """The position of the last object's arrival in the log; -1 if it isn't there."""
        text = self.daemon.text()
        at = max(text.rfind(mark + LAST_OBJECT) for mark in ("+ ", "Object "))
        return at if at > text.rfind("- " + LAST_OBJECT) else -1

    def await_remote(self, word, value, limit):
        self.await_that(lambda: self.remote(word) == value, f"{word} {value} of the remote", limit)

    def note_memory(self):
        """Call this at the first quiet moment after the daemon's start."""
        self.calm_kilobytes = self.daemon.own_kilobytes()

    def situation(self):
        files = {path.name: self.read(path.name) for path in sorted(TMP.glob("bluetooth_*"))}
        words = "; ".join(self.course.words())
        # Of an update's progress the last word is enough.
        words = re.sub(r"(rc_fw_update_uploading_\d+; )+(?=rc_fw_update_uploading)", "", words)
        return f"course: {words}; files: {files}"

    def errors(self):
        """What all the daemons of the case logged at level ERROR, and lines that
        aren't the logger's."""
        found = []
        for log in self.daemon_logs:
            for line in log.read_text(errors="replace").splitlines():
                parts = LOG_LINE.match(line)
                if parts is None or parts[1] == "E":
                    found.append(parts[3] if parts else line)
        return found

    def expect_errors(self, *patterns, tolerated=()):
        """Expects these errors and no others, in this order; tolerated ones may
        appear anywhere."""
        left = [error for error in self.errors() if not any(re.fullmatch(one, error) for one in tolerated)]
        expect(len(left) == len(patterns) and all(map(re.fullmatch, patterns, left)),
               f"other errors in the log: {self.errors()}")

    def expect_course(self, *words):
        """Checks the whole course of the status file. A word followed by a question
        mark may be missing, since it doesn't stay long enough for every check to catch
        it. A pass between a new link and the daemon's notice of it sees the remote as
        away."""
        def pattern(word):
            name = word.rstrip("?")
            one = {UPLOADING: r"(rc_fw_update_uploading_\d+;)+",
                   "connected": "(disconnected;)?connected;"}.get(name, f"{name};")
            return f"({one})?" if word.endswith("?") else one
        course = self.course.words()
        expect(re.fullmatch("".join(map(pattern, words)), "".join(word + ";" for word in course)),
               f"another course than {words}; {self.situation()}")


def expect(condition, what):
    if not condition:
        raise Failure(what)


# ---- the programs

LOADER = "ld-linux-x86-64.so.2"


def key_file(build):
    """The path of the build's own update key, which the remote shares; None for the published key."""
    cached = re.search(r"^VEXA_OTA_KEY_FILE:\w+=(.+)$", (build / "CMakeCache.txt").read_text(), re.MULTILINE)
    if not cached:
        return None
    # Kept open, since the cases mount a /tmp of their own.
    return f"/proc/{os.getpid()}/fd/{os.open(cached.group(1), os.O_RDONLY)}"


def bluetoothd_of(tree):
    """The command that runs bluetoothd: this machine's or, given a tree with the
    files of another Debian release, that one's with its own libraries."""
    if tree is None:
        return ["/usr/libexec/bluetooth/bluetoothd"]
    folders = [pathlib.Path(tree) / folder / "x86_64-linux-gnu" for folder in ("lib", "usr/lib")]
    loader = next(folder / LOADER for folder in folders if (folder / LOADER).exists())
    program = next(pathlib.Path(tree).glob("usr/lib*/bluetooth/bluetoothd"))
    return [str(loader), "--library-path", ":".join(map(str, folders)), str(program)]


def programs_of(build, bluez=None):
    return {
        "bluetoothd": bluetoothd_of(bluez),
        "build": str(build),
        "key": key_file(build),
        "vexabluetoohtd": str(build / "utils/vexabluetoohtd/vexabluetoohtd"),
        "vexaagent": str(build / "utils/vexaagent/vexaagent"),
        "vexafw": str(build / "utils/vexafw/vexafw"),
        "vexasim": str(build / "sim/vexasim"),
        "clock": str(build / "tests/kit/vexabox-clock.so"),
    }

#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Takes a sample of small changes (mutants) to the daemon and its library, builds a copy of the tree
once with all of them behind switches, and runs the tests with one switched on at a time: those
tests that come to the place of the change, the quickest first, until one fails. A change that no
test notices has survived. The sample stays the same as long as its code does, wherever that stands."""

import argparse
import concurrent.futures
import hashlib
import json
import os
import re
import signal
import subprocess
import sys
import threading
import time
from collections import Counter
from pathlib import Path

import mutate

PROJECT = Path(__file__).resolve().parents[1]
WORK = PROJECT / "build/mutants"
COPY = WORK / "tree"
SWITCH = WORK / "switch.h"
PAGES = WORK / "pages"  # a slot for each tree of processes: the number of its mutant, and which ones it has reached
NUMBER_BYTES = 4
PRODUCT = ("libvexastb/", "utils/vexabluetoohtd/")
PRESET = "release"
LATE_SECONDS, LATE_FACTOR = 20, 5  # a case hangs if it takes longer than both together
KILLED, LATE, SURVIVED, UNREACHED = "killed", "timed out", "survived", "not reached"

# A resource limit that nothing else uses tells the slot: unlike a variable of the environment it comes to the
# daemon in its box, too. What this tool hasn't started has the system's limit, and no slot.
SWITCH_HEADER = """// Made by scripts/mutants.
#pragma once
#include <atomic>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>
inline unsigned char* vexaMutantSlot()
{
    static unsigned char none[%(size)d];
    static std::atomic<unsigned char*> known{nullptr};
    if (known == nullptr) {
        rlimit slot{};
        getrlimit(RLIMIT_MSGQUEUE, &slot);
        const off_t offset = static_cast<off_t>(slot.rlim_cur) * %(size)d;
        const int file = open("%(pages)s", O_RDWR | O_CLOEXEC);
        void* page = MAP_FAILED;
        if (file >= 0 && lseek(file, 0, SEEK_END) > offset) {
            page = mmap(nullptr, %(size)d, PROT_READ | PROT_WRITE, MAP_SHARED, file, offset);
        }
        close(file);
        known = page == MAP_FAILED ? none : static_cast<unsigned char*>(page);
    }
    return known;
}
__attribute__((constructor(101))) static inline void vexaMutantStart() { vexaMutantSlot(); }
inline bool vexaMutant(int number)
{
    unsigned char* slot = vexaMutantSlot();
    slot[sizeof(int) + number] = 1;
    return *reinterpret_cast<volatile int*>(slot) == number;
}
"""


def read_tree(tree):
    """Name and content of what the tree holds, committed or not."""
    listed = subprocess.run(["git", "-C", tree, "ls-files", "-z", "-co", "--exclude-standard"],
                            capture_output=True, check=True).stdout.decode().split("\0")
    return {name: (tree / name).read_bytes() for name in sorted({*listed} - {""}) if (tree / name).is_file()}


class Case:
    """A test as ctest would run it."""

    def __init__(self, test):
        properties = {entry["name"]: entry["value"] for entry in test["properties"]}
        self.command = test["command"]
        self.name = f"{Path(self.command[0]).name} {test['name'].split('  #')[0]}"  # without an address
        self.folder = properties.get("WORKING_DIRECTORY")
        self.words = properties.get("PASS_REGULAR_EXPRESSION")
        self.limit = properties.get("TIMEOUT", 300)
        self.seconds = 0.0
        self.reaches = ()

    def price(self):
        return self.seconds * len(self.reaches)


class Build:
    """A copy of the tree with all mutants of the sample in it."""

    def __init__(self, files):
        self.files = files
        self.sample = []
        self.slot_bytes = 0
        self.key = ""  # tells one state of the copy from another

    def write(self, sample):
        """Touches only what differs, so that little is built anew."""
        self.sample = sample
        self.slot_bytes = -(-(NUMBER_BYTES + len(sample) + 1) // 4096) * 4096
        for number, mutant in enumerate(sample, 1):
            mutant.number = number
        wanted = {SWITCH: (SWITCH_HEADER % {"size": self.slot_bytes, "pages": PAGES}).encode()}
        for name, content in self.files.items():
            mine = [mutant for mutant in sample if mutant.file == name]
            if mine:  # before the comment on the first line, so that lines keep their numbers
                content = f'#include "{SWITCH}" '.encode() + mutate.rewrite(content, mine)
            wanted[COPY / name] = content
        for path, content in wanted.items():
            path.parent.mkdir(parents=True, exist_ok=True)
            if not path.is_file() or path.read_bytes() != content:
                path.write_bytes(content)
            path.chmod(0o755 if content.startswith(b"#!") else 0o644)
        for path in COPY.rglob("*"):
            if path.is_file() and path not in wanted and COPY / "build" not in path.parents:
                path.unlink()
        self.key = hashlib.sha256(b"".join(str(path).encode() + wanted[path] for path in sorted(wanted))).hexdigest()

    def make(self, *targets):
        """What the compiler says if it doesn't like something."""
        done = subprocess.run(["cmake", "--build", "--preset", PRESET, *targets, "--", "-k", "0"], cwd=COPY,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, errors="replace", check=False)
        return done.stdout if done.returncode else ""

    def prepare(self, order, count, extra):
        """Builds with the first mutants of the order that compile. Returns how many didn't."""
        bad = set()
        while True:
            sample = [mutant for mutant in order if mutant not in bad][:count]
            self.write(sample + [mutant for mutant in extra if mutant not in sample])
            print(f"Building a copy with {len(self.sample)} mutants", flush=True)
            subprocess.run(["cmake", "--preset", PRESET, "-DCMAKE_COMPILE_WARNING_AS_ERROR=OFF",
                            "-DCMAKE_CXX_FLAGS=-w -Wno-narrowing"], cwd=COPY, stdout=subprocess.DEVNULL, check=True)
            said = self.make("--target", "vexabluetoohtd") or self.make()
            if not said:
                return len(bad)
            places = re.findall(r"([\w/.]+):(\d+):\d+: error:", said)
            worse = {mutant for mutant in sample for name, line in places
                     if name.endswith(mutant.file) and mutant.line <= int(line) <= mutant.last_line}
            if not worse:
                sys.exit(f"mutants: the copy can't be built:\n{said[-3000:]}")
            bad |= worse

    def cases(self):
        """The default suite."""
        listed = subprocess.run(["ctest", "--preset", PRESET, "--show-only=json-v1", "-LE", "ondemand"], cwd=COPY,
                                stdout=subprocess.PIPE, check=True)
        return [Case(test) for test in json.loads(listed.stdout)["tests"]]


def end(process):
    """With the children in its session; those in boxes of their own die with it."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


class Runner:
    """Runs cases side by side."""

    def __init__(self, build, jobs):
        self.cases = build.cases()
        self.build, self.jobs = build, jobs
        self.failing = []  # names of those that fail without a mutant
        self.running = set()
        with open(PAGES, "wb") as pages:
            pages.truncate(len(self.cases) * build.slot_bytes)
        self.logs = WORK / "logs"
        self.logs.mkdir(exist_ok=True)

    def run(self, case, slot, limit):
        """Whether it passed, or None if it took too long; and the time it took."""
        log, started = self.logs / str(threading.get_ident()), time.monotonic()
        with open(log, "wb") as output:
            process = subprocess.Popen(["prlimit", f"--msgqueue={slot}:", "--", *case.command], cwd=case.folder,
                                       stdin=subprocess.DEVNULL, stdout=output, stderr=output, start_new_session=True)
        self.running.add(process)
        try:
            good = process.wait(limit) == 0
        except subprocess.TimeoutExpired:
            good = None
        self.running.discard(process)
        end(process)
        if case.words and good is not None:
            good = any(re.search(words, log.read_text(errors="replace")) for words in case.words)
        return good, time.monotonic() - started

    def measure(self):
        """Runs all cases without a mutant, each in a slot of its own. Kept for the next run with the same copy."""
        kept = WORK / "reach.json"
        known = json.loads(kept.read_text()) if kept.is_file() else {}
        if known.get("key") != self.build.key:
            print(f"Running {len(self.cases)} cases without a mutant", flush=True)
            with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
                good = list(pool.map(self.reach, range(len(self.cases)), self.cases))
            failing = [slot for slot, case in enumerate(self.cases)
                       if not good[slot] and not self.run(case, slot, case.limit)[0]]
            known = {"key": self.build.key, "failing": [self.cases[slot].name for slot in failing],
                     "cases": {case.name: (case.seconds, case.reaches) for case in self.cases}}
            kept.write_text(json.dumps(known))
        self.failing = known["failing"]
        for case in self.cases:
            case.seconds, case.reaches = known["cases"][case.name]
        self.cases = sorted((case for case in self.cases if case.name not in self.failing), key=Case.price)

    def reach(self, slot, case):
        good, case.seconds = self.run(case, slot, case.limit)
        with open(PAGES, "rb") as pages:
            pages.seek(slot * self.build.slot_bytes + NUMBER_BYTES)
            case.reaches = [number for number, mark in enumerate(pages.read(len(self.build.sample) + 1)) if mark]
        return good

    def cases_for(self, mutant):
        return [case for case in self.cases if mutant.number in case.reaches]

    def first_failure(self, cases):
        """The first case that fails twice in a row, and whether it was for time; or else those that failed once."""
        found, once = [], set()

        def attempt(case):
            for _ in range(2):
                good = found or self.run(case, 0, min(case.limit, LATE_SECONDS + LATE_FACTOR * case.seconds))[0]
                if good or found:
                    return
                once.add(case.name)
            found.append((case.name, good is None))
            for process in list(self.running):
                end(process)

        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            list(pool.map(attempt, cases))
        return (*found[0], []) if found else (None, False, sorted(once))

    def test(self, mutant):
        cases, started = self.cases_for(mutant), time.monotonic()
        with open(PAGES, "r+b") as pages:
            pages.write(mutant.number.to_bytes(NUMBER_BYTES, sys.byteorder))
        name, late, once = self.first_failure(cases)
        status = LATE if late else KILLED if name else SURVIVED if cases else UNREACHED
        return {**mutant.record(), "status": status, "by": name, "cases": len(cases), "failed once": once,
                "seconds": round(time.monotonic() - started, 1)}


def find_again(records, mutants):
    """The mutant of each record of an earlier run: of the same function, or else the only one anywhere with its
    statement. None if its code is gone."""
    same = {mutant.identity(): mutant for mutant in mutants}
    moved = {}
    for mutant in mutants:
        moved.setdefault((*mutant.code[1:], mutant.occurrence), []).append(mutant)
    for record in records:
        place = (record["statement"], record["kind"], record["occurrence"])
        only = moved[place][0] if len(moved.get(place, [])) == 1 else None
        yield same.get(" | ".join(map(str, (record["function"], *place))), only)


def tell(title, records):
    print(f"\n{title}:")
    for record in records:
        print(f"  {record['id']} {record['file']}:{record['line']} {record['function']}: "
              f"{record['kind']}: {record['change']}")


def summarise(records):
    for status in (SURVIVED, UNREACHED):
        tell(status, [record for record in records if record["status"] == status])
    counts = Counter(record["status"] for record in records)
    print(f"\n{len(records)} mutants: " +
          ", ".join(f"{counts[status]} {status}" for status in (KILLED, LATE, SURVIVED, UNREACHED)))


def compare(before, again, records):
    now = {record["id"]: record for record in records}
    pairs = [(old, now.get(mutant.id())) for old, mutant in zip(before, again) if mutant]
    tell("killed before and not any more", [new for old, new in pairs if new and old["status"] in (KILLED, LATE)
                                            and new["status"] not in (KILLED, LATE)])


def read_options():
    parser = argparse.ArgumentParser(prog="scripts/mutants", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--tree", type=Path, default=PROJECT, help="another checkout to take product and tests from")
    parser.add_argument("--count", type=int, default=150, help="how many mutants (150)")
    parser.add_argument("--seed", default="1", help="which ones (1)")
    parser.add_argument("--jobs", type=int, default=12, help="how many tests at a time (12); most of them only wait")
    parser.add_argument("--output", type=Path, default=WORK / "results.json",
                        help="where the results go, after each mutant; a file that exists is continued")
    parser.add_argument("--compare", type=Path, metavar="BEFORE", help="takes the mutants of these earlier results, "
                        "and tells which ones were killed then and aren't now")
    parser.add_argument("--only", action="append", default=[], metavar="ID", help="tests this one, again if need be")
    parser.add_argument("--list", action="store_true", help="lists the sample and ends")
    return parser.parse_args()


def main():
    options = read_options()
    if str(PROJECT).startswith(("/tmp/", "/run/", "/dev/", "/sys/")):
        sys.exit("mutants: the tests' boxes hide this folder; clone the project elsewhere")
    files = read_tree(options.tree.resolve())
    product = {name: content for name, content in files.items()
               if name.startswith(PRODUCT) and name.endswith((".cpp", ".h"))}
    mutants = mutate.find(options.tree.resolve(), product)
    # By digests: as good as by chance, and the same ones as long as their code is there.
    order = sorted(mutants, key=lambda it: hashlib.sha256(f"{options.seed} {it.identity()}".encode()).digest())
    before, again = [], []
    if options.compare:
        before = json.loads(options.compare.read_text())["mutants"]
        again = list(find_again(before, mutants))
        order = list(filter(None, again))
        options.count = len(order)
        tell("gone with their code", [old for old, mutant in zip(before, again) if not mutant])
    if options.list:
        tell(f"{options.count} of {len(mutants)}", [mutant.record() for mutant in order[:options.count]])
        return

    build = Build(files)
    dropped = build.prepare(order, options.count, [mutant for mutant in mutants if mutant.id() in options.only])
    results = {"key": build.key, "mutants": []}
    if options.output.is_file():
        results = json.loads(options.output.read_text())
        if results["key"] != build.key:
            sys.exit(f"mutants: {options.output} is of another tree or sample: name another file or remove it")
    runner = Runner(build, options.jobs)
    runner.measure()
    results.update({"seed": options.seed, "possible": len(mutants), "not compiling": dropped,
                    "left out": runner.failing})
    done = {record["id"]: record for record in results["mutants"]}
    wanted = [it for it in build.sample if (it.id() in options.only if options.only else it.id() not in done)]
    started = time.monotonic()
    for index, mutant in enumerate(wanted, 1):
        record = done[mutant.id()] = runner.test(mutant)
        results["mutants"] = [done[it.id()] for it in build.sample if it.id() in done]
        options.output.write_text(json.dumps(results, indent=1) + "\n")
        left = (time.monotonic() - started) / index * (len(wanted) - index) / 60
        print(f"[{index:3}/{len(wanted)}] {record['status']:11} {left:4.0f} min left  {record['function']}: "
              f"{record['change']}" + (f"  ({record['by']})" if record["by"] else ""), flush=True)
    print("".join(f"left out, since it fails without a mutant: {name}\n" for name in runner.failing))
    summarise(results["mutants"])
    if before:
        compare(before, again, results["mutants"])


if __name__ == "__main__":
    main()

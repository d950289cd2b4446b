#!/usr/bin/python3
"""Puts faults into a scratch copy of src/util, one at a time, and tells which the tests find.

See scripts/mutants.sh.
"""

import argparse
import hashlib
import json
import os
import re
import signal
import subprocess
import sys
import time
from collections import Counter, defaultdict
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from fnmatch import fnmatch
from pathlib import Path
from queue import SimpleQueue
from threading import Lock

from mutants_find import find_mutants, room_of

OUT = Path("build/mutants")
EQUIVALENT = Path("scripts/mutants.equivalent")
PATCHES = Path("scripts/mutants.d")
LATE = re.compile(r"gateway_|Consumer\.|Documentation\.")  # slow, and about other things
# What a fault leaves unused or without its parentheses is no reason to refuse it. Without debug
# information a build is quicker, and one that does the same is the same to the byte.
CONFIGURE = ["-DCMAKE_CXX_FLAGS=-O1 -Wno-unused -Wno-parentheses",
             "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"]
SANITIZERS = {"thread": "tsan", "address": "asan"}
KILLS = ["build", "own tests", "suite", "time limit", "sanitizer"]
RESULTS = [*KILLS, "survived", "equivalent", "discarded"]
ROOM_SHARE = 8  # of a sample, where a room has so many
LIMIT = 600  # seconds, for whatever has no better one


class Stop(Exception):
    """What makes all further results worthless."""


@dataclass
class Patch:
    """A fault made by hand."""
    name: str
    kind = "patch"

    def __post_init__(self):
        self.text, self.key = Path(self.name).read_text(), self.name
        self.files = re.findall(r"^\+\+\+ b/(\S+)", self.text, re.M)
        self.room = next((room_of(file) for file in self.files if "/util/" in file), "-")

    def apply(self, tree):
        command = ["patch", "-p1", "-s", "--no-backup-if-mismatch", "-r", "-", "-d", tree]
        return subprocess.run(command, input=self.text, text=True).returncode == 0

    def diff(self, _tree):
        return self.text


def output_of(*command, **options):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, **options).stdout


def changed_lines(revision):
    """The lines of each source that are not as in the revision."""
    lines, path = defaultdict(set), None
    for line in output_of("git", "diff", "-U0", revision, "--", "src").splitlines():
        if line.startswith("+++ b/"):
            path = line[6:]
        elif hunk := re.match(r"@@ \S+ \+(\d+)(?:,(\d+))? @@", line):
            lines[path].update(range(int(hunk[1]), int(hunk[1]) + int(hunk[2] or 1)))
    return lines


def chosen(faults, options):
    if options.files:
        faults = [fault for fault in faults for names in [(fault.room, *fault.files)]
                  if any(fnmatch(part, glob) for name in names for glob in options.files
                         for part in (name, Path(name).name))]
    if options.diff:
        lines = changed_lines(options.diff)
        faults = [fault for fault in faults if not lines[fault.path].isdisjoint(fault.lines)]
    return [fault for fault in faults if fault.name.startswith(options.only)]


def in_rooms(faults, seed):
    """In an order that hangs on nothing but the seed and each fault's own text, so that a sample
    stays much the same while the sources change."""
    rooms = defaultdict(list)
    for fault in sorted(faults, key=lambda f: hashlib.sha256(f"{seed} {f.key}".encode()).digest()):
        rooms[fault.room].append(fault)
    return dict(sorted(rooms.items(), key=lambda item: -len(item[1])))


def shares(rooms, sample):
    """How many of each room: what its size makes due, but some of each."""
    counts = {room: len(faults) for room, faults in rooms.items()}
    if sample is None or sample >= sum(counts.values()):
        return counts
    given = {room: min(ROOM_SHARE, sample // len(counts), count) for room, count in counts.items()}
    while sum(given.values()) < sample:
        growing = [room for room in counts if given[room] < counts[room]]
        given[max(growing, key=lambda room: counts[room] / (given[room] + 1))] += 1
    return given


class Tests:
    """All tests with their programs, and which of them are nearest to a room."""

    def __init__(self, tree, preset):
        listing = output_of("ctest", "--preset", preset, "--show-only=json-v1", cwd=tree)
        self.programs = {
            test["name"]: next((Path(w).name for w in test["command"] if w.endswith("Test")), "-")
            for test in json.loads(listing[listing.index("{"):])["tests"]}
        self.names = [name for name in self.programs if not LATE.match(name)]
        self.late = [name for name in self.programs if LATE.match(name)]
        self.rooms, self.includers = set(), defaultdict(set)
        for path in [*tree.glob("*/util/**/*.*"), *tree.glob("*/*Test.cpp")]:
            name = room_of(str(path)) if "/util/" in str(path) else path.stem
            self.rooms.add(name)
            for included in re.findall(r'^#include "util/(.*)\.h"', path.read_text(), re.M):
                self.includers[included].add(name)

    def owner(self, program):
        """The room whose name a test program's begins with, best the whole of it."""
        named = [room for room in self.rooms if program.startswith(Path(room).name)]
        return max(named, key=lambda room: (not room.endswith("Test"), len(Path(room).name)),
                   default=None)

    def nearest(self, room):
        """Those named after it, or else after what includes it, and so on outwards."""
        level, seen = {room}, set()
        while level:
            tests = [name for name in self.names
                     if level & {self.programs[name], self.owner(self.programs[name])}]
            if tests:
                return tests
            seen |= level
            level = set().union(*(self.includers[each] for each in level)) - seen
        return []


def guarded(command, tree, limit=LIMIT, is_sanitized=False):
    """The exit status, None where it took too long, and the output of a command whose processes all
    end with it, and that can fill neither memory nor disk."""
    limits = ["prlimit", f"--fsize={1 << 30}"] + ([] if is_sanitized else [f"--as={1 << 33}"])
    apart = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc"]
    apart += [] if os.getuid() == 0 else ["--map-root-user"]
    try:
        done = subprocess.run([*limits, *apart, *command], cwd=tree, timeout=limit, text=True,
                              errors="replace", stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, start_new_session=True)
        return done.returncode, done.stdout
    except subprocess.TimeoutExpired as late:
        return None, str(late.stdout)


def refusal(output):
    """Warnings that are errors and static assertions find a fault. What cannot be compiled is no
    fault, nor is a function that only lost its return."""
    errors = re.findall(r"error: (.*)", output) or ["does not build"]
    found = [e for e in errors if re.search(r"\[-Werror=(?!return-type)|static assertion", e)]
    return "build" if found == errors else "discarded", errors[0]


class Job:
    """A scratch copy of the checkout with its builds."""
    lock = Lock()
    tests = None
    seconds = {}  # what all tests of a preset take, once they have passed without a fault

    def __init__(self, number, options):
        self.tree = (OUT / f"job-{number}").absolute()
        self.options, self.saved, self.original = options, {}, {}
        self.copy_checkout()
        self.prepare("dev")

    def copy_checkout(self):
        """A file that is as it was keeps its time, and what was built from it."""
        self.tree.mkdir(parents=True, exist_ok=True)
        subprocess.run(["rsync", "-rlp", "--checksum", "--delete", "--exclude=/build",
                        "--exclude=/.git", "./", self.tree], check=True)

    def prepare(self, preset):
        """Builds without a fault, and makes sure once that all tests pass then."""
        status, output = guarded(["cmake", "--preset", preset, *CONFIGURE], self.tree)
        if status == 0:
            status, output = self.build(preset)
        if status != 0:
            raise Stop(f"{preset} does not build without a fault:\n{output}")
        self.original[preset] = self.library(preset)
        with Job.lock:
            if preset not in Job.seconds:
                self.check(preset)

    def check(self, preset):
        Job.tests = Job.tests or Tests(self.tree, preset)
        start = time.monotonic()
        late = Job.tests.late if self.options.all_tests else []
        failed, _, output = self.run_tests(preset, Job.tests.names + late, LIMIT)
        if failed or "***Skipped" in output:
            raise Stop(f"{preset}: tests fail or are skipped without a fault:\n{output}")
        Job.seconds[preset] = time.monotonic() - start

    def build(self, preset):
        return guarded(["cmake", "--build", "--preset", preset, "-j2"], self.tree)

    def library(self, preset):
        library = self.tree / "build" / preset / "src/libhutil.so"
        return hashlib.sha256(library.read_bytes()).digest()

    def run_tests(self, preset, names, limit, *flags):
        """The tests that failed, whether one took too long, and what was said."""
        pattern = f"^({'|'.join(map(re.escape, names))})$"
        status, output = guarded(["ctest", "--preset", preset, *flags, "-R", pattern], self.tree,
                                 limit, preset in SANITIZERS.values())
        failed = re.findall(r"^\s+\d+ - (\S+) \((?!Skipped)", output, re.M)
        is_late = status is None or "***Timeout" in output
        return (failed or names[:1]) if status != 0 else [], is_late, output

    def finding(self, preset, names):
        """The test that finds the fault and whether by its time limit. One that passes when it is
        run again found nothing, unless there is another one when all are run again."""
        limit = 60 + 10 * Job.seconds[preset]
        for attempt in range(2 if names else 0):
            failed, is_late, _ = self.run_tests(preset, names, limit, "--stop-on-failure")
            if not failed:
                break
            if attempt or is_late or self.run_tests(preset, failed[:1], limit)[0]:
                return failed[0], is_late
        return None

    def stages(self, fault):
        own = {test for file in fault.files if file.startswith("src/util/")
               for test in Job.tests.nearest(room_of(file))}
        yield "own tests", sorted(own)
        yield "suite", [name for name in Job.tests.names if name not in own]
        yield "suite", Job.tests.late if self.options.all_tests else []

    def judge(self, fault):
        """What became of a fault, and what found it."""
        status, output = self.build("dev")
        if status != 0:
            return refusal(output)
        if self.library("dev") == self.original["dev"]:
            return "equivalent", "the same code"
        for stage, names in self.stages(fault):
            if found := self.finding("dev", names):
                return "time limit" if found[1] else stage, found[0]
        sanitizer = self.options.sanitizer or ("thread" if fault.kind == "lock" else None)
        found = sanitizer and self.sanitized(fault, SANITIZERS[sanitizer])
        return ("sanitizer", found[0]) if found else ("survived", "")

    def sanitized(self, fault, preset):
        if preset not in self.original:
            self.restore()
            self.prepare(preset)
            self.apply(fault)
        status, output = self.build(preset)
        if status != 0:
            raise Stop(f"{fault.name}: only {preset} does not build:\n{output}")
        return next(filter(None, (self.finding(preset, names) for _, names in self.stages(fault))),
                    None)

    def apply(self, fault):
        for path in [self.tree / file for file in fault.files]:
            self.saved[path] = path.read_bytes() if path.is_file() else None
        return fault.apply(self.tree)

    def restore(self):
        while self.saved:
            path, content = self.saved.popitem()
            path.unlink(missing_ok=True) if content is None else path.write_bytes(content)

    def attempt(self, fault):
        try:
            return self.judge(fault) if self.apply(fault) else ("discarded", "does not apply")
        finally:
            self.restore()


class Run:
    """Tries all rooms, each in whatever job is free, and keeps the results as they come."""

    def __init__(self, rooms, wanted, known, options):
        self.rooms, self.wanted, self.known, self.options = rooms, wanted, known, options
        self.results, self.lock, self.jobs, self.stop = [], Lock(), SimpleQueue(), None
        self.commit = output_of("git", "describe", "--always", "--dirty").strip()
        self.start = time.monotonic()

    def all(self):
        with ThreadPoolExecutor(self.options.jobs) as pool:
            try:
                for job in pool.map(lambda n: Job(n, self.options), range(self.options.jobs)):
                    self.jobs.put(job)
                list(pool.map(self.room, self.rooms))
            except KeyboardInterrupt:
                signal.signal(signal.SIGINT, signal.SIG_IGN)
                self.stop = Stop("interrupted")
                print("What is under way comes to its end.", flush=True)
        if self.stop:
            raise self.stop

    def room(self, room):
        """As many of its faults as are wanted; one that does not compile is made up for."""
        job, left = self.jobs.get(), self.wanted[room]
        try:
            for fault in self.rooms[room]:
                if left and not self.stop:
                    left -= self.keep(fault, job) != "discarded"
        except Exception as error:  # the other jobs need not go on
            self.stop = error
        self.jobs.put(job)

    def keep(self, fault, job):
        start = time.monotonic()
        diff = fault.diff(job.tree)
        known = self.known.get(fault.key)
        result, by = ("equivalent", known) if known else job.attempt(fault)
        entry = {"id": fault.name, "key": fault.key, "room": fault.room, "kind": fault.kind,
                 "result": result, "by": by, "seconds": round(time.monotonic() - start, 1),
                 "diff": diff}
        with self.lock:
            self.results = sorted([*self.results, entry], key=lambda each: each["id"])
            done = sum(each["result"] != "discarded" for each in self.results)
            print(f"[{done}/{sum(self.wanted.values())}] {result:10} {entry['seconds']:5.1f} s  "
                  f"{fault.name[:150]}  ({by[:80]})", flush=True)
            self.save()
        return result

    def save(self):
        kept = {"commit": self.commit, "seed": self.options.seed, "sample": self.options.sample,
                "seconds": round(time.monotonic() - self.start), "mutants": self.results}
        (OUT / "results.json").write_text(json.dumps(kept, indent=1) + "\n")


def score(counts):
    """How many of a hundred were killed; None where there was nothing to kill."""
    killed = sum(counts[kill] for kill in KILLS)
    return 100 * killed / (killed + counts["survived"]) if killed + counts["survived"] else None


def row(room, counts, percent):
    tried = counts.total() - counts["discarded"]
    figures = "".join(f"{counts[result]:>12}" for result in RESULTS)
    return f"{room:<24}{tried:>6}{figures}" + ("" if percent is None else f"{percent:>8.0f} %")


def report(results, options):
    """Prints what there is to know; whether all scores are high enough."""
    for each in results:
        if each["result"] == "survived":
            print(f"\nSURVIVED {each['id']}\n{each['key']}\n{each['diff']}", end="")
    rooms = defaultdict(Counter)
    for each in results:
        rooms[each["room"]][each["result"]] += 1
    low = []
    print(f"\n{'room':<24}{'tried':>6}" + "".join(f"{each:>12}" for each in RESULTS) + "     score")
    for room, counts in [*sorted(rooms.items()), ("all", sum(rooms.values(), Counter()))]:
        percent = score(counts)
        print(row(room, counts, percent))
        least = options.minimum if room == "all" else options.room_minimum
        low += [f"{room} {percent:.0f} %"] if percent is not None and percent < least else []
    print(f"Too low: {', '.join(low)}" if low else "High enough.")
    return not low


def known_equivalents(faults):
    """The reason of each, by key; says which match nothing any more."""
    lines = [line for line in EQUIVALENT.read_text().splitlines() if line and line[0] != "#"]
    known = dict(line.rsplit("  ", 1) for line in lines)
    for key in sorted(known.keys() - {fault.key for fault in faults}):
        print(f"{EQUIVALENT}: there is no such fault: {key}")
    return known


def parse_options():
    parser = argparse.ArgumentParser(prog="scripts/mutants.sh", description=__doc__.splitlines()[0])
    parser.add_argument("--seed", type=int, default=1, help="which sample")
    parser.add_argument("--sample", type=int, metavar="N", help="that many, some of each room")
    parser.add_argument("--files", nargs="+", metavar="GLOB", help="paths, file names or rooms")
    parser.add_argument("--diff", metavar="REV", help="only lines changed since then")
    parser.add_argument("--only", default="", metavar="ID", help="those whose name begins so")
    parser.add_argument("--patches", action="store_true", help=f"those of {PATCHES}/ instead")
    parser.add_argument("--list", action="store_true", help="name them and do nothing")
    parser.add_argument("--jobs", type=int, default=1, metavar="N", help="that many rooms at once")
    parser.add_argument("--all-tests", action="store_true", help="the slow ones too, last")
    parser.add_argument("--sanitizer", choices=SANITIZERS,
                        help="for all that survive; locks are tried with the thread one anyway")
    parser.add_argument("--room-minimum", type=float, default=75, metavar="PERCENT")
    parser.add_argument("--minimum", type=float, default=85, metavar="PERCENT")
    options = parser.parse_args()
    if options.patches and options.diff:
        parser.error("--diff is about generated faults")
    return options


def main():
    options = parse_options()
    if options.patches:
        faults = [Patch(str(path)) for path in sorted(PATCHES.glob("*.patch"))]
    else:
        faults = find_mutants()
    rooms = in_rooms(chosen(faults, options), options.seed)
    wanted = shares(rooms, options.sample)
    if options.list:
        print("\n".join(f.name for room, each in rooms.items() for f in each[:wanted[room]]))
        return 0
    print(f"{sum(wanted.values())} of {len(faults)} faults")
    run = Run(rooms, wanted, {} if options.patches else known_equivalents(faults), options)
    try:
        run.all()
    except Stop as stop:
        print(f"mutants.sh: {stop}", file=sys.stderr)
        return 2
    return 0 if report(run.results, options) else 1


if __name__ == "__main__":
    sys.exit(main())

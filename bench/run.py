#!/usr/bin/env python3
"""Runs the benchmarks of one build, library and peers in turns, and reports what they measured.

Runs inside scripts/isolate.sh: see scripts/bench.sh.
"""

import argparse
import os
import signal
import subprocess
import sys
import time
from pathlib import Path

import report
from report import Case

LIBRARY = "hutil"
TIME_LIMIT = 60  # seconds, for any one program


class Runner:
    """Starts the built programs, and pins the two sides of a measurement to a processor each."""

    def __init__(self, build, seconds):
        self.build = Path(build)
        self.seconds = seconds
        self.split = len(os.sched_getaffinity(0)) > 1

    def start(self, cpu, program, *words):
        pin = ["taskset", "-c", str(cpu)] if self.split else []
        return subprocess.Popen([*pin, str(self.build / f"bench_{program}"), *map(str, words)],
                                stdout=subprocess.PIPE, text=True)

    def figures(self, cpu, program, *words):
        """What a program reports, by name."""
        process = self.start(cpu, program, *words)
        try:
            output, _ = process.communicate(timeout=TIME_LIMIT)
        except subprocess.TimeoutExpired:
            process.kill()
            raise
        if process.returncode != 0:
            raise RuntimeError(f"{program} {' '.join(map(str, words))}: status {process.returncode}")
        return {name: float(value) for name, value in map(str.split, output.splitlines())}

    def served(self, stack, kind, use, *options):
        """What `use` makes of the process and port of a running server."""
        certs = self.build / "certs"
        keys = [certs / "server.pem", certs / "server-key.pem"] if kind == "tls" else []
        server = self.start(0, f"server_{stack}", kind, *keys, *options)
        try:
            ready = server.stdout.readline().split()
            if ready[:1] != ["ready"]:
                raise RuntimeError(f"server_{stack} {kind} does not start")
            return use(server.pid, ready[1])
        finally:
            server.send_signal(signal.SIGKILL)
            server.wait()
            server.stdout.close()

    def driven(self, stack, kind, *words, driver=None, options=()):
        """The driver's figures against one stack's server."""
        return self.served(stack, kind, lambda pid, port: self.figures(
            1, "client", driver or kind, port, pid, self.seconds, *words), *options)


PER_S = ("per_s", "1/s", "more")
CPU = ("cpu_us", "µs CPU", "less")
US = ("us", "µs", "less")
P50 = ("p50_us", "µs p50", "less")
P99 = ("p99_us", "µs p99", "less")


def echo_cases():
    for size in (64, 8192):
        for clients in (1, 16, 256, 1000):
            yield Case(
                "TCP echo", f"{size} B, {clients} clients", [PER_S, CPU],
                peers=["libevent", "libuv", "asio"], floors=["select", "thread", "epoll"],
                peer_goal=1 if clients <= 16 else None, floor_goal=0.95,
                run=lambda r, s, c=clients, z=size: r.driven(s, "tcp", c, z))
    for size in (64, 8192):
        for clients in (1, 16):
            yield Case(
                "TLS 1.2 echo", f"{size} B, {clients} clients", [PER_S, CPU],
                peers=["asio"], floors=["select", "thread"], floor_goal=0.95,
                run=lambda r, s, c=clients, z=size: r.driven(s, "tls", c, z))
    for kind, title in (("tcp", "TCP echo"), ("tls", "TLS 1.2 echo")):
        yield Case(title, "64 B, 16 clients, with limits", [PER_S, CPU], peers=[],
                   floors=["plain"], floor_goal=0.97, run=lambda r, s, k=kind: r.driven(
                       LIBRARY, k, 16, 64, options=["--limits"] if s == LIBRARY else []))
    yield Case("accept + close", "", [PER_S, CPU], peers=["libevent", "libuv", "asio"],
               floors=["select"], peer_goal=1, run=lambda r, s: r.driven(s, "tcp", driver="accept"))
    yield Case("accept + close", "debug lines logged, no syslogd", [PER_S, CPU], peers=[],
               floors=["select"],
               run=lambda r, s: r.driven(s, "tcp", driver="accept", options=["--log"]))
    for kind, title in (("unix", "Unix"), ("udp", "UDP")):
        for suffix, what in (("", "answered"), ("-in", "received")):
            yield Case("datagrams", f"{title}, {what}", [PER_S, CPU], peers=["libuv", "asio"],
                       floors=["select"], peer_goal=1,
                       run=lambda r, s, k=kind, x=suffix: r.driven(s, k, driver=k + x))


def loop_cases():
    for kind, title in (("add", "Add in another thread"), ("ready", "ready descriptor")):
        yield Case("wake-up", title, [P50, P99], peers=["libuv"], floors=["select"],
                   floor_goal=1 / 1.1,
                   run=lambda r, s, k=kind: r.figures(0, "wakeup", s, k, r.seconds,
                                                      1 if r.split else -1))
    for tasks, mix in ((1, "same"), (10, "same"), (100, "same"), (10, "mixed"), (100, "mixed")):
        title = f"{tasks} tasks, " + ("10 ms" if mix == "same" else "10 to 19 ms")
        yield Case("timers", title, [P50, P99, CPU], peers=["libuv", "libevent"],
                   floors=["nanosleep"], peer_goal=1, judged=["p99_us"],
                   run=lambda r, s, t=tasks, m=mix: r.figures(0, "timers", s, t, m, r.seconds * 5))
    for kind in ("links", "addresses"):
        yield Case("netlink", kind, [PER_S], peers=["libmnl"], floors=["memcpy"], peer_goal=0.5,
                   run=lambda r, s, k=kind: r.figures(0, "netlink", s, k, r.seconds))


def file_cases():
    for kind, title in (("load", "LoadData"), ("save", "SaveData, equal")):
        for keys in (10, 100, 10000):
            yield Case("settings", f"{title}, {keys} keys", [US], peers=["sqlite3"], floors=["read"],
                       floor_goal=0.8 if keys == 10000 else None,
                       run=lambda r, s, k=kind, n=keys: r.figures(0, "settings", s, k, n, r.seconds))
    for lines in (10, 1000, 50000):
        yield Case("leases", f"{lines} lines", [US], peers=["getline", "getline-kept"],
                   floors=["read"], peer_goal=1 / 3,
                   run=lambda r, s, n=lines: r.figures(0, "leases", s, n, r.seconds))
    for size, title in ((1024, "1 KiB"), (10485760, "10 MiB")):
        yield Case("HTTP GET", title, [US], peers=["libcurl"], floors=[], peer_goal=0.99,
                   run=lambda r, s, n=size: r.figures(0, "http", s, n, r.seconds))
    yield Case("process by name", "100 processes and more, none found", [US],
               peers=["pidof", "pgrep"], floors=["readdir"], floor_goal=1 / 1.05,
               run=lambda r, s: r.figures(0, "process", s, r.seconds))


def resident(pid, _port):
    time.sleep(0.1)
    fields = dict(line.split()[:2] for line in
                  Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()[1:])
    return {"rss_kib": float(fields["Rss:"]), "private_kib": float(fields["Private_Dirty:"])}


def footprint_cases():
    yield Case("idle daemon", "one TCP server",
               [("rss_kib", "KiB resident", "less"), ("private_kib", "KiB private", "less")],
               peers=["libevent", "libuv", "asio"], floors=["select"],
               run=lambda r, s: r.served(s, "tcp", resident))
    yield Case("load", "start to end of an empty program", [US], peers=[], floors=["dependencies"],
               extra_goal=1000,
               run=lambda r, s: r.figures(0, "spawn", r.seconds, r.build / f"bench_load_{s}"))


GROWTH = {
    "descriptors": ("idle clients beside one that talks", [0, 125, 250, 500, 750, 1000],
                    ["hutil", "libuv", "select", "epoll"], CPU, "CPU per message",
                    lambda r, s, n: r.driven(s, "tcp", 1, 64, n)),
    "timers": ("tasks of 10 ms", [1, 10, 25, 50, 75, 100],
               ["hutil", "libuv", "libevent", "nanosleep"], CPU, "CPU for each to run once",
               lambda r, s, n: {"cpu_us": n * r.figures(0, "timers", s, n, "same",
                                                        r.seconds)["cpu_us"]}),
    "keys": ("keys in the file", [10, 100, 1000, 2500, 5000, 10000],
             ["hutil", "sqlite3", "read"], US, "time of one LoadData",
             lambda r, s, n: r.figures(0, "settings", s, "load", n, r.seconds)),
}


def growth_cases():
    for name, (axis, points, stacks, figure, title, run) in GROWTH.items():
        for point in points:
            yield Case(f"growth: {name}", point, [figure], peers=stacks[1:], floors=[],
                       axis=axis, title=title,
                       run=lambda r, s, n=point, f=run: f(r, s, n))


def some(cases):
    """The first and the last case of each row."""
    rows = {}
    for case in cases:
        rows.setdefault(case.row, []).append(case)
    return [case for row in rows.values() for case in dict.fromkeys((row[0], row[-1]))]


def measure(runner, case, rounds):
    """Every stack once in each round, each round beginning with another one."""
    stacks = [LIBRARY, *case.peers, *case.floors]
    for i in range(rounds):
        for stack in stacks[i % len(stacks):] + stacks[:i % len(stacks)]:
            try:
                case.add(stack, case.run(runner, stack))
            except Exception as error:
                raise RuntimeError(f"{case.row}: {case.name}: {stack}") from error


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True, help="the folder with the programs")
    parser.add_argument("--commit", default="unknown")
    parser.add_argument("--rounds", type=int, default=11)
    parser.add_argument("--seconds", type=float, default=0.25, help="how long one run measures")
    parser.add_argument("--keep", action="store_true", help="write the figures of docs/performance.md")
    parser.add_argument("--only", default="", help="rows whose name begins like this")
    parser.add_argument("--moment", action="store_true", help="whether all of it runs: no figures")
    options = parser.parse_args()
    if options.keep and (options.moment or options.only):
        parser.error("--keep wants all rows, measured")
    if options.moment:
        options.rounds, options.seconds = 1, 0.02
    runner = Runner(options.build, options.seconds)
    cases = [*echo_cases(), *loop_cases(), *file_cases(), *footprint_cases(),
             *growth_cases()]
    cases = [case for case in cases if case.row.startswith(options.only)]
    if options.moment:
        cases = some(cases)
    for case in cases:
        if sys.stderr.isatty():
            print(f"\r\033[K{case.row}: {case.name}", end="", file=sys.stderr, flush=True)
        measure(runner, case, options.rounds)
    if sys.stderr.isatty():
        print("\r\033[K", end="", file=sys.stderr)
    report.write(cases, runner.build, report.machine(options), report.sizes(runner.build),
                 Path() if options.keep else None)


if __name__ == "__main__":
    main()

"""Signals at every moment, and a syslogd that stops reading."""

import time

from kit import connect, echoes, is_closed, server, target
from tls import MODERN, OPTIONS, identity
from tls_programs import Node, Python

ROUNDS = 200


# ---- A signal every 100 microseconds ----

def _heard_by_ours(*words):
    with Node().serve() as port:
        return target("client", "127.0.0.1", port, *MODERN, "--signals", *words,
                      seconds=60)[1].strip()


def signals(table, _log):
    table.group("A signal every 100 microseconds")
    with server(*OPTIONS, *identity("good"), "--signals") as rained_on:
        context = Python.context()
        served = sum(Python.talk(context, rained_on.port)[0] for _ in range(ROUNDS))
        table.row("Server: TLS clients served", f"{ROUNDS}", f"{served}", served == ROUNDS)
        with connect(rained_on.port) as raw, context.wrap_socket(
                raw, server_hostname="localhost") as peer:
            heard = sum(echoes(peer, b"x" * (256 << 10)) for _ in range(ROUNDS))
        table.row("Server: echoes of 256 KiB", f"{ROUNDS}", f"{heard}", heard == ROUNDS)
    whole, heard = f"{ROUNDS} of {ROUNDS}", _heard_by_ours(f"--connections={ROUNDS}")
    table.row("Client: TLS servers heard", whole, heard, heard == whole)
    heard = _heard_by_ours("--size=1048576")
    table.row("Client: echoes of 1 MiB", "1 of 1", heard, heard == "1 of 1")


# ---- A syslogd that stops reading ----

def _say_something(port, times):
    """Peers that fail their handshakes, with a log line each."""
    for _ in range(times):
        with connect(port, seconds=1) as peer:
            peer.sendall(b"no hello")
            if not is_closed(peer):
                return


def _full_log(table, log, ours, old):
    log.stop_reading()
    quiet = sum(echoes(old) for _ in range(1000))
    table.row("Nothing to log: echoes while nobody reads /dev/log", "1000", f"{quiet}",
              quiet == 1000)
    _say_something(ours.port, 2000)
    old.settimeout(1)
    # glibc's syslog waits for room.
    table.told("The queue of /dev/log is full: a loop that wants to log", "as syslog(3) does",
               "goes on" if echoes(old) else "waits")
    begin = time.monotonic()
    log.read_on()
    old.settimeout(5)
    back, span = old.recv(5) == b"hello" and echoes(old), time.monotonic() - begin
    table.row("It is read again: the answer that was under way, and the next", "in <= 1.0 s",
              f"in {span:.2f} s", back and span <= 1)
    table.all_of("It is read again: a newcomer",
                 [("served", Python.talk(Python.context(), ours.port)[0])])


def full_log(table, log):
    table.group("A syslogd that stops reading")
    with server(*OPTIONS, *identity("good")) as ours, connect(ours.port) as raw, \
            Python.context().wrap_socket(raw, server_hostname="localhost") as old:
        _full_log(table, log, ours, old)

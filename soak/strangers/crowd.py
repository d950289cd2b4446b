"""Many peers, and peers that mean no good."""

import ssl
import threading
import time
from contextlib import suppress

from kit import connect, echoes, is_closed, is_readable, median_ms, server, wait_until
from tls import identity
from tls_programs import Python

LIMIT = 3000
OPTIONS = [f"--limit={LIMIT}", "--linger", "--backlog=512"]
PEERS = 2000
NEWCOMERS = 500


def _arrive(port):
    """None for one who is turned away before the system call is over."""
    try:
        return connect(port, seconds=5)
    except ConnectionError:
        return None


def _is_gone(peer):
    with peer or suppress():
        return not peer or is_closed(peer)


# ---- More than select can hold ----

def _past_select(table, name, *words):
    served, turned_away = [], 0
    with server(*words, nofile=2 * PEERS) as crowded:
        for _ in range(PEERS):
            peer = _arrive(crowded.port)
            if peer and echoes(peer):
                served.append(peer)
            else:
                turned_away += _is_gone(peer)
        again = sum(echoes(peer, b"again") for peer in served)
        table.row(f"{PEERS} connections, {name}", ">= 1000 served, 0 hang",
                  f"{again} served, {PEERS - len(served) - turned_away} hang",
                  again == len(served) >= 1000 and again + turned_away == PEERS)
    for peer in served:
        peer.close()


# ---- No descriptors left ----

def _fill(port):
    """The peers that are served until one is not."""
    served = []
    while True:
        peer = _arrive(port)
        if not peer or not echoes(peer):
            return served
        served.append(peer)


def _is_served(port):
    peer = _arrive(port)
    with peer or suppress():
        return peer and echoes(peer)


def _exhausted(table, log):
    with server(*OPTIONS, nofile=64) as full:
        served = _fill(full.port)
        time.sleep(0.5)
        before, turned_away, still_served, begin = len(log.of(full)), 0, 0, time.monotonic()
        for number in range(NEWCOMERS):
            turned_away += _is_gone(_arrive(full.port))
            still_served += echoes(served[number % len(served)])
        span = time.monotonic() - begin
        time.sleep(0.5)
        lines = (len(log.of(full)) - before) / NEWCOMERS
        what = "No descriptor left:"
        table.row(f"{what} newcomers turned away", f"{NEWCOMERS}, in <= 5 s",
                  f"{turned_away}, in {span:.2f} s", turned_away == NEWCOMERS and span <= 5)
        table.row(f"{what} answers to the others", f"{NEWCOMERS}", f"{still_served}",
                  still_served == NEWCOMERS)
        table.row(f"{what} log lines a newcomer", "<= 2.0", f"{lines:.1f}", 0 < lines <= 2)
        served.pop().close()
        table.all_of("A descriptor comes back",
                     [("served", wait_until(lambda: _is_served(full.port), 2))])
    for peer in served:
        peer.close()


# ---- Silent and dripping peers ----

def _hello():
    outgoing = ssl.MemoryBIO()
    peer = Python.context().wrap_bio(ssl.MemoryBIO(), outgoing, server_hostname="localhost")
    with suppress(ssl.SSLWantReadError):
        peer.do_handshake()
    return outgoing.read()


def _drip(peers, stop):
    for byte in _hello():
        if stop.wait(0.05):
            return
        for peer in peers:
            with suppress(OSError):  # it has been turned away
                peer.send(bytes([byte]))


def _silent_peers(table):
    context, stop = Python.context(), threading.Event()
    with server("--tls", "--modern", *identity("good"), *OPTIONS) as busy:
        def honest():
            return Python.talk(context, busy.port)[0]
        alone = median_ms(50, honest)
        begin = time.monotonic()
        silent = [connect(busy.port, seconds=10) for _ in range(200)]
        dripping = [connect(busy.port, seconds=10) for _ in range(50)]
        threading.Thread(target=_drip, args=(dripping, stop), daemon=True).start()
        among_them = median_ms(50, honest)
        limit = max(2 * alone, alone + 5)  # of a machine with more to do
        table.row("200 silent and 50 dripping TLS peers: the honest one waits",
                  f"<= {limit:.1f} ms", f"{among_them:.1f} ms, {alone:.1f} without them",
                  among_them <= limit)
        gone = sum(is_closed(peer) for peer in [*silent, *dripping])
        span, most = time.monotonic() - begin, LIMIT / 1000 + 1
        table.row("All of those are turned away", f"250 in <= {most:.1f} s",
                  f"{gone} in {span:.1f} s", gone == 250 and span <= most)
        stop.set()


# ---- Peers that reset, with unread input ----

def _leave_unread(port):
    """Goes with an answer unread, which resets the connection, while the server has more to do."""
    with connect(port) as peer:
        peer.sendall(b"x")
        is_readable(peer, 1)
        peer.sendall(b"x" * 60000)


def _resetting_peers(table):
    with server(*OPTIONS) as busy, connect(busy.port) as honest:
        def reset_all():
            for _ in range(500):
                _leave_unread(busy.port)
        storm, worst = threading.Thread(target=reset_all, daemon=True), 0
        storm.start()
        while storm.is_alive():
            worst = max(worst, median_ms(1, lambda: echoes(honest)))
        table.row("500 peers that reset, input unread: the slowest echo", "<= 100.0 ms",
                  f"{worst:.1f} ms", worst <= 100)


def crowds(table, log):
    table.group("Crowds")
    _past_select(table, "without options")
    _past_select(table, "with limits", *OPTIONS)
    _exhausted(table, log)
    _silent_peers(table)
    _resetting_peers(table)

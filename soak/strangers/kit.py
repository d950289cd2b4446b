"""What the groups of rows are made with: the table, the log, programs and certificates."""

import os
import select
import signal
import socket
import statistics
import subprocess
import threading
import time
from contextlib import contextmanager, suppress
from pathlib import Path

BUILD = Path()  # set by the main program
HERE = Path(__file__).parent
PATIENCE = 15  # seconds, where nothing better is known
_ports = iter(range(7001, 9000))


def next_port():
    return next(_ports)


def wait_until(holds, seconds=PATIENCE):
    end = time.monotonic() + seconds
    while not holds():
        if time.monotonic() > end:
            return False
        time.sleep(0.01)
    return True


# ---- The table ----

class Table:
    """The rows, each with the figure to keep and the one it had."""

    def __init__(self):
        self.rows = self.failed = 0

    def group(self, title):
        print(f"\n{title}", flush=True)

    def row(self, what, must, had, holds):
        self.rows += 1
        self.failed += not holds
        print(f"  {what:<64} {must:<27} {had:<32} {'ok' if holds else 'FAILED'}", flush=True)

    def all_of(self, what, cases):
        """One row for (name, result) pairs that must all be true; the others are named."""
        cases = list(cases)
        wrong = [name for name, result in cases if not result]
        had = f"{len(cases) - len(wrong)} of {len(cases)}"
        self.row(what, f"{len(cases)} of {len(cases)}", had, not wrong)
        for name in wrong:
            print(f"      not so: {name}")

    def told(self, what, why, had):
        """What nothing is promised of."""
        print(f"  {what:<64} {why:<27} {had}", flush=True)


# ---- The log ----

def is_readable(stream, seconds):
    """Of any descriptor, where select would take only those below 1024."""
    poller = select.poll()
    poller.register(stream, select.POLLIN)
    return bool(poller.poll(max(seconds, 0) * 1000))


class Syslog:
    """The syslogd of this namespace, which may stop reading."""

    def __init__(self):
        self._lines = []
        self._reads = threading.Event()
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        Path("/dev/log").unlink(missing_ok=True)
        self._socket.bind("/dev/log")
        self._reads.set()
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        while self._reads.wait():
            if is_readable(self._socket, 0.02) and self._reads.is_set():
                self._lines.append(self._socket.recv(65536).decode(errors="replace"))

    def stop_reading(self):
        self._reads.clear()
        time.sleep(0.05)

    def read_on(self):
        self._reads.set()

    def of(self, program):
        return [line for line in self._lines if f"[{program.pid}]:" in line]


# ---- Programs ----

def _die_with_parent():
    import ctypes
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)


def start(*words, **how):
    how = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, **how}
    return subprocess.Popen([str(word) for word in words], preexec_fn=_die_with_parent, **how)


def end(program):
    program.kill()
    program.wait()
    for stream in (program.stdin, program.stdout):
        with suppress(BrokenPipeError):
            if stream:
                stream.close()


def run(*words, seconds=PATIENCE):
    """The status and the output; the status is None where it took too long."""
    program = start(*words, stdin=subprocess.DEVNULL)
    try:
        output = program.communicate(timeout=seconds)[0]
        return program.returncode, output.decode(errors="replace")
    except subprocess.TimeoutExpired:
        return None, ""
    finally:
        end(program)


def read_until(program, wanted, seconds=PATIENCE):
    """The output up to a line with `wanted`, or all until the end or the time is over."""
    output = b""
    deadline = time.monotonic() + seconds
    while wanted.encode() not in output:
        if not is_readable(program.stdout, deadline - time.monotonic()):
            break
        chunk = os.read(program.stdout.fileno(), 65536)
        if not chunk:
            break
        output += chunk
    return output.decode(errors="replace")


def talk(*words, say, until):
    """Starts a program, says a line to it, reads until it says something and lets it go."""
    program = start(*words)
    try:
        with suppress(BrokenPipeError):
            program.stdin.write(say.encode() + b"\n")
            program.stdin.flush()
        return read_until(program, until)
    finally:
        end(program)


def program(name):
    return BUILD / "soak" / name


@contextmanager
def server(*words, nofile=None):
    """The target server with these options, as a process with .port."""
    port = next_port()
    limit = ["prlimit", f"--nofile={nofile}:{nofile}"] if nofile else []
    running = start(*limit, program("target"), "serve", port, *words)
    running.port = port
    try:
        said = read_until(running, "ready")
        if "ready" not in said:
            raise RuntimeError(f"target serve {words} does not serve: {said}")
        yield running
    finally:
        end(running)


def versions():
    """Of TLS 1.x, as the library's OpenSSL has them."""
    libraries = subprocess.check_output(["ldd", program("target")])
    return (2,) if b"libssl.so.1.0" in libraries else (2, 3)


def target(*words, seconds=PATIENCE):
    return run(program("target"), *words, seconds=seconds)


# ---- Peers in clear ----

def connect(port, seconds=PATIENCE, receive_buffer=None):
    peer = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    peer.settimeout(seconds)
    if receive_buffer:
        peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    peer.connect(("127.0.0.1", port))
    return peer


def echoes(peer, text=b"hello"):
    """Whether what is said comes back."""
    try:
        peer.sendall(text)
        heard = b""
        while len(heard) < len(text):
            chunk = peer.recv(65536)
            if not chunk:
                return False
            heard += chunk
        return heard == text
    except OSError:
        return False


def is_closed(peer):
    """Whether the other side has ended the connection; waits as long as the peer's patience."""
    try:
        return peer.recv(1) == b""
    except TimeoutError:
        return False
    except OSError:
        return True


def median_ms(times, deed):
    spans = []
    for _ in range(times):
        begin = time.monotonic()
        if not deed():
            return float("inf")
        spans.append((time.monotonic() - begin) * 1000)
    return statistics.median(spans)

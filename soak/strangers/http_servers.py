"""HTTP servers that misbehave, against HttpRequest."""

import socket
import struct
import threading
import time
from contextlib import contextmanager

from kit import next_port, target

CONNECT_MS, TOTAL_MS, MOST = 500, 1500, 65536
LIMITS = f"--limits={CONNECT_MS},{TOTAL_MS},{MOST}"
IN_TIME = (TOTAL_MS + 500) / 1000
HEAD = b"HTTP/1.1 200 OK\r\n"


# ---- What each does with its peer, once a request has come ----

def never_answers(peer):
    peer.recv(1)


def drips(peer):
    peer.sendall(HEAD + b"Content-Length: 1000\r\n\r\n")
    for _ in range(1000):
        peer.sendall(b"x")
        time.sleep(0.05)


def sends_for_ever(peer):
    peer.sendall(HEAD + b"Connection: close\r\n\r\n")
    while True:
        peer.sendall(b"x" * 65536)


def sends_heads_for_ever(peer):
    peer.sendall(HEAD)
    while True:
        peer.sendall(b"X-More: of the same\r\n")


def promises_too_much(peer):
    peer.sendall(HEAD + b"Content-Length: 100\r\n\r\npage")


def resets(peer):
    peer.sendall(HEAD + b"Content-Length: 100\r\n\r\npage")
    time.sleep(0.1)
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def says_not_found(peer):
    peer.sendall(b"HTTP/1.1 404 Not Found\r\nContent-Length: 5\r\n\r\nnope\n")


def points_to_a_file(peer):
    peer.sendall(b"HTTP/1.1 302 Found\r\nLocation: file:///etc/passwd\r\nContent-Length: 0\r\n\r\n")


# Each with the status and the largest number of bytes that may come of it.
SERVERS = [(never_answers, 0, 0), (drips, 0, 1000), (sends_for_ever, 0, MOST),
           (sends_heads_for_ever, 0, 0), (promises_too_much, 0, 4), (resets, 0, 4),
           (says_not_found, 404, 5), (points_to_a_file, 302, 0)]


@contextmanager
def _serving(deed):
    def answer():
        peer, _ = listener.accept()
        with peer:
            try:
                peer.recv(65536)
                deed(peer)
            except OSError:
                pass
    with socket.create_server(("127.0.0.1", next_port())) as listener:
        threading.Thread(target=answer, daemon=True).start()
        yield listener.getsockname()[1]


def _row(table, name, status, most, url):
    begin = time.monotonic()
    said = target("fetch", url, LIMITS)[1]
    span = time.monotonic() - begin
    figures = [int(word) for word in said.split() if word.lstrip("-").isdigit()]
    result, status_had, size = figures or (-1, -1, -1)  # where it did not end
    table.row(name, f"{status}, <= {most} bytes, <= {IN_TIME} s",
              f"{status_had}, {size} bytes, {span:.1f} s",
              result == 0 and status_had == status and size <= most and span <= IN_TIME)


def http_servers(table, _log):
    table.group("HTTP servers that misbehave: the status, bytes and seconds")
    for deed, status, most in SERVERS:
        with _serving(deed) as port:
            name = deed.__name__.replace("_", " ").capitalize()
            _row(table, name, status, most, f"http://127.0.0.1:{port}/")
    _row(table, "Is none: file:///etc/passwd", 0, 0, "file:///etc/passwd")

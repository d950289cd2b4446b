"""Clients that end their own direction first: with limits and linger the whole answer arrives."""

import socket

from kit import connect, server
from tls import OPTIONS, identity
from tls_programs import Node

SIZE = 10 << 20


def _in_clear(port):
    total = 0
    with connect(port, receive_buffer=16384) as peer:
        peer.sendall(b"all of it")
        peer.shutdown(socket.SHUT_WR)
        try:
            while chunk := peer.recv(65536):
                total += len(chunk)
        except OSError:
            pass
    return total


def _of_node(port):
    heard = Node().heard(port, ends=True)
    return int(heard.split()[0]) if "bytes" in heard else 0


def half_close(table, _log):
    table.group("Half-close: bytes that then arrive of a long answer")
    for name, words, way in (("In clear", ["--limit=5000", "--linger"], _in_clear),
                             ("Node, TLS", [*OPTIONS, *identity("good")], _of_node)):
        with server(f"--answer={SIZE}", *words) as kind:
            arrived = way(kind.port)
            table.row(name, f"{SIZE}", f"{arrived}", arrived == SIZE)

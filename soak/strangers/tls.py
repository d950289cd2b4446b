"""TLS programs of others against the library's servers and clients."""

import socket
import ssl
import threading
import time

import certs
from kit import connect, next_port, server, target, versions
from tls_programs import Curl, GnuTls, Node, OpenSsl, Python, Web

STRANGERS = [OpenSsl(), GnuTls(), Node(), Python()]


class Dripper:
    """Passes one connection on, what each side says first byte by byte."""
    BYTES = 600

    def __init__(self, port):
        self.port, self._port = next_port(), port
        self._listener = socket.create_server(("127.0.0.1", self.port))
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        client, _ = self._listener.accept()
        serving = connect(self._port, seconds=None)
        for peer in (client, serving):
            peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        threading.Thread(target=self._pass, args=(serving, client), daemon=True).start()
        self._pass(client, serving)

    def _pass(self, source, sink):
        try:
            for _ in range(self.BYTES):
                sink.sendall(source.recv(1))
                time.sleep(0.0005)
            while chunk := source.recv(65536):
                sink.sendall(chunk)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            sink.close()


# ---- The library's servers ----

OPTIONS = ["--tls", "--modern", "--limit=5000", "--linger", "--backlog=128"]


def identity(name):
    return [f"--cert={certs.cert(name)}", f"--key={certs.key(name)}"]


def _plain_cases(stranger, port):
    yield "echo", stranger.echo(port)
    yield "echo without SNI", stranger.echo(port, name=None)
    yield "TLS 1.3 alone is refused", not stranger.echo(port, version=3)
    yield "resumed by ticket", stranger.resumes(port, version=2)


def _hardened_cases(stranger, port):
    for version in versions():
        yield f"TLS 1.{version}", stranger.echo(port, version=version)
        yield f"resumed by ticket, TLS 1.{version}", stranger.resumes(port, version=version)
    yield "without SNI", stranger.echo(port, name=None)
    yield "wrong host name is refused", not stranger.echo(port, name="elsewhere.example")
    yield "another authority is refused", not stranger.echo(port, trust="other")
    yield "hello byte by byte", stranger.echo(Dripper(port).port)


def _owner_cases(stranger, port):
    for version in versions():
        for owner in ("good", None, "foreign", "expired"):
            served = stranger.echo(port, owner=owner, version=version)
            yield f"certificate {owner}, TLS 1.{version}", served == (owner == "good")
        yield f"resumed, TLS 1.{version}", stranger.resumes(port, version=version, owner="good")
    yield "a chain of certificates", stranger.echo(port, owner=stranger.CHAIN)


def _resumes_by_id(port):
    """While the first connection lasts: its end takes the session out of the server's memory."""
    context = Python.context(version=2)
    context.options |= ssl.OP_NO_TICKET
    with connect(port) as raw, context.wrap_socket(raw, server_hostname="localhost") as first:
        return Python.talk(context, port, session=first.session)[:2] == (True, True)


def strangers_as_clients(table, _log):
    table.group("TLS clients of others against the library's server")
    for stranger in [*STRANGERS, Curl()]:
        web = ["--http", "--answer=4", "--close"] if stranger.NAME == "curl" else []
        with server("--tls", *identity("rsa"), *web) as plain:
            table.all_of(f"{stranger.NAME}, without options", _plain_cases(stranger, plain.port))
        chain = stranger.CHAIN
        with server(*OPTIONS, *identity(chain), *web) as hardened:
            table.all_of(f"{stranger.NAME}, modern TLS, limits, chain of {certs.LENGTHS[chain]}",
                         _hardened_cases(stranger, hardened.port))
        with server(*OPTIONS, *identity("good"), f"--ca={certs.cert('ca')}", "--verify",
                    *web) as verifying:
            table.all_of(f"{stranger.NAME}, own certificate: good, none, foreign, expired, chain",
                         _owner_cases(stranger, verifying.port))
        with server(*OPTIONS, *identity("expired"), *web) as expired:
            table.all_of(f"{stranger.NAME} refuses an expired server",
                         [("refused", not stranger.echo(expired.port))])
    with server(*OPTIONS, *identity("good")) as ours:
        table.all_of("Python, resumed by identifier", [("resumed", _resumes_by_id(ours.port))])


# ---- The library's clients ----

MODERN = ["--tls", "--modern", f"--ca={certs.cert('ca')}", "--verify=localhost",
          "--tls-limit=5000"]


def _hears(stranger, port, *words):
    return target("client", "127.0.0.1", port, *words, *stranger.EXPECT)[0] == 0


def _plain_client_cases(stranger):
    with stranger.serve(owner="rsa") as port:
        yield "TLS 1.2", _hears(stranger, port, "--tls")
    with stranger.serve(version=3) as port:
        yield "TLS 1.3 alone is refused", not _hears(stranger, port, "--tls")
    with stranger.serve(owner="rsa", trust="ca") as port:
        yield "own certificate", _hears(stranger, port, "--tls", *identity("rsa"))
        yield "no certificate is refused", not _hears(stranger, port, "--tls")


def _hardened_client_cases(stranger):
    for version in versions():
        with stranger.serve(version=version) as port:
            yield f"TLS 1.{version}", _hears(stranger, port, *MODERN)
    with stranger.serve() as port:
        yield "hello byte by byte", _hears(stranger, Dripper(port).port, *MODERN)
        yield "address in place of a name", _hears(stranger, port, *MODERN, "--verify=127.0.0.1")
    with stranger.serve(owner=stranger.CHAIN) as port:
        yield f"chain of {certs.LENGTHS[stranger.CHAIN]}", _hears(stranger, port, *MODERN)
    for owner in ("foreign", "elsewhere", "expired"):
        with stranger.serve(owner=owner) as port:
            yield f"server {owner} is refused", not _hears(stranger, port, *MODERN)


def _client_owner_cases(stranger):
    for version in versions():
        with stranger.serve(trust="ca", version=version) as port:
            for owner in ("good", None, "foreign", "expired"):
                own = identity(owner) if owner else []
                heard = _hears(stranger, port, *MODERN, *own)
                yield f"certificate {owner}, TLS 1.{version}", heard == (owner == "good")
    with stranger.serve(trust="ca") as port:
        own = identity(stranger.CHAIN)
        yield "a chain of certificates", _hears(stranger, port, *MODERN, *own)


def _fetches(port, *words):
    return target("fetch", f"https://localhost:{port}/", *words)[0] == 0


def _fetch_cases():
    trusting = ["--verify", f"--ca={certs.cert('ca')}", "--limits=5000,5000,1048576"]
    with Web().serve() as port:
        yield "without options", _fetches(port)
        yield "good", _fetches(port, *trusting)
        yield "authority unknown", not _fetches(port, "--verify")
    for owner in ("foreign", "elsewhere", "expired"):
        with Web().serve(owner=owner) as port:
            yield owner, not _fetches(port, *trusting)


def _names_told():
    names = []
    with Python().serve(names=names) as port:
        _hears(Python, port, *MODERN)
    return names


def strangers_as_servers(table, _log):
    table.group("TLS servers of others against the library's clients")
    for stranger in STRANGERS:
        table.all_of(f"{stranger.NAME}, without options", _plain_client_cases(stranger))
        table.all_of(f"{stranger.NAME}, modern TLS, limits; bad servers refused",
                     _hardened_client_cases(stranger))
        table.all_of(f"{stranger.NAME}, own certificate: good, none, foreign, expired, chain",
                     _client_owner_cases(stranger))
    table.all_of("Name told to the server (SNI)", [("told", _names_told() == ["localhost"])])
    table.all_of("HttpRequest: good; unknown, foreign, wrong host, expired refused", _fetch_cases())

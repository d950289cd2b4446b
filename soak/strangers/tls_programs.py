"""The TLS programs of others, each as a client and as a server."""

import json
import os
import socket
import ssl
import subprocess
import threading
from contextlib import contextmanager

import certs
from kit import HERE, PATIENCE, connect, end, next_port, run, start, talk, wait_until

SAYING = "Strangers"


def _listens(port):
    """Without a connection, which some would take for a client."""
    with open("/proc/net/tcp") as v4, open("/proc/net/tcp6") as v6:
        return any(f":{port:04X} " in line and " 0A " in line for line in [*v4, *v6])


class Program:
    """A client that tells with echo() whether it was served, with resumes() whether twice, the
    second time with a resumed session; and a server, of which serve() gives the port."""
    CHAIN = "deep"  # the longest chain that it sends and follows
    EXPECT = []  # how the target is told of an answer that is no echo

    def echo(self, port, **wishes):
        return SAYING in talk(*self.client(port, **wishes), say=SAYING, until=SAYING)

    @contextmanager
    def serve(self, owner="good", trust=None, version=None):
        port = next_port()
        words = self.server(port, owner=owner, trust=trust, version=version)
        running = start(*words, stdout=subprocess.DEVNULL)
        if not wait_until(lambda: _listens(port)):
            raise RuntimeError(f"{self.NAME} does not serve")
        try:
            yield port
        finally:
            end(running)


class OpenSsl(Program):
    NAME = "openssl"
    EXPECT = [f"--expect={'hello'[::-1]}"]

    @staticmethod
    def _common(owner, version):
        words = ["-cert", certs.cert(owner), "-key", certs.key(owner)] if owner else []
        if os.path.exists(certs.issuers(owner)):
            words += ["-cert_chain", certs.issuers(owner)]
        return words + ([f"-tls1_{version}"] if version else [])

    def client(self, port, name="localhost", trust="ca", owner=None, version=None):
        words = ["openssl", "s_client", "-connect", f"127.0.0.1:{port}", "-CAfile",
                 certs.cert(trust), "-verify_return_error", *self._common(owner, version)]
        named = ["-servername", name, "-verify_hostname", name]
        return words + (named if name else ["-noservername"])

    def resumes(self, port, **wishes):
        words = self.client(port, **wishes)
        session = certs.path("session")
        talk(*words, "-sess_out", session, say=SAYING, until=SAYING)
        again = talk(*words, "-sess_in", session, say=SAYING, until=SAYING)
        return SAYING in again and "\nReused," in again

    def server(self, port, owner, trust, version):
        words = ["openssl", "s_server", "-accept", f"127.0.0.1:{port}", "-rev",
                 *self._common(owner, version)]
        asks = ["-CAfile", certs.cert(trust), "-Verify", "40", "-verify_return_error"]
        return words + (asks if trust else [])


class GnuTls(Program):
    NAME = "GnuTLS"
    CHAIN = "shallow"

    @staticmethod
    def _common(owner, version):
        words = ["--x509certfile", certs.cert(owner), "--x509keyfile", certs.key(owner)]
        exact = ["--priority", f"NORMAL:-VERS-ALL:+VERS-TLS1.{version}"]
        return (words if owner else []) + (exact if version else [])

    def client(self, port, name="localhost", trust="ca", owner=None, version=None):
        words = ["gnutls-cli", "--x509cafile", certs.cert(trust), "--port", port, "127.0.0.1",
                 "--verify-hostname", name or "localhost", *self._common(owner, version)]
        return words + (["--sni-hostname", name] if name else ["--disable-sni"])

    def resumes(self, port, **wishes):
        heard = talk(*self.client(port, **wishes), "--resume", "--waitresumption", say=SAYING,
                     until=SAYING)
        return SAYING in heard and "This is a resumed session" in heard

    def server(self, port, owner, trust, version):
        words = ["gnutls-serv", "--port", port, "--echo", *self._common(owner, version)]
        asks = ["--x509cafile", certs.cert(trust), "--require-client-cert", "--verify-client-cert"]
        return words + (asks if trust else ["--disable-client-cert"])


class Node(Program):
    NAME = "Node"

    @staticmethod
    def _words(role, owner, trust, version, **wishes):
        wishes |= {"cert": certs.cert(owner), "key": certs.key(owner)} if owner else {}
        wishes |= {"ca": certs.cert(trust)} if trust else {}
        if version:
            wishes |= {"minVersion": f"TLSv1.{version}", "maxVersion": f"TLSv1.{version}"}
        return ["node", HERE / "peer.js", role, json.dumps(wishes)]

    def heard(self, port, name="localhost", trust="ca", owner=None, version=None, **more):
        named = {"servername": name} if name else {}
        return run(*self._words("client", owner, trust, version, port=port, **named, **more))[1]

    def echo(self, port, **wishes):
        return SAYING in self.heard(port, **wishes)

    def resumes(self, port, **wishes):
        heard = self.heard(port, resumes=True, **wishes)
        return heard.count(SAYING) == 2 and "reused=true" in heard

    def server(self, port, owner, trust, version, **more):
        return self._words("server", owner, trust, version, port=port, requestCert=bool(trust),
                           **more)


class Web(Node):
    """Has a page for whoever asks."""

    def server(self, port, owner, trust, version):
        return super().server(port, owner, trust, version, http=True)


class Python(Program):
    NAME = "Python"

    @staticmethod
    def context(trust="ca", owner=None, version=None, purpose=ssl.Purpose.SERVER_AUTH):
        context = ssl.create_default_context(purpose, cafile=certs.cert(trust) if trust else None)
        if owner:
            context.load_cert_chain(certs.cert(owner), certs.key(owner))
        if version:
            exact = ssl.TLSVersion.TLSv1_2 if version == 2 else ssl.TLSVersion.TLSv1_3
            context.minimum_version = context.maximum_version = exact
        return context

    @staticmethod
    def talk(context, port, name="localhost", session=None):
        """Whether an echo comes back, whether the session was resumed, and the session."""
        try:
            with connect(port) as raw, context.wrap_socket(
                    raw, server_hostname=name, session=session) as peer:
                peer.sendall(SAYING.encode())
                heard = peer.recv(100).decode() == SAYING
                return heard, peer.session_reused, peer.session
        except OSError:
            return False, False, None

    def echo(self, port, name="localhost", **wishes):
        context = self.context(**wishes)
        context.check_hostname = name is not None
        return self.talk(context, port, name)[0]

    def resumes(self, port, **wishes):
        context = self.context(**wishes)
        heard, _, session = self.talk(context, port)
        return heard and self.talk(context, port, session=session)[:2] == (True, True)

    @contextmanager
    def serve(self, owner="good", trust=None, version=None, names=None):
        """Whoever wants to know which names were asked for gives a list."""
        context = self.context(trust, owner, version, ssl.Purpose.CLIENT_AUTH)
        context.verify_mode = ssl.CERT_REQUIRED if trust else ssl.CERT_NONE
        if names is not None:
            context.sni_callback = lambda _, name, __: names.append(name)
        with socket.create_server(("127.0.0.1", next_port())) as listener:
            threading.Thread(target=self._serve, args=(listener, context), daemon=True).start()
            yield listener.getsockname()[1]
            listener.shutdown(socket.SHUT_RDWR)

    @staticmethod
    def _serve(listener, context):
        while True:
            try:
                raw, _ = listener.accept()
            except OSError:
                return
            try:
                with context.wrap_socket(raw, server_side=True) as peer:
                    while data := peer.recv(65536):
                        peer.sendall(data)
            except OSError:
                raw.close()


class Curl(Program):
    """A client only, whose server gives one page and closes."""
    NAME = "curl"

    @staticmethod
    def _words(port, name="localhost", trust="ca", owner=None, version=None):
        words = ["curl", "--silent", "--show-error", "--max-time", PATIENCE, "--cacert",
                 certs.cert(trust), "--resolve", f"{name or 'x'}:{port}:127.0.0.1"]
        words += ["--cert", certs.cert(owner), "--key", certs.key(owner)] if owner else []
        words += [f"--tlsv1.{version}", "--tls-max", f"1.{version}"] if version else []
        return [*words, f"https://{name or '127.0.0.1'}:{port}/"]

    def echo(self, port, **wishes):
        return run(*self._words(port, **wishes))[1] == "xxxx"

    def resumes(self, port, **wishes):
        words = self._words(port, **wishes)
        heard = run(*words, "--verbose", words[-1])[1]
        # Whoever resumes is shown no certificate again.
        shown = heard.count("(IN), TLS handshake, Certificate (11)")
        return heard.count("xxxx") == 2 and shown == 1

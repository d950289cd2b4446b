"""Certificates good and bad, made afresh, as files of one folder."""

import subprocess
import tempfile
from pathlib import Path

FOLDER = Path(tempfile.mkdtemp(prefix="strangers-"))
EC = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256"]
RSA = ["-newkey", "rsa:2048"]
# How many certificates the owner of such a chain sends; GnuTLS's tools send no more than 6.
LENGTHS = {"deep": 30, "shallow": 5}


def path(name):
    return str(FOLDER / name)


def cert(name):
    """The certificate, and behind it those that lead to the authority, without that."""
    return path(f"{name}.pem")


def issuers(name):
    """Only the latter, where there are any."""
    return path(f"{name}-issuers.pem")


def key(name):
    return path(f"{name}-key.pem")


def _openssl(*words):
    subprocess.run(["openssl", *words], check=True, capture_output=True)


def _make(name, subject, extensions, issuer, new_key=EC):
    signer = ["-CA", cert(issuer), "-CAkey", key(issuer)] if issuer else []
    added = [word for extension in extensions for word in ("-addext", extension)]
    _openssl("req", "-x509", *new_key, "-nodes", "-sha256", "-days", "90", "-subj",
             f"/CN={subject}", "-keyout", key(name), "-out", cert(name), *signer, *added)


def _authority(name, issuer=None):
    extensions = ["basicConstraints=critical,CA:TRUE", "keyUsage=critical,keyCertSign,cRLSign"]
    _make(name, name, extensions, issuer)


def _owner(name, issuer="ca", host="localhost", new_key=EC):
    names = "DNS:localhost,IP:127.0.0.1" if host == "localhost" else f"DNS:{host}"
    _make(name, host, [f"subjectAltName={names}", "basicConstraints=critical,CA:FALSE",
                       "keyUsage=critical,digitalSignature,keyEncipherment",
                       "extendedKeyUsage=serverAuth,clientAuth"], issuer, new_key)


def _expired(name):
    """An owner's certificate that was over yesterday."""
    _openssl("req", "-new", *EC, "-nodes", "-subj", "/CN=localhost", "-addext",
             "subjectAltName=DNS:localhost,IP:127.0.0.1", "-keyout", key(name), "-out",
             path("request"))
    _openssl("x509", "-req", "-in", path("request"), "-copy_extensions", "copy", "-CA", cert("ca"),
             "-CAkey", key("ca"), "-days", "-1", "-out", cert(name))


def _chain(name, length):
    links = ["ca"] + [f"{name}{depth}" for depth in range(1, length)]
    for issuer, link in zip(links, links[1:]):
        _authority(link, issuer)
    _owner(name, links[-1])
    above = "".join(Path(cert(link)).read_text() for link in reversed(links[1:]))
    Path(issuers(name)).write_text(above)
    Path(cert(name)).write_text(Path(cert(name)).read_text() + above)


def make_all():
    for authority in ("ca", "other"):
        _authority(authority)
    _owner("good")
    # What a server without options needs on OpenSSL 1.0.2, which offers no curves there.
    _owner("rsa", new_key=RSA)
    _owner("foreign", "other")
    _owner("elsewhere", host="elsewhere.example")
    _expired("expired")
    for name, length in LENGTHS.items():
        _chain(name, length)

"""What the usual auditors of TLS servers say of the library's."""

import json
import xml.etree.ElementTree as xml

import certs
from kit import run, server
from tls import OPTIONS, identity

# What testssl.sh may say, and why.
ALLOWED = {
    "cert_revocation": "the test's own certificate names no place where it could be revoked",
    "engine_problem": "about the auditor's own OpenSSL",
    "service": "no HTTP is spoken here, so there is no HTTP to be checked",
}
SECONDS = 600


def _testssl(table, port):
    report = certs.path("testssl.json")
    run("testssl", "--quiet", "--warnings=off", "--nodns=min", "--ip=127.0.0.1", "--color=0",
        "--add-ca", certs.cert("ca"), "--jsonfile", report, f"localhost:{port}", seconds=SECONDS)
    with open(report) as text:
        findings = json.load(text)
    complaints = [one for one in findings if one["severity"] not in ("OK", "INFO")]
    allowed = [one for one in complaints if one["id"] in ALLOWED]
    table.row("testssl.sh, modern TLS", "0 but those allowed",
              f"{len(complaints) - len(allowed)} of {len(findings)}, {len(allowed)} allowed",
              len(complaints) == len(allowed) and len(findings) > 100)
    for one in complaints:
        print(f"      {one['id']}: {one['finding']} ({ALLOWED.get(one['id'], 'not allowed')})")


def _sslscan(table, port):
    report = certs.path("sslscan.xml")
    # Its check for heartbleed gives up on servers that close at once; testssl.sh has one too.
    run("sslscan", "--no-heartbleed", f"--xml={report}", "--sni-name=localhost",
        f"127.0.0.1:{port}", seconds=SECONDS)
    findings = list(xml.parse(report).getroot().iter())
    complaints = [one for one in findings if _is_complaint(one.tag, one.attrib, one.text)]
    table.row("sslscan, modern TLS", "0 complaints", f"{len(complaints)} of {len(findings)}",
              len(findings) > 20 and not complaints)
    for one in complaints:
        print(f"      {one.tag} {one.attrib} {one.text}")


def _is_complaint(tag, attributes, text):
    if tag == "protocol":
        return attributes["enabled"] == "1" and attributes["version"] not in ("1.2", "1.3")
    if tag == "cipher":
        cipher = attributes["cipher"]
        forward_secret = cipher.startswith(("ECDHE-", "TLS_"))
        return not forward_secret or not any(mode in cipher for mode in ("GCM", "POLY1305"))
    if tag in ("compression", "renegotiation"):
        return attributes["supported"] != "0"
    return tag in ("self-signed", "expired") and text != "false"


def auditors(table, _log):
    table.group("Auditors of TLS")
    with server(*OPTIONS, *identity("good")) as modern:
        _testssl(table, modern.port)
        _sslscan(table, modern.port)

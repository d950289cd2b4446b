"""Prints the rows of all groups, or of those named. See scripts/strangers.sh."""

import resource
import sys
import time
from pathlib import Path

import auditors
import certs
import crowd
import half_close
import http_servers
import kit
import settings
import tls
import weather

GROUPS = {
    "auditors": auditors.auditors,
    "clients": tls.strangers_as_clients,
    "servers": tls.strangers_as_servers,
    "half-close": half_close.half_close,
    "crowds": crowd.crowds,
    "signals": weather.signals,
    "log": weather.full_log,
    "settings": settings.settings,
    "http": http_servers.http_servers,
}


def main():
    kit.BUILD = Path(sys.argv[1]).resolve()
    names = sys.argv[2:] or list(GROUPS)
    if not set(names) <= set(GROUPS):
        sys.exit(f"strangers.sh: the groups are {', '.join(GROUPS)}")
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    begin = time.monotonic()
    certs.make_all()
    table, log = kit.Table(), kit.Syslog()
    for name in names:
        GROUPS[name](table, log)
    print(f"\n{table.rows} rows, {table.failed} failed, {time.monotonic() - begin:.0f} s")
    sys.exit(1 if table.failed else 0)


main()

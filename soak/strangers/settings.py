"""Settings where there is no room, from several processes at once, and under SIGKILL."""

import random
import subprocess
import time
from contextlib import contextmanager
from pathlib import Path

from kit import end, program, read_until, start, target

FILE = Path("/data/persistent_data.conf")
FRESH = FILE.with_suffix(".conf.new")
PROCESSES = 4
SAVES = 5000
KILLS = 1000
KEPT = 40


# ---- A small medium ----

@contextmanager
def _medium(size):
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}", "small", "/data"], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", "/data"], check=True)


def _counts(said):
    """What the saver says: saved, refused, and not as the results have said."""
    return [int(word) for word in said.split() if word.isdigit()]


def _small_media(table):
    for size in ("4k", "12k"):
        with _medium(size):
            said = target("save", "key", 500, "--length=1500")[1].splitlines()[-1]
        saved, refused, wrong = _counts(said)
        table.row(f"A medium of {size[:-1]} KiB: settings not as the result said",
                  "0 wrong, some refused", said, wrong == 0 and saved > 0 and refused > 0)


# ---- Several processes ----

def _processes(table):
    savers = [start(program("target"), "save", f"p{number}.", SAVES)
              for number in range(PROCESSES)]
    # A process that could not save, or did not find again what it had saved.
    lost = sum(sum(_counts(read_until(saver, "wrong", 60))[1:]) for saver in savers)
    for saver in savers:
        end(saver)
    table.row(f"{PROCESSES} processes, {SAVES} saves each: refused or lost", "0", f"{lost}",
              lost == 0)


# ---- SIGKILL ----

def _is_value(value):
    """As the saver makes it: a number, and so many of a letter."""
    digits = value.rstrip("abcdefghijklmnopqrstuvwxyz")
    return value == digits + chr(ord("a") + int(digits) % 26) * (int(digits) * 37 % 64)


def _is_whole(text):
    """Every line that the saver does not touch, and none but those that it makes."""
    found = dict(line.split("=!=%=", 1) for line in text.splitlines())
    kept = [value for key, value in found.items() if key.startswith("kept")]
    made = [value for key, value in found.items() if not key.startswith("kept")]
    return kept == ["kept"] * KEPT and len(made) <= 5 and all(map(_is_value, made))


def _kills(table):
    FILE.write_text("".join(f"kept{number}=!=%=kept\n" for number in range(KEPT)))
    chance = random.Random(1)
    damaged = met = 0
    for _ in range(KILLS):
        saver = start(program("target"), "save", "k", 0)
        read_until(saver, "ready")
        time.sleep(chance.random() * 0.003)
        end(saver)
        damaged += not _is_whole(FILE.read_text())
        met += FRESH.exists()
        FRESH.unlink(missing_ok=True)
    table.row(f"{KILLS} SIGKILLs while saving: files damaged", "0, >= 100 met half-made",
              f"{damaged}, {met} met half-made", damaged == 0 and met >= 100)


def settings(table, _log):
    table.group("Settings")
    _small_media(table)
    _processes(table)
    _kills(table)

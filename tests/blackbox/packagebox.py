"""Plug-in packages and removal markers beside the executable, and what a run with --install_plugins makes of them."""

import os
import sqlite3
import stat
import zipfile
from contextlib import closing

from agentbox import BUILD, write_archive

# Event numbers, see docs/PACKAGES.md.
INSTALLED, NOT_INSTALLED, REMOVED, NOT_REMOVED = 5101, 5102, 5105, 5106

SEVERITIES = {INSTALLED: 6, NOT_INSTALLED: 4, REMOVED: 6, NOT_REMOVED: 4}

SAMPLE = "Feature-Sample-11.0.0-1234.x86_64.kxp"
SAMPLE_MARKER = "Feature-Sample-11.0.0-1234.x86_64.kxu"

NOT_OURS = "Plugin file '{}' does not match VEL core version, not installing"
NOT_READABLE = "Plugin file '{}' isn't readable"


def put(installation, name, entries):
    """An archive beside the executable; `entries` is a mapping of names to contents, or the archive's bytes."""
    path = installation.bin / name
    if isinstance(entries, bytes):
        path.write_bytes(entries)
        return path
    return write_archive(path, entries)


def damaged(path, entry):
    """Spoils the data of one entry, not the archive's directory."""
    with zipfile.ZipFile(path) as archive:
        information = archive.getinfo(entry)
    content = bytearray(path.read_bytes())
    begin = information.header_offset + 30 + len(entry.encode())
    for at in range(begin, begin + information.compress_size):
        content[at] ^= 0x55
    path.write_bytes(content)
    return path


def run(installation, *words, main="", **options):
    """One run with --install_plugins; returns the value that `vel.HeartbeatNow` has then, as Lua shows it."""
    installation.write_app(main=f"{main} print(type(dom:Get('vel.HeartbeatNow')), dom:Get('vel.HeartbeatNow'))")
    outcome = installation.run("-i", *words, **options)
    assert (outcome.status, outcome.err) == (0, ""), (outcome, installation.log_text())
    return outcome.out.split()[-1]


def description(path):
    """The description of the event about a package, made from its path by the rules that the documentation gives."""
    base = os.path.splitext(path.name)[0]
    fields = base.split("-")
    return f"{fields[1] if len(fields) > 1 else base}|{base}|{path}"


def event(number, path):
    return number, SEVERITIES[number], description(path)


def events(installation, work=None):
    """The agent events so far: (number, severity, description)."""
    database = (work or installation.work) / "agent_events.db"
    if not database.exists():
        return []
    with closing(sqlite3.connect(f"file:{database}?mode=ro", uri=True)) as connection:
        rows = connection.execute("SELECT event_number, severity, CAST(description AS BLOB) FROM agent_event ORDER BY id")
        return [(number, severity, text.decode("utf-8", "surrogateescape")) for number, severity, text in rows]


def content(path):
    """What a file system object is: a link's target, a folder's or fifo's kind, or a file's content."""
    mode = path.lstat().st_mode
    if stat.S_ISLNK(mode):
        return "-> " + os.readlink(path)
    if stat.S_ISREG(mode):
        return path.read_bytes()
    return stat.filemode(mode)[0]


def added(installation):
    """The paths beside the executable that did not come with it."""
    shipped = {path.relative_to(BUILD / "bin") for path in (BUILD / "bin").rglob("*")}
    return sorted(path for path in installation.bin.rglob("*") if path.relative_to(installation.bin) not in shipped)


def tree(installation):
    """What is beside the executable and did not come with it: {relative path: (content, mode)}."""
    return {
        str(path.relative_to(installation.bin)): (content(path), path.lstat().st_mode & 0o7777) for path in added(installation)
    }


def plugins(installation):
    """The same as {relative path: content}, without folders that hold something."""
    return {
        str(path.relative_to(installation.bin)): content(path)
        for path in added(installation)
        if path.is_symlink() or not path.is_dir() or not any(path.iterdir())
    }


def forget(installation):
    """Removes what did not come with the executable."""
    for path in reversed(added(installation)):
        path.rmdir() if content(path) == "d" else path.unlink()

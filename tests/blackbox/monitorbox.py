"""Runs of the integrity monitor, and what they leave behind."""

import json
import re
import sqlite3
from contextlib import closing

# Event numbers, see docs/MONITOR.md.
ADDED, CHANGED, REMOVED = 7101, 7102, 7103
COMPLETE, INCOMPLETE, RESET, FAILED = 7110, 7111, 7112, 7113


def scan(installation, *words, work=None, agent=(), **options):
    """One run with `words` behind the "--", and `agent` in front of it."""
    return installation.run_raw("--workdir", work or installation.work, *agent, "--", *words, **options)


def document(outcome):
    """The JSON document that is all of the standard output."""
    return parse(outcome.stdout)


def parse(stdout):
    assert stdout.endswith(b"}\n"), stdout
    return json.loads(stdout.decode("utf-8"))


def changes(installation, *words, status=0, **options):
    """The changes that a run finds, as {path: kind}."""
    outcome = scan(installation, "--json", *words, **options)
    assert outcome.status == status, outcome
    return {change["path"]: change["change"] for change in document(outcome)["changes"]}


def events(installation, *numbers, work=None):
    """The agent events of these numbers, or all: (number, severity, description)."""
    with closing(sqlite3.connect((work or installation.work) / "agent_events.db")) as database:
        rows = database.execute("SELECT event_number, severity, CAST(description AS BLOB) FROM agent_event ORDER BY id")
        texts = [(number, severity, text.decode("utf-8", "surrogateescape")) for number, severity, text in rows]
    return [row for row in texts if not numbers or row[0] in numbers]


def baseline_file(installation, work=None):
    return (work or installation.work) / "monitor" / "baseline.db"


def baseline(installation, work=None):
    """The baseline as {path: digest}, after a check of the whole file."""
    with closing(sqlite3.connect(baseline_file(installation, work))) as database:
        database.text_factory = lambda text: text.decode("utf-8", "surrogateescape")
        assert database.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
        if not database.execute("SELECT * FROM sqlite_master").fetchall():
            return {}
        rows = database.execute("SELECT path || name, digest FROM folder JOIN file ON file.folder = folder.id")
        return dict(rows.fetchall())


def summary(outcome):
    """The last line of the text."""
    return outcome.out.rstrip("\n").split("\n")[-1]


def found(outcome):
    """The numbers of the summary: added, changed, removed, unreadable."""
    match = re.search(r"([\d,]+) added, ([\d,]+) changed, ([\d,]+) removed, ([\d,]+) unreadable,", summary(outcome))
    assert match, outcome
    return tuple(int(number.replace(",", "")) for number in match.groups())

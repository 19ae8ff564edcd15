"""What the integrity monitor shows on a terminal, and nowhere else."""

import os
import pty
import re
import subprocess

import pytest

from agentbox import DEADLINE_S
from monitorbox import parse, scan

# What may follow a progress line: the next one, or its removal.
UNCLEARED = re.compile(r"\x1b\[\?7h(?!\r\x1b\[(\?7l|K))")
PROGRESS = re.compile(r"\r\x1b\[\?7l([^\r\n]*?)\x1b\[K\x1b\[\?7h")
CLEARED = "\r\x1b[K"
TERMINAL = {"TERM": "xterm", "NO_COLOR": None}


def on_terminal(installation, *words, env=None, stdout=None, stderr=None, status=0):
    """A run with a terminal as standard output and standard error, as far as they are not given.

    Returns what standard output and standard error were, or None, and what the terminal has shown.
    """
    master, slave = pty.openpty()
    process = subprocess.Popen(
        [installation.executable, *installation.arguments("--", *words, name="kx_agent")],
        stdin=subprocess.DEVNULL,
        stdout=stdout or slave,
        stderr=stderr or slave,
        env=installation.environment(**(env or TERMINAL)),
        start_new_session=True,
    )
    os.close(slave)
    shown = b""
    try:
        while chunk := os.read(master, 65536):
            shown += chunk
    except OSError:  # nobody has the terminal's other side any more
        pass
    os.close(master)
    out, err = process.communicate(timeout=DEADLINE_S)
    assert process.returncode == status, (shown, out, err)
    return out, err, shown.decode()


@pytest.fixture
def long_scan(installation, tmp_path):
    """A folder whose scan takes long: by a clock that goes forward a quarter of a second whenever it is looked at."""
    installation.write_module(
        "posix.time",
        """
        local quarters = 0
        local function look()
          quarters = quarters + 1
          return { tv_sec = math.floor(quarters / 4), tv_nsec = quarters % 4 * 250000000 }
        end
        return { CLOCK_MONOTONIC = 1, clock_gettime = look }
        """,
    )
    root = tmp_path / "tree"
    root.mkdir()
    for index in range(20):
        (root / f"{index:02}").write_bytes(bytes(1000000))
    return root


@pytest.fixture
def changed(installation, tmp_path):
    """A folder with an added, a changed and a removed file."""
    root = tmp_path / "tree"
    root.mkdir()
    (root / "changed").write_text("a")
    (root / "removed").write_text("a")
    scan(installation, root)
    (root / "changed").write_text("b")
    (root / "removed").unlink()
    (root / "added").write_text("a")
    return root


def test_progress_of_a_long_scan_is_one_line_that_goes_away(installation, long_scan):
    _, _, shown = on_terminal(installation, long_scan)

    lines = PROGRESS.findall(shown)
    assert len(lines) > 10, shown
    for line in lines:
        assert re.fullmatch(r"\d+ files, \d+ MB, [\d.]+ MB/s", line), line
    sizes = [int(line.split(" MB")[0].split(", ")[1].replace(",", "")) for line in lines]
    assert sizes == sorted(sizes)
    before, after = shown.rsplit("\x1b[?7h", 1)
    assert after.startswith(CLEARED), after
    assert "\x1b" not in after[len(CLEARED) :]  # the tables and all else come behind it
    assert "\n" not in before[before.index("\x1b") :]


def test_progress_knows_the_time_left_from_the_second_run_on(installation, long_scan):
    scan(installation, long_scan)

    _, _, shown = on_terminal(installation, "--json", long_scan)

    lines = PROGRESS.findall(shown)
    assert len(lines) > 10, shown
    for line in lines[:-1]:
        assert re.fullmatch(r"\d+ files, \d+ MB, [\d.]+ MB/s, \d:\d\d left", line), line


def test_other_text_gets_a_line_of_its_own(installation, long_scan):
    _, _, shown = on_terminal(installation, "--list", long_scan)

    assert PROGRESS.search(shown)
    assert not UNCLEARED.search(shown)
    text = PROGRESS.sub("", shown).replace(CLEARED, "")
    assert re.search(rf"^[0-9a-f]{{64}}  {long_scan}/19\r$", text, re.M), text
    assert "\x1b" not in text


def test_records_of_the_log_get_a_line_of_their_own(installation, long_scan):
    words = (long_scan, long_scan / "missing", long_scan)

    _, _, shown = on_terminal(installation, *words, stdout=subprocess.PIPE, status=1)

    assert f"Warning: unreadable: {long_scan}/missing: " in shown
    assert len(PROGRESS.findall(shown)) > 20
    assert not UNCLEARED.search(shown)


def test_progress_is_no_part_of_an_output_that_goes_elsewhere(installation, long_scan):
    out, _, shown = on_terminal(installation, "--json", "--list", long_scan, stdout=subprocess.PIPE)

    assert PROGRESS.search(shown)
    assert b"\x1b" not in out
    assert len(parse(out)["files"]) == 20


@pytest.mark.parametrize("streams", [{"stderr": subprocess.PIPE}, {}], ids=["elsewhere", "dumb terminal"])
def test_no_progress_where_a_line_cannot_be_rewritten(installation, long_scan, streams):
    env = TERMINAL if streams else {"TERM": "dumb"}

    _, err, shown = on_terminal(installation, long_scan, env=env, **streams)

    assert "1 folder: 20 files" in shown
    assert "\x1b" not in shown
    assert not err


def test_no_progress_of_a_short_scan(installation, changed):
    _, _, shown = on_terminal(installation, "--exclude", "*", changed)

    assert "\x1b" not in shown


def test_changes_are_coloured_on_a_terminal(installation, changed):
    _, _, shown = on_terminal(installation, changed)

    for kind, colour in (("added", 32), ("changed", 33), ("removed", 31)):
        assert re.search(rf"^\x1b\[{colour}m{kind} *\x1b\[0m  [0-9a-f]{{12}}  .*/{kind}\r$", shown, re.M), shown


@pytest.mark.parametrize(
    ("env", "streams"),
    [
        ({"TERM": "xterm", "NO_COLOR": "1"}, {}),
        ({"TERM": "dumb"}, {}),
        (TERMINAL, {"stdout": subprocess.PIPE}),
    ],
    ids=["NO_COLOR", "dumb terminal", "elsewhere"],
)
def test_no_colours_where_they_are_not_wanted(installation, changed, env, streams):
    out, _, shown = on_terminal(installation, changed, env=env, **streams)

    table = out.decode() if streams else shown
    assert re.search(r"^changed  [0-9a-f]{12}  ", table, re.M), table
    assert "\x1b" not in table


def test_trouble_is_told_once(installation, changed):
    (installation.work / "monitor/baseline.db").write_bytes(b"damaged")

    _, _, shown = on_terminal(installation, changed, status=1)

    assert shown.count("it is damaged") == 1, shown

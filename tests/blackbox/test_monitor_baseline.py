"""The baseline of the integrity monitor: what counts as a change, and what survives whatever happens."""

import os
import random
import shutil
import signal
import sqlite3
import stat
import subprocess
import time
from contextlib import closing

import pytest

from agentbox import AS_NOBODY, DEADLINE_S, LONG_LOOP, in_private_mounts
from monitorbox import (
    ADDED,
    CHANGED,
    COMPLETE,
    FAILED,
    INCOMPLETE,
    REMOVED,
    RESET,
    baseline,
    baseline_file,
    changes,
    document,
    events,
    found,
    scan,
    summary,
)


@pytest.fixture
def tree(tmp_path):
    """A folder with a few files, and a function that writes one of them."""
    root = tmp_path / "tree"
    for name in ("a", "b", "sub/c", "sub/deeper/d"):
        path = root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(name)
    return root


def take(installation, *words, **options):
    """A run that is expected to find no change."""
    assert changes(installation, *words, **options) == {}


# What is reported.


def test_first_run_takes_the_baseline_for_nobody_else(installation, tree):
    outcome = scan(installation, tree)

    assert (outcome.status, outcome.err) == (0, ""), outcome
    assert f"baseline taken: {tree}: 4 files\n" in outcome.out
    assert found(outcome) == (0, 0, 0, 0)
    path = baseline_file(installation)
    assert stat.S_IMODE(path.stat().st_mode) == 0o600
    assert stat.S_IMODE(path.parent.stat().st_mode) == 0o700
    assert len(baseline(installation)) == 4


def test_added_changed_and_removed_are_a_table_and_an_event_each(installation, tree):
    take(installation, tree)
    (tree / "new").write_text("abc")
    (tree / "a").write_text("other")
    (tree / "sub/c").unlink()

    outcome = scan(installation, tree)

    assert outcome.status == 0, outcome
    lines = outcome.out.split("\n")
    start = lines.index(next(line for line in lines if line.startswith("change ")))
    assert lines[start].split() == ["change", "content", "size", "mode", "owner", "path"]
    rows = [line.split() for line in lines[start + 2 : start + 6]]
    assert rows == [
        ["changed", "ca978112ca1b", "1", "0644", "0:0", str(tree / "a")],
        ["now", "d9298a10d1b0", "5"],
        ["added", "ba7816bf8f01", "3", "0644", "0:0", str(tree / "new")],
        ["removed", rows[3][1], "5", "0644", "0:0", str(tree / "sub/c")],
    ]
    assert found(outcome) == (1, 1, 1, 0)

    recorded = events(installation)[1:]  # the first run has left one too
    assert [row[:2] for row in recorded] == [(CHANGED, 4), (ADDED, 4), (REMOVED, 4), (COMPLETE, 5)]
    assert recorded[0][2].startswith("file changed (content ca978112ca1bbdcafac231b39a23dc4da786eff8147c4e72b9807785afee48bb -> ")
    assert recorded[0][2].endswith(f", size 1 -> 5): {tree}/a")
    assert recorded[3][2] == f"monitor run complete ({summary(outcome)}): {tree}"


def test_every_change_is_reported_once(installation, tree):
    take(installation, tree)
    (tree / "a").write_text("other")
    assert changes(installation, tree) == {f"{tree}/a": "changed"}

    take(installation, tree)

    assert len(events(installation, CHANGED)) == 1


@pytest.mark.parametrize(
    ("change", "differs"),
    [
        (lambda path: path.write_text("A"), ["content"]),
        (lambda path: path.write_text("aa"), ["content", "size"]),
        (lambda path: path.chmod(0o4755), ["mode"]),
        pytest.param(lambda path: os.chown(path, 1, 4294967294), ["owner"]),
    ],
    ids=["content", "size", "mode", "owner"],
)
def test_each_attribute_is_told_old_and_new(installation, tree, change, differs):
    take(installation, tree)
    change(tree / "a")

    (reported,) = document(scan(installation, "--json", tree))["changes"]

    assert (reported["path"], reported["change"], reported["differs"]) == (f"{tree}/a", "changed", differs)
    fields = {"content": "sha256", "size": "size", "mode": "mode"}
    for attribute, field in fields.items():
        assert (reported["old"][field] != reported["new"][field]) == (attribute in differs)
    if differs == ["owner"]:
        assert (reported["old"]["uid"], reported["new"]["uid"], reported["new"]["gid"]) == (0, 1, 4294967294)


def test_content_counts_though_size_and_times_are_forged(installation, tree):
    before = (tree / "a").stat()
    take(installation, tree)
    (tree / "a").write_text("x")
    os.utime(tree / "a", ns=(before.st_atime_ns, before.st_mtime_ns))

    assert changes(installation, tree) == {f"{tree}/a": "changed"}


def test_a_touched_file_has_not_changed(installation, tree):
    take(installation, tree)
    os.utime(tree / "a", (0, 0))
    shutil.copy(tree / "b", tree / "copy")
    (tree / "copy").replace(tree / "b")  # the same in all that counts, though another file

    take(installation, tree)


@pytest.mark.parametrize(
    "replace",
    [
        lambda path: path.symlink_to("b"),
        os.mkfifo,
        lambda path: path.mkdir(),
    ],
    ids=["link", "fifo", "folder"],
)
def test_a_file_that_something_else_has_taken_the_place_of_is_removed(installation, tree, replace):
    take(installation, tree)
    (tree / "a").unlink()
    replace(tree / "a")

    assert changes(installation, tree) == {f"{tree}/a": "removed"}


def test_a_folder_that_became_a_link_has_lost_its_files(installation, tree):
    take(installation, tree)
    (tree / "sub").rename(tree.parent / "elsewhere")
    (tree / "sub").symlink_to(tree.parent / "elsewhere")

    assert changes(installation, tree) == {f"{tree}/sub/c": "removed", f"{tree}/sub/deeper/d": "removed"}


def test_a_named_link_that_leads_elsewhere_shows_as_changes(installation, tree):
    other = tree.parent / "other"
    shutil.copytree(tree, other)
    (other / "a").write_text("forged")
    link = tree.parent / "link"
    link.symlink_to("tree")
    take(installation, link)
    link.unlink()
    link.symlink_to("other")

    assert changes(installation, link) == {f"{link}/a": "changed"}


# What a run is about.


def test_files_outside_the_named_folders_are_not_touched(installation, tree):
    take(installation, tree)
    (tree / "a").unlink()
    (tree / "sub/c").write_text("other")

    assert changes(installation, tree / "sub") == {f"{tree}/sub/c": "changed"}
    assert changes(installation, tree) == {f"{tree}/a": "removed"}


def test_a_wider_folder_takes_what_is_new_to_it(installation, tree):
    take(installation, tree / "sub")
    (tree / "sub/c").write_text("other")
    (tree / "sub/new").write_text("")

    outcome = scan(installation, "--json", tree)

    result = document(outcome)
    assert {change["path"]: change["change"] for change in result["changes"]} == {
        f"{tree}/sub/c": "changed",
        f"{tree}/sub/new": "added",
    }
    assert result["folders"] == [{"path": str(tree), "taken": 2}]


def test_a_new_folder_below_a_known_one_is_added_also_when_it_is_named(installation, tree):
    take(installation, tree)
    (tree / "new").mkdir()
    (tree / "new/file").write_text("")

    assert changes(installation, tree / "new") == {f"{tree}/new/file": "added"}


def test_folders_may_be_named_twice_and_below_each_other(installation, tree):
    take(installation, tree, tree / "sub", tree)
    (tree / "sub/c").write_text("other")

    assert changes(installation, tree, tree / "sub", tree) == {f"{tree}/sub/c": "changed"}
    assert len(events(installation, CHANGED)) == 1


def test_a_folder_is_the_same_however_it_is_named(installation, tree):
    take(installation, tree)
    (tree / "a").write_text("other")

    assert changes(installation, "sub/../.", cwd=tree) == {f"{tree}/a": "changed"}
    take(installation, f"{tree}//")


def test_excluded_files_are_neither_compared_nor_forgotten(installation, tree):
    take(installation, tree)
    (tree / "a").write_text("other")
    (tree / "b").unlink()
    (tree / "sub/c").write_text("other")
    shutil.rmtree(tree / "sub/deeper")
    exclusions = ("--exclude", "[ab]", "--exclude", tree / "sub")

    take(installation, *exclusions, tree)

    assert changes(installation, tree) == {
        f"{tree}/a": "changed",
        f"{tree}/b": "removed",
        f"{tree}/sub/c": "changed",
        f"{tree}/sub/deeper/d": "removed",
    }


def test_what_was_excluded_at_first_is_taken_later_and_not_added(installation, tree):
    take(installation, "--exclude", "a", "--exclude", "deeper", tree)
    assert f"{tree}/sub/deeper/d" not in baseline(installation)

    outcome = scan(installation, tree)

    assert found(outcome) == (0, 0, 0, 0)
    assert f"baseline taken: {tree}: 2 files\n" in outcome.out


def test_an_excluded_folder_is_not_entered(public_installation, tmp_path):
    installation = public_installation
    closed = installation.root / "tree" / "closed"
    closed.mkdir(parents=True)
    closed.chmod(0)

    outcome = scan(
        installation, "--exclude", "closed", closed.parent, work=installation.home / "work", wrapper=AS_NOBODY
    )

    assert found(outcome) == (0, 0, 0, 0), outcome


def test_reset_takes_the_present_state(installation, tree):
    take(installation, tree)
    (tree / "a").write_text("other")
    (tree / "b").unlink()
    (tree / "new").write_text("")
    (tree / "sub/c").write_text("other")

    outcome = scan(installation, "--reset", "--strict", tree / "sub")
    assert outcome.status == 0, outcome
    assert "1 folder: 2 files, 17 bytes, baseline reset, 0 unreadable, " in summary(outcome)
    assert changes(installation, tree) == {f"{tree}/a": "changed", f"{tree}/b": "removed", f"{tree}/new": "added"}

    (tree / "a").write_text("yet another")
    scan(installation, "--reset", tree)
    take(installation, tree)
    assert [row[:2] for row in events(installation, RESET)] == [(RESET, 4), (RESET, 4)]


# What cannot be read.


def test_unreadable_is_not_removed(public_installation, tmp_path):
    installation = public_installation
    options = {"work": installation.home / "work", "wrapper": AS_NOBODY}
    tree = installation.root / "tree"
    (tree / "closed/below").mkdir(parents=True)
    (tree / "listed").mkdir()
    for name in ("file", "closed/file", "closed/below/file", "listed/file"):
        (tree / name).write_text(name)
    take(installation, tree, **options)
    (tree / "file").chmod(0)
    (tree / "closed").chmod(0)
    (tree / "listed").chmod(0o744)  # its entries have names, but no state

    result = document(scan(installation, "--json", tree, **options))
    assert result["changes"] == []
    assert {entry["path"]: entry["reason"] for entry in result["unreadable"]} == {
        f"{tree}/{name}": "Permission denied" for name in ("file", "closed", "listed/file")
    }

    for name in ("file", "closed", "listed"):
        (tree / name).chmod(0o755)
    assert changes(installation, tree, **options) == {f"{tree}/file": "changed"}  # its mode has


def test_a_named_folder_that_is_gone_has_lost_its_files(installation, tree):
    take(installation, tree, tree / "sub")
    shutil.rmtree(tree / "sub")

    outcome = scan(installation, tree / "sub")
    assert outcome.status == 1, outcome
    assert f"unreadable: {tree}/sub: No such file or directory\n" in outcome.out
    assert found(outcome) == (0, 0, 2, 1)
    assert len(events(installation, REMOVED)) == 2
    assert len(events(installation, INCOMPLETE)) == 1

    assert changes(installation, tree / "sub", status=1) == {}
    (tree / "sub").mkdir()
    (tree / "sub/c").write_text("")
    assert changes(installation, tree / "sub") == {f"{tree}/sub/c": "added"}


def test_a_kernel_file_system_over_a_known_folder_is_told(installation, tree):
    take(installation, tree)

    outcome = scan(
        installation, tree, wrapper=in_private_mounts(f'mount --bind /proc "{tree}/sub" || exit 99; exec "$@"')
    )

    assert outcome.status == 0, outcome
    assert f"unreadable: {tree}/sub: a file system of the kernel lies over it\n" in outcome.out
    assert found(outcome) == (0, 0, 0, 1)
    take(installation, tree)


# Statuses.


def test_strict_gives_ten_when_something_changed(installation, tree):
    assert scan(installation, "--strict", tree).status == 0
    assert scan(installation, "--strict", tree).status == 0
    (tree / "a").unlink()
    assert scan(installation, "--strict", tree).status == 10
    assert scan(installation, "--strict", tree).status == 0
    (tree / "b").unlink()
    assert scan(installation, tree).status == 0


def test_an_incomplete_run_gives_one_also_when_something_changed(installation, tree):
    take(installation, tree)
    (tree / "a").unlink()

    outcome = scan(installation, "--strict", tree, tree / "missing")

    assert outcome.status == 1
    assert found(outcome) == (0, 0, 1, 1)
    assert scan(installation, "--strict", tree).status == 0


# Names.


NAMES = [b"line\nfeed", b"\x1b[31m\xff", b"caf\xe9", "größe".encode(), b"'; DROP TABLE file; --", b"%s%n", b"\\", b"\x01\x02"]


def test_names_of_any_bytes_are_kept_apart_and_forge_nothing(installation, tmp_path):
    tree = os.fsencode(tmp_path / "tree")
    os.mkdir(tree)
    take(installation, os.fsdecode(tree))
    for name in NAMES:
        with open(tree + b"/" + name, "wb") as file:
            file.write(name)

    outcome = scan(installation, os.fsdecode(tree))

    assert found(outcome) == (len(NAMES), 0, 0, 0), outcome
    assert len([line for line in outcome.stdout.split(b"\n") if line.startswith(b"added ")]) == len(NAMES)
    assert b"\x1b" not in outcome.stdout
    assert set(map(os.fsencode, baseline(installation))) == {tree + b"/" + name for name in NAMES}
    for _, _, description in events(installation):
        assert not any(ord(c) < 0x20 or 0xDC80 <= ord(c) <= 0xDCFF for c in description), description

    for name in NAMES:
        os.unlink(tree + b"/" + name)
    removed = document(scan(installation, "--json", os.fsdecode(tree)))["changes"]
    paths = {bytes.fromhex(change["path_hex"]) if "path_hex" in change else change["path"].encode() for change in removed}
    assert paths == {tree + b"/" + name for name in NAMES}


def test_json_is_all_of_the_output(public_installation):
    installation = public_installation
    tree = installation.root / "tree"
    tree.mkdir()
    (tree / "closed").write_text("")
    (tree / "closed").chmod(0)

    outcome = scan(
        installation,
        *("--json", "--list", tree, tree / "missing"),
        work=installation.home / "work",
        wrapper=AS_NOBODY,
    )

    result = document(outcome)
    assert (outcome.status, outcome.err) == (1, "\n"), outcome  # the host's line for a status
    assert (result["format"], result["result"], result["complete"]) == (1, "compared", False)
    assert result["files"] == []
    assert [entry["path"] for entry in result["unreadable"]] == [f"{tree}/closed", f"{tree}/missing"]
    assert result["rules"][0]["module"] == "monitor.rules.volatile"


# The monitor's own files.


def test_the_agents_own_files_are_no_changes(installation):
    work = installation.work
    work.mkdir()
    (work / "kx_agent.ini").write_text("")

    for _ in range(3):
        outcome = scan(installation, "--strict", "--list", work, work / "monitor")
        assert outcome.status == 0, outcome

    assert f"  {work}/kx_agent.ini\n" in outcome.out
    for name in ("baseline.db", "agent_events.db", "kx_agent.log"):
        assert name not in outcome.out


# Hashing the database would make this process lose its lock.
def test_a_run_over_its_own_folder_keeps_its_baseline_to_itself(installation, tmp_path):
    scan(installation, installation.work)
    for index in range(3000):
        (tmp_path / f"{index:0200}").write_bytes(b"")
    words = ("--list", installation.work / "monitor", installation.work, tmp_path)
    process = installation.start("--", *words, name="kx_agent", lua_path=False)
    os.read(process.stdout.fileno(), 100)  # it has been in the monitor's folder, and stands still at the full pipe

    with closing(sqlite3.connect(baseline_file(installation), timeout=0, isolation_level=None)) as database:
        with pytest.raises(sqlite3.OperationalError, match="database is locked"):
            database.execute("BEGIN IMMEDIATE")


# Two at once, and whatever else can happen to the file.


def test_a_run_beside_another_one_says_so(installation, tree):
    take(installation, tree)
    (installation.work / "kx_agent.ini").write_text("sqlite.config.busy_timeout=100\n")
    (tree / "a").unlink()

    with closing(sqlite3.connect(baseline_file(installation), isolation_level=None)) as database:
        database.execute("BEGIN IMMEDIATE")
        outcome = scan(installation, tree)

    reason = "another run of the monitor is using it (database is locked)"
    assert (outcome.status, outcome.out) == (1, "")
    assert outcome.err == f"kx_agent: baseline {baseline_file(installation)}: {reason}\n\n"
    assert events(installation, FAILED) == [(FAILED, 3, f"monitor run failed ({reason}): {tree}")]
    assert changes(installation, tree) == {f"{tree}/a": "removed"}


def test_runs_at_once_take_turns(installation, tree):
    take(installation, tree)
    (installation.work / "kx_agent.ini").write_text("sqlite.config.busy_timeout=60000\n")
    (tree / "a").unlink()

    processes = [
        installation.start("--", "--json", tree, name="kx_agent", lua_path=False) for _ in range(6)
    ]
    outputs = [process.communicate(timeout=DEADLINE_S) for process in processes]

    assert [process.returncode for process in processes] == [0] * 6, outputs
    assert len(events(installation, REMOVED)) == 1
    assert len(baseline(installation)) == 3


@pytest.mark.parametrize(
    "content", [b"x", b"no database at all " * 100, None], ids=["a few bytes", "something else", "cut short"]
)
def test_a_damaged_baseline_is_left_alone_and_put_aside_by_reset(installation, tree, content):
    for index in range(300):
        (tree / f"{index}").write_text("")
    take(installation, tree)
    path = baseline_file(installation)
    content = content or path.read_bytes()[: 3 * 4096]
    path.write_bytes(content)

    outcome = scan(installation, tree)
    assert (outcome.status, outcome.out) == (1, "")
    assert f"kx_agent: baseline {path}: it is damaged (" in outcome.err
    assert "); --reset puts it aside and takes a new one\n" in outcome.err
    assert path.read_bytes() == content
    assert len(events(installation, FAILED)) == 1

    outcome = scan(installation, "--reset", tree)
    assert outcome.status == 0, outcome
    (aside,) = path.parent.glob("baseline.db.set-aside-*")
    assert aside.read_bytes() == content
    assert str(aside) in outcome.err
    assert installation.log_has(f"Warning: {outcome.err.strip().removeprefix('kx_agent: ')}", name="kx_agent")
    take(installation, tree)


def test_a_baseline_of_a_newer_format_is_left_alone(installation, tree):
    take(installation, tree)
    path = baseline_file(installation)
    with closing(sqlite3.connect(path)) as database:
        database.execute("PRAGMA user_version = 2")
    content = path.read_bytes()

    outcome = scan(installation, tree)

    assert outcome.status == 1
    assert "it has format 2, and this monitor knows format 1; --reset puts it aside" in outcome.err
    assert path.read_bytes() == content


@pytest.mark.parametrize("name", ["baseline.db", "baseline.db-journal"])
def test_a_link_in_the_baselines_place_is_not_followed(installation, tree, tmp_path, name):
    victim = tmp_path / "victim"
    victim.write_bytes(b"")
    (installation.work / "monitor").mkdir(parents=True)
    (installation.work / "monitor" / name).symlink_to(victim)

    for words in ((), ("--reset",)):
        outcome = scan(installation, *words, tree)
        assert outcome.status == 1
        assert "baseline.db: not a regular file\n" in outcome.err

    assert victim.read_bytes() == b""


def test_a_link_in_the_place_of_the_baselines_folder_is_not_followed(installation, tree, tmp_path):
    installation.work.mkdir()
    (tmp_path / "victim").mkdir()
    (installation.work / "monitor").symlink_to(tmp_path / "victim")

    outcome = scan(installation, tree)

    assert outcome.status == 1
    assert "baseline.db: its folder: not a folder\n" in outcome.err
    assert list((tmp_path / "victim").iterdir()) == []


def test_a_baseline_that_cannot_be_written_is_an_error(installation, tree):
    take(installation, tree)
    (tree / "a").unlink()
    monitor = installation.work / "monitor"

    outcome = scan(
        installation,
        tree,
        wrapper=in_private_mounts(f'mount --bind "{monitor}" "{monitor}" && mount -o remount,bind,ro "{monitor}" && exec "$@"'),
    )

    assert outcome.status == 1, outcome
    assert f"kx_agent: baseline {monitor}/baseline.db: attempt to write a readonly database\n" in outcome.err
    assert changes(installation, tree) == {f"{tree}/a": "removed"}


def test_a_full_disk_leaves_the_old_baseline(installation, tree):
    script = f"""
        mount -t tmpfs -o size=1m tmpfs "{installation.work}" || exit 99
        "$@" >/dev/null || exit 98
        seq -f "{tree}/many/a_file_with_a_name_of_some_length_%g" 20000 | xargs touch
        dd if=/dev/zero of="{installation.work}/ballast" bs=1k count=800 2>/dev/null
        "$@" --reset; echo "status $?"
        rm -r "{installation.work}/ballast" "{tree}/many"
        touch "{tree}/new"
        "$@"
    """
    installation.work.mkdir()
    (tree / "many").mkdir()

    outcome = scan(installation, tree, wrapper=in_private_mounts(script), timeout=4 * DEADLINE_S)

    assert "database or disk is full\n" in outcome.err, outcome
    assert "\nstatus 1\n" in outcome.out
    assert found(outcome) == (1, 0, 0, 0), outcome.out[-500:]


# Each run turns one state of the tree into the other, and may be killed at any moment.
def test_whenever_a_run_is_killed_the_baseline_is_the_old_or_the_new_one(installation, tmp_path):
    tree = tmp_path / "tree"
    tree.mkdir()
    names = [f"{index:03}" for index in range(200)]

    def write(state):
        for name in names:
            (tree / name).write_text(state + name)

    write("first")
    began = time.monotonic()
    take(installation, tree)
    duration = time.monotonic() - began
    digests = {"first": baseline(installation)}
    write("second")
    scan(installation, tree)
    digests["second"] = baseline(installation)
    assert len(events(installation, CHANGED)) == len(names)

    last, killed = "second", 0
    for _ in range(max(5, LONG_LOOP // 100)):
        state = "first" if last == "second" else "second"
        write(state)
        before = len(events(installation, CHANGED))
        process = installation.start("--", tree, name="kx_agent", lua_path=False)
        time.sleep(random.uniform(0, 3 * duration))  # any moment will do; there is nothing to wait for
        process.send_signal(signal.SIGKILL)
        process.communicate()
        killed += process.returncode == -signal.SIGKILL

        now = baseline(installation)
        assert now in (digests[last], digests[state])
        reported = len(events(installation, CHANGED)) - before
        assert reported == len(names) or now == digests[last]  # nothing moves on that is not on record
        assert scan(installation, tree).status == 0
        assert baseline(installation) == digests[state]
        last = state
    assert killed > 0


@pytest.mark.slow
def test_memory_does_not_grow_with_the_number_of_files(installation, tmp_path):
    def make(root, count):
        for index in range(count):
            folder = root / str(index // 100)
            if index % 100 == 0:
                folder.mkdir(parents=True)
            (folder / str(index)).write_bytes(b"")
        return root

    def peak_kib(*words):
        process = subprocess.Popen(
            [installation.executable, "--workdir", installation.work, "--", *words],
            stdout=subprocess.DEVNULL,
            env=installation.environment(),
        )
        _, status, usage = os.wait4(process.pid, 0)
        assert status == 0
        return usage.ru_maxrss

    few, many = make(tmp_path / "few", 1000), make(tmp_path / "many", 50000)
    first = peak_kib("--json", few), peak_kib("--json", many)
    second = peak_kib("--json", few), peak_kib("--json", many)

    # The database keeps pages of its own up to a limit of 2 MB for each of the baseline and what was found.
    assert first[1] - first[0] < 8 * 1024, first
    assert second[1] - second[0] < 8 * 1024, second

"""The integrity monitor as a service: it scans again and again, and loses nothing, whatever happens to it."""

import os
import shutil
import signal
import time
from contextlib import contextmanager
from pathlib import Path

import pytest

from agentbox import DEADLINE_S, await_line, in_private_mounts
from monitorbox import ADDED, CHANGED, COMPLETE, FAILED, INCOMPLETE, REMOVED, RESET, baseline, events

STOPPED = "Message: monitor run stopped before its end; the baseline is the old one"

# Sparse: takes no room, and minutes to read.
ENDLESS = 1 << 40


@pytest.fixture
def tree(tmp_path):
    root = tmp_path / "tree"
    root.mkdir()
    for name in ("a", "b", "c"):
        (root / name).write_text(name)
    return root


class Monitor:
    """The monitor under the name of its installation, in the background."""

    def __init__(self, installation, *words, every=1, changes="", **launch):
        """`changes`: Lua text that changes the application `app`."""
        self.installation = installation
        installation.write_module(installation.name, f"local app = require('kx_agent') {changes} return app")
        archive = installation.bin / "vel_core" / "kx_agent.kxe"
        self.agent = installation.launch_in_background("-z", archive, "--", "--every", str(every), *words, **launch)
        assert self.agent.command_status == 0, self.agent.lines()
        assert self.agent.watchdog

    def summaries(self):
        return [record for record in self.agent.records() if record.level == "Message" and " removed, " in record.text]

    def await_scans(self, count):
        """Waits until so many scans in all have ended, and returns the record of the last one."""
        return self.agent.wait_for(lambda: self.summaries()[count - 1 :], f"scan {count}")[0]

    def await_further_scan(self):
        """Waits for the end of a scan that begins after now."""
        return self.await_scans(len(self.summaries()) + 2)

    def await_event(self, number, part):
        def described():
            return [text for _, _, text in events(self.installation, number) if part in text]

        return self.agent.wait_for(described, f"event {number} with {part!r}")[0]

    def is_reading(self, path):
        """The worker that has the file open; None when there is none. By its inode: in mounts of its own, or a changed
        root, the worker may know the file by another path."""
        wanted = os.stat(path)
        for pid in self.agent.processes():
            try:
                held = [os.stat(f"/proc/{pid}/fd/{number}") for number in os.listdir(f"/proc/{pid}/fd")]
            except OSError:
                continue
            if any(os.path.samestat(wanted, each) for each in held):
                return pid
        return None

    def await_reading(self, path):
        return self.agent.wait_for(lambda: self.is_reading(path), f"a worker that reads {path}")


@contextmanager
def endless_file(tree):
    """A file that no scan comes to the end of."""
    path = tree / "endless"
    path.touch()
    os.truncate(path, ENDLESS)
    yield path
    os.truncate(path, 0)  # whoever still reads it comes to its end
    path.unlink()


# Scans


def test_it_scans_on_and_on_and_reports_each_change_once(installation, tree):
    monitor = Monitor(installation, tree)
    monitor.await_scans(1)
    (tree / "new").write_text("new")
    monitor.await_event(ADDED, str(tree / "new"))
    (tree / "a").write_text("other")
    monitor.await_event(CHANGED, str(tree / "a"))
    (tree / "b").unlink()
    monitor.await_event(REMOVED, str(tree / "b"))
    monitor.await_further_scan()

    assert monitor.agent.stop() == 0
    assert [number for number, _, _ in events(installation, ADDED, CHANGED, REMOVED)] == [ADDED, CHANGED, REMOVED]
    assert sorted(baseline(installation)) == [str(tree / name) for name in ("a", "c", "new")]


def test_a_scan_that_finds_nothing_is_a_line_in_the_log_and_no_event(installation, tree):
    monitor = Monitor(installation, tree)
    monitor.await_scans(3)

    assert monitor.agent.stop() == 0
    assert [(number, "3 files" in text) for number, _, text in events(installation)] == [(COMPLETE, True)]
    assert all(" 0 added, 0 changed, 0 removed, 0 unreadable, " in record.text for record in monitor.summaries())


def test_the_beat_is_kept(installation, tree):
    monitor = Monitor(installation, tree, every=2)
    monitor.await_scans(1)
    start = time.monotonic()
    monitor.await_scans(4)
    passed = time.monotonic() - start

    assert 5 < passed < 9, passed


def test_reset_is_for_the_first_scan(installation, tree):
    monitor = Monitor(installation, tree)
    monitor.await_scans(1)
    assert monitor.agent.stop() == 0
    (tree / "a").write_text("other")

    monitor = Monitor(installation, "--reset", tree)
    monitor.await_scans(2)
    (tree / "b").write_text("other")
    monitor.await_event(CHANGED, str(tree / "b"))

    assert monitor.agent.stop() == 0
    assert [number for number, _, _ in events(installation, RESET)] == [RESET]
    assert not [text for _, _, text in events(installation, CHANGED) if text.endswith("/a")]


def test_a_folder_that_is_missing_for_a_while_does_not_end_the_service(installation, tree):
    away = tree.with_name("away")
    monitor = Monitor(installation, tree)
    monitor.await_scans(1)
    tree.rename(away)
    monitor.await_event(INCOMPLETE, str(tree))
    away.rename(tree)
    monitor.await_event(ADDED, str(tree / "a"))

    assert monitor.agent.stop() == 0


def test_in_the_foreground_it_reports_until_it_is_interrupted(installation, tree):
    installation.name = "kx_agent"
    process = installation.start("--", "--every", "1", tree)
    lines = [await_line(process) for _ in range(20)]
    process.send_signal(signal.SIGINT)

    assert process.wait(timeout=DEADLINE_S) == 0
    assert sum(" 0 added, 0 changed, 0 removed, " in line for line in lines) >= 2, lines


@pytest.mark.parametrize("seconds", ["0", "-1", "1.5", "x", "", "1e3", "10000000000"])
def test_a_beat_that_is_none_is_refused(installation, tree, seconds):
    outcome = installation.run_raw("--workdir", installation.work, "--", "--every", seconds, tree)

    assert outcome.status == 2
    assert outcome.err == f"kx_agent: --every '{seconds}': not a whole number of seconds, at least 1\n\n"


# The wish for a scan


def test_a_wish_starts_a_scan_at_once_and_is_taken(installation, tree):
    installation.write_module(
        "wisher",
        f"""return function(self)
          while not self:TestDestroy(10) do
            local wish = io.open('{installation.root}/wish')
            if wish then
              wish:close() os.remove('{installation.root}/wish')
              dom:Set('vel.HeartbeatNow', true)
            end
          end
        end""",
    )
    main = "local main = app.main function app.main() dom:StartRunnable('wisher') return main() end"
    monitor = Monitor(installation, tree, every=3600, changes=main)
    monitor.await_scans(1)

    (installation.root / "wish").touch()
    monitor.await_scans(2)
    (tree / "a").write_text("other")
    (installation.root / "wish").touch()
    monitor.await_event(CHANGED, str(tree / "a"))
    monitor.await_scans(3)

    assert monitor.agent.stop() == 0
    assert len(monitor.summaries()) == 3, "a wish is one scan"


# Its end


def test_a_stop_in_the_middle_of_a_file_takes_a_moment_and_the_baseline_stays(installation, tree):
    monitor = Monitor(installation, tree)
    monitor.await_scans(1)
    (tree / "a").write_text("other")
    with endless_file(tree) as path:
        monitor.await_reading(path)
        start = time.monotonic()
        assert monitor.agent.stop() == 0
        passed = time.monotonic() - start
    assert passed < 5, passed
    assert STOPPED in monitor.agent.lines()
    assert sorted(baseline(installation)) == [str(tree / name) for name in "abc"]
    assert events(installation, FAILED) == []

    monitor = Monitor(installation, tree)
    monitor.await_event(CHANGED, str(tree / "a"))
    assert monitor.agent.stop() == 0


def test_a_worker_killed_in_the_middle_of_a_scan_is_replaced_and_nothing_is_lost(installation, tree):
    monitor = Monitor(installation, tree)
    monitor.await_scans(1)
    (tree / "a").write_text("other")
    with endless_file(tree) as path:
        os.kill(monitor.await_reading(path), signal.SIGKILL)
    assert sorted(baseline(installation)) == [str(tree / name) for name in "abc"]

    monitor.await_event(CHANGED, str(tree / "a"))
    assert monitor.agent.stop() == 0
    assert sorted(baseline(installation)) == [str(tree / name) for name in "abc"]


@pytest.mark.crash
def test_a_crash_in_a_runnable_is_a_crash_of_the_worker(installation, tree):
    monitor = Monitor(installation, tree)
    monitor.await_scans(1)
    (tree / "a").write_text("other")
    with endless_file(tree) as path:
        os.kill(monitor.await_reading(path), signal.SIGSEGV)
    monitor.await_event(CHANGED, str(tree / "a"))

    assert monitor.agent.stop() == 0


# A full disk


def test_a_full_disk_ends_nothing_and_loses_no_change(installation, tree):
    installation.work.mkdir()
    place = in_private_mounts(f'mount -t tmpfs -o size=2m none "{installation.work}" && exec "$@"')
    monitor = Monitor(installation, tree, wrapper=place)
    with open_folder(f"/proc/{monitor.agent.watchdog}/root{installation.work}") as installation.work:
        monitor.await_scans(1)
        worker = monitor.summaries()[0].pid
        filler = installation.work / "filler"
        fill(filler)
        (tree / "a").write_text("other")
        with endless_file(tree) as path:
            monitor.await_reading(path)
            os.truncate(path, 0)  # this scan comes to its end, without room for what it has found
            monitor.agent.wait_for(lambda: not monitor.is_reading(path), "the end of the file")
            os.truncate(path, ENDLESS)
            assert monitor.await_reading(path) == worker
            filler.unlink()
        monitor.await_further_scan()
        assert monitor.agent.stop() == 0

        assert {record.pid for record in monitor.summaries()} == {worker}
        kept = installation.root / "kept"
        shutil.copytree(installation.work, kept)
    assert [text for _, _, text in events(installation, CHANGED, work=kept) if text.endswith("/a")]
    assert sorted(baseline(installation, work=kept)) == [str(tree / name) for name in "abc"]


def fill(path):
    """Takes all the room that is left where `path` is."""
    with open(path, "wb", buffering=0) as file, pytest.raises(OSError, match="No space left"):
        while True:
            file.write(bytes(4096))


@contextmanager
def open_folder(path):
    """The folder under a path that stays good when its mount is gone."""
    descriptor = os.open(path, os.O_DIRECTORY)
    yield Path(f"/proc/{os.getpid()}/fd/{descriptor}")
    os.close(descriptor)

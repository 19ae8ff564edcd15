"""A run with --install_plugins is cut off at every place that there is: no file is ever half, and the next run completes.

Every call that changes a file is the last one once, by SIGKILL in its place, and fails once with each of several errors.
"""

import errno
import re
import shutil
import signal
import subprocess
import zipfile
from collections import Counter
from dataclasses import dataclass, field

import pytest

from agentbox import Outcome
from packagebox import (
    INSTALLED,
    NOT_INSTALLED,
    NOT_REMOVED,
    REMOVED,
    SAMPLE,
    SAMPLE_MARKER,
    content,
    event,
    events,
    plugins,
)

DONE = SAMPLE + ".done"

# The plug-in's files, before and after: {path: (content, mode)}.
OLD = {"code.lua": (b"old code", 0o640), "stays.conf": (b"an operator's", 0o600)}
NEW = {
    "code.lua": (b"new code\n" * 100, 0o644),
    "folder/deep/more.lua": (b"more", 0o600),
    "tool": (b"#!/bin/sh\n" + bytes(range(256)) * 300, 0o755),
}


@dataclass
class Disturbance:
    """What becomes of the call that a run is disturbed at."""

    settings: dict = field(default_factory=dict)

    @property
    def kills(self):
        return not self.settings


DISTURBANCES = {
    "killed": Disturbance(),
    **{name: Disturbance({"TEST_CHANGE_ERROR": getattr(errno, name)}) for name in ("ENOSPC", "EIO", "EMFILE")},
}


def write(folder, files):
    for name, (data, mode) in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)
        path.chmod(mode)


def archive(path, files):
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as opened:
        for name, (data, mode) in files.items():
            entry = zipfile.ZipInfo(name)
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.external_attr = (0o100000 | mode) << 16
            opened.writestr(entry, data)
    return path


def files(installation):
    """What is beside the executable and did not come with it: {path: (content, mode)}."""
    found = plugins(installation)
    modes = {name: (installation.bin / name).lstat().st_mode & 0o7777 for name in found}
    return {name: (data, modes[name]) for name, data in found.items() if data != "d"}


class Scene:
    """A run that starts from the same files each time."""

    def __init__(self, installation, disturbed):
        self.installation = installation
        self.disturbed = disturbed
        self.list = installation.root / "calls"
        installation.write_app()
        # The work folder and the database are there, as they are in every start but the first.
        archive(installation.bin / "first.kxp", {})
        self.run()
        assert [number for number, _, _ in events(installation)] == [INSTALLED]
        (installation.bin / "first.kxp.done").unlink()
        self.before = files(installation)
        assert self.before == {}

    def prepare(self, **archives):
        """Lets the plug-in's files and these archives be all there is."""
        for name in plugins(self.installation):
            path = self.installation.bin / name
            shutil.rmtree(path) if content(path) == "d" else path.unlink()
        shutil.rmtree(self.installation.bin / "folder", ignore_errors=True)
        self.log_begin = len(self.installation.log_text())
        self.event_begin = len(events(self.installation))
        self.list.unlink(missing_ok=True)

    def run(self, **settings) -> Outcome:
        return self.installation.run("-i", env=self.disturbed(TEST_CHANGE_LIST=self.list, **settings))

    def calls(self):
        return self.list.read_text().split()

    def events(self):
        return events(self.installation)[self.event_begin :]

    def log(self):
        return self.installation.log_text()[self.log_begin :]


@pytest.fixture
def scene(installation, disturbed):
    return Scene(installation, disturbed)


def disturb_each_call(scene, prepare, disturbance):
    """Runs once per call that changes files, with that call disturbed; yields after each run."""
    number = 0
    while True:
        number += 1
        prepare()
        outcome = scene.run(TEST_CHANGE=number, **disturbance.settings)
        calls = scene.calls()
        if len(calls) < number:
            assert outcome.status == 0, outcome
            assert number > 10, f"there are only these calls: {calls}"
            return
        expected = -signal.SIGKILL if disturbance.kills else 0
        assert outcome.status == expected, (number, calls[number - 1], outcome, scene.log())
        yield f"call {number}, {calls[number - 1]}", outcome


def said(scene, outcome):
    """The numbers of the events of a run: stored, or on record because they could not be."""
    stored = [number for number, _, _ in scene.events()]
    text = scene.log() + outcome.err
    return stored + [int(number) for number in re.findall(r"event_number=(\d+)", text)]


@pytest.mark.parametrize("disturbance", DISTURBANCES.values(), ids=DISTURBANCES)
def test_an_installation_that_is_disturbed_anywhere_converges(scene, disturbance):
    installation = scene.installation
    package = archive(installation.root / "package", NEW)
    packed = package.read_bytes()

    def prepare():
        scene.prepare()
        write(installation.bin, OLD)
        shutil.copy(package, installation.bin / SAMPLE)

    for place, outcome in disturb_each_call(scene, prepare, disturbance):
        found = files(installation)
        for name in {*OLD, *NEW}:
            assert found.get(name) in (OLD.get(name), NEW.get(name)), (place, name)
        assert [found[name][0] for name in (SAMPLE, DONE) if name in found] == [packed], place
        is_complete = all(found.get(name) == file for name, file in NEW.items())
        if DONE in found:
            assert is_complete, place
        if not disturbance.kills:
            assert said(scene, outcome) == [INSTALLED if is_complete and was_synced(scene, place) else NOT_INSTALLED], place
            if SAMPLE in found:
                assert "Error: " in scene.log() + outcome.err, place

        assert scene.run().status == 0, place

        found = files(installation)
        assert found.pop(DONE)[0] == packed, place
        assert found == {**OLD, **NEW}, place
        assert Counter(scene.events()) <= Counter({event(INSTALLED, installation.bin / SAMPLE): 2, event(NOT_INSTALLED, installation.bin / SAMPLE): 1}), place


def was_synced(scene, place):
    """Whether the disturbed call was not the one that makes the files durable."""
    return place.split(", ")[1] not in ("syncfs", "fsync") or "syncfs" not in scene.calls()


@pytest.mark.parametrize("disturbance", DISTURBANCES.values(), ids=DISTURBANCES)
def test_a_removal_that_is_disturbed_anywhere_converges(scene, disturbance):
    installation = scene.installation
    marker = archive(installation.root / "marker", {name: (b"", 0o600) for name in NEW})

    def prepare():
        scene.prepare()
        write(installation.bin, {**OLD, **NEW})
        shutil.copy(marker, installation.bin / SAMPLE_MARKER)

    for place, outcome in disturb_each_call(scene, prepare, disturbance):
        found = files(installation)
        for name, file in NEW.items():
            assert found.get(name) in (None, file), (place, name)
        assert found["stays.conf"] == OLD["stays.conf"], place
        # A file that cannot be deleted stays, and is on record; the removal goes on.
        stuck = [name for name in NEW if f"File '{installation.bin / name}' couldn't be removed" in scene.log()]
        if SAMPLE_MARKER not in found:
            assert [name for name in NEW if name in found] == stuck, place
        if not disturbance.kills:
            assert said(scene, outcome) == [REMOVED], place

        assert scene.run().status == 0, place

        stuck = {} if SAMPLE_MARKER in found else {name: NEW[name] for name in stuck}
        assert files(installation) == {"stays.conf": OLD["stays.conf"], **stuck}, place
        assert NOT_REMOVED not in [number for number, _, _ in scene.events()], place

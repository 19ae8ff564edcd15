"""A run with --install_plugins is cut off at every place that there is: no file is ever half, and the next run completes.

Every call that changes a file is once the last one, with SIGKILL in its place, and fails once with each of several errors.
"""

import errno
import re
import shutil
import signal
import zipfile

import pytest

from packagebox import INSTALLED, NOT_INSTALLED, REMOVED, SAMPLE, SAMPLE_MARKER, events, forget, tree

DONE = SAMPLE + ".done"

# The plug-in's files before and after: {path: (content, mode)}.
OLD = {"code.lua": (b"old code", 0o640), "stays.conf": (b"an operator's", 0o600)}
NEW = {
    "code.lua": (b"new code\n" * 100, 0o644),
    "folder/deep/more.lua": (b"more", 0o600),
    "tool": (b"#!/bin/sh\n" + bytes(range(256)) * 300, 0o755),
}
FOLDERS = {"folder": ("d", 0o750), "folder/deep": ("d", 0o755)}  # the archive tells of the first

# What takes the place of a call: a kill, or the failure with an error.
DISTURBANCES = {
    "killed": {},
    **{name: {"TEST_CHANGE_ERROR": getattr(errno, name)} for name in ("ENOSPC", "EIO", "EMFILE")},
}


def write(folder, files):
    for name, (content, mode) in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
        path.chmod(mode)


def archive(path, files):
    """An archive of these files, and of folders, which have a "/" at the end of their names."""
    with zipfile.ZipFile(path, "w") as opened:
        for name, (content, mode) in files.items():
            entry = zipfile.ZipInfo(name)
            entry.compress_type = zipfile.ZIP_STORED if name.endswith("/") else zipfile.ZIP_DEFLATED
            entry.external_attr = ((0o040000 if name.endswith("/") else 0o100000) | mode) << 16
            opened.writestr(entry, content)
    return path


def only_files(found):
    return {name: file for name, file in found.items() if file[0] != "d"}


class Scene:
    """Runs that start from the same files, each with one call disturbed."""

    def __init__(self, installation, disturbed):
        self.installation = installation
        self.bin = installation.bin
        self._disturbed = disturbed
        self._list = installation.root / "calls"
        installation.write_app()
        # Work folder and database are there, as in every start but the first.
        archive(self.bin / "first.kxp", {})
        self.run()
        assert [number for number, _, _ in events(installation)] == [INSTALLED]

    def begin(self, files, **archives):
        """Makes these files, and archives copied from elsewhere, all that is beside the executable."""
        forget(self.installation)
        self._list.unlink(missing_ok=True)
        self._known = len(self.installation.log_text()), len(events(self.installation))
        write(self.bin, files)
        for path, name in archives.values():
            shutil.copy(path, self.bin / name)

    def run(self, *sanitizer_options, wrapper=(), **settings):
        environment = self._disturbed(*sanitizer_options, TEST_CHANGE_LIST=self._list, **settings)
        return self.installation.run("-i", env=environment, wrapper=wrapper)

    def calls(self):
        return self._list.read_text().split()

    def found(self):
        return tree(self.installation)

    def log(self):
        return self.installation.log_text()[self._known[0] :]

    def events(self):
        return [number for number, _, _ in events(self.installation)[self._known[1] :]]

    def said(self, outcome):
        """The numbers of the events of a run, stored or on record. One whose last sync fails may be both."""
        on_record = re.findall(r"event_number=(\d+)", self.log() + outcome.err)
        return {*self.events(), *map(int, on_record)}

    def disturb(self, begin, disturbance, **options):
        """Disturbs one call after the other, each in a run of its own; yields after each of these runs."""
        number = 0
        while True:
            number += 1
            begin()
            outcome = self.run(TEST_CHANGE=number, **disturbance, **options)
            calls = self.calls()
            if len(calls) < number:
                assert outcome.status == 0, outcome
                assert number > 10, f"there are only these calls: {calls}"
                return
            place = f"call {number} of {calls}"
            assert outcome.status == (0 if disturbance else -signal.SIGKILL), (place, outcome, self.log())
            yield place, outcome


@pytest.fixture
def scene(installation, disturbed):
    return Scene(installation, disturbed)


def check_disturbed_installation(scene, place, outcome, packed, disturbance):
    found = scene.found()
    for name in {*OLD, *NEW}:
        assert found.get(name) in (OLD.get(name), NEW.get(name)), (place, name)
    assert [found[name][0] for name in (SAMPLE, DONE) if name in found] == [packed], place
    if DONE in found or INSTALLED in scene.events():
        assert {name: found.get(name) for name in NEW} == NEW, place

    if disturbance:
        # The only call that renames by path is the one that gives the package its new name.
        was_unpacked = "rename" in scene.calls()
        assert scene.said(outcome) == {INSTALLED if was_unpacked else NOT_INSTALLED}, place
        assert SAMPLE not in found or "Error: " in scene.log() + outcome.err, place
    else:
        assert scene.said(outcome) <= {INSTALLED}, place
        assert DONE in found or scene.said(outcome) == set(), place


@pytest.mark.parametrize("disturbance", DISTURBANCES.values(), ids=DISTURBANCES)
def test_an_installation_that_is_disturbed_anywhere_converges(scene, disturbance):
    package = archive(scene.installation.root / "package", {"folder/": ("", FOLDERS["folder"][1]), **NEW})
    packed = package.read_bytes()

    for place, outcome in scene.disturb(lambda: scene.begin(OLD, package=(package, SAMPLE)), disturbance):
        check_disturbed_installation(scene, place, outcome, packed, disturbance)

        assert scene.run().status == 0, place

        found = scene.found()
        assert found.pop(DONE)[0] == packed, place
        assert found == {**OLD, **NEW, **FOLDERS}, place


@pytest.mark.parametrize("disturbance", DISTURBANCES.values(), ids=DISTURBANCES)
def test_a_removal_that_is_disturbed_anywhere_converges(scene, disturbance):
    marker = archive(scene.installation.root / "marker", {name: (b"", 0o600) for name in NEW})

    for place, outcome in scene.disturb(lambda: scene.begin({**OLD, **NEW}, marker=(marker, SAMPLE_MARKER)), disturbance):
        found = scene.found()
        for name, file in NEW.items():
            assert found.get(name) in (None, file), (place, name)
        # A file that cannot be deleted stays, and is on record; the removal goes on and counts.
        stuck = [name for name in NEW if f"File '{scene.bin / name}' couldn't be removed" in scene.log()]
        if SAMPLE_MARKER not in found:
            assert [name for name in NEW if name in found] == stuck, place
        assert scene.said(outcome) == {REMOVED} if disturbance else scene.said(outcome) <= {REMOVED}, place

        assert scene.run().status == 0, place

        left = {name: NEW[name] for name in stuck if SAMPLE_MARKER not in found}
        assert only_files(scene.found()) == {"stays.conf": OLD["stays.conf"], **left}, place


# Counted calls by the names that the kernel knows them by.
KERNEL_NAMES = {
    **dict.fromkeys(("open", "open64", "openat64"), "openat"),
    "ftruncate64": "ftruncate",
    "pwrite": "pwrite64",
    "remove": "unlink",
}

TRACED = "openat,write,pwrite64,writev,pwritev,ftruncate,fallocate,copy_file_range,sendfile,fsync,fdatasync,sync,syncfs,"
TRACED += "fchmod,fchmodat,chmod,fchown,fchownat,mkdir,mkdirat,rename,renameat,renameat2,link,linkat,symlink,symlinkat,"
TRACED += "unlink,unlinkat,rmdir,utimensat,mknodat"


def test_all_calls_that_change_files_are_disturbed(scene):
    package = archive(scene.installation.root / "package", NEW)
    marker = archive(scene.installation.root / "marker", {"code.lua": (b"", 0o600)})
    trace = scene.installation.root / "trace"
    scene.begin(OLD, package=(package, SAMPLE), marker=(marker, SAMPLE_MARKER))

    strace = ("strace", "-f", "-y", "-e", f"trace={TRACED}", "-e", "signal=none", "-o", trace)
    assert scene.run("detect_leaks=0", wrapper=strace).status == 0  # looking for leaks needs ptrace for itself

    made = []
    for name, arguments in re.findall(r"^\d+ +(\w+)\((.*)$", trace.read_text(), re.M):
        changes = not re.match(r"\d+<(?!/)", arguments)  # a pipe, a terminal
        if name == "openat":
            changes = re.search("O_CREAT|O_TRUNC", arguments)
        if changes and str(scene.installation.root / "calls") not in arguments:
            made.append(name)
    counted = [KERNEL_NAMES.get(name, name) for name in scene.calls()]
    assert len(counted) > 20
    assert made == counted

"""Plug-in packages are installed and removed, and every one is on record."""

import io
import os
import re
import shutil
import signal
import sqlite3
import time
import zipfile
from contextlib import closing

import pytest

from agentbox import AS_NOBODY, escaped, in_private_mounts, write_archive
from background import die, once_there
from packagebox import (
    INSTALLED,
    NOT_INSTALLED,
    NOT_OURS,
    NOT_READABLE,
    NOT_REMOVED,
    REMOVED,
    SAMPLE,
    SAMPLE_MARKER,
    damaged,
    event,
    events,
    plugins,
    put,
    run,
)

FILES = {"lib/sample.lua": "return 1\n", "sample.conf": "level=1\n"}
UNPACKED = {name: text.encode() for name, text in FILES.items()}


def is_missing(path):
    return f"File '{path}' couldn't be removed (error 2: No such file or directory)"


def archive_bytes(entries):
    """An archive that is to be an entry of another one."""
    return write_archive(io.BytesIO(), entries).getvalue()


# Installation.


def test_a_package_is_unpacked_renamed_and_on_record(installation):
    package = put(installation, SAMPLE, FILES)
    archive = package.read_bytes()

    assert run(installation) == "true"

    assert plugins(installation) == {SAMPLE + ".done": archive, **UNPACKED}
    assert events(installation) == [
        (INSTALLED, 6, f"Sample|Feature-Sample-11.0.0-1234.x86_64|{installation.bin}/{SAMPLE}"),
    ]
    assert installation.log_text() == ""


@pytest.mark.parametrize(
    "packages", [{}, {SAMPLE: b"no archive"}, {SAMPLE: {"../a": ""}}, {"Feature-Sample-10.0.0-1.x.kxp": {"a": ""}}], ids=str
)
def test_what_a_crash_left_goes_whatever_is_to_be_installed(installation, packages):
    for name, content in packages.items():
        put(installation, name, content)
    before = plugins(installation)
    for folder in ("", "lib/", "vel_core/", "work/"):
        path = installation.bin / folder / ".vel-unfinished-0123456789abcdef"
        path.parent.mkdir(exist_ok=True)
        path.write_text("half")

    run(installation)

    assert [path for path in installation.bin.rglob(".vel-unfinished-*")] == []
    assert plugins(installation).keys() >= before.keys()


def test_an_installed_package_is_not_installed_again(installation):
    put(installation, SAMPLE, FILES)
    run(installation)
    (installation.bin / "sample.conf").write_text("changed by the operator")

    assert run(installation) == "nil"

    assert (installation.bin / "sample.conf").read_text() == "changed by the operator"
    assert len(events(installation)) == 1


def test_without_the_option_nothing_is_touched(installation):
    put(installation, SAMPLE, FILES)
    put(installation, SAMPLE_MARKER, FILES)
    put(installation, "Agent-Core-11.0.0-1.x.kxp", FILES)
    before = plugins(installation)
    installation.write_app()

    assert installation.run().status == 0

    assert plugins(installation) == before
    assert events(installation) == []


@pytest.mark.parametrize("option", ["-i", "--install_plugins"])
def test_both_forms_of_the_option_install(installation, option):
    put(installation, SAMPLE, FILES)
    installation.write_app()

    assert installation.run(option).status == 0

    assert [number for number, _, _ in events(installation)] == [INSTALLED]


def test_without_packages_there_is_no_event_and_no_heartbeat(installation):
    assert run(installation) == "nil"

    assert events(installation) == []
    assert not (installation.work / "agent_events.db").exists()
    assert installation.log_text() == ""


@pytest.mark.parametrize(
    "name", ["Feature-Sample-10.5.0-1234.x86_64.kxp", "Feature-Sample-11.0.0-1234.kxp", "F-S-11.0.00-1.x.kxp"]
)
def test_a_package_of_another_version_stays_with_a_warning(installation, name):
    package = put(installation, name, FILES)
    archive = package.read_bytes()

    assert run(installation) == "true"

    assert plugins(installation) == {name: archive}
    assert events(installation) == [event(NOT_INSTALLED, package)]
    assert installation.log_lines() == ["Warning: " + NOT_OURS.format(package)]


@pytest.mark.parametrize("name", ["Sample.kxp", "Sample-1.kxp", "Sample-11.0.0-1.kxp", "a..kxp"])
def test_a_package_without_a_version_field_is_installed_unchecked(installation, name):
    package = put(installation, name, FILES)

    run(installation)

    assert set(plugins(installation)) == {name + ".done", *FILES}
    assert events(installation) == [event(INSTALLED, package)]


def test_no_domain_variable_moves_the_version_gate(installation):
    ours = put(installation, "A-Ours-11.0.0-1.x.kxp", FILES)
    other = put(installation, "B-Other-10.5.0-1.x.kxp", FILES)

    run(installation, "--domain_var", "app.version=10.5.0.1")

    assert events(installation) == [event(INSTALLED, ours), event(NOT_INSTALLED, other)]


def test_packages_go_by_their_whole_names(installation):
    names = ["b.x.kxp", "a.x.kxp", "a-1.kxp", "a.kxp", "B.kxp", "é.kxp", "[a].kxp"]
    packages = {name: put(installation, name, {"last": name}) for name in names}

    run(installation)

    order = ["B.kxp", "[a].kxp", "a-1.kxp", "a.kxp", "a.x.kxp", "b.x.kxp", "é.kxp"]
    assert events(installation) == [event(INSTALLED, packages[name]) for name in order]
    assert (installation.bin / "last").read_text() == "é.kxp"


def test_only_files_of_the_pattern_are_packages(installation):
    names = ["a.KXP", "a.kxp.old", "a.kxpx", ".a.kxp", ".kxp", "below/a.kxp", "a.KXU", ".a.kxu"]
    (installation.bin / "below").mkdir()
    for name in names:
        put(installation, name, FILES)
    (installation.bin / "folder.kxp").mkdir()
    (installation.bin / "folder.kxu").mkdir()
    (installation.bin / "link.kxp").symlink_to("below")

    assert run(installation) == "nil"

    assert set(plugins(installation)) == {*names, "folder.kxp", "folder.kxu", "link.kxp"}
    assert events(installation) == []


def test_a_link_to_a_package_is_a_package(installation):
    archive = write_archive(installation.root / "elsewhere.zip", FILES)
    link = installation.bin / SAMPLE
    link.symlink_to(archive)

    run(installation)

    assert events(installation) == [event(INSTALLED, link)]
    assert plugins(installation) == {SAMPLE + ".done": f"-> {archive}", **UNPACKED}
    assert archive.exists()


def test_the_event_has_the_time_of_the_installation(installation):
    put(installation, SAMPLE, FILES)
    begin = time.time_ns() // 1_000_000

    run(installation)

    end = time.time_ns() // 1_000_000
    with closing(sqlite3.connect(installation.work / "agent_events.db")) as database:
        ((seconds, millis),) = database.execute("SELECT time_s, time_ms FROM agent_event").fetchall()
    assert begin <= millis <= end
    assert seconds == millis // 1000


def test_the_packages_are_those_of_the_domains_folder(installation):
    put(installation, "Here.kxp", FILES)
    other = installation.root / "other"
    other.mkdir()
    package = write_archive(other / "There.kxp", FILES)

    run(installation, "--domain_var", f"app.path.bin={other}/")

    assert events(installation) == [event(INSTALLED, package)]
    assert set(plugins(installation)) == {"Here.kxp"}
    assert (other / "sample.conf").exists()


@pytest.mark.parametrize("place", ["/nonexistent", ""])
def test_a_folder_that_is_not_there_ends_the_run_quietly(installation, place):
    put(installation, SAMPLE, FILES)
    unfinished = installation.bin / ".vel-unfinished-0123456789abcdef"
    unfinished.write_text("half")

    assert run(installation, "--domain_var", f"app.path.bin={place}", cwd=installation.bin) == "nil"

    assert events(installation) == []
    assert installation.log_text() == ""
    assert set(plugins(installation)) == {SAMPLE, unfinished.name}


def test_a_folder_that_cannot_be_listed_ends_the_run_without_a_heartbeat(public_installation):
    installation = public_installation
    put(installation, SAMPLE, FILES)
    installation.bin.chmod(0o711)

    heartbeat = run(installation, "--workdir", installation.home / "work", workdir=False, wrapper=AS_NOBODY)

    assert heartbeat == "nil"
    assert events(installation, installation.home / "work") == []
    assert set(plugins(installation)) == {SAMPLE}


# Files of the agent's core.

CORE_NAMES = ["Agent-Core-11.0.0-1234.x86_64.kxp", "Agent-Core.kxp", "Agent-Core", "Agent-Core-1.kxp.done", "Agent-Cores.txt"]


def test_core_packages_are_deleted_and_never_installed(installation):
    for name in CORE_NAMES:
        put(installation, name, FILES)
    put(installation, "agent-core.txt", b"")

    assert run(installation) == "nil"

    assert set(plugins(installation)) == {"agent-core.txt"}
    assert events(installation) == []
    assert installation.log_text() == ""


def test_core_packages_are_deleted_beside_others(installation):
    for name in CORE_NAMES:
        put(installation, name, {"core": "x"})
    package = put(installation, SAMPLE, FILES)

    assert run(installation) == "true"

    assert set(plugins(installation)) == {SAMPLE + ".done", *FILES}
    assert events(installation) == [event(INSTALLED, package)]


def test_of_core_links_only_the_link_goes_and_folders_stay(installation):
    target = installation.root / "target"
    target.mkdir()
    (target / "file").write_text("precious")
    (installation.bin / "Agent-Core-link").symlink_to(target / "file")
    (installation.bin / "Agent-Core-dangling").symlink_to("nowhere")
    (installation.bin / "Agent-Core-folderlink").symlink_to(target)
    (installation.bin / "Agent-Core-folder").mkdir()

    run(installation)

    assert plugins(installation) == {"Agent-Core-folder": "d", "Agent-Core-folderlink": f"-> {target}"}
    assert (target / "file").read_text() == "precious"
    assert installation.log_text() == ""


def test_core_markers_are_walked_before_they_are_deleted(installation):
    good = put(installation, "Agent-Core.kxu", {"old.conf": ""})
    bad = put(installation, "Agent-Core-2.kxu", b"no archive")
    (installation.bin / "old.conf").write_text("")

    assert run(installation) == "true"

    assert plugins(installation) == {}
    assert events(installation) == [event(NOT_REMOVED, bad), event(REMOVED, good)]


def busy(*paths):
    """A wrapper under which these files cannot be deleted or renamed."""
    return in_private_mounts(" && ".join(f'mount --bind "{path}" "{path}"' for path in paths) + ' && "$@"')


def test_a_core_file_that_cannot_be_deleted_does_not_stop_the_run(installation):
    core = put(installation, "Agent-Core-1.kxp.done", b"")
    package = put(installation, SAMPLE, FILES)

    assert run(installation, wrapper=busy(core)) == "true"

    assert core.exists()
    assert events(installation) == [event(INSTALLED, package)]
    assert installation.log_lines() == [f"Error: File '{core}' couldn't be removed (error 16: Device or resource busy)"]


# Packages that cannot be read or unpacked.


def expect_not_installed(installation, package, **options):
    """A run in which this package fails, and one beside it does not."""
    good = put(installation, "Z-Good-11.0.0-1.x.kxp", {"good": ""})

    assert run(installation, **options) == "true"

    assert events(installation) == [event(NOT_INSTALLED, package), event(INSTALLED, good)]
    assert package.is_symlink() or package.exists()
    assert (installation.bin / "good").exists()


def test_a_damaged_package_is_on_record_and_stays_with_what_came_before_the_damage(installation):
    package = damaged(put(installation, SAMPLE, {"first": "1" * 100, "second": "2" * 100, "third": "3"}), "second")
    archive = package.read_bytes()

    expect_not_installed(installation, package)

    assert plugins(installation) == {
        SAMPLE: archive,
        "first": b"1" * 100,
        "good": b"",
        "Z-Good-11.0.0-1.x.kxp.done": (installation.bin / "Z-Good-11.0.0-1.x.kxp.done").read_bytes(),
    }
    (record,) = installation.log_lines()
    assert record.startswith("Error: ") and str(package) in record and "second" in record, record


@pytest.mark.parametrize("archive", [b"", b"no archive", b"PK\x03\x04" + bytes(100)], ids=["empty", "text", "cut"])
def test_what_is_no_archive_is_on_record_and_stays(installation, archive):
    package = put(installation, SAMPLE, archive)

    expect_not_installed(installation, package)

    assert package.read_bytes() == archive
    (record,) = installation.log_lines()
    assert record.startswith("Error: ") and str(package) in record, record


def test_an_archive_without_entries_is_installed(installation):
    package = put(installation, SAMPLE, {})

    run(installation)

    assert events(installation) == [event(INSTALLED, package)]
    assert set(plugins(installation)) == {SAMPLE + ".done"}


def test_a_dangling_link_is_not_readable(installation):
    package = installation.bin / SAMPLE
    package.symlink_to("nowhere")

    expect_not_installed(installation, package)

    assert installation.log_lines() == ["Warning: " + NOT_READABLE.format(package)]


@pytest.mark.parametrize("name, number", [(SAMPLE, NOT_INSTALLED), (SAMPLE_MARKER, NOT_REMOVED)])
def test_what_the_user_may_not_read_is_on_record_and_stays(public_installation, name, number):
    installation = public_installation
    path = put(installation, name, FILES)
    path.chmod(0)
    work = installation.home / "work"

    assert run(installation, "--workdir", work, workdir=False, wrapper=AS_NOBODY) == "true"

    assert events(installation, work) == [event(number, path)]
    assert installation.log_lines(work=work) == ["Warning: " + NOT_READABLE.format(path)]
    assert set(plugins(installation)) == {name}


def test_root_needs_no_permission_to_read_a_package(installation):
    package = put(installation, SAMPLE, FILES)
    package.chmod(0)

    run(installation)

    assert events(installation) == [event(INSTALLED, package)]
    assert (installation.bin / (SAMPLE + ".done")).stat().st_mode & 0o777 == 0


@pytest.mark.parametrize("name, number", [(SAMPLE, NOT_INSTALLED), (SAMPLE_MARKER, NOT_REMOVED)])
def test_a_pipe_does_not_block_the_run(installation, name, number):
    path = installation.bin / name
    os.mkfifo(path)

    assert run(installation) == "true"

    assert events(installation) == [event(number, path)]
    (record,) = installation.log_lines()
    assert record.startswith("Error: ") and str(path) in record, record
    assert plugins(installation) == {name: "p"}


def test_a_failed_package_is_tried_again_by_the_next_run(installation):
    package = put(installation, SAMPLE, b"cut")
    run(installation)
    put(installation, SAMPLE, FILES)

    assert run(installation) == "true"

    assert events(installation) == [event(NOT_INSTALLED, package), event(INSTALLED, package)]
    assert set(plugins(installation)) == {SAMPLE + ".done", *FILES}


# The name of an installed package.


def test_an_older_done_file_is_replaced(installation):
    put(installation, SAMPLE + ".done", b"older")
    archive = put(installation, SAMPLE, FILES).read_bytes()

    run(installation)

    assert (installation.bin / (SAMPLE + ".done")).read_bytes() == archive
    assert not (installation.bin / SAMPLE).exists()


def test_a_link_with_the_done_name_is_replaced_and_not_followed(installation):
    target = installation.root / "target"
    target.write_text("precious")
    (installation.bin / (SAMPLE + ".done")).symlink_to(target)
    archive = put(installation, SAMPLE, FILES).read_bytes()

    run(installation)

    assert plugins(installation) == {SAMPLE + ".done": archive, **UNPACKED}
    assert target.read_text() == "precious"


def test_a_package_that_keeps_its_name_counts_as_installed_and_is_installed_again(installation):
    package = put(installation, SAMPLE, FILES)
    obstacle = installation.bin / (SAMPLE + ".done")
    obstacle.mkdir()
    message = f"Error: Unable to delete {package} (error 21: Is a directory)"

    assert run(installation) == "true"
    assert events(installation) == [event(INSTALLED, package)]
    assert installation.log_lines() == [message]
    assert package.exists() and (installation.bin / "sample.conf").exists()

    assert run(installation) == "true"
    obstacle.rmdir()
    assert run(installation) == "true"

    assert events(installation) == [event(INSTALLED, package)] * 3
    assert installation.log_lines() == [message] * 2
    assert not package.exists()


def test_a_package_that_cannot_be_renamed_says_why(installation):
    package = put(installation, SAMPLE, FILES)

    assert run(installation, wrapper=busy(package)) == "true"

    assert events(installation) == [event(INSTALLED, package)]
    assert installation.log_lines() == [f"Error: Unable to delete {package} (error 16: Device or resource busy)"]


# Names.

ODD_NAMES = [
    "it's \"quoted\"",
    "100%s%n%d-%s-1",
    "two\nlines\t\r\x1b[2J",
    "2026-11-20 12:34:56 [1] Error: forged\n2026-11-20 12:34:56 [1] Error: forged",
    "größe-日本",
    os.fsdecode(b"\xff\xfe-\xc3(-\x80"),
    "-",
    "--",
    "a b;c|d&e$(f)`g`*?[h]~",
    "back\\slash",
    "x" * 246,  # the longest that ".done" fits behind
]


@pytest.mark.parametrize("name", ODD_NAMES, ids=range(len(ODD_NAMES)))
@pytest.mark.parametrize("locale", ["C.UTF-8", "C"])
def test_a_package_may_have_any_name(installation, name, locale):
    package = put(installation, name + ".kxp", FILES)

    run(installation, "-t", "Appl", env={"LANG": locale})

    assert events(installation) == [event(INSTALLED, package)]
    assert set(plugins(installation)) == {name + ".kxp.done", *FILES}
    assert escaped(f"Extracting files from {package}") in installation.traces()


@pytest.mark.parametrize("name", ODD_NAMES, ids=range(len(ODD_NAMES)))
@pytest.mark.parametrize("locale", ["C.UTF-8", "C"])
def test_a_removal_marker_may_have_any_name(installation, name, locale):
    marker = put(installation, name + ".kxu", {"old": ""})
    (installation.bin / "old").write_text("")

    run(installation, "-t", "Appl", env={"LANG": locale})

    assert events(installation) == [event(REMOVED, marker)]
    assert plugins(installation) == {}
    assert escaped(f"Removing files from {marker}") in installation.traces()


@pytest.mark.parametrize("name", ODD_NAMES, ids=range(len(ODD_NAMES)))
def test_warnings_show_any_name(installation, name):
    package = installation.bin / (name + ".kxp")
    package.symlink_to("nowhere")
    marker = installation.bin / (name + ".kxu")
    marker.symlink_to("nowhere")
    other = put(installation, name[:200] + "-1.0.0-1.x.kxp", FILES)

    run(installation)

    by_name = sorted([package, other], key=lambda path: [ord(c) for c in path.name])
    assert events(installation) == [event(NOT_REMOVED, marker)] + [event(NOT_INSTALLED, path) for path in by_name]
    warnings = {marker: NOT_READABLE, package: NOT_READABLE, other: NOT_OURS}
    assert installation.log_lines() == [
        "Warning: " + escaped(warnings[path].format(path)) for path in [marker, *by_name]
    ]


def test_a_package_whose_name_leaves_no_room_for_done_is_installed_each_time(installation):
    package = put(installation, "x" * 251 + ".kxp", FILES)

    assert run(installation) == "true"

    assert set(plugins(installation)) == {package.name, *FILES}
    assert events(installation) == [event(INSTALLED, package)]
    assert installation.log_lines() == [f"Error: Unable to delete {package} (error 36: File name too long)"]


# Removal.


def unpack(installation, files=None):
    """The files of a plug-in, as a package has brought them."""
    for name, text in (FILES if files is None else files).items():
        path = installation.bin / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)


def test_a_removal_marker_deletes_the_files_it_lists_and_itself(installation):
    unpack(installation)
    unpack(installation, {"lib/other.lua": "stays"})
    marker = put(installation, SAMPLE_MARKER, FILES)

    assert run(installation) == "true"

    assert plugins(installation) == {"lib/other.lua": b"stays"}
    assert events(installation) == [(REMOVED, 6, f"Sample|Feature-Sample-11.0.0-1234.x86_64|{marker}")]
    assert installation.log_text() == ""


def test_folders_that_become_empty_stay(installation):
    unpack(installation)
    put(installation, SAMPLE_MARKER, FILES)

    run(installation)

    assert (installation.bin / "lib").is_dir()
    assert not (installation.bin / "lib/sample.lua").exists()


def test_what_is_listed_and_not_there_does_not_fail_the_removal(installation):
    unpack(installation)
    marker = put(installation, SAMPLE_MARKER, {"missing": "", "lib/missing": "", **FILES, "no/such/folder": ""})

    assert run(installation) == "true"

    assert events(installation) == [event(REMOVED, marker)]
    assert not marker.exists() and not (installation.bin / "sample.conf").exists()
    assert installation.log_lines() == [
        "Error: " + is_missing(installation.bin / name) for name in ("missing", "lib/missing", "no/such/folder")
    ]


def test_a_folder_that_is_listed_stays_and_the_removal_counts(installation):
    unpack(installation, {"empty/file": "", "full/file": ""})
    marker = put(installation, SAMPLE_MARKER, {"empty/": "", "empty/file": "", "full/": ""})

    assert run(installation) == "true"

    assert events(installation) == [event(REMOVED, marker)]
    assert plugins(installation) == {"empty": "d", "full/file": b""}
    assert installation.log_lines("Error") == [
        f"File '{installation.bin / name}' couldn't be removed (error 21: Is a directory)" for name in ("empty", "full")
    ]


def test_a_link_that_is_listed_goes_and_its_target_stays(installation):
    target = installation.root / "target"
    target.write_text("precious")
    (installation.bin / "link").symlink_to(target)
    marker = put(installation, SAMPLE_MARKER, {"link": ""})

    run(installation)

    assert events(installation) == [event(REMOVED, marker)]
    assert plugins(installation) == {}
    assert target.read_text() == "precious"


@pytest.mark.parametrize("name", ["Feature-Sample-10.5.0-1234.x86_64.kxu", "Feature-Sample-11.0.0-1234.kxu", "x.kxu"])
def test_removal_asks_for_no_version(installation, name):
    unpack(installation)
    marker = put(installation, name, FILES)

    run(installation)

    assert events(installation) == [event(REMOVED, marker)]
    assert not (installation.bin / "sample.conf").exists()


def test_the_bodies_of_a_removal_marker_are_not_read(installation):
    unpack(installation, {"first": "", "second": ""})
    marker = damaged(put(installation, SAMPLE_MARKER, {"first": "1" * 100, "second": "2" * 100}), "first")

    run(installation)

    assert events(installation) == [event(REMOVED, marker)]
    assert plugins(installation) == {}
    assert installation.log_text() == ""


@pytest.mark.parametrize("archive", [b"", b"no archive", b"PK\x03\x04" + bytes(100)], ids=["empty", "text", "cut"])
def test_a_marker_that_is_no_archive_is_on_record_and_deletes_nothing(installation, archive):
    unpack(installation)
    marker = put(installation, "A.kxu", archive)
    good = put(installation, "B.kxu", {"good": ""})
    (installation.bin / "good").write_text("")

    assert run(installation) == "true"

    assert events(installation) == [event(NOT_REMOVED, marker), event(REMOVED, good)]
    assert plugins(installation) == {"A.kxu": archive, **UNPACKED}
    (record,) = installation.log_lines()
    assert record.startswith("Error: ") and str(marker) in record, record


def test_a_marker_that_is_a_dangling_link_is_not_readable(installation):
    marker = installation.bin / SAMPLE_MARKER
    marker.symlink_to("nowhere")

    assert run(installation) == "true"

    assert events(installation) == [event(NOT_REMOVED, marker)]
    assert installation.log_lines() == ["Warning: " + NOT_READABLE.format(marker)]
    assert set(plugins(installation)) == {SAMPLE_MARKER}


def test_a_marker_that_cannot_be_deleted_counts_as_removed_and_is_walked_again(installation):
    unpack(installation)
    marker = put(installation, SAMPLE_MARKER, {"sample.conf": ""})

    assert run(installation, wrapper=busy(marker)) == "true"
    assert events(installation) == [event(REMOVED, marker)]
    assert installation.log_lines() == [f"Error: Unable to delete {marker} (error 16: Device or resource busy)"]
    assert set(plugins(installation)) == {SAMPLE_MARKER, "lib/sample.lua"}

    assert run(installation) == "true"
    assert events(installation) == [event(REMOVED, marker)] * 2
    assert set(plugins(installation)) == {"lib/sample.lua"}


def test_a_plugin_is_replaced_in_one_start(installation):
    unpack(installation, {"old.conf": "old", "sample.conf": "old"})
    marker = put(installation, SAMPLE_MARKER, {"old.conf": "", "sample.conf": ""})
    package = put(installation, SAMPLE, FILES)

    assert run(installation) == "true"

    assert events(installation) == [event(REMOVED, marker), event(INSTALLED, package)]
    assert set(plugins(installation)) == {SAMPLE + ".done", *FILES}
    assert (installation.bin / "sample.conf").read_text() == FILES["sample.conf"]


def test_a_marker_alone_asks_for_a_heartbeat_also_when_it_fails(installation):
    put(installation, SAMPLE_MARKER, b"no archive")

    assert run(installation) == "true"


def test_what_comes_out_of_a_package_is_looked_at_by_the_next_start(installation):
    inner = {"Inner.kxp": archive_bytes({"inner.conf": ""}), "Inner.kxu": archive_bytes({"sample.conf": ""})}
    package = put(installation, SAMPLE, {**FILES, **inner})

    run(installation)
    assert events(installation) == [event(INSTALLED, package)]
    assert {*FILES, *inner} < set(plugins(installation))

    run(installation)
    assert events(installation)[1:] == [
        event(REMOVED, installation.bin / "Inner.kxu"),
        event(INSTALLED, installation.bin / "Inner.kxp"),
    ]
    assert set(plugins(installation)) == {SAMPLE + ".done", "Inner.kxp.done", "lib/sample.lua", "inner.conf"}


def test_a_package_that_brings_a_file_of_its_own_name_ends_all_the_same(installation):
    package = put(installation, SAMPLE, {SAMPLE: "not an archive", **FILES})

    run(installation)

    assert events(installation) == [event(INSTALLED, package)]
    assert plugins(installation) == {SAMPLE + ".done": b"not an archive", **UNPACKED}


def test_a_marker_that_lists_itself_is_gone_once(installation):
    unpack(installation)
    marker = put(installation, SAMPLE_MARKER, {SAMPLE_MARKER: "", **FILES})

    run(installation)

    assert events(installation) == [event(REMOVED, marker)]
    assert not marker.exists() and not (installation.bin / "sample.conf").exists()
    assert installation.log_lines() == [f"Error: Unable to delete {marker} (error 2: No such file or directory)"]


# Archives that want out.

ESCAPES = ["../outside", "lib/../../outside", "lib/../sample.conf", "/{root}/outside", "..\\outside", "C:/outside", "C:outside", ".."]


def write_hostile(path, name):
    """An archive with one good entry on either side of the hostile name, which goes in as it is."""
    with zipfile.ZipFile(path, "w") as archive:
        archive.writestr("before", "")
        information = zipfile.ZipInfo("x")
        information.filename = name
        archive.writestr(information, "hostile")
        archive.writestr("behind", "")
    return path


@pytest.mark.parametrize("escape", ESCAPES)
def test_a_package_that_wants_out_is_refused_whole(installation, escape):
    name = escape.format(root=installation.root)
    package = write_hostile(installation.bin / SAMPLE, name)
    archive = package.read_bytes()

    expect_not_installed(installation, package)

    assert set(plugins(installation)) == {SAMPLE, "good", "Z-Good-11.0.0-1.x.kxp.done"}
    assert package.read_bytes() == archive
    assert not (installation.root / "outside").exists()
    (record,) = installation.log_lines()
    assert record.startswith("Error: ") and str(package) in record and name in record, record


@pytest.mark.parametrize("escape", ESCAPES)
def test_a_marker_that_wants_out_deletes_nothing(installation, escape):
    name = escape.format(root=installation.root)
    beside = [installation.bin / each for each in ("before", "behind", "sample.conf", "outside")]
    victims = [installation.root / "outside", *beside]
    for victim in victims:
        victim.write_text("precious")
    (installation.bin / "lib").mkdir(exist_ok=True)
    marker = write_hostile(installation.bin / SAMPLE_MARKER, name)

    assert run(installation) == "true"

    assert events(installation) == [event(NOT_REMOVED, marker)]
    assert [victim for victim in victims if not victim.exists()] == []
    assert marker.exists()
    (record,) = installation.log_lines()
    assert record.startswith("Error: ") and str(marker) in record and name in record, record


@pytest.mark.parametrize("name, number", [(SAMPLE, NOT_INSTALLED), (SAMPLE_MARKER, NOT_REMOVED)])
@pytest.mark.parametrize("depth", ["", "below/"], ids=["beside", "below"])
def test_an_archive_that_leads_through_a_link_is_refused_whole(installation, name, number, depth):
    outside = installation.root / "outside"
    outside.mkdir()
    (outside / "file").write_text("precious")
    (installation.bin / depth).mkdir(exist_ok=True)
    (installation.bin / depth / "link").symlink_to(outside)
    unpack(installation, {"before": "precious"})
    path = put(installation, name, {"before": "new", f"{depth}link/file": "hostile", "behind": ""})

    assert run(installation) == "true"

    assert events(installation) == [event(number, path)]
    assert path.exists()
    assert {each.name: each.read_text() for each in outside.iterdir()} == {"file": "precious"}
    assert (installation.bin / "before").read_text() == "precious"
    assert not (installation.bin / "behind").exists()


# Events.


def test_a_package_whose_event_cannot_be_stored_is_on_record_in_the_log(installation):
    package = put(installation, "100%s-a\nb.kxp", FILES)
    marker = put(installation, SAMPLE_MARKER, {"old": ""})
    (installation.bin / "old").write_text("")
    (installation.work / "agent_events.db").mkdir(parents=True)

    assert run(installation) == "true"

    for number, path in ((REMOVED, marker), (INSTALLED, package)):
        number, severity, text = event(number, path)
        begin = f"event_number={number}, severity={severity}, "
        records = [line for line in installation.log_lines("Error") if begin in line]
        assert len(records) == 1 and records[0].endswith(escaped(f"description={text}")), records
    assert set(plugins(installation)) == {package.name + ".done", *FILES}


def test_events_are_stored_when_the_agent_is_killed_right_after(installation):
    package = put(installation, SAMPLE, FILES)
    marker = put(installation, SAMPLE_MARKER, {})
    installation.write_app(top=die(signal.SIGKILL))

    assert installation.run("-i").status == -signal.SIGKILL

    assert events(installation) == [event(REMOVED, marker), event(INSTALLED, package)]


# What the run traces.


def traced(installation):
    """What the installation and the removal have traced, as `function: text`."""
    matches = [re.match(r"Appl: (\w*Plugin\w*) \([\w.]+:\d+\): (.*)", text) for text in installation.log_lines("Trace")]
    return [f"{match[1]}: {match[2]}" for match in matches if match]


def test_installation_is_traced(installation):
    package = put(installation, SAMPLE, {"lib/": "", "lib/a%d.lua": "12345", "empty": ""})

    run(installation, "-t", "Appl")

    assert traced(installation) == [
        f"InstallNewPlugins: Extracting files from {package}",
        "InstallPluginZipCB:   extracting: lib (0 bytes)",
        "InstallPluginZipCB:   extracting: lib/a%d.lua (5 bytes)",
        "InstallPluginZipCB:   extracting: empty (0 bytes)",
        "InstallNewPlugins: Successfully extracted files for plugin 'Feature-Sample-11.0.0-1234.x86_64'. "
        f"Deleting '{package}'",
    ]


def test_removal_is_traced(installation):
    marker = put(installation, SAMPLE_MARKER, {"lib/": "", "lib/a%d.lua": "12345", "missing": ""})
    unpack(installation, {"lib/a%d.lua": ""})

    run(installation, "-t", "Appl")

    assert traced(installation) == [
        f"UninstallOldPlugins: Removing files from {marker}",
        "UninstallPluginZipCB:   removing: lib (0 bytes)",
        "UninstallPluginZipCB:   removing: lib/a%d.lua (5 bytes)",
        "UninstallPluginZipCB:   removing: missing (0 bytes)",
        "UninstallOldPlugins: Successfully removed files for plugin 'Feature-Sample-11.0.0-1234.x86_64'. "
        f"Deleting '{marker}'",
    ]


def test_a_refused_package_is_not_said_to_be_extracted(installation):
    put(installation, "Feature-Sample-10.5.0-1234.x86_64.kxp", FILES)
    (installation.bin / "x.kxp").symlink_to("nowhere")

    run(installation, "-t", "Appl")

    assert traced(installation) == []


# What follows in the same start.


def extension(module, text):
    """The bytes of an extension with one module, and of its version file."""
    return {f"ext/{module}.kxe": archive_bytes({f"{module}.lua": text}), f"ext/{module}.kxe.version": "version: 11.0.0-1\n"}


def test_an_extension_is_found_in_the_start_that_installs_it(installation):
    put(installation, SAMPLE, extension("fresh", "return 'fresh'"))

    run(installation, "-e", "ext", main="assert(require('fresh') == 'fresh')")


def test_an_extension_is_gone_in_the_start_that_removes_it(installation):
    put(installation, SAMPLE, extension("stale", "return 'stale'"))
    run(installation, "-e", "ext", main="assert(require('stale'))")
    put(installation, SAMPLE_MARKER, {"ext/stale.kxe": "", "ext/stale.kxe.version": ""})

    run(installation, "-e", "ext", main="assert(not pcall(require, 'stale'))")


def test_the_application_may_come_out_of_a_package(installation):
    text = "return { main = function() print('installed') end }"
    put(installation, SAMPLE, {f"vel_core/{installation.name}.kxe": archive_bytes({f"{installation.name}.lua": text})})

    outcome = installation.run("-i")

    assert (outcome.status, outcome.out, outcome.err) == (0, "installed\n", "")


# As a service.


def test_the_worker_of_a_service_installs_and_removes(installation):
    package = put(installation, SAMPLE, FILES)
    marker = put(installation, SAMPLE_MARKER, {"old": ""})
    (installation.bin / "old").write_text("")

    agent = installation.start_in_background("-i", main="dom:Log('message', tostring(dom:Get('vel.HeartbeatNow')))")
    agent.record("Message: true")

    assert events(installation) == [event(REMOVED, marker), event(INSTALLED, package)]
    assert set(plugins(installation)) == {SAMPLE + ".done", *FILES}
    assert agent.stop() == 0


def test_each_worker_tries_a_failed_package_again(installation):
    package = put(installation, SAMPLE, b"cut")
    repaired = installation.root / "repaired"
    init = f"if not io.open('{repaired}') then {once_there(repaired)} {die(signal.SIGKILL)} end "

    agent = installation.start_in_background("-i", init=init)
    first = agent.worker_in("init")
    assert events(installation) == [event(NOT_INSTALLED, package)]
    shutil.copy(write_archive(installation.root / "whole.zip", FILES), package)
    repaired.write_text("")
    agent.worker_in("main", other_than=(first,))

    assert events(installation) == [event(NOT_INSTALLED, package), event(INSTALLED, package)]
    assert set(plugins(installation)) == {SAMPLE + ".done", *FILES}
    assert agent.stop() == 0

"""What authors build with kx-pack, and what it tells them about the agent's decisions."""

import io
import itertools
import os
import re
import shutil
import socket
import stat
import struct
import zipfile

import pytest

from agentbox import BUILD, UNPRIVILEGED, escaped, write_archive
from packagebox import INSTALLED, NOT_INSTALLED, NOT_REMOVED, REMOVED, events, run
from packbox import DONE, FAILED, KX_PACK, REFUSED, built, kx_pack, verdicts

NAME = "Feature-Sample-11.0.0-1.any"


@pytest.fixture
def source(tmp_path):
    """A folder of files to pack."""
    folder = tmp_path / "source"
    (folder / "sub").mkdir(parents=True)
    (folder / "program").write_text("#!/bin/sh\n")
    (folder / "program").chmod(0o755)
    (folder / "sub" / "text").write_text("text\n" * 100)
    (folder / "empty").mkdir()
    return folder


@pytest.fixture
def lua_source(tmp_path):
    folder = tmp_path / "lua_source"
    (folder / "greet").mkdir(parents=True)
    (folder / "greet.lua").write_text("return 'hello'\n")
    (folder / "greet" / "german.lua").write_text("return 'guten Tag'\n")
    (folder / "notes.txt").write_text("not for the archive\n")
    return folder


def failure(text, status=FAILED):
    return status, "", f"kx-pack: {text}\n"


def seen(outcome):
    return outcome.status, outcome.out, outcome.err


# Packages.


def test_package_holds_the_files_of_the_folder(source, tmp_path):
    assert built("plugin", source, "--name", "Sample", cwd=tmp_path) == f"{NAME}.kxp\n"

    with zipfile.ZipFile(tmp_path / f"{NAME}.kxp") as archive:
        modes = {entry.filename: stat.filemode(entry.external_attr >> 16) for entry in archive.infolist()}
        assert archive.read("sub/text") == b"text\n" * 100
        assert archive.testzip() is None
    assert list(modes.items()) == [("empty/", "drwxr-xr-x"), ("program", "-rwxr-xr-x"), ("sub/text", "-rw-r--r--")]


@pytest.mark.parametrize(
    "words, name",
    [
        (("--name", "A"), "Feature-A-11.0.0-1.any.kxp"),
        (("-n", "A", "-b", "77"), "Feature-A-11.0.0-77.any.kxp"),
        (("--name=A", "--kind=Policy", "--suffix=x86_64"), "Policy-A-11.0.0-1.x86_64.kxp"),
        (("-nA", "--agent-version", "12.1.0"), "Feature-A-12.1.0-1.any.kxp"),
        (("-o", "other.kxp"), "other.kxp"),
        (("-o", "sub.kxp"), "sub.kxp"),
    ],
)
def test_package_is_named_by_its_parts(source, tmp_path, words, name):
    built("plugin", source, *words, cwd=tmp_path)

    assert [path.name for path in tmp_path.glob("*.kxp")] == [name]


def test_output_may_be_a_folder(source, tmp_path):
    (tmp_path / "out.kxp").mkdir()

    assert built("plugin", source, "-n", "Sample", "-o", "out.kxp", cwd=tmp_path) == f"out.kxp/{NAME}.kxp\n"
    assert built("removal", f"out.kxp/{NAME}.kxp", "-o", "out.kxp", cwd=tmp_path) == f"out.kxp/{NAME}.kxu\n"
    assert sorted(os.listdir(tmp_path / "out.kxp")) == [f"{NAME}.kxp", f"{NAME}.kxu"]


def test_equal_contents_give_equal_packages(source, tmp_path):
    copy = tmp_path / "copy"
    shutil.copytree(source, copy)
    for path in sorted(copy.rglob("*"), reverse=True):
        os.utime(path, (1, 1))
    (copy / "sub" / "text").chmod(0o600)

    built("plugin", source, "-o", "one.kxp", cwd=tmp_path)
    built("plugin", copy, "-o", "two.kxp", cwd=tmp_path, env={"TZ": "America/New_York", "LC_ALL": "C"}, umask=0o077)

    assert (tmp_path / "one.kxp").read_bytes() == (tmp_path / "two.kxp").read_bytes()


@pytest.mark.parametrize(
    "words, text",
    [
        ((), "the plug-in needs a name: --name NAME, or -o FILE.kxp"),
        (("-n", "a-b"), "the name 'a-b' has to consist of letters, digits, '_' and '+'"),
        (("-n", "A", "-b", "x"), "the build number 'x' has to consist of digits"),
        (("-n", "A", "-o", "nowhere"), "'nowhere' is neither a folder nor a name that ends in .kxp"),
        (("-n", "A", "-o", "a.kxp"), "--name is of no use beside -o 'a.kxp'"),
        (("-o", "nowhere/a.kxp"), "cannot write 'nowhere/a.kxp': No such file or directory"),
    ],
)
def test_package_without_a_proper_name_is_a_failure(source, tmp_path, words, text):
    assert seen(kx_pack("plugin", source, *words, cwd=tmp_path)) == failure(text)
    assert os.listdir(tmp_path) == ["source"]


@pytest.mark.parametrize(
    "name, reason",
    [
        (".hidden.kxp", "the agent does not look at hidden files"),
        ("Agent-Core-11.0.0-1.any.kxp", "the agent deletes packages whose names begin with 'Agent-Core'"),
        ("A-B-10.0.0-1.any.kxp", "the agent's version, 11.0.0, does not stand in front of the build number"),
        ("A-B-11.0.0-1.kxp", "the agent's version, 11.0.0, does not stand in front of the build number"),
        ("n" * 247 + ".kxp", "with '.done' behind it, it would be longer than 255 bytes"),
    ],
)
def test_package_name_that_the_agent_would_refuse_is_refused(source, tmp_path, name, reason):
    outcome = kx_pack("plugin", source, "-o", name, cwd=tmp_path)

    assert seen(outcome) == failure(f"'{name}' is no name for a package: {reason}", REFUSED)


def make_link(path):
    path.symlink_to("program")


def make_socket(path):
    with socket.socket(socket.AF_UNIX) as unix:
        unix.bind(str(path))


@pytest.mark.parametrize(
    "make, name, reason",
    [
        (make_link, "link", "it is a symbolic link"),
        (os.mkfifo, "pipe", "it is neither a regular file nor a folder"),
        (make_socket, "socket", "it is neither a regular file nor a folder"),
        (lambda path: path.write_text(""), "back\\slash", "the agent would refuse its name: the name contains a backslash"),
        (lambda path: path.write_text(""), "c:drive", "the agent would refuse its name: the name begins with a drive letter"),
    ],
    ids=["link", "pipe", "socket", "backslash", "drive"],
)
def test_file_that_the_agent_would_not_create_is_refused(source, tmp_path, make, name, reason):
    make(source / name)

    outcome = kx_pack("plugin", "source", "-n", "A", cwd=tmp_path)

    assert seen(outcome) == failure(f"'source/{name}' cannot be packed: {reason}", REFUSED)
    assert os.listdir(tmp_path) == ["source"]


def test_folder_without_files_makes_no_package(tmp_path):
    (tmp_path / "source").mkdir()

    outcome = kx_pack("plugin", "source", "-n", "A", cwd=tmp_path)

    assert seen(outcome) == failure("'source' is empty: a package needs files", REFUSED)
    assert seen(kx_pack("plugin", "absent", "-n", "A", cwd=tmp_path)) == failure(
        "cannot read 'absent': No such file or directory"
    )


def test_package_replaces_a_link_and_leaves_no_unfinished_file(source, tmp_path):
    out = tmp_path / "out"
    out.mkdir()
    (out / "target").write_text("mine")
    (out / "p.kxp").symlink_to("target")

    built("plugin", source, "-o", out / "p.kxp")

    assert (out / "target").read_text() == "mine"
    assert sorted(os.listdir(out)) == ["p.kxp", "target"] and not (out / "p.kxp").is_symlink()


# Removal markers.


def test_marker_lists_the_files_without_their_contents(source, tmp_path):
    built("plugin", source, "-n", "Sample", cwd=tmp_path)

    assert built("removal", f"{NAME}.kxp", cwd=tmp_path) == f"{NAME}.kxu\n"

    with zipfile.ZipFile(tmp_path / f"{NAME}.kxu") as archive:
        assert [(entry.filename, entry.file_size) for entry in archive.infolist()] == [("program", 0), ("sub/text", 0)]


def test_marker_of_an_installed_package(source, tmp_path):
    built("plugin", source, "-n", "Sample", cwd=tmp_path)
    (tmp_path / f"{NAME}.kxp").rename(tmp_path / f"{NAME}.kxp.done")

    assert built("removal", f"{NAME}.kxp.done", cwd=tmp_path) == f"{NAME}.kxu\n"


def test_marker_leaves_out_what_is_never_created(tmp_path):
    with zipfile.ZipFile(tmp_path / "p.kxp", "w") as archive:
        link = zipfile.ZipInfo("link")
        link.external_attr = (stat.S_IFLNK | 0o777) << 16
        archive.writestr(link, "target")
        archive.writestr("folder/", "")
        archive.writestr("file", "")
        archive.writestr("file.two", "")

    built("removal", "p.kxp", "-o", "q.kxu", cwd=tmp_path)

    assert zipfile.ZipFile(tmp_path / "q.kxu").namelist() == ["file", "file.two"]


@pytest.mark.parametrize(
    "words, status, text",
    [
        (("absent.kxp",), FAILED, "cannot read 'absent.kxp': cannot open: No such file or directory"),
        (("text.kxp",), FAILED, "cannot read 'text.kxp': not a ZIP archive: no end-of-directory record"),
        (("good.kxp", "-o", "x.zip"), FAILED, "'x.zip' is neither a folder nor a name that ends in .kxu"),
        (("good.kxp", "-o", ".x.kxu"), REFUSED, "'.x.kxu' is no name for a removal marker: the agent does not look at hidden files"),
        (("bad.kxp",), REFUSED, "'../up' of 'bad.kxp' cannot be listed: the name contains '..'"),
    ],
)
def test_marker_that_cannot_be_made(tmp_path, words, status, text):
    (tmp_path / "text.kxp").write_text("no archive")
    write_archive(tmp_path / "good.kxp", {"file": ""})
    write_archive(tmp_path / "bad.kxp", {"../up": ""})

    assert seen(kx_pack("removal", *words, cwd=tmp_path)) == failure(text, status)
    assert not list(tmp_path.glob("*.kxu"))


# Extensions and other archives of Lua code.


def test_extension_brings_its_version_file(lua_source, tmp_path):
    built("extension", lua_source, "-o", "x.kxe", "extra.lua=" + str(lua_source / "greet.lua"), cwd=tmp_path)

    assert zipfile.ZipFile(tmp_path / "x.kxe").namelist() == ["extra.lua", "greet.lua", "greet/german.lua"]
    assert (tmp_path / "x.kxe.version").read_bytes() == b"version: 11.0.0-1\n"


def test_version_of_an_extension_can_be_told(lua_source, tmp_path):
    built("extension", lua_source, "-o", "x.kxe", "--agent-version", "12.1.0", "--build", "9", cwd=tmp_path)

    assert (tmp_path / "x.kxe.version").read_bytes() == b"version: 12.1.0-9\n"


def test_archive_has_no_version_file(lua_source, tmp_path):
    built("archive", lua_source, "-o", "x.kxe", cwd=tmp_path)

    assert sorted(path.name for path in tmp_path.glob("x*")) == ["x.kxe"]


@pytest.mark.parametrize("command", ["extension", "archive"])
@pytest.mark.parametrize(
    "words, status, text",
    [
        ((), FAILED, "the archive needs a name that ends in .kxe: -o FILE.kxe"),
        (("-o", "x.zip"), FAILED, "the archive needs a name that ends in .kxe: -o FILE.kxe"),
        (("-o", ".x.kxe"), REFUSED, "'.x.kxe' is no name for an extension: the agent does not look at hidden files"),
        (("-o", "x.kxe", "a.lua"), FAILED, "'a.lua' is not of the form NAME=FILE"),
        (("-o", "x.kxe", "a.lua=absent"), FAILED, "cannot read 'absent': No such file or directory"),
    ],
)
def test_archive_that_cannot_be_made(lua_source, tmp_path, command, words, status, text):
    assert seen(kx_pack(command, lua_source, *words, cwd=tmp_path)) == failure(text, status)
    assert os.listdir(tmp_path) == ["lua_source"]


@pytest.mark.parametrize(
    "words", [("--build", "x"), ("--build", ""), ("--agent-version", "11"), ("--agent-version", "eleven")]
)
def test_version_of_another_form_is_a_failure(lua_source, tmp_path, words):
    outcome = kx_pack("extension", lua_source, "-o", "x.kxe", *words, cwd=tmp_path)

    assert outcome.status == FAILED and outcome.err.endswith("is not of the form 11.0.0-1\n"), outcome
    assert os.listdir(tmp_path) == ["lua_source"]


@pytest.mark.parametrize(
    "text, reason",
    [
        (b"x = = 1", "source/bad.lua:1: unexpected symbol near '='"),
        (b"\x1bLua", "attempt to load a binary chunk (mode is 't')"),
    ],
)
def test_code_that_the_agent_cannot_load_is_refused(tmp_path, text, reason):
    (tmp_path / "source").mkdir()
    (tmp_path / "source" / "bad.lua").write_bytes(text)

    outcome = kx_pack("extension", "source", "-o", "x.kxe", cwd=tmp_path)

    assert seen(outcome) == failure(f"the agent cannot load 'source/bad.lua': {reason}", REFUSED)
    assert os.listdir(tmp_path) == ["source"]


def test_folder_without_lua_files_makes_no_archive(source, tmp_path):
    outcome = kx_pack("archive", "source", "-o", "x.kxe", cwd=tmp_path)

    assert seen(outcome) == failure("'source' holds no Lua files", REFUSED)


# A plug-in to begin with.


def test_new_plugin_is_built_verified_installed_used_and_removed(installation, tmp_path):
    built("new", "My_Rules", "begin", cwd=tmp_path)
    readme = (tmp_path / "begin" / "README.md").read_text()
    commands = [line.split()[1:] for line in readme.split("\n") if line.startswith("    kx-pack ")]
    assert [words[0] for words in commands] == ["plugin", "verify", "removal"]

    for words in commands:
        built(*words, cwd=tmp_path / "begin")

    package = tmp_path / "begin" / "Feature-My_Rules-11.0.0-1.any.kxp"
    shutil.copy(package, installation.bin)
    rules = installation.run_raw("-i", "-w", installation.work, "--", tmp_path / "begin")
    assert "rules: monitor.rules.my_rules (2), monitor.rules.volatile (5)\n" in rules.out, rules
    shutil.copy(package.with_suffix(".kxu"), installation.bin)
    rules = installation.run_raw("-i", "-w", installation.work, "--", tmp_path / "begin")
    assert "rules: monitor.rules.volatile (5)\n" in rules.out, rules
    assert [number for number, _, _ in events(installation) if number < 6000] == [INSTALLED, REMOVED]


@pytest.mark.parametrize(
    "words, text",
    [
        (("a-b",), "'a-b' is no name for a plug-in: it has to begin with a letter, and to consist of letters, digits and '_'"),
        (("../x",), "'../x' is no name for a plug-in: it has to begin with a letter, and to consist of letters, digits and '_'"),
        (("Mine", "there"), "cannot make 'there': it is there already"),
        (("Mine", "absent/there"), "cannot make 'absent/there': No such file or directory"),
    ],
)
def test_new_plugin_that_cannot_be_made(tmp_path, words, text):
    (tmp_path / "there").mkdir()

    assert seen(kx_pack("new", *words, cwd=tmp_path)) == failure(text)
    assert [str(path) for path in tmp_path.rglob("*")] == [str(tmp_path / "there")]


# The command line.


def test_help_names_every_command_and_version_is_the_agents():
    usage = built("--help")
    for command in ("new", "plugin", "removal", "extension", "archive", "verify"):
        assert re.search(f"^  {command} +[a-z]", usage, re.M), usage
        own = built(command, "--help")
        assert own.startswith(f"usage: kx-pack {command} [OPTION...] "), own
        assert built(command, "--version") == built("--version")
    assert built("--version") == "kx-pack 11.0.0.2580\n"


@pytest.mark.parametrize(
    "words, text",
    [
        ((), "a command is missing; see `kx-pack --help`"),
        (("wrong",), "unknown command 'wrong'; see `kx-pack --help`"),
        (("verify",), "wrong number of operands, wanted is FILE...; see `kx-pack verify --help`"),
        (("plugin", "a", "b"), "wrong number of operands, wanted is FOLDER; see `kx-pack plugin --help`"),
        (("plugin", "--wrong"), "unknown option '--wrong'; see `kx-pack plugin --help`"),
        (("new", "a\nb"), "'a\\nb' is no name for a plug-in: it has to begin with a letter, and to consist of letters, digits and '_'"),
    ],
)
def test_wrong_usage_is_one_line_and_status_2(tmp_path, words, text):
    assert seen(kx_pack(*words, cwd=tmp_path)) == failure(text)
    assert not os.listdir(tmp_path)


def test_full_output_is_a_failure():
    with open("/dev/full", "wb") as full:
        outcome = kx_pack("--help", stdout=full)

    assert (outcome.status, outcome.err) == (FAILED, "kx-pack: cannot write to standard output\n")


@pytest.mark.address_space
def test_lack_of_memory_is_a_failure(tmp_path):
    (tmp_path / "source").mkdir()
    with open(tmp_path / "source" / "large", "wb") as large:
        large.truncate(400 << 20)

    outcome = kx_pack("plugin", "source", "-n", "A", cwd=tmp_path, wrapper=("prlimit", f"--as={300 << 20}"))

    assert seen(outcome) == failure("cannot go on: std::bad_alloc")
    assert os.listdir(tmp_path) == ["source"]


# Verdicts.


@pytest.mark.parametrize(
    "name, text",
    [
        ("absent.kxp", "cannot read 'absent.kxp': No such file or directory"),
        ("folder.kxp", "cannot read 'folder.kxp': it is a folder"),
        ("x.zip", "'x.zip' is neither a .kxp nor a .kxu nor a .kxe"),
        ("x.KXP", "'x.KXP' is neither a .kxp nor a .kxu nor a .kxe"),
    ],
)
def test_file_that_cannot_be_judged_is_a_failure(tmp_path, name, text):
    (tmp_path / "folder.kxp").mkdir()
    for other in ("x.zip", "x.KXP"):
        write_archive(tmp_path / other, {})

    assert seen(kx_pack("verify", name, cwd=tmp_path)) == failure(text)


def test_worst_verdict_is_the_status(tmp_path):
    write_archive(tmp_path / "good.kxp", {"file": ""})
    write_archive(tmp_path / "bad.kxp", {"../file": ""})

    assert kx_pack("verify", "good.kxp", "good.kxp", cwd=tmp_path).status == DONE
    assert kx_pack("verify", "bad.kxp", "good.kxp", cwd=tmp_path).status == REFUSED
    everything = kx_pack("verify", "bad.kxp", "absent.kxp", "good.kxp", cwd=tmp_path)
    assert everything.status == FAILED
    assert verdicts(everything)["good.kxp"] == (True, "agent event 5101 for plug-in 'good'", [])


def test_verify_leaves_nothing_behind(open_installation):
    root = open_installation.root
    scratch = root / "scratch"
    scratch.mkdir()
    scratch.chmod(0o777)
    with zipfile.ZipFile(root / "p.kxp", "w") as archive:
        closed = zipfile.ZipInfo("closed/")
        closed.external_attr = (stat.S_IFDIR | 0o500) << 16
        archive.writestr(closed, "")
        archive.writestr("closed/file", "content")
    before = sorted(os.listdir(root))

    program = shutil.copy(KX_PACK, root)
    outcome = kx_pack("verify", "p.kxp", program=program, cwd=root, env={"TMPDIR": str(scratch)}, wrapper=UNPRIVILEGED)

    assert outcome.status == DONE, outcome
    assert os.listdir(scratch) == [] and sorted(os.listdir(root)) == sorted([*before, "kx-pack"])


def test_verify_without_a_place_to_unpack_is_a_failure(tmp_path):
    write_archive(tmp_path / "p.kxp", {"file": ""})

    outcome = kx_pack("verify", tmp_path / "p.kxp", env={"TMPDIR": str(tmp_path / "absent")})

    assert outcome.status == FAILED and "cannot make a folder for temporary files" in outcome.err, outcome


# The verdicts are the agent's: packages of all kinds are given to both.

NAMES = ("Feature-{0}-{1}-1.x86_64", "Feature-{0}-more-{1}-1234.any", "{1}-{0}.x", "Gr\u00fc\u00dfe %s '{0}'-{1}-2.y")
VERSIONS = ("11.0.0", "11.0.1", "11.0.00", "10.5.0", "011.0.0", "")


def spoil(offset):
    """Changes one byte of the archive, counted from its begin."""

    def change(archive):
        data = bytearray(archive)
        data[offset] ^= 0x55
        return bytes(data)

    return change


def zipped(*entries, compression=zipfile.ZIP_STORED):
    """An archive of (name, content) or (name, content, mode)."""
    buffer = io.BytesIO()
    with zipfile.ZipFile(buffer, "w", compression) as archive:
        for name, content, *mode in entries:
            information = zipfile.ZipInfo(name)
            information.compress_type = compression
            information.external_attr = (mode[0] if mode else stat.S_IFREG | 0o644) << 16
            archive.writestr(information, content)
    return buffer.getvalue()


def directory_field(archive, offset, value):
    """`archive` with a 16-bit field of its first directory entry changed."""
    data = bytearray(archive)
    at = data.index(b"PK\x01\x02") + offset
    data[at : at + 2] = struct.pack("<H", value)
    return bytes(data)


PLACE = "@@@@"  # in the names of entries, for a place of their own

SOUND = zipped(("@@@@/one", "1" * 50), ("@@@@/two", "2" * 50))
DAMAGES = {
    "sound": SOUND,
    "deflated": zipped(("@@@@/one", "1" * 500), compression=zipfile.ZIP_DEFLATED),
    "deflated_damaged": spoil(45)(zipped(("@@@@/one", "1" * 500), compression=zipfile.ZIP_DEFLATED)),
    "no_entries": zipped(),
    "folders": zipped(("@@@@/", "", stat.S_IFDIR | 0o755), ("@@@@/sub/", "", stat.S_IFDIR | 0o755)),
    "cut": SOUND[: len(SOUND) // 2],
    "cut_by_a_byte": SOUND[:-1],
    "nothing": b"",
    "text": b"this is no archive\n" * 10,
    "zeros": bytes(1000),
    "data_changed": spoil(60)(SOUND),
    "local_name_changed": spoil(31)(SOUND),
    "local_checksum_changed": spoil(14)(SOUND),
    "directory_signature_changed": SOUND.replace(b"PK\x01\x02", b"PK\x01\x03", 1),
    "encrypted": directory_field(SOUND, 8, 1),
    "unknown_method": directory_field(SOUND, 10, 12),
    "bytes_in_front": b"#!/bin/sh\n" + SOUND,
    "bytes_behind": SOUND + b"behind",
    "twice": SOUND + SOUND,
    "upwards": zipped(("@@@@/one", "1"), ("../@@@@", "2")),
    "upwards_inside": zipped(("@@@@/sub/../one", "1")),
    "absolute": zipped(("/tmp/@@@@", "1")),
    "backslash": zipped(("@@@@\\one", "1")),
    "drive": zipped(("c:@@@@", "1")),
    "dot_parts": zipped(("./@@@@/./one", "1")),
    "ends_in_dot": zipped(("@@@@/.", "1")),
    "long_part": zipped(("@@@@/" + "n" * 256, "1")),
    "longest_part": zipped(("@@@@/" + "n" * 255, "1")),
    "file_and_below": zipped(("@@@@", "1"), ("@@@@/one", "2")),
    "folder_and_file": zipped(("@@@@/one", "1"), ("@@@@", "2")),
    "same_name": zipped(("@@@@/one", "1"), ("@@@@/eno", "2")).replace(b"/eno", b"/one"),
    "link": zipped(("@@@@/link", "one", stat.S_IFLNK | 0o777), ("@@@@/one", "1")),
    "below_link": zipped(("@@@@/link", ".", stat.S_IFLNK | 0o777), ("@@@@/link/one", "1")),
    "pipe": zipped(("@@@@/pipe", "", stat.S_IFIFO | 0o644)),
    "set_user_id": zipped(("@@@@/one", "1", stat.S_IFREG | 0o4755)),
    "no_permissions": zipped(("@@@@/one", "1", stat.S_IFREG)),
    "no_text": zipped(("@@@@/caf\u00e9", "1")).replace("caf\u00e9".encode(), b"caf\xe9\xff"),
}


def cases():
    """(file name, archive) of every package and marker, each with a place of its own for its entries."""
    serial = itertools.count(100)

    def fresh(name, version, archive, extension):
        place = f"p{next(serial)}"
        return name.format(place, version) + extension, archive.replace(PLACE.encode(), place.encode())

    for name, version, archive in itertools.product(NAMES, VERSIONS, (SOUND, DAMAGES["data_changed"])):
        yield fresh(name, version, archive, ".kxp")
        yield fresh(name, version, archive, ".kxu")
    for archive in DAMAGES.values():
        yield fresh(NAMES[0], "11.0.0", archive, ".kxp")
        yield fresh(NAMES[0], "11.0.0", archive, ".kxu")
    for name in ("Feature-{0}-11.0.0-1", "Feature-{0}-.x", "{0}", "{0}-1", "{0}-11.0.0-1.x", "-{0}-11.0.0-1.x", "{0}." + "n" * 241, "{0}." + "n" * 242):
        yield fresh(name, "", SOUND, ".kxp")
        yield fresh(name, "", SOUND, ".kxu")


def test_verdicts_on_packages_and_markers_are_the_agents(installation, tmp_path):
    kept = tmp_path / "kept"
    kept.mkdir()
    for name, archive in cases():
        (kept / name).write_bytes(archive)
        (installation.bin / name).write_bytes(archive)
    names = sorted(os.listdir(kept))
    assert len(names) > 150

    told = verdicts(kx_pack("verify", "--", *names, cwd=kept))
    run(installation)

    number_of = {os.path.basename(text.split("|", 2)[2]): number for number, _, text in events(installation)}
    plugin_of = {os.path.basename(text.split("|", 2)[2]): text.split("|")[0] for _, _, text in events(installation)}
    records = [line for line in installation.log_lines() if line.startswith(("Error: ", "Warning: "))]
    wanted = {}
    for name in names:
        path = escaped(str(installation.bin / name))
        about = [line for line in records if f"'{path}'" in line or f"Unable to delete {path} (" in line]
        lines = [line.replace(str(installation.bin), str(kept)) for line in about]
        number = number_of[name]
        wanted[name] = (number in (INSTALLED, REMOVED), f"agent event {number} for plug-in '{plugin_of[name]}'", lines)
    assert {name: (told[name], wanted[name]) for name in names if told[name] != wanted[name]} == {}
    assert {number_of[name] for name in names} == {INSTALLED, NOT_INSTALLED, REMOVED, NOT_REMOVED}


def test_verdicts_on_names_that_the_agent_passes_over(installation, tmp_path):
    kept = tmp_path / "kept"
    kept.mkdir()
    names = [".hidden.kxp", ".hidden.kxu", "Agent-Core-x-11.0.0-1.y.kxp", "Agent-Core.kxu", "Agent-Cor.kxp"]
    for name in names:
        for folder in (kept, installation.bin):
            write_archive(folder / name, {})

    told = verdicts(kx_pack("verify", "--", *names, cwd=kept))
    run(installation)

    number_of = {os.path.basename(text.split("|", 2)[2]): number for number, _, text in events(installation)}
    assert number_of == {"Agent-Core.kxu": REMOVED, "Agent-Cor.kxp": INSTALLED}
    assert {name: told[name] for name in names} == {
        ".hidden.kxp": (False, "the agent does not look at hidden files", []),
        ".hidden.kxu": (False, "the agent does not look at hidden files", []),
        "Agent-Core-x-11.0.0-1.y.kxp": (False, "the agent deletes packages whose names begin with 'Agent-Core'", []),
        "Agent-Core.kxu": (True, "agent event 5105 for plug-in 'Core'", []),
        "Agent-Cor.kxp": (True, "agent event 5101 for plug-in 'Cor'", []),
    }
    assert not (installation.bin / "Agent-Core-x-11.0.0-1.y.kxp").exists()


@pytest.mark.parametrize("make", [lambda path: path.symlink_to("nowhere"), os.mkfifo], ids=["dangling", "pipe"])
@pytest.mark.parametrize("name", ["x.kxp", "x.kxu"])
def test_verdicts_on_what_is_no_file_are_the_agents(installation, tmp_path, make, name):
    make(tmp_path / name)
    make(installation.bin / name)

    ((accepted, _, lines),) = verdicts(kx_pack("verify", name, cwd=tmp_path)).values()
    run(installation)

    records = [line for line in installation.log_lines() if line.startswith(("Error: ", "Warning: "))]
    assert not accepted
    assert lines == [line.replace(str(installation.bin), str(tmp_path)) for line in records] != []


# Extensions: each has a module of its own, and the agent is asked to require all of them.

VERSION_FILES = {
    "ours": b"version: 11.0.0-2580\n",
    "newer": b"version: 11.0.1-1\n",
    "older": b"version: 10.5.0-1\n",
    "second_line": b"name: x\r\nversion: 11.0.0-1\r\n",
    "no_build": b"version: 11.0.0\n",
    "capital": b"Version: 11.0.0-1\n",
    "nothing": b"",
    "far_too_large": b"version: 99999999999.0.0-1\n",
    "marked_utf_16": "\ufeffversion: 11.0.0-1\n".encode("utf-16-le"),
    "none": None,
}
MODULE = zipped(("@@@.lua", "return 1  -- " + "x" * 40))
MODULES = {
    "sound": MODULE,
    "data_changed": spoil(60)(MODULE),
    "cut": MODULE[:-10],
    "text": b"this is no archive",
    "syntax_error": zipped(("@@@.lua", "\nreturn return")),
    "precompiled": zipped(("@@@.lua", "\x1bLua")),
    "marked": zipped(("@@@.lua", "\ufeff#!/usr/bin/lua\nreturn 1")),
    "package": zipped(("@@@/init.lua", "return 1"), ("@@@/part.lua", "local")),
    "not_reachable": zipped(("@@@.lua", "return 1"), ("@@@.two.lua", "local")),
    "link": zipped(("@@@.lua", "local", stat.S_IFLNK | 0o777)),
    "fails_when_run": zipped(("@@@.lua", "error('only when run')")),
}


def test_verdicts_on_extensions_are_the_agents(installation, tmp_path):
    folder = tmp_path / "ext"
    folder.mkdir()
    modules = {}
    pairs = [*itertools.product(("sound", "data_changed"), VERSION_FILES), *((archive, "ours") for archive in MODULES)]
    for number, (archive, version) in enumerate(pairs):
        name = f"m{number:02}.kxe"
        modules[name] = f"m{number:02}"
        (folder / name).write_bytes(MODULES[archive].replace(b"@@@", modules[name].encode()))
        if VERSION_FILES[version] is not None:
            (folder / f"{name}.version").write_bytes(VERSION_FILES[version])

    told = verdicts(kx_pack("verify", *[folder / name for name in modules]))
    installation.write_app(
        main="for i, name in ipairs(arg) do for _, part in ipairs{'', '.init', '.part'} do "
        "local done, message = pcall(require, name .. part) "
        "if not done and message:find('^error loading') then print(name, (message:gsub('\\n', '\\\\n'):gsub('\\t', '\\\\t'))) end "
        "end end"
    )
    required = installation.run("-e", folder, "--", *modules.values())

    records = [line for line in installation.log_lines() if line.startswith(("Error: ", "Warning: "))]
    wanted = {}
    for name, module in modules.items():
        lines = [line for line in records if f"'{folder / name}'" in line]
        lines += ["Error: " + line.split("\t", 1)[1] for line in required.out.split("\n") if line.startswith(module + "\t")]
        wanted[str(folder / name)] = (not lines, None, lines)
    assert {name: (told[name], wanted[name]) for name in told if told[name] != wanted[name]} == {}
    assert 5 < sum(accepted for accepted, _, _ in wanted.values()) < len(pairs) - 10


def test_what_the_build_ships_is_what_the_tool_makes(tmp_path):
    package = next((BUILD / "plugins").glob("*.kxp"))

    assert KX_PACK.exists()
    assert kx_pack("verify", package).status == DONE

"""Which extension files a wildcard brings in: those whose version file names this agent's version."""

import os
import random
import shutil

import pytest

from agentbox import UNPRIVILEGED, write_archive

ENABLED = None
NO_FILE = "Extension file '{ext}' does not have a corresponding '.version' file. It will not be enabled."
NO_LINE = "File '{ext}.version' does not contain a 'version:' line. Extension '{ext}' will not be enabled."
MALFORMED = "File '{ext}.version' did not contain a properly formatted 'version:' line. Extension '{ext}' will not be enabled."


def other(version):
    return "Ignoring extension '{ext}' since its version (" + version + ") doesn't match ours (11.0.0)"


def make_extension(installation, name="Sample.kxe", version=None):
    """An extension in the folder `ext` of the installation; `version` is the content of its version file."""
    folder = installation.root / "ext"
    folder.mkdir(exist_ok=True)
    path = write_archive(folder / name, {"sample.lua": "return 1"})
    if version is not None:
        path.with_name(name + ".version").write_bytes(version)
    return path


def judge(installation, extension, *words, **options):
    """Runs with the extension's folder; gives whether the extension is searched, and the warnings."""
    searched = installation.search_list("-e", extension.parent, *words, **options) or []
    return str(extension) in searched, installation.log_lines("Warning")


def expect(installation, extension, wanted, *words, **options):
    verdict = judge(installation, extension, *words, **options)
    warnings = [] if wanted is ENABLED else [wanted.format(ext=extension)]
    assert verdict == (wanted is ENABLED, warnings)


@pytest.mark.parametrize(
    "content, wanted",
    [
        (b"version: 11.0.0-2580\n", ENABLED),
        (b"version: 11.0.0-1\n", ENABLED),
        (b"version:11.0.0-2580\n", ENABLED),
        (b"version:   11.0.0-2580\n", ENABLED),
        (b"version:\t11.0.0-2580\n", ENABLED),
        (b"version: 11. 0.  0- 2580\n", ENABLED),
        (b"version: 11.\t0.\t0-\t2580\n", ENABLED),
        (b"version: 011.000.00-0001\n", ENABLED),
        (b"version: +11.+0.+0-+2580\n", ENABLED),
        (b"version: 11.-0.0-1\n", ENABLED),
        (b"version: 11.0.0-0\n", ENABLED),
        (b"version: 11.0.0--5\n", ENABLED),
        (b"version: 11.0.0-2580 \t \n", ENABLED),
        (b"version: 11.0.0-2580.99 whatever\n", ENABLED),
        (b"version: 11.0.0-25x\n", ENABLED),
        (b"version: 11.0.0-2147483647\n", ENABLED),
    ],
)
def test_version_of_this_agent_enables(installation, content, wanted):
    expect(installation, make_extension(installation, version=content), wanted)


@pytest.mark.parametrize(
    "content, version",
    [
        (b"version: 11.0.1-2580\n", "11.0.1"),
        (b"version: 11.1.0-2580\n", "11.1.0"),
        (b"version: 12.0.0-2580\n", "12.0.0"),
        (b"version: 10.0.0-2580\n", "10.0.0"),
        (b"version: 0.0.0-0\n", "0.0.0"),
        (b"version: -11.0.0-2580\n", "-11.0.0"),
        (b"version: 11.0.-1-2580\n", "11.0.-1"),
        (b"version: 0011.00.007-1\n", "11.0.7"),
        (b"version: 110.0.0-2580\n", "110.0.0"),
        (b"version: 2147483647.0.0-1\n", "2147483647.0.0"),
        (b"version: -2147483648.0.0-1\n", "-2147483648.0.0"),
    ],
)
def test_another_version_is_named(installation, content, version):
    expect(installation, make_extension(installation, version=content), other(version))


@pytest.mark.parametrize(
    "content",
    [
        b"version: 11.0.0\n",
        b"version: 11.0.0-\n",
        b"version: 11.0.0-x\n",
        b"version: 11.0.0 - 2580\n",
        b"version: 11.0.0 -2580\n",
        b"version: 11 .0.0-2580\n",
        b"version: 11.0 .0-2580\n",
        b"version: 11.0.0.2580\n",
        b"version: 11,0,0-2580\n",
        b"version: 11-0-0-2580\n",
        b"version: 11..0-2580\n",
        b"version: 0xB.0.0-2580\n",
        b"version: v11.0.0-2580\n",
        b"version: \"11.0.0-2580\"\n",
        b"version: + 11.0.0-2580\n",
        b"version: --11.0.0-2580\n",
        b"version: eleven\n",
        b"version:\n",
        b"version: \n",
        b"version:",
        b"version:: 11.0.0-2580\n",
        b"version: 1e1.0.0-2580\n",
    ],
)
def test_malformed_version_line_refuses(installation, content):
    expect(installation, make_extension(installation, version=content), MALFORMED)


@pytest.mark.parametrize(
    "content",
    [
        b"",
        b"\n",
        b"\n\n\n",
        b"Version: 11.0.0-2580\n",
        b"VERSION: 11.0.0-2580\n",
        b" version: 11.0.0-2580\n",
        b"\tversion: 11.0.0-2580\n",
        b"version : 11.0.0-2580\n",
        b"version 11.0.0-2580\n",
        b"version=11.0.0-2580\n",
        b"versio",
        b"11.0.0-2580\n",
        b"# version: 11.0.0-2580\n",
        b"aversion: 11.0.0-2580\n",
    ],
)
def test_file_without_version_line_refuses(installation, content):
    expect(installation, make_extension(installation, version=content), NO_LINE)


@pytest.mark.parametrize(
    "content, wanted",
    [
        (b"version: 11.0.0-1\r\n", ENABLED),
        (b"version: 11.0.0-1\r", ENABLED),
        (b"version: 11.0.0-1", ENABLED),
        (b"name: x\r\nversion: 11.0.0-1\r\nend: y\r\n", ENABLED),
        (b"name: x\rversion: 11.0.0-1\rend: y\r", ENABLED),
        (b"name: x\nversion: 11.0.0-1", ENABLED),
        (b"\n\r\n\rversion: 11.0.0-1\n", ENABLED),
        (b"version: 11.0.0\r\n", MALFORMED),
        (b"version: 11.0.0\r-1\r\n", MALFORMED),
        (b"version: 11.0.1-1\r\n", other("11.0.1")),
        (b"name: x\r\n version: 11.0.0-1\r\n", NO_LINE),
    ],
)
def test_every_kind_of_line_end(installation, content, wanted):
    expect(installation, make_extension(installation, version=content), wanted)


@pytest.mark.parametrize(
    "content, wanted",
    [
        (b"version: 10.0.0-1\nversion: 11.0.0-1\n", other("10.0.0")),
        (b"version: 11.0.0-1\nversion: 10.0.0-1\n", ENABLED),
        (b"version: bad\nversion: 11.0.0-1\n", MALFORMED),
        (b"version:\n11.0.0-1\n", MALFORMED),
        (b"Version: 10.0.0-1\n version: 10.0.0-1\nversion: 11.0.0-1\n", ENABLED),
        (b"version: 11.0.0-1\n\x00\xff\xfe garbage", ENABLED),
        (b"# a remark\n\nname: Sample\nversion: 11.0.0-1\n", ENABLED),
        (b"line\n" * 20000 + b"version: 11.0.0-1\n", ENABLED),
        (b"x" * 200000 + b"\nversion: 11.0.0-1\n", ENABLED),
        ("beschreibung: gr\u00fc\u00dfe\nversion: 11.0.0-1\n".encode(), ENABLED),
    ],
    ids=range(10),
)
def test_first_version_line_decides(installation, content, wanted):
    expect(installation, make_extension(installation, version=content), wanted)


@pytest.mark.parametrize("encoding, mark", [("utf-8", b"\xef\xbb\xbf"), ("utf-16-le", b"\xff\xfe"), ("utf-16-be", b"\xfe\xff")])
@pytest.mark.parametrize("version, wanted", [("11.0.0-1", ENABLED), ("11.0.2-1", other("11.0.2")), ("11.0.0", MALFORMED)])
def test_text_behind_a_byte_order_mark_is_read(installation, encoding, mark, version, wanted):
    text = f"name: x\r\nversion: {version}\r\n"

    expect(installation, make_extension(installation, version=mark + text.encode(encoding)), wanted)


@pytest.mark.parametrize("encoding, mark", [("utf-8", b"\xef\xbb\xbf"), ("utf-16-le", b"\xff\xfe")])
def test_byte_order_mark_directly_before_the_version_line(installation, encoding, mark):
    extension = make_extension(installation, version=mark + "version: 11.0.0-1\n".encode(encoding))

    expect(installation, extension, ENABLED)


@pytest.mark.parametrize(
    "content",
    [
        b"version: 4294967307.0.0-1\n",
        b"version: 99999999999999999999.0.0-1\n",
        b"version: 11.99999999999999999999.0-1\n",
        b"version: 11.0.-99999999999999999999-1\n",
        b"version: " + b"9" * 100000 + b".0.0-1\n",
    ],
    ids=range(5),
)
def test_number_beyond_all_ranges_refuses_with_one_warning(installation, content):
    extension = make_extension(installation, version=content)

    enabled, warnings = judge(installation, extension)

    assert not enabled
    assert len(warnings) == 1 and str(extension) in warnings[0], warnings


@pytest.mark.parametrize("content", [random.Random(1).randbytes(4096), b"\x00" * 4096, b"\xff" * 4096, bytes(range(256)) * 16], ids=["random", "zero", "ff", "all"])
def test_binary_version_file_refuses_with_one_warning(installation, content):
    extension = make_extension(installation, version=content.replace(b"version:", b"--------"))

    expect(installation, extension, NO_LINE)


def test_missing_version_file(installation):
    expect(installation, make_extension(installation), NO_FILE)


def test_version_file_needs_the_whole_name(installation):
    extension = make_extension(installation, "Sample.kxe")
    (extension.parent / "Sample.version").write_bytes(b"version: 11.0.0-1\n")

    expect(installation, extension, NO_FILE)


def test_directory_in_place_of_the_version_file(installation):
    extension = make_extension(installation)
    (extension.parent / "Sample.kxe.version").mkdir()

    expect(installation, extension, NO_FILE)


def test_pipe_in_place_of_the_version_file_does_not_block(installation):
    extension = make_extension(installation)
    os.mkfifo(extension.parent / "Sample.kxe.version")

    enabled, warnings = judge(installation, extension)

    assert not enabled
    assert len(warnings) == 1 and str(extension) in warnings[0], warnings


def test_dangling_link_in_place_of_the_version_file(installation):
    extension = make_extension(installation)
    (extension.parent / "Sample.kxe.version").symlink_to("nowhere")

    expect(installation, extension, NO_FILE)


def test_link_to_a_version_file_is_followed(installation):
    extension = make_extension(installation)
    target = installation.root / "shared.version"
    target.write_bytes(b"version: 11.0.0-1\n")
    (extension.parent / "Sample.kxe.version").symlink_to(target)

    expect(installation, extension, ENABLED)


def test_unreadable_version_file(open_installation):
    extension = make_extension(open_installation, version=b"version: 11.0.0-1\n")
    (extension.parent / "Sample.kxe.version").chmod(0)

    expect(open_installation, extension, NO_LINE, wrapper=UNPRIVILEGED)


@pytest.mark.parametrize("word", ["app.version=12.3.4.5", "app.version="])
def test_reported_version_has_no_say(installation, word):
    extension = make_extension(installation, version=b"version: 11.0.0-2580\n")

    expect(installation, extension, ENABLED, "-d", word)


def test_reported_version_does_not_let_another_one_in(installation):
    extension = make_extension(installation, version=b"version: 12.3.4-5\n")

    expect(installation, extension, other("12.3.4"), "-d", "app.version=12.3.4.5")


@pytest.mark.parametrize("name", ["100%s %d%n.kxe", "with blank.kxe", "gr\u00fc\u00dfe.kxe", "quote's.kxe"])
def test_names_are_shown_as_they_are(installation, name):
    expect(installation, make_extension(installation, name, b"version: 1.2.3-4\n"), other("1.2.3"))


def test_each_extension_is_judged_by_its_own_file(installation):
    good = make_extension(installation, "good.kxe", b"version: 11.0.0-1\n")
    old = make_extension(installation, "old.kxe", b"version: 10.9.8-1\n")
    bare = make_extension(installation, "bare.kxe")
    also_good = make_extension(installation, "also.kxe", b"version: 11.0.0-7\n")

    searched = installation.search_list("-e", good.parent)

    assert sorted(path for path in searched if path.startswith(str(good.parent))) == [str(also_good), str(good)]
    assert sorted(installation.log_lines("Warning")) == sorted([other("10.9.8").format(ext=old), NO_FILE.format(ext=bare)])


def test_gate_writes_nothing_beside_the_files(installation):
    extension = make_extension(installation, version=b"version: 11.0.1-1\n")
    before = sorted(os.listdir(extension.parent))

    judge(installation, extension)

    assert sorted(os.listdir(extension.parent)) == before == ["Sample.kxe", "Sample.kxe.version"]


def test_version_file_alone_is_no_extension(installation):
    extension = make_extension(installation, version=b"version: 11.0.0-1\n")
    shutil.move(extension, installation.root / "moved.kxe")

    enabled, warnings = judge(installation, extension)

    assert (enabled, warnings) == (False, [])

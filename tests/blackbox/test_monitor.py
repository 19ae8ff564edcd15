"""The sample application as it is shipped: the archive kx_agent.kxe in the agent's own tree."""

import hashlib
import os
import re

import pytest

from agentbox import AS_NOBODY
from monitorbox import scan


def make_tree(root):
    """Files in a folder, below it, and what a scan passes by; returns the digests by path."""
    contents = {
        "empty": b"",
        "text": b"some text\n",
        "sub/large": bytes(range(256)) * 1024,
        "sub/deep/er/file": b"x",
        "other/name with blanks": b"y",
    }
    for name, content in contents.items():
        path = root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
    (root / "link").symlink_to("text")
    (root / "loop").symlink_to(".")
    os.mkfifo(root / "fifo")
    return {str(root / name): hashlib.sha256(content).hexdigest() for name, content in contents.items()}


def test_every_regular_file_is_hashed(installation, tmp_path):
    digests = make_tree(tmp_path / "tree")

    outcome = scan(installation, "--list", tmp_path / "tree")

    assert (outcome.status, outcome.err) == (0, "")
    listed = dict(reversed(line.split("  ", 1)) for line in outcome.out.split("\n") if re.match("[0-9a-f]{64}  ", line))
    assert listed == digests


def test_table_has_a_row_by_folder_and_a_summary(installation, tmp_path):
    root = tmp_path / "tree"
    make_tree(root)

    outcome = scan(installation, root)

    rows = [re.split(r" {2,}", line) for line in outcome.out.split("\n")]
    assert ["folder", "files", "bytes", "unreadable"] in rows, outcome.out
    for row in (
        [str(root), "2", "10", "0"],
        [f"{root}/other", "1", "1", "0"],
        [f"{root}/sub", "2", "262,145", "0"],
        ["total", "5", "262,156", "0"],
    ):
        assert row in rows, outcome.out
    summary = outcome.out.rstrip("\n").split("\n")[-1]
    counts = "0 added, 0 changed, 0 removed, 0 unreadable"
    assert summary.startswith(f"1 folder: 5 files, 262,156 bytes, {counts}, "), outcome.out
    assert installation.log_has(f"Message: {summary}", name="kx_agent")


def test_unreadable_file_and_folder_are_lines_and_no_failure(public_installation):
    installation = public_installation
    root = installation.root / "tree"
    make_tree(root)
    (root / "text").chmod(0)
    (root / "sub").chmod(0)

    outcome = scan(installation, root, work=installation.home / "work", wrapper=AS_NOBODY)

    assert outcome.status == 0, outcome
    assert f"unreadable: {root}/text: Permission denied\n" in outcome.out
    assert f"unreadable: {root}/sub: Permission denied\n" in outcome.out
    assert re.search(r"^total +2 +1 +2$", outcome.out, re.M), outcome.out


def test_named_folder_that_is_missing_is_a_line_and_status_1(installation, tmp_path):
    make_tree(tmp_path / "tree")

    outcome = scan(installation, tmp_path / "nowhere", tmp_path / "tree")

    assert outcome.status == 1
    assert f"unreadable: {tmp_path}/nowhere: No such file or directory\n" in outcome.out
    assert re.search(r"^total +5 ", outcome.out, re.M), outcome.out


def test_names_cannot_forge_lines(installation, tmp_path):
    root = tmp_path / "tree"
    root.mkdir()
    (root / "a\nunreadable: b\x1b[2J").write_bytes(b"")

    outcome = scan(installation, "--list", root)

    assert "\x1b" not in outcome.out
    assert r"/a\nunreadable: b\x1b[2J" in outcome.out


@pytest.mark.parametrize("words, status", [((), 2), (("--wrong",), 2), (("--help",), 0)])
def test_usage(installation, words, status):
    outcome = scan(installation, *words)

    assert outcome.status == status, outcome
    text = outcome.out if status == 0 else outcome.err
    assert "kx_agent -- " in text

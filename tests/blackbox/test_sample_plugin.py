"""The sample plug-in: what the monitor reports with it, and that this goes away with it."""

import shutil
from pathlib import Path

import pytest

from agentbox import BUILD
from monitorbox import CHANGED, document, events, scan
from packagebox import INSTALLED, REMOVED
from packbox import DONE, built, kx_pack

PACKAGE = BUILD / "plugins" / "Feature-Accounts-11.0.0-1.any.kxp"
SOURCE = Path(__file__).resolve().parents[2] / "lua" / "plugins" / "accounts" / "files"

WITHOUT = [("monitor.rules.volatile", 5)]
WITH = [("monitor.rules.accounts", 11), *WITHOUT]


@pytest.fixture
def tree(tmp_path):
    root = tmp_path / "tree"
    (root / "home" / ".ssh").mkdir(parents=True)
    (root / "sudoers.d").mkdir()
    for name in ("passwd", "passwd-", "shadow", "shadow-", "hosts", "home/.ssh/authorized_keys", "sudoers.d/admins"):
        (root / name).write_text(name)
    return root


def change_all(tree):
    for path in tree.rglob("*"):
        if path.is_file():
            path.write_text(path.read_text() + "more")


def report(installation, tree, *agent):
    """A run: the modules of rules, and the changes as {name: severity}."""
    found = document(scan(installation, "--json", tree, agent=agent))
    rules = [(module["module"], module["rules"]) for module in found["rules"]]
    return rules, {str(Path(change["path"]).relative_to(tree)): change["severity"] for change in found["changes"]}


PLAIN = dict.fromkeys(
    ("passwd", "passwd-", "shadow", "shadow-", "hosts", "home/.ssh/authorized_keys", "sudoers.d/admins"), "warning"
)
JUDGED = {
    **dict.fromkeys(("passwd", "shadow", "home/.ssh/authorized_keys", "sudoers.d/admins"), "error"),
    "hosts": "warning",
}


def test_installed_plugin_changes_the_report_until_it_is_removed(installation, tree, tmp_path):
    assert report(installation, tree) == (WITHOUT, {})
    change_all(tree)
    assert report(installation, tree) == (WITHOUT, PLAIN)

    change_all(tree)
    shutil.copy(PACKAGE, installation.bin)
    assert report(installation, tree, "--install_plugins") == (WITH, JUDGED)
    change_all(tree)
    assert report(installation, tree) == (WITH, JUDGED)

    built("removal", installation.bin / f"{PACKAGE.name}.done", "-o", installation.bin)
    change_all(tree)
    assert report(installation, tree, "--install_plugins") == (WITHOUT, PLAIN)
    assert [number for number, _, _ in events(installation, INSTALLED, REMOVED)] == [INSTALLED, REMOVED]
    assert {severity for _, severity, text in events(installation, CHANGED) if text.endswith("/tree/passwd")} == {3, 4}


def test_copies_are_still_watched_for_mode_and_owner(installation, tree):
    shutil.copy(PACKAGE, installation.bin)
    report(installation, tree, "--install_plugins")

    (tree / "shadow-").chmod(0o666)

    assert report(installation, tree) == (WITH, {"shadow-": "warning"})


def test_package_of_the_build_is_sound_and_can_be_made_again(tmp_path):
    assert kx_pack("verify", PACKAGE).status == DONE

    built("plugin", SOURCE, "--name", "Accounts", "-o", tmp_path)

    assert (tmp_path / PACKAGE.name).read_bytes() == PACKAGE.read_bytes()

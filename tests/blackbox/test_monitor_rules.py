"""Modules of rules: where they come from, which one counts, and what becomes of one that cannot be used."""

import os

import pytest

from agentbox import write_archive
from monitorbox import CHANGED, INCOMPLETE, changes, document, events, scan


@pytest.fixture
def tree(tmp_path):
    root = tmp_path / "tree"
    (root / "cache").mkdir(parents=True)
    for name in ("file", "a.log", "cache/x"):
        (root / name).write_text(name)
    return root


def touch_everything(tree):
    for folder, _, names in os.walk(tree):
        for name in names:
            with open(os.path.join(folder, name), "a") as file:
                file.write("more")


@pytest.fixture
def with_rules(tmp_path):
    """Makes an archive of modules of rules, {name: Lua text}, and gives the options that bring it in."""

    def make(**modules):
        entries = {f"monitor/rules/{name}.lua": text for name, text in modules.items()}
        return {"agent": ("--zippath", write_archive(tmp_path / "rules.kxe", entries))}

    return make


def active(installation, tree, *agent):
    """The modules of rules that a run uses, with their numbers of rules."""
    outcome = scan(installation, "--json", tree, agent=agent)
    return {module["module"]: module["rules"] for module in document(outcome)["rules"]}


def test_an_archive_adds_rules(installation, tree, with_rules):
    rules = with_rules(
        acme='return {{ match = "*.log", ignore = true }, { match = "file", severity = "error" }}',
        other='return {{ match = "cache", watch = { "mode", "owner" } }}',
    )
    outcome = scan(installation, tree, **rules)
    assert "rules: monitor.rules.acme (2), monitor.rules.other (1), monitor.rules.volatile (5)\n" in outcome.out
    touch_everything(tree)

    assert changes(installation, tree, **rules) == {f"{tree}/file": "changed"}
    assert [row[1] for row in events(installation, CHANGED)] == [3]


def test_an_extension_adds_rules(installation, tree, tmp_path):
    folder = tmp_path / "extensions"
    folder.mkdir()
    write_archive(folder / "site.kxe", {"monitor/rules/site.lua": "return {}"})
    (folder / "site.kxe.version").write_text("version: 11.0.0-2580\n")

    assert active(installation, tree) == {"monitor.rules.volatile": 5}
    assert active(installation, tree, "--extdir", folder) == {"monitor.rules.site": 0, "monitor.rules.volatile": 5}


def test_a_folder_of_lua_path_adds_and_replaces_rules(installation, tree):
    installation.write_module("monitor.rules.mine", 'return {{ match = "*.log", ignore = true }}')
    installation.write_module("monitor.rules.volatile", "return {}")

    assert active(installation, tree, "--lua_path", f"{installation.lua}/?.lua") == {
        "monitor.rules.mine": 1,
        "monitor.rules.volatile": 0,
    }


def test_modules_count_in_the_order_of_their_names_behind_exclusions(installation, tree, with_rules):
    rules = with_rules(
        b='return {{ match = "*", severity = "message" }}',
        a='return {{ match = "file", severity = "error" }, { match = "file", ignore = true }}',
    )
    scan(installation, tree, **rules)
    touch_everything(tree)

    found = changes(installation, "--exclude", "cache", tree, **rules)
    assert found == {f"{tree}/file": "changed", f"{tree}/a.log": "changed"}
    severities = {row[2].rsplit("/", 1)[1]: row[1] for row in events(installation, CHANGED)}
    assert severities == {"file": 3, "a.log": 5}


def test_ignored_files_are_not_read_and_not_listed(installation, tree, with_rules):
    outcome = scan(installation, "--list", tree, **with_rules(acme='return {{ match = "cache", ignore = true }}'))

    assert f"  {tree}/file\n" in outcome.out
    assert "/cache" not in outcome.out


def test_without_a_rule_its_files_are_taken_and_not_added(installation, tree, with_rules):
    scan(installation, tree, **with_rules(acme='return {{ match = "*.log", ignore = true }}'))

    outcome = scan(installation, "--strict", tree)

    assert outcome.status == 0
    assert f"baseline taken: {tree}: 1 file\n" in outcome.out


BROKEN = {
    "syntax": ("return {", "unexpected symbol near <eof>"),
    "error": ('error("not today")', "not today"),
    "nothing": ("", "does not return a table"),
    "field": ('return {{ match = "*", ignored = true }}', "rule 1 has an unknown field 'ignored'"),
    "watch": ('return {{ match = "*", ignore = true }, { match = "*", watch = { "mtime" } }}', "rule 2 field 'watch': 'mtime' is none of "),
}


@pytest.mark.parametrize(("module", "reason"), BROKEN.values(), ids=BROKEN)
def test_a_module_that_cannot_be_used_is_told_and_more_is_watched(installation, tree, with_rules, module, reason):
    rules = with_rules(bad=module, good='return {{ match = "*.log", ignore = true }}')
    scan(installation, tree, **rules)
    touch_everything(tree)

    outcome = scan(installation, "--json", "--strict", tree, **rules)

    assert outcome.status == 1, outcome
    assert outcome.err.startswith("kx_agent: these rules are not used: monitor.rules.bad: "), outcome
    assert outcome.err.count("these rules are not used") == 1
    assert reason in outcome.err
    records = installation.log_lines("Error", name="kx_agent")
    assert [record.startswith("these rules are not used: monitor.rules.bad: ") for record in records] == [True, True]
    result = document(outcome)
    assert reason in result["problems"][0]
    assert result["complete"] is False
    assert [change["path"] for change in result["changes"]] == [f"{tree}/file", f"{tree}/cache/x"]
    assert {module["module"] for module in result["rules"]} == {"monitor.rules.good", "monitor.rules.volatile"}
    assert len(events(installation, INCOMPLETE)) == 2

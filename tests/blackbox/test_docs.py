"""What the documentation shows is what happens."""

import re
import subprocess

import pytest

import docpage
from docpage import DOCS, REPOSITORY
from packbox import built


def bound_methods(installation):
    """The names of the methods that `dom` has."""
    installation.write_app(main="for name in pairs(getmetatable(dom).__index) do print(name) end")
    return sorted(installation.run().out.split())


def table(page, title):
    """The rows of the table whose first column has that title: lists of cells."""
    rows = re.search(rf"^\| {title} \|.*\n\|[-|]+\n((?:\|.*\n)+)", (DOCS / page).read_text(), re.M)[1]
    return [[cell.strip() for cell in line.strip("|").split(" | ")] for line in rows.splitlines()]


def names_in(cell):
    """What a cell has between backticks."""
    return re.findall("`(.*?)`", cell)


@pytest.mark.parametrize("page", ["FIRST_APPLICATION.md", "APPLICATIONS.md", "PACKAGES.md"])
def test_examples_show_what_the_page_says(installation, page):
    session = docpage.run(page, installation)

    assert len(session) > 5
    wrong = [example for example in session if example.promised not in (None, example.shown)]
    assert wrong == [], f"{page}, line {wrong[0].line} shows\n{wrong[0].shown}"


def test_every_method_of_dom_has_an_example(installation):
    lua = "".join(block.text for block in docpage.blocks("APPLICATIONS.md") if block.kind == "lua")

    used = sorted(set(re.findall(r"\bdom:(\w+)", lua)))

    assert used == bound_methods(installation)


def test_modules_of_the_agent_are_listed_with_their_functions(installation):
    main = """
        for _, name in ipairs(require('vel.modules').Below('vel')) do
            local functions = {}
            for key, value in pairs(require('vel.' .. name)) do
                functions[#functions + 1] = type(value) == 'function' and key or nil
            end
            table.sort(functions)
            print('vel.' .. name, table.concat(functions, ' '))
        end"""
    installation.write_app(main=main)
    shipped = [line.split("\t") for line in installation.run().out.splitlines()]

    listed = [[names_in(module)[0], " ".join(names_in(functions))] for module, _, functions in table("APPLICATIONS.md", "module")]

    assert listed == shipped


def test_messages_that_the_page_explains_are_those_of_failing_applications():
    goldens = "".join(path.read_text() for path in (REPOSITORY / "tests/blackbox/golden/lua_failures").glob("*.txt"))
    messages = [message for meets, _ in table("APPLICATIONS.md", "what you read") for message in names_in(meets)]
    assert len(messages) >= 7

    patterns = [re.escape(message).replace("greet", "inventory").replace("'x'", "'[^']+'") for message in messages]
    assert [pattern for pattern in patterns if not re.search(pattern, goldens)] == []


def is_installed(package):
    query = ["dpkg-query", "-W", "-f=${db:Status-Status}", package]
    return subprocess.run(query, capture_output=True, check=False).stdout == b"installed"


def test_listed_lua_packages_can_be_required(installation):
    packages = {package: names_in(modules) for package, modules, _ in table("APPLICATIONS.md", "package")}
    provided = set((REPOSITORY / "script/bootstrap").read_text().replace('"', " ").split())
    assert {package for package in packages if package in provided} == set(list(packages)[:5])
    assert "script/bootstrap` installs the first five" in (DOCS / "APPLICATIONS.md").read_text()

    # The packages that the suite brings, and what else this machine has.
    names = [name for package, names in packages.items() if package in provided or is_installed(package) for name in names]
    installation.write_app(main="for _, name in ipairs(arg) do print(name, (select(2, pcall(require, name)))) end")
    outcome = installation.run("--", *names)

    assert len(names) >= 10
    assert [line.split("\t") for line in outcome.out.splitlines() if "\ttable: " not in line] == []


def test_links_between_pages_lead_somewhere():
    pages = [*REPOSITORY.glob("*.md"), *DOCS.glob("**/*.md"), REPOSITORY / "tests/README.md"]
    links = [(page, link) for page in pages for link in re.findall(r"\]\(([^)#:]+)\)", page.read_text())]
    assert len(links) > 10

    assert [link for link in links if not (link[0].parent / link[1]).exists()] == []


def test_domain_page_lists_exactly_the_methods_of_dom(installation):
    listed = sorted(set(re.findall(r"^\| `dom:(\w+)[({]", (DOCS / "DOMAIN.md").read_text(), re.M)))

    assert listed == bound_methods(installation)


def test_domain_page_and_man_page_list_every_variable_that_a_run_sets(installation):
    installation.write_app(main="for _, key in ipairs(dom:Keys()) do print(key) end return 0")
    (installation.work).mkdir()
    (installation.work / "kx_agent.ini").write_text("FIPSMode=0\nsqlite.config.cache=10\n")
    set_by_run = installation.run(
        "-p", "a", "-c", "/x/?.so", "-t", "Appl", "-U", "-z", str(installation.bin / "vel_core" / "vel.kxe")
    ).out.split()
    assert len(set_by_run) > 15

    for page in ("DOMAIN.md", "man/kx_agent.8"):
        text = (DOCS / page).read_text()
        missing = [key for key in set_by_run if key not in text and key != "sqlite.config.cache"]
        assert missing == [], page


def test_man_page_has_every_option_of_the_usage_text(installation):
    usage = installation.run_raw("--help").err
    options = re.findall(r"^\s+(?:-(\w), )?--(\w+)", usage, re.M)
    assert len(options) == 15, usage

    page = (DOCS / "man/kx_agent.8").read_text()
    missing = [long for _, long in options if f"-{long}" not in page]

    assert missing == []


def test_man_page_of_the_tool_has_every_command_and_option():
    page = (DOCS / "man/kx-pack.1").read_text()
    for command in re.findall(r"^  (\w+) ", built("--help"), re.M):
        (entry,) = re.findall(rf"^\.It Cm {command}\b.*?(?=^\.It Cm |^\.Sh )", page, re.M | re.S)
        options = re.findall(r"--([\w-]+)", built(command, "--help").split("\n\n")[-1])
        assert options[-2:] == ["help", "version"], command
        assert [name for name in options[:-2] if f"Fl -{name}" not in entry] == [], command


def test_monitor_page_has_every_word_and_event_number_and_a_rule_example_that_works(installation, tmp_path):
    page = (DOCS / "MONITOR.md").read_text()

    words = re.findall(r"^  (--\w+)", installation.run_raw("--workdir", installation.work, "--", "--help").out, re.M)
    assert len(words) == 7
    assert [word for word in words if f"| `{word}" not in page] == []

    source = (DOCS.parent / "lua/apps/kx_agent/monitor/events.lua").read_text()
    numbers = re.findall(r"= (7\d{3}),", source)
    assert len(numbers) == 7
    assert [number for number in numbers if f"\n| {number} |" not in page] == []

    (example,) = re.findall(r"^```lua\n(.*?)^```$", page, re.M | re.S)
    installation.write_module("monitor.rules.example", example)
    outcome = installation.run_raw(*installation.arguments("--", tmp_path / "lua", name="kx_agent"))
    assert outcome.status == 0, outcome
    assert "rules: monitor.rules.example (3), monitor.rules.volatile (5)\n" in outcome.out

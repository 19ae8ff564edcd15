"""What the documentation shows is what happens."""

import re
import subprocess
from pathlib import Path

DOCS = Path(__file__).resolve().parents[2] / "docs"


def shell_blocks(page):
    return re.findall(r"^```sh\n(.*?)^```$", (DOCS / page).read_text(), re.M | re.S)


def test_first_application_page_works_when_pasted(installation):
    blocks = shell_blocks("FIRST_APPLICATION.md")
    assert len(blocks) >= 5

    outcome = subprocess.run(
        ["sh", "-e"],
        input="\n".join(blocks).encode(),
        cwd=installation.root,
        env=installation.environment(KX=str(installation.bin)),
        capture_output=True,
        timeout=60,
        check=False,
    )

    shown = outcome.stdout.decode()
    assert outcome.returncode == 0, outcome
    for promised in ("hello world, from greet\n", "hello moon, from greet\n", "status 4\n", "status 2\n", "Message: greeted 2"):
        assert promised in shown, shown
    errors = outcome.stderr.decode()
    assert "greet: nobody to greet\n" in errors
    assert re.search(r"greet\.kxe/greet\.lua:14: nobody is not a name\nstack traceback:\n", errors), errors
    assert re.search(r"\t/.*/greet\.kxe/greet\.lua:14: in function 'greet\.main'\n", errors), errors


def test_domain_page_lists_exactly_the_methods_of_dom(installation):
    installation.write_app(
        main="for name in pairs(getmetatable(dom).__index) do print(name) end return 0",
    )
    bound = sorted(installation.run().out.split())

    listed = sorted(set(re.findall(r"^\| `dom:(\w+)[({]", (DOCS / "DOMAIN.md").read_text(), re.M)))

    assert bound == listed


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

"""A page of the documentation as something to run: its examples in order, and what it says that they show.

| block | is |
|---|---|
| sh | an example: commands for the shell |
| lua, first line "-- name.lua" | a file of the current folder |
| lua | an example: the standard input of `try`, which the page defines |
| text | everything that the example before it shows, standard error included |

All examples of a page run in one shell session.
"""

import re
import subprocess
from dataclasses import dataclass
from pathlib import Path

from agentbox import DEADLINE_S, in_private_mounts
from packbox import KX_PACK

REPOSITORY = Path(__file__).resolve().parents[2]
DOCS = REPOSITORY / "docs"

# Where the pages say that their reader has the tree.
TREE = "/srv/agent"

BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.M | re.S)
FILE_NAME = re.compile(r"-- ([\w/]+\.lua)\b")
MARK = "=== end of an example ==="


@dataclass
class Block:
    kind: str
    line: int  # of the page, on which it begins
    text: str


@dataclass
class Example:
    line: int  # of the page, on which it begins
    script: str
    promised: str | None = None  # what it shows; None: the page does not say
    shown: str | None = None  # what it has shown; None: it has not run to its end


def blocks(page):
    text = (DOCS / page).read_text()
    return [Block(match[1], text.count("\n", 0, match.start()) + 1, match[2]) for match in BLOCK.finditer(text)]


def script_of(block):
    if block.kind == "sh":
        return block.text
    assert block.kind == "lua", f"line {block.line}: nobody runs a block of '{block.kind}'"
    name = FILE_NAME.match(block.text)
    command = f"cat >{name[1]}" if name else "try"
    return f"{command} <<'END_OF_BLOCK'\n{block.text}END_OF_BLOCK\n"


def examples(page):
    found = []
    for block in blocks(page):
        if block.kind == "text":
            found[-1].promised = block.text
        else:
            found.append(Example(block.line, script_of(block)))
    return found


def place(installation):
    """A wrapper that puts the installation, kx-pack and the repository's Lua files where the pages have them, for one
    run."""
    mounts = "mount -t tmpfs none /srv"
    places = ((installation.bin, "build/bin"), (KX_PACK.parent, "build/tools/kx-pack"), (REPOSITORY / "lua", "lua"))
    for source, target in places:
        mounts += f' && mkdir -p {TREE}/{target} && mount --bind "{source}" {TREE}/{target}'
    return in_private_mounts(f'{mounts} && cd {TREE} && exec "$@"')


def plain(text):
    """`text` with the times, the process and the processor that the pages show."""
    text = re.sub(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \[\d+\]", "2026-11-20 12:34:56 [4711]", text, flags=re.M)
    text = re.sub(r"^Started on .+", "Started on Fri Nov 20 12:34:56 2026", text, flags=re.M)
    text = re.sub(r"^(Ran \d+ tests) in \d+\.\d+ seconds", r"\1 in 0.001 seconds", text, flags=re.M)
    return re.sub("/usr/lib/[a-z0-9_]+-linux-gnu[a-z0-9]*/", "/usr/lib/x86_64-linux-gnu/", text)


def run(page, installation):
    """The examples of a page, and what each of them has shown. A failing command ends the session, as `sh -e` does."""
    session = examples(page)
    outcome = subprocess.run(
        [*place(installation), "sh", "-e", "-c", "".join(f"{example.script}printf '\\n{MARK}\\n'\n" for example in session)],
        stdin=subprocess.DEVNULL,
        env=installation.environment(),
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        timeout=DEADLINE_S,
        check=False,
    )
    *shown, rest = plain(outcome.stdout.decode("utf-8", "surrogateescape")).split(f"\n{MARK}\n")
    for example, text in zip(session, shown):
        example.shown = text
    assert len(shown) == len(session), f"{page}, line {session[len(shown)].line}: ended with {outcome.returncode}: {rest}"
    return session

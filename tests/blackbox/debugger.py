"""What LLDB makes of a crash dump."""

import re
import subprocess
from collections import namedtuple

from agentbox import DEADLINE_S

# `stopped`: why the thread stopped, "" for those that did not crash; `frames`: "module`function", the innermost first.
Thread = namedtuple("Thread", "stopped frames")

FRAME = re.compile(r"^ +(?:\* )?frame #\d+: 0x[0-9a-f]+ ?(.*)$")
THREAD = re.compile(r"^[* ] thread #(\d+)(?:, name = '[^']*')?(?:, stop reason = (.*))?$")
DECORATION = re.compile(r"(\(.*| at [^ ]+:\d+.*| \+ \d+.*)$")


def ask(dump, *commands):
    """What LLDB answers to the commands."""
    words = ["lldb", "--batch", "--no-lldbinit", "--core", str(dump)]
    for command in commands:
        words += ["--one-line", command]
    done = subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=DEADLINE_S * 4)
    assert "was loaded" in done.stdout, (done.stdout, done.stderr)
    return done.stdout


def threads(dump):
    """The threads of a dump, by their numbers; the crashed one is number 1."""
    found, frames = {}, None
    for line in ask(dump, "thread backtrace all").splitlines():
        if thread := THREAD.match(line):
            frames = []
            found[int(thread[1])] = Thread(thread[2] or "", frames)
        elif (frame := FRAME.match(line)) and frames is not None:
            frames.append(DECORATION.sub("", frame[1]))
    return found

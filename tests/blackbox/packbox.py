"""Runs of kx-pack, the tool of plug-in authors."""

import os
import re
import subprocess

from agentbox import BUILD, Outcome
from waiting import DEADLINE_S

KX_PACK = (BUILD / "tools" / "kx-pack" / "kx-pack").resolve()

DONE, REFUSED, FAILED = 0, 1, 2


def kx_pack(*words, program=KX_PACK, cwd=None, env=None, wrapper=(), **options):
    """One run with `words`, in the folder `cwd`. `env`: changes to the environment."""
    done = subprocess.run(
        [*wrapper, str(program), *[os.fspath(word) for word in words]],
        cwd=cwd,
        env={**os.environ, **(env or {})},
        stdin=subprocess.DEVNULL,
        stdout=options.pop("stdout", subprocess.PIPE),
        stderr=subprocess.PIPE,
        timeout=DEADLINE_S,
        **options,
    )
    return Outcome(done.returncode, done.stdout or b"", done.stderr)


def built(*words, **options):
    """One run that has to succeed; what it printed."""
    outcome = kx_pack(*words, **options)
    assert (outcome.status, outcome.err) == (DONE, ""), outcome
    return outcome.out


def verdicts(outcome):
    """What `verify` says of each file: {file: (accepted, consequence, [lines])}."""
    found = {}
    for line in outcome.out.rstrip("\n").split("\n"):
        if line.startswith("  "):
            found[file][2].append(line[2:])
            continue
        match = re.fullmatch(r"(.*): (accepted|refused)(?:, (.*))?", line)
        assert match, outcome
        file = match[1]
        found[file] = (match[2] == "accepted", match[3], [])
    return found

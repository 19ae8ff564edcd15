"""The tests of the Lua code we ship, tests/lua/*_test.lua, under our own test driver."""

import shutil
import zipfile
from pathlib import Path

from agentbox import AS_NOBODY

SOURCE = Path(__file__).resolve().parents[2]


def drive(installation, *options, work=None, **where):
    """The sample application's tests, with `options` of the agent. The report is TAP, with messages."""
    words = ("--workdir", work or installation.work, *options, "-u", "tests/lua/*_test.lua", "--", "-o", "tap", "-v")
    return installation.run_raw(*words, **{"cwd": SOURCE, **where})


def results(outcome):
    return [line for line in outcome.out.split("\n") if line.startswith(("1..", "ok ", "not ok "))]


def problems(outcome):
    """What a failing run has to show: the tests that failed and why, without those that passed."""
    return "\n".join(line for line in outcome.out.split("\n") if not line.startswith(("ok ", "# Starting"))) + outcome.err


def leave_only_luaunit(installation):
    """What the agent finds beyond that does not come from its archives."""
    with zipfile.ZipFile(installation.bin / "vel_core" / "vel.kxe") as archive:
        kept = {name: archive.read(name) for name in archive.namelist() if "/luaunit." in name}
    assert kept
    installation.write_core_archive("vel", kept)
    (installation.bin / "vel_core" / "kx_agent.kxe").unlink()


def test_archives_and_sources_pass_with_the_same_results(installation):
    archives = drive(installation)
    leave_only_luaunit(installation)
    sources = drive(installation, "--lua_path", f"{SOURCE}/lua/apps/kx_agent/?.lua;{SOURCE}/lua/core/?.lua")

    assert archives.status == 0, problems(archives)
    assert len(results(archives)) > 80
    assert (sources.status, results(sources)) == (0, results(archives)), problems(sources)


def test_a_user_whom_permissions_stop_passes_too(public_installation):
    shutil.copytree(SOURCE / "tests" / "lua", public_installation.root / "tests" / "lua")

    outcome = drive(public_installation, work=public_installation.home / "work", cwd=public_installation.root, wrapper=AS_NOBODY)

    assert outcome.status == 0, problems(outcome)
    # The tests that root cannot make run this time.
    assert not [line for line in results(outcome) if "SKIP root reads everything" in line]

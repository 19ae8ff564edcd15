"""kx-crash: what a person is told about a crash dump."""

import re
import shutil
import subprocess

import pytest

from agentbox import BUILD
from test_crash_dumps import crasher, victim  # noqa: F401 -- fixtures

pytestmark = pytest.mark.crash

PROGRAM = BUILD / "tools" / "kx-crash" / "kx-crash"


def kx_crash(*words):
    return subprocess.run([PROGRAM, *words], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60)


def report(dump):
    done = kx_crash(dump)
    assert (done.returncode, done.stderr) == (0, ""), done
    return done.stdout


def section(text, title):
    """The lines below a title that begins so, up to an empty one."""
    (body,) = re.findall(rf"^{re.escape(title)}.*\n((?:.+\n)*)", text, re.MULTILINE)
    return body.splitlines()


def test_report_says_what_crashed_and_why(victim):  # noqa: F811
    victim.crash("write")

    text = report(victim.dump)

    assert text.startswith(f"Application  {victim.installation.name} 11.0.0.2580, phase main\nCrashed      "), text
    assert re.search(r"^Signal       11 \(Segmentation fault\), code 1, at address 0x10$", text, re.MULTILINE), text
    assert re.search(r"^System       Linux ", text, re.MULTILINE), text
    assert "\nDump         normal\n" in text


def test_frames_of_the_crashed_thread(victim):  # noqa: F811
    victim.crash("write")

    text = report(victim.dump)

    frames = [line for line in section(text, re.search(r'^Thread \d+ "CScriptThread", crashed', text, re.MULTILINE)[0]) if line.startswith("  #")]
    assert re.match(r"  #0  0x[0-9a-f]{16}  crasher\.so \+ 0x[0-9a-f]+  crash_by_write  \(.*crasher\.c:\d+\)$", frames[0]), frames
    assert re.match(r"  #1  .*  Crash  \(.*crasher\.c:\d+\)$", frames[1]), frames
    assert any("CScriptThread::OnRun()" in frame for frame in frames), frames
    assert "libc.so.6" in frames[-1], frames


def test_other_threads_are_shown(victim):  # noqa: F811
    victim.crash("write", before="require('crasher').start_waiting_threads(3)")

    text = report(victim.dump)

    assert text.count('"crasher waits"') == 3
    assert text.count("  wait_for_ever") == 3
    assert "wxEntry" in text


def test_lua_calls_modules_and_notes(victim):  # noqa: F811
    victim.crash("write")

    text = report(victim.dump)

    lua = section(text, "Lua of the crashed thread")
    assert lua[:2] == ["  stack traceback:", "    [C]: in function 'crash'"], lua
    assert any(str(victim.installation.executable) in line and " build " in line for line in section(text, "Modules"))
    assert f"  app.path.work = {victim.installation.work}" in section(text, "Notes")


def test_stack_overflow_is_shown_from_both_ends(victim):  # noqa: F811
    victim.crash("recursion")

    text = report(victim.dump)

    assert text.count("crash_by_recursion") == 60 + 20
    assert " calls ...\n" in text


def test_call_to_nowhere_shows_the_caller(victim):  # noqa: F811
    victim.crash("call")

    text = report(victim.dump)

    assert "  #0  0x0000000000001234  in no module\n" in text
    assert "crash_by_call" in text


def test_module_of_another_build_gives_no_names(victim, crasher, tmp_path):  # noqa: F811
    copy = tmp_path / "copy"
    shutil.copytree(crasher, copy)
    victim.words = ("--lua_cpath", f"{copy}/?.so")
    victim.crash("write")
    subprocess.run(["cc", "-shared", "-x", "c", "-", "-o", copy / "crasher.so"], input=b"int x;", check=True)

    text = report(victim.dump)

    assert re.search(rf"{copy}/crasher\.so  build [0-9a-f]+  \(not on this machine\)$", text, re.MULTILINE), text
    assert "crash_by_write" not in text
    assert "The callers cannot be told. Return addresses that are on the stack" in text
    assert "CScriptThread::OnRun()" in text  # one of the guesses


def test_what_is_no_dump_is_an_error(tmp_path):
    other = tmp_path / "other"
    other.write_text("text")
    empty = tmp_path / "empty"
    empty.write_bytes(b"")
    reasons = {
        other: "not a minidump",
        empty: "not a minidump",
        tmp_path / "missing": "No such file or directory",
        tmp_path: "not a regular file",
    }
    for path, reason in reasons.items():
        done = kx_crash(path)
        assert (done.returncode, done.stdout, done.stderr) == (1, "", f"kx-crash: {path}: {reason}\n")


@pytest.mark.parametrize("words", [(), ("a", "b"), ("-x",)])
def test_wrong_use(words):
    done = kx_crash(*words)
    assert (done.returncode, done.stdout, done.stderr) == (2, "", "usage: kx-crash FILE\n")


def test_help():
    assert kx_crash("--help").stdout == "usage: kx-crash FILE\n"

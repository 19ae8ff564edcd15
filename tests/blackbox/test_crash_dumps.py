"""A crash leaves a dump that a debugger opens, and a process that died of its signal."""

import os
import re
import signal
import stat
import subprocess
import time
from pathlib import Path

import pytest

import debugger
from agentbox import AS_NOBODY, await_condition, in_private_mounts
from background import process_table

pytestmark = pytest.mark.crash

SUPPORT = Path(__file__).resolve().parents[1] / "support"

TEXTS = {
    signal.SIGABRT: "Aborted",
    signal.SIGBUS: "Bus error",
    signal.SIGFPE: "Floating point exception",
    signal.SIGILL: "Illegal instruction",
    signal.SIGSEGV: "Segmentation fault",
    signal.SIGTRAP: "Trace/breakpoint trap",
}


@pytest.fixture(scope="session")
def crasher(tmp_path_factory):
    """A folder with a C module for Lua that crashes on request."""
    folder = tmp_path_factory.mktemp("crasher")
    subprocess.run(
        ["cc", "-g", "-O1", "-fPIC", "-shared", "-pthread", "-w", "-I/usr/include/lua5.2", SUPPORT / "crasher.c", "-o", folder / "crasher.so"],
        check=True,
    )
    os.chmod(folder, 0o755)
    return folder


class Victim:
    """An installation whose application crashes."""

    def __init__(self, installation, crasher):
        self.installation = installation
        self.words = ("--lua_cpath", f"{crasher}/?.so")

    def crash(self, how, before="", **options):
        """Runs the application, which crashes as `crasher.c` knows it."""
        self.installation.write_app(main=f"{before} require('crasher').crash('{how}')", **options.pop("phases", {}))
        return self.installation.run(*options.pop("words", ()), *self.words, **options)

    @property
    def diag(self):
        return self.installation.work / "diag"

    @property
    def dump(self):
        return self.diag / f"{self.installation.name}.mdmp"

    def dumps(self):
        return sorted(path.name for path in self.diag.iterdir()) if self.diag.exists() else []

    def crash_record(self):
        """The text of the one record that tells of the crash itself."""
        (record,) = [text for text in self.installation.log_lines("Error") if text.startswith("Crashed by signal")]
        return record

    def lua_record(self):
        (record,) = [text for text in self.installation.log_lines("Error") if text.startswith("The crashed thread was")]
        return record


@pytest.fixture
def victim(installation, crasher):
    return Victim(installation, crasher)


def functions(thread):
    return [frame.rpartition("`")[2] for frame in thread.frames]


# How it crashes: signal, function, what the record says of the address.
WAYS = {
    "write": (signal.SIGSEGV, "crash_by_write", " at address 0x10"),
    "recursion": (signal.SIGSEGV, "crash_by_recursion", r" at address 0x[0-9a-f]+"),
    "abort": (signal.SIGABRT, "crash_by_abort", ""),
    "bus error": (signal.SIGBUS, "crash_by_bus_error", r" at address 0x[0-9a-f]+"),
    "illegal instruction": (signal.SIGILL, "crash_by_illegal_instruction", r" at address 0x[0-9a-f]+"),
    "division": (signal.SIGFPE, "crash_by_division", r" at address 0x[0-9a-f]+"),
    "breakpoint": (signal.SIGTRAP, "crash_by_breakpoint", ""),
    "allocator": (signal.SIGABRT, "crash_in_allocator", ""),
    "main thread": (signal.SIGSEGV, "crash_by_write", " at address 0x20"),
    "threads": (signal.SIGSEGV, "crash_by_write", " at address 0x30"),
}


@pytest.mark.parametrize("how", WAYS)
def test_debugger_names_the_function_that_crashed(victim, how):
    number, function, address = WAYS[how]

    begun = time.monotonic()
    outcome = victim.crash(how)
    taken = time.monotonic() - begun

    assert outcome.status == -number, outcome
    assert taken < 2 + 1  # the start of the agent included
    assert victim.dumps() == [victim.dump.name]
    pattern = rf"Crashed by signal {int(number)} \({TEXTS[number]}\){address} in thread \d+, dump in {victim.dump}"
    assert re.fullmatch(pattern, victim.crash_record()), victim.crash_record()
    crashed = debugger.threads(victim.dump)[1]
    assert crashed.stopped == f"signal {number.name}"
    assert function in functions(crashed), crashed


def test_frames_lead_from_the_crash_to_the_thread(victim):
    victim.crash("write")

    threads = debugger.threads(victim.dump)

    script, main = functions(threads[1]), functions(threads[2])
    assert script[:2] == ["crash_by_write", "Crash"], script
    assert "CScriptThread::OnRun" in script, script
    assert len(threads) == 2
    assert main[0] == "epoll_wait" and "CAgentApp::RunWorker" in main, main


def test_function_at_an_address_without_code_shows_its_caller(victim):
    assert victim.crash("call").status == -signal.SIGSEGV

    assert "crash_by_call" in functions(debugger.threads(victim.dump)[1])


def test_stack_overflow_shows_both_ends(victim):
    victim.crash("recursion")

    crashed = functions(debugger.threads(victim.dump)[1])

    assert crashed[:50] == ["crash_by_recursion"] * 50
    assert victim.dump.stat().st_size < 2 * 1024 * 1024


def test_every_thread_is_in_the_dump(victim):
    victim.crash("write", before="require('crasher').start_waiting_threads(40)")

    threads = debugger.threads(victim.dump)

    assert len(threads) == 42
    assert sum("wait_for_ever" in functions(thread) for thread in threads.values()) == 40


def test_two_threads_that_crash_at_once_leave_one_dump(victim):
    for _ in range(10):
        assert victim.crash("threads").status == -signal.SIGSEGV

    assert len(victim.dumps()) == 8
    assert len([text for text in victim.installation.log_lines("Error") if text.startswith("Crashed")]) == 10


# What is in the dump and in the log.


def test_lua_calls_of_the_crashed_thread(victim):
    victim.installation.write_module(
        "deep", "return function() return coroutine.wrap(function() require('crasher').crash('write') return 1 end)() + 1 end"
    )

    outcome = victim.crash("write", before="local x = require('deep')() x = x + 1")

    lua = victim.installation.lua
    text = (
        "stack traceback:\n\t[C]: in function 'crash'"
        f"\n\t{lua}/deep.lua:1: in function <line 1>"
        "\n\t(...resumed by...)"
    )
    record = victim.lua_record()
    assert record.startswith("The crashed thread was running Lua\\n" + text.replace("\n", "\\n").replace("\t", "\\t")), record
    assert f"\\n\\t{lua}/{victim.installation.name}.lua:4: in function 'main'" not in record  # called from C, without a name
    assert f"\\n\\t{lua}/{victim.installation.name}.lua:4: in function <line 4>" in record
    assert text.encode() in victim.dump.read_bytes()
    assert "Crashed by signal 11" in outcome.err


def test_crash_outside_lua_tells_no_lua_calls(victim):
    victim.crash("main thread")

    assert victim.installation.log_lines("Error") == [victim.crash_record()]


def test_notes_tell_application_version_and_phase(victim):
    victim.crash("write")
    content = victim.dump.read_bytes()

    work, name = victim.installation.work, victim.installation.name
    for note in (f"app.name={name}", "app.version=11.0.0.2580", f"app.path.work={work}", "phase=main"):
        assert f"{note}\n".encode() in content, note


@pytest.mark.parametrize("phase", ["init", "shutdown"])
def test_phase_is_that_of_the_crash(victim, phase):
    victim.installation.write_app(**{phase: "require('crasher').crash('write')"})

    victim.installation.run(*victim.words)

    assert f"phase={phase}\n".encode() in victim.dump.read_bytes()


def test_modules_carry_their_build_identifiers(victim):
    victim.crash("write")

    listed = debugger.ask(victim.dump, "image list")

    for module in (victim.installation.executable, "/usr/lib/x86_64-linux-gnu/libc.so.6"):
        notes = subprocess.run(["readelf", "-n", module], check=True, capture_output=True, text=True).stdout
        identifier = re.search(r"Build ID: ([0-9a-f]+)", notes)[1]
        (line,) = [line for line in listed.splitlines() if str(module) in line.split()]
        assert line.split("] ")[1].split()[0].replace("-", "").lower() == identifier, line


def configure_full_dumps(installation):
    installation.work.mkdir(exist_ok=True)
    (installation.work / "kx_agent.ini").write_text("DumpLevel=1\n")


def test_full_dump_holds_the_writable_memory(victim):
    configure_full_dumps(victim.installation)

    victim.crash("write")

    shown = debugger.ask(victim.dump, "expression -f s -- crasher_value", "memory read -f s `crasher_value`")
    assert "crasher: a value that a full dump shows" in shown, shown


def test_normal_dump_does_not_hold_the_heap(victim):
    secret = "".join(["s", "e", "c", "r", "e", "t"] * 5)

    victim.crash("write", before="held = ('%s'):rep(3, '-') ; collectgarbage()" % secret)

    assert secret.encode() not in victim.dump.read_bytes()


# The files.


def test_dump_is_for_its_owner_alone(victim):
    victim.crash("write", wrapper=("sh", "-c", 'umask 0 && exec "$@"', "sh"))

    assert stat.S_IMODE(victim.dump.stat().st_mode) == 0o600
    assert stat.S_IMODE(victim.diag.stat().st_mode) == 0o700


def test_last_eight_dumps_are_kept(victim):
    name = victim.dump.name
    times = []
    for count in range(1, 11):
        victim.crash("write", before=f"-- {count}\n")
        times.append(victim.dump.stat().st_mtime_ns)
        wanted = [name] + [f"{name}.{number}" for number in range(1, min(count, 8))]
        assert victim.dumps() == wanted

    kept = [victim.dump] + [victim.diag / f"{name}.{number}" for number in range(1, 8)]
    assert [path.stat().st_mtime_ns for path in kept] == times[:1:-1]


def test_gap_in_the_numbers_is_filled(victim):
    for _ in range(4):
        victim.crash("write")
    (victim.diag / f"{victim.dump.name}.2").unlink()
    oldest = (victim.diag / f"{victim.dump.name}.3").stat().st_ino

    victim.crash("write")

    assert (victim.diag / f"{victim.dump.name}.3").stat().st_ino == oldest
    assert len(victim.dumps()) == 4


def test_link_in_the_dumps_place_is_moved_and_not_followed(victim):
    victim.diag.mkdir(parents=True)
    target = victim.installation.root / "target"
    target.write_text("untouched")
    victim.dump.symlink_to(target)

    victim.crash("write")

    assert target.read_text() == "untouched"
    assert stat.S_ISREG(victim.dump.lstat().st_mode)


def test_link_in_the_folders_place_is_not_followed(victim):
    elsewhere = victim.installation.root / "elsewhere"
    elsewhere.mkdir()
    victim.installation.work.mkdir()
    victim.diag.symlink_to(elsewhere)

    assert victim.crash("write").status == -signal.SIGSEGV

    assert list(elsewhere.iterdir()) == []
    assert victim.crash_record().endswith(f"; no dump could be written: '{victim.dump}': cannot open its folder: Not a directory")


def test_what_a_killed_writer_left_is_removed_at_the_next_start(victim):
    victim.diag.mkdir(parents=True)
    gone = subprocess.Popen(["true"])
    gone.wait()
    abandoned = victim.diag / f"{victim.dump.name}.part.{gone.pid}"
    in_work = victim.diag / f"{victim.dump.name}.part.{os.getpid()}"
    foreign = victim.diag / f"other{abandoned.name}"
    for path in (abandoned, in_work, foreign):
        path.write_text("")

    victim.installation.write_app()
    assert victim.installation.run().status == 0

    assert sorted(victim.diag.iterdir()) == sorted([in_work, foreign])


def test_run_without_a_crash_leaves_no_folder(victim):
    victim.installation.write_app()

    assert victim.installation.run().status == 0

    assert not victim.diag.exists()


# When no dump can be written.


def assert_no_dump(victim, outcome, reason):
    assert outcome.status == -signal.SIGSEGV, outcome
    wanted = f"; no dump could be written: {reason}"
    assert victim.crash_record().endswith(wanted), victim.crash_record()
    assert wanted in outcome.err, outcome
    assert victim.dumps() == []


def test_folder_that_is_removed_meanwhile(victim):
    victim.diag.mkdir(parents=True)

    outcome = victim.crash("write", before=f"os.execute('rmdir {victim.diag}')")

    assert_no_dump(victim, outcome, f"'{victim.dump}': cannot open its folder: No such file or directory")
    assert not victim.diag.exists()


def test_dump_follows_a_moved_work_folder(victim):
    moved = victim.installation.root / "moved/deeper"

    outcome = victim.crash("write", words=("-d", f"app.path.work={moved}"))

    dump = moved / "diag" / victim.dump.name
    assert outcome.status == -signal.SIGSEGV, outcome
    assert victim.dumps() == []
    assert "crash_by_write" in functions(debugger.threads(dump)[1])
    records = victim.installation.log_lines("Error", work=moved)
    assert any(text.startswith("Crashed by signal 11") and text.endswith(f", dump in {dump}") for text in records), records


def test_work_folder_that_is_removed_meanwhile(victim):
    outcome = victim.crash("write", before=f"os.execute('rm -r {victim.installation.work}')")

    assert outcome.status == -signal.SIGSEGV
    assert f"no dump could be written: '{victim.dump}': cannot open its folder: No such file or directory" in outcome.err


def test_folder_that_may_not_be_written(public_installation, crasher):
    work = public_installation.home / "work"
    diag = work / "diag"
    for folder in (work, diag):
        folder.mkdir()
        os.chown(folder, 65534, 65534)
    diag.chmod(0o500)
    public_installation.work = work
    victim = Victim(public_installation, crasher)
    modules = public_installation.root / "crasher"
    modules.mkdir()
    (modules / "crasher.so").write_bytes((crasher / "crasher.so").read_bytes())
    victim.words = ("--lua_cpath", f"{modules}/?.so")

    outcome = victim.crash("write", wrapper=AS_NOBODY)

    assert_no_dump(victim, outcome, f"'{victim.dump}': cannot create it: Permission denied")


def on_small_disk(victim, kilobytes):
    """Runs with a file system of this size in the dumps' place, and lists at the end what is there."""
    victim.diag.mkdir(parents=True, exist_ok=True)
    listing = victim.installation.root / "listing"
    return in_private_mounts(
        f"mount -t tmpfs -o size={kilobytes}k none '{victim.diag}'; \"$@\"; status=$?; ls '{victim.diag}' > '{listing}'; kill -$((status - 128)) $$"
    ), listing


def test_full_disk(victim):
    wrapper, listing = on_small_disk(victim, 8)

    outcome = victim.crash("write", wrapper=wrapper)

    assert_no_dump(victim, outcome, f"'{victim.dump}': cannot write it: No space left on device")
    assert listing.read_text() == ""


def test_full_dump_without_room_becomes_a_normal_one(victim):
    configure_full_dumps(victim.installation)
    wrapper, listing = on_small_disk(victim, 400)

    outcome = victim.crash("write", wrapper=wrapper)

    assert outcome.status == -signal.SIGSEGV, outcome
    assert victim.crash_record().endswith(f"dump in {victim.dump} without all memory (cannot write it: No space left on device)")
    assert listing.read_text() == f"{victim.dump.name}\n"


@pytest.mark.parametrize("changes", [{"TEST_PWRITE": "CRASH"}, {"TEST_WAITPID": "CRASH"}], ids=["writer", "handler"])
def test_crash_while_a_crash_is_handled(victim, preloaded, changes):
    reasons = {"TEST_PWRITE": "the process that writes it has crashed", "TEST_WAITPID": "the handler of an earlier crash has crashed"}

    outcome = victim.crash("write", env=preloaded(**changes))

    assert outcome.status == -signal.SIGSEGV, outcome
    told = [text for text in victim.installation.log_lines("Error") if "no dump could be written" in text]
    assert [text.rpartition(": ")[2] for text in told] == [reasons[name] for name in changes]


@pytest.mark.slow
def test_writer_that_hangs_is_given_up(victim, preloaded):
    outcome = victim.crash("write", env=preloaded(TEST_PWRITE="HANG"))

    assert outcome.status == -signal.SIGSEGV, outcome
    assert victim.crash_record().endswith("; no dump could be written: it took too long")


def test_without_ptrace_the_crashed_thread_is_dumped(victim, preloaded):
    victim.crash("write", env=preloaded(TEST_PTRACE="REFUSED"))

    threads = debugger.threads(victim.dump)
    assert len(threads) == 1
    assert functions(threads[1])[:2] == ["crash_by_write", "Crash"]
    assert victim.crash_record().endswith(f"dump in {victim.dump} without 1 other threads, which the system does not let us look at")


def test_no_descriptor_left_does_not_prevent_the_dump(victim):
    hoard = "local held = {} while true do local file = io.open('/dev/null') if not file then break end held[#held + 1] = file end"

    outcome = victim.crash("write", before="require('crasher') " + hoard)

    assert outcome.status == -signal.SIGSEGV
    assert victim.dumps() == [victim.dump.name]


# In the background.


def start_victim(victim, **phases):
    return victim.installation.start_in_background(*victim.words, **phases)


def test_worker_that_crashes_is_dumped_and_replaced(victim):
    crash_once = f"""
        local mark = '{victim.installation.root}/crashed'
        if not io.open(mark) then io.open(mark, 'w'):close() require('crasher').crash('write') end"""

    agent = start_victim(victim, main=crash_once)

    agent.record("Message: main", count=2)
    assert agent.stop() == 0
    assert victim.dumps() == [victim.dump.name]
    lines = agent.lines()
    died = lines.index("Error: Child process crashed with status 11 (signal 11: Segmentation fault)")
    assert lines[died - 2].startswith("Error: Crashed by signal 11 (Segmentation fault) at address 0x10 in thread "), lines
    assert "crash_by_write" in functions(debugger.threads(victim.dump)[1])


def test_signal_from_outside_is_a_crash_without_an_address(victim):
    agent = start_victim(victim)
    worker = agent.worker_in("main")

    os.kill(worker, signal.SIGSEGV)

    agent.worker_in("main", other_than=[worker])
    assert f"Error: Crashed by signal 11 (Segmentation fault) in thread {worker}, dump in {victim.dump}" in agent.lines()
    assert agent.stop() == 0


def test_watchdog_that_crashes_is_dumped(victim):
    agent = start_victim(victim)
    agent.worker_in("main")

    os.kill(agent.watchdog, signal.SIGABRT)

    assert agent.status_of(agent.watchdog) != 0
    agent.await_nothing_left()
    assert b"phase=watchdog\n" in victim.dump.read_bytes()
    assert f"Error: Crashed by signal 6 (Aborted) in thread {agent.watchdog}, dump in {victim.dump}" in agent.lines()


def test_no_process_is_left_by_a_crash(victim):
    victim.crash("write")

    left = [process for process in process_table().values() if process.name.startswith("kx_agent")]
    folder = str(victim.installation.root)
    await_condition(
        lambda: not [p for p in left if Path(f"/proc/{p.pid}/cmdline").exists() and folder in Path(f"/proc/{p.pid}/cmdline").read_text()],
        "the end of all processes",
    )


def test_child_of_a_script_has_the_signals_as_they_were(victim):
    outcome = victim.installation.write_app(main="os.execute('kill -SEGV $$')") and victim.installation.run()

    assert outcome.status == 0
    assert victim.dumps() == []


def test_crash_in_a_runnable(victim):
    victim.installation.write_module("crasher_thread", "return function(self, how) require('crasher').crash(how) end")
    victim.installation.write_app(main="dom:StartRunnable('crasher_thread', 'recursion'):Join() return 9")

    outcome = victim.installation.run(*victim.words)

    assert outcome.status == -signal.SIGSEGV, outcome
    crashed = debugger.threads(victim.dump)[1]
    assert functions(crashed)[0] == "crash_by_recursion", crashed
    assert "[C]: in function 'crash'" in victim.lua_record()
    assert f"{victim.installation.lua}/crasher_thread.lua:1: " in victim.lua_record()

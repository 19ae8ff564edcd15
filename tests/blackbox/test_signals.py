"""What signals do to an agent in the foreground, and how its threads are prepared for them."""

import ctypes
import os
import signal

import pytest

from agentbox import await_condition, await_end, await_line
from proc import CLOCK_NANOSLEEP, READ, await_blocked_in, script_thread, signals, status_of, threads

LIBC = ctypes.CDLL(None, use_errno=True)

READY = "print('ready') io.stdout:flush()"


def await_delivered(pid, number):
    """Waits until the signal is pending nowhere in the process."""
    await_condition(
        lambda: all(number not in signals(status_of(pid, t)["SigPnd"]) | signals(status_of(pid, t)["ShdPnd"]) for t in threads(pid)),
        f"delivery of signal {number}",
    )


def send_to_thread(pid, thread, number):
    assert LIBC.tgkill(pid, thread, number) == 0, os.strerror(ctypes.get_errno())


def start(installation, name, phase, body, *words, **options):
    """Starts an application that says when it is ready, and waits until it does."""
    installation.name = name or installation.name
    installation.write_app(**{phase: f"{READY} {body}"})
    process = installation.start(*words, **options)
    assert await_line(process) == "ready"
    return process


def until(path):
    """Lua text that is busy until the file is there."""
    return f"while not io.open('{path}') do end"


BOTH = pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])


# SIGINT

BUSY = {
    "busy loop": "while true do end",
    "blocking read": "io.open('pipe'):read('*a')",
    "sleep": "require('posix.unistd').sleep(1000)",
    "os.execute": "os.execute('sleep 1000')",
    "io.popen": "io.popen('sleep 1000'):read('*a')",
    "pcall loop": "while true do pcall(error) end",
    "protected": "pcall(function() while true do end end)",
    "coroutine": "coroutine.wrap(function() while true do end end)()",
    "output": "while true do io.stderr:write('') end",
}


@BOTH
@pytest.mark.parametrize("body", BUSY.values(), ids=BUSY.keys())
def test_sigint_ends_at_once_with_success(installation, name, body):
    os.mkfifo(installation.root / "pipe")
    process = start(installation, name, "main", body)

    process.send_signal(signal.SIGINT)

    assert process.wait(timeout=60) == 0


@BOTH
@pytest.mark.parametrize("phase", ["top", "init", "main", "shutdown"])
def test_sigint_ends_in_every_phase(installation, name, phase):
    process = start(installation, name, phase, "while true do end")

    process.send_signal(signal.SIGINT)

    assert await_end(process).status == 0


def test_sigint_runs_no_shutdown(installation):
    installation.write_app(main=f"{READY} while true do end", shutdown="io.open('reached', 'w')")
    process = installation.start()
    await_line(process)

    process.send_signal(signal.SIGINT)

    assert await_end(process).status == 0
    assert not (installation.root / "reached").exists()


def test_sigint_ends_the_test_driver(installation):
    installation.write_app(shutdown="io.open('reached', 'w')")
    installation.write_module("tests.velunit", f"return function() {READY} while true do end end")
    process = installation.start("-u", "*.lua")
    await_line(process)

    process.send_signal(signal.SIGINT)

    assert await_end(process).status == 0
    assert not (installation.root / "reached").exists()


def test_sigint_leaves_the_records_in_the_log(installation):
    process = start(installation, None, "main", "dom:Log('message', 'logged before') print('go') io.stdout:flush() while true do end")
    assert await_line(process) == "go"

    process.send_signal(signal.SIGINT)

    assert await_end(process).status == 0
    assert installation.log_lines("Message") == ["logged before"]


@pytest.mark.parametrize("left", ["ignore", "block"])
def test_sigint_that_the_caller_kept_away_ends_all_the_same(installation, left):
    process = start(installation, None, "main", "while true do end", wrapper=("env", f"--{left}-signal=INT"))

    process.send_signal(signal.SIGINT)

    assert await_end(process).status == 0


# SIGTERM


@BOTH
def test_sigterm_stays_pending_and_has_no_effect(installation, name):
    process = start(installation, name, "main", until("go") + " print('went on') return 5")

    process.send_signal(signal.SIGTERM)

    pending = [signals(status_of(process.pid, thread)["ShdPnd"]) for thread in threads(process.pid)]
    assert pending == [{signal.SIGTERM}] * 2
    (installation.root / "go").touch()
    outcome = await_end(process)
    assert (outcome.status, outcome.out) == (5, "went on\n")


@BOTH
@pytest.mark.parametrize("call", ["", "return 0", "os.exit(0)", "os.exit(true, true)"])
def test_sigterm_that_is_pending_does_not_disturb_the_end(installation, name, call):
    installation.name = name or installation.name
    installation.write_app(main=f"{READY} {until('go')} kept = io.open('kept', 'w') kept:write('all') {call}")
    process = installation.start()
    await_line(process)

    for _ in range(3):
        process.send_signal(signal.SIGTERM)
    (installation.root / "go").touch()

    outcome = await_end(process)
    assert (outcome.status, outcome.err) == (0, "")
    assert (installation.root / "kept").read_text() == "all"


def test_sigterm_does_not_keep_children_from_starting(installation):
    process = start(installation, None, "main", until("go") + " print(os.execute('kill -TERM $$')) print(io.popen('exit 3'):close())")

    process.send_signal(signal.SIGTERM)
    (installation.root / "go").touch()

    outcome = await_end(process)
    assert (outcome.status, outcome.out) == (0, "nil\tsignal\t15\nnil\texit\t3\n")


# The others


HARMLESS = [signal.SIGHUP, signal.SIGPIPE, signal.SIGUSR1, signal.SIGUSR2, signal.SIGALRM, signal.SIGRTMIN + 4, signal.SIGCHLD, signal.SIGWINCH]


@BOTH
@pytest.mark.parametrize("number", HARMLESS, ids=lambda number: f"signal {int(number)}")
@pytest.mark.parametrize("phase", ["init", "main", "shutdown"])
def test_harmless_signal_has_no_effect(installation, name, number, phase):
    process = start(installation, name, phase, until("go") + " print('went on') return 7")

    for _ in range(3):
        process.send_signal(number)
        for thread in threads(process.pid):
            send_to_thread(process.pid, thread, number)
    await_delivered(process.pid, number)
    (installation.root / "go").touch()

    outcome = await_end(process)
    assert (outcome.status, outcome.out) == (7, "went on\n")
    assert outcome.err == "\n"
    assert installation.log_lines("Error") == []


@pytest.mark.parametrize("number", [signal.SIGQUIT, signal.SIGKILL, signal.SIGVTALRM], ids=lambda number: number.name)
def test_other_signals_keep_their_meaning(installation, number):
    process = start(installation, None, "main", "while true do end")

    process.send_signal(number)

    assert await_end(process).status == -number


SLEEP = "print(require('posix.unistd').sleep(1000) > 0) return 7"
READ_PIPE = """
    local pipe = require('posix.fcntl').open('pipe', require('posix.fcntl').O_RDWR)
    local text, _, number = require('posix.unistd').read(pipe, 5)
    print(text, number) return 7"""


@pytest.mark.parametrize("number", [signal.SIGALRM, signal.SIGRTMIN + 4], ids=lambda number: f"signal {int(number)}")
@pytest.mark.parametrize("body, call, out", [(SLEEP, CLOCK_NANOSLEEP, "true\n"), (READ_PIPE, READ, "nil\t4\n")], ids=["sleep", "read"])
def test_signal_that_interrupts_a_blocking_call(installation, number, body, call, out):
    os.mkfifo(installation.root / "pipe")
    process = start(installation, None, "main", body)
    script = script_thread(process.pid)
    await_blocked_in(process.pid, script, call)

    send_to_thread(process.pid, script, number)

    outcome = await_end(process)
    assert (outcome.status, outcome.out) == (7, out)


@pytest.mark.parametrize("number", [signal.SIGUSR1, signal.SIGUSR2, signal.SIGHUP, signal.SIGPIPE], ids=lambda number: number.name)
def test_signal_that_lets_a_blocking_call_go_on(installation, number):
    pipe = installation.root / "pipe"
    os.mkfifo(pipe)
    process = start(installation, None, "main", READ_PIPE)
    script = script_thread(process.pid)
    await_blocked_in(process.pid, script, READ)

    send_to_thread(process.pid, script, number)
    await_delivered(process.pid, number)
    pipe.write_bytes(b"later")

    outcome = await_end(process)
    assert (outcome.status, outcome.out) == (7, "later\tnil\n")


def test_sigalrm_interrupts_a_driver_that_hangs(installation):
    os.mkfifo(installation.root / "pipe")
    installation.write_app(shutdown="print('shutdown')")
    installation.write_module("tests.velunit", f"return function() {READY} {READ_PIPE} end")
    process = installation.start("-u", "*.lua")
    await_line(process)
    script = script_thread(process.pid)
    await_blocked_in(process.pid, script, READ)

    send_to_thread(process.pid, script, signal.SIGALRM)

    outcome = await_end(process)
    assert (outcome.status, outcome.out) == (7, "nil\t4\n")


# Masks and dispositions


@BOTH
def test_exactly_two_threads_while_the_script_runs(installation, name):
    process = start(installation, name, "main", "while true do end")

    names = [status_of(process.pid, thread)["Name"] for thread in threads(process.pid)]

    assert names == ["kx_agent", "CScriptThread"]


@BOTH
@pytest.mark.parametrize(
    "wrapper",
    [(), ("env", "--ignore-signal=CHLD,PIPE,TERM,INT,USR1"), ("env", "--block-signal=TERM"), ("env", "--block-signal=INT,USR1,HUP,CHLD")],
    ids=["plain", "several ignored", "SIGTERM blocked", "others blocked"],
)
def test_masks_of_the_threads(installation, name, wrapper):
    process = start(installation, name, "main", "while true do end", wrapper=wrapper)

    masks = {status_of(process.pid, thread)["Name"]: signals(status_of(process.pid, thread)["SigBlk"]) for thread in threads(process.pid)}

    assert masks == {"kx_agent": {signal.SIGTERM}, "CScriptThread": {signal.SIGINT, signal.SIGTERM}}


@BOTH
@pytest.mark.parametrize("wrapper", [(), ("env", "--ignore-signal=TERM,INT,USR1,USR2,ALRM")], ids=["plain", "ignored by the caller"])
def test_dispositions_of_the_process(installation, name, wrapper):
    process = start(installation, name, "main", "while true do end", wrapper=wrapper)

    status = status_of(process.pid, script_thread(process.pid))
    caught, ignored = signals(status["SigCgt"]), signals(status["SigIgn"])

    assert caught >= {signal.SIGINT, signal.SIGTERM, signal.SIGUSR1, signal.SIGUSR2, signal.SIGALRM}
    assert len([number for number in caught if signal.SIGRTMIN <= number <= signal.SIGRTMAX]) == 1, caught
    assert ignored == {signal.SIGHUP, signal.SIGPIPE}


def test_masks_stay_through_all_phases(installation):
    show = "for line in io.lines('/proc/thread-self/status') do if line:match('^Sig[BI]') then print(line) end end"
    installation.write_app(init=show, main=f"os.execute('true') io.popen('true'):close() {show}", shutdown=show)

    shown = installation.run().out.split("\n")[:-1]

    assert len(shown) == 6
    assert [signals(line.split("\t")[1]) for line in shown] == [{signal.SIGINT, signal.SIGTERM}, {signal.SIGHUP, signal.SIGPIPE}] * 3


def test_coroutines_stay_on_the_script_thread(installation):
    body = "local wrapped = {} for i = 1, 1000 do wrapped[i] = coroutine.wrap(function() coroutine.yield() end) wrapped[i]() end print('go') io.stdout:flush() while true do end"
    process = start(installation, None, "main", body)
    await_line(process)

    assert len(threads(process.pid)) == 2


@BOTH
def test_storm_of_signals(installation, name):
    process = start(installation, name, "main", until("go") + " print(os.execute('exit 3')) return 7")

    for _ in range(500):
        for number in HARMLESS:
            process.send_signal(number)
    (installation.root / "go").touch()

    outcome = await_end(process)
    assert (outcome.status, outcome.out) == (7, "nil\texit\t3\n")


def test_calls_of_lua_survive_a_storm_of_restarted_signals(installation):
    body = """
        local own = io.open('/proc/self/stat'):read('*n')
        local storm = io.popen('i=0; while [ $i -lt 3000 ]; do kill -USR1 ' .. own .. '; i=$((i+1)); done; echo done')
        for i = 1, 200 do
            assert(os.execute('exit 3') == nil)
            assert(select(3, io.popen('exit 4'):close()) == 4)
            local file = assert(io.open('storm.txt', 'w')) assert(file:write(('x'):rep(10000))) assert(file:close())
            file = assert(io.open('storm.txt')) assert(#file:read('*a') == 10000) file:close()
        end
        print(storm:read('*a')) return 7"""
    process = start(installation, None, "main", body)

    outcome = await_end(process)

    assert (outcome.status, outcome.out, outcome.err) == (7, "done\n\n", "\n")

"""The watchdog: how it tells a worker's end, when it starts the next worker, and the status that it ends with."""

import json
import os
import shlex
import signal
import time
from dataclasses import dataclass
from pathlib import Path

import pytest

from agentbox import LONG_LOOP, await_condition, in_private_mounts, sanitizer_options
from background import die, once_there, process_table
from proc import EPOLL_WAIT, RT_SIGTIMEDWAIT, WAIT4, await_blocked_in, script_thread, signals, status_of, threads

DRIVER = "/opt/kx_agent/SunOS.init"

DELAYED = "Verbose: Delaying 1000ms before restart 1"


# A clock by which every start is the only one within the last 512 seconds.
WITHOUT_DELAYS = {"TEST_CLOCK_STEP": 600}


@pytest.fixture
def without_delays(preloaded):
    return preloaded(**WITHOUT_DELAYS)


def ended(status, code):
    return f"Verbose: Child process exited with status {status} (exit {code})"


def delays(agent):
    return [line for line in agent.lines() if "Delaying" in line]


# Ends by themselves

CODES = {0: 0, 1: 1, 2: 2, 4: 4, 127: 127, 255: 255, -1: 255, 256: 0}


@pytest.mark.parametrize("phase", ["init", "main"])
@pytest.mark.parametrize("returned, code", [each for each in CODES.items() if each[0] != 0], ids=str)
def test_failing_phase_ends_the_agent(installation, phase, returned, code):
    agent = installation.start_in_background(**{phase: f"return {returned}"}, shutdown="dom:Log('message', 'reached')")

    assert agent.end() == code

    assert agent.lines()[-1] == ended(code << 8, code)
    assert "Message: shutdown" not in agent.lines()
    assert delays(agent) == []
    assert not agent.pid_file.exists()


@pytest.mark.parametrize("returned, code", CODES.items(), ids=str)
def test_status_of_shutdown_ends_the_agent(installation, returned, code):
    agent = installation.start_in_background(shutdown=f"return {returned}")
    agent.worker_in("main")

    assert agent.stop() == code

    assert agent.lines()[-1] == ended(code << 8, code)
    assert not agent.pid_file.exists()


ENDS_BY_THEMSELVES = {
    "error in main": ({"main": "error('x')"}, 2),
    "error in init": ({"init": "error('x')"}, 2),
    "error in shutdown": ({"shutdown": "error('x')"}, 2),
    "error while loading": ({"top": "error('x')"}, 2),
    "os.exit in init": ({"init": "os.exit(7)"}, 7),
    "os.exit in main": ({"main": "os.exit(7)"}, 7),
    "os.exit in shutdown": ({"shutdown": "os.exit(7)"}, 7),
    "os.exit true": ({"main": "os.exit(true)"}, 0),
    "os.exit false, closing": ({"main": "os.exit(false, true)"}, 1),
    "os.exit 0": ({"main": "os.exit(0)"}, 0),
}


@pytest.mark.parametrize("phases, code", ENDS_BY_THEMSELVES.values(), ids=ENDS_BY_THEMSELVES.keys())
def test_worker_that_ends_itself_is_not_replaced(installation, phases, code):
    agent = installation.start_in_background(**phases)
    if "shutdown" in phases:
        agent.worker_in("main")
        agent.terminate()

    assert agent.end() == code

    assert agent.lines()[-1] == ended(code << 8, code)
    assert delays(agent) == []
    assert not agent.pid_file.exists()


def test_application_that_does_not_exist_ends_the_agent(installation):
    agent = installation.launch_in_background()

    assert agent.end() == 2

    assert agent.command_status == 0
    assert agent.lines()[-1] == ended(512, 2)
    assert "module 'app" in agent.records()[0].text


def test_chunk_that_cannot_be_loaded_ends_the_agent(installation):
    agent = installation.launch_in_background(name=installation.name + "]]")

    assert agent.end() == 1


def test_service_mode_goes_before_the_test_driver(installation):
    installation.write_module("tests.velunit", "return function() dom:Log('message', 'driver') return 9 end")

    agent = installation.start_in_background("-u", "*.lua", shutdown="return 5")
    agent.worker_in("main")

    assert agent.stop() == 5
    assert "Message: driver" not in agent.lines()


# Ends by a signal

WORDS = {
    signal.SIGQUIT: ("Verbose", "exited", "Quit"),
    signal.SIGILL: ("Error", "crashed", "Illegal instruction"),
    signal.SIGTRAP: ("Error", "crashed", "Trace/breakpoint trap"),
    signal.SIGABRT: ("Error", "crashed", "Aborted"),
    signal.SIGBUS: ("Verbose", "exited", "Bus error"),
    signal.SIGFPE: ("Verbose", "exited", "Floating point exception"),
    signal.SIGKILL: ("Verbose", "exited", "Killed"),
    signal.SIGSEGV: ("Error", "crashed", "Segmentation fault"),
    signal.SIGVTALRM: ("Verbose", "exited", "Virtual timer expired"),
    signal.SIGSYS: ("Verbose", "exited", "Bad system call"),
    signal.SIGRTMAX: ("Verbose", "exited", "Real-time signal 30"),
}


# What the worker itself leaves, see test_crash_dumps.py.
CRASH_RECORDS = ("Error: Crashed by signal", "Error: The crashed thread was running Lua")


def died(number, status=None):
    level, verb, name = WORDS[number]
    return f"{level}: Child process {verb} with status {status or int(number)} (signal {int(number)}: {name})"


# A sanitizer has handlers of its own for some of these, unless it is told otherwise.
UNHANDLED = [f"handle_{each}=0" for each in ("segv", "sigbus", "sigfpe", "sigill", "abort", "sigtrap")]


@pytest.mark.parametrize("number", WORDS, ids=lambda number: number.name)
def test_worker_killed_by_a_signal_is_replaced(installation, preloaded, number):
    agent = installation.start_in_background(shutdown="return 5", env=preloaded(*UNHANDLED, **WITHOUT_DELAYS))
    first = agent.worker_in("main")

    os.kill(first, number)
    second = agent.worker_in("main", other_than=[first])

    lines = [line for line in agent.lines() if not line.startswith(CRASH_RECORDS)]
    assert lines == ["Message: init", "Message: main", died(number), "Message: init", "Message: main"]
    assert agent.pid_file.read_text() == f"{agent.watchdog}\n"
    assert process_table()[second].parent == agent.watchdog
    assert agent.stop() == 5


def test_worker_killed_by_sigterm_ends_the_agent(installation):
    """No SIGTERM from outside can do that to a worker, which has it blocked: this one has become another program."""
    program = "import os, signal; signal.pthread_sigmask(signal.SIG_SETMASK, []); os.kill(os.getpid(), signal.SIGTERM)"
    agent = installation.start_in_background(main=f"require('posix.unistd').execp('python3', {{'-c', '{program}'}})")

    assert agent.end() == 0

    assert agent.lines()[-1] == "Verbose: Child process exited with status 15 (signal 15: Terminated)"
    assert not agent.pid_file.exists()


@pytest.mark.skipif(Path("/proc/sys/kernel/core_pattern").read_text().startswith("|"), reason="core dumps go to a program")
def test_core_dump_shows_in_the_status(installation):
    agent = installation.start_in_background(core_size=-1, env=sanitizer_options(*UNHANDLED, "disable_coredump=0"))

    os.kill(agent.worker_in("main"), signal.SIGSEGV)

    agent.record(died(signal.SIGSEGV, status=0x80 | signal.SIGSEGV))
    agent.record(DELAYED)
    assert agent.stop() == 0


CRASHES = {
    "while loading": {"top": die(signal.SIGKILL)},
    "in init": {"init": die(signal.SIGKILL)},
    "in main": {"main": die(signal.SIGKILL)},
}


@pytest.mark.parametrize("phases", CRASHES.values(), ids=CRASHES.keys())
def test_worker_that_crashes_in_a_phase_is_replaced(installation, phases):
    agent = installation.start_in_background(**phases)

    agent.record(died(signal.SIGKILL), count=2)

    assert agent.lines().count(DELAYED) == 1
    assert agent.stop() == 0


def test_worker_that_crashes_behind_main_is_replaced(installation):
    agent = installation.start_in_background()
    first = agent.worker_in("main")
    await_blocked_in(first, script_thread(first), RT_SIGTIMEDWAIT)

    os.kill(first, signal.SIGKILL)

    second = agent.worker_in("main", other_than=[first])
    await_blocked_in(second, script_thread(second), RT_SIGTIMEDWAIT)


@pytest.mark.crash
def test_order_of_the_lines_about_one_death(installation):
    agent = installation.start_in_background(main=f"dom:Log('error', 'out of paper') {die(signal.SIGSEGV)}", env=sanitizer_options(*UNHANDLED))

    agent.record("Message: main", count=2)

    lines = agent.records()
    dead, alive = lines[0].pid, lines[6].pid
    dump = installation.work / "diag" / f"{installation.name}.mdmp"
    assert [(record.pid, f"{record.level}: {record.text}") for record in lines[:8]] == [
        (dead, "Message: init"),
        (dead, "Message: main"),
        (dead, "Error: out of paper"),
        (dead, f"Error: Crashed by signal 11 (Segmentation fault) in thread {dead}, dump in {dump}"),
        (agent.watchdog, died(signal.SIGSEGV)),
        (agent.watchdog, DELAYED),
        (alive, "Message: init"),
        (alive, "Message: main"),
    ]


def test_records_of_watchdog_and_worker_do_not_mix(installation):
    """Every line of the log is one record, also when a worker is killed while it writes; only that one may be cut short."""
    busy = installation.root / "busy"
    agent = installation.start_in_background(main=f"for i = 1, 2000 do dom:Log('message', ('x'):rep(3000)) if i == 50 then io.open('{busy}', 'w') end end")
    await_condition(busy.exists, "a busy worker")

    os.kill(agent.record("Message: init").pid, signal.SIGKILL)
    agent.record(DELAYED)
    agent.terminate()

    assert agent.end() == 0
    long = [line for line in agent.lines() if "xxx" in line]
    assert len(long) >= 50 and set(long[:-1]) == {"Message: " + "x" * 3000} and long[0].startswith(long[-1])
    assert [line for line in agent.lines() if "xxx" not in line] == ["Message: init", "Message: main", died(signal.SIGKILL), DELAYED]


# Signals that are no end


def test_sigint_to_the_worker_ends_the_agent_with_success(installation):
    agent = installation.start_in_background(shutdown="return 5")
    worker = agent.worker_in("main")

    os.kill(worker, signal.SIGINT)

    assert agent.end() == 0
    assert agent.lines()[-1] == ended(0, 0)
    assert "Message: shutdown" not in agent.lines()
    assert not agent.pid_file.exists()


def test_sigterm_to_the_worker_ends_the_agent_in_order(installation):
    agent = installation.start_in_background(shutdown="return 5")
    worker = agent.worker_in("main")

    os.kill(worker, signal.SIGTERM)

    assert agent.end() == 5
    assert agent.lines()[2:] == ["Warning: sigwait(): caught signal 15", "Message: shutdown", ended(1280, 5)]
    assert not agent.pid_file.exists()


HARMLESS = [signal.SIGHUP, signal.SIGUSR1, signal.SIGUSR2, signal.SIGPIPE, signal.SIGALRM, signal.SIGRTMIN + 4, signal.SIGCHLD]


@pytest.mark.parametrize("number", HARMLESS, ids=lambda number: f"signal {int(number)}")
@pytest.mark.parametrize("phase", ["main", "waiting"])
def test_harmless_signal_has_no_effect_on_the_worker(installation, number, phase):
    gate = installation.root / "gate"
    agent = installation.start_in_background(main=once_there(gate) if phase == "main" else "", shutdown="return 5")
    worker = agent.worker_in("main")
    if phase == "waiting":
        await_blocked_in(worker, script_thread(worker), RT_SIGTIMEDWAIT)

    for _ in range(5):
        os.kill(worker, number)
        await_condition(lambda: not pending(worker) & {number}, "the delivery of a signal")
    gate.touch()

    assert agent.stop() == 5
    assert len({record.pid for record in agent.records()} - {agent.watchdog}) == 1


def pending(pid):
    return set().union(*(signals(status_of(pid, thread)[field]) for thread in threads(pid) for field in ("SigPnd", "ShdPnd")))


@pytest.mark.parametrize("number", [signal.SIGSTOP, signal.SIGTSTP], ids=lambda number: number.name)
def test_stopped_worker_is_not_replaced(installation, number):
    agent = installation.start_in_background(shutdown="return 5")
    worker = agent.worker_in("main")

    for _ in range(3):
        os.kill(worker, number)
        if number == signal.SIGSTOP:  # the group is orphaned, so the other has no effect
            await_condition(lambda: process_table()[worker].state == "T", "a stopped worker")
        os.kill(worker, signal.SIGCONT)
        await_condition(lambda: process_table()[worker].state == "S", "a worker that goes on")

    assert agent.lines() == ["Message: init", "Message: main"]
    assert agent.stop() == 5


def test_stopped_watchdog_catches_up(installation):
    agent = installation.start_in_background(shutdown="return 5")
    worker = agent.worker_in("main")
    os.kill(agent.watchdog, signal.SIGSTOP)
    await_condition(lambda: process_table()[agent.watchdog].state == "T", "a stopped watchdog")
    os.kill(worker, signal.SIGKILL)
    await_condition(lambda: process_table()[worker].state == "Z", "the end of the worker")

    os.kill(agent.watchdog, signal.SIGCONT)

    agent.worker_in("main", other_than=[worker])
    assert agent.stop() == 5


# Delays


def test_delay_doubles(installation):
    agent = installation.start_in_background(main=die(signal.SIGKILL))

    agent.record("Verbose: Delaying 4000ms before restart 3")
    agent.terminate()

    assert agent.end() == 0
    assert delays(agent) == [f"Verbose: Delaying {1000 << count}ms before restart {count + 1}" for count in range(3)]
    assert agent.lines().count("Message: main") == 3


def test_delay_is_waited_for(installation):
    """Measured inside, by the clock that both processes read."""
    clock = "local clock = require('posix.time').clock_gettime(1) dom:Log('message', clock.tv_sec * 1000 + math.floor(clock.tv_nsec / 1e6))"
    agent = installation.start_in_background(main=clock + die(signal.SIGKILL))

    agent.record("Message: main", count=3)
    agent.terminate()
    agent.end()

    times = [int(record.text) for record in agent.records() if record.text.isdigit()]
    assert 1000 <= times[1] - times[0] < 2000
    assert 2000 <= times[2] - times[1] < 4000


@pytest.mark.slow
def test_ninth_start_is_refused(installation):
    agent = installation.start_in_background(main=die(signal.SIGKILL))

    assert agent.end(timeout_s=180) == 255

    assert agent.lines().count("Message: main") == 8
    assert delays(agent) == [f"Verbose: Delaying {1000 << count}ms before restart {count + 1}" for count in range(7)]
    assert agent.lines()[-2:] == [
        died(signal.SIGKILL),
        "Error: Too many restarts in too short of a time, exiting (8 restarts in less than 512 seconds)",
    ]
    assert not agent.pid_file.exists()


# The window of 512 seconds, by a clock that the test sets


@dataclass
class Clock:
    path: Path

    def set(self, seconds):
        """So much later than it is."""
        new = self.path.with_suffix(".new")
        new.write_text(str(seconds))
        new.rename(self.path)


@pytest.fixture
def clock(installation):
    clock = Clock(installation.root / "clock")
    clock.set(0)
    return clock


def kill_worker_later(agent, clock, seconds, worker):
    """The worker dies when the clock stands there; returns the next one."""
    earlier = {record.pid for record in agent.records()}
    clock.set(seconds)
    os.kill(worker, signal.SIGKILL)
    return agent.worker_in("main", other_than=earlier)


WEEK_S = 7 * 24 * 3600
YEAR_2038 = 2**31


@pytest.mark.parametrize("day", ["today", "beyond 2038", "across 2038"])
def test_start_within_512_seconds_counts_and_an_older_one_does_not(installation, preloaded, clock, day):
    """A margin of 20 seconds on either side is for the time that passes; the exact limit is a matter of unit tests."""
    base = {"today": 0, "beyond 2038": YEAR_2038 + WEEK_S - int(time.time()), "across 2038": YEAR_2038 - 250 - int(time.time())}[day]
    clock.set(base)
    agent = installation.start_in_background(env=preloaded(TEST_CLOCK=clock.path))
    worker = agent.worker_in("main")

    worker = kill_worker_later(agent, clock, base + 512 + 20, worker)
    assert delays(agent) == []

    worker = kill_worker_later(agent, clock, base + 2 * 512, worker)
    assert delays(agent) == [DELAYED]

    worker = kill_worker_later(agent, clock, base + 4 * 512, worker)
    assert delays(agent) == [DELAYED]
    assert agent.stop() == 0


def test_clock_that_goes_back_does_not_end_the_agent(installation, preloaded, clock):
    agent = installation.start_in_background(env=preloaded(TEST_CLOCK=clock.path))
    worker = agent.worker_in("main")

    worker = kill_worker_later(agent, clock, -WEEK_S, worker)

    assert delays(agent) == [DELAYED]
    assert agent.stop() == 0


def test_a_start_counts_from_before_its_delay(installation, preloaded, clock):
    agent = installation.start_in_background(env=preloaded(TEST_CLOCK=clock.path))
    worker = agent.worker_in("main")
    os.kill(worker, signal.SIGKILL)
    agent.record(DELAYED)
    clock.set(300)
    worker = agent.worker_in("main", other_than={worker})

    kill_worker_later(agent, clock, 512 + 20, worker)

    assert delays(agent) == [DELAYED]
    assert agent.stop() == 0


# The driver stop


def with_driver(text, mode="0755"):
    """Runs the agent where the driver's init script is this text; None for none."""
    script = "mount -t tmpfs none /opt && mkdir /opt/kx_agent"
    if text is not None:
        script += f" && printf %s {shlex.quote(text)} > {DRIVER} && chmod {mode} {DRIVER}"
    return in_private_mounts(script + ' && exec "$@"')


def start_asking_for_a_driver_stop(installation, text, mode="0755", **options):
    """Starts an agent whose first worker ends with 3; the next one stays."""
    asked = installation.root / "asked"
    options = {
        "main": f"local file = io.open('{asked}') if not file then io.open('{asked}', 'w') return 3 end",
        "shutdown": "return 5",
        "wrapper": with_driver(text, mode),
        **options,
    }
    return installation.start_in_background(**options)


def between_workers(agent):
    """What the log has between the first worker's end and the second one's start."""
    agent.record("Message: main", count=2)
    lines = agent.lines()
    first, second = (number for number, line in enumerate(lines) if line == "Message: init")
    return lines[first + 2 : second]


ASKED = "Verbose: Child process exited with status 768 (exit 3)"
STOPPED = f"Message: Driver stopped using {DRIVER}"

NO_DRIVER = {"absent": (None, ""), "not executable": ("#!/bin/sh\n", "0644"), "empty mode": ("#!/bin/sh\n", "0000")}


@pytest.mark.parametrize("text, mode", NO_DRIVER.values(), ids=NO_DRIVER.keys())
def test_driver_stop_without_a_driver(installation, without_delays, text, mode):
    agent = start_asking_for_a_driver_stop(installation, text, mode, env=without_delays)

    assert between_workers(agent) == [ASKED]
    assert agent.stop() == 5


def test_driver_stop_without_its_folder(installation, without_delays):
    wrapper = in_private_mounts('mount -t tmpfs none /opt && exec "$@"')
    agent = start_asking_for_a_driver_stop(installation, None, wrapper=wrapper, env=without_delays)

    assert between_workers(agent) == [ASKED]
    assert agent.stop() == 5


DRIVERS = {
    "good": ("#!/bin/sh\nexit 0\n", STOPPED),
    "exit 4": ("#!/bin/sh\nexit 4\n", "Error: Error stopping driver: exited with status 4"),
    "exit 3": ("#!/bin/sh\nexit 3\n", "Error: Error stopping driver: exited with status 3"),
    "exit 255": ("#!/bin/sh\nexit 255\n", "Error: Error stopping driver: exited with status 255"),
    "SIGKILL": ("#!/bin/sh\nkill -KILL $$\n", "Error: Error stopping driver: killed by signal 9 (Killed)"),
    "SIGTERM": ("#!/bin/sh\nkill -TERM $$\n", "Error: Error stopping driver: killed by signal 15 (Terminated)"),
    "talkative": ("#!/bin/sh\nhead -c 1048576 /dev/zero\nhead -c 1048576 /dev/zero >&2\n", STOPPED),
    "reads its input": ("#!/bin/sh\nread line && exit 9\nexit 0\n", STOPPED),
    "shows no text": ("#!/bin/sh\nprintf \"\\\\377\\\\033[2J\\\\nError: forged\\\\n\"\nexit 1\n", "Error: Error stopping driver: exited with status 1"),
}


@pytest.mark.parametrize("text, line", DRIVERS.values(), ids=DRIVERS.keys())
def test_driver_stop(installation, without_delays, text, line):
    agent = start_asking_for_a_driver_stop(installation, text, env=without_delays)

    assert between_workers(agent) == [ASKED, line]
    assert agent.stop() == 5


HELPERS = {
    "silent": "sleep 1000",
    "a line now and then": "(while :; do echo line; sleep 0.02; done)",
    "a flood": "yes",
}


@pytest.mark.parametrize("helper", HELPERS.values(), ids=HELPERS.keys())
def test_driver_stop_that_leaves_a_helper(installation, without_delays, helper):
    """The helper has the script's output open and lives on, and nobody waits for it."""
    agent = start_asking_for_a_driver_stop(installation, f"#!/bin/sh\n{helper} &\nexit 0\n", env=without_delays)

    agent.record(STOPPED, timeout_s=10)
    assert between_workers(agent) == [ASKED, STOPPED]
    agent.watchdog_in_pid_file()  # the helper is an orphan, too
    agent.terminate()
    assert agent.status_of(agent.watchdog) == 5


def test_driver_that_cannot_be_started(installation, without_delays):
    agent = start_asking_for_a_driver_stop(installation, "#!/no/such/interpreter\n", env=without_delays)

    assert between_workers(agent) == [ASKED, f"Error: Error stopping driver: cannot start {DRIVER}: No such file or directory"]
    assert agent.stop() == 5


def test_driver_in_whose_place_a_folder_is(installation, without_delays):
    wrapper = in_private_mounts(f'mount -t tmpfs none /opt && mkdir -p {DRIVER} && exec "$@"')
    agent = start_asking_for_a_driver_stop(installation, None, wrapper=wrapper, env=without_delays)

    assert between_workers(agent) == [ASKED, f"Error: Error stopping driver: cannot start {DRIVER}: Permission denied"]
    assert agent.stop() == 5


@pytest.mark.parametrize("phases", [{"init": "return 3"}, {"main": "os.exit(3)"}, {"main": "return 259"}, {"main": "return '3'"}], ids=str)
def test_every_way_to_ask_for_a_driver_stop(installation, phases):
    agent = installation.start_in_background(wrapper=with_driver("#!/bin/sh\n"), **phases)

    agent.record(DELAYED)

    assert agent.lines()[-3:] == [ASKED, STOPPED, DELAYED]
    assert agent.stop() == 3


def test_what_the_driver_script_gets(installation):
    """Its one argument, default signals, its own group, and no descriptors but the standard three."""
    shown = installation.root / "shown"
    script = f"""#!/usr/bin/python3 -IS
import json, os, sys
status = dict(line.split(":\\t", 1) for line in open("/proc/self/status").read().splitlines())
def is_open(number):
    try:
        os.fstat(number)
        return True
    except OSError:
        return False
facts = {{
    "words": sys.argv[1:],
    "descriptors": [number for number in range(1024) if is_open(number)],
    "input": os.readlink("/proc/self/fd/0"),
    "masks": [status["SigBlk"], status["SigIgn"]],
    "ids": [os.getpid(), os.getpgrp(), os.getsid(0), os.getppid()],
}}
json.dump(facts, open("{shown}", "w"))
"""
    caller = {"ignored": [signal.SIGHUP, signal.SIGUSR1], "blocked": [signal.SIGUSR2, signal.SIGCHLD]}
    agent = start_asking_for_a_driver_stop(installation, script, **caller)

    assert between_workers(agent) == [ASKED, STOPPED, DELAYED]
    facts = json.loads(shown.read_text())
    pid, group, session, parent = facts["ids"]
    assert facts["words"] == ["stopmod"]
    assert (facts["descriptors"], facts["input"]) == ([0, 1, 2], "/dev/null")
    assert [signals(mask) - {signal.SIGPIPE, signal.SIGXFSZ} for mask in facts["masks"]] == [set(), set()]  # these are Python's own
    assert (group, session, parent) == (pid, process_table()[agent.watchdog].session, agent.watchdog)


def test_driver_stop_counts_as_a_start(installation):
    """A worker that asks for it again and again runs into the same delays."""
    agent = installation.start_in_background(main="return 3", wrapper=with_driver("#!/bin/sh\n"))

    agent.record("Verbose: Delaying 2000ms before restart 2")

    assert agent.lines().count(STOPPED) == 2
    assert agent.stop() == 3


# Failing system calls


def test_worker_that_cannot_be_forked(installation, preloaded):
    agent = installation.start_in_background(env=preloaded(TEST_FORK=3))

    assert agent.end() == 255

    assert agent.lines() == ["Error: Unable to fork child (error 11: Resource temporarily unavailable)"]
    assert not agent.pid_file.exists()


def test_next_worker_that_cannot_be_forked(installation, preloaded):
    agent = installation.start_in_background(main=die(signal.SIGKILL), env=preloaded(TEST_FORK=4))

    assert agent.end() == 255

    assert agent.lines()[2:] == [died(signal.SIGKILL), DELAYED, "Error: Unable to fork child (error 11: Resource temporarily unavailable)"]
    assert not agent.pid_file.exists()


def test_wait_that_fails(installation, preloaded):
    """The worker that is then without a watchdog ends in order."""
    agent = installation.start_in_background(env=preloaded(TEST_WAITPID="ERROR"))

    watchdog = agent.record("Error: Error waiting for child process (error 10: No child processes)").pid
    agent.await_nothing_left()

    assert agent.status_of(watchdog) == 255
    assert not agent.pid_file.exists()


def test_wait_that_gives_another_process_is_repeated(installation, preloaded):
    agent = installation.start_in_background(shutdown="return 5", env=preloaded(TEST_WAITPID="OTHER"))
    agent.worker_in("main")

    assert agent.stop() == 5

    assert agent.lines()[-1] == ended(1280, 5)


UNHANDLED_TRACE = "OnUnhandledException() - caught unhandled {}, terminating app."


@pytest.mark.parametrize(
    ("thrown", "description"),
    [("runtime_error", 'std::exception of type "St13runtime_error", what() = "x"'), ("int", "int exception 42")],
)
def test_an_exception_that_ends_the_watchdog_is_traced(installation, throwing, thrown, description):
    agent = installation.start_in_background("-t", "Appl", env=throwing(TEST_THROW=thrown))

    agent.await_nothing_left()

    assert agent.status_of(agent.watchdog) == 255
    traced = [record.text for record in agent.records() if record.pid == agent.watchdog and "OnUnhandledException" in record.text]
    assert [text[text.index("OnUnhandledException()"):] for text in traced] == [
        "OnUnhandledException()", UNHANDLED_TRACE.format(description)]
    assert not agent.pid_file.exists()


# What it costs


def switches(pid):
    return [status_of(pid, thread)["voluntary_ctxt_switches"] for thread in threads(pid)]


@pytest.mark.without_tsan
def test_agent_that_waits_does_nothing(installation):
    """For as long as another one waits for its restart."""
    agent = installation.start_in_background(name=installation.name + "_idle")
    worker = agent.worker_in("main")
    for pid, thread, call in ((worker, script_thread(worker), RT_SIGTIMEDWAIT), (worker, worker, EPOLL_WAIT), (agent.watchdog, agent.watchdog, WAIT4)):
        await_blocked_in(pid, thread, call)
    other = installation.start_in_background(main=die(signal.SIGKILL))
    before = switches(agent.watchdog), switches(worker)

    other.record("Message: main", count=2)

    assert (switches(agent.watchdog), switches(worker)) == before


def memory_of(pid):
    """What the process has that is in no file, in KiB, shared with a child or not."""
    return int(status_of(pid, pid)["RssAnon"].split()[0])


RESTARTS = max(50, LONG_LOOP // 2)


@pytest.mark.slow
@pytest.mark.address_space
def test_restarts_leave_nothing_in_the_watchdog(installation, without_delays):
    agent = installation.start_in_background(init=die(signal.SIGKILL), env=without_delays)

    def have_died(count):
        return agent.lines().count(died(signal.SIGKILL)) >= count

    def measure(restarts):
        """When so many workers have died."""
        agent.wait_for(lambda: have_died(restarts), f"{restarts} restarts", timeout_s=600)
        # What is open only for a worker, or while the log is written, is not there all the time through some restarts.
        seen = []
        agent.wait_for(lambda: seen.append(set(os.listdir(f"/proc/{agent.watchdog}/fd"))) or have_died(restarts + 3), "three more")
        return memory_of(agent.watchdog), sorted(set.intersection(*seen)), len(threads(agent.watchdog))

    # The first hundreds touch what has not been touched before, some pages in all.
    early, late = measure(RESTARTS // 2), measure(RESTARTS)

    assert delays(agent) == []
    assert late[1:] == early[1:]
    assert late[0] <= early[0] + 16, (early[0], late[0])
    agent.terminate()
    agent.end()

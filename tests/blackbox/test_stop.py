"""The end of a service: SIGTERM once and twice, at every instant, and a worker whose watchdog is gone."""

import os
import random
import signal
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from agentbox import LONG_LOOP, await_condition, in_private_mounts, sanitizer_options
from background import die, log, once_there, process_table
from proc import RT_SIGTIMEDWAIT, WAIT4, await_blocked_in, script_thread, signals, status_of, threads

DELAYED = "Verbose: Delaying 1000ms before restart 1"
INTERRUPTED = "Warning: Waiting for child process interrupted - Try again"
CAUGHT = "Warning: sigwait(): caught signal 15"

# So many agents stop at the same time; most of the time each of them waits for the machine.
SIDE_BY_SIDE = 6


def await_waiting(agent):
    """Waits until the script thread waits for SIGTERM, and returns the worker."""
    worker = agent.worker_in("main")
    await_blocked_in(worker, script_thread(worker), RT_SIGTIMEDWAIT)
    return worker


def terminate_in_wait(agent):
    """Asks the agent to end while its watchdog waits for the worker, and waits until the watchdog has noticed."""
    await_blocked_in(agent.watchdog, agent.watchdog, WAIT4)
    agent.terminate()
    agent.record(INTERRUPTED)


# SIGTERM once


def test_stop_runs_shutdown_and_keeps_its_status(installation):
    agent = installation.start_in_background(shutdown="return 5")
    worker = await_waiting(agent)

    terminate_in_wait(agent)
    assert agent.end() == 5

    of_worker = [f"{r.level}: {r.text}" for r in agent.records() if r.pid == worker]
    of_watchdog = [f"{r.level}: {r.text}" for r in agent.records() if r.pid == agent.watchdog]
    assert of_worker == ["Message: init", "Message: main", CAUGHT, "Message: shutdown"]
    assert set(of_watchdog[:-1]) == {INTERRUPTED}
    assert of_watchdog[-1] == agent.lines()[-1] == "Verbose: Child process exited with status 1280 (exit 5)"
    assert not agent.pid_file.exists()


def test_wait_for_the_stop_that_fails_is_told_and_shutdown_follows(installation, preloaded):
    agent = installation.start_in_background(shutdown="return 5", env=preloaded(TEST_SIGWAIT="ERROR"))

    assert agent.end() == 5

    assert agent.lines() == [
        "Message: init",
        "Message: main",
        "Error: sigwait (error 22: Invalid argument)",
        "Message: shutdown",
        "Verbose: Child process exited with status 1280 (exit 5)",
    ]


def test_pid_file_goes_when_the_stop_begins(installation):
    gate = installation.root / "gate"
    agent = installation.start_in_background(shutdown=once_there(gate) + "return 5")
    worker = await_waiting(agent)

    agent.terminate()
    assert agent.worker_in("shutdown") == worker
    assert not agent.pid_file.exists()

    agent.wait_for(lambda: set(agent.processes()) == {agent.watchdog, worker}, "watchdog and worker alone")
    gate.touch()
    assert agent.end() == 5


@pytest.mark.parametrize("phase", ["top", "init", "main"])
def test_stop_before_the_application_waits(installation, phase):
    """The phases up to shutdown are run to their end, and shutdown after them."""
    gate = installation.root / "gate"
    agent = installation.start_in_background(**{"shutdown": "return 5", phase: log("blocks") + once_there(gate)})
    agent.record("Message: blocks")

    agent.terminate()
    agent.wait_for(lambda: not agent.pid_file.exists(), "the end of the pid file")
    gate.touch()

    assert agent.end() == 5
    assert [line for line in agent.lines() if line.startswith("Message") and "blocks" not in line] == ["Message: init", "Message: main", "Message: shutdown"]


@pytest.mark.parametrize("phase", ["init", "main"])
def test_stop_in_a_phase_that_fails_keeps_its_status(installation, phase):
    gate = installation.root / "gate"
    agent = installation.start_in_background(**{phase: once_there(gate) + "return 7"})
    agent.worker_in(phase)

    terminate_in_wait(agent)
    gate.touch()

    assert agent.end() == 7
    assert "Message: shutdown" not in agent.lines()


def test_stop_while_shutdown_runs(installation):
    """The worker was asked alone at first."""
    gate = installation.root / "gate"
    agent = installation.start_in_background(shutdown=once_there(gate) + log("done"))
    os.kill(await_waiting(agent), signal.SIGTERM)
    agent.worker_in("shutdown")

    terminate_in_wait(agent)
    assert not agent.pid_file.exists()
    gate.touch()

    assert agent.end() == 0
    assert agent.lines().count("Message: shutdown") == agent.lines().count("Message: done") == 1


def test_stop_of_the_whole_group(installation):
    agent = installation.start_in_background(shutdown=log("done"))
    await_waiting(agent)

    os.killpg(os.getpgid(agent.watchdog), signal.SIGTERM)

    assert agent.end() == 0
    assert agent.lines().count("Message: done") == 1
    assert not agent.pid_file.exists()


def test_stop_reaches_a_program_that_the_application_waits_for(installation):
    agent = installation.start_in_background(main="os.execute('echo > begun; exec sleep 1000')", shutdown="return 5")
    agent.wait_for((installation.work / "begun").exists, "the program")

    assert agent.stop() == 5


def test_stop_of_a_worker_that_was_started_later(installation):
    agent = installation.start_in_background(shutdown="return 5")
    first = agent.worker_in("main")
    os.kill(first, signal.SIGKILL)
    agent.worker_in("main", other_than=[first])

    assert agent.stop() == 5

    assert agent.lines().count("Message: shutdown") == 1
    assert not agent.pid_file.exists()


ENDS = {"SIGKILL": (die(signal.SIGKILL), 0), "SIGSEGV": (die(signal.SIGSEGV), 0), "os.exit": ("os.exit(7)", 7), "error": ("error('x')", 2)}


@pytest.mark.parametrize("end, status", ENDS.values(), ids=ENDS.keys())
def test_worker_that_ends_after_a_stop_is_not_replaced(installation, end, status):
    agent = installation.start_in_background(shutdown=end, env=sanitizer_options("handle_segv=0"))
    await_waiting(agent)

    assert agent.stop() == status

    assert agent.lines().count("Message: init") == 1
    assert not any("Delaying" in line for line in agent.lines())


def test_stop_of_a_worker_that_stands_still(installation):
    agent = installation.start_in_background(shutdown="return 5")
    worker = await_waiting(agent)
    os.kill(worker, signal.SIGSTOP)
    await_condition(lambda: process_table()[worker].state == "T", "a stopped worker")

    terminate_in_wait(agent)
    os.kill(worker, signal.SIGCONT)

    assert agent.end() == 5


# SIGTERM in the delay


@pytest.mark.parametrize("end, status", [(die(signal.SIGKILL), 0), ("return 3", 3)], ids=["killed", "exit 3"])
def test_stop_in_the_delay_ends_it(installation, end, status):
    """The second delay, of two seconds, is long enough to tell its end by the signal from its end by itself."""
    agent = installation.start_in_background(main=end)
    agent.record("Verbose: Delaying 2000ms before restart 2")

    begun = time.monotonic()
    assert agent.stop() == status

    assert time.monotonic() - begun < 1
    assert agent.lines()[-1] == "Verbose: Delaying 2000ms before restart 2"
    assert agent.lines().count("Message: init") == 2
    assert not agent.pid_file.exists()


def test_stop_in_the_delay_takes_a_tenth_of_a_second(installation):
    """The best of some, since this machine does other things too."""
    taken = []
    for number in range(5):
        agent = installation.start_in_background(main=die(signal.SIGKILL), name=f"{installation.name}_{number}")
        agent.record(DELAYED)
        begun = time.monotonic()
        agent.stop()
        taken.append(time.monotonic() - begun)

    assert min(taken) < 0.15, taken


# SIGTERM while the driver is stopped


def with_driver(installation):
    """Runs the agent where the driver's init script waits for a file, and says that it has begun and ended."""
    script = f"#!/bin/sh\n: > {installation.root}/begun\nwhile ! [ -e {installation.root}/gate ]; do sleep 0.01; done\n: > {installation.root}/ended\n"
    (installation.root / "driver").write_text(script)
    return in_private_mounts(
        f'mount -t tmpfs none /opt && mkdir /opt/kx_agent && install -m 755 "{installation.root}/driver" /opt/kx_agent/SunOS.init && exec "$@"'
    )


def test_stop_while_the_driver_is_stopped(installation):
    """The script is run to its end, in a group of its own, and no worker follows."""
    agent = installation.start_in_background(main="return 3", wrapper=with_driver(installation))
    agent.wait_for((installation.root / "begun").exists, "the driver's script")

    agent.terminate()
    (installation.root / "gate").touch()

    assert agent.end() == 3
    assert (installation.root / "ended").exists()
    assert "Message: Driver stopped using /opt/kx_agent/SunOS.init" in agent.lines()
    assert agent.lines().count("Message: init") == 1
    assert not agent.pid_file.exists()


def test_stop_is_seen_while_the_driver_is_stopped(installation):
    agent = installation.start_in_background(main="return 3", wrapper=with_driver(installation))
    agent.wait_for((installation.root / "begun").exists, "the driver's script")

    agent.terminate()

    agent.wait_for(lambda: not agent.pid_file.exists(), "the end of the pid file", timeout_s=10)


def test_second_stop_ends_the_watchdog_while_a_driver_script_hangs(installation):
    agent = installation.start_in_background(main="return 3", wrapper=with_driver(installation))
    agent.wait_for((installation.root / "begun").exists, "the driver's script")
    agent.terminate()
    agent.wait_for(lambda: not agent.pid_file.exists(), "the end of the pid file", timeout_s=10)

    agent.terminate()

    assert agent.status_of(agent.watchdog) == 0
    (installation.root / "gate").touch()
    agent.await_nothing_left()


def test_driver_stop_that_shutdown_asks_for(installation):
    (installation.root / "gate").touch()
    agent = installation.start_in_background(shutdown="return 3", wrapper=with_driver(installation))
    await_waiting(agent)

    assert agent.stop() == 3

    assert agent.lines()[-1] == "Message: Driver stopped using /opt/kx_agent/SunOS.init"
    assert agent.lines().count("Message: init") == 1


# SIGTERM twice


@pytest.mark.parametrize("phase", ["init", "main", "shutdown"])
def test_second_stop_ends_the_watchdog_at_once(installation, phase):
    gate = installation.root / "gate"
    agent = installation.start_in_background(**{phase: log("blocks") + once_there(gate)})
    if phase == "shutdown":
        await_waiting(agent)
        terminate_in_wait(agent)
    worker = agent.record("Message: blocks").pid
    if phase != "shutdown":
        terminate_in_wait(agent)
    agent.wait_for(lambda: not agent.pid_file.exists(), "the end of the pid file")

    agent.terminate()

    assert agent.status_of(agent.watchdog) == 0
    assert worker in process_table()
    gate.touch()
    agent.await_nothing_left()
    assert "Message: shutdown" in agent.lines()


def test_own_signal_of_the_watchdog_is_no_second_stop(installation):
    gate = installation.root / "gate"
    agent = installation.start_in_background(shutdown=once_there(gate) + "return 5")
    await_waiting(agent)

    agent.terminate()
    agent.worker_in("shutdown")  # the group has its SIGTERM, and the watchdog has it with the group
    agent.wait_for(lambda: signal.SIGTERM not in signals(status_of(agent.watchdog, agent.watchdog)["ShdPnd"]), "its delivery")
    gate.touch()

    assert agent.end() == 5


def test_many_stops(installation):
    agent = installation.start_in_background()
    await_waiting(agent)

    for _ in range(50):
        try:
            agent.terminate()
        except ProcessLookupError:
            break

    assert agent.end() == 0
    assert not agent.pid_file.exists()


# At every instant


def assert_ended_in_order(agent):
    """No process and no pid file is left, and every worker that got to main, if it was not killed, got to shutdown."""
    agent.await_nothing_left()
    assert not agent.pid_file.exists()
    records = agent.records()
    for worker in {record.pid for record in records if record.text == "main"}:
        assert "shutdown" in {record.text for record in records if record.pid == worker}, agent.lines()


def side_by_side(scenario, rounds):
    with ThreadPoolExecutor(SIDE_BY_SIDE) as pool:
        for done in [pool.submit(scenario, number) for number in range(rounds)]:
            done.result()


def two_shares_of(rounds):
    """Two shares of a long loop: a small one, and the rest for runs that have the time."""
    few = max(1, rounds // 10)
    return pytest.mark.parametrize("numbers", [range(few), pytest.param(range(few, rounds), marks=pytest.mark.slow)], ids=["few", "many"])


def stop_after(installation, number, instant, again=None, number_of_signal=signal.SIGTERM):
    """Starts an agent and signals what its pid file names, so long after the file has appeared."""
    agent = installation.launch_in_background(name=f"{installation.name}_{number}")
    watchdog = agent.watchdog_in_pid_file()
    time.sleep(instant)
    os.kill(watchdog, number_of_signal)
    if again is not None:
        time.sleep(again)
        try:
            os.kill(watchdog, signal.SIGTERM)
        except ProcessLookupError:
            pass
    assert agent.command_status == 0
    return agent


def write_services(installation, numbers, **phases):
    for number in numbers:
        installation.write_service(name=f"{installation.name}_{number}", **phases)


@two_shares_of(LONG_LOOP // 4)
def test_stop_straight_behind_the_pid_file(installation, numbers):
    write_services(installation, numbers, shutdown="return 5")

    def scenario(number):
        agent = stop_after(installation, numbers[number], 0)
        assert_ended_in_order(agent)
        assert agent.status_of(agent.watchdog) == (5 if "Message: shutdown" in agent.lines() else 0)

    side_by_side(scenario, len(numbers))


@two_shares_of(LONG_LOOP // 2)
def test_stop_at_a_random_instant(installation, numbers):
    write_services(installation, numbers, shutdown="return 5")
    instants = random.Random(numbers.start)

    def scenario(number):
        agent = stop_after(installation, numbers[number], instants.uniform(0, 0.1))
        assert_ended_in_order(agent)
        assert agent.status_of(agent.watchdog) == (5 if "Message: shutdown" in agent.lines() else 0)

    side_by_side(scenario, len(numbers))


@two_shares_of(LONG_LOOP // 8)
def test_two_stops_at_random_instants(installation, numbers):
    write_services(installation, numbers)
    instants = random.Random(numbers.start)

    def scenario(number):
        assert_ended_in_order(stop_after(installation, numbers[number], instants.uniform(0, 0.05), again=instants.uniform(0, 0.02)))

    side_by_side(scenario, len(numbers))


@two_shares_of(LONG_LOOP // 8)
def test_stop_at_a_random_instant_of_a_worker_that_dies(installation, numbers):
    """Around its death, too, a stop is the end: at most one more worker was under way."""
    write_services(installation, numbers, init=die(signal.SIGKILL))
    instants = random.Random(numbers.start)

    def scenario(number):
        agent = stop_after(installation, numbers[number], instants.uniform(0, 1.2))
        agent.await_nothing_left()
        assert not agent.pid_file.exists()
        assert agent.status_of(agent.watchdog) == 0
        assert agent.lines().count("Message: init") <= 2

    side_by_side(scenario, len(numbers))


@two_shares_of(LONG_LOOP // 16)
def test_watchdog_vanishes_at_a_random_instant(installation, numbers):
    write_services(installation, numbers, shutdown="return 5")
    instants = random.Random(numbers.start)

    def scenario(number):
        agent = stop_after(installation, numbers[number], instants.uniform(0, 0.1), number_of_signal=signal.SIGKILL)
        begun = time.monotonic()
        agent.await_nothing_left()
        assert time.monotonic() - begun < 10
        workers = [end for end in agent.ends if end.pid not in (agent.command, agent.watchdog, end.session)]
        assert [end.status for end in workers] in ([], [5]), agent.ends
        if "Message: main" in agent.lines():
            assert "Message: shutdown" in agent.lines()
            assert [end.status for end in workers] == [5]

    side_by_side(scenario, len(numbers))


# A watchdog that is gone


def stop_requested(worker):
    """Whether SIGTERM is pending for the worker, as after a stop that its script has not come to yet."""
    pending = (status_of(worker, thread)[field] for thread in threads(worker) for field in ("SigPnd", "ShdPnd"))
    return any(signal.SIGTERM in signals(field) for field in pending)


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGABRT, signal.SIGSEGV, signal.SIGHUP], ids=lambda number: number.name)
def test_worker_without_a_watchdog_ends_in_order(installation, number):
    agent = installation.start_in_background(shutdown="return 5")
    worker = await_waiting(agent)

    os.kill(agent.watchdog, number)
    agent.status_of(agent.watchdog)  # writing a dump takes its time
    agent.record("Message: shutdown", timeout_s=2)

    assert agent.status_of(worker) == 5
    agent.await_nothing_left()
    assert agent.pid_file.read_text() == f"{agent.watchdog}\n"


@pytest.mark.parametrize("phase", ["top", "init", "main"])
def test_worker_without_a_watchdog_before_it_waits(installation, phase):
    gate = installation.root / "gate"
    agent = installation.start_in_background(**{"shutdown": "return 5", phase: log("blocks") + once_there(gate)})
    worker = agent.record("Message: blocks").pid

    os.kill(agent.watchdog, signal.SIGKILL)
    await_condition(lambda: stop_requested(worker), "the stop request", timeout_s=2)
    gate.touch()

    assert agent.status_of(worker) == 5
    agent.await_nothing_left()
    assert "Message: shutdown" in agent.lines()


def test_worker_without_a_watchdog_that_shuts_down_already(installation):
    gate = installation.root / "gate"
    agent = installation.start_in_background(shutdown=once_there(gate) + log("done"))
    worker = await_waiting(agent)
    agent.terminate()
    agent.worker_in("shutdown")

    os.kill(agent.watchdog, signal.SIGKILL)
    agent.status_of(agent.watchdog)
    gate.touch()

    assert agent.status_of(worker) == 0
    agent.await_nothing_left()
    assert agent.lines().count("Message: shutdown") == agent.lines().count("Message: done") == 1


def test_worker_without_a_watchdog_that_has_left_programs_behind(installation):
    """What the application has started does not hide from the worker that its watchdog is gone."""
    agent = installation.start_in_background(main="os.execute('sleep 1000 &') io.popen('sleep 1000')", shutdown="return 5")
    worker = await_waiting(agent)

    os.kill(agent.watchdog, signal.SIGKILL)

    assert agent.status_of(worker) == 5


def test_later_worker_without_a_watchdog(installation):
    agent = installation.start_in_background(shutdown="return 5")
    first = agent.worker_in("main")
    os.kill(first, signal.SIGKILL)
    second = agent.worker_in("main", other_than=[first])

    os.kill(agent.watchdog, signal.SIGKILL)

    assert agent.status_of(second) == 5
    agent.await_nothing_left()


def test_watchdog_that_stands_still_is_not_gone(installation):
    """For as long as another worker waits for its restart."""
    agent = installation.start_in_background(name=installation.name + "_still", shutdown="return 5")
    worker = await_waiting(agent)
    os.kill(agent.watchdog, signal.SIGSTOP)
    other = installation.start_in_background(main=die(signal.SIGKILL))

    other.record("Message: main", count=2)

    assert agent.lines() == ["Message: init", "Message: main"]
    os.kill(agent.watchdog, signal.SIGCONT)
    os.kill(worker, signal.SIGTERM)
    assert agent.end() == 5


def test_start_after_the_watchdog_has_vanished_runs_alone(installation):
    first = installation.start_in_background()
    await_waiting(first)
    os.kill(first.watchdog, signal.SIGKILL)
    first.await_nothing_left()

    second = installation.start_in_background()
    second.wait_for(lambda: second.lines().count("Message: main") == 2, "the second start")

    assert f"Verbose: {second.pid_file} present (pid={first.watchdog}), but doesn't seem to be running." in second.lines()
    assert second.pid_file.read_text() == f"{second.watchdog}\n"
    parents = [process.parent for process in process_table().values() if process.group == os.getpgid(second.watchdog)]
    assert sorted(parents) == sorted([second.keeper, second.watchdog])
    assert second.stop() == 0


# Ways not to end.
ASLEEP = log("blocks") + "require('posix.unistd').sleep(1000)"
# A stream that nobody reads from is full, and its last bytes are left for the end of the process.
WRITING_AT_THE_END = f"""
    held = io.open('unread', 'r+')
    held:write(('x'):rep(2^16))
    held:flush()
    held:write('one more')
    {log('blocks')}
"""
ENDLESS = {
    "asleep while loading": {"top": ASLEEP},
    "asleep in init": {"init": ASLEEP},
    "asleep in main": {"main": ASLEEP},
    "asleep in shutdown": {"shutdown": ASLEEP},
    "busy": {"main": log("blocks") + "while true do end"},
    "busy, protected": {"shutdown": log("blocks") + "while true do pcall(error) end"},
    "in a program": {"main": log("blocks") + "os.execute('exec sleep 1000')"},
    "reading": {"main": log("blocks") + "io.open('pipe'):read('*a')"},
    "writing at the end": {"main": WRITING_AT_THE_END + "return 4"},
    "asleep in os.exit": {"main": f"held = setmetatable({{}}, {{__gc = function() {ASLEEP} end}}) os.exit(0, true)"},
    "stopped twice": {"shutdown": ASLEEP},
    "disturbed": {"shutdown": f"while true do {ASLEEP} end"},
}

LIMIT_S = 15


class Stuck:
    """A worker that does not end, and loses its watchdog."""

    def __init__(self, installation, case, number):
        self.case = case
        phases = ENDLESS[case]
        self.agent = installation.start_in_background(name=f"{installation.name}_{number}", **phases)
        if "shutdown" in phases:
            os.kill(await_waiting(self.agent), signal.SIGTERM)
        self.worker = self.agent.record("Message: blocks").pid
        if case == "stopped twice":
            terminate_in_wait(self.agent)
        self.watchdog = self.agent.watchdog

    def lose_watchdog(self):
        os.kill(self.watchdog, signal.SIGTERM if self.case == "stopped twice" else signal.SIGKILL)
        self.lost = time.monotonic()

    @property
    def has_ended(self):
        return self.worker in {end.pid for end in self.agent.ends}

    def await_end(self):
        """Returns the status, and how long it took."""
        return self.agent.status_of(self.worker), time.monotonic() - self.lost


@pytest.mark.slow
def test_worker_without_a_watchdog_that_does_not_end_is_cut_off(installation):
    """All at the same time, because each takes fifteen seconds."""
    installation.work.mkdir(mode=0o700)
    for fifo in ("pipe", "unread"):
        os.mkfifo(installation.work / fifo)
    stuck = [Stuck(installation, case, number) for number, case in enumerate(ENDLESS)]
    for each in stuck:
        each.lose_watchdog()
    disturbed = next(each.worker for each in stuck if each.case == "disturbed")

    def fourteen_seconds_later():
        for number in (signal.SIGALRM, signal.SIGUSR1, signal.SIGRTMIN + 4):
            os.kill(disturbed, number)
        return time.monotonic() - stuck[0].lost > LIMIT_S - 1

    await_condition(fourteen_seconds_later, "fourteen seconds")
    assert [each.case for each in stuck if each.has_ended] == []
    with ThreadPoolExecutor(len(stuck)) as pool:
        ends = list(pool.map(Stuck.await_end, stuck))

    assert [status for status, _ in ends] == [1] * len(stuck)
    assert max(taken for _, taken in ends) < LIMIT_S + 2, ends
    for each in stuck:
        last = each.agent.records()[-1]
        assert (last.pid, last.level) == (each.worker, "Error"), (each.case, last)


@pytest.mark.without_tsan
def test_worker_without_a_watchdog_that_only_writes_yet_ends_at_once(installation):
    """Behind shutdown the signal is no longer taken in order."""
    installation.work.mkdir(mode=0o700)
    os.mkfifo(installation.work / "unread")
    agent = installation.start_in_background(shutdown=WRITING_AT_THE_END)
    os.kill(await_waiting(agent), signal.SIGTERM)
    worker = agent.record("Message: blocks").pid

    os.kill(agent.watchdog, signal.SIGKILL)

    assert agent.status_of(worker) == 0


def test_worker_without_a_watchdog_may_take_a_while(installation):
    """For as long as another worker waits for its restart."""
    gate = installation.root / "gate"
    agent = installation.start_in_background(name=installation.name + "_slow", shutdown=once_there(gate) + "return 5")
    worker = await_waiting(agent)
    os.kill(agent.watchdog, signal.SIGKILL)
    agent.worker_in("shutdown")
    other = installation.start_in_background(main=die(signal.SIGKILL))

    other.record("Message: main", count=2)
    gate.touch()

    assert agent.status_of(worker) == 5

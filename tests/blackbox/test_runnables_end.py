"""The end of a process in which background runnables live."""

import os
import signal
import subprocess
import time

import pytest

from agentbox import DEADLINE_S, LONG_LOOP, await_end, await_line, sanitizer_options
from background import log

WAITER = "return function(self) dom:Log('message', 'waiting') while not self:TestDestroy(1e9) do end dom:Log('message', 'done') end"

# Ignores what it is asked, inside a C function and in Lua.
STUBBORN = {
    "in Lua": "return function() dom:Log('message', 'stuck') while true do end end",
    "in C": "return function() dom:Log('message', 'stuck') return (('a'):rep(1e5):find(('.-'):rep(9) .. 'b')) end",
}

UNWILLING = "Error: Runnable 'worker' has not ended within 10000 ms"



@pytest.fixture
def waiter(installation):
    installation.write_module("worker", WAITER)


# In order


@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
@pytest.mark.parametrize(
    ("phases", "status"),
    [
        ({"main": "{start}"}, 0),
        ({"main": "{start}", "shutdown": "return 4"}, 4),
        ({"main": "{start} return 5"}, 5),
        ({"init": "{start} return 6"}, 6),
        ({"main": "{start} error('broken')"}, 2),
    ],
)
def test_behind_the_last_phase_all_of_them_end(installation, waiter, name, phases, status):
    installation.name = name or installation.name
    start = "for i = 1, 3 do dom:StartRunnable('worker') end"
    installation.write_app(**{phase: text.format(start=start) for phase, text in phases.items()})

    outcome = installation.run()

    assert outcome.status == status, outcome
    assert installation.log_lines("Message").count("done") == 3
    assert [line for line in installation.log_lines("Error") if "Runnable" in line] == []


def test_a_unit_test_run_ends_them_too(installation, waiter):
    installation.write_app(init="dom:StartRunnable('worker')")
    installation.write_module("tests.velunit", "return function() return 3 end")
    script = installation.root / "script.lua"
    script.touch()

    assert installation.run("-u", script).status == 3
    assert installation.log_has("Message: done")


def test_a_service_ends_them_behind_shutdown(installation, waiter):
    agent = installation.start_in_background(main="dom:StartRunnable('worker')", shutdown="return 5")
    agent.record("Message: waiting")

    assert agent.stop() == 5
    messages = [line for line in agent.lines() if line.startswith("Message: ")]
    assert messages[-2:] == ["Message: shutdown", "Message: done"]


def test_shutdown_may_end_them_itself(installation, waiter):
    agent = installation.start_in_background(
        top="local worker",
        main="worker = dom:StartRunnable('worker')",
        shutdown=f"worker:RequestExit() assert(worker:Join()) {log('joined')}",
    )
    agent.record("Message: waiting")

    assert agent.stop() == 0
    assert "Message: joined" in agent.lines()


def test_what_they_start_at_the_end_finds_exit_requested(installation):
    installation.write_module("child", f"return function(self) assert(self:TestDestroy()) {log('child')} end")
    installation.write_module("worker", "return function(self) while not self:TestDestroy(1e9) do end dom:StartRunnable('child') end")
    installation.write_app(main="dom:StartRunnable('worker')")

    assert installation.run().status == 0
    assert installation.log_has("Message: child")


def test_a_collected_handle_changes_nothing(installation, waiter):
    installation.write_app(main="dom:StartRunnable('worker') for i = 1, 5 do collectgarbage() end")

    assert installation.run().status == 0
    assert installation.log_has("Message: done")


def test_what_they_have_printed_is_not_lost(installation):
    installation.write_module("worker", "return function(self) io.write('printed') while not self:TestDestroy(1e9) do end io.write(' to the end') end")
    installation.write_app(main="dom:StartRunnable('worker')")

    assert installation.run().out == "printed to the end"


@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
def test_ends_in_a_row_are_all_orderly(installation, name):
    installation.name = name or installation.name
    installation.write_module("worker", "return function(self) while not self:TestDestroy(1e9) do end end")
    installation.write_app(main="for i = 1, 8 do dom:StartRunnable('worker') end return 7")

    statuses = {installation.run().status for _ in range(max(20, LONG_LOOP // 20))}

    assert statuses == {7}


# Against their will


@pytest.mark.slow
@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
@pytest.mark.parametrize("way", STUBBORN)
def test_one_that_does_not_end_is_named_and_left_behind(installation, name, way):
    installation.name = name or installation.name
    installation.write_module("worker", STUBBORN[way])
    installation.write_module("willing", WAITER)
    installation.write_app(main="io.write('kept') dom:StartRunnable('worker') dom:StartRunnable('willing')", shutdown="return 4")

    start = time.monotonic()
    outcome = installation.run()
    passed = time.monotonic() - start

    assert (outcome.status, outcome.out) == (4, "kept"), outcome
    assert 10 <= passed < 15, passed
    assert [f"Error: {text}" for text in installation.log_lines("Error")] == [UNWILLING]
    assert installation.log_has("Message: done")


@pytest.mark.slow
def test_a_service_leaves_one_behind_as_well(installation):
    installation.write_module("worker", STUBBORN["in Lua"])
    agent = installation.start_in_background(main="dom:StartRunnable('worker')", shutdown="return 5")
    agent.record("Message: stuck")

    assert agent.stop() == 5
    assert UNWILLING in agent.lines()


# At once


@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
@pytest.mark.parametrize("close", ["", ", true"], ids=["", "closing"])
def test_exit_from_a_runnable_ends_the_process_with_its_output(installation, name, close):
    installation.name = name or installation.name
    installation.write_module("other", "return function(self) while not self:TestDestroy() do end end")
    installation.write_module("worker", f"return function() io.write('kept') os.exit(9{close}) end")
    installation.write_app(main="dom:StartRunnable('other') dom:StartRunnable('worker'):Join()")

    for _ in range(max(10, LONG_LOOP // 50)):
        outcome = installation.run()
        assert (outcome.status, outcome.out) == (9, "kept"), outcome


def test_exit_from_many_runnables_at_once(installation):
    installation.write_module("worker", "return function() os.exit(9) end")
    installation.write_app(main="for i = 1, 8 do dom:StartRunnable('worker') end os.exit(9)")

    for _ in range(max(10, LONG_LOOP // 50)):
        assert installation.run().status == 9


def test_exit_does_not_wait_for_one_that_reads(installation):
    installation.write_module("worker", "return function() print('reading') io.read() end")
    installation.write_app(main="dom:StartRunnable('worker') io.write('kept') os.exit(9)")
    process = installation.start(stdin=subprocess.PIPE)

    assert process.wait(timeout=DEADLINE_S) == 9
    assert b"kept" in process.stdout.read()


def test_exit_from_a_runnable_of_a_service(installation):
    installation.write_module("worker", "return function() os.exit(9) end")
    agent = installation.start_in_background(main="dom:StartRunnable('worker')")

    assert agent.end() == 9
    assert "Message: shutdown" not in agent.lines()


def test_sigint_ends_the_process_beside_runnables(installation):
    installation.write_module("worker", "return function() print('working') io.flush() while true do end end")
    installation.write_app(main="for i = 1, 4 do dom:StartRunnable('worker') end require('posix.unistd').sleep(1000)")
    process = installation.start()
    for _ in range(4):
        assert await_line(process) == "working"
    process.send_signal(signal.SIGINT)

    assert await_end(process).status == 0


@pytest.mark.without_tsan
def test_a_crash_of_a_runnable_is_one_of_the_process(installation):
    installation.write_module("worker", "return function() require('posix.signal').raise(11) end")
    installation.write_app(main="dom:StartRunnable('worker'):Join()")

    outcome = installation.run(env=sanitizer_options("handle_segv=0"))

    assert outcome.status == -signal.SIGSEGV, outcome


def test_a_worker_whose_watchdog_is_lost_ends_its_runnables(installation, waiter):
    agent = installation.start_in_background(main="dom:StartRunnable('worker')")
    agent.record("Message: waiting")
    os.kill(agent.watchdog, signal.SIGKILL)

    agent.await_nothing_left()
    assert agent.lines()[-1] == "Message: done"

"""Background runnables, as applications start and use them."""

import os
import re
import signal
import time
from pathlib import Path

import pytest

from agentbox import LONG_LOOP, write_archive
from background import log

# Text of the `main` that waits for its runnables; without it they are ended as soon as main has returned.
FINISH = "local finished, status = {}:Join() print(finished, status)"


def write_runnable(installation, name, body):
    """A module whose function is `body`, with `self` and the values in `...`."""
    return installation.write_module(name, f"return function(self, ...) {body} end")


def run(installation, main, *words, **options):
    """What a run prints, as lines."""
    installation.write_app(main=main)
    outcome = installation.run(*words, **options)
    assert outcome.status == 0, outcome
    return outcome.out.splitlines()


def threads(pid):
    return len(os.listdir(f"/proc/{pid}/task"))


# What a runnable finds


def test_it_is_prepared_like_the_application(installation):
    archive = write_archive(installation.root / "more.kxe", {"packed/words.lua": "return 'from the archive'"})
    installation.write_module("beside", "return 'from the folder'")
    write_runnable(
        installation,
        "worker",
        """print(dom == dom0, dom:Get('app.name') == arg[0], arg[1], arg[2], arg[-1])
        print(require('packed.words'), require('beside'), velAppModule)
        print(package.path == dom:Get('w.path'), package.cpath == dom:Get('w.cpath'))""",
    )

    shown = run(
        installation,
        "dom:Set('w.path', package.path) dom:Set('w.cpath', package.cpath) " + FINISH.format("dom:StartRunnable('worker')"),
        "-z", archive, "-c", "/nowhere/?.so", "--", "a", "b",
    )  # fmt: skip

    assert shown == [
        "true\ttrue\ta\tb\t/nowhere/?.so",
        "from the archive\tfrom the folder\tnil",
        "true\ttrue",
        "true\t0",
    ]


def test_it_has_globals_and_modules_of_its_own(installation):
    write_runnable(installation, "worker", "print(shared, require('beside').count) require('beside').count = 5 shared = 6")
    installation.write_module("beside", "return { count = 0 }")

    shown = run(
        installation,
        "shared = 1 require('beside').count = 1 dom:StartRunnable('worker'):Join() print(shared, require('beside').count)",
    )

    assert shown == ["nil\t0", "1\t1"]


def test_the_archives_are_those_of_the_time_of_its_start(installation):
    one = write_archive(installation.root / "one.kxe", {"which.lua": "return 'one'"})
    two = write_archive(installation.root / "two.kxe", {"which.lua": "return 'two'"})
    write_runnable(installation, "worker", "print(require('which'))")

    shown = run(
        installation,
        f"""local function try() dom:StartRunnable('worker'):Join() end
        try() dom:Set('app.lua.zippath', '{two};' .. dom:Get('app.lua.zippath')) try() print(require('which'))""",
        "-z", one,
    )  # fmt: skip

    assert shown == ["one", "two", "one"]


def test_values_are_copies_of_any_length(installation):
    write_runnable(installation, "worker", "local a, b, c, d = ... print(select('#', ...), a, b, c, #d, d == ('\\0x'):rep(50000))")

    shown = run(installation, FINISH.format("dom:StartRunnable('worker', nil, false, -1.5, ('\\0x'):rep(50000))"))

    assert shown == ["4\tnil\tfalse\t-1.5\t100000\ttrue", "true\t0"]


def test_it_does_not_answer_signals(installation):
    write_runnable(
        installation,
        "worker",
        "for line in io.lines('/proc/thread-self/status') do if line:find('SigBlk') then print(line:match('%x+$')) end end",
    )

    (mask,) = run(installation, "dom:StartRunnable('worker'):Join()")

    blocked = int(mask, 16)
    assert blocked >> (signal.SIGINT - 1) & 1
    assert blocked >> (signal.SIGTERM - 1) & 1
    assert not blocked >> (signal.SIGUSR1 - 1) & 1


@pytest.mark.parametrize("start", ["os.execute('{}')", "io.popen('{}'):close()"])
def test_its_children_start_with_fresh_signals(installation, start):
    write_runnable(installation, "worker", start.format(f'grep -E "^Sig(Blk|Ign)" /proc/self/status >{installation.root}/seen'))

    run(installation, "dom:StartRunnable('worker'):Join()")

    blocked, ignored = (int(line.split()[1], 16) for line in (installation.root / "seen").read_text().splitlines())
    first_for_all = 1 << 33  # the C library keeps two of its own below
    assert (blocked, ignored % (1 << 31), ignored // first_for_all) == (0, 0, 0)


# Failures


def test_a_failure_is_a_record_and_a_status_and_nothing_else(installation):
    write_runnable(installation, "worker", "error('the disk is gone')")

    shown = run(installation, FINISH.format("dom:StartRunnable('worker')"))

    assert shown == ["true\t2"]
    (record,) = installation.log_lines("Error")
    assert "/worker.lua:1: the disk is gone\\nstack traceback:\\n" in record


def test_a_module_that_is_not_there_is_named(installation):
    shown = run(installation, FINISH.format("dom:StartRunnable('inventory.scanner', 5)"))

    assert shown == ["true\t2"]
    (record,) = installation.log_lines("Error")
    assert "inventory.scanner:1: module 'inventory.scanner' not found:" in record


def test_a_runnable_that_fails_does_not_end_the_service(installation):
    write_runnable(installation, "broken", "error('broken')")
    agent = installation.start_in_background(main=f"dom:StartRunnable('broken'):Join() {log('still here')}")
    agent.record("Message: still here")

    assert agent.stop() == 0
    assert "Message: shutdown" in agent.lines()


# Requests


@pytest.mark.parametrize(
    "wait",
    [
        "self:TestDestroy(1e9)",
        "self:TestDestroy(math.huge)",
        "require('posix.unistd').sleep(1000)",
        "require('posix.time').nanosleep({tv_sec = 1000, tv_nsec = 0})",
        "io.open(fifo, 'r+'):read()",
        "require('posix.poll').rpoll(require('posix.fcntl').open(fifo, 2), -1)",
        "require('vel.queue').Open('wait'):Pop()",
    ],
)
def test_a_request_ends_what_it_waits_for(installation, wait):
    fifo = installation.root / "fifo"
    os.mkfifo(fifo)
    write_runnable(installation, "worker", f"local fifo = '{fifo}' dom:Set('waits', true) while not self:TestDestroy() do {wait} end return 7")

    shown = run(
        installation,
        f"""local worker = dom:StartRunnable('worker') while not dom:Has('waits') do end
        worker:RequestExit() {FINISH.format('worker')}""",
    )

    assert shown == ["true\t7"]


def test_a_queue_leads_from_runnable_to_runnable(installation):
    write_runnable(
        installation,
        "sender",
        "local q = require('vel.queue').Open('numbers', 10) for i = 1, 2000 do assert(q:Push({ number = i, text = ('x'):rep(i) })) end",
    )
    write_runnable(
        installation,
        "receiver",
        """local q, sum = require('vel.queue').Open('numbers'), 0
        while true do
          local message = q:Pop()
          if message == nil or message == 'end' then break end
          assert(#message.text == message.number)
          sum = sum + message.number
        end
        return sum""",
    )

    shown = run(
        installation,
        """local receivers, senders = {}, {}
        for i = 1, 2 do receivers[i] = dom:StartRunnable('receiver') senders[i] = dom:StartRunnable('sender') end
        local sum = 0
        for i = 1, 2 do assert(senders[i]:Join()) end
        for i = 1, 2 do require('vel.queue').Open('numbers'):Push('end') end
        for i = 1, 2 do local _, part = receivers[i]:Join() sum = sum + part end
        print(sum)""",
    )

    assert shown == [str(2 * sum(range(2001)))]


# Many


@pytest.mark.address_space
def test_ten_thousand_starts_leave_memory_threads_and_descriptors_as_they_were(installation):
    installation.write_module("worker", "return function(self, number) return number % 100 end")
    measure = """
        local status
        local deadline = dom:TimeNowMillis() + 30000
        repeat -- until the last of those that nobody joins has ended: only the main and the script thread are left
          local file = assert(io.open('/proc/self/status'))
          status = file:read('*a')
          file:close()
        until tonumber(status:match('Threads:%s*(%d+)')) <= 2 or dom:TimeNowMillis() > deadline
        collectgarbage()
        print(status:match('VmRSS:%s*(%d+)'), status:match('Threads:%s*(%d+)'), #require('posix.dirent').dir('/proc/self/fd'))"""
    main = f"""
        local function measure() {measure} end
        local function round(number)
          local joined = dom:StartRunnable('worker', number)
          dom:StartRunnable('worker', number)
          local _, status = joined:Join()
          assert(status == number % 100)
        end
        for number = 1, 200 do round(number) end
        measure()
        for number = 1, {5 * LONG_LOOP // 2} do round(number) end
        measure()"""

    before, after = (list(map(int, line.split())) for line in run(installation, main))

    assert after[0] < before[0] + 4096, "kilobytes of memory"
    assert after[1] == before[1] == 2, "threads"
    assert after[2] <= before[2], "descriptors"


@pytest.mark.parametrize("printed", ["print(text, text, ...)", "io.write(text .. '\\t' .. text .. '\\t' .. ... .. '\\n')"])
def test_lines_of_several_runnables_do_not_mix(installation, printed):
    write_runnable(installation, "worker", f"local text = ('x'):rep(50) for i = 1, 500 do {printed} end")

    shown = run(installation, "local all = {} for i = 1, 8 do all[i] = dom:StartRunnable('worker', i) end for i = 1, 8 do all[i]:Join() end")

    assert sorted(shown) == sorted(["\t".join(["x" * 50, "x" * 50, str(i)]) for i in range(1, 9)] * 500)


@pytest.mark.without_tsan
def test_a_service_rests_while_its_runnables_wait(installation):
    write_runnable(installation, "worker", f"{log('waiting')} while not self:TestDestroy(1e9) do end")
    agent = installation.start_in_background(main="for i = 1, 3 do dom:StartRunnable('worker') end")
    worker = agent.record("Message: waiting", count=3).pid

    def turns():
        """How often each thread has been given the processor."""
        status = [Path(f"/proc/{worker}/task/{thread}/status").read_text() for thread in os.listdir(f"/proc/{worker}/task")]
        return [int(re.search(r"^voluntary_ctxt_switches:\s*(\d+)", text, re.M)[1]) for text in status]

    assert threads(worker) == 5
    before = agent.wait_for(lambda: (seen := turns()) == turns() and seen, "threads that rest")
    time.sleep(1)  # in which nothing shall happen
    assert turns() == before
    assert agent.stop() == 0

"""Agent events: rows that outlive the agent, and records for what cannot be stored."""

import os
import random
import re
import resource
import select
import shutil
import sqlite3
import subprocess
import time
from contextlib import closing
from dataclasses import dataclass
from pathlib import Path

import pytest

from agentbox import AS_NOBODY, LONG_LOOP, await_condition, await_end, await_line, in_private_mounts, lua_string, through_shell

COLUMNS = ["id", "event_number", "severity", "time_s", "time_ms", "description"]

LIMIT, SLACK = 100_000, 1_000

# Would forge a record, end a statement, or be lost by who takes it for text.
HOSTILE = b"first\n2026-11-20 12:34:56 [1] Error: forged\0\xff\x1b[2J'); DROP TABLE agent_event; --\" 100%s|" + "größe".encode()
HOSTILE_SHOWN = (
    r"first\n2026-11-20 12:34:56 [1] Error: forged\x00\xff\x1b[2J'); DROP TABLE agent_event; --" + '" 100%s|größe'
)

# The application of the failure scenarios writes this event; what the log then has to hold is the other.
HOSTILE_EVENT = f"dom:AgentEventWrite{{event_number=4711, severity='warning', description={lua_string(HOSTILE)}}}"
HOSTILE_RECORD = (4711, 4, HOSTILE_SHOWN)


def write_event(number):
    """Lua that writes an event of this number, a Lua expression."""
    return f"dom:AgentEventWrite{{event_number={number}, description='event ' .. {number}}}"


# What is stored.


@dataclass(frozen=True)
class Row:
    id: int
    event_number: int
    severity: int
    time_s: int
    time_ms: int
    description: bytes


def database(installation, work=None):
    return (work or installation.work) / "agent_events.db"


def connect(path, mode="ro"):
    """A client of its own, which creates nothing and leaves the transactions to the scenario."""
    connection = sqlite3.connect(f"{path.absolute().as_uri()}?mode={mode}", uri=True, isolation_level=None)
    connection.text_factory = bytes
    return connection


def ask(path, statement, mode="ro"):
    with closing(connect(path, mode)) as connection:
        return connection.execute(statement).fetchall()


def rows(path):
    return [Row(*row) for row in ask(path, f"SELECT {', '.join(COLUMNS)} FROM agent_event ORDER BY id")]


def numbers(path):
    return [row.event_number for row in rows(path)]


# What is on record instead.

IN_RECORD = re.compile(r"event_number=(-?\d+), severity=(\d+), time_s=(\d+), time_ms=(\d+), description=(.*)")


def recorded(lines):
    """Number, severity and description of the event in each of these texts; all have to hold one."""
    events = []
    for line in lines:
        match = IN_RECORD.search(line)
        assert match, f"not the record of an event: {line!r}"
        assert int(match[4]) // 1000 == int(match[3])
        assert abs(time.time() - int(match[3])) < 600
        events.append((int(match[1]), int(match[2]), match[5]))
    return events


def errors_of(installation, **where):
    """The events in the error-level records, which are the only errors in the log."""
    return recorded(installation.log_lines("Error", **where))


def shown_errors(outcome):
    """The same of an agent that cannot write its log."""
    return recorded(re.findall(r"^\S+ \S+ \[\d+\] Error: (.*)$", outcome.err, re.MULTILINE))


# An agent that waits for the scenario.


class Dialogue:
    """Runs one line of Lua after the other in an agent that goes on in between."""

    def __init__(self, installation, *words):
        installation.write_app(
            main="for line in io.lines() do assert(load(line))() print('done') io.stdout:flush() end return 0"
        )
        self.process = installation.start(*words, stdin=subprocess.PIPE)

    def ask(self, line):
        self.process.stdin.write(f"{line}\n".encode())
        self.process.stdin.flush()

    def await_answer(self):
        line = await_line(self.process)
        assert line == "done", await_end(self.process)

    def do(self, line):
        self.ask(line)
        self.await_answer()

    def end(self):
        outcome = await_end(self.process)
        assert (outcome.status, outcome.out, outcome.err) == (0, "", "")

    def kill(self):
        self.process.kill()
        self.process.communicate()


def configure(installation, **settings):
    installation.work.mkdir(exist_ok=True)
    text = "".join(f"sqlite.config.{name}={value}\n" for name, value in settings.items())
    (installation.work / "kx_agent.ini").write_text(text)


def run(installation, main, *words, **options):
    """Runs an application to its good end."""
    installation.write_app(main=f"{main} return 0")
    outcome = installation.run(*words, **options)
    assert outcome.status == 0, (outcome, installation.log_text())
    return outcome


def run_quietly(installation, main, *words, **options):
    """As `run`, when everything can be stored."""
    outcome = run(installation, main, *words, **options)
    assert (outcome.err, installation.log_text()) == ("", "")
    return outcome


# A row.


def test_an_event_is_a_row(installation):
    before = time.time_ns() // 1_000_000
    run_quietly(
        installation,
        "assert(select('#', dom:AgentEventWrite{event_number=5101, severity='error', description='text'}) == 0)",
    )
    after = time.time_ns() // 1_000_000

    (row,) = rows(database(installation))
    assert (row.event_number, row.severity, row.description) == (5101, 3, b"text")
    assert before <= row.time_ms <= after
    assert row.time_s == row.time_ms // 1000
    columns = ask(database(installation), "SELECT name FROM pragma_table_info('agent_event')")
    assert [name.decode() for (name,) in columns] == COLUMNS
    kinds = ask(database(installation), "SELECT " + ", ".join(f"typeof({name})" for name in COLUMNS) + " FROM agent_event")
    assert kinds == [(b"integer",) * 5 + (b"text",)]


def test_a_number_is_all_that_an_event_needs(installation):
    run_quietly(installation, "dom:AgentEventWrite{event_number=1}")

    (row,) = rows(database(installation))
    assert (row.event_number, row.severity, row.description) == (1, 5, b"")


@pytest.mark.parametrize(("level", "severity"), [("error", 3), ("warning", 4), ("message", 5), ("verbose", 6)])
def test_severity_follows_the_level(installation, level, severity):
    run_quietly(installation, f"dom0:AgentEventWrite{{event_number=1, severity='{level}'}}")

    assert [row.severity for row in rows(database(installation))] == [severity]


def test_ids_ascend_over_runs_and_are_not_used_twice(installation):
    main = "for number = 1, 3 do " + write_event("number") + " end"
    for _ in range(3):
        run_quietly(installation, main)
    assert [(row.id, row.event_number) for row in rows(database(installation))] == [(i + 1, i % 3 + 1) for i in range(9)]

    ask(database(installation), "DELETE FROM agent_event", mode="rw")
    run_quietly(installation, main)

    assert [row.id for row in rows(database(installation))] == [10, 11, 12]


def test_times_are_in_utc_and_do_not_go_back(installation):
    before = time.time_ns() // 1_000_000
    run_quietly(installation, "for number = 1, 20 do " + write_event("number") + " end", env={"TZ": "JST-9"})
    after = time.time_ns() // 1_000_000

    times = [row.time_ms for row in rows(database(installation))]
    assert times == sorted(times)
    assert before <= times[0] and times[-1] <= after


DESCRIPTIONS = [
    b"",
    HOSTILE,
    b"'quoted' \"twice\" `and` \\'; DROP TABLE agent_event; --",
    b"100% %s %n %d",
    b"line\nfeed\r\n",
    b"\n",
    b"\0",
    b"before\0behind\0",
    b"\xff\xfe\x80 \xc0\x8a \xed\xa0\x80",
    b"\xef\xbb\xbfmark",
    bytes(range(256)),
    "größe 日本 😀".encode(),
    b"12",
    b"1e3",
    b"?1 :name @name $name",
    b"x" * (1 << 20),
    bytes(range(256)) * 4096,
]


@pytest.mark.parametrize("language", ["C.UTF-8", "C", None])
def test_a_description_keeps_any_bytes(installation, language):
    (installation.lua / "described.txt").write_bytes(b"".join(b"%d\n%s" % (len(each), each) for each in DESCRIPTIONS))
    run_quietly(
        installation,
        f"""
            local file = assert(io.open("{installation.lua}/described.txt", "rb"))
            for number = 1, {len(DESCRIPTIONS)} do
              local size = tonumber(file:read("*l"))
              dom:AgentEventWrite{{event_number=number, description=file:read(size)}}
            end""",
        env={"LANG": language},
    )

    assert [row.description for row in rows(database(installation))] == DESCRIPTIONS
    assert set(ask(database(installation), "SELECT typeof(description) FROM agent_event")) == {(b"text",)}


@pytest.mark.parametrize("number", [0, 1, -1, 2**31 - 1, -(2**31)])
def test_a_number_has_32_bits(installation, number):
    run_quietly(installation, f"dom:AgentEventWrite{{event_number={number}}}")

    assert numbers(database(installation)) == [number]


# Wrong arguments.

WRONG_CALLS = [
    "dom:AgentEventWrite()",
    "dom:AgentEventWrite(nil)",
    "dom:AgentEventWrite(1)",
    "dom:AgentEventWrite('text')",
    "dom:AgentEventWrite(1, 'error', 'text')",
    "dom:AgentEventWrite(print)",
    "dom:AgentEventWrite(dom)",
    "dom:AgentEventWrite{}",
    "dom:AgentEventWrite{1, 'error', 'text'}",
    "dom:AgentEventWrite{severity='error', description='text'}",
    "dom:AgentEventWrite{event_number='text'}",
    "dom:AgentEventWrite{event_number=''}",
    "dom:AgentEventWrite{event_number=true}",
    "dom:AgentEventWrite{event_number={}}",
    "dom:AgentEventWrite{event_number=0.5}",
    "dom:AgentEventWrite{event_number=2^31}",
    "dom:AgentEventWrite{event_number=-2^31-1}",
    "dom:AgentEventWrite{event_number=2^32+1}",
    "dom:AgentEventWrite{event_number=1e300}",
    "dom:AgentEventWrite{event_number=1/0}",
    "dom:AgentEventWrite{event_number=0/0}",
    "dom:AgentEventWrite{event_number=1, severity='catastrophe'}",
    "dom:AgentEventWrite{event_number=1, severity='Error'}",
    "dom:AgentEventWrite{event_number=1, severity='error\\0'}",
    "dom:AgentEventWrite{event_number=1, severity='error '}",
    "dom:AgentEventWrite{event_number=1, severity=''}",
    "dom:AgentEventWrite{event_number=1, severity=3}",
    "dom:AgentEventWrite{event_number=1, severity=true}",
    "dom:AgentEventWrite{event_number=1, severity={}}",
    "dom:AgentEventWrite{event_number=1, description=true}",
    "dom:AgentEventWrite{event_number=1, description={}}",
    "dom:AgentEventWrite{event_number=1, description=print}",
    "dom.AgentEventWrite()",
    "dom.AgentEventWrite(nil, {event_number=1})",
    "dom.AgentEventWrite({event_number=1})",
    "dom.AgentEventWrite({}, {event_number=1})",
    "dom.AgentEventWrite(io.stdout, {event_number=1})",
]


def test_a_wrong_argument_is_an_error_that_names_the_method_and_stores_nothing(installation):
    calls = "".join(f"{{[==[{call}]==], function() {call} end}},\n" for call in WRONG_CALLS)
    outcome = run_quietly(
        installation,
        f"""
            for _, each in ipairs{{{calls}}} do
              local done, message = pcall(each[2])
              print(done, not done and message:find("'AgentEventWrite'", 1, true) ~= nil, each[1])
            end""",
    )

    assert outcome.out.splitlines() == [f"false\ttrue\t{call}" for call in WRONG_CALLS]
    assert not database(installation).exists()


def test_a_wrong_argument_ends_the_run_as_any_error(installation):
    installation.write_app(main=f"{write_event(1)}\ndom:AgentEventWrite{{event_number={{}}}}\n{write_event(3)} return 0")

    outcome = installation.run()

    assert outcome.status == 2
    (error,) = installation.log_lines("Error")
    assert "'AgentEventWrite'" in error and "stack traceback" in error
    assert numbers(database(installation)) == [1]


# When and from where.


def test_every_phase_writes_events(installation):
    phases = ["top", "init", "main", "shutdown"]
    installation.write_app(**{phase: write_event(number) for number, phase in enumerate(phases)})

    assert installation.run().status == 0

    assert numbers(database(installation)) == [0, 1, 2, 3]


def test_coroutines_write_events(installation):
    run_quietly(
        installation,
        """
            local function writer(first)
              for number = first, first + 2 do
                dom:AgentEventWrite{event_number=number}
                coroutine.yield()
              end
              dom:AgentEventWrite{event_number={}}
            end
            local one, other = coroutine.create(writer), coroutine.create(writer)
            for _ = 1, 3 do
              assert(coroutine.resume(one, 10))
              assert(coroutine.resume(other, 20))
            end
            local done, message = coroutine.resume(one)
            assert(not done and message:find("'AgentEventWrite'", 1, true), message)
            dom:AgentEventWrite{event_number=30}""",
    )

    assert numbers(database(installation)) == [10, 20, 11, 21, 12, 22, 30]


ENDS = {
    "os_exit": ("os.exit(7)", 7),
    "os_exit_closing_the_state": ("os.exit(7, true)", 7),
    "os_exit_in_a_coroutine": ("coroutine.wrap(function() os.exit(7) end)()", 7),
    "error": ("error('end')", 2),
    "killed": ("os.execute('kill -9 $PPID')", -9),
    "aborted": ("os.execute('kill -ABRT $PPID')", -6),
    "interrupted": ("os.execute('kill -INT $PPID')", 0),
}


@pytest.mark.parametrize(("end", "status"), ENDS.values(), ids=ENDS)
def test_an_event_is_stored_when_the_process_ends_in_the_next_instruction(installation, end, status):
    installation.write_app(main=f"dom:AgentEventWrite{{event_number=arg[1]}} {end} while {status} <= 0 do end return 7")

    for number in range(5):
        outcome = installation.run("--", str(number))
        assert outcome.status == status, outcome
        assert numbers(database(installation)) == list(range(number + 1))


# The file.


@pytest.mark.parametrize("mask", ["000", "022", "077", "777"])
def test_the_file_and_what_stands_beside_it_belong_to_their_owner_alone(installation, mask):
    outcome = run_quietly(
        installation,
        f"{write_event(1)} os.execute('stat -c \"%n %a\" {installation.work}/agent_events.db*')",
        wrapper=through_shell(f'umask {mask} && exec "$@"'),
    )

    modes = dict(line.rsplit(" ", 1) for line in outcome.out.splitlines())
    assert str(database(installation)) in modes
    assert set(modes.values()) == {"600"}


def test_a_file_that_everybody_could_read_is_restricted(installation):
    run_quietly(installation, write_event(1))
    database(installation).chmod(0o666)

    run_quietly(installation, write_event(2))

    assert database(installation).stat().st_mode & 0o777 == 0o600
    assert numbers(database(installation)) == [1, 2]


@pytest.mark.parametrize("below", ["moved", "not/yet/there"])
def test_the_file_follows_a_work_folder_that_is_moved(installation, below):
    work = installation.root / below

    run(installation, write_event(1), "--domain_var", f"app.path.work={work}")

    assert numbers(database(installation, work)) == [1]
    assert work.stat().st_mode & 0o777 == 0o700
    assert not database(installation).exists()


ODD_NAMES = ["a b", "größe", "what?mode=ro&x#%41", "file:x?immutable=1", ":memory:", "quote'd", "line\nfeed"]


@pytest.mark.parametrize("name", ODD_NAMES)
def test_the_work_folder_may_have_any_name(installation, name):
    work = installation.root / name

    run(installation, write_event(1), "--workdir", work, workdir=False)
    run(installation, write_event(2), "--workdir", work, workdir=False)

    assert numbers(database(installation, work)) == [1, 2]
    assert {path.name for path in work.iterdir()} <= {"agent_events.db", "agent_events.db-wal", "agent_events.db-shm"}


def test_nothing_is_made_before_the_first_event(installation):
    run_quietly(installation, "")

    assert not database(installation).exists()


def test_children_do_not_inherit_the_file(installation):
    outcome = run_quietly(installation, f"{write_event(1)} os.execute('ls -l /proc/self/fd')")

    assert "agent_events" not in outcome.out


# Readers beside the agent.


def test_a_row_can_be_read_when_the_call_has_returned(installation):
    agent = Dialogue(installation)

    for number in range(50):
        agent.do(write_event(number))
        assert numbers(database(installation)) == list(range(number + 1))

    agent.end()
    assert numbers(database(installation)) == list(range(50))


def test_a_reader_in_a_transaction_keeps_its_view_and_stops_nobody(installation):
    configure(installation, busy_timeout=0)
    agent = Dialogue(installation)
    agent.do(write_event(0))

    with closing(connect(database(installation))) as reader:
        reader.execute("BEGIN")
        assert reader.execute("SELECT count(*) FROM agent_event").fetchone() == (1,)
        agent.do("for number = 1, 100 do " + write_event("number") + " end")
        assert reader.execute("SELECT count(*) FROM agent_event").fetchone() == (1,)
        agent.end()

    assert numbers(database(installation)) == list(range(101))
    assert installation.log_text() == ""


def test_readers_that_come_and_go_take_nothing_with_them(installation):
    agent = Dialogue(installation)

    for number in range(20):
        agent.do(write_event(number))
        ask(database(installation), "SELECT * FROM agent_event", mode="rw")
        agent.do(f"local file = io.open('{database(installation)}') file:read('*a') file:close()")
    agent.kill()

    assert numbers(database(installation)) == list(range(20))


def test_readers_that_never_stop_meet_no_error(installation):
    agent = Dialogue(installation)
    agent.do(write_event(0))
    last = LONG_LOOP // 2
    agent.ask(f"for number = 1, {last} do " + write_event("number") + " end")

    seen = 0
    with closing(connect(database(installation))) as reader:
        while seen < last:
            count, newest = reader.execute("SELECT count(*), max(event_number) FROM agent_event").fetchone()
            assert count == newest + 1 and newest >= seen
            seen = newest

    agent.await_answer()
    agent.end()
    assert installation.log_text() == ""


# Writers beside each other.


def test_two_agents_share_a_file(installation):
    count = LONG_LOOP // 8
    installation.write_app(
        main=f"for number = 1, {count} do dom:AgentEventWrite{{event_number=arg[1] + number}} end return 0"
    )

    processes = [installation.start("--", str(first)) for first in (0, 1_000_000, 2_000_000)]
    for process in processes:
        outcome = await_end(process)
        assert (outcome.status, outcome.err) == (0, "")

    stored = numbers(database(installation))
    for first in (0, 1_000_000, 2_000_000):
        assert [n - first for n in stored if first < n <= first + count] == list(range(1, count + 1))
    assert len(stored) == 3 * count
    assert installation.log_text() == ""


def test_an_agent_goes_on_when_the_other_one_ends(installation):
    one, other = Dialogue(installation), Dialogue(installation)
    one.do(write_event(1))
    other.do(write_event(2))
    one.end()
    other.do(write_event(3))
    other.kill()

    assert numbers(database(installation)) == [1, 2, 3]


# Durability.


def test_what_was_acknowledged_is_stored_when_the_agent_is_killed_at_any_moment(installation):
    installation.write_app(
        main="for number = arg[1], math.huge do " + write_event("number") + " print(number) io.stdout:flush() end"
    )
    first = 0

    for _ in range(max(5, LONG_LOOP // 80)):
        process = installation.start("--", str(first))
        acknowledged = [int(await_line(process)) for _ in range(random.randint(1, 20))]
        process.kill()
        rest, _ = process.communicate()
        acknowledged += [int(line) for line in rest.decode().split("\n")[:-1]]

        stored = numbers(database(installation))
        assert stored[: acknowledged[-1] + 1] == list(range(acknowledged[-1] + 1))
        assert len(stored) <= acknowledged[-1] + 2  # one may have been stored and not yet printed
        first = len(stored)

    assert installation.log_text() == ""


def test_an_agent_killed_while_it_makes_the_file_leaves_one_that_can_be_used(installation):
    for number in range(max(5, LONG_LOOP // 80)):
        work = installation.root / f"work{number}"
        installation.write_app(
            main=f"io.stdout:setvbuf('line') print('ready') {write_event(1)} print('stored') io.read()"
        )
        process = installation.start("--workdir", work, workdir=False, stdin=subprocess.PIPE)
        assert await_line(process) == "ready"
        time.sleep(random.uniform(0, 0.02))  # the moment is the case
        process.kill()
        stored, _ = process.communicate()

        run(installation, write_event(2), "--workdir", work, workdir=False)

        assert numbers(database(installation, work)) in ([[1, 2]] if stored else [[2], [1, 2]])
        assert installation.log_text(work=work) == ""


@pytest.mark.parametrize("synchronous", [None, 0, 1, 2, 3])
def test_a_row_is_flushed_before_the_call_returns_whatever_the_settings_say(installation, synchronous):
    if synchronous is not None:
        configure(installation, synchronous=synchronous)
    calls = installation.root / "calls"

    run_quietly(
        installation,
        f"""
            io.stdout:setvbuf("no")
            io.write("begin\\n")
            for number = 1, 10 do
              {write_event("number")}
              io.write("stored\\n")
            end""",
        wrapper=("strace", "-f", "-y", "-e", "trace=write,pwrite64,fsync,fdatasync", "-e", "signal=none", "-o", calls),
        env={"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"},  # needs ptrace for itself
    )

    text = calls.read_text()
    _, *events = re.split(r'write\(1<.*>, "(?:begin|stored)\\n"', text)
    assert len(events) == 11  # the last is what follows the last event
    for each in events[:-1]:
        on_file = re.findall(r"(write|pwrite64|fsync|fdatasync)\(\d+<[^>]*/agent_events\.db[^>]*>", each)
        assert "pwrite64" in on_file
        assert on_file[-1] in ("fsync", "fdatasync"), each


SETTINGS = [
    {"synchronous": 0},
    {"cache": 1},
    {"busy_timeout": 0},
    {"mmap_size": 1 << 28},
    {"soft_heap_limit": 1},
    {"synchronous": 3, "cache": 1, "mmap_size": 4096, "soft_heap_limit": 100_000, "busy_timeout": 1},
]


@pytest.mark.parametrize("settings", SETTINGS, ids=lambda settings: "_".join(settings))
def test_events_are_stored_under_every_setting(installation, settings):
    configure(installation, **settings)

    run_quietly(installation, "for number = 1, 200 do " + write_event("number") + " end")
    run_quietly(installation, "for number = 201, 400 do " + write_event("number") + " end")

    assert numbers(database(installation)) == list(range(1, 401))


# The limit.


def prefill(installation, count):
    """Makes a file of `count` rows; the number of the oldest is 1."""
    run_quietly(installation, write_event(1))
    statement = f"""
        INSERT INTO agent_event(event_number, severity, time_s, time_ms, description)
        WITH RECURSIVE older(i) AS (SELECT 2 UNION ALL SELECT i + 1 FROM older WHERE i < {count})
        SELECT i, 5, 1, 1000, 'filled ' || i FROM older"""
    ask(database(installation), statement, mode="rw")


def count_and_oldest(installation):
    ((count, oldest, newest),) = ask(
        database(installation), "SELECT count(*), min(event_number), max(event_number) FROM agent_event"
    )
    assert newest - oldest + 1 == count, "the rows are not the newest ones"
    return count, newest


def test_the_newest_hundred_thousand_are_kept(installation):
    prefill(installation, 99_000)
    agent = Dialogue(installation)

    for last in range(99_250, 101_501, 250):
        agent.do(f"for number = {last - 249}, {last} do " + write_event("number") + " end")
        count, newest = count_and_oldest(installation)
        assert newest == last
        assert min(last, LIMIT) <= count <= LIMIT + SLACK

    agent.end()
    assert count_and_oldest(installation)[0] < 101_500
    assert installation.log_text() == ""


def test_a_file_of_any_size_is_brought_to_the_limit(installation):
    prefill(installation, LIMIT + 20_000)

    run_quietly(installation, "for number = 120001, 121000 do " + write_event("number") + " end")

    count, newest = count_and_oldest(installation)
    assert newest == LIMIT + 21_000
    assert LIMIT <= count <= LIMIT + SLACK


def test_short_runs_keep_the_limit_too(installation):
    prefill(installation, LIMIT + SLACK - 3)

    for number in range(LIMIT + SLACK - 2, LIMIT + SLACK + 3):
        run_quietly(installation, write_event(number))
        count, _ = count_and_oldest(installation)
        assert LIMIT <= count <= LIMIT + SLACK


# A damaged file.

FILLED = 4000


def overwrite(path, offset, data):
    with open(path, "r+b") as file:
        file.seek(offset)
        file.write(data)


def page_of(path, number):
    """Where a page begins; -1 is the last one."""
    pages = path.stat().st_size // 4096
    assert number < pages
    return (number if number >= 0 else pages + number) * 4096


DAMAGES = {
    "garbage": lambda path: path.write_bytes(random.randbytes(50_000)),
    "text": lambda path: path.write_bytes(b"not a database\n" * 1000),
    "a_byte": lambda path: path.write_bytes(b"x"),
    "zero_byte": lambda path: path.write_bytes(b"\0"),
    "first_bytes_only": lambda path: os.truncate(path, 16),
    "header_only": lambda path: os.truncate(path, 100),
    "all_zero": lambda path: path.write_bytes(bytes(8192)),
    "cut_behind_the_first_page": lambda path: os.truncate(path, 4096),
    "cut_at_a_page": lambda path: os.truncate(path, page_of(path, -2)),
    "cut_in_a_page": lambda path: os.truncate(path, page_of(path, 5) + 1000),
    "magic_changed": lambda path: overwrite(path, 0, b"s"),
    "page_size_changed": lambda path: overwrite(path, 16, b"\x77\x77"),
    "payload_fractions_changed": lambda path: overwrite(path, 21, b"\xff\xff\xff"),
    "schema_zeroed": lambda path: overwrite(path, 100, bytes(3996)),
    "schema_garbled": lambda path: overwrite(path, 100, random.randbytes(3996)),
    "second_page_zeroed": lambda path: overwrite(path, page_of(path, 1), bytes(4096)),
    "third_page_zeroed": lambda path: overwrite(path, page_of(path, 2), bytes(4096)),
    "middle_page_zeroed": lambda path: overwrite(path, page_of(path, 12), bytes(4096)),
    "middle_page_garbled": lambda path: overwrite(path, page_of(path, 12), b"\xff" * 4096),
    "last_page_zeroed": lambda path: overwrite(path, page_of(path, -1), bytes(4096)),
}


def set_aside(installation):
    """The damaged files, without what belongs to them."""
    found = installation.work.glob("agent_events.db.damaged-*")
    return sorted(path for path in found if not path.name.endswith(("-journal", "-wal", "-shm")))


@pytest.mark.parametrize("damage", DAMAGES.values(), ids=DAMAGES)
def test_a_damaged_file_is_set_aside_as_it_is_and_a_new_one_begins(installation, damage):
    prefill(installation, FILLED)
    damage(database(installation))
    content = database(installation).read_bytes()

    run(installation, f"{HOSTILE_EVENT} {write_event(2)}")

    (aside,) = set_aside(installation)
    assert aside.read_bytes() == content
    assert errors_of(installation) == [HOSTILE_RECORD]
    (error,) = installation.log_lines("Error")
    assert f"{database(installation)}" in error and f"{aside}" in error
    assert [(row.event_number, row.severity, row.description) for row in rows(database(installation))] == [
        (4711, 4, HOSTILE),
        (2, 5, b"event 2"),
    ]


def test_an_empty_file_is_a_new_one(installation):
    installation.work.mkdir()
    database(installation).touch()

    run_quietly(installation, write_event(1))

    assert numbers(database(installation)) == [1]
    assert set_aside(installation) == []


def test_files_set_aside_in_one_second_do_not_replace_each_other(installation):
    installation.work.mkdir()
    contents = [b"damage %d" % number * 100 for number in range(10)]

    for number, content in enumerate(contents):
        database(installation).write_bytes(content)
        run(installation, write_event(number))
        assert numbers(database(installation)) == [number]

    assert sorted(path.read_bytes() for path in set_aside(installation)) == contents
    assert [number for number, _, _ in errors_of(installation)] == list(range(10))


def test_agents_that_notice_the_same_damage_set_it_aside_once(installation):
    installation.work.mkdir()
    database(installation).write_bytes(b"damage" * 1000)
    installation.write_app(main="for number = 1, 20 do dom:AgentEventWrite{event_number=arg[1] + number} end return 0")

    processes = [installation.start("--", str(first)) for first in (0, 100, 200, 300)]
    for process in processes:
        assert await_end(process).status == 0

    (aside,) = set_aside(installation)
    assert aside.read_bytes() == b"damage" * 1000
    assert len(errors_of(installation)) == 1
    assert sorted(numbers(database(installation))) == [n for first in (0, 100, 200, 300) for n in range(first + 1, first + 21)]


def test_an_agent_that_has_the_damaged_file_open_goes_on_in_the_new_one(installation):
    prefill(installation, FILLED)
    agent = Dialogue(installation)
    agent.do(write_event(FILLED + 1))
    overwrite(database(installation), page_of(database(installation), 12), b"\xff" * 4096)
    damaged = database(installation).read_bytes()

    run(installation, write_event(1))
    agent.do(write_event(2))
    agent.end()

    (aside,) = set_aside(installation)
    assert aside.read_bytes() == damaged
    assert numbers(database(installation)) == [1, 2]


def leave_log_behind(installation, count):
    """Makes a file whose rows are still in the log beside it, as an agent does that is killed."""
    run_quietly(installation, write_event(1))
    agent = Dialogue(installation)
    agent.do(f"for number = 2, {count} do " + write_event("number") + " end")
    agent.kill()
    return database(installation).with_name("agent_events.db-wal")


def test_a_damaged_file_keeps_the_log_that_belongs_to_it(installation):
    log = leave_log_behind(installation, 20)
    overwrite(database(installation), 0, b"s")
    contents = database(installation).read_bytes(), log.read_bytes()

    run(installation, HOSTILE_EVENT)

    aside = set_aside(installation)[0]
    assert (aside.read_bytes(), aside.with_name(f"{aside.name}-wal").read_bytes()) == contents
    overwrite(aside, 0, b"S")
    assert numbers(aside) == list(range(1, 21))
    assert numbers(database(installation)) == [4711]
    assert errors_of(installation) == [HOSTILE_RECORD]


LOG_DAMAGES = {
    "empty": lambda log: os.truncate(log, 0),
    "a_byte": lambda log: os.truncate(log, 1),
    "header_changed": lambda log: overwrite(log, 16, b"salt"),
    "magic_changed": lambda log: overwrite(log, 0, b"\xff"),
    "garbage": lambda log: log.write_bytes(random.randbytes(50_000)),
    "cut": lambda log: os.truncate(log, log.stat().st_size // 2),
    "middle_garbled": lambda log: overwrite(log, log.stat().st_size // 2, b"\xff" * 5000),
}


@pytest.mark.parametrize("damage", LOG_DAMAGES.values(), ids=LOG_DAMAGES)
def test_a_damaged_log_costs_no_more_than_what_is_in_it(installation, damage):
    damage(leave_log_behind(installation, 20))

    run_quietly(installation, write_event(100))

    *older, newest = numbers(database(installation))
    assert newest == 100
    assert older == list(range(1, len(older) + 1)) and older
    assert ask(database(installation), "PRAGMA integrity_check") == [(b"ok",)]


def test_a_damaged_index_of_the_log_costs_nothing(installation):
    log = leave_log_behind(installation, 20)
    log.with_name("agent_events.db-shm").write_bytes(random.randbytes(32768))

    run_quietly(installation, write_event(21))

    assert numbers(database(installation)) == list(range(1, 22))


@pytest.mark.parametrize("damage", [b"", b"x", b"not a database" * 1000], ids=["empty", "a_byte", "text"])
def test_a_file_that_is_overwritten_while_the_agent_runs_does_not_stop_it(installation, damage):
    agent = Dialogue(installation)
    agent.do(write_event(1))

    database(installation).write_bytes(damage)
    for number in range(2, 6):
        agent.do(write_event(number))
    agent.end()

    run(installation, write_event(6))
    assert numbers(database(installation))[-1] == 6


# Something else in the file's place.


def foreign_tables(path):
    with closing(sqlite3.connect(path)) as connection:
        connection.executescript("CREATE TABLE precious(x); INSERT INTO precious VALUES('kept');")


def foreign_columns(path):
    with closing(sqlite3.connect(path)) as connection:
        connection.executescript("CREATE TABLE agent_event(id, text); INSERT INTO agent_event VALUES(1, 'kept');")


def link_to_a_file(path):
    target = path.parent.parent / "target"
    target.write_text("precious")
    path.symlink_to(target)


def link_to_a_database(path):
    foreign_tables(path.parent.parent / "target")
    path.symlink_to(path.parent.parent / "target")


def link_to_nothing(path):
    path.symlink_to(path.parent.parent / "target")


def anothers_file(path):
    path.touch()
    os.chown(path, 65534, 65534)


OBSTACLES = {
    "other_tables": foreign_tables,
    "other_columns": foreign_columns,
    "link": link_to_a_file,
    "link_to_a_database": link_to_a_database,
    "dangling_link": link_to_nothing,
    "link_to_a_device": lambda path: path.symlink_to("/dev/null"),
    "folder": lambda path: path.mkdir(),
    "fifo": os.mkfifo,
    "device": lambda path: os.mknod(path, 0o020600, os.makedev(1, 3)),
    "socket": lambda path: os.mknod(path, 0o140600),
    "anothers_file": anothers_file,
}


def snapshot(*paths):
    """Kind, owner and content of what is there."""
    return [
        (path, status.st_mode >> 12, status.st_uid, path.read_bytes() if path.is_file() else None)
        for path in paths
        if os.path.lexists(path)
        for status in [path.lstat()]
    ]


@pytest.mark.parametrize("obstruct", OBSTACLES.values(), ids=OBSTACLES)
def test_what_stands_in_the_files_place_stays_and_the_event_is_on_record(installation, obstruct):
    installation.work.mkdir()
    path, target = database(installation), installation.root / "target"
    obstruct(path)
    before = snapshot(path, target)

    run(installation, f"{HOSTILE_EVENT} {write_event(2)}")

    assert errors_of(installation) == [HOSTILE_RECORD, (2, 5, "event 2")]
    assert all(f"{path}" in error for error in installation.log_lines("Error"))
    assert snapshot(path, target) == before
    assert {each.name for each in installation.work.iterdir()} == {"agent_events.db", "log"}


@pytest.mark.parametrize("obstruct", OBSTACLES.values(), ids=OBSTACLES)
def test_the_first_event_behind_an_obstacle_is_stored(installation, obstruct):
    installation.work.mkdir()
    obstruct(database(installation))
    agent = Dialogue(installation)

    agent.do(write_event(1))
    database(installation).rename(installation.work / "elsewhere")
    agent.do(write_event(2))
    agent.end()

    assert numbers(database(installation)) == [2]
    assert errors_of(installation) == [(1, 5, "event 1")]


BESIDE = {
    "folder": lambda path: path.mkdir(),
    "fifo": os.mkfifo,
    "link": link_to_a_file,
    "dangling_link": link_to_nothing,
}


@pytest.mark.parametrize("suffix", ["-wal", "-shm", "-journal"])
@pytest.mark.parametrize("obstruct", BESIDE.values(), ids=BESIDE)
def test_what_stands_where_the_library_keeps_its_log_is_not_followed(installation, obstruct, suffix):
    run_quietly(installation, write_event(1))
    path = database(installation)
    beside, target = path.with_name(path.name + suffix), installation.root / "target"
    obstruct(beside)
    before = snapshot(target)

    run(installation, f"{HOSTILE_EVENT} {write_event(2)}")

    assert snapshot(target) == before
    assert errors_of(installation) == [HOSTILE_RECORD, (2, 5, "event 2")]
    assert all(f"{beside}" in error for error in installation.log_lines("Error"))
    beside.rename(installation.root / "elsewhere")
    assert numbers(path) == [1]


# Removed, renamed, replaced while the agent runs.


def test_a_file_that_is_removed_is_replaced_with_the_next_event(installation):
    agent = Dialogue(installation)
    agent.do(write_event(1))

    database(installation).unlink()
    agent.do(write_event(2))
    agent.do(write_event(3))
    agent.end()

    assert numbers(database(installation)) == [2, 3]


def test_a_file_that_is_renamed_takes_its_rows_along(installation):
    agent = Dialogue(installation)
    for number in range(10):
        agent.do(write_event(number))

    renamed = database(installation).rename(installation.work / "renamed.db")
    agent.do(write_event(10))
    agent.do(write_event(11))
    agent.end()

    assert numbers(database(installation)) == [10, 11]
    assert numbers(renamed) == list(range(10))


def test_a_file_that_is_replaced_by_another_one_is_used_as_it_is(installation):
    run_quietly(installation, write_event(-1))
    other = shutil.copy(database(installation), installation.work / "other.db")
    agent = Dialogue(installation)
    for number in range(10):
        agent.do(write_event(number))

    os.rename(other, database(installation))
    agent.do(write_event(10))
    agent.do(write_event(11))
    agent.end()

    assert numbers(database(installation)) == [-1, 10, 11]
    assert ask(database(installation), "PRAGMA integrity_check") == [(b"ok",)]


@pytest.mark.parametrize("suffixes", [["-wal"], ["-shm"], ["-wal", "-shm"], ["", "-wal", "-shm"]], ids="_".join)
def test_removing_what_belongs_to_the_file_costs_no_later_event(installation, suffixes):
    agent = Dialogue(installation)
    agent.do(write_event(1))

    for suffix in suffixes:
        database(installation).with_name(f"agent_events.db{suffix}").unlink()
    for number in range(2, 5):
        agent.do(write_event(number))
    agent.kill()

    run(installation, write_event(5))
    assert set(range(2, 6)) <= set(numbers(database(installation)))


def test_a_work_folder_that_is_taken_away_is_made_anew(installation):
    agent = Dialogue(installation)
    agent.do(write_event(1))

    moved = installation.work.rename(installation.root / "moved")
    agent.do(write_event(2))
    shutil.rmtree(installation.work)
    agent.do(write_event(3))
    agent.end()

    assert numbers(database(installation)) == [3]
    assert installation.work.stat().st_mode & 0o777 == 0o700
    assert 1 in numbers(database(installation, moved))


# A file that cannot be written.


def test_a_locked_file_puts_the_event_on_record_until_the_lock_goes(installation):
    configure(installation, busy_timeout=20)
    agent = Dialogue(installation)
    agent.do(write_event(1))

    with closing(connect(database(installation), "rw")) as other:
        other.execute("BEGIN EXCLUSIVE")
        agent.do(HOSTILE_EVENT)
        other.execute("ROLLBACK")
        agent.do(write_event(2))
    agent.end()

    assert numbers(database(installation)) == [1, 2]
    assert errors_of(installation) == [HOSTILE_RECORD]
    assert "locked" in installation.log_lines("Error")[0]


def test_a_file_that_is_locked_from_the_start_is_used_when_the_lock_goes(installation):
    run_quietly(installation, write_event(1))
    configure(installation, busy_timeout=20)
    agent = Dialogue(installation)

    with closing(connect(database(installation), "rw")) as other:
        other.execute("PRAGMA locking_mode=EXCLUSIVE")
        other.execute("BEGIN EXCLUSIVE")
        agent.do(HOSTILE_EVENT)
        other.execute("ROLLBACK")
    agent.do(write_event(2))
    agent.end()

    assert numbers(database(installation)) == [1, 2]
    assert errors_of(installation) == [HOSTILE_RECORD]


def test_a_short_lock_is_waited_for(installation):
    agent = Dialogue(installation)
    agent.do(write_event(1))

    with closing(connect(database(installation), "rw")) as other:
        other.execute("BEGIN EXCLUSIVE")
        agent.ask(write_event(2))
        readable, _, _ = select.select([agent.process.stdout], [], [], 0.1)
        assert not readable
        other.execute("ROLLBACK")
        agent.await_answer()
    agent.end()

    assert numbers(database(installation)) == [1, 2]
    assert installation.log_text() == ""


# Mounts, and the command itself. The logs stay where they can be written.
READ_ONLY = {
    "folder": (
        'mount --bind "{work}" "{work}" && mount -o remount,ro,bind "{work}" && '
        'mount --bind "{logs}" "{work}/log" && "$@"'
    ),
    "file": 'mount --bind "{file}" "{file}" && mount -o remount,ro,bind "{file}" && "$@"',
    "immutable_file": 'chattr +i "{file}" || exit 77; "$@"; status=$?; chattr -i "{file}"; exit $status',
}


def mounted(installation, script):
    """A wrapper that runs the `script` after its places are filled in, and where the logs are then."""
    logs = installation.root / "outside" / "log"
    logs.mkdir(parents=True)
    (installation.work / "log").mkdir(parents=True, exist_ok=True)
    return in_private_mounts(script.format(work=installation.work, logs=logs, file=database(installation))), logs.parent


@pytest.mark.parametrize("damage", [False, True], ids=["whole", "damaged"])
@pytest.mark.parametrize("script", READ_ONLY.values(), ids=READ_ONLY)
def test_a_read_only_file_stays_and_the_events_are_on_record(installation, script, damage):
    run_quietly(installation, write_event(1))
    if damage:
        overwrite(database(installation), 0, b"damage")
    before = snapshot(database(installation))
    wrapper, outside = mounted(installation, script)
    installation.write_app(main=f"{HOSTILE_EVENT} {write_event(2)} return 0")

    outcome = installation.run(wrapper=wrapper)

    if outcome.status == 77:
        pytest.skip("no immutable files in this file system")
    assert (outcome.status, outcome.err) == (0, "")
    work = outside if "{logs}" in script else installation.work
    assert errors_of(installation, work=work) == [HOSTILE_RECORD, (2, 5, "event 2")]
    assert snapshot(database(installation)) == before


def test_a_read_only_folder_puts_the_first_event_on_record(installation):
    wrapper, outside = mounted(installation, READ_ONLY["folder"])

    run(installation, f"{HOSTILE_EVENT} {write_event(2)}", wrapper=wrapper)

    assert errors_of(installation, work=outside) == [HOSTILE_RECORD, (2, 5, "event 2")]
    assert not database(installation).exists()


def test_the_folder_of_another_user_puts_the_events_on_record(public_installation):
    installation = public_installation
    installation.work.mkdir(mode=0o755)

    outcome = run(installation, f"{HOSTILE_EVENT} {write_event(2)}", wrapper=AS_NOBODY)

    assert shown_errors(outcome) == [HOSTILE_RECORD, (2, 5, "event 2")]
    assert list(installation.work.iterdir()) == []


def test_the_file_of_another_user_puts_the_events_on_record(public_installation):
    installation = public_installation
    work = installation.home / "work"
    work.mkdir()
    run_quietly(installation, write_event(1), "--workdir", work, workdir=False)
    os.chown(work, 65534, 65534)
    before = snapshot(database(installation, work))

    run(installation, f"{HOSTILE_EVENT} {write_event(2)}", "--workdir", work, workdir=False, wrapper=AS_NOBODY)

    assert errors_of(installation, work=work) == [HOSTILE_RECORD, (2, 5, "event 2")]
    assert snapshot(database(installation, work)) == before


@pytest.mark.parametrize("place", ["", "{root}/obstacle", "{root}/obstacle/below"], ids=["empty", "file", "below_a_file"])
def test_without_a_work_folder_the_events_are_on_record(installation, place):
    (installation.root / "obstacle").write_text("precious")

    outcome = run(
        installation, f"{HOSTILE_EVENT} {write_event(2)}", "--domain_var", "app.path.work=" + place.format(root=installation.root)
    )

    assert shown_errors(outcome) == [HOSTILE_RECORD, (2, 5, "event 2")]
    assert (installation.root / "obstacle").read_text() == "precious"
    assert not (installation.root / "agent_events.db").exists()


@pytest.mark.parametrize("before", ["", write_event(0)], ids=["before_the_first_event", "later"])
def test_on_a_full_disk_every_event_is_stored_or_on_record(installation, before):
    filler = installation.work / "filler"
    copy = installation.root / "copy"
    wrapper, outside = mounted(
        installation,
        'mount -t tmpfs -o size=1m tmpfs "{work}" && mkdir "{work}/log" && mount --bind "{logs}" "{work}/log" && "$@"; '
        f'status=$?; mkdir "{copy}" && cp "{{file}}"* "{copy}"; exit $status',
    )

    run(
        installation,
        f"""
            {before}
            local filler = assert(io.open("{filler}", "w"))
            filler:setvbuf("no")
            while filler:write(("x"):rep(512)) do end
            filler:close()
            for number = 1, 50 do dom:AgentEventWrite{{event_number=number, description=("y"):rep(5000)}} end
            assert(os.remove("{filler}"))
            {write_event(100)}""",
        wrapper=wrapper,
    )

    stored = numbers(copy / "agent_events.db")
    lost = errors_of(installation, work=outside)
    assert [text for _, _, text in lost] == ["y" * 5000] * len(lost)
    on_record = [number for number, _, _ in lost]
    assert on_record, "the disk was not full"
    assert sorted(stored + on_record) == ([0] if before else []) + list(range(1, 51)) + [100]
    assert stored[-1] == 100


def test_when_no_file_can_be_opened_the_event_is_on_record(installation):
    agent = Dialogue(installation)
    agent.do(write_event(1))
    folder = Path(f"/proc/{agent.process.pid}/fd")
    await_condition(
        lambda: any(os.readlink(each) == "anon_inode:[eventpoll]" for each in folder.iterdir()),
        "the event loop of the main thread",
    )

    os.rename(database(installation), installation.work / "renamed.db")
    _, most = resource.prlimit(agent.process.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(agent.process.pid, resource.RLIMIT_NOFILE, (3, most))
    agent.do(HOSTILE_EVENT)
    resource.prlimit(agent.process.pid, resource.RLIMIT_NOFILE, (most, most))
    agent.do(write_event(2))

    outcome = await_end(agent.process)
    assert outcome.status == 0
    assert errors_of(installation) + shown_errors(outcome) == [HOSTILE_RECORD]
    assert numbers(database(installation)) == [2]

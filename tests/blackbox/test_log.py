"""The log file: where it is, what a record looks like, and that none is lost."""

import calendar
import os
import re
import stat
import time
import unicodedata

import pytest

from agentbox import LONG_LOOP, in_private_mounts, lua_string, parse_records, through_shell, write_archive

MIB = 1 << 20


def mode(path):
    return oct(stat.S_IMODE(os.stat(path).st_mode))


# The file.


@pytest.mark.parametrize("mask", ["000", "022", "077", "777"])
def test_log_belongs_to_its_owner_alone(installation, mask):
    installation.write_app(main="dom:Log('message', 'logged') return 0")

    outcome = installation.run(wrapper=through_shell(f'umask {mask} && exec "$@"'))

    assert (outcome.status, outcome.out, outcome.err) == (0, "", "")
    folder = installation.work / "log"
    assert [path.name for path in folder.iterdir()] == [f"{installation.name}.log"]
    assert (mode(folder), mode(installation.log_file())) == ("0o700", "0o600")


def test_a_record_has_time_process_level_and_text(installation):
    installation.write_app(main="dom:Log('warning', 'something happened') print('pid', (io.open('/proc/self/stat'):read('*n'))) return 0")

    before = time.time()
    outcome = installation.run(env={"TZ": "JST-9"})  # nine hours east
    after = time.time()

    (record,) = installation.records()
    stamp = time.mktime(time.strptime(record.stamp + " UTC", "%Y-%m-%d %H:%M:%S %Z")) - time.timezone - 9 * 3600
    assert int(before) <= stamp <= after
    assert outcome.out == f"pid\t{record.pid}\n"
    assert (record.level, record.text) == ("Warning", "something happened")


def test_stamp_is_not_behind_the_clock(installation):
    installation.write_app(
        main="""
        for turn = 1, 2 do
            local second = math.floor(dom:TimeNowMillis() / 1000) + 1
            while dom:TimeNowMillis() < second * 1000 do end
            dom:Log('message', ('%d'):format(second))
            dom:LogTrace('Turn', ('%d'):format(second))
        end
        return 0"""
    )

    assert installation.run("--trace", "Turn", env={"TZ": "UTC"}).status == 0

    records = installation.records()
    assert [record.level for record in records] == ["Message", "Trace"] * 2
    for record in records:
        stamp = calendar.timegm(time.strptime(record.stamp, "%Y-%m-%d %H:%M:%S"))
        assert stamp >= int(record.text.split()[-1])


def test_runs_add_to_the_log(installation):
    installation.write_app(main="dom:Log('message', 'run ' .. arg[1]) return 0")

    for number in range(5):
        assert installation.run("--", str(number)).status == 0

    records = installation.records()
    assert [record.text for record in records] == [f"run {number}" for number in range(5)]
    assert len({record.pid for record in records}) == 5


def test_ten_thousand_records_keep_their_order(installation):
    installation.write_app(main="for i = 1, 10000 do dom:Log('verbose', 'record ' .. i) end return 0")

    assert installation.run().status == 0

    assert installation.log_lines() == [f"Verbose: record {number}" for number in range(1, 10001)]


def test_a_long_text_is_one_record(installation):
    installation.write_app(main="dom:Log('message', ('größe '):rep(100000)) dom:Log('message', 'next') return 0")

    assert installation.run().status == 0

    assert installation.log_lines() == ["Message: " + "größe " * 100000, "Message: next"]


@pytest.mark.parametrize(
    "loss",
    ["os.remove('{log}')", "os.execute('rm -r {folder}')"],
    ids=["file", "folder"],
)
def test_a_log_that_is_taken_away_is_begun_anew(installation, loss):
    loss = loss.format(log=installation.log_file(), folder=installation.log_file().parent)
    installation.write_app(main=f"dom:Log('message', 'before') {loss} dom:Log('message', 'behind') return 0")

    outcome = installation.run()

    assert (outcome.status, outcome.err) == (0, "")
    assert installation.log_lines() == ["Message: behind"]
    assert (mode(installation.log_file().parent), mode(installation.log_file())) == ("0o700", "0o600")


# Texts that would forge a record.

CONTROL_CHARACTERS = {
    "line_feed": (b"\n", r"\n"),
    "tabulator": (b"\t", r"\t"),
    "escape": (b"\x1b", r"\x1b"),
    "carriage_return": (b"\r", r"\r"),
    "delete": (b"\x7f", r"\x7f"),
    "bell": (b"\x07", r"\x07"),
    "nul": (b"\0", r"\x00"),
    "vertical_tab": (b"\x0b", None),
    "form_feed": (b"\x0c", None),
    "unit_separator": (b"\x1f", r"\x1f"),
    "next_line": ("\x85".encode(), None),
    "control_sequence_introducer": ("\x9b".encode(), None),
    "line_separator": ("\u2028".encode(), None),
    "paragraph_separator": ("\u2029".encode(), None),
    "right_to_left_override": ("\u202e".encode(), None),
    "stray_byte": (b"\xff", None),
    "bare_c1_byte": (b"\x85", None),
    "cut_character": (b"\xe2\x80", None),
    "surrogate": (b"\xed\xa0\x80", None),
    "beyond_unicode": (b"\xf4\x90\x80\x80", None),
    "overlong_line_feed": (b"\xc0\x8a", None),
}

control_characters = pytest.mark.parametrize(("raw", "shown"), CONTROL_CHARACTERS.values(), ids=CONTROL_CHARACTERS)

# These change what a reader sees on the line without being a line end or a control code.
MAY_STAY = {"\u202e"}


def is_harmless(text):
    return all(char in MAY_STAY or unicodedata.category(char) not in ("Cc", "Cs", "Zl", "Zp") for char in text)


@control_characters
def test_a_control_character_is_escaped(installation, raw, shown):
    text = b"before" + raw + b"2026-11-20 12:34:56 [1] Error: forged"
    installation.write_app(main=f"dom:Log('warning', {lua_string(text)}) return 0")

    outcome = installation.run()

    assert (outcome.status, outcome.err) == (0, "")
    content = installation.log_file().read_bytes().decode("utf-8")  # strict
    assert content.endswith("\n")
    (line,) = content[:-1].splitlines()
    assert is_harmless(line), line
    (record,) = parse_records(content)
    assert record.level == "Warning"
    assert record.text.startswith("before")
    assert record.text.endswith("2026-11-20 12:34:56 [1] Error: forged")
    if shown:
        assert record.text == f"before{shown}2026-11-20 12:34:56 [1] Error: forged"


@control_characters
def test_a_control_character_of_a_trace_is_escaped(installation, raw, shown):
    forged = b"before" + raw + b"2026-11-20 12:34:56 [1] Error: forged"
    installation.write_app(
        main=f"""
            local forged = {lua_string(forged)}
            dom:LogTrace("M", forged)
            dom:LogTrace(forged, "text")
            assert(load("dom:LogTrace('M', 'text')", "=" .. forged))()
            assert(load("dom:LogTrace('M', 'text')", "@" .. forged))()
            local named = {{}}
            named[forged] = function() dom:LogTrace("M", "text") return 0 end
            local result = named[forged]()
            return result"""
    )

    outcome = installation.run("-t", "*")

    assert (outcome.status, outcome.err) == (0, "")
    content = installation.log_file().read_bytes().decode("utf-8")  # strict
    assert all(is_harmless(line) for line in content[:-1].splitlines())
    records = parse_records("\n".join(content[:-1].splitlines()))
    assert {record.level for record in records} == {"Trace"}
    assert len([record for record in records if not record.text.startswith("Appl: ")]) == 5


@control_characters
def test_a_control_character_on_a_terminal_is_escaped(installation, raw, shown):
    text = b"before" + raw + b"behind"
    installation.write_app(main=f"dom:Log('warning', {lua_string(text)}) return 0")

    status, screen = installation.run_on_terminal()

    assert status == 0
    (line,) = screen.replace("\r\n", "\n")[:-1].splitlines()
    assert is_harmless(line), line


@pytest.mark.parametrize("text", ["größe 日本 😀", "back\\slash \\n", "%s%n%d", "'\"`$", " blanks ", "a\u00a0b", "e\u0301"])
def test_any_other_text_stands_as_it_is(installation, text):
    installation.write_app(main=f"dom:Log('warning', {lua_string(text.encode())}) return 0")

    assert installation.run().status == 0

    assert installation.log_lines() == [f"Warning: {text}"]


def test_the_applications_own_failure_forges_no_record(installation):
    installation.write_app(main="error('broken\\n2026-11-20 12:34:56 [1] Error: forged\\27[2J')")

    outcome = installation.run()

    assert outcome.status == 2
    (record,) = installation.records()
    assert record.level == "Error"
    assert r"broken\n2026-11-20 12:34:56 [1] Error: forged\x1b[2J" in record.text


# A record is in the file before the call returns.

ENDS = {
    "os_exit": ("os.exit(7)", 7),
    "os_exit_closing_the_state": ("os.exit(7, true)", 7),
    "killed": ("os.execute('kill -9 $PPID')", -9),
    "aborted": ("os.execute('kill -ABRT $PPID')", -6),
    "interrupted": ("os.execute('kill -INT $PPID')", 0),
    "error": ("error('end')", 2),
    "return": ("", 7),
}


@pytest.mark.parametrize(("end", "status"), ENDS.values(), ids=ENDS)
def test_a_record_is_in_the_file_when_the_process_ends_in_the_next_instruction(installation, end, status):
    installation.write_app(main=f"dom:Log('message', 'run ' .. arg[1]) {end} while {status} <= 0 do end return 7")
    runs = max(5, LONG_LOOP // 80)

    for number in range(runs):
        outcome = installation.run("--", str(number))
        assert outcome.status == status, outcome

    assert installation.log_lines("Message") == [f"run {number}" for number in range(runs)]


def test_a_record_can_be_read_while_the_process_goes_on(installation):
    installation.write_app(
        main=f"""
            for i = 1, 1000 do
              dom:Log("message", "record " .. i)
              local last
              for line in io.lines("{installation.log_file()}") do last = line end
              if not last:find("record " .. i, 1, true) then return 7 end
            end
            return 0"""
    )

    assert installation.run().status == 0


# A log that cannot be written.


def make_folder(path):
    path.mkdir(parents=True)


def make_file(path):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("precious")


def make_link(path):
    path.parent.mkdir(parents=True, exist_ok=True)
    target = path.parent.parent / "target"
    target.write_text("precious")
    path.symlink_to(target)


def make_dangling_link(path):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.symlink_to(path.parent.parent / "target")


def make_fifo(path):
    path.parent.mkdir(parents=True, exist_ok=True)
    os.mkfifo(path)


OBSTACLES = {
    "folder_is_a_file": ("log", make_file, "Not a directory|File exists"),
    "folder_is_a_fifo": ("log", make_fifo, "Not a directory|File exists"),
    "folder_is_a_dangling_link": ("log", make_dangling_link, "Not a directory|File exists|symbolic link|No such file"),
    "file_is_a_folder": ("log/*.log", make_folder, "Is a directory"),
    "file_is_a_link": ("log/*.log", make_link, "symbolic link"),
    "file_is_a_dangling_link": ("log/*.log", make_dangling_link, "symbolic link"),
    "file_is_a_fifo": ("log/*.log", make_fifo, "."),
}


@pytest.mark.parametrize(("place", "make", "reason"), OBSTACLES.values(), ids=OBSTACLES)
def test_records_go_to_standard_error_when_the_log_cannot_be_opened(installation, place, make, reason):
    obstacle = installation.work / place.replace("*", installation.name)
    make(obstacle)
    installation.write_app(main="dom:Log('warning', 'first\\nline') dom:Log('message', 'second') return 0")

    outcome = installation.run()

    assert (outcome.status, outcome.out) == (0, "")
    explanation, *records = outcome.err.split("\n")[:-1]
    assert f"{obstacle}" in explanation
    assert re.search(reason, explanation)
    got = [f"{record.level}: {record.text}" for record in parse_records("\n".join(records))]
    assert got == [r"Warning: first\nline", "Message: second"]
    target = installation.work / "target"
    assert not target.exists() or target.read_text() == "precious"


def test_a_record_that_cannot_be_written_is_shown_once_on_a_terminal(installation):
    make_file(installation.work / "log")
    installation.write_app(main="dom:Log('warning', 'logged') return 0")

    status, screen = installation.run_on_terminal()

    assert (status, screen.count("Warning: logged")) == (0, 1)


def test_a_full_disk_loses_no_record_and_mixes_no_lines(installation):
    copy = installation.root / "copy.log"
    installation.work.mkdir()
    installation.write_app(
        main=f"""
            dom:Log("message", "before")
            local filler = assert(io.open("{installation.work}/filler", "w"))
            filler:setvbuf("no")
            while filler:write(("x"):rep(512)) do end
            filler:close()
            for i = 1, 3 do dom:Log("warning", i .. ("y"):rep(10000) .. i) end
            assert(os.remove("{installation.work}/filler"))
            dom:Log("message", "behind")
            return 0"""
    )

    outcome = installation.run(
        wrapper=in_private_mounts(
            f'mount -t tmpfs -o size=256k tmpfs "{installation.work}" && "$@"; '
            f'status=$?; cp "{installation.log_file()}" "{copy}"; exit $status'
        )
    )

    assert outcome.status == 0, outcome
    in_file = [record.text for record in parse_records(copy.read_text())]
    assert [in_file[0], in_file[-1]] == ["before", "behind"]
    assert "No space left on device" in outcome.err
    on_stderr = [match[1] for match in re.finditer(r"Warning: (.*)\n", outcome.err)]
    whole = [text for text in in_file[1:-1] + on_stderr if len(text) == 10002]
    assert sorted(whole) == [f"{i}{'y' * 10000}{i}" for i in (1, 2, 3)]


def test_a_record_behind_one_that_an_earlier_run_could_not_finish_has_its_own_line(installation):
    copy = installation.root / "copy.log"
    filler = installation.work / "filler"
    installation.work.mkdir()
    installation.write_app(
        main=f"""
            if io.open("{filler}") then
              os.remove("{filler}")
              dom:Log("message", "behind")
            else
              dom:Log("message", "before")
              local filler = assert(io.open("{filler}", "w"))
              filler:setvbuf("no")
              while filler:write(("x"):rep(512)) do end
              dom:Log("warning", ("y"):rep(10000))
            end
            return 0"""
    )

    outcome = installation.run(
        wrapper=in_private_mounts(
            f'mount -t tmpfs -o size=256k tmpfs "{installation.work}" && "$@" && "$@" && '
            f'cp "{installation.log_file()}" "{copy}"'
        )
    )

    assert outcome.status == 0, outcome
    assert f"Warning: {'y' * 10000}\n" in outcome.err
    in_file = [record.text for record in parse_records(copy.read_text())]
    assert [in_file[0], in_file[-1]] == ["before", "behind"]


# What is shown on a terminal, and what is not shown elsewhere.


def test_records_are_shown_on_a_terminal(installation):
    installation.write_app(
        main="""
            for _, level in ipairs{"error", "warning", "message", "verbose"} do dom:Log(level, "one " .. level) end
            dom:LogTrace("M", "one trace")
            return 0"""
    )

    status, screen = installation.run_on_terminal("-t", "M")

    assert status == 0
    assert screen.replace("\r\n", "\n") == installation.log_text()
    assert len(installation.records()) == 5


@pytest.mark.parametrize("word", ["error", "warning", "message", "verbose"])
def test_records_are_not_shown_where_nobody_sits(installation, word):
    installation.write_app(main=f"dom:Log('{word}', 'logged') dom:LogTrace('M', 'traced') return 0")

    outcome = installation.run("-t", "M")

    assert (outcome.status, outcome.out, outcome.err) == (0, "", "")
    assert len(installation.records()) == 2


FAILURES = {
    "error_in_main": ({"main": "error('broken')"}, "broken"),
    "error_in_init": ({"init": "error('broken')"}, "broken"),
    "error_in_shutdown": ({"shutdown": "error('broken')"}, "broken"),
    "error_while_loading": ({"top": "error('broken')"}, "broken"),
    "syntax_error": ({"top": "local broken ="}, "unexpected symbol"),
}


@pytest.mark.parametrize(("bodies", "message"), FAILURES.values(), ids=FAILURES)
def test_a_failure_of_the_application_is_shown_once_and_logged_once(installation, bodies, message):
    installation.write_app(**bodies)

    outcome = installation.run()
    status, screen = installation.run_on_terminal()

    assert outcome.status == status != 0
    assert (outcome.out, outcome.err.count(message)) == ("", 1)
    assert screen.count(message) == 1, screen
    first, second = [record for record in installation.records() if message in record.text]
    assert (first.level, second.level) == ("Error", "Error")


def test_a_record_after_a_failure_of_its_own_is_shown(installation):
    installation.write_app(main="dom:Log('error', 'same') dom:Log('error', 'same') return 0")

    status, screen = installation.run_on_terminal()

    assert (status, screen.count("Error: same")) == (0, 2)


# Rotation.


def test_rotation_at_ten_mebibytes_loses_nothing(installation):
    installation.write_app(main="local fill = ('x'):rep(65536) for i = 1, 800 do dom:Log('message', i .. ' ' .. fill) end return 0")

    assert installation.run().status == 0

    log = installation.log_file()
    files = [log.with_name(f"{log.name}.{number}") for number in (4, 3, 2, 1)] + [log]
    assert sorted(log.parent.iterdir()) == sorted(files)
    numbers = [int(record.text.split(" ")[0]) for file in files for record in parse_records(file.read_text())]
    assert numbers == list(range(1, 801))
    sizes = [file.stat().st_size for file in files[:-1]]
    assert all(abs(size - 10 * MIB) < 66000 for size in sizes), sizes
    assert {mode(file) for file in files} == {"0o600"}


def test_five_old_files_are_kept(installation):
    installation.write_app(main="local fill = ('x'):rep(262144) for i = 1, 400 do dom:Log('message', i .. ' ' .. fill) end return 0")

    assert installation.run().status == 0

    log = installation.log_file()
    files = [log.with_name(f"{log.name}.{number}") for number in (5, 4, 3, 2, 1)] + [log]
    assert sorted(log.parent.iterdir()) == sorted(files)
    numbers = [int(record.text.split(" ")[0]) for file in files for record in parse_records(file.read_text())]
    assert numbers == list(range(numbers[0], 401))
    assert len(numbers) >= 5 * 10 * MIB // 262200


def test_a_log_that_is_full_when_the_process_starts_is_rotated(installation):
    log = installation.log_file()
    log.parent.mkdir(parents=True)
    log.write_text("2026-11-20 12:34:56 [1] Message: old\n" * (10 * MIB // 37 + 1))
    installation.write_app(main="dom:Log('message', 'new') return 0")

    assert installation.run().status == 0

    assert installation.log_lines() == ["Message: new"]
    assert log.with_name(f"{log.name}.1").stat().st_size >= 10 * MIB


# Tracing.


def trace_state(installation, *words, modules, configured=None, setup=""):
    """Which of `modules` are enabled in a run."""
    if configured is not None:
        installation.work.mkdir(exist_ok=True)
        (installation.work / "kx_agent.ini").write_text(f"{installation.name}.Trace={configured}\n")
    questions = ", ".join(f"dom:LogTraceIsEnabled('{module}') and '{module}' or ''" for module in modules)
    installation.write_app(main=f"{setup} print(table.concat({{{questions}}}, ' ')) return 0")
    outcome = installation.run(*words)
    assert (outcome.status, outcome.err) == (0, "")
    return set(outcome.out.split())


@pytest.mark.parametrize(
    ("given", "configured", "enabled"),
    [
        (None, None, set()),
        ("", "", set()),
        ("A", None, {"A"}),
        (None, "A", {"A"}),
        ("A", "B", {"A", "B"}),
        ("A,B", "B,Abc", {"A", "B", "Abc"}),
        ("*", None, {"A", "B", "Abc", "a", "x.y"}),
        (None, "*", {"A", "B", "Abc", "a", "x.y"}),
        ("A,*", "B", {"A", "B", "Abc", "a", "x.y"}),
        ("A*", "?", set()),
        ("Ab", "Abcd", set()),
        (",A,,B,", None, {"A", "B"}),
        ("x.y", None, {"x.y"}),
        ("x", "y", set()),
    ],
)
def test_a_module_is_traced_when_one_of_both_lists_names_it(installation, given, configured, enabled):
    words = [] if given is None else ["-t", given]

    assert trace_state(installation, *words, modules=["A", "B", "Abc", "a", "x.y"], configured=configured) == enabled


@pytest.mark.parametrize("variable", ["app.trace", "app.trace+"])
def test_a_change_of_a_list_counts_from_the_next_call(installation, variable):
    installation.write_app(
        main=f"""
            local function is() return dom:LogTraceIsEnabled("A") end
            local answers = {{is()}}
            for i = 1, 1000 do
              dom:Set("{variable}", "A") if not is() then return 7 end
              dom:Set("{variable}", "B,C") if is() then return 8 end
              dom:Set("{variable}", "*") if not is() then return 9 end
              dom:Set("{variable}", nil) if is() then return 10 end
            end
            dom:LogTrace("A", "not written")
            dom:Set("{variable}", "A")
            dom:LogTrace("A", "written")
            dom:LogTrace("B", "not written")
            dom:Set("{variable}", "")
            dom:LogTrace("A", "not written")
            return answers[1] and 11 or 0"""
    )

    assert installation.run().status == 0

    assert [record.text.rpartition(": ")[2] for record in installation.records()] == ["written"]


def test_a_trace_record_names_module_source_and_line_of_the_caller(installation):
    module = installation.write_module(
        installation.name,
        """local app = {}
local function helper()
  dom:LogTrace("M", "from a helper")
end
function app.main()
  dom:LogTrace("M", "from main")
  helper()
  coroutine.wrap(function()
    dom:LogTrace("x.y", "from a coroutine")
  end)()
  pcall(dom.LogTrace, dom, "M", "from C")
  return 0
end
dom:LogTrace("M", "größe: %s (a:1): b")
return app
""",
    )

    assert installation.run("-t", "M,x.y").status == 0

    shapes = [re.fullmatch(r"Trace: (\S+): ([^()]+ )?\((.*?):(-?\d+)\): (.*)", line) for line in installation.log_lines()]
    assert all(shapes), installation.log_text()
    got = [(shape[1], os.path.basename(shape[3]), int(shape[4]), shape[5]) for shape in shapes if shape[5] != "from C"]
    assert got == [
        ("M", module.name, 14, "größe: %s (a:1): b"),
        ("M", module.name, 6, "from main"),
        ("M", module.name, 3, "from a helper"),
        ("x.y", module.name, 9, "from a coroutine"),
    ]
    assert len(shapes) == 5


def test_a_trace_record_from_an_archive_names_the_entry(installation):
    archive = write_archive(
        installation.root / "library.kxe", {"library/part.lua": "return function()\n  dom:LogTrace('M', 'text')\n  return 0 end"}
    )
    installation.write_app(main="local part = require('library.part') local result = part() return result")

    assert installation.run("-t", "M", "-z", archive).status == 0

    (line,) = installation.log_lines()
    assert re.fullmatch(r"Trace: M: ([^()]+ )?\((.*/)?part\.lua:2\): text", line)


def test_tracing_does_not_depend_on_the_verbose_switch_or_the_log_level(installation):
    installation.write_app(main="dom:LogTrace('M', 'traced') dom:Log('verbose', 'verbose') return 0")

    for words in ([], ["--verbose"]):
        assert installation.run("-t", "M", *words).status == 0

    assert [line.rpartition(": ")[2] for line in installation.log_lines()] == ["traced", "verbose"] * 2

"""The test driver as it is shipped: which scripts and tests run, what is reported, and the status."""

import os
import re
import signal
import xml.etree.ElementTree as ElementTree

import pytest

from agentbox import AS_NOBODY, in_private_mounts, stock_lua, through_shell

PASSES = "function testPasses() end"
ESCAPES = re.compile(r"\x1b\[[0-9;]*m")


@pytest.fixture
def driven(installation):
    """An installation whose application only says that it was shut down."""
    installation.write_app(shutdown="print('shutdown')")
    return installation


def write_script(installation, name, text, folder="t"):
    path = installation.root / folder / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(text if isinstance(text, bytes) else ("local lu = require('luaunit') " + text).encode())
    return path


def drive(installation, *words, scripts="t/*", env=None, **options):
    """Runs the driver on the scripts that `scripts` matches, with `words` for LuaUnit."""
    return installation.run("-u", scripts, "--", *words, env={"TERM": "xterm", **(env or {})}, **options)


def drive_script(installation, text, *words, **options):
    write_script(installation, "one_test.lua", text)
    return drive(installation, *words, **options)


def tap(outcome):
    """The results of a TAP report by the name of the test; "skip" ones by number, as LuaUnit does not name them."""
    lines = outcome.out.split("\n")
    planned = [int(match[1]) for match in map(re.compile(r"1\.\.(\d+)$").match, lines) if match]
    results = [match.groups() for match in map(re.compile(r"(ok|not ok) +(\d+)\t(.*)$").match, lines) if match]
    assert len(planned) == 1, outcome
    assert [int(number) for _, number, _ in results] == list(range(1, planned[0] + 1)), outcome
    return {name if not name.startswith("# SKIP") else f"{number} {name}": verdict for verdict, number, name in results}


def timeless(text):
    return re.sub(r"[\d.]+ seconds", "T seconds", text)


def summary(outcome):
    """The line with the numbers, without the time."""
    lines = re.findall("^(?:# )?(Ran .*)$", outcome.out, re.M)
    assert len(lines) == 1, outcome
    return timeless(lines[0]).replace(" in T seconds", "")


def complaint(outcome):
    """What a run that never began has to say: one line. The host adds an empty one."""
    assert outcome.status == 1 and outcome.out == "", outcome
    match = re.fullmatch(r"velunit: ([^\n]+)\n\n", outcome.err)
    assert match, outcome
    return match[1]


# The status


def test_passing_tests_are_reported_and_the_run_goes_on(driven):
    outcome = drive_script(driven, "TestA = {} function TestA.testOne() lu.assertTrue(true) end function TestA.testTwo() end")

    assert (outcome.status, outcome.err) == (0, "")
    assert timeless(outcome.out) == "..\nRan 2 tests in T seconds, 2 successes, 0 failures\nOK\nshutdown\n"


def test_failing_test_is_reported_with_its_place_and_ends_the_run(driven):
    outcome = drive_script(driven, "\nTestA = {}\nfunction TestA.testOne()\n  lu.assertEquals(1, 2)\nend")

    assert (outcome.status, outcome.err) == (1, "\n")
    assert timeless(outcome.out) == (
        "F\nFailed tests:\n-------------\n1) TestA.testOne\nt/one_test.lua:4: expected: 2, actual: 1\n"
        "stack traceback:\n\tt/one_test.lua:4: in function 'TestA.testOne'\n\n"
        "Ran 1 tests in T seconds, 0 successes, 1 failure\n"
    )


@pytest.mark.parametrize(
    "failures, errors, status", [(0, 0, 0), (1, 0, 1), (0, 1, 1), (1, 2, 3), (100, 25, 125), (126, 0, 125), (200, 100, 125), (256, 0, 125)]
)
def test_status_is_the_number_of_failures_and_errors(driven, failures, errors, status):
    outcome = drive_script(
        driven,
        f"TestA = {{}} function TestA.testPasses() end function TestA.testSkipped() lu.skip('') end "
        f"for i = 1, {failures} do TestA['testF' .. i] = function() lu.fail('f') end end "
        f"for i = 1, {errors} do TestA['testE' .. i] = function() error('e') end end",
    )

    assert outcome.status == status
    assert f"Ran {failures + errors + 1} test" in summary(outcome)


def test_driver_can_be_called_again_and_gives_its_result(installation):
    write_script(installation, "bad_test.lua", "function testBad() error('x') end function testWorse() error('x') end")
    write_script(installation, "good_test.lua", PASSES)
    installation.write_app(main="local run = require('tests.velunit') print(run('t/bad*'), run('t/good*'), run('t/none'), os.exit == exit)", init="exit = os.exit")

    outcome = installation.run()

    assert outcome.out.endswith("\n2\t0\t1\ttrue\n"), outcome
    assert outcome.err == "velunit: no script matches 't/none'\n"


@pytest.mark.parametrize("value", ["nil", "5", "{}"])
def test_wrong_argument_is_a_lua_error(installation, value):
    installation.write_app(main=f"print(pcall(require('tests.velunit'), {value}))")

    assert "bad argument #1 to 'velunit' (string expected, got " in installation.run().out


# Which scripts run


def test_scripts_run_in_the_order_of_the_bytes(driven):
    names = ["B_test.lua", "a_test.lua", "a b_test.lua", "aa_test.lua", "\u00e9_test.lua", os.fsdecode(b"\xff_test.lua"), "_test.lua", "10_test.lua", "9_test.lua"]
    for name in names:
        write_script(driven, name, "print(debug.getinfo(1, 'S').source)")

    outcome = drive(driven, scripts="t/*_test.lua", env={"LANG": "C.UTF-8"})

    shown = [line for line in outcome.out.split("\n") if line.startswith("@")]
    wanted = sorted((f"t/{name}" for name in names), key=os.fsencode)
    assert shown == ["@" + path.replace("\udcff", "\\xff") for path in wanted]


def test_folders_fifos_and_devices_are_no_scripts(driven):
    write_script(driven, "good_test.lua", PASSES)
    (driven.root / "t" / "folder_test.lua").mkdir()
    os.mkfifo(driven.root / "t" / "fifo_test.lua")
    (driven.root / "t" / "null_test.lua").symlink_to("/dev/null")

    assert summary(drive(driven, timeout=20)) == "Ran 1 tests, 1 success, 0 failures"


@pytest.mark.parametrize("scripts", ["none*", "t/none_*.lua", "no/such/folder/*", "t/folder*", "t/fifo*", "/*.nothing", "?", "t/[x]_*", "one_test.lua*"])
def test_no_script_is_a_line_and_status_1(driven, scripts):
    write_script(driven, "one_test.lua", PASSES)
    (driven.root / "t" / "folder_test.lua").mkdir()
    os.mkfifo(driven.root / "t" / "fifo_test.lua")

    assert complaint(drive(driven, scripts=scripts, timeout=20)) == f"no script matches '{scripts}'"


def test_pattern_cannot_forge_a_line(driven):
    assert complaint(drive(driven, scripts="none*\\nvelunit: \\27[31mOK\\0")) == "no script matches 'none*\\nvelunit: \\x1b[31mOK\\x00'"


@pytest.mark.parametrize(
    "scripts, ran",
    [
        ("t/one_test.lua", "1"),
        ("./t/../t/one_test.lua", "1"),
        ("t/????test.lua", "1"),
        ("t/one*", "1"),
        ("?/one*", "1"),
        ("t/[o]ne_*.lua", "1"),
        ("t/*", "15"),
        # A file of that very name goes before the pattern.
        ("t/[n]ame.lua", "2"),
        ("t/st*r.lua", "3"),
        ("t/what?.lua", "4"),
        # The specification is text of Lua.
        ("t/quote\\\"*", "5"),
        ("t/line\\n*", "6"),
        ("t/back\\\\\\\\slash*", "7"),
        ("t/quote'*", "8"),
        ("t/.hidden*", "9"),
    ],
    ids=range(15),
)
def test_specification_is_a_file_or_a_pattern(driven, scripts, ran):
    names = ["one_test.lua", "[n]ame.lua", "st*r.lua", "what?.lua", 'quote".lua', "line\nfeed.lua", "back\\slash.lua", "quote'.lua", ".hidden.lua"]
    for number, name in enumerate(names, start=1):
        write_script(driven, name, f"print('script', {number}) {PASSES}")
    for number, name in enumerate(["name.lua", "star.lua", "whatx.lua", "n.lua", "a.txt", "b", "c"], start=20):
        write_script(driven, name, f"print('script', {number}) {PASSES}")

    outcome = drive(driven, scripts=scripts)

    shown = re.findall(r"^script\t(\d+)$", outcome.out, re.M)
    assert outcome.status == 0, outcome
    assert len(shown) == 15 if ran == "15" else shown == [ran], outcome


def test_absolute_pattern(driven):
    write_script(driven, "one_test.lua", PASSES)

    assert drive(driven, scripts=f"{driven.root}/t/*", cwd="/").status == 0


# Scripts that cannot be run


UNUSABLE = {
    "syntax": (b"\n\nlocal = 5", "t/bad_test.lua:3: <name> expected near '='"),
    "precompiled": (None, "attempt to load a binary chunk"),
    "error": (b"\nlocal function deeper() error('went wrong') end\ndeeper()", "t/bad_test.lua:2: went wrong"),
    "assertion": (b"require('luaunit').assertEquals(1, 2)", "t/bad_test.lua:1: expected: 2, actual: 1"),
    "table": (b"error({ code = 5 })", "{code=5}"),
    "object": (b"error(setmetatable({}, { __tostring = function() return 'an object' end }))", "an object"),
    "object that cannot be shown": (b"error(setmetatable({}, { __tostring = error }))", "(error object is a table value)"),
    "object without a text": (b"error(setmetatable({}, { __tostring = function() return nil end }))", "invalid tostring() result"),
    "nil": (b"error()", "nil"),
    "true": (b"error(true)", "true"),
    "per cent": (b"error('100%: a.lua:5: %1')", "100%: a.lua:5: %1"),
    "yield": (b"coroutine.yield()", "attempt to yield from outside a coroutine"),
    "overflow": (b"local function deeper() return 1 + deeper() end deeper()", "stack overflow"),
    "exit with failure": (b"os.exit(1)", "t/bad_test.lua:1: os.exit(1) was called"),
    "exit with false": (b"os.exit(false)", "t/bad_test.lua:1: os.exit(false) was called"),
    "no suite": (b"require('luaunit').LuaUnit.new():runSuiteByInstances({ { 'TestX', 5 } })", "Instance must be a table or a function"),
    "no name": (b"require('luaunit').LuaUnit.run('TestX')", "the script has no test named 'TestX'"),
    "odd suite": (b"TestX = { [true] = function() end }", "bad argument #1 to 'sub'"),
    "bad module": (b"require('no.such.module')", "module 'no.such.module' not found"),
}


@pytest.mark.parametrize("content, message", UNUSABLE.values(), ids=UNUSABLE)
def test_script_that_cannot_be_run_is_one_error_and_the_others_run(driven, content, message):
    if content is None:
        content = stock_lua("io.write(string.dump(function() print('executed') end))").stdout
    write_script(driven, "a_test.lua", PASSES)
    write_script(driven, "bad_test.lua", content + b"\nfunction testNever() end" if content[0] != 0x1B else content)
    write_script(driven, "c_test.lua", "function testToo() end")

    outcome = drive(driven)

    assert outcome.status == 1
    assert re.search(r"^1\) t/bad_test\.lua\n", outcome.out, re.M), outcome
    assert message in outcome.out
    assert "executed" not in outcome.out
    assert re.match(r"Ran 3 tests, 2 successes, 1 (error|failure)$", summary(outcome)), outcome


def test_error_of_a_chunk_shows_where_it_came_from_and_nothing_of_the_driver(driven):
    outcome = drive_script(driven, "\nlocal function deeper()\n  error('went wrong')\nend\ndeeper()")

    assert (
        "1) t/one_test.lua\nt/one_test.lua:3: went wrong\nstack traceback:\n"
        "\tt/one_test.lua:3: in function 'deeper'\n\tt/one_test.lua:5: in main chunk\n\n"
    ) in outcome.out


def test_script_that_cannot_be_read_is_one_error(public_installation):
    public_installation.write_app()
    write_script(public_installation, "a_test.lua", PASSES)
    write_script(public_installation, "secret_test.lua", PASSES).chmod(0)
    (public_installation.root / "t" / "dangling_test.lua").symlink_to("nowhere")
    work = public_installation.home / "work"

    outcome = public_installation.run("-w", work, "-u", "t/*", wrapper=AS_NOBODY)

    assert outcome.status == 2, outcome
    assert "t/secret_test.lua: Permission denied\n" in outcome.out
    assert "t/dangling_test.lua: No such file or directory\n" in outcome.out


def test_name_of_a_script_cannot_forge_lines(driven):
    write_script(driven, "a\nok 2\tforged\x1b[31m\udcff_test.lua", "error('x')")

    outcome = drive(driven, "-o", "tap", "-v")

    assert tap(outcome) == {"t/a\\nok 2\\tforged\\x1b[31m\\xff_test.lua": "not ok"}
    assert "\x1b" not in outcome.out


@pytest.mark.parametrize("start", [b"\xef\xbb\xbf", b"#!/usr/bin/lua\n", b"\xef\xbb\xbf#!/usr/bin/lua\n", b"#", b"#\n", b""])
def test_byte_order_mark_and_first_line_are_passed_by(driven, start):
    lines = start.count(b"\n") + 1
    content = start + b"function testPlace() error('here') end" if start != b"#" else b"#\nfunction testPlace() error('here') end"
    write_script(driven, "one_test.lua", content)

    assert f"t/one_test.lua:{lines if start != b'#' else 2}: here" in drive(driven).out


def test_chunk_that_skips_skips_the_script(driven):
    write_script(driven, "a_test.lua", PASSES)
    write_script(driven, "b_test.lua", "lu.skipIf(true, 'not on this host') function testNever() error() end")

    outcome = drive(driven, "-o", "tap")

    assert outcome.status == 0
    assert tap(outcome) == {"testPasses": "ok", "2 # SKIP not on this host": "ok"}


# Which tests run


def test_globals_that_begin_with_test_are_tests(driven):
    outcome = drive_script(
        driven,
        "TestSuite = {} function TestSuite:testB() assert(self == TestSuite) end function TestSuite.TESTA() end function TestSuite.helper() error() end "
        "function testFunction() end function TestFunction() end function helper() error() end local function testLocal() error() end "
        "testData = 'text' testTable = { 1, 2 } _G.testThroughTable = function() end",
        "-o", "tap",
    )

    assert list(tap(outcome)) == ["TestFunction", "TestSuite.TESTA", "TestSuite.testB", "testFunction", "testThroughTable"]
    assert outcome.status == 0


def test_same_names_in_two_scripts_are_all_run_and_told_apart(driven):
    for script in "abc":
        write_script(
            driven,
            f"{script}_test.lua",
            f"TestSame = {{}} function TestSame.testOne() assert(TestSame.own == '{script}') print('ran {script}') end TestSame.own = '{script}' "
            f"function testSame() print('function {script}') end Test_{script} = {{ testOnly = function() end }}",
        )

    outcome = drive(driven, "-o", "tap")

    wanted = []
    for script in "abc":
        wanted += [f"t/{script}_test.lua:TestSame.testOne", f"Test_{script}.testOnly", f"t/{script}_test.lua:testSame"]
    assert list(tap(outcome)) == wanted
    assert outcome.status == 0
    assert re.findall("^(?:ran|function) .", outcome.out, re.M) == [f"{what} {script}" for script in "abc" for what in ("ran", "function")]


@pytest.mark.parametrize("word, ran", [("testSame", ["t/a_test.lua:testSame", "t/b_test.lua:testSame"]), ("t/b_test.lua:testSame", ["testSame"])])
def test_name_of_the_report_names_the_test(driven, word, ran):
    for script in "ab":
        write_script(driven, f"{script}_test.lua", "function testSame() end")

    assert list(tap(drive(driven, "-o", "tap", word))) == ran


def test_suite_of_a_shared_module_runs_once(driven):
    driven.write_module("shared", "TestShared = { testOne = function() end } return TestShared")
    write_script(driven, "a_test.lua", "require('shared') function testA() end")
    write_script(driven, "b_test.lua", "require('shared') function testB() assert(TestShared) end")

    assert list(tap(drive(driven, "-o", "tap"))) == ["TestShared.testOne", "testA", "testB"]


ENDINGS = {
    "none": "",
    "exit": "os.exit(lu.LuaUnit.run())",
    "return": "do return lu.LuaUnit.run() end",
    "run": "lu.run()",
    "method": "os.exit(lu.LuaUnit:run())",
    "new": "local runner = lu.LuaUnit.new() runner:setOutputType('junit', 'mine') os.exit(runner:runSuite())",
    "options": "os.exit(lu.LuaUnit.run('-o', 'tap', '-v'))",
    "words": "os.exit(lu.LuaUnit.run(...))",
    "exit with success": "os.exit()",
    "exit with true": "os.exit(true, true)",
    "success": "lu.success()",
    "twice": "lu.LuaUnit.run() os.exit(lu.LuaUnit.run())",
}


@pytest.mark.parametrize("ending", ENDINGS.values(), ids=ENDINGS)
def test_script_that_runs_its_tests_itself_leaves_that_to_the_driver(driven, ending):
    write_script(driven, "a_test.lua", f"TestA = {{ testOne = function() end }} function testTwo() lu.fail('seen') end {ending}")
    write_script(driven, "b_test.lua", "function testThree() end")

    outcome = drive(driven)

    assert outcome.status == 1
    assert summary(outcome) == "Ran 3 tests, 2 successes, 1 failure"
    assert not (driven.root / "mine.xml").exists()


def test_script_may_say_which_tests_it_means(driven):
    write_script(driven, "a_test.lua", "Suite = { testOne = function() end } TestNot = { testYes = print, testNever = error } lu.LuaUnit.run('Suite') os.exit(lu.LuaUnit.run('TestNot.testYes'))")
    write_script(driven, "b_test.lua", "local own = { testTwo = function() end, testThree = function() end } os.exit(lu.LuaUnit.new():runSuiteByInstances({ { 'Own', own }, { 'single', function() end } }))")

    outcome = drive(driven, "-o", "tap")

    assert list(tap(outcome)) == ["Suite.testOne", "TestNot.testYes", "Own.testThree", "Own.testTwo", "single"]
    assert outcome.status == 0


@pytest.mark.parametrize(
    "script, words, line",
    [
        ("", (), "the scripts define no tests"),
        ("TestEmpty = {}", (), "the scripts define no tests"),
        ("local TestLost = { testOne = function() end }", (), "the scripts define no tests"),
        (PASSES, ("-p", "nothing"), "no test is selected"),
        (PASSES, ("-x", "."), "no test is selected"),
    ],
)
def test_run_without_tests_says_so(driven, script, words, line):
    outcome = drive_script(driven, script, *words)

    assert (outcome.status, outcome.err) == (0, f"velunit: {line}\n")
    assert summary(outcome).startswith("Ran 0 tests")


# Words for LuaUnit

FOUR = "TestA = {} function TestA.testOne() end function TestA.testTwo() end TestB = { testOne = function() end } function testAlone() end Further = { testMore = function() end }"


@pytest.mark.parametrize(
    "words, ran",
    [
        ((), ["TestA.testOne", "TestA.testTwo", "TestB.testOne", "testAlone"]),
        (("-p", "One"), ["TestA.testOne", "TestB.testOne"]),
        (("-p", "One", "-p", "Alone"), ["TestA.testOne", "TestB.testOne", "testAlone"]),
        (("--pattern", "^TestA%.", "-x", "Two"), ["TestA.testOne"]),
        (("-x", "One"), ["TestA.testTwo", "testAlone"]),
        (("TestA",), ["TestA.testOne", "TestA.testTwo"]),
        (("testAlone", "TestB.testOne"), ["testAlone", "TestB.testOne"]),
        (("Further",), ["Further.testMore"]),
        (("TestA", "-x", "One"), ["TestA.testTwo"]),
        (("-r", "3"), ["TestA.testOne", "TestA.testTwo", "TestB.testOne", "testAlone"]),
        (("-v", "-q"), ["TestA.testOne", "TestA.testTwo", "TestB.testOne", "testAlone"]),
    ],
    ids=range(11),
)
def test_words_select_tests(driven, words, ran):
    outcome = drive_script(driven, FOUR, "-o", "tap", *words)

    assert list(tap(outcome)) == ran
    assert (outcome.status, outcome.err) == (0, "")


def test_shuffled_tests_all_run_and_stay_with_their_script(driven):
    for script in "abcdef":
        write_script(driven, f"{script}_test.lua", f"Test_{script} = {{}} for i = 1, 9 do Test_{script}['test' .. i] = function() end end")
    ordered = list(tap(drive(driven, "-o", "tap")))

    shuffled = list(tap(drive(driven, "-o", "tap", "-s")))

    assert sorted(shuffled) == sorted(ordered) and shuffled != ordered
    scripts = [name.split(".")[0] for name in shuffled]
    assert len([1 for before, after in zip(scripts, scripts[1:]) if before != after]) == 5


def test_repeated_test_stops_at_the_first_failure(driven):
    outcome = drive_script(driven, "local count = 0 function testThird() count = count + 1 print('round ' .. count) assert(count < 3, 'third') end", "-r", "5")

    assert outcome.status == 1
    assert re.findall("^[.E]?round (.)$", outcome.out, re.M) == ["1", "2", "3"]
    assert "iteration 3, third" in outcome.out


@pytest.mark.parametrize("word, last", [("-e", 3), ("--error", 3), ("-f", 2), ("--failure", 2)])
def test_run_can_stop_at_the_first_problem(driven, word, last):
    write_script(driven, "a_test.lua", "function test1() end function test2() lu.fail('f') end function test3() error('e') end function test4() end")
    write_script(driven, "b_test.lua", "function test5() end")

    outcome = drive(driven, word)

    assert summary(outcome).startswith(f"Ran {last} tests")
    assert outcome.out.endswith("LuaUnit ABORTED (as requested by --error or --failure option)\n")
    assert outcome.status == last - 1


@pytest.mark.parametrize(
    "words, line",
    [
        (("--bogus",), "Unknown option: --bogus"),
        (("-z",), "Unknown option: -z"),
        (("-o",), "Missing argument after -o"),
        (("-v", "-p"), "Missing argument after -p"),
        (("-o", "html"), "there is no output type 'html'"),
        (("-o", ""), "there is no output type ''"),
        (("-o", "junit"), "the output type 'junit' needs the name of a file: -n NAME"),
        (("-o", "junit", "-n", "no/such/folder/report"), "Could not open file for writing: no/such/folder/report.xml"),
        (("-r", "many"), "Malformed -r argument: many"),
        (("-r", "0"), "the number of repetitions must be a whole number from 1 on"),
        (("-r", "-1"), "the number of repetitions must be a whole number from 1 on"),
        (("-r", "1.5"), "the number of repetitions must be a whole number from 1 on"),
        (("-r", "1e999"), "the number of repetitions must be a whole number from 1 on"),
        (("TestNone",), "no test is named 'TestNone'"),
        (("TestA.testNone",), "no test is named 'TestA.testNone'"),
        (("testAlone.x",), "no test is named 'testAlone.x'"),
        (("print",), "no test is named 'print'"),
        (("TestA", "TestNone", "TestNeither"), "no test is named 'TestNone'"),
        (("",), "no test is named ''"),
        (("-p", "[a"), "malformed pattern (missing ']')"),
        (("--bo\ngus\x1b",), "Unknown option: --bo\\ngus\\x1b"),
    ],
    ids=range(21),
)
def test_wrong_words_are_one_line_and_status_1(driven, words, line):
    assert complaint(drive_script(driven, FOUR.replace("end", "print('ran') end", 1), *words)) == line


def test_wrong_output_type_of_the_environment(driven):
    assert complaint(drive_script(driven, PASSES, env={"LUAUNIT_OUTPUT": "html"})) == "there is no output type 'html'"


def test_name_that_a_broken_script_may_have_leads_to_the_broken_script(driven):
    write_script(driven, "a_test.lua", "local = 5")
    write_script(driven, "b_test.lua", PASSES)

    outcome = drive(driven, "TestBroken")

    assert outcome.status == 1
    assert summary(outcome) == "Ran 1 tests, 0 successes, 1 error"


@pytest.mark.parametrize(
    "words, shown",
    [(("-h",), "Usage: kx_agent -u SCRIPTS -- [options] [testname1"), (("--help", "-v"), "  -p, --pattern PATTERN:"), (("--version",), "LuaUnit 3.")],
)
def test_answers_are_printed_and_the_run_goes_on(driven, words, shown):
    outcome = drive_script(driven, "print('chunk')", *words)

    assert (outcome.status, outcome.err) == (0, "")
    assert shown in outcome.out
    assert outcome.out.endswith("shutdown\n") and "chunk" not in outcome.out


# Reports


def test_verbose_text_names_every_test(driven):
    outcome = drive_script(driven, "function testA() end function testB() error('e') end function testC() lu.skip('s') end function testD() lu.fail('f') end", "-v")

    assert re.match(
        "Started on .*\n    testA ... Ok\n    testB ... ERROR\nt/one_test.lua:1: e\n    testC ... SKIP\ns\n    testD ... FAIL\nt/one_test.lua:1: f\n=+\n",
        outcome.out,
    ), outcome
    assert outcome.status == 2


def test_no_output_still_has_a_status(driven):
    outcome = drive_script(driven, "function testA() lu.fail('f') end", "-o", "nil")

    assert (outcome.status, outcome.out) == (1, "")


def test_output_type_of_the_environment(driven):
    outcome = drive_script(driven, PASSES, env={"LUAUNIT_OUTPUT": "TAP"})

    assert tap(outcome) == {"testPasses": "ok"}


AWKWARD = {
    "markup": "<b>\"x\"</b> & 'y' ]]>",
    "control": "\\0\\1\\27[31m\\11\\31\\127 tab\\tcr\\rlf\\nend",
    "not utf-8": "caf\\xE9 \\xED\\xA0\\x80 \\xEF\\xBF\\xBF",
    "utf-8": "\u00fcber \u4f60\u597d \U0001f600",
    "per cent": "100%s %d %1 %",
}


@pytest.mark.parametrize("name", ["report", "report.xml"])
def test_junit_report_is_xml_whatever_is_in_names_and_messages(driven, name):
    suite = "TestA = {} "
    for text in AWKWARD.values():
        literal = text.replace('"', '\\"')
        suite += f'TestA["testFails {literal}"] = function() lu.fail("{literal}") end '
        suite += f'TestA["testErr {literal}"] = function() error("{literal}") end '
        # LuaUnit takes this text as a format.
        suite += f'TestA["testSkips {literal}"] = function() lu.skip("{literal.replace("%", "%%")}") end '
        suite += f'TestA["testOk {literal}"] = function() end '
    write_script(driven, "a_test.lua", suite)
    write_script(driven, "b<&\"\udcff\n_test.lua", "TestA = { testClash = function() end }")
    write_script(driven, "c<&\"\udcff\n_test.lua", "error('<chunk>&')")

    outcome = drive(driven, "-o", "junit", "-n", name)

    report = ElementTree.parse(driven.root / "report.xml").getroot()
    cases = report.findall("testsuite/testcase")
    assert outcome.status == 11
    assert len(cases) == 4 * len(AWKWARD) + 2
    assert (len(report.findall(".//failure")), len(report.findall(".//error")), len(report.findall(".//skipped"))) == (5, 6, 5)
    assert report.find("testsuite").attrib["tests"] == "17"
    names = {case.attrib["name"] for case in cases}
    assert "t/a_test.lua:TestA.testOk <b>\"x\"</b> & 'y' ]]>" in names
    assert "t/a_test.lua:TestA.testOk caf\\xe9 \\xed\\xa0\\x80 \\xef\\xbf\\xbf" in names
    assert "t/a_test.lua:TestA.testOk \u00fcber \u4f60\u597d \U0001f600" in names
    assert 't/b<&"\\xff\\n_test.lua:TestA.testClash' in names
    assert 't/c<&"\\xff\\n_test.lua' in names


def test_output_keeps_its_order_into_a_pipe(driven):
    outcome = drive_script(
        driven,
        "print('chunk') function test1() print('one') io.write('two\\n') io.stdout:write('three\\n') os.execute('echo four') end function test2() io.write('five\\n') end",
        "-o", "tap",
    )

    lines = [line for line in outcome.out.split("\n") if not line.startswith("#")]
    assert lines == ["chunk", "1..2", "one", "two", "three", "four", "ok     1\ttest1", "five", "ok     2\ttest2", "shutdown", ""]


def test_what_is_known_is_told_when_a_test_ends_the_process(driven):
    outcome = drive_script(driven, "function test1() end function test2() local signal = require('posix.signal') signal.kill(require('posix.unistd').getpid(), signal.SIGKILL) end", "-o", "tap")

    assert outcome.status == -signal.SIGKILL
    assert "ok     1\ttest1\n" in outcome.out


# Colours

MIXED = "function testA() end function testB() error('e') end function testC() lu.skip('s') end function testD() lu.fail('f') end"


def shown_on_terminal(installation, *words, **env):
    _, shown = installation.run_on_terminal("-u", "t/*", "--", *words, env={"TERM": "xterm", **env})
    return timeless(shown.replace("\r\n", "\n"))


@pytest.mark.parametrize("words", [(), ("-v",)])
def test_report_on_a_terminal_is_coloured_and_the_same_text(driven, words):
    write_script(driven, "one_test.lua", MIXED)
    plain = timeless(drive(driven, *words).out)
    assert "\x1b" not in plain

    shown = shown_on_terminal(driven, *words)

    started = re.compile("^Started on .*$", re.M)
    assert started.sub("", ESCAPES.sub("", shown)) == started.sub("", plain) + "\n"  # the host's line on standard error
    assert "1) \x1b[1mtestB\x1b[0m\n\x1b[31mt/one_test.lua:1: e\x1b[0m\n" in shown
    assert "\x1b[31mRan 3 tests in T seconds, 1 success, 1 failure, 1 error, 1 skipped\x1b[0m\n" in shown
    assert "\x1b[31mERROR\x1b[0m\n" in shown if words else "\x1b[32m.\x1b[0m\x1b[31mE\x1b[0m\x1b[33mS\x1b[0m\x1b[31mF\x1b[0m\n" in shown


def test_success_on_a_terminal_is_green(driven):
    write_script(driven, "one_test.lua", PASSES)

    assert "\x1b[32mRan 1 tests in T seconds, 1 success, 0 failures\x1b[0m\n\x1b[32mOK\x1b[0m\n" in shown_on_terminal(driven)
    assert "    \x1b[1mtestPasses\x1b[0m ... \x1b[32mOk\x1b[0m\n" in shown_on_terminal(driven, "-v")


@pytest.mark.parametrize("words, env, coloured", [((), {"NO_COLOR": "1"}, False), ((), {"NO_COLOR": ""}, True), ((), {"TERM": "dumb"}, False), (("-o", "tap"), {}, False)])
def test_colours_are_for_who_wants_and_can_show_them(driven, words, env, coloured):
    write_script(driven, "one_test.lua", MIXED)

    assert ("\x1b" in shown_on_terminal(driven, *words, **env)) == coloured


def test_terminal_on_standard_error_alone_brings_no_colours(driven):
    write_script(driven, "one_test.lua", MIXED)

    _, shown = driven.run_on_terminal("-u", "t/*", env={"TERM": "xterm"}, wrapper=through_shell('"$@" >report'))

    assert "\x1b" not in shown
    assert "Ran 3 tests" in (driven.root / "report").read_text() and "\x1b" not in (driven.root / "report").read_text()


# What scripts share


def test_script_gets_the_luaunit_of_the_driver(driven):
    write_script(driven, "a_test.lua", "shared = lu function testA() lu.assertIs(require('luaunit'), lu) end")
    write_script(driven, "b_test.lua", "function testB() lu.assertIs(lu, shared) lu.assertIs(lu, require('tests.velunit.framework')) end")

    assert drive(driven).status == 0


def test_host_needs_no_luaunit(driven):
    write_script(driven, "a_test.lua", PASSES)
    folder = driven.root / "modules"

    outcome = drive(
        driven,
        wrapper=in_private_mounts(
            f"cp -RP /usr/share/lua/5.2 {folder} && rm {folder}/luaunit.lua && mount --bind {folder} /usr/share/lua/5.2 && "
            f"test ! -e /usr/share/lua/5.2/luaunit.lua && exec \"$@\""
        ),
    )

    assert outcome.status == 0, outcome


def test_each_script_has_its_own_domain_and_words(driven):
    for script in "ab":
        write_script(
            driven,
            f"{script}_test.lua",
            "assert(type(dom) == 'userdata' and arg[1] == '-q' and type(print) == 'function', 'not as the host left it') "
            f"dom, arg, helper, print = '{script}', {{ '{script}' }}, function() return '{script}' end, false "
            f"function test_{script}() lu.assertEquals({{ dom, arg[1], helper(), print }}, {{ '{script}', '{script}', '{script}', false }}) dom = 5 end ",
        )
    driven.write_app(shutdown="print('shutdown', type(dom), arg[1], velunit ~= nil)")

    outcome = drive(driven, "-q")

    assert outcome.status == 0, outcome
    assert outcome.out.endswith("shutdown\tuserdata\t-q\ttrue\n")


def test_functions_of_the_libraries_are_put_back(driven):
    write_script(driven, "a_test.lua", "os.time = function() return 5 end function testA() lu.assertEquals(os.time(), 5) string.rep, table.insert = nil, 7 end")
    write_script(driven, "b_test.lua", "assert(os.time() ~= 5) function testB() table.insert({}, ('x'):rep(3)) assert(os.time() ~= 5) end")
    write_script(driven, "c_test.lua", "function testC() lu.assertErrorMsgContains('os.exit(0) was called', os.exit, 0) end")
    driven.write_app(shutdown="print(('x'):rep(3), os.time() > 5) os.exit(7)")

    outcome = drive(driven)

    assert outcome.status == 7, outcome
    assert outcome.out.endswith("OK\nxxx\ttrue\n")


def test_working_folder_and_default_output_are_put_back(driven):
    chdir = "local unistd = require('posix.unistd') "
    write_script(driven, "a_test.lua", chdir + "unistd.chdir('/') function testA() lu.assertEquals(unistd.getcwd(), '/') unistd.chdir('/usr') end")
    write_script(
        driven,
        "b_test.lua",
        chdir + f"function testB() lu.assertEquals(unistd.getcwd(), '{driven.root}') unistd.chdir('/') io.output('{driven.root}/taken') io.write('taken') end "
        "function testC() io.close() end",
    )
    write_script(driven, "c_test.lua", "function testD() io.write('shown\\n') end")
    driven.write_app(shutdown="io.write(require('posix.unistd').getcwd(), '\\n')")

    outcome = drive(driven, "-o", "junit", "-n", "report")

    assert outcome.status == 0, outcome
    assert "shown\n" in outcome.out and outcome.out.endswith(f"{driven.root}\n")
    assert (driven.root / "taken").read_text() == "taken"
    assert (driven.root / "report.xml").exists()


VANDALS = {
    "globals": "local everything = _G for name in pairs(everything) do everything[name] = nil end",
    "print": "print = function() error('mine') end",
    "libraries": "for _, library in ipairs({ io, os, table, math, debug, coroutine }) do for name in pairs(library) do library[name] = nil end end",
    "clock": "os.time, os.clock, os.date = nil, function() return 'x' end, error",
    "metatable of _G": "setmetatable(_G, { __index = error, __newindex = error })",
    "error": "error({})",
    "os.exit": "os.exit(0)",
    "os.exit caught": "assert(not pcall(os.exit, 0)) error('x')",
    "os.exit in a coroutine": "coroutine.wrap(function() os.exit(0) end)()",
    "os.exit as a coroutine": "coroutine.wrap(os.exit)(0)",
    "os.exit kept": "exit(0)",
    "os.exit with close": "os.exit(true, true)",
    "standard output": "io.stdout:close() io.output():close()",
    "unregister": "lu.unregisterCurrentSuite() os.exit(0)",
    "modules": "for name in pairs(package.loaded) do package.loaded[name] = nil end",
    "LuaUnit's exit": "lu.LuaUnit.new():runSuite('--bogus')",
}
SURVIVES = {"globals", "print", "libraries", "clock", "metatable of _G", "standard output", "modules"}


@pytest.mark.parametrize("what", VANDALS)
@pytest.mark.parametrize("words", [(), ("-v",), ("-o", "tap", "-v"), ("-o", "junit", "-n", "report")], ids=["text", "verbose", "tap", "junit"])
def test_test_cannot_change_the_result_of_the_others(driven, what, words):
    write_script(driven, "a_test.lua", f"exit = os.exit TestA = {{}} function TestA.testA() {VANDALS[what]} end function TestA.testB() lu.fail('seen \\xC3\\xBC \\255') end")
    write_script(driven, "b_test.lua", "function testC() print('still printing') end")

    outcome = drive(driven, *words)

    wanted = "2 successes, 1 failure" if what in SURVIVES else "1 success, 1 failure, 1 error"
    assert summary(outcome) == f"Ran 3 tests, {wanted}", outcome
    assert outcome.status == (1 if what in SURVIVES else 2)
    assert "still printing\n" in outcome.out
    if what in ("os.exit", "os.exit with close", "unregister", "os.exit kept"):
        assert re.search(r"^(?:# +(?:Error: +)?)?t/a_test\.lua:1: os\.exit\((0|true)\) was called$", outcome.out, re.M), outcome


@pytest.mark.address_space
def test_test_that_runs_out_of_memory_is_an_error(driven):
    outcome = drive_script(
        driven,
        "function testA() local kept = {} for i = 1, 100 do kept[i] = ('x'):rep(2^26) .. i end end function testB() lu.fail('seen') end",
        wrapper=through_shell('ulimit -v 2000000; exec "$@"'),
    )

    assert summary(outcome) == "Ran 2 tests, 0 successes, 1 failure, 1 error", outcome
    assert "not enough memory" in outcome.out


@pytest.mark.parametrize(
    "child, told",
    [
        ("os.exit(3)", "3"),
        ("os.exit()", "0"),
        ("unistd._exit(4)", "4"),
        ("return", "0"),
        ("error('child')", "1"),
    ],
)
def test_forked_child_does_not_go_on_with_the_run(driven, child, told):
    outcome = drive_script(
        driven,
        "local unistd, wait = require('posix.unistd'), require('posix.sys.wait') "
        f"function testA() local child = unistd.fork() if child == 0 then {child} end print('status', select(3, wait.wait(child))) end "
        "function testB() print('once') end",
    )

    assert outcome.status == 0
    assert f"status\t{told}\n" in outcome.out
    assert outcome.out.count("once") == 1 and outcome.out.count("shutdown") == 1
    assert outcome.err == ("velunit: error in a forked child: t/one_test.lua:1: child\n" if "error" in child else "")


def test_test_may_run_luaunit_itself(driven):
    outcome = drive_script(
        driven,
        "function testA() local inner = lu.LuaUnit.new() inner:setOutputType('nil') "
        "lu.assertEquals(inner:runSuiteByInstances({ { 'x', { testX = function() lu.fail('inner') end, testY = function() end } } }), 1) end",
    )

    assert outcome.status == 0, outcome


# Functions around tests

AROUND = """
    local function note(text) return function() print(text) end end
    setupSuite, teardownSuite = note('setupSuite NAME'), note('teardownSuite NAME')
    TestNAME = { setupClass = note('setupClass NAME'), teardownClass = note('teardownClass NAME'), setUp = note('setUp NAME'), tearDown = note('tearDown NAME'),
      testOne = note('one NAME'), testTwo = note('two NAME') }
    TestSame = { setupClass = note('setupClass same NAME'), teardownClass = note('teardownClass same NAME'), testOne = note('same NAME') }
"""


def noted(outcome):
    return [line.lstrip(".EFS") for line in outcome.out.split("\n") if re.match(r"[.EFS]*(setup|teardown|setUp|tearDown|one|two|same|ran)", line)]


def test_functions_around_tests_are_called_script_by_script(driven):
    for script in ("A", "B"):
        write_script(driven, f"{script}_test.lua", AROUND.replace("NAME", script))

    outcome = drive(driven)

    wanted = []
    for script in ("A", "B"):
        test = [f"setUp {script}", "{}", f"tearDown {script}"]
        wanted += [f"setupSuite {script}"]
        classes = {
            f"Test{script}": [f"setupClass {script}", *test[:1], f"one {script}", *test[2:], *test[:1], f"two {script}", *test[2:], f"teardownClass {script}"],
            "TestSame": [f"setupClass same {script}", f"same {script}", f"teardownClass same {script}"],
        }
        for name in sorted(classes):
            wanted += classes[name]
        wanted += [f"teardownSuite {script}"]
    assert noted(outcome) == wanted
    assert outcome.status == 0


@pytest.mark.parametrize(
    "place, errors, ran",
    [
        ("TestA.setupClass", ["TestA.testOne", "TestA.testTwo"], ["ran B", "ran c"]),
        ("setupSuite", ["TestA.testOne", "TestA.testTwo", "TestB.testOne"], ["ran c"]),
        ("TestA.teardownClass", ["TestA.teardownClass"], ["ran one", "ran two", "ran B", "ran c"]),
        ("teardownSuite", ["t/a_test.lua:teardownSuite"], ["ran one", "ran two", "ran B", "ran c"]),
        ("TestA.setUp", ["TestA.testOne", "TestA.testTwo"], ["ran B", "ran c"]),
        ("TestA.tearDown", ["TestA.testOne", "TestA.testTwo"], ["ran one", "ran two", "ran B", "ran c"]),
    ],
)
@pytest.mark.parametrize("words", [(), ("-r", "2")], ids=["once", "twice"])
def test_failing_function_around_tests_is_reported(driven, place, errors, ran, words):
    write_script(
        driven,
        "a_test.lua",
        "TestA = { testOne = function() print('ran one') end, testTwo = function() print('ran two') end } TestB = { testOne = function() print('ran B') end } "
        f"{place} = function() error('around') end",
    )
    write_script(driven, "c_test.lua", "function testC() print('ran c') end")

    outcome = drive(driven, *words)

    assert outcome.status == len(errors)
    assert re.findall(r"^\d+\) (.*)$", outcome.out, re.M) == errors
    assert outcome.out.count(": around\n") + outcome.out.count(": iteration 1, around\n") == len(errors)
    assert sorted(set(noted(outcome))) == sorted(ran)


@pytest.mark.parametrize("place", ["TestA.setupClass", "setupSuite"])
def test_what_was_not_set_up_is_not_torn_down(driven, place):
    outcome = drive_script(
        driven,
        "TestA = { testOne = function() end, teardownClass = function() print('torn down') end } "
        f"function teardownSuite() print('{'torn down' if place == 'setupSuite' else ''}') end {place} = error",
    )

    assert outcome.status == 1
    assert "torn down" not in outcome.out


def test_class_that_skips_skips_its_tests(driven):
    outcome = drive_script(driven, "TestA = { setupClass = function() lu.skip('no') end, testOne = error, testTwo = error } function testB() end")

    assert outcome.status == 0
    assert summary(outcome) == "Ran 1 tests, 1 success, 0 failures, 2 skipped"

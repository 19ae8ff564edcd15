"""The order of a run: interactive, and under a test driver; and what the trace tells of it."""

import pytest

PRINTING = {each: f"print('{each}')" for each in ("init", "main", "shutdown")}


def write_driver(installation, body="", module=None):
    """A test driver whose function has the given body, or the driver as a whole."""
    installation.write_module("tests.velunit", f"return function(...) {body} end" if module is None else module)


def steps(installation):
    """What the trace tells of the runner."""
    return [text for text in installation.traces() if text.startswith(("Running ", "Chunk produced "))]


def ran(chunk, result):
    return [f"Running chunk '{chunk}'", f"Chunk produced a return value of {result}"]


def method(installation, name, result):
    return [f"Running app's Lua method '{name}'", *ran(installation.name, result)]


# Interactive


@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
def test_phases_in_order(installation, name):
    installation.name = name or installation.name
    installation.write_app(top="print('load')", **PRINTING)

    outcome = installation.run()

    assert (outcome.status, outcome.out.split(), outcome.err) == (0, ["load", "init", "main", "shutdown"], "")


@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
@pytest.mark.parametrize("words", [("-t", "Appl"), ("--trace", "'Appl'"), ("-t", "Other,Appl"), ("-t", "*"), ("-t", "\"Appl,Other\"")])
def test_trace_of_a_whole_run(installation, name, words):
    installation.name = name or installation.name
    installation.write_app(**PRINTING)

    assert installation.run(*words).status == 0

    assert steps(installation) == [
        *ran(installation.name, 0),
        *method(installation, "init", 0),
        *method(installation, "main", 0),
        *method(installation, "shutdown", 0),
    ]


@pytest.mark.parametrize("words", [(), ("-t", "Other"), ("-t", "appl"), ("-t", "App"), ("-t", "Appl2"), ("-t", "")])
def test_no_trace_of_other_modules(installation, words):
    installation.write_app(**PRINTING)

    assert installation.run(*words).status == 0

    assert steps(installation) == []


@pytest.mark.parametrize("phase, value, status", [("init", 3, 3), ("main", 3, 3), ("main", -1, -1), ("shutdown", 4, 4)])
def test_trace_ends_at_the_first_failure(installation, phase, value, status):
    phases = list(PRINTING)
    installation.write_app(**{**PRINTING, phase: f"return {value}"})

    assert installation.run("-t", "Appl").status == status & 255

    wanted = ran(installation.name, 0)
    for each in phases[: phases.index(phase)]:
        wanted += method(installation, each, 0)
    assert steps(installation) == wanted + method(installation, phase, status)


def test_trace_of_an_error(installation):
    installation.write_app(main="error('x')")

    installation.run("-t", "Appl")

    assert steps(installation)[-3:] == method(installation, "main", 2)


def test_trace_of_a_module_that_does_not_load(installation):
    installation.run("-t", "Appl")

    assert steps(installation) == ran(installation.name, 2)


def test_trace_comes_behind_the_search_path(installation):
    installation.write_app()

    installation.run("-t", "Appl")

    traces = installation.traces()
    assert [text.startswith("app.lua.zippath") for text in traces].index(True) < traces.index(f"Running chunk '{installation.name}'")


def test_banner_is_the_main_agents(installation):
    installation.write_app()
    installation.run()
    assert not any("starting" in text for text in installation.log_lines())

    installation.name = "kx_agent"
    installation.write_app()
    installation.run()
    assert [text for text in installation.log_lines("Verbose") if "VEL" in text] == ["VEL 11.0.0.2580 starting."]


# Under a test driver


@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
def test_driver_runs_in_place_of_main(installation, name):
    installation.name = name or installation.name
    installation.write_app(**PRINTING)
    write_driver(installation, "print('driver', ...) return 0")

    outcome = installation.run("-u", "tests/*.lua", "-t", "Appl")

    assert (outcome.status, outcome.out, outcome.err) == (0, "init\ndriver\ttests/*.lua\nshutdown\n", "")
    assert steps(installation) == [
        *ran(installation.name, 0),
        *method(installation, "init", 0),
        *ran("tests.velunit", 0),
        *method(installation, "shutdown", 0),
    ]


@pytest.mark.parametrize(
    "specification, received",
    [
        ("tests/*.lua", "tests/*.lua"),
        ("*", "*"),
        ("?", "?"),
        ("with blank *", "with blank *"),
        ("$HOME/*.lua", "$HOME/*.lua"),
        ("~/*.lua", "~/*.lua"),
        ("a;b;*", "a;b;*"),
        ("gr\u00fc\u00dfe*", "gr\u00fc\u00dfe*"),
        ("100%s%d%n*", "100%s%d%n*"),
        ("[[*]]", "[[*]]"),
        ("'*'", "'*'"),
        ("--*", "--*"),
        ("*" * 5000, "*" * 5000),
        # The specification stands in the text of a chunk as it is: it is read as Lua.
        ("\\65*", "A*"),
        ("a\\tb*", "a\tb*"),
        ("\\\\*", "\\*"),
        ("*\", \"second", "*\tsecond"),
        ("*\" .. 1 + 1 .. \"", "*2"),
    ],
    ids=range(18),
)
def test_specification_reaches_the_driver(installation, specification, received):
    installation.write_app()
    write_driver(installation, "print(...) return 0")

    outcome = installation.run(f"--unittest={specification}")

    assert (outcome.status, outcome.out, outcome.err) == (0, f"{received}\n", "")


@pytest.mark.parametrize("specification", ["*\"", "*\\", "*\n", "*\") oops(", "*\\z\\q"])
def test_specification_that_breaks_the_chunk(installation, specification):
    installation.write_app(**PRINTING)
    write_driver(installation, "print('driver') return 0")

    outcome = installation.run(f"--unittest={specification}")

    assert (outcome.status, outcome.out) == (1, "init\n")
    assert "tests.velunit:1:" in outcome.err, outcome.err


def test_existing_script_is_passed_as_written(installation):
    installation.write_app()
    write_driver(installation, "print(...) return 0")
    (installation.root / "one.lua").write_text("")

    assert installation.run("-u", "./../" + installation.root.name + "/one.lua", cwd=installation.root).out == f"./../{installation.root.name}/one.lua\n"


@pytest.mark.parametrize("body, status", [("return 2", 2), ("return 1", 1), ("return '5'", 5), ("return 125", 125), ("return -1", -1), ("return 256", 256)])
def test_failing_driver_ends_the_run(installation, body, status):
    installation.write_app(**PRINTING)
    write_driver(installation, body)

    outcome = installation.run("-u", "*.lua", "-t", "Appl")

    assert (outcome.status, outcome.out, outcome.err) == (status & 255, "init\n", "\n")
    assert steps(installation)[-2:] == ran("tests.velunit", status)


@pytest.mark.parametrize("body", ["", "return", "return nil", "return true", "return 0", "return {}", "return 'ok'", "return 0, 5"])
def test_driver_without_a_number_succeeded(installation, body):
    installation.write_app(**PRINTING)
    write_driver(installation, body)

    outcome = installation.run("-u", "*.lua")

    assert (outcome.status, outcome.out, outcome.err) == (0, "init\nshutdown\n", "")


@pytest.mark.parametrize(
    "module, message",
    [
        ("return function() error('driver failed') end", "driver failed"),
        ("error('cannot load')", "cannot load"),
        ("return 5", "attempt to call global 'velunit' (a number value)"),
        ("return {}", "attempt to call global 'velunit' (a table value)"),
        ("local = 5", "tests/velunit.lua:1:"),
        ("", "attempt to call global 'velunit' (a boolean value)"),
    ],
)
def test_broken_driver_is_told(installation, module, message):
    installation.write_app(**PRINTING)
    write_driver(installation, module=module)

    outcome = installation.run("-u", "*.lua")

    assert (outcome.status, outcome.out) == (2, "init\n")
    assert message in outcome.err, outcome.err
    assert len(installation.log_lines("Error")) == 1


def test_driver_may_be_any_callable(installation):
    installation.write_app(shutdown="print(type(velunit), velunit.mine)")
    write_driver(installation, module="return setmetatable({ mine = 'kept' }, { __call = function(_, spec) print(spec) return 0 end })")

    outcome = installation.run("-u", "a*")

    assert (outcome.status, outcome.out) == (0, "a*\ntable\tkept\n")


def test_driver_stays_in_its_global(installation):
    installation.write_app(init="print(velunit)", shutdown="print(type(velunit), velunit == require('tests.velunit'))")
    write_driver(installation, "return 0")

    assert installation.run("-u", "a*").out == "nil\nfunction\ttrue\n"


def test_failing_init_keeps_the_driver_from_running(installation):
    installation.write_app(init="return 3")
    write_driver(installation, "print('driver')")

    outcome = installation.run("-u", "a*")

    assert (outcome.status, outcome.out) == (3, "")


def test_status_of_shutdown_counts_after_the_driver(installation):
    installation.write_app(shutdown="return 9")
    write_driver(installation, "return 0")

    assert installation.run("-u", "a*").status == 9


def test_output_of_the_driver_is_there_before_shutdown(installation):
    own = "io.open('/proc/self/stat'):read('*n')"
    installation.write_app(shutdown=f"os.execute('kill -KILL ' .. {own})")
    write_driver(installation, "io.write('report ') io.stdout:write('without ') print('an') io.write('end') return 0")

    outcome = installation.run("-u", "a*")

    assert (outcome.status, outcome.out) == (-9, "report without an\nend")


@pytest.mark.parametrize("phase", ["init", "main", "shutdown"])
def test_no_alarm_without_a_driver(installation, phase):
    installation.write_app(**{phase: "print(require('posix.unistd').alarm(0))"})

    assert installation.run().out == "0\n"


def test_alarm_of_six_hundred_seconds_for_the_driver(installation):
    installation.write_app(init="print('init', require('posix.unistd').alarm(0))")
    write_driver(installation, "print('driver', require('posix.unistd').alarm(0)) return 0")

    init, driver = installation.run("-u", "a*").out.split("\n")[:2]

    assert init == "init\t0"
    name, seconds = driver.split("\t")
    assert 540 <= int(seconds) <= 600


def test_alarm_is_not_taken_back(installation):
    installation.write_app(shutdown="print(require('posix.unistd').alarm(0) > 0)")
    write_driver(installation, "return 0")

    assert installation.run("-u", "a*").out == "true\n"


def test_alarm_does_not_end_the_driver(installation):
    installation.write_app(shutdown="print('shutdown')")
    write_driver(installation, """
        local before = os.time()
        require('posix.unistd').alarm(1)
        while os.time() < before + 3 do end
        print('driver goes on') return 0""")

    outcome = installation.run("-u", "a*")

    assert (outcome.status, outcome.out) == (0, "driver goes on\nshutdown\n")


# The mode as the application sees it

SHOW_MODE = "print('main', dom:Get('app.mode.unittest'), dom:Get('app.background'))"


@pytest.mark.parametrize(
    "words, out, err",
    [
        ((), "main\tnil\tnil\n", ""),
        (("-U",), "main\ttrue\tnil\n", ""),
        (("--test",), "main\ttrue\tnil\n", ""),
        (("-u", "missing.lua"), "main\tnil\tnil\n", "missing.lua: not found"),
        (("-u", "missing.lua", "-U"), "main\ttrue\tnil\n", "missing.lua: not found"),
        (("-u", ""), "main\tnil\tnil\n", ": not found"),
        (("-u", "bin"), "main\tnil\tnil\n", "bin: not found"),
        (("-u", "missing*.lua"), "driver\ttrue\n", ""),
        (("-u", "missing?.lua", "-U"), "driver\ttrue\n", ""),
        (("-u", "there.lua"), "driver\ttrue\n", ""),
    ],
    ids=range(10),
)
def test_mode_of_the_options(installation, words, out, err):
    installation.write_app(main=SHOW_MODE)
    write_driver(installation, "print('driver', dom:Get('app.mode.unittest')) return 0")
    (installation.root / "there.lua").write_text("")

    outcome = installation.run(*words, cwd=installation.root)

    assert (outcome.status, outcome.out, outcome.err) == (0, out, err)


def test_mode_is_a_boolean(installation):
    installation.write_app(main="print(dom:Get('app.mode.unittest') == true)")

    assert installation.run("-U").out == "true\n"

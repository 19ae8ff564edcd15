"""What an application's functions return, and the status that the process ends with."""

import pytest

from agentbox import LONG_LOOP

# A long loop is cut in so many scenarios, which may run side by side.
CHUNKS = 8
RUNS = max(1, LONG_LOOP // CHUNKS)

# What a function returns, its status cut to 32 bits, and the low byte of it that a process ends with.
RETURNED = [
    ("return 0", 0),
    ("return", 0),
    ("", 0),
    ("return nil", 0),
    ("return nil, 5", 0),
    ("return 0, 5", 0),
    ("return true", 0),
    ("return false", 0),
    ("return {}", 0),
    ("return print", 0),
    ("return io.stdout", 0),
    ("return coroutine.create(print)", 0),
    ("return setmetatable({}, {__tostring = function() return '5' end})", 0),
    ("return ''", 0),
    ("return 'five'", 0),
    ("return '5 apples'", 0),
    ("return 0.5", 0),
    ("return -0.5", 0),
    ("return 0/0", 0),
    ("return -(0/0)", 0),
    ("return 1/0", 0),
    ("return -1/0", 0),
    ("return 1e300", 0),
    ("return -1e300", 0),
    ("return 2^32", 0),
    ("return 2^33", 0),
    ("return -2^32", 0),
    ("return 1", 1),
    ("return 3", 3),
    ("return 7, 8", 7),
    ("return 255", 255),
    ("return 256", 256),
    ("return 259", 259),
    ("return 3.7", 3),
    ("return -3.7", -3),
    ("return -1", -1),
    ("return -256", -256),
    ("return 2^31 - 1", 2147483647),
    ("return 2^31", -2147483648),
    ("return -2^31", -2147483648),
    ("return 2^32 + 5", 5),
    ("return 2^32 - 1", -1),
    ("return 2^40 + 2^16", 65536),
    ("return '5'", 5),
    ("return ' 0x10 '", 16),
    ("return '\\n7\\t'", 7),
    ("return '-1'", -1),
    ("return '2.9'", 2),
    ("return '1e2'", 100),
]


@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
@pytest.mark.parametrize("phase", ["init", "main", "shutdown"])
@pytest.mark.parametrize("body, status", RETURNED, ids=[body or "nothing" for body, _ in RETURNED])
def test_status_of_a_function(installation, name, phase, body, status):
    installation.name = name or installation.name
    bodies = {each: f"print('{each}')" for each in ("init", "main", "shutdown")}
    bodies[phase] = f"print('{phase}') do {body} end"
    installation.write_app(**bodies)

    outcome = installation.run("-t", "Appl")

    reached = list(bodies) if status == 0 else list(bodies)[: list(bodies).index(phase) + 1]
    line = "" if status == 0 else "\n"  # no failure was recorded, so the line is empty
    assert (outcome.status, outcome.out.split(), outcome.err) == (status & 255, reached, line)
    results = [text for text in installation.traces() if text.startswith("Chunk produced")]
    wanted = [0] * len(reached) + [status]  # the first is that of loading the module
    assert results == [f"Chunk produced a return value of {each}" for each in wanted]


@pytest.mark.parametrize(
    "returned",
    [
        "{}",
        "{ init = 5, main = 'x', shutdown = {} }",
        "{ init = true, main = false }",
        "{ main = setmetatable({}, { __call = function() return 9 end }) }",
        "'a string'",
        "io.stdout",
        "setmetatable({}, { __index = function() return 7 end })",
        "setmetatable({}, { __index = {} })",
    ],
)
@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
def test_what_is_no_function_counts_as_success(installation, name, returned):
    installation.name = name or installation.name
    installation.write_module(installation.name, f"return {returned}")

    outcome = installation.run()

    assert (outcome.status, outcome.out, outcome.err) == (0, "", "")
    assert installation.log_lines("Error") == []


def test_functions_behind_an_index_are_called(installation):
    installation.write_module(
        installation.name, "return setmetatable({}, { __index = function(_, key) return function() print(key) end end })"
    )

    assert installation.run().out == "init\nmain\nshutdown\n"


@pytest.mark.parametrize("phase, others", [("init", ["main", "shutdown"]), ("main", ["init", "shutdown"]), ("shutdown", ["init", "main"])])
def test_one_missing_function(installation, phase, others):
    fields = ", ".join(f"{each} = function() print('{each}') end" for each in others)
    installation.write_module(installation.name, f"return {{ {fields} }}")

    outcome = installation.run()

    assert (outcome.status, outcome.out.split()) == (0, others)


def test_functions_get_no_arguments(installation):
    body = "function(...) print(select('#', ...)) end"
    installation.write_module(installation.name, f"return {{ init = {body}, main = {body}, shutdown = {body} }}")

    assert installation.run().out == "0\n0\n0\n"


@pytest.mark.parametrize("text", ["", "local x = 1", "return true", "return false", "return 5", "return nil", "return print"])
@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
def test_module_that_cannot_be_indexed(installation, name, text):
    installation.name = name or installation.name
    installation.write_module(installation.name, text)

    outcome = installation.run()

    assert (outcome.status, outcome.out) == (2, "")
    assert "attempt to index global 'velAppModule'" in outcome.err, outcome.err


@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
@pytest.mark.parametrize("phase", ["top", "init", "main", "shutdown"])
def test_error_in_a_phase(installation, name, phase):
    installation.name = name or installation.name
    bodies = {each: f"print('{each}')" for each in ("top", "init", "main", "shutdown")}
    bodies[phase] = "error('went wrong')"
    installation.write_app(**bodies)

    outcome = installation.run()

    reached = list(bodies)[: list(bodies).index(phase)]
    assert (outcome.status, outcome.out.split()) == (2, reached)
    assert "went wrong\nstack traceback:\n" in outcome.err, outcome.err
    assert len(installation.log_lines("Error")) == 1


@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
def test_syntax_error_in_the_module(installation, name):
    installation.name = name or installation.name
    path = installation.write_module(installation.name, "local a = 1\n\nlocal function = 5\n")

    outcome = installation.run()

    assert (outcome.status, outcome.out) == (2, "")
    assert f"error loading module '{installation.name}' from file '{path}'" in outcome.err, outcome.err
    assert f"{installation.name}.lua:3:" in outcome.err, outcome.err


@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
def test_missing_module(installation, name):
    installation.name = name or installation.name
    if name:
        (installation.bin / "vel_core" / f"{name}.kxe").unlink()

    outcome = installation.run()

    assert (outcome.status, outcome.out) == (2, "")
    assert f"module '{installation.name}' not found:\n" in outcome.err, outcome.err
    assert len(installation.log_lines("Error")) == 1


@pytest.mark.parametrize("name", ["a]]b", "]]", "x]] oops", "[x]"])
def test_name_that_breaks_the_snippet(installation, name):
    outcome = installation.run(name=name)

    # The text cannot be loaded, which is another failure than one while it runs.
    assert (outcome.status, outcome.out) == (1, ""), outcome
    assert len(outcome.err) > 1
    assert len(installation.log_lines("Error", name=name)) == 1


def test_name_is_put_into_the_snippet_as_it_is(installation):
    outcome = installation.run(name="string]]); print([[from the name")

    assert (outcome.status, outcome.out, outcome.err) == (0, "from the name\n", "")


@pytest.mark.parametrize("name", ["with blank", "gr\u00fc\u00dfe", "100%s%n", "quote'\"s", "-dash", "a,b;c", "$HOME", "[x", "x" * 100])
def test_odd_name_of_an_application(installation, name):
    installation.name = name
    installation.write_app(main="print(dom:Get('app.name'), arg[0]) return 4")

    outcome = installation.run()

    assert (outcome.status, outcome.out) == (4, f"{name}\t{name}\n")


def test_name_with_a_dot_is_a_module_in_a_folder(installation):
    installation.name = f"{installation.name}.part"
    installation.write_app(main="print('found') return 4")

    outcome = installation.run()

    assert (outcome.status, outcome.out) == (4, "found\n")


@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
def test_failure_line_of_a_status_is_empty_after_a_handled_error(installation, name):
    installation.name = name or installation.name
    installation.write_app(init="pcall(error, 'handled')", main="return 3", shutdown="print('shutdown')")

    outcome = installation.run()

    assert (outcome.status, outcome.out, outcome.err) == (3, "", "\n")


# The end of a process, over and over


def ends(installation, status, out="", runs=RUNS):
    for number in range(runs):
        outcome = installation.run()
        assert (outcome.status, outcome.out) == (status, out), (number, outcome, installation.log_text()[-2000:])


@pytest.mark.slow
@pytest.mark.parametrize("chunk", range(CHUNKS))
def test_status_of_an_application_always_arrives(installation, chunk):
    installation.write_app(main="return 7")

    ends(installation, 7)


@pytest.mark.slow
@pytest.mark.parametrize("chunk", range(CHUNKS))
def test_main_agent_without_work_always_ends(installation, chunk):
    installation.name = "kx_agent"
    installation.write_module(installation.name, "return {}")

    ends(installation, 0)


@pytest.mark.slow
@pytest.mark.parametrize("name", [None, "kx_agent"], ids=["other", "main"])
@pytest.mark.parametrize("chunk", range(CHUNKS))
def test_last_record_is_always_written_after_cryptography(installation, chunk, name):
    installation.name = name or installation.name
    installation.write_app(
        main="hash = require('openssl.digest').new('sha256'):final('x')",
        shutdown="io.write(#hash) dom:Log('message', 'the last record') return 5",
    )
    runs = max(1, RUNS // 2)

    ends(installation, 5, "32", runs)

    assert installation.log_lines("Message").count("the last record") == runs

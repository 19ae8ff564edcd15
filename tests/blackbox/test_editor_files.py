"""The files for authors' editors and linters say what the agent binds."""

import re
import subprocess
import zipfile
from dataclasses import dataclass

import pytest

from agentbox import stock_lua
from docpage import DOCS, REPOSITORY

STUB = REPOSITORY / "lua/editor/vel.lua"
LUACHECKRC = REPOSITORY / "lua/editor/luacheckrc.lua"

# What the stub says of types: a value of the type for a call, and what Lua calls the type of a result.
SAMPLES = {
    "any": "true",
    "integer": "7",
    "number": "0",
    "string": "'text'",
    "SLB.Dom.AgentEvent": "{ event_number = 7 }",
    "SLB.Dom.Level": "'message'",
    "SLB.Dom.Value|nil": "5",
}
RESULTS = {
    None: "nothing",
    "any": "boolean",
    "boolean": "boolean",
    "boolean,": "boolean",
    "integer": "number",
    "SLB.Runnable": "userdata",
    "string": "string",
    "string[]": "table",
}


@dataclass
class Name:
    """A parameter or a field."""

    name: str
    kind: str
    is_optional: bool


@dataclass
class Method:
    parameters: list
    result: str | None


@pytest.fixture(scope="module")
def paragraphs():
    return [paragraph.splitlines() for paragraph in STUB.read_text().strip().split("\n\n")]


def parse_name(line, annotation):
    match = re.fullmatch(rf"---@{annotation} (\w+|\.\.\.)(\??) (\S+)( .+)?", line)
    assert match, f"not a @{annotation}: {line}"
    return Name(match[1], match[3], match[2] == "?" or match[1] == "...")


def parse_method(lines):
    """A summary, a @param for each parameter in order, a @return if any, the head: nothing else."""
    summary, *annotations, head = lines
    assert re.fullmatch("---[A-Z].+[.]", summary), summary
    name, names = re.fullmatch(r"function \w+:(\w+)\(([\w, .]*)\) end", head).groups()
    result = None
    if annotations and annotations[-1].startswith("---@return "):
        result = annotations.pop().split(" ")[1]
    parameters = [parse_name(line, "param") for line in annotations]
    assert ", ".join(parameter.name for parameter in parameters) == names, head
    return name, Method(parameters, result)


def methods_of(paragraphs, table):
    return dict(parse_method(lines) for lines in paragraphs if lines[-1].startswith(f"function {table}:"))


@pytest.fixture(scope="module")
def methods(paragraphs):
    return methods_of(paragraphs, "Dom")


@pytest.fixture(scope="module")
def runnable_methods(paragraphs):
    return methods_of(paragraphs, "Runnable")


@pytest.fixture(scope="module")
def event_fields(paragraphs):
    [lines] = [lines for lines in paragraphs if lines[0] == "---@class SLB.Dom.AgentEvent"]
    return [parse_name(line, "field") for line in lines[1:]]


@pytest.fixture(scope="module")
def levels(paragraphs):
    [line] = [line for lines in paragraphs for line in lines if line.startswith("---@alias SLB.Dom.Level ")]
    return re.findall('"(.*?)"', line)


def call(installation, expressions):
    """What each call gives: the type of its result, or "nothing", or the message of its error."""
    calls = ", ".join(f"function() return {expression} end" for expression in expressions)
    main = f"""
        local function say(succeeded, ...)
          print(succeeded and (select('#', ...) == 0 and 'nothing' or type((...))) or (...))
        end
        for _, call in ipairs({{ {calls} }}) do say(pcall(call)) end"""
    installation.write_app(main=main)
    outcome = installation.run()
    assert outcome.status == 0, outcome
    return outcome.out.splitlines()


def refused(name, position):
    return re.compile(rf".*: bad argument #{position} to '{name}' \(.+\)")


def assert_all_match(expressions, wanted, given):
    assert len(wanted) == len(given) > 0
    assert [case for case in zip(expressions, wanted, given) if not re.fullmatch(case[1], case[2])] == []


# The stub


def test_stub_is_lua_that_only_editors_load():
    assert STUB.read_text().startswith("---@meta\n")
    subprocess.run(["luac5.2", "-p", STUB], check=True)


def test_stub_has_every_method(installation, methods):
    installation.write_app(main="for name in pairs(getmetatable(dom).__index) do print(name) end")

    assert sorted(methods) == sorted(installation.run().out.split())


def test_stub_has_every_method_of_a_runnable(installation, runnable_methods):
    installation.write_app(main=f"for name in pairs(getmetatable({RUNNABLE}).__index) do print(name) end")

    assert sorted(runnable_methods) == sorted(installation.run().out.split())


def signatures(object_name):
    """What DOMAIN.md says of an object's methods: (name, text behind the name)."""
    return re.findall(rf"^\| `{object_name}:(\w+)([({{].*?[)}}])`", (DOCS / "DOMAIN.md").read_text(), re.M)


def parameters_in(signature):
    required, *optional = signature.split("[")
    words = [(word, word == "...") for word in re.findall(r"\w+|\.\.\.", required)]
    return words + [(word, True) for part in optional for word in re.findall(r"\w+", part)]


def test_stub_has_the_parameters_of_the_domain_page(methods, runnable_methods, event_fields):
    for object_name, described in (("dom", methods), ("runnable", runnable_methods)):
        listed = signatures(object_name)
        assert len(listed) == len(described)
        for name, signature in listed:
            if signature.startswith("{"):
                assert [field.name for field in event_fields] == re.findall(r"(\w+)=", signature)
                continue
            assert parameters_in(signature) == [(each.name, each.is_optional) for each in described[name].parameters]


def good_calls(object_name, methods):
    """Calls with and without the optional arguments, and what they give."""
    for name, method in methods.items():
        samples = [SAMPLES[parameter.kind] for parameter in method.parameters]
        needed = sum(not parameter.is_optional for parameter in method.parameters)
        for count in range(needed, len(samples) + 1):
            yield f"{object_name}:{name}({', '.join(samples[:count])})", "nil" if method.result == "any" and count == needed else RESULTS[method.result]


def bad_calls(object_name, methods):
    """Calls with a wrong argument or without one that is needed, and how they are refused."""
    for name, method in methods.items():
        before = []
        for position, parameter in enumerate(method.parameters, 1):
            if parameter.kind != "any":
                yield f"{object_name}:{name}({', '.join([*before, 'print'])})", refused(name, position)
            if not parameter.is_optional:
                yield f"{object_name}:{name}({', '.join(before)})", refused(name, position)
            before.append(SAMPLES[parameter.kind])


# A runnable that ends at once, as there is no such module.
RUNNABLE = "dom:StartRunnable('none')"


@pytest.mark.parametrize("calls", [good_calls, bad_calls])
def test_methods_take_what_the_stub_says_and_refuse_everything_else(installation, methods, runnable_methods, calls):
    cases = [*calls("dom", methods), *calls(RUNNABLE, runnable_methods)]
    expressions, wanted = zip(*cases)

    assert_all_match(expressions, wanted, call(installation, expressions))


def test_events_take_the_fields_that_the_stub_describes(installation, event_fields):
    complete = {field.name: SAMPLES[field.kind] for field in event_fields}
    changes = [(field, "nil", field.is_optional) for field in event_fields] + [(field, "print", False) for field in event_fields]
    expressions, wanted = [], []
    for field, value, is_allowed in changes:
        values = {**complete, field.name: value}
        expressions.append(f"dom:AgentEventWrite{{ {', '.join(f'{key} = {text}' for key, text in values.items())} }}")
        wanted.append("nothing" if is_allowed else rf".*bad argument #1 to 'AgentEventWrite' \(field '{field.name}': .*")

    assert_all_match(expressions, wanted, call(installation, expressions))


def test_stub_has_every_level(installation, levels):
    given = call(installation, [f"dom:Log('{level}', 'text')" for level in levels])

    assert given == ["nothing"] * len(levels)
    page = (DOCS / "DOMAIN.md").read_text()
    [listed] = re.findall(r"^\| `dom:Log\(level, text\)` \|(.*)\|$", page, re.M)
    assert levels == re.findall('"(.*?)"', listed)


# The globals


@pytest.fixture
def host_globals(installation):
    """The globals that the agent adds to Lua's, when tests run."""
    listing = "for name in pairs(_G) do print(name) end"
    installation.write_app()
    installation.write_module("tests.velunit", f"return function() {listing} return 0 end")
    script = installation.root / "script.lua"
    script.touch()
    outcome = installation.run("-u", script)
    assert outcome.status == 0, outcome
    return sorted(set(outcome.out.split()) - (set(stock_lua(listing).out.split()) - {"arg"}))


def test_stub_has_every_global_with_its_type(paragraphs, host_globals):
    assigned = {}
    for lines in paragraphs:
        match = re.fullmatch(r"(\w+) = \w+", lines[-1])
        if match:
            assert lines[-2].startswith("---@type "), lines
            assigned[match[1]] = lines[-2]

    assert sorted(assigned) == host_globals


def test_luacheckrc_has_every_global_and_every_method(methods, host_globals):
    listing = f"""
        local config = dofile('{LUACHECKRC}')
        for name, global in pairs(config.read_globals) do
          print(name)
          for field in pairs(global.fields or {{}}) do print(name .. ':' .. field) end
        end"""

    listed = sorted(stock_lua(listing).out.split())

    assert listed == sorted([*host_globals, *(f"{name}:{method}" for name in ("dom", "dom0") for method in methods)])


# The archives


def test_files_for_editors_are_in_no_archive(installation):
    archives = [zipfile.ZipFile(path) for path in (installation.bin / "vel_core").glob("*.kxe")]
    texts = [archive.read(name) for archive in archives for name in archive.namelist()]

    assert len(texts) > 5
    assert [text for text in texts if b"---@meta" in text or b"read_globals" in text] == []

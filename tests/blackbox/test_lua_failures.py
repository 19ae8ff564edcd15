"""What an operator reads when an application fails, to the letter.

Every kind of failure is one run at a fixed place (the installation is mounted on /mnt, for this run alone), so that its
texts come out the same everywhere. What standard error and the log have to show stands in golden/lua_failures/<kind>.txt.
VEL_GOLDEN=write writes these files anew instead of comparing; read every difference before it is committed.
"""

import os
import re
import subprocess
import zipfile
from dataclasses import dataclass, field, replace
from pathlib import Path
from typing import Callable

import pytest

from agentbox import AS_NOBODY, escaped, in_private_mounts, write_archive

GOLDEN = Path(__file__).parent / "golden" / "lua_failures"
WRITE = os.environ.get("VEL_GOLDEN") == "write"

PLACE = "/mnt"
CORE = "bin/vel_core/inventory.kxe"


@dataclass
class Kind:
    """An application that fails: what its core archive holds, and what lies around it, by path in the installation."""

    core: dict
    archives: dict = field(default_factory=dict)
    files: dict = field(default_factory=dict)
    name: str = "inventory"
    words: tuple = ()
    prepare: Callable = lambda root: None
    wrapper: tuple = ()


# What the kinds are made of


def module(body, function="main"):
    """The application with one function, whose body begins on line 4."""
    lines = "".join(f"  {line}\n" for line in body.split("\n"))
    return f"local inventory = {{}}\n\nfunction inventory.{function}()\n{lines}end\n\nreturn inventory\n"


def fails(body, **options):
    """An application of one file whose `main` is `body`."""
    return Kind({"inventory.lua": module(body)}, **options)


def requires(name, entries=None, **options):
    """An application whose `main` requires `name`."""
    return Kind({"inventory.lua": module(f"require('{name}')"), **(entries or {})}, **options)


def compiled(text):
    """The bytes of `text` as a precompiled chunk."""
    script = "io.write(string.dump(assert(load(io.read('*a')))))"
    return subprocess.run(["lua5.2", "-e", script], input=text.encode(), capture_output=True, check=True).stdout


def damage(path, entry):
    """Changes a byte of the packed bytes of `entry`."""
    with zipfile.ZipFile(path) as archive:
        header = archive.getinfo(entry).header_offset
    content = bytearray(path.read_bytes())
    name_length = int.from_bytes(content[header + 26 : header + 28], "little")
    extra_length = int.from_bytes(content[header + 28 : header + 30], "little")
    content[header + 30 + name_length + extra_length + 5] ^= 0x01
    path.write_bytes(content)


SCAN = """local scan = {}

local function open(path)
  error('cannot open ' .. path)
end

function scan.folder(path)
  local entry = open(path)
  return entry
end

return scan
"""

WORK = """local scan = require('inventory.scan')
local work = {}

function work.run(runnable, folder)
  local found = scan.folder(folder or '/etc')
  return found
end

return work
"""

NESTED_LOADS = {
    "inventory/scan.lua": "local walk = require('inventory.walk')\nreturn {}\n",
    "inventory/walk.lua": "local limits = {}\nlimits.depth = limits.max.depth\nreturn limits\n",
}

# Takes or leaves so little that a sanitizer has its own say about it.
MARKS = {"memory": pytest.mark.address_space}

LONG_FOLDER = "srv/security/agent/extensions/of/the/network/department"

KINDS = {
    # An error that the application raises
    "error_text": fails("error('the disk is gone')"),
    "error_in_another_archive": Kind(
        {"inventory.lua": module("local scan = require('inventory.scan')\nlocal found = scan.folder('/etc')")},
        archives={"bin/scanner.kxe": {"inventory/scan.lua": SCAN}},
        words=("-z", "scanner.kxe"),
    ),
    "error_in_a_folder_file": Kind(
        {"inventory.lua": module("local scan = require('inventory.scan')\nlocal found = scan.folder('/etc')")},
        files={"lua/inventory/scan.lua": SCAN},
    ),
    "error_in_init": Kind({"inventory.lua": module("error('no settings')", "init")}),
    "error_in_shutdown": Kind({"inventory.lua": module("error('cannot save')", "shutdown")}),
    "error_level_2": fails("local function check(value)\n  if not value then error('a value is needed', 2) end\nend\ncheck(nil)"),
    "error_level_0": fails("error('no place is given', 0)"),
    "error_number": fails("error(42)"),
    "error_nil": fails("error(nil)"),
    "error_table": fails("error({code = 5})"),
    "error_object": fails("error(setmetatable({code = 5}, {__tostring = function(e) return 'code ' .. e.code end}))"),
    "error_object_that_fails": fails(
        "error(setmetatable({}, {__tostring = function(e) return 'code ' .. e.code end}))"
    ),
    "error_object_that_gives_a_number": fails("error(setmetatable({}, {__tostring = function() return 5 end}))"),
    "error_object_that_gives_no_text": fails("error(setmetatable({}, {__tostring = function() return {} end}))"),
    "error_object_that_fails_without_end": fails(
        "local e = {}\nerror(setmetatable(e, {__tostring = function() error(e) end}))"
    ),
    "error_of_several_lines": fails("error('first line\\n\\tsecond line\\nthird line')"),
    "error_with_odd_bytes": fails("error('escape \\27[31m bell \\7 zero \\0 byte \\255 end')"),
    "error_with_percent_signs": fails("error('100%s full, %n %d')"),
    "error_text_of_many_kilobytes": fails("error(('long '):rep(400) .. 'end')"),
    "error_raised_again": Kind(
        {"inventory.lua": module("local ok, text = pcall(require('inventory.scan').folder, '/etc')\nif not ok then error(text, 0) end"), "inventory/scan.lua": SCAN}
    ),
    "assert_without_text": fails("assert(1 > 2)"),
    "assert_of_a_missing_file": fails("local file = assert(io.open('/nonexistent/list.txt'))"),
    # An error that Lua finds
    "index_of_nil": fails("local settings = {}\nreturn settings.limits.depth"),
    "call_of_nil": fails("local scanner = {}\nscanner:start()"),
    "call_of_a_missing_global": fails("start_scanner()"),
    "arithmetic_on_text": fails("local limit = 'ten'\nlocal double = limit * 2"),
    "comparison": fails("local limit = '10'\nif limit > 5 then return 1 end"),
    "concatenation": fails("local path = '/etc/' .. dom:Get('no.such.key')"),
    "argument_of_a_library_function": fails("local text = ('x'):rep({})"),
    "loaded_text": fails("local rule = assert(load('return limit.depth > 5', '=rule 7'))\nlocal hit = rule()"),
    "loaded_text_without_a_name": fails("local rule = assert(load('local limit = nil\\nreturn limit.depth'))\nlocal hit = rule()"),
    "loaded_text_that_does_not_load": fails("local rule = assert(load('return limit > > 5', '=rule 7'))"),
    "dofile": fails("dofile('/mnt/lua/rules.lua')", files={"lua/rules.lua": "local rules = {}\nerror('no rules')\n"}),
    "dofile_of_a_missing_file": fails("dofile('/mnt/lua/rules.lua')"),
    "argument_of_require": fails("require(nil)"),
    # Coroutines
    "coroutine_wrap": fails("local step = coroutine.wrap(function()\n  local settings\n  return settings.depth\nend)\nstep()"),
    "coroutine_in_a_coroutine": fails(
        "local outer = coroutine.wrap(function()\n  local inner = coroutine.wrap(function() error('deep inside') end)\n"
        "  inner()\nend)\nouter()"
    ),
    "coroutine_resume_checked": fails("local step = coroutine.create(function() error('no step') end)\nassert(coroutine.resume(step))"),
    "coroutine_resume_not_checked": fails("local step = coroutine.create(function() error('no step') end)\ncoroutine.resume(step)"),
    "yield_outside_of_a_coroutine": fails("coroutine.yield(5)"),
    # No room left
    "stack_overflow": fails("local function deeper(n) return 1 + deeper(n + 1) end\ndeeper(1)"),
    "stack_overflow_in_c": fails("local function deeper(text) return (text:gsub('.', deeper)) end\ndeeper('x')"),
    "long_traceback": fails("local function deeper(n)\n  if n == 0 then error('deep enough') end\n  deeper(n - 1)\n  return n\nend\ndeeper(40)"),
    "finalizer": fails("setmetatable({}, {__gc = function() error('not released') end})\ncollectgarbage()"),
    "memory": fails("local text = ('x'):rep(2 ^ 20)\nreturn text:rep(2 ^ 31 - 1)"),
    # A status
    "status_without_error": fails("return 3"),
    "status_after_a_caught_error": fails("pcall(error, 'caught')\nreturn 3"),
    # Modules that do not load
    "syntax_error": Kind({"inventory.lua": "local inventory = {}\n\nfunction inventory.main(\n  return 0\nend\n"}),
    "syntax_error_in_a_folder_file": Kind({}, files={"lua/inventory.lua": "local inventory = {}\nlocal = 5\n"}),
    "syntax_error_in_a_submodule": requires("inventory.scan", {"inventory/scan.lua": "local scan = {}\nif scan then\n"}),
    "error_while_loading": requires("inventory.scan", {"inventory/scan.lua": "local scan = {}\nscan.limits.depth = 5\n"}),
    "error_while_loading_deep_inside": requires("inventory.scan", NESTED_LOADS),
    "error_while_loading_the_application": Kind({"inventory.lua": "local settings\nlocal depth = settings.depth\n"}),
    "module_that_returns_nothing": Kind({"inventory.lua": "local inventory = {}\n"}),
    "circular_require": requires(
        "inventory.scan",
        {
            "inventory/scan.lua": "local walk = require('inventory.walk')\nreturn {}\n",
            "inventory/walk.lua": "local scan = require('inventory.scan')\nreturn {}\n",
        },
    ),
    "precompiled_module": requires("inventory.scan", {"inventory/scan.lua": compiled("return {}")}),
    "precompiled_application": Kind({}, files={"lua/inventory.lua": compiled("return {}")}),
    "damaged_entry": requires(
        "inventory.scan",
        archives={"bin/scanner.kxe": {"inventory/scan.lua": SCAN}},
        words=("-z", "scanner.kxe"),
        prepare=lambda root: damage(root / "bin/scanner.kxe", "inventory/scan.lua"),
    ),
    "damaged_c_module": requires("inventory_scan", files={"bin/lib/inventory_scan.so": b"no library"}),
    "application_name_with_brackets": Kind({}, name="in]]ventory"),
    # Modules that are not there
    "application_not_found": Kind({"other.lua": ""}),
    "module_not_found": requires("inventory.scan"),
    "test_driver_not_found": fails(
        "return 0", words=("-u", "*.lua"), prepare=lambda root: (root / "bin/vel_core/vel.kxe").unlink(missing_ok=True)
    ),
    "module_not_found_beside_a_damaged_archive": requires(
        "inventory.scan", files={"bin/scanner.kxe": "no archive"}, words=("-z", "scanner.kxe")
    ),
    # The system lists a folder in any order, so each pattern fits one file.
    "module_not_found_and_extensions_left_out": requires(
        "inventory.scan",
        archives={f"ext/{name}.kxe": {"other.lua": ""} for name in ("a_fitting", "b_old", "c_bare", "d_lineless", "e_odd")},
        files={
            "ext/a_fitting.kxe.version": "version: 11.0.0-2580\n",
            "ext/b_old.kxe.version": "version: 10.5.0-1\n",
            "ext/d_lineless.kxe.version": "11.0.0-2580\n",
            "ext/e_odd.kxe.version": "version: 11.0.0\n",
        },
        words=("-z", ";".join(f"{PLACE}/ext/{letter}*.kxe" for letter in "abcde")),
    ),
    "module_not_found_and_a_named_archive_missing": requires("inventory.scan", words=("-z", "$HOME/scanner.kxe;scanner.kxe")),
    "module_not_found_and_an_archive_unreadable": requires(
        "inventory.scan",
        archives={"bin/scanner.kxe": {"other.lua": ""}},
        words=("-z", "scanner.kxe"),
        prepare=lambda root: (root.chmod(0o777), (root / "bin/scanner.kxe").chmod(0)),
        wrapper=AS_NOBODY,
    ),
    "archive_with_an_odd_name": requires(
        "inventory.scan",
        archives={"bin/odd\n\tno file 'x'\33[2J.kxe": {"inventory/scan.lua": "error('in an odd place')\n"}},
        words=("-z", "odd\n\tno file 'x'\33[2J.kxe"),
    ),
    "module_not_found_in_an_archive_with_an_odd_name": requires(
        "inventory.scan", archives={"bin/odd\n\tno file 'x'\33[2J.kxe": {}}, words=("-z", "odd\n\tno file 'x'\33[2J.kxe")
    ),
    "test_specification_with_a_quote": fails("return 0", words=("-u", '*".lua')),
    # Arguments of the domain
    "dom_get_without_a_key": fails("dom:Get()"),
    "dom_get_of_a_table": fails("dom:Get({})"),
    "dom_get_of_an_empty_key": fails("dom:Get('')"),
    "dom_set_without_a_value": fails("dom:Set('inventory.depth')"),
    "dom_set_of_a_function": fails("dom:Set('inventory.depth', print)"),
    "dom_log_with_an_unknown_level": fails("dom:Log('fatal', 'text')"),
    "dom_log_without_a_text": fails("dom:Log('error')"),
    "dom_called_with_a_dot": fails("dom.Get('app.name')"),
    "dom_without_such_a_method": fails("dom:Fetch('app.name')"),
    # Runnables
    "start_runnable_with_a_table": fails("dom:StartRunnable('inventory.scan', 1, {})"),
    "runnable_error": Kind(
        {"inventory.lua": module("return select(2, dom:StartRunnable('inventory.work'):Join())"), "inventory/scan.lua": SCAN, "inventory/work.lua": WORK}
    ),
    "runnable_not_found": fails("return select(2, dom:StartRunnable('inventory.work'):Join())"),
    "runnable_without_a_function": Kind(
        {"inventory.lua": module("return select(2, dom:StartRunnable('inventory.scan'):Join())"), "inventory/scan.lua": SCAN}
    ),
    # Names longer than Lua shows
    "long_path_of_an_archive": Kind(
        {"inventory.lua": module("local scan = require('collectors.network.interfaces.scan')\nlocal found = scan.folder('eth0')")},
        archives={f"{LONG_FOLDER}/collectors.kxe": {"collectors/network/interfaces/scan.lua": SCAN}},
        words=("-z", f"{PLACE}/{LONG_FOLDER}/collectors.kxe"),
    ),
    "long_path_of_an_archive_with_a_syntax_error": requires(
        "collectors.network.interfaces.scan",
        archives={f"{LONG_FOLDER}/collectors.kxe": {"collectors/network/interfaces/scan.lua": "local scan = {}\nlocal = 5\n"}},
        words=("-z", f"{PLACE}/{LONG_FOLDER}/collectors.kxe"),
    ),
}


def arrange(installation, kind):
    """Lays out what the kind needs."""
    installation.name = kind.name
    for path, entries in {CORE: kind.core, **kind.archives}.items():
        (installation.root / path).parent.mkdir(parents=True, exist_ok=True)
        write_archive(installation.root / path, entries)
    for path, text in kind.files.items():
        (installation.root / path).parent.mkdir(parents=True, exist_ok=True)
        (installation.root / path).write_bytes(text if isinstance(text, bytes) else text.encode())
    kind.prepare(installation.root)


def run(installation, kind):
    """The run, for which alone the installation lies at PLACE."""
    arrange(installation, kind)
    return installation.run_raw(
        *("--appname", kind.name, "--workdir", f"{PLACE}/work", "--lua_path", f"{PLACE}/lua/?.lua", *kind.words),
        executable=f"{PLACE}/bin/kx_agent",
        cwd="/",
        wrapper=(*in_private_mounts(f'mount --bind "{installation.root}" {PLACE} && exec "$@"'), *kind.wrapper),
        env={"HOME": f"{PLACE}/home"},
    )


def printable(text):
    """`text` with control characters and bytes that are no text as <1b>, and the system's name for the processor."""
    text = re.sub("/usr/lib/[a-z0-9_]+-linux-gnu[a-z0-9]*/", "/usr/lib/<processor>/", text)
    return re.sub("[\0-\x08\x0b-\x1f\x7f\udc80-\udcff]", lambda odd: f"<{ord(odd[0]) & 0xFF:02x}>", text)


@pytest.mark.parametrize("name", [pytest.param(name, marks=MARKS.get(name, ())) for name in KINDS])
def test_failure_reads(installation, name):
    outcome = run(installation, KINDS[name])

    log = installation.log_lines()
    told = outcome.err.removesuffix("\n")
    assert log.count("Error: " + escaped(told)) == (1 if told else 0), "one record of the same text"
    got = printable(f"status {outcome.status}\n\n--- standard error\n{outcome.err}\n--- log\n" + "".join(f"{line}\n" for line in log))
    golden = GOLDEN / f"{name}.txt"
    if WRITE:
        golden.parent.mkdir(parents=True, exist_ok=True)
        golden.write_text(got)
    assert got == golden.read_text()


def test_every_golden_file_has_its_kind():
    assert {path.stem for path in GOLDEN.iterdir()} == set(KINDS)


# The kinds whose modules could as well lie in the folder that --lua_path names.
MOVABLE = [name for name, kind in KINDS.items() if kind.core and not kind.archives and not kind.words and "module_not_found" not in name]


def source_names_replaced(text):
    text = re.sub(f"{PLACE}/(lua|{CORE})/", "<source>/", text)
    return re.sub("from (file|archive entry) '", "from <source> '", text)


@pytest.mark.parametrize("name", [pytest.param(name, marks=MARKS.get(name, ())) for name in MOVABLE])
def test_failure_in_a_folder_reads_as_in_an_archive(installation, name):
    kind = KINDS[name]
    files = {f"lua/{entry}": text for entry, text in kind.core.items()}

    outcome = run(installation, replace(kind, core={}, files={**files, **kind.files}))

    _, _, told = (GOLDEN / f"{name}.txt").read_text().partition("--- standard error\n")
    assert source_names_replaced(printable(outcome.err)) == source_names_replaced(told.partition("\n--- log\n")[0])


@pytest.mark.parametrize("name", ["error_text", "syntax_error", "error_while_loading", "module_not_found", "finalizer", "application_name_with_brackets"])
def test_failure_shows_once_on_a_terminal(installation, name):
    arrange(installation, KINDS[name])

    _, shown = installation.run_on_terminal()

    (text,) = installation.log_lines("Error")
    assert escaped(shown.replace("\r\n", "\n").removesuffix("\n")) == text

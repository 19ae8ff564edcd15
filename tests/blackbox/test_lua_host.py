"""What the interpreter offers an application: globals, output, children, `os.exit`, and failures that are told."""

import os
import re

import pytest

from agentbox import escaped, stock_lua, through_shell


def run_main(installation, main, *words, status=0, **options):
    """Runs `main`; gives what it printed."""
    installation.write_app(main=main)
    outcome = installation.run(*words, **options)
    assert outcome.status == status, (outcome, installation.log_text())
    return outcome.out


def into(target):
    """A wrapper that sends standard output to `target`, as the shell writes it."""
    return ("sh", "-c", f'exec "$@" >{target}', "sh")


# dom0, dom


def test_domain_is_one_object_under_two_names(installation):
    out = run_main(installation, "print(rawequal(dom0, dom), type(dom), dom0:Get('app.name') == dom:Get('app.name'))")

    assert out == "true\tuserdata\ttrue\n"


def test_domain_survives_its_collection(installation):
    installation.write_app(
        main="""
            dom0:Set('kept.value', 5)
            dom0, dom = nil, nil
            for _ = 1, 5 do collectgarbage() end
            print(dom0, dom)""",
        shutdown="collectgarbage() print(require('vel.nothing'))",
    )

    outcome = installation.run("-t", "Appl")

    assert outcome.out == "nil\tnil\n"
    assert outcome.status == 2 and "module 'vel.nothing' not found" in outcome.err
    assert installation.traces()[-1] == "Chunk produced a return value of 2"


def test_domain_kept_elsewhere_still_works_after_the_globals_are_gone(installation):
    main = """
        local kept = dom
        dom0, dom = nil, nil
        collectgarbage() collectgarbage()
        kept:Set('a.b', 'c')
        print(kept:Get('a.b'))"""

    assert run_main(installation, main) == "c\n"


def test_domain_is_the_same_in_all_phases(installation):
    installation.write_app(init="dom:Set('x.y', 1) first = dom", main="print(dom:Get('x.y'), rawequal(first, dom0))", shutdown="print(dom0:Get('x.y'))")

    assert installation.run().out == "1\ttrue\n1\n"


# arg

SHOW_ARG = r"""
    local keys = {}
    for key in pairs(arg) do keys[#keys + 1] = key end
    table.sort(keys)
    for _, key in ipairs(keys) do print(key, (arg[key]:gsub('\n', '<lf>'))) end
    print('length', #arg)"""


def shown_arg(out):
    """The table `arg` out of what SHOW_ARG printed, and its length."""
    lines = [line.split("\t", 1) for line in out.rstrip("\n").split("\n")]
    return {int(key): value for key, value in lines[:-1]}, int(lines[-1][1])


@pytest.mark.parametrize(
    "words, parameters",
    [
        ([], None),
        (["--"], []),
        (["--", "a", "b"], ["a", "b"]),
        (["--", "--"], ["--"]),
        (["--", "a", "--", "b"], ["a", "--", "b"]),
        (["--", "--", "--", "x"], ["--", "--", "x"]),
        (["word", "--", "a"], ["a"]),
        (["word", "other"], None),
        (["--", "-x", "--help", "-a", "name", "--background"], ["-x", "--help", "-a", "name", "--background"]),
        (["--", ""], [""]),
        (["--", "", "", "x"], ["", "", "x"]),
        (["--", "-"], ["-"]),
        (["--", "---"], ["---"]),
        (["--", "a b", "c\nd", "\t", "'\"\\"], ["a b", "c\nd", "\t", "'\"\\"]),
        (["--", "gr\u00fc\u00dfe", "\u4f60\u597d", "\U0001f600"], ["gr\u00fc\u00dfe", "\u4f60\u597d", "\U0001f600"]),
        (["--", "%s%n", "$HOME", "*"], ["%s%n", "$HOME", "*"]),
        (["--", "x" * 100000], ["x" * 100000]),
        (["-U", "-t", "Appl", "--", "a"], ["a"]),
        # The search begins at the first word and knows nothing of options.
        (["-d", "--", "a=b"], ["a=b"]),
        (["-d", "--", "x", "--", "a"], ["x", "--", "a"]),
        (["-U", "-t", "--", "--", "a"], ["--", "a"]),
    ],
    ids=range(21),
)
def test_layout_of_arg(installation, words, parameters):
    installation.write_app(main=SHOW_ARG)
    every = [str(installation.executable), *installation.arguments(*words)]
    split = every.index("--") if "--" in every else len(every)

    outcome = installation.run(*words)

    assert outcome.status == 0, outcome
    wanted = {position - split: word for position, word in enumerate(every)}
    wanted[0] = installation.name
    got, length = shown_arg(outcome.out)
    assert got == {key: word.replace("\n", "<lf>") for key, word in wanted.items()}
    assert length == len(parameters or [])
    assert [got[key] for key in range(1, length + 1)] == [word.replace("\n", "<lf>") for word in parameters or []]


@pytest.mark.parametrize("language", ["C", "POSIX", None, "C.UTF-8", "xx_YY.UTF-8"])
def test_arg_is_text_in_every_locale(installation, language):
    out = run_main(installation, "print(arg[1], arg[2])", "--", "gr\u00fc\u00dfe", "x", env={"LANG": language})

    assert out == "gr\u00fc\u00dfe\tx\n"


def test_word_that_is_no_text_does_not_disturb_the_others(installation):
    out = run_main(installation, "print(table.concat(arg, ' '))", "--", "a", os.fsdecode(b"\xff\xfe"), "b")

    # Kept byte for byte, or left out: nothing in between.
    assert out in ("a \udcff\udcfe b\n", "a b\n")


def test_first_word_is_what_the_process_was_started_as(installation):
    installation.write_app(main="local first = 0 while arg[first - 1] do first = first - 1 end print(arg[first])")

    outcome = installation.run_raw(*installation.arguments(), argv0="some/other_name")

    assert (outcome.status, outcome.out) == (0, "some/other_name\n"), outcome


def test_application_name_at_zero_comes_from_the_executable(installation):
    other = installation.bin / "renamed.agent"
    (installation.bin / "kx_agent").rename(other)
    installation.write_module("renamed", "return { main = function() print(arg[0], arg[1]) end }")

    outcome = installation.run_raw("--workdir", installation.work, "--lua_path", f"{installation.lua}/?.lua", "--", "x", executable=other, argv0=str(other))

    assert (outcome.status, outcome.out) == (0, "renamed\tx\n"), outcome


def test_a_hundred_thousand_words(installation):
    out = run_main(installation, "print(#arg, arg[1], arg[100000])", "--", *["w"] * 99999, "z")

    assert out == "100000\tw\tz\n"


def test_application_may_replace_the_globals(installation):
    installation.write_app(init="arg, dom, dom0, velAppModule.extra = 1, 2, 3, 4", main="print(arg, dom, dom0, velAppModule.extra)")

    assert installation.run().out == "1\t2\t3\t4\n"


def test_module_is_in_its_global(installation):
    assert run_main(installation, f"print(rawequal(velAppModule, require('{installation.name}')), velAppModule.main ~= nil)") == "true\ttrue\n"


def test_standard_libraries_are_open(installation):
    names = "coroutine table io os string bit32 math debug package"
    main = f"for name in ('{names}'):gmatch('%S+') do assert(type(_G[name]) == 'table' and package.loaded[name] == _G[name], name) end print(_VERSION)"

    assert run_main(installation, main) == "Lua 5.2\n"


def test_standard_library_functions_are_all_there(installation):
    listing = """
        local names = {}
        for library, functions in pairs(package.loaded) do
            if type(functions) == 'table' and ('_G coroutine table io os string bit32 math debug package'):find(library, 1, true) then
                for name, value in pairs(functions) do
                    if type(value) == 'function' then names[#names + 1] = library .. '.' .. name end
                end
            end
        end
        table.sort(names)
        print(table.concat(names, '\\n'))"""

    missing = set(stock_lua(listing).out.split()) - set(run_main(installation, listing).split())

    assert missing == set()


# Output

INTERLEAVED = """
    for i = 1, 10000 do
        local way = i % 4
        if way == 0 then print(i) elseif way == 1 then io.write(i, '\\n')
        elseif way == 2 then io.stdout:write(i, '\\n') else io.output():write(i) io.write('\\n') end
    end"""
COUNTED = "".join(f"{number}\n" for number in range(1, 10001))


def test_ways_to_print_keep_their_order_in_a_pipe(installation):
    assert run_main(installation, INTERLEAVED) == COUNTED


def test_ways_to_print_keep_their_order_in_a_file(installation):
    assert run_main(installation, INTERLEAVED, wrapper=into("out.txt")) == ""
    assert (installation.root / "out.txt").read_text() == COUNTED


def test_ways_to_print_keep_their_order_on_a_terminal(installation):
    installation.write_app(main=INTERLEAVED)

    status, shown = installation.run_on_terminal()

    assert (status, shown) == (0, COUNTED.replace("\n", "\r\n"))


def test_ways_to_print_keep_their_order_at_os_exit(installation):
    assert run_main(installation, INTERLEAVED + " os.exit(3)", status=3) == COUNTED


def test_output_of_all_phases_keeps_its_order(installation):
    installation.write_app(top="print('load')", init="io.write('init\\n')", main="io.stdout:write('main\\n')", shutdown="print('shutdown')")

    assert installation.run().out == "load\ninit\nmain\nshutdown\n"


def test_output_with_a_buffer_of_its_own_keeps_its_order(installation):
    out = run_main(installation, "io.stdout:setvbuf('full') print(1) io.write(2, '\\n') io.stdout:write(3, '\\n') io.stdout:setvbuf('no') print(4) io.write(5, '\\n')")

    assert out == "1\n2\n3\n4\n5\n"


def test_large_pieces_arrive_whole(installation):
    out = run_main(installation, "local s = ('x'):rep(3000000) io.write(s, '|') print(s) io.stdout:write(s)")

    assert out == "x" * 3000000 + "|" + "x" * 3000000 + "\n" + "x" * 3000000


def test_another_default_output_takes_what_is_written(installation):
    out = run_main(
        installation,
        "print('before') io.output('other.txt') io.write('into ', 'the file\\n') print('printed') io.close() io.output(io.stdout) io.write('after\\n')",
    )

    assert out == "before\nprinted\nafter\n"
    assert (installation.root / "other.txt").read_text() == "into the file\n"


@pytest.mark.parametrize(
    "script",
    [
        "print()",
        "print(nil, true, 1, 1.5, -0.0, 1e100, 'x', '')",
        "print('a\\0b', '\\255')",
        "print(io.write('') == io.output(), io.output() == io.stdout, io.write('x') == io.stdout)",
        "io.write('a'):write('b'):write('c')",
        "io.write(1, ' ', 1.5, ' ', 1e15, ' ', 2^53, ' ', 0.1, '\\n')",
        "print(io.type(io.stdout), io.type(io.output()), io.type(io.stderr), io.type(io.stdin), io.type(5))",
        "print(pcall(io.write, {}))",
        "print(pcall(io.write, 'shown', nil))",
        "print(pcall(io.stdout.write, 5))",
        "function tostring(x) return 'mine' end print(1, 'a', nil)",
        "function tostring(x) return nil end io.write(select(2, pcall(print, 1)), '\\n')",
        "tostring = nil io.write(select(2, pcall(print, 1)), '\\n')",
        "print(setmetatable({}, {__tostring = function() return 'object' end}))",
        "print(pcall(print, setmetatable({}, {__tostring = function() error('refused', 0) end})))",
        "print(select('#', print('x')))",
        "print(io.stdout:seek('cur') == nil)",
        "print(io.stdout:flush() == io.stdout, io.flush() == io.stdout)",
        "print(tostring(io.stdout):match('^file %(') ~= nil)",
        "io.output('out2.txt') print(io.write('x') == io.output(), io.output() == io.stdout) io.output():close() print(pcall(io.write, 'y'))",
        "print(pcall(io.output, 'no/such/folder/file'))",
        "print(io.read('*l'), io.read('*a'), io.read(1))",
        "for line in io.lines() do print(line) end print('end')",
        "io.stderr:write('err') print(io.stderr:write('') == io.stderr)",
        "local f = io.tmpfile() f:write('abc') f:seek('set') print(f:read('*a')) f:close() print(io.type(f))",
        "print(io.open('/nonexistent/file'))",
        "print(pcall(io.lines, '/nonexistent/file'))",
        "print(io.stdout:setvbuf('line'), io.stdout:setvbuf('no'))",
    ],
    ids=range(28),
)
def test_output_functions_are_those_of_lua(installation, script):
    wanted = stock_lua(script, cwd=installation.root)

    installation.write_app(main=script)
    outcome = installation.run()

    plain = [re.sub(r"'_G\.|'io\.", "'", text) for text in (outcome.out, wanted.out)]
    assert (outcome.status, plain[0], outcome.err) == (0, plain[1], wanted.err)


def test_closed_default_output_does_not_end_the_run(installation):
    installation.write_app(main="io.stdout:close() print('x') print(pcall(io.write, 'y')) io.output():write('z')", shutdown="print(1)")

    outcome = installation.run()

    assert outcome.status in (0, 2), outcome


@pytest.mark.parametrize("name", [None, "kx_agent"])
@pytest.mark.parametrize("target", ["/dev/full", "&-"])
def test_output_that_cannot_be_written_does_not_end_the_run(installation, name, target):
    installation.name = name or installation.name
    installation.write_app(
        main="for i = 1, 20000 do print(i) io.write(i) io.stdout:write(i) end io.flush() io.stdout:flush()",
        shutdown="io.open('reached', 'w'):close() return 9",
    )

    outcome = installation.run(wrapper=into(target))

    assert outcome.status == 9, outcome
    assert (installation.root / "reached").exists()
    assert all(record.text for record in installation.records())


def test_error_of_the_output_is_returned(installation):
    main = """
        local handle, text, number = io.write(('x'):rep(1000000))
        io.stderr:write(tostring(handle), ' ', tostring(text), ' ', tostring(number), '\\n')
        handle, text, number = io.stdout:flush()
        io.stderr:write(tostring(handle), '\\n')"""
    installation.write_app(main=main)

    outcome = installation.run(wrapper=into("/dev/full"))

    assert (outcome.status, outcome.err.split("\n")[0]) == (0, "nil No space left on device 28")


def test_reader_that_went_away_does_not_end_the_run(installation):
    installation.write_app(main="for i = 1, 50000 do print(i) io.write(i, '\\n') end", shutdown="io.open('reached', 'w'):close() return 9")

    outcome = installation.run(wrapper=("bash", "-c", '"$@" | head -1 >/dev/null; exit ${PIPESTATUS[0]}', "bash"))

    assert outcome.status == 9, outcome
    assert (installation.root / "reached").exists()


def test_standard_input_is_read(installation):
    out = run_main(installation, "print(io.read('*n', '*l', '*a'))", stdin=b"42 rest\nof\nit")

    assert out == "42\t rest\tof\nit\n"


# os.exit


@pytest.mark.parametrize("call", ["os.exit()", "os.exit(nil)", "os.exit(true)", "os.exit(false)", "os.exit(0)", "os.exit(3)", "os.exit(3.7)", "os.exit(-1)",
                                  "os.exit(255)", "os.exit(256)", "os.exit(259)", "os.exit('7')", "os.exit(nil, true)", "os.exit(true, true)",
                                  "os.exit(5, true)", "os.exit(5, false)", "os.exit(false, true)", "os.exit(2^31 + 5)", "os.exit(-2.5)"])
@pytest.mark.parametrize("name", [None, "kx_agent"])
def test_os_exit_ends_with_the_status_of_lua(installation, name, call):
    installation.name = name or installation.name
    installation.write_app(main=f"io.write('unfinished line') {call}", shutdown="print('shutdown')")

    outcome = installation.run()

    assert (outcome.status, outcome.out, outcome.err) == (stock_lua(call).status, "unfinished line", "")


def test_os_exit_waits_for_a_reader_that_takes_its_time(installation):
    more_than_a_pipe_holds = "for i = 1, 661 do io.write(('x'):rep(99), '\\n') end io.write('the end')"
    installation.write_app(main=f"{more_than_a_pipe_holds} os.exit(5)")

    outcome = installation.run(wrapper=("bash", "-c", '"$@" | (sleep 2.5; cat); exit ${PIPESTATUS[0]}', "bash"))

    assert (outcome.status, len(outcome.out), outcome.out[-7:]) == (5, 66107, "the end")


@pytest.mark.parametrize("call", ["os.exit('x')", "os.exit({})", "os.exit(print)"])
def test_os_exit_with_a_wrong_argument_is_an_error(installation, call):
    script = f"print((select(2, pcall(function() {call} end)):gsub('^.-:%d+: ', '')))"

    assert run_main(installation, script) == stock_lua(script).out


@pytest.mark.parametrize("phase", ["top", "init", "main", "shutdown"])
@pytest.mark.parametrize("name", [None, "kx_agent"])
def test_os_exit_in_every_phase(installation, name, phase):
    installation.name = name or installation.name
    installation.write_app(**{phase: "io.write('last words') os.exit(6)"})

    outcome = installation.run()

    assert (outcome.status, outcome.out, outcome.err) == (6, "last words", "")


@pytest.mark.parametrize(
    "way",
    ["pcall(os.exit, 4)", "coroutine.wrap(function() os.exit(4) end)()", "table.sort({3, 2, 1}, function() os.exit(4) end)",
     "string.gsub('x', 'x', function() os.exit(4) end)", "setmetatable({}, {__gc = function() os.exit(4) end}) collectgarbage()",
     "xpcall(error, function() os.exit(4) end)", "debug.sethook(function() os.exit(4) end, 'l') local x = 1",
     "coroutine.wrap(function() os.exit(4, true) end)()", "setmetatable({}, {__gc = function() os.exit(4) end}) os.exit(4, true)"],
)
def test_os_exit_from_deep_inside(installation, way):
    installation.write_app(main=f"io.write('last words') {way}")

    outcome = installation.run()

    assert (outcome.status, outcome.out, outcome.err) == (4, "last words", "")


@pytest.mark.parametrize("call", ["os.exit(3, true)", "os.exit(3)", "os.exit(true, true)"])
def test_closing_the_state_runs_the_finalizers(installation, call):
    script = f"kept = setmetatable({{}}, {{ __gc = function() print('finalized') end }}) {call}"
    wanted = stock_lua(script)

    installation.write_app(main=script)
    outcome = installation.run()

    assert (outcome.status, outcome.out) == (wanted.status, wanted.out)


@pytest.mark.parametrize("call", ["os.exit(0)", "os.exit(0, true)", "os.exit(3)", "return 0", "return 3", "error('x')"])
@pytest.mark.parametrize("name", [None, "kx_agent"])
def test_files_that_were_left_open_are_written_at_the_end(installation, name, call):
    installation.name = name or installation.name
    installation.write_app(main=f"kept = io.open('left.txt', 'w') kept:write('all of it') {call}")

    installation.run()

    assert (installation.root / "left.txt").read_text() == "all of it"


# Children


@pytest.mark.parametrize(
    "script",
    [
        "print(os.execute())",
        "print(os.execute('true'))",
        "print(os.execute('false'))",
        "print(os.execute('exit 7'))",
        "print(os.execute('exit 255'))",
        "print(os.execute('kill -9 $$'))",
        "print(os.execute('kill -TERM $$'))",
        "print(os.execute('kill -INT $$'))",
        "print(os.execute('/no/such/program 2>/dev/null'))",
        "print(os.execute(''))",
        "print(os.execute('echo from the child'))",
        "io.write('before ') io.flush() print(os.execute('printf inside'))",
        "print(os.execute(\"printf '%s' 'quoted  text'\"))",
        "print(pcall(os.execute, {}))",
        "print(io.popen('echo a; echo b'):read('*a'))",
        "for line in io.popen('printf \"1\\\\n2\\\\n3\"'):lines() do print(line) end",
        "print(io.popen('exit 3'):close())",
        "print(io.popen('kill -9 $$'):close())",
        "print(io.popen('true'):close())",
        "print(io.popen('cat', 'w'):close())",
        "local p = io.popen('cat', 'w') p:write('into', ' the child\\n') print(p:close())",
        "local p = io.popen('cat >/dev/null; exit 9', 'w') print(p:write('x') == p) print(p:close())",
        "print(io.popen('true', 'x'))",
        "print(io.popen('true', 'rw'))",
        "print(pcall(io.popen))",
        "print(pcall(io.popen, {}))",
        "local p = io.popen('echo x') print(io.type(p)) p:close() print(io.type(p)) print(pcall(p.read, p))",
        "local p = io.popen('echo x') print(tostring(p):match('^file %(') ~= nil) p:close() print(tostring(p))",
        "local p = io.popen('exit 5') print(p:read('*a') == '') print(io.close(p))",
        "local p = io.popen('cat', 'w') io.output(p) io.write('written\\n') print(io.close()) io.output(io.stdout)",
        "io.popen('echo dropped'):read('*a') collectgarbage() collectgarbage() print('collected')",
        "local p = io.popen('seq 100000') local n = 0 for _ in p:lines() do n = n + 1 end print(n, p:close())",
        "local p = io.popen('echo $0 $#') print(p:read('*a'))",
        "print(io.popen('printf x'):read(5), io.popen('printf 12 '):read('*n'))",
        "local p = io.popen('yes') print(p:read('*l')) print(p:close())",
    ],
    ids=range(35),
)
def test_children_are_run_as_by_lua(installation, script):
    wanted = stock_lua(script, cwd=installation.root)

    installation.write_app(main=script)
    outcome = installation.run()

    plain = [re.sub(r"'(_G|io|os)\.|\S+lua:\d+: |\(command line\):\d+: ", "'", text).replace("[string", "") for text in (outcome.out, wanted.out)]
    assert (outcome.status, plain[0], outcome.err) == (0, plain[1], wanted.err)


# Signals 32 and 33 belong to the C library, which starts every child with both of them ignored.
RESERVED = 1 << 31 | 1 << 32

CHILD_STATE = {
    "os.execute": "os.execute('grep -E ^Sig.[gl] /proc/self/status')",
    "io.popen r": "io.write(io.popen('grep -E ^Sig.[gl] /proc/self/status'):read('*a'))",
    "io.popen w": "io.popen('grep -E ^Sig.[gl] /proc/self/status', 'w'):close()",
    "os.execute after popen": "io.popen('true'):close() os.execute('true') os.execute('grep -E ^Sig.[gl] /proc/self/status')",
}


@pytest.mark.parametrize("way", CHILD_STATE)
@pytest.mark.parametrize(
    "wrapper",
    [(), ("env", "--ignore-signal=CHLD"), ("env", "--ignore-signal=PIPE,TERM,INT,HUP,QUIT,USR1"), ("env", "--block-signal=TERM,CHLD,USR1,INT,PIPE"),
     ("env", "--ignore-signal=CHLD,TERM", "--block-signal=TERM,HUP")],
    ids=["plain", "chld ignored", "several ignored", "several blocked", "both"],
)
def test_children_start_with_default_signals(installation, way, wrapper):
    out = run_main(installation, "io.stdout:flush() " + CHILD_STATE[way], wrapper=wrapper)

    # SigBlk, SigIgn and SigCgt are what the pattern leaves of the status.
    state = dict(line.split(":\t") for line in out.strip().split("\n"))
    assert {name: int(state[name], 16) & ~RESERVED for name in ("SigBlk", "SigIgn")} == {"SigBlk": 0, "SigIgn": 0}, out


@pytest.mark.parametrize("way", ["local p = io.popen('cut -d\" \" -f5 /proc/self/stat') io.write(p:read('*a'))", "io.stdout:flush() os.execute('cut -d\" \" -f5 /proc/self/stat')"])
def test_children_stay_in_the_group_of_the_agent(installation, way):
    out = run_main(installation, f"local own = io.open('/proc/self/stat'):read('*a'):match('^.*%) %S+ %S+ (%S+)') {way} print(own)")

    child, own = out.split()
    assert child == own


@pytest.mark.parametrize("wrapper", [(), ("env", "--ignore-signal=CHLD"), ("env", "--block-signal=CHLD")], ids=["plain", "ignored", "blocked"])
@pytest.mark.parametrize("name", [None, "kx_agent"])
def test_results_of_children_whatever_the_caller_did_to_sigchld(installation, name, wrapper):
    installation.name = name or installation.name

    out = run_main(installation, "print(os.execute('exit 3')) print(io.popen('exit 4'):close()) print(os.execute('true'))", wrapper=wrapper)

    assert out == "nil\texit\t3\nnil\texit\t4\ntrue\texit\t0\n"


def test_many_children_leak_no_descriptors(installation):
    main = """
        local lfs = require('lfs')
        local function open_ones() local n = 0 for _ in lfs.dir('/proc/self/fd') do n = n + 1 end return n end
        local function all()
            for i = 1, 200 do
                assert(io.popen('true'):close())
                local p = io.popen('cat >/dev/null', 'w') p:write('x') assert(p:close())
                io.popen('true', 'x')
            end
            assert(os.execute('true'))
        end
        all()
        local before = open_ones()
        all()
        print(open_ones() - before)"""

    assert run_main(installation, main) == "0\n"


def test_many_children_at_once(installation):
    main = """
        local pipes = {}
        for i = 1, 100 do pipes[i] = io.popen('cat >/dev/null; exit ' .. i % 100, 'w') end
        local sum = 0
        for i = 1, 100 do sum = sum + select(3, pipes[i]:close()) end
        print(sum)"""

    assert run_main(installation, main) == f"{sum(range(100))}\n"


def test_child_that_went_away_is_a_write_error(installation):
    main = """
        local gone = io.popen('exec <&-; echo closed >closed.txt; exit 5', 'w')
        repeat local there = io.open('closed.txt') until there and there:read('*l')
        print((select(2, gone:write(('x'):rep(1000000)))))
        print(gone:close())"""

    assert run_main(installation, main) == "Broken pipe\nnil\texit\t5\n"


def test_child_sees_what_was_printed_before(installation):
    out = run_main(installation, "io.write('1 ') print('2') io.stdout:write('3\\n') io.flush() os.execute('echo 4') print('5') io.stdout:flush() io.popen('echo 6', 'w'):close() print(7)")

    assert out == "1 2\n3\n4\n5\n6\n7\n"


def test_environment_of_the_children(installation):
    out = run_main(installation, "io.stdout:flush() os.execute('echo $SOME_NAME') print(os.getenv('SOME_NAME'))", env={"SOME_NAME": "value"})

    assert out == "value\nvalue\n"


# Failures


# The body of `main` stands on the module's fourth line.
def told(installation, main, *words):
    """Runs an application that fails; gives its status and what it said, which must be in the log as one record."""
    installation.write_app(main=main)
    outcome = installation.run(*words)
    assert outcome.err.endswith("\n"), outcome
    assert installation.log_lines("Error") == [escaped(outcome.err[:-1])], installation.log_text()
    return outcome.status, outcome.err[:-1]


@pytest.mark.parametrize(
    "failure, message",
    [
        ("error('plain')", ":4: plain"),
        ("error('without place', 0)", "without place"),
        ("error('100%s %d %n %')", ":4: 100%s %d %n %"),
        ("error('tab\\tline\\nescape\\27')", ":4: tab\tline\nescape\x1b"),
        ("error('gr\u00fc\u00dfe')", ":4: gr\u00fc\u00dfe"),
        ("error('')", ":4: "),
        ("error(42)", "42"),
        ("error(1.5, 0)", "1.5"),
        ("error(setmetatable({}, {__tostring = function() return 'told by itself' end}))", "told by itself"),
        ("local x = nil .. 'x'", "attempt to concatenate a nil value"),
        ("nothing()", "attempt to call global 'nothing' (a nil value)"),
        ("local x = {} < {}", "attempt to compare two table values"),
        ("assert(false)", "assertion failed!"),
        ("assert(nil, 'with text')", "with text"),
        ("string.rep()", "bad argument #1 to 'rep'"),
        ("coroutine.wrap(function() error('inside', 0) end)()", "inside"),
        ("select(0)", "index out of range"),
        ("load('x =')()", "attempt to call"),
    ],
    ids=range(18),
)
def test_failure_is_told_with_its_traceback(installation, failure, message):
    status, text = told(installation, failure)

    first, _, traceback = text.rpartition("\nstack traceback:\n")
    assert status == 2
    assert message in first, text
    assert f"{installation.name}.lua:" in traceback, text


@pytest.mark.parametrize("failure", ["error()", "error(nil)", "error({})", "error(print)", "error(io.stdout)", "error(true)", "error(coroutine.create(print))",
                                     "error(setmetatable({}, {}))", "error(setmetatable({}, {__tostring = function() error('again', 0) end}))",
                                     "error(setmetatable({}, {__tostring = function() return nil end}))", "error(setmetatable({}, {__tostring = 5}))",
                                     "error(setmetatable({}, {__tostring = function() error(error) end}))"])
def test_odd_error_object_is_told(installation, failure):
    status, text = told(installation, failure)

    assert status in (2, 6)
    assert text.split("\n")[0].strip() != "", text


def test_long_error_text_is_told_whole(installation):
    status, text = told(installation, "error(('long '):rep(20000), 0)")

    assert status == 2
    assert text.startswith("long " * 20000)


def test_error_that_is_no_text_is_told_byte_for_byte(installation):
    installation.write_app(main="error('before \\255\\254 after', 0)")

    outcome = installation.run()

    assert outcome.status == 2
    assert outcome.stderr.startswith(b"before \xff\xfe after\n")
    assert installation.log_lines("Error")[0].startswith("before \\xff\\xfe after\\n")


def test_zero_byte_in_an_error_is_no_danger(installation):
    installation.write_app(main="error('before\\0after', 0)")

    outcome = installation.run()

    assert outcome.status == 2
    assert outcome.err.startswith("before")
    assert len(installation.log_lines("Error")) == 1


def test_error_in_a_finalizer(installation):
    status, text = told(installation, "setmetatable({}, {__gc = function() error('in gc') end}) collectgarbage()")

    assert status == 5
    assert "error in __gc metamethod" in text and "in gc" in text


def test_error_in_a_finalizer_during_os_exit(installation):
    installation.write_app(main="kept = setmetatable({}, {__gc = function() error('in gc') end}) os.exit(5, true)")

    outcome = installation.run()

    assert outcome.status == 5, outcome


@pytest.mark.parametrize(
    "script",
    [
        "print(xpcall(error, function() error('in handler') end))",
        "print(xpcall(error, function(...) return select('#', ...) end, 'x'))",
        "print(pcall(error))",
        "print(pcall(error, nil))",
        "local function f() return f() + 1 end local ok, text = pcall(f) print(ok, text:match('stack overflow'))",
        "local function f(s) return (s:gsub('.', f)) end print(pcall(f, 'x'))",
        "local t = setmetatable({}, {}) getmetatable(t).__index = function(_, k) return t[k] end local ok, text = pcall(function() return t.x end) print(ok, text:match('C stack overflow'))",
        pytest.param(
            "local s = ('x'):rep(2^20) print(pcall(string.rep, s, 2^31 - 1))", marks=pytest.mark.address_space
        ),
        "local n = 0 local function f() n = n + 1 local a, b = pcall(f) return a, b end f() print(n > 100)",
        "local co co = coroutine.wrap(function() return co() end) print(pcall(co))",
        "local function f() return coroutine.wrap(f)() end print((pcall(f)))",
        "print(pcall(string.find, ('a'):rep(300000), ('a?'):rep(300000)))",
        "print((pcall(load, ('('):rep(100000))), load(('('):rep(100000)))",
        "local t = {} for i = 1, 300 do t = setmetatable({}, {__index = t}) end print(pcall(function() return t.x end))",
        "print(pcall(setmetatable, {}, 5))",
        "local ok, text = pcall(table.concat, setmetatable({}, {__len = function() return 2^31 end})) print(ok)",
        "print((pcall(function() local function g() table.sort({1, 2, 3}, g) end g() end)))",
        "print(pcall(table.unpack, {}, 1, 1e8))",
        "print((pcall(string.format, '%d', 'x')))",
    ],
    ids=range(19),
)
def test_caught_failures_are_those_of_lua(installation, script):
    script = f"local script = load([==[{script}]==], '=script') script()"
    wanted = stock_lua(script)

    installation.write_app(main=script)
    outcome = installation.run()

    assert wanted.status == 0, wanted
    plain = [re.sub(r"'_G\.|\(\.\.\.tail calls\.\.\.\)", "'", text) for text in (outcome.out, wanted.out)]
    assert (outcome.status, plain[0], outcome.err) == (0, plain[1], "")
    assert installation.log_lines("Error") == []


@pytest.mark.parametrize(
    "failure, statuses, message",
    [
        ("local function f() return f() + 1 end f()", (2, 6), "stack overflow"),
        ("local function f(s) return (s:gsub('.', f)) end f('x')", (2, 6), "stack overflow"),
        ("local function f() return coroutine.wrap(f)() end f()", (2, 6), "stack overflow"),
        ("local function g() table.sort({1, 2, 3}, g) end g()", (2, 6), "stack overflow"),
        ("local t = setmetatable({}, {}) getmetatable(t).__tostring = function() return tostring(t) end tostring(t)", (2, 6), "stack overflow"),
        ("local function f() require = f error(setmetatable({}, {__tostring = f})) end f()", (2, 6), ""),
        pytest.param(
            "local s = ('x'):rep(2^20) return s:rep(2^31 - 1)",
            (4,),
            "not enough memory",
            marks=pytest.mark.address_space,
        ),
    ],
    ids=["lua", "gsub", "coroutine", "sort", "tostring", "message", "memory"],
)
def test_exhaustion_is_told_and_survived(installation, failure, statuses, message):
    status, text = told(installation, failure)

    assert status in statuses, (status, text)
    assert message in text
    assert len(text) < 20000


@pytest.mark.address_space
def test_exhaustion_of_the_address_space_is_told(installation):
    if "ASAN_OPTIONS" in os.environ or "TSAN_OPTIONS" in os.environ:
        limit = ()  # a sanitizer needs more address space than any limit leaves; the cap below ends the loop
    else:
        limit = ("prlimit", "--as=700000000")
    installation.write_app(
        main="local kept = {} for i = 1, 64 do kept[i] = (tostring(i) .. ' '):rep(8000000) end error('all fitted')",
        shutdown="print('shutdown')",
    )

    outcome = installation.run(wrapper=limit)

    assert outcome.out == ""
    if limit:
        assert (outcome.status, outcome.err) == (4, "not enough memory\n")
        assert installation.log_lines("Error") == ["not enough memory"]
    else:
        assert outcome.status == 2


@pytest.mark.address_space
def test_exhaustion_while_preparing_is_an_error_of_lua(installation):
    installation.write_app(main="print(#arg)")
    words = 300000

    def run_within(mebibytes):
        # That many words do not fit through the limit of the stack that most callers have, nor onto this command line.
        script = f'ulimit -s unlimited; set -- "$@" -- $(yes argument | head -n {words}); ulimit -v {mebibytes << 10}; exec "$@"'
        return installation.run(wrapper=through_shell(script))

    # The first limit that is too low leaves enough for the main thread, which has fewer copies of the words.
    outcomes = (run_within(mebibytes) for mebibytes in range(400, 0, -16))
    outcome = next(outcome for outcome in outcomes if outcome.out != f"{words}\n")

    assert (outcome.status, outcome.err) == (4, "Error setting up Lua:\nnot enough memory\n")
    assert installation.log_lines("Error") == ["Error setting up Lua:\\nnot enough memory"]


@pytest.mark.address_space
def test_message_too_long_for_the_memory_is_shortened(installation):
    installation.write_app(main="error(('x'):rep(20e6) .. 'y')")

    for megabytes in range(160, 600, 40):
        outcome = installation.run(wrapper=("prlimit", f"--as={megabytes}000000"))

        (record,) = installation.log_lines("Error")
        installation.log_file().unlink()
        assert outcome.status == 2, (megabytes, outcome.status, outcome.err[:200])
        for text in (outcome.err, record):
            assert f"{installation.name}.lua:4: xxx" in text[:200], (megabytes, text[:200])
            assert f"in function '{installation.name}.main'" in text[-200:], (megabytes, text[-200:])
            assert len(text) > 20e6 or "bytes left out, memory is short" in text, (megabytes, len(text))


@pytest.mark.address_space
def test_exception_of_the_host_is_told(installation):
    """As many and as long names as no memory is for."""
    folder = installation.root
    while len(str(folder)) < 3600:
        folder /= "d" * 200
    os.makedirs(folder)
    for number in range(20):
        (folder / f"{number}.kxe").touch()
    installation.write_app()

    outcome = installation.run(
        *("-z", "$P;" * 1000), env={"P": f"{folder}/*.kxe"}, wrapper=("prlimit", "--as=400000000")
    )

    failure = 'std::exception of type "St9bad_alloc", what() = "std::bad_alloc"'
    assert (outcome.status, outcome.out) == (255, "")
    assert installation.log_lines("Error") == [f"The application has failed: {failure}"]


@pytest.mark.address_space
def test_work_goes_on_after_a_caught_exhaustion(installation):
    main = """
        local function lua_stack() return lua_stack() + 1 end
        local function c_stack(s) return (s:gsub('.', c_stack)) end
        for _ = 1, 20 do
            pcall(lua_stack) pcall(c_stack, 'x') pcall(string.rep, ('x'):rep(2^20), 2^31 - 1)
            collectgarbage()
        end
        print('still here')"""

    assert run_main(installation, main) == "still here\n"


@pytest.mark.parametrize("limit", ["unlimited", "1000000", "262144"])
def test_stack_of_the_caller_has_no_say(installation, limit):
    main = "local function f(s) return (s:gsub('.', f)) end print(pcall(f, 'x'))"

    assert run_main(installation, main, wrapper=("prlimit", f"--stack={limit}:unlimited")) == "false\tC stack overflow\n"


def test_handled_errors_are_not_told(installation):
    installation.write_app(main="pcall(error, 'handled') xpcall(error, print, 'shown') return 3")

    outcome = installation.run()

    assert (outcome.status, outcome.out, outcome.err) == (3, "shown\n", "\n")
    assert installation.log_lines("Error") == []


def test_failure_shows_once_on_a_terminal(installation):
    installation.write_app(main="error('seen once')")

    status, shown = installation.run_on_terminal()

    assert status == 2
    assert shown.count("seen once") == 1, shown


def test_record_of_the_application_shows_on_a_terminal(installation):
    installation.write_app(main="dom:Log('error', 'from the application')")

    status, shown = installation.run_on_terminal()

    assert status == 0
    assert shown.count("from the application") == 1, shown

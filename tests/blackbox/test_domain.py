"""The domain store as Lua applications see it."""

import time

import pytest


def evaluate(installation, *lines, words=()):
    """Runs the Lua `lines` as main; what they print with `show` is the answer, one text per call."""
    installation.write_app(
        top="""
            local function show(...)
              local words = {}
              for i = 1, select("#", ...) do
                local value = select(i, ...)
                words[i] = type(value) == "string" and ("%q"):format(value)
                  or type(value) == "number" and value == value and math.abs(value) < 2^1023
                    and (("%.17g"):format(value))
                  or tostring(value)
              end
              print(table.concat(words, " "))
            end""",
        main="\n".join(lines) + "\nreturn 0",
    )
    outcome = installation.run(*words)
    assert (outcome.status, outcome.err) == (0, "")
    return outcome.out.split("\n")[:-1]


# Writing and reading.


@pytest.mark.parametrize(
    "value",
    [
        '"text"',
        '""',
        '"größe 日本 😀"',
        '"a\\0b"',
        '"\\255\\254"',
        '" blanks "',
        '"true"',
        '"12"',
        "true",
        "false",
        "0",
        "-1",
        "42",
        "1.5",
        "-0.1",
        "1e300",
        "5e-324",
        "2^53",
        "2^53 - 1",
        "-2^53",
        "2^62",
        "-2^63",
        "2^63",
        "2^64",
        "math.huge",
        "-math.huge",
        '("x"):rep(1000000)',
        '(("x\\n"):rep(1000))',
    ],
)
def test_a_value_comes_back_in_its_own_kind(installation, value):
    shown = evaluate(
        installation,
        f"local value = {value}",
        'dom:Set("k", value)',
        'local got = dom:Get("k")',
        "show(type(got) == type(value), got == value, type(value) ~= 'string' and got)",
    )

    assert [line.split(" ")[:2] for line in shown] == [["true", "true"]]


def test_every_byte_comes_back(installation):
    shown = evaluate(
        installation,
        "local all = {} for i = 0, 255 do all[#all + 1] = string.char(i) end",
        "all = table.concat(all)",
        'dom:Set("k", all)',
        'show(dom:Get("k") == all)',
    )

    assert shown == ["true"]


def test_not_a_number_stays_one(installation):
    assert evaluate(installation, 'dom:Set("k", 0/0) local got = dom:Get("k") show(type(got), got ~= got)') == ['"number" true']


def test_negative_zero_is_a_zero(installation):
    assert evaluate(installation, 'dom:Set("k", -0.0) show(dom:Get("k") == 0)') == ["true"]


@pytest.mark.parametrize("first", ['"text"', "true", "7", "1.5"])
@pytest.mark.parametrize("second", ['"other"', "false", "8", "2.5"])
def test_a_write_replaces_value_and_kind(installation, first, second):
    shown = evaluate(installation, f'dom:Set("k", {first}) dom:Set("k", {second}) show(dom:Get("k") == {second}, #dom:Keys("k"))')

    assert shown == ["true 1"]


def test_absent_gives_the_default_or_nil(installation):
    shown = evaluate(
        installation,
        'show(dom:Get("absent"))',
        'show(select("#", dom:Get("absent")))',
        'show(dom:Get("absent", "default"), dom:Get("absent", 5), dom:Get("absent", false), dom:Get("absent", nil))',
        'local t = {} show(dom:Get("absent", t) == t)',
        'show(dom:Has("absent"))',
    )

    assert shown == ["nil", "1", '"default" 5 false nil', "true", "false"]


@pytest.mark.parametrize("value", ["false", "0", '""', "0/0"])
def test_a_default_does_not_replace_a_value(installation, value):
    shown = evaluate(installation, f'dom:Set("k", {value}) show(dom:Get("k", "default") == "default", dom:Has("k"))')

    assert shown == ["false true"]


def test_nil_removes_a_key(installation):
    shown = evaluate(
        installation,
        'dom:Set("k", 1) dom:Set("k.below", 2)',
        'dom:Set("k", nil)',
        'show(dom:Get("k"), dom:Has("k"), dom:Get("k.below"), #dom:Keys("k"))',
        'dom:Set("k", nil)',  # once more is no error
        'dom:Set("k", 3) show(dom:Get("k"))',
    )

    assert shown == ["nil false 2 1", "3"]


def test_keys_are_opaque(installation):
    shown = evaluate(
        installation,
        'for i, key in ipairs{"a", "A", "a.", ".a", ".", "a..b", "a b", "größe", "a/b", "%s%n", "=", ("k"):rep(10000)} do',
        "  dom:Set(key, i)",
        "end",
        'for i, key in ipairs{"a", "A", "a.", ".a", ".", "a..b", "a b", "größe", "a/b", "%s%n", "=", ("k"):rep(10000)} do',
        "  if dom:Get(key) ~= i then show(key, dom:Get(key)) end",
        "end",
        'show("compared")',
    )

    assert shown == ['"compared"']


def test_both_names_are_the_same_store(installation):
    shown = evaluate(
        installation,
        "show(rawequal(dom, dom0))",
        'dom:Set("k", 1) show(dom0:Get("k"))',
        "local kept = dom dom, dom0 = nil, nil collectgarbage() collectgarbage()",
        'show(kept:Get("k"))',
    )

    assert shown == ["true", "1", "1"]


def test_the_store_outlives_every_reference_from_lua(installation):
    installation.write_app(
        init="dom, dom0 = nil, nil collectgarbage() collectgarbage()", main="print('main runs')", shutdown="print('shutdown runs')"
    )

    outcome = installation.run("-t", "Appl")

    assert (outcome.status, outcome.out, outcome.err) == (0, "main runs\nshutdown runs\n", "")
    assert "Running app's Lua method 'shutdown'" in installation.log_text()


# Keys.


@pytest.mark.parametrize(
    ("prefix", "found"),
    [
        ('"k"', "k k.A k.a k.a.b k.é"),
        ('"k.a"', "k.a k.a.b"),
        ('"k.a.b"', "k.a.b"),
        ('"ka"', "ka"),
        ('"k.x"', ""),
        ('"K"', ""),
        ('"app.path.ini"', "app.path.ini app.path.ini.global"),
        ('"app.pat"', ""),
    ],
)
def test_keys_lists_the_prefix_and_what_lies_below_it_in_byte_order(installation, prefix, found):
    shown = evaluate(
        installation,
        'for _, key in ipairs{"k.é", "k.a.b", "ka", "k.a", "k", "k.A", "k-x", "k/x"} do dom:Set(key, true) end',
        f'show(table.concat(dom:Keys({prefix}), " "))',
    )

    assert shown == [f'"{found}"']


@pytest.mark.parametrize("argument", ["", '""', "nil"])
def test_keys_without_a_prefix_lists_all_in_byte_order(installation, argument):
    shown = evaluate(
        installation,
        'dom:Set("zz", 1) dom:Set("A", 1) dom:Set("é", 1) dom:Set("z.z", 1) dom:Set("z", 1)',
        f"local keys = dom:Keys({argument})",
        "local sorted = true for i = 2, #keys do sorted = sorted and keys[i - 1] < keys[i] end",
        "local found = {} for _, key in ipairs(keys) do found[key] = true end",
        'show(sorted, found["app.name"], found["app.trace+"], found.A, found["é"], found.z, keys[1], keys[#keys])',
        words=["-d", "x=1"],
    )

    assert shown == ['true true true true true true "A" "é"']


def test_keys_gives_a_new_array_every_time(installation):
    assert evaluate(installation, 'local keys = dom:Keys() keys[1] = nil show(dom:Keys()[1] ~= nil, #dom:Keys("absent"))') == ["true 0"]


def test_ten_thousand_keys_are_listed(installation):
    shown = evaluate(
        installation,
        'for i = 1, 10000 do dom:Set(("many.%05d"):format(i), i) end',
        'local keys = dom:Keys("many") show(#keys, keys[1], keys[10000])',
    )

    assert shown == ['10000 "many.00001" "many.10000"']


# The text of a value, as the host and the log see it.


@pytest.mark.parametrize(
    ("value", "text"),
    [
        ("true", "true"),
        ("false", "false"),
        ("0", "0"),
        ("-0.0", "0"),
        ("42", "42"),
        ("-7", "-7"),
        ("1e15", "1000000000000000"),
        ("2^53", "9007199254740992"),
        ("2^62", "4611686018427387904"),
        ("-2^63", "-9223372036854775808"),
        ("2^63", "9.2233720368548e+18"),
        ("-2^64", "-1.844674407371e+19"),
        ("1.5", "1.5"),
        ("0.1 + 0.2", "0.3"),
        ("1/3", "0.33333333333333"),
        ("1e300", "1e+300"),
        ("math.huge", "inf"),
        ("-math.huge", "-inf"),
        ('"text"', "text"),
        ('"größe"', "größe"),
        ('"%s%n"', "%s%n"),
        ("nil", ""),
    ],
)
def test_text_of_a_value(installation, value, text):
    shown = evaluate(installation, f'dom:Set("app.path.work", {value}) show(dom:GetPluginWorkdir("p"))')

    assert shown == [f'"{text}/p"']


@pytest.mark.parametrize(("value", "module"), [("true", "true"), ("42", "42"), ("1.5", "1.5"), ("2^62", "4611686018427387904")])
def test_a_trace_list_is_the_text_of_any_value(installation, value, module):
    shown = evaluate(installation, f'dom:Set("app.trace", {value}) show(dom:LogTraceIsEnabled("{module}"))')

    assert shown == ["true"]


# Work folders, time.


def test_work_folder_of_a_plugin_is_below_the_work_folder_and_not_created(installation):
    shown = evaluate(installation, 'show(dom:GetPluginWorkdir("größe"), dom:GetPluginWorkdir("a.b"), dom:GetPluginWorkdir("%s"))')

    assert shown == [f'"{installation.work}/größe" "{installation.work}/a.b" "{installation.work}/%s"']
    assert [path.name for path in installation.work.iterdir() if path.name != "log"] == []


def test_time_is_in_milliseconds_since_1970(installation):
    before = int(time.time() * 1000)
    (shown,) = evaluate(installation, "local now = dom:TimeNowMillis() show(now, math.floor(now) == now)")
    after = int(time.time() * 1000)

    now, is_whole = shown.split(" ")
    assert before <= int(now) <= after
    assert is_whole == "true"


# Logging.


@pytest.mark.parametrize(("level", "word"), [("error", "Error"), ("warning", "Warning"), ("message", "Message"), ("verbose", "Verbose")])
def test_log_levels(installation, level, word):
    evaluate(installation, f'show(select("#", dom:Log("{level}", "größe %s%n%d")))')

    assert installation.log_lines() == [f"{word}: größe %s%n%d"]


def test_an_empty_text_is_a_record(installation):
    evaluate(installation, 'dom:Log("error", "")')

    assert installation.log_lines() == ["Error: "]


# Argument errors.

BAD_CALLS = {
    "Get": ["dom:Get()", "dom:Get(nil)", "dom:Get({})", "dom:Get(print)", "dom:Get(true)", 'dom:Get("")', 'dom:Get("", "default")'],
    "Set": [
        "dom:Set()",
        'dom:Set("k")',
        "dom:Set(nil, 1)",
        "dom:Set({}, 1)",
        'dom:Set("", 1)',
        'dom:Set("", nil)',
        'dom:Set("k", {})',
        'dom:Set("k", print)',
        'dom:Set("k", io.stdout)',
        'dom:Set("k", coroutine.create(print))',
        'dom:Set("k", dom)',
    ],
    "Has": ["dom:Has()", "dom:Has(nil)", "dom:Has({})", 'dom:Has("")'],
    "Keys": ["dom:Keys({})", "dom:Keys(print)", "dom:Keys(true)"],
    "GetPluginWorkdir": ["dom:GetPluginWorkdir()", "dom:GetPluginWorkdir(nil)", "dom:GetPluginWorkdir({})"],
    "Log": [
        "dom:Log()",
        'dom:Log("error")',
        'dom:Log("error", nil)',
        'dom:Log("error", {})',
        'dom:Log(nil, "x")',
        'dom:Log({}, "x")',
        'dom:Log("nonsense", "x")',
        'dom:Log("", "x")',
        'dom:Log("Error", "x")',
        'dom:Log("error ", "x")',
        'dom:Log("%s", "x")',
    ],
    "LogTrace": ["dom:LogTrace()", 'dom:LogTrace("M")', 'dom:LogTrace("M", {})', 'dom:LogTrace(nil, "x")', 'dom:LogTrace({}, "x")'],
    "LogTraceIsEnabled": ["dom:LogTraceIsEnabled()", "dom:LogTraceIsEnabled(nil)", "dom:LogTraceIsEnabled({})"],
}

METHODS = [*BAD_CALLS, "TimeNowMillis"]

# In place of the object: what a dot for a colon, or a confused script, gives the method.
NO_STORES = ["", "nil", "1", '"k"', "{}", "io.stdout", "setmetatable({}, getmetatable(dom))", "getmetatable(dom)", "newproxy and newproxy() or 1"]

# A call that is the last act of a function leaves no trace of its name in Lua; one from C has none.
WAYS = {
    "statement": "pcall(function() local result = {call} return result end)",
    "tail_call": "pcall(function() return {call} end)",
    "coroutine": "coroutine.resume(coroutine.create(function() local result = {call} return result end))",
}


@pytest.mark.parametrize("way", WAYS.values(), ids=WAYS)
@pytest.mark.parametrize("method", BAD_CALLS)
def test_a_wrong_argument_is_an_error_that_names_the_method(installation, method, way):
    calls = BAD_CALLS[method]

    shown = evaluate(
        installation,
        'dom:Set("k", "before")',
        *[f"print({way.format(call=call)})" for call in calls],
        'show(dom:Get("k"))',
        words=["-t", "M"],
    )

    assert shown[-1] == '"before"'
    for call, line in zip(calls, shown, strict=False):
        assert line.startswith("false\t"), (call, line)
        assert f"'{method}'" in line, (call, line)
        assert "argument #" in line, (call, line)
    assert len(shown) == len(calls) + 1
    assert [line for line in installation.log_lines() if not line.startswith("Trace: Appl")] == []


@pytest.mark.parametrize("method", METHODS)
def test_a_method_called_on_something_else_is_an_error_that_names_it(installation, method):
    calls = [f"dom.{method}({no_store})" for no_store in NO_STORES]

    shown = evaluate(
        installation,
        *[f"print({way.format(call=call)})" for call in calls for way in WAYS.values()],
        *[f"print(pcall(dom.{method}{', ' if no_store else ''}{no_store}))" for no_store in NO_STORES],
    )

    for line in shown:
        assert line.startswith("false\t"), line
        assert f"'{method}'" in line, line
    assert len(shown) == len(NO_STORES) * 4


def test_an_error_of_a_method_can_be_caught_and_the_store_is_usable_again(installation):
    shown = evaluate(
        installation,
        "for i = 1, 10000 do pcall(dom.Get) pcall(dom.Set, dom, {}, {}) pcall(dom.Log, dom, 'x', 'y') end",
        'dom:Set("k", 1) show(dom:Get("k"))',
    )

    assert shown == ["1"]


def test_an_unknown_method_is_nil_and_the_class_cannot_be_damaged_by_asking(installation):
    shown = evaluate(installation, "show(dom.NoSuchMethod, dom[1], dom[true])", "show(pcall(function() dom:NoSuchMethod() end))")

    assert shown[0] == "nil nil nil"
    assert shown[1].startswith("false ")


@pytest.mark.parametrize("arguments", ["dom", "", "nil", "{}", "io.stdout"], ids=lambda text: text or "nothing")
def test_running_the_objects_finalizer_by_hand_destroys_nothing(installation, arguments):
    shown = evaluate(
        installation,
        f"for i = 1, 2 do pcall(function() getmetatable(dom).__gc({arguments}) end) end",
        'show(dom:Get("app.version"), io.type(io.stdout))',
    )

    assert shown == ['"11.0.0.2580" "file"']

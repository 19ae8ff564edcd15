"""What `require` finds, where, in which order, and what it says when it does not."""

import io
import os
import random
import subprocess
import zipfile

import pytest

from agentbox import UNPRIVILEGED, stock_lua, write_archive


def put(installation, name, entries):
    """An archive `name` beside the executable."""
    return write_archive(installation.bin / name, entries)


def run_main(installation, main, *words, status=0, **options):
    """Runs `main` with the module folder and the given words; gives what it printed."""
    installation.write_app(main=main)
    outcome = installation.run(*words, **options)
    assert outcome.status == status, (outcome, installation.log_text())
    return outcome.out


def lines_of(text):
    return text.rstrip("\n").split("\n")


WHO = "print(require('{}').who)"


def who(text):
    return f"return {{ who = '{text}' }}\n"


def compiled(text):
    """The bytes of `text` as a precompiled chunk."""
    dumped = subprocess.run(
        ["lua5.2", "-e", "io.write(string.dump(assert(load(io.read('*a')))))"], input=text.encode(), capture_output=True, check=True
    )
    assert dumped.stdout.startswith(b"\x1bLua")
    return dumped.stdout


# Order


def test_searchers_in_order(installation):
    # The system's "lfs" is a C module; each step puts something in front of the one before.
    found = "print(type(require('lfs')) == 'table' and (require('lfs').who or 'C'))"
    assert run_main(installation, found) == "C\n"

    put(installation, "x.kxe", {"lfs.lua": who("archive")})
    assert run_main(installation, found, "-z", "x.kxe") == "archive\n"

    installation.write_module("lfs", who("file"))
    assert run_main(installation, found, "-z", "x.kxe") == "file\n"

    preloaded = "package.preload.lfs = function() return { who = 'preload' } end "
    assert run_main(installation, preloaded + found, "-z", "x.kxe") == "preload\n"


def test_archive_searcher_stands_behind_the_file_searcher(installation):
    put(installation, "x.kxe", {"one.lua": who("archive")})
    main = """
        local counts = {}
        for position, searcher in ipairs(package.searchers) do
            local found = searcher('one')
            if type(found) == 'function' then counts[#counts + 1] = position end
        end
        print(#package.searchers, table.concat(counts, ','))"""

    assert run_main(installation, main, "-z", "x.kxe") == "5\t3\n"


@pytest.mark.parametrize("order, wanted", [("a.kxe;b.kxe", "a"), ("b.kxe;a.kxe", "b")])
def test_first_archive_wins(installation, order, wanted):
    put(installation, "a.kxe", {"shared.lua": who("a")})
    put(installation, "b.kxe", {"shared.lua": who("b")})

    assert run_main(installation, WHO.format("shared"), "-z", order) == f"{wanted}\n"


def test_core_archives_win_over_the_given_ones(installation):
    installation.write_core_archive(installation.name, {"shared.lua": who("core")})
    put(installation, "a.kxe", {"shared.lua": who("given")})

    assert run_main(installation, WHO.format("shared"), "-z", "a.kxe") == "core\n"


def test_application_module_out_of_its_core_archive(installation):
    installation.write_core_archive(installation.name, {f"{installation.name}.lua": "return { main = function() print('archived') end }"})

    outcome = installation.run(lua_path=False)

    assert (outcome.status, outcome.out, outcome.err) == (0, "archived\n", "")


def test_earlier_init_wins_over_a_later_archive(installation):
    put(installation, "a.kxe", {"pack/init.lua": who("init in a")})
    put(installation, "b.kxe", {"pack.lua": who("file in b")})

    assert run_main(installation, WHO.format("pack"), "-z", "a.kxe;b.kxe") == "init in a\n"


@pytest.mark.parametrize(
    "entries, module, wanted",
    [
        ({"pack.lua": "plain", "pack/init.lua": "init"}, "pack", "plain"),
        ({"pack/init.lua": "init", "pack.lua": "plain"}, "pack", "plain"),
        ({"pack/init.lua": "init"}, "pack", "init"),
        ({"a/b.lua": "plain", "a/b/init.lua": "init"}, "a.b", "plain"),
        ({"a/b/init.lua": "init"}, "a.b", "init"),
        ({"a/b/c/d/e.lua": "deep"}, "a.b.c.d.e", "deep"),
        ({"gr\u00fc\u00dfe.lua": "text"}, "gr\u00fc\u00dfe", "text"),
        ({"with blank.lua": "blank"}, "with blank", "blank"),
        ({"100%s%d.lua": "percent"}, "100%s%d", "percent"),
        ({"a-b_c+d.lua": "signs"}, "a-b_c+d", "signs"),
        ({"a?b;c.lua": "template"}, "a?b;c", "template"),
        ({"[x]*.lua": "pattern"}, "[x]*", "pattern"),
        ({"init.lua": "top"}, "init", "top"),
    ],
)
def test_entry_of_a_module(installation, entries, module, wanted):
    put(installation, "x.kxe", {name: who(text) for name, text in entries.items()})

    assert run_main(installation, WHO.format(module), "-z", "x.kxe") == f"{wanted}\n"


@pytest.mark.filterwarnings("ignore:Duplicate name")
def test_of_duplicate_entries_the_last_one_counts(installation):
    with zipfile.ZipFile(installation.bin / "x.kxe", "w") as archive:
        for text in ("first", "second", "third"):
            archive.writestr("twice.lua", who(text))

    assert run_main(installation, WHO.format("twice"), "-z", "x.kxe") == "third\n"


def test_folder_entry_is_no_module(installation):
    put(installation, "x.kxe", {"pack.lua/": "", "pack.lua/x.lua": who("inner")})

    out = run_main(installation, "print((pcall(require, 'pack')))", "-z", "x.kxe")

    assert out == "false\n"


def test_names_are_case_sensitive(installation):
    put(installation, "x.kxe", {"Pack.lua": who("upper")})

    assert run_main(installation, "print((pcall(require, 'pack')), require('Pack').who)", "-z", "x.kxe") == "false\tupper\n"


def test_module_loads_once(installation):
    put(installation, "x.kxe", {"once.lua": "print('loading') return {}"})

    assert run_main(installation, "print(require('once') == require('once'))", "-z", "x.kxe") == "loading\ntrue\n"


def test_every_archive_of_many_is_searched(installation):
    names = [f"{number:03}.kxe" for number in range(200)]
    for name in names:
        put(installation, name, {f"m{name[:3]}.lua": who(name)})

    main = "for i = 0, 199 do local n = ('%03d'):format(i) assert(require('m' .. n).who == n .. '.kxe') end print('all')"

    assert run_main(installation, main, "-z", ";".join(names)) == "all\n"


def test_more_archives_than_descriptors(installation):
    names = [f"{number:03}.kxe" for number in range(300)]
    for name in names:
        put(installation, name, {f"m{name[:3]}.lua": who(name)})

    out = run_main(
        installation,
        "for i = 0, 299 do assert(require(('m%03d'):format(i)).who) end print(io.open('more.txt', 'w') ~= nil)",
        "-z",
        ";".join(names),
        wrapper=("prlimit", "--nofile=200"),
    )

    assert out == "true\n"


# What a chunk is called, and gets


def test_chunk_name_and_arguments(installation):
    archive = put(installation, "x.kxe", {"a/b.lua": "print(select('#', ...)) print(...) print(debug.getinfo(1, 'S').source)"})

    out = run_main(installation, "require('a.b')", "-z", "x.kxe")

    assert lines_of(out) == ["2", f"a.b\t{archive}/a/b.lua", f"@{archive}/a/b.lua"]


def test_chunk_name_of_an_init(installation):
    archive = put(installation, "x.kxe", {"a/init.lua": "print((select(2, ...))) print(debug.getinfo(1, 'S').source)"})

    out = run_main(installation, "require('a')", "-z", "x.kxe")

    assert lines_of(out) == [f"{archive}/a/init.lua", f"@{archive}/a/init.lua"]


def test_error_shows_archive_entry_and_line(installation):
    archive = put(installation, "x.kxe", {"bad.lua": "\n\nerror('here')\n"})

    out = run_main(installation, "print(select(2, pcall(require, 'bad')))", "-z", "x.kxe")

    assert out.endswith("/bad.lua:3: here\n"), out
    # Lua shortens long chunk names from the front.
    assert str(archive).endswith(out.split("/bad.lua")[0].removeprefix("...")), out


def test_syntax_error_shows_archive_entry_and_line(installation):
    archive = put(installation, "x.kxe", {"bad.lua": "local a = 1\nlocal = 2\n"})

    out = run_main(installation, "print(select(2, pcall(require, 'bad')))", "-z", "x.kxe")

    assert f"{archive}/bad.lua" in out and "bad.lua:2:" in out, out


def test_module_returning_nothing_is_true(installation):
    put(installation, "x.kxe", {"empty.lua": "", "nothing.lua": "local a = 1"})

    assert run_main(installation, "print(require('empty'), require('nothing'))", "-z", "x.kxe") == "true\ttrue\n"


# Marks at the beginning

START_CASES = [
    (b"\xef\xbb\xbferror('x')\n", 1),
    (b"#!/usr/bin/env lua\nerror('x')\n", 2),
    (b"\xef\xbb\xbf#!/usr/bin/env lua\nerror('x')\n", 2),
    (b"# remark\n\n\nerror('x')\n", 4),
    (b"#\nerror('x')\n", 2),
    (b"#!x\r\nerror('x')\n", 2),
    (b"\nerror('x')\n", 2),
    (b"error('x')", 1),
]


@pytest.mark.parametrize("content, line", START_CASES, ids=range(len(START_CASES)))
@pytest.mark.parametrize("place", ["archive", "file"])
def test_marks_at_the_beginning_are_skipped_and_lines_still_count(installation, place, content, line):
    if place == "archive":
        put(installation, "x.kxe", {"marked.lua": content})
    else:
        installation.write_module("marked", content)
        put(installation, "x.kxe", {})

    out = run_main(installation, "print(select(2, pcall(require, 'marked')))", "-z", "x.kxe")

    assert out.endswith(f"marked.lua:{line}: x\n"), out


@pytest.mark.parametrize("content", [b"", b"#", b"# only a remark", b"\xef\xbb\xbf", b"\xef\xbb\xbf#", b"\n", b"#\n"], ids=range(7))
@pytest.mark.parametrize("place", ["archive", "file"])
def test_nothing_but_marks_is_an_empty_module(installation, place, content):
    if place == "archive":
        put(installation, "x.kxe", {"marked.lua": content})
    else:
        installation.write_module("marked", content)
        put(installation, "x.kxe", {})

    assert run_main(installation, "print(require('marked'))", "-z", "x.kxe") == "true\n"


@pytest.mark.parametrize("content", [b"return '\x00'", b"return '\xff\xfe'", b"return [[\r\n]]", b"return " + b"1 +" * 150 + b"1", b"--" + b"x" * 500000 + b"\nreturn 1"], ids=range(5))
@pytest.mark.parametrize("place", ["archive", "file"])
def test_odd_bytes_reach_lua_as_they_are(installation, place, content):
    if place == "archive":
        put(installation, "x.kxe", {"odd.lua": content})
    else:
        installation.write_module("odd", content)
        put(installation, "x.kxe", {})
    show = "local v = %s if type(v) == 'string' then v = v:gsub('.', function(c) return c:byte() .. ' ' end) end print((v))"
    (installation.root / "odd.lua").write_bytes(content)

    wanted = stock_lua(show % f"dofile('{installation.root}/odd.lua')")

    assert run_main(installation, show % "require('odd')", "-z", "x.kxe") == wanted.out


# Precompiled chunks


@pytest.mark.parametrize("before", [b"", b"\xef\xbb\xbf", b"# remark\n", b"\xef\xbb\xbf# remark\n"], ids=["bare", "mark", "remark", "both"])
@pytest.mark.parametrize("place", ["archive", "file"])
def test_precompiled_module_is_refused(installation, place, before):
    content = before + compiled("print('executed')")
    if place == "archive":
        put(installation, "x.kxe", {"binary.lua": content})
    else:
        installation.write_module("binary", content)
        put(installation, "x.kxe", {})

    out = run_main(installation, "print(pcall(require, 'binary'))", "-z", "x.kxe")

    assert out.startswith("false\t") and "executed" not in out, out
    assert "binary.lua" in out, out


def test_precompiled_application_is_refused(installation):
    installation.write_module(installation.name, compiled("return { main = function() print('executed') end }"))

    outcome = installation.run()

    assert (outcome.status, outcome.out) == (2, "")
    assert f"{installation.name}.lua" in outcome.err, outcome


def test_precompiled_test_driver_is_refused(installation):
    installation.write_app()
    installation.write_module("tests.velunit", compiled("return function() print('executed') return 0 end"))

    outcome = installation.run("-u", "*.lua")

    assert (outcome.status, outcome.out) == (2, "")
    assert "velunit.lua" in outcome.err, outcome


def test_load_takes_precompiled_chunks_as_ever(installation):
    assert run_main(installation, "print(load(string.dump(function() return 'mine' end))())") == "mine\n"


@pytest.mark.parametrize("call", ["dofile({})", "loadfile({})()", "loadfile({}, 'b')()"])
def test_files_that_the_application_loads_may_be_precompiled(installation, call):
    (installation.root / "rules.luac").write_bytes(compiled("return 'mine'"))

    assert run_main(installation, f"print({call.format(repr(f'{installation.root}/rules.luac'))})") == "mine\n"


def test_modes_of_loadfile_are_those_of_lua(installation):
    (installation.root / "rules.luac").write_bytes(compiled("return 'mine'"))

    out = run_main(installation, f"print(loadfile('{installation.root}/rules.luac', 't'))")

    assert out == "nil\tattempt to load a binary chunk (mode is 't')\n"


def test_precompiled_file_of_a_searched_path_is_refused_as_all_files(installation):
    (installation.bin / "beside.lua").write_bytes(compiled("print('executed')"))

    out = run_main(installation, "print(pcall(require, 'beside'))")

    assert out.startswith("false\t") and "executed" not in out, out


# Not found


def test_not_found_lists_every_place(installation):
    archives = [put(installation, f"{name}.kxe", {"other.lua": ""}) for name in "abc"]

    out = run_main(installation, "print(select(2, pcall(require, 'no.such')))", "-z", "a.kxe;b.kxe;c.kxe")

    shown = lines_of(out)
    assert shown[0] == "module 'no.such' not found:"
    assert "\tno field package.preload['no.such']" in shown
    assert f"\tno file '{installation.lua}/no/such.lua'" in shown
    assert f"\tno file '{installation.bin}/no/such.lua'" in shown
    assert f"\tno file '{installation.bin}/no/such/init.lua'" in shown
    for archive in [*archives, installation.bin / "vel_core" / "vel.kxe"]:
        assert len([line for line in shown if str(archive) in line]) == 1, (archive, shown)
    assert all(line.startswith("\t") for line in shown[1:]), shown


def test_not_found_lists_every_archive_that_was_left_out_with_its_reason(installation):
    folder = installation.root / "ext"
    folder.mkdir()
    contents = {
        "none": None,
        "noline": "something: else\n",
        "odd": "version: eleven\n",
        "old": "version: 10.5.0-1\n",
        "fits": "version: 11.0.0-1\n",
    }
    for name, version in contents.items():
        write_archive(folder / f"{name}.kxe", {"other.lua": ""})
        if version:
            (folder / f"{name}.kxe.version").write_text(version)
    damaged = put(installation, "damaged.kxe", {"other.lua": ""})
    damaged.write_bytes(b"no archive")

    out = run_main(installation, "print(select(2, pcall(require, 'no.such')))", "-e", folder, "-z", f"damaged.kxe;{installation.bin}/missing.kxe")

    skipped = sorted(line for line in lines_of(out) if "' skipped: " in line)
    assert skipped == sorted(
        [
            f"\tarchive '{damaged}' skipped: not a ZIP archive: no end-of-directory record",
            f"\tarchive '{installation.bin}/missing.kxe' skipped: there is no such file",
            f"\tarchive '{folder}/none.kxe' skipped: it has no '.version' file",
            f"\tarchive '{folder}/noline.kxe' skipped: its '.version' file has no 'version:' line",
            f"\tarchive '{folder}/odd.kxe' skipped: the 'version:' line of its '.version' file is not properly formatted",
            f"\tarchive '{folder}/old.kxe' skipped: its version (10.5.0) doesn't match ours (11.0.0)",
        ]
    )
    assert f"\tno module 'no.such' in archive '{folder}/fits.kxe'" in lines_of(out)


@pytest.mark.parametrize(
    "name",
    ["''", "'.'", "'..'", "'...'", "'a..b'", "'../x'", "'/etc/passwd'", "'a/b'", "'a\\\\b'", "'a\\0b'", "'\\0'", "'%s%n'", "'?'", "';'", "' '",
     "('x'):rep(100000)", "('a.'):rep(5000)", "'\\xff\\xfe'", "'a\\nb'", "5", "'*'", "'C:/x'"],
)
def test_odd_name_is_just_not_found(installation, name):
    put(installation, "x.kxe", {"some.lua": "", "a\x20b.lua": ""})

    out = run_main(installation, f"local ok, text = pcall(require, {name}) print(ok, text:match('^module .- not found:') ~= nil)", "-z", "x.kxe")

    assert out == "false\ttrue\n"


@pytest.mark.parametrize("argument", ["", "nil", "{}", "true", "print"])
def test_wrong_argument_is_an_error(installation, argument):
    call = f"print(pcall(require{',' if argument else ''} {argument}))"

    # Lua finds one of the function's two names, by chance.
    assert run_main(installation, call).replace("_G.", "") == stock_lua(call).out.replace("_G.", "")


def test_missing_module_named_on_standard_error_and_in_the_log(installation):
    installation.write_app(main="require('no.such')")

    outcome = installation.run()

    assert outcome.status == 2
    assert "module 'no.such' not found:" in outcome.err
    assert len([text for text in installation.log_lines("Error") if "module 'no.such' not found:" in text]) == 1


# Bad archives


def bad_archive(installation, kind):
    path = installation.bin / "bad.kxe"
    whole = put(installation, "whole.zip", {f"m{i}.lua": who("in bad") * 50 for i in range(20)}).read_bytes()
    if kind == "directory":
        path.mkdir()
    elif kind == "fifo":
        os.mkfifo(path)
    elif kind == "dangling":
        path.symlink_to("nowhere")
    elif kind == "device":
        path.symlink_to("/dev/zero")
    elif kind != "missing":
        path.write_bytes(
            {
                "zero byte": b"",
                "text": b"this is no archive\n" * 100,
                "truncated": whole[: len(whole) // 2],
                "last byte missing": whole[:-1],
                "end record alone": whole[-22:],
                "first bytes alone": whole[:4],
                "random": bytes((i * 167 + 13) % 256 for i in range(5000)),
                "directory overwritten": whole[: len(whole) - 200] + b"\xff" * 150 + whole[len(whole) - 50 :],
            }[kind]
        )
    return path


@pytest.mark.parametrize(
    "kind",
    ["zero byte", "text", "truncated", "last byte missing", "end record alone", "first bytes alone", "random", "directory overwritten",
     "fifo", "directory", "missing", "dangling", "device"],
)
def test_unreadable_archive_is_reported_once_and_skipped(installation, kind):
    bad = bad_archive(installation, kind)
    good = put(installation, "good.kxe", {"one.lua": who("one"), "two.lua": who("two")})
    for core in (installation.bin / "vel_core").iterdir():
        core.unlink()

    # With no archive found by itself, the given list stays, whatever it names.
    out = run_main(
        installation,
        "print(require('one').who, require('two').who, (pcall(require, 'three')), (pcall(require, 'four')))",
        "-d", f"app.lua.zippath={bad};{good}",
    )

    assert out == "one\ttwo\tfalse\tfalse\n"
    reports = [text for text in installation.log_lines("Error") if str(bad) in text]
    assert len(reports) == 1, installation.log_lines()
    assert len(reports[0].replace(str(bad), "").strip(" :.'\"")) > 10, f"no reason given: {reports[0]}"


@pytest.mark.parametrize("kind", ["fifo", "text", "device"])
def test_bad_archive_named_on_the_command_line_is_reported_once(installation, kind):
    bad = bad_archive(installation, kind)
    put(installation, "good.kxe", {"one.lua": who("one")})

    assert run_main(installation, WHO.format("one"), "-z", "bad.kxe;good.kxe") == "one\n"
    assert len([text for text in installation.log_lines("Error") if str(bad) in text]) == 1, installation.log_lines()


def test_bad_archive_that_is_listed_twice_is_reported_once(installation):
    bad = bad_archive(installation, "text")

    run_main(installation, "pcall(require, 'one') pcall(require, 'two')", "-z", "bad.kxe;bad.kxe")

    assert len([text for text in installation.log_lines("Error") if str(bad) in text]) == 1, installation.log_lines()


def test_archive_without_permission_is_reported_once_and_skipped(open_installation):
    bad, good = put(open_installation, "bad.kxe", {"one.lua": who("bad")}), put(open_installation, "good.kxe", {"one.lua": who("good")})
    bad.chmod(0)
    for core in (open_installation.bin / "vel_core").iterdir():
        core.unlink()

    out = run_main(open_installation, WHO.format("one"), "-d", f"app.lua.zippath={bad};{good}", wrapper=UNPRIVILEGED)

    assert out == "good\n"
    reports = [text for text in open_installation.log_lines("Error") if str(bad) in text]
    assert len(reports) == 1 and "ermission denied" in reports[0], open_installation.log_lines()


def test_good_archives_are_not_reported(installation):
    put(installation, "good.kxe", {"one.lua": who("one")})
    put(installation, "empty.kxe", {})

    assert run_main(installation, WHO.format("one"), "-z", "empty.kxe;good.kxe") == "one\n"
    assert installation.log_lines("Error") == []
    assert installation.log_lines("Warning") == []


def damage(path, entry, offset=0, change=0xFF):
    """Flips a byte of the stored bytes of `entry`."""
    with zipfile.ZipFile(path) as archive:
        info = archive.getinfo(entry)
    content = bytearray(path.read_bytes())
    header = info.header_offset
    body = header + 30 + int.from_bytes(content[header + 26 : header + 28], "little") + int.from_bytes(content[header + 28 : header + 30], "little")
    content[body + offset] ^= change
    path.write_bytes(content)


@pytest.mark.parametrize("offset, change", [(0, 0xFF), (5, 0x01), (20, 0x80), (-35, 0xFF), (-20, 0x01)])
def test_damaged_entry_is_an_error_naming_archive_and_entry(installation, offset, change):
    text = "return '" + "".join(chr(97 + (i * i) % 26) for i in range(3000)) + "'\n"
    bad = put(installation, "bad.kxe", {"hurt.lua": text, "well.lua": who("well")})
    put(installation, "good.kxe", {"hurt.lua": who("another")})
    damage(bad, "hurt.lua", offset, change)

    out = run_main(installation, "print(pcall(require, 'hurt')) print(pcall(require, 'hurt')) print(require('well').who)", "-z", "bad.kxe;good.kxe")

    shown = lines_of(out)
    assert shown[-1] == "well"
    errors = [line for line in shown if line.startswith("false\t")]
    assert len(errors) == 2 and "true" not in out, out
    assert out.count(str(bad)) >= 2 and out.count("hurt.lua") >= 2, out


def test_stored_entry_with_a_wrong_checksum_is_damaged(installation):
    with zipfile.ZipFile(installation.bin / "bad.kxe", "w", zipfile.ZIP_STORED) as archive:
        archive.writestr("hurt.lua", "return 'original'\n")
    damage(installation.bin / "bad.kxe", "hurt.lua", 9, 0x01)

    out = run_main(installation, "print(pcall(require, 'hurt'))", "-z", "bad.kxe")

    assert out.startswith("false\t") and f"{installation.bin}/bad.kxe" in out and "hurt.lua" in out, out


def test_size_that_is_a_lie_is_damage(installation):
    bad = put(installation, "bad.kxe", {"hurt.lua": "return 'x'" + " " * 5000})
    content = bad.read_bytes()
    directory = content.rindex(b"PK\x01\x02")
    bad.write_bytes(content[: directory + 24] + (4_000_000_000).to_bytes(4, "little") + content[directory + 28 :])

    out = run_main(installation, "print(pcall(require, 'hurt'))", "-z", "bad.kxe")

    assert out.startswith("false\t") and str(bad) in out and "hurt.lua" in out, out


@pytest.mark.parametrize(
    "field, offset",
    [("method", 8), ("checksum", 14), ("compressed size", 18), ("size", 22), ("name length", 26), ("name", 30)],
)
def test_local_header_that_contradicts_the_directory_is_damage(installation, field, offset):
    bad = put(installation, "bad.kxe", {"hurt.lua": who("hurt"), "well.lua": who("well")})
    content = bytearray(bad.read_bytes())
    content[offset] ^= 1
    bad.write_bytes(content)

    out = run_main(installation, "print(pcall(require, 'hurt')) print(require('well').who)", "-z", "bad.kxe")

    assert out.startswith("false\t") and str(bad) in out and "hurt.lua" in out and out.endswith("\nwell\n"), (field, out)


@pytest.mark.parametrize("seed", range(4))
def test_archives_with_random_damage_never_end_the_run(installation, seed):
    random_numbers = random.Random(seed)
    names = []
    for number in range(100):
        text = "".join(chr(97 + random_numbers.randrange(26)) for _ in range(random_numbers.randrange(400)))
        path = put(installation, f"{number}.kxe", {f"m{i}.lua": who("any") + "-- " + text for i in range(5)})
        content = bytearray(path.read_bytes())
        for _ in range(random_numbers.choice([1, 2, 5, 20])):
            # Half of the damage falls on the last bytes, where the directory is.
            reach = len(content) if random_numbers.random() < 0.5 else 100
            content[-1 - random_numbers.randrange(min(reach, len(content)))] = random_numbers.randrange(256)
        path.write_bytes(content)
        names.append(path.name)
    main = """
        for _ = 1, 100 do
            for i = 0, 4 do package.loaded['m' .. i] = nil pcall(require, 'm' .. i) end
        end
        print('still here')"""

    for searched in (names, names[::-1]):
        assert run_main(installation, main, "-z", ";".join(searched)) == "still here\n"


@pytest.mark.parametrize("method", [zipfile.ZIP_BZIP2, zipfile.ZIP_LZMA])
def test_unsupported_method_is_an_error(installation, method):
    with zipfile.ZipFile(installation.bin / "bad.kxe", "w", method) as archive:
        archive.writestr("hurt.lua", who("packed") * 20)

    out = run_main(installation, "print(pcall(require, 'hurt'))", "-z", "bad.kxe")

    assert out.startswith("false\t") and "bad.kxe" in out and "hurt.lua" in out, out


def test_encrypted_entry_is_an_error(installation):
    bad = put(installation, "bad.kxe", {"hurt.lua": who("secret")})
    content = bytearray(bad.read_bytes())
    content[content.rindex(b"PK\x01\x02") + 8] |= 1
    content[6] |= 1
    bad.write_bytes(content)

    out = run_main(installation, "print(pcall(require, 'hurt'))", "-z", "bad.kxe")

    assert out.startswith("false\t") and "bad.kxe" in out and "hurt.lua" in out, out


# Kinds of archives


class OneWay(io.RawIOBase):
    """A file that cannot seek: what is written to it is a streamed archive."""

    def __init__(self, file):
        super().__init__()
        self.file = file

    def writable(self):
        return True

    def write(self, data):
        return self.file.write(data)

    def seek(self, *unused):
        raise io.UnsupportedOperation("seek")

    def tell(self):
        raise io.UnsupportedOperation("tell")


@pytest.mark.parametrize("method", [zipfile.ZIP_STORED, zipfile.ZIP_DEFLATED])
@pytest.mark.parametrize("zip64", [False, True])
@pytest.mark.parametrize("streamed", [False, True])
def test_kind_of_archive(installation, method, zip64, streamed):
    with open(installation.bin / "x.kxe", "wb") as file:
        with zipfile.ZipFile(OneWay(file) if streamed else file, "w", method) as archive:
            for name in ("a/b.lua", "c.lua"):
                with archive.open(zipfile.ZipInfo(name), "w", force_zip64=zip64) as entry:
                    entry.write((who(name) + "-- filler\n" * 1000).encode())

    assert run_main(installation, "print(require('a.b').who, require('c').who)", "-z", "x.kxe") == "a/b.lua\tc.lua\n"


@pytest.mark.parametrize("before, after", [(b"#!/bin/sh\nexit 1\n", b""), (b"", b"trailing"), (b"", b"\0" * 5000)], ids=["before", "after", "zeros"])
def test_junk_around_an_archive(installation, before, after):
    path = put(installation, "x.kxe", {"c.lua": who("c")})
    path.write_bytes(before + path.read_bytes() + after)

    assert run_main(installation, WHO.format("c"), "-z", "x.kxe") == "c\n"


def test_archive_with_a_remark(installation):
    with zipfile.ZipFile(installation.bin / "x.kxe", "w") as archive:
        archive.writestr("c.lua", who("c"))
        archive.comment = b"remark PK\x05\x06 in the remark " * 20

    assert run_main(installation, WHO.format("c"), "-z", "x.kxe") == "c\n"


def test_more_entries_than_sixteen_bits_count(installation):
    with zipfile.ZipFile(installation.bin / "x.kxe", "w") as archive:
        for number in range(66000):
            archive.writestr(zipfile.ZipInfo(f"f/{number}.lua"), "return %d" % number)

    assert run_main(installation, "print(require('f.0'), require('f.65999'))", "-z", "x.kxe") == "0\t65999\n"


# Archives that change while the process runs

CHANGES = {
    "replaced": "assert(os.rename('{new}', '{old}'))",
    "removed": "assert(os.remove('{old}'))",
    "truncated": "assert(io.open('{old}', 'wb')):close()",
    "cut short": "local f = assert(io.open('{old}', 'rb')) local all = f:read('*a') f:close() f = assert(io.open('{old}', 'wb')) f:write(all:sub(1, 200)) f:close()",
    "overwritten": "local f = assert(io.open('{old}', 'r+b')) f:write(('\\255'):rep(2000)) f:close()",
    "rewritten": "local n = assert(io.open('{new}', 'rb')) local all = n:read('*a') n:close() local f = assert(io.open('{old}', 'wb')) f:write(all) f:close()",
    "grown": "local f = assert(io.open('{old}', 'ab')) f:write(('x'):rep(100000)) f:close()",
}


@pytest.mark.parametrize("change", CHANGES)
@pytest.mark.parametrize("used_before", [True, False])
def test_archive_changed_while_in_use(installation, change, used_before):
    filler = "".join(chr(97 + (i * i * 7 + i) % 26) for i in range(20000))
    old = put(installation, "old.kxe", {f"m{i}.lua": who(f"old{i}") + f"-- {filler[i * 100:i * 100 + 2000]}" for i in range(20)})
    new = put(installation, "new.zip", {f"m{i}.lua": who(f"new{i}") for i in range(20)})
    main = f"""
        {"assert(require('m0').who == 'old0')" if used_before else ""}
        {CHANGES[change].format(old=old, new=new)}
        for i = 1, 19 do
            local ok, result = pcall(require, 'm' .. i)
            print(ok and result.who or type(result))
        end"""

    shown = lines_of(run_main(installation, main, "-z", "old.kxe"))

    # Replacing and removing leave the file that is in use alone.
    undisturbed = used_before and change in ("replaced", "removed", "grown")
    allowed = [{f"old{i}"} if undisturbed else {f"old{i}", "string"} for i in range(1, 20)]
    if not used_before:
        allowed = [ways | {f"new{i}"} for i, ways in enumerate(allowed, 1)]
    assert len(shown) == 19 and all(line in ways for line, ways in zip(shown, allowed)), shown


# Paths


def default_paths():
    shown = stock_lua("print(package.path) print(package.cpath)").out.split("\n")
    return [";".join(part for part in line.split(";") if part.startswith("/")) for line in shown[:2]]


@pytest.mark.parametrize(
    "words, path, cpath",
    [
        ((), "", ""),
        (("-l", "/some/?.lua"), "/some/?.lua;", ""),
        (("-l", "/some/?.lua;/other/?/x.lua"), "/some/?.lua;/other/?/x.lua;", ""),
        (("-c", "/some/?.so"), "", "/some/?.so;"),
        (("-l", "/l/?.lua", "-c", "/c/?.so"), "/l/?.lua;", "/c/?.so;"),
        (("-p", "x,y", "-l", "/l/@/?.lua", "-c", "/c/@.so"), "/l/x/?.lua;/l/y/?.lua;", "/c/x.so;/c/y.so;"),
        (("-l", "", "-c", ""), "", ""),
        (("-d", "app.lua.path=/set/?.lua"), "/set/?.lua;", ""),
    ],
    ids=range(8),
)
def test_composition_of_the_paths(installation, words, path, cpath):
    default_path, default_cpath = default_paths()
    name = installation.name
    (installation.bin / f"{name}.lua").write_text("return { main = function() print(package.path) print(package.cpath) end }")

    outcome = installation.run(*words, lua_path=False)

    assert outcome.out.split("\n") == [
        f"{path}{installation.bin}/?.lua;{installation.bin}/?/init.lua;{default_path}",
        f"{cpath}{installation.bin}/lib/?.so;{default_cpath}",
        "",
    ]


def test_environment_has_no_say_in_the_paths(installation):
    main = "print(package.path) print(package.cpath)"
    plain = run_main(installation, main)

    changed = run_main(
        installation, main,
        env={name: "/evil/?.x;;" for name in ("LUA_PATH", "LUA_CPATH", "LUA_PATH_5_2", "LUA_CPATH_5_2", "LUA_INIT", "LUA_INIT_5_2")},
    )

    assert changed == plain


def test_no_module_out_of_the_current_folder(installation):
    (installation.root / "stray.lua").write_text("return 1")

    assert run_main(installation, "print((pcall(require, 'stray')))", cwd=installation.root) == "false\n"


def test_modules_beside_the_executable(installation):
    (installation.bin / "beside.lua").write_text("return 'file'")
    (installation.bin / "pack").mkdir()
    (installation.bin / "pack" / "init.lua").write_text("return 'init'")

    assert run_main(installation, "print(require('beside'), require('pack'))", cwd="/") == "file\tinit\n"


def test_given_folder_comes_before_the_program_folder(installation):
    (installation.bin / "twice.lua").write_text("return 'program'")
    installation.write_module("twice", "return 'given'")

    assert run_main(installation, "print(require('twice'))") == "given\n"


def test_c_module_beside_the_executable(installation):
    (installation.bin / "lib").mkdir(exist_ok=True)
    system = stock_lua("print(package.searchpath('lfs', package.cpath))").out.strip()
    os.symlink(system, installation.bin / "lib" / "lfs.so")

    assert run_main(installation, "print(package.searchpath('lfs', package.cpath), type(require('lfs').dir))") == f"{installation.bin}/lib/lfs.so\tfunction\n"


def test_system_modules_can_be_required(installation):
    main = "print(type(require('posix.unistd').getpid()), type(require('lfs').currentdir()), type(require('openssl.digest').new('sha256')))"

    assert run_main(installation, main) == "number\tstring\tuserdata\n"


def test_failing_c_module_is_an_error_not_the_end(installation):
    (installation.bin / "lib").mkdir(exist_ok=True)
    (installation.bin / "lib" / "junk.so").write_bytes(b"no library")

    out = run_main(installation, "print(pcall(require, 'junk'))")

    assert out.startswith("false\terror loading module 'junk'"), out


def test_unreadable_module_file_is_passed_over(open_installation):
    locked = open_installation.write_module("locked", "return 'file'")
    locked.chmod(0)
    put(open_installation, "x.kxe", {"locked.lua": "return 'archive'"})

    assert run_main(open_installation, "print(require('locked'))", "-z", "x.kxe", wrapper=UNPRIVILEGED) == "archive\n"


def test_error_in_a_module_is_raised_again_by_every_require(installation):
    put(installation, "x.kxe", {"bad.lua": "error('each time')"})

    out = run_main(installation, "for i = 1, 2 do print((select(2, pcall(require, 'bad')):match('each time'))) end", "-z", "x.kxe")

    assert out == "each time\neach time\n"

"""Which archives are searched for Lua modules, in which order: `app.lua.zippath`."""

import os

import pytest

from agentbox import UNPRIVILEGED, write_archive

GOOD_VERSION = b"version: 11.0.0-2580\n"


def archive(installation, place, version=None):
    """An archive at `place`, relative to the installation; `version` is the content of its version file."""
    path = installation.root / place
    path.parent.mkdir(parents=True, exist_ok=True)
    write_archive(path, {"some_module.lua": "return 1"})
    if version is not None:
        path.with_name(path.name + ".version").write_bytes(version)
    return str(path)


def extension(installation, place):
    return archive(installation, place, GOOD_VERSION)


def generic(installation):
    return str(installation.bin / "vel_core" / "vel.kxe")


def without_core_archives(installation):
    for path in (installation.bin / "vel_core").iterdir():
        path.unlink()


def warnings(installation):
    return installation.log_lines("Warning")


# Core archives


def test_generic_core_archive_alone(installation):
    assert installation.search_list() == [generic(installation)]


def test_own_core_archive_comes_first(installation):
    own = str(installation.write_core_archive(installation.name, {"a.lua": ""}))

    assert installation.search_list() == [own, generic(installation)]


def test_own_core_archive_alone(installation):
    without_core_archives(installation)
    own = str(installation.write_core_archive(installation.name, {"a.lua": ""}))

    assert installation.search_list() == [own]


def test_application_named_vel_has_its_archive_once(installation):
    installation.name = "vel"

    assert installation.search_list() == [generic(installation)]


@pytest.mark.parametrize("name", ["Vel", "VEL", "vel2", "vel.kxe"])
def test_names_like_vel_are_other_names(installation, name):
    own = str(installation.write_core_archive(name, {"a.lua": ""}))
    installation.name = name

    assert installation.search_list() == [own, generic(installation)]


def test_core_archive_of_another_case_is_not_ours(installation):
    installation.write_core_archive(installation.name.upper(), {"a.lua": ""})

    assert installation.search_list() == [generic(installation)]


def test_archives_of_other_applications_are_left_out(installation):
    installation.write_core_archive("somebody_else", {"a.lua": ""})

    assert installation.search_list() == [generic(installation)]


def test_core_archives_pass_no_version_gate(installation):
    own = installation.write_core_archive(installation.name, {"a.lua": ""})
    own.with_name(own.name + ".version").write_bytes(b"version: 1.2.3-4\n")

    assert installation.search_list() == [str(own), generic(installation)]
    assert warnings(installation) == []


def test_directory_is_no_core_archive(installation):
    (installation.bin / "vel_core" / f"{installation.name}.kxe").mkdir()

    assert installation.search_list() == [generic(installation)]
    assert warnings(installation) == []


def test_dangling_link_is_no_core_archive(installation):
    (installation.bin / "vel_core" / f"{installation.name}.kxe").symlink_to("nowhere")

    assert installation.search_list() == [generic(installation)]
    assert warnings(installation) == []


def test_link_to_an_archive_is_a_core_archive(installation):
    link = installation.bin / "vel_core" / f"{installation.name}.kxe"
    link.symlink_to(archive(installation, "elsewhere/real.zip"))

    assert installation.search_list() == [str(link), generic(installation)]


def test_core_archives_of_another_program_folder(installation):
    own = archive(installation, f"other/vel_core/{installation.name}.kxe")

    assert installation.search_list("-d", f"app.path.bin={installation.root}/other") == [own]


# Extension folder


def test_extension_folder(installation):
    wanted = {extension(installation, "ext/a.kxe"), extension(installation, "ext/b.kxe")}
    archive(installation, "ext/c.zip", GOOD_VERSION)
    extension(installation, "ext/sub/d.kxe")
    archive(installation, "ext/E.KXE", GOOD_VERSION)
    extension(installation, "ext/.hidden.kxe")
    (installation.root / "ext/folder.kxe").mkdir()

    searched = installation.search_list("-e", installation.root / "ext")

    assert searched[0] == generic(installation)
    assert len(searched) == 3 and set(searched[1:]) == wanted
    assert warnings(installation) == []


@pytest.mark.parametrize(
    "written, place",
    [
        ("ext", "bin/ext"),
        ("ext/", "bin/ext"),
        ("./ext/.", "bin/ext"),
        ("../ext", "ext"),
        ("vel_core/../../ext", "ext"),
        ("~/ext", "ext"),
        ("with blank", "bin/with blank"),
        (" leading", "bin/ leading"),
        ("gr\u00fc\u00dfe", "bin/gr\u00fc\u00dfe"),
        ("a/b/c", "bin/a/b/c"),
        (".dot", "bin/.dot"),
    ],
)
def test_extension_folder_is_relative_to_the_program_folder(installation, written, place):
    wanted = extension(installation, f"{place}/a.kxe")

    assert installation.search_list("-e", written) == [generic(installation), wanted]


def test_relative_extension_folder_follows_a_moved_program_folder(installation):
    wanted = extension(installation, "other/ext/a.kxe")

    assert installation.search_list("-e", "ext", "-d", f"app.path.bin={installation.root}/other") == [wanted]


@pytest.mark.parametrize("written", ["missing", "/nowhere/at/all", "kx_agent", "$HOME/ext", "ext*", "~nosuchuser/ext"])
def test_extension_folder_that_does_not_exist_is_ignored(installation, written):
    extension(installation, "ext/a.kxe")

    assert installation.search_list("-e", written) == [generic(installation)]
    assert warnings(installation) == []


def test_extension_folder_comes_behind_the_specifications(installation):
    named = archive(installation, "named.kxe")
    extended = extension(installation, "ext/a.kxe")

    assert installation.search_list("-e", "../ext", "-z", named) == [generic(installation), named, extended]


def test_empty_extension_folder_changes_nothing(installation):
    (installation.root / "ext").mkdir()

    assert installation.search_list("-e", "../ext") == [generic(installation)]
    assert warnings(installation) == []


# Specifications


@pytest.mark.parametrize(
    "written, wanted",
    [
        ("a.kxe", "a"),
        ("a.kxe;b.kxe", "ab"),
        ("b.kxe;a.kxe", "ba"),
        ("a.kxe;;b.kxe;", "ab"),
        (";;;a.kxe", "a"),
        (";a.kxe;;;;b.kxe;;;", "ab"),
        (";", ""),
        (";;;;", ""),
        ("a.kxe;a.kxe", "aa"),
        ("a.kxe;./a.kxe;vel_core/../a.kxe", "aaa"),
        ("b.kxe;a.kxe;b.kxe", "bab"),
    ],
)
def test_tokens_of_a_specification(installation, written, wanted):
    paths = {name: archive(installation, f"bin/{name}.kxe") for name in "ab"}

    assert installation.search_list("-z", written) == [generic(installation), *[paths[name] for name in wanted]]
    assert warnings(installation) == []


@pytest.mark.parametrize(
    "written, place",
    [
        ("x.zip", "bin/x.zip"),
        ("x", "bin/x"),
        ("sub/x.kxe", "bin/sub/x.kxe"),
        ("../x.kxe", "x.kxe"),
        ("~/x.kxe", "x.kxe"),
        ("$HOME/x.kxe", "x.kxe"),
        ("${HOME}/x.kxe", "x.kxe"),
        ("$(HOME)/x.kxe", "x.kxe"),
        ("$SUB/$NAME.kxe", "bin/deep/er/named.kxe"),
        ("with blank.kxe", "bin/with blank.kxe"),
        (" x.kxe", "bin/ x.kxe"),
        ("x.kxe ", "bin/x.kxe "),
        ("[a].kxe", "bin/[a].kxe"),
        ("x,y.kxe", "bin/x,y.kxe"),
        ("gr\u00fc\u00dfe.kxe", "bin/gr\u00fc\u00dfe.kxe"),
        ("a@b.kxe", "bin/a@b.kxe"),
        ("%s%n.kxe", "bin/%s%n.kxe"),
        ("we\\ird.kxe", "bin/we\\ird.kxe"),
        ("we\\\\ird.kxe", "bin/we\\\\ird.kxe"),
        ("weird\\", "bin/weird\\"),
        ("back\\slash/we\\ird.kxe", "bin/back\\slash/we\\ird.kxe"),
    ],
)
def test_named_file(installation, written, place):
    wanted = archive(installation, place)

    searched = installation.search_list("-z", written, env={"SUB": "deep/er", "NAME": "named"})

    assert searched == [generic(installation), wanted]
    assert warnings(installation) == []


@pytest.mark.parametrize("locale", [{"LANG": "C.UTF-8"}, {"LC_ALL": "C"}, {"LANG": None}], ids=str)
@pytest.mark.parametrize("written", ["$KX_FOLDER/x.kxe", "~/x.kxe"])
def test_a_folder_from_the_environment_is_a_file_name_in_every_locale(installation, locale, written):
    folder = installation.root / "gr\u00f6\u00dfe"
    wanted = archive(installation, "gr\u00f6\u00dfe/x.kxe")

    searched = installation.search_list("-z", written, env={"KX_FOLDER": str(folder), "HOME": str(folder), **locale})

    assert searched == [generic(installation), wanted]
    assert warnings(installation) == []


def test_absolute_name_is_squeezed(installation):
    wanted = archive(installation, "x.kxe")

    searched = installation.search_list("-z", f"{installation.root}/x.kxe;{installation.bin}/../x.kxe")

    assert searched == [generic(installation), wanted, wanted]


@pytest.mark.parametrize(
    "written",
    [
        "missing.kxe",
        "../missing.kxe",
        "nowhere/missing.kxe",
        "/nowhere/missing.kxe",
        "$HOME/missing.kxe",
        "$NOT_SET/missing.kxe",
        "~/missing.kxe",
        " missing.kxe",
        "missing.kxe ",
        " ",
        "vel_core",
        "vel_core/",
        ".hidden.kxe",
        "dir*/x.kxe",
        "dir?/x.kxe",
        "100%s%d.kxe",
        "gr\u00fc\u00dfe.kxe",
        "[a].kxe",
        "A.KXE",
    ],
)
def test_name_that_matches_nothing_is_warned_about_as_written(installation, written):
    archive(installation, "bin/.hidden.kxe")
    archive(installation, "bin/dir1/x.kxe")
    archive(installation, "bin/a.kxe")

    assert installation.search_list("-z", written) == [generic(installation)]
    assert warnings(installation) == [f"{written}: no matches"]


@pytest.mark.parametrize("written", ["missing*.kxe", "?.kxe", "nowhere/*.kxe", "/nowhere/?", "vel_cor?", "$HOME/*.nothing"])
def test_pattern_that_matches_nothing_is_silent(installation, written):
    assert installation.search_list("-z", written) == [generic(installation)]
    assert warnings(installation) == []


def test_missing_names_do_not_hide_the_others(installation):
    first, last = archive(installation, "bin/a.kxe"), archive(installation, "bin/b.kxe")

    searched = installation.search_list("-z", "a.kxe;gone.kxe;b.kxe;gone too")

    assert searched == [generic(installation), first, last]
    assert warnings(installation) == ["gone.kxe: no matches", "gone too: no matches"]


@pytest.mark.parametrize(
    "pattern, wanted",
    [
        ("*.kxe", ["a", "ab", "b"]),
        ("?.kxe", ["a", "b"]),
        ("a*", ["a", "ab"]),
        ("a?.kxe", ["ab"]),
        ("*a*.k?e", ["a", "ab"]),
        ("**b.kxe", ["ab", "b"]),
        ("../bin/pool/*.kxe", ["a", "ab", "b"]),
    ],
)
def test_pattern_lists_the_matching_files_of_its_folder(installation, pattern, wanted):
    paths = {name: extension(installation, f"bin/pool/{name}.kxe") for name in ("a", "b", "ab")}
    extension(installation, "bin/pool/.a.kxe")
    extension(installation, "bin/pool/sub/a.kxe")
    (installation.bin / "pool" / "folder.kxe").mkdir()

    searched = installation.search_list("-z", pattern if "/" in pattern else f"pool/{pattern}")

    # Patterns that end in "*" reach the version files, too, which have none of their own.
    found = [path for path in searched[1:] if path.endswith(".kxe")]
    assert sorted(found) == sorted(paths[name] for name in wanted)


def test_pattern_passes_the_version_gate_and_a_name_does_not(installation):
    old = archive(installation, "bin/old.kxe", b"version: 10.0.0-1\n")
    bare = archive(installation, "bin/bare.kxe")

    assert installation.search_list("-z", "*.kxe") == [generic(installation)]
    assert len(warnings(installation)) == 2
    installation.log_file().unlink()

    assert installation.search_list("-z", "old.kxe;bare.kxe") == [generic(installation), old, bare]
    assert warnings(installation) == []


@pytest.mark.parametrize(
    "pattern, wanted", [("we\\*.kxe", "we\\ird.kxe"), ("we\\?rd.kxe", "we\\ird.kxe"), ("*\\?.kxe", "a\\*.kxe"), ("a\\*", "a\\*.kxe")]
)
def test_backslash_in_a_pattern_is_a_character(installation, pattern, wanted):
    for name in ("weird.kxe", "weeird.kxe", "we*.kxe", "we?rd.kxe", "we\\ird.kxe", "a*", "a\\*.kxe"):
        extension(installation, f"bin/pool/{name}")

    searched = installation.search_list("-z", f"pool/{pattern}")

    assert [path for path in searched[1:] if path.endswith(".kxe")] == [str(installation.bin / "pool" / wanted)]


def test_backslash_in_a_name_quotes_nothing(installation):
    archive(installation, "bin/weird.kxe")

    assert installation.search_list("-z", "we\\ird.kxe") == [generic(installation)]
    assert warnings(installation) == ["we\\ird.kxe: no matches"]


def test_wildcard_in_the_folder_makes_the_token_a_pattern(installation):
    archive(installation, "bin/dir*/x.kxe", b"version: 10.0.0-1\n")

    assert installation.search_list("-z", "dir*/x.kxe") == [generic(installation)]
    assert [text for text in warnings(installation) if text.startswith("Ignoring extension")] != []


def test_wildcard_out_of_a_variable_does_not_make_the_token_a_pattern(installation):
    old = archive(installation, "bin/old.kxe", b"version: 10.0.0-1\n")

    searched = installation.search_list("-z", "$PATTERN", env={"PATTERN": "ol?.kxe"})

    assert searched == [generic(installation), old]
    assert warnings(installation) == []


def test_file_by_name_and_by_pattern_is_listed_twice(installation):
    path = extension(installation, "bin/a.kxe")

    assert installation.search_list("-z", "a.kxe;*.kxe", "-e", ".") == [generic(installation), path, path, path]


def test_dangling_link_is_not_readable(installation):
    link = installation.bin / "link.kxe"
    link.symlink_to("nowhere")

    assert installation.search_list("-z", "link.kxe") == [generic(installation)]
    assert warnings(installation) == [f"Extension file '{link}' isn't readable"]


def test_dangling_link_in_the_extension_folder_is_not_readable(installation):
    (installation.root / "ext").mkdir()
    link = installation.root / "ext" / "link.kxe"
    link.symlink_to("nowhere")
    (installation.root / "ext" / "link.kxe.version").write_bytes(GOOD_VERSION)

    assert installation.search_list("-e", "../ext") == [generic(installation)]
    assert warnings(installation) == [f"Extension file '{link}' isn't readable"]


@pytest.mark.parametrize("words", [("-z", "../ext/locked.kxe"), ("-z", "../ext/*.kxe"), ("-e", "../ext")])
def test_unreadable_file_is_warned_about_before_the_version_gate(open_installation, words):
    locked = archive(open_installation, "ext/locked.kxe", b"version: 10.0.0-1\n")
    os.chmod(locked, 0)

    assert open_installation.search_list(*words, wrapper=UNPRIVILEGED) == [generic(open_installation)]
    assert warnings(open_installation) == [f"Extension file '{locked}' isn't readable"]


@pytest.mark.parametrize("written, wanted", [("../locked/a.kxe", ["../locked/a.kxe: no matches"]), ("../locked/*.kxe", [])])
def test_unreadable_folder(open_installation, written, wanted):
    extension(open_installation, "locked/a.kxe")
    os.chmod(open_installation.root / "locked", 0)
    try:
        assert open_installation.search_list("-z", written, wrapper=UNPRIVILEGED) == [generic(open_installation)]
        assert warnings(open_installation) == wanted
    finally:
        os.chmod(open_installation.root / "locked", 0o700)


def test_file_name_that_is_not_text_hides_nothing(installation):
    wanted = extension(installation, "ext/a.kxe")
    with open(os.fsencode(installation.root / "ext") + b"/\xff\xfe.kxe", "wb") as strange:
        strange.write(b"x")

    searched = installation.search_list("-e", "../ext")

    assert wanted in searched


def test_many_specifications(installation):
    paths = [archive(installation, f"bin/pool/{number:04}.kxe") for number in range(500)]

    searched = installation.search_list("-z", ";".join(paths))

    assert searched == [generic(installation), *paths]


# Plug-ins


def test_specification_is_multiplied_over_the_plugins(installation):
    one, two = archive(installation, "bin/one/x.kxe"), archive(installation, "bin/two/x.kxe")
    plain = archive(installation, "bin/plain.kxe")

    searched = installation.search_list("-z", "@/x.kxe;plain.kxe", "-p", "one,two")

    assert searched == [generic(installation), one, two, plain, plain]


# Empty values and empty results


@pytest.mark.parametrize("words", [("-z", ""), ("-e", ""), ("-z", "", "-e", ""), ("--zippath=",), ("--extdir=",)])
def test_empty_value_counts_as_not_given(installation, words):
    extension(installation, "bin/stray.kxe")
    extension(installation, "stray.kxe")

    assert installation.search_list(*words) == [generic(installation)]
    assert warnings(installation) == []


def test_nothing_found_leaves_the_list_unset(installation):
    without_core_archives(installation)

    assert installation.search_list() is None


@pytest.mark.parametrize("words", [(), ("-z", ";"), ("-z", "missing*"), ("-z", "gone.kxe"), ("-e", "gone")])
def test_nothing_found_leaves_a_given_list(installation, words):
    without_core_archives(installation)
    given = archive(installation, "given.kxe")

    assert installation.search_list("-d", f"app.lua.zippath={given}", *words) == [given]


def test_anything_found_replaces_a_given_list(installation):
    given = archive(installation, "given.kxe")

    assert installation.search_list("-d", f"app.lua.zippath={given}") == [generic(installation)]


def test_missing_core_folder_is_silent(installation):
    without_core_archives(installation)
    (installation.bin / "vel_core").rmdir()
    path = archive(installation, "a.kxe")

    assert installation.search_list("-z", path) == [path]
    assert warnings(installation) == []


# Trace


def zippath_traces(installation):
    return [
        text
        for text in installation.traces()
        if text.startswith(("zipFilespec:", "Adding extension file", "app.lua.zippath"))
    ]


def test_trace_of_a_full_list(installation):
    named = archive(installation, "bin/named.kxe")
    extended = extension(installation, "ext/a.kxe")
    archive(installation, "ext/old.kxe", b"version: 1.0.0-1\n")

    installation.search_list("-t", "Appl", "-z", "named.kxe;$HOME/gone.kxe", "-e", "../ext")

    assert zippath_traces(installation) == [
        f"zipFilespec: named.kxe;$HOME/gone.kxe;{installation.root}/ext/*.kxe",
        f"Adding extension file '{named}' to the search path.",
        f"Adding extension file '{extended}' to the search path.",
        f"app.lua.zippath '{generic(installation)};{named};{extended}' ",
    ]


def test_trace_of_the_extension_folder_alone(installation):
    extended = extension(installation, "ext/a.kxe")

    installation.search_list("-t", "Appl", "-e", "../bin/../ext/")

    assert zippath_traces(installation) == [
        f"zipFilespec: {installation.root}/ext/*.kxe",
        f"Adding extension file '{extended}' to the search path.",
        f"app.lua.zippath '{generic(installation)};{extended}' ",
    ]


def test_trace_of_an_empty_list(installation):
    without_core_archives(installation)

    installation.search_list("-t", "Appl")

    assert zippath_traces(installation) == ["zipFilespec: ", "app.lua.zippath empty "]


def test_no_trace_unless_asked_for(installation):
    installation.search_list("-t", "Other")

    assert installation.log_lines("Trace") == []

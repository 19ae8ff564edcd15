"""What the words of the command line do, seen through the domain and the log."""

import os
import stat

import pytest

from agentbox import AS_NOBODY, through_shell


def forms(short, long, value):
    """Every way to give an option with `value`."""
    return [
        [f"-{short}", value],
        [f"-{short}{value}"],
        [f"-{short}={value}"],
        [f"-{short}:{value}"],
        [f"--{long}={value}"],
        [f"--{long}", value],
    ]


def every_form(short, long, value):
    return pytest.mark.parametrize("words", forms(short, long, value), ids=" ".join)


def mode(path):
    return stat.S_IMODE(os.stat(path).st_mode)


# Every option, in every form.


@every_form("c", "lua_cpath", "/x/?.so")
def test_lua_cpath_is_a_domain_variable(installation, words):
    assert installation.domain(*words)["app.lua.cpath"] == "/x/?.so"


@pytest.mark.parametrize("words", forms("l", "lua_path", "/x/?.lua"), ids=" ".join)
def test_lua_path_is_a_domain_variable(installation, words):
    installation.write_domain_app(folder=installation.bin)

    outcome = installation.run(*words, lua_path=False)

    assert outcome.status == 0, outcome
    assert outcome.domain["app.lua.path"] == "/x/?.lua"


@every_form("d", "domain_var", "some.name=value")
def test_domain_var_is_a_domain_variable(installation, words):
    assert installation.domain(*words)["some.name"] == "value"


@every_form("p", "plugins", "x,y")
def test_plugins_is_a_domain_variable(installation, words):
    assert installation.domain(*words)["app.plugins"] == "x,y"


@every_form("t", "trace", "Appl,Cmd")
def test_trace_is_a_domain_variable(installation, words):
    assert installation.domain(*words)["app.trace"] == "Appl,Cmd"


@every_form("w", "workdir", "elsewhere/work")
def test_workdir_is_a_domain_variable(installation, words):
    installation.write_domain_app()

    domain = installation.run(*words, workdir=False).domain

    work = installation.root / "elsewhere" / "work"
    assert (domain["app.path.work"], domain["app.path.ini"]) == (f"{work}", f"{work}/kx_agent.ini")


@every_form("u", "unittest", "no_such_*.lua")
def test_unittest_with_a_pattern_is_accepted_without_a_look_at_files(installation, words):
    installation.write_domain_app()
    installation.write_module("tests.velunit", "return function(spec) print('driver', spec) return 0 end")

    outcome = installation.run(*words)

    assert (outcome.status, outcome.err) == (0, "")
    assert outcome.domain["app.mode.unittest"] is True
    assert outcome.out.endswith("driver\tno_such_*.lua\n")


@every_form("z", "zippath", "no_such.kxe")
def test_zippath_is_looked_at(installation, words):
    installation.write_app()

    assert installation.run(*words).status == 0
    assert installation.log_has("Warning: no_such.kxe: no matches")


@every_form("e", "extdir", "extensions")
def test_extdir_adds_a_pattern_to_the_archives(installation, words):
    (installation.bin / "extensions").mkdir()
    installation.write_app()

    assert installation.run(*words, "--trace", "Appl").status == 0
    assert f"zipFilespec: {installation.bin}/extensions/*.kxe" in installation.log_text()


@pytest.mark.parametrize("form", forms("a", "appname", "*"), ids=" ".join)
def test_appname_is_the_name(installation, form):
    installation.write_domain_app()
    words = [word.replace("*", installation.name) for word in form]

    outcome = installation.run_raw(*words, "-l", f"{installation.lua}/?.lua", "-w", installation.work)

    assert outcome.status == 0, outcome
    assert outcome.domain["app.name"] == installation.name


@pytest.mark.parametrize("word", ["-U", "--test"])
def test_test_switch_sets_the_mode_and_main_still_runs(installation, word):
    installation.write_domain_app()
    module = installation.lua / f"{installation.name}.lua"
    module.write_text(module.read_text().replace("function app.main()", "function app.main() print('main runs')"))

    outcome = installation.run(word)

    assert (outcome.status, outcome.err) == (0, "")
    assert outcome.domain["app.mode.unittest"] is True
    assert outcome.out.endswith("main runs\n")


def test_switches_and_an_option_may_be_combined(installation):
    domain = installation.domain("-Ud", "x=1")

    assert (domain["app.mode.unittest"], domain["x"]) == (True, "1")


def test_parameters_may_stand_between_options(installation):
    domain = installation.domain("word", "-d", "x=1", "-", "", "-p", "p", "--", "-d", "x=2")

    assert (domain["x"], domain["app.plugins"]) == ("1", "p")


def test_a_value_may_begin_with_a_hyphen(installation):
    assert installation.domain("-p", "-b")["app.plugins"] == "-b"


# Defaults.


def test_without_options_every_variable_has_its_default(installation):
    executable = installation.bin / installation.name
    installation.executable.rename(executable)
    installation.write_domain_app(folder=installation.bin)

    outcome = installation.run_raw(executable=executable)

    assert (outcome.status, outcome.err) == (0, "")
    bin = installation.bin
    assert outcome.domain == {
        "app.fulldump": False,
        "app.lua.zippath": f"{bin}/vel_core/vel.kxe",
        "app.name": installation.name,
        "app.path.bin": f"{bin}",
        "app.path.exe": f"{executable}",
        "app.path.ini": f"{bin}/work/kx_agent.ini",
        "app.path.ini.global": "/etc/kx_agent.conf",
        "app.path.lib": f"{bin}/lib",
        "app.path.qv": f"{bin}",
        "app.path.work": f"{bin}/work",
        "app.trace+": "",
        "app.version": "11.0.0.2580",
    }
    assert mode(bin / "work") == 0o700


def test_without_plugins_paths_keep_their_marks(installation):
    installation.write_app(folder=installation.bin)
    installation.write_domain_app(folder=installation.bin)

    outcome = installation.run("-l", "a/@/?.lua;;b;", "-c", "@;@", "-z", "@@.kxe", lua_path=False)

    assert outcome.status == 0, outcome
    assert (outcome.domain["app.lua.path"], outcome.domain["app.lua.cpath"]) == ("a/@/?.lua;;b;", "@;@")
    assert installation.log_has("Warning: @@.kxe: no matches")


@pytest.mark.parametrize("option", ["extdir", "zippath"])
def test_an_empty_folder_or_archive_list_counts_as_not_given(installation, option):
    installation.write_domain_app()
    for name in ("beside.kxe", "vel_core/other.kxe"):
        installation.write_core_archive("vel", {"x.lua": ""})
        (installation.bin / name).write_bytes((installation.bin / "vel_core" / "vel.kxe").read_bytes())

    outcome = installation.run(f"--{option}=", "-t", "Appl")

    assert (outcome.status, outcome.err) == (0, "")
    assert outcome.domain["app.lua.zippath"] == f"{installation.bin}/vel_core/vel.kxe"
    assert [line for line in installation.log_lines() if line.startswith("Warning")] == []


# Repetition.


@pytest.mark.parametrize(
    ("words", "key", "value"),
    [
        (["-p", "one", "-p", "two"], "app.plugins", "two"),
        (["--plugins=one", "-p", "two"], "app.plugins", "two"),
        (["-p", "one", "--plugins", "two"], "app.plugins", "two"),
        (["-t", "one", "-t", ""], "app.trace", ""),
        (["-d", "x=1", "--domain_var=x=2"], "x", "2"),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, list) else value,
)
def test_of_a_repeated_option_the_last_value_counts(installation, words, key, value):
    assert installation.domain(*words)[key] == value


def test_of_repeated_domain_variables_only_the_last_is_set(installation):
    domain = installation.domain("-d", "a=1", "-d", "b=2")

    assert "a" not in domain
    assert domain["b"] == "2"


# Plug-in expansion.

EXPANSIONS = [
    ("a/@/?.lua;b/?.lua", "x,y", "a/x/?.lua;a/y/?.lua;b/?.lua;b/?.lua"),
    ("@", "x", "x"),
    ("a@b@", "x,yy", "axbx;ayybyy"),
    ("plain", "x,y,z", "plain;plain;plain"),
    ("a;b", "x", "a;b"),
    ("a;;b", "x", "a;;b"),
    ("a;", "x", "a"),
    ("a;;", "x", "a"),
    (";;a;;;b;;", "x,y", "a;a;;;;;b;b"),
    (";a", "x", "a"),
    (";", "x", ""),
    ("", "x", ""),
    ("@", "x,,y", "x;;y"),
    ("@", "x,", "x"),
    ("@", ",x", "x"),
    ("@", "x, y", "x; y"),
    ("@", "a@b,y", "a@b;y"),
    ("@", "größe,日本", "größe;日本"),
    ("%s@%n", "%d", "%s%d%n"),
    ("@;b", "", "@;b"),
]

expansions = pytest.mark.parametrize(("paths", "plugins", "expanded"), EXPANSIONS, ids=lambda text: text or "empty")


@expansions
def test_lua_path_is_multiplied_by_the_plugins(installation, paths, plugins, expanded):
    installation.write_domain_app(folder=installation.bin)

    outcome = installation.run("-p", plugins, "-l", paths, lua_path=False)

    assert outcome.status == 0, outcome
    assert (outcome.domain["app.lua.path"], outcome.domain["app.plugins"]) == (expanded, plugins)


@expansions
def test_lua_cpath_is_multiplied_by_the_plugins(installation, paths, plugins, expanded):
    assert installation.domain("-p", plugins, "-c", paths)["app.lua.cpath"] == expanded


@expansions
def test_zippath_is_multiplied_by_the_plugins(installation, paths, plugins, expanded):
    installation.write_app()

    assert installation.run("-p", plugins, "-z", paths, "-t", "Appl").status == 0
    assert [r.text for r in installation.records() if f": zipFilespec: {expanded}" == r.text[-len(expanded) - 15 :]]


# Domain variables: what they may be, and what they can override.


@pytest.mark.parametrize(
    ("specification", "name", "value"),
    [
        ("foo=", "foo", ""),
        ("a=b=c", "a", "b=c"),
        ("a==", "a", "="),
        ("a= b ", "a", " b "),
        (" a =b", " a ", "b"),
        ("no.such.app=größe 日本", "no.such.app", "größe 日本"),
        ("größe=1", "größe", "1"),
        ("format=%s%n%d%%", "format", "%s%n%d%%"),
        ("number=12", "number", "12"),
        ("truth=true", "truth", "true"),
        ("quoted='a\"", "quoted", "'a\""),
        ("lines=a\nb", "lines", "a\nb"),
        ("variable=$HOME", "variable", "$HOME"),
    ],
)
def test_a_domain_variable_is_a_text_kept_as_given(installation, specification, name, value):
    assert installation.domain("-d", specification)[name] == value


@pytest.mark.parametrize("locale", [{"LANG": "C"}, {"LANG": None}, {"LC_ALL": "C"}], ids=str)
@pytest.mark.parametrize(
    ("specification", "variable"), [("some.name=größe", {"some.name": ""}), ("größe=value", {})], ids=["value", "name"]
)
def test_a_part_that_the_locale_cannot_express_is_empty(installation, locale, specification, variable):
    before = installation.domain()
    installation.write_domain_app()

    outcome = installation.run("-d", specification, env=locale)

    assert (outcome.status, outcome.err) == (0, "")
    domain = outcome.domain
    domain.pop("", None)  # where a value without a name goes; Lua cannot ask for it
    assert domain == {**before, **variable}


@pytest.mark.parametrize("words", [["-d", "=x"], ["-d==x"], ["--domain_var==x"]], ids=" ".join)
def test_a_specification_without_a_name_is_refused(installation, words):
    installation.write_domain_app()

    outcome = installation.run(*words)

    assert outcome.status == 0
    assert outcome.err == "Ignoring invalid domain variable specification '=x': expected name=value format\n"
    assert "" not in outcome.domain


@pytest.mark.parametrize(
    "specification", ["foo", "", "größe", "%s%n%d", "%", "it's", "a\tb", "x" * 100000], ids=lambda text: text[:9] or "empty"
)
def test_a_specification_without_an_equals_sign_is_refused(installation, specification):
    installation.write_domain_app()

    outcome = installation.run("-d", specification)

    assert outcome.status == 0
    assert outcome.err == f"Ignoring invalid domain variable specification '{specification}': expected name=value format\n"
    assert specification not in outcome.domain


@pytest.mark.parametrize(
    "key",
    [
        "app.path.lib",
        "app.path.qv",
        "app.version",
        "app.path.exe",
        "app.name",
        "app.plugins",
        "app.lua.cpath",
        "app.path.ini",
        "app.path.ini.global",
        "app.trace",
    ],
)
def test_a_domain_variable_overrides_what_was_written_before_it(installation, key):
    words = ["-p", "x", "-c", "y", "-t", "z"]
    assert installation.domain(*words)[key] != "/overridden"

    assert installation.domain(*words, "-d", f"{key}=/overridden")[key] == "/overridden"


def test_overridden_lua_path_is_where_modules_are_found(installation):
    installation.write_domain_app(folder=installation.root / "elsewhere")

    outcome = installation.run("-l", "/nowhere/?.lua", "-d", f"app.lua.path={installation.root}/elsewhere/?.lua", lua_path=False)

    assert outcome.status == 0, outcome
    assert outcome.domain["app.lua.path"] == f"{installation.root}/elsewhere/?.lua"


def test_overridden_program_folder_is_where_archives_are_found(installation):
    other = installation.root / "other"
    (other / "vel_core").mkdir(parents=True)
    (installation.bin / "vel_core" / "vel.kxe").rename(other / "vel_core" / "vel.kxe")

    domain = installation.domain("-d", f"app.path.bin={other}")

    assert (domain["app.path.bin"], domain["app.lua.zippath"]) == (f"{other}", f"{other}/vel_core/vel.kxe")


def test_overridden_plugins_come_too_late_for_the_expansion(installation):
    domain = installation.domain("-p", "x", "-c", "@", "-d", "app.plugins=y")

    assert (domain["app.plugins"], domain["app.lua.cpath"]) == ("y", "x")


def test_overridden_background_does_not_make_a_daemon(installation):
    domain = installation.domain("-d", "app.background=1")

    assert domain["app.background"] == "1"


def test_overridden_work_folder_takes_the_log_with_it_but_not_the_configuration(installation):
    moved = installation.root / "moved" / "work"
    installation.work.mkdir()
    (installation.work / "kx_agent.ini").write_text("DumpLevel=1\n")
    installation.write_domain_app(folder=installation.lua)
    module = installation.lua / f"{installation.name}.lua"
    module.write_text(
        module.read_text().replace("function app.main()", "function app.main() dom:Log('message', dom:GetPluginWorkdir('p'))")
    )

    outcome = installation.run("-d", f"app.path.work={moved}")

    assert (outcome.status, outcome.err) == (0, "")
    assert outcome.domain["app.path.work"] == f"{moved}"
    assert outcome.domain["app.path.ini"] == f"{installation.work}/kx_agent.ini"
    assert outcome.domain["app.fulldump"] is True
    assert installation.log_lines(work=moved) == [f"Message: {moved}/p"]
    assert (mode(moved / "log"), mode(moved / "log" / f"{installation.name}.log")) == (0o700, 0o600)
    assert not installation.log_file().exists()


def test_overridden_name_names_the_log_but_not_the_module(installation):
    installation.write_app(main="dom:Log('message', 'ran') return 0")

    outcome = installation.run("-d", f"app.name={installation.name}_other")

    assert (outcome.status, outcome.err) == (0, "")
    assert installation.log_lines(name=f"{installation.name}_other") == ["Message: ran"]


def test_overridden_configuration_file_is_read(installation):
    other = installation.root / "other.ini"
    other.write_text("DumpLevel=2\n")
    installation.work.mkdir()
    (installation.work / "kx_agent.ini").write_text("sqlite.config.cache=5\n")

    domain = installation.domain("-d", f"app.path.ini={other}")

    assert domain["app.fulldump"] is True
    assert "sqlite.config.cache" not in domain


@pytest.mark.parametrize(
    ("configuration", "specification", "value"),
    [
        ("", "app.fulldump=1", False),
        ("DumpLevel=1", "app.fulldump=0", True),
        ("", "app.trace+=Appl", ""),
        ("*.Trace=Cmd", "app.trace+=Appl", "Cmd"),
        ("", "app.fipsmode=0", "0"),
        ("FIPSMode=0", "app.fipsmode=off", "0"),
        ("sqlite.config.cache=64", "sqlite.config.cache=32", 64),
        ("", "sqlite.config.cache=32", "32"),
        ("sqlite.config.cache=64x", "sqlite.config.cache=32", "32"),
    ],
)
def test_what_is_written_later_wins_over_a_domain_variable(installation, configuration, specification, value):
    installation.work.mkdir()
    (installation.work / "kx_agent.ini").write_text(configuration.replace("*", installation.name) + "\n")

    domain = installation.domain("-d", specification)

    assert domain[specification.partition("=")[0]] == value


@pytest.mark.parametrize(("words", "value"), [([], "text"), (["-U"], True)], ids=["without", "with"])
def test_the_test_switch_wins_over_a_domain_variable(installation, words, value):
    assert installation.domain("-d", "app.mode.unittest=text", *words)["app.mode.unittest"] == value


# Scripts under the test driver.


@pytest.mark.parametrize(
    "script", ["missing.lua", "größe.lua", "%s%n%d.lua", "", "lua", "missing/x.lua", "[a].lua"], ids=lambda text: text or "empty"
)
def test_a_script_that_is_no_file_is_not_found_and_main_runs(installation, script):
    installation.write_domain_app()

    outcome = installation.run("-u", script)

    assert (outcome.status, outcome.err) == (0, f"{script}: not found")
    assert "app.mode.unittest" not in outcome.domain


def test_a_script_that_is_not_found_leaves_the_test_switch(installation):
    installation.write_domain_app()

    outcome = installation.run("-u", "missing.lua", "-U")

    assert (outcome.status, outcome.err) == (0, "missing.lua: not found")
    assert outcome.domain["app.mode.unittest"] is True


def test_a_script_that_cannot_be_read_is_not_found(public_installation):
    installation = public_installation
    installation.write_domain_app()
    script = installation.root / "secret.lua"
    script.write_text("")
    script.chmod(0)

    outcome = installation.run("-u", script, "-w", installation.home / "work", wrapper=AS_NOBODY)

    assert (outcome.status, outcome.err) == (0, f"{script}: not found")
    assert "app.mode.unittest" not in outcome.domain


@pytest.mark.parametrize("script", ["größe.lua", "%s.lua", "*.lua", "?.lua", "no folder/*"])
def test_an_accepted_script_reaches_the_driver_as_given(installation, script):
    if not set("*?") & set(script):
        (installation.root / script).write_text("")
    installation.write_domain_app()
    installation.write_module("tests.velunit", "return function(spec) print('driver', spec) return 0 end")

    outcome = installation.run("-u", script)

    assert (outcome.status, outcome.err) == (0, "")
    assert outcome.domain["app.mode.unittest"] is True
    assert outcome.out.endswith(f"driver\t{script}\n")


# Trace lists.


@pytest.mark.parametrize(
    ("given", "stored"),
    [
        ("'Appl,Cmd'", "Appl,Cmd"),
        ('"Appl,Cmd"', "Appl,Cmd"),
        ("'A\"p'p\"l", "Appl"),
        ("\"'\"", ""),
        ("", ""),
        (" A , B ", " A , B "),
        ("%s%n", "%s%n"),
        ("`Appl`", "`Appl`"),
    ],
)
def test_quotes_in_a_trace_list_are_removed(installation, given, stored):
    assert installation.domain("-t", given)["app.trace"] == stored


# The work folder.


def test_a_new_work_folder_and_its_new_parents_belong_to_their_owner_alone(installation):
    installation.write_app(main="return 0")
    work = installation.root / "one" / "two" / "three"

    outcome = installation.run("-w", work)

    assert (outcome.status, outcome.err) == (0, "")
    assert [oct(mode(folder)) for folder in (work.parent.parent, work.parent, work)] == ["0o700"] * 3


@pytest.mark.parametrize("mask", ["000", "022", "077", "777"])
def test_rights_of_a_new_work_folder_do_not_depend_on_the_mask(installation, mask):
    installation.write_app(main="return 0")

    outcome = installation.run("-w", "one/two", wrapper=through_shell(f'umask {mask} && exec "$@"'))

    assert (outcome.status, outcome.err) == (0, "")
    assert [oct(mode(installation.root / folder)) for folder in ("one", "one/two")] == ["0o700"] * 2


@pytest.mark.parametrize("mask", ["022", "077"])
def test_another_user_gets_a_work_folder_with_all_its_parents(public_installation, mask):
    installation = public_installation
    installation.write_app(main="dom:Log('message', 'logged') return 0")
    work = installation.home / "one" / "two" / "three"

    outcome = installation.run("-w", work, wrapper=(*through_shell(f'umask {mask} && exec "$@"'), *AS_NOBODY))

    assert (outcome.status, outcome.err) == (0, "")
    assert [oct(mode(folder)) for folder in (work.parent.parent, work.parent, work)] == ["0o700"] * 3
    assert installation.log_lines(work=work) == ["Message: logged"]


@pytest.mark.parametrize("rights", [0o755, 0o500, 0o1777])
def test_an_existing_work_folder_keeps_its_rights(installation, rights):
    installation.work.mkdir()
    installation.work.chmod(rights)
    installation.write_app(main="return 0")

    assert installation.run().status == 0
    assert oct(mode(installation.work)) == oct(rights)


def test_existing_parents_of_a_new_work_folder_keep_their_rights(installation):
    parent = installation.root / "parent"
    parent.mkdir()
    parent.chmod(0o751)
    installation.write_app(main="return 0")

    assert installation.run("-w", parent / "work").status == 0
    assert [oct(mode(parent)), oct(mode(parent / "work"))] == ["0o751", "0o700"]


@pytest.mark.parametrize(
    ("given", "folder"),
    [
        ("work", "work"),
        ("./a/../b/./c", "b/c"),
        ("a//b/", "a/b"),
        ("../*/x", "x"),
        ("~/x", "x"),
        ("$HOME/x", "x"),
        ("${HOME}/x", "x"),
        ("$(HOME)/x", "x"),
        ("$KX_PART/$KX_PART", "part/part"),
        ("$NO_SUCH_VARIABLE/x", "$NO_SUCH_VARIABLE/x"),
        ("a%s%n%d", "a%s%n%d"),
        ("größe 日本", "größe 日本"),
        ("with blank", "with blank"),
        ("a.b", "a.b"),
        ("a.b/.c", "a.b/.c"),
        ("a~", "a~"),
    ],
)
def test_the_work_folder_is_expanded_and_normalised(installation, given, folder):
    installation.write_domain_app()
    given = given.replace("*", installation.root.name)

    outcome = installation.run("-w", given, env={"KX_PART": "part"})

    assert (outcome.status, outcome.err) == (0, "")
    assert outcome.domain["app.path.work"] == f"{installation.root}/{folder}"
    assert oct(mode(installation.root / folder)) == "0o700"


@pytest.mark.parametrize("locale", [{"LANG": "C.UTF-8"}, {"LC_ALL": "C"}, {"LANG": None}, {"LANG": "xx_YY.UTF-8"}], ids=str)
@pytest.mark.parametrize("name", ["gr\u00f6\u00dfe", "caf\udce9"], ids=["letters", "no text"])
@pytest.mark.parametrize("given", ["$KX_ROOT/work", "~/work"])
def test_a_work_folder_from_the_environment_is_a_file_name_in_every_locale(installation, locale, name, given):
    installation.write_app(main="io.write(dom:Get('app.path.work')) return 0")
    root = installation.root / name

    outcome = installation.run("-w", given, env={"KX_ROOT": str(root), "HOME": str(root), **locale})

    assert outcome.status == 0, outcome
    assert (root / "work").is_dir()
    assert oct(mode(root / "work")) == "0o700"


def test_a_bracket_that_is_not_closed_in_the_work_folder_is_named(installation):
    installation.write_domain_app()

    outcome = installation.run("-w", "a${HOME", env={})

    assert outcome.domain["app.path.work"] == f"{installation.root}/a${{HOME"
    assert "Warning: 'a${HOME': a '}' is missing" in outcome.err


def test_an_empty_work_folder_is_the_current_folder(installation):
    folder = installation.root / "current"
    folder.mkdir()

    assert installation.domain("-w", "", cwd=folder)["app.path.work"] == f"{folder}"


def test_a_file_in_the_place_of_the_work_folder_stays_and_the_run_goes_on(installation):
    installation.work.write_text("precious")
    installation.work.chmod(0o644)
    installation.write_domain_app()

    outcome = installation.run()

    assert outcome.status == 0, outcome
    assert outcome.domain["app.path.work"] == f"{installation.work}"
    assert (installation.work.read_text(), oct(mode(installation.work))) == ("precious", "0o644")


def test_a_work_folder_that_cannot_be_created_does_not_stop_the_start(public_installation):
    installation = public_installation
    installation.write_domain_app()
    work = installation.root / "one" / "work"

    outcome = installation.run("-w", work, wrapper=AS_NOBODY)

    assert outcome.status == 0, outcome
    assert outcome.domain["app.path.work"] == f"{work}"
    assert not work.parent.exists()
    assert "Permission denied" in outcome.err


def test_a_link_to_a_folder_is_a_work_folder(installation):
    target = installation.root / "target"
    target.mkdir(mode=0o755)
    installation.work.symlink_to(target)
    installation.write_app(main="dom:Log('message', 'logged') return 0")

    assert installation.run().status == 0
    assert installation.log_lines(work=target) == ["Message: logged"]
    assert oct(mode(target)) == "0o755"


# Text from users is never a format.


@pytest.mark.parametrize("suffix", ["%s%s%s%n", "%d", "%", "%%", "%1$s", "%ls"])
def test_format_characters_in_the_name_stand_for_themselves(installation, suffix):
    name = installation.name + suffix
    installation.write_domain_app(name=name)

    outcome = installation.run("-t", "Appl", name=name)

    assert (outcome.status, outcome.err) == (0, "")
    assert outcome.domain["app.name"] == name
    running = [record.text for record in installation.records(name=name) if "Running chunk" in record.text]
    assert running and all(text.endswith(f"Running chunk '{name}'") for text in running)


@pytest.mark.parametrize("token", ["%s%s%s%n.kxe", "%.kxe", "%%.kxe", "%1$s.kxe", "größe%d.kxe"])
def test_format_characters_in_a_list_of_archives_stand_for_themselves(installation, token):
    installation.write_app(main="return 0")

    outcome = installation.run("-z", token)

    assert (outcome.status, outcome.err) == (0, "")
    assert installation.log_lines() == [f"Warning: {token}: no matches"]

"""How the process starts: paths, banners, descriptors, environments that do not fit."""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from agentbox import AS_NOBODY, in_private_mounts, through_shell

VERSION = "11.0.0.2580"

# Changes to the environment: what a service, an operator and a foreign system may have set. None removes.
LOCALES = {
    "C.UTF-8": {"LANG": "C.UTF-8"},
    "C": {"LANG": "C"},
    "LC_ALL=C": {"LC_ALL": "C"},
    "POSIX": {"LANG": "POSIX"},
    "none": {"LANG": None},
    "unknown": {"LANG": "xx_YY.UTF-8"},
}

in_every_locale = pytest.mark.parametrize("locale", LOCALES.values(), ids=LOCALES)

SHOW_ARGUMENTS = """
    for i, word in ipairs(arg) do io.write((word:gsub(".", function(c) return ("%02x"):format(c:byte()) end)), "\\n") end
    return 0"""


def test_smallest_application_runs(installation):
    installation.write_app(main="print('hello from ' .. dom0:Get('app.name')) return 0")

    outcome = installation.run()

    assert (outcome.status, outcome.out, outcome.err) == (0, f"hello from {installation.name}\n", "")


# Paths.


@pytest.mark.parametrize(
    ("below", "parent_is_vendor_folder"),
    [
        ("opt/Quenvar/agent", True),
        ("Quenvar", True),
        ("opt/MyQuenvar-11/agent", True),
        ("opt/quenvar/agent", False),
        ("opt/QUENVAR/agent", False),
        ("opt/Quen/var", False),
        ("usr/local", False),
    ],
    ids=["component", "parent_itself", "within_a_component", "lower_case", "upper_case", "divided", "absent"],
)
def test_vendor_folder_is_the_parent_when_its_path_has_the_vendors_word(install, tmp_path, below, parent_is_vendor_folder):
    root = tmp_path / below
    installation = install(root)

    domain = installation.domain()

    assert domain["app.path.bin"] == f"{root}/bin"
    assert domain["app.path.lib"] == f"{root}/bin/lib"
    assert domain["app.path.qv"] == (f"{root}" if parent_is_vendor_folder else f"{root}/bin")


def test_vendors_word_in_the_name_of_the_executables_own_folder_does_not_count(installation):
    folder = installation.root / "Quenvar"
    shutil.copytree(installation.bin, folder)
    installation.write_domain_app()

    domain = installation.run(executable=folder / "kx_agent").domain

    assert (domain["app.path.bin"], domain["app.path.qv"]) == (f"{folder}", f"{folder}")


def test_executable_in_a_folder_with_a_single_component(installation):
    installation.write_domain_app()

    domain = installation.run(
        executable="/mnt/kx_agent", wrapper=in_private_mounts(f'mount --bind "{installation.bin}" /mnt && exec "$@"')
    ).domain

    got = [domain[key] for key in ("app.path.exe", "app.path.bin", "app.path.lib", "app.path.qv")]
    assert got == ["/mnt/kx_agent", "/mnt", "/mnt/lib", "/mnt"]


@pytest.mark.parametrize(
    "command",
    ["./bin/kx_agent", "bin/kx_agent", "bin/../bin/./kx_agent", "bin//kx_agent", "../*/bin/kx_agent", "~/bin/kx_agent"],
)
def test_program_path_is_absolute_and_normalised(installation, command):
    installation.write_domain_app()
    command = command.replace("*", installation.root.name)

    domain = installation.run(argv0=command).domain

    got = [domain[key] for key in ("app.path.exe", "app.path.bin", "app.path.lib")]
    assert got == [f"{installation.executable}", f"{installation.bin}", f"{installation.bin}/lib"]


def test_environment_variables_in_the_program_path_are_not_expanded(installation):
    folder = installation.root / "$HOME"
    shutil.copytree(installation.bin, folder)
    installation.write_domain_app()

    domain = installation.run(executable=folder / "kx_agent").domain

    assert (domain["app.path.exe"], domain["app.path.bin"]) == (f"{folder}/kx_agent", f"{folder}")


def test_started_through_a_symbolic_link_the_path_is_that_of_the_link(installation):
    link = installation.root / "other" / installation.name
    link.parent.mkdir()
    link.symlink_to(installation.executable)
    installation.write_domain_app()

    outcome = installation.run_raw("--lua_path", f"{installation.lua}/?.lua", "-w", installation.work, executable=link)

    assert outcome.status == 0, outcome
    domain = outcome.domain
    got = [domain[key] for key in ("app.path.exe", "app.path.bin", "app.name")]
    assert got == [f"{link}", f"{link.parent}", installation.name]


def test_started_through_path_the_program_path_is_relative_to_the_current_folder(installation):
    installation.write_domain_app()

    outcome = installation.run(
        executable="kx_agent", wrapper=through_shell('exec "$@"'), env={"PATH": f"{installation.bin}:{os.environ['PATH']}"}
    )

    assert outcome.status == 0, outcome
    assert outcome.domain["app.path.exe"] == f"{installation.root}/kx_agent"


def test_started_in_a_deleted_folder_the_application_runs(installation):
    installation.write_app(main="print('ran') return 0")

    outcome = installation.run(wrapper=through_shell('mkdir gone && cd gone && rmdir ../gone && exec "$@"'))

    assert (outcome.status, outcome.out) == (0, "ran\n"), outcome


@pytest.mark.parametrize("words", ["(None,)", "(b'', None)"], ids=["no_word", "empty_word"])
def test_started_without_a_name_the_missing_application_is_reported(installation, words):
    script = (
        "import ctypes, sys; libc = ctypes.CDLL(None, use_errno=True); path = sys.argv[1].encode(); "
        f"words = {words}; libc.execv(path, (ctypes.c_char_p * len(words))(*words)); sys.exit(99)"
    )

    outcome = installation.run_raw(wrapper=(sys.executable, "-c", script))

    assert outcome.status == 2, outcome  # Lua's status of a run-time error: require raises one
    assert "module '' not found" in outcome.err


def test_name_is_that_of_the_executable_without_its_last_extension(installation):
    executable = installation.bin / f"{installation.name}.second.exe"
    shutil.copy2(installation.executable, executable)
    installation.write_domain_app(name=f"{installation.name}.second")

    outcome = installation.run_raw("-l", f"{installation.lua}/?.lua", executable=executable)

    assert outcome.status == 0, outcome
    assert outcome.domain["app.name"] == f"{installation.name}.second"


def test_version_is_known_to_the_application(installation):
    assert installation.domain()["app.version"] == VERSION


# Banners.


@pytest.mark.parametrize("words", [["--appname", "kx_agent"], []], ids=["by_option", "by_file_name"])
def test_main_agent_logs_that_it_starts_but_a_foreground_worker_not_that_it_exits(installation, words):
    installation.write_app(name="kx_agent", main="dom:Log('message', 'main runs') return 0")

    outcome = installation.run_raw("-l", f"{installation.lua}/?.lua", *words)

    assert (outcome.status, outcome.out, outcome.err) == (0, "", "")
    log = installation.log_lines(name="kx_agent", work=installation.bin / "work")
    assert [line for line in log if not line.startswith("Trace: ")] == [
        f"Verbose: VEL {VERSION} starting.",
        "Message: main runs",
    ]


@pytest.mark.parametrize("name", ["other", "KX_AGENT", "kx_agent2", "vel"])
def test_no_other_application_logs_a_banner(installation, name):
    installation.write_app(name=name, main="dom:Log('message', 'main runs') return 0")

    outcome = installation.run(name=name)

    assert (outcome.status, outcome.err) == (0, "")
    assert installation.log_lines(name=name) == ["Message: main runs"]


def test_executable_of_another_file_name_logs_no_banner(installation):
    executable = installation.bin / installation.name
    shutil.copy2(installation.executable, executable)
    installation.write_app(main="dom:Log('message', 'main runs') return 0")

    outcome = installation.run_raw("-l", f"{installation.lua}/?.lua", executable=executable)

    assert (outcome.status, outcome.err) == (0, "")
    assert installation.log_lines(work=installation.bin / "work") == ["Message: main runs"]


# Help and usage errors.

USAGE = [
    ("-h, --help", "show this help message"),
    ("--verbose", "generate verbose log messages"),
    ("-a, --appname=<str>", "the name of this application (default is based on the name of the executable file)."),
    ("-b, --background", "run as a Windows service or Unix daemon process."),
    ("-c, --lua_cpath=<str>", "add the supplied value at the front of the search path for Lua C libraries."),
    ("-d, --domain_var=<str>", "sets domain variable; name=value format."),
    (
        "-e, --extdir=<str>",
        "extension folder. All *.kxe files from this folder are added to the Lua search path.",
    ),
    ("-i, --install_plugins", "install all *.kxp files found in the same folder as the executable."),
    ("-l, --lua_path=<str>", "add the supplied value at the front of the search path for Lua libraries."),
    ("-p, --plugins=<str>", "comma delimited list of plugins to enable."),
    ("-t, --trace=<str>", "enable tracing for the specified set of module names, separated by commas."),
    ("-w, --workdir=<str>", "working directory where this instance's data files are stored."),
    ("-u, --unittest=<str>", "runs the Lua script (possibly wildcarded) under LuaUnit."),
    ("-U, --test", ""),
    ("-z, --zippath=<str>", "list of ZIP archives of Lua code (possibly wildcarded), separated by semi-colons."),
]


def usage_entries(text):
    return [
        (match[1].strip(), match[2].strip())
        for match in re.finditer(r"^  ((?:-\w, )?--[a-z_]+(?:=<str>)?)([^\n]*)$", text, re.MULTILINE)
    ]


@pytest.mark.parametrize(
    "words", [["--help"], ["-h"], ["-t", "Appl", "--help", "--nonsense"], ["--help", "--", "word"]], ids=" ".join
)
def test_help_is_the_option_table_and_nothing_runs(installation, words):
    installation.write_app(top="print('loaded')", main="return 0")

    outcome = installation.run(*words)

    assert (outcome.status, outcome.out) == (255, "")
    assert usage_entries(outcome.err) == USAGE
    assert "-- script-param [script-param ...]" in outcome.err
    assert not installation.work.exists()


@pytest.mark.parametrize(
    "words",
    [
        ["--nonsense"],
        ["-x"],
        ["--appname"],
        ["-d"],
        ["--background=1"],
        ["-U-"],
        ["--no-test"],
        ["--unit=x"],
        ["--TEST"],
        ["-A", "x"],
    ],
    ids=" ".join,
)
def test_usage_error_is_one_line_before_the_usage_and_nothing_runs(installation, words):
    installation.write_app(top="print('loaded')", main="return 0")

    outcome = installation.run(*words)

    assert (outcome.status, outcome.out) == (255, "")
    error, _, usage = outcome.err.partition("\n")
    assert error and not error.startswith("Usage")
    assert usage.startswith("Usage: kx_agent ")
    assert usage_entries(usage) == USAGE
    assert not installation.work.exists()


def test_help_of_the_main_agent_logs_no_banner(installation):
    outcome = installation.run_raw("--help")

    assert outcome.status == 255
    assert "starting" not in outcome.err
    assert not (installation.bin / "work").exists()


# Locales and words that do not fit them.


@in_every_locale
@pytest.mark.parametrize(
    "word",
    [b"plain", "größe 日本 😀".encode(), b"caf\xe9", b"\xff\xfe", b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"a\xc3", b"\xc0\x80", b""],
    ids=["ascii", "utf8", "latin1", "no_text", "surrogate", "beyond_unicode", "cut_short", "overlong", "empty"],
)
def test_script_parameters_keep_their_bytes(installation, locale, word):
    installation.write_app(main=SHOW_ARGUMENTS)

    outcome = installation.run("--", "before", os.fsdecode(word), "behind", env=locale)

    assert outcome.status == 0, outcome
    assert outcome.out.split("\n")[:-1] == [b"before".hex(), word.hex(), b"behind".hex()]


def test_a_program_name_that_is_no_text_moves_no_other_word(installation):
    link = installation.bin / os.fsdecode(b"caf\xe9")
    link.symlink_to("kx_agent")
    installation.write_app(main=SHOW_ARGUMENTS)

    outcome = installation.run("--", "one", "two", executable=link)

    assert outcome.status == 0, outcome
    assert outcome.out.split("\n")[:-1] == [b"one".hex(), b"two".hex()]


@in_every_locale
def test_folders_may_have_any_name(install, tmp_path, locale):
    installation = install(tmp_path / "gerät 日本")
    work = installation.root / "größe"
    installation.write_domain_app()

    outcome = installation.run("--workdir", work, env=locale)

    assert outcome.status == 0, outcome
    domain = outcome.domain
    got = [domain[key] for key in ("app.path.bin", "app.path.work", "app.lua.path")]
    assert got == [f"{installation.bin}", f"{work}", f"{installation.lua}/?.lua"]
    assert sorted(path.name for path in installation.root.iterdir()) == ["bin", "größe", "lua"]


@in_every_locale
def test_log_is_utf8(installation, locale):
    installation.write_app(main="dom:Log('warning', 'größe 日本') return 0")

    outcome = installation.run(env=locale)

    assert outcome.status == 0, outcome
    assert installation.log_has("Warning: größe 日本")


@in_every_locale
def test_application_may_have_a_name_that_is_not_ascii(installation, locale):
    name = f"{installation.name}_größe"
    installation.write_app(name=name, main="print(dom:Get('app.name')) dom:Log('message', 'ran') return 0")

    outcome = installation.run(name=name, env=locale)

    assert (outcome.status, outcome.out) == (0, f"{name}\n"), outcome
    assert installation.log_has("Message: ran", name=name)


@pytest.fixture(scope="session")
def german(tmp_path_factory):
    """The environments of two German locales, by character set; made here, because few systems have them."""
    folder = tmp_path_factory.mktemp("locales")
    for charset in ("UTF-8", "ISO-8859-1"):
        subprocess.run(["localedef", "-i", "de_DE", "-f", charset, folder / f"de_DE.{charset}"], check=True)
    return {
        charset: {"LANG": f"de_DE.{charset}", "LOCPATH": f"{folder}"} for charset in ("UTF-8", "ISO-8859-1")
    }


@pytest.mark.parametrize("charset", ["UTF-8", "ISO-8859-1"])
def test_numbers_keep_their_decimal_point_in_a_locale_with_a_comma(installation, german, charset):
    installation.write_app(main="print(1.5, tonumber('2.5'), ('%.1f'):format(3.5)) return 0")

    outcome = installation.run(env=german[charset])

    assert (outcome.status, outcome.out, outcome.err) == (0, "1.5\t2.5\t3.5\n", "")


@pytest.mark.parametrize("charset", ["UTF-8", "ISO-8859-1"])
def test_file_names_and_streams_are_utf8_in_a_locale_with_another_character_set(install, tmp_path, german, charset):
    installation = install(tmp_path / "gerät")
    work = installation.root / "größe"
    installation.write_app(main="print(dom:Get('app.path.work')) dom:Log('warning', 'größe') return 0")

    outcome = installation.run("--workdir", work, "-d", "ü", env=german[charset])

    assert outcome.err == "Ignoring invalid domain variable specification 'ü': expected name=value format\n"
    assert (outcome.status, outcome.out) == (0, f"{work}\n")
    assert sorted(path.name for path in installation.root.iterdir()) == ["bin", "größe", "lua"]
    assert installation.log_lines(work=work) == ["Warning: größe"]


# Standard streams.


@in_every_locale
@pytest.mark.parametrize(
    ("words", "message"),
    [
        (["-d", "größe"], "Ignoring invalid domain variable specification 'größe': expected name=value format\n"),
        (["-u", "größe.lua"], "größe.lua: not found"),
    ],
    ids=["domain_var", "unittest"],
)
def test_after_the_agents_own_message_lua_still_reaches_the_standard_streams(installation, locale, words, message):
    installation.write_app(main="print('to stdout: größe') io.stderr:write('to stderr: größe\\n') return 0")

    outcome = installation.run(*words, env=locale)

    assert (outcome.status, outcome.out) == (0, "to stdout: größe\n"), outcome
    assert outcome.err.endswith(f"{message}to stderr: größe\n")


@pytest.mark.parametrize("closed", ["<&-", ">&-", "2>&-", "<&- >&-", "<&- 2>&-", ">&- 2>&-", "<&- >&- 2>&-"])
def test_closed_standard_streams_do_not_reach_files_that_are_opened_later(installation, closed):
    data = installation.root / "data"
    installation.write_app(
        main=f"""
            local file = assert(io.open("{data}", "w"))
            print("to stdout")
            io.stderr:write("to stderr")
            file:write("data")
            file:close()
            dom:Log("warning", "logged")
            return io.read("*a") == "input" and 0 or 7"""
    )

    outcome = installation.run("-d", "invalid", wrapper=through_shell(f'exec "$@" {closed}'), stdin=b"input")

    assert outcome.status == (7 if "<&-" in closed else 0), outcome
    assert data.read_text() == "data"
    assert installation.log_lines() == ["Warning: logged"]


def test_standard_streams_that_nobody_reads_do_not_end_the_run(installation):
    installation.write_app(
        main="""
            local written = io.stdout:write(("x"):rep(100000)) and io.stdout:flush()
            dom:Log("message", written and "written" or "not written")
            return 0"""
    )

    # The reader ends at once; it is gone when the pipe is full.
    installation.run(wrapper=through_shell('{ "$@"; echo $? >status; } | true'))

    assert (installation.root / "status").read_text() == "0\n"
    assert installation.log_lines() == ["Message: not written"]


def test_no_library_of_a_graphical_interface_is_linked(installation):
    shown = subprocess.run(["ldd", installation.executable], capture_output=True, text=True, check=True).stdout

    assert "libwx_baseu" in shown
    assert re.findall(r"\S*(?:gtk|gdk|X11|xcb|wayland|_core-|cairo|pango)\S*", shown) == []


# Other users than root.


def test_any_user_can_run_it(public_installation):
    installation = public_installation
    installation.write_app(main="print('ran') dom:Log('message', 'logged') return 0")

    outcome = installation.run("--workdir", installation.home / "work", wrapper=AS_NOBODY)

    assert (outcome.status, outcome.out, outcome.err) == (0, "ran\n", "")
    assert installation.log_lines(work=installation.home / "work") == ["Message: logged"]
    assert Path(installation.home / "work").owner() == "nobody"

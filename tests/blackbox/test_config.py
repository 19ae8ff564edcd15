"""What the agent takes from its configuration files, and what it makes of files that are none."""

import os

import pytest

from agentbox import AS_NOBODY, in_private_mounts

MAIN_AGENT_TRACE = "Appl,Cmd,Srvc,vel.Heartbeat,vel.ListenThread,vel.PluginUtils"

SQLITE_NAMES = ["cache", "busy_timeout", "mmap_size", "soft_heap_limit", "synchronous"]


def configure(installation, content):
    """Writes the local configuration file; "*" in a text stands for the application's name."""
    installation.work.mkdir(exist_ok=True)
    path = installation.work / "kx_agent.ini"
    if isinstance(content, bytes):
        path.write_bytes(content)
    else:
        path.write_text(content.replace("*", installation.name))
    return path


def sqlite_variables(domain):
    return {key: value for key, value in domain.items() if key.startswith("sqlite.config")}


def warnings(installation, **where):
    return installation.log_lines("Warning", **where)


# Trace.


@pytest.mark.parametrize(
    ("line", "trace"),
    [
        ("*.Trace=Appl,Cmd", "Appl,Cmd"),
        ("*.Trace=", ""),
        ("*.Trace=*", "*"),
        ("*.Trace=%s%n%d", "%s%n%d"),
        ("*.Trace=größe 日本", "größe 日本"),
        ("*.Trace=\"Appl,Cmd\"", "Appl,Cmd"),
        ("Trace=Appl", ""),
        ("kx_agent.Trace=Appl", ""),
        ("*x.Trace=Appl", ""),
        ("[*]\nTrace=Appl", ""),
        ("[group]\n*.Trace=Appl", ""),
        ("# *.Trace=Appl", ""),
        ("; *.Trace=Appl", ""),
    ],
)
def test_trace_list_of_another_application(installation, line, trace):
    configure(installation, line + "\n")

    assert installation.domain()["app.trace+"] == trace.replace("*", installation.name)


@pytest.mark.parametrize(
    ("line", "trace"),
    [
        ("", MAIN_AGENT_TRACE),
        ("Trace=Appl", "Appl"),
        ("Trace=", ""),
        ("kx_agent.Trace=Appl", MAIN_AGENT_TRACE),
        ("Other.Trace=Appl", MAIN_AGENT_TRACE),
    ],
    ids=["absent", "given", "empty", "key_of_other_names", "key_of_another_name"],
)
def test_trace_list_of_the_main_agent(installation, line, trace):
    configure(installation, line + "\n")
    installation.write_domain_app(name="kx_agent")

    outcome = installation.run(name="kx_agent")

    assert outcome.status == 0, outcome
    assert outcome.domain["app.trace+"] == trace


@pytest.mark.parametrize("name", ["", "x.y", "%s"], ids=["plain", "dotted", "format"])
def test_files_have_their_fixed_names_whatever_the_application_is_called(installation, name):
    name = installation.name + name
    configure(installation, f"{name}.Trace=Appl\n")
    (installation.work / f"{name}.ini").write_text("DumpLevel=1\n")
    installation.write_domain_app(name=name)

    outcome = installation.run(name=name)

    assert outcome.status == 0, outcome
    domain = outcome.domain
    assert (domain["app.trace+"], domain["app.fulldump"]) == ("Appl", False)
    assert domain["app.path.ini"] == f"{installation.work}/kx_agent.ini"
    assert domain["app.path.ini.global"] == "/etc/kx_agent.conf"


# DumpLevel.


@pytest.mark.parametrize(
    ("line", "full"),
    [
        ("", False),
        ("DumpLevel=0", False),
        ("DumpLevel=00", False),
        ("DumpLevel=1", True),
        ("DumpLevel=2", True),
        ("DumpLevel=-1", True),
        ("DumpLevel=+1", True),
        ("DumpLevel=9223372036854775807", True),
        ("DumpLevel=-9223372036854775808", True),
        ("DumpLevel=9223372036854775808", False),
        ("DumpLevel=99999999999999999999999", False),
        ("DumpLevel=", False),
        ("DumpLevel=abc", False),
        ("DumpLevel=12abc", False),
        ("DumpLevel=0x10", False),
        ("DumpLevel=1.5", False),
        ("DumpLevel=true", False),
        ("DumpLevel=1 # full", False),
        ("[group]\nDumpLevel=1", False),
    ],
    ids=lambda value: value or "absent" if isinstance(value, str) else None,
)
def test_full_dumps_are_asked_for_by_a_number_that_is_not_zero(installation, line, full):
    configure(installation, line + "\n")

    assert installation.domain()["app.fulldump"] is full


# FIPSMode.


@pytest.mark.parametrize(
    ("line", "mode"),
    [("", None), ("FIPSMode=", ""), ("FIPSMode=0", "0"), ("FIPSMode=%s%n", "%s%n"), ("FIPSMode=yes", "yes"), ("FIPSMode=1", "1")],
    ids=["absent", "empty", "0", "format", "yes", "1"],
)
def test_fips_mode_is_copied_as_text(installation, line, mode):
    configure(installation, line + "\n")

    assert installation.domain().get("app.fipsmode") == mode


# sqlite.config.*


@pytest.mark.parametrize(
    ("name", "value"),
    [
        ("cache", 1),
        ("cache", 2000),
        ("busy_timeout", 0),
        ("busy_timeout", 5000),
        ("mmap_size", 0),
        ("mmap_size", 2**40),
        ("soft_heap_limit", 0),
        ("soft_heap_limit", 2**40),
        ("synchronous", 0),
        ("synchronous", 1),
        ("synchronous", 2),
        ("synchronous", 3),
    ],
)
def test_integer_entries_for_the_database_become_variables(installation, name, value):
    configure(installation, f"sqlite.config.{name}={value}\n")

    assert sqlite_variables(installation.domain()) == {f"sqlite.config.{name}": value}
    assert warnings(installation) == []


@pytest.mark.parametrize("value", [-1, 4])
def test_a_synchronous_level_that_does_not_exist_is_named_in_a_warning(installation, value):
    configure(installation, f"sqlite.config.synchronous={value}\n")

    assert sqlite_variables(installation.domain()) == {"sqlite.config.synchronous": value}
    assert ["sqlite.config.synchronous" in text for text in warnings(installation)] == [True]


@pytest.mark.parametrize("name", SQLITE_NAMES)
@pytest.mark.parametrize("value", ["-1", "-9223372036854775808", "4", "2147483648", "9223372036854775807"])
def test_numbers_out_of_a_settings_range_do_not_stop_the_run(installation, name, value):
    configure(installation, f"sqlite.config.{name}={value}\n")

    assert sqlite_variables(installation.domain()) == {f"sqlite.config.{name}": float(value)}


@pytest.mark.parametrize(
    "value", ["abc", "", "12abc", "0x10", "1.5", "1e3", "true", "9223372036854775808", "1 # pages", "1;2", "größe", "%d"]
)
def test_entries_for_the_database_that_are_no_integers_are_skipped(installation, value):
    configure(installation, f"sqlite.config.cache={value}\nsqlite.config.busy_timeout=64\n")

    assert sqlite_variables(installation.domain()) == {"sqlite.config.busy_timeout": 64}


def test_all_entries_for_the_database_are_taken_whatever_stands_between_them(installation):
    configure(
        installation,
        "sqlite.config.synchronous=1\nDumpLevel=1\nsqlite.config.cache=abc\n*.Trace=x\nsqlite.config.busy_timeout=64\n"
        "a=b\nsqlite.config.mmap_size=-0\n[group]\nsqlite.config.soft_heap_limit=1\n",
    )

    assert sqlite_variables(installation.domain()) == {
        "sqlite.config.synchronous": 1,
        "sqlite.config.busy_timeout": 64,
        "sqlite.config.mmap_size": 0,
    }


@pytest.mark.parametrize("name", ["nonsense", "cache2", "cache.size", "größe", "%s%n"])
def test_an_unknown_database_setting_is_named_in_a_warning(installation, name):
    configure(installation, f"sqlite.config.{name}=5\nsqlite.config.cache=64\n")

    domain = installation.domain()

    assert sqlite_variables(domain) == {f"sqlite.config.{name}": 5, "sqlite.config.cache": 64}
    named = [text for text in warnings(installation) if f"sqlite.config.{name}" in text]
    assert len(named) == 1, installation.log_text()
    assert warnings(installation) == named


@pytest.mark.parametrize("name", ["sqlite.config", "sqlite.configuration", "sqlite.config2.cache"])
def test_every_name_with_the_prefix_becomes_a_variable(installation, name):
    configure(installation, f"{name}=5\n")

    assert sqlite_variables(installation.domain()) == {name: 5}


# The two files.


@pytest.mark.parametrize(
    ("in_global", "in_local", "full"),
    [(None, None, False), ("1", None, True), (None, "1", True), ("1", "0", False), ("0", "1", True)],
)
def test_the_local_file_wins_over_the_global_one(installation, in_global, in_local, full):
    path = installation.root / "global.conf"
    if in_global:
        path.write_text(f"DumpLevel={in_global}\nsqlite.config.cache=7\n")
    if in_local:
        configure(installation, f"DumpLevel={in_local}\n")

    domain = installation.domain("-d", f"app.path.ini.global={path}")

    assert domain["app.fulldump"] is full
    assert sqlite_variables(domain) == ({"sqlite.config.cache": 7} if in_global else {})


def test_the_global_file_is_in_the_systems_configuration_folder(installation):
    etc = installation.root / "etc"
    etc.mkdir()
    (etc / "kx_agent.conf").write_text(f"DumpLevel=1\n{installation.name}.Trace=Cmd\n")
    for name in ("ld.so.cache", "passwd"):
        (etc / name).write_bytes(open(f"/etc/{name}", "rb").read())

    domain = installation.domain(wrapper=in_private_mounts(f'mount --bind "{etc}" /etc && exec "$@"'))

    assert (domain["app.fulldump"], domain["app.trace+"]) == (True, "Cmd")


def test_the_files_are_only_read(installation):
    path = configure(installation, "# comment\nDumpLevel=1\n\n[group]\nunused = 1\n")
    content = path.read_bytes()
    missing = installation.root / "missing.conf"

    assert installation.domain("-d", f"app.path.ini.global={missing}")["app.fulldump"] is True

    assert path.read_bytes() == content
    assert sorted(entry.name for entry in installation.work.iterdir()) in (["kx_agent.ini"], ["kx_agent.ini", "log"])
    assert not missing.exists()


# Encodings, and files that are none.

SETTINGS = "DumpLevel=2\n*.Trace=Appl,größe\nsqlite.config.cache=64\n"


@pytest.mark.parametrize("locale", [{"LANG": "C.UTF-8"}, {"LANG": None}], ids=["utf8_locale", "no_locale"])
@pytest.mark.parametrize(
    "encode",
    [
        lambda text: text.encode(),
        lambda text: text.rstrip("\n").encode(),
        lambda text: text.replace("\n", "\r\n").encode(),
        lambda text: b"\xef\xbb\xbf" + text.encode(),
        lambda text: b"\xef\xbb\xbf" + text.replace("\n", "\r\n").encode(),
        lambda text: b"\xff\xfe" + text.encode("utf-16-le"),
        lambda text: b"\xfe\xff" + text.encode("utf-16-be"),
        lambda text: b"\xff\xfe\0\0" + text.encode("utf-32-le"),
    ],
    ids=["utf8", "no_last_line_end", "crlf", "bom", "bom_crlf", "utf16le", "utf16be", "utf32le"],
)
def test_a_text_file_may_be_encoded_as_editors_do_it(installation, encode, locale):
    configure(installation, encode(SETTINGS.replace("*", installation.name)))

    domain = installation.domain(env=locale)

    assert (domain["app.fulldump"], domain["app.trace+"]) == (True, "Appl,größe")
    assert sqlite_variables(domain) == {"sqlite.config.cache": 64}


def test_a_text_that_is_not_utf8_loses_no_setting(installation):
    configure(installation, "FIPSMode=0\nother=".encode() + b"caf\xe9\xff\nDumpLevel=2\nsqlite.config.cache=64\n")

    domain = installation.domain()

    assert (domain["app.fulldump"], domain["app.fipsmode"]) == (True, "0")
    assert sqlite_variables(domain) == {"sqlite.config.cache": 64}


@pytest.mark.parametrize(
    "line",
    [
        "x=" + "y" * 10_000_000,
        "y" * 10_000_000,
        "no equals sign",
        "[unclosed",
        "=empty key",
        '"a""b"',
        '"a""b"=c',
        "DumpLevel=0\nDumpLevel=0",
        "\\",
        "x=\\",
        "[a/b/../../..]\n[/]",
        "!DumpLevel",
        "x=${HOME\ny=$(HOME\nz=$",
    ],
    ids=lambda line: line[:9].replace("\n", " ").replace("/", "_"),
)
def test_a_line_that_is_no_setting_does_not_take_others_with_it(installation, line):
    configure(installation, f"{line}\nsqlite.config.cache=64\n")
    installation.write_domain_app()

    outcome = installation.run()

    assert outcome.status == 0, outcome
    assert sqlite_variables(outcome.domain) == {"sqlite.config.cache": 64}


@pytest.mark.parametrize(
    "content",
    [
        b"",
        b"\0",
        b"\0" * 100_000,
        bytes(range(256)) * 4000,
        b"\xff\xfe",
        b"\xef\xbb\xbf",
        b"\x7fELF\x02\x01\x01\0" * 1000,
        b"\n" * 1_000_000,
        b"[" * 10_000,
        b"a/" * 2_000 + b"=1",
        b"\xff\xfe=",
    ],
    ids=["empty", "nul", "nuls", "all_bytes", "half_bom", "only_bom", "program", "line_ends", "brackets", "deep", "cut_utf16"],
)
def test_a_file_that_is_no_text_leaves_the_defaults(installation, content):
    configure(installation, content)
    installation.write_domain_app()

    outcome = installation.run()

    assert outcome.status == 0, outcome
    domain = outcome.domain
    assert (domain["app.fulldump"], domain["app.trace+"], domain.get("app.fipsmode")) == (False, "", None)
    assert sqlite_variables(domain) == {}


@pytest.mark.parametrize(
    "make",
    [
        lambda path: path.mkdir(),
        lambda path: os.mkfifo(path),
        lambda path: path.symlink_to("/nowhere/at/all"),
        lambda path: path.symlink_to(path),
        lambda path: path.symlink_to("/dev/null"),
    ],
    ids=["folder", "fifo", "dangling_link", "circular_link", "null_device"],
)
@pytest.mark.parametrize("which", ["app.path.ini", "app.path.ini.global"])
def test_what_is_no_file_counts_as_missing(installation, make, which):
    path = installation.root / "configuration"
    make(path)
    installation.write_domain_app()

    outcome = installation.run("-d", f"{which}={path}")

    assert outcome.status == 0, outcome
    assert (outcome.domain["app.fulldump"], outcome.domain["app.trace+"]) == (False, "")


@pytest.mark.parametrize("path", ["", "relative.ini", "/", "/nowhere/at/all.ini", "%s%n.ini", "größe.ini"])
@pytest.mark.parametrize("which", ["app.path.ini", "app.path.ini.global"])
def test_a_missing_file_leaves_the_defaults_and_is_no_error(installation, which, path):
    installation.write_domain_app()

    outcome = installation.run("-d", f"{which}={path}")

    assert (outcome.status, outcome.err) == (0, "")
    assert (outcome.domain["app.fulldump"], outcome.domain["app.trace+"]) == (False, "")
    assert installation.log_text() == ""


def test_a_file_that_cannot_be_read_is_named_and_leaves_the_defaults(public_installation):
    installation = public_installation
    path = installation.root / "secret.ini"
    path.write_text("DumpLevel=1\n")
    path.chmod(0)
    installation.write_domain_app()

    outcome = installation.run("-d", f"app.path.ini={path}", "-w", installation.home / "work", wrapper=AS_NOBODY)

    assert outcome.status == 0, outcome
    assert outcome.domain["app.fulldump"] is False
    log = installation.log_text(work=installation.home / "work")
    assert f"{path}" in log and "Permission denied" in log

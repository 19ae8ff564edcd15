"""FIPS mode: off, on without a module, with a broken module, with a good one."""

import hashlib
import os
import re
import subprocess
from pathlib import Path

import pytest

from agentbox import AS_NOBODY

SOURCE = Path(__file__).resolve().parents[1] / "support" / "fips_provider.c"

# What the application finds: the library's folder variable, and whether a digest can be had.
SHOW = """
    print("ran")
    print("engines", os.getenv("OPENSSL_ENGINES"))
    local ok, digest = pcall(function() return require("openssl.digest").new("sha256"):final("text") end)
    print("digest", ok and digest:gsub(".", function(c) return ("%02x"):format(c:byte()) end) or "none")
    return 0"""

DIGEST = hashlib.sha256(b"text").hexdigest()

ON = "1"


@pytest.fixture(scope="session")
def modules(tmp_path_factory):
    """Provider modules by what they do."""
    folder = tmp_path_factory.mktemp("modules")
    paths = {}
    for behaviour in ("GOOD", "SELF_TEST_FAILS", "INIT_FAILS"):
        paths[behaviour] = folder / f"{behaviour}.so"
        command = ["cc", "-shared", "-fPIC", f"-DPROVIDER_{behaviour}", "-o", paths[behaviour], SOURCE]
        subprocess.run(command, check=True)
    paths["NO_ENTRY_POINT"] = folder / "NO_ENTRY_POINT.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-x", "c", "-o", paths["NO_ENTRY_POINT"], "/dev/null"], check=True)
    paths["JUNK"] = folder / "JUNK.so"
    paths["JUNK"].write_bytes(b"this is no module\n" * 100)
    paths["EMPTY"] = folder / "EMPTY.so"
    paths["EMPTY"].write_bytes(b"")
    paths["CUT"] = folder / "CUT.so"
    paths["CUT"].write_bytes(paths["GOOD"].read_bytes()[:3000])
    return paths


BROKEN = ["SELF_TEST_FAILS", "INIT_FAILS", "NO_ENTRY_POINT", "JUNK", "EMPTY", "CUT"]


def engines(installation):
    return installation.bin / "lib" / "engines"


def install_module(module, folder):
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "fips.so").write_bytes(module.read_bytes())


def run(installation, fipsmode=ON, words=(), **options):
    """A run with tracing, FIPSMode being `fipsmode` in the configuration; None leaves it out."""
    installation.work.mkdir(exist_ok=True)
    if fipsmode is not None:
        (installation.work / "kx_agent.ini").write_text(f"FIPSMode={fipsmode}\n")
    installation.write_app(main=SHOW)
    return installation.run("-t", "Appl", *words, **options)


def fips_records(installation, **where):
    """The records about FIPS mode, a trace without its place in the source."""
    lines = [re.sub(r"^Trace: Appl: .*?\): ", "Trace: ", line) for line in installation.log_lines(**where)]
    return [line for line in lines if "FIPS" in line or "OPENSSL" in line]


def answer(engines="nil", digest=DIGEST):
    return f"ran\nengines\t{engines}\ndigest\t{digest}\n"


def assert_not_supported(installation, outcome):
    assert (outcome.status, outcome.out, outcome.err) == (0, answer(f"{engines(installation)}"), "")
    folder, warning = fips_records(installation)
    assert folder == f"Verbose: OPENSSL_ENGINES = {engines(installation)}"
    assert warning.startswith("Warning: Tried to enter FIPS mode but failed: error:")


def assert_failed(installation, outcome):
    assert (outcome.status, outcome.out, outcome.err) == (0, "", "")
    folder, warning, error = fips_records(installation)
    assert folder == f"Verbose: OPENSSL_ENGINES = {engines(installation)}"
    assert warning.startswith("Warning: Tried to enter FIPS mode but failed: error:")
    assert error == "Error: Failed to enter FIPS mode. Exiting."


def assert_on(installation, outcome, folder=None):
    # The test's module offers no algorithm: a digest would come from elsewhere.
    folder = folder or engines(installation)
    assert (outcome.status, outcome.out, outcome.err) == (0, answer(f"{folder}", digest="none"), "")
    assert fips_records(installation) == [f"Verbose: OPENSSL_ENGINES = {folder}", "Trace: FIPS mode is ON"]


@pytest.mark.parametrize("locale", [{"LANG": "C.UTF-8"}, {"LC_ALL": "C"}, {"LANG": None}], ids=str)
@pytest.mark.parametrize("name", ["gr\u00f6\u00dfe", "caf\udce9"], ids=["letters", "no text"])
def test_the_library_is_told_the_folder_in_every_locale(install, tmp_path, locale, name):
    installation = install(tmp_path / name)

    outcome = run(installation, ON, env=locale)

    assert outcome.status == 0, outcome
    assert f"engines\t{engines(installation)}\n" in outcome.out


# Off.


@pytest.mark.parametrize("fipsmode", [None, "", "0", '"0"', "${KX_OFF}"])
def test_off_calls_nothing_and_changes_nothing(installation, modules, fipsmode):
    install_module(modules["INIT_FAILS"], engines(installation))

    outcome = run(installation, fipsmode, env={"KX_OFF": "0"})

    assert (outcome.status, outcome.out, outcome.err) == (0, answer(), "")
    assert fips_records(installation) == ["Trace: FIPS mode is OFF"]


def test_off_leaves_the_environment_variable_of_the_caller(installation):
    outcome = run(installation, "0", env={"OPENSSL_ENGINES": "/of/the/caller"})

    assert outcome.out == answer("/of/the/caller")


def test_off_says_nothing_without_tracing(installation):
    installation.write_app(main=SHOW)

    assert installation.run().out == answer()
    assert installation.log_text() == ""


@pytest.mark.parametrize("value", ["", "0"])
def test_a_domain_variable_can_switch_it_off(installation, value):
    outcome = run(installation, None, words=["-d", f"app.fipsmode={value}"])

    assert outcome.status == 0
    assert fips_records(installation) == ["Trace: FIPS mode is OFF"]


# On, without a module.


@pytest.mark.parametrize("fipsmode", ["1", "yes", "true", "on", "no", "false", "off", "00", "0.0", "-0", "%s%n", "größe"])
def test_without_a_module_every_value_but_0_gives_a_warning_and_cryptography_works(installation, fipsmode):
    assert_not_supported(installation, run(installation, fipsmode))


def test_a_domain_variable_can_switch_it_on(installation):
    assert_not_supported(installation, run(installation, None, words=["-d", "app.fipsmode=1"]))


def test_without_a_module_all_kinds_of_cryptography_work(installation):
    installation.write_app(
        main="""
            assert(#require("openssl.rand").bytes(32) == 32)
            local cipher = require("openssl.cipher").new("aes-128-cbc")
            local secret = cipher:encrypt(("k"):rep(16), ("i"):rep(16)):final("text")
            local plain = require("openssl.cipher").new("aes-128-cbc"):decrypt(("k"):rep(16), ("i"):rep(16)):final(secret)
            assert(plain == "text")
            assert(#require("openssl.hmac").new("key", "sha512"):final("text") == 64)
            local key = require("openssl.pkey").new{type = "EC", curve = "prime256v1"}
            local digest = require("openssl.digest").new("sha256"):update("text")
            assert(key:verify(key:sign(digest), require("openssl.digest").new("sha256"):update("text")))
            assert(require("openssl.ssl.context").new())
            print("works")
            return 0"""
    )

    outcome = installation.run("-d", "app.fipsmode=1")

    assert (outcome.status, outcome.out, outcome.err) == (0, "works\n", "")


def test_the_callers_engines_folder_is_replaced(installation):
    outcome = run(installation, env={"OPENSSL_ENGINES": "/of/the/caller"})

    assert_not_supported(installation, outcome)


@pytest.mark.parametrize("kind", ["folder", "dangling_link", "fifo"])
def test_what_is_no_file_is_no_module(installation, kind):
    path = engines(installation) / "fips.so"
    path.parent.mkdir(parents=True)
    if kind == "folder":
        path.mkdir()
    elif kind == "dangling_link":
        path.symlink_to("/nowhere/at/all.so")
    else:
        os.mkfifo(path)

    assert_not_supported(installation, run(installation))


def test_a_file_in_place_of_the_engines_folder_is_no_module(installation):
    engines(installation).parent.mkdir()
    engines(installation).write_text("")

    assert_not_supported(installation, run(installation))


def test_a_module_of_another_name_does_not_count(installation, modules):
    install_module(modules["GOOD"], engines(installation))
    (engines(installation) / "fips.so").rename(engines(installation) / "FIPS.so")

    assert_not_supported(installation, run(installation))


@pytest.mark.parametrize("folder", ["", "/nowhere/at/all", "relative", "/dev/null"])
def test_a_modules_folder_without_a_module_is_passed_over(installation, folder):
    assert_not_supported(installation, run(installation, env={"OPENSSL_MODULES": folder}))


# On, with a broken module.


@pytest.mark.parametrize("behaviour", BROKEN)
def test_a_broken_module_ends_the_run_with_status_0(installation, modules, behaviour):
    install_module(modules[behaviour], engines(installation))

    assert_failed(installation, run(installation))


@pytest.mark.parametrize("behaviour", BROKEN)
def test_a_broken_module_in_the_librarys_folder_ends_the_run_with_status_0(installation, modules, behaviour):
    folder = installation.root / "modules"
    install_module(modules[behaviour], folder)

    assert_failed(installation, run(installation, env={"OPENSSL_MODULES": f"{folder}"}))


def test_a_module_that_cannot_be_read_ends_the_run_with_status_0(public_installation, modules):
    installation = public_installation
    install_module(modules["GOOD"], engines(installation))
    (engines(installation) / "fips.so").chmod(0)
    work = installation.home / "work"

    outcome = run(installation, None, words=["-d", "app.fipsmode=1", "-w", work], wrapper=AS_NOBODY)

    assert (outcome.status, outcome.out, outcome.err) == (0, "", "")
    assert fips_records(installation, work=work)[-1] == "Error: Failed to enter FIPS mode. Exiting."


def test_the_main_agent_says_that_it_exits_when_its_run_is_given_up(installation, modules):
    install_module(modules["INIT_FAILS"], engines(installation))
    installation.write_app(name="kx_agent", top="print('loaded')")

    outcome = installation.run("-d", "app.fipsmode=1", name="kx_agent")

    assert (outcome.status, outcome.out, outcome.err) == (0, "", "")
    lines = [line for line in installation.log_lines(name="kx_agent") if not line.startswith("Trace: ")]
    assert lines[0] == "Verbose: VEL 11.0.0.2580 starting."
    assert lines[-2] == "Error: Failed to enter FIPS mode. Exiting."
    assert re.fullmatch(r"Verbose: VEL 11\.0\.0\.2580 exiting\. Run time was 0d 00:00:\d\d\.\d\d\d", lines[-1])


def test_another_application_says_nothing_when_its_run_is_given_up(installation, modules):
    install_module(modules["INIT_FAILS"], engines(installation))

    assert run(installation).status == 0
    assert "exiting" not in installation.log_text()


# On, with a good module.


def test_with_a_good_module_only_its_algorithms_can_be_had(installation, modules):
    install_module(modules["GOOD"], engines(installation))

    assert_on(installation, run(installation))


def test_a_good_module_in_the_librarys_folder_is_found(installation, modules):
    folder = installation.root / "modules"
    install_module(modules["GOOD"], folder)

    assert_on(installation, run(installation, env={"OPENSSL_MODULES": f"{folder}"}))


@pytest.mark.parametrize("kind", ["folder", "dangling_link", "absent"])
def test_what_is_no_file_does_not_hide_the_module_of_the_library(installation, modules, kind):
    folder = installation.root / "modules"
    install_module(modules["GOOD"], folder)
    engines(installation).mkdir(parents=True)
    if kind == "folder":
        (engines(installation) / "fips.so").mkdir()
    elif kind == "dangling_link":
        (engines(installation) / "fips.so").symlink_to("/nowhere/at/all.so")

    assert_on(installation, run(installation, env={"OPENSSL_MODULES": f"{folder}"}))


def test_the_module_beside_the_agent_comes_first(installation, modules):
    folder = installation.root / "modules"
    install_module(modules["INIT_FAILS"], folder)
    install_module(modules["GOOD"], engines(installation))

    assert_on(installation, run(installation, env={"OPENSSL_MODULES": f"{folder}"}))


def test_a_broken_module_beside_the_agent_is_not_passed_over(installation, modules):
    folder = installation.root / "modules"
    install_module(modules["GOOD"], folder)
    install_module(modules["INIT_FAILS"], engines(installation))

    assert_failed(installation, run(installation, env={"OPENSSL_MODULES": f"{folder}"}))


@pytest.mark.parametrize("name", ["other", "größe", "%s%n"])
def test_the_library_folder_can_be_moved_by_a_domain_variable(installation, modules, name):
    folder = installation.root / name / "engines"
    install_module(modules["GOOD"], folder)

    outcome = run(installation, words=["-d", f"app.path.lib={folder.parent}"])

    assert_on(installation, outcome, folder)


def test_on_says_so_only_with_tracing(installation, modules):
    install_module(modules["GOOD"], engines(installation))
    installation.write_app(main=SHOW)

    outcome = installation.run("-d", "app.fipsmode=1")

    assert (outcome.status, outcome.err) == (0, "")
    assert installation.log_lines() == [f"Verbose: OPENSSL_ENGINES = {engines(installation)}"]

"""The manifest and the method for SMF, without SMF: the manifest against a schema, the method with stand-ins.

The stand-in for a process contract is a variable of the environment, which children inherit as they do a contract.
"""

import itertools
import os
import shlex
import signal
import subprocess
import sys

import pytest

from agentbox import Installation, await_condition
from machine import PROJECT
from service import UNIT

MANIFEST = PROJECT / "packaging/solaris/kx_agent.xml"
METHOD = PROJECT / "packaging/solaris/svc-kx_agent"
SCHEMA = PROJECT / "tests/packaging/service_bundle.rng"
PROBE = PROJECT / "tests/packaging/probe.lua"

OK, FATAL, CONFIG = 0, 95, 96

_numbers = itertools.count(1)

# What a method finds on the system: the exit codes and two functions.
INCLUDE = f"""
SMF_EXIT_OK={OK} SMF_EXIT_ERR_FATAL={FATAL} SMF_EXIT_ERR_CONFIG={CONFIG}
smf_clear_env() {{ unset SMF_FMRI SMF_METHOD SMF_RESTARTER SMF_ZONENAME; }}
smf_kill_contract() {{
  echo "smf_kill_contract $*"
  while members=$(ps -e -o ctid= -o pid= | sed -n "s/^ *$1 //p"); [ -n "$members" ]; do kill "-$2" $members; done
}}
"""

# The two forms in which the method asks ps.
PS = r"""#!{python}
import os, re, sys

def contract(process):
    try:
        found = re.search(rb"(?:^|\0)KX_CONTRACT=(\d+)\0", open(f"/proc/{{process}}/environ", "rb").read())
    except OSError:
        found = None
    return found[1].decode() if found else "1"

if sys.argv[1:4] == ["-o", "ctid=", "-p"]:
    print("%6s" % contract(sys.argv[4]))
elif sys.argv[1:] == ["-e", "-o", "ctid=", "-o", "pid="]:
    for process in filter(str.isdigit, os.listdir("/proc")):
        print("%6s %6s" % (contract(process), process))
else:
    sys.exit(f"unexpected: {{sys.argv[1:]}}")
"""


def xmllint(text, *options):
    done = subprocess.run(["xmllint", "--noout", "--nonet", *options, "-"], input=text, capture_output=True, text=True)
    return done.returncode, done.stderr


# The manifest.


def test_manifest_is_well_formed_and_fits_the_schema():
    text = MANIFEST.read_text()

    assert xmllint(text)[0] == 0, xmllint(text)[1]
    assert xmllint(text, "--relaxng", SCHEMA)[0] == 0, xmllint(text, "--relaxng", SCHEMA)[1]


@pytest.mark.parametrize(
    "old, new",
    [
        ('type="manifest"', 'type="profile"'),
        ('version="1">', 'version="one">'),
        ('enabled="false"', 'enabled="no"'),
        ("<single_instance/>", "<single_instances/>"),
        ('grouping="require_all"', 'grouping="require"'),
        ('restart_on="none"', ""),
        ("svc:/system/", "system/"),
        ('name="LANG"', 'name="SMF_LANG"'),
        ('working_directory="/"', 'working_directory="root"'),
        ('name="start"', 'name="begin"'),
        ('exec="/lib/', 'exec="lib/'),
        ("%{restarter/contract}", "%{restarter/contract"),
        ("%{restarter/contract}", "100%"),
        ('timeout_seconds="90"', 'timeout_seconds="0"'),
        ('value="contract"', 'value="wait"'),
        ('value="core,signal"', 'value="crash"'),
        ('type="count" value="2"', 'type="astring" value="2"'),
        ('<stability value="Unstable"/>', ""),
        ('xml:lang="C"', ""),
        ('section="8"', 'section="eight"'),
    ],
)
def test_schema_refuses(old, new):
    text = MANIFEST.read_text()
    assert old in text

    status, complaint = xmllint(text.replace(old, new), "--relaxng", SCHEMA)

    assert status == 3, complaint


def test_manifest_says_that_it_was_not_run():
    assert "Not run on Solaris" in MANIFEST.read_text()
    assert "Not run on Solaris" in METHOD.read_text()


def test_both_service_managers_start_the_same_command():
    (unit,) = [line for line in UNIT.read_text().splitlines() if line.startswith("ExecStart=")]
    command = unit.removeprefix("ExecStart=").split()

    assert command[0] == "/opt/kx_agent/bin/kx_agent"
    assert " ".join(command) in " ".join(MANIFEST.read_text().split())


def test_manifest_gives_the_methods_more_time_than_they_take():
    patience = dict(line.split()[0].split("=") for line in METHOD.read_text().splitlines() if "_patience=" in line.split(" ")[0])

    manifest = " ".join(MANIFEST.read_text().split())
    for name in ("start", "stop"):
        timeout = int(manifest.split(f'name="{name}" timeout_seconds="')[1].split('"')[0])
        assert timeout >= int(patience[f"{name}_patience"]) + 10


# The method.


def test_method_is_shell_that_a_checker_has_nothing_to_say_about():
    for checker in (["sh", "-n"], ["shellcheck", "--shell=sh"]):
        verdict = subprocess.run([*checker, METHOD], capture_output=True, text=True)
        assert (verdict.returncode, verdict.stdout + verdict.stderr) == (0, "")


class Contract:
    """One service instance: an installation, and the processes that its start method has begun."""

    def __init__(self, installation, folder):
        self.installation = installation
        self.number = str(100000 + os.getpid())
        self.pid_file = f"/var/run/{installation.name}.pid"
        self._folder = folder
        self._write("smf_include.sh", INCLUDE)
        self._write("ps", PS.format(python=sys.executable)).chmod(0o755)
        self._method = self._write("method", METHOD.read_text())
        self.adapt(". /lib/svc/share/smf_include.sh", f". {shlex.quote(str(folder / 'smf_include.sh'))}")
        installation.write_module(installation.name, PROBE.read_text())

    def _write(self, name, text):
        path = self._folder / name
        path.write_text(text)
        return path

    def adapt(self, old, new):
        """Changes one line of the method."""
        text = self._method.read_text()
        assert text.count(old) == 1, old
        self._method.write_text(text.replace(old, new))

    def run(self, *words, **environment):
        """Status and output of the method."""
        path = f"{self._folder}:{os.environ['PATH']}"
        done = subprocess.run(
            ["sh", self._method, *words],
            env=self.installation.environment(PATH=path, SMF_FMRI="svc:/application/kx_agent:default", **environment),
            cwd="/",
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            timeout=60,
            start_new_session=True,  # a method that signals too much must not reach the tests
        )
        return done.returncode, done.stdout

    def start(self, *words):
        command = [self.installation.executable, *self.installation.arguments("--background"), *words]
        return self.run("start", self.pid_file, *map(str, command), KX_CONTRACT=self.number)

    def stop(self):
        return self.run("stop", self.pid_file, self.number)

    def processes(self):
        listed = subprocess.run([self._folder / "ps", "-e", "-o", "ctid=", "-o", "pid="], capture_output=True, text=True)
        pairs = (line.split() for line in listed.stdout.splitlines())
        return sorted(int(process) for contract, process in pairs if contract == self.number)

    def watchdog(self):
        with open(self.pid_file, encoding="ascii") as file:
            return int(file.read())

    def wish(self, *names):
        self.installation.work.mkdir(exist_ok=True)
        for name in names:
            (self.installation.work / name).touch()

    def life(self):
        file = self.installation.work / "life"
        return file.read_text().splitlines() if file.exists() else []

    def close(self):
        for process in self.processes():
            os.kill(process, signal.SIGKILL)
        if os.path.lexists(self.pid_file):
            os.unlink(self.pid_file)
        self.installation.close()


@pytest.fixture
def contract(tmp_path):
    folder = tmp_path / "smf"
    folder.mkdir()
    instance = Contract(Installation(tmp_path, f"smf{os.getpid()}_{next(_numbers)}"), folder)
    yield instance
    instance.close()


@pytest.fixture
def stranger():
    """A process that has nothing to do with the agent."""
    process = subprocess.Popen(["sleep", "1000"])
    yield process
    process.kill()
    process.wait()


def test_start_returns_when_the_watchdog_stands(contract):
    assert contract.start() == (OK, "")

    assert contract.watchdog() in contract.processes()


def test_start_hides_the_restarters_variables_from_the_agent(contract):
    contract.start()

    with open(f"/proc/{contract.watchdog()}/environ", "rb") as environment:
        assert b"SMF_" not in environment.read()


def test_start_beside_another_instance_needs_a_person(contract):
    contract.start()
    watchdog = contract.watchdog()
    service, contract.number = contract.number, contract.number + "0"

    status, output = contract.start()

    assert (status, contract.processes()) == (FATAL, [])
    assert "refused to start" in output
    contract.number = service
    assert (contract.watchdog(), contract.watchdog() in contract.processes()) == (watchdog, True)


def test_start_of_an_application_that_ends_at_once_needs_a_person(contract):
    contract.adapt("start_patience=10", "start_patience=1")
    contract.installation.write_app(init="return 5")

    status, output = contract.start()

    assert (status, contract.processes()) == (FATAL, [])
    assert "ended, or does not write" in output


def test_start_does_not_take_a_strangers_process_for_the_watchdog(contract, stranger):
    contract.adapt("start_patience=10", "start_patience=1")
    with open(contract.pid_file, "w", encoding="ascii") as file:
        file.write(f"{stranger.pid}\n")

    assert contract.run("start", contract.pid_file, "true", KX_CONTRACT=contract.number)[0] == FATAL


def test_stop_runs_shutdown_and_leaves_nothing(contract):
    contract.start()
    await_condition(contract.life, "the application's start")

    assert contract.stop() == (OK, "")

    assert contract.life()[1:] == ["shutdown begins", "shutdown ends"]
    assert contract.processes() == []
    assert not os.path.exists(contract.pid_file)


def test_stop_kills_what_the_application_left_behind(contract):
    contract.wish("leave_stranger")
    contract.start()
    await_condition(lambda: "stranger is here" in contract.life(), "the stranger's start")

    status, output = contract.stop()

    assert (status, contract.processes()) == (OK, [])
    assert f"smf_kill_contract {contract.number} KILL" in output
    assert contract.life()[-2:] == ["shutdown begins", "shutdown ends"]


def test_stop_kills_an_application_that_does_not_end(contract):
    contract.adapt("stop_patience=60", "stop_patience=1")
    contract.wish("hang")
    contract.start()
    await_condition(contract.life, "the application's start")

    status, output = contract.stop()

    assert (status, contract.processes()) == (OK, [])
    assert "killing what is left" in output
    assert contract.life()[1:] == ["shutdown begins"]


def test_stop_leaves_a_worker_without_a_watchdog_the_time_to_end(contract):
    contract.start()
    await_condition(contract.life, "the application's start")
    os.kill(contract.watchdog(), signal.SIGKILL)

    assert contract.stop() == (OK, "")

    assert contract.life()[1:] == ["shutdown begins", "shutdown ends"]
    assert contract.processes() == []


def test_stop_of_a_service_that_has_ended_is_a_success(contract):
    assert contract.stop() == (OK, "")


def test_stop_does_not_signal_a_stranger_to_whom_the_number_has_passed(contract, stranger):
    with open(contract.pid_file, "w", encoding="ascii") as file:
        file.write(f"{stranger.pid}\n")

    assert contract.stop() == (OK, "")

    assert stranger.poll() is None


@pytest.mark.parametrize("content", ["", "\n", "0\n", ".*\n", "1 2\n", "[0-9]*\n", "$(reboot)\n"])
def test_stop_takes_a_pid_file_with_anything_else_for_none(contract, content):
    contract.start()
    contract.adapt("loss_patience=20", "loss_patience=0")
    with open(contract.pid_file, "w", encoding="ascii") as file:
        file.write(content)

    status, output = contract.stop()

    # The watchdog was not asked to stop, but killed with its contract.
    assert (status, contract.processes()) == (OK, [])
    assert "smf_kill_contract" in output
    assert "interrupted" not in contract.installation.log_text()


def test_stop_does_not_follow_a_link_in_the_pid_files_place(contract, tmp_path):
    contract.start()
    elsewhere = tmp_path / "elsewhere.pid"
    elsewhere.write_text(f"{contract.watchdog()}\n")
    os.unlink(contract.pid_file)
    os.symlink(elsewhere, contract.pid_file)
    contract.adapt("loss_patience=20", "loss_patience=0")

    status, output = contract.stop()

    assert (status, contract.processes()) == (OK, [])
    assert "smf_kill_contract" in output
    assert "interrupted" not in contract.installation.log_text()


@pytest.mark.parametrize("words", [[], ["start"], ["stop", "/var/run/x.pid"], ["refresh", "/var/run/x.pid", "1"]])
def test_anything_else_is_a_usage_error(contract, words):
    status, output = contract.run(*words)

    assert status == CONFIG
    assert output.startswith("usage: ")

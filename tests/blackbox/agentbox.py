"""A throw-away installation of the agent, and what an operator can see of it.

An installation is a copy of build/bin in a temporary folder. Scenarios start the real executable there, under an
application name of their own, and look at exit status, output, log file and processes.
"""

import os
import pty
import re
import select
import shutil
import signal
import subprocess
import time
import zipfile
from dataclasses import dataclass
from pathlib import Path

from background import BackgroundAgent
from keeper import Call
from waiting import DEADLINE_S, await_condition  # noqa: F401 -- for scenarios, beside what is defined here

BUILD = Path(os.environ.get("VEL_BUILD", Path(__file__).resolve().parents[2] / "build"))

# How often a scenario that repeats itself does so. Sanitizer builds take fewer rounds.
LONG_LOOP = int(os.environ.get("VEL_LONG_LOOP", "2000"))


@dataclass
class Outcome:
    """How a run of the agent ended. `status` is negative for a signal, as subprocess gives it."""

    status: int
    stdout: bytes
    stderr: bytes

    @property
    def out(self):
        return self.stdout.decode("utf-8", "surrogateescape")

    @property
    def err(self):
        return self.stderr.decode("utf-8", "surrogateescape")

    @property
    def domain(self):
        """The domain variables that `Installation.write_domain_app` has printed. Numbers come as float."""
        kinds = {"string": str, "number": float, "boolean": lambda text: text == "true"}
        domain = {}
        for line in self.out.split("\n"):
            if line.startswith("domain\t"):
                _, key, kind, value = line.split("\t")
                domain[unhex(key)] = kinds[kind](unhex(value))
        return domain


def unhex(text):
    return bytes.fromhex(text).decode("utf-8", "surrogateescape")


@dataclass
class Record:
    """One line of the log."""

    stamp: str
    pid: int
    level: str
    text: str


RECORD = re.compile(r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d) \[(\d+)\] (\w+): (.*)$")


# A trace record's text: module, function, source file and line, text.
TRACE = re.compile(r"^([\w.]+): (\w+) \(([\w.]+):(\d+)\): (.*)$")

# Runs a command as a user who owns nothing here. In front of `run_raw` words, see the fixture `open_installation`.
UNPRIVILEGED = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups") if os.geteuid() == 0 else ()


def parse_records(text):
    records = []
    for line in text.split("\n"):
        if not line:
            continue
        match = RECORD.match(line)
        assert match, f"not a log record: {line!r}"
        records.append(Record(match[1], int(match[2]), match[3], match[4]))
    return records


def escaped(text):
    """`text` as a record shows it."""
    names = {"\n": "\\n", "\t": "\\t", "\r": "\\r"}
    return re.sub("[\0-\x1f\x7f\udc80-\udcff]", lambda c: names.get(c[0], f"\\x{ord(c[0]) & 0xFF:02x}"), text)


def lua_string(data):
    """A Lua literal of these bytes."""
    return '"' + "".join(f"\\{byte:03}" for byte in data) + '"'


def await_line(process, timeout_s=DEADLINE_S):
    """The next line that `process` prints, without its end; what there is of it when the output ends."""
    line, end = b"", time.monotonic() + timeout_s
    while not line.endswith(b"\n"):
        readable, _, _ = select.select([process.stdout], [], [], max(0, end - time.monotonic()))
        assert readable, f"timed out after {timeout_s} s waiting for a line of output behind {line!r}"
        byte = os.read(process.stdout.fileno(), 1)
        if not byte:
            break
        line += byte
    return line.decode("utf-8", "surrogateescape").rstrip("\n")


def await_end(process, timeout_s=DEADLINE_S):
    """Waits until `process` ends by itself."""
    stdout, stderr = process.communicate(timeout=timeout_s)
    return Outcome(process.returncode, stdout, stderr)


def stock_lua(script, *words, cwd=None):
    """How the system's own interpreter runs the text `script`."""
    done = subprocess.run(
        ["lua5.2", "-e", script, *words], stdin=subprocess.DEVNULL, capture_output=True, cwd=cwd, timeout=DEADLINE_S
    )
    return Outcome(done.returncode, done.stdout, done.stderr)


def sanitizer_options(*more):
    """An environment in which these options are added to those of a sanitizer build; no other build reads them."""
    return {name: ":".join([os.environ.get(name, ""), *more]) for name in ("ASAN_OPTIONS", "TSAN_OPTIONS")}


# Wrappers: what `run` and `run_raw` put in front of the command line.

# Another user than root; what the scenario uses has to be readable for it, see the fixture `public_installation`.
AS_NOBODY = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")


def through_shell(script):
    """Runs the shell `script`, in which "$@" is the command."""
    return ("sh", "-c", script, "sh")


def _propagation():
    """What `unshare` is to do about the mounts that are there: it cannot do it in a changed root, which is no mount."""
    is_mount = any(line.split()[4] == "/" for line in Path("/proc/self/mountinfo").read_text().splitlines())
    return "private" if is_mount else "unchanged"


def in_private_mounts(script):
    """As `through_shell`, with mounts that nobody else sees and that end with the command."""
    return ("unshare", "-m", "--propagation", _propagation(), *through_shell(script))


def write_archive(path, entries):
    """A ZIP archive of `entries`, a mapping of names to text or bytes."""
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, content in entries.items():
            archive.writestr(name, content)
    return path


class Installation:
    """A copy of build/bin below `root`, used under the application name `name`."""

    def __init__(self, root, name):
        self.root = Path(root)
        self.name = name
        self.bin = self.root / "bin"
        self.lua = self.root / "lua"
        self.work = self.root / "work"
        shutil.copytree(BUILD / "bin", self.bin, symlinks=True)
        self.lua.mkdir()
        self._processes = []
        self._agents = []

    @property
    def executable(self):
        return self.bin / "kx_agent"

    # What the application is made of.

    def write_module(self, name, text, folder=None):
        """A Lua module in `folder`, or else in the one that --lua_path names."""
        path = Path(folder or self.lua) / (name.replace(".", "/") + ".lua")
        path.parent.mkdir(parents=True, exist_ok=True)
        if isinstance(text, bytes):
            path.write_bytes(text)
        else:
            path.write_text(text)
        return path

    def write_app(self, main="", init="", shutdown="", top="", name=None, folder=None):
        """The application module, from the bodies of its functions."""
        return self.write_module(
            name or self.name,
            f"{top}\nlocal app = {{}}\nfunction app.init() {init} end\nfunction app.main() {main} end\n"
            f"function app.shutdown() {shutdown} end\nreturn app\n",
            folder,
        )

    def write_service(self, init="", main="", shutdown="", top="", name=None):
        """An application that logs each phase it comes to, for `BackgroundAgent.worker_in`."""
        marked = {"init": init, "main": main, "shutdown": shutdown}
        return self.write_app(
            **{phase: f"dom:Log('message', '{phase}') {body}" for phase, body in marked.items()}, top=top, name=name
        )

    def write_domain_app(self, **options):
        """An application that prints the whole domain, for `Outcome.domain`; with the options of `write_app`."""
        return self.write_app(
            top="local function hex(text) return (text:gsub('.', function(c) return ('%02x'):format(c:byte()) end)) end",
            init="""
                for _, key in ipairs(dom:Keys()) do
                  local value = key == "" and "" or dom:Get(key)
                  local text = type(value) == "number" and ("%.17g"):format(value) or tostring(value)
                  print("domain", hex(key), type(value), hex(text))
                end""",
            **options,
        )

    def domain(self, *words, **options):
        """The domain variables of a run with `words`."""
        self.write_domain_app()
        outcome = self.run(*words, **options)
        assert outcome.status == 0, outcome
        return outcome.domain

    def write_core_archive(self, name, entries):
        """An archive in vel_core, replacing the one of that name."""
        return write_archive(self.bin / "vel_core" / f"{name}.kxe", entries)

    # Starting it.

    def arguments(self, *words, name=None, lua_path=True, workdir=True):
        """The command line of a run of this installation's application; None for `name` means its own."""
        arguments = ["--appname", name or self.name]
        if workdir:
            arguments += ["--workdir", str(self.work)]
        if lua_path:
            arguments += ["--lua_path", f"{self.lua}/?.lua"]
        return [*arguments, *[os.fspath(word) for word in words]]

    def environment(self, **changes):
        environment = {"PATH": os.environ["PATH"], "HOME": str(self.root), "LANG": "C.UTF-8"}
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"):
            if name in os.environ:
                environment[name] = os.environ[name]
        environment.update({name: value for name, value in changes.items() if value is not None})
        for name, value in changes.items():
            if value is None:
                environment.pop(name, None)
        return environment

    def run(self, *words, **options):
        """Runs the application to its end with `words` behind the usual options. Options: see `run_raw`, plus those of
        `arguments`."""
        shape = {key: options.pop(key) for key in ("name", "lua_path", "workdir") if key in options}
        return self.run_raw(*self.arguments(*words, **shape), **options)

    def run_raw(self, *words, executable=None, argv0=None, env=None, cwd=None, stdin=b"", timeout=DEADLINE_S, wrapper=()):
        """Runs the executable to its end with exactly `words`. `env`: changes to the environment, None removes."""
        process = subprocess.Popen(
            [*wrapper, argv0 if argv0 is not None and not wrapper else str(executable or self.executable), *[os.fspath(w) for w in words]],
            executable=str(executable or self.executable) if not wrapper else None,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            cwd=cwd or self.root,
            env=self.environment(**(env or {})),
            start_new_session=True,
        )
        try:
            stdout, stderr = process.communicate(stdin, timeout=timeout)
        except subprocess.TimeoutExpired as expired:
            os.killpg(process.pid, signal.SIGKILL)
            stdout, stderr = process.communicate()
            raise AssertionError(
                f"still running after {timeout} s: {words}\nstdout: {stdout!r}\nstderr: {stderr!r}\nlog: {self.log_text()}"
            ) from expired
        return Outcome(process.returncode, stdout, stderr)

    def start(self, *words, env=None, wrapper=(), stdin=subprocess.DEVNULL, **shape):
        """Starts the application and returns the process; the fixture kills what is left of it."""
        process = subprocess.Popen(
            [*wrapper, str(self.executable), *self.arguments(*words, **shape)],
            stdin=stdin,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            cwd=self.root,
            env=self.environment(**(env or {})),
            start_new_session=True,
        )
        self._processes.append(process)
        return process

    def launch_in_background(self, *words, name=None, env=None, wrapper=(), lua_path=True, workdir=True, **inherited):
        """Calls the application with --background and does not wait for anything. `inherited`: see `keeper.Call`."""
        name = name or self.name
        call = Call(
            command=[*wrapper, str(self.executable), "-b", *self.arguments(*words, name=name, lua_path=lua_path, workdir=workdir)],
            environment=self.environment(**(env or {})),
            folder=inherited.pop("folder", self.root),
            output=inherited.pop("output", self.root / f"{name}.out"),
            **inherited,
        )
        self._agents.append(BackgroundAgent(self, name, call))
        return self._agents[-1]

    def start_in_background(self, *words, init="", main="", shutdown="", top="", name=None, **options):
        """Starts a service of these phases, see `write_service`. Options: see `launch_in_background`."""
        self.write_service(init, main, shutdown, top, name)
        agent = self.launch_in_background(*words, name=name, **options)
        assert agent.command_status == 0, agent.lines()
        assert agent.watchdog
        return agent

    def run_on_terminal(self, *words, env=None, wrapper=(), **shape):
        """Runs the application with a terminal as standard streams; returns status and everything shown."""
        command = [*wrapper, str(self.executable), *self.arguments(*words, **shape)]
        environment = self.environment(**(env or {}))
        pid, master = pty.fork()
        if pid == 0:
            os.chdir(self.root)
            os.execvpe(command[0], command, environment)
        shown = b""
        try:
            while True:
                chunk = os.read(master, 65536)
                if not chunk:
                    break
                shown += chunk
        except OSError:  # the terminal's other side is closed
            pass
        os.close(master)
        return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), shown.decode("utf-8", "surrogateescape")

    def search_list(self, *words, **options):
        """The archives that a run with `words` searches for modules; None when the list was never set."""
        self.write_app(main="local list = dom:Get('app.lua.zippath') print(list == nil and 'none' or '=' .. list)")
        outcome = self.run(*words, **options)
        assert outcome.status == 0, outcome
        shown = outcome.out.rstrip("\n")
        assert shown == "none" or shown.startswith("="), outcome
        return None if shown == "none" else shown[1:].split(";")

    def close(self):
        for agent in self._agents:
            agent.close()
        for process in self._processes:
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.communicate()
        shutil.rmtree(self.bin)  # the logs stay for whoever looks into a failure

    # What it leaves behind.

    def log_file(self, name=None, work=None):
        return (Path(work) if work else self.work) / "log" / f"{name or self.name}.log"

    def log_text(self, **where):
        path = self.log_file(**where)
        return path.read_bytes().decode("utf-8", "surrogateescape") if path.exists() else ""

    def records(self, **where):
        return parse_records(self.log_text(**where))

    def log_has(self, line, **where):
        """Whether a record `Level: text` is in the log."""
        return any(f"{record.level}: {record.text}" == line for record in self.records(**where))

    def log_lines(self, level=None, **where):
        """The texts of the records, of one level or as `Level: text`."""
        return [
            record.text if level else f"{record.level}: {record.text}"
            for record in self.records(**where)
            if level is None or record.level == level
        ]

    def traces(self, module="Appl", **where):
        """The texts of the trace records of `module`."""
        matches = [TRACE.match(text) for text in self.log_lines("Trace", **where)]
        return [match[5] for match in matches if match and match[1] == module]

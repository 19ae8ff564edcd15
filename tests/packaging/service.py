"""The agent as a unit of a `machine.Machine`, and what an operator can see of it."""

import re
import shutil

from agentbox import BUILD, await_condition
from machine import PROJECT

UNIT = PROJECT / "packaging/systemd/kx_agent.service"


def shell_blocks(heading):
    """What docs/SERVICE.md tells to type below a heading."""
    page = (PROJECT / "docs/SERVICE.md").read_text()
    section = page.split(f"\n## {heading}\n")[1].split("\n## ")[0]
    return re.findall(r"^```sh\n(.*?)^```$", section, re.M | re.S)


class Service:
    def __init__(self, machine, name):
        self.machine = machine
        self.name = name
        self.unit = name + ".service"
        self.pid_file = f"/run/{name}.pid"
        self.work = f"/var/opt/{name}"
        self.log = f"{self.work}/log/{name}.log"

    # Installing.

    @classmethod
    def install(cls, machine):
        """As the page says, from a clone that has been built."""
        clone = machine.path("/usr/src/clone")
        shutil.copytree(BUILD / "bin", clone / "build/bin")
        shutil.copytree(PROJECT / "packaging", clone / "packaging")
        for block in shell_blocks("systemd: install"):
            machine.run("sh", "-e", cwd="/usr/src/clone", input=block)
        return cls(machine, "kx_agent")

    @classmethod
    def copy(cls, machine, name):
        """A second service beside the first, for an application of that name which dies when it starts."""
        unit = cls(machine, name)
        text = UNIT.read_text()
        for old, new in (("/run/kx_agent.pid\n", f"{unit.pid_file}\n"), ("/var/opt/kx_agent", unit.work)):
            assert old in text
            text = text.replace(old, new)
        machine.path(f"/etc/systemd/system/{unit.unit}").write_text(text)
        unit.use_probe("die")
        return unit

    def use_probe(self, *wishes):
        """Runs probe.lua from now on."""
        self.machine.path("/opt/probe").mkdir(exist_ok=True)
        shutil.copy(PROJECT / "tests/packaging/probe.lua", self.machine.path(f"/opt/probe/{self.name}.lua"))
        self.configure(command=f"--appname {self.name} --lua_path /opt/probe/?.lua --workdir={self.work}")
        self.stop()
        shutil.rmtree(self.machine.path(self.work), ignore_errors=True)
        self.machine.path(self.work).mkdir(mode=0o700)
        self.wish(*wishes)
        self.machine.attempt("systemctl", "reset-failed", self.unit)  # refused for a unit that never ran

    def configure(self, command=None, **settings):
        """A drop-in with the options of the command line and other settings."""
        lines = ["[Service]", *[f"{key}={value}" for key, value in settings.items()]]
        if command:
            lines += ["ExecStart=", f"ExecStart=/opt/kx_agent/bin/kx_agent --background {command}"]
        folder = self.machine.path(f"/etc/systemd/system/{self.unit}.d")
        folder.mkdir(exist_ok=True)
        folder.joinpath("probe.conf" if command else "settings.conf").write_text("\n".join(lines) + "\n")
        self.systemctl("daemon-reload")

    def forget_probe(self):
        self.machine.attempt("systemctl", "kill", "--signal=KILL", self.unit)
        self.machine.attempt("systemctl", "stop", self.unit)
        shutil.rmtree(self.machine.path(f"/etc/systemd/system/{self.unit}.d"))
        self.systemctl("daemon-reload")

    # Commands.

    def systemctl(self, *words):
        return self.machine.run("systemctl", *words)

    def start(self):
        self.systemctl("start", self.unit)

    def stop(self):
        self.systemctl("stop", self.unit)

    def signal(self, name, process):
        self.machine.run("sh", "-c", 'kill -s "$0" "$1"', name, str(process))

    # Asking the application for something.

    def wish(self, *names, content=""):
        for name in names:
            self.machine.path(f"{self.work}/{name}").write_text(content)

    # Looking.

    def show(self, field):
        return self.systemctl("show", "--value", f"--property={field}", self.unit).strip()

    def state(self):
        """Such as "active", "failed (exit-code 7)"."""
        state = self.show("ActiveState")
        return f"failed ({self.show('Result')} {self.show('ExecMainStatus')})" if state == "failed" else state

    def await_state(self, wanted, timeout_s=60):
        seen = []

        def is_reached():
            seen.append(self.state())
            return seen[-1] == wanted

        try:
            await_condition(is_reached, wanted, timeout_s)
        except AssertionError as error:
            raise AssertionError(f"{self.unit}: wanted {wanted}, got {seen[-1]}") from error

    def watchdog(self):
        return int(self.show("MainPID"))

    def processes(self):
        """The numbers of the processes in the unit's control group."""
        listed = self.machine.attempt("cat", f"/sys/fs/cgroup{self.show('ControlGroup') or '/none'}/cgroup.procs")
        return sorted(int(line) for line in listed.stdout.split()) if listed.returncode == 0 else []

    def await_worker(self, other_than=0):
        """The number of a watchdog's child."""

        def find():
            watchdog = self.watchdog()
            return next((child for child in self._children_of(watchdog) if child != other_than), 0)

        return await_condition(find, f"a worker other than {other_than}")

    def _children_of(self, process):
        listed = self.machine.attempt("sh", "-c", 'grep -l "^PPid:[[:blank:]]$0$" /proc/[0-9]*/status', str(process))
        return [int(path.split("/")[2]) for path in listed.stdout.split() if path.startswith("/proc/")]

    def has_pid_file(self):
        return self.machine.attempt("test", "-e", self.pid_file).returncode == 0

    def life(self):
        """What the application has written down."""
        file = self.machine.path(f"{self.work}/life")
        return file.read_text().splitlines() if file.exists() else []

    def log_text(self):
        file = self.machine.path(self.log)
        return file.read_text(errors="backslashreplace") if file.exists() else ""

    def journal(self):
        return self.machine.run("journalctl", "--no-pager", "--output=cat", f"--unit={self.unit}")

    def evidence(self):
        """For a person who looks into a failure."""
        records = [line for line in self.log_text().splitlines() if " Trace: " not in line]
        status = self.machine.attempt("systemctl", "status", "--no-pager", "--lines=40", self.unit).stdout
        return "\n".join([status, "life: " + "; ".join(self.life()), "log:", *records[-40:]])

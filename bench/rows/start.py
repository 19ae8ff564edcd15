"""From exec to the first line of an empty application: time and memory, in the foreground and as a service.

The application is what an operator ships: an archive of one module, made by kx-pack and named with --zippath. The
generic archive beside the executable is searched, too, as in every installation. The floor runs the same text from a
plain file.
"""

import os
import select
import signal
import subprocess
import time
from contextlib import suppress
from pathlib import Path

from harness.row import AGENT, FLOOR, Group, Row
from harness.rounds import in_turn, split

FOREGROUND = "foreground"
BACKGROUND = "background"

HOST_ROWS = (
    Row("start.wall", "first Lua line of an empty application, wall clock", "ms", must=1.5, aim=1.15),
    Row("start.cpu", "first Lua line of an empty application, processor time", "ms", must=1.5, aim=1.15),
    Row("start.pss", "memory at that line, with a fair part of what is shared (PSS)", "MiB", must=1.5, aim=1.2),
    Row("start.rss", "memory until that line, resident at most", "MiB", must=1.5, aim=1.2),
)
SERVICE_ROW = Row("start.background", "-b until the worker's first Lua line", "ms", must=1.5, aim=1.2, base=FOREGROUND)

PATIENCE_S = 10

# Says how much processor time it took to come here, and waits until it has been looked at.
APPLICATION = """\
local report = io.open("{report}", "w")
report:write(os.clock())
report:close()
io.open("{release}"):read()
os.exit(0)
"""


class Starter:
    """Starts the contenders. All of their command lines name a file of one folder, by which they are found again."""

    def __init__(self, rig):
        self.folder = rig.folder("start")
        self.name = f"bench{os.getpid()}"
        module = self.folder / "modules" / f"{self.name}.lua"
        archive = self.folder / f"{self.name}.kxe"
        pipes = {name: self.folder / name for name in ("report", "release")}
        for path in pipes.values():
            os.mkfifo(path)
        self.report, self.release = (os.open(path, os.O_RDWR) for path in pipes.values())
        module.parent.mkdir()
        module.write_text(APPLICATION.format(**pipes), encoding="utf-8")
        subprocess.run([rig.build / "tools/kx-pack/kx-pack", "archive", module.parent, "-o", archive], check=True,
                       stdout=subprocess.DEVNULL)
        agent = [rig.build / "bin/kx_agent", "-a", self.name, "-z", archive, "-w", self.folder / "work"]
        self.commands = {FLOOR: [rig.program("Host"), module], FOREGROUND: agent, BACKGROUND: [*agent, "-b"]}

    def close(self):
        self.await_nobody(0)
        os.close(self.report)
        os.close(self.release)
        Path(f"/var/run/{self.name}.pid").unlink(missing_ok=True)

    def started(self, contender):
        """The id of the contender's command, and the moment of its start."""
        command = [str(word) for word in self.commands[contender]]
        silence = [(os.POSIX_SPAWN_OPEN, stream, "/dev/null", os.O_RDWR, 0) for stream in (0, 1, 2)]
        start = time.monotonic()
        return os.posix_spawn(command[0], command, {"LANG": "C.UTF-8"}, file_actions=silence), start

    def await_line(self):
        """The moment of the application's first line, and the processor time in seconds that it reports."""
        poll = select.poll()
        poll.register(self.report, select.POLLIN)
        if not poll.poll(PATIENCE_S * 1000):
            raise RuntimeError("no first line")
        return time.monotonic(), float(os.read(self.report, 100))

    def end(self, command):
        """Lets the application end, and waits until all of it is gone."""
        os.write(self.release, b"\n")
        status = os.waitstatus_to_exitcode(os.waitpid(command, 0)[1])
        if status != 0:
            raise RuntimeError(f"ended with status {status}")
        self.await_nobody(PATIENCE_S)

    def processes(self):
        for entry in Path("/proc").glob("[0-9]*"):
            try:
                if os.fsencode(self.folder) in (entry / "cmdline").read_bytes():
                    yield int(entry.name)
            except OSError:
                pass  # gone meanwhile

    def await_nobody(self, patience_s):
        """Waits until no process is left; kills what is after that time."""
        end = time.monotonic() + patience_s
        while left := list(self.processes()):
            if time.monotonic() >= end:
                for process in left:
                    with suppress(ProcessLookupError):
                        os.kill(process, signal.SIGKILL)
            time.sleep(0.001)

    def in_foreground(self, contender):
        """Wall clock and processor time in milliseconds, PSS and the greatest RSS in MiB."""
        process, start = self.started(contender)
        line, processor_s = self.await_line()
        memory = [mib(f"/proc/{process}/smaps_rollup", "Pss:"), mib(f"/proc/{process}/status", "VmHWM:")]
        self.end(process)
        return 1000 * (line - start), 1000 * processor_s, *memory

    def in_background(self):
        """Wall clock in milliseconds."""
        command, start = self.started(BACKGROUND)
        line, _ = self.await_line()
        self.end(command)
        return 1000 * (line - start)


def mib(path, label):
    text = Path(path).read_text(encoding="ascii")
    return int(text.split(label)[1].split()[0]) / 1024


def measure(rig):
    starter = Starter(rig)
    try:
        samples = in_turn({
            FLOOR: lambda: starter.in_foreground(FLOOR),
            AGENT: lambda: starter.in_foreground(FOREGROUND),
            BACKGROUND: starter.in_background,
        }, rig.pick(21, 151))
    finally:
        starter.close()
    service = samples.pop(BACKGROUND)
    rows = split(samples, [row.name for row in HOST_ROWS])
    rows[SERVICE_ROW.name] = {AGENT: service, FOREGROUND: rows["start.wall"][AGENT]}
    return rows


GROUPS = [Group((*HOST_ROWS, SERVICE_ROW), measure)]

"""The supervisors that are compared: how each is told to keep a program alive.

All but the agent keep a script of the stock interpreter. Its first line announces it, as the agent's application does.
"""

import os
from dataclasses import dataclass, field
from pathlib import Path

# Says that it is there, then waits without using the processor: nobody ever writes to the second pipe.
SCRIPT = """#!/usr/bin/lua5.2
local alive = io.open("{folder}/alive", "w") alive:write("\\n") alive:close()
io.open("{folder}/never")
"""

# The same first line; an application of the agent is done here, and the agent waits.
APPLICATION = """local alive = io.open("{folder}/alive", "w") alive:write("\\n") alive:close()
return {{}}
"""


@dataclass(frozen=True)
class Prepared:
    """What is started, and by which names its processes are known."""

    command: list
    supervisor: str
    worker: str = "run"
    environment: dict = field(default_factory=dict)


def write_script(folder):
    os.mkfifo(folder / "never")
    service = folder / "service"
    service.mkdir()
    script = service / "run"
    script.write_text(SCRIPT.format(folder=folder))
    script.chmod(0o755)
    return script


def agent(rig, folder):
    name = folder.name
    (folder / f"{name}.lua").write_text(APPLICATION.format(folder=folder))
    command = [rig.build / "bin" / "kx_agent", "--background", "--appname", name, "--workdir", folder / "work",
               "--lua_path", f"{folder}/?.lua"]
    return Prepared(command, supervisor="kx_agent", worker="kx_agent")


def fork_loop(rig, folder):
    return Prepared([rig.program("ForkLoop"), write_script(folder)], supervisor="ForkLoop")


def runit(_rig, folder):
    return Prepared(["runsv", write_script(folder).parent], supervisor="runsv")


def daemontools(_rig, folder):
    return Prepared(["supervise", write_script(folder).parent], supervisor="supervise")


def s6(_rig, folder):
    return Prepared(["s6-supervise", write_script(folder).parent], supervisor="s6-supervise")


def supervisord(rig, folder):
    script = write_script(folder)
    peers = rig.build / "peers"
    settings = folder / "supervisord.conf"
    settings.write_text(
        f"[supervisord]\nnodaemon=true\nuser=root\nlogfile={folder}/supervisord.log\npidfile={folder}/supervisord.pid\n"
        f"[program:run]\ncommand={script}\nautorestart=true\n")
    path = {"PYTHONPATH": str(peers / "usr/lib/python3/dist-packages"), "PYTHONDONTWRITEBYTECODE": "1"}
    return Prepared([peers / "usr/bin/supervisord", "-c", settings], supervisor="supervisord", environment=path)


def monit(rig, folder):
    script = write_script(folder)
    start = folder / "start"
    start.write_text(f"#!/bin/sh\nsetsid {script} &\necho $! > {folder}/run.pid\n")
    start.chmod(0o755)
    settings = folder / "monitrc"
    settings.write_text(
        f"set daemon 1\nset pidfile {folder}/monit.pid\nset statefile {folder}/state\nset idfile {folder}/id\n"
        f'check process run with pidfile {folder}/run.pid\n  start program = "{start}"\n  stop program = "/bin/true"\n')
    settings.chmod(0o600)
    return Prepared([rig.build / "peers" / "usr/bin" / "monit", "-I", "-c", settings], supervisor="monit")


def installed(rig):
    """The unpacked peers, of those that are there."""
    return [kind for kind in (supervisord, monit) if Path(rig.build / "peers" / "usr/bin" / kind.__name__).exists()]

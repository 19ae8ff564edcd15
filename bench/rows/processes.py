"""The watchdog: how soon it replaces a worker, what it costs while nothing happens, how soon it stops."""

import random
import time
from contextlib import ExitStack

from harness.row import AGENT, FLOOR, Group, Row
from harness.rounds import in_turn
from supervisors import kinds
from supervisors.kernel import cpu_ms, private_mib, switches
from supervisors.service import Service

# The agent waits that long before the first restart, whatever the worker's age.
POLICY_DELAY_MS = 1000

# Supervisors that wait before a restart do so when the program is younger than this.
SETTLED_S = 1.2

# Those that look at their program once a second find it dead sooner or later, by chance.
POLL_S = 1

# For a program to come to rest behind its first line.
REST_S = 0.1


class Folders:
    """A new folder, and with it an application name that no other agent has, for every supervisor that is started."""

    def __init__(self, rig):
        self._rig = rig
        self._count = 0

    def __call__(self, kind):
        self._count += 1
        return self._rig.folder(f"{kind.__name__}{self._count}")


def restart_after(rig, folders, kind, age_s, delay_ms=0, spread_s=0):
    """A function that takes one sample of a program that gets to be `age_s` old, and up to `spread_s` older."""
    def sample():
        with Service(kind, rig, folders(kind)) as service:
            time.sleep(random.uniform(age_s, age_s + spread_s))
            return service.restart_ms() - delay_ms
    return sample


def restart(rig):
    folders = Folders(rig)
    contenders = {
        AGENT: restart_after(rig, folders, kinds.agent, REST_S, POLICY_DELAY_MS),
        FLOOR: restart_after(rig, folders, kinds.fork_loop, REST_S),
    }
    for kind in (kinds.runit, kinds.daemontools):
        contenders[kind.__name__] = restart_after(rig, folders, kind, SETTLED_S)
        contenders[f"{kind.__name__} at once"] = restart_after(rig, folders, kind, REST_S)
    contenders["s6"] = restart_after(rig, folders, kinds.s6, REST_S)
    for kind in kinds.installed(rig):
        contenders[kind.__name__] = restart_after(rig, folders, kind, SETTLED_S, spread_s=POLL_S)
    return {"restart": in_turn(contenders, rig.pick(1, 5))}


def stop(rig):
    folders = Folders(rig)

    def after(age_s, kind):
        def sample():
            with Service(kind, rig, folders(kind)) as service:
                time.sleep(age_s)
                return service.stop_ms()
        return sample

    return {"stop": in_turn({
        AGENT: after(REST_S, kinds.agent),
        FLOOR: after(REST_S, kinds.fork_loop),
        "s6": after(REST_S, kinds.s6),
        "runit": after(SETTLED_S, kinds.runit),
    }, rig.pick(3, 11))}


def rest(rig):
    """All of them at once: what costs nothing does not disturb the others, and the minute is the same for all."""
    folders = Folders(rig)
    supervised = {AGENT: kinds.agent, FLOOR: kinds.fork_loop, "s6": kinds.s6, "runit": kinds.runit}
    supervised |= {kind.__name__: kind for kind in kinds.installed(rig)}
    with ExitStack() as services:
        running = {name: services.enter_context(Service(kind, rig, folders(kind))) for name, kind in supervised.items()}
        time.sleep(SETTLED_S)
        before = {name: cost(service) for name, service in running.items()}
        time.sleep(rig.pick(10, 60))
        after = {name: cost(service) for name, service in running.items()}
        memory = {name: [private_mib(service.supervisor)] for name, service in running.items()}
        memory["agent between workers"] = [memory_between_workers(running[AGENT])]
    spent = {name: [now - then for now, then in zip(after[name], before[name])] for name in running}
    return {
        "idle.cpu": {name: [cpu] for name, (cpu, _) in spent.items()},
        "idle.switches": {name: [count] for name, (_, count) in spent.items()},
        "watchdog.memory": memory,
    }


def memory_between_workers(agent):
    """What the watchdog shares with the worker, its own copy by fork, is its own while there is none."""
    agent.kill_worker()
    time.sleep(REST_S)
    return private_mib(agent.supervisor)


def cost(service):
    """Processor time in milliseconds and context switches so far, of supervisor and program."""
    both = (service.supervisor, service.worker)
    return sum(map(cpu_ms, both)), sum(map(switches, both))


GROUPS = [
    Group((Row("restart", "worker killed to its replacement's first Lua line, without the policy's delay", "ms",
               must=5, aim=3, base=None),), restart),
    Group((Row("idle.cpu", "watchdog and worker at rest: processor time", "ms", must=0, aim=0, base=None),
           Row("idle.switches", "watchdog and worker at rest: context switches", "", must=0, aim=0, base=None),
           Row("watchdog.memory", "private memory of the watchdog while its worker lives", "MiB",
               must=2.5, aim=1.2, base=None)), rest),
    Group((Row("stop", "SIGTERM to all gone, for an application without a shutdown", "ms", must=7, aim=3, base=None),),
          stop),
]

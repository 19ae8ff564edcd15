"""What the kernel tells about processes."""

import os
import select
from pathlib import Path

DEADLINE_S = 20

PRIVATE = ("Private_Clean:", "Private_Dirty:")
SWITCHES = ("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")


def children(pid):
    """The children of a process, whichever of its threads made them."""
    found = []
    for task in Path(f"/proc/{pid}/task").iterdir():
        found += [int(child) for child in (task / "children").read_text().split()]
    return found


def name(pid):
    return Path(f"/proc/{pid}/comm").read_text().rstrip("\n")


def is_zombie(pid):
    return Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2][0] == "Z"


def living_children(pid):
    return [child for child in children(pid) if not is_zombie(child)]


def private_mib(pid):
    """The memory that only this process maps."""
    lines = Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()
    return sum(int(line.split()[1]) for line in lines if line.startswith(PRIVATE)) / 1024


def cpu_ms(pid):
    """Processor time of all threads, to the nanosecond as the scheduler counts it."""
    tasks = Path(f"/proc/{pid}/task").iterdir()
    return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks) / 1e6


def switches(pid):
    """Context switches of all threads, those that a thread waited for and those that interrupted it."""
    total = 0
    for task in Path(f"/proc/{pid}/task").iterdir():
        for line in (task / "status").read_text().splitlines():
            if line.startswith(SWITCHES):
                total += int(line.split()[1])
    return total


def await_ends(pids, act):
    """Calls `act` and waits until every one of these processes has ended, reaped or not."""
    poll = select.poll()
    ends = [os.pidfd_open(pid) for pid in pids]
    try:
        for end in ends:
            poll.register(end, select.POLLIN)
        act()
        left = len(ends)
        while left:
            ready = poll.poll(DEADLINE_S * 1000)
            if not ready:
                raise RuntimeError(f"not ended after {DEADLINE_S} s: {pids}")
            for end, _ in ready:
                poll.unregister(end)
            left -= len(ready)
    finally:
        for end in ends:
            os.close(end)

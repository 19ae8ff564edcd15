"""What the kernel tells about a process, its threads and their signals."""

import os
from pathlib import Path

from waiting import await_condition

# System calls that a thread blocks in (x86-64).
READ, WAIT4, RT_SIGTIMEDWAIT, CLOCK_NANOSLEEP, EPOLL_WAIT = 0, 61, 128, 230, 232


def status_of(pid, thread):
    """The fields of a thread's status."""
    return dict(line.split(":\t", 1) for line in Path(f"/proc/{pid}/task/{thread}/status").read_text().splitlines() if ":\t" in line)


def threads(pid):
    return sorted(int(name) for name in os.listdir(f"/proc/{pid}/task"))


def script_thread(pid):
    return next(thread for thread in threads(pid) if status_of(pid, thread)["Name"] == "CScriptThread")


def signals(field):
    """The signal numbers in a mask, without the two that belong to the C library."""
    return {number for number in range(1, 65) if int(field, 16) >> (number - 1) & 1} - {32, 33}


def await_blocked_in(pid, thread, call):
    """Waits until the thread sleeps in the given system call."""
    path = Path(f"/proc/{pid}/task/{thread}/syscall")
    await_condition(lambda: path.read_text().split()[0] == str(call), f"system call {call} of thread {thread}")

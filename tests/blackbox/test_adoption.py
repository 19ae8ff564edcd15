"""Whose child the watchdog is when its pid file appears: a service manager looks at once."""

import subprocess
import sys

# Linux can make a process take in the orphans among its descendants, as the system's first process does: then this one
# is the service manager. Argument: the pid file; then the command. Prints whose child each round's watchdog was.
MANAGER = r"""
import ctypes, os, subprocess, sys, time
PR_SET_CHILD_SUBREAPER = 36
assert ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0
pid_file, command, end = sys.argv[1], sys.argv[2:], time.monotonic() + 60
for _ in range(40):
    subprocess.Popen(command)
    while not os.path.exists(pid_file):
        assert time.monotonic() < end, "no pid file"
    watchdog = int(open(pid_file).read())
    parent = int(open(f"/proc/{watchdog}/stat").read().rpartition(")")[2].split()[1])
    print("ours" if parent == os.getpid() else "a stranger's")
    os.kill(watchdog, 15)
    while True:
        try:
            os.wait()
        except ChildProcessError:
            break
"""


def test_watchdog_is_an_adopted_orphan_when_its_pid_file_appears(installation):
    installation.write_app()
    command = [installation.executable, *installation.arguments("--background")]

    manager = subprocess.run(
        [sys.executable, "-c", MANAGER, f"/var/run/{installation.name}.pid", *map(str, command)],
        env=installation.environment(),
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=120,
    )

    assert (manager.returncode, manager.stderr) == (0, "")
    assert manager.stdout.split("\n")[:-1] == ["ours"] * 40

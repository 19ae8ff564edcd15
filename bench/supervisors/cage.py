"""A process of its own namespaces: what is started in it sees an empty /run, and ends with it."""

import shlex
import subprocess
import time
from pathlib import Path

from supervisors.kernel import DEADLINE_S, await_ends, living_children


def await_value(function, what):
    """The first true value of `function`; a process that ends meanwhile is no failure."""
    end = time.monotonic() + DEADLINE_S
    while time.monotonic() < end:
        try:
            value = function()
        except (FileNotFoundError, ProcessLookupError):
            value = None
        if value:
            return value
        time.sleep(0.002)
    raise RuntimeError(f"waited {DEADLINE_S} s for {what}")


def propagation():
    """How mounts are kept private: in a changed root, which is no mount, there is nothing to change."""
    is_mount = any(line.split()[4] == "/" for line in Path("/proc/self/mountinfo").read_text().splitlines())
    return "private" if is_mount else "unchanged"


class Cage:
    """Runs a command below a first process that only reaps. The end of the cage is the end of everything in it."""

    def __init__(self, command, folder, environment=None):
        words = shlex.join(str(word) for word in command)
        script = f"mount -t tmpfs none /run && {{ {words} & sleep infinity & wait; }}"
        with open(folder / "output", "wb") as output:
            self._outer = subprocess.Popen(
                ["unshare", "--mount", "--propagation", propagation(), "--pid", "--fork", "--kill-child",
                 "sh", "-c", script],
                cwd=folder, env=environment, stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        self._output = folder / "output"

    def top(self):
        """What the cage was made for, and orphans."""
        return set(living_children(self._first()))

    def processes(self):
        """Everything that lives in the cage but its first process."""
        found = set()
        level = self.top()
        while level:
            found |= level
            level = {child for pid in level for child in living_children(pid)}
        return found

    def explain(self, error):
        """The same error with what the cage's processes have printed."""
        return RuntimeError(f"{error}: {self._output.read_text(errors='replace')}")

    def close(self):
        """Ends the first process, and with it all others."""
        try:
            if self._outer.poll() is None:
                await_ends([self._first()], self._outer.kill)
        finally:
            self._outer.kill()
            self._outer.wait()

    def _first(self):
        return await_value(lambda: living_children(self._outer.pid), "the first process of a cage")[0]

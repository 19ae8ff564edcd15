"""A supervisor at work: it has a program to keep alive, which announces each of its starts."""

import os
import select
import signal
import time

from supervisors.cage import Cage, await_value
from supervisors.kernel import DEADLINE_S, await_ends, name


def lone(wanted, processes):
    """The only process of this name, as soon as it is the only one."""
    def find():
        found = [pid for pid in processes() if name(pid) == wanted]
        return found[0] if len(found) == 1 else None
    return await_value(find, f"{wanted} and no other")


class Service:
    """Starts a supervisor of `kind`, one of `kinds`, and waits until its program runs. Use it in a `with`.

    It leaves no process, and nothing outside of its folder.
    """

    def __init__(self, kind, rig, folder):
        os.mkfifo(folder / "alive")
        self._alive = os.open(folder / "alive", os.O_RDWR | os.O_NONBLOCK)
        self._prepared = kind(rig, folder)
        self._cage = Cage(self._prepared.command, folder, os.environ | self._prepared.environment)
        try:
            self._await_announcement()
            # The agent's command has an end of its own.
            self.supervisor = lone(self._prepared.supervisor, self._cage.top)
            self.worker = lone(self._prepared.worker, lambda: self._cage.processes() - {self.supervisor})
        except BaseException as error:
            self.close()
            raise self._cage.explain(error) if isinstance(error, RuntimeError) else error

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self._cage.close()
        os.close(self._alive)

    def kill_worker(self):
        await_ends([self.worker], lambda: os.kill(self.worker, signal.SIGKILL))

    def restart_ms(self):
        """Kills the program; the time to the first line of the next one."""
        killed = time.monotonic()
        os.kill(self.worker, signal.SIGKILL)
        return (self._await_announcement() - killed) * 1000

    def stop_ms(self):
        """Asks the supervisor to end; the time until it and its program are gone."""
        asked = time.monotonic()
        await_ends([self.supervisor, self.worker], lambda: os.kill(self.supervisor, signal.SIGTERM))
        return (time.monotonic() - asked) * 1000

    def _await_announcement(self):
        readable, _, _ = select.select([self._alive], [], [], DEADLINE_S)
        now = time.monotonic()
        if not readable:
            raise RuntimeError(f"nothing announced itself for {DEADLINE_S} s")
        os.read(self._alive, 100)
        return now

"""An agent in the background, from the command that starts it to the end of its last process."""

import itertools
import os
import signal
import time
from collections import namedtuple
from pathlib import Path

from keeper import fork_keeper
from waiting import DEADLINE_S, await_condition

# One line of the process table, and the end of a process: an exit code, or a negative signal.
Process = namedtuple("Process", "pid name state parent group session terminal")
End = namedtuple("End", "pid session status")


# What phases of an application are made of.


def log(text):
    """Lua text that leaves a record, for `BackgroundAgent.record`."""
    return f"dom:Log('message', '{text}') "


def once_there(path):
    """Lua text that goes on when the file is there."""
    return f"while not io.open('{path}') do require('posix.time').nanosleep({{tv_sec = 0, tv_nsec = 5000000}}) end "


def die(number):
    """Lua text with which a worker ends itself by a signal."""
    return f"require('posix.signal').kill(require('posix.unistd').getpid(), {int(number)}) "


# What the kernel knows.


def process_table():
    """All processes, by process id."""
    table = {}
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                text = Path(f"/proc/{name}/stat").read_text(errors="replace")
            except (FileNotFoundError, ProcessLookupError):
                continue
            head, _, tail = text.rpartition(") ")
            state, *numbers = tail.split()[:5]
            table[int(name)] = Process(int(name), head.partition("(")[2], state, *map(int, numbers))
    return table


def signal_if_there(pid, number):
    try:
        os.kill(pid, number)
    except ProcessLookupError:
        pass


def has_ended(child):
    """Reaps a child of this process if it has."""
    return os.waitpid(child, os.WNOHANG) != (0, 0)


def kill_with_descendants(keeper):
    """Ends every process that the keeper has to outlive, and so the keeper."""
    while not has_ended(keeper):
        table = process_table()
        known, found = set(), {keeper}
        while found:
            known |= found
            found = {process.pid for process in table.values() if process.parent in found} - known
        for pid in known - {keeper}:
            signal_if_there(pid, signal.SIGKILL)
        time.sleep(0.002)


class BackgroundAgent:
    """What became of one call of the agent with --background.

    The watchdog is found as the process that is left to the keeper and leads no session, so it is known without the pid
    file; for this the first look has to come while it lives, or else no worker may outlive it.
    """

    def __init__(self, installation, name, call):
        self.installation = installation
        self.name = name
        self.pid_file = Path(f"/var/run/{name}.pid")
        self._watchdog = None
        self._report = b""
        self._all_said = False
        self.keeper, self._reader = fork_keeper(call)
        os.set_blocking(self._reader, False)

    # Its processes.

    @property
    def ends(self):
        """The processes that have ended."""
        return [End(*map(int, line.split())) for line in self._listen()[1:]]

    @property
    def command(self):
        """The process id of what was called."""
        return int(self.wait_for(self._listen, "the start of the command")[0])

    @property
    def command_status(self):
        """What the caller sees."""
        return self.wait_for(lambda: self._end_of(self.command), "the end of the command").status

    @property
    def watchdog(self):
        if self._watchdog is None:
            self._watchdog = self.wait_for(self._find_watchdog, "a watchdog")
        return self._watchdog

    def watchdog_in_pid_file(self):
        """Takes the pid file's word for it, as soon as there is one: a matter of fractions of a millisecond."""
        end = time.monotonic() + DEADLINE_S
        while not self.pid_file.exists():
            assert time.monotonic() < end, f"{self.pid_file} does not appear"
            time.sleep(0.0002)
        self._watchdog = int(self.pid_file.read_text())
        return self._watchdog

    def processes(self):
        """What is there of the agent once it has started: the watchdog, and its children or what was left of them."""
        parents = (self.keeper, self.watchdog)
        return {process.pid: process for process in process_table().values() if process.parent in parents}

    def worker_in(self, phase, other_than=(), **deadline):
        """The process id of the worker that has reached `phase` of an application made by `write_service`."""
        return self.record(f"Message: {phase}", other_than, **deadline).pid

    def status_of(self, pid):
        """How the process ended. Only for those that the keeper reaps: the watchdog, and workers that outlive it."""
        return self.wait_for(lambda: self._end_of(pid), f"the end of process {pid}").status

    def await_nothing_left(self, **deadline):
        self.wait_for(lambda: self._listen() and self._all_said, "the end of the last process", **deadline)

    def end(self, **deadline):
        """Waits until no process is left, and returns the status of the watchdog."""
        self.await_nothing_left(**deadline)
        return self.status_of(self.watchdog)

    def terminate(self):
        """Asks the agent to end, once."""
        os.kill(self.watchdog, signal.SIGTERM)

    def stop(self):
        """Ends the agent as an operator does, and returns its status."""
        self.terminate()
        return self.end()

    def close(self):
        kill_with_descendants(self.keeper)
        os.close(self._reader)
        self.pid_file.unlink(missing_ok=True)

    # Its log, which several agents of one installation do not share.

    def records(self):
        return self.installation.records(name=self.name)

    def lines(self):
        """The records as `Level: text`."""
        return [f"{record.level}: {record.text}" for record in self.records()]

    def record(self, line, other_than=(), count=1, **deadline):
        """Waits for the record `line` of another process than those, or for the `count`th one, and returns it."""

        def matching():
            found = [r for r in self.records() if f"{r.level}: {r.text}" == line and r.pid not in other_than]
            return found[count - 1 :]

        return self.wait_for(matching, f"record {line!r}", **deadline)[0]

    def wait_for(self, condition, what, **deadline):
        """As `await_condition`, telling more when it fails."""
        try:
            return await_condition(condition, what, **deadline)
        except AssertionError as error:
            left = [p for p in process_table().values() if p.session != os.getsid(0) and p.name.startswith("kx_agent")]
            log = self.installation.log_text(name=self.name)
            raise AssertionError(f"{error}\nended: {self.ends}\nagents: {left}\nlog of {self.name}:\n{log}") from None

    def _listen(self):
        """The lines that the keeper has said so far."""
        try:
            while chunk := os.read(self._reader, 65536):
                self._report += chunk
            self._all_said = True
        except BlockingIOError:
            pass
        return self._report.decode().split("\n")[:-1]

    def _end_of(self, pid):
        return next((end for end in self.ends if end.pid == pid), None)

    def _find_watchdog(self):
        strangers = {self.keeper, self.command}  # leaders of the sessions that the command may have been called in
        left = (p for p in process_table().values() if p.parent == self.keeper)
        for process in itertools.chain((end for end in self.ends if end.pid != self.command), left):
            if process.session not in strangers | {process.pid}:
                return process.pid
        return None

"""A process that runs a command, outlives everything that the command leaves behind, and tells how it ended.

Orphans become children of the keeper, as they would become children of init, and are reaped as soon as they end. The
keeper writes lines: first the command's process id, then for each end the process id, session, and exit code or negative
signal. It ends when no process is left.
"""

import ctypes
import gc
import os
import resource
import signal
import traceback
from dataclasses import dataclass, field

PR_SET_CHILD_SUBREAPER = 36  # prctl(2)

LIBC = ctypes.CDLL(None, use_errno=True)


@dataclass
class Call:
    """How a command is called: itself, and what it inherits."""

    command: list
    environment: dict
    folder: str
    output: object  # a path or a descriptor, for standard output and standard error
    folder_vanishes: bool = False
    ignored: list = field(default_factory=list)  # signals
    blocked: list = field(default_factory=list)  # signals
    closed: list = field(default_factory=list)  # of the standard descriptors
    kept: list = field(default_factory=list)  # descriptors beside the standard three
    terminal: int = None
    umask: int = 0o022
    core_size: int = 0

    def descriptors(self):
        return {number for number in (*self.kept, self.output, self.terminal) if isinstance(number, int)}


def fork_keeper(call):
    """Returns the keeper's process id, and a descriptor to read its lines from."""
    reader, writer = os.pipe()
    keeper = os.fork()
    if keeper == 0:
        gc.disable()  # nothing of the caller's is to be finalised here
        _then_exit(_keep, call, writer)
    os.close(writer)
    return keeper, reader


def _then_exit(function, *arguments):
    """Calls the function in a process that is a copy of the test's and must not go on as such."""
    try:
        function(*arguments)
    except BaseException:
        traceback.print_exc()
        os._exit(127)
    os._exit(0)


def _keep(call, report):
    os.setsid()
    if LIBC.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")
    _close_all_but({0, 1, 2, report, *call.descriptors()})
    os.write(report, f"{_start(call)}\n".encode())
    _close_all_but({0, 1, 2, report})
    _reap_all(report)


def _start(call):
    child = os.fork()
    if child == 0:
        _then_exit(_become, call)
    return child


def _become(call):
    for number in signal.valid_signals() - {signal.SIGKILL, signal.SIGSTOP}:
        signal.signal(number, signal.SIG_IGN if number in call.ignored else signal.SIG_DFL)
    signal.pthread_sigmask(signal.SIG_SETMASK, call.blocked)
    resource.setrlimit(resource.RLIMIT_CORE, (call.core_size, call.core_size))
    os.chdir(call.folder)
    if call.folder_vanishes:
        os.rmdir(call.folder)
    os.dup2(os.open(os.devnull, os.O_RDONLY), 0)
    output = call.output if isinstance(call.output, int) else os.open(call.output, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o600)
    os.dup2(output, 1)
    os.dup2(output, 2)
    if call.terminal is not None:
        os.login_tty(call.terminal)
    for descriptor in call.kept:
        os.set_inheritable(descriptor, True)
    for descriptor in call.closed:
        os.close(descriptor)
    os.umask(call.umask)
    os.execvpe(call.command[0], call.command, call.environment)


def _reap_all(report):
    while True:
        try:
            ended = os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOWAIT).si_pid
        except ChildProcessError:
            return
        session = os.getsid(ended)
        status = os.waitstatus_to_exitcode(os.waitpid(ended, 0)[1])
        os.write(report, f"{ended} {session} {status}\n".encode())


def _close_all_but(kept):
    for descriptor in map(int, os.listdir("/proc/self/fd")):
        if descriptor not in kept:
            try:
                os.close(descriptor)
            except OSError:
                pass  # the one of the listing

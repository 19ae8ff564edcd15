"""From the command line to a service: the process that stays, what it inherits, its pid file, and a second start."""

import os
import re
import select
import signal
import stat
import subprocess
from pathlib import Path

import pytest

from agentbox import AS_NOBODY, await_condition, in_private_mounts, through_shell
from background import once_there, process_table
from proc import script_thread, signals, status_of, threads

BEYOND_EVERY_PID = 2**31 - 1

HOUR_S = 3600


@pytest.fixture
def sleeper():
    """A living process that is no agent."""
    process = subprocess.Popen(["sleep", "1000"])
    yield process
    process.kill()
    process.wait()


@pytest.fixture
def pid_file(installation):
    path = Path(f"/var/run/{installation.name}.pid")
    yield path
    if path.is_dir() and not path.is_symlink():
        path.rmdir()
    else:
        path.unlink(missing_ok=True)


def leave_pid_file(path, text, age_s=0):
    """A pid file that was written so long ago."""
    path.write_text(text)
    written = path.stat().st_mtime - age_s
    os.utime(path, (written, written))


def present(path):
    return f"Error: {str(path)[:128]} present, exiting"


def stale(path, pid):
    return f"Verbose: {str(path)[:128]} present (pid={pid}), but doesn't seem to be running."


def await_alone(agent):
    """Waits until the watchdog and one worker are all there is, and returns them."""

    def both():
        processes = agent.processes()
        watchdog = processes.pop(agent.watchdog)
        return len(processes) == 1 and (watchdog, *processes.values())

    return agent.wait_for(both, "a watchdog and a worker alone")


def assert_runs(agent):
    """The agent is at work, under the pid file that it has to have, and can be ended."""
    agent.worker_in("main")
    assert agent.pid_file.read_text() == f"{agent.watchdog}\n"
    assert agent.stop() == 0
    assert not agent.pid_file.exists()


def assert_refused(agent, path):
    """The call ended with status 1, after its message, and never had a child."""
    assert agent.command_status == 1
    agent.await_nothing_left()
    assert [end.pid for end in agent.ends] == [agent.command]
    assert [record.pid for record in agent.records()] == [agent.command]
    assert agent.lines() == [present(path)]


# The process that stays


def test_caller_sees_success(installation):
    installation.write_service()

    agent = installation.launch_in_background()

    assert agent.command_status == 0
    agent.worker_in("main")


def test_only_the_watchdog_and_one_worker_stay(installation):
    agent = installation.start_in_background()
    worker = agent.worker_in("main")

    watchdog, child = await_alone(agent)

    assert (watchdog.name, child.name) == ("kx_agent", "kx_agent")
    assert (child.pid, child.parent) == (worker, watchdog.pid)
    ends = {end.pid: end for end in agent.ends}
    assert len(ends) == 2
    assert ends.pop(agent.command).status == 0
    (between,) = ends.values()
    assert (between.pid, between.session, between.status) == (watchdog.session, watchdog.session, 0)


@pytest.mark.without_tsan
def test_watchdog_has_one_thread_and_the_worker_two(installation):
    agent = installation.start_in_background()
    worker = agent.worker_in("main")

    assert [status_of(agent.watchdog, thread)["Name"] for thread in threads(agent.watchdog)] == ["kx_agent"]
    assert [status_of(worker, thread)["Name"] for thread in threads(worker)] == ["kx_agent", "CScriptThread"]


def test_session_and_group_are_new_and_led_by_nobody(installation):
    agent = installation.start_in_background()
    agent.worker_in("main")

    watchdog, worker = await_alone(agent)

    assert watchdog.session not in (watchdog.pid, os.getsid(agent.keeper), agent.command)
    assert watchdog.group == watchdog.session
    assert (worker.session, worker.group) == (watchdog.session, watchdog.group)
    assert watchdog.session not in agent.processes()


def assert_out_of_reach_of_the_terminal(agent):
    agent.worker_in("main", timeout_s=10)
    watchdog, worker = await_alone(agent)
    assert (watchdog.terminal, worker.terminal) == (0, 0)
    assert agent.stop() == 0


def test_terminal_of_the_caller_is_given_up(installation):
    """The shell on it ends, and the terminal hangs up, when the service runs."""
    installation.write_service()
    master, terminal = os.openpty()
    agent = installation.launch_in_background(wrapper=through_shell('"$@"; status=$?; read line; exit $status'), terminal=terminal)
    os.close(terminal)
    agent.worker_in("main")

    os.write(master, b"\n")
    assert agent.command_status == 0
    os.close(master)

    assert_out_of_reach_of_the_terminal(agent)


LEADERS = {"command itself": (), "shell that ends with it": through_shell('"$@"; exit $?')}


@pytest.mark.parametrize("wrapper", LEADERS.values(), ids=LEADERS.keys())
def test_leader_of_the_terminal_ends_at_once(installation, wrapper):
    """The kernel then hangs up its whole group, of which the service must be no part any more."""
    for number in range(8):
        name = f"{installation.name}_{number}"
        installation.write_service(name=name)
        master, terminal = os.openpty()
        agent = installation.launch_in_background(name=name, wrapper=wrapper, terminal=terminal)
        os.close(terminal)

        assert agent.command_status == 0
        os.close(master)

        assert_out_of_reach_of_the_terminal(agent)


def test_application_knows_that_it_runs_in_the_background(installation):
    agent = installation.start_in_background(main="dom:Log('message', tostring(dom:Get('app.background')))")

    assert agent.record("Message: true")


def test_name_of_any_kind(installation):
    name = installation.name + " %s%n é"
    agent = installation.start_in_background(name=name)

    assert agent.pid_file.name == name + ".pid"
    assert_runs(agent)


def test_option_error_starts_nothing(installation):
    agent = installation.launch_in_background("--no-such-option")

    assert agent.command_status == 255
    agent.await_nothing_left()
    assert len(agent.ends) == 1
    assert not agent.pid_file.exists()


def test_refused_fips_mode_starts_nothing(installation):
    installation.work.mkdir()
    (installation.work / "kx_agent.ini").write_text("FIPSMode=1\n")
    module = installation.bin / "lib" / "engines" / "fips.so"
    module.parent.mkdir(parents=True)
    module.write_text("no module")

    agent = installation.launch_in_background()

    assert agent.command_status == 0
    agent.await_nothing_left()
    assert len(agent.ends) == 1
    assert not agent.pid_file.exists()


# The pid file


def test_pid_file_holds_the_watchdog(installation):
    agent = installation.start_in_background()
    agent.worker_in("init")

    status = agent.pid_file.lstat()

    assert agent.pid_file.read_bytes() == b"%d\n" % agent.watchdog
    assert stat.S_ISREG(status.st_mode) and stat.S_IMODE(status.st_mode) == 0o644
    assert (status.st_uid, status.st_gid) == (os.geteuid(), os.getegid())


@pytest.mark.parametrize("umask", [0, 0o077, 0o777], ids=oct)
def test_umask_of_the_caller_does_not_count(installation, umask):
    agent = installation.start_in_background(umask=umask)
    agent.worker_in("main")

    assert stat.S_IMODE(agent.pid_file.stat().st_mode) == 0o644
    assert stat.S_IMODE(installation.work.stat().st_mode) == 0o700
    assert stat.S_IMODE(installation.log_file().stat().st_mode) == 0o600


def test_pid_file_is_there_before_the_application_starts(installation):
    agent = installation.start_in_background(init=f"local file = io.open('/var/run/{installation.name}.pid') dom:Log('message', file:read('*a'))")

    assert agent.record(f"Message: {agent.watchdog}\\n")


def test_nothing_is_left_beside_the_pid_file(installation):
    agent = installation.start_in_background()
    agent.worker_in("main")

    assert [path.name for path in Path("/var/run").iterdir() if installation.name in path.name] == [agent.pid_file.name]
    agent.stop()
    assert [path.name for path in Path("/var/run").iterdir() if installation.name in path.name] == []


# Folder


def folder_of(pid):
    return os.readlink(f"/proc/{pid}/cwd")


def test_folder_is_the_work_folder(installation):
    agent = installation.start_in_background(folder="/usr")
    worker = agent.worker_in("main")

    assert [folder_of(pid) for pid in (agent.watchdog, worker)] == [str(installation.work)] * 2


def test_work_folder_that_is_relative_to_where_the_caller_stands(installation):
    (installation.root / "here").mkdir()
    agent = installation.start_in_background("-w", "../there", folder=installation.root / "here")

    agent.wait_for(lambda: installation.log_text(work=installation.root / "there"), "the log")

    assert folder_of(agent.watchdog) == str(installation.root / "there")


def test_folder_follows_the_domain(installation):
    elsewhere = installation.root / "elsewhere"
    elsewhere.mkdir()
    agent = installation.start_in_background("-d", f"app.path.work={elsewhere}")

    agent.wait_for(lambda: "main" in installation.log_text(work=elsewhere), "the log")

    assert folder_of(agent.watchdog) == str(elsewhere)


def test_folder_that_cannot_be_entered_leaves_the_service_where_it_was(installation):
    agent = installation.start_in_background("-d", f"app.path.work={installation.root}/bin/kx_agent", folder="/usr")

    await_alone(agent)

    assert folder_of(agent.watchdog) == "/usr"
    assert agent.stop() == 0


def test_work_folder_that_is_not_ascii(installation):
    installation.work = installation.root / "wörk"
    agent = installation.start_in_background()
    worker = agent.worker_in("main")

    assert [folder_of(pid) for pid in (agent.watchdog, worker)] == [str(installation.work)] * 2


@pytest.mark.parametrize("locale", [None, "C", "xx_XX.UTF-8"])
def test_work_folder_that_the_locale_cannot_express(installation, locale):
    installation.work = installation.root / "wörk"
    agent = installation.start_in_background(env={"LANG": locale}, folder="/usr")
    worker = agent.worker_in("main")

    assert [folder_of(pid) for pid in (agent.watchdog, worker)] == ["/usr"] * 2
    assert_runs(agent)


def test_caller_in_a_folder_that_is_gone(installation):
    folder = installation.root / "gone"
    folder.mkdir()
    agent = installation.start_in_background(folder=folder, folder_vanishes=True)
    agent.worker_in("main")

    assert folder_of(agent.watchdog) == str(installation.work)
    assert_runs(agent)


# Descriptors


def stream(pid, number):
    flags = re.search(r"^flags:\s*(\d+)$", Path(f"/proc/{pid}/fdinfo/{number}").read_text(), re.M)
    return os.readlink(f"/proc/{pid}/fd/{number}"), int(flags[1], 8) & os.O_ACCMODE


SILENCED = [("/dev/null", os.O_RDONLY), ("/dev/null", os.O_WRONLY), ("/dev/null", os.O_WRONLY)]

TALKATIVE = "print('stray') io.write('stray') io.stderr:write('stray') os.execute('echo stray; echo stray >&2')"


def files_with(text, folder):
    return [path for path in folder.rglob("*") if path.is_file() and text in path.read_bytes()]


def test_standard_streams_lead_nowhere(installation):
    agent = installation.start_in_background(main=TALKATIVE + " dom:Log('message', 'said')")
    worker = agent.record("Message: said").pid

    for pid in (agent.watchdog, worker):
        assert [stream(pid, number) for number in range(3)] == SILENCED
    assert (installation.root / f"{agent.name}.out").read_bytes() == b""
    assert files_with(b"stray", installation.work) == []


@pytest.mark.parametrize("closed", [[0], [1], [2], [0, 1], [1, 2], [0, 1, 2]], ids=str)
def test_caller_without_standard_streams(installation, closed):
    agent = installation.start_in_background(main=TALKATIVE + " dom:Log('message', 'said')", closed=closed)
    worker = agent.record("Message: said").pid

    for pid in (agent.watchdog, worker):
        assert [stream(pid, number) for number in range(3)] == SILENCED
    assert files_with(b"stray", installation.work) == []
    assert_runs(agent)


def at_its_end(reader):
    """Whether nobody can write into a pipe any more."""
    return select.select([reader], [], [], 0)[0] and os.read(reader, 1) == b""


@pytest.mark.parametrize("how", ["output", "kept"])
def test_descriptor_of_the_caller_is_let_go(installation, how):
    """As its output, or as a descriptor beside that."""
    installation.write_service()
    reader, writer = os.pipe()
    agent = installation.launch_in_background(**{how: writer if how == "output" else [writer]})
    os.close(writer)
    agent.worker_in("main")

    agent.wait_for(lambda: at_its_end(reader), "the end of the pipe, which the agent does not need")

    await_alone(agent)
    os.close(reader)


# Signals that the caller left


EVERY_SIGNAL = sorted(int(number) for number in signal.valid_signals())

ODD_CALLERS = {
    "plain": {},
    "all blocked": {"blocked": EVERY_SIGNAL},
    "ignored": {"ignored": [signal.SIGCHLD, signal.SIGTERM, signal.SIGINT, signal.SIGHUP]},
    "ignored and blocked": {"ignored": [signal.SIGCHLD, signal.SIGTERM, signal.SIGUSR1], "blocked": EVERY_SIGNAL},
}

ODD_CALLER = pytest.mark.parametrize("caller", ODD_CALLERS.values(), ids=ODD_CALLERS.keys())


def masks(pid, thread):
    status = status_of(pid, thread)
    return {field: signals(status[field]) for field in ("SigBlk", "SigIgn", "SigCgt")}


@ODD_CALLER
def test_signals_of_the_watchdog(installation, caller):
    agent = installation.start_in_background(**caller)
    agent.worker_in("main")

    # The worker may get ahead of the watchdog, which prepares itself when the worker exists.
    found = agent.wait_for(
        lambda: signal.SIGTERM in masks(agent.watchdog, agent.watchdog)["SigCgt"] and masks(agent.watchdog, agent.watchdog),
        "the handler for SIGTERM",
    )
    agent.wait_for(lambda: masks(agent.watchdog, agent.watchdog)["SigBlk"] == {signal.SIGCHLD}, "the mask of the watchdog")

    assert found["SigIgn"] == set()


@ODD_CALLER
def test_signals_of_the_worker(installation, caller):
    agent = installation.start_in_background(main=once_there("/nowhere"), **caller)
    worker = agent.worker_in("main")
    script = script_thread(worker)

    main, scripts = masks(worker, worker), masks(worker, script)

    assert main["SigBlk"] - {signal.SIGCHLD} == {signal.SIGTERM}
    assert scripts["SigBlk"] - {signal.SIGCHLD} == {signal.SIGTERM, signal.SIGINT}
    assert main["SigIgn"] >= {signal.SIGHUP, signal.SIGPIPE}
    assert not main["SigIgn"] & {signal.SIGCHLD, signal.SIGTERM, signal.SIGINT}
    assert main["SigCgt"] >= {signal.SIGINT, signal.SIGTERM, signal.SIGUSR1, signal.SIGUSR2, signal.SIGALRM}


@ODD_CALLER
def test_signals_of_a_worker_started_later_are_the_same(installation, caller):
    agent = installation.start_in_background(main=once_there("/nowhere"), **caller)
    first = agent.worker_in("main")

    os.kill(first, signal.SIGKILL)
    second = agent.worker_in("main", other_than=[first])

    script = script_thread(second)
    assert masks(second, second)["SigBlk"] - {signal.SIGCHLD} == {signal.SIGTERM}
    assert masks(second, script)["SigBlk"] - {signal.SIGCHLD} == {signal.SIGTERM, signal.SIGINT}
    assert masks(second, script)["SigIgn"] == {signal.SIGHUP, signal.SIGPIPE}


@ODD_CALLER
def test_odd_caller_can_stop_the_agent(installation, caller):
    agent = installation.start_in_background(shutdown="return 5", **caller)
    agent.worker_in("main")

    assert agent.stop() == 5


@ODD_CALLER
def test_odd_caller_sees_the_end_of_the_application(installation, caller):
    agent = installation.start_in_background(main="return 6", **caller)

    assert agent.end() == 6


@ODD_CALLER
def test_children_of_the_application_start_with_default_signals(installation, caller):
    show = "for f in SigBlk SigIgn; do grep $f /proc/self/status; done"
    # Twice: in the first worker, and in one that a prepared watchdog has forked.
    agent = installation.start_in_background(
        main=f"""
            dom:Log('message', (io.popen('{show}'):read('*a'):gsub('%s+', ' ')))
            dom:Log('message', table.concat({{select(2, os.execute('exit 3'))}}, ' '))
            dom:Log('message', 'done')""",
        **caller,
    )
    first = agent.record("Message: done").pid
    os.kill(first, signal.SIGKILL)
    agent.record("Message: done", other_than=[first])

    shown = [record.text for record in agent.records() if record.text.startswith("Sig")]
    assert len(shown) == 2
    for text in shown:
        _, blocked, _, ignored = text.split()
        assert (signals(blocked), signals(ignored)) == (set(), set())
    assert agent.lines().count("Message: exit 3") == 2


# A second start


def test_second_start_is_refused_and_the_first_untouched(installation, pid_file):
    agent = installation.start_in_background()
    agent.worker_in("main")
    await_alone(agent)
    before = agent.processes(), pid_file.stat().st_mtime_ns, pid_file.stat().st_ino, agent.lines()

    again = installation.launch_in_background()

    assert again.command_status == 1
    again.await_nothing_left()
    assert [end.pid for end in again.ends] == [again.command]
    assert [(r.pid, f"{r.level}: {r.text}") for r in agent.records()][len(before[3]) :] == [(again.command, present(pid_file))]
    assert (agent.processes(), pid_file.stat().st_mtime_ns, pid_file.stat().st_ino) == before[:3]
    assert agent.stop() == 0


def test_second_start_is_refused_while_the_first_shuts_down_without_a_worker(installation, pid_file):
    """In the delay before a restart, too, the agent is there."""
    agent = installation.start_in_background()
    os.kill(agent.worker_in("main"), signal.SIGKILL)
    agent.record("Verbose: Delaying 1000ms before restart 1")

    assert installation.launch_in_background().command_status == 1

    assert agent.stop() == 0


def test_start_after_a_stop(installation):
    first = installation.start_in_background()
    first.worker_in("main")
    assert first.stop() == 0

    second = installation.start_in_background()

    second.wait_for(lambda: second.lines().count("Message: main") == 2, "the second start")
    assert stale(second.pid_file, first.watchdog) not in second.lines()
    assert second.stop() == 0


def test_end_of_the_first_leaves_the_second_its_pid_file(installation):
    """The first has lost its pid file to a stop, but takes its time; the second has one of its own by then."""
    gate = installation.root / "gate"
    first = installation.start_in_background(shutdown=once_there(gate))
    first.worker_in("main")
    first.terminate()
    first.worker_in("shutdown")
    second = installation.start_in_background()
    second.wait_for(lambda: second.lines().count("Message: main") == 2, "the second start")

    gate.touch()
    first.await_nothing_left()

    assert_runs(second)


def ended_process():
    process = subprocess.Popen(["true"])
    process.wait()
    return process.pid


@pytest.mark.parametrize("pid", [lambda: BEYOND_EVERY_PID, ended_process], ids=["largest", "ended"])
def test_pid_file_of_a_process_that_is_gone(installation, pid_file, pid):
    number = pid()
    pid_file.write_text(f"{number}\n")

    agent = installation.start_in_background()

    assert agent.record(stale(pid_file, number)).pid == agent.command
    assert_runs(agent)


def test_stale_pid_file_of_any_mode_becomes_a_proper_one(installation, pid_file):
    pid_file.write_text(f"{BEYOND_EVERY_PID}\n")
    pid_file.chmod(0o666)

    agent = installation.start_in_background()
    agent.worker_in("main")

    assert stat.S_IMODE(pid_file.stat().st_mode) == 0o644
    assert_runs(agent)


@pytest.mark.parametrize("end", ["\n", ""], ids=["line", "no line end"])
def test_pid_file_of_a_living_process(installation, pid_file, sleeper, end):
    installation.write_service()
    leave_pid_file(pid_file, f"{sleeper.pid}{end}", age_s=-HOUR_S)

    agent = installation.launch_in_background()

    assert_refused(agent, pid_file)
    assert pid_file.read_text() == f"{sleeper.pid}{end}"


def test_pid_file_of_a_process_that_may_not_be_signalled(public_installation):
    """The pid of this process, which root owns, as another user sees it."""
    installation = public_installation
    installation.write_service()
    installation.work = installation.home / "work"

    agent = installation.launch_in_background(
        wrapper=in_private_mounts(
            f"mount -t tmpfs -o mode=1777 none /run && echo {os.getpid()} > /run/{installation.name}.pid &&"
            f' exec {" ".join(AS_NOBODY)} "$@"'
        )
    )

    assert_refused(agent, Path(f"/var/run/{installation.name}.pid"))


UNUSABLE = {
    "empty": "",
    "line feed": "\n",
    "zero": "0\n",
    "minus one": "-1\n",
    "negative": "-{pid}\n",
    "signed": "+{pid}\n",
    "word": "kx_agent\n",
    "number and word": "{pid}x\n",
    "word and number": "pid={pid}\n",
    "hexadecimal": "0x10\n",
    "fraction": "{pid}.0\n",
    "two numbers": "{pid} {pid}\n",
    "two lines": "{pid}\n{pid}\n",
    "beyond the range": f"{2**31}\n",
    "wraps around to a living one": "{wrapped}\n",
    "very large": "9" * 100 + "\n",
    "endless": "1" * 1_000_000 + "\n",
    "endless zeros and a number": "0" * 1_000_000 + "{pid}\n",
    "zeros, a number and a line": "0" * 22 + "{pid}\njunk\n",
    "blank in front": " {pid}\n",
    "blank behind": "{pid} \n",
    "empty line behind": "{pid}\n\n",
    "carriage return": "{pid}\r\n",
    "NUL": "{pid}\0\n",
    "control characters": "\x1b[2J{pid}\n",
}


@pytest.mark.parametrize("text", UNUSABLE.values(), ids=UNUSABLE.keys())
def test_pid_file_that_holds_no_process_id(installation, pid_file, sleeper, text):
    leave_pid_file(pid_file, text.replace("{pid}", str(sleeper.pid)).replace("{wrapped}", str(2**32 + sleeper.pid)), age_s=-HOUR_S)

    agent = installation.start_in_background()
    agent.worker_in("main")

    assert agent.lines() == ["Message: init", "Message: main"]
    assert_runs(agent)


def test_pid_file_that_is_a_link(installation, pid_file, sleeper):
    target = installation.root / "target"
    leave_pid_file(target, f"{sleeper.pid}\n", age_s=-HOUR_S)
    pid_file.symlink_to(target)

    agent = installation.start_in_background()
    agent.worker_in("main")

    assert not pid_file.is_symlink()
    assert_runs(agent)
    assert target.read_text() == f"{sleeper.pid}\n"


def test_pid_file_that_is_a_link_to_nothing(installation, pid_file):
    target = installation.root / "target"
    pid_file.symlink_to(target)

    agent = installation.start_in_background()
    agent.worker_in("main")

    assert not pid_file.is_symlink()
    assert_runs(agent)
    assert not target.exists()


SPECIAL_FILES = {
    "fifo": os.mkfifo,
    "socket": lambda path: os.mknod(path, stat.S_IFSOCK | 0o644),
    "endless device": lambda path: os.mknod(path, stat.S_IFCHR | 0o644, os.makedev(1, 5)),
}


@pytest.mark.parametrize("make", SPECIAL_FILES.values(), ids=SPECIAL_FILES.keys())
def test_pid_file_that_is_no_regular_file(installation, pid_file, make):
    make(pid_file)

    agent = installation.start_in_background()
    agent.worker_in("main")

    assert stat.S_ISREG(pid_file.lstat().st_mode)
    assert_runs(agent)


def test_pid_file_that_is_a_folder(installation, pid_file):
    pid_file.mkdir()

    agent = installation.start_in_background(shutdown="return 5")
    agent.worker_in("main")

    assert agent.stop() == 5
    assert pid_file.is_dir()
    assert [path.name for path in Path("/var/run").iterdir() if installation.name in path.name] == [pid_file.name]


def test_pid_file_that_cannot_be_read(public_installation):
    installation = public_installation
    installation.work = installation.home / "work"

    agent = installation.start_in_background(
        wrapper=in_private_mounts(
            f"mount -t tmpfs -o mode=0777 none /run && cd /run && echo {os.getpid()} > {installation.name}.pid &&"
            f' chmod 0 {installation.name}.pid && exec {" ".join(AS_NOBODY)} "$@"'
        )
    )
    agent.worker_in("main")

    assert Path(f"/proc/{agent.watchdog}/root/run/{agent.name}.pid").read_text() == f"{agent.watchdog}\n"
    assert agent.stop() == 0


@pytest.mark.parametrize("mount", ["-t tmpfs -o ro none /run", "-t tmpfs -o size=4096,nr_inodes=1 none /run"], ids=["read-only", "full"])
def test_pid_file_that_cannot_be_written(installation, mount):
    agent = installation.start_in_background(shutdown="return 5", wrapper=in_private_mounts(f'mount {mount} && exec "$@"'))
    agent.worker_in("main")

    assert os.listdir(f"/proc/{agent.watchdog}/root/run") == []
    assert agent.stop() == 5


# A pid that another process has been given since


def test_pid_that_another_program_was_given_later(installation, pid_file, sleeper):
    leave_pid_file(pid_file, f"{sleeper.pid}\n", age_s=HOUR_S)

    agent = installation.start_in_background()
    agent.worker_in("main")

    assert agent.lines() == ["Message: init", "Message: main"]
    assert sleeper.poll() is None
    assert_runs(agent)


def run_in_foreground(installation, name="other"):
    """A process of this installation's executable, running under another name."""
    installation.write_app(main="print('ready') io.stdout:flush() require('posix.unistd').sleep(1000)", name=name)
    process = installation.start(name=name)
    assert process.stdout.readline() == b"ready\n"
    return process


def test_pid_that_the_same_program_was_given_later(installation, pid_file):
    installation.write_service()
    leave_pid_file(pid_file, f"{run_in_foreground(installation).pid}\n", age_s=HOUR_S)

    assert_refused(installation.launch_in_background(), pid_file)


@pytest.mark.parametrize("replaced", [True, False], ids=["replaced", "deleted and back"])
def test_pid_of_the_same_program_before_an_update(installation, pid_file, replaced):
    installation.write_service()
    leave_pid_file(pid_file, f"{run_in_foreground(installation).pid}\n", age_s=HOUR_S)
    updated = installation.root / "updated"
    updated.write_bytes(installation.executable.read_bytes())
    updated.chmod(0o755)
    if not replaced:
        installation.executable.unlink()
    os.replace(updated, installation.executable)

    assert_refused(installation.launch_in_background(), pid_file)


def test_pid_that_another_installation_was_given_later(install, tmp_path):
    one, other = install(tmp_path / "one"), install(tmp_path / "other")
    pid_file = Path(f"/var/run/{one.name}.pid")
    leave_pid_file(pid_file, f"{run_in_foreground(other).pid}\n", age_s=HOUR_S)

    agent = one.start_in_background()

    assert_runs(agent)


def test_pid_of_a_process_that_nobody_waited_for(installation, pid_file):
    """What it ran cannot be told any more, so it counts as the agent."""
    installation.write_service()
    zombie = subprocess.Popen(["true"])
    await_condition(lambda: process_table()[zombie.pid].state == "Z", "the end of a process")
    leave_pid_file(pid_file, f"{zombie.pid}\n", age_s=HOUR_S)

    assert_refused(installation.launch_in_background(), pid_file)
    zombie.wait()


def test_pid_of_a_thread_of_the_kernel(installation, pid_file):
    """It runs no executable that could be compared."""
    installation.write_service()
    kernel_thread = next((p.pid for p in process_table().values() if p.parent == 2), None)
    if kernel_thread is None:
        pytest.skip("a container, which shows none")
    leave_pid_file(pid_file, f"{kernel_thread}\n", age_s=-HOUR_S)

    assert_refused(installation.launch_in_background(), pid_file)


def test_pid_that_the_caller_itself_was_given(installation, pid_file):
    """As in a container, where the numbers start anew and the file outlives them."""
    script = f'echo $$ > {pid_file} && touch -d "1 hour ago" {pid_file} && exec "$@"'
    agent = installation.start_in_background(wrapper=through_shell(script))

    assert_runs(agent)


# Messages with long paths


def long_name(installation, sign, bytes_beside_it):
    """An application name so long that the path of its pid file exceeds 128 characters."""
    room = (255 - bytes_beside_it - len(installation.name)) // len(sign.encode())
    return installation.name + sign * min(room, 150)


@pytest.mark.parametrize("sign", ["x", "é"])
def test_long_path_is_cut_in_the_refusal(installation, sleeper, sign):
    name = long_name(installation, sign, bytes_beside_it=20)
    pid_file = Path(f"/var/run/{name}.pid")
    assert len(str(pid_file)) > 128
    leave_pid_file(pid_file, f"{sleeper.pid}\n", age_s=-HOUR_S)
    installation.write_service(name=name)

    assert_refused(installation.launch_in_background(name=name), pid_file)


@pytest.mark.parametrize("sign", ["x", "é"])
def test_long_path_is_cut_in_the_remark(installation, sign):
    name = long_name(installation, sign, bytes_beside_it=20)
    pid_file = Path(f"/var/run/{name}.pid")
    pid_file.write_text(f"{BEYOND_EVERY_PID}\n")

    agent = installation.start_in_background(name=name)

    assert agent.record(stale(pid_file, BEYOND_EVERY_PID))
    assert_runs(agent)


@pytest.mark.parametrize("length", [128, 129])
def test_path_of_exactly_so_many_characters(installation, sleeper, length):
    name = installation.name.ljust(length - len("/var/run/.pid"), "x")
    pid_file = Path(f"/var/run/{name}.pid")
    leave_pid_file(pid_file, f"{sleeper.pid}\n", age_s=-HOUR_S)
    installation.write_service(name=name)
    assert len(str(pid_file)) == length

    agent = installation.launch_in_background(name=name)

    assert_refused(agent, pid_file)
    assert agent.lines()[0].endswith((".pid" if length == 128 else ".pi") + " present, exiting")


# Without --background


@pytest.mark.parametrize("background", [False, "domain"], ids=["foreground", "domain variable only"])
def test_foreground_ignores_the_pid_file(installation, pid_file, sleeper, background):
    leave_pid_file(pid_file, f"{sleeper.pid}\n", age_s=-HOUR_S)
    installation.write_service()

    assert installation.run(*(["-d", "app.background=true"] if background else [])).status == 0

    assert pid_file.read_text() == f"{sleeper.pid}\n"
    assert "present" not in installation.log_text()


def test_foreground_writes_no_pid_file(installation, pid_file):
    installation.write_app(main=f"print(io.open('{pid_file}'))")

    assert installation.run().out.startswith("nil\t")


# Failing system calls


@pytest.mark.parametrize(
    "failing, caller_sees, message",
    [(1, 255, "Unable to fork"), (2, 0, "Unable to do 2nd fork")],
)
def test_fork_that_fails(installation, preloaded, failing, caller_sees, message):
    installation.write_service()

    agent = installation.launch_in_background(env=preloaded(TEST_FORK=failing))

    assert agent.command_status == caller_sees
    agent.await_nothing_left()
    assert [end.status for end in agent.ends][-1] == 255
    assert len(agent.ends) == failing
    assert agent.lines() == [f"Error: {message} (error 11: Resource temporarily unavailable)"]
    assert not agent.pid_file.exists()


# The main agent, with a place of its own for its fixed paths


def test_banners_of_the_main_agent(installation):
    installation.name = "kx_agent"
    agent = installation.start_in_background(wrapper=in_private_mounts('mount -t tmpfs none /run && exec "$@"'))
    agent.worker_in("main")
    assert Path(f"/proc/{agent.watchdog}/root/run/kx_agent.pid").read_text() == f"{agent.watchdog}\n"

    assert agent.stop() == 0

    banners = [record for record in agent.records() if record.text.startswith("VEL 11.0.0.2580 ")]
    assert [record.pid for record in banners] == [agent.command, agent.watchdog]
    assert banners[0].text == "VEL 11.0.0.2580 starting."
    assert re.fullmatch(r"VEL 11\.0\.0\.2580 exiting\. Run time was 0d 00:00:\d\d\.\d\d\d", banners[1].text)


def test_two_agents_side_by_side(installation):
    one = installation.start_in_background(name=installation.name + "_one")
    other = installation.start_in_background(name=installation.name + "_other", shutdown="return 7")
    one.worker_in("main")
    worker = other.worker_in("main")

    assert one.stop() == 0

    assert not one.pid_file.exists()
    assert other.pid_file.read_text() == f"{other.watchdog}\n"
    assert os.getpgid(worker) == os.getpgid(other.watchdog)
    assert other.stop() == 7

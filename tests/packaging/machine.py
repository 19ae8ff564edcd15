"""A Debian system with systemd that boots in namespaces of its own: the machine that the service is installed on.

The system's files are a copy of a tree that debootstrap makes once per build folder. Its processes see that copy, and
process ids, control groups and a host name of their own; they end with the test.
"""

import hashlib
import os
import platform
import re
import shutil
import subprocess
import tempfile
from pathlib import Path

from agentbox import BUILD, DEADLINE_S, await_condition

PROJECT = Path(__file__).resolve().parents[2]

NAMESPACES = ("unshare", "--pid", "--fork", "--mount", "--cgroup", "--uts", "--ipc")


def refusal():
    """Why no system can boot here; empty when one can."""
    if os.geteuid() != 0:
        return "not root"
    attempt = subprocess.run([*NAMESPACES, "mount", "-t", "cgroup2", "none", "/mnt"], capture_output=True, text=True)
    if attempt.returncode != 0:
        return attempt.stderr.strip()
    return "" if _own_control_group() else "no control group of version 2 to be seen"


def _own_control_group():
    """The folder of this process's group in the hierarchy of version 2; None where that is not mounted for writing."""
    own = next((line[3:] for line in Path("/proc/self/cgroup").read_text().splitlines() if line.startswith("0::")), None)
    for line in Path("/proc/self/mounts").read_text().splitlines():
        _, folder, kind, options, *_ = line.split()
        if own and kind == "cgroup2" and "rw" in options.split(","):
            return Path(folder + own)
    return None


def _packages():
    """What an installation needs beside the agent's own files, by the page for operators."""
    page = (PROJECT / "docs" / "SERVICE.md").read_text()
    program, application = re.search(r"On Debian 12 the program needs `(.+?)`, and the sample application\s`(.+?)`", page).groups()
    return [*program.split(), *application.split(), "systemd"]


def base_tree():
    """The folder with the freshly installed system; made at the first call for this build folder and these packages."""
    packages = ",".join(_packages())
    tree = BUILD / "packaging" / hashlib.sha256(packages.encode()).hexdigest()[:16]
    if not tree.exists():
        unfinished = tree.with_name("unfinished")
        shutil.rmtree(unfinished, ignore_errors=True)
        unfinished.mkdir(parents=True)
        _debootstrap(unfinished, packages)
        unfinished.rename(tree)
    return tree


def _debootstrap(folder, packages):
    suite = platform.freedesktop_os_release()["VERSION_CODENAME"]
    include = "--include=" + packages
    log = folder.with_name("debootstrap.log")
    with log.open("wb") as output:
        done = subprocess.run(
            # Its mounts end with it, however it ends.
            ["unshare", "--mount", "debootstrap", "--variant=minbase", include, suite, folder, _mirror(suite)],
            stdin=subprocess.DEVNULL,
            stdout=output,
            stderr=subprocess.STDOUT,
        )
    assert done.returncode == 0, f"debootstrap ended with {done.returncode}, see {log}"
    for archive in (folder / "var/cache/apt/archives").glob("*.deb"):
        archive.unlink()


def _mirror(suite):
    """The address that this machine's own packages come from."""
    known = _known_mirrors(suite)
    if not known:
        subprocess.run(["apt-get", "update", "-qq"], check=True)
        known = _known_mirrors(suite)
    assert known, f"apt knows no source of {suite}"
    return known[0]


def _known_mirrors(suite):
    command = ["apt-get", "indextargets", "--format", "$(REPO_URI)", "Identifier: Packages", "Component: main"]
    return subprocess.run([*command, f"Release: {suite}"], check=True, capture_output=True, text=True).stdout.split()


class Machine:
    """One system, from its files to its end."""

    def __init__(self):
        self._folder = Path(tempfile.mkdtemp(prefix="kx_agent_packaging."))
        self._tree = self._folder / "system"
        self._group = _own_control_group() / self._folder.name
        self._outer = None  # the process that waits for the system's end
        self._first = 0  # the system's first process, by its number out here
        subprocess.run(["cp", "-a", base_tree(), self._tree], check=True)
        self._group.mkdir()
        # What services get if their unit has nothing to say about it.
        self.path("/etc/locale.conf").write_text("LANG=C\n")

    def path(self, inside):
        """A file of the system, seen from here; not for /run, /dev, /proc and /sys."""
        return self._tree / inside.lstrip("/")

    def boot(self):
        """Returns when the system has started everything that it starts by itself."""
        self._outer = subprocess.Popen(
            # The system ends with this process, however that ends.
            self._in_group("setpriv", "--pdeathsig", "KILL", *NAMESPACES, "--kill-child")
            + ["sh", Path(__file__).with_name("boot.sh"), self._tree],
            stdin=subprocess.DEVNULL,
        )
        await_condition(self._is_booted, "the first process to become systemd")
        await_condition(self._is_settled, "the system to have started what it starts")

    def _is_booted(self):
        assert self._outer.poll() is None, f"the system did not boot, status {self._outer.returncode}"
        children = subprocess.run(["pgrep", "-P", str(self._outer.pid)], capture_output=True, text=True).stdout.split()
        if not children:
            return False
        self._first = int(children[0])
        # Commands must not enter before the root folder is the system's own.
        return Path(os.readlink(f"/proc/{self._first}/exe")).name == "systemd"

    def _is_settled(self):
        # "degraded": some unit has failed. The scenarios look at the one that matters here.
        return self.attempt("systemctl", "is-system-running").stdout.strip() in ("running", "degraded")

    def power_off(self):
        """Returns when the system has stopped everything and ended."""
        self.run("systemctl", "poweroff")
        self._outer.wait(timeout=DEADLINE_S)

    def attempt(self, *command, cwd="/root", **options):
        """Runs a command in the system to its end, whatever that is."""
        entered = ("nsenter", "--target", str(self._first), "--all", "--", "env", "--chdir", cwd)
        return subprocess.run(
            self._in_group(*entered, *command),
            stdin=subprocess.DEVNULL if "input" not in options else None,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            encoding="utf-8",
            errors="backslashreplace",
            timeout=DEADLINE_S,
            **options,
        )

    def run(self, *command, **options):
        """The output of a command in the system that has to succeed."""
        done = self.attempt(*command, **options)
        assert done.returncode == 0, f"{command}: wanted status 0, got {done.returncode}\n{done.stdout}"
        return done.stdout

    def _in_group(self, *command):
        """The command line by which `command` runs in the system's control group, in which systemctl looks for itself."""
        return ["sh", "-c", 'echo $$ >"$0" && exec "$@"', str(self._group / "cgroup.procs"), *command]

    def close(self):
        if self._outer:
            self._outer.kill()
            self._outer.wait()
        events = self._group / "cgroup.events"
        await_condition(lambda: "populated 0" in events.read_text(), "the system's last process to be gone")
        for folder, _, _ in os.walk(self._group, topdown=False):
            os.rmdir(folder)
        shutil.rmtree(self._folder)

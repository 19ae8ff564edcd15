"""Where measurements find the programs, and where they may write."""

import os
import shutil
import subprocess
import tempfile
from pathlib import Path


class Rig:
    """The build under measurement and a scratch folder on a memory file system, which `close` removes."""

    def __init__(self, build, quick):
        self.build = Path(build).resolve()
        self.quick = quick
        self.source = Path(__file__).resolve().parent.parent.parent
        memory = Path("/dev/shm")
        parent = memory if os.access(memory, os.W_OK) else None
        self.scratch = Path(tempfile.mkdtemp(prefix="kx-bench-", dir=parent))

    def close(self):
        shutil.rmtree(self.scratch, ignore_errors=True)

    def pick(self, quick, full):
        """One of two numbers of rounds, entries or bytes: what --quick takes, and what a full run takes."""
        return quick if self.quick else full

    def program(self, name):
        """A program of bench/, by its name."""
        return self.build / "bench" / name

    def folder(self, name):
        """A new, empty folder on the memory file system."""
        path = self.scratch / name
        shutil.rmtree(path, ignore_errors=True)
        path.mkdir(parents=True)
        return path

    def samples(self, *command):
        """Runs a program that takes its contenders in turn itself and prints "ROW CONTENDER SAMPLE" a line.

        Returns {row: {contender: [sample, ...]}}; a contender's name may hold blanks.
        """
        output = subprocess.run([str(part) for part in command], check=True, stdout=subprocess.PIPE, text=True).stdout
        taken = {}
        for line in output.splitlines():
            row, rest = line.split(" ", 1)
            contender, sample = rest.rsplit(" ", 1)
            taken.setdefault(row, {}).setdefault(contender, []).append(float(sample))
        return taken

"""The integrity monitor's first run, which reads every file: next to sha256sum and to AIDE over the same files.

Each has one thread for its work, and each takes the files from the page cache.
"""

import json
import os
import subprocess
from time import perf_counter

from harness.row import Group, Row
from harness.rounds import in_turn


def files_below(folder):
    """A regular file's path each."""
    found = subprocess.run(["find", folder, "-type", "f", "-print0"], check=True, stdout=subprocess.PIPE).stdout
    return found.split(b"\0")[:-1]


def folders_of_usr(limit):
    """The folders of /usr, or those that fit into so many bytes, the smaller ones first; and their files."""
    below = {entry.path: files_below(entry.path) for entry in os.scandir("/usr") if entry.is_dir(follow_symlinks=False)}
    sizes = {folder: sum(os.lstat(file).st_size for file in files) for folder, files in below.items()}
    folders = []
    for folder in sorted(sizes, key=sizes.get):
        limit -= sizes[folder]
        if limit >= 0:
            folders.append(folder)
    return folders, [file for folder in folders for file in below[folder]]


def expect_count(who, counted, files):
    """Whoever looks at other files than the rest is not to be compared with them."""
    if counted != len(files):
        raise RuntimeError(f"{who} has read {counted} files of {len(files)}")


def monitor(rig, folders, files):
    """A run that takes everything into a new baseline."""
    work = rig.folder("monitor")
    command = [rig.build / "bin/kx_agent", "--workdir", work, "--", "--json", *folders]
    start = perf_counter()
    output = subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout
    seconds = perf_counter() - start
    expect_count("the monitor", json.loads(output)["summary"]["files"], files)
    return seconds


def sha256sum(files):
    names = b"\0".join(files)
    start = perf_counter()
    output = subprocess.run(["xargs", "-0", "sha256sum", "-z"], input=names, check=True, stdout=subprocess.PIPE).stdout
    seconds = perf_counter() - start
    expect_count("sha256sum", output.count(b"\0"), files)
    return seconds


def aide(rig, folders, files):
    """A database of the digests and of what else the monitor compares: size, mode and owner."""
    work = rig.folder("aide")
    config = work / "aide.conf"
    config.write_text(f"database_out=file:{work}/aide.db\n"
                      "gzip_dbout=no\n"
                      "num_workers=1\n"
                      "report_url=stdout\n" +
                      "".join(f"{folder} f sha256+s+p+u+g\n" for folder in folders), encoding="ascii")
    start = perf_counter()
    output = subprocess.run(["aide", "--init", f"--config={config}"], check=True, stdout=subprocess.PIPE,
                            text=True).stdout
    seconds = perf_counter() - start
    expect_count("AIDE", int(output.split("Number of entries:")[1].split()[0]), files)
    return seconds


def measure_monitor(rig):
    folders, files = folders_of_usr(rig.pick(200_000_000, 1_500_000_000))
    sha256sum(files)  # fills the page cache
    contenders = {
        "agent": lambda: monitor(rig, folders, files),
        "floor": lambda: sha256sum(files),
        "AIDE": lambda: aide(rig, folders, files),
    }
    return {"monitor": in_turn(contenders, 3)}


GROUPS = [
    Group((Row("monitor", "the monitor's first run over 1.5 GB of /usr, next to sha256sum over the same files", "s",
               must=1.25, aim=1.05),), measure_monitor),
]

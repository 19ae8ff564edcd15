"""Archives on disk: unpacking, the memory that it takes, and the removal of what an archive lists.

Times are processor time, which on a memory file system is all there is. The agent, the floor and the libraries measure
themselves from the inside; of other programs the whole run counts, whose start is far below a hundredth of it.
"""

import os
import subprocess
import zipfile

from harness.packing import lua_module, pack, plain_text, seeded, write_archive
from harness.rounds import in_turn
from harness.row import Group, Row

SMALL = 4096
FILES_IN_A_FOLDER = 500
MEGABYTE = 1 << 20

# A row of memory whose two sides are within this of each other is flat: both have the process itself in them, and an
# allocator's steps are no growth. Whoever lists entries holds their names, so by entries it cannot be exactly 1.
FLAT = 1.1


def inside(figure, *command):
    """What a program says about itself: milliseconds (0) or KiB at its peak (1)."""
    output = subprocess.run([str(part) for part in command], check=True, stdout=subprocess.PIPE, text=True).stdout
    return float(output.split()[figure]) * (1000, 1)[figure]


def whole(*command):
    """The milliseconds of processor time of a whole program."""
    with subprocess.Popen([str(part) for part in command], stdout=subprocess.DEVNULL) as child:
        try:
            _, status, usage = os.wait4(child.pid, 0)
        except BaseException:
            child.kill()
            raise
        child.returncode = os.waitstatus_to_exitcode(status)
    if child.returncode != 0:
        raise subprocess.CalledProcessError(child.returncode, child.args)
    return (usage.ru_utime + usage.ru_stime) * 1000


def names(count):
    """Names of entries, each folder's together."""
    return [f"folder{number // FILES_IN_A_FOLDER}/file{number}.lua" for number in range(count)]


def small_entries(count):
    random = seeded()
    contents = [pack(lua_module(random, SMALL)) for _ in range(500)]
    return [(name, contents[number % len(contents)]) for number, name in enumerate(names(count))]


def large_entries(packed, count):
    return [(f"large/part{number}", packed) for number in range(count)]


def archive(rig, name, entries):
    path = rig.folder(name) / "archive.zip"
    write_archive(path, entries)
    return path


def unpackers(rig, path):
    """Each contender unpacks into a folder of its own that is new each time."""
    def into():
        return rig.folder("unpacked")

    return {
        "agent": lambda: inside(0, rig.program("UnpackAgent"), path, into()),
        "floor": lambda: inside(0, rig.program("UnpackFloor"), path, into()),
        "libzip": lambda: inside(0, rig.program("UnpackLibzip"), path, into()),
        "bsdtar": lambda: whole("bsdtar", "-xf", path, "-C", into()),
        "unzip": lambda: whole("unzip", "-q", path, "-d", into()),
    }


def measure_small(rig):
    path = archive(rig, "small", small_entries(rig.pick(2000, 20000)))
    return {"unpack.small": in_turn(unpackers(rig, path), rig.pick(3, 5))}


def measure_large(rig):
    random = seeded()
    count = rig.pick(1, 10)
    text = pack(plain_text(random, MEGABYTE), 30)
    noise = pack(random.randbytes(MEGABYTE), 30, zipfile.ZIP_STORED)  # what cannot be made smaller is kept as it is
    rounds = rig.pick(1, 3)
    return {
        "unpack.text": in_turn(unpackers(rig, archive(rig, "text", large_entries(text, count))), rounds),
        "unpack.random": in_turn(unpackers(rig, archive(rig, "random", large_entries(noise, count))), rounds),
    }


def peak(rig, path):
    return inside(1, rig.program("UnpackAgent"), path, rig.folder("unpacked"))


def measure_memory(rig):
    few = archive(rig, "few", small_entries(2000))
    many = archive(rig, "many", small_entries(rig.pick(5000, 20000)))
    text = plain_text(seeded(), MEGABYTE)
    short = archive(rig, "short", large_entries(pack(text, 30), 1))
    long = archive(rig, "long", large_entries(pack(text, rig.pick(60, 300)), 1))
    rounds = rig.pick(1, 3)
    return {
        "unpack.memory.entries": in_turn({"agent": lambda: peak(rig, many), "2,000 entries": lambda: peak(rig, few)},
                                         rounds),
        "unpack.memory.bytes": in_turn({"agent": lambda: peak(rig, long), "30 MB": lambda: peak(rig, short)}, rounds),
    }


def listed_files(rig, listed):
    """A folder with the files that a list names, all empty."""
    folder = rig.folder("listed")
    made = set()
    for name in listed:
        parent = name.split("/", 1)[0]
        if parent not in made:
            (folder / parent).mkdir()
            made.add(parent)
        os.close(os.open(folder / name, os.O_CREAT | os.O_WRONLY, 0o644))
    return folder


def gone(folder, sample):
    """The sample, once it is certain that the removal has removed everything."""
    if any(files for _, _, files in os.walk(folder)):
        raise RuntimeError("a removal has left files behind")
    return sample


def measure_removal(rig):
    listed = names(rig.pick(2000, 20000))
    marker = archive(rig, "marker", [(name, pack(b"")) for name in listed])
    list_of_names = rig.scratch / "listed-names"
    list_of_names.write_text("".join(f"{name}\n" for name in listed), encoding="ascii")

    def agent():
        folder = listed_files(rig, listed)
        os.link(marker, folder / "Feature-Bench-11.0.0-1.x86_64.kxu")
        return gone(folder, inside(0, rig.program("RemoveAgent"), folder, rig.folder("work")))

    def floor():
        folder = listed_files(rig, listed)
        return gone(folder, inside(0, rig.program("RemoveFloor"), list_of_names, folder))

    def walk():
        folder = listed_files(rig, listed)
        return gone(folder, inside(0, rig.program("RemoveWalk"), marker, folder))

    return {"remove": in_turn({"agent": agent, "floor": floor, "wxRemoveFile": walk}, rig.pick(3, 5))}


GROUPS = [
    Group((Row("unpack.small", "20,000 files of 4 KB are unpacked", "ms", 1.9, 1.4),), measure_small),
    Group((Row("unpack.text", "300 MB of text are unpacked, in ten files", "ms", 2.2, 1.3),
           Row("unpack.random", "300 MB of random bytes are unpacked, in ten files", "ms", 1.3, 1.15)), measure_large),
    Group((Row("unpack.memory.entries", "peak while 20,000 files are unpacked, against 2,000", "KiB", None, FLAT,
               base="2,000 entries"),
           Row("unpack.memory.bytes", "peak while a file of 300 MB is unpacked, against 30 MB", "KiB", None, FLAT,
               base="30 MB")), measure_memory),
    Group((Row("remove", "20,000 listed files are removed", "ms", 2, 1.5),), measure_removal),
]

"""`require` of Lua modules that lie in archives.

One sample is one process, since archives are opened once a process; opening and indexing them counts. The agent's side
is the interpreter of the core library with its loader and search paths, so that the start of the agent, which rows of
its own measure, does not hide the difference.
"""

import subprocess

from harness.packing import lua_module, pack, seeded, write_archive
from harness.rounds import in_turn
from harness.row import Group, Row

LENGTH = 2048
FEW = 1000
ARCHIVES = 200

# The interpreter's own `require` and nothing in front of it; os.clock is processor time, as for the others.
PLAIN_FILES = """
package.path = arg[1] .. '/?.lua'
local names = {}
for name in io.lines(arg[2]) do names[#names + 1] = name end
local start = os.clock()
for _, name in ipairs(names) do require(name) end
print(os.clock() - start)
"""


class Modules:
    """Names and texts of modules, some in each folder, and a list of the names in a shuffled order."""

    def __init__(self, folder, count):
        random = seeded()
        texts = [lua_module(random, LENGTH) for _ in range(FEW)]
        self.folder = folder
        self.count = count
        self.texts = {f"plugin{number * ARCHIVES // count}.module{number}": texts[number % FEW]
                      for number in range(count)}
        shuffled = list(self.texts)
        random.shuffle(shuffled)
        self.names = folder / "names"
        self.names.write_text("".join(f"{name}\n" for name in shuffled), encoding="ascii")

    def entries(self):
        packed = {text: pack(text) for text in set(self.texts.values())}
        return [(name.replace(".", "/") + ".lua", packed[text]) for name, text in self.texts.items()]

    def in_archives(self, count):
        """The text of a search list of so many archives, which are written."""
        entries = self.entries()
        share = len(entries) // count
        paths = []
        for number in range(count):
            paths.append(self.folder / f"{count}-{number}.kxe")
            write_archive(paths[-1], entries[number * share:(number + 1) * share])
        return ";".join(str(path) for path in paths)

    def as_files(self):
        """A folder with the modules as plain files."""
        top = self.folder / "files"
        for name, text in self.texts.items():
            path = top / (name.replace(".", "/") + ".lua")
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(text)
        return top


def microseconds(count, *command):
    """What a program takes per module; it prints seconds first."""
    output = subprocess.run([str(part) for part in command], check=True, stdout=subprocess.PIPE, text=True).stdout
    return float(output.split()[0]) * 1e6 / count


def requires(rig, modules, archives):
    """The contenders that take the modules out of archives."""
    installed = rig.build / "bin"
    return {
        "agent": lambda: microseconds(modules.count, rig.program("RequireAgent"), installed, archives, modules.names),
        "floor": lambda: microseconds(modules.count, rig.program("RequireFloor"), archives, modules.names),
        "libzip": lambda: microseconds(modules.count, rig.program("RequireLibzip"), archives, modules.names),
    }


def measure_require(rig):
    modules = Modules(rig.folder("modules"), rig.pick(1000, 5000))
    files = modules.as_files()
    plain = {"lua5.2": lambda: microseconds(modules.count, "lua5.2", rig.scratch / "plain.lua", files, modules.names)}
    (rig.scratch / "plain.lua").write_text(PLAIN_FILES, encoding="ascii")
    rounds = rig.pick(3, 21)
    return {
        "require.one": in_turn(requires(rig, modules, modules.in_archives(1)) | plain, rounds),
        "require.many": in_turn(requires(rig, modules, modules.in_archives(ARCHIVES)) | plain, rounds),
    }


def measure_growth(rig):
    few = Modules(rig.folder("few"), FEW)
    many = Modules(rig.folder("many"), rig.pick(5000, 20000))
    at_few = requires(rig, few, few.in_archives(1))
    at_many = requires(rig, many, many.in_archives(1))
    return {"require.growth": in_turn({
        "agent": at_many["agent"],
        f"agent at {FEW}": at_few["agent"],
        "floor": at_many["floor"],
        f"floor at {FEW}": at_few["floor"],
    }, rig.pick(1, 9))}


GROUPS = [
    Group((Row("require.one", "a module of 5,000 in one archive is required", "us", 1.15, 1.05),
           Row("require.many", "a module of 5,000 in 200 archives is required", "us", 1.15, 1.05)), measure_require),
    Group((Row("require.growth", "a module of 20,000 is required, against one of 1,000", "us", 1.35, 1.05,
               base=f"agent at {FEW}"),), measure_growth),
]

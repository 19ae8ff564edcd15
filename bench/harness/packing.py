"""Archives for measurements, and what they hold."""

import zipfile
import zlib
from dataclasses import dataclass
from random import Random

WORDS = ("name value path index entry result state count files rules match level event limit owner group "
         "reader writer record buffer folder status signal worker policy window").split()


@dataclass(frozen=True)
class Packed:
    """Content as it stands in an archive; packed once, it can be many entries."""

    data: bytes
    crc32: int
    size: int
    method: int


def deflate(content, times):
    """A raw stream of the content so many times over, which is compressed once: each time begins without a memory of
    what came before."""
    deflater = zlib.compressobj(6, zlib.DEFLATED, -zlib.MAX_WBITS)
    once = deflater.compress(content) + deflater.flush(zlib.Z_FULL_FLUSH)
    return once * times + deflater.flush()


def pack(content, times=1, method=zipfile.ZIP_DEFLATED):
    """The content so many times over."""
    whole = content * times
    data = deflate(content, times) if method == zipfile.ZIP_DEFLATED else whole
    return Packed(data, zlib.crc32(whole), len(whole), method)


def write_archive(path, entries):
    """Writes (name, Packed) pairs, as regular files of mode 0644."""
    directory = bytearray()
    count = 0
    with open(path, "wb") as file:
        for name, packed in entries:
            raw = name.encode()
            fixed = b"".join(number.to_bytes(width, "little") for number, width in (
                (20, 2), (0, 2), (packed.method, 2), (0, 2), (0x5821, 2), (packed.crc32, 4), (len(packed.data), 4),
                (packed.size, 4), (len(raw), 2), (0, 2)))
            directory += (b"PK\x01\x02" + (3 << 8 | 30).to_bytes(2, "little") + fixed + bytes(6)
                          + (0o100644 << 16).to_bytes(4, "little") + file.tell().to_bytes(4, "little") + raw)
            file.write(b"PK\x03\x04" + fixed + raw)
            file.write(packed.data)
            count += 1
        start = file.tell()
        file.write(directory)
        file.write(b"PK\x05\x06" + bytes(4) + 2 * count.to_bytes(2, "little")
                   + len(directory).to_bytes(4, "little") + start.to_bytes(4, "little") + bytes(2))


def lua_module(random, size):
    """Lua text of this size: functions, tables and comments with names that repeat, as in modules written by hand."""
    def word():
        return random.choice(WORDS)

    text = f"-- The {word()} of a {word()}.\nlocal m = {{}}\n\n"
    end = "\nreturn m\n"
    while len(text) + len(end) < size:
        argument, local, field = word(), word(), word()
        text += (f"-- Takes the {argument} and looks for its {field}.\n"
                 f"function m.{word()}{random.randrange(100)}({argument}, {field})\n"
                 f"  local {local}1 = {argument}.{field} or {random.randrange(10000)}\n"
                 f"  if {local}1 == '{word()}{random.randrange(1000)}' then\n"
                 f"    return {{{word()} = {local}1, {word()} = #{field} + {random.randrange(100)}}}\n"
                 f"  end\n  return m.{word()} and {argument}.{word()}\nend\n\n")
        if len(text) + len(end) > size - 330:
            text += "--" + "." * (size - len(text) - len(end) - 2)
    return (text + end).encode()


def plain_text(random, size):
    """Lines of words and numbers, which deflate makes about four times smaller."""
    lines = []
    length = 0
    while length < size:
        line = f"{random.randrange(1000000)} {' '.join(random.choices(WORDS, k=11))} {random.randrange(1000)}\n"
        lines.append(line)
        length += len(line)
    return "".join(lines)[:size].encode()


def seeded():
    """Numbers that are the same in every run."""
    return Random(1)

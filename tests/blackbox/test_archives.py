"""The archives that the build makes of the Lua code."""

import os
import shutil
import zipfile
from pathlib import Path

import pytest

from agentbox import BUILD
from packbox import built

SOURCE = Path(__file__).resolve().parents[2]


def entries(archive):
    with zipfile.ZipFile(archive) as opened:
        return {entry.filename: opened.read(entry) for entry in opened.infolist()}


def lua_files(folder):
    return {str(path.relative_to(folder)): path.read_bytes() for path in folder.rglob("*.lua")}


@pytest.mark.parametrize("archive, folder", [("vel", "core"), ("kx_agent", "apps/kx_agent")])
def test_archive_holds_the_modules_of_its_folder(archive, folder):
    packed = entries(BUILD / "bin" / "vel_core" / f"{archive}.kxe")

    modules = lua_files(SOURCE / "lua" / folder)
    assert modules
    assert {name: packed.get(name) for name in modules} == modules


def test_generic_archive_brings_the_test_framework_and_its_licence():
    packed = entries(BUILD / "bin" / "vel_core" / "vel.kxe")

    further = set(packed) - set(lua_files(SOURCE / "lua" / "core"))
    assert further == {"tests/velunit/luaunit.lua", "tests/velunit/luaunit.copyright"}
    assert b"Redistribution" in packed["tests/velunit/luaunit.copyright"]


@pytest.mark.parametrize("archive, folder", [("vel", "core"), ("kx_agent", "apps/kx_agent")])
def test_archive_depends_on_names_and_contents_only(tmp_path, archive, folder):
    """Packed again from copies with other times and modes, in another time zone."""
    shipped = BUILD / "bin" / "vel_core" / f"{archive}.kxe"
    copy = tmp_path / "copy"
    shutil.copytree(SOURCE / "lua" / folder, copy)
    further = []
    for name in sorted(set(entries(shipped)) - set(lua_files(copy)), reverse=True):
        (tmp_path / "further").mkdir(exist_ok=True)
        (tmp_path / "further" / Path(name).name).write_bytes(entries(shipped)[name])
        further.append(f"{name}={tmp_path / 'further' / Path(name).name}")
    for path in tmp_path.rglob("*.lua"):
        path.chmod(0o600)
        os.utime(path, (1, 1))

    built("archive", copy, *further, "-o", tmp_path / "again.kxe", env={"TZ": "America/New_York", "LC_ALL": "C.UTF-8"})

    assert (tmp_path / "again.kxe").read_bytes() == shipped.read_bytes()

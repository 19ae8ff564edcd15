-- luacheck: one standard for every Lua file of the tree. Run it with: luacheck lua tests/lua
std = "lua52"
max_line_length = 120

-- What the host defines before an application is loaded, and while it runs.
read_globals = { "arg", "dom", "dom0", "velAppModule", "velunit" }

-- Tests define their suites for LuaUnit, and put a domain and words of their own in place of the host's.
files["tests/lua"] = {
  allow_defined_top = true,
  globals = { "arg", "dom", "dom0" },
}

-- luacheck: one standard for every Lua file of the tree. Run it with: luacheck lua tests/lua tests/packaging
local host = require("lua.editor.luacheckrc")

std = host.std
read_globals = host.read_globals
max_line_length = 120

-- Tests define their suites for LuaUnit, and put a domain and words of their own in place of the host's.
files["tests/lua"] = {
  allow_defined_top = true,
  globals = { "arg", "dom", "dom0" },
}

-- Defines what the host does, in functions without bodies.
files["lua/editor/vel.lua"] = {
  globals = { "arg", "dom", "dom0", "velAppModule", "velunit" },
  ignore = { "241/Runnable" }, -- no global holds one
  unused_args = false,
}

-- The test driver keeps the globals it uses apart from those that tests change. The linter does not see that a local
-- _ENV is used.
files["lua/core/tests"] = { ignore = { "211/_ENV" } }

-- tests.velunit: the driver of unit tests, on LuaUnit. The host calls it for: kx_agent -u 'tests/*_test.lua' -- -v
--
-- velunit(specification) runs the scripts that the specification names or matches, with what they define in globals
-- whose names begin with "test" in any case. All chunks run first, then all tests, script by script.
-- The words in `arg` are LuaUnit's. The report goes to standard output.
--
-- Result: 0 when no test failed; otherwise the number of failures and errors, at most 125. A script that cannot be
-- loaded or run counts as one error. 1 and a line on standard error when no script matches or the words are wrong.
--
-- Tested by: tests/lua/velunit_*_test.lua, tests/blackbox/test_unittest_driver.py.
local _ENV = require("tests.velunit.standard")

local terminal = require("vel.terminal")
local text = require("vel.text")
local collection = require("tests.velunit.collection")
local coloured = require("tests.velunit.coloured")
local exit = require("tests.velunit.exit")
local junit = require("tests.velunit.junit")
local options = require("tests.velunit.options")
local runner = require("tests.velunit.runner")
local scripts = require("tests.velunit.scripts")
local selection = require("tests.velunit.selection")
local surroundings = require("tests.velunit.surroundings")

local mostFailures = 125 -- what a shell can tell from its own statuses

-- One line, whatever names are in it; where LuaUnit raised it says nothing to the reader.
local function complain(message)
  io.stdout:flush()
  io.stderr:write("velunit: ", text.Printable((message:gsub("^[^\n]*/luaunit%.lua:%d+: ", ""))), "\n")
end

-- Classes that take the place of LuaUnit's.
local refinements = {
  junit = junit.Derive,
  text = function(TextOutput)
    return coloured.Derive(TextOutput, terminal.PainterOfStandardOutput())
  end,
}

local function collectAll(paths, home)
  local found = {}
  for index, path in ipairs(paths) do
    found[index] = collection.Collect(path)
    surroundings.PutBack(home)
  end
  return found
end

local function run(specification, home)
  local settings, problem = options.Parse({ table.unpack(home.globals.arg) }, os.getenv)
  if not settings then
    complain(problem)
    return 1
  end
  if settings.isAnswered then
    return 0
  end

  local paths = scripts.Find(specification)
  if #paths == 0 then
    complain("no script matches '" .. specification .. "'")
    return 1
  end

  local plan
  plan, problem = selection.Select(collectAll(paths, home), settings)
  if not plan then
    complain(problem)
    return 1
  end

  local suite = runner.New(settings)
  local refine = refinements[settings.output]
  suite.outputType = refine and refine(suite.outputType) or suite.outputType
  local failures
  failures, problem = suite:Run(plan, home)
  if not failures then
    complain(problem)
    return 1
  end
  if plan.selected == 0 then
    complain(plan.others == 0 and "the scripts define no tests" or "no test is selected")
  end
  return math.min(failures, mostFailures)
end

return function(specification)
  if type(specification) ~= "string" then
    error(("bad argument #1 to 'velunit' (string expected, got %s)"):format(type(specification)), 2)
  end
  exit.Install()
  local home = surroundings.Take()
  local succeeded, result = xpcall(run, debug.traceback, specification, home)
  surroundings.PutBack(home)
  exit.Remove()
  if not succeeded then
    error(result, 0)
  end
  return result
end

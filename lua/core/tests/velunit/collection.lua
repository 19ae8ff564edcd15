-- tests.velunit.collection: runs the chunk of a script and collects the tests that it defines.
--
-- A script, as the driver knows it:
--   name          its path, printable
--   problem       nil, or how the chunk ended, when that stands for all of its tests
--   tests         array of the tests that are run when none are named, in LuaUnit's order
--   defined       by name: the tables and functions that the chunk has put into globals or handed to LuaUnit
--   surroundings  as the chunk has left them
--
-- A test: { method =, call = }, with { class =, instance = } when it is the method of a suite.
local _ENV = require("tests.velunit.standard")

local text = require("vel.text")
local exit = require("tests.velunit.exit")
local framework = require("tests.velunit.framework")
local protected = require("tests.velunit.protected")
local scripts = require("tests.velunit.scripts")
local surroundings = require("tests.velunit.surroundings")

local LuaUnit, Status = framework.LuaUnit, framework.NodeStatus

local collection = {}

-- The tests of a suite, a function, or a method given as "suite.method" with its suite.
local function expand(name, value)
  local tests = {}
  for _, pair in ipairs(LuaUnit.expandClasses({ { name, value } })) do
    local expanded, instance = pair[1], pair[2]
    if LuaUnit.asFunction(instance) then
      tests[#tests + 1] = { method = expanded, call = instance }
    else
      local class, method = LuaUnit.splitClassMethod(expanded)
      tests[#tests + 1] = { class = class, method = method, instance = instance, call = instance[method] }
    end
  end
  return tests
end

-- Tests by the name of a suite, a function or a method, as "suite.method"; nil when the script has none of that name.
function collection.Named(script, name)
  local class, method = LuaUnit.splitClassMethod(name)
  local value = script.defined[class or name]
  if not value or (class and type(value) ~= "table") or (class and not LuaUnit.asFunction(value[method])) then
    return nil
  end
  return expand(name, value)
end

local function namesOfTests(script)
  local names = {}
  for name in pairs(script.defined) do
    if LuaUnit.isTestName(name) then
      names[#names + 1] = name
    end
  end
  table.sort(names)
  return names
end

local function defineChanged(script, before, after)
  for name, value in next, after do
    local isCandidate = type(name) == "string" and (type(value) == "table" or type(value) == "function")
    if isCandidate and not rawequal(value, before[name]) then
      script.defined[name] = value
    end
  end
end

-- Fills script.tests with what was asked for.
local function collect(script, requests)
  local taken = {}
  local function take(name, tests)
    if taken[name] then
      return
    end
    taken[name] = true
    for _, test in ipairs(tests) do
      script.tests[#script.tests + 1] = test
    end
  end

  for _, request in ipairs(requests) do
    for _, pair in ipairs(request.instances or {}) do
      local name, value = pair[1], pair[2]
      script.defined[LuaUnit.splitClassMethod(name) or name] = value
      take(name, expand(name, value))
    end
    for _, name in ipairs(request.names or {}) do
      take(name, collection.Named(script, name) or error("the script has no test named '" .. name .. "'", 0))
    end
    if request.everything then
      for _, name in ipairs(namesOfTests(script)) do
        take(name, expand(name, script.defined[name]))
      end
    end
  end
end

-- Runs the chunk. A script that ends by running its tests itself, for use without the driver, only says with that which
-- ones it means: they are run with those of all other scripts, in one report. Output options it gives are not ours.
local function run(script, chunk)
  local requests = {}
  local runSuite, runSuiteByInstances = LuaUnit.runSuite, LuaUnit.runSuiteByInstances
  function LuaUnit.runSuite(_, ...)
    local words = {}
    for _, word in ipairs({ ... }) do
      words[#words + 1] = type(word) == "string" and word or nil
    end
    local names = LuaUnit.parseCmdLine(words).testNames
    requests[#requests + 1] = { names = names, everything = not names }
    return 0
  end
  function LuaUnit.runSuiteByInstances(_, instances)
    requests[#requests + 1] = { instances = instances }
    return 0
  end
  exit.endOfChunk = framework.SUCCESS_PREFIX

  local outcome = protected.Call(script.name, "", chunk)

  exit.endOfChunk = nil
  LuaUnit.runSuite, LuaUnit.runSuiteByInstances = runSuite, runSuiteByInstances
  return outcome, #requests > 0 and requests or { { everything = true } }
end

-- Runs the chunk of the script at `path` in the present surroundings. Gives a script as described above.
function collection.Collect(path)
  local script = { name = text.Printable(path), tests = {}, defined = {} }
  local chunk, message = scripts.Load(path)
  if not chunk then
    script.problem = { status = Status.ERROR, msg = message, trace = "" }
    return script
  end

  local before = surroundings.Take().globals
  local outcome, requests = run(script, chunk)
  script.surroundings = surroundings.Take()
  if outcome.status == Status.SUCCESS then
    defineChanged(script, before, script.surroundings.globals)
    outcome = protected.Call(script.name, "", collect, script, requests)
  end
  if outcome.status ~= Status.SUCCESS then
    script.problem, script.tests = outcome, {}
  end
  return script
end

return collection

-- tests.velunit.selection: which of the tests that were found are run, under which names and in which order.
local _ENV = require("tests.velunit.standard")

local collection = require("tests.velunit.collection")
local framework = require("tests.velunit.framework")

local selection = {}

local shuffle = framework.private.randomizeTable

-- A name that the report has qualified may be given back.
local function withoutScript(script, name)
  local prefix = script.name .. ":"
  return name:sub(1, #prefix) == prefix and name:sub(#prefix + 1) or name
end

-- For each script the tests that were named, or else all of them; nil and a message when a name is nobody's.
local function choose(found, names)
  local parts, unknown, isComplete = {}, {}, true
  for _, name in ipairs(names or {}) do
    unknown[name] = true
  end
  for index, script in ipairs(found) do
    local tests = names and {} or script.tests
    for _, name in ipairs(names or {}) do
      for _, test in ipairs(collection.Named(script, withoutScript(script, name)) or {}) do
        tests[#tests + 1] = test
        unknown[name] = nil
      end
    end
    parts[index] = { script = script, tests = tests }
    isComplete = isComplete and not script.problem
  end
  -- A script that could not be run may be the one that has the test, and its problem is what has to be shown.
  for _, name in ipairs(isComplete and names or {}) do
    if unknown[name] then
      return nil, "no test is named '" .. name .. "'"
    end
  end
  return parts
end

-- Names of suites and functions that more than one script has are shown behind the name of the script.
local function qualify(parts)
  local owners, isShared = {}, {}
  for _, part in ipairs(parts) do
    for _, test in ipairs(part.tests) do
      local name = test.class or test.method
      isShared[name] = isShared[name] or (owners[name] or part) ~= part
      owners[name] = part
    end
  end
  for _, part in ipairs(parts) do
    for _, test in ipairs(part.tests) do
      local key = test.class and "class" or "method"
      if isShared[test[key]] then
        test[key] = part.script.name .. ":" .. test[key]
      end
    end
  end
end

local function fullName(test)
  return test.class and test.class .. "." .. test.method or test.method
end

-- What to run: { parts = array of { script =, tests = }, selected = number, others = number }; nil and a message when
-- the settings (see tests.velunit.options) do not fit. Scripts with a problem are always selected; each counts as one.
function selection.Select(found, settings)
  local parts, problem = choose(found, settings.testNames)
  if not parts then
    return nil, problem
  end
  qualify(parts)

  local plan = { parts = parts, selected = 0, others = 0 }
  for _, part in ipairs(parts) do
    local named = {}
    for index, test in ipairs(part.tests) do
      named[index] = { fullName(test), test }
    end
    local filtered, included, excluded = pcall(framework.LuaUnit.applyPatternFilter, settings.patterns, named)
    if not filtered then
      return nil, included
    end
    part.tests = {}
    for index, pair in ipairs(included) do
      part.tests[index] = pair[2]
    end
    if settings.shuffle then
      shuffle(part.tests)
    end
    plan.selected = plan.selected + #included + (part.script.problem and 1 or 0)
    plan.others = plan.others + #excluded
  end
  if settings.shuffle then
    shuffle(parts)
  end
  return plan
end

return selection

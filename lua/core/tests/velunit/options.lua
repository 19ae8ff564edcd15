-- tests.velunit.options: the words for LuaUnit as settings.
local _ENV = require("tests.velunit.standard")

local framework = require("tests.velunit.framework")

local options = {}

local outputs = { text = true, tap = true, junit = true, ["nil"] = true }

local function isCount(number)
  return number >= 1 and number % 1 == 0 and number < math.huge
end

-- The settings; nil and a message when the words are wrong. getenv is os.getenv, or a function like it.
--
-- Settings: `isAnswered` when the words only asked for help or a version, which has been printed. Otherwise `output`,
-- `fname`, `verbosity`, `quitOnError`, `quitOnFailure`, `exeRepeat`, `shuffle` as LuaUnit knows them; `patterns` and
-- `testNames`, arrays of strings, nil when none was given.
function options.Parse(words, getenv)
  local parsed, given = pcall(framework.LuaUnit.parseCmdLine, words)
  if not parsed then
    return nil, given
  end
  if given.help or given.version then
    return { isAnswered = true }
  end
  -- LuaUnit would run each test that often, not at all with 0, and count it as passed.
  if given.exeRepeat and not isCount(given.exeRepeat) then
    return nil, "the number of repetitions must be a whole number from 1 on"
  end

  local output = given.output or getenv("LUAUNIT_OUTPUT") or "text"
  local fname = given.fname or getenv("LUAUNIT_JUNIT_FNAME")
  if not outputs[output:lower()] then
    return nil, "there is no output type '" .. output .. "'"
  end
  if output:lower() == "junit" and not fname then
    return nil, "the output type 'junit' needs the name of a file: -n NAME"
  end
  return {
    output = output:lower(),
    fname = fname,
    verbosity = given.verbosity,
    quitOnError = given.quitOnError,
    quitOnFailure = given.quitOnFailure,
    exeRepeat = given.exeRepeat,
    shuffle = given.shuffle,
    patterns = given.pattern,
    testNames = given.testNames,
  }
end

return options

-- The parts of the test driver that can be tested alone, and by the driver itself.
local lu = require("luaunit")
local stat = require("posix.sys.stat")
local stdlib = require("posix.stdlib")
local unistd = require("posix.unistd")

local coloured = require("tests.velunit.coloured")
local framework = require("tests.velunit.framework")
local options = require("tests.velunit.options")
local protected = require("tests.velunit.protected")
local scripts = require("tests.velunit.scripts")
local selection = require("tests.velunit.selection")
local standard = require("tests.velunit.standard")
local surroundings = require("tests.velunit.surroundings")
local terminal = require("vel.terminal")

local folder -- the temporary folder of the current test

local function createFolder()
  folder = assert(stdlib.mkdtemp("/tmp/velunit_test.XXXXXX"))
end

local function removeFolder()
  assert(os.execute("rm -rf '" .. folder .. "'"))
end

local function makeFile(name, content)
  local file = assert(io.open(folder .. "/" .. name, "wb"))
  assert(file:write(content or ""))
  assert(file:close())
end

local function nothingSet()
  return nil
end

TestVelunitOptions = {}

function TestVelunitOptions.testWithoutWordsIsTextAndEverything()
  lu.assertEquals(options.Parse({}, nothingSet), { output = "text" })
end

function TestVelunitOptions.testWordsBecomeSettings()
  local cases = {
    { { "-v" }, { output = "text", verbosity = lu.VERBOSITY_VERBOSE } },
    { { "-q", "-s" }, { output = "text", verbosity = lu.VERBOSITY_QUIET, shuffle = true } },
    { { "-e", "-f" }, { output = "text", quitOnError = true, quitOnFailure = true } },
    { { "-o", "TAP", "TestA", "-r", "7" }, { output = "tap", exeRepeat = 7, testNames = { "TestA" } } },
    { { "-p", "a", "-x", "b", "x", "y" }, { output = "text", patterns = { "a", "!b" }, testNames = { "x", "y" } } },
    { { "-o", "junit", "-n", "report" }, { output = "junit", fname = "report" } },
  }
  for _, case in ipairs(cases) do
    lu.assertEquals(options.Parse(case[1], nothingSet), case[2])
  end
end

function TestVelunitOptions.testEnvironmentIsAskedForWhatTheWordsDoNotSay()
  local function getenv(name)
    return ({ LUAUNIT_OUTPUT = "junit", LUAUNIT_JUNIT_FNAME = "report" })[name]
  end
  lu.assertEquals(options.Parse({}, getenv), { output = "junit", fname = "report" })
  lu.assertEquals(options.Parse({ "-o", "tap", "-n", "x" }, getenv), { output = "tap", fname = "x" })
end

function TestVelunitOptions.testWrongWordsAreAMessage()
  for _, line in ipairs({ "-?", "-o", "-o html", "-o junit", "-r x", "-r 0", "-r 2.5", "-v -p" }) do
    local words = {}
    for word in line:gmatch("%S+") do
      words[#words + 1] = word
    end
    local settings, message = options.Parse(words, nothingSet)
    lu.assertNil(settings)
    lu.assertIsString(message)
  end
end

TestVelunitScripts = { setUp = createFolder, tearDown = removeFolder }

local function found(specification)
  local paths = scripts.Find(folder .. "/" .. specification)
  for index, path in ipairs(paths) do
    paths[index] = path:sub(#folder + 2)
  end
  return paths
end

function TestVelunitScripts.testFilesOnlySortedByTheirBytes()
  for _, name in ipairs({ "b", "B", "a", "\xFF", "\xC3\xA9" }) do
    makeFile(name)
  end
  assert(stat.mkdir(folder .. "/folder"))
  assert(stat.mkfifo(folder .. "/fifo"))
  assert(unistd.link("nowhere", folder .. "/link", true))
  lu.assertEquals(found("*"), { "B", "a", "b", "link", "\xC3\xA9", "\xFF" })
  lu.assertEquals(found("folder"), {})
  lu.assertEquals(found("fifo"), {})
end

function TestVelunitScripts.testNameOfAFileGoesBeforeAPattern()
  for _, name in ipairs({ "[a]", "a", "*", "\\a" }) do
    makeFile(name)
  end
  for _, name in ipairs({ "[a]", "*", "\\a" }) do
    lu.assertEquals(found(name), { name })
  end
  os.remove(folder .. "/[a]")
  lu.assertEquals(found("[a]"), { "a" })
end

function TestVelunitScripts.testZeroByteIsInNoName()
  makeFile("a")
  lu.assertEquals(found("a\0b"), {})
  lu.assertEquals(found("a\0*"), {})
end

function TestVelunitScripts.testLoadsTextAndNothingElse()
  local cases = {
    -- content, result or pattern of the message
    { "return 5", 5 },
    { "", nil },
    { "\xEF\xBB\xBFreturn 5", 5 },
    { "#!shell\nreturn 5", 5 },
    { "\xEF\xBB\xBF#!shell\nreturn debug.getinfo(1, 'l').currentline", 2 },
    { "# only a comment", nil },
    { "\n\nreturn +", "script:3: unexpected symbol" },
    { string.dump(function() end), "binary chunk" },
    { "\xEF\xBB\xBF" .. string.dump(function() end), "binary chunk" },
    { "#\27Lua", nil },
  }
  for _, case in ipairs(cases) do
    makeFile("script", case[1])
    local chunk, message = scripts.Load(folder .. "/script")
    if chunk then
      lu.assertEquals(chunk(), case[2])
    else
      lu.assertStrContains(message, case[2])
    end
  end
end

function TestVelunitScripts.testUnreadableScriptIsAMessageOnOneLine()
  local chunk, message = scripts.Load(folder .. "/a\nb")
  lu.assertNil(chunk)
  lu.assertEquals(message, folder .. "/a\\nb: No such file or directory")
end

TestVelunitSelection = {}

-- A script as tests.velunit.collection makes it, of globals that are suites with the given methods, or functions.
local function script(name, globals)
  local made = { name = name, tests = {}, defined = {} }
  for _, global in ipairs(globals) do
    local suite = global.methods and {} or nothingSet
    for _, method in ipairs(global.methods or {}) do
      suite[method] = nothingSet
      made.tests[#made.tests + 1] = { class = global.name, method = method, instance = suite, call = nothingSet }
    end
    if not global.methods then
      made.tests[#made.tests + 1] = { method = global.name, call = nothingSet }
    end
    made.defined[global.name] = suite
  end
  return made
end

-- The names of the tests that would be run, and the plan; nil and a message.
local function selected(all, settings)
  local plan, message = selection.Select(all, settings)
  if not plan then
    return nil, message
  end
  local names = {}
  for _, part in ipairs(plan.parts) do
    for _, test in ipairs(part.tests) do
      names[#names + 1] = (test.class and test.class .. "." or "") .. test.method
    end
  end
  return names, plan
end

local function two()
  return {
    script("a.lua", { { name = "TestX", methods = { "testOne", "testTwo" } }, { name = "testF" } }),
    script("b.lua", { { name = "TestY", methods = { "testOne" } }, { name = "testG" } }),
  }
end

function TestVelunitSelection.testEverythingInOrder()
  local names, plan = selected(two(), {})
  lu.assertEquals(names, { "TestX.testOne", "TestX.testTwo", "testF", "TestY.testOne", "testG" })
  lu.assertEquals({ plan.selected, plan.others }, { 5, 0 })
end

function TestVelunitSelection.testNamesAndPatterns()
  local cases = {
    { { testNames = { "TestX" } }, { "TestX.testOne", "TestX.testTwo" } },
    { { testNames = { "testG", "TestX.testTwo" } }, { "TestX.testTwo", "testG" } },
    { { testNames = { "b.lua:testG" } }, { "testG" } },
    { { patterns = { "One" } }, { "TestX.testOne", "TestY.testOne" } },
    { { patterns = { "!One" } }, { "TestX.testTwo", "testF", "testG" } },
    { { testNames = { "TestX" }, patterns = { "Two" } }, { "TestX.testTwo" } },
  }
  for _, case in ipairs(cases) do
    lu.assertEquals(selected(two(), case[1]), case[2])
  end
end

function TestVelunitSelection.testWrongNamesAndPatterns()
  for _, name in ipairs({ "TestZ", "TestX.testZ", "testF.x", "a.lua:testG", "testG.", "." }) do
    local names, message = selected(two(), { testNames = { "testF", name } })
    lu.assertNil(names)
    lu.assertEquals(message, "no test is named '" .. name .. "'")
  end
  local names, message = selected(two(), { patterns = { "[T" } })
  lu.assertNil(names)
  lu.assertStrContains(message, "malformed pattern")
end

function TestVelunitSelection.testNamesInSeveralScriptsAreQualifiedInAllOfThem()
  local same = { { name = "TestX", methods = { "testOne" } }, { name = "testF" } }
  local names = selected({ script("a", same), script("b", same), script("c", { { name = "testG" } }) }, {})
  lu.assertEquals(names, { "a:TestX.testOne", "a:testF", "b:TestX.testOne", "b:testF", "testG" })
end

function TestVelunitSelection.testScriptWithAProblemCountsAndExcusesAnUnknownName()
  local broken = { name = "broken", tests = {}, defined = {}, problem = {} }
  local names, plan = selected({ broken, script("a", { { name = "testF" } }) }, { testNames = { "testUnknown" } })
  lu.assertEquals(names, {})
  lu.assertEquals(plan.selected, 1)
end

function TestVelunitSelection.testShuffleKeepsTheTestsOfAScriptTogether()
  local methods = {}
  for index = 1, 20 do
    methods[index] = "test" .. index
  end
  local shuffled = { script("a", { { name = "TestA", methods = methods } }), script("b", {}) }
  local _, plan = selected(shuffled, { shuffle = true })
  for _, part in ipairs(plan.parts) do
    lu.assertEquals(#part.tests, part.script.name == "a" and 20 or 0)
  end
end

TestVelunitProtected = {}

local function outcome(call, ...)
  return protected.Call("the test", "", call, ...)
end

function TestVelunitProtected.testWhatLuaUnitRaisesIsWhatItMeans()
  lu.assertEquals(outcome(nothingSet), { status = "SUCCESS" })
  lu.assertEquals(outcome(lu.success), { status = "SUCCESS" })
  lu.assertEquals(outcome(lu.skip, "why"), { status = "SKIP", msg = "why" })
  local failed = outcome(lu.assertEquals, 1, 2)
  lu.assertEquals({ failed.status, failed.msg }, { "FAIL", "expected: 2, actual: 1" })
end

function TestVelunitProtected.testAnythingMayBeRaised()
  local cases = {
    { "text", "text" },
    { "a.lua:5: text", "a.lua:5: text" },
    { "100%: a.lua:5: %1", "100%: a.lua:5: %1" },
    { nil, "nil" },
    { { 1, 2 }, "{1, 2}" },
    { setmetatable({}, { __tostring = error }), "(error object is a table value)" },
  }
  for index = 1, #cases do
    local failed = outcome(error, cases[index][1], 0)
    lu.assertEquals({ failed.status, failed.msg }, { "ERROR", cases[index][2] })
  end
end

function TestVelunitProtected.testRemarkStandsBehindThePlace()
  local failed = protected.Call("x", "round 2, ", error, "a.lua:5: text", 0)
  lu.assertEquals(failed.msg, "a.lua:5: round 2, text")
  failed = protected.Call("x", "round 2, ", lu.fail, "text")
  lu.assertEquals(failed.msg, "round 2, text")
end

function TestVelunitProtected.testTracebackIsThatOfTheTest()
  local function inner()
    lu.assertTrue(false)
  end
  local failed = outcome(function()
    inner()
    return true
  end)
  local lines = {}
  for line in failed.trace:gmatch("[^\n]+") do
    lines[#lines + 1] = line:gsub("^.*velunit_test%.lua:%d+: ", "")
  end
  lu.assertEquals(lines, { "stack traceback:", "in function 'inner'", "in function 'the test'" })
end

TestVelunitSurroundings = {}

function TestVelunitSurroundings.testPutsBackWhatWasThere()
  local before = { dom = dom, arg = arg, folder = unistd.getcwd(), output = io.output() }
  local taken = surroundings.Take()
  dom, arg = 1, 2
  _G.velunitTestGlobal = "new"
  unistd.chdir("/")
  io.output(io.tmpfile()):close()

  surroundings.PutBack(taken)

  lu.assertEquals({ dom, arg, unistd.getcwd(), io.output() }, { before.dom, before.arg, before.folder, before.output })
  lu.assertEquals(rawget(_G, "velunitTestGlobal"), "new") -- what a module defines while it is loaded has to stay
  _G.velunitTestGlobal = nil
end

TestVelunitColoured = {}

-- What LuaUnit prints through an output class, without the time.
local function printed(outputClass, verbosity)
  local pieces = {}
  local stdout, print = standard.io.stdout, standard.print
  standard.io.stdout = {
    flush = nothingSet,
    write = function(_, ...)
      pieces[#pieces + 1] = table.concat({ ... })
    end,
  }
  standard.print = function(line)
    pieces[#pieces + 1] = tostring(line or "") .. "\n"
  end
  local inner = lu.LuaUnit.new()
  inner.outputType = outputClass
  inner.verbosity = verbosity
  local succeeded, problem = pcall(inner.internalRunSuiteByInstances, inner, {
    { "TestA", { testPasses = nothingSet, testFails = lu.fail, testErr = error } },
    { "testSkips", function() lu.skip("why") end },
  })
  standard.io.stdout, standard.print = stdout, print
  assert(succeeded, problem)
  return (table.concat(pieces):gsub("[%d.]+ seconds", "T seconds"):gsub("Started on [^\n]*", "Started"))
end

function TestVelunitColoured.testWithoutColoursItIsLuaUnitsReport()
  local plain = lu.LuaUnit.new()
  plain:setOutputType("text")
  for _, verbosity in ipairs({ lu.VERBOSITY_QUIET, lu.VERBOSITY_DEFAULT, lu.VERBOSITY_VERBOSE }) do
    local expected = printed(plain.outputType, verbosity)
    lu.assertStrContains(expected, "testFails")
    lu.assertEquals(printed(coloured.Derive(plain.outputType, terminal.NewPainter(false)), verbosity), expected)
  end
end

TestVelunitFramework = {}

function TestVelunitFramework.testIsWhatScriptsRequire()
  lu.assertIs(lu, framework)
end

-- Every module of the driver that runs between tests is out of their reach.
function TestVelunitFramework.testReportsWithGlobalsOfItsOwn()
  lu.assertNotIs(standard, _G)
  lu.assertNotIs(standard.io, io)
  lu.assertIs(standard.io.stdout, io.stdout)
  lu.assertIs(standard._G, _G)
end

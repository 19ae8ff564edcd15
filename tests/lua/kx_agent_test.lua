-- The sample application as the host calls it, with a domain and words of our own.
local json = require("dkjson")
local lu = require("luaunit")
local stdlib = require("posix.stdlib")
local kx_agent = require("kx_agent")

local digestOfAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"

local top -- the temporary folder of the current test
local folder -- the one that is scanned
local work -- the agent's work folder

local function makeFile(name, content)
  local file = assert(io.open(folder .. "/" .. name, "wb"))
  assert(file:write(content))
  assert(file:close())
end

local function readAndClose(file)
  assert(file:seek("set"))
  local content = file:read("*a")
  file:close()
  return content
end

-- A domain that remembers what it is told.
local function newDomain(result, variables)
  variables = variables or {}
  return {
    Get = function(_, key)
      return key == "app.path.work" and work or variables[key]
    end,
    GetPluginWorkdir = function(_, name)
      return work .. "/" .. name
    end,
    Log = function(_, level, text)
      table.insert(result.log, { level, text })
    end,
    AgentEventWrite = function(_, event)
      table.insert(result.events, event)
    end,
  }
end

-- Calls action(result) with the globals of the host in the place of our own.
-- Result: { out =, err =, log = array of { level, text }, events = array }, and what `action` adds
local function withHost(words, variables, action)
  local result = { log = {}, events = {} }
  local saved = { arg = arg, dom = dom, stderr = io.stderr, output = io.output() }
  local out, err = io.tmpfile(), io.tmpfile()

  words[0] = "kx_agent"
  arg = words
  dom = newDomain(result, variables)
  io.stderr = err -- luacheck: ignore 122
  io.output(out)
  local succeeded, problem = pcall(action, result)
  io.output(saved.output)
  io.stderr = saved.stderr -- luacheck: ignore 122
  arg, dom = saved.arg, saved.dom

  result.out, result.err = readAndClose(out), readAndClose(err)
  if not succeeded then
    error(problem, 0)
  end
  return result
end

-- Runs init, main and shutdown until one gives another status than 0, as the host does. Adds `status` and `phase`, the
-- last one, to the result of withHost.
local function run(words, variables)
  return withHost(words, variables, function(result)
    for _, phase in ipairs({ "init", "main", "shutdown" }) do
      result.phase, result.status = phase, kx_agent[phase]()
      if result.status ~= 0 then
        break
      end
    end
  end)
end

-- The summary's line with the numbers that depend on the clock replaced.
local function withoutClock(text)
  return (text:gsub("[%d.]+ s, [%d.,]+ MB/s", "T s, R MB/s"))
end

local fixture = {}

function fixture.setUp()
  top = assert(stdlib.realpath(assert(stdlib.mkdtemp("/tmp/kx_agent_test.XXXXXX"))))
  folder, work = top .. "/tree", top .. "/work"
  assert(os.execute(("mkdir '%s'"):format(folder)))
end

function fixture.tearDown()
  assert(os.execute("rm -rf '" .. top .. "'"))
end

TestKxAgent = { setUp = fixture.setUp, tearDown = fixture.tearDown }

function TestKxAgent.testFirstRunTakesTheBaseline()
  assert(os.execute("mkdir -p '" .. folder .. "/sub/deeper'"))
  makeFile("a", "abc")
  makeFile("sub/b", ("b"):rep(1000))
  makeFile("sub/deeper/c", "")

  local result = run({ folder })

  local width = (" "):rep(#folder)
  local rule = ("-"):rep(#folder + 4) .. "  -----  -----  ----------\n"
  local summary = "1 folder: 3 files, 1,003 bytes, 0 added, 0 changed, 0 removed, 0 unreadable, T s, R MB/s"
  lu.assertEquals(result.status, 0)
  lu.assertEquals(result.phase, "shutdown")
  lu.assertEquals(result.err, "")
  lu.assertEquals(withoutClock(result.out),
    "folder" .. width:sub(3) .. "  files  bytes  unreadable\n" .. rule
      .. folder .. "          1      3           0\n"
      .. folder .. "/sub      2  1,000           0\n" .. rule
      .. "total" .. width:sub(2) .. "      3  1,003           0\n"
      .. "\n"
      .. "baseline taken: " .. folder .. ": 3 files\n"
      .. "rules: monitor.rules.volatile (5)\n"
      .. summary .. "\n")
  lu.assertEquals(#result.log, 1)
  lu.assertEquals(result.log[1][1], "message")
  lu.assertEquals(withoutClock(result.log[1][2]), summary)
  lu.assertEquals(#result.events, 1)
  lu.assertEquals(result.events[1].event_number, 7110)
  lu.assertEquals(withoutClock(result.events[1].description), "monitor run complete (" .. summary .. "): " .. folder)
end

function TestKxAgent.testWhatHasChangedIsATableAndAnEventEachAndThenTheBaseline()
  makeFile("changed", "abc")
  makeFile("removed", "abc")
  makeFile("same", "abc")
  run({ folder })
  makeFile("changed", "abcd")
  makeFile("added", "abc")
  assert(os.remove(folder .. "/removed"))

  local result = run({ folder })

  lu.assertEquals(result.status, 0)
  for _, kind in ipairs({ "added", "changed", "removed" }) do
    lu.assertStrMatches(result.out, (".*\n%s +%%x+ .* %s/%s\n.*"):format(kind, folder:gsub("%p", "%%%0"), kind))
  end
  lu.assertStrContains(result.out, "3 files, 10 bytes, 1 added, 1 changed, 1 removed, 0 unreadable, ")
  lu.assertNotStrContains(result.out, "/same")
  local numbers = {}
  for index, event in ipairs(result.events) do
    numbers[index] = event.event_number
  end
  lu.assertEquals(numbers, { 7101, 7102, 7103, 7110 })
  lu.assertEquals(result.events[3], {
    event_number = 7103,
    severity = "warning",
    description = ("file removed (content %s, size 3, mode 0644, owner %d:%d): %s/removed"):format(digestOfAbc,
      require("posix.unistd").geteuid(), require("posix.unistd").getegid(), folder),
  })

  result = run({ folder })
  lu.assertStrContains(result.out, " 0 added, 0 changed, 0 removed, ")
  lu.assertEquals(#result.events, 1)
end

function TestKxAgent.testStrictGivesTenFromShutdownWhenSomethingChanged()
  makeFile("a", "abc")
  lu.assertEquals(run({ "--strict", folder }).status, 0)
  makeFile("b", "abc")
  local result = run({ "--strict", folder })
  lu.assertEquals({ result.phase, result.status }, { "shutdown", 10 })
  result = run({ "--strict", folder })
  lu.assertEquals({ result.phase, result.status }, { "shutdown", 0 })
end

function TestKxAgent.testAnIncompleteRunIsWorseThanAChange()
  makeFile("a", "abc")
  run({ folder })
  makeFile("b", "abc")
  local result = run({ "--strict", folder, folder .. "/missing" })
  lu.assertEquals({ result.phase, result.status }, { "main", 1 })
  lu.assertStrContains(result.out, " 1 added, ")
  lu.assertEquals(result.events[#result.events].event_number, 7111)
end

function TestKxAgent.testResetTakesTheChangesInSilence()
  makeFile("a", "abc")
  run({ folder })
  makeFile("a", "changed")
  makeFile("b", "abc")
  local result = run({ "--reset", "--strict", folder })
  lu.assertEquals(result.status, 0)
  lu.assertStrContains(result.out, "baseline taken: " .. folder .. ": 1 file\n")
  lu.assertStrContains(result.out, ", baseline reset, 0 unreadable, ")
  lu.assertEquals(#result.events, 1)
  lu.assertEquals(result.events[1].event_number, 7112)
  lu.assertEquals(result.events[1].severity, "warning")
  lu.assertStrContains(run({ folder }).out, " 0 added, 0 changed, 0 removed, ")
end

function TestKxAgent.testExclusionsAreNeitherComparedNorForgotten()
  makeFile("a.log", "abc")
  makeFile("b", "abc")
  run({ folder })
  makeFile("a.log", "changed")
  makeFile("c.log", "abc")
  lu.assertStrContains(run({ "--exclude", "*.log", folder }).out, "1 file, 3 bytes, 0 added, 0 changed, 0 removed")
  local out = run({ folder }).out
  lu.assertStrContains(out, " 0 added, 1 changed, 0 removed, ")
  lu.assertStrContains(out, "baseline taken: " .. folder .. ": 1 file\n")
end

function TestKxAgent.testListPrintsTheDigestsBeforeTheTable()
  makeFile("a\nb", "abc")
  local result = run({ "--list", folder })
  lu.assertStrMatches(result.out, "\\" .. digestOfAbc .. "  " .. folder:gsub("%p", "%%%0") .. "/a\\nb\nfolder .*")
end

function TestKxAgent.testJsonIsOneDocument()
  makeFile("a", "abc")
  run({ folder })
  makeFile("a", "")
  local result = run({ "--json", "--list", folder })
  local document, position, problem = json.decode(result.out, 1, nil, nil)
  lu.assertNil(problem)
  lu.assertEquals(result.out:sub(position), "\n")
  lu.assertEquals(document.files[1].path, folder .. "/a")
  lu.assertEquals(document.changes[1].old.sha256, digestOfAbc)
  lu.assertEquals(document.changes[1].differs, { "content", "size" })
  lu.assertEquals(document.summary.changed, 1)
  lu.assertEquals({ document.result, document.complete }, { "compared", true })
  lu.assertEquals(result.err, "")
end

function TestKxAgent.testFolderThatCannotBeReadFailsAfterAllOthersWereScanned()
  makeFile("a", "abc")
  local missing = folder .. "/missing"
  local line = "unreadable: " .. missing .. ": No such file or directory"

  local result = run({ missing, "--list", folder })

  lu.assertEquals(result.phase, "main")
  lu.assertEquals(result.status, 1)
  lu.assertEquals(result.out:sub(1, #line + 1), line .. "\n")
  lu.assertStrContains(result.out, digestOfAbc .. "  " .. folder .. "/a\n")
  lu.assertStrContains(withoutClock(result.out),
    "\n2 folders: 1 file, 3 bytes, 0 added, 0 changed, 0 removed, 1 unreadable, T s, R MB/s\n")
  lu.assertEquals(result.log[1], { "warning", line })
  lu.assertEquals(result.log[2][1], "message")
  lu.assertEquals(#result.log, 2)
end

function TestKxAgent.testABaselineThatCannotBeUsedIsAnErrorAndAnEvent()
  assert(os.execute(("mkdir -p '%s/monitor' && echo damaged > '%s/monitor/baseline.db'"):format(work, work)))
  makeFile("a", "abc")
  local reason = "it is damaged (file is not a database); --reset puts it aside and takes a new one"
  local line = ("baseline %s/monitor/baseline.db: %s"):format(work, reason)

  local result = run({ folder })
  lu.assertEquals({ result.phase, result.status, result.out }, { "main", 1, "" })
  lu.assertEquals(result.err, "kx_agent: " .. line .. "\n")
  lu.assertEquals(result.log, { { "error", line } })
  lu.assertEquals(result.events, {
    { event_number = 7113, severity = "error", description = ("monitor run failed (%s): %s"):format(reason, folder) },
  })

  result = run({ "--json", folder })
  local document = json.decode(result.out)
  lu.assertEquals({ result.status, document.result, document.reason }, { 1, "failed", reason })

  result = run({ "--reset", folder })
  lu.assertEquals(result.status, 0)
  lu.assertStrMatches(result.err, "kx_agent: baseline .* it was put aside as .*/baseline%.db%.set%-aside%-[%d-]+\n")
  lu.assertStrContains(run({ folder }).out, " 0 added, 0 changed, 0 removed, ")
end

-- The host's rules stand in the archives; these are read by require like any module.
function TestKxAgent.testRulesThatCannotBeUsedAreToldAndTheRunGoesOn()
  local name = "monitor.rules.volatile"
  local before = package.loaded[name]
  package.loaded[name] = { { match = "/tmp" } }
  makeFile("a", "abc")
  local succeeded, result = pcall(run, { folder })
  package.loaded[name] = before

  local line = "these rules are not used: " .. name .. ": rule 1 says nothing: it needs 'ignore', 'watch' or 'severity'"
  lu.assertTrue(succeeded, result)
  lu.assertEquals({ result.phase, result.status }, { "main", 1 })
  lu.assertEquals(result.err, "kx_agent: " .. line .. "\n")
  lu.assertEquals(result.log[1], { "error", line })
  lu.assertStrContains(result.out, "\nrules: none\n")
  lu.assertStrContains(result.out, "1 file, 3 bytes")
  lu.assertEquals(result.events[1].event_number, 7111)
end

function TestKxAgent.testHelpScansNothing()
  local result = run({ "--help", folder })
  lu.assertEquals(result.status, 0)
  lu.assertStrContains(result.out, "Usage: kx_agent")
  lu.assertNotStrContains(result.out, "total")
  lu.assertEquals(result.err, "")
  lu.assertEquals(result.log, {})
  lu.assertEquals(result.events, {})
end

function TestKxAgent.testWrongWordsEndInInitWithTwo()
  for _, words in ipairs({ {}, { "--bogus", folder }, { "" }, { folder, "--exclude" } }) do
    local result = run(words)
    lu.assertEquals({ result.phase, result.status, result.out }, { "init", 2, "" })
    lu.assertStrMatches(result.err, ".*kx_agent.*\n")
  end
end

-- The host calls init before the test driver; the words are for LuaUnit then.
function TestKxAgent.testWordsOfTheTestDriverAreNotOurs()
  local result = run({ "-o", "tap" }, { ["app.mode.unittest"] = true })
  lu.assertEquals({ result.status, result.out, result.err }, { 0, "", "" })
end

-- Buffered output fails when it is flushed, unbuffered output at the first write. The baseline does not move on.
function TestKxAgent.testReportThatCannotBeWrittenIsAnError()
  makeFile("a", "abc")
  run({ folder })
  makeFile("b", "abc")
  for _, mode in ipairs({ "full", "no" }) do
    local full = io.open("/dev/full", "w")
    lu.skipIf(not full, "this system has no /dev/full")
    full:setvbuf(mode)
    local result = withHost({ folder }, {}, function(result)
      lu.assertEquals(kx_agent.init(), 0)
      local before = io.output()
      io.output(full)
      result.succeeded, result.problem = pcall(kx_agent.main)
      io.output(before)
    end)
    full:close()

    lu.assertFalse(result.succeeded)
    lu.assertStrContains(result.problem, "No space left on device")
    lu.assertEquals(result.events[#result.events].event_number, 7113)
  end
  lu.assertStrContains(run({ folder }).out, " 1 added, ")
end

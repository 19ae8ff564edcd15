-- The sample application as the host calls it, with a domain and words of our own.
local lu = require("luaunit")
local stdlib = require("posix.stdlib")
local kx_agent = require("kx_agent")

local digestOfAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"

local folder -- the temporary folder of the current test

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

-- Runs init, main and shutdown until one gives another status than 0, as the host does.
-- Result: { status =, phase = the last one, out =, err =, log = array of { level, text } }
local function run(words, variables)
  local result = { log = {} }
  local saved = { arg = arg, dom = dom, stderr = io.stderr, output = io.output() }
  local out, err = io.tmpfile(), io.tmpfile()

  words[0] = "kx_agent"
  arg = words
  dom = {
    Get = function(_, key)
      return (variables or {})[key]
    end,
    Log = function(_, level, text)
      result.log[#result.log + 1] = { level, text }
    end,
  }
  io.stderr = err -- luacheck: ignore 122
  io.output(out)
  local succeeded, problem = pcall(function()
    for _, phase in ipairs({ "init", "main", "shutdown" }) do
      result.phase, result.status = phase, kx_agent[phase]()
      if result.status ~= 0 then
        break
      end
    end
  end)
  io.output(saved.output)
  io.stderr = saved.stderr -- luacheck: ignore 122
  arg, dom = saved.arg, saved.dom

  result.out, result.err = readAndClose(out), readAndClose(err)
  if not succeeded then
    error(problem, 0)
  end
  return result
end

-- The summary's line with the numbers that depend on the clock replaced.
local function withoutClock(text)
  return (text:gsub("[%d.]+ s, [%d.,]+ MB/s", "T s, R MB/s"))
end

TestKxAgent = {}

function TestKxAgent.setUp()
  folder = assert(stdlib.mkdtemp("/tmp/kx_agent_test.XXXXXX"))
end

function TestKxAgent.tearDown()
  assert(os.execute("rm -rf '" .. folder .. "'"))
end

function TestKxAgent.testReportsAndLogsTheScan()
  assert(os.execute("mkdir -p '" .. folder .. "/sub/deeper'"))
  makeFile("a", "abc")
  makeFile("sub/b", ("b"):rep(1000))
  makeFile("sub/deeper/c", "")

  local result = run({ folder })

  local width = (" "):rep(#folder)
  local rule = ("-"):rep(#folder + 4) .. "  -----  -----  ----------\n"
  local summary = "1 folder: 3 files, 1,003 bytes, 0 unreadable, T s, R MB/s"
  lu.assertEquals(result.status, 0)
  lu.assertEquals(result.phase, "shutdown")
  lu.assertEquals(result.err, "")
  lu.assertEquals(withoutClock(result.out),
    "folder" .. width:sub(3) .. "  files  bytes  unreadable\n" .. rule
      .. folder .. "          1      3           0\n"
      .. folder .. "/sub      2  1,000           0\n" .. rule
      .. "total" .. width:sub(2) .. "      3  1,003           0\n"
      .. "\n" .. summary .. "\n")
  lu.assertEquals(#result.log, 1)
  lu.assertEquals(result.log[1][1], "message")
  lu.assertEquals(withoutClock(result.log[1][2]), summary)
end

function TestKxAgent.testListPrintsTheDigestsBeforeTheTable()
  makeFile("a\nb", "abc")
  local result = run({ "--list", folder })
  lu.assertStrMatches(result.out, "\\" .. digestOfAbc .. "  " .. folder:gsub("%p", "%%%0") .. "/a\\nb\nfolder .*")
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
  lu.assertStrContains(withoutClock(result.out), "\n2 folders: 1 file, 3 bytes, 1 unreadable, T s, R MB/s\n")
  lu.assertEquals(result.log[1], { "warning", line })
  lu.assertEquals(result.log[2][1], "message")
  lu.assertEquals(#result.log, 2)
end

function TestKxAgent.testHelpScansNothing()
  local result = run({ "--help", folder })
  lu.assertEquals(result.status, 0)
  lu.assertStrContains(result.out, "Usage: kx_agent")
  lu.assertNotStrContains(result.out, "total")
  lu.assertEquals(result.err, "")
  lu.assertEquals(result.log, {})
end

function TestKxAgent.testWrongWordsEndInInitWithTwo()
  for _, words in ipairs({ {}, { "--bogus", folder }, { "" } }) do
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

-- Buffered output fails when it is flushed, unbuffered output at the first write.
function TestKxAgent.testReportThatCannotBeWrittenIsAnError()
  for _, mode in ipairs({ "full", "no" }) do
    local full = io.open("/dev/full", "w")
    lu.skipIf(not full, "this system has no /dev/full")
    full:setvbuf(mode)
    local before, savedArg, savedDom = io.output(), arg, dom
    arg = { [0] = "kx_agent", folder }
    dom = {
      Get = function() end,
      Log = function() end,
    }
    local status = kx_agent.init()
    io.output(full)
    local succeeded, problem = pcall(kx_agent.main)
    io.output(before)
    arg, dom = savedArg, savedDom
    full:close()

    lu.assertEquals(status, 0)
    lu.assertFalse(succeeded)
    lu.assertStrContains(problem, "No space left on device")
  end
end

if (arg[0] or ""):find("kx_agent_test%.lua$") then
  os.exit(lu.LuaUnit.run())
end

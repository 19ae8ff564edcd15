local json = require("dkjson")
local lu = require("luaunit")
local json_output = require("monitor.json_output")

local digest = ("0123456789abcdef"):rep(4)

local function iterate(values)
  local index = 0
  return function()
    index = index + 1
    return values[index]
  end
end

-- What monitor.baseline has found.
local function newFound(changes, unreadable)
  return {
    Changes = function()
      return iterate(changes)
    end,
    Unreadable = function()
      return iterate(unreadable)
    end,
  }
end

local function newOutcome(changes)
  local outcome = {
    folders = { { path = "/etc", taken = 0 } },
    rules = {},
    problems = {},
    baseline = "/state/monitor/baseline.db",
    files = 1, bytes = 2, unreadable = 3, added = 4, changed = 5, removed = 6, taken = 7,
    seconds = 1.2344,
    isComplete = true,
    result = "compared",
  }
  for field, value in pairs(changes or {}) do
    outcome[field] = value
  end
  return outcome
end

-- The document that `use` has written with an output of its own, as text and decoded.
local function document(use, lists)
  local pieces = {}
  use(json_output.New(function(piece)
    pieces[#pieces + 1] = piece
  end, lists))
  local written = table.concat(pieces)
  local decoded, position, problem = json.decode(written, 1, nil, nil)
  lu.assertNil(problem, written)
  lu.assertEquals(written:sub(position), "\n")
  return written, decoded
end

TestJson = {}

function TestJson.testAWholeDocument()
  local state = { digest = digest, size = 2 ^ 53, mode = 2541, uid = 0, gid = 4294967294 }
  local written = document(function(output)
    output:Findings(nil, newFound({
      { change = "added", path = "/etc/new", new = state, severity = "error",
        differs = { owner = true, content = true, size = true, mode = true } },
      { change = "changed", path = "/etc/x", old = state, new = state, severity = "warning",
        differs = { mode = true } },
    }, { { path = "/etc/closed", reason = "Permission denied" } }))
    output:End(newOutcome({
      rules = { { module = "monitor.rules.a", rules = 2 } },
      problems = { "monitor.rules.b: bad" },
    }))
  end)
  local shown = '{"sha256":"' .. digest .. '","size":9007199254740992,"mode":"4755","uid":0,"gid":4294967294}'
  lu.assertEquals(written, '{"format":1,\n"changes":[\n'
    .. '{"path":"/etc/new","change":"added","severity":"error","differs":["content","size","mode","owner"],"new":'
    .. shown .. '},\n'
    .. '{"path":"/etc/x","change":"changed","severity":"warning","differs":["mode"],"old":' .. shown .. ',"new":'
    .. shown .. '}\n],\n'
    .. '"unreadable":[\n{"path":"/etc/closed","reason":"Permission denied"}\n],\n'
    .. '"folders":[\n{"path":"/etc","taken":0}\n],\n'
    .. '"rules":[\n{"module":"monitor.rules.a","rules":2}\n],\n'
    .. '"problems":[\n"monitor.rules.b: bad"\n],\n'
    .. '"baseline":{"path":"/state/monitor/baseline.db"},\n'
    .. '"summary":{"files":1,"bytes":2,"unreadable":3,"added":4,"changed":5,"removed":6,"taken":7,'
    .. '"milliseconds":1234},\n'
    .. '"complete":true,\n"result":"compared"}\n')
end

function TestJson.testEmptyArraysAreThere()
  local _, decoded = document(function(output)
    output:Findings(nil, newFound({}, {}))
    output:End(newOutcome())
  end, true)
  for _, name in ipairs({ "files", "changes", "unreadable", "rules", "problems" }) do
    lu.assertEquals(decoded[name], {}, name)
  end
end

function TestJson.testListing()
  local function use(output)
    output:File("/etc/a", { digest = digest })
    output:File("/etc/b", { digest = digest })
    output:Findings(nil, newFound({}, {}))
    output:End(newOutcome())
  end
  local _, decoded = document(use, true)
  lu.assertEquals(decoded.files, { { path = "/etc/a", sha256 = digest }, { path = "/etc/b", sha256 = digest } })
  _, decoded = document(use, false)
  lu.assertNil(decoded.files)
end

function TestJson.testNamesOfAnyBytesCanBeHadBack()
  local names = { "/caf\xC3\xA9", "/caf\xE9", "/\xFF\xFE", "/line\nfeed\27[2J\\\"", "/\xC2\x9B31m" }
  local written, decoded = document(function(output)
    for _, name in ipairs(names) do
      output:File(name, { digest = digest })
    end
    output:Findings(nil, newFound({}, {}))
    output:End(newOutcome())
  end, true)
  lu.assertNotStrContains(written, "\27")
  lu.assertNotStrContains(written, "\xC2\x9B")
  lu.assertNotStrContains(written, "\xE9")
  for index, name in ipairs(names) do
    local file = decoded.files[index]
    local bytes = file.path_hex and file.path_hex:gsub("%x%x", function(pair)
      return string.char(tonumber(pair, 16))
    end) or file.path
    lu.assertEquals(bytes, name)
  end
  lu.assertNil(decoded.files[1].path_hex)
  lu.assertEquals(decoded.files[2].path, "/caf\xEF\xBF\xBD")
end

function TestJson.testEverythingElseIsUtf8Too()
  local _, decoded = document(function(output)
    output:Findings(nil, newFound({}, { { path = "/a", reason = "kaputt \xE9" } }))
    output:End(newOutcome({ folders = { { path = "/\xE9", taken = 1 } }, baseline = "/\xE9", problems = { "\xE9" },
      rules = { { module = "\xE9", rules = 1 } } }))
  end)
  lu.assertEquals(decoded.unreadable[1].reason, "kaputt \xEF\xBF\xBD")
  lu.assertEquals(decoded.folders[1].path_hex, "2fe9")
  lu.assertEquals(decoded.baseline.path_hex, "2fe9")
end

-- The baseline may fail at any moment.
function TestJson.testARunThatFailsStillGivesADocument()
  local function failing()
    local changes = iterate({ { change = "removed", path = "/etc/a", differs = {}, severity = "warning",
      old = { digest = digest, size = 0, mode = 0, uid = 0, gid = 0 } } })
    return function()
      return changes() or error("the disk is gone")
    end
  end
  local uses = {
    function() end,
    function(output)
      output:File("/etc/a", { digest = digest })
    end,
    function(output)
      pcall(output.Findings, output, nil, { Changes = failing })
    end,
  }
  for _, use in ipairs(uses) do
    local _, decoded = document(function(output)
      use(output)
      output:End(newOutcome({ result = "failed", reason = "it is damaged", isComplete = false }))
    end, true)
    lu.assertEquals({ decoded.result, decoded.reason, decoded.complete }, { "failed", "it is damaged", false })
  end
end

function TestJson.testTheLocaleDoesNotMatter()
  local before = os.setlocale(nil, "numeric")
  local isSet = os.setlocale("de_DE.UTF-8", "numeric")
  lu.skipIf(not isSet, "no such locale is installed")
  local written = document(function(output)
    output:Findings(nil, newFound({}, {}))
    output:End(newOutcome())
  end)
  os.setlocale(before, "numeric")
  lu.assertStrContains(written, '"milliseconds":1234}')
end

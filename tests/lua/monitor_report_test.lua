local lu = require("luaunit")
local report = require("monitor.report")

local digest = ("0123456789abcdef"):rep(4)

local function outcome(changes)
  local made = { folders = { {} }, seconds = 0 }
  for _, field in ipairs({ "files", "bytes", "unreadable", "added", "changed", "removed" }) do
    made[field] = 0
  end
  for field, value in pairs(changes) do
    made[field] = value
  end
  return made
end

TestReport = {}

function TestReport.testDigestLineIsThatOfSha256sum()
  local cases = {
    { "/etc/passwd", digest .. "  /etc/passwd" },
    { "with blank", digest .. "  with blank" },
    { "back\\slash", "\\" .. digest .. "  back\\\\slash" },
    { "line\nfeed\r", "\\" .. digest .. "  line\\nfeed\\r" },
    { "caf\xC3\xA9", digest .. "  caf\xC3\xA9" },
  }
  for _, case in ipairs(cases) do
    lu.assertEquals(report.DigestLine(case[1], digest), case[2])
  end
end

function TestReport.testNamesCannotForgeALine()
  lu.assertEquals(report.DigestLine("/tmp/a\n" .. digest .. "  /etc/shadow", digest),
    "\\" .. digest .. "  /tmp/a\\n" .. digest .. "  /etc/shadow")
  lu.assertEquals(report.UnreadableLine("/tmp/\27[2Ka\n", "Permission denied"),
    "unreadable: /tmp/\\x1b[2Ka\\n: Permission denied")
  lu.assertEquals(report.TakenLine("/a\nb", 1), "baseline taken: /a\\nb: 1 file")
  lu.assertStrContains(report.FolderTable({ { folder = "a\ntotal", files = 0, bytes = 0, unreadable = 0 } },
    { files = 0, bytes = 0, unreadable = 0 }), "a\\ntotal")
end

function TestReport.testFolderTableEndsWithTheTotal()
  local rows = {
    { folder = "/a", files = 2, bytes = 1234567, unreadable = 0 },
    { folder = "/a/sub", files = 1000, bytes = 10, unreadable = 3 },
  }
  lu.assertEquals(report.FolderTable(rows, { files = 1002, bytes = 1234577, unreadable = 3 }),
    "folder  files      bytes  unreadable\n"
      .. "------  -----  ---------  ----------\n"
      .. "/a          2  1,234,567           0\n"
      .. "/a/sub  1,000         10           3\n"
      .. "------  -----  ---------  ----------\n"
      .. "total   1,002  1,234,577           3\n")
end

function TestReport.testRulesLine()
  lu.assertEquals(report.RulesLine({}), "rules: none")
  lu.assertEquals(report.RulesLine({ { module = "monitor.rules.a", rules = 2 }, { module = "b\n", rules = 0 } }),
    "rules: monitor.rules.a (2), b\\n (0)")
end

function TestReport.testSummaryIsOneLine()
  local counts = { files = 1234, bytes = 5000000, added = 1000, changed = 2, removed = 3 }
  counts.folders, counts.seconds = { {}, {} }, 2.5
  lu.assertEquals(report.Summary(outcome(counts)),
    "2 folders: 1,234 files, 5,000,000 bytes, 1,000 added, 2 changed, 3 removed, 0 unreadable, 2.50 s, 2.0 MB/s")
  lu.assertEquals(report.Summary(outcome({ files = 1, bytes = 1, unreadable = 1, seconds = 1, isReset = true })),
    "1 folder: 1 file, 1 byte, baseline reset, 1 unreadable, 1.00 s, 0.0 MB/s")
end

function TestReport.testSummaryOfNoTimeHasNoRate()
  lu.assertEquals(report.Summary(outcome({})),
    "1 folder: 0 files, 0 bytes, 0 added, 0 changed, 0 removed, 0 unreadable, 0.00 s, 0.0 MB/s")
end

TestChangeTable = {}

local function state(changes)
  local made = { digest = digest, size = 1234, mode = 420, uid = 0, gid = 0 }
  for field, value in pairs(changes or {}) do
    made[field] = value
  end
  return made
end

local function plain(_, text)
  return text
end

local function tableOf(changes, paint)
  local pieces = {}
  report.WriteChangeTable(function()
    local index = 0
    return function()
      index = index + 1
      return changes[index]
    end
  end, paint or plain, function(piece)
    pieces[#pieces + 1] = piece
  end)
  return table.concat(pieces)
end

local threeChanges = {
  { change = "added", path = "/a/new", new = state(), differs = {} },
  { change = "changed", path = "/a/x\n", old = state(),
    new = state({ digest = ("f"):rep(64), size = 5, mode = 2541, uid = 33, gid = 4294967294 }),
    differs = { content = true, mode = true, owner = true } },
  { change = "removed", path = "/b", old = state(), differs = {} },
}

function TestChangeTable.testOldAndNewStandBelowEachOther()
  lu.assertEquals(tableOf(threeChanges),
    "change   content        size  mode  owner          path\n"
      .. "-------  ------------  -----  ----  -------------  ----\n"
      .. "added    0123456789ab  1,234  0644  0:0            /a/new\n"
      .. "changed  0123456789ab  1,234  0644  0:0            /a/x\\n\n"
      .. "  now    ffffffffffff         4755  33:4294967294\n"
      .. "removed  0123456789ab  1,234  0644  0:0            /b\n")
end

function TestChangeTable.testLongPathsAreNotCutAndMoveNothing()
  local long = "/" .. ("x"):rep(500)
  local shown = tableOf({
    { change = "added", path = long, new = state(), differs = {} },
    { change = "added", path = "/b", new = state(), differs = {} },
  })
  lu.assertStrContains(shown, "----  -----  ----\nadded   0123456789ab  1,234  0644  0:0    " .. long .. "\n")
  lu.assertStrContains(shown, "added   0123456789ab  1,234  0644  0:0    /b\n")
end

function TestChangeTable.testWithoutChangesThereIsNoTable()
  lu.assertEquals(tableOf({}), "")
end

function TestChangeTable.testColoursAreByKindAndMoveNothing()
  local marks = { green = "G", yellow = "Y", red = "R" }
  local shown = tableOf(threeChanges, function(style, text)
    return marks[style] .. text .. "."
  end)
  lu.assertStrContains(shown, "\nGadded  .  0123456789ab")
  lu.assertStrContains(shown, "\nYchanged.  0123456789ab")
  lu.assertStrContains(shown, "\nRremoved.  0123456789ab")
  lu.assertEquals(shown:gsub("[GYR](%l+ *)%.", "%1"), tableOf(threeChanges))
end

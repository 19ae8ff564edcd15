local lu = require("luaunit")
local report = require("monitor.report")

local digest = ("0123456789abcdef"):rep(4)

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
  lu.assertStrContains(report.Table({ { folder = "a\ntotal", files = 0, bytes = 0, unreadable = 0 } },
    { files = 0, bytes = 0, unreadable = 0 }), "a\\ntotal")
end

function TestReport.testTableEndsWithTheTotal()
  local rows = {
    { folder = "/a", files = 2, bytes = 1234567, unreadable = 0 },
    { folder = "/a/sub", files = 1000, bytes = 10, unreadable = 3 },
  }
  lu.assertEquals(report.Table(rows, { files = 1002, bytes = 1234577, unreadable = 3 }),
    "folder  files      bytes  unreadable\n"
      .. "------  -----  ---------  ----------\n"
      .. "/a          2  1,234,567           0\n"
      .. "/a/sub  1,000         10           3\n"
      .. "------  -----  ---------  ----------\n"
      .. "total   1,002  1,234,577           3\n")
end

function TestReport.testSummaryIsOneLine()
  lu.assertEquals(report.Summary(2, { files = 1234, bytes = 5000000, unreadable = 0 }, 2.5),
    "2 folders: 1,234 files, 5,000,000 bytes, 0 unreadable, 2.50 s, 2.0 MB/s")
  lu.assertEquals(report.Summary(1, { files = 1, bytes = 1, unreadable = 1 }, 1),
    "1 folder: 1 file, 1 byte, 1 unreadable, 1.00 s, 0.0 MB/s")
end

function TestReport.testSummaryOfNoTimeHasNoRate()
  lu.assertEquals(report.Summary(1, { files = 0, bytes = 0, unreadable = 0 }, 0),
    "1 folder: 0 files, 0 bytes, 0 unreadable, 0.00 s, 0.0 MB/s")
end

if (arg[0] or ""):find("monitor_report_test%.lua$") then
  os.exit(lu.LuaUnit.run())
end

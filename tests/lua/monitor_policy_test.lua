-- monitor.pattern and monitor.policy.
local lu = require("luaunit")
local pattern = require("monitor.pattern")
local policy = require("monitor.policy")

TestPattern = {}

function TestPattern.testCheckedPatterns()
  local cases = {
    ["*.log"] = "*.log",
    ["/etc/ssh"] = "/etc/ssh",
    ["/etc/ssh//"] = "/etc/ssh",
    ["cache/"] = "cache",
    ["/"] = "/",
    ["a\\\\"] = "a\\\\",
    ["\xFF"] = "\xFF",
  }
  for given, expected in pairs(cases) do
    lu.assertEquals({ pattern.Check(given) }, { expected })
  end
end

function TestPattern.testPatternsThatCouldNeverMatchAreRefused()
  local cases = {
    { "", "empty" },
    { "a/b", "with a '/' in it, a pattern has to match a whole path, and begin with '/'" },
    { "*/b", "with a '/' in it, a pattern has to match a whole path, and begin with '/'" },
    { "a\\", "ends in a single '\\'" },
    { "a\\\\\\", "ends in a single '\\'" },
    { 5, "not a text" },
    { {}, "not a text" },
  }
  for _, case in ipairs(cases) do
    lu.assertEquals({ pattern.Check(case[1]) }, { nil, case[2] })
  end
end

function TestPattern.testWildcards()
  local cases = {
    -- pattern, subject, match?
    { "*.log", "a.log", true },
    { "*.log", ".log", true },
    { "*.log", "a.log.1", false },
    { "*", ".hidden", true },
    { "?", "a", true },
    { "?", "ab", false },
    { "[a-c]x", "bx", true },
    { "[!a]x", "ax", false },
    { "\\*", "*", true },
    { "\\*", "a", false },
    { "[", "[", true },
    { "*", "line\nfeed", true },
    { "*\xFF", "a\xFF", true },
    { "*.log", "\xE9.log", true },
    { "/etc/*", "/etc/passwd", true },
    { "/etc/*", "/etc/ssh/config", false },
    { "/etc/*/config", "/etc/ssh/config", true },
    { "/*/.ssh", "/srv/.ssh", true },
  }
  for _, case in ipairs(cases) do
    lu.assertIs(pattern.Matches(case[1], case[2]), case[3], lu.prettystr(case))
  end
end

function TestPattern.testLiteralsMatchThemselvesOnly()
  for _, text in ipairs({ "cache", "/etc/ssh", "a.b", "{a,b}", "~", "$x", "line\nfeed" }) do
    lu.assertTrue(pattern.IsLiteral(text))
    lu.assertTrue(pattern.Matches(text, text))
  end
  for _, text in ipairs({ "*", "a?", "[a]", "\\a" }) do
    lu.assertFalse(pattern.IsLiteral(text))
  end
end

TestPolicy = {}

local ignoring = function(text)
  return { pattern = text, ignore = true }
end

-- Walks down to the folder of `path` from `root`, and asks about `path`.
local function excludes(judgements, root, path)
  judgements:Folder(root, 0)
  local rest = path:sub(#root + 2)
  local folder, depth = root, 0
  for component in rest:gmatch("([^/]+)/") do
    folder, depth = (folder == "/" and "" or folder) .. "/" .. component, depth + 1
    judgements:Folder(folder, depth)
  end
  return judgements:Excludes(path, path:match("[^/]*$"))
end

function TestPolicy.testWithoutRulesEverythingIsWatched()
  local judgements = policy.New({})
  lu.assertFalse(excludes(judgements, "/etc", "/etc/passwd"))
  lu.assertEquals(judgements:Judge("/etc/passwd"), {
    ignore = false,
    watch = { content = true, size = true, mode = true, owner = true },
    severity = "warning",
  })
end

function TestPolicy.testNamesAtAnyDepthAndWholePaths()
  local judgements = policy.New({ ignoring("*.log"), ignoring("cache"), ignoring("/data/old"), ignoring("/data/x*") })
  local cases = {
    ["/data/a.log"] = true,
    ["/data/sub/deeper/a.log"] = true,
    ["/data/cache"] = true,
    ["/data/sub/cache"] = true,
    ["/data/cached"] = false,
    ["/data/old"] = true,
    ["/data/sub/old"] = false,
    ["/data/x1"] = true,
    ["/data/sub/x1"] = false,
    ["/data/file"] = false,
  }
  for path, expected in pairs(cases) do
    lu.assertIs(excludes(judgements, "/data", path), expected, path)
    lu.assertIs(judgements:Judge(path).ignore, expected, path)
  end
end

function TestPolicy.testFoldersThatWereNamedAreMeant()
  local judgements = policy.New({ ignoring("/tmp"), ignoring("tree"), ignoring("/*") })
  lu.assertFalse(excludes(judgements, "/tmp", "/tmp/file"))
  lu.assertFalse(excludes(judgements, "/tmp/tree", "/tmp/tree/file"))
  lu.assertFalse(judgements:Judge("/tmp/tree").ignore)
  lu.assertTrue(excludes(judgements, "/tmp", "/tmp/tree"))
  lu.assertTrue(excludes(judgements, "/", "/tmp"))
end

function TestPolicy.testWhatLiesBelowAnIgnoredFolderIsIgnored()
  local judgements = policy.New({ ignoring("/data/old"), { pattern = "keep", severity = "error" } })
  judgements:Folder("/data", 0)
  lu.assertTrue(judgements:Judge("/data/old").ignore)
  lu.assertTrue(judgements:Judge("/data/old/deeper/keep").ignore)
  lu.assertFalse(judgements:Judge("/data/older/keep").ignore)
end

function TestPolicy.testTheFirstRuleThatMatchesDecides()
  local judgements = policy.New({
    { pattern = "important.log", severity = "error" },
    { pattern = "*.log", watch = { mode = true } },
    ignoring("/data/i*"),
  })
  lu.assertFalse(excludes(judgements, "/data", "/data/important.log"))
  lu.assertTrue(excludes(judgements, "/data", "/data/index"))
  lu.assertEquals(judgements:Judge("/data/important.log").severity, "error")
  lu.assertEquals(judgements:Judge("/data/a.log").watch, { mode = true })
  lu.assertEquals(judgements:Judge("/data/a.log").severity, "warning")
end

function TestPolicy.testARuleForAFolderCountsForEverythingBelow()
  local judgements = policy.New({
    { pattern = "shadow*", severity = "message" },
    { pattern = "/etc", severity = "error" },
  })
  for _, root in ipairs({ "/", "/etc", "/etc/ssh" }) do
    judgements:Folder(root, 0)
    lu.assertEquals(judgements:Judge("/etc/ssh/config").severity, "error", root)
    lu.assertEquals(judgements:Judge("/etc/ssh/shadow-").severity, "message", root)
  end
  judgements:Folder("/usr", 0)
  lu.assertEquals(judgements:Judge("/usr/bin/true").severity, "warning")
end

function TestPolicy.testAWatchingRuleForAFolderShieldsItFromLaterIgnoringOnes()
  local judgements = policy.New({ { pattern = "/var/log", severity = "error" }, ignoring("*.log") })
  lu.assertFalse(excludes(judgements, "/var", "/var/log/a.log"))
  lu.assertTrue(excludes(judgements, "/var", "/var/lib/a.log"))
  lu.assertFalse(judgements:Judge("/var/log/a.log").ignore)
end

-- The one for folders entered, the other for what is not there any more.
function TestPolicy.testExcludesAndJudgeAgree()
  local rules = {
    { pattern = "a*", severity = "error" },
    ignoring("*b"),
    { pattern = "/x/c", watch = { size = true } },
    ignoring("/x/*/d"),
    ignoring("e"),
  }
  local judgements = policy.New(rules)
  local names = { "a", "ab", "b", "c", "d", "e", "f" }
  for _, first in ipairs(names) do
    for _, second in ipairs(names) do
      local folder = "/x/" .. first
      local path = folder .. "/" .. second
      judgements:Folder("/x", 0)
      local expected = judgements:Excludes(folder, first)
      if not expected then
        judgements:Folder(folder, 1)
        expected = judgements:Excludes(path, second)
      end
      lu.assertIs(judgements:Judge(path).ignore, expected, path)
    end
  end
end

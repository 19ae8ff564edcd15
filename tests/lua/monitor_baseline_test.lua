-- monitor.baseline and monitor.baseline_file, with real databases.
local lu = require("luaunit")
local stat = require("posix.sys.stat")
local stdlib = require("posix.stdlib")
local database = require("vel.database")
local baseline = require("monitor.baseline")
local baseline_file = require("monitor.baseline_file")

local top -- the temporary folder of the current test
local folder -- the one with the baseline

local fixture = {}

function fixture.setUp()
  top = assert(stdlib.mkdtemp("/tmp/monitor_baseline_test.XXXXXX"))
  folder = top .. "/state/monitor"
end

function fixture.tearDown()
  assert(os.execute("rm -rf '" .. top .. "'"))
end

local function readFile(path)
  local file = assert(io.open(path, "rb"))
  local content = file:read("*a")
  file:close()
  return content
end

local function writeFile(path, content)
  local file = assert(io.open(path, "wb"))
  assert(file:write(content))
  assert(file:close())
end

local function modeOf(path)
  return ("%04o"):format(assert(stat.lstat(path)).st_mode % 4096)
end

local function open()
  return baseline.New((assert(baseline_file.Open(folder))))
end

local function state(content, changes)
  local made = { digest = content, size = #content, mode = 420, uid = 0, gid = 0 }
  for field, value in pairs(changes or {}) do
    made[field] = value
  end
  return made
end

-- Lets `record` find something, and makes it the baseline.
local function commit(record)
  local found = open()
  record(found)
  found:Commit()
  found:Close()
end

-- { [path] = state or "unread" } of all files at or below `from`, in an array in order too.
local function contents(from)
  local found = open()
  local files, order = {}, {}
  for row in found:Rows(from or "/") do
    if row.name then
      local path = row.path .. row.name
      order[#order + 1] = path
      files[path] = "unread"
      if row.digest then
        files[path] = { digest = row.digest, size = row.size, mode = row.mode, uid = row.uid, gid = row.gid }
      end
    else
      order[#order + 1] = row.path
    end
  end
  found:Close()
  return files, order
end

TestBaselineFile = { setUp = fixture.setUp, tearDown = fixture.tearDown }

function TestBaselineFile.testMadeForNobodyElse()
  open():Close()
  lu.assertEquals(modeOf(folder), "0700")
  lu.assertEquals(modeOf(baseline_file.Path(folder)), "0600")
end

function TestBaselineFile.testAnAbandonedFirstRunLeavesAnEmptyFile()
  open():Close()
  lu.assertEquals(readFile(baseline_file.Path(folder)), "")
  open():Close()
end

function TestBaselineFile.testOneRunAtATime()
  commit(function() end)
  local first = open()
  lu.assertEquals({ baseline_file.Open(folder) },
    { nil, "another run of the monitor is using it (database is locked)", false })
  first:Close()
  open():Close()
end

function TestBaselineFile.testWhatIsNoBaselineIsLeftAlone()
  assert(os.execute("mkdir -p '" .. folder .. "'"))
  local path = baseline_file.Path(folder)

  local foreign = database.Open(path)
  foreign:Run("CREATE TABLE accounts(name TEXT)")
  foreign:Close()
  local before = readFile(path)
  lu.assertEquals({ baseline_file.Open(folder) }, { nil, "it is no baseline of this monitor", true })
  lu.assertEquals(readFile(path), before)
end

function TestBaselineFile.testANewerFormatIsLeftAlone()
  commit(function() end)
  local path = baseline_file.Path(folder)
  local newer = database.Open(path)
  newer:Run("PRAGMA user_version = 2")
  newer:Close()
  local before = readFile(path)
  lu.assertEquals({ baseline_file.Open(folder) }, { nil, "it has format 2, and this monitor knows format 1", true })
  lu.assertEquals(readFile(path), before)
end

function TestBaselineFile.testDamageIsFoundAndLeftAlone()
  commit(function(found)
    found:Folder("/a/", false)
    for index = 1, 1000 do
      found:File("taken", "/a/", ("%04d"):format(index), { new = state("x") })
    end
  end)
  local path = baseline_file.Path(folder)
  local whole = readFile(path)
  local cases = {
    { "a few bytes", "it is damaged (file is not a database)" },
    { ("no database "):rep(1000), "it is damaged (file is not a database)" },
    { whole:sub(1, 4096 * 3), "it is damaged (database disk image is malformed)" },
    { whole:sub(1, 4096 * 3) .. ("\255"):rep(#whole - 4096 * 3), "it is damaged (.+)" },
  }
  for _, case in ipairs(cases) do
    writeFile(path, case[1])
    local db, reason, isUnusable = baseline_file.Open(folder)
    lu.assertNil(db)
    lu.assertStrMatches(reason, (case[2]:gsub("%((%l[%l ]+)%)", "%%(%1%%)")))
    lu.assertTrue(isUnusable)
    lu.assertEquals(readFile(path), case[1])
  end
end

function TestBaselineFile.testPutAsideUnderANameOfItsOwn()
  assert(os.execute("mkdir -p '" .. folder .. "'"))
  local path = baseline_file.Path(folder)
  local asides = {}
  for index = 1, 3 do
    writeFile(path, "damaged " .. index)
    writeFile(path .. "-journal", "journal " .. index)
    local aside = assert(baseline_file.PutAside(folder))
    lu.assertStrMatches(aside, path:gsub("%p", "%%%0") .. "%.set%-aside%-%d+%-%d+%-?%d*")
    asides[index] = aside
  end
  for index, aside in ipairs(asides) do
    lu.assertEquals(readFile(aside), "damaged " .. index)
    lu.assertEquals(readFile(aside .. "-journal"), "journal " .. index)
  end
  lu.assertNil(stat.lstat(path))
end

function TestBaselineFile.testNothingThatSomebodyElseMayHavePutThereIsUsed()
  assert(os.execute("mkdir -p '" .. folder .. "'"))
  local path = baseline_file.Path(folder)
  writeFile(top .. "/victim", "")
  local cases = {
    { "baseline.db", "not a regular file" },
    { "baseline.db-journal", "not a regular file" },
    { "baseline.db-wal", "not a regular file" },
  }
  for _, case in ipairs(cases) do
    assert(os.execute(("ln -s '%s/victim' '%s/%s'"):format(top, folder, case[1])))
    lu.assertEquals({ baseline_file.Open(folder) }, { nil, case[2], false })
    assert(os.remove(folder .. "/" .. case[1]))
    os.remove(path)
  end
  lu.assertEquals(readFile(top .. "/victim"), "")

  assert(os.rename(folder, top .. "/elsewhere"))
  assert(os.execute(("ln -s '%s/elsewhere' '%s'"):format(top, folder)))
  lu.assertEquals({ baseline_file.Open(folder) }, { nil, "its folder: not a folder", false })
  lu.assertNil(stat.lstat(top .. "/elsewhere/baseline.db"))
end

TestBaseline = { setUp = fixture.setUp, tearDown = fixture.tearDown }

function TestBaseline.testNothingMovesBeforeTheCommit()
  local found = open()
  found:Folder("/a/", false)
  found:File("taken", "/a/", "f", { new = state("x") })
  found:Close()
  lu.assertEquals({ contents() }, { {}, {} })
end

function TestBaseline.testEveryKindOfChangeIsApplied()
  commit(function(found)
    found:Folder("/a/", false)
    found:Folder("/a/gone/", false)
    found:Folder("/a/half/", false)
    for _, name in ipairs({ "changed", "removed", "refreshed", "forgotten", "kept" }) do
      found:File("taken", "/a/", name, { new = state("old") })
    end
    found:File("taken", "/a/gone/", "f", { new = state("old") })
    found:File("taken", "/a/half/", "kept", { new = state("old") })
    found:File("seen", "/a/", "unread", {})
    found:File("seen", "/a/", "unread too", {})
  end)
  commit(function(found)
    local differs = { "content" }
    found:Folder("/a/new/", false)
    found:File("added", "/a/new/", "f", { new = state("new"), attributes = differs })
    found:File("changed", "/a/", "changed", { old = state("old"), new = state("new"), attributes = differs })
    found:File("refreshed", "/a/", "refreshed", { old = state("old"), new = state("new") })
    found:File("removed", "/a/", "removed", { old = state("old"), attributes = differs })
    found:File("forgotten", "/a/", "forgotten", {})
    found:File("taken", "/a/", "unread", { new = state("new") })
    found:File("seen", "/a/", "kept", {})
    found:File("removed", "/a/gone/", "f", { old = state("old"), attributes = differs })
    found:Gone("/a/gone/")
    found:Gone("/a/half/")
  end)
  local files, order = contents()
  lu.assertEquals(files, {
    ["/a/changed"] = state("new"),
    ["/a/kept"] = state("old"),
    ["/a/refreshed"] = state("new"),
    ["/a/unread"] = state("new"),
    ["/a/unread too"] = "unread",
    ["/a/half/kept"] = state("old"),
    ["/a/new/f"] = state("new"),
  })
  lu.assertEquals(order, { "/a/changed", "/a/kept", "/a/refreshed", "/a/unread", "/a/unread too", "/a/half/kept",
    "/a/new/f" })
end

function TestBaseline.testWhatIsSeenOnlyMakesUpForWhatIsForgotten()
  commit(function(found)
    found:Folder("/a/", false)
    found:File("taken", "/a/", "f", { new = state("old") })
    found:File("seen", "/a/", "g", {})
  end)
  commit(function(found)
    found:File("removed", "/a/", "f", { old = state("old"), attributes = {} })
    found:File("seen", "/a/", "f", {})
    found:File("forgotten", "/a/", "g", {})
    found:File("seen", "/a/", "g", {})
  end)
  lu.assertEquals(contents(), { ["/a/g"] = "unread" })
end

function TestBaseline.testOnlyTheFolderAndWhatIsBelowItAndInTheOrderOfAScan()
  commit(function(found)
    for _, path in ipairs({ "/a/", "/a/b/", "/a/b-c/", "/a/b/c/", "/ab/", "/" }) do
      found:Folder(path, false)
      found:File("taken", path, "f", { new = state("x") })
    end
  end)
  lu.assertEquals({ select(2, contents("/a")) }, { { "/a/f", "/a/b-c/f", "/a/b/f", "/a/b/c/f" } })
  lu.assertEquals({ select(2, contents("/a/b")) }, { { "/a/b/f", "/a/b/c/f" } })
  lu.assertEquals(#select(2, contents("/")), 6)
end

function TestBaseline.testNumbersAndNamesAreExact()
  local exact = state("x", { size = 2 ^ 53, mode = 4095, uid = 4294967294, gid = 2 ^ 31 })
  local name = "line\nfeed ' \xFF"
  commit(function(found)
    found:Folder("/\xE9/", false)
    found:File("taken", "/\xE9/", name, { new = exact })
  end)
  lu.assertEquals(contents(), { ["/\xE9/" .. name] = exact })

  local found = open()
  local details = { old = exact, new = exact, attributes = { "mode", "owner" }, severity = "error" }
  found:File("changed", "/\xE9/", name, details)
  local changes = {}
  for change in found:Changes() do
    changes[#changes + 1] = change
  end
  lu.assertEquals(changes, {
    {
      change = "changed",
      path = "/\xE9/" .. name,
      old = exact,
      new = exact,
      differs = { mode = true, owner = true },
      severity = "error",
    },
  })
  found:Close()
end

function TestBaseline.testChangesComeInTheOrderOfAScanAndAreCounted()
  local found = open()
  local differs = { "content" }
  found:File("removed", "/a/b/", "f", { old = state("x"), attributes = differs })
  found:File("added", "/a/", "z", { new = state("x"), attributes = differs })
  found:File("changed", "/a/b-c/", "f", { old = state("x"), new = state("y"), attributes = differs })
  found:File("taken", "/c/", "f", { new = state("x") })
  found:File("taken", "/c/d/", "f", { new = state("x") })
  found:File("refreshed", "/a/", "y", { new = state("x") })
  found:File("seen", "/a/", "x", {})

  local paths = {}
  for change in found:Changes() do
    paths[#paths + 1] = change.path
  end
  lu.assertEquals(paths, { "/a/z", "/a/b-c/f", "/a/b/f" })
  lu.assertEquals(found:Counts(), { added = 1, changed = 1, removed = 1, taken = 2 })
  lu.assertEquals({ found:Taken("/c"), found:Taken("/c/d"), found:Taken("/a"), found:Taken("/") }, { 2, 1, 0, 2 })
  found:Close()
end

function TestBaseline.testUnreadableKeepTheirOrder()
  local found = open()
  found:NoteUnreadable("/b", "Permission denied")
  found:NoteUnreadable("/a\xFF", "Input/output error")
  local rows = {}
  for row in found:Unreadable() do
    rows[#rows + 1] = row
  end
  lu.assertEquals(rows, {
    { path = "/b", reason = "Permission denied" },
    { path = "/a\xFF", reason = "Input/output error" },
  })
  found:Close()
end

function TestBaseline.testTotalsOfWhatWasRead()
  commit(function(found)
    found:Folder("/a/", false)
    found:File("taken", "/a/", "f", { new = state("x", { size = 5000000000 }) })
    found:File("taken", "/a/", "g", { new = state("x") })
    found:File("seen", "/a/", "h", {})
    found:Folder("/b/", false)
  end)
  local found = open()
  lu.assertEquals(found:Totals("/a"), { files = 2, bytes = 5000000001 })
  lu.assertEquals(found:Totals("/b"), { files = 0, bytes = 0 })
  lu.assertEquals(found:Totals("/c"), { files = 0, bytes = 0 })
  found:Close()
end

function TestBaseline.testWhatEarlierRunsHaveCovered()
  commit(function(found)
    found:Folder("/a/", false)
    found:Folder("/a/b/", false)
    found:File("seen", "/a/", "excluded", {})
    found:File("taken", "/a/", "file", { new = state("x") })
  end)
  local found = open()
  local cases = {
    ["/a/new"] = true,
    ["/a/b/new/deeper"] = true,
    ["/a/file"] = true,
    ["/a/excluded"] = false,
    ["/a/excluded/deeper/still"] = false,
    ["/ab"] = false,
    ["/"] = false,
    ["/b/c"] = false,
  }
  for path, expected in pairs(cases) do
    lu.assertIs(found:IsCovered(path), expected, path)
  end
  lu.assertTrue(found:IsPlaceholder("/a/", "excluded"))
  lu.assertFalse(found:IsPlaceholder("/a/", "file"))
  lu.assertFalse(found:IsPlaceholder("/a/", "missing"))
  found:Close()
end

function TestBaseline.testLinkedFolders()
  local function linked()
    local found = open()
    local flags = {}
    for row in found:Rows("/") do
      flags[row.path] = row.linked
    end
    found:Close()
    return flags
  end
  commit(function(found)
    found:Folder("/a/", true)
    found:Folder("/b/", false)
  end)
  lu.assertEquals(linked(), { ["/a/"] = 1, ["/b/"] = 0 })
  commit(function(found)
    found:Folder("/a/", false)
    found:Folder("/b/", true)
  end)
  lu.assertEquals(linked(), { ["/a/"] = 0, ["/b/"] = 1 })
end

-- A folder that is named twice, or below another one that is.
function TestBaseline.testTheLastWordAboutAFileCounts()
  commit(function(found)
    found:Gone("/a/")
    found:Folder("/a/", false)
    found:File("taken", "/a/", "f", { new = state("first") })
    found:File("taken", "/a/", "f", { new = state("second") })
    found:Gone("/a/")
  end)
  lu.assertEquals(contents(), { ["/a/f"] = state("second") })
end

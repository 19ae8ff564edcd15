-- monitor.compare with a baseline and a scan of our own making.
local lu = require("luaunit")
local paths = require("vel.path")
local compare = require("monitor.compare")

local all = { content = true, size = true, mode = true, owner = true }

-- The state of a file in one word; anything that differs is written after it: state("x", { mode = 0 }).
local function state(content, changes)
  local made = { digest = content, size = #content, mode = 420, uid = 0, gid = 0 }
  for field, value in pairs(changes or {}) do
    made[field] = value
  end
  return made
end

local unread = {} -- in a baseline: there, never read

-- A baseline of { [folder] = { [name] = state or unread } }; `linked` has the folders behind a link as keys.
local function newKnown(folders, linked)
  local rows = {}
  for folder, files in pairs(folders) do
    local isEmpty = true
    local path = paths.WithSlash(folder)
    local flag = linked and linked[folder] and 1 or 0
    for name, is in pairs(files) do
      isEmpty = false
      local row = { path = path, linked = flag, name = name }
      for field, value in pairs(is) do
        row[field] = value
      end
      rows[#rows + 1] = row
    end
    if isEmpty then
      rows[#rows + 1] = { path = path, linked = flag }
    end
  end
  table.sort(rows, function(one, other)
    return one.path < other.path or one.path == other.path and (one.name or "") < (other.name or "")
  end)

  local known = {}
  function known.Rows(_, folder)
    local first = paths.WithSlash(folder)
    local at = 0
    return function()
      repeat
        at = at + 1
      until not rows[at] or rows[at].path:sub(1, #first) == first
      return rows[at]
    end
  end
  function known.IsPlaceholder(_, folder, name)
    local files = folders[paths.WithoutSlash(folder)]
    return files ~= nil and files[name] == unread
  end
  function known.IsCovered(_, folder)
    return folders[paths.Parent(folder)] ~= nil
  end
  return known
end

local function newRecord()
  local record = { files = {}, folders = {}, details = {} }
  function record.File(_, change, folder, name, details)
    record.files[folder .. name] = change
    record.details[folder .. name] = details
  end
  function record.Folder(_, folder, isLinked)
    record.folders[folder] = isLinked and "linked" or "there"
  end
  function record.Gone(_, folder)
    record.folders[folder] = "gone"
  end
  return record
end

-- Compares a scan, an array of { event, ... }, with the baseline.
local function run(known, events, options)
  local record = newRecord()
  record.hidden = {}
  options = options or {}
  local comparison = compare.New(known, record, {
    judge = options.judge or function()
      return { ignore = false, watch = all, severity = "warning" }
    end,
    isLinked = options.isLinked or function()
      return false
    end,
    resets = options.resets,
    hidden = function(path)
      table.insert(record.hidden, path)
    end,
  })
  for _, event in ipairs(events) do
    comparison[event[1]](comparison, table.unpack(event, 2))
  end
  return record
end

local function ignoring(...)
  local ignored = {}
  for _, path in ipairs({ ... }) do
    ignored[path] = true
  end
  return function(path)
    return { ignore = ignored[path] == true, watch = all, severity = "warning" }
  end
end

TestCompare = {}

function TestCompare.testFirstRunTakesEverything()
  local record = run(newKnown({}), {
    { "Folder", "/a", 0 },
    { "File", "/a/1", state("x") },
    { "Folder", "/a/b", 1 },
    { "File", "/a/b/2", state("y") },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, { ["/a/1"] = "taken", ["/a/b/2"] = "taken" })
  lu.assertEquals(record.folders, { ["/a/"] = "there", ["/a/b/"] = "there" })
  lu.assertEquals(record.details["/a/1"].new, state("x"))
end

function TestCompare.testNothingIsRecordedWhenNothingHasChanged()
  local record = run(newKnown({ ["/a"] = { ["1"] = state("x") }, ["/a/b"] = { ["2"] = state("y") }, ["/a/c"] = {} }), {
    { "Folder", "/a", 0 },
    { "File", "/a/1", state("x") },
    { "Folder", "/a/b", 1 },
    { "File", "/a/b/2", state("y") },
    { "Folder", "/a/c", 1 },
    { "Done", "/a" },
  })
  lu.assertEquals({ record.files, record.folders }, { {}, {} })
end

function TestCompare.testAddedChangedRemoved()
  local record = run(newKnown({ ["/a"] = { b = state("x"), c = state("x"), e = state("x"), g = state("x") } }), {
    { "Folder", "/a", 0 },
    { "File", "/a/a", state("new") },
    { "File", "/a/c", state("yy") },
    { "File", "/a/d", state("new") },
    { "File", "/a/e", state("x") },
    { "File", "/a/h", state("new") },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, {
    ["/a/a"] = "added",
    ["/a/b"] = "removed",
    ["/a/c"] = "changed",
    ["/a/d"] = "added",
    ["/a/g"] = "removed",
    ["/a/h"] = "added",
  })
  local changed = record.details["/a/c"]
  lu.assertEquals(changed.attributes, { "content", "size" })
  lu.assertEquals(changed.severity, "warning")
  lu.assertEquals(changed.old.digest, "x")
  lu.assertEquals(changed.new, state("yy"))
  lu.assertEquals(record.details["/a/b"].old.digest, "x")
  lu.assertEquals(record.details["/a/b"].attributes, { "content", "size", "mode", "owner" })
  lu.assertEquals(record.details["/a/a"].attributes, { "content", "size", "mode", "owner" })
  lu.assertEquals(record.folders, {})
end

function TestCompare.testEachAttributeCounts()
  local cases = {
    { { mode = 2541 }, { "mode" } },
    { { uid = 1 }, { "owner" } },
    { { gid = 1 }, { "owner" } },
    { { uid = 1, gid = 1, size = 7 }, { "size", "owner" } },
    { { digest = "z" }, { "content" } },
  }
  for _, case in ipairs(cases) do
    local record = run(newKnown({ ["/a"] = { f = state("x") } }), {
      { "Folder", "/a", 0 },
      { "File", "/a/f", state("x", case[1]) },
      { "Done", "/a" },
    })
    lu.assertEquals(record.files, { ["/a/f"] = "changed" })
    lu.assertEquals(record.details["/a/f"].attributes, case[2])
  end
end

function TestCompare.testWhatIsNotWatchedIsTakenOverInSilence()
  local judge = function()
    return { ignore = false, watch = { mode = true }, severity = "error" }
  end
  local known = newKnown({ ["/a"] = { f = state("x"), g = state("x") } })
  local record = run(known, {
    { "Folder", "/a", 0 },
    { "File", "/a/f", state("other") },
    { "File", "/a/g", state("other", { mode = 0 }) },
    { "Done", "/a" },
  }, { judge = judge })
  lu.assertEquals(record.files, { ["/a/f"] = "refreshed", ["/a/g"] = "changed" })
  lu.assertEquals(record.details["/a/f"].new, state("other"))
  lu.assertEquals(record.details["/a/g"].attributes, { "mode" })
  lu.assertEquals(record.details["/a/g"].severity, "error")
end

function TestCompare.testFoldersThatCameAndWent()
  local known = newKnown({ ["/a"] = {}, ["/a/old"] = { ["1"] = state("x") }, ["/a/old/sub"] = { ["2"] = state("x") } })
  local record = run(known, {
    { "Folder", "/a", 0 },
    { "Folder", "/a/new", 1 },
    { "Folder", "/a/new/sub", 2 },
    { "File", "/a/new/sub/3", state("x") },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, { ["/a/old/1"] = "removed", ["/a/old/sub/2"] = "removed", ["/a/new/sub/3"] = "added" })
  lu.assertEquals(record.folders, {
    ["/a/new/"] = "there",
    ["/a/new/sub/"] = "there",
    ["/a/old/"] = "gone",
    ["/a/old/sub/"] = "gone",
  })
end

function TestCompare.testNamesThatShareABeginningAreNotMixedUp()
  local known = newKnown({
    ["/a"] = {},
    ["/a/b"] = { f = state("x") },
    ["/a/b-c"] = { f = state("x") },
    ["/a/b/c"] = { f = state("x") },
    ["/a/bc"] = { f = state("x") },
  })
  local record = run(known, {
    { "Folder", "/a", 0 },
    { "Folder", "/a/b-c", 1 },
    { "File", "/a/b-c/f", state("x") },
    { "Folder", "/a/bc", 1 },
    { "File", "/a/bc/f", state("x") },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, { ["/a/b/f"] = "removed", ["/a/b/c/f"] = "removed" })
end

function TestCompare.testAFileThatBecameAFolderAndBack()
  local record = run(newKnown({ ["/a"] = { x = state("1") } }), {
    { "Folder", "/a", 0 },
    { "Folder", "/a/x", 1 },
    { "File", "/a/x/f", state("2") },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, { ["/a/x"] = "removed", ["/a/x/f"] = "added" })

  record = run(newKnown({ ["/a"] = {}, ["/a/x"] = { f = state("2") } }), {
    { "Folder", "/a", 0 },
    { "File", "/a/x", state("1") },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, { ["/a/x"] = "added", ["/a/x/f"] = "removed" })
  lu.assertEquals(record.folders, { ["/a/x/"] = "gone" })
end

TestCompareScope = {}

function TestCompareScope.testAWiderFolderTakesWhatIsNewToItAndComparesTheRest()
  local record = run(newKnown({ ["/a/known"] = { f = state("x"), g = state("x") } }), {
    { "Folder", "/a", 0 },
    { "File", "/a/1", state("x") },
    { "Folder", "/a/known", 1 },
    { "File", "/a/known/f", state("yy") },
    { "File", "/a/known/h", state("x") },
    { "Folder", "/a/other", 1 },
    { "File", "/a/other/2", state("x") },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, {
    ["/a/1"] = "taken",
    ["/a/known/f"] = "changed",
    ["/a/known/g"] = "removed",
    ["/a/known/h"] = "added",
    ["/a/other/2"] = "taken",
  })
end

function TestCompareScope.testANewFolderInAKnownOneIsAddedAlsoWhenItIsNamed()
  local known = newKnown({ ["/a"] = {} })
  local events = { { "Folder", "/a/new", 0 }, { "File", "/a/new/f", state("x") }, { "Done", "/a/new" } }
  lu.assertEquals(run(known, events).files, { ["/a/new/f"] = "added" })

  local behindALink = {
    isLinked = function()
      return true
    end,
  }
  local record = run(known, events, behindALink)
  lu.assertEquals(record.files, { ["/a/new/f"] = "taken" })
  lu.assertEquals(record.folders, { ["/a/new/"] = "linked" })
end

function TestCompareScope.testSeveralFoldersOneAfterTheOther()
  local known = newKnown({ ["/a"] = { f = state("x"), z = state("x") }, ["/b"] = { f = state("x") } })
  local record = run(known, {
    { "Folder", "/b", 0 },
    { "File", "/b/f", state("x") },
    { "Done", "/b" },
    { "Folder", "/a", 0 },
    { "File", "/a/f", state("x") },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, { ["/a/z"] = "removed" })
end

-- They are no business of a walk that does not follow the link.
function TestCompareScope.testWhatLiesBehindALinkKeepsItsRows()
  local known = newKnown({ ["/a"] = {}, ["/a/link"] = { f = state("x") }, ["/a/link/sub"] = { f = state("x") } },
    { ["/a/link"] = true })
  local record = run(known, { { "Folder", "/a", 0 }, { "Done", "/a" } })
  lu.assertEquals({ record.files, record.folders }, { {}, {} })
end

function TestCompareScope.testAFolderThatBecameALinkHasLostItsFiles()
  local known = newKnown({ ["/a"] = {}, ["/a/sub"] = { f = state("x") } })
  local record = run(known, { { "Folder", "/a", 0 }, { "Done", "/a" } })
  lu.assertEquals(record.files, { ["/a/sub/f"] = "removed" })
end

function TestCompareScope.testANamedFolderThatIsReachedAnotherWayIsNoted()
  local known = newKnown({ ["/a"] = { f = state("x") } })
  local record = run(known, { { "Folder", "/a", 0 }, { "File", "/a/f", state("x") }, { "Done", "/a" } }, {
    isLinked = function()
      return true
    end,
  })
  lu.assertEquals({ record.files, record.folders }, { {}, { ["/a/"] = "linked" } })
end

TestCompareUnreadable = {}

function TestCompareUnreadable.testAFileKeepsItsRow()
  local record = run(newKnown({ ["/a"] = { f = state("x"), g = state("x") } }), {
    { "Folder", "/a", 0 },
    { "Unreadable", "/a/f", "Permission denied" },
    { "File", "/a/g", state("x") },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, {})
end

function TestCompareUnreadable.testAFolderKeepsAllRowsBelowIt()
  local known = newKnown({
    ["/a"] = {},
    ["/a/b"] = { f = state("x") },
    ["/a/b/c"] = { f = state("x") },
    ["/a/d"] = { f = state("x") },
  })
  local record = run(known, {
    { "Folder", "/a", 0 },
    { "Folder", "/a/b", 1 },
    { "Unreadable", "/a/b", "Permission denied" },
    { "Folder", "/a/d", 1 },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, { ["/a/d/f"] = "removed" })
  lu.assertEquals(record.folders, {})
end

-- As in a folder that may be listed but not entered: nobody can tell what the entry is.
function TestCompareUnreadable.testAnEntryThatMayBeAFolderKeepsAllRowsBelowIt()
  local known = newKnown({
    ["/a"] = {},
    ["/a/b"] = { f = state("x") },
    ["/a/b/c"] = { f = state("x") },
    ["/a/bb"] = { f = state("x") },
  })
  local record = run(known, {
    { "Folder", "/a", 0 },
    { "Unreadable", "/a/b", "Permission denied" },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, { ["/a/bb/f"] = "removed" })
  lu.assertEquals(record.folders, { ["/a/bb/"] = "gone" })
end

function TestCompareUnreadable.testANamedFolderKeepsItsRows()
  local record = run(newKnown({ ["/a"] = { f = state("x") }, ["/a/b"] = { f = state("x") } }), {
    { "Folder", "/a", 0 },
    { "Unreadable", "/a", "Permission denied", false },
    { "Done", "/a" },
  })
  lu.assertEquals({ record.files, record.folders }, { {}, {} })
end

function TestCompareUnreadable.testANamedFolderThatIsGoneHasLostItsFiles()
  local record = run(newKnown({ ["/a"] = { f = state("x") }, ["/a/b"] = { f = state("x") } }), {
    { "Folder", "/a", 0 },
    { "Unreadable", "/a", "No such file or directory", true },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, { ["/a/f"] = "removed", ["/a/b/f"] = "removed" })
  lu.assertEquals(record.folders, { ["/a/b/"] = "gone" }) -- what comes back to /a is added
end

function TestCompareUnreadable.testANamedFolderThatNeverWasIsNotRecorded()
  local record = run(newKnown({}), {
    { "Folder", "/a", 0 },
    { "Unreadable", "/a", "No such file or directory", true },
    { "Done", "/a" },
  })
  lu.assertEquals({ record.files, record.folders }, { {}, {} })
end

function TestCompareUnreadable.testWhatCouldNotBeReadWhenTheBaselineWasTakenIsTakenLater()
  local record = run(newKnown({}), {
    { "Folder", "/a", 0 },
    { "Unreadable", "/a/f", "Permission denied" },
    { "Folder", "/a/b", 1 },
    { "Unreadable", "/a/b", "Permission denied" },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, { ["/a/f"] = "seen", ["/a/b"] = "seen" })
  lu.assertEquals(record.folders, { ["/a/"] = "there" })

  record = run(newKnown({ ["/a"] = { f = unread, b = unread } }), {
    { "Folder", "/a", 0 },
    { "File", "/a/f", state("x") },
    { "Folder", "/a/b", 1 },
    { "File", "/a/b/g", state("x") },
    { "Folder", "/a/b/c", 2 },
    { "File", "/a/b/c/h", state("x") },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, {
    ["/a/f"] = "taken",
    ["/a/b"] = "forgotten",
    ["/a/b/g"] = "taken",
    ["/a/b/c/h"] = "taken",
  })
end

function TestCompareUnreadable.testSomethingNewThatCannotBeReadIsAddedOnceItCan()
  local record = run(newKnown({ ["/a"] = {} }), {
    { "Folder", "/a", 0 },
    { "Unreadable", "/a/f", "Permission denied" },
    { "Folder", "/a/b", 1 },
    { "Unreadable", "/a/b", "Permission denied" },
    { "Done", "/a" },
  })
  lu.assertEquals({ record.files, record.folders }, { {}, {} })
end

TestCompareLeftOut = {}

function TestCompareLeftOut.testKeepsWhatIsKnown()
  local known = newKnown({
    ["/a"] = { f = state("x"), g = unread },
    ["/a/b"] = { f = state("x") },
    ["/a/b/c"] = { f = state("x") },
    ["/a/d"] = { f = state("x") },
  })
  local record = run(known, {
    { "Folder", "/a", 0 },
    { "LeftOut", "/a/f" },
    { "LeftOut", "/a/g" },
    { "FolderLeftOut", "/a/b", false },
    { "Folder", "/a/d", 1 },
    { "File", "/a/d/f", state("x") },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, { ["/a/b"] = "seen" })
  lu.assertEquals(record.folders, {})
  lu.assertEquals(record.hidden, {})
end

function TestCompareLeftOut.testWhatIsLeftOutTodayIsNotAddedTomorrow()
  local record = run(newKnown({ ["/a"] = {} }), {
    { "Folder", "/a", 0 },
    { "LeftOut", "/a/f" },
    { "FolderLeftOut", "/a/b", false },
    { "Done", "/a" },
  })
  lu.assertEquals(record.files, { ["/a/f"] = "seen", ["/a/b"] = "seen" })
end

function TestCompareLeftOut.testWhatIsGoneAndWouldBeLeftOutKeepsItsRows()
  local known = newKnown({
    ["/a"] = { f = state("x"), g = state("x") },
    ["/a/b"] = { f = state("x") },
    ["/a/b/c"] = { f = state("x") },
    ["/a/d"] = { f = state("x") },
  })
  local record = run(known, { { "Folder", "/a", 0 }, { "Done", "/a" } }, { judge = ignoring("/a/f", "/a/b") })
  lu.assertEquals(record.files, { ["/a/g"] = "removed", ["/a/d/f"] = "removed" })
  lu.assertEquals(record.folders, { ["/a/d/"] = "gone" })
end

-- Whoever mounts one over a folder must not have it unwatched in silence.
function TestCompareLeftOut.testAKernelFileSystemOverAKnownFolderIsTold()
  local known = newKnown({ ["/a"] = {}, ["/a/b"] = { f = state("x") }, ["/a/c"] = {} })
  local record = run(known, {
    { "Folder", "/a", 0 },
    { "FolderLeftOut", "/a/b", true },
    { "FolderLeftOut", "/a/c", true },
    { "FolderLeftOut", "/a/d", true },
    { "Done", "/a" },
  })
  lu.assertEquals(record.hidden, { "/a/b" })
  lu.assertEquals(record.files, { ["/a/b"] = "seen", ["/a/c"] = "seen", ["/a/d"] = "seen" })
end

TestCompareReset = {}

function TestCompareReset.testEverythingBecomesTheBaselineInSilence()
  local known = newKnown({
    ["/a"] = { f = state("x"), g = state("x"), h = state("x"), i = state("x") },
    ["/a/b"] = { f = state("x") },
  })
  local record = run(known, {
    { "Folder", "/a", 0 },
    { "File", "/a/e", state("new") },
    { "File", "/a/f", state("changed") },
    { "Unreadable", "/a/g", "Permission denied" },
    { "File", "/a/i", state("x") },
    { "Done", "/a" },
  }, { resets = true })
  lu.assertEquals(record.files, {
    ["/a/e"] = "taken",
    ["/a/f"] = "refreshed",
    ["/a/h"] = "forgotten",
    ["/a/b/f"] = "forgotten",
  })
  lu.assertEquals(record.folders, { ["/a/b/"] = "gone" })
end

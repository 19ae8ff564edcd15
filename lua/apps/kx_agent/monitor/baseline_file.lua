-- monitor.baseline_file: the database file of the baseline: found or made, checked, put aside.
--
-- Errors: raised as failures of vel.database, or returned as nil and a reason; Explain makes one sentence of both.
--
-- Tested by: tests/lua/monitor_baseline_test.lua, tests/blackbox/test_monitor_baseline.py.
local database = require("vel.database")
local descriptor = require("vel.descriptor")
local private_file = require("vel.private_file")

local baseline_file = {}

-- Marks of the file, so that nothing else is taken for a baseline. The number spells "kxmo".
local applicationId = 0x6b786d6f
local format = 1

-- The smallest page, and so the smallest file with anything in it. The library would take fewer bytes for an empty
-- file and write over them. Source: the file format of SQLite, section 1.3.
local smallestPage = 512

local notADatabase = "file is not a database"

-- The library's words that mean something to an operator. isUnusable: the file itself is the trouble, for good.
local meanings = {
  [notADatabase] = { text = "it is damaged", isUnusable = true },
  ["database disk image is malformed"] = { text = "it is damaged", isUnusable = true },
  ["database is locked"] = { text = "another run of the monitor is using it" },
}

local schema = {
  -- path ends in a slash, so the order of the bytes is that of a scan. linked: 1 when it was named, and reached through
  -- a symbolic link.
  "CREATE TABLE folder(id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE, linked INTEGER NOT NULL)",
  -- The state of each file as of the last run that could read it; no digest: there, but never read.
  "CREATE TABLE file(folder INTEGER NOT NULL REFERENCES folder(id), name TEXT NOT NULL, digest TEXT, size INTEGER, "
    .. "mode INTEGER, uid INTEGER, gid INTEGER, PRIMARY KEY(folder, name)) WITHOUT ROWID",
  ("PRAGMA application_id = %d"):format(applicationId),
  ("PRAGMA user_version = %d"):format(format),
}

-- What the library writes beside the file. A journal that somebody else has put there would be played back.
local companions = { "-journal", "-wal", "-shm" }

function baseline_file.Path(folder)
  return folder .. "/baseline.db"
end

-- Array of the paths of the file and of all that may stand beside it.
function baseline_file.AllPaths(folder)
  local all = { baseline_file.Path(folder) }
  for index, suffix in ipairs(companions) do
    all[index + 1] = all[1] .. suffix
  end
  return all
end

-- reason: of a failure, or as Open returns it
-- Result: the reason for an operator, and whether the file can only be put aside.
function baseline_file.Explain(reason)
  local meaning = meanings[reason]
  if not meaning then
    return reason, false
  end
  return ("%s (%s)"):format(meaning.text, reason), meaning.isUnusable == true
end

local function setUp(db)
  local marks = db:Row("SELECT (SELECT count(*) FROM sqlite_master) AS tables, application_id, user_version "
    .. "FROM pragma_application_id, pragma_user_version")
  if marks.tables == 0 and marks.application_id == 0 and marks.user_version == 0 then
    for _, statement in ipairs(schema) do
      db:Run(statement)
    end
  elseif marks.application_id ~= applicationId then
    return "it is no baseline of this monitor"
  elseif marks.user_version ~= format then
    return ("it has format %d, and this monitor knows format %d"):format(marks.user_version, format)
  end
  local check = db:Row("PRAGMA quick_check(1)")
  if check.quick_check ~= "ok" then
    return ("it is damaged (%s)"):format(check.quick_check)
  end
  return nil
end

-- Makes the folder and the file when they are missing, and sees to it that nobody else has a hand in them.
-- Result: true; or false and a reason.
local function secure(folder)
  local isPrivate, reason = private_file.MakeFolder(folder)
  if not isPrivate then
    return false, "its folder: " .. reason
  end
  local path = baseline_file.Path(folder)
  isPrivate, reason = private_file.MakeFile(path)
  for _, suffix in ipairs(companions) do
    if isPrivate then
      isPrivate, reason = private_file.RestrictFile(path .. suffix)
    end
  end
  return isPrivate, reason
end

-- Opens the baseline in a folder, both made when they are missing, and begins the transaction of this run: from here
-- on, other runs wait for its end.
-- Result: a vel.database; or nil, the reason, and whether the file can only be put aside.
function baseline_file.Open(folder)
  local isPrivate, reason = secure(folder)
  if not isPrivate then
    return nil, reason, false
  end
  local path = baseline_file.Path(folder)
  local status = assert(descriptor.LinkStatus(path))
  if status.st_size > 0 and status.st_size < smallestPage then
    return nil, baseline_file.Explain(notADatabase)
  end

  local db = database.Open(path)
  local succeeded, problem = pcall(function()
    db:Run("PRAGMA synchronous = FULL") -- whatever is configured: there is one commit in a run
    db:Run("BEGIN IMMEDIATE")
    return setUp(db)
  end)
  if succeeded and not problem then
    return db
  end
  db:Close()
  if succeeded then
    return nil, problem, true
  elseif database.FailureOf(problem) then
    return nil, baseline_file.Explain(problem.reason)
  end
  return error(problem, 0)
end

-- Gives the file in the folder, and what the library has written beside it, another name.
-- Result: the new path; or nil and a reason.
function baseline_file.PutAside(folder)
  local path = baseline_file.Path(folder)
  local stamp = os.date("!%Y%m%d-%H%M%S")
  local aside, attempt = ("%s.set-aside-%s"):format(path, stamp), 1
  while descriptor.LinkStatus(aside) do
    attempt = attempt + 1
    aside = ("%s.set-aside-%s-%d"):format(path, stamp, attempt)
  end
  for _, suffix in ipairs(companions) do
    if descriptor.LinkStatus(path .. suffix) then
      local renamed, reason = os.rename(path .. suffix, aside .. suffix)
      if not renamed then
        return nil, reason
      end
    end
  end
  local renamed, reason = os.rename(path, aside)
  if not renamed then
    return nil, reason
  end
  return aside
end

return baseline_file

-- monitor.baseline: what the files were like, in a database, and what this run has found.
--
-- What was found is kept in temporary tables until the end of the run. Nothing of the baseline changes before Commit,
-- and all of it in one step. Memory does not grow with the number of files.
--
-- Errors: raised as failures of vel.database.
--
-- Tested by: tests/lua/monitor_baseline_test.lua, tests/blackbox/test_monitor_baseline.py.
local paths = require("vel.path")

local baseline = {}
baseline.__index = baseline

local temporaryTables = {
  "CREATE TEMP TABLE found(folder TEXT NOT NULL, name TEXT NOT NULL, change TEXT NOT NULL, attributes TEXT, "
    .. "severity TEXT, old_digest TEXT, old_size INTEGER, old_mode INTEGER, old_uid INTEGER, old_gid INTEGER, "
    .. "new_digest TEXT, new_size INTEGER, new_mode INTEGER, new_uid INTEGER, new_gid INTEGER, "
    .. "PRIMARY KEY(folder, name)) WITHOUT ROWID",
  "CREATE TEMP TABLE found_folder(path TEXT PRIMARY KEY, linked INTEGER) WITHOUT ROWID", -- linked is null: gone
  "CREATE TEMP TABLE unreadable(path TEXT, reason TEXT)",
}

-- The binding cuts integers to 32 bits; sizes are longer, and user numbers may be.
local selectRows = "SELECT folder.path, folder.linked, file.name, file.digest, CAST(file.size AS REAL) AS size, "
  .. "file.mode, CAST(file.uid AS REAL) AS uid, CAST(file.gid AS REAL) AS gid "
  .. "FROM folder LEFT JOIN file ON file.folder = folder.id "
  .. "WHERE folder.path >= ? AND folder.path < ? ORDER BY folder.path, file.name"

local selectTotals = "SELECT CAST(count(file.digest) AS REAL) AS files, CAST(total(file.size) AS REAL) AS bytes "
  .. "FROM folder JOIN file ON file.folder = folder.id WHERE folder.path >= ? AND folder.path < ?"

local selectChanges = "SELECT folder || name AS path, change, attributes, severity, "
  .. "old_digest, CAST(old_size AS REAL) AS old_size, old_mode, CAST(old_uid AS REAL) AS old_uid, "
  .. "CAST(old_gid AS REAL) AS old_gid, "
  .. "new_digest, CAST(new_size AS REAL) AS new_size, new_mode, CAST(new_uid AS REAL) AS new_uid, "
  .. "CAST(new_gid AS REAL) AS new_gid "
  .. "FROM found WHERE change IN ('added', 'changed', 'removed') ORDER BY folder, name"

local insertFound = "INSERT OR REPLACE INTO found VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"

-- A file that is there and was not read only makes up for a row that is of no use any more.
local insertSeen = "INSERT INTO found(folder, name, change) VALUES(?, ?, 'seen') "
  .. "ON CONFLICT DO UPDATE SET change = 'seen' WHERE change = 'forgotten'"

local apply = {
  "INSERT INTO folder(path, linked) SELECT path, linked FROM found_folder WHERE linked IS NOT NULL "
    .. "ON CONFLICT DO UPDATE SET linked = excluded.linked",
  "DELETE FROM file WHERE (folder, name) IN (SELECT folder.id, found.name FROM found JOIN folder "
    .. "ON folder.path = found.folder WHERE change IN ('removed', 'forgotten'))",
  "INSERT OR REPLACE INTO file SELECT folder.id, name, new_digest, new_size, new_mode, new_uid, new_gid FROM found "
    .. "JOIN folder ON folder.path = found.folder WHERE change IN ('added', 'changed', 'taken', 'refreshed')",
  "INSERT OR IGNORE INTO file(folder, name) SELECT folder.id, name FROM found JOIN folder "
    .. "ON folder.path = found.folder WHERE change = 'seen'",
  -- One that still holds rows of files that rules leave out stays for their sake.
  "DELETE FROM folder WHERE path IN (SELECT path FROM found_folder WHERE linked IS NULL) "
    .. "AND NOT EXISTS (SELECT 1 FROM file WHERE file.folder = folder.id)",
}

-- db: as monitor.baseline_file opens it; Close closes it
function baseline.New(db)
  for _, statement in ipairs(temporaryTables) do
    db:Run(statement)
  end
  return setmetatable({ db = db }, baseline)
end

-- First and last of the paths at or below a folder, the last one excluded: "0" comes right behind "/".
local function range(folder)
  local first = paths.WithSlash(folder)
  return first, first:sub(1, -2) .. "0"
end

-- What monitor.compare asks.

function baseline:Rows(folder)
  return self.db:Rows(selectRows, range(folder))
end

function baseline:IsPlaceholder(folder, name)
  return self.db:Row("SELECT 1 AS found FROM folder JOIN file ON file.folder = folder.id "
    .. "WHERE folder.path = ? AND file.name = ? AND file.digest IS NULL", folder, name) ~= nil
end

function baseline:IsCovered(folder)
  local at, parent = folder, paths.Parent(folder)
  while parent do
    local above = paths.WithSlash(parent)
    if self:IsPlaceholder(above, paths.Name(at)) then
      return false
    elseif self.db:Row("SELECT 1 AS found FROM folder WHERE path = ?", above) then
      return true
    end
    at, parent = parent, paths.Parent(parent)
  end
  return false
end

-- What monitor.compare records.

function baseline:File(change, folder, name, details)
  if change == "seen" then
    return self.db:Run(insertSeen, folder, name)
  end
  local old, new = details.old or {}, details.new or {}
  local attributes = details.attributes and table.concat(details.attributes, ",") or nil
  return self.db:Run(insertFound, folder, name, change, attributes, details.severity,
    old.digest, old.size, old.mode, old.uid, old.gid, new.digest, new.size, new.mode, new.uid, new.gid)
end

function baseline:Folder(folder, isLinked)
  self.db:Run("INSERT OR REPLACE INTO found_folder VALUES(?, ?)", folder, isLinked)
end

function baseline:Gone(folder)
  self.db:Run("INSERT OR IGNORE INTO found_folder VALUES(?, NULL)", folder)
end

-- What reports want to know.

-- Number and size of the files at or below a folder, as far as they were read before.
function baseline:Totals(folder)
  return self.db:Row(selectTotals, range(folder))
end

function baseline:NoteUnreadable(path, reason)
  self.db:Run("INSERT INTO unreadable VALUES(?, ?)", path, reason)
end

-- Iterator over { path =, reason = } in the order of the scan.
function baseline:Unreadable()
  return self.db:Rows("SELECT path, reason FROM unreadable ORDER BY rowid")
end

local function state(row, prefix)
  local digest = row[prefix .. "digest"]
  return digest and {
    digest = digest,
    size = row[prefix .. "size"],
    mode = row[prefix .. "mode"],
    uid = row[prefix .. "uid"],
    gid = row[prefix .. "gid"],
  }
end

-- Iterator over the changes in the order of the scan: { change = "added", "changed" or "removed", path =, old = and
-- new = { digest =, size =, mode =, uid =, gid = } as far as there is one, differs = set of attributes, severity = }
function baseline:Changes()
  local nextRow = self.db:Rows(selectChanges)
  return function()
    local row = nextRow()
    if not row then
      return nil
    end
    local differs = {}
    for attribute in row.attributes:gmatch("[^,]+") do
      differs[attribute] = true
    end
    return {
      change = row.change,
      path = row.path,
      old = state(row, "old_"),
      new = state(row, "new_"),
      differs = differs,
      severity = row.severity,
    }
  end
end

-- { added =, changed =, removed =, taken = } numbers of files
function baseline:Counts()
  local counts = { added = 0, changed = 0, removed = 0, taken = 0 }
  for row in self.db:Rows("SELECT change, count(*) AS files FROM found GROUP BY change") do
    if counts[row.change] then
      counts[row.change] = row.files
    end
  end
  return counts
end

-- Number of files at or below a folder that are new to the baseline without being added.
function baseline:Taken(folder)
  return self.db:Row("SELECT count(*) AS files FROM found WHERE change = 'taken' AND folder >= ? AND folder < ?",
    range(folder)).files
end

-- Makes what was found the baseline.
function baseline:Commit()
  for _, statement in ipairs(apply) do
    self.db:Run(statement)
  end
  self.db:Run("COMMIT")
end

-- What was not committed is forgotten.
function baseline:Close()
  self.db:Close()
end

return baseline

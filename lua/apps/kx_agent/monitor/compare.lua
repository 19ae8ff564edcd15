-- monitor.compare: a scan against the baseline. A listener of monitor.scan; pure.
--
-- The baseline comes as rows in the order of the scan, so the two are merged as they go by, and memory does not grow
-- with the number of files. What has no row is "added" where the baseline has been before, else "taken" into it. What
-- has a row and was not met is "removed", unless it could not be looked at or was not meant to be.
--
-- Shape of a row: { path = folder with a slash at its end, linked = 1 when it was reached through a symbolic link,
-- name, digest, size, mode, uid, gid }; name is nil for a folder without files, digest for a file that was never read.
local bytewise = require("vel.bytewise")
local paths = require("vel.path")
local policy = require("monitor.policy")

local compare = {}
compare.__index = compare

-- What a difference is called when nothing is to be compared.
local whenResetting = { added = "taken", changed = "refreshed", removed = "forgotten" }

-- known:  the baseline, with
--   Rows(folder)                 function that gives the next row at or below a folder that was named, nil at the end
--   IsCovered(folder)            whether earlier runs have looked where this folder is
--   IsPlaceholder(folder, name)  whether the folder has a file of that name that was never read
-- record: what happens to the baseline, with
--   File(change, folder, name, details)  change is "added", "changed", "removed" or, unknown to the operator,
--     "taken" (now in the baseline), "refreshed" (differs in what is not watched), "forgotten" (its row is of no use
--     any more), "seen" (is there and was never read); details = { old =, new =, attributes = array of what differs,
--     severity = }, as far as it applies
--   Folder(folder, isLinked)     is in the baseline from now on
--   Gone(folder)                 and this one is not
-- options: { judge = Judge of monitor.policy as a function, isLinked = function of a folder that was named,
--            resets = whether to take everything as it is, hidden = function(path), called for a folder of the baseline
--            that one of the kernel's file systems lies over }
function compare.New(known, record, options)
  return setmetatable({ known = known, record = record, options = options }, compare)
end

-- Both with a slash at the end, or the first one the path of a file.
local function isAtOrBelow(path, folder)
  return path:sub(1, #folder) == folder
end

local function note(self, change, folder, name, details)
  if self.options.resets then
    change = whenResetting[change] or change
  end
  self.record:File(change, folder, name, details or {})
end

-- Attributes of the judgement in which the row and the file differ, in order.
local function findDifferences(old, new, watch)
  local differs = {
    content = old.digest ~= new.digest,
    size = old.size ~= new.size,
    mode = old.mode ~= new.mode,
    owner = old.uid ~= new.uid or old.gid ~= new.gid,
  }
  local found = {}
  for _, attribute in ipairs(policy.Attributes) do
    if differs[attribute] and watch[attribute] then
      found[#found + 1] = attribute
    end
  end
  return found
end

local function step(self)
  self.row = self.next()
end

-- Rows that were not met.

local function dropFile(self, row)
  local judgement = self.options.judge(paths.Join(paths.WithoutSlash(row.path), row.name))
  if judgement.ignore then
    return
  elseif not row.digest then
    note(self, "forgotten", row.path, row.name)
  else
    note(self, "removed", row.path, row.name, {
      old = row,
      attributes = policy.Attributes,
      severity = judgement.severity,
    })
  end
end

-- Whether a folder that was not entered keeps its rows: it lies behind a link, was left out, or cannot be looked at.
local function isKept(self, row)
  if row.linked == 1 or self.options.judge(paths.WithoutSlash(row.path)).ignore then
    return true
  end
  local at = paths.WithoutSlash(row.path)
  while at and not self.unreadable[at] do
    at = paths.Parent(at)
  end
  return at ~= nil
end

local function passRow(self)
  local row = self.row
  if self.kept and isAtOrBelow(row.path, self.kept) then
    return step(self)
  end
  if row.path ~= self.folder and row.path ~= self.gone then
    if isKept(self, row) then
      self.kept = row.path
      return step(self)
    end
    self.gone = row.path
    self.record:Gone(row.path)
  end
  if row.name then
    dropFile(self, row)
  end
  return step(self)
end

local function passUntil(self, folder)
  while self.row and self.row.path ~= folder and bytewise.IsBefore(self.row.path, folder) do
    passRow(self)
  end
end

-- Rows that keep what they say. Result: whether there was a file among them that has been read before.
local function keepBelow(self, folder)
  local hadFiles = false
  while self.row and isAtOrBelow(self.row.path, folder) do
    hadFiles = hadFiles or self.row.digest ~= nil
    step(self)
  end
  return hadFiles
end

-- The row of a file of the current folder; nil when there is none. Most often it is the next one.
local function takeRow(self, name)
  while self.row and self.row.name ~= name and self.row.path == self.folder
    and (not self.row.name or bytewise.IsBefore(self.row.name, name)) do
    passRow(self)
  end
  local row = self.row
  if row and row.name == name and row.path == self.folder then
    step(self)
    return row
  end
  return nil
end

-- The folder that was entered last is left. Unless it could not be listed, it belongs into the baseline.
local function settle(self)
  if self.isUnsettled then
    self.isUnsettled = false
    self.record:Folder(self.folder, self.isLinked)
  end
end

-- What is new below a folder that the baseline does not have: "added" or "taken".
local function changeInNewFolder(self, path, depth)
  if depth == 0 then
    return not self.isLinked and self.known:IsCovered(path) and "added" or "taken"
  end
  local parent = paths.WithSlash(paths.Parent(path))
  local inherited = self.changes[depth - 1]
  if inherited == "added" and self.known:IsPlaceholder(parent, paths.Name(path)) then
    return "taken"
  end
  return inherited
end

local function start(self, folder)
  self.next = self.known:Rows(folder)
  self.changes = {} -- by depth: what a file without a row is
  self.unreadable = {} -- paths of entries, as keys; they may be folders
  self.kept, self.gone = nil, nil
  step(self)
end

-- The methods of a listener.

function compare:Folder(path, depth)
  if depth == 0 then
    start(self, path)
  else
    settle(self)
  end
  local folder = paths.WithSlash(path)
  passUntil(self, folder)
  local isKnown = self.row ~= nil and self.row.path == folder
  self.folder, self.depth = folder, depth
  self.isLinked = depth == 0 and self.options.isLinked(path)
  self.isUnsettled = not isKnown or (self.row.linked == 1) ~= self.isLinked
  self.changes[depth] = isKnown and "added" or changeInNewFolder(self, path, depth)
end

function compare:File(path, found)
  local name = path:sub(#self.folder + 1)
  local row = takeRow(self, name)
  local change = self.changes[self.depth]
  local judgement, attributes
  if row and row.digest then
    if row.digest == found.digest and row.size == found.size and row.mode == found.mode and row.uid == found.uid
      and row.gid == found.gid then
      return
    end
    judgement = self.options.judge(path)
    attributes = findDifferences(row, found, judgement.watch)
    change = #attributes > 0 and "changed" or "refreshed"
  elseif row then
    change = "taken"
  elseif change == "added" then
    judgement, attributes = self.options.judge(path), policy.Attributes
  end
  note(self, change, self.folder, name, {
    old = row and row.digest and row,
    new = found,
    attributes = attributes,
    severity = judgement and judgement.severity,
  })
end

function compare:Unreadable(path, _, isGone)
  local folder = paths.WithSlash(path)
  if folder ~= self.folder then -- an entry of the current folder
    local name = path:sub(#self.folder + 1)
    self.unreadable[path] = true
    if not takeRow(self, name) and self.changes[self.depth] == "taken" then
      note(self, "seen", self.folder, name)
    end
    return
  end
  self.isUnsettled = false
  if not isGone then -- else its rows are passed, but it stays a folder of the baseline: what comes back is added
    keepBelow(self, folder)
  end
  if self.changes[self.depth] == "taken" and self.depth > 0 then
    note(self, "seen", paths.WithSlash(paths.Parent(path)), paths.Name(path))
  end
end

function compare:LeftOut(path)
  local name = path:sub(#self.folder + 1)
  if not takeRow(self, name) then
    note(self, "seen", self.folder, name)
  end
end

function compare:FolderLeftOut(path, isKernel)
  local folder = paths.WithSlash(path)
  passUntil(self, folder)
  note(self, "seen", paths.WithSlash(paths.Parent(path)), paths.Name(path))
  if keepBelow(self, folder) and isKernel then
    self.options.hidden(path)
  end
end

function compare:Done()
  settle(self)
  while self.row do
    passRow(self)
  end
end

return compare

-- monitor.walk: visits every regular file below a folder, and tells of everything that cannot be visited.
--
-- Symbolic links are never followed, not even one that takes a folder's place while the walk is under way:
-- every folder is held open while its entries are visited through it, and is the one that was seen before.
-- Any depth: no recursion, no limit on the length of a path, one folder open at a time.
-- Memory grows with the listings of the folders between the root and the current one, not with the files.
local stat = require("posix.sys.stat")
local descriptor = require("vel.descriptor")

local walk = {}

local function join(folder, name)
  return (folder == "/" and "" or folder) .. "/" .. name
end

-- Opens the folder that LinkStatus saw as `expected`; nil and a reason when that is no longer possible.
local function openFolder(path, expected)
  local fd, reason = descriptor.Open(path)
  if not fd then
    return nil, reason
  end
  local status
  status, reason = descriptor.Status(fd)
  if status and not descriptor.IsSame(status, expected) then
    reason = "replaced during the scan"
  elseif status then
    return fd
  end
  descriptor.Close(fd)
  return nil, reason
end

-- Visits the files directly in the open folder. Result: its subfolders in order, { name, status } each;
-- nil and a reason when it cannot be listed.
local function visitFiles(fd, folder, visitor)
  local names, reason = descriptor.List(fd)
  if not names then
    return nil, reason
  end

  local subfolders = {}
  local here = descriptor.Path(fd) .. "/"
  for _, name in ipairs(names) do
    local reach = here .. name
    local status, problem = descriptor.LinkStatus(reach)
    if not status then
      visitor.Unreadable(join(folder, name), problem)
    elseif stat.S_ISDIR(status.st_mode) ~= 0 then
      subfolders[#subfolders + 1] = { name = name, st_dev = status.st_dev, st_ino = status.st_ino }
    elseif stat.S_ISREG(status.st_mode) ~= 0 then
      visitor.File(join(folder, name), reach, status)
    end -- links, fifos, sockets and devices have no content to look at
  end
  return subfolders
end

-- The reason why `path` is not a folder to start from, or nil and its status.
local function examineRoot(path)
  local status, reason = descriptor.LinkStatus(path)
  if not status then
    return reason
  elseif stat.S_ISLNK(status.st_mode) ~= 0 then
    return "symbolic links are not followed"
  elseif stat.S_ISDIR(status.st_mode) == 0 then
    return "not a folder"
  end
  return nil, status
end

-- Walks `root`, folders before what is below them, the files of a folder before its subfolders,
-- each in the order of their bytes. `visitor` is a table of functions:
--   Folder(path, depth)         the walk enters a folder; 0 is the root. Whatever follows belongs to it.
--   File(path, reach, status)   a regular file. `path` is for people; `reach` opens it, for the time of
--                               this call only; `status` is what it has to be when opened.
--   Unreadable(path, reason)    an entry, or the folder just entered, that cannot be read
-- Result: false when the root itself could not be read, else true.
function walk.Walk(root, visitor)
  -- One level per folder between the root and the current one: what is still to visit at that depth.
  local levels = {}

  local function enter(path, expected)
    visitor.Folder(path, #levels)
    local fd, reason = openFolder(path, expected)
    local subfolders
    if fd then
      subfolders, reason = descriptor.Use(fd, visitFiles, path, visitor)
    end
    if not subfolders then
      visitor.Unreadable(path, reason)
      return false
    end
    levels[#levels + 1] = { path = path, subfolders = subfolders, visited = 0 }
    return true
  end

  local reason, status = examineRoot(root)
  if reason then
    visitor.Folder(root, 0)
    visitor.Unreadable(root, reason)
    return false
  end
  if not enter(root, status) then
    return false
  end
  while #levels > 0 do
    local level = levels[#levels]
    level.visited = level.visited + 1
    local subfolder = level.subfolders[level.visited]
    if subfolder then
      enter(join(level.path, subfolder.name), subfolder)
    else
      levels[#levels] = nil
    end
  end
  return true
end

return walk

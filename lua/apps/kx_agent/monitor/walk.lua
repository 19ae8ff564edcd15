-- monitor.walk: visits every regular file below a folder, and tells of everything that cannot be visited.
--
-- Symbolic links are never followed, but for one that is named as the root: that one is meant. Not even one that takes
-- a folder's place while the walk is under way is followed: every folder is held open while its entries are visited
-- through it, and is the one that was seen before.
-- The kernel's own file systems are left out unless the root lies in one: their files have no end, or no content.
-- Any depth: no recursion, no limit on the length of a path, one folder open at a time.
-- Memory grows with the listings of the folders between the root and the current one, not with the files.
local bytewise = require("vel.bytewise")
local descriptor = require("vel.descriptor")

local walk = {}

local function join(folder, name)
  return (folder == "/" and "" or folder) .. "/" .. name
end

-- Devices of the kernel's own file systems, as keys, where they are mounted.
local kernelDevices
local function findKernelDevices()
  local devices = {}
  local top = descriptor.LinkStatus("/")
  for _, path in ipairs({ "/proc", "/sys" }) do
    local status = descriptor.LinkStatus(path)
    if status and top and status.st_dev ~= top.st_dev then
      devices[status.st_dev] = true
    end
  end
  return devices
end

-- Whether a walk from `root` passes by a folder of this status: the kernel's file systems, unless the root is in one.
function walk.IsLeftOut(status, root)
  kernelDevices = kernelDevices or findKernelDevices()
  if not kernelDevices[status.st_dev] then
    return false
  end
  local start = descriptor.TargetStatus(root)
  return not start or start.st_dev ~= status.st_dev
end

-- Opens the folder that was seen as `expected`; nil and a reason when that is no longer possible.
local function openFolder(reach, expected)
  local fd, reason = descriptor.Open(reach)
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

local function includeAll() end

-- Visits the files directly in the open folder. Result: its subfolders, each with its name, device and inode, and
-- whether it is excluded, in the order of their names with a slash behind; nil and a reason when it cannot be listed.
local function visitFiles(fd, folder, visitor)
  local names, reason = descriptor.List(fd)
  if not names then
    return nil, reason
  end

  local excludes = visitor.Excludes or includeAll
  local subfolders, byName = {}, {}
  local here = descriptor.Path(fd) .. "/"
  for _, name in ipairs(names) do
    local path, reach = join(folder, name), here .. name
    local status, problem = descriptor.LinkStatus(reach)
    local kind = status and descriptor.Kind(status)
    local excluded = excludes(path, name, status)
    if kind == "folder" then
      name = name .. "/"
      subfolders[#subfolders + 1] = name
      byName[name] = { path = path, st_dev = status.st_dev, st_ino = status.st_ino, excluded = excluded }
    elseif excluded and (kind == "file" or not status) then
      visitor.LeftOut(path)
    elseif kind == "file" then
      visitor.File(path, reach, status)
    elseif not status then
      visitor.Unreadable(path, problem)
    end -- links, fifos, sockets and devices have no content to look at
  end

  bytewise.Sort(subfolders)
  for index, name in ipairs(subfolders) do
    subfolders[index] = byName[name]
  end
  return subfolders
end

-- The reason why `path` is not a folder to start from, and whether that is because there is none of that name now;
-- or nil and its status.
local function examineRoot(path)
  local status, reason, code = descriptor.TargetStatus(path)
  if not status then
    return reason, descriptor.IsAbsence(code)
  elseif descriptor.Kind(status) ~= "folder" then
    return "not a folder", true
  end
  return nil, status
end

-- Walks `root`, folders before what is below them, the files of a folder before its subfolders. Files come in the order
-- of the bytes of their names, folders in that of their paths with a slash behind: "a.b/" before "a/" and "a/c/".
-- `visitor` is a table of functions:
--   Folder(path, depth)         the walk enters a folder; 0 is the root. Whatever follows belongs to it.
--   File(path, reach, status)   a regular file. `path` is for people; `reach` opens it, for the time of
--                               this call only; `status` is what it has to be when opened.
--   Unreadable(path, reason, isGone)  an entry, or the folder just entered, that cannot be read. isGone: there is no
--                               folder of that name; said of the root only.
--   Excludes(path, name, status)  optional: whether to pass by an entry; status is nil when that cannot be read. Asked
--                               for all entries of a folder after Folder() told of it.
--   LeftOut(path)               a file that was passed by, where File would have been called
--   FolderLeftOut(path, isKernel)  a folder that was passed by, where Folder would have been called. isKernel: not
--                               excluded, but one of the kernel's own
-- Result: false when the root itself could not be read, else true.
function walk.Walk(root, visitor)
  -- One level per folder between the root and the current one: what is still to visit at that depth.
  local levels = {}

  local function enter(path, reach, expected)
    visitor.Folder(path, #levels)
    local fd, reason = openFolder(reach, expected)
    local subfolders
    if fd then
      subfolders, reason = descriptor.Use(fd, visitFiles, path, visitor)
    end
    if not subfolders then
      visitor.Unreadable(path, reason)
      return false
    end
    levels[#levels + 1] = { subfolders = subfolders, visited = 0 }
    return true
  end

  local function visitFolder(subfolder)
    if subfolder.excluded then
      visitor.FolderLeftOut(subfolder.path, false)
    elseif walk.IsLeftOut(subfolder, root) then
      visitor.FolderLeftOut(subfolder.path, true)
    else
      enter(subfolder.path, subfolder.path, subfolder)
    end
  end

  local reason, detail = examineRoot(root)
  if reason then
    visitor.Folder(root, 0)
    visitor.Unreadable(root, reason, detail)
    return false
  end
  if not enter(root, root .. "/.", detail) then -- the "." leads through a link
    return false
  end
  while #levels > 0 do
    local level = levels[#levels]
    level.visited = level.visited + 1
    local subfolder = level.subfolders[level.visited]
    if subfolder then
      visitFolder(subfolder)
    else
      levels[#levels] = nil
    end
  end
  return true
end

return walk

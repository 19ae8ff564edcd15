-- vel.private_file: folders and files of our own that nobody else may look at or put something in the place of.
--
-- A symbolic link in the last component is never followed. Errors: false and a reason.
--
-- Tested by: tests/lua/vel_private_file_test.lua.
local errno = require("posix.errno")
local fcntl = require("posix.fcntl")
local stat = require("posix.sys.stat")
local unistd = require("posix.unistd")
local descriptor = require("vel.descriptor")
local paths = require("vel.path")

local private_file = {}

local folderMode = 448 -- 0700
local fileMode = 384 -- 0600

-- Restricts what is there already, if it is what it should be.
-- status: its LinkStatus; kind: "folder" or "file"
local function restrict(path, status, kind, mode)
  if descriptor.Kind(status) ~= kind then
    return false, kind == "file" and "not a regular file" or "not a folder"
  elseif status.st_uid ~= unistd.geteuid() then
    return false, "it belongs to another user"
  elseif kind == "file" and status.st_nlink > 1 then
    return false, "it has more than one name"
  elseif status.st_mode % 4096 ~= mode then
    local result, _, code = stat.chmod(path, mode)
    if result == nil then
      return false, (errno.errno(code))
    end
  end
  return true
end

-- Makes the folder and the ones above it that are missing, all with mode 0700, or restricts the folder to that.
function private_file.MakeFolder(path)
  local parent = paths.Parent(path)
  if parent and not descriptor.TargetStatus(parent) then
    local made, reason = private_file.MakeFolder(parent)
    if not made then
      return false, reason
    end
  end
  local result, _, code = stat.mkdir(path, folderMode)
  if result == nil and code ~= errno.EEXIST then
    return false, (errno.errno(code))
  end
  local status, reason = descriptor.LinkStatus(path)
  if not status then
    return false, reason
  end
  return restrict(path, status, "folder", folderMode)
end

-- Restricts the file to mode 0600, if there is one.
function private_file.RestrictFile(path)
  local status, reason, code = descriptor.LinkStatus(path)
  if status then
    return restrict(path, status, "file", fileMode)
  elseif descriptor.IsAbsence(code) then
    return true
  end
  return false, reason
end

-- Makes an empty file with mode 0600, or restricts the file to that.
function private_file.MakeFile(path)
  local fd, _, code = fcntl.open(path, fcntl.O_WRONLY + fcntl.O_CREAT + fcntl.O_EXCL + fcntl.O_CLOEXEC, fileMode)
  if fd then
    descriptor.Close(fd)
  elseif code ~= errno.EEXIST then
    return false, (errno.errno(code))
  end
  return private_file.RestrictFile(path)
end

return private_file

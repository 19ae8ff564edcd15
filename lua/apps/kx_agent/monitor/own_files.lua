-- monitor.own_files: the agent's own files, which change with every run.
--
-- They are told by device and inode, under whatever path they are found. That is more than tidiness for the databases:
-- a process that closes any descriptor of a file loses its locks on it (POSIX, fcntl()), so hashing a database that
-- this process has open would let another process write to it.
local descriptor = require("vel.descriptor")

local own_files = {}
own_files.__index = own_files

local function remember(set, path)
  local status = descriptor.LinkStatus(path)
  if status then
    set[status.st_ino] = set[status.st_ino] or {}
    set[status.st_ino][status.st_dev] = true
  end
end

-- paths: array of files and folders; those that are missing do not count
function own_files.New(paths)
  local set = {}
  for _, path in ipairs(paths) do
    remember(set, path)
  end
  return setmetatable({ set = set }, own_files)
end

-- status: as of vel.descriptor
function own_files:Has(status)
  local devices = self.set[status.st_ino]
  return devices ~= nil and devices[status.st_dev] == true
end

return own_files

-- vel.descriptor: opening and reading what lies on a disk that somebody else may be changing.
--
-- luaposix has no fstat, openat or fdopendir. /proc/self/fd/N stands in for them: it names the very object that
-- descriptor N holds, whatever has happened to its path since. Tested on Linux; Solaris documents the same in proc(4).
-- Without /proc every call here fails with its reason; there is no quieter way out.
--
-- Errors: nil, the system's reason ("Permission denied") and its number, see IsAbsence. A call that a signal interrupts
-- is repeated.
local dirent = require("posix.dirent")
local errno = require("posix.errno")
local fcntl = require("posix.fcntl")
local stat = require("posix.sys.stat")
local unistd = require("posix.unistd")
local bytewise = require("vel.bytewise")

local descriptor = {}

-- Longest path handed to the system in one piece; below PATH_MAX everywhere (1024 on Solaris, 4096 on Linux).
local longestPath = 1000

-- O_NONBLOCK: opening a fifo, or a device that took a file's place, must not hang. A name that is absent from
-- this build of luaposix (O_NOFOLLOW is, so far) is left out; IsSame is the check that does not depend on it.
local openFlags = 0
for _, name in ipairs({ "O_RDONLY", "O_NOFOLLOW", "O_NONBLOCK", "O_CLOEXEC", "O_NOCTTY" }) do
  openFlags = openFlags + (fcntl[name] or 0)
end

local function retry(call, ...)
  local result, _, code
  repeat
    result, _, code = call(...)
  until result ~= nil or code ~= errno.EINTR
  if result == nil then
    return nil, errno.errno(code) -- the text and the number
  end
  return result
end

-- Whether the number of an error says that there is nothing of that name, rather than that it could not be looked at.
function descriptor.IsAbsence(code)
  return code == errno.ENOENT or code == errno.ENOTDIR
end

-- Few descriptors come and go for many thousand files; making these texts each time would be felt.
local paths = {}

-- The path that leads to what the descriptor holds; below an open folder, Path(fd) .. "/" .. name.
function descriptor.Path(fd)
  local path = paths[fd]
  if not path then
    path = ("/proc/self/fd/%d"):format(fd)
    paths[fd] = path
  end
  return path
end

-- Opens for reading, without waiting; the caller closes. May still be a fifo, a device or, through a link, a file
-- that was not meant: compare Status with what was expected. A path of any length will do.
function descriptor.Open(path)
  local folder
  while #path > longestPath do
    local head = path:sub(1, longestPath):match("^(.+)/")
    if not head then
      break -- a single name that long: the system says what it thinks of it
    end
    local rest = path:sub(#head + 2)
    local fd, reason, code = retry(fcntl.open, head, openFlags)
    if folder then
      descriptor.Close(folder)
    end
    if not fd then
      return nil, reason, code
    end
    folder = fd
    path = descriptor.Path(fd) .. "/" .. rest
  end
  local fd, reason, code = retry(fcntl.open, path, openFlags)
  if folder then
    descriptor.Close(folder)
  end
  return fd, reason, code
end

-- What the descriptor holds, with the fields of lstat.
function descriptor.Status(fd)
  return retry(stat.stat, descriptor.Path(fd))
end

-- What the path names, a symbolic link itself included.
function descriptor.LinkStatus(path)
  return retry(stat.lstat, path)
end

-- What the path leads to, through symbolic links.
function descriptor.TargetStatus(path)
  return retry(stat.stat, path)
end

-- What kind of thing an answer of the functions above is about: "folder", "file" for a regular one, else nil. Several
-- times quicker than the system's own S_ISDIR() and S_ISREG() through luaposix, for each of many thousand files.
local kinds = { [stat.S_IFDIR] = "folder", [stat.S_IFREG] = "file" }
function descriptor.Kind(status)
  return kinds[bit32.band(status.st_mode, stat.S_IFMT)]
end

-- Do two answers of the functions above mean the same file or folder?
function descriptor.IsSame(one, other)
  return one.st_dev == other.st_dev and one.st_ino == other.st_ino
end

-- Up to `size` bytes; "" at the end.
function descriptor.Read(fd, size)
  return retry(unistd.read, fd, size)
end

-- The names in an open folder without "." and "..", sorted bytewise.
function descriptor.List(fd)
  local opened, all, reason, code
  repeat
    -- luaposix does not tell the end of a folder from a failure to read on; errno does, when it is 0 before.
    errno.set_errno(0)
    opened, all = pcall(dirent.dir, descriptor.Path(fd))
    reason, code = errno.errno()
  until code ~= errno.EINTR
  if code ~= 0 then
    return nil, reason, code
  end
  if not opened then
    error(all, 0) -- not the system's doing
  end

  local names = {}
  for _, name in ipairs(all) do
    if name ~= "." and name ~= ".." then
      names[#names + 1] = name
    end
  end
  bytewise.Sort(names)
  return names
end

-- A descriptor is closed whatever close() says; there is nothing to repeat and nothing written to lose.
function descriptor.Close(fd)
  unistd.close(fd)
end

local function finish(fd, succeeded, ...)
  descriptor.Close(fd)
  if not succeeded then
    error((...), 0)
  end
  return ...
end

-- Calls action(fd, ...), closes the descriptor also when that raises an error, and hands on the results.
function descriptor.Use(fd, action, ...)
  return finish(fd, pcall(action, fd, ...))
end

return descriptor

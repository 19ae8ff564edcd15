-- monitor.scan: walks the folders, hashes the files, and tells every listener.
--
-- A listener is an object with any of these methods; whoever wants to know more about a scan becomes one more listener:
--   Folder(path, depth)          the scan enters a folder; depth 0 is a folder that was named, 1 is directly below
--   File(path, found)            a file of the folder entered last was read to its end; found = { digest =, size =
--                                bytes that were read, mode = permission bits, uid =, gid = }
--   Unreadable(path, reason, isGone)  a file of that folder, or the folder itself, could not be read; isGone: see
--                                monitor.walk
--   LeftOut(path)                a file of that folder was passed by
--   FolderLeftOut(path, isKernel)  a folder was passed by
--   Read(bytes)                  so many bytes more of some file were read
--   Done(folder)                 the scan of a folder that was named is over
-- A listener that raises an error ends the scan; nothing stays open.
local digest = require("monitor.digest")
local walk = require("monitor.walk")

local scan = {}

local events = { "Folder", "File", "Unreadable", "LeftOut", "FolderLeftOut", "Read", "Done" }

-- For each event, a function that tells it to those who have a method for it.
local function newTellers(listeners)
  local tell = {}
  for _, event in ipairs(events) do
    local concerned = {}
    for _, listener in ipairs(listeners) do
      if listener[event] then
        concerned[#concerned + 1] = listener
      end
    end
    tell[event] = function(...)
      for index = 1, #concerned do
        local listener = concerned[index]
        listener[event](listener, ...)
      end
    end
  end
  return tell
end

-- Scans each folder in the given order. `excludes` is Excludes of monitor.walk, nil to exclude nothing.
-- Result: true when every one of them could be listed.
function scan.Run(folders, listeners, excludes)
  local tell = newTellers(listeners)
  local visitor = {
    Folder = tell.Folder,
    Unreadable = tell.Unreadable,
    LeftOut = tell.LeftOut,
    FolderLeftOut = tell.FolderLeftOut,
    Excludes = excludes,
  }

  function visitor.File(path, reach, status)
    local hex, detail = digest.HashFile(reach, status, tell.Read)
    if hex then
      local found = {
        digest = hex,
        size = detail,
        mode = status.st_mode % 4096, -- 07777: set-id bits and sticky bit included
        uid = status.st_uid,
        gid = status.st_gid,
      }
      tell.File(path, found)
    else
      tell.Unreadable(path, detail)
    end
  end

  local allRead = true
  for _, folder in ipairs(folders) do
    allRead = walk.Walk(folder, visitor) and allRead
    tell.Done(folder)
  end
  return allRead
end

return scan

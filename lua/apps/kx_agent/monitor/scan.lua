-- monitor.scan: walks the folders, hashes the files, and tells every listener.
--
-- A listener is an object with any of these methods; whoever wants to know more about a scan
-- (a progress display, a comparison with an earlier scan) becomes one more listener:
--   Folder(path, depth)          the scan enters a folder; depth 0 is a folder that was named, 1 is directly below
--   File(path, bytes, digest)    a file of the folder entered last was read to its end
--   Unreadable(path, reason)     a file of that folder, or the folder itself, could not be read
local digest = require("monitor.digest")
local walk = require("monitor.walk")

local scan = {}

-- Scans each folder in the given order. Result: true when every one of them could be listed.
function scan.Run(folders, listeners)
  local function tell(event, ...)
    for _, listener in ipairs(listeners) do
      if listener[event] then
        listener[event](listener, ...)
      end
    end
  end

  local visitor = {}

  function visitor.Folder(path, depth)
    tell("Folder", path, depth)
  end

  function visitor.File(path, reach, status)
    local hex, detail = digest.HashFile(reach, status)
    if hex then
      tell("File", path, detail, hex)
    else
      tell("Unreadable", path, detail)
    end
  end

  function visitor.Unreadable(path, reason)
    tell("Unreadable", path, reason)
  end

  local allRead = true
  for _, folder in ipairs(folders) do
    allRead = walk.Walk(folder, visitor) and allRead
  end
  return allRead
end

return scan

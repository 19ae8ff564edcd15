-- monitor.tally: counts a scan by folder. A listener of monitor.scan; pure.
--
-- One row for the files directly in each named folder, and one for each of its subfolders with all that is
-- below it. A folder that is named twice, or lies below another one that is named, is counted each time.
local tally = {}
tally.__index = tally

local function newRow(folder)
  return { folder = folder, files = 0, bytes = 0, unreadable = 0 }
end

function tally.New()
  return setmetatable({ rows = {}, total = newRow(nil) }, tally)
end

local function count(self, field, amount)
  local row = self.rows[#self.rows]
  row[field] = row[field] + amount
  self.total[field] = self.total[field] + amount
end

-- Deeper folders go into the row of the subfolder that holds them, which was entered before.
function tally:Folder(path, depth)
  if depth <= 1 then
    self.rows[#self.rows + 1] = newRow(path)
  end
end

function tally:File(_, bytes)
  count(self, "files", 1)
  count(self, "bytes", bytes)
end

function tally:Unreadable()
  count(self, "unreadable", 1)
end

-- Array of { folder =, files =, bytes =, unreadable = }, in the order of the scan.
function tally:Rows()
  return self.rows
end

-- The same numbers for the whole scan, without a folder.
function tally:Total()
  return self.total
end

return tally

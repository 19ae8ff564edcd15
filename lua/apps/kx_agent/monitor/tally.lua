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
    local row = newRow(path)
    row.isNamed = depth == 0
    self.rows[#self.rows + 1] = row
  end
end

function tally:File(_, found)
  count(self, "files", 1)
  count(self, "bytes", found.size)
end

function tally:Unreadable()
  count(self, "unreadable", 1)
end

-- Array of { folder =, files =, bytes =, unreadable = }, in the order of the scan. Subfolders in which nothing was
-- found are left out; a named folder never is.
function tally:Rows()
  local rows = {}
  for _, row in ipairs(self.rows) do
    if row.isNamed or row.files + row.unreadable > 0 then
      rows[#rows + 1] = { folder = row.folder, files = row.files, bytes = row.bytes, unreadable = row.unreadable }
    end
  end
  return rows
end

-- The same numbers for the whole scan, without a folder.
function tally:Total()
  return self.total
end

return tally

-- monitor.report: what a scan looks like to its reader. Pure: every function returns text.
local text = require("vel.text")

local report = {}

local columns = {
  { title = "folder", align = "left" },
  { title = "files", align = "right" },
  { title = "bytes", align = "right" },
  { title = "unreadable", align = "right" },
}

local function cells(label, counts)
  return { label, text.Thousands(counts.files), text.Thousands(counts.bytes), text.Thousands(counts.unreadable) }
end

local function plural(number, noun)
  return text.Thousands(number) .. " " .. noun .. (number == 1 and "" or "s")
end

-- As sha256sum prints it, with its mark for an escaped name: a backslash before the digest. More names are escaped
-- here than there (all that text.Printable does not show as they are). No line feed.
function report.DigestLine(path, digest)
  local printable = text.Printable(path)
  return (printable == path and "" or "\\") .. digest .. "  " .. printable
end

-- No line feed.
function report.UnreadableLine(path, reason)
  return ("unreadable: %s: %s"):format(text.Printable(path), reason)
end

-- rows, total: as monitor.tally gives them. Text with a line feed after every line.
function report.Table(rows, total)
  local lines = {}
  for index, row in ipairs(rows) do
    lines[index] = cells(text.Printable(row.folder), row)
  end
  return text.Table(columns, lines, cells("total", total))
end

-- The whole scan in one line, without a line feed. MB are millions of bytes.
function report.Summary(folderCount, total, seconds)
  local rate = seconds > 0 and total.bytes / 1e6 / seconds or 0
  return ("%s: %s, %s, %s unreadable, %.2f s, %.1f MB/s"):format(
    plural(folderCount, "folder"),
    plural(total.files, "file"),
    plural(total.bytes, "byte"),
    text.Thousands(total.unreadable),
    seconds,
    rate
  )
end

return report

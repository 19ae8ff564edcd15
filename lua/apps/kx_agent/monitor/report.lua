-- monitor.report: what a scan looks like to its reader. Pure: every function returns text.
local text = require("vel.text")
local events = require("monitor.events")
local policy = require("monitor.policy")

local report = {}

local folderColumns = {
  { title = "folder", align = "left" },
  { title = "files", align = "right" },
  { title = "bytes", align = "right" },
  { title = "unreadable", align = "right" },
}

local changeColumns = {
  { title = "change", align = "left" },
  { title = "content", align = "left" },
  { title = "size", align = "right" },
  { title = "mode", align = "left" },
  { title = "owner", align = "left" },
  { title = "path", align = "left", isOpen = true }, -- the last one, so that a long path disturbs nobody
}

local changeStyles = { added = "green", changed = "yellow", removed = "red" }

-- Digits of a digest in the table; the event has all of them.
local shownDigits = 12

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

local function folderCells(label, counts)
  return { label, text.Thousands(counts.files), text.Thousands(counts.bytes), text.Thousands(counts.unreadable) }
end

-- rows, total: as monitor.tally gives them. Text with a line feed after every line.
function report.FolderTable(rows, total)
  local lines = {}
  for index, row in ipairs(rows) do
    lines[index] = folderCells(text.Printable(row.folder), row)
  end
  return text.Table(folderColumns, lines, folderCells("total", total))
end

-- Texts of the four attributes of a file's state, "" for those that `shown` does not have.
local function stateCells(state, shown)
  local cells = {}
  for index, attribute in ipairs(policy.Attributes) do
    local cell = shown[attribute] and events.Show(state, attribute) or ""
    if attribute == "content" then
      cell = cell:sub(1, shownDigits)
    elseif attribute == "size" and cell ~= "" then
      cell = text.Thousands(state.size)
    end
    cells[index] = cell
  end
  return cells
end

local function changeRow(label, state, shown, path)
  local row = stateCells(state, shown)
  table.insert(row, 1, label)
  table.insert(row, path)
  return row
end

-- Calls take(row, style) for the lines of a change: of one with two states the second line has what is different now.
local function eachRow(change, take)
  local everything = {}
  for _, attribute in ipairs(policy.Attributes) do
    everything[attribute] = true
  end
  take(changeRow(change.change, change.old or change.new, everything, text.Printable(change.path)),
    changeStyles[change.change])
  if change.old and change.new then
    take(changeRow("  now", change.new, change.differs, ""))
  end
end

-- newChanges: gives an iterator over the changes of monitor.baseline, each time it is called
-- paint:      see vel.terminal
-- write:      takes the text piece by piece; nothing at all when there is no change
function report.WriteChangeTable(newChanges, paint, write)
  local layout = text.NewLayout(changeColumns)
  local isEmpty = true
  for change in newChanges() do
    isEmpty = false
    eachRow(change, function(row)
      layout:Widen(row)
    end)
  end
  if isEmpty then
    return
  end
  write(layout:Titles() .. layout:Rule())
  for change in newChanges() do
    eachRow(change, function(row, style)
      write(layout:Line(row, style and function(cell)
        return paint(style, cell)
      end))
    end)
  end
end

-- active: as monitor.rules gives it. No line feed.
function report.RulesLine(active)
  local names = {}
  for index, module in ipairs(active) do
    names[index] = ("%s (%s)"):format(text.Printable(module.module), text.Thousands(module.rules))
  end
  return "rules: " .. (#names > 0 and table.concat(names, ", ") or "none")
end

-- Of a folder with files that are new to the baseline without being added. No line feed.
function report.TakenLine(folder, files)
  return ("baseline taken: %s: %s"):format(text.Printable(folder), plural(files, "file"))
end

-- The whole scan in one line, without a line feed. MB are millions of bytes.
--
-- outcome: { folders = array, files =, bytes =, unreadable =, added =, changed =, removed =, seconds =,
--            isReset = boolean }
function report.Summary(outcome)
  local findings = outcome.isReset and "baseline reset"
    or ("%s added, %s changed, %s removed"):format(
      text.Thousands(outcome.added), text.Thousands(outcome.changed), text.Thousands(outcome.removed))
  local rate = outcome.seconds > 0 and outcome.bytes / 1e6 / outcome.seconds or 0
  return ("%s: %s, %s, %s, %s unreadable, %.2f s, %.1f MB/s"):format(
    plural(#outcome.folders, "folder"),
    plural(outcome.files, "file"),
    plural(outcome.bytes, "byte"),
    findings,
    text.Thousands(outcome.unreadable),
    outcome.seconds,
    rate
  )
end

return report

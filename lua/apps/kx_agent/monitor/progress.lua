-- monitor.progress: one line on a terminal about a scan that takes long. A listener of monitor.scan.
--
-- The line is rewritten in place, from one second on, ten times a second at most, and never wraps: the terminal is told
-- to cut it at its own right margin, whatever its width is at that moment.
local text = require("vel.text")

local progress = {}
progress.__index = progress

local firstAfter = 1 -- seconds
local atMostEvery = 0.1

-- What opening and closing a file costs, in bytes that could have been read in that time. Source: 20 microseconds a
-- file, 1.5 GB/s, measured on /usr/lib with a warm cache.
local bytesPerFile = 30000

-- Source: ECMA-48 (erase in line), and the DEC private mode 7 (automatic wrapping) that all terminals took over.
local lineStart, lineEnd = "\r\27[?7l", "\27[K\27[?7h"
local erase = "\r\27[K"

-- 90 is "1:30".
local function showDuration(seconds)
  local minutes = math.floor(seconds / 60)
  local rest = ("%02d"):format(seconds % 60)
  if minutes < 60 then
    return ("%d:%s"):format(minutes, rest)
  end
  return ("%d:%02d:%s"):format(minutes / 60, minutes % 60, rest)
end

-- counts:  { files =, bytes = } so far
-- totals:  the same, of an earlier run; nil when nothing is known
-- seconds: since the beginning
function progress.Line(counts, totals, seconds)
  local line = ("%s files, %s MB, %.1f MB/s"):format(
    text.Thousands(counts.files), text.Thousands(math.floor(counts.bytes / 1e6)), counts.bytes / 1e6 / seconds)
  if not totals then
    return line
  end
  local done = counts.bytes + counts.files * bytesPerFile
  local all = totals.bytes + totals.files * bytesPerFile
  if done == 0 or done >= all then
    return line
  end
  return ("%s, %s left"):format(line, showDuration(math.ceil(seconds * (all - done) / done)))
end

-- Whether there is somebody to look at it, on something that can rewrite a line.
function progress.IsWanted(isTerminal, getenv)
  return isTerminal and getenv("TERM") ~= "dumb"
end

-- write:  puts text on the terminal at once
-- now:    gives seconds
-- totals: see Line
function progress.New(write, now, totals)
  return setmetatable({
    write = write,
    now = now,
    totals = totals,
    counts = { files = 0, bytes = 0 },
    start = now(),
    due = now() + firstAfter,
    isShown = false,
  }, progress)
end

local function show(self)
  local now = self.now()
  if now < self.due then
    return
  end
  self.due = now + atMostEvery
  self.isShown = true
  self.write(lineStart .. progress.Line(self.counts, self.totals, now - self.start) .. lineEnd)
end

function progress:Read(bytes)
  self.counts.bytes = self.counts.bytes + bytes
  show(self)
end

function progress:File()
  self.counts.files = self.counts.files + 1
  show(self)
end

-- Makes room for other text; the line comes back when it is due.
function progress:Clear()
  if self.isShown then
    self.isShown = false
    self.write(erase)
  end
end

return progress

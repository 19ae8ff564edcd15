local lu = require("luaunit")
local progress = require("monitor.progress")

TestProgressLine = {}

function TestProgressLine.testWithoutAnEarlierRunThereIsNoTimeLeft()
  local line = progress.Line({ files = 1234, bytes = 5500000 }, nil, 2)
  lu.assertEquals(line, "1,234 files, 5 MB, 2.8 MB/s")
end

function TestProgressLine.testTimeLeft()
  local totals = { files = 0, bytes = 100e6 }
  local cases = {
    { 50e6, 10, "0:10" },
    { 1e6, 1, "1:39" },
    { 1e6, 60, "1:39:00" },
    { 99e6, 1, "0:01" },
  }
  for _, case in ipairs(cases) do
    local line = progress.Line({ files = 0, bytes = case[1] }, totals, case[2])
    lu.assertEquals(line:match(", ([%d:]+) left$"), case[3])
  end
end

function TestProgressLine.testSmallFilesCostTimeToo()
  local line = progress.Line({ files = 50, bytes = 0 }, { files = 100, bytes = 0 }, 3)
  lu.assertStrMatches(line, ".*, 0:03 left")
end

function TestProgressLine.testNoTimeLeftOnceThereIsMoreThanLastTime()
  for _, counts in ipairs({ { files = 10, bytes = 10 }, { files = 11, bytes = 10 }, { files = 0, bytes = 0 } }) do
    lu.assertNotStrContains(progress.Line(counts, { files = 10, bytes = 10 }, 3), "left")
  end
end

TestProgress = {}

-- A progress display with a clock of our own. Result: it, what it has written, and a function that sets the clock.
local function new(totals)
  local now, written = 100, {}
  local display = progress.New(function(text)
    written[#written + 1] = text
  end, function()
    return now
  end, totals)
  return display, written, function(seconds)
    now = 100 + seconds
  end
end

function TestProgress.testNothingInTheFirstSecond()
  local display, written, setClock = new()
  setClock(0.99)
  display:File()
  display:Read(10)
  display:Clear()
  lu.assertEquals(written, {})
end

function TestProgress.testOneLineInPlaceTenTimesASecondAtMost()
  local display, written, setClock = new()
  for step = 0, 2000 do
    setClock(step / 1000)
    display:Read(1000)
  end
  lu.assertTrue(#written == 10 or #written == 11, #written)
  for _, text in ipairs(written) do
    lu.assertStrMatches(text, "\r\27%[%?7l0 files, %d MB, 1%.0 MB/s\27%[K\27%[%?7h")
  end
end

function TestProgress.testFilesAreCounted()
  local display, written, setClock = new()
  display:File()
  setClock(1)
  display:File()
  lu.assertEquals(#written, 1)
  lu.assertStrContains(written[1], "2 files")
end

function TestProgress.testClearedOnlyWhereSomethingIsShown()
  local display, written, setClock = new()
  setClock(1)
  display:File()
  display:Clear()
  display:Clear()
  lu.assertEquals(#written, 2)
  lu.assertEquals(written[2], "\r\27[K")
  setClock(1.05)
  display:File()
  lu.assertEquals(#written, 2) -- not due yet
  setClock(1.2)
  display:File()
  lu.assertEquals(#written, 3)
end

function TestProgress.testWantedOnATerminalThatCanRewriteALine()
  local function environment(term)
    return function(name)
      return name == "TERM" and term or nil
    end
  end
  lu.assertTrue(progress.IsWanted(true, environment("xterm")))
  lu.assertTrue(progress.IsWanted(true, environment(nil)))
  lu.assertFalse(progress.IsWanted(true, environment("dumb")))
  lu.assertFalse(progress.IsWanted(false, environment("xterm")))
end

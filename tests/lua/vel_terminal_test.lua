local lu = require("luaunit")
local terminal = require("vel.terminal")

local function environment(variables)
  return function(name)
    return variables[name]
  end
end

TestWantsColour = {}

function TestWantsColour.testOnlyOnATerminalThatHasColoursForAReaderWhoWantsThem()
  local cases = {
    -- a terminal?, variables, coloured?
    { true, {}, true },
    { true, { TERM = "xterm" }, true },
    { true, { NO_COLOR = "" }, true },
    { true, { NO_COLOR = "1" }, false },
    { true, { NO_COLOR = "0" }, false },
    { true, { TERM = "dumb" }, false },
    { false, {}, false },
    { false, { TERM = "xterm" }, false },
    { false, { NO_COLOR = "1" }, false },
  }
  for _, case in ipairs(cases) do
    lu.assertIs(terminal.WantsColour(case[1], environment(case[2])), case[3], lu.prettystr(case))
  end
end

TestPainter = {}

function TestPainter.testSetsTheStyleAndTakesItBack()
  local paint = terminal.NewPainter(true)
  lu.assertEquals(paint("red", "stop"), "\27[31mstop\27[0m")
  lu.assertEquals(paint("bold", "two\nlines"), "\27[1mtwo\nlines\27[0m")
end

function TestPainter.testNothingStaysNothing()
  lu.assertEquals(terminal.NewPainter(true)("green", ""), "")
end

function TestPainter.testWithoutColoursTheTextIsAsItWas()
  lu.assertEquals(terminal.NewPainter(false)("yellow", "text"), "text")
end

function TestPainter.testStyleThatDoesNotExistIsAnErrorWithAndWithoutColours()
  for _, isColoured in ipairs({ true, false }) do
    lu.assertErrorMsgContains("no such style: loud", terminal.NewPainter(isColoured), "loud", "text")
  end
end

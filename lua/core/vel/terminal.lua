-- vel.terminal: colours for a person at a terminal, and plain text for everybody else.
--
-- Tested by: tests/lua/vel_terminal_test.lua.
local unistd = require("posix.unistd")

local terminal = {}

-- Source: ECMA-48, "select graphic rendition".
local codes = { bold = "1", green = "32", red = "31", yellow = "33" }

-- Whether a report may be coloured.
--
-- isTerminal  whether it goes to a terminal
-- getenv      os.getenv, or a function like it
--
-- NO_COLOR with any text in it forbids colours, and so does a terminal that says it has none.
-- Source: no-color.org.
function terminal.WantsColour(isTerminal, getenv)
  return isTerminal and (getenv("NO_COLOR") or "") == "" and getenv("TERM") ~= "dumb"
end

-- paint(style, text): the text in a style of the table above, "" unpainted. Without colours, the text as it is.
function terminal.NewPainter(isColoured)
  return function(style, text)
    local code = codes[style] or error("no such style: " .. tostring(style), 2)
    if not isColoured or text == "" then
      return text
    end
    return ("\27[%sm%s\27[0m"):format(code, text)
  end
end

-- The painter for what is written to standard output now.
function terminal.PainterOfStandardOutput()
  return terminal.NewPainter(terminal.WantsColour(unistd.isatty(unistd.STDOUT_FILENO) == 1, os.getenv))
end

return terminal

-- tests.velunit.junit: LuaUnit's JUnit report, as XML whatever is in names and messages.
local _ENV = require("tests.velunit.standard")

local text = require("vel.text")
local framework = require("tests.velunit.framework")

local junit = {}

local escape = framework.private.xmlEscape

-- An output class made of LuaUnit's class for JUnit, which escapes messages, but no names, and knows nothing of the
-- characters that XML does not have.
function junit.Derive(JUnitOutput)
  local Output = setmetatable({}, { __index = JUnitOutput })
  local metatable = { __index = Output }

  function Output.new(runner)
    return setmetatable(JUnitOutput.new(runner), metatable)
  end

  function Output:endSuite()
    for _, node in ipairs(self.result.allTests) do
      node.className = escape(text.ForXml(node.className))
      node.testName = escape(text.ForXml(node.testName))
      node.msg = node.msg and text.ForXml(node.msg)
      node.stackTrace = node.stackTrace and text.ForXml(node.stackTrace)
    end
    JUnitOutput.endSuite(self)
  end

  return Output
end

return junit

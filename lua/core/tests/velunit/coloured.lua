-- tests.velunit.coloured: LuaUnit's text report in colours. Without them it is the same, byte for byte.
local _ENV = require("tests.velunit.standard")

local framework = require("tests.velunit.framework")

local coloured = {}

local Status = framework.NodeStatus

local styles = {
  [Status.SUCCESS] = "green",
  [Status.SKIP] = "yellow",
  [Status.FAIL] = "red",
  [Status.ERROR] = "red",
}

-- An output class made of LuaUnit's class for text; paint as vel.terminal makes it.
function coloured.Derive(TextOutput, paint)
  local Output = setmetatable({}, { __index = TextOutput })
  local metatable = { __index = Output }

  function Output.new(runner)
    return setmetatable(TextOutput.new(runner), metatable)
  end

  local function isVerbose(output)
    return output.verbosity > framework.VERBOSITY_DEFAULT
  end

  function Output:startTest()
    if isVerbose(self) then
      io.stdout:write("    ", paint("bold", self.result.currentNode.testName), " ... ")
    end
  end

  function Output:endTest(node)
    local style = styles[node.status]
    if isVerbose(self) then
      print(paint(style, node:isSuccess() and "Ok" or node.status))
      if not node:isSuccess() then
        print(node.msg)
      end
    else
      io.stdout:write(paint(style, node:isSuccess() and "." or node.status:sub(1, 1)))
      io.stdout:flush()
    end
  end

  function Output.displayOneFailedTest(_, index, node)
    print(index .. ") " .. paint("bold", node.testName))
    print(paint("red", node.msg))
    print(node.stackTrace)
    print()
  end

  function Output:endSuite()
    print(isVerbose(self) and ("="):rep(57) or "")
    self:displayErroredTests()
    self:displayFailedTests()
    local style = self.result.notSuccessCount == 0 and "green" or "red"
    print(paint(style, framework.LuaUnit.statusLine(self.result)))
    if self.result.notSuccessCount == 0 then
      print(paint(style, "OK"))
    end
  end

  return Output
end

return coloured

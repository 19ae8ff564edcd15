-- tests.velunit.runner: runs a plan of tests through LuaUnit, script by script.
--
-- LuaUnit knows one list of tests and one setupSuite. Here each script has its surroundings, and a setupSuite and
-- teardownSuite of its own around its tests. What goes wrong in setupSuite or setupClass is what happens to every test
-- behind it; what goes wrong in teardownClass or teardownSuite is reported like a test.
local _ENV = require("tests.velunit.standard")

local framework = require("tests.velunit.framework")
local protected = require("tests.velunit.protected")
local surroundings = require("tests.velunit.surroundings")

local LuaUnit, Status = framework.LuaUnit, framework.NodeStatus

local runner = setmetatable({}, { __index = LuaUnit })
local metatable = { __index = runner }

-- Takes the settings of tests.velunit.options.
function runner.New(settings)
  local self = setmetatable({}, metatable)
  self.verbosity = settings.verbosity
  self.quitOnError = settings.quitOnError
  self.quitOnFailure = settings.quitOnFailure
  self.exeRepeat = settings.exeRepeat
  self:setOutputType(settings.output, settings.fname)
  return self
end

-- LuaUnit calls this for tests and for the functions around them. `verdict` is what befell a function around a test.
function runner:protectedCall(instance, call, name)
  io.stdout:flush() -- what is known is told, also when this call ends the process
  local isTest = self.result.currentNode ~= nil
  if isTest and self.verdict then
    return self.verdict
  end
  local remark = isTest and self.exeRepeat and ("iteration %d, "):format(self.currentCount) or ""
  if instance then
    return protected.Call(name, remark, call, instance)
  end
  return protected.Call(name, remark, call)
end

-- LuaUnit hands on here how a call has ended, also where there is no test that it could belong to.
function runner:updateStatus(outcome)
  if self.result.currentNode then
    LuaUnit.updateStatus(self, outcome)
  elseif outcome.status ~= Status.SUCCESS then
    self.failedHook = outcome
  end
end

-- Calls one of LuaUnit's functions that call a function around tests. Gives its outcome, nil after a success.
local function callHook(self, hook, ...)
  self.failedHook = nil
  hook(self, ...)
  return self.failedHook
end

-- Reports an outcome as that of a test.
local function report(self, class, name, outcome)
  self.result.currentClassName = class
  self:startTest(name)
  self:updateStatus(outcome)
  self:endTest()
end

local function reportTeardown(self, class, name, outcome)
  if outcome and outcome.status ~= Status.SKIP then
    report(self, class, name, outcome)
  end
end

function runner:setupClass(class, instance)
  self.verdict = self.scriptVerdict or callHook(self, LuaUnit.setupClass, class, instance)
end

-- Only what has been set up is torn down.
function runner:teardownClass(class, instance)
  if not self.verdict then
    reportTeardown(self, class, class .. ".teardownClass", callHook(self, LuaUnit.teardownClass, class, instance))
  end
  self.verdict = nil
end

local function callSuiteHook(self, script, name)
  local call = LuaUnit.asFunction(script.defined[name])
  self:updateStatus(call and self:protectedCall(nil, call, name) or { status = Status.SUCCESS })
end

local function runTests(self, script, tests)
  surroundings.PutBack(script.surroundings)
  self.scriptVerdict = callHook(self, callSuiteHook, script, "setupSuite")
  for _, test in ipairs(tests) do
    self:execOneFunction(test.class, test.method, test.instance, test.call)
    if self.result.aborted then
      break
    end
  end
  if self.lastClassName then
    self:endClass()
    self.lastClassName = nil
  end
  if not self.scriptVerdict then
    local outcome = callHook(self, callSuiteHook, script, "teardownSuite")
    reportTeardown(self, script.name, script.name .. ":teardownSuite", outcome)
  end
end

-- Runs a plan of tests.velunit.selection; `home` is what the surroundings are put back to after each script. Gives the
-- number of failures and errors; nil and a message when the report cannot be written.
function runner:Run(plan, home)
  local started, problem = pcall(self.startSuite, self, plan.selected, plan.others)
  if not started then
    return nil, problem
  end
  for _, part in ipairs(plan.parts) do
    if part.script.problem then
      report(self, part.script.name, part.script.name, part.script.problem)
    elseif #part.tests > 0 then
      runTests(self, part.script, part.tests)
      surroundings.PutBack(home)
    end
    if self.result.aborted then
      break
    end
  end
  self:endSuite()
  if self.result.aborted then
    print("LuaUnit ABORTED (as requested by --error or --failure option)")
  end
  return self.result.notSuccessCount
end

return runner

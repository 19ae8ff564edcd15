local lu = require("luaunit")
local stat = require("posix.sys.stat")
local stdlib = require("posix.stdlib")
local unistd = require("posix.unistd")
local bytewise = require("vel.bytewise")
local modules = require("vel.modules")

TestModules = {}

local function write(path, content)
  local file = assert(io.open(path, "w"))
  file:write(content or "")
  file:close()
end

function TestModules:setUp()
  self.path = package.path
  self.folder = stdlib.mkdtemp((os.getenv("TMPDIR") or "/tmp") .. "/vel_modules_test.XXXXXX")
  self.made = {}
  package.path = self.folder .. "/?.lua;" .. self.folder .. "/?/init.lua"
end

function TestModules:make(name, content)
  local folder = self.folder
  for part in name:gmatch("([^/]+)/") do
    folder = folder .. "/" .. part
    if stat.mkdir(folder) then
      table.insert(self.made, folder)
    end
  end
  local path = self.folder .. "/" .. name
  if name:sub(-1) ~= "/" then
    write(path, content)
    table.insert(self.made, path)
  end
end

function TestModules:tearDown()
  package.path = self.path
  for index = #self.made, 1, -1 do
    os.remove(self.made[index])
  end
  unistd.rmdir(self.folder)
end

function TestModules:testModulesBelowAPrefixAreSortedAndNamedByTheirLastPart()
  self:make("rules/b.lua")
  self:make("rules/B.lua")
  self:make("rules/a.lua")
  self:make("rules/deep/er.lua")
  self:make("rulesnot/x.lua")
  lu.assertEquals(modules.Below("rules"), { "B", "a", "b" })
  lu.assertEquals(modules.Below("rules.deep"), { "er" })
end

function TestModules:testFolderWithInitIsAModule()
  self:make("rules/pack/init.lua")
  self:make("rules/empty/")
  lu.assertEquals(modules.Below("rules"), { "pack" })
end

function TestModules:testWithoutAPrefixTheModulesWithoutADot()
  self:make("top.lua")
  self:make("sub/x.lua")
  self:make("sub/init.lua")
  local path = package.path
  package.path = ""
  local expected = modules.Below("") -- what the agent's archives have
  package.path = path
  table.insert(expected, "sub")
  table.insert(expected, "top")
  bytewise.Sort(expected)
  lu.assertEquals(modules.Below(""), expected)
end

function TestModules:testNamesThatRequireCannotReachAreLeftOut()
  self:make("rules/dotted.name.lua")
  self:make("rules/.lua")
  self:make("rules/text.txt")
  self:make("rules/folder.lua/")
  lu.assertEquals(modules.Below("rules"), {})
end

function TestModules:testEveryNameIsRequirable()
  self:make("rules/a.lua", "return 1")
  self:make("rules/pack/init.lua", "return 2")
  local sum = 0
  for _, name in ipairs(modules.Below("rules")) do
    sum = sum + require("rules." .. name)
    package.loaded["rules." .. name] = nil
  end
  lu.assertEquals(sum, 3)
end

function TestModules:testANameInSeveralPlacesIsListedOnce()
  self:make("one/rules/a.lua")
  self:make("two/rules/a.lua")
  package.path = self.folder .. "/one/?.lua;" .. self.folder .. "/two/?.lua;" .. self.folder .. "/none/?.lua"
  lu.assertEquals(modules.Below("rules"), { "a" })
end

function TestModules:testTemplatesOfOtherShapesArePassedOver()
  self:make("rules/a.lua")
  package.path = self.folder .. "/fixed.lua;;" .. self.folder .. "/?/?.lua;?"
  lu.assertEquals(modules.Below("rules"), {})
end

local lu = require("luaunit")
local periodic = require("vel.periodic")

-- A runnable whose time passes only while it waits or works, and which is asked to exit at a given time.
local function newWorld(exitAt)
  local world = { time = 1000, waits = {}, calls = {} }
  world.exitAt = world.time + exitAt

  function world.Now()
    return world.time
  end

  function world:TestDestroy(ms)
    if ms then
      table.insert(self.waits, ms)
      self.time = math.min(self.exitAt, self.time + ms / 1000)
    end
    return self.time >= self.exitAt
  end

  -- Work that takes so many seconds, the first time or always.
  function world.Work(seconds)
    return function()
      table.insert(world.calls, world.time - 1000)
      world.time = world.time + (type(seconds) == "table" and seconds[#world.calls] or seconds)
    end
  end

  return world
end

TestPeriodic = {}

function TestPeriodic.testTheFirstCallIsAtOnceAndTheOthersKeepTheBeat()
  local world = newWorld(7)
  periodic.Run(world, 2, world.Work(0.5), nil, world.Now)
  lu.assertEquals(world.calls, { 0, 2, 4, 6 })
  lu.assertEquals(world.waits, { 1500, 1500, 1500, 1500 })
end

function TestPeriodic.testNothingAddsUp()
  local world = newWorld(1000)
  periodic.Run(world, 0.1, world.Work(0.03), nil, world.Now)
  lu.assertEquals(#world.calls, 10000)
  for index, time in ipairs(world.calls) do
    lu.assertAlmostEquals(time, (index - 1) / 10, 0.002)
  end
end

function TestPeriodic.testBeatsThatFallIntoTheWorkAreLeftOut()
  local world = newWorld(20)
  periodic.Run(world, 2, world.Work({ 5, 2, 0, 4.5, 0, 0, 0 }), nil, world.Now)
  lu.assertEquals(world.calls, { 0, 6, 8, 10, 16, 18 })
end

function TestPeriodic.testWhoHasBeenAskedToExitDoesNotWork()
  local world = newWorld(0)
  periodic.Run(world, 2, world.Work(0), nil, world.Now)
  lu.assertEquals(world.calls, {})
end

function TestPeriodic.testAnExitRequestDuringTheWorkEndsTheLoop()
  local world = newWorld(1)
  periodic.Run(world, 2, world.Work(5), nil, world.Now)
  lu.assertEquals(world.calls, { 0 })
  lu.assertEquals(world.waits, {})
end

function TestPeriodic.testAWishIsGrantedWithinASecondAndTheBeatStays()
  local world = newWorld(25)
  local wishes = { 3.5, 3.6, 19.9 }
  periodic.Run(world, 10, world.Work(0.25), function()
    if wishes[1] and world.time - 1000 >= wishes[1] then
      table.remove(wishes, 1)
      return true
    end
    return false
  end, world.Now)
  lu.assertEquals(world.calls, { 0, 4.25, 4.5, 10, 20 }) -- one call is for the last wish and for the beat
  lu.assertEquals(math.max(table.unpack(world.waits)), 1000)
end

function TestPeriodic.testAnErrorOfTheWorkEndsTheLoop()
  local world = newWorld(25)
  lu.assertErrorMsgContains("broken", periodic.Run, world, 10, function()
    error("broken")
  end, nil, world.Now)
end

function TestPeriodic.testABeatHasToBeOne()
  for _, seconds in ipairs({ 0, -1, "5", 0 / 0, math.huge }) do
    lu.assertErrorMsgContains("seconds: a number above 0 expected", periodic.Run, newWorld(0), seconds, print)
  end
end

function TestPeriodic.testTheClockIsTheSystemsMonotonicOne()
  local calls = 0
  local runnable = {
    TestDestroy = function(_, ms)
      lu.assertTrue(ms == nil or ms <= 10)
      return calls == 3
    end,
  }
  periodic.Run(runnable, 0.01, function()
    calls = calls + 1
  end)
  lu.assertEquals(calls, 3)
end

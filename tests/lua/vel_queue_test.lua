local lu = require("luaunit")
local queue = require("vel.queue")

local queues -- the queue of the current test

TestQueue = {}

function TestQueue.setUp()
  queues = queue.Open("vel_queue_test", 3)
end

function TestQueue.tearDown()
  while queues:Pop(0) ~= nil do -- luacheck: ignore 542
  end
end

function TestQueue.testMessagesComeInOrderAsCopies()
  local message = { name = "a", list = { 1, true, "x" } }
  lu.assertTrue(queues:Push(message))
  message.name = "b"
  lu.assertTrue(queues:Push(false))
  lu.assertTrue(queues:Push("\0\255"))
  lu.assertEquals(queues:Pop(), { name = "a", list = { 1, true, "x" } })
  lu.assertIs(queues:Pop(), false)
  lu.assertEquals(queues:Pop(), "\0\255")
  lu.assertNil(queues:Pop(0))
end

function TestQueue.testANameIsAQueueForEverybody()
  queue.Open("vel_queue_test"):Push(7)
  lu.assertNil(queue.Open("vel_queue_test.other"):Pop(0))
  lu.assertEquals(queues:Pop(0), 7)
end

function TestQueue.testAFullQueueTakesNoMore()
  for number = 1, 3 do
    lu.assertTrue(queues:Push(number, 0))
  end
  lu.assertFalse(queues:Push(4, 0))
  lu.assertFalse(queues:Push(4, 10))
  queue.Open("vel_queue_test", 4)
  lu.assertTrue(queues:Push(4, 0))
end

function TestQueue.testWhatCannotBeHandedOverIsAnArgumentError()
  lu.assertErrorMsgContains("bad argument #1 to 'Push'", queues.Push, queues, print)
  lu.assertErrorMsgContains("bad argument #1 to 'Push'", queues.Push, queues, nil)
  lu.assertErrorMsgContains("limit out of range", queue.Open, "vel_queue_test", 0)
end

-- vel.queue: messages between runnables, and between them and the application's own thread.
--
-- A queue has a name; whoever opens it by this name has the same one. It is there as long as somebody has it open, or
-- something is in it. Messages are strings, booleans, numbers, and tables of these and of such tables, up to 100 deep
-- and 64 MiB in all. They arrive as copies, in the order in which they were pushed, each at one receiver.
--
--   queue:Push(message [, ms])  appends the message; while the queue is full, waits for room, up to `ms` milliseconds.
--                               Result: false when there was none.
--   queue:Pop([ms])             takes the first message; while there is none, waits for one, up to `ms` milliseconds.
--                               Result: nil when none has come.
--
-- Without `ms`, and with math.huge, a wait has no limit but this one: an exit request ends the waits of the runnable
-- that it is for. Messages that are there can still be taken then. The application's own thread is never asked to exit:
-- give it a limit, in `shutdown` above all.
--
-- Errors: raised, about arguments only.
local queues = require("vel.queues") -- made by the host

local queue = {}

-- name:  not empty; put it below your application's name
-- limit: how many messages may wait, 1000 if nobody says; holds for everybody, as of now
function queue.Open(name, limit)
  return queues.Open(name, limit)
end

return queue

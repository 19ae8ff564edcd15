-- vel.periodic: work at a steady beat, in a background runnable.
local clock = require("posix.time")

local periodic = {}

-- Seconds. Somebody who wants the work done now waits no longer than this.
local askAfter = 1

local function monotonicSeconds()
  local now = clock.clock_gettime(clock.CLOCK_MONOTONIC)
  return now.tv_sec + now.tv_nsec / 1e9
end

-- Calls work() at once, and then every so many seconds until the runnable is asked to exit. Beats are counted from the
-- beginning, so neither work that takes its time nor late wake-ups add up; beats that fall into the work are left out.
-- A runnable that is waiting for the next beat ends at once when asked.
--
-- seconds:  more than 0
-- isWanted: optional; asked about once a second while waiting. When it gives true, work() is called at once, besides
--           the beat.
-- now:      optional; gives seconds of a clock that is never set
--
-- Errors: an error of work() ends the loop.
function periodic.Run(runnable, seconds, work, isWanted, now)
  assert(type(seconds) == "number" and seconds > 0 and seconds < math.huge, "seconds: a number above 0 expected")
  now = now or monotonicSeconds
  local start = now()
  local beat = 0 -- the next one
  local exits = runnable:TestDestroy()
  while not exits do
    local wait = start + beat * seconds - now()
    local isDue = wait <= 0
    if (isWanted and isWanted()) or isDue then
      work()
      local passed = math.ceil((now() - start) / seconds)
      beat = math.max(isDue and beat + 1 or beat, passed)
      exits = runnable:TestDestroy()
    else
      exits = runnable:TestDestroy(math.ceil(1000 * (isWanted and math.min(wait, askAfter) or wait)))
    end
  end
end

return periodic

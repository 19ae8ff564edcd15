"""Everything that threads share, used by many of them at once for a while."""

import sqlite3
from contextlib import closing

from agentbox import DEADLINE_S, LONG_LOOP

# A minute in full.
SECONDS = max(2, LONG_LOOP * 60 // 2000)

RUNNABLES = 8

# Uses store, log, trace, events and a queue until the time is over, and gives the number of rounds. Every round is checked
# as far as others cannot interfere.
WORK = """
local queue = require('vel.queue')

return function(name, seconds)
  local mine, shared = 'stress.' .. name, 'stress.shared'
  local passing = queue.Open('stress', 100)
  local till = dom:TimeNowMillis() + seconds * 1000
  local rounds = 0
  while dom:TimeNowMillis() < till do
    rounds = rounds + 1
    dom:Set(mine, rounds)
    assert(dom:Get(mine) == rounds and dom:Has(mine))
    dom:Set(shared, rounds % 2 == 0 and ('long '):rep(100) or ('s'):rep(rounds % 50))
    local seen = dom:Get(shared, '')
    assert(seen == ('long '):rep(100) or seen == ('s'):rep(#seen), seen)
    dom:Set(shared .. rounds % 7, rounds % 3 == 0 and rounds or nil)
    dom:Keys('stress')
    if rounds % 20 == 0 then
      dom:Set('app.trace', rounds % 40 == 0 and 'Stress' or 'Other')
      dom:Log('message', ('%s %d %s'):format(name, rounds, ('x'):rep(rounds % 100)))
      dom:LogTrace('Stress', 'round ' .. rounds)
    end
    if rounds % 200 == 0 then
      dom:AgentEventWrite{ event_number = 20001, description = ('%s %d'):format(name, rounds) }
    end
    passing:Push({ name, rounds }, 0)
    local message = passing:Pop(0)
    assert(message == nil or #message[1] > 0 and message[2] > 0)
  end
  dom:Set('rounds.' .. name, rounds)
  return rounds
end
"""


def test_eight_runnables_and_the_application_use_all_that_is_shared(installation):
    installation.write_module("work", WORK)
    installation.write_module("worker", "return function(self, name, seconds) require('work')(name, seconds) end")
    installation.write_app(
        main=f"""
        local workers = {{}}
        for number = 1, {RUNNABLES} do workers[number] = dom:StartRunnable('worker', 'w' .. number, {SECONDS}) end
        require('work')('main', {SECONDS})
        for number, worker in ipairs(workers) do
          local _, status = worker:Join()
          assert(status == 0, number)
        end
        for _, key in ipairs(dom:Keys('rounds')) do print(key:match('[^.]+$'), dom:Get(key)) end"""
    )

    outcome = installation.run(timeout=DEADLINE_S + 3 * SECONDS)

    assert (outcome.status, outcome.err) == (0, ""), outcome
    rounds = {name: int(count) for name, count in (line.split() for line in outcome.out.splitlines())}
    assert len(rounds) == RUNNABLES + 1
    assert min(rounds.values()) > 0

    wanted = {f"{name} {n} {'x' * (n % 100)}" for name, count in rounds.items() for n in range(20, count + 1, 20)}
    logs = [installation.log_file(), *installation.log_file().parent.glob("*.log.*")]
    texts = [line.split("Message: ", 1)[1].rstrip("\n") for path in logs for line in open(path) if "Message: " in line]
    if len(logs) < 6:  # with more of them the oldest records are gone
        assert sorted(texts) == sorted(wanted)
    with closing(sqlite3.connect(installation.work / "agent_events.db")) as database:
        stored = [text for (text,) in database.execute("SELECT CAST(description AS TEXT) FROM agent_event")]
    assert sorted(stored) == sorted(f"{name} {n}" for name, count in rounds.items() for n in range(200, count + 1, 200))

-- The application of the service tests. It writes down what happens to it, a line per event, and does what files in its
-- work folder ask for. Its name is the application's.
local probe = {}

local work = dom:Get("app.path.work")

local function note(event)
  local life = assert(io.open(work .. "/life", "a"))
  life:write(event, "\n")
  life:close()
end

-- A process in a session of its own, which a stop of the agent does not reach.
local stranger = ([[
  trap "echo stranger got SIGTERM >>LIFE" TERM
  echo stranger is here >>LIFE
  while :; do sleep 0.1; done
]]):gsub("LIFE", work .. "/life")

-- The content of the file, or nil.
local function asked(name)
  local file = io.open(work .. "/" .. name)
  local text = file and file:read("*a")
  if file then
    file:close()
  end
  return text
end

local function ownNumber()
  local stat = assert(io.open("/proc/self/stat"))
  local number = stat:read("*n")
  stat:close()
  return number
end

function probe.init()
  note("init LANG=" .. os.getenv("LANG"))
  if asked("leave_stranger") then
    os.execute("setsid sh -c '" .. stranger .. "' &")
  end
  if asked("die") then
    os.execute("kill -SEGV " .. ownNumber())
  end
  return 0
end

function probe.main()
  if asked("end_when_told") then
    repeat
      os.execute("sleep 0.05")
    until asked("end")
    return tonumber(asked("end"))
  end
  return 0
end

function probe.shutdown()
  note("shutdown begins")
  while asked("hang") do
    os.execute("sleep 0.1")
  end
  os.execute("sleep 0.3")
  note("shutdown ends")
  return tonumber(asked("shutdown_status") or 0)
end

return probe

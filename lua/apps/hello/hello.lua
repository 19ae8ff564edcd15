-- hello: the smallest application. Start it with: kx_agent --appname hello -- word...
local hello = {}

-- Each function returns 0 to go on; any other number ends the process with that status.
function hello.init()
  print("hello from " .. dom0:Get("app.name"))
  return 0
end

function hello.main()
  print("words: " .. table.concat(arg, " "))
  return 0
end

function hello.shutdown()
  print("goodbye")
  return 0
end

return hello

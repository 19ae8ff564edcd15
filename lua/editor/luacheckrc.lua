-- luacheck's settings for Lua applications: the globals that the host defines, and the methods of the domain.
--
-- Use:  luacheck --config <this file> <your files>
-- or copy it as .luacheckrc into your folder, and add to it.
--
-- Tested by: tests/blackbox/test_editor_files.py and script/lint.
local dom = {
  fields = {
    AgentEventWrite = {},
    Get = {},
    GetPluginWorkdir = {},
    Has = {},
    Keys = {},
    Log = {},
    LogTrace = {},
    LogTraceIsEnabled = {},
    Set = {},
    StartRunnable = {},
    TimeNowMillis = {},
  },
}

return {
  std = "lua52",
  read_globals = {
    arg = { other_fields = true },
    dom = dom,
    dom0 = dom,
    velAppModule = { other_fields = true },
    velunit = {},
  },
}

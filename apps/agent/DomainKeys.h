// DomainKeys.h: the domain variables that the agent writes or reads; docs/DOMAIN.md describes them.
#pragma once

namespace DomainKeys {

const char* const kBackground = "app.background";
const char* const kFipsMode = "app.fipsmode";
const char* const kFullDump = "app.fulldump";
const char* const kHeartbeatNow = "vel.HeartbeatNow";
const char* const kLuaCPath = "app.lua.cpath";
const char* const kLuaPath = "app.lua.path";
const char* const kLuaZippath = "app.lua.zippath";
const char* const kName = "app.name";
const char* const kPathBin = "app.path.bin";
const char* const kPathExe = "app.path.exe";
const char* const kPathIni = "app.path.ini";
const char* const kPathIniGlobal = "app.path.ini.global";
const char* const kPathLib = "app.path.lib";
const char* const kPathVendor = "app.path.qv";
const char* const kPathWork = "app.path.work";
const char* const kPlugins = "app.plugins";
const char* const kTrace = "app.trace";
const char* const kTracePlus = "app.trace+";
const char* const kUnitTestMode = "app.mode.unittest";
const char* const kVersion = "app.version";

} // namespace DomainKeys

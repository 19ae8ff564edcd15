// CrashDump.h: what a minidump of the agent says.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "crash/MinidumpFormat.h"

/// A range of the crashed process's memory.
struct DumpedMemory
{
    std::uint64_t start;
    std::string_view bytes;
};

struct DumpedThread
{
    std::uint32_t id;
    std::string name;
    VelCore::Minidump::ContextAmd64 context;
};

struct DumpedModule
{
    std::uint64_t start;
    std::uint64_t size;
    std::string path;
    std::string buildId; // bytes; empty when the module has none
};

/// The content of a dump; see docs/CRASHES.md. Addresses are those of the crashed process.
///
/// Ownership: texts and memory point into the bytes that it was read from.
struct CrashDump
{
    std::uint32_t process = 0;
    std::uint32_t crashedThread = 0;
    std::int64_t time = 0; // seconds since the epoch
    int signal = 0;
    int signalCode = 0;
    std::uint64_t address = 0;
    bool isFull = false;
    std::string system;
    std::vector<DumpedThread> threads;
    std::vector<DumpedModule> modules;
    std::vector<DumpedMemory> memory; // sorted by their start
    std::vector<std::pair<std::string_view, std::string_view>> notes;
    std::string_view luaTraceback; // empty when the crashed thread was not in Lua

    /// The module that holds the address, or null.
    const DumpedModule* ModuleAt(std::uint64_t address) const;

    /// The 64-bit word at the address, if the dump holds it.
    std::optional<std::uint64_t> WordAt(std::uint64_t address) const;
};

/// Reads a minidump of a process on AMD64, also one that our agent did not write. What is damaged is left out, as long
/// as the thread that crashed can be told.
///
/// bytes  the file; the result points into it
/// error  receives why nothing was read
std::optional<CrashDump> ReadCrashDump(std::string_view bytes, std::string& error);

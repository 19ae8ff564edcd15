// MinidumpWriter.h: a snapshot of a process as a minidump file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "crash/MinidumpFormat.h"
#include "crash/ProcessSnapshot.h"

namespace VelCore {

/// Where a dump goes.
class CDumpSink
{
public:
    /// Puts bytes at this place of the file; places may come in any order.
    virtual bool Write(std::uint64_t offset, const void* data, std::size_t size) = 0;

    /// Gives the file its size; what was not written reads as zeros.
    virtual bool SetSize(std::uint64_t size) = 0;

protected:
    ~CDumpSink() = default;
};

/// Writes a minidump: system, threads with registers and stacks, modules with build identifiers, the signal as
/// exception, our notes, and what Linux tells in /proc. The full form also holds all writable memory.
///
/// Errors: false as soon as the sink refuses; memory that cannot be read is zeros or left out.
/// Memory: allocates nothing and takes no lock, so it works beside a crashed process. Large: of a deep stack the
///         innermost 512 KiB and the outermost 64 KiB are kept, where the form is not full.
class CMinidumpWriter
{
public:
    CMinidumpWriter(CDumpSink& sink, const CProcessMemory& memory) : m_sink(sink), m_memory(memory) {}

    /// notes  lines `name=value`
    bool Write(const ProcessSnapshot& snapshot, std::string_view notes, bool full);

    /// Adds the calls of the crashed thread in Lua to a dump that is written. Room for 16 KiB is kept; more is cut off.
    bool AddLuaTraceback(std::string_view text);

private:
    Minidump::Location Append(const void* data, std::size_t size);
    std::uint32_t Reserve(std::size_t size);
    template <typename Record>
    void Put(std::uint32_t rva, const Record& record);
    std::uint32_t AppendString(std::string_view text);
    Minidump::Location AppendMemory(std::uint64_t start, std::uint64_t size);
    Minidump::MemoryDescriptor AppendRange(std::uint64_t start, std::uint64_t end);
    Minidump::Location AppendBuildId(const BuildId& id);
    void AddStream(Minidump::StreamType type, Minidump::Location location);
    void AddText(Minidump::StreamType type, std::string_view text);
    void AddThreads(const ProcessSnapshot& snapshot);
    void AddThreadNames(const ProcessSnapshot& snapshot);
    void AddException(const ProcessSnapshot& snapshot);
    void AddModules(const ProcessSnapshot& snapshot);
    void AddMemory();
    void AddSystemInfo(const ProcessSnapshot& snapshot);
    void AddMiscInfo(const ProcessSnapshot& snapshot);
    void AddWritableMemory(const ProcessSnapshot& snapshot);
    void CopyMemory(std::uint64_t start, std::uint64_t size, std::uint64_t offset);
    void NoteMemory(const Minidump::MemoryDescriptor& range);
    void AddStack(const ProcessSnapshot& snapshot, const SnapshotThread& thread, Minidump::Thread& row);

    static const std::uint32_t s_MostStreams = 20;

    CDumpSink& m_sink;
    const CProcessMemory& m_memory;
    bool m_isOk = true;
    std::uint64_t m_end = 0;
    std::uint32_t m_streams = 0;
    std::uint32_t m_luaEntryRva = 0;
    std::uint32_t m_luaRva = 0;
    Minidump::Location m_crashedContext{};
    FixedRows<Minidump::MemoryDescriptor, 2 * 1024 + 16> m_ranges; // of the stream kMemoryList
};

} // namespace VelCore

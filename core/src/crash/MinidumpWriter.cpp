// The streams of a minidump, one behind the other, and the directory in front that leads to them.
//
// Tested by: unit/core/crash/MinidumpWriterTest.cpp, blackbox/test_crash_dumps.py.

#include "crash/MinidumpWriter.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "crash/StackExtent.h"

namespace VelCore {
namespace {

using namespace Minidump;

const std::size_t kLuaRoom = 16384;
const std::uint64_t kPage = 4096;

// Code around the instruction that crashed, for a reader who does not have the module.
const std::uint64_t kCodeBytes = 128;

// Beyond this a 32-bit offset leads nowhere.
const std::uint64_t kMostAddressable = std::numeric_limits<std::uint32_t>::max();

// The next character of UTF-8; bytes that are none stand for themselves.
std::uint32_t TakeCharacter(std::string_view& text)
{
    const auto byteAt = [&text](std::size_t index) { return static_cast<std::uint8_t>(text[index]); };
    const std::uint8_t first = byteAt(0);
    const std::size_t length = first < 0xC2 || first > 0xF4 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    std::uint32_t point = length == 1 ? first : first & (0x7Fu >> length);
    bool isValid = text.size() >= length;
    for (std::size_t index = 1; isValid && index < length; ++index) {
        isValid = (byteAt(index) & 0xC0) == 0x80;
        point = point << 6 | (byteAt(index) & 0x3F);
    }
    text.remove_prefix(isValid ? length : 1);
    return isValid ? point : first;
}

bool IsZero(const std::uint8_t* bytes, std::size_t size)
{
    return std::all_of(bytes, bytes + size, [](std::uint8_t byte) { return byte == 0; });
}

// Memory of devices may change their state, or hang, when it is read.
bool IsKept(const SnapshotMapping& mapping)
{
    const std::string_view devices = "/dev/";
    const std::string_view shared = "/dev/shm/";
    const std::string_view& path = mapping.path;
    const bool isDevice =
        path.substr(0, devices.size()) == devices && path.substr(0, shared.size()) != shared && path != "/dev/zero";
    return mapping.isWritable && mapping.isReadable && !isDevice;
}

} // namespace

bool CMinidumpWriter::Write(const ProcessSnapshot& snapshot, std::string_view notes, bool full)
{
    Header header = {};
    header.signature = kSignature;
    header.version = kVersion;
    header.streamCount = s_MostStreams; // those that stay unused say so
    header.directoryRva = sizeof header;
    header.time = static_cast<std::uint32_t>(snapshot.time);
    header.flags = full ? kWithFullMemory : kNormal;
    Append(&header, sizeof header);
    Reserve(s_MostStreams * sizeof(DirectoryEntry));

    AddSystemInfo(snapshot);
    AddMiscInfo(snapshot);
    AddThreads(snapshot);
    AddException(snapshot);
    AddModules(snapshot);
    AddMemory();
    AddThreadNames(snapshot);
    AddText(kLinuxMaps, snapshot.mapsText);
    AddText(kLinuxProcStatus, snapshot.statusText);
    AddText(kLinuxCommandLine, snapshot.commandLine);
    AddText(kLinuxAuxv, snapshot.auxv);
    AddText(kNotes, notes);

    m_luaRva = Reserve(kLuaRoom);
    m_luaEntryRva = static_cast<std::uint32_t>(sizeof(Header) + m_streams * sizeof(DirectoryEntry));
    AddStream(kLuaTraceback, {0, m_luaRva});
    if (full)
        AddWritableMemory(snapshot);
    return m_isOk && m_sink.SetSize(m_end);
}

bool CMinidumpWriter::AddLuaTraceback(std::string_view text)
{
    const std::size_t size = std::min(text.size(), kLuaRoom);
    const DirectoryEntry entry = {kLuaTraceback, {static_cast<std::uint32_t>(size), m_luaRva}};
    return m_sink.Write(m_luaRva, text.data(), size) && m_sink.Write(m_luaEntryRva, &entry, sizeof entry);
}

// The place of the next record of `size` bytes.
std::uint32_t CMinidumpWriter::Reserve(std::size_t size)
{
    if (m_end + size > kMostAddressable) {
        m_isOk = false;
        return 0;
    }
    const auto rva = static_cast<std::uint32_t>(m_end);
    m_end = (m_end + size + 7) & ~std::uint64_t{7};
    return rva;
}

Location CMinidumpWriter::Append(const void* data, std::size_t size)
{
    const std::uint32_t rva = Reserve(size);
    m_isOk = m_isOk && m_sink.Write(rva, data, size);
    return {static_cast<std::uint32_t>(size), rva};
}

template <typename Record>
void CMinidumpWriter::Put(std::uint32_t rva, const Record& record)
{
    m_isOk = m_isOk && m_sink.Write(rva, &record, sizeof record);
}

// A text is its length in bytes, then UTF-16 with a zero at the end.
std::uint32_t CMinidumpWriter::AppendString(std::string_view text)
{
    static char16_t units[8192];
    const std::size_t capacity = std::size(units) - 2; // of a pair, both halves or none
    std::size_t count = 0;
    while (!text.empty() && count < capacity) {
        const std::uint32_t point = TakeCharacter(text);
        if (point >= 0x10000) {
            units[count++] = static_cast<char16_t>(0xD7C0 + (point >> 10));
            units[count++] = static_cast<char16_t>(0xDC00 + (point & 0x3FF));
        } else
            units[count++] = static_cast<char16_t>(point);
    }
    const auto length = static_cast<std::uint32_t>(count * sizeof units[0]);
    units[count] = 0;
    const std::uint32_t rva = Reserve(sizeof length + length + sizeof units[0]);
    Put(rva, length);
    m_isOk = m_isOk && m_sink.Write(rva + sizeof length, units, length + sizeof units[0]);
    return rva;
}

void CMinidumpWriter::AddStream(StreamType type, Location location)
{
    if (m_streams == s_MostStreams) {
        m_isOk = false;
        return;
    }
    const std::size_t rva = sizeof(Header) + m_streams++ * sizeof(DirectoryEntry);
    Put(static_cast<std::uint32_t>(rva), DirectoryEntry{type, location});
}

void CMinidumpWriter::AddText(StreamType type, std::string_view text)
{
    if (!text.empty())
        AddStream(type, Append(text.data(), text.size()));
}

void CMinidumpWriter::AddSystemInfo(const ProcessSnapshot& snapshot)
{
    SystemInfo info = {};
    info.processor = kProcessorAmd64;
    info.processorCount = static_cast<std::uint8_t>(std::min(snapshot.processorCount, 255));
    info.platform = kPlatformLinux;
    info.versionTextRva = AppendString(snapshot.systemText);
    AddStream(kSystemInfo, Append(&info, sizeof info));
}

void CMinidumpWriter::AddMiscInfo(const ProcessSnapshot& snapshot)
{
    MiscInfo info = {};
    info.size = sizeof info;
    info.flags = kHasProcessId;
    info.processId = static_cast<std::uint32_t>(snapshot.process);
    AddStream(kMiscInfo, Append(&info, sizeof info));
}

void CMinidumpWriter::AddThreads(const ProcessSnapshot& snapshot)
{
    const auto count = static_cast<std::uint32_t>(snapshot.threads.size());
    const std::size_t size = sizeof count + count * sizeof(Thread);
    const std::uint32_t rva = Reserve(size);
    Put(rva, count);
    auto rowRva = static_cast<std::uint32_t>(rva + sizeof count);
    for (const SnapshotThread& thread : snapshot.threads) {
        Thread row = {};
        row.id = static_cast<std::uint32_t>(thread.id);
        row.environmentBlock = thread.threadData;
        row.context = Append(&thread.context, sizeof thread.context);
        if (thread.id == snapshot.crashedThread)
            m_crashedContext = row.context;
        AddStack(snapshot, thread, row);
        Put(rowRva, row);
        rowRva += static_cast<std::uint32_t>(sizeof row);
    }
    AddStream(kThreadList, {static_cast<std::uint32_t>(size), rva});
}

void CMinidumpWriter::AddStack(const ProcessSnapshot& snapshot, const SnapshotThread& thread, Thread& row)
{
    const StackExtent extent = FindStack(snapshot.mappings, thread.context.rsp);
    if (extent.innermost.IsEmpty())
        return;
    row.stack = AppendRange(extent.innermost.start, extent.innermost.end);
    NoteMemory(row.stack);
    if (!extent.outermost.IsEmpty())
        NoteMemory(AppendRange(extent.outermost.start, extent.outermost.end));
}

void CMinidumpWriter::NoteMemory(const MemoryDescriptor& range)
{
    if (range.memory.size == 0)
        return;
    if (MemoryDescriptor* row = m_ranges.Add())
        *row = range;
}

MemoryDescriptor CMinidumpWriter::AppendRange(std::uint64_t start, std::uint64_t end)
{
    return {start, AppendMemory(start, end - start)};
}

Location CMinidumpWriter::AppendMemory(std::uint64_t start, std::uint64_t size)
{
    const std::uint32_t rva = Reserve(size);
    if (m_isOk)
        CopyMemory(start, size, rva);
    return {static_cast<std::uint32_t>(size), rva};
}

// Pages that cannot be read, and those that hold nothing but zeros, become holes of the file.
void CMinidumpWriter::CopyMemory(std::uint64_t start, std::uint64_t size, std::uint64_t offset)
{
    static std::uint8_t buffer[64 * kPage];
    while (size > 0 && m_isOk) {
        const std::size_t wanted = std::min<std::uint64_t>(size, sizeof buffer - start % kPage);
        const std::size_t got = m_memory.Read(start, buffer, wanted);
        if (got > 0 && !IsZero(buffer, got))
            m_isOk = m_sink.Write(offset, buffer, got);
        const std::size_t step = got > 0 ? got : std::min<std::uint64_t>(size, kPage - start % kPage);
        start += step;
        offset += step;
        size -= step;
    }
}

void CMinidumpWriter::AddException(const ProcessSnapshot& snapshot)
{
    ExceptionStream exception = {};
    exception.threadId = static_cast<std::uint32_t>(snapshot.crashedThread);
    exception.code = static_cast<std::uint32_t>(snapshot.signal);
    exception.flags = static_cast<std::uint32_t>(snapshot.signalCode);
    exception.address = snapshot.faultAddress;
    exception.context = m_crashedContext;
    AddStream(kException, Append(&exception, sizeof exception));
    if (snapshot.threads.size() == 0)
        return;

    const std::uint64_t instruction = snapshot.threads[0].context.rip;
    for (const SnapshotMapping& mapping : snapshot.mappings) {
        if (mapping.Holds(instruction) && mapping.isReadable)
            NoteMemory(AppendRange(std::max(mapping.start, instruction - std::min(instruction, kCodeBytes)),
                                   std::min(mapping.end, instruction + kCodeBytes)));
    }
}

Location CMinidumpWriter::AppendBuildId(const BuildId& id)
{
    if (id.size == 0)
        return {};
    std::uint8_t record[sizeof kBuildIdSignature + sizeof id.bytes];
    std::memcpy(record, &kBuildIdSignature, sizeof kBuildIdSignature);
    std::memcpy(record + sizeof kBuildIdSignature, id.bytes, id.size);
    return Append(record, sizeof kBuildIdSignature + id.size);
}

void CMinidumpWriter::AddModules(const ProcessSnapshot& snapshot)
{
    const auto count = static_cast<std::uint32_t>(snapshot.modules.size());
    const std::size_t size = sizeof count + count * sizeof(Module);
    const std::uint32_t rva = Reserve(size);
    Put(rva, count);
    auto rowRva = static_cast<std::uint32_t>(rva + sizeof count);
    for (const SnapshotModule& module : snapshot.modules) {
        Module row = {};
        row.base = module.start;
        row.size = static_cast<std::uint32_t>(std::min(module.size, kMostAddressable));
        row.nameRva = AppendString(module.path);
        row.codeView = AppendBuildId(module.buildId);
        Put(rowRva, row);
        rowRva += static_cast<std::uint32_t>(sizeof row);
    }
    AddStream(kModuleList, {static_cast<std::uint32_t>(size), rva});
}

void CMinidumpWriter::AddMemory()
{
    const auto count = static_cast<std::uint32_t>(m_ranges.size());
    const std::size_t size = sizeof count + count * sizeof(MemoryDescriptor);
    const std::uint32_t rva = Reserve(size);
    Put(rva, count);
    m_isOk = m_isOk && m_sink.Write(rva + sizeof count, m_ranges.begin(), count * sizeof(MemoryDescriptor));
    AddStream(kMemoryList, {static_cast<std::uint32_t>(size), rva});
}

void CMinidumpWriter::AddThreadNames(const ProcessSnapshot& snapshot)
{
    const auto count = static_cast<std::uint32_t>(snapshot.threads.size());
    const std::size_t size = sizeof count + count * sizeof(ThreadName);
    const std::uint32_t rva = Reserve(size);
    Put(rva, count);
    auto rowRva = static_cast<std::uint32_t>(rva + sizeof count);
    for (const SnapshotThread& thread : snapshot.threads) {
        const std::size_t length = strnlen(thread.name, sizeof thread.name);
        Put(rowRva, ThreadName{static_cast<std::uint32_t>(thread.id), AppendString({thread.name, length})});
        rowRva += static_cast<std::uint32_t>(sizeof(ThreadName));
    }
    AddStream(kThreadNames, {static_cast<std::uint32_t>(size), rva});
}

// The last of all, since its memory may lie beyond what an offset of 32 bits reaches.
void CMinidumpWriter::AddWritableMemory(const ProcessSnapshot& snapshot)
{
    std::uint64_t count = 0;
    for (const SnapshotMapping& mapping : snapshot.mappings)
        count += IsKept(mapping) ? 1 : 0;

    const std::size_t size = sizeof(Memory64List) + count * sizeof(Memory64Descriptor);
    const std::uint32_t rva = Reserve(size);
    Put(rva, Memory64List{count, m_end});
    auto rowRva = static_cast<std::uint32_t>(rva + sizeof(Memory64List));
    for (const SnapshotMapping& mapping : snapshot.mappings) {
        if (!IsKept(mapping) || !m_isOk)
            continue;
        const std::uint64_t bytes = mapping.end - mapping.start;
        Put(rowRva, Memory64Descriptor{mapping.start, bytes});
        rowRva += static_cast<std::uint32_t>(sizeof(Memory64Descriptor));
        CopyMemory(mapping.start, bytes, m_end);
        m_end += bytes;
    }
    AddStream(kMemory64List, {static_cast<std::uint32_t>(size), rva});
}

} // namespace VelCore

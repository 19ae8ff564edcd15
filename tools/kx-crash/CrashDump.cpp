// Reading a minidump, in which any number may be wrong.
//
// Tested by: unit/tools/kx-crash/CrashDumpTest.cpp, fuzz/CrashDumpFuzz.cpp.

#include "CrashDump.h"

#include <algorithm>
#include <cstring>

using namespace VelCore::Minidump;

namespace {

// More than the agent writes. A damaged number must not make the tool allocate without end.
const std::size_t kMostRows = 65536;
const std::size_t kMostNameBytes = 32768;

// The file: whatever is asked of it, it gives nothing beyond its end.
class CBytes
{
public:
    explicit CBytes(std::string_view bytes) : m_bytes(bytes) {}

    std::string_view At(std::uint64_t offset, std::uint64_t size) const
    {
        if (offset > m_bytes.size() || size > m_bytes.size() - offset)
            return {};
        return m_bytes.substr(offset, size);
    }
    std::string_view At(const Location& location) const { return At(location.rva, location.size); }

    template <typename Record>
    bool Read(std::uint64_t offset, Record& record) const
    {
        const std::string_view bytes = At(offset, sizeof record);
        if (bytes.size() != sizeof record)
            return false;
        std::memcpy(&record, bytes.data(), sizeof record);
        return true;
    }

private:
    std::string_view m_bytes;
};

void AppendUtf8(std::uint32_t point, std::string& text)
{
    const auto add = [&text](std::uint32_t byte) { text += static_cast<char>(byte); };
    const auto addRest = [&add, point](int shift) { add(0x80 | (point >> shift & 0x3F)); };
    if (point < 0x80)
        add(point);
    else if (point < 0x800) {
        add(0xC0 | point >> 6);
        addRest(0);
    } else if (point < 0x10000) {
        add(0xE0 | point >> 12);
        addRest(6);
        addRest(0);
    } else {
        add(0xF0 | point >> 18);
        addRest(12);
        addRest(6);
        addRest(0);
    }
}

std::string FromUtf16(std::string_view bytes)
{
    std::string text;
    const auto unitAt = [bytes](std::size_t index) {
        char16_t unit = 0;
        std::memcpy(&unit, bytes.data() + index, sizeof unit);
        return static_cast<std::uint32_t>(unit);
    };
    for (std::size_t index = 0; index + 1 < bytes.size(); index += 2) {
        std::uint32_t point = unitAt(index);
        const bool isFirstOfTwo = point >= 0xD800 && point < 0xDC00 && index + 3 < bytes.size();
        const std::uint32_t second = isFirstOfTwo ? unitAt(index + 2) : 0;
        if (second >= 0xDC00 && second < 0xE000) {
            point = 0x10000 + ((point - 0xD800) << 10) + (second - 0xDC00);
            index += 2;
        }
        AppendUtf8(point, text);
    }
    return text;
}

std::string StringAt(const CBytes& file, std::uint64_t rva)
{
    std::uint32_t length = 0;
    if (!file.Read(rva, length) || length > kMostNameBytes)
        return {};
    return FromUtf16(file.At(rva + sizeof length, length));
}

// Calls visit with each row of a stream that begins with their number.
template <typename Row, typename Visit>
void ForEachRow(const CBytes& file, const Location& stream, Visit visit)
{
    std::uint32_t count = 0;
    if (!file.Read(stream.rva, count))
        return;
    std::uint64_t offset = std::uint64_t{stream.rva} + sizeof count;
    // Some writers align the rows, and say so only by the stream's size.
    if (stream.size >= sizeof count && stream.size - sizeof count == std::uint64_t{count} * sizeof(Row) + 4)
        offset += 4;
    for (std::size_t index = 0; index < std::min<std::size_t>(count, kMostRows); ++index, offset += sizeof(Row)) {
        Row row = {};
        if (!file.Read(offset, row))
            return;
        visit(row);
    }
}

void AddMemory(const CBytes& file, std::uint64_t start, std::uint64_t offset, std::uint64_t size, CrashDump& dump)
{
    const std::string_view bytes = file.At(offset, size);
    if (!bytes.empty() && start + bytes.size() > start)
        dump.memory.push_back({start, bytes});
}

void ReadThreads(const CBytes& file, const Location& stream, CrashDump& dump)
{
    ForEachRow<Thread>(file, stream, [&](const Thread& row) {
        DumpedThread thread = {row.id, {}, {}};
        if (row.context.size < sizeof thread.context || !file.Read(row.context.rva, thread.context))
            return;
        dump.threads.push_back(thread);
        AddMemory(file, row.stack.start, row.stack.memory.rva, row.stack.memory.size, dump);
    });
}

std::string BuildIdAt(const CBytes& file, const Location& location)
{
    std::uint32_t signature = 0;
    if (location.size <= sizeof signature || !file.Read(location.rva, signature) || signature != kBuildIdSignature)
        return {};
    return std::string(file.At(location).substr(std::min(sizeof signature, file.At(location).size())));
}

void ReadModules(const CBytes& file, const Location& stream, CrashDump& dump)
{
    ForEachRow<Module>(file, stream, [&](const Module& row) {
        dump.modules.push_back({row.base, row.size, StringAt(file, row.nameRva), BuildIdAt(file, row.codeView)});
    });
}

void ReadMemory(const CBytes& file, const Location& stream, CrashDump& dump)
{
    ForEachRow<MemoryDescriptor>(file, stream, [&](const MemoryDescriptor& row) {
        AddMemory(file, row.start, row.memory.rva, row.memory.size, dump);
    });
}

void ReadFullMemory(const CBytes& file, const Location& stream, CrashDump& dump)
{
    Memory64List list = {};
    if (!file.Read(stream.rva, list))
        return;
    std::uint64_t offset = list.baseRva;
    for (std::uint64_t index = 0; index < std::min<std::uint64_t>(list.count, kMostRows); ++index) {
        Memory64Descriptor row = {};
        if (!file.Read(stream.rva + sizeof list + index * sizeof row, row) || offset + row.size < offset)
            return;
        AddMemory(file, row.start, offset, row.size, dump);
        offset += row.size;
    }
}

void ReadException(const CBytes& file, const Location& stream, CrashDump& dump)
{
    ExceptionStream exception = {};
    if (!file.Read(stream.rva, exception))
        return;
    dump.crashedThread = exception.threadId;
    dump.signal = static_cast<int>(exception.code);
    dump.signalCode = static_cast<int>(exception.flags);
    dump.address = exception.address;
}

void ReadNames(const CBytes& file, const Location& stream, CrashDump& dump)
{
    ForEachRow<ThreadName>(file, stream, [&](const ThreadName& row) {
        for (DumpedThread& thread : dump.threads) {
            if (thread.id == row.id)
                thread.name = StringAt(file, row.nameRva);
        }
    });
}

void ReadNotes(std::string_view text, CrashDump& dump)
{
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        const std::size_t equals = line.find('=');
        if (equals != std::string_view::npos && dump.notes.size() < kMostRows)
            dump.notes.emplace_back(line.substr(0, equals), line.substr(equals + 1));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
    }
}

void ReadSystem(const CBytes& file, const Location& stream, CrashDump& dump)
{
    SystemInfo info = {};
    if (file.Read(stream.rva, info))
        dump.system = StringAt(file, info.versionTextRva);
}

void ReadProcess(const CBytes& file, const Location& stream, CrashDump& dump)
{
    MiscInfo info = {};
    if (file.Read(stream.rva, info) && (info.flags & kHasProcessId) != 0)
        dump.process = info.processId;
}

using StreamReader = void (*)(const CBytes& file, const Location& stream, CrashDump& dump);

// In the order in which they are read: names are those of threads.
const struct
{
    StreamType type;
    StreamReader read;
} kStreams[] = {
    {kSystemInfo, ReadSystem},
    {kMiscInfo, ReadProcess},
    {kThreadList, ReadThreads},
    {kThreadNames, ReadNames},
    {kModuleList, ReadModules},
    {kException, ReadException},
    {kMemoryList, ReadMemory},
    {kMemory64List, ReadFullMemory},
    {kNotes, [](const CBytes& file, const Location& stream, CrashDump& dump) { ReadNotes(file.At(stream), dump); }},
    {kLuaTraceback,
     [](const CBytes& file, const Location& stream, CrashDump& dump) { dump.luaTraceback = file.At(stream); }},
};

// The stream's place, the first one's if there are several.
std::optional<Location> FindStream(const CBytes& file, const Header& header, StreamType type)
{
    const std::uint64_t count = std::min<std::uint64_t>(header.streamCount, kMostRows);
    for (std::uint64_t index = 0; index < count; ++index) {
        DirectoryEntry entry = {};
        if (!file.Read(header.directoryRva + index * sizeof entry, entry))
            return std::nullopt;
        if (entry.type == type)
            return entry.location;
    }
    return std::nullopt;
}

} // namespace

const DumpedModule* CrashDump::ModuleAt(std::uint64_t at) const
{
    const auto found = std::find_if(modules.begin(), modules.end(), [at](const DumpedModule& module) {
        return at >= module.start && at - module.start < module.size;
    });
    return found == modules.end() ? nullptr : &*found;
}

std::optional<std::uint64_t> CrashDump::WordAt(std::uint64_t at) const
{
    auto behind = std::upper_bound(memory.begin(), memory.end(), at,
                                   [](std::uint64_t value, const DumpedMemory& range) { return value < range.start; });
    // Ranges may overlap: a stack is kept on its own and with all memory.
    while (behind != memory.begin()) {
        const DumpedMemory& range = *--behind;
        std::uint64_t word = 0;
        const std::uint64_t offset = at - range.start;
        if (range.bytes.size() >= sizeof word && offset <= range.bytes.size() - sizeof word) {
            std::memcpy(&word, range.bytes.data() + offset, sizeof word);
            return word;
        }
    }
    return std::nullopt;
}

std::optional<CrashDump> ReadCrashDump(std::string_view bytes, std::string& error)
{
    const CBytes file(bytes);
    Header header = {};
    if (!file.Read(0, header) || header.signature != kSignature || (header.version & 0xFFFF) != kVersion) {
        error = "not a minidump";
        return std::nullopt;
    }

    CrashDump dump;
    dump.time = header.time;
    dump.isFull = (header.flags & kWithFullMemory) != 0;
    const auto system = FindStream(file, header, kSystemInfo);
    SystemInfo info = {};
    if (!system || !file.Read(system->rva, info)) {
        error = "damaged: it does not say what system it comes from";
        return std::nullopt;
    }
    if (info.processor != kProcessorAmd64) {
        error = "of another processor than AMD64";
        return std::nullopt;
    }
    for (const auto& row : kStreams) {
        if (const auto location = FindStream(file, header, row.type))
            row.read(file, *location, dump);
    }
    if (dump.threads.empty()) {
        error = "damaged: it holds no thread";
        return std::nullopt;
    }
    std::stable_sort(dump.memory.begin(), dump.memory.end(),
                     [](const DumpedMemory& one, const DumpedMemory& other) { return one.start < other.start; });
    return dump;
}

#include "crash/MinidumpWriter.h"

#include <memory>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "support/DumpMemory.h"

using namespace VelCore::Minidump;
using VelCore::CMinidumpWriter;
using VelCore::ProcessSnapshot;

namespace {

const std::uint64_t kStack = 0x7f0000000000;
const std::uint64_t kCode = 0x400000;
const std::uint64_t kHeap = 0x10000000;

// A process of two threads with a stack each, a module, and a heap.
class MinidumpWriter : public testing::Test
{
protected:
    MinidumpWriter()
    {
        snapshot.process = 4711;
        snapshot.crashedThread = 4712;
        snapshot.signal = 11;
        snapshot.signalCode = 1;
        snapshot.faultAddress = 0x10;
        snapshot.time = 1700000000;
        snapshot.systemText = "System 1";
        snapshot.mapsText = "the maps";
        AddThread(4712, kStack + 0x800, kCode + 0x300);
        AddThread(4711, kStack + 0x20800, kCode + 0x500);
        AddMapping(kCode, std::string(0x1000, 'C'), false, "/bin/app");
        AddMapping(kHeap, "heap" + std::string(0x2000 - 4, '\0'), true, "");
        AddMapping(kStack, std::string(0x1000, 'S'), true, "");
        AddMapping(kStack + 0x20000, std::string(0x1000, 'T'), true, "");
        *snapshot.modules.Add() = {kCode, 0x1000, "/bin/app", {4, {0xDE, 0xAD, 0xBE, 0xEF}}};
    }

    void AddThread(pid_t id, std::uint64_t stackPointer, std::uint64_t instruction)
    {
        auto& thread = *snapshot.threads.Add();
        thread = {};
        thread.id = id;
        thread.threadData = 0xFEED;
        std::strcpy(thread.name, "name");
        thread.context.rsp = stackPointer;
        thread.context.rip = instruction;
    }

    void AddMapping(std::uint64_t start, const std::string& content, bool isWritable, std::string_view path)
    {
        *snapshot.mappings.Add() = {start, start + content.size(), 0, true, isWritable, !isWritable, path};
        memory.ranges[start] = content;
    }

    bool Write(bool full = false)
    {
        CMinidumpWriter writer(dump, memory);
        return writer.Write(snapshot, "name=value\n", full);
    }

    template <typename Record>
    Record At(std::uint64_t rva) const
    {
        Record record = {};
        EXPECT_LE(rva + sizeof record, dump.bytes.size());
        if (rva + sizeof record <= dump.bytes.size())
            std::memcpy(&record, dump.bytes.data() + rva, sizeof record);
        return record;
    }

    std::string BytesAt(const Location& location) const { return dump.bytes.substr(location.rva, location.size); }

    std::optional<Location> Stream(StreamType type) const
    {
        const auto header = At<Header>(0);
        for (std::uint32_t index = 0; index < header.streamCount; ++index) {
            const auto entry = At<DirectoryEntry>(header.directoryRva + index * sizeof(DirectoryEntry));
            if (entry.type == type)
                return entry.location;
        }
        return std::nullopt;
    }

    // Of a stream that begins with the number of its rows.
    template <typename Row>
    std::vector<Row> Rows(StreamType type) const
    {
        std::vector<Row> rows;
        const auto stream = Stream(type);
        EXPECT_TRUE(stream);
        const auto count = At<std::uint32_t>(stream->rva);
        EXPECT_EQ(stream->size, sizeof count + count * sizeof(Row));
        for (std::uint32_t index = 0; index < count; ++index)
            rows.push_back(At<Row>(stream->rva + sizeof count + index * sizeof(Row)));
        return rows;
    }

    // UTF-16 as text of one byte per character; others are '?'.
    std::string StringAt(std::uint32_t rva) const
    {
        std::string text;
        const auto length = At<std::uint32_t>(rva);
        for (std::uint32_t offset = 0; offset < length; offset += 2) {
            const auto unit = At<char16_t>(rva + 4 + offset);
            text += unit < 0x80 ? static_cast<char>(unit) : '?';
        }
        EXPECT_EQ(0, At<char16_t>(rva + 4 + length));
        return text;
    }

    static ProcessSnapshot& Cleared()
    {
        static std::unique_ptr<ProcessSnapshot> snapshot;
        snapshot = std::make_unique<ProcessSnapshot>();
        return *snapshot;
    }

    ProcessSnapshot& snapshot = Cleared(); // too large for the stack
    VelTest::CFakeMemory memory;
    VelTest::CDumpText dump;
};

TEST_F(MinidumpWriter, HeaderTellsKindAndTime)
{
    ASSERT_TRUE(Write());
    const auto header = At<Header>(0);
    EXPECT_EQ(std::string("MDMP"), dump.bytes.substr(0, 4));
    EXPECT_EQ(0xA793u, header.version);
    EXPECT_EQ(1700000000u, header.time);
    EXPECT_EQ(kNormal, header.flags);
}

TEST_F(MinidumpWriter, ThreadsHaveTheirRegistersAndStacks)
{
    ASSERT_TRUE(Write());
    const auto threads = Rows<Thread>(kThreadList);

    ASSERT_EQ(2u, threads.size());
    EXPECT_EQ(4712u, threads[0].id);
    EXPECT_EQ(0xFEEDu, threads[0].environmentBlock);
    EXPECT_EQ(sizeof(ContextAmd64), threads[0].context.size);
    EXPECT_EQ(kCode + 0x300, At<ContextAmd64>(threads[0].context.rva).rip);
    EXPECT_EQ(kStack + 0x800 - 128, threads[0].stack.start);
    EXPECT_EQ(std::string(0x800 + 128, 'S'), BytesAt(threads[0].stack.memory));
    EXPECT_EQ(std::string(0x800 + 128, 'T'), BytesAt(threads[1].stack.memory));
}

TEST_F(MinidumpWriter, ThreadWhoseStackIsNotThereHasNone)
{
    snapshot.threads.begin()->context.rsp = 0x10;
    ASSERT_TRUE(Write());
    EXPECT_EQ(0u, Rows<Thread>(kThreadList)[0].stack.memory.size);
    EXPECT_EQ(2u, Rows<MemoryDescriptor>(kMemoryList).size()); // of the other thread, and the code
}

TEST_F(MinidumpWriter, NamesOfThreads)
{
    ASSERT_TRUE(Write());
    const auto names = Rows<ThreadName>(kThreadNames);
    ASSERT_EQ(2u, names.size());
    EXPECT_EQ(4712u, names[0].id);
    EXPECT_EQ("name", StringAt(static_cast<std::uint32_t>(names[0].nameRva)));
}

TEST_F(MinidumpWriter, ExceptionIsTheSignal)
{
    ASSERT_TRUE(Write());
    const auto exception = At<ExceptionStream>(Stream(kException)->rva);
    EXPECT_EQ(4712u, exception.threadId);
    EXPECT_EQ(11u, exception.code);
    EXPECT_EQ(1u, exception.flags);
    EXPECT_EQ(0x10u, exception.address);
    EXPECT_EQ(kCode + 0x300, At<ContextAmd64>(exception.context.rva).rip);
}

TEST_F(MinidumpWriter, ModulesHaveNamesAndBuildIdentifiers)
{
    ASSERT_TRUE(Write());
    const auto modules = Rows<Module>(kModuleList);
    ASSERT_EQ(1u, modules.size());
    EXPECT_EQ(kCode, modules[0].base);
    EXPECT_EQ(0x1000u, modules[0].size);
    EXPECT_EQ("/bin/app", StringAt(modules[0].nameRva));
    EXPECT_EQ("LEpB\xDE\xAD\xBE\xEF", BytesAt(modules[0].codeView));
}

TEST_F(MinidumpWriter, ModuleWithoutAnIdentifierHasNoRecord)
{
    snapshot.modules.begin()->buildId.size = 0;
    ASSERT_TRUE(Write());
    EXPECT_EQ(0u, Rows<Module>(kModuleList)[0].codeView.size);
}

TEST_F(MinidumpWriter, NamesBeyondAsciiAreUtf16)
{
    snapshot.modules.begin()->path = "/\u00e9\u20ac\U0001F600\xff";
    ASSERT_TRUE(Write());
    const std::uint32_t rva = Rows<Module>(kModuleList)[0].nameRva;
    const char16_t wanted[] = u"/\u00e9\u20ac\U0001F600\u00ff";
    EXPECT_EQ(sizeof wanted - sizeof wanted[0], At<std::uint32_t>(rva));
    EXPECT_EQ(0, std::memcmp(wanted, dump.bytes.data() + rva + 4, sizeof wanted));
}

TEST_F(MinidumpWriter, CodeAroundTheInstructionIsKept)
{
    ASSERT_TRUE(Write());
    bool isKept = false;
    for (const auto& range : Rows<MemoryDescriptor>(kMemoryList))
        isKept = isKept || (range.start == kCode + 0x300 - 128 && BytesAt(range.memory) == std::string(256, 'C'));
    EXPECT_TRUE(isKept);
}

TEST_F(MinidumpWriter, SystemAndProcess)
{
    ASSERT_TRUE(Write());
    const auto system = At<SystemInfo>(Stream(kSystemInfo)->rva);
    EXPECT_EQ(kProcessorAmd64, system.processor);
    EXPECT_EQ(kPlatformLinux, system.platform);
    EXPECT_EQ("System 1", StringAt(system.versionTextRva));
    EXPECT_EQ(4711u, At<MiscInfo>(Stream(kMiscInfo)->rva).processId);
}

TEST_F(MinidumpWriter, TextsAreStreams)
{
    ASSERT_TRUE(Write());
    EXPECT_EQ("the maps", BytesAt(*Stream(kLinuxMaps)));
    EXPECT_EQ("name=value\n", BytesAt(*Stream(kNotes)));
    EXPECT_FALSE(Stream(kLinuxAuxv)); // there is none
}

TEST_F(MinidumpWriter, NormalFormHoldsNoHeap)
{
    ASSERT_TRUE(Write());
    EXPECT_FALSE(Stream(kMemory64List));
    EXPECT_EQ(std::string::npos, dump.bytes.find("heap"));
}

TEST_F(MinidumpWriter, FullFormHoldsWritableMemory)
{
    AddMapping(0x20000000, std::string(0x1000, 'D'), true, "/dev/device");
    AddMapping(0x30000000, std::string(0x1000, 'M'), true, "/dev/shm/shared");
    ASSERT_TRUE(Write(true));

    EXPECT_EQ(kWithFullMemory, At<Header>(0).flags);
    const std::uint32_t rva = Stream(kMemory64List)->rva;
    const auto list = At<Memory64List>(rva);
    ASSERT_EQ(4u, list.count);
    std::uint64_t offset = list.baseRva;
    for (std::uint64_t index = 0; index < list.count; ++index) {
        const auto row = At<Memory64Descriptor>(rva + sizeof list + index * sizeof(Memory64Descriptor));
        EXPECT_EQ(memory.ranges[row.start], dump.bytes.substr(offset, row.size)) << index;
        offset += row.size;
    }
    EXPECT_EQ(dump.bytes.size(), offset);
}

TEST_F(MinidumpWriter, PagesThatCannotBeReadAreZeros)
{
    memory.ranges[kHeap] = "heap" + std::string(0x1000 - 4, 'x'); // of two pages
    ASSERT_TRUE(Write(true));

    const auto list = At<Memory64List>(Stream(kMemory64List)->rva);
    EXPECT_EQ("heapx", dump.bytes.substr(list.baseRva, 5));
    EXPECT_EQ(std::string(0x1000, '\0'), dump.bytes.substr(list.baseRva + 0x1000, 0x1000));
}

TEST_F(MinidumpWriter, LuaTracebackIsAddedLater)
{
    CMinidumpWriter writer(dump, memory);
    ASSERT_TRUE(writer.Write(snapshot, "", true));
    EXPECT_EQ(0u, Stream(kLuaTraceback)->size);
    const std::size_t size = dump.bytes.size();

    ASSERT_TRUE(writer.AddLuaTraceback("stack traceback:"));

    EXPECT_EQ("stack traceback:", BytesAt(*Stream(kLuaTraceback)));
    EXPECT_EQ(size, dump.bytes.size());
}

TEST_F(MinidumpWriter, LongLuaTracebackIsCut)
{
    CMinidumpWriter writer(dump, memory);
    ASSERT_TRUE(writer.Write(snapshot, "", false));
    ASSERT_TRUE(writer.AddLuaTraceback(std::string(20000, 'x')));
    EXPECT_EQ(16384u, Stream(kLuaTraceback)->size);
}

TEST_F(MinidumpWriter, StackThatIsTooDeepKeepsBothEnds)
{
    AddMapping(kStack + 0x100000, std::string(0x700000, 'D'), true, "");
    snapshot.threads.begin()->context.rsp = kStack + 0x100000;
    ASSERT_TRUE(Write());
    EXPECT_EQ(0x80000u, Rows<Thread>(kThreadList)[0].stack.memory.size);
    EXPECT_EQ(0x10000u, Rows<MemoryDescriptor>(kMemoryList)[1].memory.size);
}

TEST_F(MinidumpWriter, RefusalAnywhereIsAnError)
{
    ASSERT_TRUE(Write(true));
    const std::size_t size = dump.bytes.size();
    for (std::size_t capacity = 0; capacity < size - 0x1000; capacity += 997) {
        dump.bytes.clear();
        dump.capacity = capacity;
        EXPECT_FALSE(Write(true)) << capacity;
    }
}

} // namespace

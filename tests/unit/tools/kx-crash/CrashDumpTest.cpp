#include "CrashDump.h"

#include <memory>

#include <gtest/gtest.h>

#include "support/DumpMemory.h"

using namespace VelCore::Minidump;

namespace {

const std::uint64_t kStack = 0x7f0000000000;
const std::uint64_t kCode = 0x400000;

// A dump as the agent writes it.
std::string Dump(bool full = false)
{
    static std::unique_ptr<VelCore::ProcessSnapshot> snapshot;
    snapshot = std::make_unique<VelCore::ProcessSnapshot>();
    snapshot->process = 4711;
    snapshot->crashedThread = 4712;
    snapshot->signal = 11;
    snapshot->signalCode = 1;
    snapshot->faultAddress = 0x10;
    snapshot->time = 1700000000;
    snapshot->systemText = "System \u00e9\u20ac\U0001F600";
    for (const pid_t id : {4712, 4711}) {
        auto& thread = *snapshot->threads.Add();
        thread = {};
        thread.id = id;
        std::strcpy(thread.name, id == 4712 ? "script" : "main");
        thread.context.rsp = kStack + 0x800;
        thread.context.rip = kCode + 0x300;
    }
    VelTest::CFakeMemory memory;
    memory.ranges[kStack] = std::string(0x1000, 'S');
    memory.ranges[kCode] = std::string(0x1000, 'C');
    *snapshot->mappings.Add() = {kCode, kCode + 0x1000, 0, true, false, true, "/bin/app"};
    *snapshot->mappings.Add() = {kStack, kStack + 0x1000, 0, true, true, false, ""};
    *snapshot->modules.Add() = {kCode, 0x1000, "/bin/app", {3, {1, 2, 3}}};

    VelTest::CDumpText dump;
    VelCore::CMinidumpWriter writer(dump, memory);
    EXPECT_TRUE(writer.Write(*snapshot, "app.name=hello\nphase=main\nodd\n=empty\n", full));
    EXPECT_TRUE(writer.AddLuaTraceback("stack traceback:"));
    return dump.bytes;
}

std::optional<CrashDump> Read(const std::string& bytes, std::string* error = nullptr)
{
    std::string ignored;
    return ReadCrashDump(bytes, error ? *error : ignored);
}

std::string ErrorOf(const std::string& bytes)
{
    std::string error;
    EXPECT_FALSE(Read(bytes, &error));
    return error;
}

// Where the entry of a stream is in the file.
std::size_t EntryOf(const std::string& bytes, StreamType type)
{
    for (std::size_t offset = sizeof(Header);; offset += sizeof(DirectoryEntry)) {
        DirectoryEntry entry = {};
        std::memcpy(&entry, bytes.data() + offset, sizeof entry);
        if (entry.type == type)
            return offset;
    }
}

TEST(CrashDump, SaysWhatTheAgentWrote)
{
    const std::string bytes = Dump();
    const auto dump = Read(bytes);

    ASSERT_TRUE(dump);
    EXPECT_EQ(4711u, dump->process);
    EXPECT_EQ(4712u, dump->crashedThread);
    EXPECT_EQ(1700000000, dump->time);
    EXPECT_EQ(11, dump->signal);
    EXPECT_EQ(1, dump->signalCode);
    EXPECT_EQ(0x10u, dump->address);
    EXPECT_FALSE(dump->isFull);
    EXPECT_EQ("System \u00e9\u20ac\U0001F600", dump->system);
    EXPECT_EQ("stack traceback:", dump->luaTraceback);
}

TEST(CrashDump, ThreadsModulesAndNotes)
{
    const std::string bytes = Dump();
    const auto dump = Read(bytes);

    ASSERT_EQ(2u, dump->threads.size());
    EXPECT_EQ("script", dump->threads[0].name);
    EXPECT_EQ("main", dump->threads[1].name);
    EXPECT_EQ(kCode + 0x300, dump->threads[0].context.rip);
    ASSERT_EQ(1u, dump->modules.size());
    EXPECT_EQ("/bin/app", dump->modules[0].path);
    EXPECT_EQ("\x01\x02\x03", dump->modules[0].buildId);
    ASSERT_EQ(3u, dump->notes.size());
    EXPECT_EQ("phase", dump->notes[1].first);
    EXPECT_EQ("main", dump->notes[1].second);
}

TEST(CrashDump, MemoryIsFoundByAddress)
{
    const std::uint64_t word = 0x5353535353535353;
    for (const bool full : {false, true}) {
        const std::string bytes = Dump(full);
        const auto dump = Read(bytes);
        EXPECT_EQ(full, dump->isFull);
        EXPECT_EQ(word, dump->WordAt(kStack + 0x800));
        EXPECT_EQ(word, dump->WordAt(kStack + 0x1000 - 8));
        EXPECT_FALSE(dump->WordAt(kStack + 0x1000 - 7));
        EXPECT_FALSE(dump->WordAt(0));
        EXPECT_FALSE(dump->WordAt(~std::uint64_t{0}));
        EXPECT_EQ(full, dump->WordAt(kStack).has_value());
    }
}

TEST(CrashDump, ModuleAtAnAddress)
{
    const std::string bytes = Dump();
    const auto dump = Read(bytes);
    EXPECT_EQ(nullptr, dump->ModuleAt(kCode - 1));
    EXPECT_EQ(&dump->modules[0], dump->ModuleAt(kCode));
    EXPECT_EQ(&dump->modules[0], dump->ModuleAt(kCode + 0xFFF));
    EXPECT_EQ(nullptr, dump->ModuleAt(kCode + 0x1000));
}

TEST(CrashDump, OtherFilesAreRefused)
{
    const std::string bytes = Dump();
    EXPECT_EQ("not a minidump", ErrorOf(""));
    EXPECT_EQ("not a minidump", ErrorOf("MDMP"));
    EXPECT_EQ("not a minidump", ErrorOf(std::string(1000, 'x')));
    EXPECT_EQ("damaged: it does not say what system it comes from", ErrorOf(bytes.substr(0, sizeof(Header))));
}

TEST(CrashDump, AnotherProcessorIsRefused)
{
    std::string bytes = Dump();
    DirectoryEntry entry = {};
    std::memcpy(&entry, bytes.data() + EntryOf(bytes, kSystemInfo), sizeof entry);
    bytes[entry.location.rva] = 12;
    EXPECT_EQ("of another processor than AMD64", ErrorOf(bytes));
}

TEST(CrashDump, DumpWithoutThreadsIsRefused)
{
    std::string bytes = Dump();
    bytes[EntryOf(bytes, kThreadList)] = 0;
    EXPECT_EQ("damaged: it holds no thread", ErrorOf(bytes));
}

TEST(CrashDump, MissingStreamsAreLeftOut)
{
    for (const StreamType type :
         {kModuleList, kException, kMemoryList, kMiscInfo, kThreadNames, kNotes, kLuaTraceback}) {
        std::string bytes = Dump();
        bytes[EntryOf(bytes, type) + 3] = 0x7F;
        EXPECT_TRUE(Read(bytes)) << type;
    }
}

TEST(CrashDump, FileThatIsCutAnywhereIsReadOrRefused)
{
    const std::string bytes = Dump();
    int read = 0;
    for (std::size_t size = 0; size <= bytes.size(); size += 7) {
        const std::string cut = bytes.substr(0, size);
        read += Read(cut) ? 1 : 0;
    }
    EXPECT_LT(0, read);
}

TEST(CrashDump, LargeNumbersDoNotMakeItAllocate)
{
    std::string bytes = Dump();
    for (const StreamType type : {kThreadList, kModuleList, kMemoryList, kThreadNames}) {
        DirectoryEntry entry = {};
        std::memcpy(&entry, bytes.data() + EntryOf(bytes, type), sizeof entry);
        std::memset(bytes.data() + entry.location.rva, 0xFF, 4);
    }
    EXPECT_TRUE(Read(bytes));
}

} // namespace

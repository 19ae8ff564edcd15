#include "crash/ModuleList.h"

#include <cstring>
#include <memory>

#include <elf.h>

#include <gtest/gtest.h>

#include "support/DumpMemory.h"

using VelCore::SnapshotMapping;
using VelCore::SnapshotMappings;
using VelCore::SnapshotModule;
using VelCore::SnapshotModules;

namespace {

const std::uint64_t kBase = 0x7f0000000000;
const std::string kBuildId = "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10\x11\x12\x13\x14";

std::string Note(std::uint32_t type, const std::string& name, const std::string& content)
{
    const Elf64_Nhdr header = {static_cast<Elf64_Word>(name.size()), static_cast<Elf64_Word>(content.size()), type};
    std::string note(reinterpret_cast<const char*>(&header), sizeof header);
    for (std::string part : {name, content}) {
        part.resize((part.size() + 3) / 4 * 4);
        note += part;
    }
    return note;
}

const std::string kGnu("GNU\0", 4);

// The beginning of a shared library with these notes.
std::string Library(const std::string& notes)
{
    Elf64_Ehdr header = {};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS64;
    header.e_phoff = sizeof header;
    header.e_phnum = 2;
    header.e_phentsize = sizeof(Elf64_Phdr);
    Elf64_Phdr parts[2] = {};
    parts[0].p_type = PT_LOAD;
    parts[1].p_type = PT_NOTE;
    parts[1].p_offset = sizeof header + sizeof parts;
    parts[1].p_vaddr = parts[1].p_offset;
    parts[1].p_filesz = notes.size();
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) +
           std::string(reinterpret_cast<const char*>(parts), sizeof parts) + notes;
}

struct Process
{
    Process() : mappings(std::make_unique<SnapshotMappings>()), modules(std::make_unique<SnapshotModules>()) {}

    void Map(std::uint64_t start, std::uint64_t end, std::uint64_t offset, bool isExecutable,
             std::string_view path) const
    {
        *mappings->Add() = {start, end, offset, true, false, isExecutable, path};
    }
    const SnapshotModules& Find() const
    {
        VelCore::FindModules(*mappings, memory, *modules);
        return *modules;
    }

    VelTest::CFakeMemory memory;
    std::unique_ptr<SnapshotMappings> mappings;
    std::unique_ptr<SnapshotModules> modules;
};

// One library of three parts, as a loader maps it.
Process WithLibrary(const std::string& bytes)
{
    Process process;
    process.memory.ranges[kBase] = bytes;
    process.Map(kBase, kBase + 0x1000, 0, false, "/usr/lib/x.so");
    process.Map(kBase + 0x1000, kBase + 0x3000, 0x1000, true, "/usr/lib/x.so");
    process.Map(kBase + 0x3000, kBase + 0x4000, 0x2000, false, "/usr/lib/x.so");
    return process;
}

std::string BuildIdOf(const SnapshotModule& module)
{
    return std::string(reinterpret_cast<const char*>(module.buildId.bytes), module.buildId.size);
}

TEST(ModuleList, PartsOfAFileAreOneModule)
{
    const Process process = WithLibrary(Library(Note(NT_GNU_BUILD_ID, kGnu, kBuildId)));
    const SnapshotModules& modules = process.Find();

    ASSERT_EQ(1u, modules.size());
    EXPECT_EQ(kBase, modules[0].start);
    EXPECT_EQ(0x4000u, modules[0].size);
    EXPECT_EQ("/usr/lib/x.so", modules[0].path);
    EXPECT_EQ(kBuildId, BuildIdOf(modules[0]));
}

TEST(ModuleList, IdentifierIsFoundBehindOtherNotes)
{
    const Process process =
        WithLibrary(Library(Note(5, kGnu, "abc") + Note(NT_GNU_BUILD_ID, std::string("Go\0", 3), "x") +
                            Note(NT_GNU_BUILD_ID, kGnu, kBuildId)));
    EXPECT_EQ(kBuildId, BuildIdOf(process.Find()[0]));
}

TEST(ModuleList, ModuleWithoutAnIdentifierIsAModule)
{
    for (const std::string& notes :
         {std::string(), Note(5, kGnu, "abc"), Note(NT_GNU_BUILD_ID, kGnu, std::string(33, 'x')),
          Note(NT_GNU_BUILD_ID, kGnu, kBuildId).substr(0, 30), std::string(3, 'x')}) {
        const Process process = WithLibrary(Library(notes));
        ASSERT_EQ(1u, process.Find().size());
        EXPECT_EQ("", BuildIdOf((*process.modules)[0]));
    }
}

TEST(ModuleList, DamagedHeadersGiveNoIdentifier)
{
    std::string bytes = Library(Note(NT_GNU_BUILD_ID, kGnu, kBuildId));
    for (const std::size_t cut : {sizeof(Elf64_Ehdr), bytes.size() - 1}) {
        const Process process = WithLibrary(bytes.substr(0, cut));
        ASSERT_EQ(1u, process.Find().size());
        EXPECT_EQ("", BuildIdOf((*process.modules)[0]));
    }
}

TEST(ModuleList, ProgramAtAFixedAddressIsUnderstood)
{
    std::string bytes = Library(Note(NT_GNU_BUILD_ID, kGnu, kBuildId));
    auto* parts = reinterpret_cast<Elf64_Phdr*>(bytes.data() + sizeof(Elf64_Ehdr));
    parts[0].p_vaddr = kBase;
    parts[1].p_vaddr += kBase;
    const Process process = WithLibrary(bytes);
    EXPECT_EQ(kBuildId, BuildIdOf(process.Find()[0]));
}

TEST(ModuleList, TwoCopiesOfAFileAreTwoModules)
{
    Process process = WithLibrary(Library(""));
    process.memory.ranges[kBase + 0x4000] = Library("");
    process.Map(kBase + 0x4000, kBase + 0x5000, 0, true, "/usr/lib/x.so");
    EXPECT_EQ(2u, process.Find().size());
}

TEST(ModuleList, WhatIsNotCodeIsNoModule)
{
    Process process;
    process.memory.ranges[kBase] = Library("");
    process.memory.ranges[kBase + 0x10000] = std::string(4096, 'x');
    process.memory.ranges[kBase + 0x20000] = Library("");
    process.Map(kBase, kBase + 0x1000, 0, false, "/data/is/not/executable.so");
    process.Map(kBase + 0x10000, kBase + 0x11000, 0, true, "/is/no/elf/file");
    process.Map(kBase + 0x20000, kBase + 0x21000, 0, true, "");
    process.Map(kBase + 0x30000, kBase + 0x31000, 0, true, "/cannot/be/read");
    EXPECT_EQ(0u, process.Find().size());
}

TEST(ModuleList, CodeOfTheSystemIsAModule)
{
    Process process;
    process.memory.ranges[kBase] = Library("");
    process.Map(kBase, kBase + 0x2000, 0, true, "[vdso]");
    EXPECT_EQ(1u, process.Find().size());
}

} // namespace

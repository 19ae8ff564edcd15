#include "crash/MapsText.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

using VelCore::SnapshotMapping;
using VelCore::SnapshotMappings;

namespace {

std::unique_ptr<SnapshotMappings> Read(std::string_view text)
{
    auto mappings = std::make_unique<SnapshotMappings>();
    VelCore::ReadMappings(text, *mappings);
    return mappings;
}

TEST(MapsText, LineOfAFile)
{
    const auto mappings =
        Read("7f521bf37000-7f521bf38000 r-xp 0001f000 08:01 1234567                    /usr/lib/a b.so\n");

    ASSERT_EQ(1u, mappings->size());
    const SnapshotMapping& mapping = (*mappings)[0];
    EXPECT_EQ(0x7f521bf37000u, mapping.start);
    EXPECT_EQ(0x7f521bf38000u, mapping.end);
    EXPECT_EQ(0x1f000u, mapping.fileOffset);
    EXPECT_TRUE(mapping.isReadable);
    EXPECT_FALSE(mapping.isWritable);
    EXPECT_TRUE(mapping.isExecutable);
    EXPECT_EQ("/usr/lib/a b.so", mapping.path);
}

TEST(MapsText, RightsAreRead)
{
    const auto mappings = Read("1000-2000 ---p 00000000 00:00 0\n2000-3000 rw-s 00000000 00:00 0\n");

    ASSERT_EQ(2u, mappings->size());
    EXPECT_FALSE((*mappings)[0].isReadable || (*mappings)[0].isWritable || (*mappings)[0].isExecutable);
    EXPECT_TRUE((*mappings)[1].isReadable && (*mappings)[1].isWritable);
    EXPECT_EQ("", (*mappings)[1].path);
}

TEST(MapsText, SpecialMemoryHasANameInBrackets)
{
    EXPECT_EQ("[stack]",
              (*Read("7ffc00000000-7ffc00021000 rw-p 00000000 00:00 0                          [stack]\n"))[0].path);
}

TEST(MapsText, RemovedFileKeepsItsPath)
{
    EXPECT_EQ("/opt/x", (*Read("1000-2000 r--p 00000000 08:01 5 /opt/x (deleted)\n"))[0].path);
    EXPECT_EQ(" (deleted)", (*Read("1000-2000 r--p 00000000 08:01 5 /opt/x (deleted) (deleted)\n"))[0].path.substr(6));
}

TEST(MapsText, HighestAddressIsRead)
{
    EXPECT_EQ(0xffffffffff601000u,
              (*Read("ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0 [vsyscall]\n"))[0].end);
}

TEST(MapsText, LastLineMayEndWithoutALineFeed)
{
    EXPECT_EQ(2u, Read("1000-2000 r--p 00000000 00:00 0\n2000-3000 r--p 00000000 00:00 0")->size());
}

TEST(MapsText, WhatIsNoMappingIsSkipped)
{
    for (const char* line :
         {"", "\n\n", "x", "1000", "1000-", "1000-2000", "1000-2000 ", "1000-2000 r--p", "2000-1000 r--p 0 0:0 0",
          "1000-1000 r--p 0 0:0 0", "g000-h000 r--p 0 0:0 0", "-1000 r--p 0 0:0 0", "1000-2000 r- 0 0:0 0",
          "11112222333344445-11112222333344446 r--p 0 0:0 0"})
        EXPECT_EQ(0u, Read(line)->size()) << line;
}

TEST(MapsText, WhatDoesNotFitIsCounted)
{
    std::string text;
    for (int number = 0; number < 16386; ++number)
        text += "1000-2000 r--p 00000000 00:00 0\n";
    const auto mappings = Read(text);
    EXPECT_EQ(16384u, mappings->size());
    EXPECT_EQ(2u, mappings->LeftOut());
}

} // namespace

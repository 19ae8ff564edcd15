#include "ZipWriter.h"

#include <vector>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include "archive/ZipFormat.h"
#include "support/ZipBuilder.h"

using VelCore::ZipEntry;
using VelTest::CMemorySource;

namespace {

void Add(CZipWriter& writer, const std::string& name, const std::string& content, unsigned mode = 0644)
{
    std::string reason;
    ASSERT_TRUE(writer.Add(name, mode, content, reason)) << reason;
}

std::vector<ZipEntry> EntriesOf(const std::string& archive)
{
    std::vector<ZipEntry> entries;
    std::string reason;
    EXPECT_TRUE(VelCore::ReadZipDirectory(CMemorySource(archive), entries, reason)) << reason;
    return entries;
}

std::string ContentOf(const std::string& archive, const ZipEntry& entry)
{
    std::string content;
    std::string reason;
    EXPECT_TRUE(VelCore::ReadZipEntry(CMemorySource(archive), entry, content, reason)) << reason;
    return content;
}

} // namespace

TEST(ZipWriter, WhatIsWrittenIsReadAgain)
{
    const std::string contents[] = {"", "a", std::string(100000, 'x'), std::string("\0\xFF\n", 3)};
    CZipWriter writer;
    for (const std::string& content : contents)
        Add(writer, "folder/" + std::to_string(content.size()), content);

    const std::string archive = writer.Finish();

    const std::vector<ZipEntry> entries = EntriesOf(archive);
    ASSERT_EQ(4u, entries.size());
    for (std::size_t at = 0; at < entries.size(); ++at) {
        EXPECT_EQ("folder/" + std::to_string(contents[at].size()), entries[at].name);
        EXPECT_EQ(contents[at], ContentOf(archive, entries[at]));
    }
}

TEST(ZipWriter, ArchiveWithoutEntriesIsReadAgain)
{
    EXPECT_TRUE(EntriesOf(CZipWriter().Finish()).empty());
}

TEST(ZipWriter, ContentIsDeflatedOnlyWhereThatIsShorter)
{
    CZipWriter writer;
    Add(writer, "long", std::string(1000, 'x'));
    Add(writer, "short", "xy");

    const std::vector<ZipEntry> entries = EntriesOf(writer.Finish());

    EXPECT_EQ(8, entries[0].method);
    EXPECT_LT(entries[0].compressedSize, 1000u);
    EXPECT_EQ(0, entries[1].method);
    EXPECT_EQ(2u, entries[1].compressedSize);
}

TEST(ZipWriter, EntriesCarryTypeAndPermissions)
{
    CZipWriter writer;
    Add(writer, "file", "", 0644);
    Add(writer, "program", "", 0755);
    Add(writer, "setuid", "", 04755);
    Add(writer, "folder/", "", 0755);

    const std::vector<ZipEntry> entries = EntriesOf(writer.Finish());

    EXPECT_EQ(unsigned{S_IFREG | 0644}, entries[0].UnixMode());
    EXPECT_EQ(unsigned{S_IFREG | 0755}, entries[1].UnixMode());
    EXPECT_EQ(unsigned{S_IFREG | 0755}, entries[2].UnixMode());
    EXPECT_EQ(unsigned{S_IFDIR | 0755}, entries[3].UnixMode());
}

TEST(ZipWriter, NameThatNoArchiveHoldsIsRefused)
{
    CZipWriter writer;
    std::string reason;

    EXPECT_FALSE(writer.Add("", 0644, "content", reason));
    EXPECT_EQ("an archive cannot hold a name of this length", reason);
    EXPECT_FALSE(writer.Add(std::string(65536, 'n'), 0644, "content", reason));
    EXPECT_TRUE(writer.Add(std::string(65535, 'n'), 0644, "content", reason));

    EXPECT_EQ(1u, EntriesOf(writer.Finish()).size());
}

TEST(ZipWriter, EntryBeyondTheCountIsRefused)
{
    CZipWriter writer;
    for (int count = 0; count < 65534; ++count)
        Add(writer, std::to_string(count), "");
    std::string reason;

    EXPECT_FALSE(writer.Add("one more", 0644, "", reason));
    EXPECT_EQ("the archive would have more than 65534 entries or 4 GiB", reason);

    EXPECT_EQ(65534u, EntriesOf(writer.Finish()).size());
}

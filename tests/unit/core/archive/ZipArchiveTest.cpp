#include "archive/ZipArchive.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/ZipBuilder.h"

using VelCore::CZipArchive;
using VelTest::CZipBuilder;
using VelTest::ZipItem;

namespace {

ZipItem Item(const std::string& name, const std::string& content)
{
    ZipItem item;
    item.name = name;
    item.content = content;
    return item;
}

// Too large for the archive to be kept in memory: noise that no method makes smaller.
ZipItem Filler()
{
    std::string noise;
    std::uint32_t state = 1;
    while (noise.size() < 100000) {
        state = state * 1664525 + 1013904223;
        noise += static_cast<char>(state >> 24);
    }
    return Item("filler", noise);
}

// A folder of its own with one archive in it; both are gone afterwards.
class ZipArchive : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string pattern = testing::TempDir() + "ZipArchiveTest.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(&pattern[0]));
        m_folder = pattern;
        m_path = m_folder + "/a.kxe";
    }

    void TearDown() override
    {
        for (const char* name : {"/a.kxe", "/b.kxe"})
            std::remove((m_folder + name).c_str());
        EXPECT_EQ(0, rmdir(m_folder.c_str()));
    }

    void Write(const std::string& bytes) const
    {
        std::ofstream file(m_path, std::ios::binary | std::ios::trunc);
        file << bytes;
        file.close();
        ASSERT_TRUE(file.good());
    }

    std::string OpenReason(const std::string& path) const
    {
        std::string reason;
        const auto archive = CZipArchive::Open(path, reason);
        return archive ? "" : reason;
    }

    std::shared_ptr<const CZipArchive> Open() const
    {
        std::string reason;
        auto archive = CZipArchive::Open(m_path, reason);
        EXPECT_NE(nullptr, archive) << reason;
        return archive;
    }

    std::string m_folder;
    std::string m_path;
};

// The content of the entry, or the reason in angle brackets.
std::string ReadEntry(const CZipArchive& archive, std::size_t index)
{
    std::string content;
    std::string reason;
    return archive.Read(archive.Entries().at(index), content, reason) ? content : "<" + reason + ">";
}

std::string Noise(std::size_t length)
{
    std::string noise;
    unsigned state = 1;
    while (noise.size() < length) {
        state = state * 1103515245u + 12345u;
        noise += static_cast<char>(state >> 16);
    }
    return noise;
}

} // namespace

TEST_F(ZipArchive, EntriesAreReadByTheirDirectory)
{
    Write(CZipBuilder({Item("a.lua", "return 1"), Item("b/", ""), Item("b/c.lua", "return 2")}).Build());
    const auto archive = Open();
    ASSERT_NE(nullptr, archive);

    EXPECT_EQ(m_path, archive->Path());
    ASSERT_EQ(3u, archive->Entries().size());
    EXPECT_EQ("b/c.lua", archive->Entries()[2].name);
    EXPECT_EQ("return 2", ReadEntry(*archive, 2));
    EXPECT_EQ("return 1", ReadEntry(*archive, 0));
    EXPECT_EQ("", ReadEntry(*archive, 1));
}

TEST_F(ZipArchive, WhatIsNoArchiveHasAReason)
{
    EXPECT_EQ("cannot open: No such file or directory", OpenReason(m_path));
    EXPECT_EQ("cannot open: No such file or directory", OpenReason(""));
    EXPECT_EQ("not a regular file", OpenReason(m_folder));
    EXPECT_EQ("not a regular file", OpenReason("/dev/null"));

    Write("");
    EXPECT_EQ("not a ZIP archive: no end-of-directory record", OpenReason(m_path));
    EXPECT_EQ("cannot open: Not a directory", OpenReason(m_path + "/a"));
}

TEST_F(ZipArchive, PipeDoesNotHoldTheOpenCall)
{
    ASSERT_EQ(0, mkfifo(m_path.c_str(), 0600));
    EXPECT_EQ("not a regular file", OpenReason(m_path));
}

TEST_F(ZipArchive, LinkIsFollowed)
{
    Write(CZipBuilder({Item("a.lua", "return 1")}).Build());
    const std::string link = m_folder + "/b.kxe";
    ASSERT_EQ(0, symlink(m_path.c_str(), link.c_str()));
    EXPECT_EQ("", OpenReason(link));
}

TEST_F(ZipArchive, ReplacedFileDoesNotDisturb)
{
    Write(CZipBuilder({Item("a.lua", "return 'old'")}).Build());
    const auto archive = Open();
    ASSERT_NE(nullptr, archive);

    ASSERT_EQ(0, std::remove(m_path.c_str()));
    Write(CZipBuilder({Item("a.lua", "return 'another'")}).Build());
    EXPECT_EQ("return 'old'", ReadEntry(*archive, 0));
    EXPECT_EQ("return 'another'", ReadEntry(*Open(), 0));
}

TEST_F(ZipArchive, FileCutWhileOpenIsAnError)
{
    Write(CZipBuilder({Item("a.lua", "return 1"), Item("b.lua", Noise(100000))}).Build());
    const auto archive = Open();
    ASSERT_NE(nullptr, archive);

    ASSERT_EQ(0, truncate(m_path.c_str(), 50000));
    EXPECT_EQ("return 1", ReadEntry(*archive, 0));
    EXPECT_EQ("<the file is shorter than it should be>", ReadEntry(*archive, 1));
    ASSERT_EQ(0, truncate(m_path.c_str(), 0));
    EXPECT_EQ("<the file is shorter than it should be>", ReadEntry(*archive, 0));
}

TEST_F(ZipArchive, FileOverwrittenInPlaceIsAnError)
{
    Write(CZipBuilder({Item("a.lua", "return 1"), Filler()}).Build());
    const auto archive = Open();
    ASSERT_NE(nullptr, archive);

    Write(CZipBuilder({Item("a.lua", "return 2"), Filler()}).Build()); // the same inode, the same lengths
    EXPECT_EQ("<the local header contradicts the directory (checksum)>", ReadEntry(*archive, 0));
}

TEST_F(ZipArchive, SmallFileIsKeptWhateverHappensToIt)
{
    Write(CZipBuilder({Item("a.lua", "return 1")}).Build());
    const int next = open("/dev/null", O_RDONLY); // the lowest free number
    ASSERT_GE(next, 0);
    close(next);
    const auto archive = Open();
    ASSERT_NE(nullptr, archive);

    EXPECT_EQ(-1, fcntl(next, F_GETFD)); // takes no descriptor
    Write("");
    EXPECT_EQ("return 1", ReadEntry(*archive, 0));
}

TEST_F(ZipArchive, DescriptorIsNotInheritedAndIsClosedWithTheArchive)
{
    Write(CZipBuilder({Item("a.lua", "return 1"), Filler()}).Build());
    const int next = open("/dev/null", O_RDONLY); // the lowest free number, which Open will take
    ASSERT_GE(next, 0);
    close(next);

    auto archive = Open();
    ASSERT_NE(nullptr, archive);
    EXPECT_EQ(FD_CLOEXEC, fcntl(next, F_GETFD));
    archive.reset();
    EXPECT_EQ(-1, fcntl(next, F_GETFD));

    Write("no archive");
    EXPECT_NE("", OpenReason(m_path));
    EXPECT_EQ(-1, fcntl(next, F_GETFD));
}

TEST_F(ZipArchive, ThreadsReadAtTheSameTime)
{
    CZipBuilder builder;
    for (int number = 0; number < 50; ++number)
        builder.items.push_back(Item(std::to_string(number), Noise(static_cast<std::size_t>(number) * 100)));
    Write(builder.Build());
    const auto archive = Open();
    ASSERT_NE(nullptr, archive);

    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (std::size_t index = 0; index < builder.items.size(); ++index) {
                if (ReadEntry(*archive, index) == builder.items[index].content)
                    ++right;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(4 * 50, right);
}

// 5 GB of nothing between two entries: positions beyond 32 bits, without the disk space.
TEST_F(ZipArchive, EntryBehindFourGigabytesIsRead)
{
    ZipItem far = Item("far.lua", "return 'far'");
    far.zip64 = true;
    const std::size_t nearLength = 30 + 8 + VelTest::Deflate("return 'near'").size();
    const std::uint64_t hole = 5ull << 30;

    // Built as if `far` followed directly, then moved behind the hole.
    CZipBuilder builder({Item("near.lua", "return 'near'"), far});
    builder.zip64 = true;
    builder.items[1].directoryOffset = nearLength + hole;
    const std::string plain = builder.Build();
    const std::size_t directory = plain.find("PK\1\2");
    builder.directoryOffset = directory + hole;
    const std::string bytes = builder.Build();

    std::FILE* file = std::fopen(m_path.c_str(), "wb");
    ASSERT_NE(nullptr, file);
    ASSERT_EQ(nearLength, std::fwrite(bytes.data(), 1, nearLength, file));
    ASSERT_EQ(0, fseeko(file, static_cast<off_t>(nearLength + hole), SEEK_SET));
    ASSERT_EQ(bytes.size() - nearLength, std::fwrite(bytes.data() + nearLength, 1, bytes.size() - nearLength, file));
    ASSERT_EQ(0, std::fclose(file));

    // The locator still names the place without the hole: the record is found in front of it all the same.
    const auto archive = Open();
    ASSERT_NE(nullptr, archive);
    EXPECT_EQ("return 'near'", ReadEntry(*archive, 0));
    EXPECT_EQ("return 'far'", ReadEntry(*archive, 1));
}

#include "archive/EntryStream.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "support/ZipBuilder.h"

using VelCore::CEntryStream;
using VelCore::ZipEntry;
using VelTest::CMemorySource;
using VelTest::CZipBuilder;
using VelTest::ZipItem;

namespace {

// Does not become smaller, so that both methods read much.
std::string Noise(std::size_t size)
{
    std::string noise;
    std::uint32_t state = 7;
    while (noise.size() < size) {
        state = state * 1664525 + 1013904223;
        noise += static_cast<char>(state >> 24);
    }
    return noise;
}

ZipItem Item(const std::string& content, std::uint16_t method = 8)
{
    ZipItem item;
    item.name = "a";
    item.content = content;
    item.method = method;
    return item;
}

struct Outcome
{
    std::string content; // all that was handed out
    std::string reason;  // empty: read to its end
    std::size_t largestPiece = 0;
};

Outcome ReadAll(CEntryStream& stream)
{
    Outcome outcome;
    std::string_view piece;
    do {
        if (!stream.Next(piece, outcome.reason))
            return outcome;
        outcome.content += piece;
        outcome.largestPiece = std::max(outcome.largestPiece, piece.size());
    } while (!piece.empty());
    return outcome;
}

Outcome ReadFirst(const std::string& archive)
{
    const CMemorySource source(archive);
    std::vector<ZipEntry> entries;
    Outcome outcome;
    if (!VelCore::ReadZipDirectory(source, entries, outcome.reason))
        return outcome;
    CEntryStream stream(source, entries.at(0));
    return ReadAll(stream);
}

Outcome ReadItem(const ZipItem& item)
{
    return ReadFirst(CZipBuilder({item}).Build());
}

TEST(EntryStream, GivesTheContentOfEveryFormOfEntry)
{
    for (const std::size_t size :
         {std::size_t(0), std::size_t(1), std::size_t(0x1FFFF), std::size_t(0x20000), std::size_t(0x20001),
          std::size_t(0x40000), std::size_t(0x40001), std::size_t(2000000)}) {
        for (const std::uint16_t method : {std::uint16_t(0), std::uint16_t(8)}) {
            for (const bool zip64 : {false, true}) {
                for (const bool descriptor : {false, true}) {
                    ZipItem item = Item(Noise(size), method);
                    item.zip64 = zip64;
                    item.dataDescriptor = descriptor;
                    const Outcome outcome = ReadItem(item);
                    EXPECT_EQ("", outcome.reason) << size << " " << method << " " << zip64 << " " << descriptor;
                    EXPECT_TRUE(item.content == outcome.content);
                }
            }
        }
    }
}

TEST(EntryStream, GivesPiecesOfABoundedSize)
{
    const Outcome deflated = ReadItem(Item(std::string(20000000, 'x')));
    EXPECT_EQ(20000000u, deflated.content.size());
    EXPECT_LE(deflated.largestPiece, 0x40000u);

    const Outcome stored = ReadItem(Item(std::string(2000000, 'x'), 0));
    EXPECT_EQ(2000000u, stored.content.size());
    EXPECT_LE(stored.largestPiece, 0x20000u);
}

TEST(EntryStream, AgreesWithReadingAsAWhole)
{
    const std::string archive = CZipBuilder({Item(std::string(100000, 'x') + Noise(100000))}).Build();
    const CMemorySource source(archive);
    std::vector<ZipEntry> entries;
    std::string reason;
    ASSERT_TRUE(VelCore::ReadZipDirectory(source, entries, reason)) << reason;
    std::string whole;
    ASSERT_TRUE(VelCore::ReadZipEntry(source, entries[0], whole, reason)) << reason;

    EXPECT_TRUE(whole == ReadFirst(archive).content);
}

TEST(EntryStream, ChecksTheChecksumAtTheEnd)
{
    for (const std::uint16_t method : {std::uint16_t(0), std::uint16_t(8)}) {
        ZipItem item = Item("content", method);
        item.localCrc = item.directoryCrc = 1;
        const Outcome outcome = ReadItem(item);
        EXPECT_EQ("the checksum does not match", outcome.reason);
        EXPECT_EQ("content", outcome.content);
    }
}

TEST(EntryStream, NeverGivesMoreThanTheDeclaredSize)
{
    for (const std::uint64_t declared :
         {std::uint64_t(1), std::uint64_t(999), std::uint64_t(0x40000), std::uint64_t(19999999)}) {
        ZipItem item = Item(std::string(20000000, 'x'));
        item.localSize = item.directorySize = declared;
        const Outcome outcome = ReadItem(item);
        EXPECT_EQ("the content is longer than declared", outcome.reason);
        EXPECT_LE(outcome.content.size(), declared);
    }
}

TEST(EntryStream, GivesNothingOfAnEntryThatIsDeclaredEmpty)
{
    ZipItem item = Item("content");
    item.localSize = item.directorySize = 0;
    const Outcome outcome = ReadItem(item);
    EXPECT_EQ("the content is longer than declared", outcome.reason);
    EXPECT_EQ("", outcome.content);
}

TEST(EntryStream, NoticesContentThatIsShorterThanDeclared)
{
    ZipItem item = Item("content");
    item.localSize = item.directorySize = 8;
    EXPECT_EQ("the content is shorter than declared", ReadItem(item).reason);
}

TEST(EntryStream, NoticesDataBehindTheEndOfTheStream)
{
    ZipItem item = Item(Noise(1000));
    item.data = VelTest::Deflate(item.content) + "x";
    EXPECT_EQ("the compressed data ends before its declared size", ReadItem(item).reason);

    item.data = VelTest::Deflate(item.content) + std::string(60000, 'x');
    EXPECT_EQ("the compressed data ends before its declared size", ReadItem(item).reason);

    // More than any stream of that content has.
    item.data = VelTest::Deflate(item.content) + std::string(500000, 'x');
    EXPECT_EQ("the compressed size is impossible for the declared size", ReadItem(item).reason);
}

TEST(EntryStream, NoticesAStreamThatIsCut)
{
    ZipItem item = Item(Noise(300000));
    const std::string data = VelTest::Deflate(item.content);
    for (const std::size_t length : {std::size_t(1), std::size_t(1000), std::size_t(0x20000), data.size() - 1}) {
        item.data = data.substr(0, length);
        EXPECT_FALSE(ReadItem(item).reason.empty()) << length;
    }
}

TEST(EntryStream, NoticesDamagedData)
{
    ZipItem item = Item("content");
    item.data = std::string("\xFF\xFF\xFF", 3);
    EXPECT_EQ("the compressed data is damaged", ReadItem(item).reason);
}

TEST(EntryStream, RefusesWhatNobodyCanRead)
{
    ZipItem encrypted = Item("content");
    encrypted.flags = 1;
    EXPECT_EQ("the entry is encrypted", ReadItem(encrypted).reason);

    ZipItem method = Item("content");
    method.localMethod = method.directoryMethod = 14;
    EXPECT_EQ("unsupported compression method 14", ReadItem(method).reason);

    ZipItem sizes = Item("content", 0);
    sizes.localSize = sizes.directorySize = 6;
    EXPECT_EQ("the entry is stored, but its two sizes differ", ReadItem(sizes).reason);

    ZipItem impossible = Item("content");
    impossible.localSize = impossible.directorySize = 1000000000;
    EXPECT_EQ("the declared size is impossible for the compressed size", ReadItem(impossible).reason);
}

TEST(EntryStream, ComparesTheLocalHeaderWithTheDirectory)
{
    ZipItem item = Item("content");
    item.localName = "b";
    EXPECT_EQ("the local header contradicts the directory (name)", ReadItem(item).reason);
}

TEST(EntryStream, NoticesAFileThatWasCutSinceItWasOpened)
{
    for (const std::uint16_t method : {std::uint16_t(0), std::uint16_t(8)}) {
        const std::string archive = CZipBuilder({Item(Noise(500000), method)}).Build();
        const CMemorySource whole(archive);
        std::vector<ZipEntry> entries;
        std::string reason;
        ASSERT_TRUE(VelCore::ReadZipDirectory(whole, entries, reason)) << reason;

        const CMemorySource cut(archive.data(), 300000);
        CEntryStream stream(cut, entries[0]);
        EXPECT_EQ("read beyond the end", ReadAll(stream).reason);
    }
}

} // namespace

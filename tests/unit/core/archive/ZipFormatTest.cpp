#include "archive/ZipFormat.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/ZipBuilder.h"

using VelCore::ZipEntry;
using VelTest::CMemorySource;
using VelTest::CZipBuilder;
using VelTest::ZipItem;

namespace {

using Contents = std::vector<std::pair<std::string, std::string>>; // name, content

const std::string kText = "local m = {}\nfunction m.f() return 'text text text text' end\nreturn m\n";

ZipItem Item(const std::string& name, const std::string& content = kText)
{
    ZipItem item;
    item.name = name;
    item.content = content;
    return item;
}

ZipItem Stored(const std::string& name, const std::string& content = kText)
{
    ZipItem item = Item(name, content);
    item.method = 0;
    return item;
}

std::vector<ZipEntry> DirectoryOf(const std::string& bytes)
{
    std::vector<ZipEntry> entries;
    std::string reason;
    EXPECT_TRUE(VelCore::ReadZipDirectory(CMemorySource(bytes), entries, reason)) << reason;
    return entries;
}

// The reason why the directory is refused; empty when it is not.
std::string DirectoryReason(const std::string& bytes)
{
    std::vector<ZipEntry> entries;
    std::string reason;
    if (VelCore::ReadZipDirectory(CMemorySource(bytes), entries, reason))
        return "";
    EXPECT_TRUE(entries.empty());
    EXPECT_NE("", reason);
    return reason;
}

// Everything the archive holds, or the first reason met.
std::string ReadAll(const std::string& bytes, Contents& contents)
{
    contents.clear();
    const CMemorySource source(bytes);
    std::vector<ZipEntry> entries;
    std::string reason;
    if (!VelCore::ReadZipDirectory(source, entries, reason))
        return reason;
    for (const ZipEntry& entry : entries) {
        std::string content = "left over";
        if (!VelCore::ReadZipEntry(source, entry, content, reason)) {
            EXPECT_EQ("", content) << entry.name;
            EXPECT_NE("", reason) << entry.name;
            return reason;
        }
        contents.emplace_back(entry.name, content);
    }
    return "";
}

Contents ContentsOf(const CZipBuilder& builder)
{
    Contents contents;
    for (const ZipItem& item : builder.items)
        contents.emplace_back(item.name, item.content);
    return contents;
}

// The reason why the first entry cannot be read; empty when it can.
std::string FirstEntryReason(const std::string& bytes)
{
    const CMemorySource source(bytes);
    const std::vector<ZipEntry> entries = DirectoryOf(bytes);
    if (entries.empty())
        return "no entry";
    std::string content;
    std::string reason;
    return VelCore::ReadZipEntry(source, entries[0], content, reason) ? "" : reason;
}

CZipBuilder SmallArchive()
{
    ZipItem streamed = Item("b/streamed.lua");
    streamed.dataDescriptor = true;
    return CZipBuilder({Item("a.lua"), Stored("b/", ""), streamed, Stored("stored.txt", "abc")});
}

std::string ExtraField(std::uint16_t id, std::size_t length)
{
    std::string field = {static_cast<char>(id & 0xFF), static_cast<char>(id >> 8), static_cast<char>(length & 0xFF),
                         static_cast<char>(length >> 8)};
    return field.append(length, 'x');
}

// A Zip64 extra field with these values.
std::string Zip64Field(const std::vector<std::uint64_t>& values)
{
    std::string field = ExtraField(1, 8 * values.size()).substr(0, 4);
    for (const std::uint64_t value : values) {
        for (int shift = 0; shift < 64; shift += 8)
            field += static_cast<char>(value >> shift & 0xFF);
    }
    return field;
}

} // namespace

TEST(ZipDirectory, GoodArchivesAreReadInFull)
{
    struct Case
    {
        const char* label;
        CZipBuilder builder;
    };
    std::vector<Case> cases;

    cases.push_back({"no entries", CZipBuilder()});
    cases.push_back({"one entry", CZipBuilder({Item("a.lua")})});
    cases.push_back({"several kinds", SmallArchive()});
    cases.push_back({"empty files", CZipBuilder({Item("a", ""), Stored("b", "")})});
    cases.push_back({"all byte values", CZipBuilder({Item("a", std::string("\0\xFF\r\n\x1A", 5) + kText)})});
    cases.push_back({"duplicate names", CZipBuilder({Item("a", "first"), Item("a", "second")})});
    cases.push_back({"names that an unpacker refuses",
                     CZipBuilder({Item("../a"), Item("/etc/passwd"), Item("C:\\x"), Item("a//./b")})});
    cases.push_back({"a long name", CZipBuilder({Item(std::string(0xFFFF, 'n')), Item("b")})});
    ZipItem longest = Item(std::string(0xFFFF, 'n'));
    longest.directoryExtra = ExtraField(0xCAFE, 0xFFFF - 4);
    longest.comment = std::string(0xFFFF, 'c');
    cases.push_back({"the longest directory entry", CZipBuilder({longest, longest, Item("b")})});
    cases.push_back({"a megabyte", CZipBuilder({Item("a", std::string(1 << 20, 'z')), Item("b")})});

    cases.push_back({"comment", SmallArchive()});
    cases.back().builder.comment = "a comment";
    cases.push_back({"longest comment", SmallArchive()});
    cases.back().builder.comment = std::string(0xFFFF, 'c');
    cases.push_back({"bytes in front", SmallArchive()});
    cases.back().builder.prefix = "#!/bin/sh\nexit 0\n";
    cases.push_back({"one byte in front", SmallArchive()});
    cases.back().builder.prefix = "P";
    cases.push_back({"bytes behind", SmallArchive()});
    cases.back().builder.suffix = "trailing junk";
    cases.push_back({"as many bytes behind as possible", SmallArchive()});
    cases.back().builder.suffix = std::string(0xFFFF, 'j');

    cases.push_back({"Zip64 end record", SmallArchive()});
    cases.back().builder.zip64 = true;
    cases.push_back({"Zip64 end record, no entries", CZipBuilder()});
    cases.back().builder.zip64 = true;
    cases.push_back({"Zip64 end record, bytes in front", SmallArchive()});
    cases.back().builder.zip64 = true;
    cases.back().builder.prefix = "front";
    cases.push_back({"Zip64 end record with an extensible part", SmallArchive()});
    cases.back().builder.zip64 = true;
    cases.back().builder.zip64Padding = 30;

    ZipItem zip64 = Item("a.lua");
    zip64.zip64 = true;
    cases.push_back({"Zip64 sizes", CZipBuilder({zip64, Item("b")})});
    zip64.dataDescriptor = true;
    cases.push_back({"Zip64 sizes, streamed", CZipBuilder({zip64, Item("b")})});
    zip64.localZip64Extra = "";
    cases.push_back({"Zip64 sizes, streamed, unknown in front", CZipBuilder({zip64, Item("b")})});

    ZipItem oneSize = Item("a.lua");
    oneSize.localCompressedSize = 0xFFFFFFFF;
    oneSize.localExtra = Zip64Field({kText.size(), VelTest::Deflate(kText).size()});
    cases.push_back({"both Zip64 sizes, one needed", CZipBuilder({oneSize, Item("b")})});
    oneSize.localExtra = Zip64Field({VelTest::Deflate(kText).size()});
    cases.push_back({"one Zip64 size, the one needed", CZipBuilder({oneSize, Item("b")})});

    ZipItem extra = Item("a.lua");
    extra.localExtra = ExtraField(0x5455, 9) + ExtraField(0x7875, 11);
    extra.directoryExtra = ExtraField(0x5455, 5);
    extra.comment = "a comment";
    cases.push_back({"extra fields", CZipBuilder({extra, Item("b")})});
    extra.localExtra = ExtraField(0xCAFE, 0xFFFF - 4);
    cases.push_back({"longest extra field", CZipBuilder({extra, Item("b")})});
    extra.localExtra = extra.directoryExtra = std::string("\0\0\0", 3);
    cases.push_back({"padding in place of extra fields", CZipBuilder({extra, Item("b")})});

    ZipItem streamedStored = Stored("a");
    streamedStored.dataDescriptor = true;
    cases.push_back({"stored and streamed", CZipBuilder({streamedStored, Item("b")})});
    ZipItem hints = Item("a");
    hints.flags = 0x0806; // strength of compression, UTF-8 name
    hints.localFlags = 0;
    cases.push_back({"harmless flags that differ", CZipBuilder({hints})});

    for (const Case& each : cases) {
        Contents contents;
        EXPECT_EQ("", ReadAll(each.builder.Build(), contents)) << each.label;
        EXPECT_EQ(ContentsOf(each.builder), contents) << each.label;
    }
}

TEST(ZipDirectory, FieldsAreThoseOfTheArchive)
{
    ZipItem item = Item("a.lua");
    item.externalAttributes = 0100755u << 16;
    CZipBuilder builder({Item("first"), item});
    builder.prefix = "front";

    const ZipEntry entry = DirectoryOf(builder.Build()).at(1);
    EXPECT_EQ(8, entry.method);
    EXPECT_EQ(VelTest::Crc32(kText), entry.crc32);
    EXPECT_EQ(kText.size(), entry.size);
    EXPECT_EQ(VelTest::Deflate(kText).size(), entry.compressedSize);
    EXPECT_EQ(5u + 30 + 5 + VelTest::Deflate(kText).size(), entry.localHeaderOffset);
    EXPECT_FALSE(entry.IsDirectory());
    EXPECT_FALSE(entry.IsEncrypted());
}

TEST(ZipDirectory, DamageIsRefusedWithItsReason)
{
    struct Case
    {
        std::string reason;
        std::string bytes;
    };
    std::vector<Case> cases;
    const auto add = [&cases](const std::string& reason, const CZipBuilder& builder) {
        cases.push_back({reason, builder.Build()});
    };

    const std::string noEnd = "not a ZIP archive: no end-of-directory record";
    cases.push_back({noEnd, ""});
    cases.push_back({noEnd, "PK\5\6"});
    cases.push_back({noEnd, "return 0\n"});
    cases.push_back({noEnd, std::string(200000, '\0')});

    CZipBuilder builder = SmallArchive();
    builder.suffix = std::string(0x10000, 'j');
    add(noEnd, builder);

    builder = SmallArchive();
    builder.commentLength = static_cast<std::uint16_t>(1);
    add(noEnd, builder);

    builder = SmallArchive();
    builder.volume = static_cast<std::uint16_t>(1);
    add("is one volume of several", builder);
    builder.zip64 = true;
    add("is one volume of several", builder);

    builder = SmallArchive();
    builder.countHere = 3;
    add("is one volume of several", builder);

    builder = SmallArchive();
    builder.items[1].directoryVolume = static_cast<std::uint16_t>(2);
    add("entry 'b/': lies on another volume", builder);

    builder = SmallArchive();
    builder.count = 3;
    add("the directory holds more than its number of entries", builder);
    builder.count = 5;
    add("the directory ends early", builder);
    builder.count = 0xFFFF;
    add("the directory ends early", builder);
    builder.zip64 = true;
    builder.count = 0xFFFFFFFFFFFFFFFF;
    add("the directory ends early", builder);

    builder = SmallArchive();
    builder.directorySize = 0xFFFFFF00;
    add("the directory does not lie in front of its end record", builder);
    builder.directorySize = 0xFFFFFFFF;
    add("the Zip64 end-of-directory record is missing", builder);
    builder.zip64 = true;
    builder.directorySize = 0xFFFFFFFFFFFFFFFF;
    add("the directory does not lie in front of its end record", builder);

    builder = SmallArchive();
    builder.directoryOffset = 100000;
    add("the directory does not lie in front of its end record", builder);
    builder.directoryOffset = 0;
    add("the directory does not belong to the beginning of the file", builder);

    builder = SmallArchive();
    builder.gap = "between";
    add("the directory does not belong to the beginning of the file", builder);

    builder = SmallArchive();
    builder.zip64 = true;
    builder.zip64EndSignature = 0;
    add("the Zip64 end-of-directory record is missing", builder);

    builder = SmallArchive();
    builder.items[2].directorySignature = 0x02014b51;
    add("the directory is damaged", builder);

    builder = SmallArchive();
    builder.items[0].name = "";
    add("the directory has an entry without a name", builder);

    builder = SmallArchive();
    builder.items[0].name = std::string("a\0b", 3);
    add("entry 'a\\x00b': the name contains a NUL byte", builder);

    builder = SmallArchive();
    builder.items[0].directoryOffset = 100000;
    add("entry 'a.lua': lies outside the file", builder);
    builder.items[0].zip64 = true;
    builder.items[0].directoryOffset = 0xFFFFFFFFFFFFFFF0;
    add("entry 'a.lua': lies outside the file", builder);
    builder.prefix = std::string(64, 'p'); // the sum would overflow
    add("entry 'a.lua': lies outside the file", builder);

    builder = SmallArchive();
    builder.items[0].directoryCompressedSize = 100000;
    add("entry 'a.lua': lies outside the file", builder);
    builder.items[0].zip64 = true;
    builder.items[0].directoryCompressedSize = 0xFFFFFFFFFFFFFFF0;
    add("entry 'a.lua': lies outside the file", builder);

    builder = SmallArchive();
    builder.items[0].zip64 = true;
    builder.items[0].directoryZip64Extra = "";
    add("entry 'a.lua': the Zip64 sizes are missing", builder);
    builder.items[0].directoryZip64Extra = ExtraField(1, 23);
    add("entry 'a.lua': the Zip64 sizes are missing", builder);
    builder.items[0].directoryZip64Extra = ExtraField(1, 40).substr(0, 30); // runs out of its area
    add("entry 'a.lua': the Zip64 sizes are missing", builder);

    for (const Case& each : cases)
        EXPECT_EQ(each.reason, DirectoryReason(each.bytes));
}

TEST(ZipDirectory, EndRecordsThatDisagreeAreRefused)
{
    CZipBuilder builder = SmallArchive();
    builder.zip64 = true;
    std::string bytes = builder.Build();
    ASSERT_EQ("", DirectoryReason(bytes));

    bytes[bytes.size() - 22 + 10] = 3; // entries, in the small record: 0x00FF03 is neither 4 nor "see there"
    EXPECT_EQ("the two end-of-directory records contradict each other", DirectoryReason(bytes));
}

// The end of an archive that holds an archive is cut off: what is inside must not pass for the whole.
TEST(ZipDirectory, ArchiveInsideATruncatedArchiveDoesNotTakeItsPlace)
{
    const std::string inner = CZipBuilder({Item("inner.lua")}).Build();
    const std::string outer = CZipBuilder({Item("outer.lua"), Stored("inner.zip", inner)}).Build();
    const std::size_t innerEnd = outer.find(inner) + inner.size();

    EXPECT_EQ("", DirectoryReason(outer));
    EXPECT_EQ("the directory does not belong to the beginning of the file", DirectoryReason(outer.substr(0, innerEnd)));
}

TEST(ZipDirectory, LastEndRecordThatFitsCounts)
{
    const std::string bytes = SmallArchive().Build() + CZipBuilder().Build();
    EXPECT_EQ("the directory does not belong to the beginning of the file", DirectoryReason(bytes));
}

TEST(ZipDirectory, ReadFailureOfTheSourceIsTheReason)
{
    class Failing : public VelCore::ByteSource
    {
    public:
        bool ReadAt(std::uint64_t, void*, std::size_t, std::string& reason) const override
        {
            reason = "cannot read: broken disk";
            return false;
        }
        std::uint64_t Size() const override { return 1000; }
    };
    std::vector<ZipEntry> entries;
    std::string reason;
    EXPECT_FALSE(VelCore::ReadZipDirectory(Failing(), entries, reason));
    EXPECT_EQ("cannot read: broken disk", reason);
}

// Larger than any window a reader may have: 3000 entries of which each takes about 100 KB of directory.
TEST(ZipDirectory, LargeDirectoryIsReadInPieces)
{
    CZipBuilder builder;
    for (int number = 0; number < 3000; ++number) {
        ZipItem item = Stored(std::to_string(number), "");
        if (number % 10 == 0) {
            item.directoryExtra = ExtraField(0xCAFE, 60000);
            item.comment = std::string(40000, 'c');
        }
        builder.items.push_back(item);
    }
    const std::vector<ZipEntry> entries = DirectoryOf(builder.Build());
    ASSERT_EQ(3000u, entries.size());
    for (std::size_t number = 0; number < entries.size(); ++number)
        EXPECT_EQ(std::to_string(number), entries[number].name);
}

TEST(ZipDirectory, TypeAndPermissionsAreThoseOfUnixOnly)
{
    struct Case
    {
        unsigned madeBy;
        std::uint32_t attributes;
        std::optional<unsigned> mode;
    };
    const Case cases[] = {
        {3, 0100644u << 16, 0100644}, {3, 0120777u << 16, 0120777},      {3, 0104755u << 16 | 0x20, 0104755},
        {3, 0755u << 16, 0755},       {19, 0100600u << 16, 0100600},     {3, 0, std::nullopt},
        {3, 0x10, std::nullopt},      {0, 0120777u << 16, std::nullopt}, {11, 0100644u << 16, std::nullopt},
    };
    for (const Case& each : cases) {
        ZipItem item = Item("a");
        item.madeBy = static_cast<std::uint16_t>(each.madeBy << 8 | 30);
        item.externalAttributes = each.attributes;
        EXPECT_EQ(each.mode, DirectoryOf(CZipBuilder({item}).Build()).at(0).UnixMode())
            << each.madeBy << " " << each.attributes;
    }
}

TEST(ZipDirectory, NameWithASlashAtItsEndIsADirectory)
{
    const std::vector<ZipEntry> entries = DirectoryOf(CZipBuilder({Stored("a/", ""), Stored("a/b", "")}).Build());
    EXPECT_TRUE(entries.at(0).IsDirectory());
    EXPECT_FALSE(entries.at(1).IsDirectory());
}

TEST(ZipEntryData, DamageIsRefusedWithItsReason)
{
    struct Case
    {
        std::string reason;
        ZipItem item;
    };
    std::vector<Case> cases;
    const auto add = [&cases](const std::string& reason, ZipItem item, auto lie) {
        lie(item);
        cases.push_back({reason, item});
    };
    const auto contradiction = [](const std::string& field) {
        return "the local header contradicts the directory (" + field + ")";
    };
    const ZipItem deflated = Item("a.lua");
    const ZipItem stored = Stored("a.lua");
    ZipItem streamed = deflated;
    streamed.dataDescriptor = true;
    ZipItem zip64 = deflated;
    zip64.zip64 = true;

    add(contradiction("no local header at its offset"), deflated, [](ZipItem& item) { item.localSignature = 0; });
    add(contradiction("name"), deflated, [](ZipItem& item) { item.localName = "b.lua"; });
    add(contradiction("name"), deflated, [](ZipItem& item) { item.localName = "a.lu"; });
    add(contradiction("name"), deflated, [](ZipItem& item) { item.localName = "a.luax"; });
    add(contradiction("name"), deflated, [](ZipItem& item) { item.localName = "A.lua"; });
    add(contradiction("method"), deflated, [](ZipItem& item) { item.localMethod = std::uint16_t{0}; });
    add(contradiction("encryption"), deflated, [](ZipItem& item) { item.localFlags = std::uint16_t{1}; });
    add(contradiction("checksum"), deflated, [](ZipItem& item) { item.localCrc = 1; });
    add(contradiction("checksum"), deflated, [](ZipItem& item) { item.localCrc = 0; });
    add(contradiction("checksum"), streamed, [](ZipItem& item) { item.localCrc = 1; });
    add(contradiction("checksum"), stored, [](ZipItem& item) { item.directoryCrc = 1; });
    add(contradiction("compressed size"), deflated, [](ZipItem& item) { item.localCompressedSize = 1; });
    add(contradiction("compressed size"), deflated, [](ZipItem& item) { item.localCompressedSize = 0; });
    add(contradiction("compressed size"), streamed, [](ZipItem& item) { item.localCompressedSize = 1; });
    add(contradiction("compressed size"), zip64, [](ZipItem& item) { item.localCompressedSize = 1; });
    add(contradiction("compressed size"), zip64, [](ZipItem& item) { item.localZip64Extra = ""; });
    add(contradiction("size"), deflated, [](ZipItem& item) { item.localSize = 1; });
    add(contradiction("size"), streamed, [](ZipItem& item) { item.localSize = 1; });
    add(contradiction("size"), zip64, [](ZipItem& item) { item.localSize = 1; });
    add(contradiction("size"), deflated, [](ZipItem& item) { item.directorySize = 1; });

    add("the entry is encrypted", deflated, [](ZipItem& item) { item.flags = 1; });
    add("the entry is encrypted", deflated, [](ZipItem& item) { item.flags = 0x0041; });
    add("the entry is encrypted", deflated, [](ZipItem& item) { item.flags = 0x2000; });
    add("unsupported compression method 12", deflated,
        [](ZipItem& item) { item.localMethod = item.directoryMethod = std::uint16_t{12}; });
    add("the entry is stored, but its two sizes differ", stored, [](ZipItem& item) { item.data = "short"; });

    add("the checksum does not match", stored,
        [](ZipItem& item) { item.localCrc = item.directoryCrc = VelTest::Crc32(kText) + 1; });
    add("the checksum does not match", deflated,
        [](ZipItem& item) { item.data = VelTest::Deflate(std::string(kText.size(), 'x')); });
    add("the compressed data is damaged", deflated, [](ZipItem& item) { item.data = "\xFF\xFF\xFF\xFF"; });
    add("the compressed data is damaged", deflated, [](ZipItem& item) {
        item.data = "";
        item.content = "";
    });
    add("the compressed data is damaged", deflated,
        [](ZipItem& item) { item.data = VelTest::Deflate(kText).substr(0, 40); });
    add("the compressed data ends before its declared size", deflated,
        [](ZipItem& item) { item.data = VelTest::Deflate(kText) + "x"; });
    add("the content is shorter than declared", deflated,
        [](ZipItem& item) { item.localSize = item.directorySize = kText.size() + 1; });
    add("the content is longer than declared", deflated,
        [](ZipItem& item) { item.localSize = item.directorySize = kText.size() - 1; });
    add("the content is longer than declared", deflated,
        [](ZipItem& item) { item.localSize = item.directorySize = 0; });
    add("the declared size is impossible for the compressed size", deflated,
        [](ZipItem& item) { item.localSize = item.directorySize = 0xFFFFFFF0; });

    add("its data overlaps another entry or the directory", deflated, [](ZipItem& item) {
        item.localCompressedSize = item.directoryCompressedSize = VelTest::Deflate(item.content).size() + 90;
    });
    add("its data overlaps another entry or the directory", deflated, [](ZipItem& item) {
        item.localExtra = ExtraField(0xCAFE, 400);
        item.directoryCompressedSize = VelTest::Deflate(item.content).size() + 200;
    });

    for (const Case& each : cases) {
        // Enough behind it for an entry that claims too much to stay within the file.
        EXPECT_EQ(each.reason, FirstEntryReason(CZipBuilder({each.item, Stored("b", std::string(300, 'b'))}).Build()));
        EXPECT_EQ(each.reason, FirstEntryReason(CZipBuilder({each.item}).Build() + std::string(500, 'j')));
    }
}

// An entry can end where the directory begins, but not a byte later.
TEST(ZipEntryData, DataReachesUpToTheDirectory)
{
    ZipItem item = Stored("a", "abc");
    EXPECT_EQ("", FirstEntryReason(CZipBuilder({item}).Build()));

    item.localCompressedSize = item.directoryCompressedSize = 4;
    item.localSize = item.directorySize = 4;
    EXPECT_EQ("its data overlaps another entry or the directory", FirstEntryReason(CZipBuilder({item}).Build()));
}

TEST(ZipEntryData, EntriesThatShareTheirDataAreRefused)
{
    CZipBuilder builder({Item("a"), Item("a")});
    builder.items[1].directoryOffset = 0;
    EXPECT_EQ("its data overlaps another entry or the directory", FirstEntryReason(builder.Build()));
}

TEST(ZipEntryData, OrderInTheFileMayDifferFromTheDirectory)
{
    const std::string first = CZipBuilder({Stored("a", "AAA")}).Build().substr(0, 34);
    CZipBuilder builder({Stored("b", "BBB"), Stored("a", "AAA")});
    builder.items[0].directoryOffset = 34;
    builder.items[1].directoryOffset = 0;
    std::string bytes = builder.Build();
    std::swap_ranges(bytes.begin(), bytes.begin() + 34, bytes.begin() + 34);
    ASSERT_EQ(first, bytes.substr(0, 34));

    Contents contents;
    EXPECT_EQ("", ReadAll(bytes, contents));
    EXPECT_EQ((Contents{{"b", "BBB"}, {"a", "AAA"}}), contents);
}

TEST(ZipEntryData, HighlyCompressedDataIsRead)
{
    const ZipItem item = Item("a", std::string(4 << 20, '\0'));
    ASSERT_GT(item.content.size() / VelTest::Deflate(item.content).size(), 900u);
    EXPECT_EQ("", FirstEntryReason(CZipBuilder({item}).Build()));
}

// Deflate cannot do better than 1032 to 1; what claims more is refused before memory is taken for it.
TEST(ZipEntryData, DeclaredSizeIsBoundedByTheRatioOfDeflate)
{
    ZipItem item = Item("a.lua");
    const std::uint64_t compressedSize = VelTest::Deflate(item.content).size();

    item.localSize = item.directorySize = compressedSize * 1032 + 1031;
    EXPECT_EQ("the content is shorter than declared", FirstEntryReason(CZipBuilder({item}).Build()));
    item.localSize = item.directorySize = compressedSize * 1032 + 1032;
    EXPECT_EQ("the declared size is impossible for the compressed size", FirstEntryReason(CZipBuilder({item}).Build()));
}

TEST(ZipEntryData, WhatIsAppendedToCompressedDataIsRefusedBeforeMemoryIsTakenForIt)
{
    std::string reason;
    VelCore::ZipEntry entry;
    entry.method = 8;
    entry.size = 1;
    entry.compressedSize = 0x10000 + 1;
    EXPECT_TRUE(VelCore::CheckReadable(entry, reason)) << reason;
    entry.compressedSize = 0x10000 + 2;
    EXPECT_FALSE(VelCore::CheckReadable(entry, reason));
    EXPECT_EQ("the compressed size is impossible for the declared size", reason);
}

TEST(ZipEntryData, SmallEntryCostsOneRead)
{
    ZipItem item = Item("a.lua");
    item.localExtra = ExtraField(0x5455, 9) + ExtraField(0x7875, 11);
    const std::string bytes = CZipBuilder({item, Item("b.lua")}).Build();
    const std::vector<ZipEntry> entries = DirectoryOf(bytes);
    const CMemorySource source(bytes);

    std::string content;
    std::string reason;
    EXPECT_TRUE(VelCore::ReadZipEntry(source, entries.at(0), content, reason)) << reason;
    EXPECT_EQ(1, source.Reads());
}

TEST(ZipEntryData, LocateDataGivesTheFirstByte)
{
    ZipItem item = Stored("a.lua", "the data");
    item.localExtra = ExtraField(0xCAFE, 1000);
    CZipBuilder builder({item});
    builder.prefix = "front";
    const std::string bytes = builder.Build();

    std::uint64_t offset = 0;
    std::string reason;
    ASSERT_TRUE(VelCore::LocateData(CMemorySource(bytes), DirectoryOf(bytes).at(0), offset, reason)) << reason;
    EXPECT_EQ("the data", bytes.substr(offset, 8));
}

TEST(ZipEntryData, LocateDataChecksTheLocalHeader)
{
    ZipItem item = Item("a.lua");
    item.localName = "b.lua";
    const std::string bytes = CZipBuilder({item}).Build();

    std::uint64_t offset = 0;
    std::string reason;
    EXPECT_FALSE(VelCore::LocateData(CMemorySource(bytes), DirectoryOf(bytes).at(0), offset, reason));
    EXPECT_EQ("the local header contradicts the directory (name)", reason);
}

TEST(ZipDamage, ArchiveCutAtAnyLengthIsRefused)
{
    for (const bool zip64 : {false, true}) {
        CZipBuilder builder = SmallArchive();
        builder.zip64 = zip64;
        builder.comment = "a comment";
        const std::string bytes = builder.Build();
        for (std::size_t length = 0; length < bytes.size(); ++length)
            EXPECT_NE("", DirectoryReason(bytes.substr(0, length))) << length;
    }
}

// Fields without a second witness (times, attributes, versions) may change unseen; names and contents may not.
TEST(ZipDamage, NoChangedByteGivesOtherContents)
{
    for (const bool zip64 : {false, true}) {
        CZipBuilder builder = SmallArchive();
        builder.zip64 = zip64;
        builder.items[0].zip64 = zip64;
        const Contents expected = ContentsOf(builder);
        const std::string bytes = builder.Build();
        int refused = 0;
        for (std::size_t position = 0; position < bytes.size(); ++position) {
            for (const int change : {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0xFF}) {
                std::string changed = bytes;
                changed[position] = static_cast<char>(changed[position] ^ change);
                Contents contents;
                if (ReadAll(changed, contents) != "")
                    ++refused;
                else
                    EXPECT_EQ(expected, contents) << "byte " << position << " xor " << change;
            }
        }
        EXPECT_GT(refused, static_cast<int>(bytes.size()) * 5);
    }
}

// Every entry claims the whole archive in front of it: quadratic time or memory would show here.
TEST(ZipDamage, HostileDirectoryCostsLinearTime)
{
    CZipBuilder builder;
    for (int number = 0; number < 60000; ++number) {
        ZipItem item = Stored(std::to_string(number), "");
        item.directoryOffset = 0;
        item.directoryCompressedSize = item.directorySize = 1000000;
        builder.items.push_back(item);
    }
    const std::string bytes = builder.Build();
    const auto start = std::chrono::steady_clock::now();
    Contents contents;
    EXPECT_EQ("its data overlaps another entry or the directory", ReadAll(bytes, contents));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(PrintableName, ShowsUtf8AndEscapesTheRest)
{
    const std::pair<const char*, const char*> cases[] = {
        {"", ""},
        {"a/b.lua", "a/b.lua"},
        {"..\\x", "..\\x"},
        {"\xC3\xA4.lua", "\xC3\xA4.lua"},
        {"\xE2\x82\xAC \xF0\x9F\x98\x80", "\xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"a\nb\x1B[1m\x7F", "a\\x0Ab\\x1B[1m\\x7F"},
        {"\xC2\x9B\x31m", "\\xC2\\x9B\x31m"}, // a control character of U+0080 to U+009F
        {"\xE4.lua", "\\xE4.lua"},            // Latin-1
        {"\xC0\xAF", "\\xC0\\xAF"},           // a slash in two bytes
        {"\xE0\x80\xAF", "\\xE0\\x80\\xAF"},  // and in three
        {"\xED\xA0\x80", "\\xED\\xA0\\x80"},  // half a surrogate pair
        {"\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},
        {"\xF8\x88\x80\x80\x80", "\\xF8\\x88\\x80\\x80\\x80"},
        {"\xE2\x82", "\\xE2\\x82"},
        {"\x80", "\\x80"},
    };
    for (const auto& [name, text] : cases)
        EXPECT_EQ(text, VelCore::PrintableName(name));
}

TEST(PrintableName, LongNameIsCut)
{
    EXPECT_EQ(std::string(200, 'n'), VelCore::PrintableName(std::string(200, 'n')));
    EXPECT_EQ(std::string(200, 'n') + "...", VelCore::PrintableName(std::string(201, 'n')));
}

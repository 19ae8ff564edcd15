#include "archive/EntryKind.h"

#include <cstdint>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

using VelCore::EntryKind;
using VelCore::KindOf;
using VelCore::PermissionsOf;

namespace {

const std::uint16_t kUnix = 3 << 8;
const std::uint16_t kDos = 0;

VelCore::ZipEntry Entry(const std::string& name, unsigned mode, std::uint16_t madeBy = kUnix)
{
    VelCore::ZipEntry entry;
    entry.name = name;
    entry.madeBy = madeBy;
    entry.externalAttributes = static_cast<std::uint32_t>(mode) << 16;
    return entry;
}

TEST(EntryKind, IsTheTypeThatTheArchiveCarries)
{
    EXPECT_EQ(EntryKind::File, KindOf(Entry("a", 0100644)));
    EXPECT_EQ(EntryKind::Folder, KindOf(Entry("a", 0040755)));
    EXPECT_EQ(EntryKind::Folder, KindOf(Entry("a/", 0040755)));
}

TEST(EntryKind, IsSpecialForEveryOtherType)
{
    for (const unsigned type : {0120000u, 0010000u, 0020000u, 0060000u, 0140000u, 0150000u, 0170000u}) {
        EXPECT_EQ(EntryKind::Special, KindOf(Entry("a", type | 0777))) << std::oct << type;
        EXPECT_EQ(EntryKind::Special, KindOf(Entry("a/", type | 0777))) << std::oct << type;
    }
}

TEST(EntryKind, ComesFromTheNameWhenTheArchiveCarriesNoType)
{
    for (const std::uint16_t system : {kUnix, kDos}) {
        EXPECT_EQ(EntryKind::File, KindOf(Entry("a", 0, system)));
        EXPECT_EQ(EntryKind::Folder, KindOf(Entry("a/", 0, system)));
    }
    EXPECT_EQ(EntryKind::File, KindOf(Entry("a", 0644)));
    EXPECT_EQ(EntryKind::Folder, KindOf(Entry("a/", 0644)));
}

TEST(EntryKind, IsAFolderByItsNameWhateverTheArchiveSaysOfFiles)
{
    EXPECT_EQ(EntryKind::Folder, KindOf(Entry("a/", 0100644)));
}

// The bits mean something else there.
TEST(EntryKind, IsNotTakenFromArchivesOfOtherSystems)
{
    EXPECT_EQ(EntryKind::File, KindOf(Entry("a", 0120777, kDos)));
    EXPECT_EQ(0644u, PermissionsOf(Entry("a", 0100600, kDos)));
}

TEST(EntryKind, PermissionsAreThoseOfTheArchive)
{
    EXPECT_EQ(0640u, PermissionsOf(Entry("a", 0100640)));
    EXPECT_EQ(0777u, PermissionsOf(Entry("a", 0100777)));
    EXPECT_EQ(0u, PermissionsOf(Entry("a", 0100000)));
    EXPECT_EQ(0711u, PermissionsOf(Entry("a/", 0040711)));
}

TEST(EntryKind, PermissionsLackSetUserIdSetGroupIdAndStickyBits)
{
    EXPECT_EQ(0755u, PermissionsOf(Entry("a", 0107755)));
    EXPECT_EQ(0755u, PermissionsOf(Entry("a/", 0043755)));
}

TEST(EntryKind, PermissionsAreTheUsualOnesWhenTheArchiveCarriesNone)
{
    EXPECT_EQ(0644u, PermissionsOf(Entry("a", 0)));
    EXPECT_EQ(0755u, PermissionsOf(Entry("a/", 0)));
    EXPECT_EQ(0755u, PermissionsOf(Entry("a/", 0, kDos)));
}

} // namespace

#include "archive/EntryPath.h"

#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "archive/TemporaryName.h"

using VelCore::EntryPath;

namespace {

EntryPath Parsed(const std::string& name)
{
    EntryPath path;
    std::string reason;
    EXPECT_TRUE(VelCore::ParseEntryPath(name, path, reason)) << name << ": " << reason;
    return path;
}

// Empty when the name is accepted.
std::string Objection(const std::string& name)
{
    EntryPath path;
    std::string reason;
    return VelCore::ParseEntryPath(name, path, reason) ? "" : reason;
}

std::string Repeated(const std::string& text, int times)
{
    std::string all;
    for (int time = 0; time < times; ++time)
        all += text;
    return all;
}

TEST(EntryPath, IsSplitBeforeItsLastPart)
{
    const struct
    {
        const char* entry;
        const char* folder;
        const char* name;
    } cases[] = {
        {"a", "", "a"},  {"a/b", "a", "b"},  {"a/b/c", "a/b", "c"},
        {"a/", "", "a"}, {"a/b/", "a", "b"}, {" a /b c", " a ", "b c"},
    };
    for (const auto& [entry, folder, name] : cases) {
        const EntryPath path = Parsed(entry);
        EXPECT_EQ(folder, path.folder) << entry;
        EXPECT_EQ(name, path.name) << entry;
    }
}

TEST(EntryPath, IsWholeWithOneSeparatorBetweenParts)
{
    const std::pair<const char*, const char*> cases[] = {
        {"a", "a"},           {"a/b/", "a/b"}, {"a//b", "a/b"},  {"a///", "a"},          {"./a", "a"},
        {"././a/./b", "a/b"}, {".//a", "a"},   {"./", ""},       {"././", ""},           {"...", "..."},
        {"a/...", "a/..."},   {".a", ".a"},    {"a./b", "a./b"}, {"..a/b..", "..a/b.."}, {"a/.b/", "a/.b"},
    };
    for (const auto& [entry, whole] : cases)
        EXPECT_EQ(whole, Parsed(entry).Whole()) << entry;
}

TEST(EntryPath, KeepsEveryOtherByte)
{
    for (const std::string name : {"caf\xC3\xA9", "caf\xE9", "\xFF", "a\nb", "~", "-rf", "*?", "ab:c", "$HOME", "1:/a"})
        EXPECT_EQ(name, Parsed(name).Whole());
}

TEST(EntryPath, AbsoluteNamesAreRefused)
{
    for (const char* name : {"/", "/a", "//a", "/../a", "/./"})
        EXPECT_EQ("the name is absolute", Objection(name)) << name;
}

TEST(EntryPath, TwoDotsAreRefusedAlsoWhereTheyStayInside)
{
    for (const char* name : {"..", "../", "../a", "a/..", "a/../", "a/../b", "./..", "a//../b", "a/b/c/../d"})
        EXPECT_EQ("the name contains '..'", Objection(name)) << name;
}

TEST(EntryPath, BackslashesAreRefusedWhereverTheyStand)
{
    for (const char* name : {"\\", "\\a", "a\\b", "a\\", "..\\a", "\\\\server\\share", "a/b\\..\\c", "C:\\a"})
        EXPECT_EQ("the name contains a backslash", Objection(name)) << name;
}

TEST(EntryPath, DriveLettersAreRefusedInFront)
{
    for (const char* name : {"C:", "C:/", "C:/a", "c:a", "z:", "A:b/c", "./C:/a", ".//z:"})
        EXPECT_EQ("the name begins with a drive letter", Objection(name)) << name;
    for (const char* name : {"CC:/a", "1:/a", ":a", "a/C:/b", "a/c:b", "\xC3\xA9:a"})
        EXPECT_EQ("", Objection(name)) << name;
}

TEST(EntryPath, FilesThatEndInADotAreRefused)
{
    for (const char* name : {".", "a/.", "./.", "a/b//."})
        EXPECT_EQ("the name ends in '.'", Objection(name)) << name;
}

TEST(EntryPath, PartsHaveUpTo255Bytes)
{
    const std::string longest(255, 'n');
    for (const std::string& name : {longest, longest + "/" + longest, longest + "/"})
        EXPECT_EQ("", Objection(name));
    for (const std::string& name : {longest + "n", "a/" + longest + "n", longest + "n/a", longest + "n/"})
        EXPECT_EQ("a part of the name is too long", Objection(name));
}

TEST(EntryPath, NamesHaveUpTo4095Bytes)
{
    EXPECT_EQ("", Objection(Repeated("a/", 2047) + "b"));
    EXPECT_EQ("the name is too long", Objection(Repeated("a/", 2048)));
}

TEST(EntryPath, NamesOfUnfinishedFilesAreRefused)
{
    const std::string unfinished = VelCore::TemporaryName(0xFEDCBA9876543210);
    for (const std::string& name : {unfinished, "a/" + unfinished, unfinished + "/a", unfinished + "/"})
        EXPECT_EQ("the name is one that unfinished files have", Objection(name)) << name;
    EXPECT_EQ("", Objection(unfinished + "a"));
}

TEST(EntryPath, ForgetsWhatItHeldBefore)
{
    EntryPath path = {"before", "before"};
    std::string reason;
    EXPECT_TRUE(VelCore::ParseEntryPath("a", path, reason));
    EXPECT_EQ("a", path.Whole());
}

} // namespace

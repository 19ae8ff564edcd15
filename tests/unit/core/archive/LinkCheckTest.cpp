#include "archive/LinkCheck.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/TempFolder.h"

using VelCore::CLinkCheck;
using VelCore::EntryKind;

namespace {

namespace fs = std::filesystem;

class LinkCheck : public testing::Test
{
protected:
    void SetUp() override
    {
        m_folder.MakeFolder("real/deep");
        m_folder.Write("real/file", "x");
        fs::create_directory_symlink("real", m_folder / "link");
        fs::create_symlink("nowhere", m_folder / "real/dangling");
        fs::create_symlink("../file", m_folder / "real/deep/to_file");
    }

    // What is objected to; empty when the way is clear.
    static std::string Objection(CLinkCheck& check, const std::string& name, EntryKind kind = EntryKind::File)
    {
        VelCore::EntryPath path;
        std::string reason;
        EXPECT_TRUE(VelCore::ParseEntryPath(name, path, reason)) << reason;
        return check.IsClear(path, kind, reason) ? "" : reason;
    }

    std::string Objection(const std::string& name, EntryKind kind = EntryKind::File) const
    {
        CLinkCheck check;
        std::string reason;
        EXPECT_TRUE(check.Open(m_folder.Path(), reason)) << reason;
        return Objection(check, name, kind);
    }

    VelTest::CTempFolder m_folder;
};

TEST_F(LinkCheck, LetsRealAndMissingFoldersPass)
{
    for (const char* name : {"a", "real/a", "real/deep/a", "missing/a", "real/missing/deeper/a", "real/file/below"})
        EXPECT_EQ("", Objection(name)) << name;
    for (const char* name : {"./", "real/", "real/deep/", "missing/", "real/file/"})
        EXPECT_EQ("", Objection(name, EntryKind::Folder)) << name;
}

TEST_F(LinkCheck, NamesTheLinkOnTheWay)
{
    EXPECT_EQ("'link' on the way is a symbolic link", Objection("link/a"));
    EXPECT_EQ("'link' on the way is a symbolic link", Objection("link/deep/a"));
    EXPECT_EQ("'real/dangling' on the way is a symbolic link", Objection("real/dangling/a/b"));
    EXPECT_EQ("'real/deep/to_file' on the way is a symbolic link", Objection("real/deep/to_file/a"));
}

TEST_F(LinkCheck, MindsALinkInPlaceOfAFolderOnly)
{
    EXPECT_EQ("", Objection("link", EntryKind::File));
    EXPECT_EQ("", Objection("link", EntryKind::Special));
    EXPECT_EQ("'link' on the way is a symbolic link", Objection("link/", EntryKind::Folder));
    EXPECT_EQ("'link' on the way is a symbolic link", Objection("link", EntryKind::Folder));
}

TEST_F(LinkCheck, LooksAtEachFolderOnce)
{
    CLinkCheck check;
    std::string reason;
    ASSERT_TRUE(check.Open(m_folder.Path(), reason)) << reason;
    EXPECT_EQ("", Objection(check, "real/deep/a"));
    EXPECT_EQ("", Objection(check, "missing/a"));
    EXPECT_NE("", Objection(check, "link/a"));

    fs::remove_all(m_folder / "real");
    fs::create_symlink("nowhere", m_folder / "real");
    fs::create_symlink("nowhere", m_folder / "missing");
    fs::remove(m_folder / "link");

    EXPECT_EQ("", Objection(check, "real/deep/b"));
    EXPECT_EQ("", Objection(check, "missing/deeper/b"));
    EXPECT_NE("", Objection(check, "link/b"));
}

TEST_F(LinkCheck, FindsNothingBelowADestinationThatIsMissing)
{
    CLinkCheck check;
    std::string reason;
    EXPECT_TRUE(check.Open(m_folder / "missing", reason)) << reason;
    EXPECT_EQ("", Objection(check, "a/b"));
}

TEST_F(LinkCheck, FollowsLinksToTheDestination)
{
    CLinkCheck check;
    std::string reason;
    EXPECT_TRUE(check.Open(m_folder / "link", reason)) << reason;
    EXPECT_EQ("", Objection(check, "deep/a"));
    EXPECT_EQ("'dangling' on the way is a symbolic link", Objection(check, "dangling/a"));
}

TEST_F(LinkCheck, DoesNotTakeAFileForADestination)
{
    CLinkCheck check;
    std::string reason;
    EXPECT_FALSE(check.Open(m_folder / "real/file", reason));
    EXPECT_EQ("cannot open the folder: Not a directory", reason);
}

} // namespace

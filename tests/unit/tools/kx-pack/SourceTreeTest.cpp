#include "SourceTree.h"

#include <algorithm>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "support/TempFolder.h"

using VelTest::CTempFolder;

namespace {

std::vector<std::string> NamesIn(const std::string& folder)
{
    std::vector<SourceFile> files;
    const auto failure = FindFiles(folder, files);
    EXPECT_FALSE(failure) << failure->text;
    std::vector<std::string> names;
    for (const SourceFile& file : files)
        names.push_back(file.name);
    std::sort(names.begin(), names.end());
    return names;
}

void ExpectRefused(const CTempFolder& folder, const std::string& text)
{
    std::vector<SourceFile> files;
    const auto failure = FindFiles(folder.Path(), files);
    ASSERT_TRUE(failure);
    EXPECT_EQ(Status::Refused, failure->status);
    EXPECT_EQ(text, failure->text);
}

} // namespace

TEST(SourceTree, FilesAndEmptyFoldersAreFound)
{
    const CTempFolder folder;
    folder.Write("b/c/file", "");
    folder.Write(".hidden", "");
    folder.Write("a", "");
    folder.MakeFolder("empty");

    EXPECT_EQ((std::vector<std::string>{".hidden", "a", "b/c/file", "empty/"}), NamesIn(folder.Path()));
}

TEST(SourceTree, EmptyFolderHasNoFiles)
{
    const CTempFolder folder;

    EXPECT_TRUE(NamesIn(folder.Path()).empty());
}

TEST(SourceTree, LinksAreRefusedWhereverTheyLead)
{
    const CTempFolder folder;
    folder.Write("file", "");
    ASSERT_EQ(0, ::symlink("file", (folder / "link").c_str()));

    ExpectRefused(folder, "'" + (folder / "link") + "' cannot be packed: it is a symbolic link");
}

TEST(SourceTree, SpecialFilesAreRefused)
{
    const CTempFolder folder;
    folder.MakeFolder("sub");
    ASSERT_EQ(0, ::mkfifo((folder / "sub/pipe").c_str(), 0600));

    ExpectRefused(folder,
                  "'" + (folder / "sub/pipe") + "' cannot be packed: it is neither a regular file nor a folder");
}

TEST(SourceTree, MissingFolderIsAFailure)
{
    const CTempFolder folder;
    std::vector<SourceFile> files;

    const auto failure = FindFiles(folder / "absent", files);

    ASSERT_TRUE(failure);
    EXPECT_EQ(Status::Failed, failure->status);
    EXPECT_EQ("cannot read '" + (folder / "absent") + "': No such file or directory", failure->text);
}

#include "OutputFile.h"

#include <filesystem>
#include <iterator>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "support/TempFolder.h"

using VelTest::CTempFolder;
using VelTest::ReadFile;

namespace {

// How many names there are in the folder: no unfinished file may stay.
auto CountIn(const CTempFolder& folder)
{
    return std::distance(std::filesystem::directory_iterator(folder.Path()), {});
}

void ExpectFailure(const std::string& path, const std::string& reason)
{
    const auto failure = WriteOutput(path, "new");
    ASSERT_TRUE(failure);
    EXPECT_EQ(Status::Failed, failure->status);
    EXPECT_EQ("cannot write '" + path + "': " + reason, failure->text);
}

} // namespace

TEST(OutputFile, FileIsCreatedAndReplaced)
{
    const CTempFolder folder;

    ASSERT_FALSE(WriteOutput(folder / "file", "old"));
    ASSERT_FALSE(WriteOutput(folder / "file", "new"));

    EXPECT_EQ("new", ReadFile(folder / "file"));
    EXPECT_EQ(1, CountIn(folder));
}

TEST(OutputFile, ModeFollowsTheUmask)
{
    const CTempFolder folder;
    const mode_t before = ::umask(027);

    const auto failure = WriteOutput(folder / "file", "new");

    ::umask(before);
    ASSERT_FALSE(failure);
    EXPECT_EQ(0640u, VelTest::ModeOf(folder / "file"));
}

TEST(OutputFile, LinkIsReplacedNotFollowed)
{
    const CTempFolder folder;
    folder.Write("target", "old");
    ASSERT_EQ(0, ::symlink("target", (folder / "link").c_str()));

    ASSERT_FALSE(WriteOutput(folder / "link", "new"));

    EXPECT_EQ("old", ReadFile(folder / "target"));
    EXPECT_EQ("new", ReadFile(folder / "link"));
    EXPECT_FALSE(std::filesystem::is_symlink(folder / "link"));
}

TEST(OutputFile, OtherNameOfTheFileKeepsItsContent)
{
    const CTempFolder folder;
    folder.Write("file", "old");
    ASSERT_EQ(0, ::link((folder / "file").c_str(), (folder / "other").c_str()));

    ASSERT_FALSE(WriteOutput(folder / "file", "new"));

    EXPECT_EQ("old", ReadFile(folder / "other"));
}

TEST(OutputFile, LongestNameIsWritten)
{
    const CTempFolder folder;

    EXPECT_FALSE(WriteOutput(folder / std::string(255, 'n'), "new"));
    EXPECT_EQ(1, CountIn(folder));
}

TEST(OutputFile, WhatIsNoRegularFileIsRefused)
{
    const CTempFolder folder;
    folder.MakeFolder("sub");
    ASSERT_EQ(0, ::mkfifo((folder / "pipe").c_str(), 0600));

    ExpectFailure(folder / "sub", "it is not a regular file");
    ExpectFailure(folder / "pipe", "it is not a regular file");
    EXPECT_EQ(2, CountIn(folder));
}

TEST(OutputFile, FailureNamesTheReasonAndLeavesNothing)
{
    const CTempFolder folder;

    ExpectFailure(folder / "absent/file", "No such file or directory");
    ExpectFailure(folder / std::string(256, 'n'), "File name too long");
    EXPECT_EQ(0, CountIn(folder));
}

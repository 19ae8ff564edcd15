#include "crash/DumpFile.h"

#include <cerrno>
#include <csignal>
#include <string>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/TempFolder.h"

using VelCore::CDumpFile;
using VelTest::CTempFolder;
using VelTest::Exists;
using VelTest::ReadFile;

namespace {

const char kName[] = "app.mdmp";

// Writes a dump of this content.
bool Dump(const std::string& folder, const std::string& content)
{
    CDumpFile file;
    return file.Create(folder.c_str(), kName, 4711) && file.Write(0, content.data(), content.size()) && file.Keep();
}

TEST(DumpFile, AppearsUnderItsNameWhenItIsKept)
{
    const CTempFolder folder;
    CDumpFile file;
    ASSERT_TRUE(file.Create(folder.Path().c_str(), kName, 4711));
    ASSERT_TRUE(file.Write(0, "content", 7));
    EXPECT_FALSE(Exists(folder / kName));

    ASSERT_TRUE(file.Keep());

    EXPECT_EQ("content", ReadFile(folder / kName));
    EXPECT_FALSE(Exists(folder / "app.mdmp.part.4711"));
}

TEST(DumpFile, IsForItsOwnerAlone)
{
    const CTempFolder folder;
    const mode_t mask = umask(0);
    EXPECT_TRUE(Dump(folder.Path(), "x"));
    umask(mask);
    EXPECT_EQ(0600u, VelTest::ModeOf(folder / "app.mdmp"));
}

TEST(DumpFile, CanStillBeWrittenWhenItIsKept)
{
    const CTempFolder folder;
    CDumpFile file;
    ASSERT_TRUE(file.Create(folder.Path().c_str(), kName, 4711) && file.SetSize(4) && file.Keep());

    EXPECT_TRUE(file.Write(1, "ab", 2));

    EXPECT_EQ(std::string("\0ab\0", 4), ReadFile(folder / kName));
}

TEST(DumpFile, EightAreKeptAndTheOldestGoes)
{
    const CTempFolder folder;
    for (int number = 1; number <= 10; ++number)
        ASSERT_TRUE(Dump(folder.Path(), std::to_string(number)));

    EXPECT_EQ("10", ReadFile(folder / kName));
    for (int old = 1; old <= 7; ++old)
        EXPECT_EQ(std::to_string(10 - old), ReadFile(folder / (std::string(kName) + "." + std::to_string(old))));
    EXPECT_FALSE(Exists(folder / "app.mdmp.8"));
}

TEST(DumpFile, LinkInItsPlaceIsMovedNotFollowed)
{
    const CTempFolder folder;
    const std::string target = folder.Write("target", "untouched");
    ASSERT_EQ(0, symlink(target.c_str(), (folder / kName).c_str()));

    EXPECT_TRUE(Dump(folder.Path(), "dump"));

    EXPECT_EQ("dump", ReadFile(folder / kName));
    EXPECT_EQ("untouched", ReadFile(target));
}

TEST(DumpFile, LinkPlantedBesideItIsReplacedNotFollowed)
{
    const CTempFolder folder;
    const std::string target = folder.Write("target", "untouched");
    ASSERT_EQ(0, symlink(target.c_str(), (folder / "app.mdmp.part.4711").c_str()));

    EXPECT_TRUE(Dump(folder.Path(), "dump"));

    EXPECT_EQ("dump", ReadFile(folder / kName));
    EXPECT_EQ("untouched", ReadFile(target));
}

TEST(DumpFile, FolderThatIsALinkIsRefused)
{
    const CTempFolder folder;
    folder.MakeFolder("real");
    ASSERT_EQ(0, symlink("real", (folder / "link").c_str()));
    CDumpFile file;

    EXPECT_FALSE(file.Create((folder / "link").c_str(), kName, 4711));

    EXPECT_EQ(ENOTDIR, file.Error());
    EXPECT_STREQ("cannot open its folder", file.FailedAction());
}

TEST(DumpFile, MissingFolderIsAnError)
{
    const CTempFolder folder;
    CDumpFile file;
    EXPECT_FALSE(file.Create((folder / "a").c_str(), kName, 4711));
    EXPECT_EQ(ENOENT, file.Error());
    file.Discard();
}

TEST(DumpFile, NameThatIsTooLongIsAnError)
{
    const CTempFolder folder;
    CDumpFile file;
    EXPECT_FALSE(file.Create(folder.Path().c_str(), std::string(255, 'x').c_str(), 4711));
    EXPECT_EQ(ENAMETOOLONG, file.Error());
    EXPECT_STREQ("cannot create it", file.FailedAction());
}

TEST(DumpFile, FolderInItsPlaceIsMovedAway)
{
    const CTempFolder folder;
    folder.MakeFolder(kName);
    EXPECT_TRUE(Dump(folder.Path(), "dump"));
    EXPECT_EQ("dump", ReadFile(folder / kName));
}

TEST(DumpFile, WhatIsDiscardedLeavesNothing)
{
    const CTempFolder folder;
    CDumpFile file;
    ASSERT_TRUE(file.Create(folder.Path().c_str(), kName, 4711));
    file.Discard();
    EXPECT_FALSE(Exists(folder / "app.mdmp.part.4711"));
}

TEST(DumpFile, RefusedWriteSaysWhy)
{
    const CTempFolder folder;
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    const struct rlimit small = {100, before.rlim_max};
    CDumpFile file;
    ASSERT_TRUE(file.Create(folder.Path().c_str(), kName, 4711));

    setrlimit(RLIMIT_FSIZE, &small);
    const std::string bytes(1000, 'x');
    const bool isWritten = file.Write(0, bytes.data(), bytes.size());
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);

    EXPECT_FALSE(isWritten);
    EXPECT_EQ(EFBIG, file.Error());
    EXPECT_STREQ("cannot write it", file.FailedAction());
}

TEST(RemoveAbandonedDumps, RemovesThoseWhoseProcessIsGone)
{
    const CTempFolder folder;
    const pid_t gone = fork();
    if (gone == 0)
        _exit(0);
    waitpid(gone, nullptr, 0);
    const std::string part = std::string(kName) + ".part.";
    const std::string abandoned = folder.Write(part + std::to_string(gone), "");
    const std::string inWork = folder.Write(part + std::to_string(getpid()), "");
    const std::string noNumber = folder.Write(part + "x", "");
    const std::string others = folder.Write("other.mdmp.part." + std::to_string(gone), "");
    const std::string whole = folder.Write(kName, "");

    VelCore::RemoveAbandonedDumps(folder.Path().c_str(), kName);

    EXPECT_FALSE(Exists(abandoned));
    for (const std::string& kept : {inWork, noNumber, others, whole})
        EXPECT_TRUE(Exists(kept)) << kept;
}

TEST(RemoveAbandonedDumps, MissingFolderIsNoError)
{
    const CTempFolder folder;
    VelCore::RemoveAbandonedDumps((folder / "missing").c_str(), kName);
    EXPECT_FALSE(Exists(folder / "missing"));
}

} // namespace

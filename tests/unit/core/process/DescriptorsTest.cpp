#include "process/Descriptors.h"

#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/TempFolder.h"

using VelCore::MakeFolders;
using VelCore::WriteAll;

namespace {

struct Pipe
{
    Pipe() { EXPECT_EQ(0, pipe2(ends, O_CLOEXEC)); }
    ~Pipe()
    {
        Close(0);
        Close(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void Close(int end)
    {
        if (ends[end] >= 0)
            close(ends[end]);
        ends[end] = -1;
    }
    int ends[2]{-1, -1}; // to read from, to write to
};

bool IsFolder(const std::string& path)
{
    struct stat status
    {
    };
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

TEST(WriteAll, WritesNothingForNoBytes)
{
    const Pipe pipe;
    EXPECT_EQ(0u, WriteAll(pipe.ends[1], ""));
}

TEST(WriteAll, WritesMoreThanAPipeHolds)
{
    Pipe pipe;
    const std::string bytes(1 << 20, 'x');
    std::string got;
    std::thread reader([&] {
        char buffer[4096];
        ssize_t part = 0;
        while ((part = read(pipe.ends[0], buffer, sizeof buffer)) > 0)
            got.append(buffer, static_cast<std::size_t>(part));
    });
    EXPECT_EQ(bytes.size(), WriteAll(pipe.ends[1], bytes));
    pipe.Close(1);
    reader.join();
    EXPECT_TRUE(got == bytes);
}

TEST(WriteAll, TellsHowMuchAFullPipeTook)
{
    Pipe pipe;
    ASSERT_EQ(0, fcntl(pipe.ends[1], F_SETFL, O_NONBLOCK));
    const std::string bytes(1 << 20, 'x');
    const std::size_t written = WriteAll(pipe.ends[1], bytes);
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_LT(0u, written);
    EXPECT_LT(written, bytes.size());
}

TEST(WriteAll, ErrorIsNamedByErrno)
{
    EXPECT_EQ(0u, WriteAll(-1, "x"));
    EXPECT_EQ(EBADF, errno);

    Pipe pipe;
    pipe.Close(0);
    const auto handler = std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(0u, WriteAll(pipe.ends[1], "x"));
    EXPECT_EQ(EPIPE, errno);
    std::signal(SIGPIPE, handler);
}

void DoNothing(int) {}

TEST(WriteAll, GoesOnAfterAnInterruption)
{
    Pipe pipe;
    struct sigaction action
    {
    };
    struct sigaction before
    {
    };
    action.sa_handler = DoNothing; // without SA_RESTART
    sigaction(SIGUSR1, &action, &before);

    const pthread_t writer = pthread_self();
    const std::string bytes(1 << 20, 'x');
    std::size_t got = 0;
    std::thread reader([&] {
        char buffer[1024];
        ssize_t part = 0;
        while ((part = read(pipe.ends[0], buffer, sizeof buffer)) > 0) {
            got += static_cast<std::size_t>(part);
            pthread_kill(writer, SIGUSR1);
        }
    });
    EXPECT_EQ(bytes.size(), WriteAll(pipe.ends[1], bytes));
    pipe.Close(1);
    reader.join();
    EXPECT_EQ(bytes.size(), got);
    sigaction(SIGUSR1, &before, nullptr);
}

TEST(MakeFolders, CreatesEveryMissingLevelWithTheModeWhateverTheMask)
{
    for (const mode_t mask : {0000, 0022, 0777}) {
        const VelTest::CTempFolder folder;
        const mode_t before = umask(mask);
        EXPECT_TRUE(MakeFolders(folder / "a/b/c", 0710));
        umask(before);
        for (const char* level : {"a", "a/b", "a/b/c"})
            EXPECT_EQ(0710u, VelTest::ModeOf(folder / level)) << level << " " << std::oct << mask;
    }
}

TEST(MakeFolders, LeavesWhatExistsAsItIs)
{
    const VelTest::CTempFolder folder;
    folder.MakeFolder("a");
    ASSERT_EQ(0, chmod((folder / "a").c_str(), 0755));
    EXPECT_TRUE(MakeFolders(folder / "a", 0700));
    EXPECT_EQ(0755u, VelTest::ModeOf(folder / "a"));
    EXPECT_TRUE(MakeFolders(folder / "a/b", 0700));
    EXPECT_EQ(0755u, VelTest::ModeOf(folder / "a"));
}

TEST(MakeFolders, TakesASeparatorAtTheEndAndDoubledOnes)
{
    const VelTest::CTempFolder folder;
    EXPECT_TRUE(MakeFolders(folder / "a//b/", 0700));
    EXPECT_TRUE(IsFolder(folder / "a/b"));
    EXPECT_TRUE(MakeFolders("/", 0700));
}

TEST(MakeFolders, FollowsALinkToAFolder)
{
    const VelTest::CTempFolder folder;
    folder.MakeFolder("real");
    ASSERT_EQ(0, symlink("real", (folder / "link").c_str()));
    EXPECT_TRUE(MakeFolders(folder / "link/below", 0700));
    EXPECT_TRUE(IsFolder(folder / "real/below"));
}

TEST(MakeFolders, AFileInTheWayIsAnError)
{
    const VelTest::CTempFolder folder;
    folder.Write("file", "");
    EXPECT_FALSE(MakeFolders(folder / "file", 0700));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_FALSE(MakeFolders(folder / "file/below/it", 0700));
    EXPECT_EQ(ENOTDIR, errno);
}

TEST(MakeFolders, ADanglingLinkIsNoFolder)
{
    const VelTest::CTempFolder folder;
    ASSERT_EQ(0, symlink("nowhere", (folder / "link").c_str()));
    EXPECT_FALSE(MakeFolders(folder / "link", 0700));
    EXPECT_FALSE(IsFolder(folder / "link"));
}

TEST(MakeFolders, AnEmptyPathIsAnError)
{
    EXPECT_FALSE(MakeFolders("", 0700));
    EXPECT_EQ(ENOENT, errno);
}

} // namespace

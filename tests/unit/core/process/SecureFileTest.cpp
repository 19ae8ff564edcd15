#include <VelCore/SecureFile.h>

#include <string>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <VelCore/Utf8.h>

#include "support/Capture.h"
#include "support/TempFolder.h"

using VelTest::ModeOf;

namespace {

const uid_t kNobody = 65534;

bool Secure(const std::string& path, bool recursive = false)
{
    return VelCore::SecureFileOrDirectory(VelCore::FromUtf8(path), recursive);
}

uid_t OwnerOf(const std::string& path)
{
    struct stat status
    {
    };
    EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
    return status.st_uid;
}

class SecureFile : public testing::Test
{
protected:
    std::string File(const std::string& name, mode_t mode = 0666) const
    {
        const std::string path = m_folder.Write(name, "content");
        EXPECT_EQ(0, chmod(path.c_str(), mode));
        return path;
    }

    std::string Folder(const std::string& name, mode_t mode = 0777) const
    {
        m_folder.MakeFolder(name);
        EXPECT_EQ(0, chmod((m_folder / name).c_str(), mode));
        return m_folder / name;
    }

    std::string Link(const std::string& target, const std::string& name) const
    {
        EXPECT_EQ(0, symlink(target.c_str(), (m_folder / name).c_str()));
        return m_folder / name;
    }

    std::size_t Errors() const { return m_log.Texts(wxLOG_Error).size(); }

    VelTest::CTempFolder m_folder;
    VelTest::CLogCapture m_log;
};

// The answer that a user without privileges gets; -1 when the child could not give any.
int AnswerForNobody(const std::string& path, bool recursive)
{
    const pid_t child = fork();
    if (child == 0) {
        if (geteuid() == 0 && (setgid(kNobody) != 0 || setuid(kNobody) != 0))
            _exit(2);
        _exit(Secure(path, recursive) ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) < 2 ? WEXITSTATUS(status) : -1;
}

TEST_F(SecureFile, AFileIsForTheOwnerOnly)
{
    for (const mode_t mode : {0666, 0777, 0644, 0600, 0400, 0000, 04755, 02755}) {
        const std::string path = File("file", mode);
        EXPECT_TRUE(Secure(path)) << std::oct << mode;
        EXPECT_EQ(0600u, ModeOf(path)) << std::oct << mode;
    }
    EXPECT_EQ(0u, Errors());
}

TEST_F(SecureFile, AFolderIsForTheOwnerOnly)
{
    for (const mode_t mode : {0777, 01777, 02775, 0600, 0000}) {
        const std::string path = Folder("folder", mode);
        EXPECT_TRUE(Secure(path)) << std::oct << mode;
        EXPECT_EQ(0700u, ModeOf(path)) << std::oct << mode;
    }
    EXPECT_EQ(0u, Errors());
}

TEST_F(SecureFile, WithoutRecursionWhatLiesBelowStays)
{
    Folder("folder");
    const std::string below = File("folder/file", 0644);
    EXPECT_TRUE(Secure(m_folder / "folder"));
    EXPECT_EQ(0644u, ModeOf(below));
}

TEST_F(SecureFile, RecursionReachesEverythingBelow)
{
    File("top/file");
    File("top/a/.hidden");
    File("top/a/b/c/deep");
    for (const char* name : {"top", "top/a", "top/a/b", "top/a/b/c"})
        Folder(name);
    EXPECT_TRUE(Secure(m_folder / "top", true));
    for (const char* name : {"top", "top/a", "top/a/b", "top/a/b/c"})
        EXPECT_EQ(0700u, ModeOf(m_folder / name)) << name;
    for (const char* name : {"top/file", "top/a/.hidden", "top/a/b/c/deep"})
        EXPECT_EQ(0600u, ModeOf(m_folder / name)) << name;
}

TEST_F(SecureFile, RecursionOverAFileIsTheFileAlone)
{
    const std::string path = File("file");
    EXPECT_TRUE(Secure(path, true));
    EXPECT_EQ(0600u, ModeOf(path));
}

TEST_F(SecureFile, ALinkIsRefusedAndNotFollowed)
{
    const std::string file = File("file");
    const std::string folder = Folder("folder");
    EXPECT_FALSE(Secure(Link(file, "to file")));
    EXPECT_FALSE(Secure(Link(folder, "to folder"), true));
    EXPECT_FALSE(Secure(Link("nowhere", "dangling")));
    EXPECT_EQ(0666u, ModeOf(file));
    EXPECT_EQ(0777u, ModeOf(folder));
    EXPECT_EQ(3u, Errors());
}

TEST_F(SecureFile, ALinkWithASeparatorBehindItIsRefusedAsWell)
{
    const std::string folder = Folder("folder");
    EXPECT_FALSE(Secure(Link(folder, "link") + "/"));
    EXPECT_EQ(0777u, ModeOf(folder));
    EXPECT_EQ(1u, Errors());
}

TEST_F(SecureFile, AFolderMayHaveASeparatorBehindIt)
{
    EXPECT_TRUE(Secure(Folder("folder") + "/"));
    EXPECT_EQ(0700u, ModeOf(m_folder / "folder"));
}

TEST_F(SecureFile, ALinkFoundBelowIsLeftAlone)
{
    const std::string file = File("outside");
    const std::string folder = Folder("outside folder");
    File("outside folder/file");
    Folder("top");
    Link(file, "top/to file");
    Link(folder, "top/to folder");
    Link("nowhere", "top/dangling");
    EXPECT_TRUE(Secure(m_folder / "top", true));
    EXPECT_EQ(0666u, ModeOf(file));
    EXPECT_EQ(0777u, ModeOf(folder));
    EXPECT_EQ(0666u, ModeOf(folder + "/file"));
    EXPECT_EQ(0u, Errors());
}

TEST_F(SecureFile, FifosAndSocketsBelowAreLeftAlone)
{
    Folder("top");
    const std::string fifo = m_folder / "top/fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    ASSERT_EQ(0, chmod(fifo.c_str(), 0666));
    struct sockaddr_un address
    {
    };
    address.sun_family = AF_UNIX;
    const std::string path = m_folder / "top/socket";
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, path.size());
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<struct sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, chmod(path.c_str(), 0666));

    EXPECT_TRUE(Secure(m_folder / "top", true));
    EXPECT_EQ(0666u, ModeOf(fifo));
    EXPECT_EQ(0666u, ModeOf(path));
    EXPECT_EQ(0u, Errors());
    close(listener);
}

TEST_F(SecureFile, AFifoGivenAsThePathIsRefused)
{
    const std::string fifo = m_folder / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
    EXPECT_FALSE(Secure(fifo));
    EXPECT_EQ(0644u, ModeOf(fifo));
    EXPECT_EQ(1u, Errors());
}

TEST_F(SecureFile, WhatDoesNotExistIsNamedInTheReport)
{
    EXPECT_FALSE(Secure(m_folder / "missing"));
    EXPECT_FALSE(Secure(""));
    const auto texts = m_log.Texts(wxLOG_Error);
    ASSERT_EQ(2u, texts.size());
    EXPECT_NE(std::string::npos, texts[0].find(m_folder / "missing")) << texts[0];
    EXPECT_NE(std::string::npos, texts[0].find("No such file")) << texts[0];
}

TEST_F(SecureFile, NamesThatAreNotUtf8AreReached)
{
    Folder("top");
    const std::string path = File("top/caf\xE9");
    EXPECT_TRUE(Secure(m_folder / "top", true));
    EXPECT_EQ(0600u, ModeOf(path));
}

TEST_F(SecureFile, RootTakesOverWhatBelongsToOthers)
{
    File("top/file");
    for (const char* name : {"top", "top/file"})
        ASSERT_EQ(0, chown((m_folder / name).c_str(), kNobody, kNobody));
    EXPECT_TRUE(Secure(m_folder / "top", true));
    EXPECT_EQ(0u, OwnerOf(m_folder / "top"));
    EXPECT_EQ(0u, OwnerOf(m_folder / "top/file"));
    EXPECT_EQ(0600u, ModeOf(m_folder / "top/file"));
}

TEST_F(SecureFile, AnotherUsersFileIsAnErrorForAUserWithoutPrivileges)
{
    ASSERT_EQ(0, chmod(m_folder.Path().c_str(), 0755));
    const std::string path = File("file", 0666);
    EXPECT_EQ(0, AnswerForNobody(path, false));
    EXPECT_EQ(0666u, ModeOf(path));
}

// The owner may change the rights of what he cannot read.
TEST_F(SecureFile, AUserWithoutPrivilegesSecuresAnUnreadableFileOfHis)
{
    ASSERT_EQ(0, chmod(m_folder.Path().c_str(), 0755));
    const std::string path = File("file", 0222);
    if (geteuid() == 0) {
        ASSERT_EQ(0, chown(path.c_str(), kNobody, kNobody));
    }
    EXPECT_EQ(1, AnswerForNobody(path, false));
    EXPECT_EQ(0600u, ModeOf(path));
}

TEST_F(SecureFile, WhatLiesBelowAFolderThatCannotBeSecuredIsSecuredAllTheSame)
{
    ASSERT_EQ(0, chmod(m_folder.Path().c_str(), 0755));
    const std::string below = File("top/foreign/file", 0644);
    ASSERT_EQ(0, chown((m_folder / "top").c_str(), kNobody, kNobody));
    ASSERT_EQ(0, chown(below.c_str(), kNobody, kNobody));
    Folder("top");
    Folder("top/foreign");
    EXPECT_EQ(0, AnswerForNobody(m_folder / "top", true));
    EXPECT_EQ(0777u, ModeOf(m_folder / "top/foreign"));
    EXPECT_EQ(0600u, ModeOf(below));
}

} // namespace

#include <VelCore/Execute.h>

#include <chrono>
#include <csignal>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <VelCore/Utf8.h>

#include "support/TempFolder.h"

namespace {

class Execute : public testing::Test
{
protected:
    // Runs a shell script of this text. Returns "<result> <code> <error>"; the output is in m_output.
    std::string Run(const std::string& text, const std::string& arguments = "")
    {
        const std::string path = m_folder.Write("script", "#!/bin/sh\n" + text + "\n");
        chmod(path.c_str(), 0700);
        return RunProgram(path, arguments);
    }

    std::string RunProgram(const std::string& path, const std::string& arguments = "")
    {
        wxString output(L"from before");
        wxString error(L"from before");
        unsigned long code = 99;
        const bool result =
            VelCore::Execute(VelCore::FromUtf8(path), VelCore::FromUtf8(arguments), output, code, error);
        m_output = VelCore::ToUtf8(output);
        return (result ? "true " : "false ") + std::to_string(code) + " " + VelCore::ToUtf8(error);
    }

    VelTest::CTempFolder m_folder;
    std::string m_output;
};

TEST_F(Execute, SuccessGivesBothOutputs)
{
    EXPECT_EQ("true 0 ", Run("echo out; echo err >&2; printf 'caf\\303\\251'"));
    EXPECT_EQ("out\nerr\ncaf\xC3\xA9", m_output);
}

TEST_F(Execute, ArgumentsAreSplitWithoutAShell)
{
    EXPECT_EQ("true 0 ", Run("for word; do echo \"<$word>\"; done", "stopmod 'a b' $HOME '' *"));
    EXPECT_EQ("<stopmod>\n<a b>\n<$HOME>\n<>\n<*>\n", m_output);
}

TEST_F(Execute, AStatusIsAnError)
{
    EXPECT_EQ("false 4 exited with status 4", Run("echo why; exit 4"));
    EXPECT_EQ("why\n", m_output);
}

TEST_F(Execute, ASignalIsAnError)
{
    EXPECT_EQ("false 137 killed by signal 9 (Killed)", Run("kill -9 $$"));
    EXPECT_EQ("false 143 killed by signal 15 (Terminated)", Run("kill -15 $$"));
}

TEST_F(Execute, WhatCannotBeStartedIsAnError)
{
    const std::string missing = m_folder / "missing";
    EXPECT_EQ("false 0 cannot start " + missing + ": No such file or directory", RunProgram(missing));
    EXPECT_EQ("", m_output);
    const std::string plain = m_folder.Write("plain", "text");
    EXPECT_EQ("false 0 cannot start " + plain + ": Permission denied", RunProgram(plain));
    chmod(plain.c_str(), 0700);
    EXPECT_EQ("false 0 cannot start " + plain + ": Exec format error", RunProgram(plain));
    EXPECT_EQ("false 0 cannot start /bin/true: a quote in its arguments is not closed", RunProgram("/bin/true", "'"));
}

TEST_F(Execute, NamesAreNotSearchedInThePath)
{
    EXPECT_EQ("false 0 cannot start true: No such file or directory", RunProgram("true"));
}

TEST_F(Execute, MuchOutputIsReadAndItsBeginningKept)
{
    EXPECT_EQ("true 0 ", Run("head -c 3000000 /dev/zero | tr '\\0' x; echo end >&2"));
    EXPECT_EQ(1024U * 1024, m_output.size());
}

TEST_F(Execute, AHelperThatKeepsTheOutputOpenIsNotWaitedFor)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ("false 5 exited with status 5", Run("sleep 60 & echo $!; exit 5"));
    EXPECT_GT(std::chrono::seconds(30), std::chrono::steady_clock::now() - start);
    kill(std::stoi(m_output), SIGKILL);
}

TEST_F(Execute, AProgramThatClosesItsOutputIsWaitedFor)
{
    EXPECT_EQ("false 6 exited with status 6", Run("exec >/dev/null 2>&1; sleep 0.2; exit 6"));
}

TEST_F(Execute, TheChildHasACleanSignalStateAndAGroupOfItsOwn)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    const auto pipeBefore = signal(SIGPIPE, SIG_IGN);
    const std::string result = Run(
        "sed -n 's/^Sig\\(Blk\\|Ign\\):.*\\(........\\)$/\\1 \\2/p' /proc/self/status; cut -d' ' -f1,5 /proc/$$/stat");
    signal(SIGPIPE, pipeBefore);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);

    EXPECT_EQ("true 0 ", result);
    // The first 31 signals, and SIGRTMIN-2, which is the C library's own and stays as the caller left it.
    const std::string clean = "Blk 00000000\nIgn ";
    ASSERT_EQ(clean, m_output.substr(0, clean.size())) << m_output;
    EXPECT_EQ(0U, std::stoul(m_output.substr(clean.size(), 8), nullptr, 16) & 0x7fffffffU) << m_output;
    const std::size_t last = m_output.rfind('\n', m_output.size() - 2) + 1;
    const std::string pids = m_output.substr(last, m_output.size() - last - 1);
    EXPECT_EQ(pids.substr(0, pids.find(' ')), pids.substr(pids.find(' ') + 1)) << "process and group";
}

TEST_F(Execute, TheChildGetsNoOtherDescriptors)
{
    const int leaked = open("/dev/null", O_RDONLY); // without O_CLOEXEC
    EXPECT_EQ("true 0 ", Run("ls /proc/self/fd"));
    close(leaked);
    EXPECT_EQ("0\n1\n2\n3\n", m_output) << "3 is the listing itself";
}

} // namespace

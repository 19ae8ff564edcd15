#include "lua/LuaProcess.h"

#include <csignal>
#include <string>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Capture.h"
#include "support/Script.h"
#include "support/TempFolder.h"

using VelTest::CDescriptorCapture;
using VelTest::CScript;

namespace {

class LuaProcess : public testing::Test
{
protected:
    CScript m_script;
};

TEST_F(LuaProcess, ExecuteWithoutACommandTellsThatThereIsAShell)
{
    EXPECT_EQ("true", m_script.Value("return os.execute()"));
}

TEST_F(LuaProcess, ExecuteGivesTheStatusAsLuaDoes)
{
    const auto answer = [this](const std::string& command) {
        return m_script.Value("local a, b, c = os.execute('" + command +
                              "') return tostring(a) .. ' ' .. b .. ' ' .. c");
    };
    EXPECT_EQ("true exit 0", answer("true"));
    EXPECT_EQ("nil exit 7", answer("exit 7"));
    EXPECT_EQ("nil signal 15", answer("kill -TERM $$"));
    EXPECT_EQ("nil signal 9", answer("kill -KILL $$"));
}

TEST_F(LuaProcess, OutputOfAChildComesBehindWhatWasPrintedBefore)
{
    const CDescriptorCapture out(STDOUT_FILENO);
    std::fputs("before ", stdout);
    m_script.Run("os.execute('printf during')");
    std::fputs(" after", stdout);
    EXPECT_EQ("before during after", out.Text());
}

TEST_F(LuaProcess, PopenReadsWhatAChildWrites)
{
    EXPECT_EQ("one\ntwo", m_script.Value("local f = io.popen('echo one; printf two') return f:read('*a')"));
    EXPECT_EQ("one", m_script.Value("local f = io.popen('echo one; echo two', 'r') return f:read()"));
    EXPECT_EQ("ab",
              m_script.Value("local s = '' for l in io.popen('echo a; echo b'):lines() do s = s .. l end return s"));
}

TEST_F(LuaProcess, PopenWritesWhatAChildReads)
{
    const VelTest::CTempFolder folder;
    EXPECT_EQ("true", m_script.Value("local f = io.popen('cat > " + (folder / "out") +
                                     "', 'w') f:write('one', 2) return f:close()"));
    EXPECT_EQ("one2", VelTest::ReadFile(folder / "out"));
}

TEST_F(LuaProcess, CloseGivesTheStatusOfTheChild)
{
    const auto answer = [this](const std::string& command) {
        return m_script.Value("local a, b, c = io.popen('" + command +
                              "'):close() return tostring(a) .. ' ' .. b .. ' ' .. c");
    };
    EXPECT_EQ("true exit 0", answer("true"));
    EXPECT_EQ("nil exit 3", answer("exit 3"));
    EXPECT_EQ("nil signal 15", answer("kill -TERM $$"));
}

TEST_F(LuaProcess, AHandleIsAFileOfTheIoLibrary)
{
    EXPECT_EQ("file", m_script.Value("h = io.popen('true') return io.type(h)"));
    EXPECT_EQ("closed file", m_script.Value("h:close() return io.type(h)"));
    EXPECT_EQ("file (closed)", m_script.Value("return h"));
    EXPECT_EQ("error: test:1: attempt to use a closed file", m_script.Value("h:read()"));
    EXPECT_EQ("error: test:1: attempt to use a closed file", m_script.Value("h:close()"));
}

TEST_F(LuaProcess, AnotherModeIsAnErrorThatNamesTheCommand)
{
    for (const char* mode : {"rw", "x", "", "rb"}) {
        EXPECT_EQ(std::string("true: Invalid argument"),
                  m_script.Value(std::string("return select(2, io.popen('true', '") + mode + "'))"))
            << mode;
        EXPECT_EQ("nil", m_script.Value(std::string("return (io.popen('true', '") + mode + "'))")) << mode;
    }
}

TEST_F(LuaProcess, ACollectedHandleLeavesNoChild)
{
    m_script.Run("do local f = io.popen('true') end collectgarbage() collectgarbage()");
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
}

TEST_F(LuaProcess, AHandleThatIsOpenAtTheEndLeavesNoChild)
{
    {
        CScript script;
        script.Run("f = io.popen('cat', 'w')");
    }
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
}

TEST_F(LuaProcess, AChildDoesNotInheritThePipesOfOthers)
{
    const std::string count = "local f = io.popen('ls /proc/self/fd | wc -l') local n = f:read('*n') f:close() ";
    EXPECT_EQ("0", m_script.Value(count + "local a, b = io.popen('cat >/dev/null', 'w'), io.popen('cat </dev/null') " +
                                  "local before = n " + count + "a:close() b:close() return n - before"));
}

// Whether what a child printed of its own status shows no signal as blocked or ignored. The C library keeps two signals
// to itself, which are nobody's business.
bool HasCleanSignals(const std::string& status)
{
    const unsigned long long own = 3ULL << 31; // signals 32 and 33
    for (const char* field : {"SigBlk:", "SigIgn:"}) {
        const std::size_t at = status.find(field);
        if (at == std::string::npos || (std::stoull(status.substr(at + 7), nullptr, 16) & ~own) != 0)
            return false;
    }
    return true;
}

TEST_F(LuaProcess, ChildrenStartWithoutBlockedOrIgnoredSignals)
{
    sigset_t some;
    sigset_t before;
    sigemptyset(&some);
    for (const int signal : {SIGTERM, SIGINT, SIGUSR1})
        sigaddset(&some, signal);
    pthread_sigmask(SIG_BLOCK, &some, &before);
    const auto onPipe = std::signal(SIGPIPE, SIG_IGN);
    const auto onHup = std::signal(SIGHUP, SIG_IGN);

    // The shell itself tells: what it starts in turn has a mask that the shell has cleared.
    const std::string command = "[[while read line; do echo \"$line\"; done < /proc/$$/status]]";
    const std::string opened = m_script.Value("return io.popen(" + command + "):read('*a')");
    std::string executed;
    {
        const CDescriptorCapture out(STDOUT_FILENO);
        m_script.Run("os.execute(" + command + ")");
        executed = out.Text();
    }
    std::signal(SIGPIPE, onPipe);
    std::signal(SIGHUP, onHup);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);

    EXPECT_TRUE(HasCleanSignals(opened)) << opened;
    EXPECT_TRUE(HasCleanSignals(executed)) << executed;
}

TEST_F(LuaProcess, ChildrenStayInTheCallersProcessGroup)
{
    const std::string group = std::to_string(getpgrp());
    EXPECT_EQ(group, m_script.Value("return (io.popen('cut -d \" \" -f 5 /proc/self/stat'):read())"));
}

TEST_F(LuaProcess, ExitEndsTheProcessWithItsStatus)
{
    EXPECT_EXIT(m_script.Run("os.exit(3)"), testing::ExitedWithCode(3), "");
    EXPECT_EXIT(m_script.Run("os.exit()"), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(m_script.Run("os.exit(true)"), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(m_script.Run("os.exit(false)"), testing::ExitedWithCode(1), "");
    EXPECT_EXIT(m_script.Run("os.exit(4, true)"), testing::ExitedWithCode(4), "");
}

TEST_F(LuaProcess, ExitWithAWrongArgumentIsAnError)
{
    EXPECT_EQ("error: test:1: bad argument #1 to 'exit' (number expected, got table)", m_script.Value("os.exit({})"));
}

TEST_F(LuaProcess, ExitFlushesWhatWasWritten)
{
    // The file that Lua opened is standard error, where the check can see it, with a buffer of its own.
    EXPECT_EXIT(m_script.Run("f = io.open('/dev/stderr', 'w') f:setvbuf('full') f:write('kept') os.exit(0)"),
                testing::ExitedWithCode(0), "kept");
}

TEST_F(LuaProcess, ExitFromAnotherThreadEndsTheProcess)
{
    EXPECT_EXIT(
        {
            std::thread([this] { m_script.Run("os.exit(5)"); }).detach();
            for (;;)
                pause();
        },
        testing::ExitedWithCode(5), "");
}

} // namespace

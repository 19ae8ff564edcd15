#include <VelCore/Log2Disk.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <VelCore/Runnable.h>

#include "support/Capture.h"
#include "support/RootDomain.h"
#include "support/TempFolder.h"
#include "trace/LogText.h"

namespace {

class COpenTarget : public VelCore::CLog2Disk
{
public:
    using CLog2Disk::DoLogRecord;
};

class Log2Disk : public testing::Test
{
protected:
    void SetUp() override
    {
        m_root->Set("app.path.work", m_folder / "work");
        m_root->Set("app.name", "disk");
        m_previous = wxLog::SetActiveTarget(&m_target);
        m_level = wxLog::GetLogLevel();
        wxLog::SetLogLevel(wxLOG_Max);
    }

    void TearDown() override
    {
        wxLog::SetLogLevel(m_level);
        wxLog::SetActiveTarget(m_previous);
    }

    std::string LogText() const { return VelTest::ReadFile(m_folder / "work/log/disk.log"); }

    // The records without time and process.
    std::vector<std::string> Records() const
    {
        std::vector<std::string> records;
        for (const std::string& line : VelTest::Lines(LogText()))
            records.push_back(line.substr(line.find("] ") + 2));
        return records;
    }

    VelTest::CTempFolder m_folder;
    std::unique_ptr<VelCore::CDom> m_root = VelTest::NewRootDomain();
    COpenTarget m_target;
    wxLog* m_previous = nullptr;
    wxLogLevel m_level = 0;
};

using Texts = std::vector<std::string>;

TEST_F(Log2Disk, EveryLevelHasItsWord)
{
    const char* const words[] = {"Fatal", "Error", "Warning", "Message", "Status", "Verbose", "Debug", "Trace"};
    const wxLogRecordInfo info(__FILE__, __LINE__, __func__, "");
    Texts expected;
    wxLogLevel level = wxLOG_FatalError;
    for (const char* word : words) {
        m_target.DoLogRecord(level++, L"text", info);
        expected.push_back(std::string(word) + ": text");
    }
    EXPECT_EQ(expected, Records());
}

TEST_F(Log2Disk, ALevelOfTheProgramsOwnIsAMessage)
{
    const wxLogRecordInfo info(__FILE__, __LINE__, __func__, "");
    m_target.DoLogRecord(wxLOG_Progress, L"a", info);
    m_target.DoLogRecord(wxLOG_User + 1, L"b", info);
    EXPECT_EQ((Texts{"Message: a", "Message: b"}), Records());
}

TEST_F(Log2Disk, RecordsOfTheFrameworkReachTheFileAtOnce)
{
    wxLogWarning(L"caf\x00E9 %d", 1);
    EXPECT_EQ((Texts{"Warning: caf\xC3\xA9 1"}), Records());
    wxLogError(L"two\nlines");
    EXPECT_EQ((Texts{"Warning: caf\xC3\xA9 1", "Error: two\\nlines"}), Records());
    wxLogSysError(13L, L"cannot");
    EXPECT_EQ(0u, Records().at(2).find("Error: cannot (error 13: ")) << Records().at(2);
}

TEST_F(Log2Disk, EqualRecordsInARowAreAllWritten)
{
    for (int i = 0; i < 3; ++i)
        wxLogMessage(L"same");
    EXPECT_EQ((Texts{"Message: same", "Message: same", "Message: same"}), Records());
}

class CLoggingThread : public VelCore::CRunnable
{
public:
    explicit CLoggingThread(const std::string& file) : CRunnable(false, -1, false), m_file(file) {}

    std::string seen; // what was in the file right behind the call

protected:
    int OnRun() override
    {
        wxLogMessage(L"from the thread");
        seen = VelTest::ReadFile(m_file);
        return 0;
    }

private:
    std::string m_file;
};

TEST_F(Log2Disk, RecordsOfARunnableAreWrittenByItsThread)
{
    CLoggingThread thread(m_folder / "work/log/disk.log");
    ASSERT_TRUE(thread.start(50, true, 0));
    thread.join();
    EXPECT_NE(std::string::npos, thread.seen.find("] Message: from the thread\n")) << thread.seen;
    EXPECT_EQ(Texts{"Message: from the thread"}, Records());
}

TEST_F(Log2Disk, ForeignTextIsLoggedAsItIs)
{
    const bool wasVerbose = wxLog::GetVerbose();
    wxLog::SetVerbose(true);
    VelCore::LogText(wxLOG_Error, "100% %s %n");
    VelCore::LogText(wxLOG_Warning, std::string("a\0b\0", 4));
    VelCore::LogText(wxLOG_Info, "caf\xE9 caf\xC3\xA9");
    wxLog::SetVerbose(false);
    VelCore::LogText(wxLOG_Info, "not asked for");
    wxLog::SetVerbose(wasVerbose);
    EXPECT_EQ((Texts{"Error: 100% %s %n", "Warning: a\\x00b\\x00", "Verbose: caf\\xe9 caf\xC3\xA9"}), Records());
}

TEST_F(Log2Disk, AQuietTerminalKeepsTheRecordInTheFile)
{
    {
        const VelCore::CTerminalQuiet quiet;
        wxLogError(L"quiet");
    }
    EXPECT_EQ(Texts{"Error: quiet"}, Records());
}

} // namespace

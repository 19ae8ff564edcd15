#include "events/EventStore.h"

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <VelCore/AgentEvent.h>
#include <VelCore/SqliteDatabase.h>

#include "support/Capture.h"
#include "support/Database.h"
#include "support/RootDomain.h"
#include "support/TempFolder.h"

using VelCore::CAgentEvent;
using VelCore::CDom;
using VelCore::CEventStore;
using VelTest::CDatabase;
using Texts = std::vector<std::string>;

namespace {

CAgentEvent Event(int number)
{
    CAgentEvent event;
    event.eventNumber = number;
    event.severity = 4;
    event.description = L"100%s\ndone";
    event.SetAttributeNull(&event.eventNumber, false);
    event.SetAttributeNull(&event.severity, false);
    event.SetAttributeNull(&event.description, false);
    return event;
}

const std::string kEventText = "event_number=1, severity=4, description=100%s\ndone";

class EventStore : public testing::Test
{
protected:
    void SetUp() override
    {
        VelCore::CSqliteDatabase::InitializeSQLite(nullptr);
        m_dom->Set("app.path.work", m_work);
    }
    void TearDown() override { VelCore::CSqliteDatabase::ShutdownSQLite(); }

    void Write(int number) const { m_dom->AgentEventWrite(Event(number)); }

    static std::string Numbers(const std::string& file)
    {
        return CDatabase(file).Ask("SELECT group_concat(event_number, ' ') FROM agent_event");
    }

    Texts Errors() const { return m_log.Texts(wxLOG_Error); }

    // Names in the work folder that begin with `start`.
    Texts Named(const std::string& start) const
    {
        Texts names;
        const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(m_work.c_str()), closedir);
        while (const dirent* entry = readdir(listing.get())) {
            const std::string name = entry->d_name;
            if (name.compare(0, start.size(), start) == 0)
                names.push_back(name);
        }
        return names;
    }

    VelTest::CTempFolder m_folder;
    const std::string m_work = m_folder / "a/work";
    const std::string m_path = m_work + "/agent_events.db";
    VelTest::CLogCapture m_log;
    std::unique_ptr<CDom> m_dom = VelTest::NewDomain();
};

TEST_F(EventStore, TheWorkFolderIsMadeWithTheFirstEvent)
{
    Write(1);
    EXPECT_EQ("1", Numbers(m_path));
    EXPECT_EQ(0700U, VelTest::ModeOf(m_work));
    EXPECT_EQ(0600U, VelTest::ModeOf(m_path));
    EXPECT_EQ(Texts{}, Errors());
}

TEST_F(EventStore, AViewWritesToTheSameFile)
{
    const std::unique_ptr<CDom> view(CDom::New("app", m_dom.get(), nullptr, false));
    view->AgentEventWrite(Event(7));
    EXPECT_EQ("7", Numbers(m_path));
}

TEST_F(EventStore, EventsFollowTheWorkFolder)
{
    Write(1);
    m_dom->Set("app.path.work", m_folder / "b");
    Write(2);
    EXPECT_EQ("1", Numbers(m_path));
    EXPECT_EQ("2", Numbers(m_folder / "b/agent_events.db"));
}

TEST_F(EventStore, ALinkOnTheWayToTheWorkFolderIsFine)
{
    m_folder.MakeFolder("real");
    ASSERT_EQ(0, symlink((m_folder / "real").c_str(), (m_folder / "link").c_str()));
    m_dom->Set("app.path.work", m_folder / "link");
    Write(1);
    EXPECT_EQ("1", Numbers(m_folder / "real/agent_events.db"));
}

TEST_F(EventStore, WithoutAWorkFolderTheRecordHoldsTheEvent)
{
    m_dom->Remove("app.path.work");
    Write(1);
    EXPECT_EQ(Texts{"Agent event could not be stored (there is no work folder): " + kEventText}, Errors());
}

TEST_F(EventStore, AWorkFolderThatCannotBeMadeIsARecord)
{
    m_folder.Write("a", "a file");
    Write(1);
    EXPECT_EQ(Texts{"Agent event could not be stored (" + m_work + ": Not a directory): " + kEventText}, Errors());
}

TEST_F(EventStore, ADamagedFileIsSetAsideWithTheEventOnRecord)
{
    m_folder.MakeFolder("a/work");
    m_folder.Write("a/work/agent_events.db", "no database");
    m_folder.Write("a/work/agent_events.db-wal", "no log");

    Write(1);
    Write(2);

    EXPECT_EQ("1 2", Numbers(m_path));
    const Texts aside = Named("agent_events.db.damaged-");
    ASSERT_FALSE(aside.empty());
    const auto shorter = [](const std::string& one, const std::string& other) { return one.size() < other.size(); };
    const std::string name = m_work + "/" + *std::min_element(aside.begin(), aside.end(), shorter);
    EXPECT_EQ("no database", VelTest::ReadFile(name));
    EXPECT_EQ("no log", VelTest::ReadFile(name + "-wal"));
    EXPECT_EQ(Texts{"Agent event database '" + m_path + "' is damaged (file is not a database). It was set aside as '" +
                    name + "'; this event is the first of a new one: " + kEventText},
              Errors());
}

TEST_F(EventStore, FilesSetAsideDoNotReplaceEachOther)
{
    m_folder.MakeFolder("a/work");
    const Texts contents{"first", "second", "third"};
    for (const std::string& content : contents) {
        CEventStore::Get().Close();
        m_folder.Write("a/work/agent_events.db", content);
        Write(1);
    }
    Texts kept;
    for (const std::string& name : Named("agent_events.db.damaged-")) {
        if (name.back() != 'm' && name.back() != 'l') // what the library keeps beside it: -shm, -wal
            kept.push_back(VelTest::ReadFile(m_work + "/" + name));
    }
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(contents, kept);
}

TEST_F(EventStore, ProcessesThatNoticeTheSameDamageSetItAsideOnce)
{
    m_folder.MakeFolder("a/work");
    for (int round = 0; round < 10; ++round) {
        m_folder.Write("a/work/agent_events.db", "no database");
        std::vector<pid_t> children;
        for (int number = 1; number <= 6; ++number) {
            children.push_back(fork());
            if (children.back() == 0) {
                Write(number);
                _exit(static_cast<int>(Errors().size()));
            }
        }
        int records = 0;
        for (const pid_t child : children) {
            int status = -1;
            ASSERT_EQ(child, waitpid(child, &status, 0));
            records += WEXITSTATUS(status);
        }

        EXPECT_EQ(1, records) << round;
        EXPECT_EQ("6", CDatabase(m_path).Ask("SELECT count(*) FROM agent_event")) << round;
        const Texts aside = Named("agent_events.db.damaged-");
        ASSERT_EQ(1U, aside.size()) << round;
        EXPECT_EQ("no database", VelTest::ReadFile(m_work + "/" + aside[0])) << round;
        for (const std::string& name : Named("agent_events.db"))
            unlink((m_work + "/" + name).c_str());
    }
}

TEST_F(EventStore, DamageWhileTheFileIsOpenIsNoticed)
{
    Write(1);
    CEventStore::Get().Close();
    Write(2);
    {
        const int file = open(m_path.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(file, 0);
        const std::string junk(8192, 'x');
        ASSERT_EQ(static_cast<ssize_t>(junk.size()), pwrite(file, junk.data(), junk.size(), 0));
        close(file);
    }
    unlink((m_path + "-wal").c_str());
    CEventStore::Get().Close();
    Write(3);
    EXPECT_EQ("3", Numbers(m_path));
    EXPECT_FALSE(Named("agent_events.db.damaged-").empty());
}

TEST_F(EventStore, AFailureIsARecordAndTheNextEventTriesAgain)
{
    m_folder.MakeFolder("a/work");
    CDatabase(m_path).Ask("CREATE TABLE other(a)");
    Write(1);
    unlink(m_path.c_str());
    Write(2);

    EXPECT_EQ(Texts{"Agent event could not be stored in '" + m_path +
                    "' (it is a database of something else (no such table: agent_event)): " + kEventText},
              Errors());
    EXPECT_EQ("2", Numbers(m_path));
}

TEST_F(EventStore, AFileThatIsRemovedOrRenamedIsReplaced)
{
    Write(1);
    rename(m_path.c_str(), (m_path + ".old").c_str());
    rename((m_path + "-wal").c_str(), (m_path + ".old-wal").c_str());
    unlink((m_path + "-shm").c_str());
    Write(2);
    EXPECT_EQ("2", Numbers(m_path));
    unlink(m_path.c_str());
    Write(3);
    EXPECT_EQ("3", Numbers(m_path));
    EXPECT_EQ(Texts{}, Errors());
}

TEST_F(EventStore, ARenamedFileKeepsItsRowsAndTheNextFileHasNoneOfThem)
{
    Write(1);
    CEventStore::Get().Close();
    ASSERT_EQ(0, rename(m_path.c_str(), (m_path + ".saved").c_str()));
    Write(2);
    rename(m_path.c_str(), (m_path + ".old").c_str());
    rename((m_path + ".saved").c_str(), m_path.c_str());
    Write(3);
    EXPECT_EQ("1 3", Numbers(m_path));
    EXPECT_EQ("2", Numbers(m_path + ".old"));
    EXPECT_EQ(Texts{}, Errors());
}

TEST_F(EventStore, ALogThatIsTakenAwayCostsNoLaterEvent)
{
    Write(1);
    unlink((m_path + "-wal").c_str());
    unlink((m_path + "-shm").c_str());
    Write(2);
    Write(3);
    CEventStore::Get().Close();
    EXPECT_EQ("2 3", Numbers(m_path));
    EXPECT_EQ(Texts{}, Errors());
}

TEST_F(EventStore, AForkedProcessLeavesItsParentsFileAlone)
{
    Write(1);
    const pid_t child = fork();
    if (child == 0) {
        Write(2);
        const Texts errors = Errors();
        const bool told = errors.size() == 1 && errors[0].find("forked from holds it open") != std::string::npos;
        _exit(told ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    Write(3);
    EXPECT_EQ("1 3", Numbers(m_path));
}

TEST_F(EventStore, AChildThatWasForkedBeforeTheFirstEventWritesItsOwn)
{
    const pid_t child = fork();
    if (child == 0) {
        Write(1);
        _exit(Errors().empty() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    Write(2);
    EXPECT_EQ("1 2", Numbers(m_path));
}

TEST_F(EventStore, ShuttingTheLibraryDownClosesTheFile)
{
    Write(1);
    EXPECT_TRUE(VelTest::Exists(m_path + "-wal"));
    VelCore::CSqliteDatabase::ShutdownSQLite();
    EXPECT_FALSE(VelTest::Exists(m_path + "-wal")) << "the log is tidied up by the last connection";
    Write(2);
    EXPECT_EQ("1 2", Numbers(m_path));
}

TEST_F(EventStore, ThreadsShareIt)
{
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 4; ++writer) {
        writers.emplace_back([this] {
            for (int number = 0; number < 25; ++number)
                Write(number);
        });
    }
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_EQ("100", CDatabase(m_path).Ask("SELECT count(*) FROM agent_event"));
}

} // namespace

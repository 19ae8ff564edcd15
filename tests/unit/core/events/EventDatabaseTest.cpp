#include "events/EventDatabase.h"

#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <VelCore/AgentEvent.h>
#include <VelCore/SqliteDatabase.h>

#include "support/Database.h"
#include "support/RootDomain.h"
#include "support/TempFolder.h"

using VelCore::CAgentEvent;
using VelCore::CEventDatabase;
using VelCore::DatabaseOutcome;
using VelTest::CDatabase;
using Kind = VelCore::DatabaseOutcome::Kind;

namespace {

CAgentEvent Event(int number, const wxString& description = L"text")
{
    CAgentEvent event;
    event.eventNumber = number;
    event.description = description;
    event.SetAttributeNull(&event.eventNumber, false);
    event.SetAttributeNull(&event.description, false);
    return event;
}

class EventDatabase : public testing::Test
{
protected:
    void SetUp() override { Configure(5000); }
    void TearDown() override { VelCore::CSqliteDatabase::ShutdownSQLite(); }

    static void Configure(int busyTimeout)
    {
        const auto dom = VelTest::NewDomain();
        dom->Set("sqlite.config.busy_timeout", busyTimeout);
        dom->Set("sqlite.config.synchronous", 0);
        VelCore::CSqliteDatabase::InitializeSQLite(dom.get());
    }

    std::string Open(CEventDatabase& database) const
    {
        const DatabaseOutcome outcome = database.Open(m_path);
        return Describe(outcome);
    }

    static std::string Describe(const DatabaseOutcome& outcome)
    {
        const char* const kinds[] = {"done", "damaged: ", "failed: "};
        return kinds[static_cast<int>(outcome.kind)] + outcome.reason;
    }

    VelTest::CTempFolder m_folder;
    const std::string m_path = m_folder / "events.db";
};

TEST_F(EventDatabase, MissingFileIsMadeForItsOwnerOnlyWhateverTheUmask)
{
    for (const mode_t mask : {0, 0777}) {
        unlink(m_path.c_str());
        const mode_t before = umask(mask);
        CEventDatabase database;
        const std::string outcome = Open(database);
        umask(before);
        EXPECT_EQ("done", outcome);
        EXPECT_EQ(0600U, VelTest::ModeOf(m_path)) << mask;
    }
}

TEST_F(EventDatabase, WiderRightsOfAnExistingFileAreRestricted)
{
    CDatabase(m_path).Ask("PRAGMA user_version=0; CREATE TABLE t(a); DROP TABLE t");
    chmod(m_path.c_str(), 0666);
    CEventDatabase database;
    EXPECT_EQ("done", Open(database));
    EXPECT_EQ(0600U, VelTest::ModeOf(m_path));
}

TEST_F(EventDatabase, ARowHoldsEveryAttribute)
{
    CEventDatabase database;
    ASSERT_EQ("done", Open(database));
    CAgentEvent event = Event(5101, L"it's 100%\n\u00e4");
    event.severity = 6;
    event.timeSeconds = 1763700000;
    event.timeMillis = 1763700000123;
    event.SetAttributeNull(&event.severity, false);
    event.SetAttributeNull(&event.timeSeconds, false);
    event.SetAttributeNull(&event.timeMillis, false);

    EXPECT_EQ("done", Describe(database.Insert(event)));

    EXPECT_EQ("1|5101|6|1763700000|1763700000123|it's 100%\n\xC3\xA4",
              CDatabase(m_path).Ask("SELECT * FROM agent_event"));
}

TEST_F(EventDatabase, AbsentAttributesAreNull)
{
    CEventDatabase database;
    ASSERT_EQ("done", Open(database));
    EXPECT_EQ("done", Describe(database.Insert(Event(1))));
    EXPECT_EQ("done", Describe(database.Insert(CAgentEvent())));
    EXPECT_EQ("1|1|NULL|NULL|NULL|text\n2|NULL|NULL|NULL|NULL|NULL",
              CDatabase(m_path).Ask("SELECT * FROM agent_event"));
}

TEST_F(EventDatabase, DescriptionKeepsAnyBytes)
{
    CEventDatabase database;
    ASSERT_EQ("done", Open(database));
    const wxString description(L"a\0b\xDCFFz", 5); // U+DCFF stands for the byte FF
    EXPECT_EQ("done", Describe(database.Insert(Event(1, description))));
    EXPECT_EQ("610062FF7A", CDatabase(m_path).Ask("SELECT hex(description) FROM agent_event"));
}

TEST_F(EventDatabase, RowsAreFlushedWhateverTheSettingsSay)
{
    CEventDatabase database;
    ASSERT_EQ("done", Open(database));
    // The setting is the connection's own and cannot be asked from outside; the log tells that commits go through it.
    EXPECT_EQ("wal", CDatabase(m_path).Ask("PRAGMA journal_mode"));
    EXPECT_EQ("0", CDatabase(m_path).Ask("PRAGMA synchronous")) << "other connections follow the settings";
}

TEST_F(EventDatabase, IdsAreNotUsedTwice)
{
    CEventDatabase database;
    ASSERT_EQ("done", Open(database));
    database.Insert(Event(1));
    database.Insert(Event(2));
    CDatabase(m_path).Ask("DELETE FROM agent_event");
    database.Insert(Event(3));
    EXPECT_EQ("3|3", CDatabase(m_path).Ask("SELECT id, event_number FROM agent_event"));
}

TEST_F(EventDatabase, TheNewestRowsAreKept)
{
    CEventDatabase database;
    ASSERT_EQ("done", Open(database));
    CDatabase(m_path).Ask("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100998) "
                          "INSERT INTO agent_event(event_number) SELECT i FROM n");

    database.Insert(Event(100999));
    EXPECT_EQ("100999|1", CDatabase(m_path).Ask("SELECT count(*), min(id) FROM agent_event"));
    database.Insert(Event(101000));
    EXPECT_EQ("100000|1001|101000", CDatabase(m_path).Ask("SELECT count(*), min(id), max(id) FROM agent_event"));
}

TEST_F(EventDatabase, TrimmingCountsRowsNotIds)
{
    CEventDatabase database;
    ASSERT_EQ("done", Open(database));
    CDatabase(m_path).Ask("INSERT INTO agent_event(id) VALUES (5), (299999)");
    database.Insert(Event(1));
    EXPECT_EQ("5\n299999\n300000", CDatabase(m_path).Ask("SELECT id FROM agent_event"));
}

TEST_F(EventDatabase, ADatabaseOfSomethingElseIsNotTouched)
{
    const char* const tables[] = {"CREATE TABLE other(a)", "CREATE TABLE agent_event(id, description)",
                                  "CREATE TABLE agent_events(a); CREATE VIEW v AS SELECT 1"};
    for (const char* table : tables) {
        unlink(m_path.c_str());
        CDatabase(m_path).Ask(table);
        const std::string before = VelTest::ReadFile(m_path);

        CEventDatabase database;
        const std::string outcome = Open(database);

        EXPECT_EQ(0U, outcome.find("failed: it is a database of something else (no such ")) << outcome;
        EXPECT_FALSE(database.IsOpen());
        EXPECT_TRUE(before == VelTest::ReadFile(m_path)) << table;
    }
}

TEST_F(EventDatabase, AFileThatIsNoDatabaseIsDamagedAndStaysAsItIs)
{
    const std::string contents[] = {"x",
                                    std::string(511, 'z'),
                                    "SQLite format 3",
                                    "some text that is no database\n",
                                    std::string(5000, '\0') + "x",
                                    std::string(70000, 'y')};
    for (const std::string& content : contents) {
        m_folder.Write("events.db", content);
        CEventDatabase database;
        const std::string outcome = Open(database);
        EXPECT_EQ("damaged: file is not a database", outcome) << content.size();
        EXPECT_TRUE(content == VelTest::ReadFile(m_path)) << content.size();
    }
}

TEST_F(EventDatabase, DamageAnywhereIsFoundOnOpening)
{
    {
        CEventDatabase database;
        ASSERT_EQ("done", Open(database));
        for (int number = 0; number < 200; ++number)
            database.Insert(Event(number, wxString(L'x', 200)));
    }
    const std::string whole = VelTest::ReadFile(m_path);
    ASSERT_GT(whole.size(), 5U * 4096);

    std::string damaged = whole;
    damaged.replace(3 * 4096, 64, 64, '\xEE'); // a page in the middle, which no insertion touches
    for (const std::string& content : {damaged, whole.substr(0, 2 * 4096), whole.substr(0, 4096 + 100)}) {
        m_folder.Write("events.db", content);
        CEventDatabase database;
        EXPECT_EQ(Kind::Damaged, database.Open(m_path).kind) << content.size();
        EXPECT_TRUE(content == VelTest::ReadFile(m_path)) << content.size();
    }
}

TEST_F(EventDatabase, WhatIsNoRegularFileIsRefused)
{
    mkdir(m_path.c_str(), 0700);
    CEventDatabase database;
    EXPECT_EQ("failed: not a regular file", Open(database));
    rmdir(m_path.c_str());

    mkfifo(m_path.c_str(), 0600);
    EXPECT_EQ("failed: not a regular file", Open(database));
    unlink(m_path.c_str());

    ASSERT_EQ(0, symlink((m_folder / "target").c_str(), m_path.c_str()));
    EXPECT_EQ("failed: not a regular file", Open(database));
    EXPECT_FALSE(VelTest::Exists(m_folder / "target"));
}

TEST_F(EventDatabase, WhatIsNoRegularFileBesideItIsRefused)
{
    CEventDatabase database;
    for (const std::string suffix : {"-journal", "-wal", "-shm"}) {
        const std::string beside = m_path + suffix;
        ASSERT_EQ(0, mkfifo(beside.c_str(), 0600));
        EXPECT_EQ("failed: '" + beside + "' is not a regular file", Open(database));
        unlink(beside.c_str());

        ASSERT_EQ(0, symlink((m_folder / "target").c_str(), beside.c_str()));
        EXPECT_EQ("failed: '" + beside + "' is not a regular file", Open(database));
        EXPECT_FALSE(VelTest::Exists(m_folder / "target"));
        unlink(beside.c_str());
    }
    EXPECT_EQ("done", Open(database));
}

TEST_F(EventDatabase, AFileOfAnotherUserIsRefused)
{
    m_folder.Write("events.db", "");
    ASSERT_EQ(0, chown(m_path.c_str(), 65534, 65534));
    CEventDatabase database;
    EXPECT_EQ("failed: it belongs to another user", Open(database));
}

TEST_F(EventDatabase, AMissingFolderIsAFailure)
{
    CEventDatabase database;
    EXPECT_EQ("failed: No such file or directory", Describe(database.Open(m_folder / "no/events.db")));
}

TEST_F(EventDatabase, ALockedFileIsAFailureAndGoesOnWhenTheLockGoes)
{
    Configure(50);
    CEventDatabase database;
    ASSERT_EQ("done", Open(database));
    {
        const CDatabase other(m_path);
        ASSERT_EQ("", other.Ask("BEGIN IMMEDIATE"));
        EXPECT_EQ("failed: database is locked", Describe(database.Insert(Event(1))));
    }
    EXPECT_EQ("done", Describe(database.Insert(Event(2))));
    EXPECT_EQ("2", CDatabase(m_path).Ask("SELECT event_number FROM agent_event"));
}

TEST_F(EventDatabase, AReaderDoesNotDisturb)
{
    Configure(0);
    CEventDatabase database;
    ASSERT_EQ("done", Open(database));
    database.Insert(Event(1));
    const CDatabase reader(m_path);
    ASSERT_EQ("1", reader.Ask("BEGIN; SELECT count(*) FROM agent_event"));
    EXPECT_EQ("done", Describe(database.Insert(Event(2))));
    EXPECT_EQ("1", reader.Ask("SELECT count(*) FROM agent_event"));
    EXPECT_EQ("2", reader.Ask("COMMIT; SELECT count(*) FROM agent_event"));
}

TEST_F(EventDatabase, NoticesThatItsFileIsGone)
{
    CEventDatabase database;
    ASSERT_EQ("done", Open(database));
    EXPECT_TRUE(database.IsInPlace());
    rename(m_path.c_str(), (m_path + ".old").c_str());
    EXPECT_FALSE(database.IsInPlace());
    m_folder.Write("events.db", "");
    EXPECT_FALSE(database.IsInPlace());
}

TEST_F(EventDatabase, NoticesThatItsLogIsGone)
{
    CEventDatabase database;
    ASSERT_EQ("done", Open(database));
    ASSERT_EQ("done", Describe(database.Insert(Event(1))));
    EXPECT_TRUE(database.IsInPlace());

    ASSERT_EQ(0, rename((m_path + "-wal").c_str(), (m_path + "-elsewhere").c_str()));
    EXPECT_FALSE(database.IsInPlace());
    m_folder.Write("events.db-wal", "somebody else's");
    EXPECT_FALSE(database.IsInPlace());

    database.Close();
    EXPECT_EQ("somebody else's", VelTest::ReadFile(m_path + "-wal"));
}

TEST_F(EventDatabase, ClosingARenamedFileLeavesNoRowBehind)
{
    CEventDatabase database;
    ASSERT_EQ("done", Open(database));
    ASSERT_EQ("done", Describe(database.Insert(Event(1))));
    ASSERT_EQ(0, rename(m_path.c_str(), (m_path + ".old").c_str()));

    database.Close();

    EXPECT_EQ("1", CDatabase(m_path + ".old").Ask("SELECT event_number FROM agent_event"));
    EXPECT_FALSE(VelTest::Exists(m_path + "-wal")) << "the next file of that name would be taken to own it";
    EXPECT_FALSE(VelTest::Exists(m_path + "-shm"));
}

TEST_F(EventDatabase, SeveralWritersStartTheSameFile)
{
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 4; ++writer) {
        writers.emplace_back([this, writer] {
            CEventDatabase database;
            EXPECT_EQ("done", Open(database));
            for (int number = 0; number < 25; ++number)
                EXPECT_EQ("done", Describe(database.Insert(Event(writer * 100 + number))));
        });
    }
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_EQ("100|100|100",
              CDatabase(m_path).Ask("SELECT count(*), count(DISTINCT event_number), max(id) FROM agent_event"));
}

} // namespace

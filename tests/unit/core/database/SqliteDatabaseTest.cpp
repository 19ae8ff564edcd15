#include <VelCore/SqliteDatabase.h>

#include <memory>
#include <string>
#include <vector>

#include <sqlite3.h>

#include <gtest/gtest.h>

#include "support/Capture.h"
#include "support/RootDomain.h"
#include "support/TempFolder.h"

using VelCore::CSqliteDatabase;

namespace {

using Connection = std::unique_ptr<sqlite3, int (*)(sqlite3*)>;

Connection Open(const std::string& file)
{
    sqlite3* connection = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &connection)) << file;
    return {connection, sqlite3_close};
}

int KeepFirst(void* text, int columns, char** values, char**)
{
    if (columns > 0 && values[0])
        *static_cast<std::string*>(text) = values[0];
    return 0;
}

std::string Ask(const Connection& connection, const std::string& statement)
{
    std::string text;
    char* error = nullptr;
    if (sqlite3_exec(connection.get(), statement.c_str(), KeepFirst, &text, &error) != SQLITE_OK)
        text = std::string("error: ") + (error ? error : "?");
    sqlite3_free(error);
    return text;
}

// The library takes a configuration only while it is shut down.
bool IsShutDown()
{
    return sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 1) == SQLITE_OK;
}

class SqliteDatabase : public testing::Test
{
protected:
    void TearDown() override { CSqliteDatabase::ShutdownSQLite(); }

    void Initialize() const { CSqliteDatabase::InitializeSQLite(m_dom.get()); }

    VelTest::CTempFolder m_folder;
    VelTest::CLogCapture m_log;
    std::unique_ptr<VelCore::CDom> m_dom = VelTest::NewDomain();
};

TEST_F(SqliteDatabase, WithoutSettingsAConnectionWaitsFiveSecondsForALock)
{
    Initialize();
    EXPECT_EQ("5000", Ask(Open(m_folder / "a.db"), "PRAGMA busy_timeout"));
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(SqliteDatabase, WithoutADomainTheDefaultsHold)
{
    CSqliteDatabase::InitializeSQLite(nullptr);
    EXPECT_EQ("5000", Ask(Open(m_folder / "a.db"), "PRAGMA busy_timeout"));
}

TEST_F(SqliteDatabase, EveryNewConnectionGetsTheSettings)
{
    m_dom->Set("sqlite.config.cache", 77);
    m_dom->Set("sqlite.config.busy_timeout", 123);
    m_dom->Set("sqlite.config.mmap_size", 65536);
    m_dom->Set("sqlite.config.synchronous", 0);
    Initialize();
    const Connection first = Open(m_folder / "a.db");
    for (const std::string& file : {m_folder / "a.db", m_folder / "b.db"}) {
        const Connection connection = Open(file);
        EXPECT_EQ("77", Ask(connection, "PRAGMA cache_size")) << file;
        EXPECT_EQ("123", Ask(connection, "PRAGMA busy_timeout")) << file;
        EXPECT_EQ("65536", Ask(connection, "PRAGMA mmap_size")) << file;
        EXPECT_EQ("0", Ask(connection, "PRAGMA synchronous")) << file;
    }
    EXPECT_EQ("77", Ask(first, "PRAGMA cache_size"));
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(SqliteDatabase, TheSoftHeapLimitIsOneForTheProcess)
{
    const sqlite3_int64 before = sqlite3_soft_heap_limit64(-1);
    m_dom->Set("sqlite.config.soft_heap_limit", 12345678);
    Initialize();
    EXPECT_EQ(12345678, sqlite3_soft_heap_limit64(-1));
    sqlite3_soft_heap_limit64(before);
}

TEST_F(SqliteDatabase, AFileThatIsNoDatabaseCanBeOpenedAndGivesItsErrorToItsUser)
{
    m_dom->Set("sqlite.config.cache", 77);
    Initialize();
    const Connection connection = Open(m_folder.Write("text", std::string(5000, 'x')));
    EXPECT_EQ("error: file is not a database", Ask(connection, "SELECT * FROM sqlite_master"));
}

TEST_F(SqliteDatabase, ADatabaseThatSomebodyHasLockedCanBeOpened)
{
    m_dom->Set("sqlite.config.cache", 77);
    m_dom->Set("sqlite.config.busy_timeout", 1);
    Initialize();
    const Connection owner = Open(m_folder / "a.db");
    EXPECT_EQ("", Ask(owner, "CREATE TABLE t(x); BEGIN EXCLUSIVE"));
    const Connection connection = Open(m_folder / "a.db");
    EXPECT_EQ("error: database is locked", Ask(connection, "SELECT count(*) FROM t"));
    EXPECT_EQ("", Ask(owner, "COMMIT"));
    EXPECT_EQ("0", Ask(connection, "SELECT count(*) FROM t"));
    EXPECT_EQ("1", Ask(connection, "PRAGMA busy_timeout"));
}

TEST_F(SqliteDatabase, UnknownNamesAndBadValuesAreWarningsAndTheRestCounts)
{
    m_dom->Set("sqlite.config.cash", 1);
    m_dom->Set("sqlite.config", 1);
    m_dom->Set("sqlite.config.synchronous", 4);
    m_dom->Set("sqlite.config.cache", 77);
    m_dom->Set("sqlite.other", 1);
    Initialize();
    const std::vector<std::string> warnings = m_log.Texts(wxLOG_Warning);
    ASSERT_EQ(3u, warnings.size());
    EXPECT_NE(std::string::npos, warnings[0].find("'sqlite.config'")) << warnings[0];
    EXPECT_NE(std::string::npos, warnings[1].find("'sqlite.config.cash'")) << warnings[1];
    EXPECT_NE(std::string::npos, warnings[2].find("'sqlite.config.synchronous'")) << warnings[2];
    EXPECT_EQ("77", Ask(Open(m_folder / "a.db"), "PRAGMA cache_size"));
}

TEST_F(SqliteDatabase, ANewStartForgetsTheFormerSettings)
{
    m_dom->Set("sqlite.config.busy_timeout", 123);
    Initialize();
    m_dom->Remove("sqlite.config.busy_timeout");
    Initialize();
    EXPECT_EQ("5000", Ask(Open(m_folder / "a.db"), "PRAGMA busy_timeout"));
}

TEST_F(SqliteDatabase, ShutdownShutsTheLibraryDownWhenNoConnectionIsOpen)
{
    Initialize();
    EXPECT_FALSE(IsShutDown());
    Ask(Open(m_folder / "a.db"), "CREATE TABLE t(x); INSERT INTO t VALUES(1); SELECT * FROM t");
    CSqliteDatabase::ShutdownSQLite();
    EXPECT_TRUE(IsShutDown());
    CSqliteDatabase::ShutdownSQLite(); // once more is no harm
    EXPECT_TRUE(IsShutDown());
}

TEST_F(SqliteDatabase, ShutdownLeavesTheLibraryAloneWhileAConnectionIsOpen)
{
    Initialize();
    {
        const Connection connection = Open(m_folder / "a.db");
        CSqliteDatabase::ShutdownSQLite();
        EXPECT_FALSE(IsShutDown());
        EXPECT_EQ("1", Ask(connection, "CREATE TABLE t(x); INSERT INTO t VALUES(1); SELECT * FROM t"));
    }
    CSqliteDatabase::ShutdownSQLite();
    EXPECT_TRUE(IsShutDown());
}

TEST_F(SqliteDatabase, ALibraryLeftAloneGoesOnGivingItsSettings)
{
    m_dom->Set("sqlite.config.busy_timeout", 123);
    Initialize();
    const Connection connection = Open(m_folder / "a.db");
    CSqliteDatabase::ShutdownSQLite();
    EXPECT_EQ("123", Ask(Open(m_folder / "b.db"), "PRAGMA busy_timeout"));
}

TEST_F(SqliteDatabase, AnOpenStatementKeepsTheLibraryToo)
{
    Initialize();
    sqlite3* connection = Open(":memory:").release();
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(connection, "SELECT 1", -1, &statement, nullptr));
    EXPECT_EQ(SQLITE_OK, sqlite3_close_v2(connection)); // stays until the statement is gone
    CSqliteDatabase::ShutdownSQLite();
    EXPECT_FALSE(IsShutDown());
    EXPECT_EQ(SQLITE_ROW, sqlite3_step(statement));
    sqlite3_finalize(statement);
    CSqliteDatabase::ShutdownSQLite();
    EXPECT_TRUE(IsShutDown());
}

TEST_F(SqliteDatabase, ItCanBeStartedAgain)
{
    Initialize();
    CSqliteDatabase::ShutdownSQLite();
    m_dom->Set("sqlite.config.busy_timeout", 123);
    Initialize();
    EXPECT_EQ("123", Ask(Open(m_folder / "a.db"), "PRAGMA busy_timeout"));
}

} // namespace

// A durable event, next to the least that one can cost, pwrite and fdatasync of a record of like size, and to a plain
// insert into an SQLite database that flushes its log with every row.
//
// Usage: DurableEvents FOLDER ROUNDS   (prints "ROW CONTENDER SAMPLE", microseconds; FOLDER is on a disk)

#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <sqlite3.h>

#include <VelCore/Clock.h>
#include <VelCore/SqliteDatabase.h>

#include "drivers/Driver.h"
#include "drivers/OrdinaryEvent.h"

namespace {

const double kMicrosecondsPerSecond = 1e6;
const int kMillisPerSecond = 1000;

void Require(bool isDone)
{
    if (!isDone)
        std::abort();
}

template <typename Write>
void Measure(const char* contender, const Write& write)
{
    const Driver::Clock::time_point start = Driver::Clock::now();
    write();
    std::printf("event %s %.3f\n", contender, Driver::SecondsSince(start) * kMicrosecondsPerSecond);
}

// A file that records are put into one behind the other, each flushed.
class CFloor
{
public:
    explicit CFloor(const std::string& path)
        : m_file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600))
    {
        Require(m_file >= 0);
    }
    ~CFloor() { close(m_file); }
    CFloor(const CFloor&) = delete;
    CFloor& operator=(const CFloor&) = delete;

    void Write()
    {
        Require(pwrite(m_file, m_record.data(), m_record.size(), m_end) == static_cast<ssize_t>(m_record.size()));
        Require(fdatasync(m_file) == 0);
        m_end += static_cast<off_t>(m_record.size());
    }

private:
    const std::string m_record = std::string("5101 6 1763700000 1763700000123 ") + Driver::kEventDescription + "\n";
    int m_file;
    off_t m_end = 0;
};

class CPlainSqlite
{
public:
    explicit CPlainSqlite(const std::string& path)
    {
        Require(sqlite3_open(path.c_str(), &m_connection) == SQLITE_OK);
        Execute("PRAGMA journal_mode=WAL");
        Execute("PRAGMA synchronous=FULL");
        Execute("CREATE TABLE event(id INTEGER PRIMARY KEY, number INTEGER, severity INTEGER, time_s INTEGER, "
                "time_ms INTEGER, description TEXT)");
        Require(sqlite3_prepare_v2(m_connection,
                                   "INSERT INTO event(number, severity, time_s, time_ms, description) "
                                   "VALUES(?, ?, ?, ?, ?)",
                                   -1, &m_insert, nullptr) == SQLITE_OK);
    }
    ~CPlainSqlite()
    {
        sqlite3_finalize(m_insert);
        sqlite3_close(m_connection);
    }
    CPlainSqlite(const CPlainSqlite&) = delete;
    CPlainSqlite& operator=(const CPlainSqlite&) = delete;

    void Write()
    {
        const std::int64_t now = VelCore::TimeNowMillis();
        sqlite3_bind_int64(m_insert, 1, Driver::kEventNumber);
        sqlite3_bind_int64(m_insert, 2, Driver::kEventSeverity);
        sqlite3_bind_int64(m_insert, 3, now / kMillisPerSecond);
        sqlite3_bind_int64(m_insert, 4, now);
        sqlite3_bind_text(m_insert, 5, Driver::kEventDescription, -1, SQLITE_STATIC);
        Require(sqlite3_step(m_insert) == SQLITE_DONE);
        sqlite3_reset(m_insert);
    }

private:
    void Execute(const char* statement)
    {
        Require(sqlite3_exec(m_connection, statement, nullptr, nullptr, nullptr) == SQLITE_OK);
    }

    sqlite3* m_connection = nullptr;
    sqlite3_stmt* m_insert = nullptr;
};

} // namespace

int main(int argc, char** argv)
{
    Driver::ExpectArguments(argc, 2, "usage: DurableEvents FOLDER ROUNDS");
    const std::string folder = argv[1];
    const Driver::CCore core(folder);
    const int rounds = Driver::PositiveCount(argv[2], "ROUNDS");
    VelCore::CSqliteDatabase::InitializeSQLite(&core.Dom());
    {
        CFloor floor(folder + "/floor.events");
        CPlainSqlite plain(folder + "/plain.db");
        core.Dom().AgentEventWrite(Driver::OrdinaryEvent()); // makes the database
        for (int round = 0; round < rounds; ++round) {
            Measure("floor", [&] { floor.Write(); });
            Measure("agent", [&] { core.Dom().AgentEventWrite(Driver::OrdinaryEvent()); });
            Measure("SQLite", [&] { plain.Write(); });
        }
    }
    VelCore::CSqliteDatabase::ShutdownSQLite();
    return 0;
}

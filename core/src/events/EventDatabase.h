// EventDatabase.h: one open database file of agent events.
#pragma once

#include <memory>
#include <string>

#include "process/FileIdentity.h"

struct sqlite3;
struct sqlite3_stmt;

namespace VelCore {

class CAgentEvent;

/// How something with the database ended.
struct DatabaseOutcome
{
    enum class Kind {
        Done,
        Damaged, // the file is no database, or a broken one
        Failed,  // anything else: locked, read-only, full, somebody else's
    };

    Kind kind = Kind::Done;
    std::string reason; // UTF-8; empty when done
};

/// A database file with the table `agent_event`: `id` (ascending), `event_number`, `severity`, `time_s`, `time_ms`,
/// `description`. A file that holds other tables and not this one is somebody else's and is not touched.
///
/// Every row is flushed to the disk before `Insert` returns, whatever the settings of the process say. The newest
/// 100,000 rows are kept, and up to 1,000 more between trims.
///
/// Threads: one at a time.
class CEventDatabase
{
public:
    static const int s_KeptRows = 100000;
    static const int s_TrimEvery = 1000;

    CEventDatabase();
    ~CEventDatabase();
    CEventDatabase(const CEventDatabase&) = delete;
    CEventDatabase& operator=(const CEventDatabase&) = delete;

    /// Opens the file, creating it with mode 0600 when it is missing. A whole check tells a damaged file now, not in
    /// the middle of its use; that takes about 50 ms for 100,000 rows.
    ///
    /// path  absolute, without links: a link anywhere in it is refused
    DatabaseOutcome Open(const std::string& path);

    bool IsOpen() const { return m_connection != nullptr; }

    /// Whether the open file and its log are still those of their names, neither removed nor renamed. A row that is
    /// written to what has no name any more is lost.
    bool IsInPlace() const;

    /// The file that was opened last, also when it is damaged.
    FileIdentity LastFile() const { return m_file; }

    DatabaseOutcome Insert(const CAgentEvent& event);

    /// Closes the file after tidying up its log. A file that was renamed takes the rows in its log along.
    void Close();

    /// Closes the file and leaves it as it is, its log included, for somebody to look at.
    void CloseUntouched();

private:
    DatabaseOutcome Prepare();
    DatabaseOutcome Execute(const char* statement);
    DatabaseOutcome CheckWhole();
    DatabaseOutcome MakeTable();
    DatabaseOutcome Outcome(int status) const;
    bool FileIsInPlace() const;
    bool LogIsInPlace() const;
    void EmptyLog();
    void Disconnect();
    void Trim();

    struct Closer
    {
        void operator()(sqlite3* connection) const;
        void operator()(sqlite3_stmt* statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Closer>;

    DatabaseOutcome Compile(const char* text, Statement& statement);

    std::string m_path;
    FileIdentity m_file{};
    std::unique_ptr<sqlite3, Closer> m_connection;
    Statement m_insert; // goes before the connection
    Statement m_trim;
    FileIdentity m_log{}; // known from the first row on
};

} // namespace VelCore

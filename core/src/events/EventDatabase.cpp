// The table of agent events in one SQLite file.
//
// Tested by: unit/core/events/EventDatabaseTest.cpp.

#include "events/EventDatabase.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sqlite3.h>

#include <VelCore/AgentEvent.h>
#include <VelCore/SecureFile.h>
#include <VelCore/Utf8.h>

namespace VelCore {
namespace {

using Kind = DatabaseOutcome::Kind;

const mode_t kFileMode = 0600;
const char* const kJournalSuffix = "-journal";
const char* const kLogSuffix = "-wal";
const char* const kLogIndexSuffix = "-shm";

// The smallest page, and so the smallest file with anything in it. Source: the library's file format, section 1.3.
const off_t kSmallestPage = 512;

const char* const kCreate = "CREATE TABLE IF NOT EXISTS agent_event("
                            "id INTEGER PRIMARY KEY AUTOINCREMENT, event_number INTEGER, severity INTEGER, "
                            "time_s INTEGER, time_ms INTEGER, description TEXT)";
const char* const kInsert =
    "INSERT INTO agent_event(event_number, severity, time_s, time_ms, description) VALUES(?, ?, ?, ?, ?)";
const char* const kTrim = "DELETE FROM agent_event WHERE id <= "
                          "(SELECT id FROM agent_event ORDER BY id DESC LIMIT 1 OFFSET ?)";

// With a log beside the file a row needs one flush, and readers and the writer do not wait for each other.
const char* const kUseLog = "PRAGMA journal_mode=WAL";

// The strictest level. It also covers the library's older journal, where a log cannot be had.
const char* const kFlushEveryRow = "PRAGMA synchronous=3";

DatabaseOutcome SystemFailure(int error)
{
    return {Kind::Failed, std::strerror(error)};
}

// The library would create the file with the rights that the umask leaves.
DatabaseOutcome MakeFile(const std::string& path)
{
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode);
    if (descriptor < 0)
        return errno == EEXIST ? DatabaseOutcome() : SystemFailure(errno);
    const int error = fchmod(descriptor, kFileMode) == 0 ? 0 : errno;
    close(descriptor);
    return error == 0 ? DatabaseOutcome() : SystemFailure(error);
}

// A link, a fifo or another user's file in the place of ours is neither used nor changed.
DatabaseOutcome SecureFile(const std::string& path)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0)
        return errno == ENOENT ? MakeFile(path) : SystemFailure(errno);
    if (!S_ISREG(status.st_mode))
        return {Kind::Failed, "not a regular file"};
    if (status.st_uid != geteuid())
        return {Kind::Failed, "it belongs to another user"};
    // The library would take a few bytes for an empty file and write over them.
    if (status.st_size > 0 && status.st_size < kSmallestPage)
        return {Kind::Damaged, sqlite3_errstr(SQLITE_NOTADB)};
    // Only where it is needed: closing a descriptor of the file drops the locks that other connections of this process
    // hold.
    if ((status.st_mode & 07777) != kFileMode && !SecureFileOrDirectory(FromUtf8(path), false))
        return {Kind::Failed, "its access rights cannot be restricted"};
    return {};
}

// The library follows no link beside the file, but it would wait for the other side of a fifo.
DatabaseOutcome CheckBeside(const std::string& path)
{
    for (const char* suffix : {kJournalSuffix, kLogSuffix, kLogIndexSuffix}) {
        struct stat status = {};
        if (lstat((path + suffix).c_str(), &status) == 0 && !S_ISREG(status.st_mode))
            return {Kind::Failed, "'" + path + suffix + "' is not a regular file"};
    }
    return {};
}

bool IsDamage(int status)
{
    const int primary = status & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

void BindNumber(sqlite3_stmt* statement, int at, const CAgentEvent& event, const void* attribute, std::int64_t value)
{
    if (event.AttributeIsNull(attribute))
        sqlite3_bind_null(statement, at);
    else
        sqlite3_bind_int64(statement, at, value);
}

} // namespace

void CEventDatabase::Closer::operator()(sqlite3* connection) const
{
    sqlite3_close(connection);
}

void CEventDatabase::Closer::operator()(sqlite3_stmt* statement) const
{
    sqlite3_finalize(statement);
}

CEventDatabase::CEventDatabase() = default;
CEventDatabase::~CEventDatabase() = default;

DatabaseOutcome CEventDatabase::Outcome(int status) const
{
    if (status == SQLITE_OK || status == SQLITE_ROW || status == SQLITE_DONE)
        return {};
    const char* text = m_connection ? sqlite3_errmsg(m_connection.get()) : sqlite3_errstr(status);
    return {IsDamage(status) ? Kind::Damaged : Kind::Failed, text};
}

DatabaseOutcome CEventDatabase::Compile(const char* text, Statement& statement)
{
    sqlite3_stmt* compiled = nullptr;
    const int status = sqlite3_prepare_v2(m_connection.get(), text, -1, &compiled, nullptr);
    statement.reset(compiled);
    return Outcome(status);
}

DatabaseOutcome CEventDatabase::Execute(const char* statement)
{
    return Outcome(sqlite3_exec(m_connection.get(), statement, nullptr, nullptr, nullptr));
}

DatabaseOutcome CEventDatabase::Open(const std::string& path)
{
    Close();
    m_path = path;
    m_file = IdentifyPath(path);
    DatabaseOutcome outcome = SecureFile(path);
    if (outcome.kind == Kind::Done)
        outcome = CheckBeside(path);
    if (outcome.kind != Kind::Done)
        return outcome;

    sqlite3* connection = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW;
    const int status = sqlite3_open_v2(path.c_str(), &connection, flags, nullptr);
    m_connection.reset(connection);
    outcome = status == SQLITE_OK ? Prepare() : Outcome(status);
    if (outcome.kind != Kind::Done)
        CloseUntouched();
    return outcome;
}

DatabaseOutcome CEventDatabase::Prepare()
{
    DatabaseOutcome outcome = CheckWhole();
    if (outcome.kind == Kind::Done)
        outcome = MakeTable();
    // Somebody who is just reading may stand in the way of the log, once; rows are as durable without it.
    if (outcome.kind == Kind::Done && Execute(kUseLog).kind == Kind::Damaged)
        outcome = {Kind::Damaged, sqlite3_errmsg(m_connection.get())};
    if (outcome.kind == Kind::Done)
        outcome = Execute(kFlushEveryRow);
    if (outcome.kind == Kind::Done)
        outcome = Compile(kInsert, m_insert);
    if (outcome.kind == Kind::Done)
        outcome = Compile(kTrim, m_trim);
    return outcome;
}

DatabaseOutcome CEventDatabase::CheckWhole()
{
    Statement check;
    DatabaseOutcome outcome = Compile("PRAGMA quick_check(1)", check);
    if (outcome.kind != Kind::Done)
        return outcome;
    const int status = sqlite3_step(check.get());
    if (status != SQLITE_ROW)
        return Outcome(status);
    const auto* answer = reinterpret_cast<const char*>(sqlite3_column_text(check.get(), 0));
    if (answer && std::strcmp(answer, "ok") == 0)
        return {};
    return {Kind::Damaged, answer ? answer : "it cannot be checked"};
}

DatabaseOutcome CEventDatabase::MakeTable()
{
    Statement tables;
    DatabaseOutcome outcome = Compile("SELECT count(*) FROM sqlite_master", tables);
    if (outcome.kind != Kind::Done)
        return outcome;
    const int status = sqlite3_step(tables.get());
    if (status != SQLITE_ROW)
        return Outcome(status);
    if (sqlite3_column_int(tables.get(), 0) == 0) {
        tables.reset();
        return Execute(kCreate);
    }

    Statement columns;
    outcome = Compile("SELECT id, event_number, severity, time_s, time_ms, description FROM agent_event", columns);
    if (outcome.kind == Kind::Failed)
        outcome.reason = "it is a database of something else (" + outcome.reason + ")";
    return outcome;
}

bool CEventDatabase::IsInPlace() const
{
    return FileIsInPlace() && LogIsInPlace();
}

bool CEventDatabase::FileIsInPlace() const
{
    int hasMoved = 0;
    const int status = sqlite3_file_control(m_connection.get(), "main", SQLITE_FCNTL_HAS_MOVED, &hasMoved);
    return status == SQLITE_OK && hasMoved == 0;
}

// The last client that closes the file removes the log. It can take itself for the last one while this process has the
// file open: when the process itself has read the file as a plain one, closing that descriptor has dropped the locks.
bool CEventDatabase::LogIsInPlace() const
{
    return m_log == FileIdentity() || m_log == IdentifyPath(m_path + kLogSuffix);
}

DatabaseOutcome CEventDatabase::Insert(const CAgentEvent& event)
{
    sqlite3_stmt* insert = m_insert.get();
    const std::string description = ToUtf8(event.description);
    BindNumber(insert, 1, event, &event.eventNumber, event.eventNumber);
    BindNumber(insert, 2, event, &event.severity, event.severity);
    BindNumber(insert, 3, event, &event.timeSeconds, event.timeSeconds);
    BindNumber(insert, 4, event, &event.timeMillis, event.timeMillis);
    int status = SQLITE_OK;
    if (event.AttributeIsNull(&event.description))
        sqlite3_bind_null(insert, 5);
    else
        status = sqlite3_bind_text64(insert, 5, description.data(), description.size(), SQLITE_STATIC, SQLITE_UTF8);

    if (status == SQLITE_OK)
        status = sqlite3_step(insert);
    DatabaseOutcome outcome = Outcome(status);
    sqlite3_reset(insert);
    sqlite3_clear_bindings(insert);
    if (m_log == FileIdentity())
        m_log = IdentifyPath(m_path + kLogSuffix);
    if (outcome.kind == Kind::Done && sqlite3_last_insert_rowid(m_connection.get()) % s_TrimEvery == 0)
        Trim();
    return outcome;
}

// The row that called for it is safe already. A trim that fails comes again with the next round number, and what it
// failed of will stop the rows before long as well.
void CEventDatabase::Trim()
{
    sqlite3_bind_int(m_trim.get(), 1, s_KeptRows);
    sqlite3_step(m_trim.get());
    sqlite3_reset(m_trim.get());
}

void CEventDatabase::Close()
{
    if (m_connection && !LogIsInPlace()) {
        CloseUntouched(); // a log of that name is somebody else's
        return;
    }
    if (m_connection && !FileIsInPlace())
        EmptyLog();
    Disconnect();
}

void CEventDatabase::CloseUntouched()
{
    if (m_connection)
        sqlite3_db_config(m_connection.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    Disconnect();
}

// The library would leave the last rows of a renamed file in a log beside the old name, and the next file of that name
// would be taken to own them.
void CEventDatabase::EmptyLog()
{
    const int status =
        sqlite3_wal_checkpoint_v2(m_connection.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    if (status != SQLITE_OK)
        return;
    unlink((m_path + kLogSuffix).c_str());
    unlink((m_path + kLogIndexSuffix).c_str());
}

void CEventDatabase::Disconnect()
{
    m_trim.reset();
    m_insert.reset();
    m_connection.reset();
    m_log = FileIdentity();
}

} // namespace VelCore

// Start and end of the database library.
//
// The settings reach every connection through an automatic extension, which the library runs when one is opened.
//
// Tested by: unit/core/database/SqliteDatabaseTest.cpp.

#include <VelCore/SqliteDatabase.h>

#include <sqlite3.h>

#include <wx/log.h>

#include <VelCore/Dom.h>
#include <VelCore/Utf8.h>

#include "database/SqliteSettings.h"
#include "events/EventStore.h"

namespace VelCore {
namespace {

// Written before the second thread exists, only read afterwards.
SqliteSettings g_settings;

void RunPragma(sqlite3* connection, const char* name, std::int64_t value)
{
    const std::string text = std::string("PRAGMA ") + name + "=" + std::to_string(value);
    // A file that is no database, or that somebody has locked, refuses. Its user gets that answer from the first
    // statement of his own, not from opening it, so the connection's error is replaced by a success.
    if (sqlite3_exec(connection, text.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
        sqlite3_exec(connection, "SELECT 1", nullptr, nullptr, nullptr);
}

int ConfigureConnection(sqlite3* connection, char**, const sqlite3_api_routines*)
{
    if (g_settings.mmapSize)
        RunPragma(connection, "mmap_size", *g_settings.mmapSize);
    if (g_settings.cache)
        RunPragma(connection, "cache_size", *g_settings.cache);
    if (g_settings.synchronous)
        RunPragma(connection, "synchronous", *g_settings.synchronous);
    // Last, so that opening a locked file does not wait.
    sqlite3_busy_timeout(connection, static_cast<int>(g_settings.busyTimeout));
    return SQLITE_OK;
}

void ConfigureEveryConnection()
{
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(ConfigureConnection));
}

SqliteSettings ReadSettings(const CDom& dom)
{
    SqliteSettings settings;
    for (const std::string& key : dom.Keys("")) {
        if (key.compare(0, 13, "sqlite.config") != 0)
            continue;
        const std::string reason = ApplySqliteSetting(key, dom.Get(key), settings);
        if (!reason.empty())
            wxLogWarning(L"Ignoring database setting '%s': %s", FromUtf8(key), FromUtf8(reason));
    }
    return settings;
}

} // namespace

void CSqliteDatabase::InitializeSQLite(const CDom* dom)
{
    g_settings = dom ? ReadSettings(*dom) : SqliteSettings();

    const int status = sqlite3_initialize();
    if (status != SQLITE_OK) {
        wxLogError(L"Unable to start the database library: %s", FromUtf8(sqlite3_errstr(status)));
        return;
    }
    if (g_settings.softHeapLimit)
        sqlite3_soft_heap_limit64(*g_settings.softHeapLimit);
    ConfigureEveryConnection();
}

void CSqliteDatabase::ShutdownSQLite()
{
    CEventStore::Get().Close();
    sqlite3_reset_auto_extension();
    // Every open connection holds memory of the library, and nothing else does once the extension is gone.
    if (sqlite3_memory_used() == 0)
        sqlite3_shutdown();
    else
        ConfigureEveryConnection();
}

} // namespace VelCore

// Database.h: looking into SQLite files.
#pragma once

#include <memory>
#include <string>

#include <sqlite3.h>

namespace VelTest {

/// A connection that a test reads and disturbs a database file with.
class CDatabase
{
public:
    /// Opens the file, creating it when it is missing.
    explicit CDatabase(const std::string& path);

    /// The rows that the statement gives, values joined by "|" and rows by line feeds, NULL as "NULL"; a failure is
    /// "error: <reason>".
    std::string Ask(const std::string& statement) const;

private:
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> m_connection{nullptr, sqlite3_close};
};

} // namespace VelTest

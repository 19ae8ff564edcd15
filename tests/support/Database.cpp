#include "support/Database.h"

#include <gtest/gtest.h>

namespace VelTest {
namespace {

int AddRow(void* text, int columns, char** values, char**)
{
    auto& rows = *static_cast<std::string*>(text);
    if (!rows.empty())
        rows += '\n';
    for (int at = 0; at < columns; ++at)
        rows.append(at > 0 ? "|" : "").append(values[at] ? values[at] : "NULL");
    return 0;
}

} // namespace

CDatabase::CDatabase(const std::string& path)
{
    sqlite3* connection = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &connection)) << path;
    m_connection.reset(connection);
}

std::string CDatabase::Ask(const std::string& statement) const
{
    std::string rows;
    char* error = nullptr;
    if (sqlite3_exec(m_connection.get(), statement.c_str(), AddRow, &rows, &error) != SQLITE_OK)
        rows = std::string("error: ") + (error ? error : "?");
    sqlite3_free(error);
    return rows;
}

} // namespace VelTest

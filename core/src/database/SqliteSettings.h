// SqliteSettings.h: the database settings as values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace VelCore {

/// What the domain says about the database library. Units as in CSqliteDatabase::InitializeSQLite.
struct SqliteSettings
{
    std::optional<std::int64_t> cache;
    std::int64_t busyTimeout = 5000;
    std::optional<std::int64_t> mmapSize;
    std::optional<std::int64_t> softHeapLimit;
    std::optional<std::int64_t> synchronous;
};

/// Takes over one setting.
///
/// name    the domain variable, `sqlite.config.cache` for instance
/// text    its value as text
/// Returns "" or why the setting does not count.
std::string ApplySqliteSetting(const std::string& name, const std::string& text, SqliteSettings& settings);

} // namespace VelCore

// The known database settings and their ranges.
//
// Tested by: unit/core/database/SqliteSettingsTest.cpp.

#include "database/SqliteSettings.h"

#include <charconv>
#include <limits>

namespace VelCore {
namespace {

struct Setting
{
    const char* name;
    std::int64_t least;
    std::int64_t most;
    void (*apply)(SqliteSettings& settings, std::int64_t value);
};

const std::int64_t kMaxInt = std::numeric_limits<std::int32_t>::max();
const std::int64_t kMaxBytes = std::numeric_limits<std::int64_t>::max();

const Setting kSettings[] = {
    {"sqlite.config.busy_timeout", 0, kMaxInt, [](SqliteSettings& s, std::int64_t v) { s.busyTimeout = v; }},
    {"sqlite.config.cache", 1, kMaxInt, [](SqliteSettings& s, std::int64_t v) { s.cache = v; }},
    {"sqlite.config.mmap_size", 0, kMaxBytes, [](SqliteSettings& s, std::int64_t v) { s.mmapSize = v; }},
    {"sqlite.config.soft_heap_limit", 0, kMaxBytes, [](SqliteSettings& s, std::int64_t v) { s.softHeapLimit = v; }},
    {"sqlite.config.synchronous", 0, 3, [](SqliteSettings& s, std::int64_t v) { s.synchronous = v; }},
};

bool ParseInteger(const std::string& text, std::int64_t& value)
{
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    return result.ec == std::errc() && result.ptr == end;
}

} // namespace

std::string ApplySqliteSetting(const std::string& name, const std::string& text, SqliteSettings& settings)
{
    for (const Setting& setting : kSettings) {
        if (name != setting.name)
            continue;
        std::int64_t value = 0;
        if (!ParseInteger(text, value))
            return "'" + text + "' is not an integer";
        if (value < setting.least || value > setting.most)
            return text + " is not between " + std::to_string(setting.least) + " and " + std::to_string(setting.most);
        setting.apply(settings, value);
        return "";
    }
    return "no such setting";
}

} // namespace VelCore

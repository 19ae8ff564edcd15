#include "database/SqliteSettings.h"

#include <string>

#include <gtest/gtest.h>

using VelCore::ApplySqliteSetting;
using VelCore::SqliteSettings;

namespace {

std::string Apply(const std::string& name, const std::string& text, SqliteSettings& settings)
{
    return ApplySqliteSetting("sqlite.config." + name, text, settings);
}

TEST(SqliteSettings, WithoutSettingsOnlyTheBusyTimeoutIsSet)
{
    const SqliteSettings settings;
    EXPECT_EQ(5000, settings.busyTimeout);
    EXPECT_FALSE(settings.cache);
    EXPECT_FALSE(settings.mmapSize);
    EXPECT_FALSE(settings.softHeapLimit);
    EXPECT_FALSE(settings.synchronous);
}

TEST(SqliteSettings, EachNameHasItsSetting)
{
    SqliteSettings settings;
    EXPECT_EQ("", Apply("cache", "64", settings));
    EXPECT_EQ("", Apply("busy_timeout", "250", settings));
    EXPECT_EQ("", Apply("mmap_size", "4294967296", settings));
    EXPECT_EQ("", Apply("soft_heap_limit", "8589934592", settings));
    EXPECT_EQ("", Apply("synchronous", "2", settings));
    EXPECT_EQ(64, settings.cache);
    EXPECT_EQ(250, settings.busyTimeout);
    EXPECT_EQ(4294967296, settings.mmapSize);
    EXPECT_EQ(8589934592, settings.softHeapLimit);
    EXPECT_EQ(2, settings.synchronous);
}

struct Range
{
    const char* name;
    const char* least;
    const char* tooSmall;
    const char* most;
    const char* tooLarge;
};

TEST(SqliteSettings, ValuesBeyondTheRangeDoNotCount)
{
    const Range ranges[] = {
        {"cache", "1", "0", "2147483647", "2147483648"},
        {"busy_timeout", "0", "-1", "2147483647", "2147483648"},
        {"mmap_size", "0", "-1", "9223372036854775807", "9223372036854775808"},
        {"soft_heap_limit", "0", "-1", "9223372036854775807", "9223372036854775808"},
        {"synchronous", "0", "-1", "3", "4"},
    };
    for (const Range& range : ranges) {
        SqliteSettings settings;
        EXPECT_EQ("", Apply(range.name, range.least, settings)) << range.name;
        EXPECT_EQ("", Apply(range.name, range.most, settings)) << range.name;
        EXPECT_NE("", Apply(range.name, range.tooSmall, settings)) << range.name;
        EXPECT_NE("", Apply(range.name, range.tooLarge, settings)) << range.name;
    }
}

TEST(SqliteSettings, ARefusedValueLeavesTheSettingAsItWas)
{
    SqliteSettings settings;
    Apply("busy_timeout", "250", settings);
    EXPECT_NE("", Apply("busy_timeout", "-1", settings));
    EXPECT_EQ(250, settings.busyTimeout);
}

TEST(SqliteSettings, OnlyIntegersCount)
{
    for (const char* text : {"", "abc", "64x", " 64", "64 ", "6.4", "0x40", "+64", "true", "1e3"}) {
        SqliteSettings settings;
        EXPECT_NE("", Apply("cache", text, settings)) << text;
        EXPECT_FALSE(settings.cache) << text;
    }
}

TEST(SqliteSettings, UnknownNamesDoNotCount)
{
    for (const char* name : {"", "Cache", "cache.size", "cach", "page_size"}) {
        SqliteSettings settings;
        EXPECT_NE("", Apply(name, "1", settings)) << name;
    }
    SqliteSettings settings;
    EXPECT_NE("", ApplySqliteSetting("sqlite.configcache", "1", settings));
}

} // namespace

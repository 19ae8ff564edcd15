// What a value of the domain looks like as text and as a boolean.
//
// Tested by: unit/core/dom/DomValueTest.cpp.

#include <VelCore/Dom.h>

#include <charconv>

#include <strings.h>

namespace VelCore {
namespace {

// "%.14g" as Lua prints its numbers, but with a point in every locale.
std::string DoubleText(double value)
{
    char text[64];
    const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::general, 14).ptr;
    return std::string(text, end);
}

struct TextOf
{
    std::string operator()(bool value) const { return value ? "true" : "false"; }
    std::string operator()(std::int64_t value) const { return std::to_string(value); }
    std::string operator()(double value) const { return DoubleText(value); }
    std::string operator()(const std::string& value) const { return value; }
};

bool IsTrueWord(const std::string& text)
{
    for (const char* word : {"true", "yes", "on", "1"}) {
        if (strcasecmp(text.c_str(), word) == 0 && text.size() == std::char_traits<char>::length(word))
            return true;
    }
    return false;
}

struct TruthOf
{
    bool operator()(bool value) const { return value; }
    bool operator()(std::int64_t value) const { return value != 0; }
    bool operator()(double value) const { return value < 0 || value > 0; }
    bool operator()(const std::string& value) const { return IsTrueWord(value); }
};

} // namespace

std::string DomValueText(const CDomValue& value)
{
    return std::visit(TextOf(), value);
}

bool DomValueIsTrue(const CDomValue& value)
{
    return std::visit(TruthOf(), value);
}

} // namespace VelCore

// Reading the mappings of a process.
//
// Tested by: unit/core/crash/MapsTextTest.cpp.

#include "crash/MapsText.h"

namespace VelCore {
namespace {

const std::string_view kRemovedMark = " (deleted)";

// Takes a hexadecimal number and the character behind it off the text. Returns false when they are not there.
bool TakeHex(std::string_view& text, std::uint64_t& number, char behind)
{
    const std::size_t end = text.find(behind);
    if (end == 0 || end == std::string_view::npos || end > 16)
        return false;
    number = 0;
    for (const char digit : text.substr(0, end)) {
        const bool isDecimal = digit >= '0' && digit <= '9';
        if (!isDecimal && (digit < 'a' || digit > 'f'))
            return false;
        number = number << 4 | static_cast<std::uint64_t>(isDecimal ? digit - '0' : digit - 'a' + 10);
    }
    text.remove_prefix(end + 1);
    return true;
}

// Takes everything up to `behind` and that off the text; all of it when it does not occur.
std::string_view TakeUntil(std::string_view& text, char behind)
{
    const std::size_t end = text.find(behind);
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return taken;
}

bool ReadMapping(std::string_view line, SnapshotMapping& mapping)
{
    if (!TakeHex(line, mapping.start, '-') || !TakeHex(line, mapping.end, ' ') || mapping.end <= mapping.start)
        return false;
    const std::string_view rights = TakeUntil(line, ' ');
    if (rights.size() < 4 || !TakeHex(line, mapping.fileOffset, ' '))
        return false;
    mapping.isReadable = rights[0] == 'r';
    mapping.isWritable = rights[1] == 'w';
    mapping.isExecutable = rights[2] == 'x';

    TakeUntil(line, ' '); // device
    TakeUntil(line, ' '); // inode
    const std::size_t path = line.find_first_not_of(' ');
    line.remove_prefix(path == std::string_view::npos ? line.size() : path);
    if (line.size() > kRemovedMark.size() && line.substr(line.size() - kRemovedMark.size()) == kRemovedMark)
        line.remove_suffix(kRemovedMark.size());
    mapping.path = line;
    return true;
}

} // namespace

void ReadMappings(std::string_view text, SnapshotMappings& mappings)
{
    while (!text.empty()) {
        SnapshotMapping mapping = {};
        if (!ReadMapping(TakeUntil(text, '\n'), mapping))
            continue;
        if (SnapshotMapping* row = mappings.Add())
            *row = mapping;
    }
}

} // namespace VelCore

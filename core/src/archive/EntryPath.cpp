// Names of entries, vetted before anything is done with them.
//
// Tested by: unit/core/archive/EntryPathTest.cpp, fuzz/EntryPathFuzz.cpp.

#include "archive/EntryPath.h"

#include <cstddef>
#include <string_view>

#include "archive/TemporaryName.h"

namespace VelCore {

namespace {

const std::size_t kLongestPart = 255;
const std::size_t kLongestName = 4095;

bool BeginsWithDriveLetter(std::string_view text)
{
    const auto isLetter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); };
    return text.size() >= 2 && text[1] == ':' && isLetter(text[0]);
}

// What is wrong with one part of a name; null when nothing is.
const char* Objection(std::string_view part)
{
    if (part == "..")
        return "the name contains '..'";
    if (part.size() > kLongestPart)
        return "a part of the name is too long";
    if (IsTemporaryName(part))
        return "the name is one that unfinished files have";
    return nullptr;
}

// Moves the last part into the folder and puts a new one in its place.
void Append(EntryPath& path, std::string_view part)
{
    if (!path.folder.empty())
        path.folder += '/';
    path.folder += path.name;
    path.name = part;
}

bool TakeParts(std::string_view rest, EntryPath& path, std::string& reason)
{
    while (!rest.empty()) {
        const std::string_view part = rest.substr(0, rest.find('/'));
        if (const char* const objection = Objection(part)) {
            reason = objection;
            return false;
        }
        if (path.name.empty() && BeginsWithDriveLetter(part)) {
            reason = "the name begins with a drive letter";
            return false;
        }
        if (part == "." && part.size() == rest.size()) {
            reason = "the name ends in '.'";
            return false;
        }
        if (!part.empty() && part != ".")
            Append(path, part);
        rest.remove_prefix(part.size() < rest.size() ? part.size() + 1 : part.size());
    }
    return true;
}

} // namespace

std::string EntryPath::Whole() const
{
    return folder.empty() ? name : folder + '/' + name;
}

bool ParseEntryPath(const std::string& entryName, EntryPath& path, std::string& reason)
{
    path = {};
    if (entryName.front() == '/') {
        reason = "the name is absolute";
        return false;
    }
    if (entryName.find('\\') != std::string::npos) {
        reason = "the name contains a backslash";
        return false;
    }
    if (entryName.size() > kLongestName) {
        reason = "the name is too long";
        return false;
    }
    return TakeParts(entryName, path, reason);
}

} // namespace VelCore

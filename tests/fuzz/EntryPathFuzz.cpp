// Foreign bytes as the name of an entry. A name that is accepted is one way down from the destination, in a spelling
// that stays the same when it is parsed again.

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "archive/EntryPath.h"
#include "archive/TemporaryName.h"

namespace {

void Require(bool promise)
{
    if (!promise)
        std::abort();
}

void CheckPart(const std::string& part)
{
    Require(!part.empty() && part != "." && part != ".." && part.size() <= 255);
    Require(part.find('\\') == std::string::npos && !VelCore::IsTemporaryName(part));
}

void CheckWhole(const std::string& whole)
{
    Require(whole.size() <= 4095 &&
            !(whole.size() > 1 && whole[1] == ':' && std::isalpha(static_cast<unsigned char>(whole[0])) != 0));
    for (std::size_t begin = 0; begin <= whole.size() && !whole.empty();) {
        const std::size_t end = std::min(whole.find('/', begin), whole.size());
        CheckPart(whole.substr(begin, end - begin));
        begin = end + 1;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string name(reinterpret_cast<const char*>(data), size);
    if (name.empty() || name.find('\0') != std::string::npos)
        return 0; // the reader of the directory refuses them

    VelCore::EntryPath path;
    std::string reason;
    if (!VelCore::ParseEntryPath(name, path, reason)) {
        Require(!reason.empty());
        return 0;
    }
    Require(reason.empty());
    const std::string whole = path.Whole();
    CheckWhole(whole);
    if (whole.empty())
        return 0;

    VelCore::EntryPath again;
    Require(VelCore::ParseEntryPath(whole, again, reason));
    Require(again.folder == path.folder && again.name == path.name);
    return 0;
}

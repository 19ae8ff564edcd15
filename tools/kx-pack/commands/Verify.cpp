// kx-pack verify: what would the agent make of these files?
//
// Tested by: blackbox/test_kx_pack.py.

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <system_error>

#include <sys/stat.h>

#include "Command.h"
#include "PackageFileName.h"
#include "Verdict.h"

namespace {

struct Kind
{
    const char* extension;
    std::optional<Failure> (*judge)(const std::string& path, Verdict& verdict);
};

const Kind kKinds[] = {
    {".kxe", JudgeExtensionFile},
    {".kxp", JudgePackage},
    {".kxu", JudgeMarker},
};

std::optional<Failure> FindKind(const std::string& file, const std::string& fileName, const Kind*& kind)
{
    const std::string extension = ExtensionOf(fileName);
    kind = std::find_if(std::begin(kKinds), std::end(kKinds),
                        [&extension](const Kind& candidate) { return candidate.extension == extension; });
    if (kind == std::end(kKinds))
        return Failure{Status::Failed, "'" + file + "' is neither a .kxp nor a .kxu nor a .kxe"};
    struct stat status = {};
    if (::lstat(file.c_str(), &status) != 0)
        return Failure{Status::Failed, "cannot read '" + file + "': " + std::generic_category().message(errno)};
    struct stat target = {};
    if (S_ISLNK(status.st_mode) && ::stat(file.c_str(), &target) == 0)
        status = target; // the agent passes over links to folders, too
    if (S_ISDIR(status.st_mode))
        return Failure{Status::Failed, "cannot read '" + file + "': it is a folder"};
    return std::nullopt;
}

std::optional<Failure> Judge(const std::string& file, Verdict& verdict)
{
    const std::string fileName = std::filesystem::path(file).filename().string();
    const Kind* kind = nullptr;
    if (auto failure = FindKind(file, fileName, kind))
        return failure;
    if (const auto reason = WhyPassedOver(fileName)) {
        verdict.consequence = *reason;
        return std::nullopt;
    }
    std::error_code error;
    const std::filesystem::path path = std::filesystem::absolute(file, error);
    if (error)
        return Failure{Status::Failed, "cannot read '" + file + "': " + error.message()};
    return kind->judge(path.string(), verdict);
}

void Print(const std::string& file, const Verdict& verdict)
{
    PrintLine(file + (verdict.accepted ? ": accepted" : ": refused") +
              (verdict.consequence.empty() ? std::string() : ", " + verdict.consequence));
    for (const std::string& line : verdict.lines)
        PrintLine("  " + line);
}

Status VerifyOne(const std::string& file)
{
    Verdict verdict;
    if (const auto failure = Judge(file, verdict))
        return Report(failure);
    Print(file, verdict);
    return verdict.accepted ? Status::Done : Status::Refused;
}

Status Run(const Arguments& arguments)
{
    Status worst = Status::Done;
    for (const std::string& file : arguments.operands)
        worst = std::max(worst, VerifyOne(file));
    return worst;
}

} // namespace

Command VerifyCommand()
{
    return {"verify",
            "FILE...",
            "says what the agent would make of packages, removal markers and extensions",
            1,
            std::numeric_limits<std::size_t>::max(),
            {},
            Run};
}

// What the commands share.

#include "Command.h"

#include <cstdio>
#include <filesystem>
#include <system_error>

#include "trace/RecordText.h"

std::string OutputPath(const std::string& value, const std::string& fileName)
{
    if (value.empty())
        return fileName;
    std::error_code error;
    return std::filesystem::is_directory(value, error) ? (std::filesystem::path(value) / fileName).string() : value;
}

Status Report(const std::optional<Failure>& failure)
{
    if (!failure)
        return Status::Done;
    std::fprintf(stderr, "kx-pack: %s\n", VelCore::EscapeControls(failure->text).c_str());
    return failure->status;
}

void PrintLine(const std::string& line)
{
    std::printf("%s\n", VelCore::EscapeControls(line).c_str());
}

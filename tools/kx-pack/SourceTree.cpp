// Tested by: unit/tools/kx-pack/SourceTreeTest.cpp.

#include "SourceTree.h"

#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace {

Failure CannotRead(const fs::path& path, const std::error_code& error)
{
    return {Status::Failed, "cannot read '" + path.string() + "': " + error.message()};
}

Failure RefuseFile(const fs::path& path, const char* reason)
{
    return {Status::Refused, "'" + path.string() + "' cannot be packed: " + reason};
}

// prefix  the folder's name in the archive, with "/" at its end; empty for the outermost
std::optional<Failure> Collect(const fs::path& folder, const std::string& prefix, std::vector<SourceFile>& files)
{
    std::error_code error;
    fs::directory_iterator entry(folder, error);
    if (!error && entry == fs::directory_iterator() && !prefix.empty())
        files.push_back({prefix, folder.string(), false});
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = prefix + entry->path().filename().string();
        const fs::file_status status = entry->symlink_status(error);
        if (error)
            return CannotRead(entry->path(), error);
        if (fs::is_directory(status)) {
            if (auto failure = Collect(entry->path(), name + "/", files))
                return failure;
        } else if (fs::is_regular_file(status)) {
            files.push_back({name, entry->path().string(), false});
        } else {
            return RefuseFile(entry->path(), fs::is_symlink(status) ? "it is a symbolic link"
                                                                    : "it is neither a regular file nor a folder");
        }
    }
    if (error)
        return CannotRead(folder, error);
    return std::nullopt;
}

} // namespace

std::optional<Failure> FindFiles(const std::string& folder, std::vector<SourceFile>& files)
{
    return Collect(folder, std::string(), files);
}

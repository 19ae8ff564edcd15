// Tested by: blackbox/test_kx_pack.py.

#include "ScratchFolder.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace {

// Folders without permissions for their own user cannot be emptied.
void OpenFolders(const fs::path& folder)
{
    std::error_code error;
    for (fs::recursive_directory_iterator at(folder, error); !error && at != fs::recursive_directory_iterator();
         at.increment(error)) {
        if (at->is_directory(error) && !at->is_symlink(error))
            fs::permissions(at->path(), fs::perms::owner_all, fs::perm_options::add, error);
    }
}

} // namespace

CScratchFolder::~CScratchFolder()
{
    if (m_path.empty())
        return;
    std::error_code error;
    OpenFolders(m_path);
    fs::remove_all(m_path, error);
}

std::optional<Failure> CScratchFolder::Make()
{
    std::error_code error;
    const fs::path parent = fs::temp_directory_path(error);
    std::string path = (parent / "kx-pack-XXXXXX").string();
    if (!error && !::mkdtemp(path.data()))
        error.assign(errno, std::generic_category());
    if (error)
        return Failure{Status::Failed, "cannot make a folder for temporary files: " + error.message()};
    m_path = path;
    return std::nullopt;
}

// Tested by: unit/tools/kx-pack/PackTest.cpp.

#include "Pack.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "ZipWriter.h"
#include "archive/EntryPath.h"

namespace {

const unsigned kFolderMode = 0755;

Failure CannotRead(const std::string& path, const std::string& reason)
{
    return {Status::Failed, "cannot read '" + path + "': " + reason};
}

Failure CannotPack(const std::string& path, const std::string& reason)
{
    return {Status::Refused, "'" + path + "' cannot be packed: " + reason};
}

/// Owns a descriptor.
class CDescriptor
{
public:
    explicit CDescriptor(int descriptor) : m_descriptor(descriptor) {}
    ~CDescriptor()
    {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
    }
    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;

    int Get() const { return m_descriptor; }

private:
    int m_descriptor;
};

bool ReadToEnd(int descriptor, std::string& content)
{
    char buffer[0x10000];
    for (;;) {
        const ssize_t count = ::read(descriptor, buffer, sizeof(buffer));
        if (count == 0)
            return true;
        if (count < 0 && errno != EINTR)
            return false;
        if (count > 0)
            content.append(buffer, static_cast<std::size_t>(count));
    }
}

// The kind is asked of the open file, since another one may have taken its name after the folder was listed.
std::optional<Failure> ReadSource(const SourceFile& source, std::string& content, unsigned& mode)
{
    const std::string& path = source.path;
    const int follow = source.mayBeLink ? 0 : O_NOFOLLOW;
    const CDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | follow));
    struct stat status = {};
    if (file.Get() < 0 && errno == ELOOP && !source.mayBeLink)
        return CannotPack(path, "it is a symbolic link");
    if (file.Get() < 0 || ::fstat(file.Get(), &status) != 0)
        return CannotRead(path, std::generic_category().message(errno));
    if (!S_ISREG(status.st_mode))
        return CannotPack(path, "it is not a regular file");
    if (!ReadToEnd(file.Get(), content))
        return CannotRead(path, std::generic_category().message(errno));
    mode = (status.st_mode & S_IXUSR) != 0 ? 0755 : 0644;
    return std::nullopt;
}

std::optional<Failure> PackOne(const SourceFile& file, const ContentCheck& check, CZipWriter& writer)
{
    std::string reason;
    VelCore::EntryPath place;
    if (!VelCore::ParseEntryPath(file.name, place, reason))
        return CannotPack(file.path, "the agent would refuse its name: " + reason);
    std::string content;
    unsigned mode = kFolderMode;
    if (!file.IsFolder()) {
        if (auto failure = ReadSource(file, content, mode))
            return failure;
    }
    if (auto failure = check(file, content))
        return failure;
    if (!writer.Add(file.name, mode, content, reason))
        return CannotPack(file.path, reason);
    return std::nullopt;
}

} // namespace

std::optional<Failure> PackFiles(std::vector<SourceFile> files, const ContentCheck& check, std::string& archive)
{
    std::sort(files.begin(), files.end(),
              [](const SourceFile& one, const SourceFile& other) { return one.name < other.name; });
    const auto twin =
        std::adjacent_find(files.begin(), files.end(),
                           [](const SourceFile& one, const SourceFile& other) { return one.name == other.name; });
    if (twin != files.end())
        return CannotPack((twin + 1)->path, "'" + twin->path + "' has the same name in the archive");

    CZipWriter writer;
    for (const SourceFile& file : files) {
        if (auto failure = PackOne(file, check, writer))
            return failure;
    }
    archive = writer.Finish();
    return std::nullopt;
}

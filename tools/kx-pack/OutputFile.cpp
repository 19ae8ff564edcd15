// Tested by: unit/tools/kx-pack/OutputFileTest.cpp.

#include "OutputFile.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <random>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

Failure CannotWrite(const std::string& path, int errorNumber)
{
    return {Status::Failed, "cannot write '" + path + "': " + std::generic_category().message(errorNumber)};
}

// Short, so that it fits wherever the final name does.
std::string TemporaryNameBeside(const std::string& path)
{
    static const char digits[] = "0123456789abcdefghijklmnopqrstuv";
    std::random_device random;
    std::string name = path.substr(0, path.rfind('/') + 1) + ".kx-pack-";
    for (int count = 0; count < 8; ++count)
        name += digits[random() % 32];
    return name;
}

int OpenNew(const std::string& path)
{
    int descriptor = -1;
    do {
        descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

bool WriteAll(int descriptor, const std::string& content)
{
    for (std::size_t written = 0; written < content.size();) {
        const ssize_t count = ::write(descriptor, content.data() + written, content.size() - written);
        if (count < 0 && errno != EINTR)
            return false;
        if (count > 0)
            written += static_cast<std::size_t>(count);
    }
    return ::fsync(descriptor) == 0;
}

// Writes and closes; 0, or the number of the first error.
int Fill(int descriptor, const std::string& content)
{
    const int writeError = WriteAll(descriptor, content) ? 0 : errno;
    const int closeError = ::close(descriptor) == 0 ? 0 : errno;
    return writeError != 0 ? writeError : closeError;
}

} // namespace

std::optional<Failure> WriteOutput(const std::string& path, const std::string& content)
{
    struct stat status = {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))
        return Failure{Status::Failed, "cannot write '" + path + "': it is not a regular file"};

    const std::string temporary = TemporaryNameBeside(path);
    const int descriptor = OpenNew(temporary);
    if (descriptor < 0)
        return CannotWrite(path, errno);
    int error = Fill(descriptor, content);
    if (error == 0 && std::rename(temporary.c_str(), path.c_str()) != 0)
        error = errno;
    if (error == 0)
        return std::nullopt;
    ::unlink(temporary.c_str());
    return CannotWrite(path, error);
}

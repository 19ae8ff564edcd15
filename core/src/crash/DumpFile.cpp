// Creating a dump, and keeping the last eight.
//
// Tested by: unit/core/crash/DumpFileTest.cpp.

#include "crash/DumpFile.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "crash/TextBuffer.h"
#include "process/PidText.h"

namespace VelCore {
namespace {

// The name of an older dump, terminated; 0 is the newest.
class CNumberedName
{
public:
    CNumberedName(const char* name, int number)
    {
        CTextBuffer text(m_text, sizeof m_text - 1);
        text.Add(name);
        if (number > 0)
            text.Add(".").AddNumber(number);
    }
    const char* Get() const { return m_text; }

private:
    char m_text[300] = {};
};

int OpenFolder(const char* folder)
{
    return open(folder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

} // namespace

CDumpFile::~CDumpFile()
{
    for (const int descriptor : {m_file, m_folder}) {
        if (descriptor >= 0)
            close(descriptor);
    }
}

bool CDumpFile::Fail(const char* action)
{
    if (m_error == 0) {
        m_error = errno;
        m_failedAction = action;
    }
    return false;
}

bool CDumpFile::Create(const char* folder, const char* name, pid_t process)
{
    m_name = name;
    m_folder = OpenFolder(folder);
    if (m_folder < 0)
        return Fail("cannot open its folder");
    CTextBuffer(m_partName, sizeof m_partName - 1).Add(name).Add(PartMark()).AddNumber(process);
    const int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    m_file = openat(m_folder, m_partName, flags, 0600);
    if (m_file < 0 && errno == EEXIST) {
        // Of an earlier process of our number.
        unlinkat(m_folder, m_partName, 0);
        m_file = openat(m_folder, m_partName, flags, 0600);
    }
    if (m_file < 0)
        return Fail("cannot create it");
    return fchmod(m_file, 0600) == 0 || Fail("cannot create it"); // whatever the umask
}

bool CDumpFile::Write(std::uint64_t offset, const void* data, std::size_t size)
{
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t part = pwrite(m_file, bytes, size, static_cast<off_t>(offset));
        if (part < 0 && errno == EINTR)
            continue;
        if (part <= 0)
            return Fail("cannot write it");
        bytes += part;
        offset += static_cast<std::uint64_t>(part);
        size -= static_cast<std::size_t>(part);
    }
    return true;
}

bool CDumpFile::SetSize(std::uint64_t size)
{
    return ftruncate(m_file, static_cast<off_t>(size)) == 0 || Fail("cannot write it");
}

bool CDumpFile::MakeRoom()
{
    struct stat status = {};
    int last = 0;
    while (last < s_OldFiles && fstatat(m_folder, CNumberedName(m_name, last).Get(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        ++last;
    for (int number = last; number > 0; --number) {
        const CNumberedName from(m_name, number - 1);
        const CNumberedName to(m_name, number);
        if (renameat(m_folder, from.Get(), m_folder, to.Get()) != 0)
            return false;
    }
    return true;
}

bool CDumpFile::Keep()
{
    if (!MakeRoom() || renameat(m_folder, m_partName, m_folder, m_name) != 0)
        return Fail("cannot rename it");
    return true;
}

void CDumpFile::Discard()
{
    if (m_file < 0)
        return;
    unlinkat(m_folder, m_partName, 0);
    close(m_file); // it takes up room until then
    m_file = -1;
}

void RemoveAbandonedDumps(const char* folder, const char* name)
{
    const int descriptor = OpenFolder(folder);
    if (descriptor < 0)
        return;
    const std::unique_ptr<DIR, int (*)(DIR*)> list(fdopendir(descriptor), closedir);
    if (!list) {
        close(descriptor);
        return;
    }
    const std::string beginning = std::string(name) + CDumpFile::PartMark();
    while (const dirent* entry = readdir(list.get())) { // NOLINT(concurrency-mt-unsafe): the list is ours alone
        const std::string file = entry->d_name;
        if (file.compare(0, beginning.size(), beginning) != 0)
            continue;
        const int process = ParsePid(file.substr(beginning.size()));
        if (process > 0 && kill(process, 0) != 0 && errno == ESRCH)
            unlinkat(descriptor, file.c_str(), 0);
    }
}

} // namespace VelCore

// Finding, opening and replacing the file of agent events.
//
// Tested by: unit/core/events/EventStoreTest.cpp, blackbox/test_events.py.

#include "events/EventStore.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "events/EventText.h"
#include "process/Descriptors.h"
#include "trace/LogText.h"

namespace VelCore {
namespace {

using Kind = DatabaseOutcome::Kind;

const char* const kFileName = "agent_events.db";
const mode_t kFolderMode = 0700;

// What the library keeps beside a file. The file itself comes last: as long as it has its name, nobody starts a new
// one, to which what still lies here would be taken to belong.
const char* const kSuffixes[] = {"-journal", "-wal", "-shm", ""};

// The folder's path without links; empty, with errno set, when there is no such folder and none can be made.
std::string MakeRealFolder(const std::string& folder)
{
    if (!MakeFolders(folder, kFolderMode))
        return std::string();
    char* resolved = realpath(folder.c_str(), nullptr);
    if (!resolved)
        return std::string();
    std::string path = resolved;
    std::free(resolved);
    return path;
}

bool IsFree(const std::string& path)
{
    struct stat status = {};
    for (const char* suffix : kSuffixes) {
        if (lstat((path + suffix).c_str(), &status) == 0)
            return false;
    }
    return true;
}

std::string FreeName(const std::string& path)
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &local);

    const std::string stem = path + ".damaged-" + stamp;
    std::string name = stem;
    for (int number = 2; !IsFree(name); ++number)
        name = stem + "-" + std::to_string(number);
    return name;
}

bool RenameAll(const std::string& path, const std::string& name)
{
    for (const char* suffix : kSuffixes) {
        if (std::rename((path + suffix).c_str(), (name + suffix).c_str()) != 0 && errno != ENOENT)
            return false;
    }
    return true;
}

// Waits until nobody else holds the file. The library locks other bytes than the first one.
void LockFirstByte(int descriptor)
{
    struct flock first = {};
    first.l_type = F_WRLCK;
    first.l_whence = SEEK_SET;
    first.l_len = 1;
    while (fcntl(descriptor, F_SETLKW, &first) != 0 && errno == EINTR) {
    }
}

// Renames the damaged file. The name is empty when another process has been quicker: only who holds the file and still
// finds it under its name may rename, because by then a new one may stand there.
//
// Errors: false, with errno set; the file has its name still.
bool SetAside(const std::string& path, const FileIdentity& damaged, std::string& name)
{
    const int descriptor = open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0)
        return errno == ENOENT;
    LockFirstByte(descriptor);
    bool isDone = true;
    if (IdentifyDescriptor(descriptor) == damaged && IdentifyPath(path) == damaged) {
        name = FreeName(path);
        isDone = RenameAll(path, name);
    }
    const int error = errno;
    close(descriptor);
    errno = error;
    return isDone;
}

void Report(const std::string& what, const CAgentEvent& event)
{
    LogText(wxLOG_Error, what + ": " + EventText(event));
}

} // namespace

CEventStore& CEventStore::Get()
{
    static CEventStore& store = *new CEventStore;
    return store;
}

void CEventStore::Write(const std::string& folder, const CAgentEvent& event)
{
    const std::lock_guard lock(m_mutex);
    const std::string real = folder.empty() ? std::string() : MakeRealFolder(folder);
    if (real.empty()) {
        const std::string reason = folder.empty() ? "there is no work folder" : folder + ": " + std::strerror(errno);
        Report("Agent event could not be stored (" + reason + ")", event);
        return;
    }

    const std::string path = real + "/" + kFileName;
    DatabaseOutcome outcome = WriteOnce(path, event);
    if (outcome.kind == Kind::Damaged) {
        const std::string damage = outcome.reason;
        std::string name;
        if (SetAside(path, m_database.LastFile(), name)) {
            if (!name.empty())
                Report("Agent event database '" + path + "' is damaged (" + damage + "). It was set aside as '" + name +
                           "'; this event is the first of a new one",
                       event);
            outcome = WriteOnce(path, event);
        } else {
            outcome = {Kind::Failed, "it is damaged (" + damage + ") and cannot be set aside: " + std::strerror(errno)};
        }
    }
    if (outcome.kind != Kind::Done)
        Report("Agent event could not be stored in '" + path + "' (" + outcome.reason + ")", event);
}

DatabaseOutcome CEventStore::WriteOnce(const std::string& path, const CAgentEvent& event)
{
    if (IsParents())
        return {Kind::Failed, "the process that this one was forked from holds it open"};
    if (!m_database.IsOpen() || m_path != path || !m_database.IsInPlace()) {
        m_process = getpid();
        m_path = path;
        DatabaseOutcome opened = m_database.Open(path);
        if (opened.kind != Kind::Done)
            return opened;
    }
    DatabaseOutcome outcome = m_database.Insert(event);
    // The next event starts from what is on the disk then.
    if (outcome.kind != Kind::Done)
        m_database.CloseUntouched();
    return outcome;
}

bool CEventStore::IsParents() const
{
    return m_database.IsOpen() && m_process != getpid();
}

void CEventStore::Close()
{
    const std::lock_guard lock(m_mutex);
    if (!IsParents())
        m_database.Close();
}

} // namespace VelCore

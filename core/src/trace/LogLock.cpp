// The lock of a log file, and the lease that makes it unnecessary for a while.
//
// Both are locks of the system on bytes far behind the end of the file, so they go with the process however it ends.
//
// Tested by: unit/core/trace/{LogFileTest,LogFileStressTest}.cpp.

#include "trace/LogLock.h"

#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

#include "process/OwnPid.h"

namespace VelCore {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Where the lease's byte is; the lock is all before it.
const off_t kLeaseAt = off_t{1} << 62;

// One second of solitude, so that processes that write by turns never wait for a lease.
const auto kSolitude = seconds(1);

// A process that writes less often, or only for a moment, gains nothing, and had better look each time.
const auto kBusy = milliseconds(1);
const int kBusyLooks = 100;

const auto kLease = microseconds(500);

// The lease, and what its holder can be late with a record that he has begun to write.
const struct timespec kOthersLease = {0, 2000000};

struct flock Bytes(short type, off_t start, off_t length)
{
    struct flock bytes = {};
    bytes.l_type = type;
    bytes.l_whence = SEEK_SET;
    bytes.l_start = start;
    bytes.l_len = length;
    return bytes;
}

bool Apply(int file, struct flock bytes)
{
    return fcntl(file, F_SETLK, &bytes) == 0;
}

} // namespace

// Where there are no locks a record is worth more than its order.
bool LockLog(int file, int attempts)
{
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (Apply(file, Bytes(F_WRLCK, 0, kLeaseAt)))
            return true;
        if (errno != EACCES && errno != EAGAIN && errno != EINTR)
            return false;
        PauseForLog();
    }
    return false;
}

void UnlockLog(int file)
{
    Apply(file, Bytes(F_UNLCK, 0, kLeaseAt));
}

void PauseForLog()
{
    const struct timespec pause = {0, 100000};
    nanosleep(&pause, nullptr);
}

bool CLogLease::IsValid(Clock::time_point now) const
{
    return m_isHeld && m_process == OwnPid() && now >= m_since && now < m_until;
}

void CLogLease::Look(int file)
{
    const Clock::time_point now = Clock::now();
    if (IsInherited()) {
        m_process = OwnPid();
        m_isHeld = false;
        m_othersWrote = now; // the parent may be about to
    }
    m_busyLooks = now - m_lastLook < kBusy ? m_busyLooks + 1 : 0;
    const bool isBusy = m_busyLooks >= kBusyLooks;
    const bool isAlone = now - m_othersWrote >= kSolitude;
    m_lastLook = now;
    // It is taken anew each time: whoever in this process closes another descriptor of the file has dropped it.
    if (isBusy && isAlone && Apply(file, Bytes(F_WRLCK, kLeaseAt, 1))) {
        m_isHeld = true;
        m_since = now - kLease; // whoever waits for this with an earlier look at the clock has the right, too
        m_until = now + kLease;
    } else {
        GiveUp(file);
    }
}

bool CLogLease::IsInherited() const
{
    return m_process != OwnPid();
}

void CLogLease::GiveUp(int file)
{
    if (m_isHeld)
        Apply(file, Bytes(F_UNLCK, kLeaseAt, 1));
    m_isHeld = false;
}

bool CLogLease::IsOthers(int file)
{
    struct flock bytes = Bytes(F_WRLCK, kLeaseAt, 1);
    return fcntl(file, F_GETLK, &bytes) == 0 && bytes.l_type != F_UNLCK;
}

void CLogLease::AwaitOthers(int file)
{
    if (IsOthers(file))
        nanosleep(&kOthersLease, nullptr);
}

void CLogLease::NoteOthers(const struct timespec& when)
{
    const auto sinceEpoch = seconds(when.tv_sec) + std::chrono::nanoseconds(when.tv_nsec);
    m_othersWrote = Clock::time_point(std::chrono::duration_cast<Clock::duration>(sinceEpoch));
}

void CLogLease::StartAnew()
{
    m_process = OwnPid();
    m_isHeld = false;
    m_othersWrote = Clock::time_point();
}

} // namespace VelCore

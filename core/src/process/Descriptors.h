// Descriptors.h: small things that every user of file descriptors needs.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include <sys/types.h>

namespace VelCore {

/// Owns a descriptor and closes it; -1 is none.
class CDescriptor
{
public:
    explicit CDescriptor(int descriptor = -1) : m_descriptor(descriptor) {}
    ~CDescriptor() { Close(); }
    CDescriptor(CDescriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    CDescriptor& operator=(CDescriptor&& other) noexcept
    {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }

    int Get() const { return m_descriptor; }
    bool IsOpen() const { return m_descriptor >= 0; }

    /// Gives the descriptor away.
    int Release() { return std::exchange(m_descriptor, -1); }

    /// Closes it now. Errors: false, which errno names; the descriptor is gone all the same.
    bool Close();

private:
    int m_descriptor;
};

/// openat, retried after interruptions; the descriptor is closed on exec and never becomes the terminal of the process.
CDescriptor OpenAt(int folder, const char* name, int flags, mode_t mode = 0);

/// Writes all of `bytes`, retrying after interruptions. Returns how many were written; fewer than asked for means an
/// error, which errno names.
std::size_t WriteAll(int descriptor, std::string_view bytes);

/// Creates the folder and its missing parents with `mode`, whatever the umask. Returns whether it exists afterwards;
/// errno tells why not.
bool MakeFolders(const std::string& path, mode_t mode);

/// One line of English: what was tried, and the system's text for the error.
std::string DescribeError(const std::string& what, int errorNumber);

} // namespace VelCore

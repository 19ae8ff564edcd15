// Standard descriptors and standard error.
//
// Tested by: blackbox/test_start.py.

#include "shell/StandardStreams.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <VelCore/Utf8.h>

void OpenStandardDescriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // open() takes the lowest free number, which is the one that was found closed.
        if (fcntl(descriptor, F_GETFD) < 0 && errno == EBADF)
            open("/dev/null", descriptor == STDIN_FILENO ? O_RDONLY : O_WRONLY);
    }
}

void WriteStandardError(const wxString& text)
{
    const std::string bytes = VelCore::ToUtf8(text);
    std::fflush(stdout);
    std::fwrite(bytes.data(), 1, bytes.size(), stderr);
}

void CloseInheritedDescriptors()
{
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir("/dev/fd"), closedir);
    if (!listing)
        return;
    std::vector<int> inherited; // closing while listing could make the listing skip some
    while (const dirent* entry = readdir(listing.get())) {
        const auto descriptor = static_cast<int>(std::strtol(entry->d_name, nullptr, 10)); // 0 for "." and ".."
        const int flags = descriptor > STDERR_FILENO ? fcntl(descriptor, F_GETFD) : -1;
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0)
            inherited.push_back(descriptor);
    }
    for (const int descriptor : inherited)
        close(descriptor);
}

// Mapping a file.
//
// Tested by: blackbox/test_kx_crash.py.

#include "DumpBytes.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

CDumpBytes::~CDumpBytes()
{
    if (!m_bytes.empty())
        munmap(const_cast<char*>(m_bytes.data()), m_bytes.size());
}

bool CDumpBytes::Map(const char* path, std::string& error)
{
    const int file = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat status = {};
    if (file < 0 || fstat(file, &status) != 0) {
        error = std::strerror(errno);
    } else if (!S_ISREG(status.st_mode)) {
        error = "not a regular file";
    } else if (status.st_size > 0) {
        const auto size = static_cast<std::size_t>(status.st_size);
        void* const memory = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file, 0);
        if (memory == MAP_FAILED)
            error = std::strerror(errno);
        else
            m_bytes = {static_cast<const char*>(memory), size};
    }
    if (file >= 0)
        close(file);
    return error.empty();
}

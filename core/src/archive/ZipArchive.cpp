// CZipArchive: the file behind an archive.
//
// Tested by: unit/core/archive/ZipArchiveTest.cpp.

#include "archive/ZipArchive.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "process/Descriptors.h"

namespace VelCore {

/// An open file; owns its descriptor. A small file is read at once and its descriptor given back: descriptors are
/// scarcer than memory, and an installation may have many small archives.
class CZipArchive::FileSource : public ByteSource
{
public:
    explicit FileSource(int descriptor) : m_descriptor(descriptor) {}
    ~FileSource() override { Close(); }
    FileSource(const FileSource&) = delete;
    FileSource& operator=(const FileSource&) = delete;

    // Takes the size; only a regular file has one that means anything.
    bool Examine(std::string& reason)
    {
        struct stat status;
        if (::fstat(m_descriptor, &status) != 0) {
            reason = DescribeError("cannot open", errno);
            return false;
        }
        if (!S_ISREG(status.st_mode)) {
            reason = "not a regular file";
            return false;
        }
        m_size = static_cast<std::uint64_t>(status.st_size);
        return m_size > s_SmallSize || TakeIntoMemory(reason);
    }

    bool ReadAt(std::uint64_t offset, void* buffer, std::size_t length, std::string& reason) const override
    {
        if (m_descriptor < 0)
            return CopyFromMemory(offset, buffer, length, reason);
        auto* next = static_cast<char*>(buffer);
        while (length > 0) {
            const ssize_t count = ::pread(m_descriptor, next, length, static_cast<off_t>(offset));
            if (count < 0 && errno == EINTR)
                continue;
            if (count < 0) {
                reason = DescribeError("cannot read", errno);
                return false;
            }
            if (count == 0) {
                reason = "the file is shorter than it should be";
                return false;
            }
            next += count;
            offset += static_cast<std::uint64_t>(count);
            length -= static_cast<std::size_t>(count);
        }
        return true;
    }

    std::uint64_t Size() const override { return m_size; }

private:
    static const std::uint64_t s_SmallSize = 0x10000; // bytes

    bool TakeIntoMemory(std::string& reason)
    {
        std::string bytes(static_cast<std::size_t>(m_size), '\0');
        if (!ReadAt(0, bytes.data(), bytes.size(), reason))
            return false;
        m_bytes = std::move(bytes);
        Close();
        return true;
    }

    bool CopyFromMemory(std::uint64_t offset, void* buffer, std::size_t length, std::string& reason) const
    {
        if (offset > m_bytes.size() || length > m_bytes.size() - offset) {
            reason = "the file is shorter than it should be";
            return false;
        }
        std::memcpy(buffer, m_bytes.data() + offset, length);
        return true;
    }

    void Close()
    {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
        m_descriptor = -1;
    }

    int m_descriptor; // -1: the content is in memory
    std::uint64_t m_size = 0;
    std::string m_bytes;
};

std::shared_ptr<const CZipArchive> CZipArchive::Open(const std::string& path, std::string& reason)
{
    // Before the type is known the open call itself must do no harm: O_NONBLOCK because a pipe without a writer would
    // hold it for ever, O_NOCTTY because a terminal would become the daemon's own. A regular file minds neither.
    int descriptor = -1;
    do {
        descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0) {
        reason = DescribeError("cannot open", errno);
        return nullptr;
    }

    auto source = std::make_unique<FileSource>(descriptor);
    std::vector<ZipEntry> entries;
    if (!source->Examine(reason) || !ReadZipDirectory(*source, entries, reason))
        return nullptr;
    return std::shared_ptr<const CZipArchive>(new CZipArchive(path, std::move(source), std::move(entries)));
}

CZipArchive::CZipArchive(std::string path, std::unique_ptr<const FileSource> source, std::vector<ZipEntry> entries)
    : m_path(std::move(path)), m_source(std::move(source)), m_entries(std::move(entries))
{
}

CZipArchive::~CZipArchive() = default;

const std::string& CZipArchive::Path() const
{
    return m_path;
}

const std::vector<ZipEntry>& CZipArchive::Entries() const
{
    return m_entries;
}

const ByteSource& CZipArchive::Source() const
{
    return *m_source;
}

bool CZipArchive::Read(const ZipEntry& entry, std::string& content, std::string& reason) const
{
    return ReadZipEntry(*m_source, entry, content, reason);
}

} // namespace VelCore

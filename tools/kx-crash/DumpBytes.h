// DumpBytes.h: the bytes of a file, without copying them.
#pragma once

#include <string>
#include <string_view>

/// A mapped file. A full dump may be larger than the memory of the machine.
class CDumpBytes
{
public:
    CDumpBytes() = default;
    ~CDumpBytes();
    CDumpBytes(const CDumpBytes&) = delete;
    CDumpBytes& operator=(const CDumpBytes&) = delete;

    /// Errors: false, and `error` says why.
    bool Map(const char* path, std::string& error);

    std::string_view Bytes() const { return m_bytes; }

private:
    std::string_view m_bytes;
};

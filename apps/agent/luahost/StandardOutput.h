// StandardOutput.h: C's standard output as a framework stream.
#pragma once

#include <cstdio>

#include <wx/stream.h>

/// A stream over C's standard output, which it does not own. Nothing is buffered here, so the order among all users of
/// the C stream is kept, and errno tells why a write failed.
class CStandardOutput : public wxOutputStream
{
public:
    void Sync() override { std::fflush(stdout); }

protected:
    size_t OnSysWrite(const void* buffer, size_t size) override
    {
        const size_t written = std::fwrite(buffer, 1, size, stdout);
        m_lasterror = written == size ? wxSTREAM_NO_ERROR : wxSTREAM_WRITE_ERROR;
        return written;
    }
};

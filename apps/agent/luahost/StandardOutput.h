// StandardOutput.h: C's standard output as a framework stream.
#pragma once

#include <cstdio>

#include <wx/wfstream.h>

/// A stream over C's standard output, which stays open when the stream goes.
class CStandardOutput
{
public:
    CStandardOutput() : m_stream(stdout) {}
    ~CStandardOutput() { m_stream.GetFile()->Detach(); }
    CStandardOutput(const CStandardOutput&) = delete;
    CStandardOutput& operator=(const CStandardOutput&) = delete;

    wxOutputStream& Stream() { return m_stream; }

private:
    wxFFileOutputStream m_stream;
};

// ScratchFolder.h: a place to unpack to, and forget.
#pragma once

#include <optional>
#include <string>

#include "Failure.h"

/// A new folder that only its user may look into, below TMPDIR or the system's folder for temporary files. It is
/// removed with everything in it when the object goes.
class CScratchFolder
{
public:
    CScratchFolder() = default;
    ~CScratchFolder();
    CScratchFolder(const CScratchFolder&) = delete;
    CScratchFolder& operator=(const CScratchFolder&) = delete;

    /// Makes the folder.
    std::optional<Failure> Make();

    /// Empty before it is made.
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

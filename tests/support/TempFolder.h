// TempFolder.h: a folder of its own for one test.
#pragma once

#include <string>

#include <sys/stat.h>

namespace VelTest {

/// A new, empty folder, removed with everything in it when the object goes. A process that ends without destroying its
/// objects has to remove it before.
class CTempFolder
{
public:
    CTempFolder();
    ~CTempFolder();
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;

    const std::string& Path() const { return m_path; }

    /// The path of `name` in the folder.
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

    /// Writes a file, and the folders that `name` mentions. Returns its path.
    std::string Write(const std::string& name, const std::string& content) const;

    void MakeFolder(const std::string& name) const;

    /// Removes the folder.
    void Remove();

private:
    std::string m_path;
};

/// The content of a file; "" when there is none.
std::string ReadFile(const std::string& path);

/// Whether something has this name, a dangling link included.
bool Exists(const std::string& path);

/// Permission bits, of a link itself.
mode_t ModeOf(const std::string& path);

} // namespace VelTest

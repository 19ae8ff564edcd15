// The least that unpacking costs: mapped archive, libdeflate, checksum, and openat and write for every file.
//
// Usage: UnpackFloor ARCHIVE FOLDER

#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <libdeflate.h>

#include "programs/MappedZip.h"
#include "programs/Measure.h"

using namespace VelBench;

namespace {

class CUnpacker
{
public:
    explicit CUnpacker(const char* destination) : m_top(open(destination, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

    void Unpack(const MappedEntry& entry)
    {
        const std::string_view content = Content(entry);
        if (libdeflate_crc32(0, content.data(), content.size()) != entry.crc32)
            Die("wrong checksum");
        const std::size_t slash = entry.name.rfind('/');
        Enter(entry.name.substr(0, slash));
        const std::string name(entry.name.substr(slash + 1));
        const int file = openat(m_folder, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        // The system writes at most 2 GiB at once; no entry comes near that.
        if (file < 0 || write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
            Die("cannot write " + name);
        close(file);
    }

private:
    std::string_view Content(const MappedEntry& entry)
    {
        if (!entry.isDeflated)
            return entry.data;
        if (m_content.size() < entry.size)
            m_content.resize(entry.size);
        if (libdeflate_deflate_decompress(m_decompressor, entry.data.data(), entry.data.size(), m_content.data(),
                                          entry.size, nullptr) != LIBDEFLATE_SUCCESS)
            Die("damaged");
        return {m_content.data(), entry.size};
    }

    // All folders of these archives are one level deep, and their entries stand together.
    void Enter(std::string_view folder)
    {
        if (folder == m_name)
            return;
        m_name = folder;
        const std::string name(folder);
        mkdirat(m_top, name.c_str(), 0755);
        close(m_folder);
        m_folder = openat(m_top, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }

    int m_top;
    int m_folder = -1;
    std::string_view m_name;
    libdeflate_decompressor* m_decompressor = libdeflate_alloc_decompressor();
    std::vector<char> m_content;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        Die("usage: UnpackFloor ARCHIVE FOLDER");
    Measure([&] {
        const CMappedZip archive(argv[1]);
        CUnpacker unpacker(argv[2]);
        for (const MappedEntry& entry : archive.Entries())
            unpacker.Unpack(entry);
    });
    return 0;
}

// Unpacking as a program over libzip does it, in pieces, with the floor's openat and write.
//
// Usage: UnpackLibzip ARCHIVE FOLDER

#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zip.h>

#include "programs/Measure.h"

using namespace VelBench;

namespace {

const std::size_t kPiece = 0x10000;

// All folders of these archives are one level deep, and their entries stand together.
void MakeFolder(int top, const std::string& folder)
{
    static std::string made;
    if (folder != made)
        mkdirat(top, folder.c_str(), 0755);
    made = folder;
}

void Unpack(zip_t* archive, zip_uint64_t index, int folder, std::vector<char>& piece)
{
    const std::string name = zip_get_name(archive, index, ZIP_FL_ENC_RAW);
    zip_file_t* const entry = zip_fopen_index(archive, index, 0);
    MakeFolder(folder, name.substr(0, name.find('/')));
    const int file = openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (!entry || file < 0)
        Die("cannot unpack " + name);
    zip_int64_t count = 0;
    while ((count = zip_fread(entry, piece.data(), piece.size())) > 0) {
        if (write(file, piece.data(), static_cast<std::size_t>(count)) != count)
            Die("cannot write " + name);
    }
    if (count < 0 || zip_fclose(entry) != 0)
        Die("damaged: " + name);
    close(file);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        Die("usage: UnpackLibzip ARCHIVE FOLDER");
    Measure([&] {
        zip_t* const archive = zip_open(argv[1], ZIP_RDONLY, nullptr);
        if (!archive)
            Die(std::string("cannot open ") + argv[1]);
        const int folder = open(argv[2], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        std::vector<char> piece(kPiece);
        const auto count = static_cast<zip_uint64_t>(zip_get_num_entries(archive, 0));
        for (zip_uint64_t index = 0; index < count; ++index)
            Unpack(archive, index, folder, piece);
        zip_discard(archive);
    });
    return 0;
}

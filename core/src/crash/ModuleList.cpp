// Finding modules and their build identifiers in memory.
//
// Tested by: unit/core/crash/ModuleListTest.cpp.

#include "crash/ModuleList.h"

#include <algorithm>
#include <cstring>

#include <elf.h>

namespace VelCore {
namespace {

// A real file has about ten program headers, and notes of less than a hundred bytes.
const std::size_t kMostHeaders = 64;
const std::size_t kMostNoteBytes = 4096;

const char kGnu[] = "GNU";

bool ReadAll(const CProcessMemory& memory, std::uint64_t address, void* to, std::size_t size)
{
    return memory.Read(address, to, size) == size;
}

bool ReadElfHeader(const CProcessMemory& memory, std::uint64_t start, Elf64_Ehdr& header)
{
    return ReadAll(memory, start, &header, sizeof header) && std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           header.e_ident[EI_CLASS] == ELFCLASS64;
}

std::size_t Aligned(std::size_t size)
{
    return (size + 3) & ~std::size_t{3};
}

// Looks for the identifier among the notes in `bytes`.
bool FindBuildId(const std::uint8_t* bytes, std::size_t size, BuildId& id)
{
    Elf64_Nhdr note;
    while (size >= sizeof note) {
        std::memcpy(&note, bytes, sizeof note);
        const std::size_t nameSize = Aligned(note.n_namesz);
        const std::size_t length = sizeof note + nameSize + Aligned(note.n_descsz);
        if (length > size)
            return false;
        const std::uint8_t* name = bytes + sizeof note;
        if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == sizeof kGnu &&
            std::memcmp(name, kGnu, sizeof kGnu) == 0 && note.n_descsz <= sizeof id.bytes) {
            id.size = note.n_descsz;
            std::memcpy(id.bytes, name + nameSize, note.n_descsz);
            return true;
        }
        bytes += length;
        size -= length;
    }
    return false;
}

bool ReadBuildId(const CProcessMemory& memory, std::uint64_t start, const Elf64_Ehdr& header, BuildId& id)
{
    static Elf64_Phdr headers[kMostHeaders];
    static std::uint8_t notes[kMostNoteBytes];
    const std::size_t count = std::min<std::size_t>(header.e_phnum, kMostHeaders);
    if (header.e_phentsize != sizeof headers[0] ||
        !ReadAll(memory, start + header.e_phoff, headers, count * sizeof headers[0]))
        return false;

    // Addresses in the file count from where its first part belongs, which is not 0 for a program at a fixed address.
    const auto first = std::find_if(headers, headers + count, [](const auto& row) { return row.p_type == PT_LOAD; });
    if (first == headers + count)
        return false;
    const std::uint64_t bias = start - (first->p_vaddr - first->p_offset);
    return std::any_of(headers, headers + count, [&](const Elf64_Phdr& row) {
        return row.p_type == PT_NOTE && row.p_filesz <= sizeof notes &&
               ReadAll(memory, bias + row.p_vaddr, notes, row.p_filesz) && FindBuildId(notes, row.p_filesz, id);
    });
}

bool MayBeModule(const SnapshotMapping& mapping)
{
    return mapping.isReadable && mapping.fileOffset == 0 && !mapping.path.empty() &&
           (mapping.path[0] == '/' || mapping.path == "[vdso]");
}

} // namespace

void FindModules(const SnapshotMappings& mappings, const CProcessMemory& memory, SnapshotModules& modules)
{
    for (const SnapshotMapping* mapping = mappings.begin(); mapping != mappings.end();) {
        const SnapshotMapping& first = *mapping++;
        if (!MayBeModule(first))
            continue;
        // The parts of a file follow each other; what the loader leaves empty in between is not mapped or has no name.
        std::uint64_t end = first.end;
        bool isExecutable = first.isExecutable;
        for (; mapping != mappings.end() && mapping->path == first.path && mapping->fileOffset != 0; ++mapping) {
            end = mapping->end;
            isExecutable = isExecutable || mapping->isExecutable;
        }
        Elf64_Ehdr header;
        if (!isExecutable || !ReadElfHeader(memory, first.start, header))
            continue;
        SnapshotModule* const row = modules.Add();
        if (!row)
            continue;
        *row = {first.start, end - first.start, first.path, {}};
        ReadBuildId(memory, first.start, header, row->buildId);
    }
}

} // namespace VelCore

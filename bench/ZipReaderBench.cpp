// Which ZIP reader serves the module loader best?
//
//   ZipReaderBench            5,000 modules of 2 KB, read by name in shuffled order; ratios of the medians
//   ZipReaderBench --damage   what each reader says about damaged archives, as a table in Markdown
//
// Every reader keeps its archive open and gets the same index from names to entries, so that what is compared is the
// cost of the directory and the cost of an entry. All contents are compared with what was written.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <unistd.h>

#include <wx/init.h>
#include <wx/log.h>
#include <wx/wfstream.h>
#include <wx/zipstrm.h>

#include <minizip/unzip.h>
#include <zip.h>

#include "archive/ZipArchive.h"
#include "support/ZipBuilder.h"

using VelTest::CZipBuilder;
using VelTest::ZipItem;

namespace {

const std::size_t kChunk = 0x10000;

// ---- the readers ---------------------------------------------------------------------------------------------------

// An archive that is open. Errors are texts; an empty one is success.
class CReader
{
public:
    virtual ~CReader() = default;
    virtual std::string Open(const std::string& path) = 0;
    virtual std::vector<std::string> Names() = 0;
    virtual std::string Read(std::size_t index, std::string& content) = 0;

    /// st_mode as the reader gives it; 0 for none.
    virtual unsigned long Mode(std::size_t index) = 0;
};

// Takes everything that `readSome(buffer, length)` gives: bytes, 0 at the end, below 0 for an error.
template <typename ReadSome>
bool Drain(std::string& content, std::uint64_t declaredSize, ReadSome readSome)
{
    std::size_t filled = 0;
    content.resize(static_cast<std::size_t>(std::min<std::uint64_t>(declaredSize, 16 * kChunk)) + 1);
    for (;;) {
        if (filled == content.size())
            content.resize(filled + kChunk);
        const long count = readSome(&content[filled], content.size() - filled);
        if (count < 0)
            return false;
        filled += static_cast<std::size_t>(count);
        if (count == 0) {
            content.resize(filled);
            return true;
        }
    }
}

class COwnReader : public CReader
{
public:
    std::string Open(const std::string& path) override
    {
        std::string reason;
        m_archive = VelCore::CZipArchive::Open(path, reason);
        return m_archive ? "" : reason;
    }

    std::vector<std::string> Names() override
    {
        std::vector<std::string> names;
        for (const VelCore::ZipEntry& entry : m_archive->Entries())
            names.push_back(entry.name);
        return names;
    }

    std::string Read(std::size_t index, std::string& content) override
    {
        std::string reason;
        return m_archive->Read(m_archive->Entries()[index], content, reason) ? "" : reason;
    }

    unsigned long Mode(std::size_t index) override { return m_archive->Entries()[index].UnixMode().value_or(0); }

private:
    std::shared_ptr<const VelCore::CZipArchive> m_archive;
};

class CLibzipReader : public CReader
{
public:
    explicit CLibzipReader(int flags) : m_flags(flags) {}

    std::string Open(const std::string& path) override
    {
        int code = 0;
        m_zip.reset(zip_open(path.c_str(), m_flags, &code));
        if (m_zip)
            return "";
        zip_error_t error;
        zip_error_init_with_code(&error, code);
        std::string text = zip_error_strerror(&error);
        zip_error_fini(&error);
        return text;
    }

    std::vector<std::string> Names() override
    {
        std::vector<std::string> names;
        const zip_int64_t count = zip_get_num_entries(m_zip.get(), 0);
        for (zip_int64_t index = 0; index < count; ++index) {
            const char* name = zip_get_name(m_zip.get(), static_cast<zip_uint64_t>(index), ZIP_FL_ENC_RAW);
            names.push_back(name ? name : "");
        }
        return names;
    }

    std::string Read(std::size_t index, std::string& content) override
    {
        zip_stat_t status;
        zip_stat_init(&status);
        if (zip_stat_index(m_zip.get(), index, 0, &status) != 0)
            return zip_strerror(m_zip.get());
        zip_file_t* file = zip_fopen_index(m_zip.get(), index, 0);
        if (!file)
            return zip_strerror(m_zip.get());
        const bool read = Drain(content, status.size, [file](char* buffer, std::size_t length) {
            return static_cast<long>(zip_fread(file, buffer, length));
        });
        std::string error = read ? "" : zip_file_strerror(file);
        if (zip_fclose(file) != 0 && error.empty())
            error = "error on close";
        return error;
    }

    unsigned long Mode(std::size_t index) override
    {
        zip_uint8_t system = 0;
        zip_uint32_t attributes = 0;
        zip_file_get_external_attributes(m_zip.get(), index, 0, &system, &attributes);
        return system == ZIP_OPSYS_UNIX ? attributes >> 16 : 0;
    }

private:
    struct Discard
    {
        void operator()(zip_t* zip) const { zip_discard(zip); }
    };
    int m_flags;
    std::unique_ptr<zip_t, Discard> m_zip;
};

class CMinizipReader : public CReader
{
public:
    std::string Open(const std::string& path) override
    {
        m_zip.reset(unzOpen64(path.c_str()));
        if (!m_zip)
            return "cannot open";
        std::vector<char> name(0x10000);
        int result = unzGoToFirstFile(m_zip.get());
        for (; result == UNZ_OK; result = unzGoToNextFile(m_zip.get())) {
            unz64_file_pos position;
            unz_file_info64 info;
            result = unzGetCurrentFileInfo64(m_zip.get(), &info, name.data(), name.size(), nullptr, 0, nullptr, 0);
            if (result == UNZ_OK)
                result = unzGetFilePos64(m_zip.get(), &position);
            if (result != UNZ_OK)
                break;
            m_names.push_back(name.data());
            m_places.push_back({position, info.uncompressed_size, info.external_fa >> 16});
        }
        return result == UNZ_END_OF_LIST_OF_FILE ? "" : "code " + std::to_string(result);
    }

    std::vector<std::string> Names() override { return m_names; }

    std::string Read(std::size_t index, std::string& content) override
    {
        const Place& place = m_places[index];
        int result = unzGoToFilePos64(m_zip.get(), &place.position);
        if (result == UNZ_OK)
            result = unzOpenCurrentFile(m_zip.get());
        if (result != UNZ_OK)
            return "code " + std::to_string(result);
        const bool read = Drain(content, place.size, [&](char* buffer, std::size_t length) {
            result = unzReadCurrentFile(m_zip.get(), buffer, static_cast<unsigned>(length));
            return static_cast<long>(result);
        });
        const int closed = unzCloseCurrentFile(m_zip.get());
        if (read && closed == UNZ_OK)
            return "";
        return closed == UNZ_CRCERROR ? "checksum error" : "code " + std::to_string(read ? closed : result);
    }

    unsigned long Mode(std::size_t index) override { return m_places[index].mode; }

private:
    struct Close
    {
        void operator()(void* zip) const { unzClose(zip); }
    };
    struct Place
    {
        unz64_file_pos position;
        std::uint64_t size;
        unsigned long mode;
    };
    std::unique_ptr<void, Close> m_zip;
    std::vector<std::string> m_names;
    std::vector<Place> m_places;
};

// What wxWidgets logs while a reader of it works.
class CLogCapture : public wxLog
{
public:
    CLogCapture() : m_previous(wxLog::SetActiveTarget(this)) {}
    ~CLogCapture() override { wxLog::SetActiveTarget(m_previous); }

    /// The first text since the last call, or `otherwise`.
    std::string Take(const std::string& otherwise)
    {
        std::string text = m_text.empty() ? otherwise : m_text;
        m_text.clear();
        return text;
    }

protected:
    void DoLogRecord(wxLogLevel, const wxString& text, const wxLogRecordInfo&) override
    {
        if (m_text.empty())
            m_text = text.utf8_string();
    }

private:
    wxLog* m_previous;
    std::string m_text;
};

class CWxReader : public CReader
{
public:
    std::string Open(const std::string& path) override
    {
        m_file = std::make_unique<wxFFileInputStream>(wxString::FromUTF8(path), "rb");
        if (!m_file->IsOk())
            return m_log.Take("cannot open");
        m_zip = std::make_unique<wxZipInputStream>(*m_file);
        while (wxZipEntry* entry = m_zip->GetNextEntry())
            m_entries.emplace_back(entry);
        return m_zip->GetLastError() == wxSTREAM_EOF ? "" : m_log.Take("read error");
    }

    std::vector<std::string> Names() override
    {
        std::vector<std::string> names;
        for (const auto& entry : m_entries)
            names.push_back(entry->GetName(wxPATH_UNIX).utf8_string());
        return names;
    }

    std::string Read(std::size_t index, std::string& content) override
    {
        wxZipEntry& entry = *m_entries[index];
        if (!m_zip->OpenEntry(entry))
            return m_log.Take("cannot open the entry");
        const auto size = static_cast<std::uint64_t>(std::max<wxFileOffset>(entry.GetSize(), 0));
        Drain(content, size, [this](char* buffer, std::size_t length) {
            return static_cast<long>(m_zip->Read(buffer, length).LastRead());
        });
        const wxStreamError error = m_zip->GetLastError();
        const bool closed = m_zip->CloseEntry();
        if ((error == wxSTREAM_NO_ERROR || error == wxSTREAM_EOF) && closed)
            return "";
        return m_log.Take("read error");
    }

    unsigned long Mode(std::size_t index) override { return static_cast<unsigned long>(m_entries[index]->GetMode()); }

private:
    CLogCapture m_log;
    std::unique_ptr<wxFFileInputStream> m_file;
    std::unique_ptr<wxZipInputStream> m_zip;
    std::vector<std::unique_ptr<wxZipEntry>> m_entries;
};

struct Candidate
{
    const char* name;
    std::unique_ptr<CReader> (*make)();
};

const Candidate kCandidates[] = {
    {"ours", []() -> std::unique_ptr<CReader> { return std::make_unique<COwnReader>(); }},
    {"libzip", []() -> std::unique_ptr<CReader> { return std::make_unique<CLibzipReader>(ZIP_RDONLY); }},
    {"libzip, checking",
     []() -> std::unique_ptr<CReader> { return std::make_unique<CLibzipReader>(ZIP_RDONLY | ZIP_CHECKCONS); }},
    {"minizip", []() -> std::unique_ptr<CReader> { return std::make_unique<CMinizipReader>(); }},
    {"wxZipInputStream", []() -> std::unique_ptr<CReader> { return std::make_unique<CWxReader>(); }},
};
const std::size_t kCandidateCount = std::size(kCandidates);

// ---- help ----------------------------------------------------------------------------------------------------------

[[noreturn]] void Die(const std::string& text)
{
    std::fprintf(stderr, "ZipReaderBench: %s\n", text.c_str());
    std::exit(1);
}

void WriteFile(const std::string& path, const std::string& bytes)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << bytes;
    file.close();
    if (!file)
        Die("cannot write " + path);
}

// A temporary file name in a folder of its own; both are gone at the end.
class CTemporaryFile
{
public:
    CTemporaryFile()
    {
        const char* root = std::getenv("TMPDIR");
        m_folder = std::string(root && *root ? root : "/tmp") + "/ZipReaderBench.XXXXXX";
        if (!mkdtemp(&m_folder[0]))
            Die("cannot create " + m_folder);
        m_path = m_folder + "/bench.zip";
    }

    ~CTemporaryFile()
    {
        std::remove(m_path.c_str());
        rmdir(m_folder.c_str());
    }

    const std::string& Path() const { return m_path; }

private:
    std::string m_folder;
    std::string m_path;
};

// ---- speed ---------------------------------------------------------------------------------------------------------

std::string MakeModule(std::mt19937& random, std::size_t length)
{
    static const char* const words[] = {"name",  "value", "path",  "index", "entry", "result", "state", "count",
                                        "files", "rules", "match", "level", "event", "limit",  "owner", "group"};
    const auto word = [&random] { return std::string(words[random() % std::size(words)]); };
    const auto number = [&random](unsigned limit) { return std::to_string(random() % limit); };

    std::string text = "-- " + word() + " of a " + word() + "\nlocal m = {}\n\n";
    while (text.size() < length) {
        const std::string argument = word();
        for (const std::string& part : {std::string("function m."),
                                        word(),
                                        number(100),
                                        std::string("("),
                                        argument,
                                        std::string(")\n  local "),
                                        word(),
                                        number(10),
                                        std::string(" = "),
                                        argument,
                                        std::string("."),
                                        word(),
                                        std::string(" or "),
                                        number(10000),
                                        std::string("\n  if "),
                                        argument,
                                        std::string(" == '"),
                                        word(),
                                        number(1000),
                                        std::string("' then\n    return "),
                                        word(),
                                        number(10),
                                        std::string("\n  end\nend\n\n")})
            text += part;
    }
    text.resize(length - 10);
    return text + "\nreturn m\n";
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void CompareSpeed()
{
    const std::size_t kModules = 5000;
    const std::size_t kLength = 2048;
    const int kRounds = 21;

    std::mt19937 random(1);
    CZipBuilder builder;
    for (std::size_t number = 0; number < kModules; ++number) {
        ZipItem item;
        item.name = "folder" + std::to_string(number % 50) + "/module" + std::to_string(number) + ".lua";
        item.content = MakeModule(random, kLength);
        item.localExtra = std::string("UT\x09\0\3aaaabbbb", 13); // as the usual tools write it
        builder.items.push_back(item);
    }
    const std::string bytes = builder.Build();
    const CTemporaryFile file;
    WriteFile(file.Path(), bytes);

    std::vector<std::size_t> order(kModules);
    for (std::size_t number = 0; number < kModules; ++number)
        order[number] = number;
    std::shuffle(order.begin(), order.end(), random);

    std::array<std::vector<double>, kCandidateCount> openTimes;
    std::array<std::vector<double>, kCandidateCount> readTimes;
    for (int round = 0; round < kRounds; ++round) {
        for (std::size_t which = 0; which < kCandidateCount; ++which) {
            using Clock = std::chrono::steady_clock;
            const auto start = Clock::now();
            const auto reader = kCandidates[which].make();
            const std::string error = reader->Open(file.Path());
            if (!error.empty())
                Die(std::string(kCandidates[which].name) + ": " + error);
            std::unordered_map<std::string, std::size_t> index;
            for (std::string& name : reader->Names())
                index.emplace(std::move(name), index.size());
            const auto opened = Clock::now();

            std::string content;
            for (const std::size_t number : order) {
                const auto found = index.find(builder.items[number].name);
                if (found == index.end() || !reader->Read(found->second, content).empty() ||
                    content != builder.items[number].content)
                    Die(std::string(kCandidates[which].name) + ": wrong content of " + builder.items[number].name);
            }
            const auto done = Clock::now();
            openTimes[which].push_back(std::chrono::duration<double, std::milli>(opened - start).count());
            readTimes[which].push_back(std::chrono::duration<double, std::milli>(done - opened).count());
        }
    }

    std::printf("%zu entries of %zu bytes, archive %zu bytes, %d rounds, medians; ratios to the first line\n\n",
                kModules, kLength, bytes.size(), kRounds);
    std::printf("| reader | open and index | ratio | read all | ratio | both, ratio |\n|---|---|---|---|---|---|\n");
    const double ownOpen = Median(openTimes[0]);
    const double ownRead = Median(readTimes[0]);
    for (std::size_t which = 0; which < kCandidateCount; ++which) {
        const double open = Median(openTimes[which]);
        const double read = Median(readTimes[which]);
        std::printf("| %s | %.2f ms | %.2f | %.2f ms | %.2f | %.2f |\n", kCandidates[which].name, open, open / ownOpen,
                    read, read / ownRead, (open + read) / (ownOpen + ownRead));
    }
}

// ---- damage --------------------------------------------------------------------------------------------------------

// One way to go wrong. `items` of the builder say what a reader may give out, if it gives out anything.
struct Damage
{
    const char* label;
    CZipBuilder builder;
    std::function<void(std::string&)> harm = {};            // what happens to the file's bytes
    std::function<void(const std::string&)> whileOpen = {}; // and to the file between opening and reading
};

ZipItem Item(const std::string& name, const std::string& content, std::uint16_t method = 8)
{
    ZipItem item;
    item.name = name;
    item.content = content;
    item.method = method;
    return item;
}

std::vector<Damage> MakeDamages()
{
    const std::string text = "local m = {}\nfunction m.f() return 'text text text text' end\nreturn m\n";
    const CZipBuilder good({Item("a.lua", text), Item("b.txt", "the second entry", 0)});
    // The first entry is longer than the buffers of the readers.
    const CZipBuilder large({Item("large", std::string(200000, 'l'), 0), good.items[0], good.items[1]});
    std::vector<Damage> damages;
    const auto add = [&](const char* label, auto lie) -> Damage& {
        damages.push_back({label, good});
        lie(damages.back().builder);
        return damages.back();
    };
    const auto nothing = [](CZipBuilder&) {};

    add("none", nothing);
    add("none; bytes in front of the archive", [](CZipBuilder& b) { b.prefix = "#!/bin/sh\nexit 0\n"; });
    add("none; bytes behind the archive", [](CZipBuilder& b) { b.suffix = "junk"; });
    add("none; stored with a data descriptor", [](CZipBuilder& b) { b.items[1].dataDescriptor = true; });
    add("none; Zip64 throughout", [](CZipBuilder& b) { b.zip64 = b.items[0].zip64 = b.items[1].zip64 = true; });
    add("file cut at two thirds", nothing).harm = [](std::string& bytes) { bytes.resize(bytes.size() * 2 / 3); };
    add("cut behind an entry that is an archive itself", [](CZipBuilder& b) {
        b.items[1] = Item("b.txt", CZipBuilder({Item("inner.lua", "return 'inner'")}).Build(), 0);
    }).harm = [](std::string& bytes) { bytes.resize(bytes.find("PK\5\6") + 22); };
    add("a byte of stored data flipped", nothing).harm = [](std::string& bytes) { bytes[bytes.find("second")] = 'S'; };
    add("checksum wrong in both headers", [](CZipBuilder& b) { b.items[0].localCrc = b.items[0].directoryCrc = 1; });
    add("local name differs", [](CZipBuilder& b) { b.items[0].localName = "z.lua"; });
    add("local method differs", [](CZipBuilder& b) { b.items[0].localMethod = std::uint16_t{0}; });
    add("local checksum differs", [](CZipBuilder& b) { b.items[0].localCrc = 1; });
    add("local sizes differ", [](CZipBuilder& b) { b.items[0].localCompressedSize = b.items[0].localSize = 7; });
    add("size too small in the directory", [](CZipBuilder& b) { b.items[0].directorySize = 10; });
    add("size too large in both headers",
        [](CZipBuilder& b) { b.items[0].localSize = b.items[0].directorySize = 100; });
    add("bytes behind the compressed data",
        [](CZipBuilder& b) { b.items[0].data = VelTest::Deflate(b.items[0].content) + "smuggled"; });
    add("marked as encrypted (the data is plain)", [](CZipBuilder& b) { b.items[0].flags = 1; });
    add("unknown method 19",
        [](CZipBuilder& b) { b.items[0].localMethod = b.items[0].directoryMethod = std::uint16_t{19}; });
    add("end record counts an entry too few", [](CZipBuilder& b) { b.count = 1; });
    add("end record counts an entry too many", [](CZipBuilder& b) { b.count = 3; });
    add("two entries share one stream", [](CZipBuilder& b) {
        b.items[1] = b.items[0];
        b.items[1].directoryOffset = 0;
    });
    add("data reaches into the directory", [](CZipBuilder& b) {
        ZipItem& item = b.items[1];
        item.data = item.content;
        item.content += "PK\1\2";
        item.localCompressedSize = item.directoryCompressedSize = item.content.size();
    });
    add("NUL in a name", [](CZipBuilder& b) { b.items[0].name = std::string("a.lua\0.txt", 10); });
    add("file cut while open", [large](CZipBuilder& b) { b = large; }).whileOpen = [](const std::string& path) {
        if (truncate(path.c_str(), 150000) != 0)
            Die("cannot cut " + path);
    };
    add("file overwritten in place while open", [large](CZipBuilder& b) { b = large; }).whileOpen =
        [large](const std::string& path) {
            CZipBuilder other = large;
            other.items[1].content[40] = 'T';
            other.items[2].content[4] = 'S';
            WriteFile(path, other.Build());
        };
    return damages;
}

// What the reader makes of the file: no complaint and the contents written, an error, or something else that it gives
// out as if it were right.
std::string Judge(const Candidate& candidate, const Damage& damage, const std::string& path)
{
    const auto reader = candidate.make();
    const std::string openError = reader->Open(path);
    if (!openError.empty())
        return "error: " + openError;
    if (damage.whileOpen)
        damage.whileOpen(path);

    const std::vector<std::string> names = reader->Names();
    std::string verdict;
    for (std::size_t index = 0; index < names.size(); ++index) {
        std::string content;
        const std::string error = reader->Read(index, content);
        if (!error.empty())
            return "error: " + error;
        if (index >= damage.builder.items.size())
            break;
        if (names[index] != damage.builder.items[index].name)
            verdict = "**WRONG NAME**";
        else if (content != damage.builder.items[index].content)
            verdict = "**WRONG DATA**";
    }
    if (names.size() != damage.builder.items.size())
        return "**" + std::to_string(names.size()) + " OF " + std::to_string(damage.builder.items.size()) +
               " ENTRIES**";
    return verdict.empty() ? "accepted" : verdict;
}

std::string Octal(unsigned long value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%lo", value);
    return text;
}

void PrintRow(const std::string& label, const std::function<std::string(const Candidate&)>& cell)
{
    std::printf("| %s |", label.c_str());
    for (const Candidate& candidate : kCandidates)
        std::printf(" %s |", cell(candidate).c_str());
    std::printf("\n");
}

// Every single byte of a small archive changed, one after the other.
std::string CountFlips(const Candidate& candidate, const std::string& path, const Damage& good,
                       const std::string& bytes)
{
    int refused = 0;
    int same = 0;
    int wrong = 0;
    for (std::size_t position = 0; position < bytes.size(); ++position) {
        std::string changed = bytes;
        changed[position] = static_cast<char>(~changed[position]);
        WriteFile(path, changed);
        const std::string verdict = Judge(candidate, good, path);
        ++(verdict == "accepted" ? same : verdict.compare(0, 5, "error") == 0 ? refused : wrong);
    }
    return std::to_string(same) + " / " + std::to_string(refused) + " / " + std::to_string(wrong);
}

void CompareDamage()
{
    const CTemporaryFile file;
    std::printf("| damage |");
    for (const Candidate& candidate : kCandidates)
        std::printf(" %s |", candidate.name);
    std::printf("\n|---|");
    for (std::size_t which = 0; which < kCandidateCount; ++which)
        std::printf("---|");
    std::printf("\n");

    const std::vector<Damage> damages = MakeDamages();
    for (const Damage& damage : damages) {
        std::string bytes = damage.builder.Build();
        if (damage.harm)
            damage.harm(bytes);
        PrintRow(damage.label, [&](const Candidate& candidate) {
            WriteFile(file.Path(), bytes);
            return Judge(candidate, damage, file.Path());
        });
    }

    PrintRow("each byte inverted: unnoticed and harmless / error / wrong names or data",
             [&](const Candidate& candidate) {
                 return CountFlips(candidate, file.Path(), damages.front(), damages.front().builder.Build());
             });

    ZipItem link = Item("/etc/../link", "target", 0);
    link.externalAttributes = 0120777u << 16;
    WriteFile(file.Path(), CZipBuilder({link}).Build());
    PrintRow("link named /etc/../link of mode 120777 is shown as", [&](const Candidate& candidate) {
        const auto reader = candidate.make();
        const std::string error = reader->Open(file.Path());
        return error.empty() ? reader->Names().at(0) + ", mode " + Octal(reader->Mode(0)) : "error: " + error;
    });
}

} // namespace

int main(int argc, char** argv)
{
    const wxInitializer initializer;
    if (!initializer.IsOk())
        Die("cannot initialise wxWidgets");
    wxLog::DontCreateOnDemand();

    if (argc == 2 && std::string(argv[1]) == "--damage")
        CompareDamage();
    else if (argc == 1)
        CompareSpeed();
    else
        Die("usage: ZipReaderBench [--damage]");
    return 0;
}

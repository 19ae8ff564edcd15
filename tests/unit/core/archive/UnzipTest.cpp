#include <VelCore/Unzip.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <wx/filefn.h>
#include <wx/filename.h>
#include <wx/log.h>
#include <wx/strconv.h>
#include <wx/zipstrm.h>

#include <VelCore/FileNames.h>
#include <VelCore/Utf8.h>

#include "archive/TemporaryName.h"
#include "support/Capture.h"
#include "support/TempFolder.h"
#include "support/ZipBuilder.h"

using VelCore::FromUtf8;
using VelCore::ToUtf8;
using VelTest::CZipBuilder;
using VelTest::Exists;
using VelTest::ModeOf;
using VelTest::ReadFile;
using VelTest::ZipItem;

namespace {

namespace fs = std::filesystem;

using Strings = std::vector<std::string>;

const unsigned kLink = 0120000;
const unsigned kFifo = 0010000;
const unsigned kDevice = 0020000;
const unsigned kFolder = 0040000;
const unsigned kFile = 0100000;

ZipItem File(const std::string& name, const std::string& content)
{
    ZipItem item;
    item.name = name;
    item.content = content;
    return item;
}

ZipItem WithMode(ZipItem item, unsigned mode)
{
    item.externalAttributes = static_cast<std::uint32_t>(mode) << 16;
    return item;
}

ZipItem Folder(const std::string& name, unsigned permissions = 0755)
{
    ZipItem item = WithMode(File(name, ""), kFolder | permissions);
    item.method = 0;
    return item;
}

ZipItem Link(const std::string& name, const std::string& target)
{
    return WithMode(File(name, target), kLink | 0777);
}

// An entry whose checksum is wrong.
ZipItem Damaged(ZipItem item)
{
    item.localCrc = item.directoryCrc = 1;
    return item;
}

// What no method makes smaller.
std::string Noise(std::size_t size)
{
    std::string noise;
    std::uint32_t state = 1;
    while (noise.size() < size) {
        state = state * 1664525 + 1013904223;
        noise += static_cast<char>(state >> 24);
    }
    return noise;
}

// Larger than what is inflated as a whole.
const std::size_t kLarge = 3000000;

// Everything below a folder, sorted: "a/", "a/file", "link@".
Strings Tree(const std::string& folder)
{
    Strings names;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const std::string name = entry.path().lexically_relative(folder).string();
        names.push_back(name + (entry.is_symlink() ? "@" : entry.is_directory() ? "/" : ""));
    }
    std::sort(names.begin(), names.end());
    return names;
}

// What a callback was told.
struct Call
{
    std::string internalName;
    std::string target;
    std::int64_t size;
    bool isFolder;
    int mode;
};

struct Calls
{
    std::vector<Call> calls;
    std::function<bool(const Call&)> wants = [](const Call&) { return true; };

    static bool Take(void* context, const wxZipEntry* entry, const wxString* target)
    {
        auto& self = *static_cast<Calls*>(context);
        self.calls.push_back(
            {ToUtf8(entry->GetInternalName()), ToUtf8(*target), entry->GetSize(), entry->IsDir(), entry->GetMode()});
        return self.wants(self.calls.back());
    }

    Strings Targets() const
    {
        Strings targets;
        for (const Call& call : calls)
            targets.push_back(call.target);
        return targets;
    }
};

// An archive "a.zip" and a folder "out" beside it.
class Unzip : public testing::Test
{
protected:
    void SetUp() override { m_box.MakeFolder("out"); }

    bool Unpack(const std::vector<ZipItem>& items) { return UnpackBytes(CZipBuilder(items).Build()); }

    bool UnpackBytes(const std::string& bytes)
    {
        const std::string archive = m_box.Write("a.zip", bytes);
        return VelCore::Unzip(wxFileName(FromUtf8(archive)), wxFileName::DirName(FromUtf8(m_out)), Calls::Take,
                              &m_calls);
    }

    std::string Out(const std::string& name) const { return m_out + "/" + name; }

    // The only record of errors.
    std::string Error() const
    {
        const Strings texts = m_log.Texts(wxLOG_Error);
        return texts.size() == 1 ? texts[0] : std::to_string(texts.size()) + " errors";
    }

    VelTest::CTempFolder m_box;
    std::string m_out = m_box / "out";
    VelTest::CLogCapture m_log;
    Calls m_calls;
};

// ---- the walk
// --------------------------------------------------------------------------------------------------------

TEST_F(Unzip, WritesFilesAndFoldersAndMissingFoldersOnTheWay)
{
    EXPECT_TRUE(Unpack({File("a", "first"), Folder("b/"), File("b/c", ""), File("d/e/f", "last")}));

    EXPECT_EQ((Strings{"a", "b/", "b/c", "d/", "d/e/", "d/e/f"}), Tree(m_out));
    EXPECT_EQ("first", ReadFile(Out("a")));
    EXPECT_EQ("", ReadFile(Out("b/c")));
    EXPECT_EQ("last", ReadFile(Out("d/e/f")));
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(Unzip, CallsOncePerEntryInTheArchivesOrder)
{
    EXPECT_TRUE(Unpack({File("z", "12345"), Folder("b/"), Link("link", "z"), File("b/c", ""), File("z", "1")}));

    EXPECT_EQ((Strings{Out("z"), Out("b"), Out("link"), Out("b/c"), Out("z")}), m_calls.Targets());
    EXPECT_EQ("z", m_calls.calls[0].internalName);
    EXPECT_EQ(5, m_calls.calls[0].size);
    EXPECT_FALSE(m_calls.calls[0].isFolder);
    EXPECT_EQ("b", m_calls.calls[1].internalName);
    EXPECT_TRUE(m_calls.calls[1].isFolder);
    EXPECT_EQ("b/c", m_calls.calls[3].internalName);
    EXPECT_EQ(0, m_calls.calls[3].size);
}

TEST_F(Unzip, CallsBeforeEachEntryIsWritten)
{
    m_calls.wants = [this](const Call& call) {
        EXPECT_FALSE(Exists(call.target));
        EXPECT_TRUE(call.target == Out("a") || Exists(Out("a")));
        return true;
    };

    EXPECT_TRUE(Unpack({File("a", "1"), File("b", "2")}));
}

TEST_F(Unzip, TellsTheSizeOfAnEntryBeyondFourGigabytes)
{
    ZipItem huge = File("huge", "");
    huge.zip64 = true;
    huge.directorySize = 5000000000;
    m_calls.wants = [](const Call&) { return false; };

    EXPECT_TRUE(Unpack({huge}));

    EXPECT_EQ(5000000000, m_calls.calls.at(0).size);
}

TEST_F(Unzip, TellsThePermissionsOfAnEntry)
{
    EXPECT_TRUE(Unpack({WithMode(File("a", ""), kFile | 0751), File("b", "")}));

    EXPECT_EQ(0751, m_calls.calls[0].mode & 0777);
    EXPECT_EQ(0644, m_calls.calls[1].mode & 0777);
}

TEST_F(Unzip, GoesOnAfterEntriesThatTheCallbackDoesNotWant)
{
    m_calls.wants = [](const Call& call) { return call.internalName == "b"; };

    EXPECT_TRUE(Unpack({File("a", "1"), Folder("d/"), File("b", "2"), File("c", "3")}));

    EXPECT_EQ(4u, m_calls.calls.size());
    EXPECT_EQ((Strings{"b"}), Tree(m_out));
}

TEST_F(Unzip, OfAnArchiveWithoutEntriesIsDoneAtOnce)
{
    EXPECT_TRUE(Unpack({}));

    EXPECT_TRUE(m_calls.calls.empty());
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(Unzip, ReportsAnArchiveWhoseDirectoryCannotBeRead)
{
    const std::string whole = CZipBuilder({File("a", "1")}).Build();

    EXPECT_FALSE(UnpackBytes(whole.substr(0, whole.size() - 30)));

    EXPECT_TRUE(m_calls.calls.empty());
    EXPECT_TRUE(Tree(m_out).empty());
    EXPECT_EQ(0u, Error().find("Archive '" + m_box / "a.zip" + "' cannot be unpacked: ")) << Error();
}

TEST_F(Unzip, ReportsAMissingArchive)
{
    const wxFileName archive(FromUtf8(m_box / "none.zip"));

    EXPECT_FALSE(VelCore::Unzip(archive, wxFileName::DirName(FromUtf8(m_out)), Calls::Take, &m_calls));

    EXPECT_EQ("Archive '" + m_box / "none.zip" + "' cannot be unpacked: cannot open: No such file or directory",
              Error());
}

// ---- a walk that removes
// ---------------------------------------------------------------------------------------------

TEST_F(Unzip, DoesNotLookAtTheDataOfEntriesThatAreNotWanted)
{
    ZipItem unreadable = Damaged(File("a", "1"));
    unreadable.localSignature = 0;
    ZipItem encrypted = File("b", "2");
    encrypted.flags = 1;
    ZipItem unknown = File("c", "3");
    unknown.method = 0;
    unknown.directoryMethod = 99;
    m_calls.wants = [](const Call&) { return false; };

    EXPECT_TRUE(Unpack({unreadable, encrypted, unknown, Link("link", "a"), WithMode(File("fifo", ""), kFifo)}));

    EXPECT_EQ(5u, m_calls.calls.size());
    EXPECT_TRUE(m_log.Records().empty());
    EXPECT_TRUE(Tree(m_out).empty());
}

TEST_F(Unzip, DoesNotCreateTheDestinationWhenNothingIsWanted)
{
    m_calls.wants = [](const Call&) { return false; };
    fs::remove(m_out);

    EXPECT_TRUE(Unpack({File("a", "1"), File("b/c", "2")}));

    EXPECT_EQ((Strings{Out("a"), Out("b/c")}), m_calls.Targets());
    EXPECT_FALSE(Exists(m_out));
}

// A marker may name what is long gone, or what something else has taken the place of.
TEST_F(Unzip, LetsEntriesBelowAFileOrInPlaceOfAFolderPassWhenTheyAreNotWanted)
{
    m_box.Write("out/file", "x");
    m_box.MakeFolder("out/folder");
    m_calls.wants = [](const Call&) { return false; };

    EXPECT_TRUE(Unpack({File("file/below", ""), File("folder", "")}));

    EXPECT_EQ(2u, m_calls.calls.size());
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(Unzip, RefusesAMarkerWhoseWayLeadsThroughALink)
{
    m_box.MakeFolder("elsewhere");
    m_box.Write("elsewhere/precious", "x");
    fs::create_symlink(m_box / "elsewhere", Out("link"));
    m_calls.wants = [](const Call& call) {
        wxRemoveFile(FromUtf8(call.target));
        return false;
    };

    EXPECT_FALSE(Unpack({File("link/precious", "")}));

    EXPECT_TRUE(Exists(m_box / "elsewhere/precious"));
}

// ---- archives that are refused
// ---------------------------------------------------------------------------------------

TEST_F(Unzip, RefusesNamesThatLeadElsewhereBeforeTheFirstCall)
{
    const std::pair<const char*, const char*> cases[] = {
        {"/etc/passwd", "the name is absolute"},   {"../a", "the name contains '..'"},
        {"a/../b", "the name contains '..'"},      {"a/..", "the name contains '..'"},
        {"a\\b", "the name contains a backslash"}, {"C:/a", "the name begins with a drive letter"},
    };
    for (const auto& [name, reason] : cases) {
        SCOPED_TRACE(name);
        VelTest::CLogCapture log;
        EXPECT_FALSE(Unpack({File("good", "1"), File(name, "2")}));
        EXPECT_TRUE(m_calls.calls.empty());
        EXPECT_TRUE(Tree(m_out).empty());
        const std::string shown = name == std::string("a\\b") ? "a\\b" : name;
        EXPECT_EQ((Strings{"Archive '" + m_box / "a.zip" + "' is refused: entry '" + shown + "': " + reason}),
                  log.Texts(wxLOG_Error));
    }
}

TEST_F(Unzip, RefusesLinksOnTheWayBeforeTheFirstCall)
{
    m_box.MakeFolder("out/real");
    fs::create_symlink(m_box.Path(), Out("outside"));
    fs::create_symlink(Out("real"), Out("inside"));
    fs::create_symlink("nowhere", Out("real/dangling"));
    for (const char* name :
         {"outside/a", "inside/a", "real/dangling/a", "real/dangling/b/c", "inside/", "real/dangling/"}) {
        SCOPED_TRACE(name);
        VelTest::CLogCapture log;
        EXPECT_FALSE(Unpack({File("good", "1"), name[std::strlen(name) - 1] == '/' ? Folder(name) : File(name, "2")}));
        EXPECT_TRUE(m_calls.calls.empty());
        EXPECT_FALSE(Exists(Out("good")));
        ASSERT_EQ(1u, log.Texts(wxLOG_Error).size());
        const std::string text = log.Texts(wxLOG_Error)[0];
        EXPECT_NE(std::string::npos, text.find("' is refused: entry '" + std::string(name) + "': '")) << text;
        EXPECT_NE(std::string::npos, text.find("' on the way is a symbolic link")) << text;
    }
}

TEST_F(Unzip, RefusesAFolderInPlaceOfALinkAlsoWithoutASlash)
{
    fs::create_symlink(m_box.Path(), Out("link"));

    EXPECT_FALSE(Unpack({WithMode(File("link", ""), kFolder | 0755)}));

    EXPECT_TRUE(m_calls.calls.empty());
}

TEST_F(Unzip, FollowsLinksInThePathOfTheDestination)
{
    fs::create_symlink(m_out, m_box / "link");
    m_out = m_box / "link";

    EXPECT_TRUE(Unpack({File("a/b", "1")}));

    EXPECT_EQ("1", ReadFile(m_box / "out/a/b"));
    EXPECT_EQ((Strings{m_box / "link/a/b"}), m_calls.Targets());
}

// ---- what stands in the way
// ------------------------------------------------------------------------------------------

TEST_F(Unzip, ReplacesALinkByTheFile)
{
    m_box.Write("elsewhere", "precious");
    fs::create_symlink(m_box / "elsewhere", Out("a"));
    fs::create_symlink("nowhere", Out("b"));

    EXPECT_TRUE(Unpack({File("a", "1"), File("b", "2")}));

    EXPECT_EQ((Strings{"a", "b"}), Tree(m_out));
    EXPECT_EQ("1", ReadFile(Out("a")));
    EXPECT_EQ("precious", ReadFile(m_box / "elsewhere"));
}

TEST_F(Unzip, LeavesTheOtherNameOfAReplacedFileAlone)
{
    m_box.Write("out/a", "old");
    fs::create_hard_link(Out("a"), m_box / "other");

    EXPECT_TRUE(Unpack({File("a", "new")}));

    EXPECT_EQ("new", ReadFile(Out("a")));
    EXPECT_EQ("old", ReadFile(m_box / "other"));
}

TEST_F(Unzip, ReplacesFifosSocketsAndDevicesWithoutOpeningThem)
{
    ASSERT_EQ(0, mkfifo(Out("fifo").c_str(), 0600));
    const int socketDescriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(Out("socket").size(), sizeof address.sun_path);
    Out("socket").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(0, bind(socketDescriptor, reinterpret_cast<sockaddr*>(&address), sizeof address));
    close(socketDescriptor);
    std::vector<ZipItem> items = {File("fifo", "1"), File("socket", "2")};
    if (mknod(Out("device").c_str(), S_IFCHR | 0600, 1 << 8 | 3) == 0)
        items.push_back(File("device", "3"));

    EXPECT_TRUE(Unpack(items));

    for (const ZipItem& item : items) {
        EXPECT_TRUE(fs::is_regular_file(Out(item.name))) << item.name;
        EXPECT_EQ(item.content, ReadFile(Out(item.name)));
    }
}

TEST_F(Unzip, ReplacesARunningProgram)
{
    fs::copy_file("/bin/sleep", Out("program"));
    const pid_t child = fork();
    if (child == 0) {
        execl(Out("program").c_str(), "program", "60", nullptr);
        _exit(127);
    }
    const auto isRunning = [&] {
        std::error_code error;
        return fs::read_symlink("/proc/" + std::to_string(child) + "/exe", error) == Out("program");
    };
    while (!isRunning())
        ASSERT_EQ(0, waitpid(child, nullptr, WNOHANG));

    EXPECT_TRUE(Unpack({File("program", "new")}));

    EXPECT_EQ("new", ReadFile(Out("program")));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(Unzip, StopsAtAFileInPlaceOfAFolderOnTheDisk)
{
    m_box.Write("out/folder/inner", "x");

    EXPECT_FALSE(Unpack({File("folder", "1"), File("never", "2")}));

    EXPECT_EQ((Strings{"folder/", "folder/inner"}), Tree(m_out));
    EXPECT_EQ("Archive '" + m_box / "a.zip" +
                  "' cannot be unpacked: entry 'folder': cannot put the file in place: Is a directory",
              Error());
}

TEST_F(Unzip, StopsAtEntriesBelowAFile)
{
    m_box.Write("out/file", "x");
    for (const std::string name : {"file/below", "file/", "file/deeper/below"}) {
        SCOPED_TRACE(name);
        VelTest::CLogCapture log;
        EXPECT_FALSE(Unpack({name.back() == '/' ? Folder(name) : File(name, "1"), File("never", "2")}));
        EXPECT_EQ((Strings{"file"}), Tree(m_out));
        EXPECT_EQ((Strings{"Archive '" + m_box / "a.zip" + "' cannot be unpacked: entry '" + name +
                           "': 'file' is there and is not a folder"}),
                  log.Texts(wxLOG_Error));
    }
}

TEST_F(Unzip, ReportsADestinationThatIsAFile)
{
    fs::remove(m_out);
    m_box.Write("out", "x");

    EXPECT_FALSE(Unpack({File("a", "1")}));

    EXPECT_EQ("Archive '" + m_box / "a.zip" + "' cannot be unpacked: cannot open the folder: Not a directory", Error());
}

// ---- entries that are not created
// ------------------------------------------------------------------------------------

TEST_F(Unzip, LeavesOutSpecialEntriesWithAWarning)
{
    EXPECT_TRUE(Unpack({Link("link", "/etc/passwd"), WithMode(File("fifo", ""), kFifo | 0644),
                        WithMode(File("device", ""), kDevice | 0600), File("a", "1")}));

    EXPECT_EQ((Strings{"a"}), Tree(m_out));
    const Strings warnings = m_log.Texts(wxLOG_Warning);
    ASSERT_EQ(3u, warnings.size());
    EXPECT_EQ("Archive '" + m_box / "a.zip" +
                  "': entry 'link': is a link or another special file, which is not created",
              warnings[0]);
    EXPECT_EQ(4u, m_calls.calls.size());
}

TEST_F(Unzip, PutsAFileBelowALinkThatWasLeftOutIntoARealFolder)
{
    m_box.MakeFolder("elsewhere");

    EXPECT_TRUE(Unpack({Link("a", m_box / "elsewhere"), File("a/b", "1")}));

    EXPECT_EQ((Strings{"a/", "a/b"}), Tree(m_out));
    EXPECT_TRUE(Tree(m_box / "elsewhere").empty());
}

TEST_F(Unzip, LeavesALinkOnTheDiskAloneWhenTheEntryIsALinkToo)
{
    fs::create_symlink("target", Out("link"));

    EXPECT_TRUE(Unpack({Link("link", "other")}));

    EXPECT_EQ("target", fs::read_symlink(Out("link")));
}

// ---- duplicates
// ------------------------------------------------------------------------------------------------------

TEST_F(Unzip, KeepsTheLastOfDuplicates)
{
    EXPECT_TRUE(Unpack({WithMode(File("a", "first"), kFile | 0600), File("b", ""), File("./a", "second"),
                        WithMode(File("a", "last"), kFile | 0640)}));

    EXPECT_EQ((Strings{"a", "b"}), Tree(m_out));
    EXPECT_EQ("last", ReadFile(Out("a")));
    EXPECT_EQ(0640u, ModeOf(Out("a")));
    EXPECT_EQ((Strings{Out("a"), Out("b"), Out("a"), Out("a")}), m_calls.Targets());
}

// ---- damage
// ----------------------------------------------------------------------------------------------------------

TEST_F(Unzip, StopsAtTheFirstDamagedEntryWhichLeavesNothing)
{
    m_box.Write("out/damaged", "old");

    EXPECT_FALSE(Unpack({File("a", "1"), Damaged(File("damaged", "2")), File("b", "3")}));

    EXPECT_EQ((Strings{"a", "damaged"}), Tree(m_out));
    EXPECT_EQ("old", ReadFile(Out("damaged")));
    EXPECT_EQ(2u, m_calls.calls.size());
    EXPECT_EQ("Archive '" + m_box / "a.zip" + "' cannot be unpacked: entry 'damaged': the checksum does not match",
              Error());
}

TEST_F(Unzip, LeavesNothingOfADamagedLargeEntry)
{
    EXPECT_FALSE(Unpack({File("a", "1"), Damaged(File("folder/damaged", Noise(kLarge)))}));

    EXPECT_EQ((Strings{"a"}), Tree(m_out));
    EXPECT_EQ("Archive '" + m_box / "a.zip" +
                  "' cannot be unpacked: entry 'folder/damaged': the checksum does not match",
              Error());
}

TEST_F(Unzip, TakesLocalHeadersThatContradictTheDirectoryForDamage)
{
    ZipItem name = File("name", "1");
    name.localName = "Name";
    ZipItem method = File("method", "1");
    method.localMethod = 0;
    ZipItem size = File("size", "1");
    size.localSize = 2;
    ZipItem folder = Folder("folder/");
    folder.localName = "holder/";
    ZipItem large = File("large", Noise(kLarge));
    large.localSize = 2;
    for (const ZipItem& item : {name, method, size, folder, large}) {
        SCOPED_TRACE(item.name);
        VelTest::CLogCapture log;
        EXPECT_FALSE(Unpack({item}));
        EXPECT_TRUE(Tree(m_out).empty());
        ASSERT_EQ(1u, log.Texts(wxLOG_Error).size());
        EXPECT_NE(std::string::npos, log.Texts(wxLOG_Error)[0].find("the local header contradicts the directory"));
    }
}

TEST_F(Unzip, RefusesToUnpackWhatItCannotRead)
{
    ZipItem encrypted = File("encrypted", "1");
    encrypted.flags = 1;
    ZipItem method = File("method", "1");
    method.localMethod = method.directoryMethod = 12;
    ZipItem largeMethod = File("large", Noise(kLarge));
    largeMethod.localMethod = largeMethod.directoryMethod = 12;
    ZipItem folder = File("folder/", "content");
    const std::pair<ZipItem, const char*> cases[] = {
        {encrypted, "the entry is encrypted"},
        {method, "unsupported compression method 12"},
        {largeMethod, "unsupported compression method 12"},
        {folder, "is a folder, but has content"},
    };
    for (const auto& [item, reason] : cases) {
        SCOPED_TRACE(item.name);
        VelTest::CLogCapture log;
        EXPECT_FALSE(Unpack({item}));
        EXPECT_TRUE(Tree(m_out).empty());
        EXPECT_EQ(
            (Strings{"Archive '" + m_box / "a.zip" + "' cannot be unpacked: entry '" + item.name + "': " + reason}),
            log.Texts(wxLOG_Error));
    }
}

TEST_F(Unzip, StopsAtTheDeclaredSizeOfABomb)
{
    ZipItem bomb = File("bomb", std::string(50000000, 'x'));
    bomb.localSize = bomb.directorySize = kLarge;

    EXPECT_FALSE(Unpack({bomb}));

    EXPECT_TRUE(Tree(m_out).empty());
    EXPECT_EQ("Archive '" + m_box / "a.zip" + "' cannot be unpacked: entry 'bomb': the content is longer than declared",
              Error());
}

// ---- every form of data
// ----------------------------------------------------------------------------------------------

TEST_F(Unzip, ReadsEveryFormOfData)
{
    for (const std::size_t size : {std::size_t(0), std::size_t(10), std::size_t(0x100000), kLarge}) {
        for (const std::uint16_t method : {std::uint16_t(0), std::uint16_t(8)}) {
            for (const bool zip64 : {false, true}) {
                for (const bool descriptor : {false, true}) {
                    ZipItem item = File("a", Noise(size));
                    item.method = method;
                    item.zip64 = zip64;
                    item.dataDescriptor = descriptor;
                    EXPECT_TRUE(Unpack({item})) << size << " " << method << " " << zip64 << " " << descriptor;
                    EXPECT_TRUE(item.content == ReadFile(Out("a")));
                }
            }
        }
    }
}

// ---- permissions
// -----------------------------------------------------------------------------------------------------

// The umask of a test, and the one before it again.
class CUmask
{
public:
    explicit CUmask(mode_t mask) : m_before(umask(mask)) {}
    ~CUmask() { umask(m_before); }
    CUmask(const CUmask&) = delete;
    CUmask& operator=(const CUmask&) = delete;

private:
    mode_t m_before;
};

TEST_F(Unzip, KeepsThePermissionsOfEntriesWhateverTheUmask)
{
    for (const mode_t mask : {mode_t(077), mode_t(022), mode_t(0)}) {
        const CUmask umask(mask);
        const std::string folder = "with_umask_" + std::to_string(mask) + "/";
        EXPECT_TRUE(Unpack({Folder(folder, 0775), WithMode(File(folder + "open", ""), kFile | 0666),
                            WithMode(File(folder + "program", ""), kFile | 0755),
                            WithMode(File(folder + "secret", ""), kFile | 0400),
                            WithMode(File(folder + "none", ""), kFile), File(folder + "unset/file", "")}));

        EXPECT_EQ(0775u, ModeOf(Out(folder)));
        EXPECT_EQ(0666u, ModeOf(Out(folder + "open")));
        EXPECT_EQ(0755u, ModeOf(Out(folder + "program")));
        EXPECT_EQ(0400u, ModeOf(Out(folder + "secret")));
        EXPECT_EQ(0u, ModeOf(Out(folder + "none")));
        EXPECT_EQ(0755u, ModeOf(Out(folder + "unset")));
        EXPECT_EQ(0644u, ModeOf(Out(folder + "unset/file")));
    }
}

TEST_F(Unzip, GivesTheUsualPermissionsWhenTheArchiveCarriesNone)
{
    const CUmask umask(077);
    ZipItem file = File("file", "");
    ZipItem folder = Folder("folder/");
    file.madeBy = folder.madeBy = 0; // DOS
    file.externalAttributes = folder.externalAttributes = 0;

    EXPECT_TRUE(Unpack({file, folder}));

    EXPECT_EQ(0644u, ModeOf(Out("file")));
    EXPECT_EQ(0755u, ModeOf(Out("folder")));
}

TEST_F(Unzip, DropsSetUserIdSetGroupIdAndStickyBits)
{
    EXPECT_TRUE(Unpack({WithMode(File("file", ""), kFile | 07755), Folder("folder/", 07777), File("folder/a", "")}));

    EXPECT_EQ(0755u, ModeOf(Out("file")));
    EXPECT_EQ(0777u, ModeOf(Out("folder")));
}

TEST_F(Unzip, LeavesThePermissionsOfAFolderThatWasThereBefore)
{
    m_box.MakeFolder("out/folder");
    ASSERT_EQ(0, chmod(Out("folder").c_str(), 01750));

    EXPECT_TRUE(Unpack({Folder("folder/", 0777), File("folder/a", "")}));

    EXPECT_EQ(01750u, ModeOf(Out("folder")));
}

TEST_F(Unzip, GivesAFolderItsPermissionsAlsoWhenItsFilesComeFirst)
{
    EXPECT_TRUE(Unpack({File("folder/a", ""), Folder("folder/", 0700)}));

    EXPECT_EQ(0700u, ModeOf(Out("folder")));
}

TEST_F(Unzip, GivesAFolderThePermissionsOfItsLastEntry)
{
    EXPECT_TRUE(
        Unpack({Folder("closed/", 0755), Folder("closed/", 0500), Folder("open/", 0500), Folder("open/", 0755)}));

    EXPECT_EQ(0500u, ModeOf(Out("closed")));
    EXPECT_EQ(0755u, ModeOf(Out("open")));
}

// Runs `work` in a process of its own, as a user without privileges who owns the folder; whether it answered true.
bool AsNobody(const std::string& folder, const std::function<bool()>& work)
{
    const uid_t nobody = 65534;
    if (geteuid() == 0) {
        for (const auto& entry : fs::recursive_directory_iterator(folder))
            EXPECT_EQ(0, lchown(entry.path().c_str(), nobody, nobody));
        EXPECT_EQ(0, chown(folder.c_str(), nobody, nobody));
    }
    const pid_t child = fork();
    if (child == 0) {
        if (geteuid() == 0 && (setgid(nobody) != 0 || setuid(nobody) != 0))
            _exit(2);
        _exit(work() ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) < 2) << status;
    return status == 0;
}

TEST_F(Unzip, FillsAFolderThatIsNotForItsOwnerToWriteInto)
{
    const std::vector<ZipItem> items = {Folder("folder/", 0555), Folder("folder/inner/", 0),
                                        File("folder/inner/a", "1"), File("folder/b", "2")};
    m_box.Write("a.zip", ""); // for the owner of everything to fill

    EXPECT_TRUE(AsNobody(m_box.Path(), [&] { return Unpack(items); }));

    EXPECT_EQ(0555u, ModeOf(Out("folder")));
    EXPECT_EQ(0u, ModeOf(Out("folder/inner")));
    ASSERT_EQ(0, chmod(Out("folder/inner").c_str(), 0755)); // for those who are not root
    ASSERT_EQ(0, chmod(Out("folder").c_str(), 0755));
    EXPECT_EQ("1", ReadFile(Out("folder/inner/a")));
    EXPECT_EQ("2", ReadFile(Out("folder/b")));
}

TEST_F(Unzip, StopsAtAFolderThatItMayNotWriteInto)
{
    m_box.MakeFolder("out/folder");
    ASSERT_EQ(0, chmod(Out("folder").c_str(), 0555));
    m_box.Write("a.zip", "");

    EXPECT_TRUE(AsNobody(m_box.Path(), [&] {
        return !Unpack({File("a", "1"), File("folder/b", "2")}) &&
               Error() == "Archive '" + m_box / "a.zip" +
                              "' cannot be unpacked: entry 'folder/b': cannot create a file: Permission denied";
    }));

    EXPECT_EQ((Strings{"a", "folder/"}), Tree(m_out));
}

TEST_F(Unzip, RefusesAnArchiveWhenItMayNotLookForLinks)
{
    m_box.MakeFolder("out/folder/inner");
    ASSERT_EQ(0, chmod(Out("folder").c_str(), 0));
    m_box.Write("a.zip", "");

    EXPECT_TRUE(AsNobody(m_box.Path(), [&] {
        return !Unpack({File("a", "1"), File("folder/inner/b", "2")}) && m_calls.calls.empty() &&
               Error() == "Archive '" + m_box / "a.zip" +
                              "' is refused: entry 'folder/inner/b': cannot look at 'folder/inner' on the way: "
                              "Permission denied";
    }));

    ASSERT_EQ(0, chmod(Out("folder").c_str(), 0755)); // for the listing
    EXPECT_EQ((Strings{"folder/", "folder/inner/"}), Tree(m_out));
}

// ---- names
// -----------------------------------------------------------------------------------------------------------

TEST_F(Unzip, WritesNamesAsLongAsNamesCanBe)
{
    const std::string longest(255, 'n');

    EXPECT_TRUE(Unpack({File(longest, "1"), File(std::string(255, 'f') + "/" + longest, "3")}));

    EXPECT_EQ("1", ReadFile(Out(longest)));
    EXPECT_EQ("3", ReadFile(Out(std::string(255, 'f') + "/" + longest)));
}

TEST_F(Unzip, RefusesNamesThatAreLonger)
{
    EXPECT_FALSE(Unpack({File("a", ""), File(std::string(256, 'n'), "1")}));

    EXPECT_TRUE(m_calls.calls.empty());
    EXPECT_NE(std::string::npos, Error().find("': a part of the name is too long")) << Error();
}

TEST_F(Unzip, KeepsTheBytesOfNamesInEveryLocale)
{
    wxMBConv* const conversionBefore = wxConvFileName;
    VelCore::UseUtf8FileNames();
    const std::string localeBefore = std::setlocale(LC_ALL, nullptr);
    for (const char* locale : {"C", "C.UTF-8"}) {
        std::setlocale(LC_ALL, locale);
        m_calls.calls.clear();
        for (const std::string name :
             {"caf\xC3\xA9", "caf\xE9", "\xE2\x82\xAC \xF0\x9F\x98\x80", "line\nfeed", "a b*?"}) {
            SCOPED_TRACE(name);
            EXPECT_TRUE(Unpack({File(name + "/" + name, name)}));
            EXPECT_EQ(name, ReadFile(Out(name + "/" + name)));
            // What the callback was given leads the framework to the same file.
            EXPECT_EQ(Out(name + "/" + name), m_calls.calls.back().target);
            EXPECT_TRUE(wxRemoveFile(FromUtf8(m_calls.calls.back().target)));
            EXPECT_FALSE(Exists(Out(name + "/" + name)));
        }
    }
    std::setlocale(LC_ALL, localeBefore.c_str());
    wxConvFileName = conversionBefore;
}

TEST_F(Unzip, ShowsOddNamesEscaped)
{
    EXPECT_FALSE(Unpack({File("../\xFF\n", "")}));

    EXPECT_EQ("Archive '" + m_box / "a.zip" + "' is refused: entry '../\\xFF\\x0A': the name contains '..'", Error());
}

TEST_F(Unzip, TakesPartsOfNamesThatMeanNothingAway)
{
    EXPECT_TRUE(Unpack({Folder("./"), File("./a", "1"), File("b//c", "2"), File("d/./e", "3"), Folder("f//")}));

    EXPECT_EQ((Strings{"a", "b/", "b/c", "d/", "d/e", "f/"}), Tree(m_out));
    EXPECT_EQ((Strings{m_out, Out("a"), Out("b/c"), Out("d/e"), Out("f")}), m_calls.Targets());
}

// ---- the destination
// -------------------------------------------------------------------------------------------------

TEST_F(Unzip, CreatesTheDestination)
{
    const CUmask umask(077);
    m_out = m_box / "out/deep/er";

    EXPECT_TRUE(Unpack({File("a", "1")}));

    EXPECT_EQ("1", ReadFile(Out("a")));
    EXPECT_EQ(0755u, ModeOf(m_out));
}

TEST_F(Unzip, TakesADestinationThatIsRelative)
{
    const fs::path before = fs::current_path();
    fs::current_path(m_box.Path());
    m_box.Write("a.zip", CZipBuilder({File("a", "1")}).Build());

    EXPECT_TRUE(VelCore::Unzip(wxFileName(L"a.zip"), wxFileName::DirName(L"out"), Calls::Take, &m_calls));

    fs::current_path(before);
    EXPECT_EQ("1", ReadFile(Out("a")));
    EXPECT_EQ((Strings{"out/a"}), m_calls.Targets());
}

TEST_F(Unzip, ReplacesTheArchiveItself)
{
    const std::string archive =
        m_box.Write("out/self.zip", CZipBuilder({File("self.zip", "new"), File("large", Noise(100000))}).Build());

    EXPECT_TRUE(
        VelCore::Unzip(wxFileName(FromUtf8(archive)), wxFileName::DirName(FromUtf8(m_out)), Calls::Take, &m_calls));

    EXPECT_EQ("new", ReadFile(archive));
    EXPECT_TRUE(Noise(100000) == ReadFile(Out("large")));
}

// ---- a full disk
// -----------------------------------------------------------------------------------------------------

// The limit on the size of files stands in for a full disk: writing fails half-way with an error.
class CFileSizeLimit
{
public:
    explicit CFileSizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit = {bytes, m_before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
        m_handler = signal(SIGXFSZ, SIG_IGN);
    }
    ~CFileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_before);
        signal(SIGXFSZ, m_handler);
    }
    CFileSizeLimit(const CFileSizeLimit&) = delete;
    CFileSizeLimit& operator=(const CFileSizeLimit&) = delete;

private:
    rlimit m_before = {};
    void (*m_handler)(int);
};

TEST_F(Unzip, LeavesNothingOfAFileThatCannotBeWritten)
{
    m_box.Write("out/large", "old");
    for (const std::size_t size : {std::size_t(200000), kLarge}) {
        SCOPED_TRACE(size);
        VelTest::CLogCapture log;
        m_calls.calls.clear();
        m_calls.wants = [](const Call&) { return true; };
        const std::string archive = m_box.Write(
            "a.zip",
            CZipBuilder({File("a", "1"), File("large", Noise(size)), File("b", "2"), File("folder/large", Noise(size))})
                .Build());
        {
            const CFileSizeLimit limit(100000);
            EXPECT_FALSE(VelCore::Unzip(wxFileName(FromUtf8(archive)), wxFileName::DirName(FromUtf8(m_out)),
                                        Calls::Take, &m_calls));
            m_calls.wants = [](const Call& call) { return call.internalName == "folder/large"; };
            EXPECT_FALSE(VelCore::Unzip(wxFileName(FromUtf8(archive)), wxFileName::DirName(FromUtf8(m_out)),
                                        Calls::Take, &m_calls));
        }
        EXPECT_EQ((Strings{"a", "large"}), Tree(m_out));
        EXPECT_EQ("old", ReadFile(Out("large")));
        EXPECT_EQ((Strings{"Archive '" + archive + "' cannot be unpacked: entry 'large': cannot write: File too large",
                           "Archive '" + archive +
                               "' cannot be unpacked: entry 'folder/large': cannot write: File too large"}),
                  log.Texts(wxLOG_Error));
    }
}

// What is mounted from now on, only this process sees. A changed root is no mount, so there it cannot be told so.
bool TakeMountsAlone()
{
    return unshare(CLONE_NEWNS) == 0 &&
           (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 || errno == EINVAL);
}

bool MountSmall(const std::string& folder)
{
    return TakeMountsAlone() && mount("none", folder.c_str(), "tmpfs", 0, "size=1m") == 0;
}

TEST_F(Unzip, LeavesNothingHalfWrittenOnAFullDisk)
{
    const std::string large = Noise(kLarge);
    const pid_t child = fork();
    if (child == 0) {
        if (!MountSmall(m_out))
            _exit(2);
        const bool failed = !Unpack({File("a", "1"), File("folder/large", large), File("b", "2")});
        const bool isClean = Tree(m_out) == Strings{"a"};
        const bool isReported = Error() == "Archive '" + m_box / "a.zip" +
                                               "' cannot be unpacked: entry 'folder/large': cannot write: "
                                               "No space left on device";
        _exit(failed && isClean && isReported ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

// The part below the mount is a file system of its own, which has to be brought to the disk as well.
TEST_F(Unzip, WritesAcrossFileSystems)
{
    m_box.MakeFolder("out/mounted");
    const pid_t child = fork();
    if (child == 0) {
        if (!MountSmall(Out("mounted")))
            _exit(2);
        const bool unpacked = Unpack({File("a", "1"), File("mounted/b", "2"), File("c", "3")});
        _exit(unpacked && ReadFile(Out("mounted/b")) == "2" && ReadFile(Out("c")) == "3" ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

// ---- what a crash leaves
// ---------------------------------------------------------------------------------------------

TEST_F(Unzip, RemovesWhatACrashLeftAlsoWhenNothingIsWritten)
{
    m_box.MakeFolder("out/sub");
    m_box.MakeFolder("out/sub/deeper");
    m_box.MakeFolder("elsewhere");
    for (const char* folder : {"out/", "out/sub/deeper/", "elsewhere/"})
        m_box.Write(folder + VelCore::TemporaryName(7), "half");
    ASSERT_EQ(0, symlink("../elsewhere", Out("link").c_str()));
    m_calls.wants = [](const Call&) { return false; };

    EXPECT_TRUE(Unpack({File("a", "1")}));

    EXPECT_EQ((Strings{"link@", "sub/", "sub/deeper/"}), Tree(m_out));
    EXPECT_TRUE(Exists(m_box / ("elsewhere/" + VelCore::TemporaryName(7))));
}

TEST_F(Unzip, RefusesNamesThatNoSystemCallTakesBelowTheDestination)
{
    std::string name;
    while (name.size() < 4090)
        name += "abcdefghi/";
    name.back() = 'x';
    EXPECT_FALSE(Unpack({File("a", "1"), File(name.substr(0, 4090), "2")}));
    EXPECT_EQ((Strings{}), Tree(m_out));
}

TEST_F(Unzip, RemovesWhatACrashLeftInEveryFolder)
{
    const std::string name = VelCore::TemporaryName(0x123456789ABCDEF0);
    m_box.Write("out/" + name, "half");
    m_box.Write("out/folder/" + name, "half");
    m_box.Write("out/other/" + name, "half");

    EXPECT_TRUE(Unpack({File("a", "1"), File("folder/b", "2")}));

    EXPECT_EQ((Strings{"a", "folder/", "folder/b", "other/"}), Tree(m_out));
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(Unzip, RemovesWhatACrashLeftAlsoWhenTheArchiveIsRefusedOrUnreadable)
{
    m_box.Write("out/folder/" + VelCore::TemporaryName(7), "half");
    EXPECT_FALSE(Unpack({File("../a", "1")}));
    EXPECT_EQ((Strings{"folder/"}), Tree(m_out));

    m_box.Write("out/folder/" + VelCore::TemporaryName(7), "half");
    EXPECT_FALSE(VelCore::Unzip(wxFileName(FromUtf8(m_box / "missing.zip")), wxFileName::DirName(FromUtf8(m_out)),
                                Calls::Take, &m_calls));
    EXPECT_EQ((Strings{"folder/"}), Tree(m_out));
}

TEST_F(Unzip, LeavesNothingUnfinishedWhenItIsKilledAndRunAgain)
{
    const std::string large = Noise(kLarge);
    const pid_t child = fork();
    if (child == 0) {
        const rlimit none = {0, 0};
        const rlimit limit = {kLarge / 2, kLarge * 2}; // crossing it kills
        if (setrlimit(RLIMIT_CORE, &none) != 0 || chdir(m_box.Path().c_str()) != 0)
            _exit(2);
        m_box.Write("a.zip", CZipBuilder({File("a", "1"), File("large", large)}).Build());
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(VelCore::Unzip(wxFileName(L"a.zip"), wxFileName::DirName(L"out"), Calls::Take, &m_calls) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
    const Strings left = Tree(m_out);
    ASSERT_EQ(2u, left.size());
    EXPECT_TRUE(VelCore::IsTemporaryName(left[0])) << left[0];

    EXPECT_TRUE(Unpack({File("a", "2")}));

    EXPECT_EQ((Strings{"a"}), Tree(m_out));
    EXPECT_EQ("2", ReadFile(Out("a")));
}

TEST_F(Unzip, RefusesNamesThatUnfinishedFilesHave)
{
    EXPECT_FALSE(Unpack({File("a", "1"), File(VelCore::TemporaryName(1), "2")}));

    EXPECT_TRUE(m_calls.calls.empty());
}

} // namespace

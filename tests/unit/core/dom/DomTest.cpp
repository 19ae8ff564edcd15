#include <VelCore/Dom.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <VelCore/Utf8.h>

#include "support/RootDomain.h"
#include "support/TempFolder.h"

using VelCore::CDom;
using VelCore::CDomValue;
using VelTest::NewDomain;
using VelTest::NewRootDomain;

using Names = std::vector<std::string>;

namespace {

std::unique_ptr<CDom> ViewOf(CDom& parent, const char* name, bool* existed = nullptr)
{
    return std::unique_ptr<CDom>(CDom::New(name, &parent, existed, true));
}

template <typename Kind>
Kind ReadAs(const CDom& dom, const std::string& key)
{
    CDomValue value;
    EXPECT_TRUE(dom.Read(key, value)) << key;
    EXPECT_TRUE(std::holds_alternative<Kind>(value)) << key << " has kind " << value.index();
    return std::holds_alternative<Kind>(value) ? std::get<Kind>(value) : Kind();
}

TEST(Dom, EachSetterHasItsKind)
{
    const auto dom = NewDomain();
    dom->Set("bool", true);
    dom->Set("literal", "text");
    dom->Set("string", std::string("te\0xt", 5));
    dom->Set("double", 2.5);
    dom->Set("int", 7);
    dom->Set("unsigned", 8u);
    dom->Set("short", static_cast<short>(-9));
    dom->Set("64", std::int64_t{1} << 62);
    dom->SetWx(L"wide", wxString(L"caf\x00E9"));
    dom->SetWx(L"wide number", -5LL);

    EXPECT_TRUE(ReadAs<bool>(*dom, "bool"));
    EXPECT_EQ("text", ReadAs<std::string>(*dom, "literal"));
    EXPECT_EQ(std::string("te\0xt", 5), ReadAs<std::string>(*dom, "string"));
    EXPECT_EQ(2.5, ReadAs<double>(*dom, "double"));
    EXPECT_EQ(7, ReadAs<std::int64_t>(*dom, "int"));
    EXPECT_EQ(8, ReadAs<std::int64_t>(*dom, "unsigned"));
    EXPECT_EQ(-9, ReadAs<std::int64_t>(*dom, "short"));
    EXPECT_EQ(std::int64_t{1} << 62, ReadAs<std::int64_t>(*dom, "64"));
    EXPECT_EQ("caf\xC3\xA9", ReadAs<std::string>(*dom, "wide"));
    EXPECT_EQ(-5, ReadAs<std::int64_t>(*dom, "wide number"));
}

template <typename Value, typename = void>
constexpr bool k_CanBeSet = false;

template <typename Value>
constexpr bool k_CanBeSet<Value, std::void_t<decltype(std::declval<CDom&>().Set("key", std::declval<Value>()))>> = true;

TEST(Dom, AWideTextIsNotTakenForABoolean)
{
    EXPECT_TRUE(k_CanBeSet<const char*>);
    EXPECT_TRUE(k_CanBeSet<char*>);
    EXPECT_TRUE(k_CanBeSet<std::nullptr_t>);
    EXPECT_TRUE(k_CanBeSet<decltype(wxString().utf8_str())>);
    EXPECT_TRUE(k_CanBeSet<bool>);
    EXPECT_FALSE(k_CanBeSet<wxString>);
    EXPECT_FALSE(k_CanBeSet<const wxString&>);
    EXPECT_FALSE(k_CanBeSet<const wchar_t*>);
    EXPECT_FALSE(k_CanBeSet<wchar_t*>);
    EXPECT_FALSE(k_CanBeSet<const wchar_t(&)[5]>);
}

TEST(Dom, ANullTextIsEmpty)
{
    const auto dom = NewDomain();
    dom->Set("key", static_cast<const char*>(nullptr));
    EXPECT_EQ("", ReadAs<std::string>(*dom, "key"));
    dom->Set("literal", nullptr);
    EXPECT_EQ("", ReadAs<std::string>(*dom, "literal"));
}

TEST(Dom, AWriteReplacesValueAndKind)
{
    const auto dom = NewDomain();
    dom->Set("key", 1);
    dom->Set("key", "one");
    EXPECT_EQ("one", ReadAs<std::string>(*dom, "key"));
    dom->Set("key", false);
    EXPECT_FALSE(ReadAs<bool>(*dom, "key"));
    EXPECT_EQ(Names{"key"}, dom->Keys(""));
}

TEST(Dom, AnAbsentNameIsNoValue)
{
    const auto dom = NewDomain();
    CDomValue value = std::int64_t{42};
    bool flag = true;

    EXPECT_FALSE(dom->Has("key"));
    EXPECT_EQ("", dom->Get("key"));
    EXPECT_EQ(L"", dom->GetWxString(L"key"));
    EXPECT_FALSE(dom->Read("key", value));
    EXPECT_EQ(42, std::get<std::int64_t>(value));
    EXPECT_FALSE(dom->Get("key", flag));
    EXPECT_TRUE(flag);
    flag = false;
    EXPECT_FALSE(dom->Get("key", flag));
    EXPECT_FALSE(flag);
}

TEST(Dom, AnEmptyStringIsAValue)
{
    const auto dom = NewDomain();
    bool flag = true;
    dom->Set("key", "");
    EXPECT_TRUE(dom->Has("key"));
    EXPECT_TRUE(dom->Get("key", flag));
    EXPECT_FALSE(flag);
}

TEST(Dom, ARemovedNameIsAbsent)
{
    const auto dom = NewDomain();
    dom->Set("key", 1);
    dom->Remove("key");
    EXPECT_FALSE(dom->Has("key"));
    EXPECT_TRUE(dom->Keys("").empty());
    dom->Remove("key"); // once more is no harm
    EXPECT_FALSE(dom->Has("key"));
}

TEST(Dom, TextIsGivenForEveryKind)
{
    const auto dom = NewDomain();
    dom->Set("b", true);
    dom->Set("i", -3);
    dom->Set("d", 0.25);
    dom->Set("s", "caf\xC3\xA9");
    EXPECT_EQ("true", dom->Get("b"));
    EXPECT_EQ("-3", dom->Get("i"));
    EXPECT_EQ("0.25", dom->Get("d"));
    EXPECT_EQ(L"caf\x00E9", dom->GetWxString(L"s"));
}

TEST(Dom, BytesThatAreNotUtf8SurviveTheWideInterface)
{
    const auto dom = NewDomain();
    const wxString name = VelCore::FromUtf8("k\xFF");
    dom->SetWx(name, VelCore::FromUtf8("v\xFE"));
    EXPECT_EQ("v\xFE", dom->Get("k\xFF"));
    EXPECT_EQ("v\xFE", VelCore::ToUtf8(dom->GetWxString(name)));
}

TEST(Dom, KeysListsTheNameItselfAndWhatLiesBelow)
{
    const auto dom = NewDomain();
    for (const char* key : {"app.name", "app", "apparatus", "app.lua.path", "app-x", "ap", "b", "App.name"})
        dom->Set(key, 1);
    EXPECT_EQ((Names{"app", "app.lua.path", "app.name"}), dom->Keys("app"));
    EXPECT_EQ((Names{"app.lua.path"}), dom->Keys("app.lua"));
    EXPECT_EQ((Names{"app.name"}), dom->Keys("app.name"));
    EXPECT_EQ(Names(), dom->Keys("app.na"));
    EXPECT_EQ(Names(), dom->Keys("c"));
}

TEST(Dom, KeysOfNothingListsAllInBytewiseOrder)
{
    const auto dom = NewDomain();
    for (const char* key : {"b", "\xC3\xA9", "B", "a.b", "a-b", "a"})
        dom->Set(key, 1);
    EXPECT_EQ((Names{"B", "a", "a-b", "a.b", "b", "\xC3\xA9"}), dom->Keys(""));
}

TEST(Dom, AViewNamesWhatLiesBelowItsName)
{
    const auto dom = NewDomain();
    const auto view = ViewOf(*dom, "app");
    dom->Set("app", "itself");
    dom->Set("app.name", "n");
    dom->Set("apparatus", 1);
    view->Set("lua.path", "p");

    EXPECT_EQ("n", view->Get("name"));
    EXPECT_EQ("p", dom->Get("app.lua.path"));
    EXPECT_TRUE(view->Has("lua.path"));
    EXPECT_EQ((Names{"lua.path", "name"}), view->Keys(""));
    EXPECT_EQ((Names{"lua.path"}), view->Keys("lua"));
    view->Remove("name");
    EXPECT_FALSE(dom->Has("app.name"));
}

TEST(Dom, AViewOfAViewNestsTheNames)
{
    const auto dom = NewDomain();
    const auto app = ViewOf(*dom, "app");
    const auto lua = ViewOf(*app, "lua");
    lua->Set("path", "p");
    EXPECT_EQ("p", dom->Get("app.lua.path"));
    EXPECT_EQ(Names{"path"}, lua->Keys(""));
}

TEST(Dom, AViewOutlivesTheDomainItWasMadeFrom)
{
    auto dom = NewDomain();
    const auto view = ViewOf(*dom, "app");
    dom.reset();
    view->Set("name", "n");
    EXPECT_EQ("n", view->Get("name"));
}

TEST(Dom, NewTellsWhetherNamesBelowExisted)
{
    const auto dom = NewDomain();
    dom->Set("apparatus", 1);
    bool existed = true;
    ViewOf(*dom, "app", &existed);
    EXPECT_FALSE(existed);

    dom->Set("app.name", 1);
    ViewOf(*dom, "app", &existed);
    EXPECT_TRUE(existed);

    delete CDom::New(nullptr, nullptr, &existed, true);
    EXPECT_FALSE(existed);
}

TEST(Dom, AValueOfTheNameItselfIsNotBelowTheName)
{
    const auto dom = NewDomain();
    dom->Set("app", 1);
    bool existed = true;
    ViewOf(*dom, "app", &existed);
    EXPECT_FALSE(existed);
}

TEST(Dom, OnlyAStoreThatIsNotIsolatedBecomesTheRoot)
{
    ASSERT_EQ(nullptr, CDom::Root());
    const auto isolated = NewDomain();
    EXPECT_EQ(nullptr, CDom::Root());
    {
        const auto root = NewRootDomain();
        EXPECT_EQ(root.get(), CDom::Root());
        const std::unique_ptr<CDom> view(CDom::New("app", root.get(), nullptr, false));
        EXPECT_EQ(root.get(), CDom::Root());
    }
    EXPECT_EQ(nullptr, CDom::Root());
}

TEST(Dom, AFormerRootDoesNotTakeTheNewOneWithIt)
{
    auto first = NewRootDomain();
    const auto second = NewRootDomain();
    EXPECT_EQ(second.get(), CDom::Root());
    first.reset();
    EXPECT_EQ(second.get(), CDom::Root());
}

TEST(Dom, TheGenerationMovesWithTheSettingsThatLogAndTraceFollow)
{
    std::uint64_t before = CDom::SettingsGeneration();
    const auto moved = [&before] {
        const std::uint64_t now = CDom::SettingsGeneration();
        const bool hasMoved = now != before;
        before = now;
        return hasMoved;
    };

    auto root = NewRootDomain();
    EXPECT_TRUE(moved());
    for (const char* key : {"app.trace", "app.trace+", "app.path.work", "app.name"}) {
        root->Set(key, "value");
        EXPECT_TRUE(moved()) << key;
        root->Remove(key);
        EXPECT_TRUE(moved()) << key;
    }
    ViewOf(*root, "app")->Set("trace", "value");
    EXPECT_TRUE(moved());
    for (const char* key : {"app.traces", "app.path.bin", "trace", "app"}) {
        root->Set(key, "value");
        EXPECT_FALSE(moved()) << key;
    }
    root.reset();
    EXPECT_TRUE(moved());
}

TEST(Dom, PluginFoldersLieInTheWorkFolderWhicheverViewIsAsked)
{
    const VelTest::CTempFolder folder;
    const auto dom = NewDomain();
    dom->Set("app.path.work", folder.Path());
    const wxString expected = VelCore::FromUtf8(folder / "diag");
    EXPECT_EQ(expected, dom->GetPluginWorkdirWx(L"diag"));
    EXPECT_EQ(expected, ViewOf(*dom, "app")->GetPluginWorkdirWx(L"diag"));
    EXPECT_FALSE(VelTest::Exists(folder / "diag")) << "made before it is used";
}

TEST(Dom, PluginFoldersFollowTheWorkFolder)
{
    const auto dom = NewDomain();
    dom->Set("app.path.work", "/one");
    EXPECT_EQ(L"/one/p", dom->GetPluginWorkdirWx(L"p"));
    dom->Set("app.path.work", "/two");
    EXPECT_EQ(L"/two/p", dom->GetPluginWorkdirWx(L"p"));
}

TEST(Dom, ReadersNeverSeeHalfAWrite)
{
    const auto dom = NewDomain();
    const std::string first(1000, 'a');
    const std::string second(3000, 'b');
    dom->Set("key", first);

    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::atomic<int> reads{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            do {
                const std::string text = dom->Get("key");
                if (text != first && text != second && text != "7" && text != "0.5" && text != "true")
                    ++torn;
                ++reads;
            } while (!stop);
        });
    }
    std::vector<std::thread> writers;
    for (int i = 0; i < 2; ++i) {
        writers.emplace_back([&] {
            for (int round = 0; round < 3000; ++round) {
                dom->Set("key", first);
                dom->Set("key", 7);
                dom->Set("key", second);
                dom->Set("key", 0.5);
                dom->Set("key", true);
            }
        });
    }
    for (std::thread& writer : writers)
        writer.join();
    stop = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(0, torn);
    EXPECT_GE(reads, 2);
}

TEST(Dom, NamesThatOthersAddAndRemoveDoNotDisturbAListing)
{
    const auto dom = NewDomain();
    dom->Set("stay.1", 1);
    dom->Set("stay.2", 2);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; !stop; ++i) {
            const std::string key = "come." + std::to_string(i % 200);
            dom->Set(key, i);
            dom->Remove(key);
        }
    });
    for (int i = 0; i < 500; ++i)
        EXPECT_EQ((Names{"stay.1", "stay.2"}), dom->Keys("stay"));
    stop = true;
    writer.join();
    EXPECT_EQ((Names{"stay.1", "stay.2"}), dom->Keys(""));
}

} // namespace

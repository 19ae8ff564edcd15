// The notes, in memory that exists before anything goes wrong.
//
// Tested by: unit/core/crash/CrashNotesTest.cpp.

#include "crash/CrashNotes.h"

#include <mutex>

#include <VelCore/CrashHandler.h>

#include "crash/SharedText.h"

namespace VelCore {
namespace {

struct Note
{
    SharedText<64> name;
    SharedText<1024> value;
};

const int kMostNotes = 32;

Note g_notes[kMostNotes];
std::atomic<int> g_count{0};
std::mutex g_mutex; // of those who write

} // namespace

void NoteForCrash(std::string_view name, std::string_view value)
{
    const std::lock_guard lock(g_mutex);
    const int count = g_count.load();
    for (int index = 0; index < count; ++index) {
        if (g_notes[index].name.Get() == name) {
            g_notes[index].value.Set(value);
            return;
        }
    }
    if (count == kMostNotes)
        return;
    g_notes[count].name.Set(name);
    g_notes[count].value.Set(value);
    g_count.store(count + 1);
}

void AddCrashNotes(CTextBuffer& text)
{
    const int count = g_count.load();
    for (int index = 0; index < count; ++index)
        text.Add(g_notes[index].name.Get()).Add("=").AddEscaped(g_notes[index].value.Get()).Add("\n");
}

} // namespace VelCore
